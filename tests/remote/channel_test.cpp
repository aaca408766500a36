// A session with a host, driven by hand: nobody waits for its deadlines.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <tuple>

#include "ServerTest.h"
#include "remote/channel/Compressor.h"
#include "remote/channel/Session.h"

namespace {
std::atomic<std::size_t> largest_allocation{SIZE_MAX};
}  // namespace

// Not inlined: the compiler would see one half of a pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = size <= largest_allocation ? std::malloc(size) : nullptr;
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace remote::test {
namespace {

using namespace std::chrono_literals;

// With one device, whose id is 1 once the session has taken a greeting.
class Channel {
  public:
    // Lets the session take these bytes, in pieces, as far as it does. Returns it.
    Session& Take(std::string_view bytes, std::size_t piece = SIZE_MAX) {
        while (!bytes.empty() && !session_.Over()) {
            const std::string_view next = bytes.substr(0, piece);
            const ssize_t sent = send(link_.ours.Get(), next.data(), next.size(), MSG_DONTWAIT);
            if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
            session_.OnReadable();
        }
        return session_;
    }
    // All that the session has to send.
    std::string Output() {
        std::string output, scrap(1 << 20, '\0');
        while (session_.WritableFd() >= 0) {
            session_.OnWritable();
            for (ssize_t count = 0;
                 (count = recv(link_.ours.Get(), scrap.data(), scrap.size(), MSG_DONTWAIT)) > 0;)
                output.append(scrap, 0, static_cast<std::size_t>(count));
        }
        return output;
    }
    const std::string& Taken() const { return device_.taken; }

  private:
    Link link_;
    std::list<Slot> slots_ = [] {
        std::list<Slot> slots;
        slots.push_back({.device = std::make_unique<EagerDevice>("disk"), .number = 1});
        return slots;
    }();
    const EagerDevice& device_ = static_cast<EagerDevice&>(*slots_.front().device);
    Session session_{{std::move(link_.theirs), {}}, slots_, false};
};

TEST(Channel, MessagesComeOutWholeInPiecesOfAnySize) {
    std::string stream = kGreeting, pdus;
    for (const std::string& pdu :
         {SubmitOut(1, "data"), SubmitOut(2, kMegabyte.substr(0, 300'000)), Unlink(3)}) {
        stream += ForwardMessage(1, pdu) + CompressedForward(1, pdu);
        pdus += pdu + pdu;
    }
    for (const std::size_t piece : {1UL, 7UL, 48UL, stream.size()}) {
        Channel channel;
        EXPECT_FALSE(channel.Take(stream, piece).Over());
        EXPECT_TRUE(channel.Taken() == pdus) << piece;
    }
}

TEST(Channel, AHostAtFaultIsToldWhy) {
    const std::string good = SubmitOut(1, std::string(100, 'x'));
    const std::string deflated = Deflated(good);
    const auto forward = [](std::string_view data, std::uint32_t rawsize = 0) {
        return kGreeting + ForwardMessage(1, data, rawsize);
    };
    const auto message = [&](std::size_t offset,
                             std::uint32_t value) {  // not big-endian as in PDUs
        return kGreeting + With(offset, htobe32(htole32(value)), ForwardMessage(1, good));
    };
    const auto pdu = [&](std::size_t offset, std::uint32_t value) {
        return forward(With(offset, value, good));
    };
    const std::string huge = ::Bytes(_MESSAGE_HEADER{200U << 20, kUsbipChannel, {}}) + kMegabyte;
    const std::string unfinished = "host stops in the middle of a message";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"silence", "", "host does not answer the version request"},
        {"half a greeting", kGreeting.substr(1), "host does not answer the version request"},
        {"half a message", kGreeting + huge.substr(0, 9), unfinished},
        {"more than there is memory for", kGreeting + huge + kMegabyte,
         "cannot read from the host: Cannot allocate memory"},
        {"another version", ::Message(kUsbipVersionRsp, ::Bytes(std::uint32_t{4})),
         "host speaks protocol version 4, and this remote side version 3"},
        {"outer length one too long", message(0, kMaxMessage - 7), "announces"},
        {"outer length longer than the stream", message(0, 173), unfinished},
        {"outer length 0", message(0, 0), "message of 8 bytes"},
        {"other channel", message(4, 0x0C), "channel 12"},
        {"inner length of 4 GiB", message(8, 0xFFFFFFFF), "inner message announces"},
        {"inner length one too long", message(8, 165), "inner message announces"},
        {"inner length without an id", message(8, 3), "payload of 3"},
        {"inner length within the fields", message(8, 11), "forward too short"},
        {"version request from a host", message(12, 1), "type 1"},
        {"datasize of 4 GiB", message(20, 0xFFFFFFFF), "announces 4294967295"},
        {"datasize beyond the filler", message(20, 153), "announces 153"},
        {"datasize one short", message(20, 147), "PDU of 147 bytes announces 148"},
        {"no PDU", forward({}), "PDU of 0 bytes"},
        {"half a header", forward(good.substr(0, 47)), "shorter than its header"},
        {"a reply", pdu(0, USBIP_RET_SUBMIT), "unknown command 3"},
        {"4 billion iso packets", pdu(32, 0xFFFFFFFE), "announces 68719476852"},
        {"an unlink with data", pdu(0, USBIP_CMD_UNLINK), "PDU of 148 bytes announces 48"},
        {"rawsize above the limit", forward(deflated, kMaxRawSize + 1), "inflates to"},
        {"rawsize too long", forward(deflated, 149), "not 149 bytes"},
        {"no zlib stream", forward(good, 148), "damaged"},
        {"bytes behind the zlib stream", forward(deflated + "more", 148), "damaged"},
    };
    largest_allocation = kMegabyte.size();
    for (const auto& [what, bytes, reason] : cases) {
        SCOPED_TRACE(what);
        testing::internal::CaptureStderr();
        Channel channel;
        Session& session = channel.Take(bytes);
        if (!session.Over()) {
            EXPECT_LE(session.Deadline().value(), Clock::now() + 30s);
            session.OnDeadline();
        }
        EXPECT_TRUE(session.Over() && session.Failed());
        ExpectIn(testing::internal::GetCapturedStderr(), reason);
    }
    largest_allocation = SIZE_MAX;
}

// All have been received when the output is full.
TEST(Channel, CommandsWaitWhileThereIsNoRoomForRepliesAndAreNotLate) {
    std::string commands = kGreeting, replies;
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum) {
        commands += ForwardMessage(1, SubmitIn(seqnum, 1 << 20));
        replies += ForwardMessage(1, EagerDevice::Answer(seqnum, 1 << 20));
    }
    Channel channel;
    const Session& session = channel.Take(commands + kGreeting.substr(1));
    EXPECT_TRUE(session.Congested() && session.ReadableFd() < 0);
    EXPECT_FALSE(session.Deadline()) << "we are the reason that it does not go on";
    EXPECT_LT(channel.Taken().size(), 32 * sizeof(usbip_header)) << "replies are hoarded";
    EXPECT_TRUE(channel.Output().ends_with(replies));
    EXPECT_TRUE(session.Deadline());
}

TEST(Channel, WaitsForTheHostsConfirmationButNotForEver) {
    for (const bool confirms : {true, false}) {
        Channel channel;
        Session& session = channel.Take(kGreeting);
        EXPECT_FALSE(session.Deadline()) << "a host may be silent";
        session.Close();
        channel.Output();
        EXPECT_FALSE(session.Over());
        EXPECT_GT(session.Deadline(), Clock::now());
        if (!confirms) session.OnDeadline();
        channel.Take(UnmapMessage(1));  // if it still listens
        EXPECT_TRUE(session.Over());
        EXPECT_FALSE(session.Failed());
    }
}

TEST(Compressor, LeavesAloneWhatDoesNotShrinkAndTriesAgainLater) {
    Compressor compressor;
    const Bytes text(8000, 'x');
    Bytes noise(8000);
    std::generate(noise.begin(), noise.end(), std::minstd_rand());
    EXPECT_FALSE(compressor.Compress(text).empty());
    EXPECT_TRUE(compressor.Compress(noise).empty());
    for (unsigned i = 0; i < Compressor::kPause; ++i)
        EXPECT_TRUE(compressor.Compress(text).empty()) << i;
    const ByteView again = compressor.Compress(text);
    Bytes inflated(text.size());
    uLongf length = inflated.size();
    EXPECT_EQ(uncompress(inflated.data(), &length, again.data(), again.size()), Z_OK);
    EXPECT_EQ(inflated, text);
}

}  // namespace
}  // namespace remote::test
