// A session with a host, driven by hand: nobody waits for its deadlines.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <random>

#include "ServerTest.h"
#include "remote/channel/Compressor.h"
#include "remote/channel/Session.h"

static std::atomic<std::size_t> largest_allocation{SIZE_MAX};

// Not inlined: the compiler would see one half of a pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (size > largest_allocation) throw std::bad_alloc();
    return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace remote::test {

using namespace std::chrono_literals;

// With one device, whose id is 1 once the session has taken a greeting.
class Channel {
  public:
    Channel() { slots_.push_back({.device = std::unique_ptr<Device>(device), .number = 1}); }

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
        std::string output;
        while (session_.WritableFd() >= 0) {
            session_.OnWritable();
            output += link_.ours.ReadSome();
        }
        return output;
    }

    EagerDevice* const device = new EagerDevice("disk");

  private:
    Link link_;
    std::list<Slot> slots_ = {};
    Session session_{{std::move(link_.theirs), {}}, slots_, false};
};

TEST(Channel, AHostAtFaultIsToldWhy) {
    const std::string good = SubmitOut(1, std::string(100, 'x'));
    const std::string deflated = Deflated(good);
    const auto forward = [](std::string_view data, std::uint32_t rawsize = 0) {
        return kGreeting + ForwardMessage(1, data, rawsize);
    };
    const auto message = [&](std::size_t offset, std::uint32_t value) {
        return kGreeting + ForwardMessage(1, good).replace(offset, 4, ::Bytes(value));
    };
    const auto pdu = [&](std::size_t offset, std::uint32_t value) {
        return forward(With(offset, value, good));
    };
    const std::string huge = ::Bytes(_MESSAGE_HEADER{200U << 20, kUsbipChannel, {}}) + kMegabyte;
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"silence", "", "host does not answer the version request"},
        {"too much for our memory", kGreeting + huge + kMegabyte, "Cannot allocate memory"},
        {"another version", With(16, 4 << 24, kGreeting), "version 4, and this remote side"},
        {"outer length one too long", message(0, kMaxMessage - 7), "announces"},
        {"outer length longer than the stream", message(0, 173), "host stops in the middle"},
        {"outer length 0", message(0, 0), "message of 8 bytes"},
        {"other channel", message(4, 0x0C), "channel 12"},
        {"inner length one too long", message(8, 165), "inner message announces"},
        {"inner length without an id", message(8, 3), "payload of 3"},
        {"inner length within the fields", message(8, 11), "forward too short"},
        {"version request from a host", message(12, 1), "type 1"},
        {"datasize beyond the filler", message(20, 153), "announces 153"},
        {"datasize one short", message(20, 147), "PDU of 147 bytes announces 148"},
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
        EXPECT_TRUE(session.Over() && session.Failed() && !channel.device->Attached());
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
    EXPECT_LT(channel.device->taken.size(), 32 * sizeof(usbip_header)) << "replies are hoarded";
    EXPECT_TRUE(channel.Output().ends_with(replies));
    EXPECT_TRUE(session.Deadline());
}

TEST(Channel, EndsWhenAllIsSentAndConfirmedAndSoonWithoutTheConfirmation) {
    for (const bool confirms : {true, false}) {
        Channel channel;
        Session& session = channel.Take(kGreeting, 7);
        EXPECT_FALSE(session.Deadline()) << "a host may be silent";
        session.Close();
        if (confirms) channel.Take(UnmapMessage(1));
        EXPECT_FALSE(session.Over()) << "with output left to write";
        EXPECT_TRUE(channel.Output().ends_with(UnmapMessage(1)));
        EXPECT_EQ(session.Over(), confirms);
        if (!confirms) session.OnDeadline();
        EXPECT_TRUE(session.Over() && !session.Failed());
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

}  // namespace remote::test
