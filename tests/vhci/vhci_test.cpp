// Finding the virtual host controllers, reading their ports, attaching to one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "fakes/FakeController.h"
#include "fakes/FakeHost.h"
#include "vhci/USBVHCI_linux.h"

namespace {

// Reaches the port table, which is what the layout rules of this class are about.
template <auto Member>
struct Reach {
    friend auto& port_table(CLinuxVHCI& vhci) { return vhci.*Member; }
};
template struct Reach<&CLinuxVHCI::idev_>;
auto& port_table(CLinuxVHCI& vhci);

const std::string kNoList = "open refresh imported list fail\n";
const std::string kHeader = "hub port sta spd dev      sockfd local_busid\n";

class VhciTest : public testing::Test {
  protected:
    VhciTest() {
        xjmod_get_entrypoint()->init(static_cast<IXJModRuntime*>(&runtime_));
        runtime_.Forget();
    }
    ~VhciTest() override {
        vhci_.reset();
        xjmod_get_entrypoint()->uninit();
        EXPECT_EQ(FakeController::live_udev_objects, 0) << "references not given back";
    }

    bool OpenWithStatus(const std::string& lines) {
        controller_.SetAttribute("vhci_hcd.0", "status", kHeader + lines);
        return vhci_.emplace().Open();
    }
    const usbip_imported_device& Record(std::size_t port) { return port_table(*vhci_).at(port); }

    // What was logged at `level` since the last call, each line without its prefix.
    std::string Log(int level) {
        std::string text;
        for (const LogLine& line : runtime_.Lines(level))
            text += line.text.substr(sizeof "[linuxvhci]") + '\n';
        runtime_.Forget();
        return text;
    }

    // Attaches a socket of its own; true when the module took it.
    bool Attach(unsigned int speed, unsigned short busnum = 1, unsigned short devnum = 4) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return false;
        const long descriptors = OpenDescriptors();
        const bool attached = vhci_.emplace().Open() &&
                              vhci_->Attach(sockfd_ = ends[1], busnum, devnum, speed, &port_);
        // The kernel holds one more descriptor of an attached socket, in place of ours.
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_EQ(fcntl(ends[1], F_GETFD) == -1, attached);
        close(ends[0]);
        if (!attached) close(ends[1]);
        return attached;
    }

    FakeRuntime runtime_;
    FakeController controller_{2, 8};  // hs 0-3 and 8-11, ss 4-7 and 12-15
    const std::string attach_ = (controller_.root / "platform/vhci_hcd.0/attach").string();
    std::optional<CLinuxVHCI> vhci_;
    unsigned char port_ = 0xFF;
    int sockfd_ = -1;
};

TEST_F(VhciTest, ReadsEveryController) {
    controller_.Occupy(9, 5, "0-0");
    ASSERT_TRUE(vhci_.emplace().Open());
    EXPECT_EQ(port_table(*vhci_).size(), 16U);
    EXPECT_EQ(Record(3).hub, HUB_SPEED_HIGH);
    EXPECT_EQ(Record(4).hub, HUB_SPEED_SUPER);
    EXPECT_EQ(Record(9).status, VDEV_ST_NOTASSIGNED);
    EXPECT_EQ(Record(15).port, 15);
    const std::string log = Log(8);
    const std::string second = "controller  1\nParseStatus hub hs port 8 status 4 speed 0 devid 0 ";
    EXPECT_TRUE(log.starts_with("open start\navailable port 16\nncontrollers_ 2\n")) << log;
    EXPECT_NE(log.find(second + "sockfd 0 lbusid 0-0\n"), log.npos) << log;
    EXPECT_TRUE(log.ends_with("\nopen success\n")) << log;
    EXPECT_TRUE(vhci_->Open()) << "an open object can be opened again";
    EXPECT_EQ(FakeController::live_udev_objects, 2) << "one context and one device";
}

TEST_F(VhciTest, StatusTexts) {
    const std::string port2 = "hs  0002 004 000 00000000 000000 0-0";
    const struct {
        std::string lines;
        std::string failure = {};
    } rows[] = {
        {""},
        {port2},
        {port2 + "\n"},
        {port2 + std::string(5000, 'b')},
        {"hs  0002 004 000 00000000"},
        {"hs  0002 004 000", "sscanf fail 4"},
        {"hs  port", "sscanf fail 1"},
        {port2 + "\n\x01", "sscanf fail 1"},
        {"hs  16 004 000 00000000", "port 16 outside the table of 16"},
        {"hs  -1 004 000 00000000", "port -1 outside the table of 16"},
        {"hs  -2147483648 004 000 00000000", "port -2147483648 outside the table of 16"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(OpenWithStatus(row.lines), row.failure.empty()) << row.lines;
        const std::string log = "ParseStatus " + row.failure + "\n" + kNoList;
        EXPECT_EQ(Log(4), row.failure.empty() ? "" : log) << row.lines;
    }
}

TEST_F(VhciTest, DeviceOfAPortInUse) {
    std::map<std::string, std::string> attributes{{"bConfigurationValue", ""},
                                                  {"bNumInterfaces", ""}};
    std::istringstream words(
        "bDeviceClass ef bDeviceSubClass 02 bDeviceProtocol 01 devnum 258 "
        "idVendor 1d6b idProduct 0104 bcdDevice 0510 bNumConfigurations 1 speed 5000");
    for (std::string name, text; words >> name >> text;)
        attributes[name] = text;
    controller_.AddUsbDevice("3-1", attributes);
    ASSERT_TRUE(OpenWithStatus("ss  0006 006 005 00010003 000005 3-1"));
    EXPECT_EQ(Log(4), "");
    const usbip_imported_device& record = Record(6);
    const usbip_usb_device& device = record.udev;
    std::ostringstream text;
    text << std::hex << record.hub << ' ' << record.devid << ' ' << +record.busnum << ' '
         << +record.devnum << ", " << device.busnum << ' ' << device.devnum << ' ' << device.speed
         << ", " << device.idVendor << ' ' << device.idProduct << ' ' << device.bcdDevice << ", "
         << +device.bDeviceClass << ' ' << +device.bDeviceSubClass << ' ' << +device.bDeviceProtocol
         << ", " << +device.bConfigurationValue << ' ' << +device.bNumConfigurations << ' '
         << +device.bNumInterfaces << ' ' << device.busid;
    EXPECT_EQ(text.str(), "1 10003 1 3, 3 2 5, 1d6b 104 510, ef 2 1, 0 1 0 3-1");
    EXPECT_EQ(device.path, (controller_.root / "usb" / "3-1").string());

    const std::pair<const char*, unsigned> speeds[] = {{"unknown", 0}, {"1.5", 1},  {"12", 2},
                                                       {"480", 3},     {"5000", 5}, {"53.3-480", 4},
                                                       {"10000", 0},   {"", 0}};
    for (const auto& [speed, number] : speeds) {
        controller_.SetAttribute("3-1", "speed", speed);
        ASSERT_TRUE(vhci_->Open());
        EXPECT_EQ(+Record(6).udev.speed, number) << speed;
    }
}

TEST_F(VhciTest, MissingAttributesCountAsZero) {
    controller_.AddUsbDevice("usb1", {{"bDeviceClass", ""}, {"bDeviceSubClass", "zz"}});
    ASSERT_TRUE(OpenWithStatus("hs  0000 006 003 00010002 000005 usb1"));
    std::string expected =
        "read_attr_value sscanf failed for attribute bDeviceClass\n"
        "read_attr_value sscanf failed for attribute bDeviceSubClass\n";
    for (int missing = 0; missing < 8; ++missing)
        expected += "read_attr_value udev_device_get_sysattr_value fail\n";
    EXPECT_EQ(Log(4), expected + "read_attr_speed udev_device_get_sysattr_value fail\n");
    EXPECT_EQ(+Record(0).udev.busnum, 0U) << "a name of another form has no bus number";
}

// Each on top of those before it, with the same object.
TEST_F(VhciTest, OpenFailures) {
    const std::string in_use = "hs  0002 006 003 00010002 000005 9-9";
    const std::string no_port = "open no available port\n";
    const struct {
        const char* attribute;
        std::optional<std::string> text;  // none: the attribute is missing
        std::string lines;
        std::string unsettled = {};
    } rows[] = {
        {"status.1", "no newline", kNoList},
        {"status.1",
         {},
         "RefreshImportedDeviceList udev_device_get_sysattr_value fail\n" + kNoList},
        {"status", kHeader + in_use,
         "InitImportedDevice udev_device_new_from_subsystem_sysname fail busid 9-9\nParseStatus "
         "InitImportedDevice fail busid 9-9\n" +
             kNoList,
         "9-9"},
        {"nports", "0", no_port},
        {"nports", "-1", no_port},
        {"nports", "3841", no_port},
        {"nports", {}, "GetAvailablePorts udev_device_get_sysattr_value fail\n" + no_port},
    };
    CLinuxVHCI vhci;
    for (const auto& row : rows) {
        controller_.SetAttribute("vhci_hcd.0", row.attribute, row.text.value_or(""));
        if (!row.text) controller_.RemoveAttribute("vhci_hcd.0", row.attribute);
        EXPECT_FALSE(vhci.Open());
        EXPECT_EQ(Log(4), row.lines);
        EXPECT_EQ(vhci.Unsettled(), row.unsettled) << row.lines;
        EXPECT_TRUE(port_table(vhci).empty());
        EXPECT_EQ(FakeController::live_udev_objects, 0);
    }
    controller_.RemoveDevice("vhci_hcd.0");
    EXPECT_FALSE(vhci.Open());
    EXPECT_EQ(Log(4), "open udev_device_new_from_subsystem_sysname failed\n");
}

TEST_F(VhciTest, AttachTakesTheFirstFreePortThatSuits) {
    const std::pair<unsigned, int> rows[] = {{5, 4}, {1, 0}, {2, 1}, {4, 2}, {5, 5},
                                             {3, 3}, {3, 8}, {5, 6}, {5, 7}, {5, 12}};
    for (const auto& [speed, port] : rows) {
        ASSERT_TRUE(Attach(speed, 1, 4));
        EXPECT_EQ(port_, port);
        std::ostringstream request, log;
        request << port << ' ' << sockfd_ << " 65540 " << speed;
        log << "Attach start sockfd " << sockfd_ << " busnum 1 devnum 4 speed " << speed
            << "\nAttach get free port " << port << "\nAttach attribute path " << attach_
            << ", buff:" << request.str() << "\nAttach success, port " << port << '\n';
        EXPECT_EQ(controller_.Requests().back(), request.str());
        EXPECT_EQ(Log(1), log.str());
    }
    for (unsigned port : {13U, 14U, 15U})
        controller_.Occupy(port, 5, "0-0");
    EXPECT_FALSE(Attach(5)) << "high-speed ports are left, but they do not suit";
    EXPECT_EQ(Log(4), "Attach get free port fail\n");
}

// Port numbers have eight bits: port 256 would be taken for port 0.
TEST_F(VhciTest, PortBeyondEightBitsIsNotChosen) {
    controller_.SetAttribute("vhci_hcd.0", "nports", "300");
    controller_.SetAttribute("vhci_hcd.0", "status", kHeader + "hs  0256 004 000 00000000");
    controller_.SetAttribute("vhci_hcd.0", "status.1", kHeader);
    EXPECT_FALSE(Attach(3));
    EXPECT_EQ(controller_.Requests(), std::vector<std::string>{});
}

TEST_F(VhciTest, RefusedAttachLeavesTheSocket) {
    controller_.RefuseAttaches(EBUSY);
    for (const std::string step : {"write", "open"}) {
        EXPECT_FALSE(Attach(3));
        EXPECT_EQ(Log(4), "write_sysfs_attribute " + step + " attribute fail, " + attach_ +
                              "\nAttach write_sysfs_attribute fail\n");
        std::filesystem::remove(attach_);
    }
    EXPECT_FALSE(std::filesystem::exists(controller_.record_directory)) << "no record either";
}

TEST_F(VhciTest, RecordOfAnAttachedPort) {
    std::ofstream(controller_.record_directory) << "in the way";
    EXPECT_TRUE(Attach(3)) << "works without a record";
    std::filesystem::remove(controller_.record_directory);
    const auto record = [&] {
        std::ostringstream text;
        text << std::ifstream(controller_.record_directory / "port1").rdbuf();
        return text.str();
    };
    ASSERT_TRUE(Attach(3, 65535, 65535));
    EXPECT_EQ(record(), "xj-remote 0 65535-65535\n");
    controller_.Free(1);
    ASSERT_TRUE(Attach(3, 2, 3));
    EXPECT_EQ(record(), "xj-remote 0 2-3\n") << "a longer record is replaced";
    EXPECT_EQ(std::filesystem::status(controller_.record_directory).permissions(),
              std::filesystem::perms::owner_all);
}

}  // namespace
