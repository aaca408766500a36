#include "host/Host.h"

#include <algorithm>
#include <thread>

#include "host/Connect.h"
#include "host/Module.h"
#include "host/Runtime.h"
#include "posix/Error.h"
#include "posix/StandardStreams.h"
#include "posix/Wait.h"

namespace host {
namespace {

// Lends the stream to the plug-in until one side ends it or `stop` is readable. All devices are
// detached and the stream's connection is ended on return.
void serve(IClientUsbipPlugin& plugin, SocketStream& stream, int stop) {
    const posix::UniqueFd run_returned = posix::MakeEvent();
    plugin.InitInstance(&stream);
    std::thread run([&plugin, &run_returned] {
        plugin.Run();
        ::eventfd_write(run_returned.Get(), 1);
    });
    posix::WaitFor(run_returned.Get(), POLLIN, stop, -1);
    stream.End();
    run.join();
    plugin.ExitInstance();
    plugin.InitInstance(nullptr);
}

std::string why_lost(Link& link) {
    const int failure = link.stream->Error();
    std::string reason = failure == 0 ? "the remote side ended it" : posix::ErrorText(failure);
    if (link.child) reason += "; " + link.child->End();
    return reason;
}

}  // namespace

std::chrono::seconds Backoff::Next(bool reached) {
    if (reached) next_ = kFirst;
    return std::exchange(next_, std::min(next_ * 2, kLongest));
}

int RunHost(const Options& options, int stop) {
    Runtime runtime(options.log_levels,
                    [](std::string_view line) { posix::Tell(STDERR_FILENO, line); });
    std::string error;
    const auto module = Module::Load(options.module, runtime, error);
    if (!module) {
        runtime.Say(error);
        return 1;
    }
    runtime.Say("loaded " + module->Description());
    const auto plugin = module->CreatePlugin();
    if (!plugin) {
        runtime.Say("the module makes no plug-in of the kind that this host drives");
        return 1;
    }

    const std::string where = Describe(options.target);
    Backoff backoff;
    for (;;) {
        auto link = posix::IsStopped(stop) ? std::nullopt : Open(options.target, stop, error);
        if (link) {
            runtime.Say("connected to " + where);
            serve(*plugin, *link->stream, stop);
        }
        if (posix::IsStopped(stop)) {
            runtime.Say("stopped, all devices detached");
            return 0;
        }
        runtime.Say(link ? "lost the stream to " + where + ": " + why_lost(*link)
                         : "cannot open " + where + ": " + error);
        // The module writes nothing before it has to answer a version request.
        const bool reached = link && link->stream->Written();
        link.reset();
        if (!options.reconnect) return 1;
        const auto pause = backoff.Next(reached);
        runtime.Say("trying again in " + std::to_string(pause.count()) + " s");
        posix::WaitFor(-1, 0, stop, static_cast<int>(std::chrono::milliseconds(pause).count()));
    }
}

}  // namespace host
