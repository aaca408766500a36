#include "fakes/FakeHost.h"

#include "fakes/Messages.h"

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << line.level << " \"" << line.text << '"';
}

// --- FakeRuntime ---

void FakeRuntime::Log(int level, const char* text) {
    Under(mutex_, [&] { lines_.push_back({level, text}); });
    if (on_log) on_log();
}

std::vector<LogLine> FakeRuntime::Lines(int level) const {
    std::vector<LogLine> selected = Lines();
    std::erase_if(selected, [&](const LogLine& line) { return line.level != level; });
    return selected;
}

// --- FakePropertySet ---

IXJModData* FakePropertySet::GetProperty(const char* key) {
    const auto found = values_.find(key);
    return found == values_.end() ? nullptr : found->second.Get();
}

// --- FakeStream ---

int FakeStream::Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) {
    std::unique_lock lock(mutex_);
    read_requests_.push_back(len);
    hungry_ = true;
    changed_.notify_all();
    changed_.wait(lock, [&] { return !inbound_.empty() || ended_; });
    hungry_ = false;
    if (inbound_.empty() || reserved != 0) return 1;
    *got = std::min({len, read_block.load(), static_cast<unsigned long>(inbound_.size())});
    const auto end = inbound_.begin() + static_cast<long>(*got);
    std::copy(inbound_.begin(), end, static_cast<char*>(buf));
    inbound_.erase(inbound_.begin(), end);
    return 0;
}

int FakeStream::Write(const void* data, unsigned long len, unsigned long* written,
                      unsigned long reserved) {
    if (writing_.exchange(true)) overlapped = true;
    std::this_thread::yield();  // a second writer, if there is one, meets `writing_` set
    writing_ = false;
    if (reserved != 0 || (failing_writes > 0 && failing_writes-- > 0)) return 1;
    *written = std::min(len, write_block.load());
    Change([&] { outbound_.append(static_cast<const char*>(data), *written); });
    return 0;
}

bool FakeStream::WaitUntilDrained() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return inbound_.empty() && hungry_; });
}

std::string FakeStream::WaitForMessage() {
    std::unique_lock lock(mutex_);
    const auto size = [&] {
        return sizeof(_MESSAGE_HEADER) + Parse<_MESSAGE_HEADER>(outbound_).length;
    };
    if (!changed_.wait_for(lock, kPatience, [&] { return outbound_.size() >= size(); })) return {};
    std::string message = outbound_.substr(0, size());
    outbound_.erase(0, message.size());
    return message;
}

// --- FakeHost ---

FakeHost::FakeHost(xjmod_entrypoint* module) : module_(module) {
    module_->init(static_cast<IXJModRuntime*>(&runtime));
    const CRefObj<FakePropertySet> props(new FakePropertySet);
    props->Set(kPropertyInterfaceName, std::string_view(kInterfaceClientUsbipPlugin));
    props->Set(kPropertyVersion, static_cast<std::int64_t>(kModuleVersion));
    void* created = nullptr;
    Require(module_->create(static_cast<IXJModPropertySet*>(props.Get()), &created), "a plug-in");
    plugin = static_cast<IClientUsbipPlugin*>(created);
    plugin->Release();  // `plugin` holds the one reference now
}

FakeHost::~FakeHost() {
    DropPlugin();
    module_->uninit();
}

void FakeHost::Start() {
    plugin->InitInstance(stream.Get());
    run_thread_ = std::thread([this] { plugin->Run(); });
}

void FakeHost::EndRun() {
    stream->End();
    if (run_thread_.joinable()) run_thread_.join();
}

void FakeHost::RunAgain() {
    EndRun();
    stream->End(false);
    run_thread_ = std::thread([this] { plugin->Run(); });
}

void FakeHost::DropPlugin() {
    EndRun();
    if (plugin) plugin->ExitInstance();
    plugin = nullptr;
}
