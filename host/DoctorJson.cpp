#include <cstring>
#include <nlohmann/json.hpp>

#include "host/Doctor.h"

namespace host {

std::string ToJson(const Examination& found) {
    using Json = nlohmann::ordered_json;
    Json json{{"can_attach",
               {{"high_speed", found.CanAttach(&PortCount::high_speed)},
                {"super_speed", found.CanAttach(&PortCount::super_speed)}}},
              {"driver", {{"folder", found.driver}, {"loaded", found.loaded}}}};
    if (found.loaded) {
        json["permission"] = {{"user", found.user}, {"attach", found.attach_error == 0}};
        if (found.attach_error != 0) {
            json["permission"]["error"] = std::strerror(found.attach_error);
        }
        const auto hub = [](const HubPorts& ports) {
            return Json{{"free", ports.free}, {"used", ports.used}};
        };
        if (found.ports) {
            json["ports"] = {{"high_speed", hub(found.ports->high_speed)},
                             {"super_speed", hub(found.ports->super_speed)},
                             {"malformed", found.ports->malformed}};
        } else {
            json["ports"] = nullptr;
        }
        json["records"] = {{"folder", found.records}, {"writable", found.records_writable}};
    }
    // Names of users and folders may be in any encoding.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace host
