// The runtime that the host lends to the module: where its log lines go.
#pragma once

#include <functional>
#include <set>
#include <string_view>
#include <utility>

#include "xj-client-usbip/HostAbi.h"

namespace host {

// Hands on the lines of the levels that are wanted. Any thread may call.
class Runtime : public IXJModRuntime {
  public:
    // Takes one line, without its end, on any thread, one at a time. Some of the text is the remote
    // side's (names of devices). It must not wait for somebody to read the log: the module would
    // wait, too.
    using Writer = std::function<void(int level, std::string_view text)>;

    Runtime(std::set<int> levels, Writer write)
        : levels_(std::move(levels)), write_(std::move(write)) {}

    void Log(int level, const char* text) override {
        if (levels_.contains(level)) write_(level, text);
    }
    bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) override {
        return false;
    }
    bool SaveConfig(bool, const char*, const char*, const char*) override { return false; }
    void* GetEnv(const char*) override { return nullptr; }

  private:
    const std::set<int> levels_;
    const Writer write_;
};

}  // namespace host
