// The server and its session with a host: over a socket pair and over a real Unix socket.
#include <sys/un.h>

#include <atomic>
#include <tuple>

#include "ServerTest.h"

namespace remote::test {
namespace {

using namespace std::chrono_literals;

// Replies to every command with the command itself and as many bytes as an IN transfer asks for.
class Echo : public Device {
  public:
    explicit Echo(const std::string& name) : info_{name, UsbSpeed::kHigh, 1, 2} {}
    const DeviceInfo& Info() const override { return info_; }
    void Attach(ReplySink& sink) override { sink_ = &sink; }
    void Detach() override { sink_ = nullptr; }
    void TakeCommand(const Command& command) override {
        ++commands;
        remote::Bytes reply(command.pdu.begin(), command.pdu.end());
        if (command.in) reply.resize(reply.size() + command.length, 'x');
        sink_->Reply(std::move(reply));
    }

    static inline std::atomic<int> commands{0};

  private:
    const DeviceInfo info_;
    ReplySink* sink_ = nullptr;
};

class SessionTest : public ServerTest {
  protected:
    void Add(const std::string& name) { devices_.push_back(std::make_unique<Echo>(name)); }
    static void ExpectEcho(const Host& host, std::uint32_t devid) {
        host.Forward(devid, Unlink(devid));
        EXPECT_EQ(host.Reply(devid), Unlink(devid));
    }
    // A socket after bind or connect to the path.
    Host With(int (*call)(int, const sockaddr*, socklen_t)) const {
        sockaddr_un address{AF_UNIX, {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        Host host(socket(AF_UNIX, SOCK_STREAM, 0));
        EXPECT_EQ(call(host.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return host;
    }

    const std::string path_ = testing::TempDir() + "session-" + std::to_string(getpid());
};

TEST_F(SessionTest, DevicesComeAndGoAndComeBackWithAFreshId) {
    Add("disk1");
    Add("disk2");
    EXPECT_EQ(ServeHost(true), kVersionFlagCompress);
    EXPECT_EQ(host_.Mapped().devid, 1U);
    EXPECT_EQ(host_.Mapped().devid, 2U);
    ExpectAnswer("unplug 1", "unplugged 1");
    EXPECT_EQ(host_.Unmapped(), 1U);
    ExpectAnswer("plug 1", "plugged 1");
    EXPECT_EQ(host_.Mapped().devid, 3U);
    // What was on its way for the old mapping, its end included, does not reach the new one.
    host_.Write(ForwardMessage(1, Unlink(50)) + UnmapMessage(1));
    ExpectEcho(host_, 3);
    host_.Write(UnmapMessage(2));  // it has ended at the host
    EXPECT_EQ(host_.Unmapped(), 2U);
    ExpectAnswer("list", "1 mapped disk1\n2 plugged disk2");
    ExpectAnswer("plug 2", "plugged 2");
    EXPECT_EQ(host_.Mapped().devid, 4U);
    for (const std::string number : {"0", "3", "-1", "1x", ""})
        ExpectAnswer("unplug " + number, "error: no device " + number);
    ExpectAnswer("eject", "error: unknown command; there are: list, plug N, unplug N, quit");
    const std::string pdu = SubmitOut(1, kMegabyte);
    host_.Write(ForwardMessage(4, Deflated(pdu), static_cast<std::uint32_t>(pdu.size())));
    EXPECT_TRUE(host_.Reply(4, pdu.size()) == Deflated(pdu));

    const Stopwatch elapsed;
    ExpectAnswer("quit", "quitting");
    EXPECT_EQ(host_.Unmapped(), 3U);
    EXPECT_EQ(host_.Unmapped(), 4U);
    host_.Write(UnmapMessage(3));
    EXPECT_FALSE(host_.Comes(50ms)) << "gone before the host has confirmed all";
    host_.Write(UnmapMessage(4));
    EXPECT_TRUE(host_.Closed());
    EXPECT_TRUE(Finish());
    EXPECT_LT(elapsed.Milliseconds(), 1500) << "waited for a confirmation that had come";
}

// The commands have all been read when the output is full.
TEST_F(SessionTest, CommandsWaitWhileThereIsNoRoomForReplies) {
    Add("disk");
    ServeHost();
    host_.Mapped();
    std::string commands;
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
        commands += ForwardMessage(1, SubmitIn(seqnum, 1 << 20));
    Echo::commands = 0;
    host_.Write(commands);
    EXPECT_TRUE(host_.Comes());
    EXPECT_LT(Echo::commands, 32) << "replies are hoarded";
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
        EXPECT_TRUE(host_.Reply(1) == SubmitIn(seqnum, 1 << 20) + kMegabyte) << seqnum;
}

TEST_F(SessionTest, HoweverAHostGoesTheNextOneIsServed) {
    With(bind);
    std::string error;
    listener_ = Listener::Open("unix:" + path_, error);
    ASSERT_TRUE(listener_) << "a socket that nobody listens at is in the way: " << error;
    EXPECT_FALSE(Listener::Open("unix:" + path_, error)) << "took the socket of a living program";
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
    Host next = With(connect);
    const auto serve_next = [&] {
        next.Greet();
        EXPECT_EQ(next.Mapped().devid, 1U);
        ExpectEcho(next, 1);
    };
    for (const auto& [how, greets, last] : cases) {
        SCOPED_TRACE(how);
        if (greets) serve_next();
        const Host host = std::exchange(next, With(connect));
        EXPECT_FALSE(next.Comes(20ms)) << "served though another one is";
        host.Write(last);
        if (last.empty()) shutdown(host.Get(), SHUT_WR);
        EXPECT_TRUE(host.Closed());
    }
    serve_next();
    ExpectAnswer("quit", "quitting");
    EXPECT_EQ(next.Unmapped(), 1U);
    EXPECT_TRUE(next.Closed()) << "soon, without the confirmation";
    EXPECT_TRUE(Finish());
}

}  // namespace
}  // namespace remote::test
