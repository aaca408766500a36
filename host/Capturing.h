// The capture that may be running, begun and ended while PDUs pass.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "xj-client-usbip/kit/Capture.h"
#include "xj-client-usbip/kit/Rules.h"

namespace host {

struct CaptureOrder {
    xj_usbip::Capture::Options file;
    xj_usbip::Rules only;  // of the devices that one of them matches; none: of all
};

// "FILE[,VENDOR:PRODUCT...]". Empty with an `error`.
std::optional<CaptureOrder> ParseCapture(const std::string& text, std::string& error);

// Any thread.
class Capturing {
  public:
    // False with an `error`, also when one is running.
    bool Start(const CaptureOrder& order, std::string& error);
    // What was captured, in words; empty: none is running.
    std::string Stop();
    std::string Describe() const;  // what it has so far; empty: none is running

    void Add(const xj_usbip::TappedPdu& pdu);

    // For Tap::ShowPdus.
    std::optional<std::size_t> MostData() const;

  private:
    struct Running {
        CaptureOrder order;
        std::unique_ptr<xj_usbip::Capture> capture;
    };
    static std::string Describe(const Running& running);

    mutable std::mutex mutex_;
    std::shared_ptr<Running> running_;  // guarded by mutex_; null: none is
};

}  // namespace host
