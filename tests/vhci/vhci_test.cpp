// Finding the virtual host controllers, reading their ports, attaching to one.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "support/FakeController.h"
#include "support/FakeHost.h"
#include "vhci/USBVHCI_linux.h"

namespace {

// Reaches the port table, which is what the layout rules of this class are about.
template <auto Member>
struct Reach {
    friend auto& port_table(CLinuxVHCI& vhci) { return vhci.*Member; }
};
template struct Reach<&CLinuxVHCI::idev_>;
auto& port_table(CLinuxVHCI& vhci);

const std::string kHeader = "hub port sta spd dev      sockfd local_busid\n";

class VhciTest : public testing::Test {
  protected:
    VhciTest() { xjmod_get_entrypoint()->init(static_cast<IXJModRuntime*>(&runtime_)); }
    ~VhciTest() override {
        vhci_.reset();
        xjmod_get_entrypoint()->uninit();
        EXPECT_EQ(FakeController::LiveUdevObjects(), 0) << "references not given back";
    }

    bool OpenWithStatus(const std::string& text) {
        controller_.SetAttribute("vhci_hcd.0", "status", text);
        vhci_.emplace();
        return vhci_->Open();
    }
    const usbip_imported_device& Record(std::size_t port) { return port_table(*vhci_).at(port); }
    std::vector<LogLine> Failures() const { return runtime_.Lines(4); }

    // Attaches a socket of its own; true when the module took it.
    bool Attach(unsigned int speed, unsigned short busnum = 1, unsigned short devnum = 4) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return false;
        vhci_.emplace();
        const long descriptors = OpenDescriptors();
        const bool attached =
            vhci_->Open() && vhci_->Attach(ends[1], busnum, devnum, speed, &port_);
        // The kernel holds one more descriptor of an attached socket, in place of ours.
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_EQ(fcntl_is_open(ends[1]), !attached);
        close(ends[0]);
        if (!attached) close(ends[1]);
        sockfd_ = ends[1];
        return attached;
    }
    static bool fcntl_is_open(int fd) {
        struct stat unused {};
        return fstat(fd, &unused) == 0;
    }

    FakeRuntime runtime_;
    FakeController controller_{2, 8};  // hs 0-3 and 8-11, ss 4-7 and 12-15
    std::optional<CLinuxVHCI> vhci_;
    unsigned char port_ = 0xFF;
    int sockfd_ = -1;
};

TEST_F(VhciTest, ReadsEveryController) {
    controller_.Occupy(9, 5, "0-0");
    vhci_.emplace();
    ASSERT_TRUE(vhci_->Open());
    EXPECT_EQ(port_table(*vhci_).size(), 16U);
    const char* const lines[] = {
        "[linuxvhci] open start",
        "[linuxvhci] available port 16",
        "[linuxvhci] ncontrollers_ 2",
        "[linuxvhci] RefreshImportedDeviceList controller  0",
        "[linuxvhci] RefreshImportedDeviceList controller  1",
        "[linuxvhci] ParseStatus hub ss port 4 status 4 speed 0 devid 0 sockfd 0 lbusid 0-0",
        "[linuxvhci] open success",
    };
    for (const char* line : lines) {
        EXPECT_EQ(runtime_.Count({8, line}), 1) << line;
    }
    EXPECT_EQ(Record(3).hub, HUB_SPEED_HIGH);
    EXPECT_EQ(Record(4).hub, HUB_SPEED_SUPER);
    EXPECT_EQ(Record(9).status, VDEV_ST_NOTASSIGNED);
    EXPECT_EQ(Record(15).port, 15);
    EXPECT_TRUE(vhci_->Open()) << "an open object can be opened again";
    EXPECT_EQ(FakeController::LiveUdevObjects(), 2) << "one context and one device";
    vhci_.reset();
    EXPECT_EQ(runtime_.Count({8, "[linuxvhci] close"}), 1);
}

TEST_F(VhciTest, StatusTexts) {
    const std::string free_port = "hs  0002 004 000 00000000 000000 0-0";
    const struct {
        std::string text;
        bool accepted;
        const char* failure;  // null: none besides Open's own
    } cases[] = {
        {kHeader, true, nullptr},
        {"header without a newline", false, nullptr},
        {kHeader + free_port, true, nullptr},
        {kHeader + free_port + "\n", true, nullptr},
        {kHeader + "hs  0002 004 000 00000000", true, nullptr},
        {kHeader + "hs  0002 004 000", false, "[linuxvhci] ParseStatus sscanf fail 4"},
        {kHeader + "hs  port", false, "[linuxvhci] ParseStatus sscanf fail 1"},
        {kHeader + free_port + "\n\x01", false, "[linuxvhci] ParseStatus sscanf fail 1"},
    };
    for (const auto& c : cases) {
        runtime_.Forget();
        EXPECT_EQ(OpenWithStatus(c.text), c.accepted) << c.text;
        std::vector<LogLine> expected;
        if (c.failure != nullptr) expected.push_back({4, c.failure});
        if (!c.accepted) expected.push_back({4, "[linuxvhci] open refresh imported list fail"});
        EXPECT_EQ(Failures(), expected) << c.text;
    }
}

TEST_F(VhciTest, PortsOutsideTheTableAreRefused) {
    for (const char* port : {"16", "255", "-1", "99999999999", "-2147483648"}) {
        runtime_.Forget();
        EXPECT_FALSE(OpenWithStatus(kHeader + "hs  " + port + " 004 000 00000000 000000 0-0"));
        EXPECT_GE(Failures().size(), 2U) << "a line that says why, for port " << port;
    }
}

TEST_F(VhciTest, OverlongFieldsAreCut) {
    EXPECT_TRUE(
        OpenWithStatus(kHeader + "hs  0001 004 000 00000000 000000 " + std::string(5000, 'b')));
    EXPECT_EQ(Record(1).status, VDEV_ST_NULL);
}

TEST_F(VhciTest, DeviceOfAPortInUse) {
    controller_.AddUsbDevice("3-1", {{"bDeviceClass", "ef"},
                                     {"bDeviceSubClass", "02"},
                                     {"bDeviceProtocol", "01"},
                                     {"idVendor", "1d6b"},
                                     {"idProduct", "0104"},
                                     {"bcdDevice", "0510"},
                                     {"bConfigurationValue", ""},
                                     {"bNumConfigurations", "1"},
                                     {"bNumInterfaces", ""},
                                     {"devnum", "258"},
                                     {"speed", "5000"}});
    ASSERT_TRUE(OpenWithStatus(kHeader + "ss  0006 006 005 00010003 000005 3-1"));
    EXPECT_EQ(Failures(), std::vector<LogLine>{});
    const usbip_imported_device& record = Record(6);
    EXPECT_EQ(record.hub, HUB_SPEED_SUPER);
    EXPECT_EQ(record.devid, 0x10003U);
    EXPECT_EQ(record.busnum, 1);
    EXPECT_EQ(record.devnum, 3);
    const usbip_usb_device& device = record.udev;
    EXPECT_EQ(device.path, (controller_.root / "usb" / "3-1").string());
    EXPECT_STREQ(device.busid, "3-1");
    EXPECT_EQ(+device.busnum, 3U);
    EXPECT_EQ(+device.devnum, 2U) << "low 8 bits";
    EXPECT_EQ(+device.speed, 5U);
    EXPECT_EQ(+device.idVendor, 0x1D6B);
    EXPECT_EQ(+device.idProduct, 0x0104);
    EXPECT_EQ(+device.bcdDevice, 0x0510);
    EXPECT_EQ(device.bDeviceClass, 0xEF);
    EXPECT_EQ(device.bNumConfigurations, 1);
    EXPECT_EQ(device.bConfigurationValue, 0);
}

TEST_F(VhciTest, SpeedTexts) {
    const struct {
        const char* text;
        unsigned number;
    } cases[] = {{"unknown", 0}, {"1.5", 1},      {"12", 2},    {"480", 3},
                 {"5000", 5},    {"53.3-480", 4}, {"10000", 0}, {"", 0}};
    for (const auto& c : cases) {
        controller_.AddUsbDevice("1-1", {{"speed", c.text}});
        ASSERT_TRUE(OpenWithStatus(kHeader + "hs  0000 006 003 00010002 000005 1-1"));
        EXPECT_EQ(+Record(0).udev.speed, c.number) << c.text;
    }
}

TEST_F(VhciTest, MissingAttributesCountAsZero) {
    controller_.AddUsbDevice("usb1", {{"bDeviceClass", ""}, {"idVendor", "zz"}});
    ASSERT_TRUE(OpenWithStatus(kHeader + "hs  0000 006 003 00010002 000005 usb1"));
    const LogLine missing{4, "[linuxvhci] read_attr_value udev_device_get_sysattr_value fail"};
    EXPECT_EQ(runtime_.Count(missing), 8) << "of ten attributes";
    for (const auto& line : {"[linuxvhci] read_attr_value sscanf failed for attribute bDeviceClass",
                             "[linuxvhci] read_attr_value sscanf failed for attribute idVendor",
                             "[linuxvhci] read_attr_speed udev_device_get_sysattr_value fail"}) {
        EXPECT_EQ(runtime_.Count({4, line}), 1) << line;
    }
    EXPECT_EQ(+Record(0).udev.busnum, 0U) << "a name of another form has no bus number";
}

TEST_F(VhciTest, OpenFailures) {
    const struct {
        std::function<void()> arrange;
        std::vector<const char*> lines;
        bool unsettled = false;
    } cases[] = {
        {[&] { controller_.RemoveAttribute("vhci_hcd.0", "status.1"); },
         {"[linuxvhci] RefreshImportedDeviceList udev_device_get_sysattr_value fail",
          "[linuxvhci] open refresh imported list fail"}},
        {[&] { controller_.Occupy(2, 6, "9-9"); },
         {"[linuxvhci] InitImportedDevice udev_device_new_from_subsystem_sysname fail busid 9-9",
          "[linuxvhci] ParseStatus InitImportedDevice fail busid 9-9",
          "[linuxvhci] open refresh imported list fail"},
         true},
        {[&] { controller_.SetAttribute("vhci_hcd.0", "nports", "0"); },
         {"[linuxvhci] open no available port"}},
        {[&] { controller_.RemoveAttribute("vhci_hcd.0", "nports"); },
         {"[linuxvhci] GetAvailablePorts udev_device_get_sysattr_value fail",
          "[linuxvhci] open no available port"}},
        {[&] { controller_.RemoveDevice("vhci_hcd.0"); },
         {"[linuxvhci] open udev_device_new_from_subsystem_sysname failed"}},
    };
    for (const auto& c : cases) {
        c.arrange();
        runtime_.Forget();
        CLinuxVHCI vhci;
        EXPECT_FALSE(vhci.Open());
        EXPECT_EQ(FakeController::LiveUdevObjects(), 0);
        EXPECT_TRUE(port_table(vhci).empty());
        EXPECT_EQ(vhci.Unsettled(), c.unsettled);
        std::vector<LogLine> expected;
        for (const char* line : c.lines)
            expected.push_back({4, line});
        EXPECT_EQ(Failures(), expected);
    }
}

TEST_F(VhciTest, UnsettledUntilThePortHasItsDevice) {
    controller_.Occupy(2, 6, "9-9");
    CLinuxVHCI vhci;
    EXPECT_FALSE(vhci.Unsettled());
    EXPECT_FALSE(vhci.Open());
    EXPECT_TRUE(vhci.Unsettled());
    controller_.AddUsbDevice("9-9", {});
    EXPECT_TRUE(vhci.Open());
    EXPECT_FALSE(vhci.Unsettled());
    controller_.Occupy(2, 6, "8-8");
    EXPECT_FALSE(vhci.Open());
    EXPECT_TRUE(vhci.Unsettled());
    controller_.RemoveDevice("vhci_hcd.0");
    EXPECT_FALSE(vhci.Open());
    EXPECT_FALSE(vhci.Unsettled()) << "trying again cannot help without the driver";
}

TEST_F(VhciTest, ImpossiblePortCountsAreRefused) {
    for (const char* count : {"-1", "4294967295", "2147483647", "18446744073709551615", "many"}) {
        controller_.SetAttribute("vhci_hcd.0", "nports", count);
        vhci_.emplace();
        EXPECT_FALSE(vhci_->Open()) << count;
    }
}

TEST_F(VhciTest, AttachRequestText) {
    controller_.Occupy(0, 5, "0-0");
    controller_.Occupy(1, 5, "0-0");
    ASSERT_TRUE(Attach(3));
    EXPECT_EQ(port_, 2);
    const std::string request = "2 " + std::to_string(sockfd_) + " 65540 3";
    EXPECT_EQ(controller_.Requests(), std::vector{request});
    const std::string fd = std::to_string(sockfd_);
    EXPECT_EQ(runtime_.Lines(1),
              (std::vector<LogLine>{
                  {1, "[linuxvhci] Attach start sockfd " + fd + " busnum 1 devnum 4 speed 3"},
                  {1, "[linuxvhci] Attach get free port 2"},
                  {1, "[linuxvhci] Attach attribute path " +
                          (controller_.root / "platform/vhci_hcd.0/attach").string() +
                          ", buff:" + request},
                  {1, "[linuxvhci] Attach success, port 2"}}));
}

TEST_F(VhciTest, PortSuitsTheSpeed) {
    const struct {
        unsigned speed;
        int port;
    } cases[] = {{5, 4}, {1, 0}, {2, 1}, {4, 2}, {5, 5}, {3, 3}, {3, 8}, {5, 6}, {5, 7}, {5, 12}};
    for (const auto& c : cases) {
        ASSERT_TRUE(Attach(c.speed));
        EXPECT_EQ(port_, c.port) << "speed " << c.speed;
    }
    for (unsigned port : {13U, 14U, 15U})
        controller_.Occupy(port, 5, "0-0");
    runtime_.Forget();
    EXPECT_FALSE(Attach(5)) << "high-speed ports are left, but they do not suit";
    EXPECT_EQ(Failures(), (std::vector<LogLine>{{4, "[linuxvhci] Attach get free port fail"}}));
}

// Port numbers have eight bits: port 256 would be taken for port 0.
TEST_F(VhciTest, PortBeyondEightBitsIsNotChosen) {
    controller_.SetAttribute("vhci_hcd.0", "nports", "300");
    controller_.SetAttribute("vhci_hcd.0", "status",
                             kHeader + "hs  0256 004 000 00000000 000000 0-0");
    controller_.SetAttribute("vhci_hcd.0", "status.1", kHeader);
    EXPECT_FALSE(Attach(3));
    EXPECT_EQ(controller_.Requests(), std::vector<std::string>{});
}

TEST_F(VhciTest, RefusedAttachLeavesTheSocket) {
    const std::string path = (controller_.root / "platform/vhci_hcd.0/attach").string();
    const LogLine failed{4, "[linuxvhci] Attach write_sysfs_attribute fail"};
    controller_.RefuseAttaches(EBUSY);
    EXPECT_FALSE(Attach(3));
    EXPECT_EQ(Failures(),
              (std::vector<LogLine>{
                  {4, "[linuxvhci] write_sysfs_attribute write attribute fail, " + path}, failed}));
    std::filesystem::remove(path);
    runtime_.Forget();
    EXPECT_FALSE(Attach(3));
    EXPECT_EQ(Failures(),
              (std::vector<LogLine>{
                  {4, "[linuxvhci] write_sysfs_attribute open attribute fail, " + path}, failed}));
    EXPECT_FALSE(std::filesystem::exists(controller_.record_directory)) << "no record either";
}

TEST_F(VhciTest, RecordOfAnAttachedPort) {
    const auto record = [&](const char* name) {
        std::ostringstream text;
        text << std::ifstream(controller_.record_directory / name).rdbuf();
        return text.str();
    };
    ASSERT_TRUE(Attach(3, 1, 4));
    EXPECT_EQ(record("port0"), "xj-remote 0 1-4\n");
    ASSERT_TRUE(Attach(3, 65535, 65535));
    EXPECT_EQ(record("port1"), "xj-remote 0 65535-65535\n");
    controller_.Free(1);
    ASSERT_TRUE(Attach(3, 2, 3));
    EXPECT_EQ(record("port1"), "xj-remote 0 2-3\n") << "a longer record is replaced";
    struct stat directory {};
    ASSERT_EQ(stat(controller_.record_directory.c_str(), &directory), 0);
    EXPECT_EQ(directory.st_mode & 0777, 0700U);
}

TEST_F(VhciTest, RecordIsSkippedWhenItsDirectoryIsAFile) {
    std::ofstream(controller_.record_directory) << "in the way";
    EXPECT_TRUE(Attach(3));
    EXPECT_TRUE(std::filesystem::is_regular_file(controller_.record_directory));
    EXPECT_EQ(Failures(), std::vector<LogLine>{});
}

}  // namespace
