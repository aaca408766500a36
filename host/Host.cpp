#include "host/Host.h"

#include <algorithm>
#include <system_error>
#include <thread>

#include "host/Connect.h"
#include "host/Greeting.h"
#include "host/Module.h"
#include "host/Runtime.h"
#include "host/SocketStream.h"
#include "posix/Error.h"
#include "posix/StandardStreams.h"
#include "posix/Wait.h"
#include "wire/ChannelMessages.h"

namespace host {
namespace {

constexpr int kFailed = 1;
constexpr int kNoRemoteSide = 3;
constexpr int kCommandPatience = 15;  // times that of a peer: as long as sshd waits for a login
constexpr int kDetachMs = 2'000;

// Detaches every device while the stream still takes what they have to say. If nobody takes it, the
// stream is ended, and so it is before that if there can be no thread to see to it.
void detach(IClientUsbipPlugin& plugin, SocketStream& stream) try {
    const posix::UniqueFd detached = posix::MakeEvent();
    std::thread guard([&] {
        if (posix::WaitFor(detached.Get(), POLLIN, -1, kDetachMs) != posix::Wake::Ready)
            stream.End();
    });
    plugin.ExitInstance();
    ::eventfd_write(detached.Get(), 1);
    guard.join();
} catch (const std::system_error&) {
    stream.End();
}

// Lends the stream to the plug-in until one side ends it or `stop` is readable. All devices are
// detached and the stream's connection is ended on return.
void serve(IClientUsbipPlugin& plugin, SocketStream& stream, int stop) {
    const posix::UniqueFd run_returned = posix::MakeEvent();
    plugin.InitInstance(&stream);
    std::thread run([&plugin, &run_returned] {
        plugin.Run();
        ::eventfd_write(run_returned.Get(), 1);
    });
    const auto wake = posix::WaitFor(run_returned.Get(), POLLIN, stop, -1);
    if (wake == posix::Wake::Stopped) detach(plugin, stream);
    stream.End();
    run.join();
    plugin.ExitInstance();  // also what was mapped meanwhile
    plugin.InitInstance(nullptr);
}

// How an attempt to use a remote side's devices ended.
struct Outcome {
    std::string why;  // for the user
    bool reached = false;
    bool stranger = false;  // somebody else was there
};

Outcome lost(const std::string& where, const std::string& failure, Link& link) {
    link.socket = {};  // tells the command
    std::string why = failure.empty() ? "the remote side ended it" : failure;
    if (link.child) why += "; " + link.child->End();
    return {"lost the stream to " + where + ": " + why};
}

// A remote side of another version learns ours and leaves.
std::string why_ended(const SocketStream& stream, const Greeting& greeting) {
    if (stream.Error() != 0) return posix::ErrorText(stream.Error());
    if (stream.Received() > greeting.size) return {};
    return "the remote side ended it when it knew our protocol version and offered no device. "
           "Its log says why; if it speaks another version than " +
           std::to_string(kUsbipProtocolVersion) + ", one of the two has to be updated";
}

Outcome use(IClientUsbipPlugin& plugin, Link& link, const Target& target, const Runtime& runtime,
            int stop, std::chrono::milliseconds patience) {
    using Kind = Greeting::Kind;
    Greeting greeting = AwaitGreeting(link.socket.Get(), stop, patience);
    if (greeting.kind == Kind::Silence && link.child) {
        const auto more = patience * (kCommandPatience - 1);
        const auto seconds = std::chrono::ceil<std::chrono::seconds>(more).count();
        runtime.Say(Explain(greeting, target) + " It has " + std::to_string(seconds) + " s more");
        greeting = AwaitGreeting(link.socket.Get(), stop, more);
    }
    if (greeting.kind == Kind::Ended) return lost(Describe(target), greeting.text, link);
    if (greeting.kind != Kind::RemoteSide) {
        link.socket = {};
        return {.why = Explain(greeting, target), .stranger = greeting.kind != Kind::Busy};
    }
    const CRefObj<SocketStream> stream = new SocketStream(link.socket.Release());
    serve(plugin, *stream, stop);
    Outcome outcome = lost(Describe(target), why_ended(*stream, greeting), link);
    outcome.reached = true;
    return outcome;
}

}  // namespace

std::chrono::seconds Backoff::Next(bool reached) {
    if (reached) next_ = kFirst;
    return std::exchange(next_, std::min(next_ * 2, kLongest));
}

int RunHost(const Options& options, int stop, std::chrono::milliseconds patience) {
    Runtime runtime(options.log_levels,
                    [](std::string_view line) { posix::Tell(STDERR_FILENO, line); });
    std::string error;
    const auto module = Module::Load(options.module, runtime, error);
    if (!module) {
        runtime.Say(error);
        return kFailed;
    }
    runtime.Say("loaded " + module->Description());
    const auto plugin = module->CreatePlugin();
    if (!plugin) {
        runtime.Say("the module makes no plug-in of the kind that this host drives");
        return kFailed;
    }

    Backoff backoff;
    for (bool met = false;;) {  // a remote side
        Outcome outcome;
        if (auto link = posix::IsStopped(stop) ? std::nullopt : Open(options.target, stop, error)) {
            runtime.Say("connected to " + Describe(options.target));
            outcome = use(*plugin, *link, options.target, runtime, stop, patience);
        } else {
            outcome.why = "cannot open " + Describe(options.target) + ": " + error;
        }
        if (posix::IsStopped(stop)) {
            runtime.Say("stopped, all devices detached");
            return 0;
        }
        runtime.Say(outcome.why);
        met = met || outcome.reached;
        if (outcome.stranger && !met) return kNoRemoteSide;
        if (!options.reconnect) return outcome.stranger ? kNoRemoteSide : kFailed;
        const auto pause = backoff.Next(outcome.reached);
        runtime.Say("trying again in " + std::to_string(pause.count()) + " s");
        posix::WaitFor(-1, 0, stop, static_cast<int>(std::chrono::milliseconds(pause).count()));
    }
}

}  // namespace host
