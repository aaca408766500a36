#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <numeric>
#include <thread>

#include "host/SocketStream.h"
#include "tests/host/Sockets.h"

namespace host {
namespace {

// The stream under test and its peer, over each kind of socket that the program uses.
class StreamTest : public testing::TestWithParam<int> {
  protected:
    StreamTest() {
        UniqueFd ours;
        if (GetParam() == AF_INET) {
            const Listener listener;
            ours = listener.Connect();
            peer_ = listener.Accept();
        } else {
            int pair[2];
            Checked(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
            ours = UniqueFd(pair[0]);
            peer_ = UniqueFd(pair[1]);
        }
        same_socket_ = UniqueFd(::dup(ours.Get()));
        stream_ = new SocketStream(std::move(ours));
    }

    // Yields until `done`; false when that takes too long.
    static bool Await(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSoonMs);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }

    void Send(const std::string& bytes) {
        Checked(static_cast<int>(::send(peer_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL)));
        ASSERT_TRUE(Await([&] { return InKernel() == bytes.size(); })) << "did not arrive";
    }

    // Bytes that have arrived and that no system call has taken yet.
    std::size_t InKernel() const {
        int count = 0;
        Checked(::ioctl(same_socket_.Get(), FIONREAD, &count));
        return static_cast<std::size_t>(count);
    }

    // What one Read yields; "failed" for a failure, which no test sends as data.
    std::string Read(std::size_t len) {
        std::string bytes(len, '\0');
        unsigned long got = 0;
        if (stream_->Read(bytes.data(), len, &got, 0) != 0) return "failed";
        EXPECT_GT(got, 0U) << "success without a byte";
        return bytes.substr(0, got);
    }

    bool Write(const std::string& bytes) {
        unsigned long written = 0;
        return stream_->Write(bytes.data(), bytes.size(), &written, 0) == 0 && written > 0;
    }

    // Runs `blocking` on a thread, ends the stream once that thread sleeps in the kernel, and
    // says whether it then returned.
    bool ReturnsWhenEnded(const std::function<void()>& blocking) {
        std::promise<pid_t> started;
        std::promise<void> returned;
        std::thread thread([&] {
            started.set_value(::gettid());
            blocking();
            returned.set_value();
        });
        const std::string stat =
            "/proc/self/task/" + std::to_string(started.get_future().get()) + "/stat";
        EXPECT_TRUE(Await([&] {
            std::string line;
            std::getline(std::ifstream(stat), line);
            return line.find(") S ") != std::string::npos;
        })) << "the thread never slept";
        stream_->End();
        const bool in_time = returned.get_future().wait_for(std::chrono::milliseconds(kSoonMs)) ==
                             std::future_status::ready;
        if (!in_time) peer_ = {};  // lets the thread go, so that the test can fail in peace
        thread.join();
        return in_time;
    }

    CRefObj<SocketStream> stream_;
    UniqueFd peer_;
    UniqueFd same_socket_;
};

std::string numbered_bytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    return bytes;
}

TEST_P(StreamTest, OneSystemCallServesManySmallReads) {
    const std::string headers = numbered_bytes(1000 * 8);
    Send(headers);
    std::string received = Read(8);
    EXPECT_EQ(0U, InKernel()) << "the first read takes all that is there";
    for (int i = 1; i < 1000; ++i)
        received += Read(8);
    EXPECT_EQ(headers, received);
}

TEST_P(StreamTest, ALargeReadTakesWhatIsBufferedAndThenTheRestInOneGo) {
    const std::string message = numbered_bytes(8 + 40'000);
    Send(message);
    std::string received = Read(8);
    for (int i = 0; i < 2; ++i)
        received += Read(message.size() - received.size());
    EXPECT_EQ(message, received);
}

TEST_P(StreamTest, WhatThePeerSentBeforeItLeftIsDeliveredAndThenTheStreamStaysEnded) {
    Send("last words");
    peer_ = {};
    EXPECT_EQ("last", Read(4));
    EXPECT_EQ(" words", Read(100));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ("failed", Read(100));
    EXPECT_FALSE(Write("x")) << "ended for both directions";
    EXPECT_EQ(0, stream_->Error()) << "an orderly end";
}

TEST_P(StreamTest, WritingToAPeerThatLeftFailsWithoutASignal) {
    peer_ = {};
    for (int tries = 0; Write("x"); ++tries)
        ASSERT_LT(tries, 1000) << "nobody takes these bytes";
    EXPECT_EQ("failed", Read(1));
    EXPECT_NE(0, stream_->Error());
}

TEST_P(StreamTest, ABlockedReadIsEndedFromAnotherThread) {
    EXPECT_TRUE(ReturnsWhenEnded([&] { EXPECT_EQ("failed", Read(8)); }));
}

TEST_P(StreamTest, ABlockedWriteIsEndedFromAnotherThread) {
    const std::string block(1'000'000, 'x');
    EXPECT_TRUE(ReturnsWhenEnded([&] {
        while (Write(block))
            continue;  // until the peer, which reads nothing, has no room
    }));
}

TEST_P(StreamTest, EndingDropsWhatWasReceivedAndNotYetRead) {
    Send("0123");
    EXPECT_EQ("01", Read(2));
    stream_->End();
    EXPECT_EQ("failed", Read(2));
}

INSTANTIATE_TEST_SUITE_P(Sockets, StreamTest, testing::Values(AF_INET, AF_UNIX),
                         [](const auto& family) {
                             return family.param == AF_INET ? "Tcp" : "Unix";
                         });

}  // namespace
}  // namespace host
