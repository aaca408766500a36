// What the fuzz targets share. Each target is one LLVMFuzzerTestOneInput in a file of its own,
// which the fuzzing engine or replay.cpp calls again and again in one process: everything an input
// has started has ended when it returns, so that a finding needs no other input before it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "fakes/Ledger.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

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
    ~NothingLeftBehind() { Require(ledger_.Balanced(), "everything is given back"); }
    NothingLeftBehind(const NothingLeftBehind&) = delete;
    NothingLeftBehind& operator=(const NothingLeftBehind&) = delete;

  private:
    const Ledger ledger_{};
};
