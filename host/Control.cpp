#include "host/Control.h"

#include <sys/eventfd.h>

#include <nlohmann/json.hpp>
#include <utility>

namespace host {
namespace {

using Json = nlohmann::ordered_json;

// Names of devices may be in any encoding.
std::string line_of(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json identity(const DeviceStatus& status) {
    char vendor[5];
    char product[5];
    std::snprintf(vendor, sizeof vendor, "%04x", status.device.vendor);
    std::snprintf(product, sizeof product, "%04x", status.device.product);
    return {{"device", status.device.id},
            {"title", Describe(status.device)},
            {"name", status.device.instance},
            {"vendor", vendor},
            {"product", product},
            {"speed", xj_usbip::SpeedName(status.device.speed)},
            {"state", status.state}};
}

Json describe(const DeviceStatus& status) {
    Json json = identity(status);
    json["seconds"] = std::chrono::duration<double>(status.age).count();
    if (status.port >= 0) json["port"] = status.port;
    if (!status.local.empty()) json["usb"] = status.local;
    json["product_name"] = status.found.product;
    json["drivers"] = status.found.drivers;
    json["nodes"] = status.found.nodes;
    return json;
}

Json count(const xj_usbip::Passed& passed) {
    return {{"pdus", passed.pdus},
            {"bytes", passed.bytes},
            {"on_stream", passed.on_stream},
            {"compressed", passed.compressed}};
}

Json measure(const DeviceStatus& status) {
    const auto milliseconds = [](std::chrono::nanoseconds time) {
        return std::chrono::duration<double, std::milli>(time).count();
    };
    Json json = identity(status);
    json["to_remote"] = count(status.counts.to_remote);
    json["from_remote"] = count(status.counts.from_remote);
    json["outstanding"] = status.counts.outstanding;
    json["oldest_ms"] = milliseconds(status.counts.oldest);
    json["round_trip_ms"] = milliseconds(status.counts.round_trip);
    return json;
}

}  // namespace

std::unique_ptr<Control> Control::Open(const std::string& path, std::string& error) {
    std::unique_ptr<Control> control(new Control);
    control->server_ = posix::ControlServer::Open(path, error);
    if (!control->server_) return nullptr;
    return control;
}

void Control::Start(Devices& devices) {
    devices_ = &devices;
    thread_ = std::thread([this] { Run(); });
}

Control::~Control() {
    {
        const std::lock_guard lock(mutex_);
        over_ = true;
    }
    ::eventfd_write(wake_.Get(), 1);
    if (thread_.joinable()) thread_.join();
}

void Control::Publish(const DeviceEvent& event) {
    constexpr std::size_t kMostEvents = 1000;  // nobody watches so slowly for long
    const std::string line =
        line_of({{"event", KindName(event.kind)}, {"device", event.device}, {"text", event.text}});
    {
        const std::lock_guard lock(mutex_);
        if (events_.size() < kMostEvents) events_.push_back(line);
    }
    ::eventfd_write(wake_.Get(), 1);
}

void Control::PassEvents() {
    std::vector<std::string> events;
    {
        const std::lock_guard lock(mutex_);
        events.swap(events_);
    }
    for (const std::string& event : events)
        std::erase_if(watchers_, [&](Client one) { return !server_->Answer(one, event); });
}

void Control::Run() {
    std::vector<pollfd> fds;
    for (;;) {
        fds.assign({{wake_.Get(), POLLIN, 0}});
        server_->Watch(fds);
        posix::Retry([&] { return ::poll(fds.data(), fds.size(), -1); });
        {
            const std::lock_guard lock(mutex_);
            if (over_) return;
        }
        eventfd_t taken = 0;
        if (fds.front().revents != 0) ::eventfd_read(wake_.Get(), &taken);
        PassEvents();
        server_->OnEvents(std::span(fds).subspan(1), [this](Client client, std::string_view line) {
            OnRequest(client, line);
        });
    }
}

void Control::Finish(Client client, const std::string& error) {
    server_->Answer(client, line_of(error.empty() ? Json{{"done", true}} : Json{{"error", error}}));
}

void Control::OnRequest(Client client, std::string_view request) {
    const Json asked = Json::parse(request, nullptr, /*allow_exceptions=*/false);
    const auto field = [&asked](const char* name, auto missing) {
        const auto found = asked.is_object() ? asked.find(name) : asked.end();
        if (found == asked.end()) return missing;
        try {
            return found->template get<decltype(missing)>();
        } catch (const Json::exception&) {  // it is something else
            return missing;
        }
    };
    const std::string command = field("command", std::string());
    std::string error;
    if (command == "watch") {
        watchers_.insert(client);
        return;
    }
    if (command == "list" || command == "stats") {
        for (const DeviceStatus& status : devices_->List())
            server_->Answer(client,
                            line_of(command == "list" ? describe(status) : measure(status)));
    } else if (command == "detach") {
        devices_->Detach(field("device", std::uint32_t{0}), error);
    } else if (command == "capture start") {
        const auto order = ParseCapture(field("file", std::string()), error);
        if (order) devices_->StartCapture(*order, error);
    } else if (command == "capture stop") {
        const std::string captured = devices_->StopCapture();
        if (captured.empty()) error = "no capture is running";
        if (error.empty()) server_->Answer(client, line_of({{"capture", captured}}));
    } else {
        error =
            "no such command; there are: list, stats, watch, detach, capture start, capture stop";
    }
    Finish(client, error);
}

}  // namespace host
