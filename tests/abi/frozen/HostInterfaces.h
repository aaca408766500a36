// What a host was compiled with that has been out there for long: the public interfaces, as far as
// the compiler looks at them. Never changed: hosts are not compiled again when our headers are. A
// test that fails with this file and passes with include/ has found a host that crashes.
#pragma once

#include <cstddef>
#include <cstdint>

class IReference {
  public:
    virtual ~IReference() = default;
    virtual long AddRef() = 0;
    virtual long Release() = 0;
};

class IXJModData : public virtual IReference {
  public:
    virtual std::uint32_t type() = 0;  // 2: integer, 4: text
    virtual void Reserved1() = 0;
    virtual void Reserved2() = 0;
    virtual const char* asString() = 0;
    virtual void Reserved3() = 0;
    virtual void Reserved4() = 0;
    virtual std::int64_t asInt() = 0;
};

class IXJModPropertySet : public virtual IReference {
  public:
    virtual IXJModData* GetProperty(const char* key) = 0;
};

class IXJModRuntime {
  public:
    virtual void Log(int level, const char* text) = 0;
    virtual bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) = 0;
    virtual bool SaveConfig(bool, const char*, const char*, const char*) = 0;
    virtual void* GetEnv(const char* name) = 0;

  protected:
    ~IXJModRuntime() = default;
};

struct xjmod_entrypoint {
    std::uint64_t version;
    const char* name;
    bool (*init)(void* runtime);
    void (*uninit)();
    bool (*create)(void* props, void** out);
    const char* build_time;
    std::uint64_t reserved[8];
};
static_assert(sizeof(xjmod_entrypoint) == 112);

class IPluginStreamRaw : public virtual IReference {
  public:
    virtual void Reserved1() = 0;
    virtual int Read(void* buf, unsigned long len, unsigned long* got, unsigned long) = 0;
    virtual int Write(const void* data, unsigned long len, unsigned long* written,
                      unsigned long) = 0;
};

// A smart pointer with a destructor: returned through a hidden address.
struct StreamReference {
    IPluginStreamRaw* stream = nullptr;
    ~StreamReference() {}  // NOLINT(modernize-use-equals-default): a trivial one changes the call
};

class IAutoConfigRaw : public virtual IReference {
  public:
    virtual long Load(const wchar_t*) = 0;
};

class IPluginRaw : public IAutoConfigRaw {
  public:
    virtual long InitInstance(IPluginStreamRaw* stream) = 0;
    virtual long Run() = 0;
    virtual long ExitInstance() = 0;
    virtual long SetPermission(const char*, int) = 0;
    virtual long Empty() = 0;
    virtual StreamReference GetPluginStream() = 0;
};

class IXJModInterface : public virtual IReference {
  public:
    virtual long GetInterface(const char* name, void** out) = 0;
    virtual long SetProperty(const char* name, IXJModData* value) = 0;
    virtual IXJModData* GetProperty(const char* name) = 0;
};

class IClientUsbipPlugin : public virtual IPluginRaw, public virtual IXJModInterface {
  public:
    virtual void SetListener(void* listener) = 0;
};
