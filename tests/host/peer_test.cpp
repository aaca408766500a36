// Who may be at the other end, and how the host parts from it, with the module as it ships in this
// process, before a kernel that is played.
#include "posix/Peer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "fakes/FakeController.h"
#include "fakes/Messages.h"
#include "host/Greeting.h"
#include "host/Host.h"
#include "posix/Wait.h"

namespace host {
namespace {

using std::string;

constexpr std::chrono::milliseconds kSoon{10};
const Target kTcp{posix::Address{.name = "box", .port = 3240}, {}};

TEST(GreetingTest, IsAMessageOrIsNamed) {
    using Kind = Greeting::Kind;
    const string request = VersionRequest(0);
    const string torn = request.substr(0, 8) + string("\x05\0\0\0\1\0\0\0", 8);
    const string busy = "xj-usbip-remote: 10.0.0.2:49310 is served since 12:34:56";
    const struct {
        string said;
        bool ends;  // the stream, behind that
        Kind kind;
        string text;
        string explained;
    } cases[] = {
        {request + "more", false, Kind::RemoteSide, "", ""},
        {request.substr(0, 15), true, Kind::Other, request.substr(0, 15), "is no remote side"},
        {request.substr(0, 5), false, Kind::Other, request.substr(0, 5), "is no remote side"},
        {torn, true, Kind::Other, torn, "is no remote side"},
        {"\r\nWelcome\x1B\r\nto", false, Kind::Other, "Welcome\x1B", "says \"Welcome\x1B\". Try"},
        {string(1000, 'x'), false, Kind::Other, string(200, 'x'), "\"xxx"},
        {"no", true, Kind::Other, "no", "says \"no\""},
        {"SSH-2.0-x\r\n", false, Kind::Other, "SSH-2.0-x", "Try --exec \"ssh box xj-usbip-remote"},
        {"HTTP/1.0 408 Late\r\n", true, Kind::Other, "HTTP/1.0 408 Late", "is an HTTP server"},
        {busy + "\n", true, Kind::Busy, busy, "box:3240 is busy: " + busy},
        {"xj-usbip-remote: host connected\n", false, Kind::Other, "xj-usbip-remote: host connected",
         "is no remote side"},
        {"", false, Kind::Silence, "", "--usbip box:3240/BUSID"},
        {"", true, Kind::Ended, "", ""},
    };
    for (const auto& [said, ends, kind, text, explained] : cases) {
        auto [peer, socket] = posix::test::ConnectedPair();
        peer.Write(said);
        if (ends) peer = posix::test::Peer();
        const Greeting greeting = AwaitGreeting(socket.Get(), -1, kSoon);
        EXPECT_EQ(kind, greeting.kind) << said;
        EXPECT_EQ(text, greeting.text);
        EXPECT_EQ(kind == Kind::RemoteSide ? request.size() : 0, greeting.size);
        const string all = Explain(greeting, kTcp);
        EXPECT_NE(string::npos, all.find(explained)) << all;
        const posix::test::Peer stream(std::move(socket));
        if (said.empty()) continue;
        EXPECT_EQ(said, stream.Read(said.size())) << "not left there";
    }
}

TEST(GreetingTest, MayComeInPieces) {
    const auto [peer, socket] = posix::test::ConnectedPair();
    peer.Write(VersionRequest(0).substr(0, 10));
    std::thread later([&peer = peer] { peer.Write(VersionRequest(0).substr(10)); });
    EXPECT_EQ(Greeting::Kind::RemoteSide, AwaitGreeting(socket.Get(), -1, ::kPatience).kind);
    later.join();
}

class PeerTest : public testing::Test {
  protected:
    ~PeerTest() override { std::filesystem::remove(attempts_); }

    // What the host did, and at last its exit status.
    string Run(Target target, bool reconnect = false,
               std::chrono::milliseconds patience = ::kPatience) {
        testing::internal::CaptureStderr();
        Options options;
        options.module = XJ_MODULE;
        options.verbosity = Verbosity::Verbose;
        options.target = std::move(target);
        options.reconnect = reconnect;
        options.sysfs = "/nowhere";
        const int status = RunHost(options, stop_.Get(), patience);
        return testing::internal::GetCapturedStderr() + "status " + std::to_string(status);
    }
    static void Expect(const string& log, const std::vector<string>& texts) {
        std::size_t at = 0;
        for (const string& text : texts) {
            at = log.find(text, at);
            EXPECT_NE(string::npos, at) << text << " is not in " << log;
        }
    }

    const posix::UniqueFd stop_ = posix::MakeEvent();
    const string attempts_ = testing::TempDir() + "peer-" + std::to_string(::getpid());
    // For a shell: what a remote side does that speaks another version.
    const string leaves_ =
        "printf '\\14\\0\\0\\0\\13\\0\\0\\0\\4\\0\\0\\0\\1\\0\\0\\0\\0\\0\\0\\0'; "
        "head -c20 >/dev/null";
};

TEST_F(PeerTest, AStrangerEndsTheHostAndARemoteSideThatLeavesIsLost) {
    Expect(Run({{}, "echo Welcome; sleep 60"}, true),
           {"is no remote side: it says \"Welcome\"", "status 3"});
    Expect(Run({{}, "sleep 60"}, true, kSoon),
           {"wait for a password?", "1 s more", "wait for a password?", "status 3"});
    Expect(Run({{}, "echo xj-usbip-remote: x is served since 1"}), {"is busy", "status 1"});
    Expect(Run({{}, leaves_}), {"it knew our protocol version", "than 3, ", "status 1"});
}

TEST_F(PeerTest, OnceThereWasARemoteSideAStrangerIsTriedAgain) {
    std::thread user([this] {
        std::error_code error;  // while there is no file
        Eventually([&] { return std::filesystem::file_size(attempts_, error) == 2; });
        ::eventfd_write(stop_.Get(), 1);
    });
    const string again = "[ -e " + attempts_ + " ] && echo >>" + attempts_ + " && echo Welcome";
    Expect(Run({{}, again + " && exit; >" + attempts_ + "; " + leaves_}, true),
           {"it knew our", "again in 1 s", "Welcome", "again in 2 s", "stopped", "status 0"});
    user.join();
}

// The devices, which have much to say, end while the stream still takes it, if it does.
TEST_F(PeerTest, AnOrderlyStopLogsNoFailureAndWaitsForNobody) {
    std::ofstream(attempts_) << VersionRequest(0) + MapMessage(1) + MapMessage(2);
    for (const string reads : {"cat >/dev/null", "sleep 60"}) {
        FakeController controller;
        std::thread kernel([&] {
            const auto one = controller.WaitForAttach();
            const auto other = controller.WaitForAttach();
            for (std::uint32_t number = 1; one->Send(Unlink(number)) || other->Send(Unlink(number));
                 ++number)
                if (number == 20'000) ::eventfd_write(stop_.Get(), 1);
        });
        const string log = Run({{}, "cat " + attempts_ + "; exec " + reads});
        kernel.join();
        Expect(log,
               {"] ExitInstance", "] Run return", "stopped, all devices detached", "status 0"});
        const bool lost = log.find("fail") != string::npos;
        EXPECT_TRUE(!lost || reads == "sleep 60") << log;
        eventfd_t taken = 0;
        ::eventfd_read(stop_.Get(), &taken);
    }
}

}  // namespace
}  // namespace host
