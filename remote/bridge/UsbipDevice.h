// A device that a USB/IP server lends us for as long as a host wants it.
//
// It is imported when a host is there, not before: a remote side without a host holds no device,
// and every host finds it freshly reset.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "posix/UniqueFd.h"
#include "remote/bridge/UsbipServer.h"
#include "remote/bridge/UsbipTraffic.h"
#include "remote/device/Device.h"
#include "remote/io/InputBuffer.h"

namespace remote {

class UsbipDevice final : public Device {
  public:
    // Between two attempts to import the device.
    static constexpr std::chrono::seconds kRetryInterval{2};

    // Without `wait`, a host that wants the device makes us try for this long: a server takes a
    // moment to get back the device that the host before had.
    static constexpr std::chrono::seconds kPatience{10};

    // `wait`: try until the device appears, and again when it has left.
    UsbipDevice(UsbipServer server, const std::string& busid, bool wait);

    const DeviceInfo& Info() const override { return info_; }
    void Acquire() override;
    void Release() override;
    bool Present() const override { return stage_ == Stage::kImported; }
    void Attach(ReplySink& sink) override { sink_ = &sink; }
    void Detach() override;
    void TakeCommand(const Command& command) override;
    void Send() override;

    int Fd() const override { return socket_.Get(); }
    short Events() const override;
    void OnEvents(short events) override;
    std::optional<Clock::time_point> Deadline() const override;
    void OnDeadline() override;

  private:
    enum class Stage : std::uint8_t {
        kIdle,  // with a deadline: until the next attempt
        kConnecting,
        kImporting,
        kImported,
    };

    void Connect();
    void OnConnected();
    void OnReadable();
    void OnReceived();
    void OnImported(const ServedDevice& device);
    void WriteNow();
    void Fail(const std::string& reason);
    void Disconnect();

    const UsbipServer server_;
    const std::string busid_;
    const std::string name_;  // "SERVER/BUSID"
    const bool wait_;
    DeviceInfo info_;

    Stage stage_ = Stage::kIdle;
    std::optional<Clock::time_point> deadline_;  // of the stage
    Clock::time_point give_up_;                  // no attempt begins after it
    std::size_t address_ = 0;                    // which of the server's is being tried
    std::string last_failure_;                   // not to be logged again

    // One connection's.
    posix::UniqueFd socket_;
    InputBuffer input_;
    UsbipTraffic traffic_;
    ReplySink* sink_ = nullptr;  // borrowed between Attach and Detach
};

}  // namespace remote
