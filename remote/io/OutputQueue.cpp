#include "remote/io/OutputQueue.h"

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <utility>

namespace remote {
namespace {

constexpr std::size_t kVectors = 32;  // pieces of one write

}  // namespace

void OutputQueue::Push(Bytes piece) {
    pending_ += piece.size();
    pieces_.push_back(std::move(piece));
}

Progress OutputQueue::WriteTo(int fd) {
    std::array<iovec, kVectors> vectors{};
    const std::size_t count = std::min(vectors.size(), pieces_.size());
    for (std::size_t i = 0; i < count; ++i)
        vectors[i] = {pieces_[i].data(), pieces_[i].size()};
    vectors[0].iov_base = pieces_[0].data() + sent_;
    vectors[0].iov_len -= sent_;
    const ssize_t written = writev(fd, vectors.data(), static_cast<int>(count));
    if (written > 0) Consume(static_cast<std::size_t>(written));
    return ProgressOf(written);
}

void OutputQueue::Consume(std::size_t count) {
    pending_ -= count;
    while (count != 0) {
        const std::size_t left = pieces_.front().size() - sent_;
        if (count < left) {
            sent_ += count;
            return;
        }
        count -= left;
        sent_ = 0;
        pieces_.pop_front();
    }
}

}  // namespace remote
