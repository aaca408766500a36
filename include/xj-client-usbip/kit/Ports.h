// What this machine's kernel has made of the devices: the ports of its virtual host controller, and
// the USB devices on them, as sysfs shows them. Nothing is remembered; any thread.
//
// `sysfs` is where sysfs is mounted, beside the system's other folders: another place is for tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace xj_usbip {

// A port that holds a device.
struct UsedPort {
    int number = 0;               // as `usbip port` and the detach file count them
    std::uint32_t kernel_id = 0;  // of the remote device: see RemoteDevice
    std::string local;            // the local device, as "1-1"; empty while there is none
};

// Of all controllers. Empty when there is no driver.
std::vector<UsedPort> UsedPorts(const std::string& sysfs);

// Has the kernel close the port's connection: to the module, the kernel's end of the device. Needs
// the right to attach. False with an `error`.
bool DetachPort(const std::string& sysfs, int number, std::string& error);

// A USB device, as the kernel knows it by now.
struct LocalDevice {
    std::string product;               // its own name for itself; may be empty
    bool authorized = true;            // drivers may have it
    bool configured = false;           // and it has its interfaces
    std::vector<std::string> drivers;  // of these, each once
    std::vector<std::string> nodes;    // what programs open, as "/dev/sda", or a network interface
};

// Nothing when there is no such device.
std::optional<LocalDevice> FindLocalDevice(const std::string& sysfs, const std::string& local);

// Of an interface, or of the device itself.
struct UsbClass {
    std::uint8_t code = 0;
    std::uint8_t subclass = 0;
    std::uint8_t protocol = 0;
};

// Of every interface and alternate setting in any configuration. Empty when they cannot be read.
std::vector<UsbClass> InterfaceClasses(const std::string& sysfs, const std::string& local);

// Lets drivers have the device. False with an `error`.
bool Authorize(const std::string& sysfs, const std::string& local, std::string& error);

// While it lives no driver gets a device on any port of the virtual host controller before somebody
// has authorised it. That holds for devices that others attach, too.
class Gate {
  public:
    // False with an `error`: nothing is changed.
    bool Close(const std::string& sysfs, std::string& error);
    Gate() = default;
    ~Gate();  // puts back what was
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

  private:
    struct Hub {
        std::string file;
        std::string before;
    };
    std::vector<Hub> hubs_;
};

}  // namespace xj_usbip
