// How a device arrives at a port, as sysfs shows it step by step.
#include "xj-client-usbip/kit/Arrival.h"

#include <gtest/gtest.h>

#include "FakeSysfs.h"

namespace xj_usbip {
namespace {

using State = Arrival::State;
using std::chrono::milliseconds;
using std::chrono::seconds;

const RemoteDevice kArriving{1, 0x00010004, 3, 0x1D6B, 0x0104, "disk"};

class ArrivalTest : public ::testing::Test {
  protected:
    void See(State state, milliseconds after) {
        EXPECT_EQ(arrival_.Look(begin_ + after), state) << after.count();
    }
    const FakeSysfs sysfs_;
    const Arrival::Clock::time_point begin_{};
    Arrival arrival_{sysfs_.root, kArriving, begin_};
};

TEST_F(ArrivalTest, StepByStepUntilProgramsCanUseIt) {
    See(State::Attaching, {});
    EXPECT_EQ(arrival_.Port(), -1);
    EXPECT_FALSE(arrival_.Late(begin_ + milliseconds(9999)));
    EXPECT_TRUE(arrival_.Late(begin_ + seconds(10)));
    sysfs_.Ports({"hs  0000 004 000 00000000 000000 0-0", "hs  0001 006 003 00010005 000007 1-1",
                  "ss  0008 005 000 00000000 000000 0-0", "hs nonsense"});
    See(State::Attaching, seconds(1));
    sysfs_.Write("/../var/run/vhci_hcd/port8", "remote 0 1-5\n");
    See(State::Attaching, seconds(1));
    sysfs_.Write("/../var/run/vhci_hcd/port8", "remote 0 1-4\n");
    See(State::Enumerating, seconds(1));
    EXPECT_EQ(arrival_.Port(), 8);
    EXPECT_FALSE(arrival_.Late(begin_ + seconds(19)));
    EXPECT_TRUE(arrival_.Late(begin_ + seconds(20)));
    sysfs_.Ports({"ss  0008 006 003 00010004 000008 2-1"});
    See(State::Enumerating, seconds(2));

    const std::string device = FakeSysfs::Device("2-1");
    sysfs_.Write(device + "/authorized", "0\n");
    sysfs_.Write(device + "/descriptors", Descriptors({kDiskInterface, kKeyboardInterface}));
    See(State::Unauthorized, seconds(3));
    const auto classes = InterfaceClasses(sysfs_.root, "2-1");
    ASSERT_EQ(classes.size(), 2u);
    EXPECT_EQ(classes[0].subclass, 6);
    EXPECT_EQ(classes[1].code, 3);
    std::string error;
    EXPECT_TRUE(Authorize(sysfs_.root, "2-1", error)) << error;
    EXPECT_EQ(sysfs_.Read(device + "/authorized").substr(0, 1), "1");

    sysfs_.Write(device + "/bConfigurationValue", "\n");
    See(State::Configuring, seconds(4));
    sysfs_.Write(device + "/bConfigurationValue", "1\n");
    sysfs_.Write(device + "/product", "Remote disk\n");
    See(State::Configuring, milliseconds(5000));
    See(State::Configuring, milliseconds(6499));
    See(State::Ready, milliseconds(6500));  // without a node, as many devices are
    sysfs_.Write(device + "/2-1:1.0/host0/block/sda/uevent", "DEVNAME=sda\nDEVTYPE=disk\n");
    sysfs_.Write(device + "/2-1:1.0/host0/block/sda/sda1/uevent",
                 "DEVNAME=sda1\nDEVTYPE=partition\n");
    sysfs_.Write(device + "/2-1:1.0/net/usb0/uevent", "INTERFACE=usb0\n");
    sysfs_.Write(device + "/2-1:1.0/uevent", "INTERFACE=8/6/80\n");
    sysfs_.Write(device + "/uevent", "DEVNAME=bus/usb/002/003\n");
    std::filesystem::create_directory_symlink(sysfs_.root + "/drivers/usb-storage",
                                              sysfs_.root + device + "/2-1:1.0/driver");
    See(State::Ready, seconds(7));
    EXPECT_EQ(arrival_.Found().product, "Remote disk");
    EXPECT_EQ(arrival_.Found().drivers, std::vector<std::string>{"usb-storage"});
    EXPECT_EQ(arrival_.Found().nodes, (std::vector<std::string>{"/dev/sda", "usb0"}));
    EXPECT_FALSE(arrival_.Late(begin_ + seconds(100)));
    sysfs_.Ports({});
    See(State::Attaching, seconds(8));
}

// Another remote computer's device of this id was there before, and so may be ours, leaving.
TEST_F(ArrivalTest, DevicesOfTheSameIdAreToldApart) {
    sysfs_.Ports({"hs  0000 006 003 00010004 000007 1-1"});
    sysfs_.Write(FakeSysfs::Device("1-1") + "/devnum", "5\n");
    Arrival second(sysfs_.root, kArriving, begin_);
    EXPECT_EQ(second.Look(begin_), State::Attaching);
    sysfs_.Ports({"hs  0000 006 003 00010004 000007 1-1", "hs  0001 006 003 00010004 000008 1-2"});
    EXPECT_EQ(second.Look(begin_), State::Enumerating);
    EXPECT_EQ(second.Port(), 1);
    // The port is the same, the device is not.
    sysfs_.Write(FakeSysfs::Device("1-1") + "/devnum", "6\n");
    EXPECT_EQ(second.Look(begin_), State::Configuring);
    EXPECT_EQ(second.Port(), 0);
}

TEST_F(ArrivalTest, BrokenDescriptorsAreNone) {
    const std::string device = FakeSysfs::Device("1-1");
    for (const std::string& bytes :
         {std::string(), std::string("\x09"), std::string("\0\x04", 2) + std::string(20, 'x'),
          Descriptors({kDiskInterface}) + "\x09\x04", std::string("\x05\x04\x03\x03\x03", 5)}) {
        sysfs_.Write(device + "/descriptors", bytes);
        EXPECT_TRUE(InterfaceClasses(sysfs_.root, "1-1").empty());
    }
}

TEST_F(ArrivalTest, TheGateIsClosedForItsLifeAndPortsAreDetached) {
    std::string error;
    Gate none;
    EXPECT_FALSE(none.Close(sysfs_.root, error));
    EXPECT_NE(error.find("there is no root hub"), std::string::npos) << error;
    const std::string hubs[] = {FakeSysfs::kDriver + "/usb1/authorized_default",
                                "/devices/platform/vhci_hcd.1/usb3/authorized_default"};
    sysfs_.Write(hubs[0], "1\n");
    sysfs_.Write(hubs[1], "2\n");
    sysfs_.Write("/devices/platform/other/usb4/authorized_default", "1\n");
    {
        Gate gate;
        EXPECT_TRUE(gate.Close(sysfs_.root, error)) << error;
        for (const std::string& hub : hubs)
            EXPECT_EQ(sysfs_.Read(hub).substr(0, 1), "0");
        EXPECT_EQ(sysfs_.Read("/devices/platform/other/usb4/authorized_default"), "1\n");
    }
    EXPECT_EQ(sysfs_.Read(hubs[0]).substr(0, 1), "1");
    EXPECT_EQ(sysfs_.Read(hubs[1]).substr(0, 1), "2");
    EXPECT_TRUE(DetachPort(sysfs_.root, 12, error));
    EXPECT_EQ(sysfs_.Read(FakeSysfs::kDriver + "/detach"), "12");
    EXPECT_FALSE(DetachPort("/nowhere", 12, error));
    EXPECT_NE(error.find("/nowhere"), std::string::npos);
    EXPECT_TRUE(UsedPorts("/nowhere").empty());
}

}  // namespace
}  // namespace xj_usbip
