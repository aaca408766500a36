// The runtime that the host lends to the module: where its log lines go.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "xj-client-usbip/HostAbi.h"

namespace host {

// Shows lines as "HH:MM:SS.mmm LEVEL text". Any thread may call.
class Runtime : public IXJModRuntime {
  public:
    // Takes one line at a time, its newline included, on any thread. It must not wait for somebody
    // to read the log: the module would wait, too.
    using Writer = void (*)(std::string_view line);

    Runtime(std::set<int> shown_levels, Writer write)
        : shown_levels_(std::move(shown_levels)), write_(write) {}

    // A line of the host's own: always shown, with "host" in the place of a level.
    void Say(const std::string& text) const;

    void Log(int level, const char* text) override;
    bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) override {
        return false;
    }
    bool SaveConfig(bool, const char*, const char*, const char*) override { return false; }
    void* GetEnv(const char*) override { return nullptr; }

  private:
    void Show(const std::string& level, std::string_view text) const;

    const std::set<int> shown_levels_;
    const Writer write_;
};

}  // namespace host
