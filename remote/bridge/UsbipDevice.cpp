#include "remote/bridge/UsbipDevice.h"

#include <poll.h>

#include <cerrno>
#include <new>
#include <utility>

#include "remote/bridge/DeviceTable.h"
#include "remote/bridge/UsbipHandshake.h"
#include "remote/io/Log.h"

namespace remote {

UsbipDevice::UsbipDevice(UsbipServer server, const std::string& busid, bool wait)
    : server_(std::move(server)),
      busid_(busid),
      name_(server_.Name() + "/" + busid),
      wait_(wait),
      info_{name_, UsbSpeed::kHigh, 0, 0} {}

void UsbipDevice::Acquire() {
    if (stage_ != Stage::kIdle) return;
    give_up_ = wait_ ? Clock::time_point::max() : Clock::now() + kPatience;
    last_failure_.clear();
    address_ = 0;
    Connect();
}

void UsbipDevice::Release() {
    if (stage_ == Stage::kImported) Log("%s: given back to the server", name_.c_str());
    Disconnect();
}

// The URBs under way can only be dropped together with the connection.
void UsbipDevice::Detach() {
    sink_ = nullptr;
    if (stage_ == Stage::kImported) Release();
}

void UsbipDevice::TakeCommand(const Command& command) {
    if (stage_ != Stage::kImported) return;  // has left, which the host has yet to hear
    const std::string error = traffic_.TakeCommand(command, *sink_);
    if (!error.empty()) Fail(error);
}

void UsbipDevice::Send() {
    if (traffic_.Output().Untried()) WriteNow();
}

short UsbipDevice::Events() const {
    if (stage_ == Stage::kIdle) return 0;
    if (stage_ == Stage::kConnecting) return POLLOUT;
    return static_cast<short>(POLLIN | (traffic_.Output().Empty() ? 0 : POLLOUT));
}

void UsbipDevice::OnEvents(short events) {
    try {
        if (stage_ == Stage::kConnecting) return OnConnected();
        if ((events & POLLOUT) != 0) WriteNow();
        if (stage_ != Stage::kIdle && (events & ~POLLOUT) != 0) OnReadable();
    } catch (const std::bad_alloc&) {
        Fail("out of memory");
    }
}

std::optional<Clock::time_point> UsbipDevice::Deadline() const {
    return stage_ == Stage::kImported ? traffic_.Deadline() : deadline_;
}

void UsbipDevice::OnDeadline() {
    switch (stage_) {
        case Stage::kIdle:
            address_ = 0;
            return Connect();
        case Stage::kImported:
            return Fail("the server does not answer an unlink");
        default:
            return Fail("the server does not answer");
    }
}

void UsbipDevice::Connect() {
    deadline_ = Clock::now() + kServerTimeout;
    for (; address_ < server_.Addresses(); ++address_) {
        socket_ = server_.Connect(address_);
        if (socket_) {
            stage_ = Stage::kConnecting;
            return;
        }
    }
    Fail("cannot connect: " + ErrorText(errno));
}

void UsbipDevice::OnConnected() {
    if (const int error = posix::ConnectError(socket_.Get())) {
        if (++address_ < server_.Addresses()) return Connect();
        return Fail("cannot connect: " + ErrorText(error));
    }
    stage_ = Stage::kImporting;
    traffic_.Output().Push(EncodeImportRequest(busid_));
    WriteNow();
}

void UsbipDevice::OnReadable() {
    switch (input_.ReadFrom(socket_.Get())) {
        case Progress::kMoved:
            return OnReceived();
        case Progress::kLater:
            return;
        case Progress::kEnd:
            return Fail("the server has closed the connection");
        case Progress::kFailed:
            return Fail("cannot read from the server: " + ErrorText(errno));
    }
}

void UsbipDevice::OnReceived() {
    std::string error;
    if (stage_ == Stage::kImporting) {
        ServedDevice device;
        const std::size_t size = ReadImportReply(input_.Unread(), busid_, device, error);
        input_.Take(size);
        if (size != 0) OnImported(device);
    }
    if (sink_ != nullptr) error = traffic_.TakeReplies(input_, *sink_);
    if (!error.empty()) Fail(error);
}

void UsbipDevice::OnImported(const ServedDevice& device) {
    stage_ = Stage::kImported;
    deadline_.reset();
    last_failure_.clear();
    info_ = {name_ + " " + UsbIdText(device.vendor, device.product),
             device.speed,
             device.vendor,
             device.product,
             device.bus,
             device.number};
    Log("%s: imported", info_.instance.c_str());
}

void UsbipDevice::WriteNow() {
    OutputQueue& output = traffic_.Output();
    const Progress progress = output.Empty() ? Progress::kLater : output.WriteTo(socket_.Get());
    if (progress == Progress::kFailed) Fail("cannot write to the server: " + ErrorText(errno));
}

// Ends the connection, or the attempt to make one. The session notices by itself.
void UsbipDevice::Fail(const std::string& reason) {
    const bool left = stage_ == Stage::kImported;
    Disconnect();
    const auto next = Clock::now() + kRetryInterval;
    const bool again = left ? wait_ : next < give_up_;
    if (again) deadline_ = next;
    if (std::exchange(last_failure_, reason) == reason && again) return;
    Log("%s: %s%s: %s", name_.c_str(), left ? "device has left" : "cannot import",
        again ? ", trying again" : "", reason.c_str());
}

void UsbipDevice::Disconnect() {
    stage_ = Stage::kIdle;
    deadline_.reset();
    socket_ = posix::UniqueFd();
    input_ = InputBuffer();
    traffic_ = UsbipTraffic();
}

}  // namespace remote
