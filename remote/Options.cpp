#include "remote/Options.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <utility>

#include "wire/UsbipServer.h"

namespace remote {
namespace {

constexpr const char* kDescription =
    "Plays the remote computer of xj-client-usbip: offers USB devices to a host, which\n"
    "attaches them to its kernel as if they were plugged in there. Devices are virtual\n"
    "disks, and real ones that a USB/IP server shares.";

constexpr const char* kFooter = R"(Commands on standard input, one a line (with --listen):
  list        one line for each device: number, unplugged|plugged|mapped, name
  unplug N    takes device N away from the host, even in the middle of traffic
  plug N      offers it again
  quit        as SIGINT and SIGTERM: takes all devices away, syncs images, exits 0
SIGUSR1 writes each device's counters to standard error, as the end does.

Examples:
  An empty 64 MiB disk, offered on this machine only:
    truncate -s 64M stick.img
    xj-usbip-remote --listen 127.0.0.1:9000 --disk stick.img
    xj-usbip-host --connect 127.0.0.1:9000              (on the same machine, as root)

  A fast disk and one that cannot be written, behind a Unix socket:
    xj-usbip-remote --listen unix:/tmp/usb.sock --disk big.img,speed=super --disk cd.img,ro

  The devices of the USB/IP server "box", and two of them for a host:
    xj-usbip-remote --list box
    xj-usbip-remote --listen 127.0.0.1:9000 --usbip box/1-1 --usbip box/1-2 --wait

  From another machine, encrypted and authenticated by ssh, compressed:
    xj-usbip-host --exec "ssh box xj-usbip-remote --stdio --compress --disk stick.img"

Devices of USB/IP servers: each is imported when a host comes and given back when the
host goes, drops the device, or "unplug" takes it away. At the start the servers are
asked for them: what is missing is reported and left out, and if nothing is left the
program exits with 1. Later, a device that a host cannot get within 10 s, or that
leaves, stays away until the next host or "plug". With --wait, missing devices are
neither left out nor given up: they are tried every 2 s until they appear, and again
after they have left. Server names are resolved once, at the start.
A server that stops reading loses the device when 32 MiB wait for it, or after 15 s;
so does one that leaves an unlink unanswered for 10 s. Names that cannot be resolved
are left out even with --wait.

The channel itself knows no authentication: whoever can connect can read and write
the devices. Listen on 127.0.0.1 or a Unix socket and let ssh carry the rest.)";

}  // namespace

std::optional<DiskOption> ParseDisk(const std::string& text, std::string& error) {
    std::istringstream parts(text);
    DiskOption disk;
    std::getline(parts, disk.path, ',');
    if (disk.path.empty()) {
        error = "'" + text + "' names no image";
        return std::nullopt;
    }
    for (std::string part; std::getline(parts, part, ',');) {
        if (part == "ro") {
            disk.read_only = true;
        } else if (part == "speed=high") {
            disk.speed = UsbSpeed::kHigh;
        } else if (part == "speed=super") {
            disk.speed = UsbSpeed::kSuper;
        } else {
            error = "'" + part + "' is none of ro, speed=high, speed=super";
            return std::nullopt;
        }
    }
    return disk;
}

std::optional<UsbipOption> ParseUsbip(const std::string& text, std::string& error) {
    const std::size_t slash = text.find('/');
    UsbipOption option{text.substr(0, slash),
                       slash == std::string::npos ? "" : text.substr(slash + 1)};
    if (option.server.empty() || option.busid.empty() || option.busid.size() > kUsbipMaxBusId) {
        error = "'" + text + "' is not HOST[:PORT]/BUSID";
        return std::nullopt;
    }
    return option;
}

std::optional<Options> ParseOptions(int argc, char** argv, int& exit_code) {
    Options options;
    std::vector<std::string> disks;
    std::vector<std::string> imports;
    bool stdio = false;

    CLI::App app(kDescription);
    app.footer(kFooter);
    CLI::Option_group* stream = app.add_option_group("stream", "What to do (one of)");
    stream->add_option("--listen", options.listen,
                       "Wait for hosts at HOST:PORT (port 0: a free one) or unix:PATH. The address "
                       "really bound is printed. One host at a time, others wait.");
    stream->add_flag("--stdio", stdio, "Serve one host on standard input and output");
    stream
        ->add_option("--list", options.list,
                     "Show the devices that the USB/IP server at HOST[:PORT] (3240) offers")
        ->type_name("HOST[:PORT]");
    stream->require_option(1);
    app.add_option("--disk", disks,
                   "Offer a USB disk backed by this plain file, whose size is a multiple of 512; "
                   "may be repeated. ro: it cannot be written. speed: high (default) or super. "
                   "The name must not contain a comma.")
        ->type_name("IMAGE[,ro][,speed=high|super]")
        ->allow_extra_args(false);
    app.add_option(
           "--usbip", imports,
           "Offer a device of the USB/IP server at HOST, port 3240 or PORT; may be repeated "
           "and mixed with --disk")
        ->type_name("HOST[:PORT]/BUSID")
        ->allow_extra_args(false);
    app.add_flag("--wait", options.wait,
                 "Wait for devices of USB/IP servers that are not there yet, or not any more");
    app.add_flag("--compress", options.compress,
                 "Compress PDUs above 4096 bytes, and ask the host to do so");
    try {
        app.parse(argc, argv);
        const bool listing = stream->get_option("--list")->count() != 0;
        if (listing ? options.list.empty() : !stdio && options.listen.empty()) {
            throw CLI::ValidationError(listing ? "--list" : "--listen", "is empty");
        }
        if (!listing && disks.empty() && imports.empty()) {
            throw CLI::ValidationError("--disk, --usbip", "one device or more is needed");
        }
        for (const std::string& text : disks) {
            std::string error;
            const auto disk = ParseDisk(text, error);
            if (!disk) throw CLI::ValidationError("--disk", error);
            options.disks.push_back(*disk);
        }
        for (const std::string& text : imports) {
            std::string error;
            const auto import = ParseUsbip(text, error);
            if (!import) throw CLI::ValidationError("--usbip", error);
            options.imports.push_back(*import);
        }
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error);
        return std::nullopt;
    }
    return options;
}

}  // namespace remote
