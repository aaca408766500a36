// The devices that are mapped through a tap.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "kit/Followed.h"
#include "xj-client-usbip/kit/Tap.h"

namespace xj_usbip {

// Any thread.
class Tap::Devices {
  public:
    std::shared_ptr<Followed> Find(std::uint32_t id) const {
        const std::lock_guard lock(mutex_);
        const auto found = devices_.find(id);
        return found == devices_.end() ? nullptr : found->second;
    }
    bool Full() const {
        const std::lock_guard lock(mutex_);
        return devices_.size() >= kMostDevices;
    }
    void Add(const RemoteDevice& device) {
        auto followed = std::make_shared<Followed>(device);
        const std::lock_guard lock(mutex_);
        devices_[device.id] = std::move(followed);
        ++changes_;
    }
    // False: there is none.
    bool Remove(std::uint32_t id) {
        const std::lock_guard lock(mutex_);
        ++changes_;
        return devices_.erase(id) != 0;
    }

    // How much data of each PDU is to be shown; kNone: PDUs are not.
    static constexpr std::size_t kNone = SIZE_MAX;
    std::atomic<std::size_t> shown{kNone};

    // The device whose PDU was the last on one way is most often that of the next, too. Used by one
    // thread.
    class Last {
      public:
        explicit Last(const Devices& devices) : devices_(devices) {}

        // Null: there is none. Valid until the next call.
        Followed* Find(std::uint32_t id) {
            const std::uint64_t changes = devices_.changes_;
            if (!known_ || id != id_ || changes != changes_) {
                followed_ = devices_.Find(id);
                known_ = true;
                id_ = id;
                changes_ = changes;
            }
            return followed_.get();
        }

      private:
        const Devices& devices_;
        std::shared_ptr<Followed> followed_;
        bool known_ = false;
        std::uint32_t id_ = 0;
        std::uint64_t changes_ = 0;  // up to which it is known
    };

  private:
    mutable std::mutex mutex_;
    std::unordered_map<std::uint32_t, std::shared_ptr<Followed>> devices_;  // guarded by mutex_
    std::atomic<std::uint64_t> changes_{0};                                 // of devices_
};

}  // namespace xj_usbip
