// The parts of the program, each alone.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/Doctor.h"
#include "host/Host.h"
#include "host/SocketStream.h"
#include "posix/Peer.h"

namespace host::test {

using posix::test::Peer;

TEST(BackoffTest, PausesDoubleUpToALimitAndStartAgainBehindARemoteSide) {
    Backoff backoff;
    for (const int pause : {1, 2, 4, 8, 16, 30, 30})
        EXPECT_EQ(pause, backoff.Next(false).count());
    EXPECT_EQ(1, backoff.Next(true).count());
}

TEST(DoctorTest, SaysWhatItFoundAndWhatStandsInTheWay) {
    const std::string free = "header\nss  0000 004 000 00000000 000000 0-0\n";
    const std::string used = "hs  0001 006 003 0011000a 000005 1-1\n";
    const std::string odd = free + "usb" + free.substr(9) + "hs -002 004 0 0 0 0-0\n" +
                            "hs 0002 003 0 0 0 0-0\nhs 0002 008 0 0 0 0-0\nhs port 004 0 0 0 0-0\n";
    // Files of the driver with their texts, and what is said because of them.
    const std::pair<std::map<std::string, std::string>, std::vector<std::string>> cases[] = {
        {{}, {"modprobe vhci-hcd", "\"loaded\":false}}", "cannot attach"}},
        {{{"attach", ""}}, {"status cannot be read", "\"ports\":null", "cannot attach"}},
        {{{"attach", ""}, {"status", "header\n" + used}}, {"No port is free", "cannot attach"}},
        {{{"status", free}}, {"may not write", "\"attach\":false,\"error\":", "cannot attach"}},
        {{{"attach", ""}, {"status", odd}}, {"3 status line(s) not understood", "cannot attach"}},
        // The last file stands behind a gap: it is not this driver's.
        {{{"attach", ""},
          {"status", free + used + used},
          {"status.1", "header\nss  0002 004 000 00000000\n"},  // as the module reads it
          {"status.3", free}},
         {"(ss): 2 free, 0 in use", "(hs): 0 free, 2 in use", "can be created",
          R"({"can_attach":{"high_speed":false,"super_speed":true})",
          R"("super_speed":{"free":2,"used":0},"malformed":0})",
          "can attach remote USB devices of super speed, but no slower ones"}},
    };
    const std::string root = testing::TempDir() + "doctor-" + std::to_string(::getpid());
    for (const auto& [files, expected] : cases) {
        const std::string driver = root + "/devices/platform/vhci_hcd.0/";
        if (!files.empty()) std::filesystem::create_directories(driver);
        for (const auto& [name, text] : files)
            std::ofstream(driver + name) << text;
        const Examination found = Examine(root, root + "/records");
        std::ostringstream out;
        Report(found, out);
        out << ToJson(found);
        EXPECT_EQ(expected.back().starts_with("can attach"), found.CanAttach());
        for (const std::string& text : expected)
            EXPECT_NE(std::string::npos, out.str().find(text)) << text << '\n' << out.str();
        std::filesystem::remove_all(root);
    }
}

// The stream under test and its peer.
struct StreamTest : testing::Test {
    // What one Read yields; "failed" for a failure.
    std::string Read(std::size_t len) const {
        std::string bytes(len, '\0');
        unsigned long got = 0;
        if (stream->Read(bytes.data(), len, &got, 0) != 0) return "failed";
        return bytes.substr(0, got);
    }

    std::pair<Peer, posix::UniqueFd> pair = posix::test::ConnectedPair();
    const int socket = pair.second.Release();  // the stream's
    const CRefObj<SocketStream> stream = new SocketStream(socket);
};

TEST_F(StreamTest, ReadsAheadAndTheEndDropsThat) {
    pair.first.Write("0123");
    EXPECT_EQ("01", Read(2));
    EXPECT_EQ(-1, ::recv(socket, nullptr, 0, MSG_PEEK | MSG_DONTWAIT)) << "not read ahead";
    stream->End();
    EXPECT_EQ("failed", Read(2));
}

TEST_F(StreamTest, WhatThePeerSentBeforeItLeftIsDeliveredAndThenTheStreamHasEnded) {
    pair.first.Write("last words");
    ::shutdown(pair.first.Get(), SHUT_WR);
    EXPECT_EQ("last", Read(4));
    EXPECT_EQ(" w", Read(2));
    EXPECT_EQ("ords", Read(100));
    EXPECT_EQ("failed", Read(100));
    EXPECT_EQ("", pair.first.ReadToEnd()) << "not for both directions";
}

TEST_F(StreamTest, WritingToAPeerThatLeftFailsWithoutASignal) {
    pair.first = Peer();
    unsigned long written = 0;
    EXPECT_NE(0, stream->Write("x", 1, &written, 0));
    EXPECT_EQ(EPIPE, stream->Error());
}

}  // namespace host::test
