// Both programs as a user runs them, with the module as it ships.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "fakes/Messages.h"
#include "host/Host.h"
#include "posix/Peer.h"

namespace host {
namespace {

using posix::test::Peer;

constexpr int kPromptMs = 7'000;  // less than the pause and the connect that signals cut short
const std::string kStatus = "the command ended with status ";
const std::string kContent(4096, 'x');  // of the image

class ProgramTest : public testing::Test {
  protected:
    ProgramTest() {
        std::ofstream(image_) << kContent;
        port_.Listen(0);
    }
    ~ProgramTest() override { std::filesystem::remove(image_); }

    // All three of the program's standard streams are ours.
    void Run(const std::string& command) {
        posix::UniqueFd output;
        program_ = Child::Start("exec " + command + " 2>&1", output, seen_);
        output_ = Peer(std::move(output));
    }
    void Start(const std::string& arguments) { Run(COMMAND " " + arguments); }

    // Reads on until the output holds `text`, and splits the output there.
    void ExpectOutput(const std::string& text) {
        for (std::string next; seen_.find(text) == std::string::npos; seen_ += next) {
            next = output_.ReadSome();
            ASSERT_FALSE(next.empty()) << text << " is not in " << seen_;
        }
        before_ = seen_.substr(0, seen_.find(text));
        seen_.erase(0, before_.size() + text.size());
    }

    static void ExchangeVersions(const Peer& peer) {
        peer.Write(VersionRequest(0));
        EXPECT_EQ(VersionResponse(), peer.Read(20));
    }

    // How the program ended, after `signal` unless that is 0.
    std::string Exit(int signal = 0) {
        ::kill(program_->Pid(), signal);
        return program_->Wait(kPromptMs) ? program_->End() : "still running";
    }

    const std::string image_ = testing::TempDir() + "host-" + std::to_string(::getpid()) + ".img";
    const posix::test::Port port_;
    const std::string target_ = "localhost:" + std::to_string(port_.address.port);
    std::unique_ptr<Child> program_;
    Peer output_;
    std::string before_;  // of the output, what came before the text waited for last
    std::string seen_;    // and behind it
};

TEST_F(ProgramTest, TheModuleAnswersOverTheStreamAndOverTheNextUntilSigterm) {
    Start("--reconnect --connect " + target_);
    for (int i = 0; i < 2; ++i) {
        ExchangeVersions(port_.Accept());
        ExpectOutput("] ExitInstance");
        EXPECT_EQ(std::string::npos, before_.find(" 8 [usbipclient]")) << "not asked for";
        ExpectOutput(": the remote side ended it");
        ExpectOutput("trying again in 1 s");
    }
    const Peer peer = port_.Accept();
    for (int i = 0; i < 2; ++i)
        ExchangeVersions(peer);
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    EXPECT_EQ("", peer.ReadToEnd());
}

TEST_F(ProgramTest, ASignalCutsAPauseShortAndNothingPilesUpUntilThen) {
    Start("--reconnect --exec 'echo >>" + image_ + "'");
    const std::string pid = std::to_string(program_->Pid());
    std::set<std::ptrdiff_t> descriptors;
    for (const std::string pause : {"1", "2", "4", "8"}) {
        ExpectOutput("trying again in " + pause + " s");
        descriptors.insert(
            std::distance(std::filesystem::directory_iterator("/proc/" + pid + "/fd"), {}));
    }
    EXPECT_EQ(1U, descriptors.size());
    std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
    EXPECT_FALSE(std::getline(children, seen_)) << "not waited for: " << seen_;
    output_ = Peer();  // nobody reads the log any more
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    EXPECT_EQ(kContent.size() + 4, std::filesystem::file_size(image_)) << "tried again";
}

TEST_F(ProgramTest, ASignalEndsAConnectThatNobodyAnswers) {
    Start("--connect " + target_);
    ExpectOutput("connected to " + target_);
    const auto queued = std::move(program_);
    Start("--connect " + target_);
    char connecting[32];  // remote address and state in the kernel's table: SYN_SENT
    std::snprintf(connecting, sizeof connecting, " 0100007F:%04X 02 ", port_.address.port);
    ASSERT_TRUE(Eventually([&] {
        std::getline(std::ifstream("/proc/net/tcp"), seen_, '\0');
        return seen_.find(connecting) != std::string::npos;
    })) << seen_;
    EXPECT_EQ(kStatus + "0", Exit(SIGINT));
    EXPECT_FALSE(queued->Wait(0)) << "the first gave up on a peer that is only silent";
}

// The command inherits none of the program's own handling of signals, and its text cannot forge
// a line of the log.
TEST_F(ProgramTest, AnEndedCommandIsALostStream) {
    for (const std::string signal : {"PIPE", "TERM"}) {
        Start("--log-level 4 --exec \"kill -" + signal + " \\$\\$\n\"");
        EXPECT_EQ(kStatus + "1", Exit());
        seen_ = output_.ReadToEnd();
        EXPECT_EQ(std::string::npos, seen_.find(" 1 [usbipclient]")) << "not asked for: " << seen_;
        ExpectOutput("$$\\x0A\": the remote side ended it; the command was ended by signal");
    }
}

// Over a socket, where the remote side goes first, and over a pipe, where the host does.
TEST_F(ProgramTest, TheHostAndTheRemoteSideEndTogether) {
    Run(REMOTE " --listen 0.0.0.0:0 --wait --usbip [::1]:1/1-1 --disk " + image_);
    ExpectOutput("0.0.0.0:");  // whom the warning is about
    ExpectOutput("listening on 0.0.0.0:");
    ExpectOutput("\n");
    const auto remote = std::move(program_);
    const Peer terminal = std::move(output_);
    Start("--connect localhost:" + before_);
    ExpectOutput("] map device 1, busid 1 portid 1 instanceid disk1 host-");
    terminal.Write("quit\n");
    EXPECT_EQ(kStatus + "1", Exit());
    ExpectOutput("the remote side ended it");
    EXPECT_TRUE(remote->Wait(kPromptMs));
    EXPECT_EQ(kStatus + "0", remote->End());

    Start("--exec '" REMOTE " --stdio --usbip [::1]:1/1-1 --disk " + image_ + "'");
    ExpectOutput("xj-usbip-remote: [::1]:1: Connection refused");
    ExpectOutput("] map device 1, ");
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    ExpectOutput("device 1: URBs in 0");
}

// Not a line of theirs gets into a stream or an image, which take the places of what is closed.
TEST_F(ProgramTest, StandardStreamsMayBeClosed) {
    const std::string closed = " <&- >&- 2>&-";
    Run("sh -c 'exec " COMMAND " --log-level 1,4,8 --connect " + target_ + closed + "'");
    ExchangeVersions(port_.Accept());
    EXPECT_EQ(kStatus + "1", Exit());
    Run("sh -c 'exec " REMOTE " --stdio --disk " + image_ + closed + "'");
    EXPECT_EQ(kStatus + "0", Exit());
    std::getline(std::ifstream(image_), seen_, '\0');
    EXPECT_EQ(seen_, kContent);
}

TEST_F(ProgramTest, OutputThatNobodyReadsKeepsNobodyFromEnding) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
    const posix::UniqueFd reader(ends[0]), writer(ends[1]);
    while (::write(ends[1], kContent.data(), kContent.size()) > 0)
        continue;
    const auto full = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(ends[1]);
    Run("sh -c 'exec " COMMAND " --connect " + target_ + " 2>" + full + "'");
    ExchangeVersions(port_.Accept());
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    Run("sh -c 'exec " REMOTE " --list " + target_ + " >" + full + " 2>&1'");
    port_.Accept();
    EXPECT_EQ(kStatus + "1", Exit());
}

TEST_F(ProgramTest, InTheBackgroundOfATerminalAKeyDoesNotStopTheRemoteSide) {
    Run("script -qec \"sh -mc '" REMOTE " --listen 127.0.0.1:0 --disk " + image_ +
        " & echo pid \\$!.; wait'\" /dev/null");
    ExpectOutput("pid ");
    ExpectOutput(".");
    const pid_t pid = std::stoi(before_);
    ExpectOutput("listening on");
    output_.Write("key\n");
    ExpectOutput("key");  // the terminal's echo
    ::kill(pid, SIGTERM);
    ExpectOutput("device 1: URBs in 0");
}

TEST_F(ProgramTest, WhatCannotWorkIsTold) {
    const std::pair<std::string, std::string> cases[] = {
        {COMMAND " --version", "0: 1.0.0\n"},
        {REMOTE " --help", "0: Exit status: 0"},
        {COMMAND, "2: xj-usbip-host: one of --connect, --exec is needed\nRun with --help for"},
        {COMMAND " --conect box:1", "2: unknown option --conect\n"},
        {COMMAND " nonsense --reconnect", "2: unexpected argument nonsense\n"},
        {COMMAND " doctor --now", "2: unknown option --now\n"},
        {COMMAND " --connect box:0", "2: --connect: the port is a number from 1 to 65535\n"},
        {COMMAND " --connect box:1 --exec true", "2: only one of --connect, --exec can be given\n"},
        {COMMAND " --exec ''", "2: --exec: the command is empty\n"},
        {COMMAND " --exec true --log-level 3", "2: --log-level: 3 not in {1,4,8}\n"},
        {REMOTE " --listen box:70000", "2: --listen: the port is a number from 0 to 65535\n"},
        {REMOTE " --stdio", "2: xj-usbip-remote: --disk, --usbip: one device or more is needed\n"},
        {REMOTE " --stdio --disk ,ro", "2: --disk: ',ro' names no image\n"},
        {REMOTE " --stdio --disk a,rw", "2: 'rw' is none of ro, speed=high, speed=super\n"},
        {REMOTE " --stdio --usbip box", "2: --usbip: 'box' is not HOST[:PORT]/BUSID\n"},
        {REMOTE " --stdio --usbip /1-1", "2: --usbip: the host is missing\n"},
        {COMMAND " --connect unix:/dev/null", "1: cannot open unix:/dev/null: Connection refused"},
        {REMOTE " --stdio --usbip [::1]:1/1-1", "1: there is no device to offer"},
        {REMOTE " --listen unix:/no/socket --disk /dev/null", "1: xj-usbip-remote: /dev/null: "},
        {REMOTE " --list [::1]:1", "1: cannot list devices: [::1]:1: Connection refused"},
    };
    for (const auto& [command, outcome] : cases) {
        Run(command);
        EXPECT_EQ(kStatus + outcome.front(), Exit()) << command;
        ExpectOutput(outcome.substr(3));
    }
    EXPECT_EQ(1, RunHost(Options(), -1)) << "without a module";
}

}  // namespace
}  // namespace host
