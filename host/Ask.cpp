#include "host/Ask.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "posix/Control.h"
#include "posix/Wait.h"

namespace host {
namespace {

using Json = nlohmann::json;

constexpr int kRedrawMs = 1'000;

template <typename Value>
Value field(const Json& json, const char* name, Value missing = {}) {
    try {
        return json.value(name, missing);
    } catch (const Json::exception&) {  // it is something else
        return missing;
    }
}

// A name is the remote side's text.
std::string shown(const std::string& name) {
    std::string text;
    for (const char c : name)
        text += c >= ' ' && c <= '~' ? c : '?';
    return text;
}

std::string joined(const Json& json, const char* name) {
    std::string all;
    for (const std::string& word : field(json, name, std::vector<std::string>()))
        all += (all.empty() ? "" : ", ") + word;
    return all;
}

void show_device(const Json& device, std::ostream& out) {
    const int port = field(device, "port", -1);
    char line[128];
    std::snprintf(line, sizeof line, "%6u  %-12s  %4s  %-8s  ", field(device, "device", 0U),
                  field(device, "state", std::string()).c_str(),
                  port < 0 ? "-" : std::to_string(port).c_str(),
                  field(device, "usb", std::string("-")).c_str());
    std::string uses = joined(device, "nodes");
    if (uses.empty()) uses = joined(device, "drivers");
    out << line << shown(field(device, "title", std::string())) << (uses.empty() ? "" : ": ")
        << uses << '\n';
}

struct Sample {
    double sent = 0;  // bytes of PDUs since the device came
    double received = 0;
    double pdus = 0;
};

Sample sample_of(const Json& device) {
    const auto in = field(device, "from_remote", Json::object());
    const auto out = field(device, "to_remote", Json::object());
    return {field(out, "bytes", 0.0), field(in, "bytes", 0.0), field(out, "pdus", 0.0)};
}

// What has passed since `before`, in `seconds`; since the device came when that is 0.
void show_traffic(const Json& device, const Sample& before, double seconds, std::ostream& out) {
    const Sample now = sample_of(device);
    const double per = seconds > 0 ? seconds : 1;
    constexpr double kMega = 1e6;
    char line[160];
    std::snprintf(line, sizeof line, "%6u  %10.0f  %10.2f  %10.2f  %9u  %10.2f  %10.2f  ",
                  field(device, "device", 0U), (now.pdus - before.pdus) / per,
                  (now.sent - before.sent) / per / kMega,
                  (now.received - before.received) / per / kMega, field(device, "outstanding", 0U),
                  field(device, "oldest_ms", 0.0), field(device, "round_trip_ms", 0.0));
    out << line << shown(field(device, "title", std::string())) << '\n';
}

constexpr char kDevices[] = "DEVICE  STATE         PORT  USB       WHAT\n";
constexpr char kTotals[] =
    "DEVICE    COMMANDS     MB SENT     MB READ  UNDER WAY  OLDEST ms    TRIP ms  WHAT\n";
constexpr char kRates[] =
    "DEVICE  COMMANDS/s   MB/s SENT   MB/s READ  UNDER WAY  OLDEST ms    TRIP ms  WHAT\n";

// Asks once. False with an `error`.
bool ask_for(const Question& question, const std::string& command, int stop,
             const std::function<void(const Json&, std::string_view)>& on_line,
             std::string& error) {
    Json request{{"command", command}};
    if (command == "detach") request["device"] = question.device;
    if (!question.file.empty()) {
        // Where we are is nothing to the other process.
        request["file"] = std::filesystem::absolute(question.file).string();
    }
    return posix::Ask(
        question.control, request.dump(-1, ' ', false, Json::error_handler_t::replace), stop,
        command == "watch" ? -1 : posix::kAskPatienceMs,
        [&](std::string_view line) {
            const Json json = Json::parse(line, nullptr, /*allow_exceptions=*/false);
            if (json.is_object()) on_line(json, line);
        },
        error);
}

bool redraw(const Question& question, int stop, std::string& error) {
    std::map<unsigned, Sample> before;
    for (double seconds = 0;; seconds = kRedrawMs / 1000.0) {
        std::map<unsigned, Sample> now;
        std::ostringstream screen;
        if (::isatty(STDOUT_FILENO) == 1) screen << "\033[H\033[J";
        screen << (seconds > 0 ? kRates : kTotals);
        const auto on_device = [&](const Json& device, std::string_view) {
            const auto id = field(device, "device", 0U);
            show_traffic(device, before[id], seconds, screen);
            now[id] = sample_of(device);
        };
        if (!ask_for(question, "stats", stop, on_device, error)) return false;
        std::cout << screen.str() << std::flush;
        if (posix::WaitFor(-1, 0, stop, kRedrawMs) == posix::Wake::Stopped) return true;
        before = std::move(now);
    }
}

}  // namespace

int Ask(const Question& question, int stop) {
    std::string error;
    bool head = question.json;  // there is none
    const auto on_line = [&](const Json& json, std::string_view line) {
        const bool list = question.command == "list";
        if (!head && (list || question.command == "stats"))
            std::cout << (list ? kDevices : kTotals);
        head = true;
        if (question.json) {
            std::cout << line << '\n';
        } else if (list) {
            show_device(json, std::cout);
        } else if (question.command == "stats") {
            show_traffic(json, {}, 0, std::cout);
        } else {  // an event, or what a capture has
            std::cout << shown(field(json, "text", field(json, "capture", std::string()))) << '\n';
        }
        std::cout.flush();
    };
    const bool answered = question.live ? redraw(question, stop, error)
                                        : ask_for(question, question.command, stop, on_line, error);
    if (answered) return 0;
    std::cerr << "xj-usbip-host: " << error << '\n';
    return 1;
}

}  // namespace host
