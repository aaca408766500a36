// What the fuzz targets share. Each target is one LLVMFuzzerTestOneInput in a file of its own,
// which the fuzzing engine or replay.cpp calls again and again in one process: everything an input
// has started has ended when it returns, so that a finding needs no other input before it.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/BaseThread.h"
#include "fakes/Patience.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Standard error as the process found it: fuzz/run closes it to the product's own lines.
inline const int kReport = dup(STDERR_FILENO);

// What must hold for every input. Ends the process, which makes the input a finding.
inline void Require(bool holds, const char* what) {
    if (holds) return;
    dprintf(kReport, "fuzz: does not hold: %s\n", what);
    std::abort();
}

// The bytes of one input, taken from the front.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    bool Empty() const { return rest_.empty(); }
    std::string_view Take(std::size_t most) {
        const std::string_view taken = rest_.substr(0, most);
        rest_.remove_prefix(taken.size());
        return taken;
    }
    std::string_view Rest() { return Take(rest_.size()); }
    std::string_view Text() {  // up to a NUL
        const std::string_view text = Take(rest_.find('\0'));
        Take(1);
        return text;
    }
    template <typename T>
    T Number() {  // little-endian; what is missing counts as zero
        T number{};
        const std::string_view bytes = Take(sizeof number);
        if (!bytes.empty()) std::memcpy(&number, bytes.data(), bytes.size());
        return number;
    }
    std::string_view Block() { return Take(Number<std::uint16_t>()); }  // its length stands before

  private:
    std::string_view rest_;
};

// Stands at the start of a target whose objects all end with their scope.
class NothingLeftBehind {
  public:
    NothingLeftBehind() = default;
    ~NothingLeftBehind() {
        Require(OpenDescriptors() == descriptors_, "every descriptor is closed");
        Require(ThreadObjects() == threads_, "every thread has ended");
    }
    NothingLeftBehind(const NothingLeftBehind&) = delete;
    NothingLeftBehind& operator=(const NothingLeftBehind&) = delete;

  private:
    static std::int64_t ThreadObjects() {
        return OBJECT_MONITOR<CBaseThread>::_new - OBJECT_MONITOR<CBaseThread>::_delete;
    }
    const long descriptors_ = OpenDescriptors();
    const std::int64_t threads_ = ThreadObjects();
};
