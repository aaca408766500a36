#include "remote/channel/Mappings.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "remote/channel/MessageWriter.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

constexpr std::uint32_t kBusNumber = 1;  // of devices that do not care

}  // namespace

// Attaches the device for as long as it is mapped, and takes its replies.
class Mappings::Mapping final : public ReplySink {
  public:
    Mapping(OutputQueue& output, Slot& slot, std::uint32_t devid, bool compress)
        : slot_(slot), devid_(devid), output_(output) {
        if (compress) compressor_.emplace();
        slot_.device->Attach(*this);
    }
    ~Mapping() override { slot_.device->Detach(); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    void Reply(Bytes pdu) override {
        slot_.counters.CountReply(pdu);
        slot_.counters.CountForward(
            PushForward(output_, devid_, std::move(pdu), compressor_ ? &*compressor_ : nullptr));
    }

    Slot& slot_;
    const std::uint32_t devid_;

  private:
    OutputQueue& output_;
    std::optional<Compressor> compressor_;
};

Mappings::Mappings(OutputQueue& output, bool compress) : output_(output), compress_(compress) {}

Mappings::~Mappings() {
    ReleaseAll();
}

void Mappings::Offer(Slot& slot) {
    offered_.insert(&slot);
    FollowPresence(slot);  // also when the device has left this very moment
    if (!Mapped(slot)) slot.device->Acquire();
}

void Mappings::Withdraw(Slot& slot) {
    const auto mapping = Find(slot);
    if (mapping != mapped_.end()) Unmap(mapping);
    Release(slot);
}

void Mappings::FollowPresence() {
    for (Slot* slot : offered_)
        FollowPresence(*slot);
}

void Mappings::TakeCommand(std::uint32_t devid, const Command& command, bool was_compressed) {
    const auto target = mapped_.find(devid);
    if (target == mapped_.end()) return;
    Slot& slot = target->second->slot_;
    slot.counters.CountCommand(command, was_compressed);
    slot.device->TakeCommand(command);
}

void Mappings::TakeEnd(std::uint32_t devid) {
    if (unmapping_.erase(devid) != 0) return;
    const auto ended = mapped_.find(devid);
    if (ended == mapped_.end()) {
        Log("host reports the end of device id %u, which is not mapped", devid);
        return;
    }
    Slot& slot = ended->second->slot_;
    Log("device %u has ended at the host", slot.number);
    mapped_.erase(ended);
    output_.Push(EncodeDevUnmap(devid));  // until then the host keeps the id
    Release(slot);
}

void Mappings::ReleaseAll() {
    mapped_.clear();
    while (!offered_.empty())
        Release(**offered_.begin());
}

Mappings::Table::const_iterator Mappings::Find(const Slot& slot) const {
    return std::find_if(mapped_.begin(), mapped_.end(),
                        [&slot](const auto& one) { return &one.second->slot_ == &slot; });
}

void Mappings::FollowPresence(Slot& slot) {
    const auto mapping = Find(slot);
    const bool mapped = mapping != mapped_.end();
    if (slot.device->Present() == mapped) return;
    mapped ? Unmap(mapping) : Map(slot);
}

void Mappings::Map(Slot& slot) {
    const DeviceInfo& info = slot.device->Info();
    const std::uint32_t devid = next_devid_++;
    output_.Push(EncodeDevMap(devid, info.bus != 0 ? info.bus : kBusNumber,
                              info.bus != 0 ? info.number : slot.number, info));
    mapped_.emplace(devid, std::make_unique<Mapping>(output_, slot, devid, compress_));
    Log("device %u mapped with id %u: %s", slot.number, devid, info.instance.c_str());
}

void Mappings::Unmap(Table::const_iterator mapping) {
    output_.Push(EncodeDevUnmap(mapping->first));
    unmapping_.insert(mapping->first);
    Log("device %u unmapped", mapping->second->slot_.number);
    mapped_.erase(mapping);
}

void Mappings::Release(Slot& slot) {
    if (offered_.erase(&slot) != 0) slot.device->Release();
}

}  // namespace remote
