// Cutting the host stream into messages, and matching them against a message map.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/MemAlloctor.h"
#include "fakes/FakeHost.h"
#include "fakes/Messages.h"
#include "plugin/MessageSeparation.h"

namespace {

using Separation = CMessageSeparation_T<_MESSAGE_HEADER, IBuffer*, 2, unsigned long, bool>;
using Strings = std::vector<std::string>;

// Records what is dispatched: "row:payload", and the whole message behind it.
class Recorder : public Separation {
  public:
    const _MESSAGE_MAP_ENTRY* GetSeparationMessageMap(unsigned long& size) const override {
        static const auto some = static_cast<Handler>(&Recorder::Handle);
        // Of the row before the last, no such depth: it ends the walk.
        static const _MESSAGE_MAP_ENTRY map[] = {{{0x0B, 1}, 2, some}, {{0x0C, 0}, 1, some},
                                                 {{0x0B, 5}, 2, some}, {{0x0D, 0}, 3, some},
                                                 {{0x0E, 0}, 1, some}, {}};
        size = sizeof map[0];
        return map;
    }
    bool OnSeparationMessage(int index, const void* payload, unsigned long length,
                             IBuffer* message) override {
        dispatched.push_back(std::to_string(index) + ":" +
                             std::string(static_cast<const char*>(payload), length));
        if (message != nullptr) bytes += message->GetSize();
        return true;
    }
    bool Handle(const void*, unsigned long, IBuffer*) { return true; }

    Strings dispatched;
    unsigned long bytes = 0;
};

std::string Header(std::uint32_t length, std::uint8_t type) {
    return Bytes(_MESSAGE_HEADER{length, type, {}});
}

// Runs the reading loop over `bytes` to their end.
struct Loop {
    explicit Loop(const std::string& bytes, unsigned long read_block = 1 << 20,
                  CRefObj<IMemAlloctor> allocator = new CMemAlloctorEx<CMemBuffer>) {
        stream->SetReadBlock(read_block);
        stream->Feed(bytes);
        stream->End();
        result = SeparationMessageLoop(stream.Get(), allocator.Get(), &target);
    }
    CRefObj<FakeStream> stream{new FakeStream};
    Recorder target;
    long result = -1;
};

TEST(Separation, MatchesByTypeAndDepth) {
    const struct {
        const char* what;
        std::string message;
        Strings expected;
    } cases[] = {
        {"inner type of the first row", Message(1, "abc"), {"0:abc"}},
        {"inner type of a later row", Message(5, "xy"), {"2:xy"}},
        {"inner type not in the map", Message(2, "abc"), {}},
        {"one level", Header(3, 0x0C) + "abc", {"1:abc"}},
        {"one level, nothing behind the header", Header(0, 0x0C), {"1:"}},
        {"two levels wanted, 15 bytes there", Message(1, "").substr(0, 15), {}},
        {"inner length runs past the message", Message(1, "abc").substr(0, 18), {}},
        {"surplus behind the inner message", Message(1, "abc") + "rest", {"0:abc"}},
        {"lying outer length of one level", Header(4, 0x0C) + "abc", {}},
        {"row behind one of impossible depth", Header(0, 0x0E), {}},
        {"shorter than a header", std::string(7, '\x0C'), {}},
        {"empty", "", {}},
    };
    for (const auto& test : cases) {
        Recorder target;
        const bool result =
            target.SeparationMessage(test.message.data(), test.message.size(), nullptr);
        EXPECT_EQ(target.dispatched, test.expected) << test.what;
        EXPECT_EQ(result, !test.expected.empty()) << test.what;
    }
    EXPECT_FALSE(Separation().SeparationMessage("0123456789abcdef", 16, nullptr)) << "null map";
    EXPECT_FALSE(Recorder().SeparationMessage(nullptr, 16, nullptr)) << "null message";
}

TEST(StreamLoop, ReadsExactlyWhatIsMissing) {
    const std::string first = Message(1, "abc");
    const std::string second = Message(5, "longer than the first");
    const Loop loop(first + second);
    EXPECT_EQ(loop.target.dispatched, (Strings{"0:abc", "2:longer than the first"}));
    EXPECT_EQ(loop.target.bytes, first.size() + second.size());
    EXPECT_EQ(loop.stream->ReadRequests(),
              (std::vector<unsigned long>{8, first.size() - 8, 8, second.size() - 8, 8}));
}

TEST(StreamLoop, AnyBlockSizeYieldsTheSameMessages) {
    const std::string bytes = Message(1, "abc") + Header(0, 0x0C) + Header(0, 0x0B) +
                              Message(2, "dropped") + Message(1, "def") + "surplus";
    for (const unsigned long block : {1UL, 2UL, 3UL, 7UL, 8UL, 9UL, 1000UL}) {
        // The surplus is no message of its own: it only starts a header that never comes.
        const Loop loop(bytes, block);
        EXPECT_EQ(loop.target.dispatched, (Strings{"0:abc", "1:", "0:def"})) << block;
    }
}

TEST(StreamLoop, EndsWithinAMessageWithoutDispatchingIt) {
    const std::string message = Message(1, "abc");
    for (std::size_t length = 0; length < message.size(); ++length) {
        const Loop loop(message.substr(0, length));
        EXPECT_EQ(loop.target.dispatched, Strings()) << length;
        EXPECT_EQ(loop.result, 0) << length;
    }
    EXPECT_EQ(SeparationMessageLoop<Recorder>(nullptr, nullptr, nullptr), 0x8000FFFF);
}

// Buffers never grow, as when memory has run out.
class Cramped : public CMemAlloctorEx<CMemBuffer> {
  public:
    void* Realloc(IBuffer*, unsigned long) override { return nullptr; }
};

TEST(StreamLoop, GoesOnBehindTheHeaderWhenTheBufferCannotGrow) {
    const Loop loop(Message(1, "abc") + Header(0, 0x0C), 1000, new Cramped);
    // Outer header dropped, then inner header, then "abc" and five bytes of the last header.
    EXPECT_EQ(loop.target.dispatched, Strings());
    for (const unsigned long request : loop.stream->ReadRequests())
        EXPECT_LE(request, 8U);
}

TEST(StreamLoop, ALyingLengthCommitsNoMemory) {
    if (kSanitized) GTEST_SKIP() << "sanitizers commit memory of their own";
    const long before = PeakResidentKilobytes();
    const Loop loop(Header(0xFFFFFF00, 0x0B) + std::string(1000, 'x'));
    // Of 4 GiB claimed. An emulator keeps books of address space: 25 MiB for so much.
    EXPECT_LT(PeakResidentKilobytes() - before, 64 * 1024) << "kilobytes for 1008 bytes received";
    EXPECT_EQ(loop.target.dispatched, Strings());
}

}  // namespace
