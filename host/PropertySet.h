// What the host asks the module's factory for.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "xj-client-usbip/HostAbi.h"
#include "xj-client-usbip/Reference.h"
#include "xj-client-usbip/XJModData.h"

namespace host {

// Filled before it is handed out, constant from then on.
class PropertySet : public IXJModPropertySet, protected CReference {
  public:
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }

    void Set(const char* key, std::int64_t value) { values_[key] = new CXJModData(value); }
    void Set(const char* key, std::string_view text) { values_[key] = new CXJModData(text); }

    IXJModData* GetProperty(const char* key) override {
        const auto found = values_.find(std::string_view(key));
        return found == values_.end() ? nullptr : found->second.Get();
    }

  private:
    std::map<std::string, CRefObj<CXJModData>, std::less<>> values_;
};

}  // namespace host
