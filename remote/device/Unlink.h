// What every device needs to answer the unlinking of a URB.
#pragma once

#include <cstdint>
#include <optional>

#include "remote/io/Bytes.h"
#include "wire/UsbipPdu.h"

namespace remote {

// `status`: -ECONNRESET for a URB that was unlinked or never seen, 0 for one that was answered.
inline Bytes RetUnlinkPdu(std::uint32_t seqnum, int status) {
    usbip_header reply{};
    reply.command = htobe32(USBIP_RET_UNLINK);
    reply.seqnum = htobe32(seqnum);
    reply.u.ret_unlink.status = htobe32(static_cast<std::uint32_t>(status));
    Bytes pdu(sizeof reply);
    StoreRaw(pdu.data(), reply);
    return pdu;
}

// Which commands were submitted in this attachment, whether or not they are answered. The kernel
// numbers commands upwards (modulo 2^32), so the range of numbers is memory enough. A number of an
// earlier attachment, which the kernel may still unlink, lies before it.
class SubmittedNumbers {
  public:
    void Add(std::uint32_t seqnum) {
        if (!range_) range_ = Range{seqnum, seqnum};
        range_->last = seqnum;
    }
    bool Contains(std::uint32_t seqnum) const {
        return range_ && seqnum - range_->first <= range_->last - range_->first;
    }

  private:
    struct Range {
        std::uint32_t first;
        std::uint32_t last;
    };
    std::optional<Range> range_;
};

}  // namespace remote
