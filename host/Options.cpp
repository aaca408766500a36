#include "host/Options.h"

#include <fstream>
#include <iterator>
#include <utility>

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

constexpr char kFooter[] =
    "A rule is [VENDOR:PRODUCT] [speed=low|full|high|super] [name=PATTERN]\n"
    "[class=CLASS[/SUBCLASS[/PROTOCOL]]], and matches a device that matches all of it. What "
    "--deny\n"
    "says comes first, then --allow, then the lines of --rules, which begin with allow or deny. "
    "The\n"
    "first that matches decides; a device that none matches is allowed.\n\n"
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
    "any device, or could attach none of those that came; 5 when all that came were refused by\n"
    "rules. --reconnect goes on after 3 only if there was a remote side before.";

bool add_rules_of(const std::string& path, xj_usbip::Rules& rules, std::string& error) {
    std::ifstream file(path);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file) {
        error = path + ": cannot be read";
        return false;
    }
    if (rules.AddLines(text, error)) return true;
    error = path + ": " + error;
    return false;
}

// Which devices may come, and which are captured.
void add_devices(posix::CommandLine& line, Options& options) {
    // They are looked at in this order, whatever the order on the command line.
    for (const auto& [verb, help] : {std::pair("deny", "keep such devices away from this machine"),
                                     std::pair("allow", "take such devices")}) {
        const std::string name = std::string("--") + verb;
        line.add_option(name, help)
            ->type_name("RULE")
            ->allow_extra_args(false)
            ->take_all()
            ->each([&options, word = std::string(verb)](const std::string& text) {
                std::string error;
                if (!options.policy.rules.Add(word + ' ' + text, error))
                    throw CLI::ValidationError(error);
            })
            ->group("Devices");
    }
    line.add_option("--rules", "a file of rules, one on each line")
        ->type_name("FILE")
        ->each([&options](const std::string& path) {
            std::string error;
            if (!add_rules_of(path, options.policy.rules, error)) throw CLI::ValidationError(error);
        })
        ->group("Devices");
    line.add_flag("--deny-all", options.policy.deny_all, "take none that no rule allows")
        ->group("Devices");
    line.add_option("--max-devices", options.policy.most, "take so many at a time")
        ->option_text("N")
        ->check(CLI::Range(std::size_t{1}, xj_usbip::Tap::kMostDevices))
        ->group("Devices");

    line.AddParsed(
            "--capture", ParseCapture,
            [&options](CaptureOrder order) { options.capture = std::move(order); },
            "write all URBs to a pcapng file, for Wireshark;\n"
            "with ids, those of these devices. It holds what\n"
            "passes, typed passwords among it")
        ->type_name("FILE[,VENDOR:PRODUCT...]")
        ->group("Capture");
    line.add_option("--capture-data", options.capture_data,
                    "of each URB, no more bytes of data than this")
        ->option_text("BYTES [" + std::to_string(options.capture_data) + "]")
        ->check(CLI::Range(0, 1 << 24))
        ->group("Capture");
    line.add_option("--capture-size", options.capture_mib,
                    "begin a new file when one is so long, and keep the\none before as FILE.1")
        ->option_text("MIB")
        ->check(CLI::Range(1, 1 << 20))
        ->group("Capture");
}

void add_questions(posix::CommandLine& line, Question& question) {
    const auto add = [&](CLI::App& app, const std::string& name, const std::string& help,
                         const std::string& command) {
        auto* const asked = app.add_subcommand(name, help);
        asked->add_option("--control", question.control, "where the host answers")
            ->type_name("PATH")
            ->required();
        asked->add_flag("--json", question.json, "for programs; docs/json.md says what it holds");
        asked->footer("");
        asked->callback([&question, command] { question.command = command; });
        return asked;
    };
    add(line, "list", "Ask a running host which devices it has.", "list");
    add(line, "stats", "Ask it what has passed.", "stats");
    add(line, "top", "The same once a second, until Ctrl-C.", "stats")
        ->parse_complete_callback([&] { question.live = true; });
    add(line, "watch", "Have it tell what happens, until Ctrl-C.", "watch");
    add(line, "detach", "Have it detach a device.", "detach")
        ->add_option("DEVICE", question.device, "its number in the list")
        ->required();
    auto* const capture = line.add_subcommand("capture", "Have it begin or end a capture.");
    capture->require_subcommand(1);
    capture->footer("");
    add(*capture, "start", "Begin one.", "capture start")
        ->add_option("FILE", question.file, "as for --capture")
        ->required();
    add(*capture, "stop", "End it.", "capture stop");
}

}  // namespace

std::optional<int> ParseCommandLine(int argc, const char* const* argv, Options& options) {
    posix::CommandLine line("xj-usbip-host", kDescription, kFooter);
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
    line.add_option("--control", options.control,
                    "answer list, stats, top, watch, detach and capture\nat a Unix socket")
        ->option_text("PATH")
        ->group("Behaviour");
    add_devices(line, options);

    bool quiet = false;
    bool verbose = false;
    bool debug = false;
    line.add_flag("--quiet", quiet, "say nothing but failures")->group("Words");
    line.add_flag("--verbose", verbose, "also what the module does")->group("Words");
    line.add_flag("--debug", debug, "in all detail")->group("Words");

    options.module = FindModule();
    line.add_option("--module", options.module, "the module's file")
        ->option_text("PATH [" + options.module + "]")
        ->group("Module");

    auto* doctor = line.add_subcommand("doctor", "Say whether this machine can attach devices.");
    doctor->add_flag("--json", options.json, "for programs; docs/json.md says what it holds");
    add_questions(line, options.question);
    const auto status = line.Parse(argc, argv, [&] {
        options.doctor = doctor->parsed();
        if (!options.doctor && options.question.command.empty()) {
            posix::CommandLine::RequireOneOf({connect, exec});
        }
        if (quiet + verbose + debug > 1) {
            throw CLI::ValidationError("only one of --quiet, --verbose, --debug can be given");
        }
    });
    options.check = !unchecked;
    if (options.capture) {
        options.capture->file.most_data = options.capture_data;
        options.capture->file.most_size = std::uint64_t{options.capture_mib} << 20;
    }
    if (quiet) options.verbosity = Verbosity::Quiet;
    if (verbose) options.verbosity = Verbosity::Verbose;
    if (debug) options.verbosity = Verbosity::Debug;
    return status;
}

}  // namespace host
