// Slot numbers of the module's inner objects: code compiled against an earlier build of these
// headers must go on working.
#include <gtest/gtest.h>

#include "Slots.h"
#include "base/BaseThread.h"
#include "base/MemAlloctor.h"
#include "client/IUsbipClient.h"
#include "plugin/USBIPClientPlugin.h"

namespace {

// The operation that was called last. The classes below do nothing but tell.
std::string last;

bool Called(const char* operation) {
    return last = operation, true;
}

// Calls slot after slot, from the third on (the first two destroy), and destroys the object.
void ExpectSlots(void* object, std::initializer_list<const char*> operations) {
    int slot = 2;
    for (const char* operation : operations) {
        Call<void>(object, slot++, 0UL);
        EXPECT_EQ(last, operation);
    }
    Call<void>(object, 1);
    EXPECT_EQ(last, "destructor");
}

struct Thread : CBaseThread {
    ~Thread() override { Called("destructor"); }
    bool Run() override { return Called("Run"); }
    bool Stop() override { return Called("Stop"); }
    bool Stop(unsigned long) override { return Called("Stop(timeout)"); }
    bool Run_(bool) override { return Called("Run_"); }
    bool ThreadLoop() override { return Called("ThreadLoop"); }
    bool WaitForStop(unsigned long) override { return Called("WaitForStop"); }
    void OnExit() override { Called("OnExit"); }
    void OnBegin() override { Called("OnBegin"); }
};

struct Client : IUsbipClient {
    ~Client() override { Called("destructor"); }
    long AddRef() override { return Called("AddRef"); }
    long Release() override { return Called("Release"); }
    void SetListener(IClientUsbipListenter*) override { Called("SetListener"); }
    void SetDevId(unsigned int) override { Called("SetDevId"); }
    unsigned int GetDevId() override { return Called("GetDevId"); }
    void SetDevInfo(const _USBIP_DEV&) override { Called("SetDevInfo"); }
    const _USBIP_DEV* GetDevInfo() override { return Called("GetDevInfo"), nullptr; }
    bool Run() override { return Called("Run"); }
    bool Stop() override { return Called("Stop"); }
    bool Forward(const char*, unsigned long) override { return Called("Forward"); }
};

struct Plugin : UsbipClientPlugin {
    ~Plugin() override { Called("destructor"); }
    const _MESSAGE_MAP_ENTRY* GetSeparationMessageMap(unsigned long&) const override {
        return Called("GetSeparationMessageMap"), nullptr;
    }
    bool OnSeparationMessage(int, const void*, unsigned long, IBuffer*) override {
        return Called("OnSeparationMessage");
    }
    bool SeparationMessage(const void*, unsigned long, IBuffer*) override {
        return Called("SeparationMessage");
    }
    long AddRef() override { return Called("AddRef"); }
    long Release() override { return Called("Release"); }
    void SetListener(IClientUsbipListenter*) override { Called("SetListener"); }
    long GetInterface(const char*, void**) override { return Called("GetInterface"); }
    long SetProperty(const char*, IXJModData*) override { return Called("SetProperty"); }
    IXJModData* GetProperty(const char*) override { return Called("GetProperty"), nullptr; }
    long InitInstance(IPluginStreamRaw*) override { return Called("InitInstance"); }
    long Run() override { return Called("Run"); }
    long ExitInstance() override { return Called("ExitInstance"); }
    long Load(const wchar_t*) override { return Called("Load"); }
    void OnUsbipPacket(unsigned int, const char*, unsigned long) override {
        Called("OnUsbipPacket");
    }
    void OnUsbipDeviceError(unsigned int) override { Called("OnUsbipDeviceError"); }
};

struct LockItem : ILockItem {
    ~LockItem() override { Called("destructor"); }
    int Lock() override { return Called("Lock"); }
    int Unlock() override { return Called("Unlock"); }
};

TEST(Tables, Orders) {
    ExpectSlots(new Thread, {"Run", "Stop", "Stop(timeout)", "Run_", "ThreadLoop", "WaitForStop",
                             "OnExit", "OnBegin"});
    ExpectSlots(new Client, {"AddRef", "Release", "SetListener", "SetDevId", "GetDevId",
                             "SetDevInfo", "GetDevInfo", "Run", "Stop", "Forward"});
    ExpectSlots(new Plugin, {"GetSeparationMessageMap", "OnSeparationMessage", "SeparationMessage",
                             "AddRef", "Release", "SetListener", "GetInterface", "SetProperty",
                             "GetProperty", "InitInstance", "Run", "ExitInstance", "Load",
                             "OnUsbipPacket", "OnUsbipDeviceError"});
}

TEST(Tables, Lock) {
    void* lock = new LockItem;
    const char* const operations[] = {"Lock", "Unlock"};
    for (int slot : {0, 1}) {
        Call<int>(lock, slot);
        EXPECT_EQ(last, operations[slot]);
    }
    Call<void>(lock, 3);
    EXPECT_EQ(last, "destructor");
}

TEST(Tables, Buffer) {
    const CRefObj<IMemAlloctor> allocator(new CMemAlloctorEx<CMemBuffer>);
    const CRefObj<IBuffer> kept = allocator->GetFreeBuffer(64);
    void *buffer = kept.Get(), *data = kept->GetPointer();
    EXPECT_EQ(Call<long>(buffer, 2), 2);
    EXPECT_EQ(Call<long>(buffer, 3), 1);
    EXPECT_EQ(Call<void*>(buffer, 4), data);
    EXPECT_EQ(Call<unsigned long>(buffer, 6, 5UL), 5U);
    EXPECT_EQ(Call<unsigned long>(buffer, 5), 5U);
    EXPECT_EQ(Call<unsigned long>(buffer, 7), 64U);
    EXPECT_EQ(Call<unsigned long>(buffer, 8), 64U);
    EXPECT_EQ(Call<void*>(buffer, 9), data);
    EXPECT_EQ(Call<CRefObj<IMemAlloctor>>(buffer, 10).Get(), allocator.Get());
    data = Call<void*>(buffer, 11, 100UL);
    EXPECT_EQ(Call<void*>(buffer, 12, buffer, 7UL), data);
    EXPECT_EQ(Call<void*>(buffer, 12, data, 100UL), buffer);
    EXPECT_EQ(Call<void*>(buffer, 13, data), nullptr);
    EXPECT_EQ(Call<void*>(buffer, 14), data);
}

}  // namespace
