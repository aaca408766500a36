// The programs as a user runs them, with the module as it ships.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "fakes/Messages.h"
#include "host/Child.h"
#include "posix/Peer.h"

namespace host::test {

using posix::test::Peer;

// Less than the pause and the connect that signals cut short.
inline constexpr int kPromptMs = 7'000;
inline const std::string kStatus = "the command ended with status ";
inline const std::string kContent(4096, 'x');  // of the image

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

}  // namespace host::test
