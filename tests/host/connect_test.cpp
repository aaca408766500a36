#include "host/Connect.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

#include "host/Child.h"
#include "host/Host.h"
#include "host/Wait.h"
#include "tests/host/Sockets.h"

namespace host {
namespace {

using namespace std::chrono_literals;

// "KIND NAME PORT" for what was understood, or "no: REASON".
std::string parsed(const std::string& text) {
    Target target;
    const std::string problem = ParseAddress(text, target);
    if (!problem.empty()) return "no: " + problem;
    return (target.kind == Target::Kind::Unix ? "unix " : "tcp ") + target.name + ' ' + target.port;
}

TEST(Address, TakesHostAndPortOrAPath) {
    EXPECT_EQ("tcp box 9000", parsed("box:9000"));
    EXPECT_EQ("tcp 127.0.0.1 1", parsed("127.0.0.1:1"));
    EXPECT_EQ("tcp ::1 65535", parsed("[::1]:65535"));
    EXPECT_EQ("unix /run/usb:1.sock ", parsed("unix:/run/usb:1.sock"));
    EXPECT_EQ("unix " + std::string(107, 'p') + ' ', parsed("unix:" + std::string(107, 'p')));
}

TEST(Address, RefusesTheRestAndSaysWhy) {
    const std::string port = "no: the port is a number from 1 to 65535";
    for (const char* text : {"box:", "box:0", "box:65536", "box:-1", "box: 80", "box:80x",
                             "box:http", "box:99999999999999999999", "[::1]:"}) {
        EXPECT_EQ(port, parsed(text)) << text;
    }
    const std::string brackets = "no: an IPv6 address stands in brackets: [::1]:9000";
    for (const char* text : {"::1:9000", "[::1:9000", "::1]:9000", "[]:9000", "fe80::1"}) {
        EXPECT_EQ(brackets, parsed(text)) << text;
    }
    EXPECT_EQ("no: the host before the colon is missing", parsed(":9000"));
    EXPECT_EQ("no: expected HOST:PORT or unix:PATH", parsed(""));
    EXPECT_EQ("no: expected HOST:PORT or unix:PATH", parsed("box"));
    EXPECT_EQ("no: the path after unix: is missing", parsed("unix:"));
    EXPECT_EQ("no: the path of a Unix socket has at most 107 bytes",
              parsed("unix:" + std::string(108, 'p')));
}

class OpenTest : public testing::Test {
  protected:
    std::optional<Link> OpenAddress(const std::string& address) {
        Target target;
        EXPECT_EQ("", ParseAddress(address, target));
        return Open(target, stop_.Get(), error_);
    }

    UniqueFd stop_ = MakeEvent();
    std::string error_;
};

TEST_F(OpenTest, ConnectsByAddressAndByName) {
    const Listener listener;
    EXPECT_TRUE(OpenAddress("127.0.0.1" + listener.Port())) << error_;
    EXPECT_TRUE(OpenAddress("localhost" + listener.Port())) << error_;
}

TEST_F(OpenTest, SaysWhyThereIsNoConnection) {
    const std::string closed = Listener().Port();
    EXPECT_FALSE(OpenAddress("127.0.0.1" + closed));
    EXPECT_EQ("Connection refused", error_);
    EXPECT_FALSE(OpenAddress("unix:/nonexistent/socket"));
    EXPECT_EQ("No such file or directory", error_);
    EXPECT_FALSE(OpenAddress("no.such.host.invalid:9000"));
    EXPECT_EQ(0U, error_.find("cannot resolve no.such.host.invalid: ")) << error_;
}

// The host blocks and ignores some signals; a command must not inherit that.
TEST(ChildTest, EndsByItselfOrIsEndedAndHowIsTold) {
    sigset_t stop_signals;
    sigset_t before;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, &before);
    auto* const pipe_before = std::signal(SIGPIPE, SIG_IGN);
    const std::pair<const char*, const char*> cases[] = {
        {"echo; cat; exit 3", "ended with status 3"},  // sees the end of its input
        {"echo; exec sleep 1000", "was ended by signal Terminated"},
        {"trap '' TERM; echo; exec sleep 1000", "was ended by signal Killed"},
        {"echo; kill -PIPE $$; echo alive", "was ended by signal Broken pipe"},
    };
    for (const auto& [command, how] : cases) {
        UniqueFd socket;
        std::string error;
        const auto child = Child::Start(command, socket, error);
        char started = 0;
        ASSERT_TRUE(child && ::read(socket.Get(), &started, 1) == 1) << command << error;
        socket = {};
        EXPECT_EQ(std::string("the command ") + how, child->End()) << command;
        EXPECT_EQ(-1, ::kill(child->Pid(), 0)) << "not reaped: " << command;
    }
    std::signal(SIGPIPE, pipe_before);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(BackoffTest, PausesDoubleUpToALimitAndStartAgainAfterAGoodStream) {
    Backoff backoff;
    for (const auto expected : {1s, 2s, 4s, 8s, 16s, 30s, 30s})
        EXPECT_EQ(expected, backoff.Next(0s));
    EXPECT_EQ(30s, backoff.Next(29s)) << "one that died young";
    EXPECT_EQ(1s, backoff.Next(30s));
    EXPECT_EQ(2s, backoff.Next(0s));
}

}  // namespace
}  // namespace host
