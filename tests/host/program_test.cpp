// Runs the real program with the real module, as a user would.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <fstream>

#include "host/Child.h"
#include "tests/support/Patience.h"

namespace host {
namespace {

constexpr int kPromptMs = 3'000;  // less than the pause and the connect that a signal cuts short
const std::string kStatus = "the command ended with status ";
constexpr timeval kPatient{kPatience.count(), 0};

// Fewer than `size` bytes at the end of the stream, or when they do not come in time.
std::string receive(const UniqueFd& socket, std::size_t size) {
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatient, sizeof kPatient);
    std::string bytes(size, '\0');
    const ssize_t count = ::recv(socket.Get(), bytes.data(), size, MSG_WAITALL);
    return bytes.substr(0, static_cast<std::size_t>(std::max(count, ssize_t{0})));
}

class ProgramTest : public testing::Test {
  protected:
    ~ProgramTest() override { ::unlink(path_.c_str()); }

    void Listen() {
        sockaddr_un name{AF_UNIX, {}};
        path_.copy(name.sun_path, sizeof name.sun_path - 1);
        listener_ = UniqueFd(::socket(AF_UNIX, SOCK_STREAM, 0));
        ::setsockopt(listener_.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatient, sizeof kPatient);
        ASSERT_EQ(0, ::bind(listener_.Get(), reinterpret_cast<sockaddr*>(&name), sizeof name));
        ASSERT_EQ(0, ::listen(listener_.Get(), 1)) << path_;
    }

    UniqueFd Accept() const { return UniqueFd(::accept(listener_.Get(), nullptr, nullptr)); }

    // Both of its outputs come to us.
    void Start(const std::string& arguments) {
        program_ = Child::Start("exec " COMMAND " " + arguments + " 2>&1", output_, seen_);
    }

    // Reads on until the output holds `text`, and forgets the output up to there.
    void ExpectOutput(const std::string& text) {
        for (std::string next; seen_.find(text) == std::string::npos; seen_ += next) {
            next = receive(output_, 1);
            ASSERT_FALSE(next.empty()) << text << " is not in " << seen_;
        }
        seen_.erase(0, seen_.find(text) + text.size());
    }

    static void ExchangeVersions(const UniqueFd& peer) {
        const std::string request("\x0C\0\0\0\x0B\0\0\0\4\0\0\0\1\0\0\0\0\0\0\0", 20);
        const std::string response("\x0C\0\0\0\x0B\0\0\0\4\0\0\0\2\0\0\0\3\0\0\0", 20);
        EXPECT_EQ(20, ::send(peer.Get(), request.data(), 20, MSG_NOSIGNAL));
        EXPECT_EQ(response, receive(peer, 20));
    }

    // How the program ended, after `signal` unless that is 0.
    std::string Exit(int signal = 0) {
        ::kill(program_->Pid(), signal);
        return program_->Wait(kPromptMs) ? program_->End() : "still running";
    }

    const std::string path_ = testing::TempDir() + "host-" + std::to_string(::getpid());
    UniqueFd listener_;
    std::unique_ptr<Child> program_;
    UniqueFd output_;
    std::string seen_;  // of the output
};

TEST_F(ProgramTest, TheModuleAnswersOverTheStreamAndOverTheNextUntilSigterm) {
    Start("--reconnect --connect unix:" + path_);
    ExpectOutput("cannot open unix:" + path_ + ": No such file");
    Listen();
    ExchangeVersions(Accept());
    ExpectOutput("] ExitInstance");
    ExpectOutput(": the remote side ended it");
    const UniqueFd peer = Accept();
    ExchangeVersions(peer);
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    EXPECT_EQ("", receive(peer, 1)) << "the peer sees the end of the stream";
}

TEST_F(ProgramTest, ASignalCutsAPauseShortThoughNobodyReadsTheLogAnyMore) {
    Start("--reconnect --connect no.such.host.invalid:9");
    ExpectOutput("cannot resolve no.such.host.invalid: ");
    ExpectOutput("trying again in 4 s");
    output_ = {};
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
}

TEST_F(ProgramTest, ASignalEndsAConnectThatNobodyAnswers) {
    listener_ = UniqueFd(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(0, ::listen(listener_.Get(), 0));  // a backlog of one
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size);
    const std::string target = "localhost:" + std::to_string(ntohs(address.sin_port));
    Start("--connect " + target);
    ExpectOutput("connected to " + target);
    const auto queued = std::move(program_);
    Start("--connect " + target);
    char connecting[32];  // remote address and state in the kernel's table: SYN_SENT
    std::snprintf(connecting, sizeof connecting, " 0100007F:%04X 02 ", ntohs(address.sin_port));
    ASSERT_TRUE(Eventually([&] {
        std::getline(std::ifstream("/proc/net/tcp"), seen_, '\0');
        return seen_.find(connecting) != std::string::npos;
    })) << seen_;
    EXPECT_EQ(kStatus + "0", Exit(SIGINT));
    EXPECT_FALSE(queued->Wait(1'000)) << "the first gave up on a peer that is only silent";
}

// The command inherits none of the program's own handling of signals, and its text cannot forge
// a line of the log.
TEST_F(ProgramTest, AnEndedCommandIsALostStream) {
    for (const std::string signal : {"PIPE", "TERM"}) {
        Start("--log-level 4 --exec \"kill -" + signal + " \\$\\$\n\"");
        EXPECT_EQ(kStatus + "1", Exit());
        seen_ = receive(output_, 10'000);
        EXPECT_EQ(std::string::npos, seen_.find(" 1 [usbipclient]")) << "not asked for: " << seen_;
        ExpectOutput("$$\\x0A\": the remote side ended it; the command was ended by signal");
    }
}

TEST_F(ProgramTest, ACommandIsAskedToEndAndThenMadeTo) {
    const std::pair<std::string, std::string> cases[] = {
        {"cat; exit 3", "ended with status 3"},  // sees the end of its input
        {"head -c1; exec sleep 1000", "was ended by signal Terminated"},
        {"trap '' TERM; head -c1; exec sleep 1000", "was ended by signal Killed"},
    };
    for (const auto& [command, how] : cases) {
        program_ = Child::Start(command, output_, seen_);
        EXPECT_EQ(1, ::send(output_.Get(), "x", 1, MSG_NOSIGNAL)) << seen_;
        EXPECT_EQ("x", receive(output_, 1)) << command;
        output_ = {};
        EXPECT_EQ("the command " + how, program_->End());
    }
}

TEST_F(ProgramTest, WhatCannotWorkIsTold) {
    for (const char* arguments : {"", "--connect box:1 --exec true", "--connect box",
                                  "--exec true --log-level 2", "--nonsense", "nonsense"}) {
        Start(arguments);
        EXPECT_EQ(kStatus + "2", Exit()) << arguments;
        ExpectOutput("Run with --help");
    }
}

}  // namespace
}  // namespace host
