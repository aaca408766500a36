// The least program that does the module's work: a thread for each direction, whole PDUs, many of
// them for each system call, no queue. Neither maps nor checks: what the module is measured by.
#pragma once

#include <thread>
#include <vector>

class Lean {
  public:
    // Borrows the stream and the devices' sockets, of which the place is the device's number. They
    // end with this.
    Lean(int stream, const std::vector<int>& devices);
    ~Lean();
    Lean(const Lean&) = delete;

  private:
    void ToRemote() const;
    void ToKernel() const;

    const int stream_;
    const std::vector<int> devices_;
    std::thread to_remote_{&Lean::ToRemote, this};
    std::thread to_kernel_{&Lean::ToKernel, this};
};
