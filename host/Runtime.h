// The runtime that the host lends to the module: where its log lines go.
#pragma once

#include <set>
#include <string>

#include "xj-client-usbip/HostAbi.h"

namespace host {

// Shows lines on standard error, each whole, as "HH:MM:SS.mmm LEVEL text". Any thread may call.
class Runtime : public IXJModRuntime {
  public:
    explicit Runtime(std::set<int> shown_levels) : shown_levels_(std::move(shown_levels)) {}

    // A line of the host's own: always shown, with "host" in the place of a level.
    void Say(const std::string& text) const;

    void Log(int level, const char* text) override;
    bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) override {
        return false;
    }
    bool SaveConfig(bool, const char*, const char*, const char*) override { return false; }
    void* GetEnv(const char*) override { return nullptr; }

  private:
    const std::set<int> shown_levels_;
};

}  // namespace host
