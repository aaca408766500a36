// The loaded module and the plug-in objects it makes.
#pragma once

#include <memory>
#include <string>

#include "xj-client-usbip/HostAbi.h"
#include "xj-client-usbip/PluginAbi.h"
#include "xj-client-usbip/Reference.h"

namespace host {

// Loaded and initialised from Load to destruction. Every plug-in must be gone before the module
// is: its code is unmapped with it.
class Module {
  public:
    // Null and an `error` to show when the file is missing or is no such module. `runtime` must
    // outlive the module.
    static std::unique_ptr<Module> Load(const std::string& path, IXJModRuntime& runtime,
                                        std::string& error);
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    ~Module();

    std::string Description() const;  // name, interface version and build time

    CRefObj<IClientUsbipPlugin> CreatePlugin() const;  // null when the factory refuses

  private:
    Module() = default;

    void* library_ = nullptr;
    const xjmod_entrypoint* entry_ = nullptr;  // set once `init` has succeeded
};

}  // namespace host
