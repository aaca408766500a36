// A virtual USB mass-storage disk: URBs in, replies out. Requests on endpoint 0 are answered at
// once; URBs on the bulk endpoints wait in order until the transport can take them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "remote/device/Device.h"
#include "remote/device/Reply.h"
#include "remote/device/SubmittedNumbers.h"
#include "remote/disk/BulkOnly.h"
#include "remote/disk/DiskImage.h"
#include "remote/io/Bytes.h"

namespace remote {

class UsbDisk final : public Device {
  public:
    // Longest transfer of one URB: what the kernel's usbfs allows by default; its storage drivers
    // stay at 1 MiB. A longer one is answered as by a controller out of memory.
    static constexpr std::size_t kMaxTransfer = std::size_t{16} << 20;

    // Sum of the transfer lengths of all URBs that wait. Their replies, too, stay below it.
    static constexpr std::size_t kMaxWaiting = std::size_t{32} << 20;

    // `serial`: ASCII, 12 or more of 0-9 and A-F.
    UsbDisk(DiskImage image, UsbSpeed speed, std::string instance, std::string serial);

    const DeviceInfo& Info() const override { return info_; }
    void Attach(ReplySink& sink) override;
    void Detach() override;
    void TakeCommand(const Command& command) override;

  private:
    struct Setup;
    struct Urb {
        std::uint32_t seqnum = 0;
        std::uint32_t length = 0;     // transfer_buffer_length
        bool short_is_error = false;  // URB_SHORT_NOT_OK
        Bytes data;                   // OUT only, while it waits
    };

    void Submit(const Command& command);
    void SubmitControl(const Command& command);
    void SubmitBulk(const Command& command);
    void Unlink(std::uint32_t seqnum, std::uint32_t target);

    std::optional<Bytes> Control(const Setup& setup);
    std::optional<Bytes> EndpointRequest(const Setup& setup);
    bool SetConfiguration(std::uint16_t value);

    bool ServeOut(const Urb& urb, ByteView data);
    bool ServeIn(const Urb& urb);
    void ServeWaiting();

    void Reply(const SubmitResult& result, Bytes reply = RoomForReply());

    const DeviceInfo info_;
    const std::string serial_;
    BulkOnly bulk_;
    std::uint8_t configuration_ = 0;

    // One attachment's traffic.
    ReplySink* sink_ = nullptr;  // borrowed between Attach and Detach
    std::deque<Urb> out_waiting_;
    std::deque<Urb> in_waiting_;
    std::size_t waiting_bytes_ = 0;
    SubmittedNumbers submitted_;
};

}  // namespace remote
