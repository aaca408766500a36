#include "remote/bridge/UsbipHandshake.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace remote {
namespace {

// USB_SPEED_SUPER_PLUS. The virtual host controller's fastest is super, at which such devices run.
constexpr std::uint32_t kSuperPlusSpeed = 6;

usbip_op_header request_head(UsbipOperation code) {
    return {htobe16(kUsbipServerVersion), htobe16(code), 0};
}

const char* status_text(std::uint32_t status) {
    switch (status) {
        case USBIP_ST_NA:
            return "the device is not available";
        case USBIP_ST_DEV_BUSY:
            return "the device is in use";
        case USBIP_ST_DEV_ERR:
            return "the device has failed";
        case USBIP_ST_NODEV:
            return "there is no such device";
        default:
            return "the server refuses";
    }
}

// The head of a reply; its later fields may still be missing.
std::string check_head(ByteView received, UsbipOperation code) {
    const auto head = LoadRaw<usbip_op_header>(received.data());
    char text[64];
    if (be16toh(head.version) != kUsbipServerVersion) {
        std::snprintf(text, sizeof text, "the server speaks version %04x, not %04x",
                      be16toh(head.version), kUsbipServerVersion);
        return text;
    }
    if (be16toh(head.code) != code) {
        std::snprintf(text, sizeof text, "the server answers with code %04x, not %04x",
                      be16toh(head.code), code);
        return text;
    }
    const std::uint32_t status = be32toh(head.status);
    if (status == USBIP_ST_OK) return {};
    return status_text(status) + std::string(" (status ") + std::to_string(status) + ")";
}

// What is wrong with a record, or nothing.
std::string read_device(const usbip_op_device& record, ServedDevice& device) {
    device.busid.assign(record.busid, strnlen(record.busid, sizeof record.busid));
    if (device.busid.empty() || !std::all_of(device.busid.begin(), device.busid.end(), [](char c) {
            return std::isgraph(static_cast<unsigned char>(c)) != 0;
        })) {
        return "the server sends a device without a readable bus id";
    }
    const std::uint32_t bus = be32toh(record.busnum);
    const std::uint32_t number = be32toh(record.devnum);
    if (bus > UINT16_MAX || number > UINT16_MAX) {  // both must fit the device id of commands
        return "the server puts " + device.busid + " at bus " + std::to_string(bus) + " device " +
               std::to_string(number);
    }
    const std::uint32_t speed = be32toh(record.speed);
    if (speed == 0 || speed > kSuperPlusSpeed) {
        return "the server gives " + device.busid + " the speed " + std::to_string(speed);
    }
    device.speed = speed == kSuperPlusSpeed ? UsbSpeed::kSuper : static_cast<UsbSpeed>(speed);
    device.bus = static_cast<std::uint16_t>(bus);
    device.number = static_cast<std::uint16_t>(number);
    device.vendor = be16toh(record.id_vendor);
    device.product = be16toh(record.id_product);
    device.classes = {record.device_class};
    return {};
}

}  // namespace

Bytes EncodeImportRequest(const std::string& busid) {
    usbip_op_import_request request{};
    request.head = request_head(OP_REQ_IMPORT);
    busid.copy(request.busid, kUsbipMaxBusId);
    return ToBytes(request);
}

Bytes EncodeListRequest() {
    return ToBytes(request_head(OP_REQ_DEVLIST));
}

std::size_t ReadImportReply(ByteView received, const std::string& busid, ServedDevice& device,
                            std::string& error) {
    if (received.size() < sizeof(usbip_op_header)) return 0;
    error = check_head(received, OP_REP_IMPORT);
    if (!error.empty() || received.size() < sizeof(usbip_op_import_reply)) return 0;
    error = read_device(LoadRaw<usbip_op_import_reply>(received.data()).device, device);
    if (error.empty() && device.busid != busid) error = "the server hands out " + device.busid;
    return error.empty() ? sizeof(usbip_op_import_reply) : 0;
}

std::size_t ListReader::Read(ByteView received) {
    const ByteView whole = received;
    if (!left_) {
        if (received.size() < sizeof(usbip_op_header)) return 0;
        error_ = check_head(received, OP_REP_DEVLIST);
        if (!error_.empty() || received.size() < sizeof(usbip_op_devlist_reply)) return 0;
        left_ = be32toh(LoadRaw<usbip_op_devlist_reply>(received.data()).devices);
        if (*left_ > kMaxDevices)
            error_ = "the server announces " + std::to_string(*left_) + " devices";
        received = received.subspan(sizeof(usbip_op_devlist_reply));
    }
    while (error_.empty() && *left_ != 0 && received.size() >= sizeof(usbip_op_device)) {
        const auto record = LoadRaw<usbip_op_device>(received.data());
        ByteView interfaces = received.subspan(sizeof record);
        const std::size_t size = record.interfaces * sizeof(usbip_op_interface);
        if (interfaces.size() < size) break;
        ServedDevice device;
        error_ = read_device(record, device);
        for (interfaces = interfaces.first(size); !interfaces.empty();
             interfaces = interfaces.subspan(sizeof(usbip_op_interface))) {
            device.classes.push_back(interfaces.front());
        }
        devices_.push_back(std::move(device));
        received = received.subspan(sizeof record + size);
        --*left_;
    }
    return whole.size() - received.size();
}

}  // namespace remote
