#include "bench/relay/Lean.h"

#include <poll.h>

#include <algorithm>

#include "bench/relay/Bytes.h"
#include "wire/ChannelMessages.h"
#include "wire/UsbipPdu.h"

namespace {

// Of the system's limit for one call, with the three pieces that a message may have.
constexpr std::size_t kMostPdus = 256;

// Of the PDU or message at the front; of its header as long as not even that is there.
std::size_t PduSize(std::string_view bytes) {
    if (bytes.size() < sizeof(usbip_header)) return sizeof(usbip_header);
    return UsbipCommandLength(UsbipHeaderOf(bytes)).value_or(UsbipPduLength{}).Total();
}
std::size_t MessageSize(std::string_view bytes) {
    if (bytes.size() < sizeof(usbip_forward)) return sizeof(usbip_forward);
    std::uint32_t length = 0;
    bytes.copy(reinterpret_cast<char*>(&length), sizeof length);
    return sizeof(_MESSAGE_HEADER) + length;
}

iovec Piece(const void* data, std::size_t size) {
    return {const_cast<void*>(data), size};
}

}  // namespace

Lean::Lean(int stream, const std::vector<int>& devices) : stream_(stream), devices_(devices) {}

Lean::~Lean() {
    shutdown(stream_, SHUT_RDWR);
    for (const int device : devices_)
        shutdown(device, SHUT_RDWR);
    to_remote_.join();
    to_kernel_.join();
}

void Lean::ToRemote() const {
    static constexpr char kFiller[kForwardFiller] = {};
    std::vector<Reader> readers(devices_.begin(), devices_.end());
    std::vector<pollfd> polled;
    for (const int device : devices_)
        polled.push_back({device, POLLIN, 0});
    std::vector<usbip_forward> forwards(kMostPdus);
    std::vector<iovec> pieces;
    for (;;) {
        if (polled.size() > 1) poll(polled.data(), polled.size(), -1);
        for (std::uint32_t i = 0; i < readers.size(); ++i) {
            Reader& reader = readers[i];
            if (polled.size() > 1 && polled[i].revents == 0) continue;
            if (!reader.Fill(PduSize(reader.Bytes()))) return;
            for (std::size_t size = 0; (size = PduSize(reader.Bytes())) <= reader.Bytes().size();) {
                usbip_forward& forward = forwards[pieces.size() / 3];
                forward = {MakeMessageHead(kUsbipForward, size + kForwardOverhead), i,
                           static_cast<std::uint32_t>(size), 0};
                pieces.push_back(Piece(&forward, sizeof forward));
                pieces.push_back(Piece(reader.Bytes().data(), size));
                pieces.push_back(Piece(kFiller, sizeof kFiller));
                reader.Take(size);
                if (pieces.size() / 3 < kMostPdus) continue;
                if (!SendAll(stream_, pieces)) return;
                pieces.clear();
            }
            if (!SendAll(stream_, pieces)) return;
            pieces.clear();
        }
    }
}

void Lean::ToKernel() const {
    Reader reader(stream_);
    std::vector<iovec> pieces;
    std::uint32_t to = 0;  // where the pieces go
    const auto send = [&] {
        const bool sent = SendAll(devices_[to], pieces);
        pieces.clear();
        return sent;
    };
    while (reader.Fill(MessageSize(reader.Bytes()))) {
        for (std::size_t size = 0; (size = MessageSize(reader.Bytes())) <= reader.Bytes().size();) {
            usbip_forward forward;
            std::copy_n(reader.Bytes().data(), sizeof forward, reinterpret_cast<char*>(&forward));
            if (forward.devid >= devices_.size() || forward.datasize > size - kForwardOverhead)
                return;
            if ((forward.devid != to || pieces.size() == kMostPdus) && !send()) return;
            to = forward.devid;
            pieces.push_back(Piece(reader.Bytes().data() + sizeof forward, forward.datasize));
            reader.Take(size);
        }
        if (!send()) return;
    }
}
