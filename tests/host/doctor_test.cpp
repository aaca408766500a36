#include "host/Doctor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace host {
namespace {

constexpr char kHeader[] = "hub port sta spd dev      sockfd local_busid\n";
constexpr uid_t kNobody = 65534;
constexpr char kTwoFree[] =
    "hs  0000 004 000 00000000 000000 0-0\n"
    "ss  0001 004 000 00000000 000000 0-0\n";

// A made-up machine in a directory of its own.
class DoctorTest : public testing::Test {
  protected:
    DoctorTest() {
        std::string pattern = testing::TempDir() + "doctor-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory");
        root_ = pattern;
    }
    ~DoctorTest() override { std::filesystem::remove_all(root_); }

    void Write(const std::string& name, const std::string& text) {
        const auto driver = root_ / "devices/platform/vhci_hcd.0";
        std::filesystem::create_directories(driver);
        std::ofstream(driver / name) << text;
    }

    bool IsHealthy() {
        std::ostringstream out;
        const bool healthy = Doctor(out, root_.string(), (root_ / "records").string());
        report_ = out.str();
        return healthy;
    }

    bool Reports(const std::string& text) const { return report_.find(text) != std::string::npos; }

    std::filesystem::path root_;
    std::string report_;
};

TEST_F(DoctorTest, WithoutTheDriverSaysHowToLoadIt) {
    EXPECT_FALSE(IsHealthy());
    EXPECT_TRUE(Reports("modprobe vhci-hcd")) << report_;
    EXPECT_TRUE(Reports("cannot attach")) << report_;
}

TEST_F(DoctorTest, CountsThePortsOfEveryControllerByHub) {
    Write("attach", "");
    Write("status", std::string(kHeader) + kTwoFree +
                        "hs  0002 006 003 0011000a 000005 1-1\n"
                        "hs  0003 005 000 00000000 000000 0-0\n");
    Write("status.1", std::string(kHeader) +
                          "hs  0030 004 000 00000000 000000 0-0\n"
                          "ss  0045 007 000 00000000 000000 0-0\n");
    Write("status.3", std::string(kHeader) + kTwoFree);  // behind a gap: not this driver's
    EXPECT_TRUE(IsHealthy()) << report_;
    EXPECT_TRUE(Reports("(hs): 2 free, 2 in use")) << report_;
    EXPECT_TRUE(Reports("(ss): 1 free, 1 in use")) << report_;
    EXPECT_TRUE(Reports("This machine can attach")) << report_;
}

TEST_F(DoctorTest, StatusLinesItCannotUnderstandMeanNo) {
    Write("attach", "");
    for (const char* line :
         {"hs", "hs 0002 004 000", "usb 0002 004 000 00000000 000000 0-0",
          "hs  0002 003 000 00000000 000000 0-0", "hs  0002 008 000 00000000 000000 0-0",
          "hs  -002 004 000 00000000 000000 0-0", "hs  port 004 000 00000000 000000 0-0",
          "hs  0002 004 000 100000000 000000 0-0", "0002 004 000 00000000 000000 0-0",
          "hs  0002 99999999999 000 00000000 000000 0-0", "\xff\xfe"}) {
        Write("status", std::string(kHeader) + kTwoFree + line + "\n");
        EXPECT_FALSE(IsHealthy()) << line;
        EXPECT_TRUE(Reports("1 status line(s) not understood")) << line << '\n' << report_;
    }
}

TEST_F(DoctorTest, NoStatusOrNoFreePortMeansNo) {
    Write("attach", "");
    EXPECT_FALSE(IsHealthy());
    EXPECT_TRUE(Reports("status cannot be read")) << report_;
    Write("status", std::string(kHeader) + "hs  0000 006 003 0011000a 000005 1-1\n");
    EXPECT_FALSE(IsHealthy());
    EXPECT_TRUE(Reports("No port is free")) << report_;
}

TEST_F(DoctorTest, WithoutPermissionNamesTheUserAndTheRemedy) {
    Write("status", std::string(kHeader) + kTwoFree);
    Write("attach", "");
    ASSERT_EQ(0, ::chmod((root_ / "devices/platform/vhci_hcd.0/attach").c_str(), 0444));
    ASSERT_EQ(0, ::chmod(root_.c_str(), 0755));
    const uid_t user = ::geteuid();
    if (user == 0) {
        ASSERT_EQ(0, ::seteuid(kNobody)) << "root may write every file";
    }
    EXPECT_FALSE(IsHealthy());
    ASSERT_EQ(0, ::seteuid(user));
    EXPECT_TRUE(Reports("Run the host as root")) << report_;
}

TEST_F(DoctorTest, TheRecordDirectoryIsOnlyANote) {
    Write("attach", "");
    Write("status", std::string(kHeader) + kTwoFree);
    EXPECT_TRUE(IsHealthy());
    EXPECT_TRUE(Reports("records is not there and can be created")) << report_;
    std::filesystem::create_directory(root_ / "records");
    EXPECT_TRUE(IsHealthy());
    EXPECT_TRUE(Reports("records is writable")) << report_;
}

}  // namespace
}  // namespace host
