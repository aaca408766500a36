// The host process as the module sees it: a runtime that records log lines, a property set, and a
// stream whose far end is the test.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "module/abi/PluginAbi.h"
#include "module/abi/XJModData.h"
#include "support/Patience.h"

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
    bool GetConfig(bool, const char*, const char*, IXJModData**, const char*) override;
    bool SaveConfig(bool, const char*, const char*, const char*) override { return true; }
    void* GetEnv(const char*) override { return this; }

    // Waits for the nth line with this level and text.
    bool WaitForLine(const LogLine& line, int times = 1);
    int Count(const LogLine& line) const;
    std::vector<LogLine> Lines() const;
    std::vector<LogLine> Lines(int level) const;
    void Forget();

    // Called for every line, on the logging thread. Set before the module logs.
    std::function<void()> on_log;

  private:
    mutable std::mutex mutex_;
    std::condition_variable logged_;
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
    void Reserved1() override;
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) override;
    int Write(const void* data, unsigned long len, unsigned long* written,
              unsigned long reserved) override;

    // The remote side's part.
    void Feed(const std::string& bytes);
    void End();                    // Read fails once everything fed has been read
    void Resume();                 // Read works again
    bool Drained() const;          // everything fed was read and Read is called again
    bool WaitUntilDrained();       // until everything fed was read and Read is called again
    std::string WaitForMessage();  // the next whole message from the module; empty: none came
    std::string Written() const;   // bytes from the module not yet taken as messages

    // Knobs.
    void SetReadBlock(unsigned long size);   // at most so many bytes in one Read
    void SetWriteBlock(unsigned long size);  // at most so many in one Write; 0: success without
    void FailWrites(int count);              // so many Writes from now on fail

    // Observations.
    std::vector<unsigned long> ReadRequests() const;  // the `len` of every Read so far
    int WriteCalls() const;
    bool WritesOverlapped() const;
    long References() { return AddRef(), Release(); }

  private:
    static constexpr unsigned long kUnlimited = ~0UL;

    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::string inbound_;
    std::string outbound_;
    bool ended_ = false;
    bool hungry_ = false;  // a Read is waiting
    bool writing_ = false;
    bool overlapped_ = false;
    unsigned long read_block_ = kUnlimited;
    unsigned long write_block_ = kUnlimited;
    int failing_writes_ = 0;
    int write_calls_ = 0;
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

    // One more plug-in of the same module.
    static CRefObj<IClientUsbipPlugin> Create(xjmod_entrypoint* module);

    // Several messages, one after the other.
    void Receive(const std::string& messages) { stream->Feed(messages); }

    FakeRuntime runtime;
    CRefObj<FakeStream> stream{new FakeStream};
    CRefObj<IClientUsbipPlugin> plugin;

  private:
    xjmod_entrypoint* module_;
    std::thread run_thread_;
};
