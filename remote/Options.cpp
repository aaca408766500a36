#include "remote/Options.h"

#include <sstream>
#include <utility>

#include "posix/CommandLine.h"
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
  quit        as SIGINT and SIGTERM: takes all devices away, syncs images, exits 0;
              1 when data of an image may be lost
In the background of a terminal none are read, nor in the foreground after that.
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
the devices. Listen on 127.0.0.1 or a Unix socket and let ssh carry the rest.

Exit status: 0 after "quit", SIGINT, SIGTERM or an orderly end of --stdio; 1 when there
is nothing to offer, no way to listen, or the host or its link was at fault; 2 for a
mistake on the command line.)";

std::optional<posix::Address> parse_server(const std::string& text, std::string& error) {
    return posix::ParseServer(text, kUsbipServerPort, error);
}

// What a program that runs can be asked to do.
void add_questions(posix::CommandLine& line, Question& question) {
    const auto add = [&](const std::string& name, const std::string& help) {
        auto* const asked = line.add_subcommand(name, help);
        asked->footer("");
        asked->add_option("--control", question.control, "where the program answers")
            ->type_name("PATH")
            ->required();
        asked->add_flag("--json", question.json, "for programs; docs/json.md says what it holds");
        asked->callback([&question, name] { question.command = name; });
        return asked;
    };
    add("list", "Ask a running remote side which devices it has.");
    add("stats", "Ask it what they have moved.");
    for (const auto& [name, help] :
         {std::pair("plug", "Have it offer a device again."),
          std::pair("unplug", "Have it take a device away from the host."),
          std::pair("remove", "The same, for good.")})
        add(name, help)
            ->add_option("DEVICE", question.device, "its number in the list")
            ->required();
    auto* const more = add("add", "Have it offer one more device.");
    auto* const disk = more->add_option("--disk", question.disk, "as above")
                           ->type_name("IMAGE[,ro][,speed=high|super]");
    auto* const usbip =
        more->add_option("--usbip", question.usbip, "as above")->type_name("HOST[:PORT]/BUSID");
    disk->excludes(usbip);
    more->require_option(2, 3);  // where, what, and maybe how it is to be told
    add("quit", "Have it end, as SIGTERM does.");
}

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
    const std::string busid = slash == std::string::npos ? "" : text.substr(slash + 1);
    if (busid.empty() || busid.size() > kUsbipMaxBusId) {
        error = "'" + text + "' is not HOST[:PORT]/BUSID";
        return std::nullopt;
    }
    const auto server = parse_server(text.substr(0, slash), error);
    return server ? std::optional(UsbipOption{*server, busid}) : std::nullopt;
}

std::optional<int> ParseCommandLine(int argc, const char* const* argv, Options& options) {
    posix::CommandLine line("xj-usbip-remote", kDescription, kFooter);
    const auto* listen =
        line.AddParsed(
                "--listen",
                [](const std::string& text, std::string& error) {
                    return posix::ParseAddress(text, posix::AddressUse::Listen, error);
                },
                [&options](const posix::Address& address) { options.listen = address; },
                "wait for hosts at HOST:PORT, [IPV6]:PORT (port 0: a\n"
                "free one) or unix:PATH; the address really bound is\n"
                "printed; one host at a time, a second one is turned\n"
                "away")
            ->type_name("ADDRESS")
            ->group("What to do (one of)");
    const auto* stdio = line.add_flag("--stdio")
                            ->description("serve one host on standard input and output")
                            ->group("What to do (one of)");
    const auto* list =
        line.AddParsed(
                "--list", parse_server,
                [&options](const posix::Address& address) { options.list = address; },
                "show the devices that the USB/IP server at\n"
                "HOST[:PORT] (3240) offers")
            ->type_name("HOST[:PORT]")
            ->group("What to do (one of)");
    line.AddParsed(
            "--disk", ParseDisk,
            [&options](const DiskOption& disk) { options.disks.push_back(disk); },
            "offer a USB disk backed by this plain file, whose size is\n"
            "a multiple of 512; ro: it cannot be written; speed: high\n"
            "(default) or super; the name must not contain a comma")
        ->take_all()
        ->type_name("IMAGE[,ro][,speed=high|super] ...")
        ->group("Devices (one or more)");
    line.AddParsed(
            "--usbip", ParseUsbip,
            [&options](const UsbipOption& device) { options.imports.push_back(device); },
            "offer a device of the USB/IP server at HOST, port 3240 or\n"
            "PORT")
        ->take_all()
        ->type_name("HOST[:PORT]/BUSID ...")
        ->group("Devices (one or more)");
    line.add_flag("--wait", options.wait,
                  "wait for devices of USB/IP servers that are not there\n"
                  "yet, or not any more")
        ->group("Behaviour");
    line.add_flag("--compress", options.compress,
                  "compress PDUs above 4096 bytes, and ask the host to do so")
        ->group("Behaviour");
    line.add_option("--control", options.control,
                    "answer list, stats, plug, unplug, add, remove and quit at\na Unix socket")
        ->option_text("PATH")
        ->group("Behaviour");
    add_questions(line, options.question);
    return line.Parse(argc, argv, [&] {
        if (!options.question.command.empty()) return;
        posix::CommandLine::RequireOneOf({listen, stdio, list});
        if (!options.list && options.control.empty() && options.disks.empty() &&
            options.imports.empty()) {
            throw CLI::ValidationError("--disk, --usbip", "one device or more is needed");
        }
    });
}

}  // namespace remote
