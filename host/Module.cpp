#include "host/Module.h"

#include <dlfcn.h>

#include "host/PropertySet.h"

namespace host {
namespace {

constexpr int kMajorShift = 48;  // the major number stands in bits 48 to 63 of a version

}  // namespace

std::unique_ptr<Module> Module::Load(const std::string& path, IXJModRuntime& runtime,
                                     std::string& error) {
    std::unique_ptr<Module> module(new Module);
    // A name without a slash would be searched for along the library path; ours is always a file.
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    module->library_ = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module->library_ == nullptr) {
        error = std::string("cannot load the module: ") + ::dlerror() +
                "; name its file with --module PATH";
        return nullptr;
    }
    const auto get_entry = reinterpret_cast<xjmod_get_entrypoint_fn>(
        ::dlsym(module->library_, "xjmod_get_entrypoint"));
    const xjmod_entrypoint* entry = get_entry != nullptr ? get_entry() : nullptr;
    if (entry == nullptr) {
        error = path + " is not a module: it has no entry point";
        return nullptr;
    }
    if (entry->version >> kMajorShift != kModuleVersion >> kMajorShift) {
        error = path + " has interface version " + std::to_string(entry->version >> kMajorShift) +
                ", this host speaks " + std::to_string(kModuleVersion >> kMajorShift);
        return nullptr;
    }
    if (!entry->init(&runtime)) {
        error = path + " refuses to be initialised";
        return nullptr;
    }
    module->entry_ = entry;
    return module;
}

Module::~Module() {
    if (entry_ != nullptr) entry_->uninit();
    if (library_ != nullptr) ::dlclose(library_);
}

std::string Module::Description() const {
    return std::string(entry_->name) + ", interface version " +
           std::to_string(entry_->version >> kMajorShift) + ", built " + entry_->build_time;
}

CRefObj<IClientUsbipPlugin> Module::CreatePlugin() const {
    const CRefObj<PropertySet> wanted = new PropertySet;
    wanted->Set(kPropertyInterfaceName, std::string_view(kInterfaceClientUsbipPlugin));
    wanted->Set(kPropertyVersion, static_cast<std::int64_t>(kModuleVersion));

    void* created = nullptr;
    IXJModPropertySet* properties = wanted.Get();
    if (!entry_->create(properties, &created)) return {};
    CRefObj<IClientUsbipPlugin> plugin(static_cast<IClientUsbipPlugin*>(created));
    plugin->Release();  // the reference that `create` took for us; `plugin` has its own now
    return plugin;
}

}  // namespace host
