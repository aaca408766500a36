// What users may ask for, where they may start the programs, and what they are told.
#include <fcntl.h>

#include <regex>

#include "ProgramTest.h"
#include "host/Host.h"

namespace host::test {

// Not a line of theirs gets into a stream or an image, which take the places of what is closed.
TEST_F(ProgramTest, StandardStreamsMayBeClosed) {
    const std::string closed = " <&- >&- 2>&-";
    Run("sh -c 'exec " COMMAND " --debug --connect " + target_ + closed + "'");
    ExchangeVersions(port_.Accept());
    EXPECT_EQ(kStatus + "1", Exit());
    Run("sh -c 'exec " REMOTE " --stdio --disk " + image_ + closed + "'");
    EXPECT_EQ(kStatus + "0", Exit());
    std::getline(std::ifstream(image_), seen_, '\0');
    EXPECT_EQ(seen_, kContent);
    Run(REMOTE " --stdio --disk " + image_);
    output_.Write("half a message");
    output_ = Peer();  // nor does the log have a reader any more
    EXPECT_EQ(kStatus + "1", Exit());
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

// Of a server that has none, and then leaves in the middle of its answer.
TEST_F(ProgramTest, DevicesOfAServerAreListedAndThoseToServeLookedForThere) {
    const std::string answer = FromHex("01 11 00 05 00 00 00 00 00 00 00 00");
    const std::tuple<std::string, std::size_t, std::string> cases[] = {
        {" --list " + target_, 12, "0: no devices\n"},
        {" --list " + target_, 11, "1: in the middle of its answer"},
        {" --stdio --usbip " + target_ + "/1-1", 12, "1: does not offer device 1-1"}};
    for (const auto& [options, size, outcome] : cases) {
        Run(REMOTE + options);
        const Peer server = port_.Accept();
        EXPECT_EQ(FromHex("01 11 80 05 00 00 00 00"), server.Read(8));
        server.Write(answer.substr(0, size));
        ::shutdown(server.Get(), SHUT_WR);
        EXPECT_EQ(kStatus + outcome.front(), Exit());
        ExpectOutput(outcome.substr(3));
    }
}

TEST_F(ProgramTest, SaysWhatItIsAskedAndWhatCannotWork) {
    const std::regex line_of("(\\d) (host|remote)(.*) = (.*)");
    std::ifstream lines(XJ_USAGE);
    ASSERT_TRUE(lines);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (line.empty() || line[0] == '#') continue;
        ASSERT_TRUE(std::regex_match(line, match, line_of)) << line;
        Run((match[2] == "host" ? COMMAND : REMOTE) + match[3].str());
        EXPECT_EQ(kStatus + match[1].str(), Exit()) << line;
        ExpectOutput(match[4]);
    }
    Run(REMOTE " --stdio --disk " + image_ + " --disk /dev/null");
    EXPECT_EQ(kStatus + "1", Exit());
    EXPECT_EQ(1, RunHost(Options(), -1)) << "without a module";
}

}  // namespace host::test
