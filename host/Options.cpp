#include "host/Options.h"

#include <CLI/CLI.hpp>
#include <vector>

namespace host {
namespace {

constexpr int kUsageError = 2;

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
    "not be opened or was lost; 2 for a mistake on the command line.";

}  // namespace

std::optional<int> ParseCommandLine(int argc, const char* const* argv, Options& options) {
    CLI::App app(kDescription, "xj-usbip-host");
    app.footer(kExamples);
    app.set_version_flag("--version", XJ_VERSION);

    std::string address;
    std::string command;
    auto* connect = app.add_option("--connect", address, "HOST:PORT, [IPV6]:PORT or unix:PATH");
    connect->option_text("ADDRESS")->group("Stream (one of)");
    connect->check(
        [&options](const std::string& text) { return ParseAddress(text, options.target); });
    auto* exec =
        app.add_option("--exec", command, "a shell command whose input and output are the stream");
    exec->option_text("COMMAND")->group("Stream (one of)")->excludes(connect);
    app.add_flag("--reconnect", options.reconnect,
                 "open the stream again after it was lost or could not be\n"
                 "opened, with pauses that grow from 1 to 30 seconds;\n"
                 "devices are detached meanwhile")
        ->group("Behaviour");

    options.module = XJ_DEFAULT_MODULE;
    app.add_option("--module", options.module, "the module's file")
        ->option_text("PATH [" XJ_DEFAULT_MODULE "]")
        ->group("Module");
    std::vector<int> levels{1, 4};
    app.add_option("--log-level", levels,
                   "the module's log lines to show on standard error:\n"
                   "1 lifecycle and devices, 4 failures, 8 detail")
        ->option_text("LEVEL,... [1,4]")
        ->delimiter(',')
        ->check(CLI::IsMember({1, 4, 8}))
        ->group("Module");

    auto* doctor = app.add_subcommand("doctor", "Say whether this machine can attach devices.");

    try {
        app.parse(argc, argv);
        options.doctor = doctor->parsed();
        if (!options.doctor && address.empty() && command.empty()) {
            throw CLI::RequiredError("One of --connect and --exec");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageError;
    }
    if (!command.empty()) options.target = {Target::Kind::Command, command, {}};
    options.log_levels = {levels.begin(), levels.end()};
    return std::nullopt;
}

}  // namespace host
