// How devices are listed and imported at a server of the Linux USB/IP protocol (the kernel's
// Documentation/usb/usbip_protocol.rst), before PDUs follow on the connection. One request and one
// reply for each connection. All fields are big-endian; texts are padded with NULs.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr char kUsbipServerPort[] = "3240";
inline constexpr std::uint16_t kUsbipServerVersion = 0x0111;

enum UsbipOperation : std::uint16_t {
    OP_REQ_DEVLIST = 0x8005,
    OP_REP_DEVLIST = 0x0005,
    OP_REQ_IMPORT = 0x8003,
    OP_REP_IMPORT = 0x0003,
};

enum UsbipOperationStatus : std::uint32_t {
    USBIP_ST_OK = 0,
    USBIP_ST_NA = 1,  // older servers' word for every reason
    USBIP_ST_DEV_BUSY = 2,
    USBIP_ST_DEV_ERR = 3,
    USBIP_ST_NODEV = 4,
    USBIP_ST_ERROR = 5,
};

struct usbip_op_header {  // a whole OP_REQ_DEVLIST; a whole reply unless the status is 0
    std::uint16_t version;
    std::uint16_t code;
    std::uint32_t status;  // 0 in requests
};

struct usbip_op_import_request {
    usbip_op_header head;
    char busid[32];
};

// The longest bus id, as its field ends with a NUL.
inline constexpr std::size_t kUsbipMaxBusId = sizeof(usbip_op_import_request::busid) - 1;

struct usbip_op_device {
    char path[256];
    char busid[32];
    std::uint32_t busnum;
    std::uint32_t devnum;
    std::uint32_t speed;  // the kernel's enum usb_device_speed
    std::uint16_t id_vendor;
    std::uint16_t id_product;
    std::uint16_t bcd_device;
    std::uint8_t device_class;
    std::uint8_t device_subclass;
    std::uint8_t device_protocol;
    std::uint8_t configuration_value;
    std::uint8_t configurations;
    std::uint8_t interfaces;
};

struct usbip_op_import_reply {
    usbip_op_header head;
    usbip_op_device device;  // when the status is 0
};

struct usbip_op_devlist_reply {
    usbip_op_header head;
    std::uint32_t devices;  // so many usbip_op_device, each with its usbip_op_interface behind it
};

struct usbip_op_interface {
    std::uint8_t interface_class;
    std::uint8_t interface_subclass;
    std::uint8_t interface_protocol;
    std::uint8_t padding;
};

static_assert(sizeof(usbip_op_header) == 8 && sizeof(usbip_op_import_request) == 40 &&
              offsetof(usbip_op_device, busid) == 256 && offsetof(usbip_op_device, busnum) == 288 &&
              offsetof(usbip_op_device, id_vendor) == 300 &&
              offsetof(usbip_op_device, device_class) == 306 &&
              offsetof(usbip_op_device, interfaces) == 311 && sizeof(usbip_op_device) == 312 &&
              sizeof(usbip_op_import_reply) == 320 && sizeof(usbip_op_devlist_reply) == 12 &&
              sizeof(usbip_op_interface) == 4);
