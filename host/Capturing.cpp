#include "host/Capturing.h"

#include <utility>

namespace host {

using xj_usbip::Capture;
using xj_usbip::Rules;

std::optional<CaptureOrder> ParseCapture(const std::string& text, std::string& error) {
    CaptureOrder order;
    std::size_t at = text.find(',');
    order.file.path = text.substr(0, at);
    if (order.file.path.empty()) error = "'" + text + "' names no file";
    while (error.empty() && at != text.npos) {
        const std::size_t end = text.find(',', at + 1);
        const std::string device = text.substr(at + 1, end - at - 1);
        if (device.find_first_of(" =") != device.npos ||
            !order.only.Add("allow " + device, error)) {
            error = "'" + device + "' is not VENDOR:PRODUCT";
        }
        at = end;
    }
    if (!error.empty()) return std::nullopt;
    return order;
}

bool Capturing::Start(const CaptureOrder& order, std::string& error) {
    const std::lock_guard lock(mutex_);
    if (running_) {
        error = "a capture is running: " + Describe(*running_);
        return false;
    }
    auto capture = Capture::Open(order.file, error);
    if (!capture) return false;
    running_ = std::make_shared<Running>(Running{order, std::move(capture)});
    return true;
}

std::string Capturing::Stop() {
    std::shared_ptr<Running> running;
    {
        const std::lock_guard lock(mutex_);
        running.swap(running_);
    }
    return running ? Describe(*running) : "";
}

std::string Capturing::Describe() const {
    const std::lock_guard lock(mutex_);
    return running_ ? Describe(*running_) : "";
}

std::string Capturing::Describe(const Running& running) {
    const Capture::Totals totals = running.capture->Count();
    std::string text =
        running.order.file.path + " has " + std::to_string(totals.urbs) + " events of URBs";
    if (totals.dropped != 0) text += ", " + std::to_string(totals.dropped) + " were dropped";
    if (!totals.error.empty()) text += ": " + totals.error;
    return text;
}

void Capturing::Add(const xj_usbip::TappedPdu& pdu) {
    std::shared_ptr<Running> running;
    {
        const std::lock_guard lock(mutex_);
        running = running_;
    }
    if (!running) return;
    const Rules& only = running->order.only;
    if (only.Empty() || !only.Decide(pdu.device).rule.empty()) running->capture->Add(pdu);
}

std::optional<std::size_t> Capturing::MostData() const {
    const std::lock_guard lock(mutex_);
    if (!running_) return std::nullopt;
    return running_->order.file.most_data;
}

}  // namespace host
