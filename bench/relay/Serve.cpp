// The process that relays: the module in a host, with a fake kernel around it, or the lean relay.

#include <dlfcn.h>
#include <linux/perf_event.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cstring>
#include <fstream>

#include "bench/relay/Lean.h"
#include "bench/relay/Relay.h"
#include "fakes/FakeController.h"
#include "host/Module.h"
#include "host/SocketStream.h"
#include "xj-client-usbip/kit/Tap.h"

namespace {

struct SilentRuntime : IXJModRuntime {
    void Log(int, const char*) override {}
    bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) override {
        return false;
    }
    bool SaveConfig(bool, const char*, const char*, const char*) override { return false; }
    void* GetEnv(const char*) override { return nullptr; }
};

void SendDescriptor(int control, int descriptor) {
    char byte = 0;
    iovec part{&byte, 1};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof descriptor)] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    Require(sendmsg(control, &message, MSG_NOSIGNAL) == 1, "the kernel's socket can be sent");
}

// Of this process and all its threads from now on. None where the system does not permit it.
posix::UniqueFd SystemCallCounter() {
    perf_event_attr event{};
    event.size = sizeof event;
    event.type = PERF_TYPE_TRACEPOINT;
    event.inherit = 1;
    for (const char* where : {"/sys/kernel/tracing", "/sys/kernel/debug/tracing"}) {
        std::ifstream id(std::string(where) + "/events/raw_syscalls/sys_enter/id");
        if (id >> event.config)
            return posix::UniqueFd(static_cast<int>(
                syscall(SYS_perf_event_open, &event, 0, -1, -1, PERF_FLAG_FD_CLOEXEC)));
    }
    return {};
}

// Until the other end is closed, a byte asks for the counts.
void AnswerCounts(int control, int system_calls) {
    using Allocations = unsigned long();
    const auto allocations =
        reinterpret_cast<Allocations*>(dlsym(RTLD_DEFAULT, "observed_allocations"));
    for (char byte = 0; recv(control, &byte, 1, 0) == 1;) {
        Counts counts;
        timespec cpu{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
        counts.cpu = static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) * 1e-9;
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        counts.switches = static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
        counts.faults = static_cast<double>(usage.ru_minflt + usage.ru_majflt);
        std::uint64_t calls = 0;
        if (read(system_calls, &calls, sizeof calls) == sizeof calls)
            counts.system_calls = static_cast<double>(calls);
        if (allocations != nullptr) counts.allocations = static_cast<double>(allocations());
        send(control, &counts, sizeof counts, MSG_NOSIGNAL);
    }
}

void ServeLean(int control, int stream, int devices, int system_calls) {
    std::vector<posix::UniqueFd> owned;
    std::vector<int> sockets;
    for (int device = 0; device < devices; ++device) {
        int ends[2];  // of the same kind as the module's
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0,
                "a socket pair can be made");
        owned.emplace_back(ends[0]);
        sockets.push_back(ends[0]);
        SendDescriptor(control, ends[1]);
        close(ends[1]);
    }
    const Lean lean(stream, sockets);
    AnswerCounts(control, system_calls);
}

struct NobodyWatches : xj_usbip::ITapEvents {
    bool OnMap(const xj_usbip::RemoteDevice&) override { return true; }
    void OnUnmap(std::uint32_t) override {}
    void OnEnd(std::uint32_t) override {}
};

void ServeModule(const std::string& what, int control, int stream_socket, int devices,
                 int system_calls) {
    FakeController controller(1, 2 * devices);
    controller.status_pause = {};
    SilentRuntime runtime;
    std::string error;
    const bool tapped = what.starts_with(kTapped);
    const std::string library = tapped ? what.substr(kTapped.size()) : what;
    const auto module = host::Module::Load(library, runtime, error);
    Require(module != nullptr, error.c_str());
    auto plugin = module->CreatePlugin();
    const CRefObj<host::SocketStream> stream(new host::SocketStream(stream_socket));
    NobodyWatches events;
    const CRefObj<xj_usbip::Tap> tap(new xj_usbip::Tap(stream.Get(), events));
    IPluginStreamRaw* lent = stream.Get();
    if (tapped) lent = tap.Get();
    plugin->InitInstance(lent);
    std::thread run([&] { plugin->Run(); });
    std::vector<std::unique_ptr<KernelEnd>> kernels;  // ports that stay in use
    for (int device = 0; device < devices; ++device) {
        kernels.push_back(controller.WaitForAttach());
        Require(kernels.back() != nullptr, "a mapped device is attached");
        SendDescriptor(control, kernels.back()->Socket());
    }
    AnswerCounts(control, system_calls);
    stream->End();
    run.join();
    plugin->ExitInstance();
    plugin->InitInstance(nullptr);
    plugin = nullptr;
}

}  // namespace

int ServeRelay(const std::vector<std::string>& arguments) {
    Require(arguments.size() == 5, "Relay gives all arguments");
    const int control = std::stoi(arguments[1]);
    const int stream = std::stoi(arguments[2]);
    const int devices = std::stoi(arguments[3]);
    const auto system_calls = arguments[4] == "counted" ? SystemCallCounter() : posix::UniqueFd();
    if (arguments[0] == kLean)
        ServeLean(control, stream, devices, system_calls.Get());
    else
        ServeModule(arguments[0], control, stream, devices, system_calls.Get());
    return 0;
}
