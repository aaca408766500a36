// The kernel's vhci_hcd, as far as the module can see it.
//
// A stand-in for libudev over a temporary directory and an interposed `write` make the test
// executable believe that the driver is loaded: what is written to the fake's attach file takes a
// port and hands the kernel's end of the socket to the test. Works for modules that the executable
// loads, too, since its symbols come first. The record directory /var/run/vhci_hcd is redirected
// into the temporary directory; without a controller nothing is found and nothing is touched.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fakes/Patience.h"

class FakeController;

// The kernel's end of one attached device. Closing it (or destroying it) frees the port.
// Used by one thread; must not outlive its controller.
class KernelEnd {
  public:
    KernelEnd(FakeController& controller, unsigned the_port, int socket, std::string the_request);
    ~KernelEnd() { Close(); }
    KernelEnd(const KernelEnd&) = delete;

    void Close();
    bool Send(std::string_view bytes);  // false when the client's end is gone
    // Exactly `size` bytes; fewer at the end or out of patience.
    std::string Receive(std::size_t size);
    bool WaitForEnd();                                  // reads until the client's end is closed
    void StopReading() { shutdown(socket_, SHUT_RD); }  // later writes of the client fail
    // The client sees the end behind what was sent.
    void StopSending() { shutdown(socket_, SHUT_WR); }

    int Socket() const { return socket_; }  // stays this object's

    const unsigned port;
    const std::string request;  // what was written to the attach file

  private:
    ssize_t Read(char* to, std::size_t size);

    FakeController& controller_;
    int socket_;
};

// One at a time. All operations may be called from any thread.
class FakeController {
  public:
    // Of each controller, half of the ports are high-speed and half super-speed.
    explicit FakeController(int controllers = 1, int ports_each = 16);
    ~FakeController();

    std::unique_ptr<KernelEnd> WaitForAttach();  // in the order of the attaches; null: none came
    std::list<std::unique_ptr<KernelEnd>> Attached() {  // those that no test has taken yet
        return Under(mutex_, [&] { return std::exchange(attaches_, {}); });
    }
    std::atomic<int> refusal{0};     // the error that all attaches meet, if any
    std::atomic<int> held_port{-1};  // an attach of this port takes until it is another one
    // Every attach request so far, those that were refused or are held too.
    std::vector<std::string> Requests() const {
        return Under(mutex_, [&] { return requests_; });
    }

    bool WaitForRequests(std::size_t count) const {
        return Eventually([&] { return Requests().size() >= count; });
    }

    void Occupy(unsigned port, int state, std::string local_busid) {
        Under(mutex_, [&] { ports_.at(port) = {state, std::move(local_busid)}; });
    }
    void Free(unsigned port) { Occupy(port, Port().state, Port().local_busid); }

    // An attribute of "vhci_hcd.0", in place of the generated one, or of a local USB device. None:
    // it is missing.
    void SetAttribute(const std::string& device, const std::string& name,
                      std::optional<std::string> text) {
        Under(mutex_, [&] { attributes_[device + '/' + name] = std::move(text); });
    }
    void RemoveDevice(const std::string& device) { remove_all(root / "platform" / device); }
    void AddUsbDevice(const std::string& busid) { create_directories(root / "usb" / busid); }

    // Contexts and devices of libudev that were not yet given back.
    static inline std::atomic<int> live_udev_objects{0};

    // How long a status takes to read. As slow as on a busy machine, so that clients that read the
    // port table at once find it the same. Set before there are clients.
    timespec status_pause{0, 2'000'000};

    const std::filesystem::path root;              // holds platform/ and usb/
    const std::filesystem::path record_directory;  // where /var/run/vhci_hcd leads

    // For the stand-ins; see FakeController.cpp.
    static FakeController* Current() { return current_; }
    std::optional<std::string> Attribute(const std::string& device, const std::string& name) const;
    bool IsAttachFile(int fd) const;
    int Attach(std::string_view request);  // 0 or an error number

  private:
    struct Port {
        int state = 4;
        std::string local_busid = "0-0";
    };
    std::string status_text(int controller) const;

    static inline std::atomic<FakeController*> current_{nullptr};

    const int ports_each_;
    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::vector<Port> ports_;
    std::vector<std::string> requests_;
    std::list<std::unique_ptr<KernelEnd>> attaches_;                // not yet taken by the test
    std::map<std::string, std::optional<std::string>> attributes_;  // by device/name
};
