// The host stream into the reading loop, with device 1 mapped. The first byte is the most bytes
// that one Read returns (0: no limit), the rest is the stream.
#include <string>

#include "base/MemAlloctor.h"
#include "fakes/FakeController.h"
#include "fakes/FakeHost.h"
#include "fakes/Messages.h"
#include "fuzz/Target.h"
#include "plugin/USBIPClientPlugin.h"

namespace {

// Unmaps whatever ids were mapped.
std::string unmaps(const FakeRuntime& log) {
    std::string messages;
    int devid = 0;
    for (const LogLine& line : log.Lines(1))
        if (std::sscanf(line.text.c_str(), "[usbipclient] map device %d,", &devid) == 1)
            messages += UnmapMessage(static_cast<std::uint32_t>(devid));
    return messages;
}

// Read by the target's thread only; what is written is dropped.
class Stream : public IPluginStreamRaw, protected CReference {
  public:
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void Reserved1() override {}
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long) override {
        if (bytes.empty()) return 1;
        *got = std::min(len, bytes.size());
        if (most != 0) *got = std::min(*got, most);
        bytes.copy(static_cast<char*>(buf), *got);
        bytes.remove_prefix(*got);
        return 0;
    }
    int Write(const void*, unsigned long len, unsigned long* written, unsigned long) override {
        *written = len;
        return 0;
    }

    std::string_view bytes;
    unsigned long most = 0;
};

// No memory for messages far beyond an input: a sanitizer takes seconds to mark 4 GiB as freed.
class Allocator : public CMemAlloctorEx<CMemBuffer> {
  public:
    void* Realloc(IBuffer* buffer, unsigned long size) override {
        constexpr unsigned long kMostRoom = 1UL << 20;
        return size <= kMostRoom ? CMemAlloctorEx::Realloc(buffer, size) : nullptr;
    }
};

// One plug-in for all inputs: opening its send queue and ending its send thread take their time.
struct PlugIn {
    PlugIn() {
        xjmod_get_entrypoint()->init(static_cast<IXJModRuntime*>(&runtime));
        plugin->InitInstance(stream.Get());
        plugin->Run();  // returns at once, since the stream is empty, and leaves the send thread
    }
    void Receive(std::string_view bytes) {
        stream->bytes = bytes;
        SeparationMessageLoop<UsbipClientPlugin>(stream.Get(), allocator.Get(), plugin.Get());
    }

    FakeRuntime runtime;
    CRefObj<Stream> stream{new Stream};
    CRefObj<IMemAlloctor> allocator{new Allocator};
    CRefObj<UsbipClientPlugin> plugin{new UsbipClientPlugin};
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static PlugIn host;
    const NothingLeftBehind check;
    Input input(data, size);
    FakeController controller(1, 8);
    controller.status_pause = {};
    host.runtime.Forget();
    host.stream->most = 0;
    host.Receive(MapMessage(1));
    const auto kernel = controller.WaitForAttach();
    Require(kernel != nullptr, "the device is attached");

    host.stream->most = input.Number<std::uint8_t>();
    host.Receive(input.Rest());

    host.Receive(unmaps(host.runtime));
    return 0;
}
