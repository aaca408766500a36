#include "xj-client-usbip/kit/Tap.h"

#include <exception>

#include "kit/TapReading.h"
#include "kit/TapSending.h"

namespace xj_usbip {

Tap::Tap(IPluginStreamRaw* stream, ITapEvents& events)
    : stream_(stream),
      devices_(std::make_unique<Devices>()),
      sending_(std::make_unique<Sending>(*stream, events, *devices_)),
      reading_(std::make_unique<Reading>(*stream, events, *devices_, *sending_)) {}

Tap::~Tap() = default;

// Nothing may be thrown at the module. What can be is a lack of memory, which ends the stream: what
// has not been followed cannot be followed any more.
int Tap::Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) try {
    return reading_->Read(buf, len, got, reserved);
} catch (const std::exception&) {
    return -1;
}

int Tap::Write(const void* data, unsigned long len, unsigned long* written,
               unsigned long reserved) try {
    return sending_->Write(data, len, written, reserved);
} catch (const std::exception&) {
    return -1;
}

std::optional<DeviceCounts> Tap::Counts(std::uint32_t id) const {
    const auto followed = devices_->Find(id);
    if (!followed) return std::nullopt;
    return followed->Counts();
}

void Tap::ShowPdus(std::optional<std::size_t> most_data) {
    devices_->shown = most_data ? std::min(*most_data, Devices::kNone - 1) : Devices::kNone;
}

}  // namespace xj_usbip
