#include "remote/disk/UsbDisk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "remote/disk/DiskDescriptors.h"

namespace remote {
namespace {

constexpr std::uint32_t kUrbShortNotOk = 0x0001;  // the protocol's transfer flag

// Requests by bmRequestType << 8 | bRequest (USB 2.0 section 9.4; mass-storage bulk-only).
enum Request : std::uint16_t {
    kGetDeviceStatus = 0x8000,
    kGetInterfaceStatus = 0x8100,
    kGetEndpointStatus = 0x8200,
    kClearEndpointFeature = 0x0201,
    kSetEndpointFeature = 0x0203,
    kSetAddress = 0x0005,
    kGetDescriptor = 0x8006,
    kGetConfiguration = 0x8008,
    kSetConfiguration = 0x0009,
    kGetInterface = 0x810A,
    kSetInterface = 0x010B,
    kSetSel = 0x0030,
    kSetIsochDelay = 0x0031,
    kBulkOnlyReset = 0x21FF,
    kGetMaxLun = 0xA1FE,
};
constexpr std::uint16_t kEndpointHalt = 0;

std::optional<Bytes> accepted(bool yes) {
    return yes ? std::optional(Bytes{}) : std::nullopt;
}

}  // namespace

struct UsbDisk::Setup {
    explicit Setup(const std::array<std::uint8_t, 8>& raw)
        : type(raw[0]),
          request(LoadBe16(raw.data())),
          value(LoadLe16(&raw[2])),
          index(LoadLe16(&raw[4])),
          length(LoadLe16(&raw[6])) {}

    bool In() const { return (type & 0x80) != 0; }

    std::uint8_t type;
    std::uint16_t request;
    std::uint16_t value;
    std::uint16_t index;
    std::uint16_t length;
};

UsbDisk::UsbDisk(DiskImage image, UsbSpeed speed, std::string instance, std::string serial)
    : info_{std::move(instance), speed, kDiskVendor, kDiskProduct},
      serial_(std::move(serial)),
      bulk_(Scsi(std::move(image), serial_), BulkPacketSize(speed)) {}

void UsbDisk::Attach(ReplySink& sink) {
    sink_ = &sink;
    SetConfiguration(0);
}

void UsbDisk::Detach() {
    sink_ = nullptr;
    out_waiting_.clear();
    in_waiting_.clear();
    waiting_bytes_ = 0;
    submitted_ = {};
    bulk_.Sync();
}

void UsbDisk::TakeCommand(const Command& command) {
    if (command.unlinks) {
        Unlink(command.seqnum, *command.unlinks);
    } else {
        submitted_.Add(command.seqnum);
        Submit(command);
    }
    ServeWaiting();
}

void UsbDisk::Submit(const Command& command) {
    if (!command.packets.empty()) {
        Reply({.seqnum = command.seqnum, .status = -EINVAL});
    } else if (command.length > kMaxTransfer) {
        Reply({.seqnum = command.seqnum, .status = -ENOMEM});
    } else if (command.endpoint == 0) {
        SubmitControl(command);
    } else if (configuration_ != 0 &&
               command.endpoint == (command.in ? kBulkIn & 0x0F : kBulkOut)) {
        SubmitBulk(command);
    } else {
        Reply({.seqnum = command.seqnum, .status = -EPIPE});
    }
}

void UsbDisk::SubmitControl(const Command& command) {
    const Setup setup(command.setup);
    const bool direction_fits = setup.length == 0 || setup.In() == command.in;
    std::optional<Bytes> answer;
    if (direction_fits) answer = Control(setup);
    if (!answer) return Reply({.seqnum = command.seqnum, .status = -EPIPE});
    if (!command.in) return Reply({.seqnum = command.seqnum, .actual_length = command.length});
    const std::size_t size = std::min<std::size_t>({answer->size(), setup.length, command.length});
    Bytes reply = RoomForReply();
    reply.insert(reply.end(), answer->begin(), answer->begin() + static_cast<std::ptrdiff_t>(size));
    Reply({.seqnum = command.seqnum, .actual_length = size}, std::move(reply));
}

// The data of an answer (none for OUT requests); nothing: the request stalls.
std::optional<Bytes> UsbDisk::Control(const Setup& setup) {
    const bool super = info_.speed == UsbSpeed::kSuper;
    switch (setup.request) {
        case kGetDescriptor:
            return DiskDescriptor(info_.speed, static_cast<std::uint8_t>(setup.value >> 8),
                                  static_cast<std::uint8_t>(setup.value & 0xFF), serial_);
        case kSetAddress:  // the address belongs to the host's side
            return Bytes{};
        case kGetConfiguration:
            return Bytes{configuration_};
        case kSetConfiguration:
            return accepted(SetConfiguration(setup.value));
        case kGetDeviceStatus:
            return Bytes{0x01, 0x00};  // self-powered
        case kSetSel:
        case kSetIsochDelay:
            return accepted(super);
        default:
            break;
    }
    if (configuration_ == 0) return std::nullopt;
    if ((setup.type & 0x1F) == 0x02) return EndpointRequest(setup);
    if (setup.index != 0) return std::nullopt;  // there is only interface 0
    switch (setup.request) {
        case kGetInterfaceStatus:
            return Bytes{0x00, 0x00};
        case kGetInterface:
            return Bytes{0x00};
        case kSetInterface:
            return accepted(setup.value == 0 && SetConfiguration(configuration_));
        case kBulkOnlyReset:
            bulk_.Reset();
            return Bytes{};
        case kGetMaxLun:
            return Bytes{0x00};
        default:
            return std::nullopt;
    }
}

std::optional<Bytes> UsbDisk::EndpointRequest(const Setup& setup) {
    const bool in = setup.index == kBulkIn;
    if (!in && setup.index != kBulkOut) return std::nullopt;
    if (setup.request == kGetEndpointStatus) return Bytes{bulk_.Halted(in), 0x00};
    if (setup.value != kEndpointHalt) return std::nullopt;
    if (setup.request == kSetEndpointFeature) {
        bulk_.Halt(in);
    } else if (setup.request == kClearEndpointFeature) {
        bulk_.ClearHalt(in);
    } else {
        return std::nullopt;
    }
    return Bytes{};
}

// The kernel resets a device without a message that reaches it, and then sets its configuration
// again: the transport starts afresh here.
bool UsbDisk::SetConfiguration(std::uint16_t value) {
    if (value != 0 && value != kDiskConfiguration) return false;
    configuration_ = static_cast<std::uint8_t>(value);
    bulk_.Configure();
    return true;
}

void UsbDisk::SubmitBulk(const Command& command) {
    Urb urb{.seqnum = command.seqnum,
            .length = command.length,
            .short_is_error = (command.transfer_flags & kUrbShortNotOk) != 0,
            .data = {}};
    std::deque<Urb>& waiting = command.in ? in_waiting_ : out_waiting_;
    if (waiting.empty() && (command.in ? ServeIn(urb) : ServeOut(urb, command.data))) return;
    const std::size_t cost = sizeof(Urb) + urb.length;
    if (cost > kMaxWaiting - std::min(waiting_bytes_, kMaxWaiting)) {
        return Reply({.seqnum = urb.seqnum, .status = -ENOMEM});
    }
    waiting_bytes_ += cost;
    urb.data.assign(command.data.begin(), command.data.end());
    waiting.push_back(std::move(urb));
}

void UsbDisk::ServeWaiting() {
    const auto serve = [this](std::deque<Urb>& waiting, auto&& serve_first) {
        if (waiting.empty() || !serve_first(waiting.front())) return false;
        waiting_bytes_ -= sizeof(Urb) + waiting.front().length;
        waiting.pop_front();
        return true;
    };
    // A transfer on one endpoint can make the other one ready.
    while (serve(out_waiting_, [this](const Urb& urb) { return ServeOut(urb, urb.data); }) ||
           serve(in_waiting_, [this](const Urb& urb) { return ServeIn(urb); })) {
    }
}

// False: the URB has to wait.
bool UsbDisk::ServeOut(const Urb& urb, ByteView data) {
    std::size_t taken = 0;
    const BulkOnly::Outcome outcome = bulk_.Out(data, taken);
    if (outcome == BulkOnly::Outcome::kWait) return false;
    const int status = outcome == BulkOnly::Outcome::kStall ? -EPIPE : 0;
    Reply({.seqnum = urb.seqnum, .status = status, .actual_length = taken});
    return true;
}

bool UsbDisk::ServeIn(const Urb& urb) {
    // A long URB that must not end short was queued for a data stage that has just ended short:
    // the host is about to unlink it, and the status must not get lost in it.
    if (urb.short_is_error && urb.length > BulkOnly::kCswSize && bulk_.StatusIsNext() &&
        !bulk_.Halted(true)) {
        return false;
    }
    Bytes reply = RoomForReply();
    const std::size_t header = reply.size();
    const BulkOnly::Outcome outcome = bulk_.In(urb.length, reply);
    if (outcome == BulkOnly::Outcome::kWait) return false;
    const std::size_t actual = reply.size() - header;
    int status = outcome == BulkOnly::Outcome::kStall ? -EPIPE : 0;
    if (status == 0 && urb.short_is_error && actual < urb.length) status = -EREMOTEIO;
    Reply({.seqnum = urb.seqnum, .status = status, .actual_length = actual}, std::move(reply));
    return true;
}

void UsbDisk::Unlink(std::uint32_t seqnum, std::uint32_t target) {
    const auto remove = [&](std::deque<Urb>& waiting) {
        const auto urb = std::find_if(waiting.begin(), waiting.end(),
                                      [&](const Urb& one) { return one.seqnum == target; });
        if (urb == waiting.end()) return false;
        waiting_bytes_ -= sizeof(Urb) + urb->length;
        waiting.erase(urb);
        return true;
    };
    const bool removed = remove(out_waiting_) || remove(in_waiting_);
    sink_->Reply(RetUnlink(seqnum, removed || !submitted_.Contains(target) ? -ECONNRESET : 0));
}

void UsbDisk::Reply(const SubmitResult& result, Bytes reply) {
    sink_->Reply(RetSubmit(result, std::move(reply)));
}

}  // namespace remote
