// A host in one file: lends a TCP connection to the module until a signal or the remote side ends
// it.
//   minimal-host MODULE HOST PORT
#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <xj-client-usbip/HostAbi.h>
#include <xj-client-usbip/PluginAbi.h>
#include <xj-client-usbip/XJModData.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {

// The module's log lines go to standard error.
class Runtime final : public IXJModRuntime {
  public:
    void Log(int level, const char* text) override { std::fprintf(stderr, "%d %s\n", level, text); }
    bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) override {
        return false;
    }
    bool SaveConfig(bool, const char*, const char*, const char*) override { return false; }
    void* GetEnv(const char*) override { return nullptr; }
};

// What the module's factory is asked for.
class Request final : public IXJModPropertySet, CReference {
  public:
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    IXJModData* GetProperty(const char* key) override {
        if (std::strcmp(key, kPropertyInterfaceName) == 0) return name_.Get();
        return std::strcmp(key, kPropertyVersion) == 0 ? version_.Get() : nullptr;
    }

  private:
    const CRefObj<CXJModData> name_ = new CXJModData(std::string_view(kInterfaceClientUsbipPlugin));
    const CRefObj<CXJModData> version_ = new CXJModData(static_cast<std::int64_t>(kModuleVersion));
};

class Stream final : public IPluginStreamRaw, CReference {
  public:
    explicit Stream(int socket) : socket_(socket) {}
    ~Stream() override { close(socket_); }
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void Reserved1() override {}

    // Zero bytes are the end of the stream, which is a failure, too.
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long) override {
        return Moved(recv(socket_, buf, len, 0), got);
    }
    int Write(const void* data, unsigned long len, unsigned long* written, unsigned long) override {
        return Moved(send(socket_, data, len, MSG_NOSIGNAL), written);
    }
    void End() { shutdown(socket_, SHUT_RDWR); }  // from here on both of them fail

  private:
    static int Moved(ssize_t count, unsigned long* bytes) {
        *bytes = count > 0 ? static_cast<unsigned long>(count) : 0;
        return count > 0 ? 0 : -1;
    }
    const int socket_;
};

int connected_to(const char* host, const char* port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, port, &hints, &found) != 0) return -1;
    int result = -1;
    for (const addrinfo* next = found; next != nullptr && result < 0; next = next->ai_next) {
        const int fd = socket(next->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, next->ai_addr, next->ai_addrlen) == 0)
            result = fd;
        else if (fd >= 0)
            close(fd);
    }
    freeaddrinfo(found);
    const timeval patience{2, 0};  // a remote side that stops reading must not keep us from ending
    setsockopt(result, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    return result;
}

int fail(const char* what) {
    std::fprintf(stderr, "minimal-host: %s\n", what);
    return 1;
}

// One stream, from its first byte to its end. All devices are detached on return.
void serve(IClientUsbipPlugin& plugin, Stream& stream, const sigset_t& stops) {
    plugin.InitInstance(&stream);
    std::thread run([&plugin] {
        plugin.Run();
        kill(getpid(), SIGTERM);  // the remote side has gone
    });
    int signal = 0;
    sigwait(&stops, &signal);
    plugin.ExitInstance();  // while the stream still takes the devices' last messages
    stream.End();           // Run returns
    run.join();
    plugin.ExitInstance();         // also what was mapped meanwhile
    plugin.InitInstance(nullptr);  // gives the stream back
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return fail("usage: minimal-host MODULE HOST PORT");
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);  // before there are threads, which inherit it

    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return fail(dlerror());
    const auto get =
        reinterpret_cast<xjmod_get_entrypoint_fn>(dlsym(library, "xjmod_get_entrypoint"));
    const xjmod_entrypoint* const module = get != nullptr ? get() : nullptr;
    Runtime runtime;
    if (module == nullptr || module->version >> 48 != kModuleVersion >> 48 ||
        !module->init(&runtime)) {
        return fail("this is no module that this host can drive");
    }
    {
        const CRefObj<Request> request = new Request;
        IXJModPropertySet* const properties = request.Get();  // of this type, for the void*
        void* made = nullptr;
        if (!module->create(properties, &made)) return fail("the module makes no plug-in");
        const CRefObj<IClientUsbipPlugin> plugin(static_cast<IClientUsbipPlugin*>(made));
        plugin->Release();  // `create` took a reference for us; `plugin` has its own

        const int socket = connected_to(argv[2], argv[3]);
        if (socket < 0) return fail("cannot connect");
        const CRefObj<Stream> stream = new Stream(socket);
        serve(*plugin, *stream, stops);
    }
    module->uninit();  // after the last plug-in
    dlclose(library);
    return 0;
}
