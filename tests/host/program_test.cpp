// Both programs from the first connection to the last that they leave behind.
#include "ProgramTest.h"

namespace host::test {

TEST_F(ProgramTest, TheModuleAnswersOverTheStreamAndOverTheNextUntilSigterm) {
    Start("--verbose --reconnect --connect " + target_);
    for (int i = 0; i < 2; ++i) {
        ExchangeVersions(port_.Accept());
        ExpectOutput("] ExitInstance");
        EXPECT_EQ(std::string::npos, before_.find("version req")) << "not asked for";
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
}

// The command inherits none of the program's own handling of signals, and its text cannot forge
// a line of the log.
TEST_F(ProgramTest, AnEndedCommandIsALostStream) {
    for (const std::string signal : {"PIPE", "TERM"}) {
        Start("--exec \"kill -" + signal + " \\$\\$\n\"");
        EXPECT_EQ(kStatus + "1", Exit());
        seen_ = output_.ReadToEnd();
        EXPECT_EQ(std::string::npos, seen_.find("[usbipclient]")) << "not asked for: " << seen_;
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
    Start("--verbose --connect localhost:" + before_);
    ExpectOutput("] map device 1, busid 1 portid 1 instanceid disk1 host-");
    terminal.Write("quit\n");
    EXPECT_EQ(kStatus + "1", Exit());
    ExpectOutput("the remote side ended it");
    EXPECT_TRUE(remote->Wait(kPromptMs));
    EXPECT_EQ(kStatus + "0", remote->End());

    Start("--verbose --exec '" REMOTE " --stdio --usbip [::1]:1/1-1 --disk " + image_ + "'");
    ExpectOutput("xj-usbip-remote: [::1]:1: Connection refused");
    ExpectOutput("] map device 1, ");
    EXPECT_EQ(kStatus + "0", Exit(SIGTERM));
    ExpectOutput("device 1: URBs in 0");
}

TEST_F(ProgramTest, ACommandIsAskedToEndAndThenMadeTo) {
    const std::pair<std::string, std::string> cases[] = {
        {"cat; exit 3", kStatus + "3"},  // sees the end of its input
        {"head -c1; exec sleep 60", "the command was ended by signal Terminated"},
        {"trap '' TERM; head -c1; exec sleep 60", "the command was ended by signal Killed"}};
    for (const auto& [command, end] : cases) {
        Run("sh -c \"" + command + '"');
        output_.Write("x");
        EXPECT_EQ("x", output_.Read(1));
        ::shutdown(output_.Get(), SHUT_RDWR);
        EXPECT_TRUE(Eventually([&, &how = end] { return program_->End() == how; }))
            << program_->End();
    }
}

// Its output ends when nobody has it any more. Not run as the others are, by the code under test.
TEST(CommandTest, NothingOfItIsLeftBehind) {
    for (const bool killed : {false, true}) {
        const std::string program = "echo $$; exec " COMMAND
                                    " --exec \"(trap '' TERM; exec sleep 60) & sleep 60 & " +
                                    std::string(killed ? "sleep 60" : "exit 3") + "\" 2>&1";
        const Stopwatch elapsed;
        FILE* const output = ::popen(program.c_str(), "r");
        char line[1000];
        const pid_t pid = std::atoi(std::fgets(line, sizeof line, output));
        std::string text;
        while (std::fgets(line, sizeof line, output) != nullptr) {
            text += line;
            if (killed && text.ends_with("sleep 60\"\n")) ::kill(pid, SIGKILL);
        }
        ::pclose(output);
        EXPECT_LT(elapsed.Milliseconds(), 30'000) << "left behind by " << text;
        EXPECT_NE(killed, text.find(kStatus + "3") != std::string::npos) << text;
    }
}

}  // namespace host::test
