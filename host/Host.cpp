#include "host/Host.h"

#include <algorithm>
#include <system_error>
#include <thread>

#include "host/Connect.h"
#include "host/Control.h"
#include "host/Devices.h"
#include "host/Greeting.h"
#include "host/Log.h"
#include "host/Module.h"
#include "host/Runtime.h"
#include "host/SocketStream.h"
#include "posix/Error.h"
#include "posix/Notify.h"
#include "posix/Wait.h"
#include "wire/ChannelMessages.h"

namespace host {
namespace {

constexpr int kFailed = 1;
constexpr int kNoRemoteSide = 3;
constexpr int kNothingAttached = 4;
constexpr int kAllRefused = 5;
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
void serve(IClientUsbipPlugin& plugin, SocketStream& stream, Devices& devices, int stop) {
    const posix::UniqueFd run_returned = posix::MakeEvent();
    const CRefObj<xj_usbip::Tap> tap = new xj_usbip::Tap(&stream, devices);
    devices.Serve(tap);
    plugin.InitInstance(tap.Get());
    std::thread run([&plugin, &run_returned] {
        plugin.Run();
        ::eventfd_write(run_returned.Get(), 1);
    });
    const auto wake = posix::WaitFor(run_returned.Get(), POLLIN, stop, -1);
    const bool stopped = wake == posix::Wake::Stopped;
    const std::string why = stopped ? "this program ends" : "the stream to the remote side ended";
    devices.Leaving(why);
    if (stopped) detach(plugin, stream);
    stream.End();
    run.join();
    plugin.ExitInstance();  // also what was mapped meanwhile
    plugin.InitInstance(nullptr);
    devices.Leave(why);
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

// The one program: what it says, has, and does about its devices.
struct Parts {
    const Log& log;
    IClientUsbipPlugin& plugin;
    Devices& devices;
};

Outcome use(const Parts& parts, Link& link, const Target& target, int stop,
            std::chrono::milliseconds patience) {
    using Kind = Greeting::Kind;
    Greeting greeting = AwaitGreeting(link.socket.Get(), stop, patience);
    if (greeting.kind == Kind::Silence && link.child) {
        const auto more = patience * (kCommandPatience - 1);
        const auto seconds = std::chrono::ceil<std::chrono::seconds>(more).count();
        parts.log.Note(Explain(greeting, target) + " It has " + std::to_string(seconds) +
                       " s more");
        greeting = AwaitGreeting(link.socket.Get(), stop, more);
    }
    if (greeting.kind == Kind::Ended) return lost(Describe(target), greeting.text, link);
    if (greeting.kind != Kind::RemoteSide) {
        link.socket = {};
        return {.why = Explain(greeting, target), .stranger = greeting.kind != Kind::Busy};
    }
    posix::Notify("READY=1\nSTATUS=Connected to " + Describe(target));
    const CRefObj<SocketStream> stream = new SocketStream(link.socket.Release());
    serve(parts.plugin, *stream, parts.devices, stop);
    Outcome outcome = lost(Describe(target), why_ended(*stream, greeting), link);
    outcome.reached = true;
    return outcome;
}

// Until the end of the program; returns its exit status.
int serve_streams(const Parts& parts, const Options& options, int stop,
                  std::chrono::milliseconds patience) {
    Backoff backoff;
    for (bool met = false;;) {  // a remote side
        Outcome outcome;
        std::string error;
        if (auto link = posix::IsStopped(stop) ? std::nullopt : Open(options.target, stop, error)) {
            parts.log.Note("connected to " + Describe(options.target));
            outcome = use(parts, *link, options.target, stop, patience);
        } else {
            outcome.why = "cannot open " + Describe(options.target) + ": " + error;
        }
        if (posix::IsStopped(stop)) {
            posix::Notify("STOPPING=1");
            parts.log.Note("stopped, all devices detached");
            return 0;
        }
        parts.log.Fail(outcome.why);
        met = met || outcome.reached;
        if (outcome.stranger && !met) return kNoRemoteSide;
        if (!options.reconnect) return outcome.stranger ? kNoRemoteSide : kFailed;
        const auto pause = backoff.Next(outcome.reached);
        parts.log.Note("trying again in " + std::to_string(pause.count()) + " s");
        posix::Notify("READY=1\nSTATUS=Not connected: " + outcome.why);
        posix::WaitFor(-1, 0, stop, static_cast<int>(std::chrono::milliseconds(pause).count()));
    }
}

// A remote side that lets us go in order, or we it, may still have been of no use.
int judged(int status, const Tally& tally) {
    if ((status != 0 && status != kFailed) || tally.ready > 0) return status;
    if (tally.failed > 0) return kNothingAttached;
    return tally.refused > 0 ? kAllRefused : status;
}

}  // namespace

std::chrono::seconds Backoff::Next(bool reached) {
    if (reached) next_ = kFirst;
    return std::exchange(next_, std::min(next_ * 2, kLongest));
}

int RunHost(const Options& options, int stop, std::chrono::milliseconds patience) {
    const Log log(options.verbosity);
    Runtime runtime(log.ModuleLevels(),
                    [&log](int level, std::string_view text) { log.Module(level, text); });
    std::string error;
    const auto fail = [&] {
        log.Fail(error);
        return kFailed;
    };
    std::unique_ptr<Control> control;
    if (!options.control.empty()) {
        control = Control::Open(options.control, error);
        if (!control) return fail();
    }
    const auto module = Module::Load(options.module, runtime, error);
    if (!module) return fail();
    log.Detail("loaded " + module->Description());
    const auto plugin = module->CreatePlugin();
    if (!plugin) {
        error = "the module makes no plug-in of the kind that this host drives";
        return fail();
    }
    Devices devices(options.policy, options.sysfs, [&](const DeviceEvent& event) {
        const bool bad =
            event.kind == DeviceEvent::Kind::Failed || event.kind == DeviceEvent::Kind::Late;
        bad ? log.Fail(event.text) : log.Note(event.text);
        if (control) control->Publish(event);
    });
    if (!devices.Open(error)) return fail();
    if (options.capture && !devices.StartCapture(*options.capture, error)) return fail();
    if (!options.policy.rules.Empty() || options.policy.deny_all) {
        log.Note(options.policy.deny_all ? "devices that no rule matches are refused"
                                         : "devices that no rule matches are allowed");
    }
    if (options.policy.rules.ByClass()) {
        log.Note(
            "until this program ends, drivers get devices on virtual ports only after it has "
            "looked at them");
    }
    if (control) control->Start(devices);
    const int status = serve_streams({log, *plugin, devices}, options, stop, patience);
    control = nullptr;
    const std::string captured = devices.StopCapture();
    if (!captured.empty()) log.Note(captured);
    return judged(status, devices.Count());
}

}  // namespace host
