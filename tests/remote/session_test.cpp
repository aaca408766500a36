// The server and its session with a host: over a socket pair and over a real Unix socket.
#include <sys/un.h>

#include <atomic>
#include <regex>
#include <tuple>

#include "ServerTest.h"
#include "remote/device/Reply.h"

namespace remote::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kStalled = 15;  // endpoint

// Answers every URB at once, with as many bytes as there is room for.
class EagerDevice : public Device {
  public:
    explicit EagerDevice(const std::string& name) : info_{name, UsbSpeed::kHigh, 1, 2} {}
    const DeviceInfo& Info() const override { return info_; }
    void Attach(ReplySink& sink) override { sink_ = &sink; }
    void Detach() override { sink_ = nullptr; }
    void TakeCommand(const Command& command) override {
        ++commands;
        if (command.unlinks) return sink_->Reply(RetUnlink(command.seqnum, 0));
        const int status = command.endpoint == kStalled ? -EPIPE : 0;
        remote::Bytes reply = RoomForReply();
        reply.resize(reply.size() + command.length, 'x');
        sink_->Reply(RetSubmit({command.seqnum, status, command.length}, std::move(reply)));
    }

    static inline std::atomic<int> commands{0};

  private:
    const DeviceInfo info_;
    ReplySink* sink_ = nullptr;
};

std::string Answer(std::uint32_t seqnum, std::uint32_t length) {
    return SubmitReply(seqnum, length, std::string(length, 'x'));
}

class SessionTest : public ServerTest {
  protected:
    void Add(const std::string& name) { devices_.push_back(std::make_unique<EagerDevice>(name)); }
    static void ExpectWorks(const Host& host, std::uint32_t devid, std::uint32_t length = 8) {
        host.Forward(devid, SubmitIn(devid, length));
        EXPECT_TRUE(host.Reply(devid) == Answer(devid, length));
    }
    // A socket after bind or connect to the path.
    Host Socket(int (*call)(int, const sockaddr*, socklen_t)) const {
        sockaddr_un address{AF_UNIX, {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        Host host(socket(AF_UNIX, SOCK_STREAM, 0));
        EXPECT_EQ(call(host.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return host;
    }

    const std::string path_ = testing::TempDir() + "session-" + std::to_string(getpid());
};

TEST_F(SessionTest, DevicesComeAndGoAndComeBackWithAFreshId) {
    testing::internal::CaptureStderr();
    Add("disk1");
    Add("disk2");
    EXPECT_EQ(ServeHost(true), kVersionFlagCompress);
    EXPECT_EQ(host_.Mapped().devid, 1U);
    EXPECT_EQ(host_.Mapped().devid, 2U);
    ExpectAnswer("unplug 1", "unplugged 1");
    EXPECT_EQ(host_.Unmapped(), 1U);
    ExpectAnswer("plug 1", "plugged 1");
    EXPECT_EQ(host_.Mapped().devid, 3U);
    // What was on its way for the old mapping, its end included, does not reach the new one. A
    // second greeting changes nothing, nor does the end of what was never there.
    host_.Write(ForwardMessage(1, Unlink(50)) + UnmapMessage(1) + kGreeting + UnmapMessage(77));
    ExpectWorks(host_, 3);
    host_.Write(UnmapMessage(2));  // it has ended at the host
    EXPECT_EQ(host_.Unmapped(), 2U);
    ExpectAnswer("list", "1 mapped disk1\n2 plugged disk2");
    ExpectAnswer("plug 2", "plugged 2");
    EXPECT_EQ(host_.Mapped().devid, 4U);
    for (const std::string number : {"0", "3", "-1", "1x", ""})
        ExpectAnswer("unplug " + number, "error: no device " + number);
    ExpectAnswer("eject", "error: unknown command; there are: list, plug N, unplug N, quit");

    constexpr std::uint32_t kLongestPlain = kCompressThreshold - sizeof(usbip_header);
    ExpectWorks(host_, 4, kLongestPlain);
    const std::string command = SubmitOut(5, kMegabyte.substr(0, kLongestPlain + 1));
    host_.Write(CompressedForward(4, command));
    EXPECT_EQ(host_.Reply(4, true), Answer(5, kLongestPlain + 1));
    for (const std::string& pdu : {With(kEndpoint, kStalled, SubmitIn(6, 0)), Unlink(7)}) {
        host_.Forward(4, pdu);
        host_.Reply(4);
    }
    Signal(SIGUSR1);
    const Stopwatch elapsed;
    Signal(SIGTERM);
    EXPECT_EQ(host_.Unmapped(), 3U);
    EXPECT_EQ(host_.Unmapped(), 4U);
    host_.Write(UnmapMessage(3));
    EXPECT_FALSE(host_.Comes(50ms)) << "gone before the host has confirmed all";
    host_.Write(UnmapMessage(4));
    EXPECT_TRUE(host_.Closed());
    EXPECT_TRUE(Finish());
    EXPECT_LT(elapsed.Milliseconds(), 1500) << "waited for a confirmation that had come";
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::regex_replace(log, std::regex("xj-usbip-remote: "), ""), R"(host connected
host speaks protocol version 3
device 1 mapped with id 1: disk1
device 2 mapped with id 2: disk2
device 1 unmapped
device 1 mapped with id 3: disk1
host reports the end of device id 77, which is not mapped
device 2 has ended at the host
device 2 mapped with id 4: disk2
device 1: URBs in 1 out 0, bytes in 8 out 0, unlinks 0, stalls 0, messages compressed 0 plain 2
device 2: URBs in 2 out 1, bytes in 8097 out 4049, unlinks 1, stalls 1, messages compressed 2 plain 6
device 1 unmapped
device 2 unmapped
connection closed
)");
}

// The commands have all been read when the output is full.
TEST_F(SessionTest, CommandsWaitWhileThereIsNoRoomForReplies) {
    Add(std::string(300, 'n'));
    ServeHost();
    EXPECT_EQ(host_.Mapped().dev.instanceid, std::string(255, 'n')) << "the name keeps its end";
    std::string commands;
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
        commands += ForwardMessage(1, SubmitIn(seqnum, 1 << 20));
    EagerDevice::commands = 0;
    host_.Write(commands);
    EXPECT_TRUE(host_.Comes());
    EXPECT_LT(EagerDevice::commands, 32) << "replies are hoarded";
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
        EXPECT_TRUE(host_.Reply(1) == Answer(seqnum, 1 << 20)) << seqnum;
    host_.Write("half a message");
    shutdown(host_.Get(), SHUT_WR);
    EXPECT_FALSE(Finish()) << "the host was at fault";
}

TEST_F(SessionTest, HoweverAHostGoesTheNextOneIsServed) {
    Socket(bind);
    std::string error;
    listener_ = Listener::Open({posix::Address::Kind::Unix, path_}, error);
    ASSERT_TRUE(listener_) << "a socket that nobody listens at is in the way: " << error;
    EXPECT_FALSE(Listener::Open({posix::Address::Kind::Unix, path_}, error))
        << "took the socket of a living program";
    Add("disk1");
    Add("disk2");
    Serve();
    ExpectAnswer("unplug 2", "unplugged 2");
    const std::tuple<const char*, bool, std::string> cases[] = {
        {"it leaves", true, ""},
        {"noise instead of a version", false, std::string(64, 'G')},
        {"length of 4 GiB", true, std::string(64, '\xFF')},
        {"a PDU that is none", true, ForwardMessage(1, std::string(47, '\0'))},
    };
    const auto expect_served = [](const Host& host) {
        EXPECT_EQ(host.Greet(), 0U) << "no compression asked for";
        EXPECT_EQ(host.Mapped().devid, 1U);
        ExpectWorks(host, 1);
    };
    for (const auto& [how, greets, last] : cases) {
        SCOPED_TRACE(how);
        const Host host = Socket(connect);
        if (greets) expect_served(host);
        host.Write(last);
        if (last.empty()) shutdown(host.Get(), SHUT_WR);
        EXPECT_TRUE(host.Closed());
    }
    const Host host = Socket(connect);
    expect_served(host);
    ExpectAnswer("quit", "quitting");
    EXPECT_EQ(host.Unmapped(), 1U);
    EXPECT_TRUE(host.Closed()) << "soon, without the confirmation";
    EXPECT_TRUE(Finish());
}

// Driven by hand: nobody waits for the deadlines.
TEST(Session, HasABoundForWhatTheHostMustDoAndNoOther) {
    for (const bool greets : {false, true}) {
        std::list<Slot> slots;
        Link link;
        Session session({std::move(link.theirs), {}}, slots, false);
        EXPECT_GT(session.Deadline(), Clock::now()) << "for the greeting";
        if (greets) {
            link.ours.Write(kGreeting);
            session.OnReadable();
            EXPECT_FALSE(session.Deadline());
            session.Close();
            EXPECT_GT(session.Deadline(), Clock::now()) << "for the confirmation";
        }
        session.OnDeadline();
        EXPECT_TRUE(session.Over());
        EXPECT_EQ(session.Failed(), !greets);
    }
}

}  // namespace
}  // namespace remote::test
