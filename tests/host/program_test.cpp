// Runs the real program with the real module, as a user would.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "host/Child.h"
#include "host/Runtime.h"
#include "tests/host/Sockets.h"

namespace host {
namespace {

constexpr int kPromptMs = 5'000;  // half of the time that a connect may take

constexpr unsigned char kVersionRequest[20] = {12, 0, 0, 0, 11, 0, 0, 0, 4, 0,
                                               0,  0, 1, 0, 0,  0, 0, 0, 0, 0};
const std::string kVersionResponse("\x0C\0\0\0\x0B\0\0\0\4\0\0\0\2\0\0\0\3\0\0\0", 20);

// At most `size` bytes, fewer at the end of the stream or when none come in time.
std::string read_bytes(int fd, std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t filled = 0;
    pollfd readable{fd, POLLIN, 0};
    while (filled < size && ::poll(&readable, 1, kSoonMs) == 1) {
        const ssize_t count = ::read(fd, bytes.data() + filled, size - filled);
        if (count <= 0) break;
        filled += static_cast<std::size_t>(count);
    }
    bytes.resize(filled);
    return bytes;
}

class ProgramTest : public testing::Test {
  protected:
    ProgramTest() {
        std::string pattern = testing::TempDir() + "host-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory");
        directory_ = pattern;
    }
    ~ProgramTest() override { std::filesystem::remove_all(directory_); }

    std::string SocketPath() const { return directory_ / "socket"; }

    // Both of its outputs come to us.
    void Start(const std::string& arguments) {
        std::string error;
        program_ = Child::Start("exec " PROGRAM " --module " MODULE " " + arguments + " 2>&1",
                                output_, error);
        ASSERT_TRUE(program_) << error;
    }

    void StartConnecting(const std::string& more = "") {
        Start("--connect unix:" + SocketPath() + ' ' + more);
    }

    // Reads on until the output holds `text`, and forgets the output up to there.
    bool Shows(const std::string& text) {
        for (;;) {
            const std::size_t found = seen_.find(text);
            if (found != std::string::npos) {
                seen_.erase(0, found + text.size());
                return true;
            }
            const std::string next = read_bytes(output_.Get(), 1);
            if (next.empty()) return false;
            seen_ += next;
        }
    }

    std::string ExitOn(int signal) {
        ::kill(program_->Pid(), signal);
        return Exit();
    }

    std::string Exit() {
        if (!program_->Wait(kPromptMs)) return "still running";
        const std::string how = program_->End();
        return how.substr(how.rfind(' ') + 1);
    }

    static void ExchangeVersions(const UniqueFd& peer) {
        ASSERT_EQ(20, ::send(peer.Get(), kVersionRequest, sizeof kVersionRequest, MSG_NOSIGNAL));
        EXPECT_EQ(kVersionResponse, read_bytes(peer.Get(), kVersionResponse.size()));
    }

    std::filesystem::path directory_;
    UniqueFd output_;
    std::unique_ptr<Child> program_;
    std::string seen_;  // of the output
};

TEST_F(ProgramTest, TheModuleAnswersOverTheStreamAndSigtermEndsItCleanly) {
    const Listener listener(SocketPath());
    StartConnecting();
    const UniqueFd peer = listener.Accept();
    for (int i = 0; i < 2; ++i)
        ExchangeVersions(peer);  // it waits for the second
    EXPECT_EQ("0", ExitOn(SIGTERM));
    EXPECT_EQ("", read_bytes(peer.Get(), 1)) << "the peer sees the end of the stream";
    EXPECT_TRUE(Shows(" 1 [usbipclient] Run start")) << seen_;
    EXPECT_TRUE(Shows(" 1 [usbipclient] ExitInstance")) << seen_;
    EXPECT_TRUE(Shows("stopped, all devices detached")) << seen_;
}

TEST_F(ProgramTest, ALostStreamIsAFailureAndTheReaderOfTheLogMayBeGoneByThen) {
    const Listener listener(SocketPath());
    StartConnecting();
    const UniqueFd peer = listener.Accept();
    output_ = {};
    ::shutdown(peer.Get(), SHUT_RDWR);
    EXPECT_EQ("1", Exit()) << "not a signal";
}

TEST_F(ProgramTest, ReconnectsUntilASignalCutsThePauseShort) {
    StartConnecting("--reconnect");
    ASSERT_TRUE(Shows("cannot open unix:" + SocketPath() + ": No such file")) << seen_;
    ASSERT_TRUE(Shows("trying again in 1 s")) << seen_;
    const Listener listener(SocketPath());
    for (const char* pause : {"in 2 s", "in 4 s"}) {
        ExchangeVersions(listener.Accept());
        ASSERT_TRUE(Shows(": the remote side ended it")) << seen_;
        ASSERT_TRUE(Shows(pause)) << seen_;
    }
    const auto pause_started = std::chrono::steady_clock::now();
    EXPECT_EQ("0", ExitOn(SIGINT));
    EXPECT_LT(std::chrono::steady_clock::now() - pause_started, std::chrono::seconds(3));
}

TEST_F(ProgramTest, SigintEndsAConnectThatNobodyAnswers) {
    const Listener listener(0);  // a backlog of one, which we fill
    const UniqueFd queued = listener.Connect();
    Start("--connect 127.0.0.1" + listener.Port());
    char connecting[32];  // remote address and state in the kernel's table: SYN_SENT
    std::snprintf(connecting, sizeof connecting, " 0100007F:%04X 02 ",
                  std::stoi(listener.Port().substr(1)));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string table;
    do {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << connecting << '\n' << table;
        std::getline(std::ifstream("/proc/net/tcp"), table, '\0');
    } while (table.find(connecting) == std::string::npos);
    EXPECT_EQ("0", ExitOn(SIGINT));
}

TEST_F(ProgramTest, ACommandCanBeTheStream) {
    Start(
        "--exec \"printf '\\014\\0\\0\\0\\013\\0\\0\\0\\004\\0\\0\\0\\001\\0\\0\\0\\0\\0\\0\\0'; "
        "od -An -v -tx1 -N20 -w20 >&2; exit 7\"");
    EXPECT_TRUE(Shows(" 0c 00 00 00 0b 00 00 00 04 00 00 00 02 00 00 00 03 00 00 00\n")) << seen_;
    EXPECT_EQ("1", Exit());
    EXPECT_TRUE(Shows("the command ended with status 7")) << seen_;
}

TEST_F(ProgramTest, MistakesOnTheCommandLineAreTold) {
    for (const char* arguments : {"", "--connect box:1 --exec true", "--connect box", "--exec",
                                  "--exec true --log-level 2", "--nonsense", "nonsense"}) {
        Start(arguments);
        EXPECT_EQ("2", Exit()) << arguments;
        EXPECT_TRUE(Shows("Run with --help")) << arguments << seen_;
        seen_.clear();
    }
}

TEST(RuntimeTest, ALineCannotForgeAnotherOrReachTheTerminal) {
    testing::internal::CaptureStderr();
    Runtime runtime({1});
    runtime.Log(1, "device \x1B[2J\n12:00:00.000 1 forged");
    runtime.Log(4, "not asked for");
    const std::string shown = testing::internal::GetCapturedStderr();
    EXPECT_EQ(" 1 device \\x1B[2J\\x0A12:00:00.000 1 forged\n",
              shown.substr(std::string("HH:MM:SS.mmm").size()));
}

}  // namespace
}  // namespace host
