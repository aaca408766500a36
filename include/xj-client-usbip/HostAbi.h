// What a host process and the module agree on: the entry point, the descriptor behind it, and the
// interfaces that the host implements for the module. Hosts are compiled separately, so the order
// of virtual operations and the layout of the descriptor are fixed.
//
// Calling order: xjmod_get_entrypoint, descriptor->init, descriptor->create for each plug-in
// (see PluginAbi.h for driving it, and for the words When, Thread, Locks, Blocks and From), Release
// of each plug-in, descriptor->uninit, dlclose.
#pragma once

#include <cstddef>
#include <cstdint>

#include "xj-client-usbip/Reference.h"

// A typed value of the host's. Every Reserved slot belongs to the host; the module never calls it.
// The others are called within `create`, on its thread, without a lock, and must not block.
class IXJModData : public virtual IReference {
  public:
    enum Type : std::uint32_t { TypeInt = 2, TypeText = 4 };

    virtual std::uint32_t type() = 0;
    virtual void Reserved1() = 0;
    virtual void Reserved2() = 0;
    virtual const char* asString() = 0;  // NUL-terminated, owned by the value; null if not a text
    virtual void Reserved3() = 0;
    virtual void Reserved4() = 0;
    virtual std::int64_t asInt() = 0;  // 0 if not an integer
};

// What `create` is asked for, and called within it, like its values. Keys and their types: see the
// constants below.
class IXJModPropertySet : public virtual IReference {
  public:
    // Borrowed: the module takes a reference of its own for as long as it reads the value.
    // Null when there is no such property.
    virtual IXJModData* GetProperty(const char* key) = 0;
};

inline constexpr char kPropertyInterfaceName[] = "xj.module.interface.name";  // text
inline constexpr char kPropertyVersion[] = "xj.module.version";               // integer
inline constexpr char kInterfaceClientUsbipPlugin[] = "IClientUsbipPlugin";   // case is ignored

// Versions carry the major number in bits 48 to 63.
inline constexpr std::uint64_t kModuleVersion = 0x0001000000000000;

// The host's runtime. It must outlive the time from `init` to `uninit`; the module takes no
// reference. No virtual destructor: the table has exactly these four slots.
class IXJModRuntime {
  public:
    // level: 1 lifecycle and device events, 4 failures and refused input, 8 detail.
    // text: NUL-terminated, at most 4095 bytes, valid only during the call.
    //   When     from `init` to `uninit`
    //   Thread   any of the module's, and those of the host in an operation of the module's; never
    //            two at once
    //   Locks    the module's runtime lock. It is recursive: what Log calls may log.
    //   Blocks   briefly, since every thread of the module logs; never until another of them goes
    //   on
    virtual void Log(int level, const char* text) = 0;

    // The module itself never calls the three below; their arguments are the host's own.
    virtual bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) = 0;
    virtual bool SaveConfig(bool, const char*, const char*, const char*) = 0;
    virtual void* GetEnv(const char* name) = 0;

  protected:
    ~IXJModRuntime() = default;
};

struct xjmod_entrypoint {
    std::uint64_t version;
    const char* name;

    // Makes `runtime`, an IXJModRuntime*, the one that log lines go to. False for null.
    //   When     first; again to replace the runtime
    //   Thread   any
    //   Blocks   for a Log in progress on another thread
    //   From     Log
    bool (*init)(void* runtime);

    // Log lines are dropped from here on, and no Log is in progress when it returns.
    //   When     after the last Release of the last plug-in
    //   Thread, Blocks, From   as init
    void (*uninit)();

    // Makes a plug-in as `props`, an IXJModPropertySet*, describes it. True: `*out` is an
    // IClientUsbipPlugin* that holds one reference for the caller. False: `*out` is untouched.
    //   When     after init
    //   Thread   any
    //   Blocks   never
    //   From     Log, Read, Write
    bool (*create)(void* props, void** out);

    const char* build_time;  // "Mmm dd yyyy hh:mm:ss"
    std::uint64_t reserved[8];
};
static_assert(offsetof(xjmod_entrypoint, name) == 8 && offsetof(xjmod_entrypoint, init) == 16 &&
              offsetof(xjmod_entrypoint, uninit) == 24 &&
              offsetof(xjmod_entrypoint, create) == 32 &&
              offsetof(xjmod_entrypoint, build_time) == 40 &&
              offsetof(xjmod_entrypoint, reserved) == 48 && sizeof(xjmod_entrypoint) == 112);

// The one exported symbol. Always returns the same static record.
extern "C" __attribute__((visibility("default"))) xjmod_entrypoint* xjmod_get_entrypoint();
using xjmod_get_entrypoint_fn = xjmod_entrypoint* (*)();
