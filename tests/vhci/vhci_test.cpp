// Finding the virtual host controllers, reading their ports, attaching to one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <fstream>

#include "fakes/FakeHost.h"
#include "fakes/Ledger.h"
#include "vhci/USBVHCI_linux.h"

namespace {

const std::string kNoList = "open refresh imported list fail\n";
const std::string kHeader = "hub port sta spd dev      sockfd local_busid\n";

class VhciTest : public testing::Test {
  protected:
    VhciTest() {
        xjmod_get_entrypoint()->init(static_cast<IXJModRuntime*>(&runtime_));
        runtime_.Forget();
    }
    ~VhciTest() override {
        xjmod_get_entrypoint()->uninit();
        controller_.Attached();
        EXPECT_TRUE(ledger_.Balanced());
    }

    bool OpenWithStatus(const std::string& lines) {
        controller_.SetAttribute("vhci_hcd.0", "status", kHeader + lines);
        return CLinuxVHCI().Open();
    }
    // What was logged as a failure since the last call, each line without its prefix.
    std::string Failures() {
        std::string text;
        for (const LogLine& line : runtime_.Lines(4))
            text += line.text.substr(sizeof "[linuxvhci]") + '\n';
        runtime_.Forget();
        return text;
    }
    // Attaches a socket of its own. The port that the module says it took, or -1.
    int Attach(unsigned int speed, unsigned short busnum = 1, unsigned short devnum = 4) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return -1;
        const long descriptors = OpenDescriptors();
        CLinuxVHCI vhci;
        EXPECT_TRUE(vhci.Open() && vhci.Open()) << "an open object can be opened again";
        unsigned char port = 0xFF;
        const bool attached = vhci.Attach(ends[1], busnum, devnum, speed, &port);
        const std::string request = std::to_string(port) + ' ' + std::to_string(ends[1]) + ' ' +
                                    std::to_string(busnum * 65536U + devnum) + ' ' +
                                    std::to_string(std::min(speed, 5U));  // as super speed
        EXPECT_TRUE(!attached || controller_.Requests().back() == request) << request;
        // The kernel holds one more descriptor of an attached socket, in place of ours.
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_EQ(fcntl(ends[1], F_GETFD) == -1, attached);
        close(ends[0]);
        if (!attached) close(ends[1]);
        return attached ? port : -1;
    }

    const Ledger ledger_{};
    FakeRuntime runtime_;
    FakeController controller_{2, 8};  // hs 0-3 and 8-11, ss 4-7 and 12-15
};

TEST_F(VhciTest, StatusTexts) {
    const std::string port2 = "hs  0002 004 000 00000000 000000 0-0";
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {port2, ""},
        {port2 + std::string(5000, 'b'), ""},
        {"hs  0002 004 000 00000000", ""},
        {"hs  0002 004 000", "sscanf fail 4"},
        {port2 + "\n\x01", "sscanf fail 1"},
        {"hs  0002 004\n000 00000000 000000 0-0", "sscanf fail 3"},
        {port2 + "\n\n" + port2, "sscanf fail -1"},
        {"hs  4294967298 004 000 00000000", "sscanf fail 1"},
        {"hs  0002 004 000 100000000", "sscanf fail 4"},
        {"hs  16 004 000 00000000", "port 16 outside the table of 16"},
        {"hs  -1 004 000 00000000", "port -1 outside the table of 16"},
    };
    for (const auto& [lines, failure] : rows) {
        EXPECT_EQ(OpenWithStatus(lines), failure.empty()) << lines;
        EXPECT_EQ(Failures(), failure.empty() ? "" : "ParseStatus " + failure + "\n" + kNoList)
            << lines;
    }
}

TEST_F(VhciTest, DeviceOfAPortInUse) {
    const std::string in_use = "ss  0006 006 005 00010003 000005 3-1";
    EXPECT_TRUE(OpenWithStatus(in_use)) << "while the kernel enumerates it there is no device";
    EXPECT_EQ(Failures(),
              "InitImportedDevice udev_device_new_from_subsystem_sysname fail busid 3-1\n"
              "ParseStatus InitImportedDevice fail busid 3-1\n");
    controller_.AddUsbDevice("3-1");
    for (const char* name : {"bDeviceClass", "bDeviceSubClass", "bDeviceProtocol", "idVendor",
                             "idProduct", "bcdDevice", "bNumConfigurations", "devnum", "speed"})
        controller_.SetAttribute("3-1", name, "1");
    EXPECT_TRUE(OpenWithStatus(in_use));
    EXPECT_EQ(Failures(), "");
    for (const auto& [name, text] : {std::pair{"bDeviceClass", std::optional<std::string>("")},
                                     {"bcdDevice", "zz"},
                                     {"devnum", {}},
                                     {"speed", {}}})
        controller_.SetAttribute("3-1", name, text);
    EXPECT_TRUE(OpenWithStatus(in_use));
    EXPECT_EQ(Failures(),
              "read_attr_value sscanf failed for attribute bDeviceClass\n"
              "read_attr_value sscanf failed for attribute bcdDevice\n"
              "read_attr_value udev_device_get_sysattr_value fail\n"
              "read_attr_speed udev_device_get_sysattr_value fail\n");
}

// Each on top of those before it, with the same object; an attribute without a text is missing.
TEST_F(VhciTest, OpenFailures) {
    const std::string no_port = "open no available port\n";
    const std::tuple<const char*, std::optional<std::string>, std::string> rows[] = {
        {"status.1", "no newline", kNoList},
        {"status.1",
         {},
         "RefreshImportedDeviceList udev_device_get_sysattr_value fail\n" + kNoList},
        {"nports", "-1", no_port},
        {"nports", "3841", no_port},
        {"nports", {}, "GetAvailablePorts udev_device_get_sysattr_value fail\n" + no_port},
    };
    CLinuxVHCI vhci;
    for (const auto& [attribute, text, lines] : rows) {
        controller_.SetAttribute("vhci_hcd.0", attribute, text);
        EXPECT_FALSE(vhci.Open());
        EXPECT_EQ(Failures(), lines);
        EXPECT_EQ(FakeController::live_udev_objects, 0);
    }
    controller_.RemoveDevice("vhci_hcd.0");
    EXPECT_FALSE(vhci.Open());
    EXPECT_EQ(Failures(), "open udev_device_new_from_subsystem_sysname failed\n");
}

TEST_F(VhciTest, AttachTakesTheFirstFreePortThatSuits) {
    controller_.Occupy(9, 5, "0-0");
    const std::pair<unsigned, int> rows[] = {{5, 4}, {1, 0},  {2, 1}, {4, 2}, {6, 5}, {3, 3},
                                             {3, 8}, {3, 10}, {5, 6}, {6, 7}, {5, 12}};
    for (const auto& [speed, port] : rows)
        EXPECT_EQ(Attach(speed), port);
    for (unsigned port : {13U, 14U, 15U})
        controller_.Occupy(port, 5, "0-0");
    EXPECT_EQ(Failures(), "");
    EXPECT_EQ(Attach(5), -1) << "high-speed ports are left, but they do not suit";
    EXPECT_EQ(Failures(), "Attach get free port fail\n");
    // Port numbers have eight bits: port 256 would be taken for port 0.
    controller_.SetAttribute("vhci_hcd.0", "nports", "300");
    controller_.SetAttribute("vhci_hcd.0", "status", kHeader + "hs  0256 004 000 00000000");
    controller_.SetAttribute("vhci_hcd.0", "status.1", kHeader);
    EXPECT_EQ(Attach(3), -1);
    EXPECT_EQ(controller_.Requests().size(), std::size(rows));
}

TEST_F(VhciTest, RefusedAttachLeavesTheSocket) {
    const std::string attach = (controller_.root / "platform/vhci_hcd.0/attach").string();
    controller_.refusal = EBUSY;
    for (const std::string step : {"write", "open"}) {
        EXPECT_EQ(Attach(3), -1);
        EXPECT_EQ(Failures(), "write_sysfs_attribute " + step + " attribute fail, " + attach +
                                  "\nAttach write_sysfs_attribute fail\n");
        std::filesystem::remove(attach);
    }
    EXPECT_FALSE(std::filesystem::exists(controller_.record_directory)) << "no record either";
}

TEST_F(VhciTest, RecordOfAnAttachedPort) {
    const auto& directory = controller_.record_directory;
    std::ofstream(directory) << "in the way";
    EXPECT_EQ(Attach(3), 0) << "works without a record";
    std::filesystem::remove(directory);
    const auto record = [&] {
        std::string line;
        return std::getline(std::ifstream(directory / "port1"), line, '\0'), line;
    };
    EXPECT_EQ(Attach(3, 65535, 65535), 1);
    EXPECT_EQ(record(), "xj-remote 0 65535-65535\n");
    controller_.Free(1);
    EXPECT_EQ(Attach(3, 2, 3), 1);
    EXPECT_EQ(record(), "xj-remote 0 2-3\n") << "a longer record is replaced";
    EXPECT_EQ(std::filesystem::status(directory).permissions(), std::filesystem::perms::owner_all);
}

}  // namespace
