// The parts of the program, each alone.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>

#include "host/Connect.h"
#include "host/Doctor.h"
#include "host/Host.h"
#include "tests/support/Patience.h"

namespace host {
namespace {

// What is wrong with an address, or else the address as it was understood.
std::string parsed(const std::string& text) {
    Target target;
    const std::string problem = ParseAddress(text, target);
    return problem.empty() ? Describe(target) : problem;
}

TEST(AddressTest, IsHostAndPortOrAPath) {
    const std::string longest = "unix:" + std::string(107, 'p');
    for (const std::string text : {"box:9", "[::1]:65535", "unix:/run/usb:1.sock", longest.c_str()})
        EXPECT_EQ(text, parsed(text));
    const std::pair<std::string, std::vector<std::string>> refused[] = {
        {"the path of a Unix socket has at most 107 bytes", {longest + "p"}},
        {"the path after unix: is missing", {"unix:"}},
        {"expected HOST:PORT or unix:PATH", {"", "box"}},
        {"the host before the colon is missing", {":9000"}},
        {"an IPv6 address stands in brackets: [::1]:9000", {"::1:9", "[::1:9", "[]:9", "fe80::1"}},
        {"the port is a number from 1 to 65535",
         {"box:", "box:0", "box:65536", "box:-1", "box: 80", "box:80x", "box:9999999999999"}},
    };
    for (const auto& [reason, texts] : refused)
        for (const auto& text : texts)
            EXPECT_EQ(reason, parsed(text)) << text;
}

TEST(BackoffTest, PausesDoubleUpToALimitAndStartAgainAfterAGoodStream) {
    Backoff backoff;
    for (const int pause : {1, 2, 4, 8, 16, 30, 30})
        EXPECT_EQ(pause, backoff.Next(std::chrono::seconds(29)).count())
            << "after one that died young";
    EXPECT_EQ(1, backoff.Next(std::chrono::seconds(30)).count());
}

using Files = std::vector<std::pair<std::string, std::string>>;  // names and texts

TEST(DoctorTest, SaysWhatItFoundAndWhatStandsInTheWay) {
    const std::string free = "header\nhs  0000 004 000 00000000 000000 0-0\n";
    const std::string used = "ss  0001 006 003 0011000a 000005 1-1\n";
    const std::string rest = " 000 00000000 000000 0-0\n";
    const std::pair<Files, std::vector<std::string>> cases[] = {
        {{}, {"modprobe vhci-hcd", "cannot attach"}},
        {{{"attach", ""}}, {"status cannot be read", "cannot attach"}},
        {{{"attach", ""}, {"status", "header\n" + used}}, {"No port is free", "cannot attach"}},
        {{{"status", free}}, {"may not write", "cannot attach"}},
        {{{"attach", ""},
          {"status", free + "hs" + rest + "usb 0002 004" + rest + "hs 0002 003" + rest +
                         "hs 0002 008" + rest + "hs -002 004" + rest + "hs port 004" + rest}},
         {"6 status line(s) not understood", "cannot attach"}},
        // The last file stands behind a gap: it is not this driver's.
        {{{"attach", ""}, {"status", free + used + used}, {"status.1", free}, {"status.3", free}},
         {"(hs): 2 free, 0 in use", "(ss): 0 free, 2 in use", "can be created", "can attach"}},
    };
    for (const auto& [files, expected] : cases) {
        const std::string root = testing::TempDir() + "doctor-" + std::to_string(::getpid());
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
    StreamTest() {
        int pair[2];
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
        stream_ = new SocketStream(UniqueFd(socket_ = pair[0]));
        peer_ = UniqueFd(pair[1]);
    }

    void Send(const std::string& bytes) {
        ASSERT_EQ(bytes.size(), ::send(peer_.Get(), bytes.data(), bytes.size(), 0));
    }

    // What one Read yields; "failed" for a failure.
    std::string Read(std::size_t len) {
        std::string bytes(len, '\0');
        unsigned long got = 0;
        if (stream_->Read(bytes.data(), len, &got, 0) != 0) return "failed";
        return bytes.substr(0, got);
    }

    bool Write(const std::string& bytes) {
        unsigned long written = 0;
        return stream_->Write(bytes.data(), bytes.size(), &written, 0) == 0 && written > 0;
    }

    // Runs `blocking` on a thread and ends the stream once that thread sleeps in the kernel.
    void EndDuring(const auto& blocking) {
        std::atomic<pid_t> thread{0};
        const auto returned = std::async(std::launch::async, [&] {
            thread = ::gettid();
            blocking();
        });
        EXPECT_TRUE(Eventually([&] {
            std::string stat;
            std::getline(std::ifstream("/proc/" + std::to_string(thread) + "/stat"), stat);
            return stat.find(") S ") != std::string::npos;
        })) << "it never slept";
        stream_->End();
        EXPECT_EQ(std::future_status::ready, returned.wait_for(kPatience)) << "it still sleeps";
        peer_ = {};  // lets it go in any case, so that the test can fail in peace
    }

    int socket_ = -1;  // the stream's
    CRefObj<SocketStream> stream_;
    UniqueFd peer_;
};

TEST_F(StreamTest, OneSystemCallServesManySmallReadsAndALargeReadGetsTheRest) {
    std::string text;
    for (int i = 0; i < 3'000; ++i)
        text += std::to_string(i);
    Send(text);
    std::string received = Read(8);
    EXPECT_EQ(-1, ::recv(socket_, &received[0], 1, MSG_PEEK | MSG_DONTWAIT)) << "not read ahead";
    while (received.size() < text.size())
        received += Read(8);
    EXPECT_EQ(text, received);
    Send(text + text);  // more than one call reads ahead
    received = Read(8);
    for (int i = 0; i < 2; ++i)
        received += Read(text.size() * 2 - received.size());
    EXPECT_EQ(text + text, received);
    Send("0123");
    EXPECT_EQ("01", Read(2));
    stream_->End();
    EXPECT_EQ("failed", Read(2)) << "ending drops what was read ahead";
}

TEST_F(StreamTest, WhatThePeerSentBeforeItLeftIsDeliveredAndThenTheStreamStaysEnded) {
    Send("last words");
    peer_ = {};
    EXPECT_EQ("last", Read(4));
    EXPECT_EQ(" words", Read(100));
    EXPECT_EQ("failed", Read(100));
    EXPECT_FALSE(Write("x")) << "ended for both directions";
}

TEST_F(StreamTest, WritingToAPeerThatLeftFailsWithoutASignal) {
    peer_ = {};
    EXPECT_FALSE(Write("x"));
    EXPECT_EQ(EPIPE, stream_->Error());
}

TEST_F(StreamTest, ABlockedReadIsEndedFromAnotherThread) {
    EndDuring([&] { EXPECT_EQ("failed", Read(8)); });
}

TEST_F(StreamTest, ABlockedWriteIsEndedFromAnotherThread) {
    EndDuring([&] {
        while (Write(std::string(1'000'000, 'x')))
            continue;  // until the peer, which reads nothing, has no room
    });
}

}  // namespace
}  // namespace host
