// Slot numbers and field offsets of the module's inner objects, tried on real objects through
// their tables: code compiled against an earlier build of these headers must go on working.
#include <gtest/gtest.h>

#include <thread>

#include "Slots.h"
#include "base/BaseThread.h"
#include "base/MemAlloctor.h"
#include "client/USBIPClientLinux.h"
#include "plugin/USBIPClientPlugin.h"
#include "support/FakeController.h"
#include "support/FakeHost.h"
#include "support/Messages.h"

namespace {

void* Raw(void* object) {
    return object;
}

TEST(Tables, Buffer) {
    const CRefObj<IMemAlloctor> allocator(new CMemAlloctorEx<CMemBuffer>);
    const CRefObj<IBuffer> kept = allocator->GetFreeBuffer(64);
    void* buffer = Raw(kept.Get());
    EXPECT_EQ(Call<long>(buffer, 2), 2);
    EXPECT_EQ(Load<std::int64_t>(buffer, 24), 2) << "references";
    EXPECT_EQ(Load<std::int64_t>(buffer, 32), 1) << "holds";
    EXPECT_EQ(Call<long>(buffer, 3), 1);

    void* data = Load<void*>(buffer, 48);
    EXPECT_EQ(data, kept->GetPointer());
    EXPECT_EQ(Load<void*>(buffer, 40), allocator.Get());
    EXPECT_EQ(Call<void*>(buffer, 4), data);
    EXPECT_EQ(Call<unsigned long>(buffer, 6, 80UL), 64U);
    EXPECT_EQ(Call<unsigned long>(buffer, 6, 5UL), 5U);
    EXPECT_EQ(Load<std::uint64_t>(buffer, 56), 5U) << "bytes in use";
    EXPECT_EQ(Load<std::uint64_t>(buffer, 64), 64U) << "capacity";
    EXPECT_EQ(Call<unsigned long>(buffer, 5), 5U);
    EXPECT_EQ(Call<unsigned long>(buffer, 7), 64U);
    EXPECT_EQ(Call<unsigned long>(buffer, 8), 64U);
    EXPECT_EQ(Call<void*>(buffer, 9), data);
    EXPECT_EQ(Call<CRefObj<IMemAlloctor>>(buffer, 10).Get(), allocator.Get());
    data = Call<void*>(buffer, 11, 100UL);
    EXPECT_EQ(Load<std::uint64_t>(buffer, 64), 100U);
    EXPECT_EQ(Call<void*>(buffer, 12, Raw(&data), 7UL), data);
    EXPECT_EQ(Load<void*>(buffer, 48), &data);
    EXPECT_EQ(Load<std::uint64_t>(buffer, 64), 7U);
    Call<void*>(buffer, 12, data, 100UL);
    EXPECT_EQ(Call<void*>(buffer, 13, buffer), nullptr);
    EXPECT_EQ(Load<void*>(buffer, 8), buffer) << "user word";
    EXPECT_EQ(Call<void*>(buffer, 14), buffer);
}

TEST(Tables, Allocator) {
    const CRefObj<IMemAlloctor> kept(new CMemAlloctorEx<CMemBuffer>(32));
    void* allocator = Raw(kept.Get());
    EXPECT_EQ(Call<long>(allocator, 2), 2);
    EXPECT_EQ(Load<std::int64_t>(allocator, 16), 2) << "references";
    EXPECT_EQ(Call<long>(allocator, 3), 1);
    EXPECT_EQ(Load<std::uint64_t>(allocator, 32), 32U) << "largest buffer";
    EXPECT_EQ(Call<unsigned long>(allocator, 6), 32U);
    for (const int slot : {4, 8}) {
        const auto buffer = Call<CRefObj<IBuffer>>(allocator, slot, 40UL);
        ASSERT_TRUE(buffer) << "slot " << slot;
        EXPECT_EQ(buffer->GetBufferSize(), 32U);
        const void* data = Call<void*>(allocator, 7, Raw(buffer.Get()), 48UL);
        EXPECT_EQ(data, buffer->GetPointer());
        EXPECT_EQ(buffer->GetBufferSize(), 48U) << "slot 7 knows no largest buffer";
    }
    EXPECT_FALSE(Call<bool>(allocator, 5, Raw(nullptr)));
}

TEST(Tables, Lock) {
    CMutexLock kept;
    void* lock = Raw(static_cast<ILockItem*>(&kept));
    const auto taken = [&] {
        bool free = false;
        std::thread other([&] {
            auto* mutex = reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(lock) + kWord);
            free = pthread_mutex_trylock(mutex) == 0;
            if (free) pthread_mutex_unlock(mutex);
        });
        other.join();
        return !free;
    };
    EXPECT_FALSE(taken());
    EXPECT_EQ(Call<int>(lock, 0), 1);
    EXPECT_TRUE(taken());
    EXPECT_EQ(Call<int>(lock, 1), 1);
    EXPECT_FALSE(taken());
    void* disposable = Raw(static_cast<ILockItem*>(new CMutexLock));
    Call<void>(disposable, 3);  // deletes; the leak checker would tell
}

// Tells which of its operations was called last, and does nothing else.
class Thread : public CBaseThread {
  public:
    explicit Thread(std::string& last) : last_(last) {}
    ~Thread() override { last_ = "destructor"; }
    bool Run() override { return Called("Run"); }
    bool Stop() override { return Called("Stop"); }
    bool Stop(unsigned long) override { return Called("Stop(timeout)"); }
    bool Run_(bool) override { return Called("Run_"); }
    bool ThreadLoop() override { return Called("ThreadLoop"); }
    bool WaitForStop(unsigned long) override { return Called("WaitForStop"); }
    void OnExit() override { Called("OnExit"); }
    void OnBegin() override { Called("OnBegin"); }

  private:
    bool Called(const char* name) { return last_ = name, true; }
    std::string& last_;
};

TEST(Tables, Thread) {
    std::string last;
    void* thread = Raw(new Thread(last));
    const char* operations[] = {"Run",        "Stop",        "Stop(timeout)", "Run_",
                                "ThreadLoop", "WaitForStop", "OnExit",        "OnBegin"};
    int slot = 2;
    for (const char* operation : operations) {
        Call<void>(thread, slot++, 0UL);
        EXPECT_EQ(last, operation);
    }
    Call<void>(thread, 1);
    EXPECT_EQ(last, "destructor");
}

class Listener : public IClientUsbipListenter, protected CReference {
  public:
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void OnUsbipPacket(unsigned int devid, const char* data, unsigned long len) override {
        packet = std::to_string(devid) + std::string(data, len);
    }
    void OnUsbipDeviceError(unsigned int devid) override { ended = devid; }

    std::string packet;
    std::atomic<unsigned int> ended{0};
};

TEST(Tables, ListenerAndDeviceClient) {
    FakeController controller;
    const CRefObj<Listener> kept_listener(new Listener);
    auto* listener = static_cast<IClientUsbipListenter*>(kept_listener.Get());
    Call<void>(Raw(listener), 4, 7U, "abc", 2UL);
    EXPECT_EQ(kept_listener->packet, "7ab");

    const CRefObj<IUsbipClient> kept(new CUsbipClientLinux);
    void* client = Raw(kept.Get());
    EXPECT_EQ(Call<long>(client, 2), 2);
    EXPECT_EQ(Call<long>(client, 3), 1);
    Call<void>(client, 4, Raw(listener));
    Call<void>(client, 5, 7U);
    EXPECT_EQ(Call<unsigned int>(client, 6), 7U);
    const _USBIP_DEV info = DeviceInfo();
    Call<void>(client, 7, &info);
    const auto* copy = Call<const _USBIP_DEV*>(client, 8);
    EXPECT_NE(copy, &info);
    EXPECT_STREQ(copy->instanceid, info.instanceid);

    ASSERT_TRUE(Call<bool>(client, 9));
    const auto kernel = controller.WaitForAttach();
    ASSERT_TRUE(kernel);
    const std::string reply = UnlinkReply(1);
    EXPECT_TRUE(Call<bool>(client, 11, reply.data(), reply.size()));
    EXPECT_EQ(kernel->Receive(reply.size()), reply);
    EXPECT_TRUE(Call<bool>(client, 10));
    EXPECT_EQ(kept_listener->ended, 7U) << "slot 5 of the listener";
}

class PluginTable : public testing::Test {
  protected:
    PluginTable() {
        xjmod_get_entrypoint()->init(static_cast<IXJModRuntime*>(&runtime_));
        kept_ = new UsbipClientPlugin;
        plugin_ = Raw(kept_.Get());
        runtime_.Forget();
    }
    ~PluginTable() override {
        kept_ = nullptr;
        xjmod_get_entrypoint()->uninit();
    }

    FakeRuntime runtime_;
    CRefObj<FakeStream> stream_{new FakeStream};
    CRefObj<UsbipClientPlugin> kept_;
    void* plugin_ = nullptr;
};

TEST_F(PluginTable, Separation) {
    unsigned long stride = 0;
    const void* map = Call<const void*>(plugin_, 2, &stride);
    EXPECT_EQ(stride, 32U);
    for (int row = 0; row < 5; ++row) {
        const int at = row * static_cast<int>(stride);
        const int types[] = {1, 3, 4, 5, 0};
        EXPECT_EQ(Load<char>(map, at), row < 4 ? 0x0B : 0);
        EXPECT_EQ(Load<char>(map, at + 1), types[row]);
        EXPECT_EQ(Load<unsigned long>(map, at + 8), row < 4 ? 2U : 0U);
    }

    EXPECT_EQ(Call<long>(plugin_, 11, Raw(static_cast<IPluginStreamRaw*>(stream_.Get()))), 0);
    EXPECT_EQ(stream_->References(), 2);
    const std::string request = VersionRequest(0);
    const CRefObj<IMemAlloctor> allocator(new CMemAlloctorEx<CMemBuffer>);
    const CRefObj<IBuffer> message = allocator->GetFreeBuffer(request.size());
    message->SetSize(request.size());
    std::memcpy(message->GetPointer(), request.data(), request.size());
    const void* body = static_cast<char*>(message->GetPointer()) + sizeof(usbip_message_head);
    EXPECT_TRUE(Call<bool>(plugin_, 4, message->GetPointer(), request.size(), Raw(message.Get())));
    EXPECT_EQ(stream_->WaitForMessage().size(), sizeof(usbip_version_rsp));
    EXPECT_TRUE(Call<bool>(plugin_, 3, 0, body, 4UL, Raw(message.Get())));
    EXPECT_EQ(stream_->WaitForMessage().size(), sizeof(usbip_version_rsp));
}

TEST_F(PluginTable, Life) {
    EXPECT_EQ(Call<long>(plugin_, 5), 2);
    EXPECT_EQ(Call<long>(plugin_, 6), 1);
    Call<void>(plugin_, 7, Raw(nullptr));
    void* out = this;
    EXPECT_EQ(Call<long>(plugin_, 8, "name", &out), 0);
    EXPECT_EQ(out, this);
    EXPECT_EQ(Call<long>(plugin_, 9, "name", Raw(nullptr)), 0);
    EXPECT_EQ(Call<void*>(plugin_, 10, "name"), nullptr);
    EXPECT_EQ(Call<long>(plugin_, 14, L"name"), 0);
    EXPECT_EQ(runtime_.Lines(), std::vector<LogLine>{});

    Call<long>(plugin_, 11, Raw(static_cast<IPluginStreamRaw*>(stream_.Get())));
    stream_->End();
    EXPECT_EQ(Call<long>(plugin_, 12), 1);
    EXPECT_EQ(runtime_.Count({1, "[usbipclient] Run return"}), 1);
    Call<void>(plugin_, 15, 7U, "abc", 3UL);
    EXPECT_EQ(stream_->WaitForMessage(), ForwardMessage(7, "abc"));
    Call<void>(plugin_, 16, 7U);
    EXPECT_EQ(stream_->WaitForMessage(), UnmapMessage(7));
    EXPECT_EQ(Call<long>(plugin_, 13), 0);
    EXPECT_EQ(runtime_.Count({8, "[usbipclient] ExitInstance finish"}), 1);
}

}  // namespace
