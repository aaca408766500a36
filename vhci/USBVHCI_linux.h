// The kernel's virtual host controller driver, vhci_hcd, through sysfs and libudev: the state of
// every virtual port, and the attach of a socket to a free one. Layouts of the records are those of
// the Linux USB/IP tools.
#pragma once

#include <cstdint>
#include <vector>

#include "wire/VhciStatus.h"

struct udev;
struct udev_device;

// Local USB device on a port. Numbers in host byte order, texts NUL-terminated.
struct __attribute__((packed)) usbip_usb_device {
    char path[256];  // sysfs path
    char busid[32];  // sysfs name, such as 3-1
    std::uint32_t busnum;
    std::uint32_t devnum;
    std::uint32_t speed;  // the kernel's enum usb_device_speed
    std::uint16_t idVendor;
    std::uint16_t idProduct;
    std::uint16_t bcdDevice;
    std::uint8_t bDeviceClass;
    std::uint8_t bDeviceSubClass;
    std::uint8_t bDeviceProtocol;
    // bConfigurationValue and bNumInterfaces stay 0. Reading them waits while the kernel configures
    // the device, which may be for ever when its remote side does not answer: no other device could
    // be attached.
    std::uint8_t bConfigurationValue;
    std::uint8_t bNumConfigurations;
    std::uint8_t bNumInterfaces;
};
static_assert(sizeof(usbip_usb_device) == 312);

enum usbip_hub_speed : std::uint32_t { HUB_SPEED_HIGH = 0, HUB_SPEED_SUPER = 1 };

struct usbip_imported_device {
    usbip_hub_speed hub;
    std::uint8_t port;
    std::uint32_t status;  // see wire/VhciStatus.h
    std::uint32_t devid;   // remote device id: bus number << 16 | device number
    std::uint8_t busnum;
    std::uint8_t devnum;
    usbip_usb_device udev;  // filled only for ports in use
};

// Used by one thread, for the span of one attach; the table is a snapshot taken by Open. Any number
// of threads may attach at the same time, each with an object of its own.
class CLinuxVHCI {
  public:
    CLinuxVHCI() = default;
    virtual ~CLinuxVHCI();
    CLinuxVHCI(const CLinuxVHCI&) = delete;
    CLinuxVHCI& operator=(const CLinuxVHCI&) = delete;

    // Finds the driver and loads the port table. False, with a log line, leaves the object closed.
    bool Open();
    void Close();

    // Plugs the device at the other end of `sockfd` into a free port that suits `speed`, one that
    // no other client of this process has chosen. True: the kernel holds the socket and `sockfd` is
    // closed. False: `sockfd` is still open. `outPort` may be null.
    bool Attach(int sockfd, unsigned short busnum, unsigned short devnum, unsigned int speed,
                unsigned char* outPort);

  private:
    void Clean();
    int GetAvailablePorts();
    int GetNumOfControllers();
    bool RefreshImportedDeviceList();
    bool ParseStatus(const char* text);
    bool InitImportedDevice(usbip_imported_device* device, const char* busid);
    const usbip_imported_device* ReserveFreePort(unsigned int speed) const;
    bool WriteAttachRequest(const usbip_imported_device& port, int sockfd, unsigned int devid,
                            unsigned int speed);

    udev_device* hc_device_ = nullptr;  // platform device "vhci_hcd.0"; one reference
    udev* udev_ = nullptr;              // one reference
    int ncontrollers_ = 0;
    int nports_ = 0;                           // over all controllers
    std::vector<usbip_imported_device> idev_;  // indexed by port number
    std::uint64_t read_ = 0;                   // when; see CPortReservations
};
