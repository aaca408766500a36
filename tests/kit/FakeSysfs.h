// Files as the kernel shows them, in a folder of the test's.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

class FakeSysfs {
  public:
    FakeSysfs() {
        std::filesystem::create_directories(root + kDriver);
        std::filesystem::create_directories(root + "/bus/usb/devices");
        std::filesystem::create_directories(root + "/drivers/usb-storage");
        Write(kDriver + "/attach", "");
        Write(kDriver + "/detach", "");
        Ports({});
    }
    ~FakeSysfs() { std::filesystem::remove_all(folder_); }
    FakeSysfs(const FakeSysfs&) = delete;
    FakeSysfs& operator=(const FakeSysfs&) = delete;

    void Write(const std::string& path, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(root + path).parent_path());
        std::ofstream(root + path) << text;
    }
    std::string Read(const std::string& path) const {
        std::ifstream file(root + path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // Lines of the port table, behind its head; replaced at once, as a reader of the kernel's file
    // sees it.
    void Ports(const std::vector<std::string>& lines) const {
        std::string text = "hub port sta spd dev      sockfd local_busid\n";
        for (const std::string& line : lines)
            text += line + "\n";
        Write(kDriver + "/status.new", text);
        std::filesystem::rename(root + kDriver + "/status.new", root + kDriver + "/status");
    }
    static std::string Device(const std::string& local) { return "/bus/usb/devices/" + local; }
    void Unplug(const std::string& local) const {
        std::filesystem::remove_all(root + Device(local));
    }

    static inline const std::string kDriver = "/devices/platform/vhci_hcd.0";

  private:
    const std::string folder_ =
        std::filesystem::temp_directory_path().string() + "/sysfs-" + std::to_string(::getpid());

  public:
    const std::string root = folder_ + "/sys";
};

// Descriptors of a device with such interfaces: class, subclass, protocol.
inline std::string Descriptors(const std::vector<std::string>& interfaces) {
    std::string bytes = std::string("\x12\x01", 2) + std::string(16, '\0');  // the device
    bytes += std::string("\x09\x02", 2) + std::string(7, '\0');              // a configuration
    for (const std::string& interface : interfaces)
        bytes += std::string("\x09\x04\0\0\0", 5) + interface + std::string(1, '\0');
    return bytes;
}
inline const std::string kKeyboardInterface("\x03\x01\x01", 3);
inline const std::string kDiskInterface("\x08\x06\x50", 3);
