// A device client that is attached to the fake controller, with a listener that records.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "client/IClientUsbipListenter.h"
#include "client/USBIPClientLinux.h"
#include "fakes/FakeController.h"
#include "fakes/Messages.h"
#include "fuzz/Target.h"

// References are not counted: it outlives the client. All operations may be called from any thread.
class Listener : public IClientUsbipListenter {
  public:
    long AddRef() override { return 1; }
    long Release() override { return 1; }
    void OnUsbipPacket(unsigned int, const char* data, unsigned long len) override {
        const std::lock_guard lock(mutex_);
        bytes_.append(data, len);
        changed_.notify_all();
    }
    void OnUsbipDeviceError(unsigned int) override {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    bool WaitForBytes(std::size_t size) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return bytes_.size() >= size; });
    }
    bool WaitForEnd() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return ended_; });
    }
    std::string Bytes() const {  // of all PDUs, one after the other
        const std::lock_guard lock(mutex_);
        return bytes_;
    }

  private:
    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::string bytes_;
    bool ended_ = false;
};

struct MappedDevice {
    static constexpr unsigned int kDevId = 5;

    MappedDevice() {
        controller.status_pause = {};
        client->SetListener(&listener);
        client->SetDevId(kDevId);
        client->SetDevInfo(DeviceInfo());
        client->Run();
        kernel = controller.WaitForAttach();
        Require(kernel != nullptr, "the device is attached");
    }
    ~MappedDevice() { client->Stop(); }
    MappedDevice(const MappedDevice&) = delete;
    MappedDevice& operator=(const MappedDevice&) = delete;

    FakeController controller{1, 2};
    Listener listener;
    CRefObj<IUsbipClient> client{new CUsbipClientLinux};
    std::unique_ptr<KernelEnd> kernel;
};
