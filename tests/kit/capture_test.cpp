// What a capture holds, as Wireshark's own program reads it.
#include "xj-client-usbip/kit/Capture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "FakeSysfs.h"
#include "fakes/Messages.h"
#include "fakes/Patience.h"

namespace xj_usbip {
namespace {

const RemoteDevice kCaptured{7, 0x00020003, 3, 0x1D6B, 0x0104, "disk"};

class CaptureTest : public ::testing::Test {
  protected:
    CaptureTest() { file_.path = ::testing::TempDir() + "capture-" + std::to_string(getpid()); }
    ~CaptureTest() override {
        std::filesystem::remove(file_.path);
        std::filesystem::remove(file_.path + ".1");
    }
    std::unique_ptr<Capture> Open() {
        std::string error;
        auto capture = Capture::Open(file_, error);
        EXPECT_TRUE(capture) << error;
        return capture;
    }
    static void Add(Capture& capture, bool to_remote, const std::string& pdu,
                    std::size_t shown = ~0UL) {
        capture.Add({kCaptured, to_remote, std::string_view(pdu).substr(0, shown), pdu.size()});
    }
    // A line for each packet, with these of Wireshark's fields.
    static std::string Read(const std::string& path, const std::string& fields) {
        std::string command = "tshark -r " + path + " -T fields -E separator=/s -E occurrence=a";
        std::istringstream names(fields);
        for (std::string name; names >> name;)
            command += " -e " + name;
        FILE* const output = ::popen((command + " 2>/dev/null").c_str(), "r");
        std::string text;
        char piece[4096];
        while (std::fgets(piece, sizeof piece, output) != nullptr)
            text += piece;
        EXPECT_EQ(::pclose(output), 0) << command;
        return text;
    }

    Capture::Options file_;
};

std::string Endpoint(const std::string& pdu, std::uint32_t endpoint, std::uint32_t interval = 0) {
    auto header = Parse<usbip_header>(pdu);
    header.ep = htobe32(endpoint);
    header.u.cmd_submit.interval = htobe32(interval);
    return Bytes(header) + pdu.substr(sizeof header);
}

TEST_F(CaptureTest, HoldsUrbsAsUsbmonShowsThem) {
    auto setup = Parse<usbip_header>(SubmitIn(1, 18));
    const std::uint8_t get_descriptor[8] = {0x80, 6, 0, 1, 0, 0, 18, 0};
    std::memcpy(setup.u.cmd_submit.setup, get_descriptor, sizeof get_descriptor);
    auto capture = Open();
    Add(*capture, true, Bytes(setup));
    Add(*capture, false, SubmitReply(1, 18, Descriptors({}).substr(0, 18)));
    Add(*capture, true, Endpoint(SubmitOut(2, "some data"), 2), 48 + 4);
    Add(*capture, false, SubmitReply(2, 9));
    Add(*capture, true, Endpoint(SubmitIn(3, 8), 1, 10));
    Add(*capture, true, Unlink(4, 3));
    Add(*capture, false, UnlinkReply(4, -ECONNRESET));
    Add(*capture, false, SubmitReply(99, 0));  // of what nobody has seen
    Add(*capture, true, Endpoint(WithPackets(SubmitIn(5, 20), {{0, 10, 0}, {10, 10, 0}}), 3));
    Add(*capture, false, WithPackets(SubmitReply(5, 5, "ababc"), {{0, 10, 2}, {10, 10, 3}}));
    EXPECT_EQ(capture->Count().urbs, 8u);
    capture = nullptr;
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(file_.path).permissions(),
              perms::owner_read | perms::owner_write);
    EXPECT_EQ(
        Read(file_.path,
             "usb.urb_type usb.transfer_type usb.endpoint_address usb.bus_id usb.device_address "
             "usb.urb_status usb.urb_len usb.data_len"),
        "'S' 0x02 0x80 2 3 -115 18 0\n"
        "'C' 0x02 0x80 2 3 0 18 18\n"
        "'S' 0x03 0x02 2 3 -115 9 4\n"
        "'C' 0x03 0x02 2 3 0 9 0\n"
        "'S' 0x01 0x81 2 3 -115 8 0\n"
        "'C' 0x01 0x81 2 3 -104 0 0\n"
        "'S' 0x00 0x83 2 3 -115 20 32\n"
        "'C' 0x00 0x83 2 3 0 5 37\n");
    EXPECT_NE(Read(file_.path, "usb.iso.data").find("6162,616263"), std::string::npos)
        << Read(file_.path, "usb.iso.data");
}

TEST_F(CaptureTest, BeginsANewFileWhenOneIsFullAndSaysWhatItCannotWrite) {
    file_.most_size = 1000;
    {
        const auto capture = Open();
        for (std::uint32_t number = 1; number <= 20; ++number)
            Add(*capture, true, SubmitIn(number, 1));
    }
    EXPECT_LE(std::filesystem::file_size(file_.path), 1000U);
    const std::string last = Read(file_.path, "usb.urb_id");
    const std::string before = Read(file_.path + ".1", "usb.urb_id");
    EXPECT_EQ(std::ranges::count(before, '\n'), 9) << before;
    EXPECT_EQ(std::ranges::count(last, '\n'), 2) << last;

    std::string error;
    EXPECT_FALSE(Capture::Open({"/nowhere/file"}, error));
    EXPECT_NE(error.find("/nowhere/file: No such file"), std::string::npos) << error;
    const auto capture = Capture::Open({"/dev/full"}, error);
    ASSERT_TRUE(capture) << error;
    Add(*capture, true, SubmitIn(1, 1));
    EXPECT_TRUE(Eventually([&] { return !capture->Count().error.empty(); }));
    EXPECT_EQ(capture->Count().error, "No space left on device");
    Add(*capture, true, SubmitIn(2, 1));
    EXPECT_GT(capture->Count().dropped, 0U);
}

}  // namespace
}  // namespace xj_usbip
