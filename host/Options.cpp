#include "host/Options.h"

#include <vector>

#include "host/ModuleFile.h"
#include "posix/CommandLine.h"

namespace host {
namespace {

constexpr char kDescription[] =
    "Lets USB devices that are plugged into a remote computer appear on this one.\n\n"
    "Opens a byte stream to the remote side, loads the module libxj-client-usbip.so and lends\n"
    "it the stream. The remote side then says which devices to attach; each of them takes a port\n"
    "of the kernel's virtual host controller (vhci_hcd) and works like a local device until the\n"
    "remote side takes it away or this program ends. Attaching needs root; `doctor` says whether\n"
    "this machine is ready.";

constexpr char kExamples[] =
    "Examples:\n"
    "  Is this machine ready?\n"
    "    xj-usbip-host doctor\n"
    "  A remote side on this machine, over loopback or over a Unix socket:\n"
    "    xj-usbip-remote --listen 127.0.0.1:9000 --disk disk.img\n"
    "    sudo xj-usbip-host --connect 127.0.0.1:9000\n"
    "    xj-usbip-remote --listen unix:/tmp/usb.sock --disk disk.img\n"
    "    sudo xj-usbip-host --connect unix:/tmp/usb.sock\n"
    "  Another machine, encrypted and authenticated by ssh, coming back after a lost link:\n"
    "    sudo xj-usbip-host --reconnect \\\n"
    "        --exec \"ssh user@box xj-usbip-remote --stdio --disk disk.img\"\n"
    "The stream itself is neither encrypted nor authenticated: --connect is for links you "
    "trust.\n\n"
    "Exit status: 0 after SIGINT or SIGTERM, with every device detached; 1 when the stream could\n"
    "not be opened or was lost, or the remote side serves another host; 2 for a mistake on the\n"
    "command line; 3 when whoever answers is no remote side, or nobody does: within 10 s, but a\n"
    "command has two minutes, since it may wait for a password; 4 when this machine cannot attach\n"
    "any device. --reconnect goes on after 3 only if there was a remote side before.";

}  // namespace

std::optional<int> ParseCommandLine(int argc, const char* const* argv, Options& options) {
    posix::CommandLine line("xj-usbip-host", kDescription, kExamples);
    const auto* connect =
        line.AddParsed(
                "--connect",
                [](const std::string& text, std::string& error) {
                    return posix::ParseAddress(text, posix::AddressUse::Connect, error);
                },
                [&options](posix::Address address) { options.target.address = std::move(address); },
                "HOST:PORT, [IPV6]:PORT or unix:PATH")
            ->type_name("ADDRESS")
            ->group("Stream (one of)");
    const auto* exec = line.add_option("--exec", options.target.command,
                                       "a shell command whose input and output are the stream")
                           ->type_name("COMMAND")
                           ->check([](const std::string& text) {
                               return text.empty() ? "the command is empty" : "";
                           })
                           ->group("Stream (one of)");
    line.add_flag("--reconnect", options.reconnect,
                  "open the stream again after it was lost or could not be\n"
                  "opened, after a second, or up to 30 while no remote\n"
                  "side answers; devices are detached meanwhile")
        ->group("Behaviour");
    bool unchecked = false;
    line.add_flag("--no-check", unchecked, "connect although this machine cannot attach any device")
        ->group("Behaviour");

    options.module = FindModule();
    line.add_option("--module", options.module, "the module's file")
        ->option_text("PATH [" + options.module + "]")
        ->group("Module");
    std::vector<int> levels{1, 4};
    line.add_option("--log-level", levels,
                    "the module's log lines to show on standard error:\n"
                    "1 lifecycle and devices, 4 failures, 8 detail")
        ->option_text("LEVEL,... [1,4]")
        ->delimiter(',')
        ->check(CLI::IsMember({1, 4, 8}))
        ->group("Module");

    auto* doctor = line.add_subcommand("doctor", "Say whether this machine can attach devices.");
    doctor->add_flag("--json", options.json, "for programs; docs/json.md says what it holds");
    const auto status = line.Parse(argc, argv, [&] {
        options.doctor = doctor->parsed();
        if (!options.doctor) posix::CommandLine::RequireOneOf({connect, exec});
    });
    options.check = !unchecked;
    options.log_levels = {levels.begin(), levels.end()};
    return status;
}

}  // namespace host
