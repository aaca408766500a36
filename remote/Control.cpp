#include "remote/Control.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "remote/Offers.h"
#include "remote/Server.h"

namespace remote {
namespace {

using Json = nlohmann::ordered_json;

// Names of devices may be in any encoding.
std::string line_of(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json describe(const Slot& slot, const char* state) {
    return {{"device", slot.number},
            {"state", state},
            {"name", slot.device->Info().instance},
            {"text", Server::Describe(slot, state)}};
}

Json measure(const Slot& slot) {
    const Counters& counters = slot.counters;
    return {{"device", slot.number},
            {"urbs_in", counters.urbs_in},
            {"urbs_out", counters.urbs_out},
            {"bytes_in", counters.bytes_in},
            {"bytes_out", counters.bytes_out},
            {"unlinks", counters.unlinks},
            {"stalls", counters.stalls},
            {"compressed", counters.compressed},
            {"plain", counters.plain},
            {"text", "device " + std::to_string(slot.number) + ": " + counters.Text()}};
}

}  // namespace

std::unique_ptr<Control> Control::Open(const std::string& path, bool wait, std::string& error) {
    std::unique_ptr<Control> control(new Control);
    control->server_ = posix::ControlServer::Open(path, error);
    control->wait_ = wait;
    if (!control->server_) return nullptr;
    return control;
}

void Control::OnEvents(std::span<const pollfd> fds, Server& devices) {
    server_->OnEvents(fds, [&](posix::ControlServer::Client client, std::string_view request) {
        OnRequest(client, request, devices);
    });
}

// Returns an error text.
std::string Control::Add(const std::string& disk, const std::string& usbip, Server& devices) const {
    std::string error;
    std::unique_ptr<Device> device;
    if (!disk.empty()) {
        const auto option = ParseDisk(disk, error);
        if (option) device = MakeDisk(*option, devices.NextNumber(), error);
    } else {
        const auto option = ParseUsbip(usbip, error);
        if (option) device = MakeImportNow(*option, wait_, error);
    }
    if (device) devices.Add(std::move(device));
    return error;
}

void Control::OnRequest(posix::ControlServer::Client client, std::string_view request,
                        Server& devices) {
    const Json asked = Json::parse(request, nullptr, /*allow_exceptions=*/false);
    const auto field = [&asked](const char* name, auto missing) {
        try {
            return asked.is_object() ? asked.value(name, missing) : missing;
        } catch (const Json::exception&) {  // it is something else
            return missing;
        }
    };
    const std::string command = field("command", std::string());
    const auto number = field("device", std::uint32_t{0});
    std::string error;
    if (command == "list" || command == "stats") {
        for (const Slot& slot : devices.Slots())
            server_->Answer(client, line_of(command == "list" ? describe(slot, devices.State(slot))
                                                              : measure(slot)));
    } else if (command == "plug" || command == "unplug") {
        error = devices.Plug(number, command == "plug");
    } else if (command == "add") {
        error = Add(field("disk", std::string()), field("usbip", std::string()), devices);
    } else if (command == "remove") {
        error = devices.Remove(number);
    } else if (command == "quit") {
        devices.Quit();
    } else {
        error = "no such command; there are: list, stats, plug, unplug, add, remove, quit";
    }
    server_->Answer(client, line_of(error.empty() ? Json{{"done", true}} : Json{{"error", error}}));
}

}  // namespace remote
