// The library as a host sees it that was compiled long ago by somebody else. The module's headers
// are left out on purpose: a change there that moves a slot or a field has to fail here.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "abi/frozen/HostInterfaces.h"

namespace {

// The test keeps one reference of its own, so the module can never drop the last one.
template <typename... Interfaces>
class Counted : public Interfaces... {
  public:
    long AddRef() override { return ++references; }
    long Release() override {
        EXPECT_GT(references, 1) << "released once too often";
        return --references;
    }
    long references = 1;
};

class Value : public Counted<IXJModData> {
  public:
    explicit Value(const char* text) : text_(text) {}
    explicit Value(std::int64_t number) : number_(number) {}
    std::uint32_t type() override { return text_ != nullptr ? 4 : 2; }
    void Reserved1() override { std::abort(); }
    void Reserved2() override { std::abort(); }
    const char* asString() override { return text_; }
    void Reserved3() override { std::abort(); }
    void Reserved4() override { std::abort(); }
    std::int64_t asInt() override { return number_; }

  private:
    const char* text_ = nullptr;
    std::int64_t number_ = 0;
};

class Runtime : public IXJModRuntime {
  public:
    void Log(int level, const char* text) override { last = std::to_string(level) + ' ' + text; }
    bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) override {
        std::abort();
    }
    bool SaveConfig(bool, const char*, const char*, const char*) override { std::abort(); }
    void* GetEnv(const char*) override { std::abort(); }
    std::string last;  // the module logs from one thread at a time
};

// Both at once, so that the stream's counting interface is not where the stream is.
class Host : public Counted<IXJModPropertySet, IPluginStreamRaw> {
  public:
    IXJModData* GetProperty(const char* key) override {
        if (std::strcmp(key, "xj.module.interface.name") == 0) return &name;
        EXPECT_STREQ(key, "xj.module.version");
        return &version;
    }
    void Reserved1() override { std::abort(); }
    int Read(void* to, unsigned long size, unsigned long* got, unsigned long reserved) override {
        EXPECT_EQ(reserved, 0U);
        *got = inbound.copy(static_cast<char*>(to), size);
        inbound.erase(0, *got);
        return *got == 0 ? 1 : 0;
    }
    int Write(const void* from, unsigned long size, unsigned long* written,
              unsigned long reserved) override {
        EXPECT_EQ(reserved, 0U);
        outbound.append(static_cast<const char*>(from), *written = size);
        return 0;
    }
    Value name{"IClientUsbipPlugin"};
    Value version{std::int64_t{1} << 48};
    std::string inbound, outbound;
};

TEST(Abi, ASessionOfAnOldHost) {
    const char* given = std::getenv("XJ_MODULE");
    void* library = dlopen(given != nullptr ? given : XJ_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto* get = reinterpret_cast<xjmod_entrypoint* (*)()>(dlsym(library, "xjmod_get_entrypoint"));
    ASSERT_NE(get, nullptr);
    const xjmod_entrypoint& entry = *get();
    EXPECT_EQ(entry.version, 0x0001000000000000U);
    EXPECT_STREQ(entry.name, "xj-client-usbip");
    std::tm built{};
    const char* rest = strptime(entry.build_time, "%b %e %Y %H:%M:%S", &built);
    EXPECT_TRUE(rest != nullptr && *rest == '\0') << entry.build_time;
    for (const std::uint64_t word : entry.reserved)
        EXPECT_EQ(word, 0U);

    Runtime runtime;
    Host host;
    void* created = nullptr;
    ASSERT_TRUE(entry.init(static_cast<IXJModRuntime*>(&runtime)));
    EXPECT_EQ(runtime.last, "8 usbip_client_init");
    ASSERT_TRUE(entry.create(static_cast<IXJModPropertySet*>(&host), &created));
    EXPECT_EQ(runtime.last,
              "8 [file_client] file_client_create interface IClientUsbipPlugin  version "
              "281474976710656");
    EXPECT_EQ(host.references + host.name.references + host.version.references, 3);
    auto* plugin = static_cast<IClientUsbipPlugin*>(created);
    EXPECT_EQ(plugin->AddRef(), 2);
    EXPECT_EQ(plugin->Release(), 1);

    for (const int references : {2, 2, 1, 2}) {
        EXPECT_EQ(plugin->InitInstance(references == 2 ? &host : nullptr), 0);
        EXPECT_EQ(host.references, references);
        EXPECT_EQ(plugin->Run(), 1) << "there is nothing to read";
    }
    // Operations that only answer.
    runtime.last.clear();
    void* out = this;
    EXPECT_EQ(plugin->Load(L"x") + plugin->SetPermission("x", 1) + plugin->Empty(), 0);
    EXPECT_EQ(plugin->GetPluginStream().stream, nullptr) << "an empty reference";
    EXPECT_EQ(plugin->GetInterface("x", &out) + plugin->SetProperty("x", &host.name), 0);
    EXPECT_EQ(static_cast<IXJModInterface*>(plugin)->GetProperty("x"), nullptr);
    plugin->SetListener(&host);
    EXPECT_EQ(static_cast<IXJModInterface*>(plugin)->AddRef(), 2)
        << "counting is done in one place";
    EXPECT_EQ(static_cast<IPluginRaw*>(plugin)->Release(), 1);
    EXPECT_EQ(out, this);
    EXPECT_EQ(runtime.last + host.outbound, "");

    // A version request, then the end of the stream.
    host.inbound = std::string("\x0C\0\0\0\x0B\0\0\0\x04\0\0\0\x01\0\0\0\x01\0\0\0", 20);
    EXPECT_EQ(plugin->Run(), 1);
    EXPECT_EQ(host.outbound, std::string("\x0C\0\0\0\x0B\0\0\0\x04\0\0\0\x02\0\0\0\x03\0\0\0", 20));
    EXPECT_EQ(runtime.last, "1 [usbipclient] Run return");
    for (const bool released : {false, true}) {
        EXPECT_EQ(released ? plugin->Release() : plugin->ExitInstance(), 0);
        EXPECT_EQ(runtime.last, "8 [usbipclient] ExitInstance finish");
        EXPECT_EQ(host.references, released ? 1 : 2);
    }
    entry.uninit();
    dlclose(library);
}

}  // namespace
