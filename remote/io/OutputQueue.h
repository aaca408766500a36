// Pieces of bytes on their way into a stream, oldest first.
#pragma once

#include <cstddef>
#include <deque>

#include "remote/io/Bytes.h"
#include "remote/io/Progress.h"

namespace remote {

class OutputQueue {
  public:
    void Push(Bytes piece);  // not empty

    bool Empty() const { return pending_ == 0; }
    std::size_t Pending() const { return pending_; }  // bytes

    // Writes as much as the descriptor takes. The queue must not be empty, and the process must
    // ignore SIGPIPE.
    Progress WriteTo(int fd);

    // There are bytes that no descriptor has refused yet: an attempt may spare waiting for room.
    bool Untried() const { return !Empty() && !refused_; }

  private:
    void Consume(std::size_t count);

    std::deque<Bytes> pieces_;
    std::size_t sent_ = 0;  // of the first piece
    std::size_t pending_ = 0;
    bool refused_ = false;  // the descriptor had no room for all
};

}  // namespace remote
