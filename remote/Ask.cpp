#include "remote/Ask.h"

#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "posix/Control.h"
#include "posix/Socket.h"
#include "remote/Options.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

using Json = nlohmann::json;

// The server's name becomes an address here: the other process has more to do than to wait for a
// resolver. Nothing with an `error`.
std::optional<std::string> with_address(const std::string& text, int stop, std::string& error) {
    const auto option = ParseUsbip(text, error);
    if (!option) return std::nullopt;
    const auto places = posix::Resolve(option->server, stop, error);
    if (places.empty()) return std::nullopt;
    return posix::Describe(places.front().ToAddress()) + '/' + option->busid;
}

std::optional<Json> request_for(const Question& question, int stop, std::string& error) {
    Json request{{"command", question.command}};
    if (question.device != 0) request["device"] = question.device;
    if (!question.disk.empty()) {
        // Where we are is nothing to the other process.
        request["disk"] = std::filesystem::absolute(question.disk).string();
    }
    if (!question.usbip.empty()) {
        const auto usbip = with_address(question.usbip, stop, error);
        if (!usbip) return std::nullopt;
        request["usbip"] = *usbip;
    }
    return request;
}

}  // namespace

int Ask(const Question& question, int stop) {
    std::string error;
    const auto request = request_for(question, stop, error);
    const auto show = [&](std::string_view line) {
        const Json json = Json::parse(line, nullptr, /*allow_exceptions=*/false);
        const auto text = json.is_object() ? json.find("text") : json.end();
        const bool told = text != json.end() && text->is_string() && !question.json;
        std::cout << (told ? text->get<std::string>() : std::string(line)) << std::endl;
    };
    if (request &&
        posix::Ask(question.control, request->dump(-1, ' ', false, Json::error_handler_t::replace),
                   stop, posix::kAskPatienceMs, show, error)) {
        return EXIT_SUCCESS;
    }
    Log("%s", error.c_str());
    return EXIT_FAILURE;
}

}  // namespace remote
