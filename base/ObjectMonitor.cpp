#include "base/ObjectMonitor.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace {

template <typename Visit>
void for_each_monitored(Visit visit) {
    const std::int64_t registered = __MonitoringObjectIndex__();
    const std::int64_t end = std::min(registered, kMonitoringTableSize);
    for (std::int64_t i = 0; i < end; ++i) {
        const MonitoringEntry& entry = __MonitorintObjects__()[i];
        if (entry.pMonitor == nullptr || entry.szName == nullptr) continue;
        const long made = entry.pMonitor->NewCount();
        const long destroyed = entry.pMonitor->DeleteCount();
        visit(i, entry.szName, made, destroyed);
    }
}

}  // namespace

MonitoringEntry* __MonitorintObjects__() {
    static MonitoringEntry MonitorintObjects[kMonitoringTableSize];
    return MonitorintObjects;
}

std::atomic<std::int64_t>& __MonitoringObjectIndex__() {
    static std::atomic<std::int64_t> MonitoringObjectIndex{0};
    return MonitoringObjectIndex;
}

void dump_monitoring_objects(std::string& out) {
    std::ostringstream text;
    text << " id     alive|     new|  delete| name\r\n";
    for_each_monitored([&](std::int64_t index, const char* name, long made, long destroyed) {
        text << std::setw(3) << index << (made > destroyed ? " !" : "  ") << std::setw(8)
             << made - destroyed << '|' << std::setw(8) << made << '|' << std::setw(8) << destroyed
             << "| " << name << "\r\n";
    });
    out = text.str();
}

void dump_monitoring_objects2(std::string& out) {
    std::ostringstream text;
    for_each_monitored([&](std::int64_t, const char* name, long made, long destroyed) {
        text << name << "_count: " << made << "\r\n"
             << name << "_alive: " << made - destroyed << "\r\n";
    });
    out = text.str();
}
