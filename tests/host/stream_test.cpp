#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <numeric>
#include <string_view>
#include <thread>
#include <tuple>

#include "host/SocketStream.h"
#include "tests/host/Sockets.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kSoon{kSoonMs};

// The stream under test and its peer, over each kind of socket that the program uses.
class StreamTest : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        UniqueFd ours;
        if (GetParam()) {
            const Listener listener = Listener::Tcp();
            ours = listener.Connect();
            peer_ = listener.Accept();
        } else {
            std::tie(ours, peer_) = MakePair();
        }
        same_socket_ = UniqueFd(::dup(ours.Get()));
        stream_ = new SocketStream(std::move(ours));
    }

    void Send(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::send(peer_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
        const auto deadline = std::chrono::steady_clock::now() + kSoon;
        while (InKernel() != bytes.size() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        ASSERT_EQ(bytes.size(), InKernel()) << "what was sent did not arrive";
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

    std::string ReadWhole(std::size_t len) {
        std::string bytes;
        while (bytes.size() < len) {
            const std::string part = Read(len - bytes.size());
            if (part == "failed") return part;
            bytes += part;
        }
        return bytes;
    }

    bool WriteWhole(std::string_view bytes) {
        while (!bytes.empty()) {
            unsigned long written = 0;
            if (stream_->Write(bytes.data(), bytes.size(), &written, 0) != 0) return false;
            bytes.remove_prefix(written);
        }
        return true;
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
        AwaitSleep(started.get_future().get());
        stream_->End();
        const bool in_time = returned.get_future().wait_for(kSoon) == std::future_status::ready;
        if (!in_time) peer_ = {};  // lets the thread go, so that the test can fail in peace
        thread.join();
        return in_time;
    }

    CRefObj<SocketStream> stream_;
    UniqueFd peer_;

  private:
    UniqueFd same_socket_;

    static void AwaitSleep(pid_t thread) {
        const auto deadline = std::chrono::steady_clock::now() + kSoon;
        while (std::chrono::steady_clock::now() < deadline) {
            std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
            std::string line;
            std::getline(stat, line);
            const std::size_t name_end = line.rfind(')');
            if (name_end != std::string::npos && line.substr(name_end + 2, 1) == "S") return;
            std::this_thread::yield();
        }
        ADD_FAILURE() << "the thread never slept";
    }
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
    while (received.size() < headers.size()) {
        const std::string header = Read(8);
        ASSERT_EQ(8U, header.size());
        received += header;
    }
    EXPECT_EQ(headers, received);
}

TEST_P(StreamTest, ALargeReadTakesWhatIsBufferedAndThenTheRestInOneGo) {
    const std::string message = numbered_bytes(8 + 40'000);
    Send(message);
    std::string received = Read(8);
    received += Read(message.size() - received.size());
    EXPECT_GT(InKernel(), 0U) << "the read-ahead is smaller than this message";
    received += Read(message.size() - received.size());
    EXPECT_EQ(0U, InKernel());
    EXPECT_EQ(message, received);
}

TEST_P(StreamTest, DeliversSingleBytesAndReadsNoFurtherThanAsked) {
    for (const char byte : std::string("abc")) {
        Send(std::string(1, byte));
        EXPECT_EQ(std::string(1, byte), Read(100));
    }
    Send("defghi");
    EXPECT_EQ("de", ReadWhole(2));
    EXPECT_EQ("f", ReadWhole(1));
    EXPECT_EQ("ghi", Read(100)) << "a read never waits for more than there is";
}

TEST_P(StreamTest, WhatThePeerSentBeforeItLeftIsDeliveredAndThenTheStreamStaysEnded) {
    Send("last words");
    peer_ = {};
    EXPECT_EQ("last", Read(4));
    EXPECT_EQ(" words", Read(100));
    EXPECT_EQ("failed", Read(100));
    EXPECT_EQ("failed", Read(100));
    EXPECT_FALSE(WriteWhole("x")) << "ended for both directions";
    EXPECT_EQ(0, stream_->Error()) << "an orderly end";
}

TEST_P(StreamTest, WritingToAPeerThatLeftFailsWithoutASignal) {
    peer_ = {};
    const std::string block(100'000, 'x');
    int tries = 0;
    while (WriteWhole(block))
        ASSERT_LT(++tries, 1000) << "nobody takes these bytes";
    EXPECT_EQ("failed", Read(1));
}

TEST_P(StreamTest, ABlockedReadIsEndedFromAnotherThread) {
    std::string result;
    EXPECT_TRUE(ReturnsWhenEnded([&] { result = Read(8); }));
    EXPECT_EQ("failed", result);
}

TEST_P(StreamTest, ABlockedWriteIsEndedFromAnotherThread) {
    const std::string block(1'000'000, 'x');
    EXPECT_TRUE(ReturnsWhenEnded([&] {
        while (WriteWhole(block))
            continue;  // until the peer, which reads nothing, has no room
    }));
}

TEST_P(StreamTest, EndingDropsWhatWasReceivedAndNotYetRead) {
    Send("0123456789");
    EXPECT_EQ("01", Read(2));
    stream_->End();
    EXPECT_EQ("failed", Read(2)) << "bytes of the stream's own buffer";
    stream_->End();
}

TEST_P(StreamTest, AskingForNothingIsAFailureAndNotAnEmptySuccess) {
    EXPECT_EQ("failed", Read(0));
    Send("x");
    EXPECT_EQ("x", Read(1)) << "the stream itself is unharmed";
}

INSTANTIATE_TEST_SUITE_P(Sockets, StreamTest, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Tcp" : "Unix"; });

}  // namespace
}  // namespace host
