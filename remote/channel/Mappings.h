// The devices as one host knows them: which it is to have, which it has, and under what ids. Queues
// the messages that map and unmap them, and their forwards.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>

#include "remote/channel/Slot.h"
#include "remote/device/Command.h"
#include "remote/io/Bytes.h"
#include "remote/io/OutputQueue.h"

namespace remote {

class Mappings {
  public:
    // `output` is borrowed and outlives this, and so do the slots. `compress`: forwards that are
    // long enough.
    Mappings(OutputQueue& output, bool compress);
    ~Mappings();
    Mappings(const Mappings&) = delete;
    Mappings& operator=(const Mappings&) = delete;

    // The host is to have the device: it is mapped as soon as it is present.
    void Offer(Slot& slot);

    // The host is not to have it any more: unmaps it, if it is mapped.
    void Withdraw(Slot& slot);

    // Maps and unmaps the offered devices that have come or gone by themselves.
    void FollowPresence();

    // What the host says of a device id. Ids that are not mapped are none of its fault: we may have
    // unmapped them meanwhile.
    void TakeCommand(std::uint32_t devid, const Command& command, bool was_compressed);
    void TakeEnd(std::uint32_t devid);

    bool Mapped(const Slot& slot) const { return Find(slot) != mapped_.end(); }
    bool AllConfirmed() const { return unmapping_.empty(); }  // the host has taken note

    // Gives all devices back without a word to the host.
    void ReleaseAll();

  private:
    class Mapping;
    using Table = std::map<std::uint32_t, std::unique_ptr<Mapping>>;

    Table::const_iterator Find(const Slot& slot) const;
    void FollowPresence(Slot& slot);
    void Map(Slot& slot);
    void Unmap(Table::const_iterator mapping);
    void Release(Slot& slot);

    OutputQueue& output_;
    const bool compress_;

    // By device id. An id is never used twice in a session: what the host still sends for an
    // earlier mapping of the same device cannot reach the new one.
    Table mapped_;
    std::uint32_t next_devid_ = 1;
    std::set<Slot*> offered_;
    std::set<std::uint32_t> unmapping_;  // we asked for the unmap, the host has yet to confirm
};

}  // namespace remote
