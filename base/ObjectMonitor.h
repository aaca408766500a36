// Counts, per monitored class, the objects made and destroyed, and renders the counts as text.
//
// A class takes part with an OBJECT_MONITOR<T> as its first member and one static
// ADD_TO_MONITORING_LIST<T>, which enters it into the table while the library is loaded.
// No locks: counters change by atomic operations, the dumps read them one by one, so a dump taken
// while objects come and go may show an alive count that was never true.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

template <typename T>
class OBJECT_MONITOR {
  public:
    OBJECT_MONITOR() { ++_new; }
    ~OBJECT_MONITOR() { ++_delete; }
    OBJECT_MONITOR(const OBJECT_MONITOR&) = delete;
    OBJECT_MONITOR& operator=(const OBJECT_MONITOR&) = delete;

    static inline std::atomic<std::int64_t> _new{0};
    static inline std::atomic<std::int64_t> _delete{0};
};

class ICObjectMonitor {
  public:
    virtual long NewCount() const = 0;
    virtual long DeleteCount() const = 0;
    virtual ~ICObjectMonitor() = default;
};

struct MonitoringEntry {
    ICObjectMonitor* pMonitor;
    const char* szName;
};
inline constexpr std::int64_t kMonitoringTableSize = 1024;

MonitoringEntry* __MonitorintObjects__();  // the table's first entry
std::atomic<std::int64_t>&
__MonitoringObjectIndex__();  // registrations tried; may exceed the table

// A registration is never removed. `name` must live as long as the library.
template <typename T>
class ADD_TO_MONITORING_LIST : public ICObjectMonitor {
  public:
    explicit ADD_TO_MONITORING_LIST(const char* name) {
        const std::int64_t index = __MonitoringObjectIndex__()++;
        if (index >= kMonitoringTableSize) return;
        __MonitorintObjects__()[index].szName = name;
        __MonitorintObjects__()[index].pMonitor = this;
    }

    long NewCount() const override { return OBJECT_MONITOR<T>::_new; }
    long DeleteCount() const override { return OBJECT_MONITOR<T>::_delete; }
};

// Each replaces the contents of `out`.
void dump_monitoring_objects(std::string& out);   // a table with a header line
void dump_monitoring_objects2(std::string& out);  // "NAME_count: N" and "NAME_alive: N" lines
