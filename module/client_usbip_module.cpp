// The library's entry point, its descriptor, and the factory of plug-in objects.

#include <strings.h>

#include <string>

#include "module/runtime/XJModLog.h"
#include "module/runtime/XJModRuntime.h"
#include "plugin/USBIPClientPlugin.h"
#include "xj-client-usbip/HostAbi.h"

namespace {

bool usbip_client_init(void* runtime) {
    if (runtime == nullptr) return false;
    CXJModRuntime* instance = CXJModRuntime::Instance();
    auto* host = static_cast<IXJModRuntime*>(runtime);
    if (host != instance) instance->SetRuntime(host);
    XJModLog(8, "%s", "usbip_client_init");
    return true;
}

void usbip_client_uninit() {
    CXJModRuntime::Instance()->SetRuntime(nullptr);
}

std::string text_property(IXJModPropertySet& props, const char* key) {
    const CRefObj<IXJModData> value(props.GetProperty(key));
    if (!value || value->type() != IXJModData::TypeText) return {};
    const char* text = value->asString();
    return text != nullptr ? text : "";
}

std::uint64_t integer_property(IXJModPropertySet& props, const char* key) {
    const CRefObj<IXJModData> value(props.GetProperty(key));
    if (!value || value->type() != IXJModData::TypeInt) return 0;
    return static_cast<std::uint64_t>(value->asInt());
}

bool usbip_client_create(void* props, void** out) {
    if (props == nullptr || out == nullptr) {
        XJModLog(8, "[file_client] file_client_create invalid param");
        return false;
    }
    const CRefObj<IXJModPropertySet> properties(static_cast<IXJModPropertySet*>(props));
    const std::string name = text_property(*properties, kPropertyInterfaceName);
    const std::uint64_t version = integer_property(*properties, kPropertyVersion);
    XJModLog(8, "[file_client] file_client_create interface %s  version %lu", name.c_str(),
             version);

    if (version == 0 && name.empty()) {
        XJModLog(4, "[file_client] file_client_create invalid property!");
        return false;
    }
    if (strcasecmp(name.c_str(), kInterfaceClientUsbipPlugin) != 0) {
        XJModLog(8, "[file_client] file_client_create invalid interface %s", name.c_str());
        return false;
    }
    const std::uint64_t major = version >> 48;
    if (major == 0) return false;

    auto* plugin = new UsbipClientPlugin;
    plugin->AddRef();
    *out = static_cast<IClientUsbipPlugin*>(plugin);
    return true;
}

// Writable, like the rest of a host's view of it; never changed here.
xjmod_entrypoint quillnet_module_client_usbip = {
    kModuleVersion,
    "xj-client-usbip",
    usbip_client_init,
    usbip_client_uninit,
    usbip_client_create,
    __DATE__ " " __TIME__,
    {},
};

}  // namespace

xjmod_entrypoint* xjmod_get_entrypoint() {
    return &quillnet_module_client_usbip;
}
