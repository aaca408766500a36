// Which commands were submitted in one attachment, whether or not they are answered: what every
// device needs to answer the unlinking of a URB that it does not hold.
#pragma once

#include <cstdint>
#include <optional>

namespace remote {

// The kernel numbers commands upwards (modulo 2^32), so the range of numbers is memory enough. A
// number of an earlier attachment, which the kernel may still unlink, lies before it.
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
