// The parts of the program, each alone; then the real program with the real module, run as a user
// would.
#include "host/Host.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "fakes/Messages.h"
#include "host/Doctor.h"
#include "posix/Peer.h"

namespace host {
namespace {

using posix::test::Peer;

TEST(BackoffTest, PausesDoubleUpToALimitAndStartAgainBehindARemoteSide) {
    Backoff backoff;
    for (const int pause : {1, 2, 4, 8, 16, 30, 30})
        EXPECT_EQ(pause, backoff.Next(false).count());
    EXPECT_EQ(1, backoff.Next(true).count());
}

TEST(DoctorTest, SaysWhatItFoundAndWhatStandsInTheWay) {
    const std::string free = "header\nhs  0000 004 000 00000000 000000 0-0\n";
    const std::string used = "ss  0001 006 003 0011000a 000005 1-1\n";
    const std::string odd = free + "usb" + free.substr(9) + "hs -002 004 0 0 0 0-0\n" +
                            "hs 0002 003 0 0 0 0-0\nhs 0002 008 0 0 0 0-0\nhs port 004 0 0 0 0-0\n";
    // Files of the driver with their texts, and what is said because of them.
    const std::pair<std::map<std::string, std::string>, std::vector<std::string>> cases[] = {
        {{}, {"modprobe vhci-hcd", "cannot attach"}},
        {{{"attach", ""}}, {"status cannot be read", "cannot attach"}},
        {{{"attach", ""}, {"status", "header\n" + used}}, {"No port is free", "cannot attach"}},
        {{{"status", free}}, {"may not write", "cannot attach"}},
        {{{"attach", ""}, {"status", odd}}, {"3 status line(s) not understood", "cannot attach"}},
        // The last file stands behind a gap: it is not this driver's.
        {{{"attach", ""},
          {"status", free + used + used},
          {"status.1", "header\nhs  0002 004 000 00000000\n"},  // as the module reads it
          {"status.3", free}},
         {"(hs): 2 free, 0 in use", "(ss): 0 free, 2 in use", "can be created", "can attach"}},
    };
    const std::string root = testing::TempDir() + "doctor-" + std::to_string(::getpid());
    for (const auto& [files, expected] : cases) {
        const std::string driver = root + "/devices/platform/vhci_hcd.0/";
        if (!files.empty()) std::filesystem::create_directories(driver);
        for (const auto& [name, text] : files)
            std::ofstream(driver + name) << text;
        std::ostringstream out;
        EXPECT_EQ(expected.back() == "can attach", Doctor(out, root, root + "/records"));
        for (const std::string& text : expected)
            EXPECT_NE(std::string::npos, out.str().find(text)) << text << '\n' << out.str();
        std::filesystem::remove_all(root);
    }
}

// The stream under test and its peer.
class StreamTest : public testing::Test {
  protected:
    // What one Read yields; "failed" for a failure.
    std::string Read(std::size_t len) {
        std::string bytes(len, '\0');
        unsigned long got = 0;
        if (stream_->Read(bytes.data(), len, &got, 0) != 0) return "failed";
        return bytes.substr(0, got);
    }

    std::pair<Peer, posix::UniqueFd> pair_ = posix::test::ConnectedPair();
    Peer& peer_ = pair_.first;
    const int socket_ = pair_.second.Release();  // the stream's
    const CRefObj<SocketStream> stream_ = new SocketStream(socket_);
};

TEST_F(StreamTest, ReadsAheadAndTheEndDropsThat) {
    peer_.Write("0123");
    EXPECT_EQ("01", Read(2));
    char next = 0;
    EXPECT_EQ(-1, ::recv(socket_, &next, 1, MSG_PEEK | MSG_DONTWAIT)) << "not read ahead";
    stream_->End();
    EXPECT_EQ("failed", Read(2));
}

TEST_F(StreamTest, WhatThePeerSentBeforeItLeftIsDeliveredAndThenTheStreamHasEnded) {
    peer_.Write("last words");
    ::shutdown(peer_.Get(), SHUT_WR);
    EXPECT_EQ("last", Read(4));
    EXPECT_EQ(" words", Read(100));
    EXPECT_EQ("failed", Read(100));
    EXPECT_EQ("", peer_.ReadToEnd()) << "not for both directions";
}

TEST_F(StreamTest, WritingToAPeerThatLeftFailsWithoutASignal) {
    peer_ = Peer();
    unsigned long written = 0;
    EXPECT_NE(0, stream_->Write("x", 1, &written, 0));
    EXPECT_EQ(EPIPE, stream_->Error());
}

constexpr int kPromptMs = 8'000;  // less than the connect that a signal cuts short
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
        ExpectOutput(": the remote side ended it");
        ExpectOutput("trying again in 1 s");
    }
    const Peer peer = port_.Accept();
    for (int i = 0; i < 2; ++i)
        ExchangeVersions(peer);
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    EXPECT_EQ("", peer.ReadToEnd());
}

TEST_F(ProgramTest, ASignalCutsAPauseShortThoughNobodyReadsTheLogAnyMore) {
    Start("--reconnect --exec 'echo >>" + image_ + "'");
    ExpectOutput("trying again in 4 s");
    output_ = Peer();
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    EXPECT_EQ(kContent.size() + 3, std::filesystem::file_size(image_)) << "tried again";
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

TEST(CommandTest, IsAskedToEndAndThenMadeTo) {
    const std::pair<const char*, std::string> cases[] = {
        {"cat; exit 3", kStatus + "3"},  // sees the end of its input
        {"head -c1; exec sleep 60", "the command was ended by signal Terminated"},
        {"trap '' TERM; head -c1; exec sleep 60", "the command was ended by signal Killed"}};
    for (const auto& [command, end] : cases) {
        posix::UniqueFd stream;
        std::string error;
        const auto child = Child::Start(command, stream, error);
        const Peer peer(std::move(stream));
        peer.Write("x");
        EXPECT_EQ("x", peer.Read(1));
        ::shutdown(peer.Get(), SHUT_RDWR);
        EXPECT_TRUE(Eventually([&, &expected = end] { return child->End() == expected; }))
            << child->End();
    }
}

// Its output ends when nobody has it any more. Not run as the others are, by the code under test.
TEST(CommandTest, NothingOfItIsLeftBehind) {
    const std::string held = "(trap '' TERM; exec sleep 60) & sleep 60 & ";
    const std::pair<std::string, std::string> cases[] = {
        {held + "exit 3", "the command ended with status 3"}, {held + "sleep 60", "is killed"}};
    for (const auto& [command, how] : cases) {
        const std::string program = "echo $$; exec " COMMAND " --exec \"" + command + "\" 2>&1";
        const Stopwatch elapsed;
        FILE* const output = ::popen(program.c_str(), "r");
        char line[1000];
        const pid_t pid = std::atoi(std::fgets(line, sizeof line, output));
        std::string text;
        while (std::fgets(line, sizeof line, output) != nullptr) {
            text += line;
            if (how == "is killed" && text.ends_with("sleep 60\"\n")) ::kill(pid, SIGKILL);
        }
        ::pclose(output);
        EXPECT_LT(elapsed.Milliseconds(), 30'000) << "left behind by " << text;
        EXPECT_EQ(how != "is killed", text.find(how) != std::string::npos) << text;
    }
}

// Not a line of theirs gets into a stream or an image, which take the places of what is closed.
TEST_F(ProgramTest, StandardStreamsMayBeClosed) {
    const std::string closed = " <&- >&- 2>&-";
    Run("sh -c 'exec " COMMAND " --log-level 1,4,8 --connect " + target_ + closed + "'");
    ExchangeVersions(port_.Accept());
    EXPECT_EQ(kStatus + "1", Exit());
    Run("sh -c 'exec " REMOTE " --stdio --disk " + image_ + closed + "'");
    EXPECT_EQ(kStatus + "0", Exit());
    std::ostringstream image;
    image << std::ifstream(image_).rdbuf();
    EXPECT_TRUE(image.str() == kContent);
}

TEST_F(ProgramTest, OutputThatNobodyReadsKeepsNobodyFromEnding) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
    const posix::UniqueFd reader(ends[0]);
    const posix::UniqueFd writer(ends[1]);
    while (::write(ends[1], kContent.data(), kContent.size()) > 0)
        continue;
    const std::string full =
        "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(ends[1]);
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
        {COMMAND " --connect box", "2: --connect: expected HOST:PORT or unix:PATH\n"},
        {COMMAND " --connect box:1 --exec true", "2: only one of --connect, --exec can be given\n"},
        {COMMAND " --exec ''", "2: --exec: the command is empty\n"},
        {COMMAND " --exec true --log-level 3", "2: --log-level: 3 not in {1,4,8}\n"},
        {REMOTE " --listen box:70000", "2: --listen: the port is a number from 0 to 65535\n"},
        {REMOTE " --list box:usb", "2: --list: the port is a number from 1 to 65535\n"},
        {REMOTE " --stdio", "2: xj-usbip-remote: --disk, --usbip: one device or more is needed\n"},
        {REMOTE " --stdio --disk ,ro", "2: --disk: ',ro' names no image\n"},
        {REMOTE " --stdio --disk a,rw", "2: 'rw' is none of ro, speed=high, speed=super\n"},
        {REMOTE " --stdio --usbip box", "2: --usbip: 'box' is not HOST[:PORT]/BUSID\n"},
        {REMOTE " --stdio --usbip /1-1", "2: --usbip: the host is missing\n"},
        {COMMAND " --connect unix:/dev/null", "1: cannot open unix:/dev/null: Connection refused"},
        {REMOTE " --stdio --disk /no/image", "1: xj-usbip-remote: /no/image: No such file"},
        {REMOTE " --stdio --usbip [::1]:1/1-1", "1: there is no device to offer"},
        {REMOTE " --listen unix:/no/socket --disk /dev/null", "1: /dev/null: "},
        {REMOTE " --list [::1]:1", "1: cannot list devices: [::1]:1: Connection refused"},
    };
    for (const auto& [command, outcome] : cases) {
        Run(command);
        EXPECT_EQ(kStatus + outcome.front(), Exit()) << command;
        ExpectOutput(outcome.substr(3));
    }
    EXPECT_EQ(
        1, RunHost({.doctor = false, .module = "/dev/null", .log_levels = {}, .target = {}}, -1));
}

}  // namespace
}  // namespace host
