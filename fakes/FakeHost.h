// The host process as the module sees it: a runtime that records log lines, a property set, and a
// stream whose far end is the test.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "fakes/Patience.h"
#include "xj-client-usbip/PluginAbi.h"
#include "xj-client-usbip/XJModData.h"

struct LogLine {
    int level;
    std::string text;
    bool operator==(const LogLine&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

// All operations may be called from any thread.
class FakeRuntime : public IXJModRuntime {
  public:
    void Log(int level, const char* text) override;
    // True for these arguments.
    bool GetConfig(bool, const char* b, const char* c, IXJModData**, const char* e) override {
        return b + std::string(c) + e == "bce";
    }
    bool SaveConfig(bool, const char* b, const char* c, const char* d) override {
        return b + std::string(c) + d == "bcd";
    }
    void* GetEnv(const char*) override { return this; }

    // Waits for the nth line with this level and text.
    bool WaitForLine(const LogLine& line, int times = 1) const {
        return Eventually([&] { return Count(line) >= times; });
    }
    long Count(const LogLine& line) const { return std::ranges::count(Lines(), line); }
    std::vector<LogLine> Lines() const {
        return Under(mutex_, [&] { return lines_; });
    }
    std::vector<LogLine> Lines(int level) const;
    void Forget() {
        Under(mutex_, [&] { lines_.clear(); });
    }

    // Called for every line, on the logging thread. Set before the module logs.
    std::function<void()> on_log;

  private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;  // guarded by mutex_
};

class FakePropertySet : public IXJModPropertySet, protected CReference {
  public:
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    IXJModData* GetProperty(const char* key) override;

    template <typename Value>
    void Set(const char* key, Value value) {
        values_[key] = new CXJModData(value);
    }

  private:
    std::map<std::string, CRefObj<CXJModData>> values_;
};

// All operations may be called from any thread.
class FakeStream : public IPluginStreamRaw, protected CReference {
  public:
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void Reserved1() override { std::abort(); }  // the module must never call it
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) override;
    int Write(const void* data, unsigned long len, unsigned long* written,
              unsigned long reserved) override;

    // The remote side's part.
    void Feed(const std::string& bytes) {
        Change([&] { inbound_.insert(inbound_.end(), bytes.begin(), bytes.end()); });
    }
    // Read fails once everything fed has been read, until this is taken back.
    void End(bool ended = true) {
        Change([&] { ended_ = ended; });
    }
    // Everything fed was read and Read is called again.
    bool Drained() const {
        return Under(mutex_, [&] { return inbound_.empty() && hungry_; });
    }
    bool WaitUntilDrained();
    std::string WaitForMessage();  // the next whole message from the module; empty: none came
    // Bytes from the module not yet taken as messages.
    std::string Written() const {
        return Under(mutex_, [&] { return outbound_; });
    }

    std::atomic<unsigned long> read_block{~0UL};   // at most so many bytes in one Read
    std::atomic<unsigned long> write_block{~0UL};  // and in one Write; 0: success without
    std::atomic<int> failing_writes{0};            // so many Writes from now on fail

    // Observations.
    // The `len` of every Read so far.
    std::vector<unsigned long> ReadRequests() const {
        return Under(mutex_, [&] { return read_requests_; });
    }
    std::atomic<bool> overlapped{false};  // two Writes at a time
    long References() { return AddRef(), Release(); }

  private:
    template <typename Operation>
    void Change(Operation operation) {
        Under(mutex_, operation);
        changed_.notify_all();
    }

    std::atomic<bool> writing_{false};
    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::deque<char> inbound_;
    std::string outbound_;
    bool ended_ = false;
    bool hungry_ = false;  // a Read is waiting
    std::vector<unsigned long> read_requests_;
};

// A host that loaded the module: runtime set, plug-in created, and once started, Run on a thread.
// Tears everything down in the order that hosts keep.
class FakeHost {
  public:
    explicit FakeHost(xjmod_entrypoint* module = xjmod_get_entrypoint());
    ~FakeHost();

    void Start();       // InitInstance with `stream`, then Run on a thread of its own
    void EndRun();      // ends the stream and waits for Run
    void RunAgain();    // EndRun, then Run with the same stream, without ExitInstance
    void DropPlugin();  // EndRun, ExitInstance, Release

    // Several messages, one after the other.
    void Receive(const std::string& messages) { stream->Feed(messages); }

    FakeRuntime runtime;
    CRefObj<FakeStream> stream{new FakeStream};
    CRefObj<IClientUsbipPlugin> plugin;

  private:
    xjmod_entrypoint* module_;
    std::thread run_thread_;
};
