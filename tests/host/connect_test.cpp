#include "host/Connect.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "host/Child.h"
#include "host/Host.h"
#include "host/Wait.h"
#include "tests/host/Sockets.h"

namespace host {
namespace {

using std::chrono::steady_clock;
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

TEST_F(OpenTest, ConnectsByNumericAddressAndByName) {
    const Listener listener = Listener::Tcp();
    EXPECT_TRUE(OpenAddress(listener.Address())) << error_;
    const std::string port = listener.Address().substr(listener.Address().find(':'));
    EXPECT_TRUE(OpenAddress("localhost" + port)) << error_;
}

TEST_F(OpenTest, SaysWhyThereIsNoConnection) {
    const std::string closed = Listener::Tcp().Address();
    EXPECT_FALSE(OpenAddress(closed));
    EXPECT_EQ("Connection refused", error_);
    EXPECT_FALSE(OpenAddress("unix:/nonexistent/socket"));
    EXPECT_EQ("No such file or directory", error_);
    EXPECT_FALSE(OpenAddress("no.such.host.invalid:9000"));
    EXPECT_EQ(0U, error_.find("cannot resolve no.such.host.invalid: ")) << error_;
}

TEST_F(OpenTest, AStopEndsAConnectThatNobodyAnswers) {
    // A full backlog: the kernel leaves further connections without an answer.
    const Listener listener = Listener::Tcp(0);
    const UniqueFd queued = listener.Connect();
    Checked(::eventfd_write(stop_.Get(), 1));
    const auto started = steady_clock::now();
    EXPECT_FALSE(OpenAddress(listener.Address()));
    EXPECT_LT(steady_clock::now() - started, 5s);
}

class ChildTest : public testing::Test {
  protected:
    void Run(const std::string& command) {
        std::string error;
        child_ = Child::Start(command, socket_, error);
        ASSERT_TRUE(child_) << error;
    }

    std::string ReadAll() const {
        std::string all;
        char part[256];
        for (ssize_t count = 0; (count = ::read(socket_.Get(), part, sizeof part)) > 0;) {
            all.append(part, static_cast<std::size_t>(count));
        }
        return all;
    }

    bool IsGone() const { return ::kill(child_->Pid(), 0) != 0 && errno == ESRCH; }

    UniqueFd socket_;
    std::unique_ptr<Child> child_;
};

TEST_F(ChildTest, ItsInputAndOutputAreTheStreamAndItsEndIsTold) {
    Run("read line; echo \"got $line\"; exit 3");
    ASSERT_EQ(6, ::send(socket_.Get(), "hello\n", 6, MSG_NOSIGNAL));
    EXPECT_EQ("got hello\n", ReadAll());
    EXPECT_EQ("the command ended with status 3", child_->End());
    EXPECT_TRUE(IsGone());
}

TEST_F(ChildTest, OneThatEndsWithItsInputIsNotKilled) {
    Run("cat; exit 5");
    socket_ = {};
    EXPECT_EQ("the command ended with status 5", child_->End());
}

TEST_F(ChildTest, OneThatIgnoresTheEndOfItsInputIsTerminated) {
    Run("exec sleep 1000");
    socket_ = {};
    EXPECT_EQ("the command was ended by signal Terminated", child_->End());
    EXPECT_TRUE(IsGone());
}

TEST_F(ChildTest, OneThatIgnoresSignalsTooIsKilled) {
    Run("trap '' TERM; echo ready; exec sleep 1000");
    char ready = 0;
    ASSERT_EQ(1, ::read(socket_.Get(), &ready, 1));
    socket_ = {};
    child_.reset();  // the destructor ends it the same way
    SUCCEED();
}

TEST_F(ChildTest, HasTheUsualSignalsThoughTheHostBlocksAndIgnoresSome) {
    sigset_t stop_signals;
    sigset_t before;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, &before);
    auto* const pipe_before = std::signal(SIGPIPE, SIG_IGN);
    Run("kill -TERM $$; echo still alive");
    EXPECT_EQ("the command was ended by signal Terminated", child_->End());
    Run("kill -PIPE $$; echo still alive");
    EXPECT_EQ("the command was ended by signal Broken pipe", child_->End());
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
