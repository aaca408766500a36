#include "remote/disk/UsbDisk.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "remote/disk/DiskDescriptors.h"
#include "wire/UsbipPdu.h"

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

Bytes empty_reply() {
    return Bytes(sizeof(usbip_header));
}

std::optional<Bytes> accepted(bool yes) {
    return yes ? std::optional(Bytes{}) : std::nullopt;
}

}  // namespace

struct UsbDisk::Setup {
    explicit Setup(const std::uint8_t* raw)
        : type(raw[0]),
          request(static_cast<std::uint16_t>(raw[0] << 8 | raw[1])),
          value(LoadLe16(raw + 2)),
          index(LoadLe16(raw + 4)),
          length(LoadLe16(raw + 6)) {}

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

void UsbDisk::Command(ByteView pdu) {
    const auto header = LoadRaw<usbip_header>(pdu.data());
    const std::uint32_t seqnum = be32toh(header.seqnum);
    if (be32toh(header.command) == USBIP_CMD_UNLINK) {
        Unlink(seqnum, be32toh(header.u.cmd_unlink.seqnum));
    } else {
        submitted_.Add(seqnum);
        Submit(pdu);
    }
    ServeWaiting();
}

void UsbDisk::Submit(ByteView pdu) {
    const auto header = LoadRaw<usbip_header>(pdu.data());
    const auto& submit = header.u.cmd_submit;
    const bool in = header.direction != USBIP_DIR_OUT;
    Urb urb{.seqnum = be32toh(header.seqnum),
            .length = be32toh(submit.transfer_buffer_length),
            .short_is_error = (be32toh(submit.transfer_flags) & kUrbShortNotOk) != 0,
            .data = {}};
    const ByteView data = pdu.subspan(sizeof header);
    const std::uint32_t endpoint = be32toh(header.ep);
    if (UsbipIsoBytes(submit.number_of_packets) != 0) {
        Reply(urb.seqnum, -EINVAL, 0, empty_reply());
    } else if (urb.length > kMaxTransfer) {
        Reply(urb.seqnum, -ENOMEM, 0, empty_reply());
    } else if (endpoint == 0) {
        SubmitControl(urb, in, Setup(submit.setup));
    } else if (configuration_ != 0 && endpoint == (in ? kBulkIn & 0x0F : kBulkOut)) {
        SubmitBulk(std::move(urb), in, data);
    } else {
        Reply(urb.seqnum, -EPIPE, 0, empty_reply());
    }
}

void UsbDisk::SubmitControl(const Urb& urb, bool in, const Setup& setup) {
    const bool direction_fits = setup.length == 0 || setup.In() == in;
    std::optional<Bytes> answer;
    if (direction_fits) answer = Control(setup);
    Bytes pdu = empty_reply();
    if (!answer) {
        Reply(urb.seqnum, -EPIPE, 0, std::move(pdu));
    } else if (in) {
        const std::size_t size = std::min<std::size_t>({answer->size(), setup.length, urb.length});
        pdu.insert(pdu.end(), answer->begin(), answer->begin() + static_cast<std::ptrdiff_t>(size));
        Reply(urb.seqnum, 0, size, std::move(pdu));
    } else {
        Reply(urb.seqnum, 0, urb.length, std::move(pdu));
    }
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

void UsbDisk::SubmitBulk(Urb urb, bool in, ByteView data) {
    const bool first = in ? in_waiting_.empty() : out_waiting_.empty();
    if (first && (in ? ServeIn(urb) : ServeOut(urb, data))) return;
    const std::size_t cost = sizeof(Urb) + urb.length;
    if (cost > kMaxWaiting - std::min(waiting_bytes_, kMaxWaiting)) {
        Reply(urb.seqnum, -ENOMEM, 0, empty_reply());
        return;
    }
    waiting_bytes_ += cost;
    urb.data.assign(data.begin(), data.end());
    (in ? in_waiting_ : out_waiting_).push_back(std::move(urb));
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
    Reply(urb.seqnum, outcome == BulkOnly::Outcome::kStall ? -EPIPE : 0, taken, empty_reply());
    return true;
}

bool UsbDisk::ServeIn(const Urb& urb) {
    // A long URB that must not end short was queued for a data stage that has just ended short:
    // the host is about to unlink it, and the status must not get lost in it.
    if (urb.short_is_error && urb.length > BulkOnly::kCswSize && bulk_.StatusIsNext() &&
        !bulk_.Halted(true)) {
        return false;
    }
    Bytes pdu = empty_reply();
    const BulkOnly::Outcome outcome = bulk_.In(urb.length, pdu);
    if (outcome == BulkOnly::Outcome::kWait) return false;
    const std::size_t actual = pdu.size() - sizeof(usbip_header);
    int status = outcome == BulkOnly::Outcome::kStall ? -EPIPE : 0;
    if (status == 0 && urb.short_is_error && actual < urb.length) status = -EREMOTEIO;
    Reply(urb.seqnum, status, actual, std::move(pdu));
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
    sink_->Reply(RetUnlinkPdu(seqnum, removed || !submitted_.Contains(target) ? -ECONNRESET : 0));
}

// `pdu` has room for the header, and the data of an IN transfer behind it.
void UsbDisk::Reply(std::uint32_t seqnum, int status, std::size_t actual, Bytes pdu) {
    usbip_header reply{};
    reply.command = htobe32(USBIP_RET_SUBMIT);
    reply.seqnum = htobe32(seqnum);
    reply.u.ret_submit.status = htobe32(static_cast<std::uint32_t>(status));
    reply.u.ret_submit.actual_length = htobe32(static_cast<std::uint32_t>(actual));
    StoreRaw(pdu.data(), reply);
    sink_->Reply(std::move(pdu));
}

}  // namespace remote
