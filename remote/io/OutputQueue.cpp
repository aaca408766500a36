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
    std::array<iovec, kVectors> vectors;
    for (;;) {
        const std::size_t count = std::min(vectors.size(), pieces_.size());
        std::size_t offered = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t start = i == 0 ? sent_ : 0;
            vectors[i] = {pieces_[i].data() + start, pieces_[i].size() - start};
            offered += vectors[i].iov_len;
        }
        const ssize_t written = writev(fd, vectors.data(), static_cast<int>(count));
        if (written > 0) Consume(static_cast<std::size_t>(written));
        refused_ = written < 0 || static_cast<std::size_t>(written) < offered;
        if (refused_ || Empty()) return ProgressOf(written);
    }
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
