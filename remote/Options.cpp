#include "remote/Options.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <utility>

namespace remote {
namespace {

constexpr const char* kDescription =
    "Plays the remote computer of xj-client-usbip: offers virtual USB disks to a host,\n"
    "which attaches them to its kernel as if they were plugged in there.";

constexpr const char* kFooter = R"(Commands on standard input, one a line (with --listen):
  list        one line for each device: number, unplugged|plugged|mapped, name
  unplug N    takes device N away from the host, even in the middle of traffic
  plug N      offers it again
  quit        as SIGINT and SIGTERM: takes all devices away, syncs images, exits 0
SIGUSR1 writes each device's counters to standard error, as the end does.

Examples:
  An empty 64 MiB disk, offered on this machine only:
    truncate -s 64M stick.img
    xj-usbip-remote --listen 127.0.0.1:7575 --disk stick.img
    xj-usbip-host --connect 127.0.0.1:7575              (on the same machine, as root)

  A fast disk and one that cannot be written, behind a Unix socket:
    xj-usbip-remote --listen unix:/tmp/usb.sock --disk big.img,speed=super --disk cd.img,ro

  From another machine, encrypted and authenticated by ssh, compressed:
    xj-usbip-host --exec "ssh box xj-usbip-remote --stdio --compress --disk stick.img"

The channel itself knows no authentication: whoever can connect can read and write
the disks. Listen on 127.0.0.1 or a Unix socket and let ssh carry the rest.)";

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

std::optional<Options> ParseOptions(int argc, char** argv, int& exit_code) {
    Options options;
    std::vector<std::string> disks;
    bool stdio = false;

    CLI::App app(kDescription);
    app.footer(kFooter);
    CLI::Option_group* stream = app.add_option_group("stream", "Where the host is (one of)");
    stream->add_option("--listen", options.listen,
                       "Wait for hosts at HOST:PORT (port 0: a free one) or unix:PATH. The address "
                       "really bound is printed. One host at a time, others wait.");
    stream->add_flag("--stdio", stdio, "Serve one host on standard input and output");
    stream->require_option(1);
    app.add_option("--disk", disks,
                   "Offer a USB disk backed by this plain file, whose size is a multiple of 512; "
                   "may be repeated. ro: it cannot be written. speed: high (default) or super. "
                   "The name must not contain a comma.")
        ->type_name("IMAGE[,ro][,speed=high|super]")
        ->required()
        ->allow_extra_args(false);
    app.add_flag("--compress", options.compress,
                 "Compress PDUs above 4096 bytes, and ask the host to do so");
    try {
        app.parse(argc, argv);
        if (!stdio && options.listen.empty()) throw CLI::ValidationError("--listen", "is empty");
        for (const std::string& text : disks) {
            std::string error;
            const auto disk = ParseDisk(text, error);
            if (!disk) throw CLI::ValidationError("--disk", error);
            options.disks.push_back(*disk);
        }
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error);
        return std::nullopt;
    }
    return options;
}

}  // namespace remote
