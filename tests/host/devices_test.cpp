// What the host says and decides while devices arrive, fail and leave, and what it answers to those
// who ask. The kernel is played in sysfs.
#include "host/Devices.h"

#include <gtest/gtest.h>

#include "fakes/Patience.h"
#include "host/Control.h"
#include "kit/FakeSysfs.h"
#include "posix/Control.h"

namespace host {
namespace {

using xj_usbip::RemoteDevice;

const RemoteDevice kDisk{1, 0x00010004, 3, 0x1D6B, 0x0104, "disk1 1d6b:0104"};
const RemoteDevice kKeyboard{2, 0x00010005, 1, 0x0627, 0x0001, ""};

class DevicesTest : public testing::Test {
  protected:
    explicit DevicesTest(const std::string& rules = "") {
        std::string error;
        EXPECT_TRUE(policy_.rules.AddLines(rules, error)) << error;
        control_ = Control::Open(socket_, error);
        EXPECT_TRUE(control_) << error;
    }
    void Start() {
        std::string error;
        devices_ =
            std::make_unique<Devices>(policy_, sysfs_.root, [this](const DeviceEvent& event) {
                control_->Publish(event);
                const std::lock_guard lock(mutex_);
                said_ += std::string(KindName(event.kind)) + ": " + event.text + "\n";
            });
        EXPECT_TRUE(devices_->Open(error)) << error;
        control_->Start(*devices_);
    }
    ~DevicesTest() override {
        control_ = nullptr;
        EXPECT_FALSE(std::filesystem::exists(socket_));
    }

    // Something of this was said; forgets all that was.
    testing::AssertionResult Says(const std::string& text) {
        std::string all;
        const bool said = Eventually([&] {
            const std::lock_guard lock(mutex_);
            return (all = said_).find(text) != std::string::npos;
        });
        const std::lock_guard lock(mutex_);
        said_.clear();
        return said ? testing::AssertionSuccess()
                    : testing::AssertionFailure() << text << " is not in " << all;
    }
    // The kernel has it as 1-1, on port 0.
    void Arrive(const std::string& kernel_id = "00010004") const {
        const std::string device = FakeSysfs::Device("1-1");
        sysfs_.Write(device + "/bConfigurationValue", "1\n");
        sysfs_.Write(device + "/1-1:1.0/block/sda/uevent", "DEVNAME=sda\nDEVTYPE=disk\n");
        sysfs_.Ports({"hs  0000 006 003 " + kernel_id + " 000007 1-1"});
    }
    // The lines of the answer.
    std::string Ask(const std::string& request, int patience_ms = posix::kAskPatienceMs) const {
        std::string answer, error;
        const bool done = posix::Ask(
            socket_, request, -1, patience_ms,
            [&](std::string_view line) { answer += std::string(line) + "\n"; }, error);
        return answer + (done ? "done" : error);
    }

    const FakeSysfs sysfs_;
    const std::string socket_ = sysfs_.root + "/control";
    Policy policy_;
    std::mutex mutex_;
    std::string said_;  // guarded by mutex_
    std::unique_ptr<Control> control_;
    std::unique_ptr<Devices> devices_;
};

TEST_F(DevicesTest, ADeviceIsToldOfWhenItComesAndWhenItGoes) {
    Start();
    EXPECT_TRUE(devices_->OnMap(kDisk));
    Arrive();
    EXPECT_TRUE(Says("ready: disk1 (1d6b:0104, high speed) is usb 1-1 on port 0, ready after 0."));
    EXPECT_EQ(devices_->Count().ready, 1);
    devices_->OnUnmap(1);
    EXPECT_TRUE(Says("left: disk1 (1d6b:0104, high speed) left: the remote side unplugged it\n"));
    for (const std::string why :
         {"this machine's kernel let it go", "detached as asked", "we end"}) {
        sysfs_.Ports({});
        EXPECT_TRUE(devices_->OnMap(kDisk));
        Arrive();
        EXPECT_TRUE(Says("/dev/sda"));
        if (why[0] == 'd') {
            EXPECT_EQ(Ask(R"({"command":"detach","device":1})"), "done");
            EXPECT_EQ(sysfs_.Read(FakeSysfs::kDriver + "/detach"), "0");
        }
        if (why[0] == 'w') devices_->Leaving(why);
        devices_->OnEnd(1);
        EXPECT_TRUE(Says("left: " + why));
    }
    EXPECT_EQ(devices_->Count().failed, 0);
    devices_->OnMap(kDisk);
    devices_->Leave("the stream ended");
    EXPECT_TRUE(Says("left: the stream ended"));
    EXPECT_TRUE(devices_->List().empty());
    devices_->OnEnd(1);
}

TEST_F(DevicesTest, WhatCannotBeAttachedIsExplained) {
    Start();
    const auto fails = [this](const RemoteDevice& device) {
        EXPECT_TRUE(devices_->OnMap(device));
        devices_->OnEnd(device.id);
    };
    sysfs_.Ports({"hs  0000 006 003 00050005 000007 1-1", "ss  0008 004 000 00000000 000000 0-0"});
    fails(kDisk);
    EXPECT_TRUE(
        Says("failed: disk1 (1d6b:0104, high speed) cannot be attached: all 1 ports for high "
             "speed and slower are used"));
    RemoteDevice fast = kDisk;
    fast.speed = 5;
    fails(fast);
    EXPECT_TRUE(Says("cannot be attached: --verbose"));
    std::filesystem::remove_all(sysfs_.root + FakeSysfs::kDriver);
    fails(kKeyboard);
    EXPECT_TRUE(Says("device 2 (0627:0001, low speed) cannot be attached: vhci_hcd is not loaded"));
    EXPECT_EQ(devices_->Count().failed, 3);
    EXPECT_EQ(devices_->Count().ready, 0);
}

TEST_F(DevicesTest, TooManyAndThoseThatRulesNameAreRefused) {
    policy_.most = 1;
    policy_.deny_all = true;
    std::string error;
    EXPECT_TRUE(policy_.rules.AddLines("deny *:0105\nallow 1d6b:*", error));
    Start();
    EXPECT_FALSE(devices_->OnMap(kKeyboard));
    EXPECT_TRUE(Says("refused: device 2 (0627:0001, low speed) refused: no rule allows it"));
    RemoteDevice other = kDisk;
    other.product = 0x0105;
    EXPECT_FALSE(devices_->OnMap(other));
    EXPECT_TRUE(Says("refused: by the rule \"deny *:0105\""));
    EXPECT_TRUE(devices_->OnMap(kDisk));
    other = kDisk;
    other.id = 5;
    EXPECT_FALSE(devices_->OnMap(other));
    EXPECT_TRUE(Says("refused: 1 are attached, and no more may be"));
    EXPECT_EQ(devices_->Count().refused, 3);
}

class GatedTest : public DevicesTest {
  protected:
    GatedTest() : DevicesTest("deny class=3") {
        sysfs_.Write(gate_, "1\n");
        Start();
        sysfs_.Write(device_ + "/authorized", "0\n");
    }
    ~GatedTest() override {
        devices_ = nullptr;
        EXPECT_EQ(sysfs_.Read(gate_)[0], '1');
    }
    const std::string gate_ = FakeSysfs::kDriver + "/usb1/authorized_default";
    const std::string device_ = FakeSysfs::Device("1-1");
};

TEST_F(GatedTest, NoDriverHasADeviceBeforeItsInterfacesAreKnown) {
    EXPECT_EQ(sysfs_.Read(gate_)[0], '0');
    sysfs_.Write(device_ + "/descriptors", Descriptors({kDiskInterface}));
    EXPECT_TRUE(devices_->OnMap(kDisk));
    Arrive();
    EXPECT_TRUE(Says("ready: "));
    EXPECT_EQ(sysfs_.Read(device_ + "/authorized")[0], '1');
}

TEST_F(GatedTest, OneThatIsRefusedIsDetached) {
    for (const std::string& descriptors :
         {Descriptors({kDiskInterface, kKeyboardInterface}), std::string("\1")}) {
        sysfs_.Write(device_ + "/descriptors", descriptors);
        sysfs_.Write(FakeSysfs::kDriver + "/detach", "");
        EXPECT_TRUE(devices_->OnMap(kDisk));
        Arrive();
        EXPECT_TRUE(Says(descriptors.size() > 1 ? "refused: by the rule \"deny class=3\"\n"
                                                : "refused: what it is cannot be read\n"));
        EXPECT_TRUE(Eventually([&] { return sysfs_.Read(FakeSysfs::kDriver + "/detach") == "0"; }));
        devices_->OnEnd(1);
        sysfs_.Ports({});
    }
    EXPECT_EQ(sysfs_.Read(device_ + "/authorized"), "0\n");
    const std::lock_guard lock(mutex_);
    EXPECT_EQ(said_, "") << "it is told once";
}

TEST_F(DevicesTest, WhoAsksIsAnsweredAndWhoAsksNonsenseHarmsNobody) {
    Start();
    std::string watched, error;
    const posix::UniqueFd stop = posix::MakeEvent();
    std::thread watcher([&] {
        posix::Ask(
            socket_, R"({"command":"watch"})", stop.Get(), -1,
            [&](std::string_view line) {
                const std::lock_guard lock(mutex_);
                watched += line;
            },
            error);
    });
    EXPECT_TRUE(devices_->OnMap(kDisk));
    Arrive();
    EXPECT_TRUE(Says("ready: "));
    const std::string listed = Ask(R"({"command":"list"})");
    for (const std::string text : {R"-({"device":1,"title":"disk1 (1d6b:0104, high speed)")-",
                                   R"("vendor":"1d6b","product":"0104")", R"("state":"ready")",
                                   R"("port":0,"usb":"1-1")", R"("nodes":["/dev/sda"]})"})
        EXPECT_NE(listed.find(text), std::string::npos) << text << " is not in " << listed;
    EXPECT_NE(Ask(R"({"command":"stats"})").find(R"("outstanding":0,)"), std::string::npos);
    const std::string file = sysfs_.root + "/usb.pcapng";
    const std::string start = R"({"command":"capture start","file":")" + file + "\"}";
    EXPECT_EQ(Ask(R"({"command":"capture stop"})"), "no capture is running");
    EXPECT_EQ(Ask(start), "done");
    EXPECT_EQ(Ask(start), "a capture is running: " + file + " has 0 events of URBs");
    EXPECT_EQ(Ask(R"({"command":"capture stop"})"),
              R"({"capture":")" + file + " has 0 events of URBs\"}\ndone");
    for (const std::string request :
         {"", "list", "[]", "{}", R"({"command":7})", R"({"command":"detach","device":-1})",
          R"({"command":"detach","device":"1"})", R"({"command":"detach","device":9})",
          R"({"command":"capture start"})", R"({"command":"capture start","file":"/nowhere/x"})"})
        EXPECT_EQ(Ask(request).find("done"), std::string::npos) << request;
    EXPECT_EQ(Ask(std::string(100'000, 'x')), "it has gone");

    // Those that never take an answer, and more of them than are served.
    std::vector<posix::UniqueFd> idle(20);
    for (posix::UniqueFd& one : idle)
        one = posix::Connect({posix::Address::Kind::Unix, socket_}, -1, error);
    EXPECT_FALSE(Ask(R"({"command":"stats"})").ends_with("done"));
    idle.clear();
    EXPECT_TRUE(Eventually([&] { return Ask(R"({"command":"stats"})").ends_with("done"); }));
    devices_->OnUnmap(1);
    EXPECT_TRUE(Eventually([&] {
        const std::lock_guard lock(mutex_);
        return watched.find(R"({"event":"left","device":1,"text":"disk1 )") != std::string::npos;
    })) << watched;
    ::eventfd_write(stop.Get(), 1);
    watcher.join();
}

}  // namespace
}  // namespace host
