// Cuts the host stream into messages and hands each to the handler that a message map names.
#pragma once

#include <cstddef>
#include <cstring>

#include "base/Buffer.h"
#include "wire/ChannelMessages.h"
#include "xj-client-usbip/PluginAbi.h"

// Matches complete messages against the deriving class's map. `Header` has the fields `length` and
// `type`; `Arg` is passed through to the handlers; `MaxDepth` is the deepest nesting of headers.
// Stateless: any thread. Part of the plug-in's ABI: the order of virtual operations is fixed.
template <typename Header, typename Arg, int MaxDepth, typename Length, typename Result>
class CMessageSeparation_T {
    static_assert(MaxDepth == 2, "matching is written for an outer and an inner header");

  public:
    using Handler = Result (CMessageSeparation_T::*)(const void* payload, Length length, Arg arg);

    // A map is an array of these, ended by one without a handler.
    struct _MESSAGE_MAP_ENTRY {
        unsigned char type[MaxDepth];  // one header type per level, outermost first
        unsigned long depth;           // number of levels that must match: 1 or 2
        Handler handler;
    };

    virtual ~CMessageSeparation_T() = default;

    // The first entry, and the size of one in `entrySize`. Null: nothing is ever dispatched.
    virtual const _MESSAGE_MAP_ENTRY* GetSeparationMessageMap(unsigned long& /*entrySize*/) const {
        return nullptr;
    }

    // Called for the first entry that matches; `index` is its row.
    virtual Result OnSeparationMessage(int /*index*/, const void* /*payload*/, Length /*length*/,
                                       Arg /*arg*/) {
        return false;
    }

    // `data` is one complete message of `size` bytes, outer header included. Returns the handler's
    // result, or false when nothing was dispatched.
    virtual Result SeparationMessage(const void* data, Length size, Arg arg) {
        if (data == nullptr || size < sizeof(Header)) return false;
        unsigned long entrySize = 0;
        const auto* row =
            reinterpret_cast<const unsigned char*>(GetSeparationMessageMap(entrySize));
        if (row == nullptr) return false;

        Header headers[MaxDepth] = {};
        const bool has_inner = size >= sizeof headers;
        std::memcpy(headers, data, has_inner ? sizeof headers : sizeof(Header));

        for (int index = 0;; ++index, row += entrySize) {
            const auto& entry = *reinterpret_cast<const _MESSAGE_MAP_ENTRY*>(row);
            if (entry.handler == nullptr || entry.depth < 1 || entry.depth > MaxDepth) return false;
            if (entry.type[0] != headers[0].type) continue;
            if (entry.depth == 2 && (!has_inner || entry.type[1] != headers[1].type)) continue;

            const Length offset = sizeof(Header) * entry.depth;
            const Length length = headers[entry.depth - 1].length;
            if (size - offset < length) return false;
            return OnSeparationMessage(index, static_cast<const unsigned char*>(data) + offset,
                                       length, arg);
        }
    }
};

inline constexpr long kSeparationNoStream = 0x8000FFFF;

// Reads messages until the stream fails or no buffer can be had, and hands each to
// target->SeparationMessage. Every read asks only for what the current header or message still
// lacks, so nothing is carried over between messages. Borrows all three arguments.
//
// The claimed length is trusted only with address space: the buffer grows to it at once, but the
// system commits memory as bytes arrive. If it cannot grow, the header alone is dispatched (and
// matches nothing), and reading goes on behind it.
template <typename T>
long SeparationMessageLoop(IPluginStreamRaw* stream, IMemAlloctor* allocator, T* target) {
    if (stream == nullptr) return kSeparationNoStream;

    const auto read_some = [stream](IBuffer& buffer) {
        unsigned long got = 0;
        if (stream->Read(static_cast<char*>(buffer.GetPointer()) + buffer.GetSize(),
                         buffer.GetBufferSize() - buffer.GetSize(), &got, 0) != 0) {
            return false;
        }
        buffer.SetSize(buffer.GetSize() + got);
        return true;
    };

    for (;;) {
        const CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(sizeof(_MESSAGE_HEADER));
        if (!buffer) return 0;
        while (buffer->GetSize() < sizeof(_MESSAGE_HEADER)) {
            if (!read_some(*buffer)) return 0;
        }

        _MESSAGE_HEADER header;
        std::memcpy(&header, buffer->GetPointer(), sizeof header);
        if (header.length != 0) buffer->Realloc(sizeof header + std::size_t{header.length});
        while (buffer->GetSize() != buffer->GetBufferSize()) {
            if (!read_some(*buffer)) return 0;
        }
        target->SeparationMessage(buffer->GetPointer(), buffer->GetSize(), buffer.Get());
    }
}
