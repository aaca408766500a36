#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "remote/Server.h"
#include "remote/device/Device.h"
#include "remote/disk/DiskImage.h"
#include "remote/disk/UsbDisk.h"
#include "vm/microphone/Microphone.h"
#include "vm/microphone/Services.h"

namespace remote {
namespace {

class MicrophoneDevice final : public Device {
  public:
    explicit MicrophoneDevice(const Lies& lies) : lies_(lies) {}

    const DeviceInfo& Info() const override { return info_; }
    void Attach(ReplySink& sink) override {
        sink_ = &sink;
        microphone_.emplace(lies_);
    }
    void Detach() override { microphone_.reset(); }
    void TakeCommand(const Command& command) override {
        Bytes reply = microphone_->TakeCommand(command);
        if (!reply.empty()) sink_->Reply(std::move(reply));
    }
    std::optional<Clock::time_point> Deadline() const override {
        return microphone_ ? microphone_->Due() : std::nullopt;
    }
    void OnDeadline() override { sink_->Reply(microphone_->TakeRecording()); }

  private:
    const DeviceInfo info_ = MicrophoneInfo();
    const Lies lies_;
    std::optional<Microphone> microphone_;  // this and the next between Attach and Detach
    ReplySink* sink_ = nullptr;
};

}  // namespace

void ServeChannel(posix::Listener& listener, const Lies& lies, const std::string& disk) {
    std::string error;
    std::vector<std::unique_ptr<Device>> devices;
    devices.push_back(std::make_unique<MicrophoneDevice>(lies));
    if (!disk.empty()) {
        std::optional<DiskImage> image = DiskImage::Open(disk, false, error);
        if (!image) throw std::runtime_error(error);
        devices.push_back(
            std::make_unique<UsbDisk>(std::move(*image), UsbSpeed::kHigh, "disk", "0123456789AB"));
    }
    Server server(std::move(devices), false, {});
    if (!server.Run(listener)) throw std::runtime_error("cannot go on");
}

}  // namespace remote
