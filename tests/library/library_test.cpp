// Loading and unloading the library as it ships: nothing of it may stay behind in the host.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>

#include "fakes/FakeController.h"
#include "fakes/FakeHost.h"
#include "fakes/Ledger.h"
#include "fakes/Messages.h"

namespace {

bool Mapped() {
    std::ifstream maps("/proc/self/maps");
    const std::string path = std::filesystem::canonical(XJ_MODULE).string();
    for (std::string line; std::getline(maps, line);) {
        if (line.ends_with(path)) return true;
    }
    return false;
}

// Loads the library, hands its descriptor to `use`, and sees it go, with all that it has taken.
template <typename Use>
void WithLibrary(Use use) {
    std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
    const Ledger ledger;
    ASSERT_FALSE(Mapped());
    void* library = dlopen(XJ_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    EXPECT_TRUE(Mapped());
    const auto entry =
        reinterpret_cast<xjmod_get_entrypoint_fn>(dlsym(library, "xjmod_get_entrypoint"));
    ASSERT_NE(entry, nullptr);
    use(entry());
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_FALSE(Mapped()) << "something keeps the library in memory";
    EXPECT_TRUE(ledger.Balanced());
}

TEST(Library, UnloadsUnusedAndAfterInit) {
    FakeRuntime runtime;
    WithLibrary([](xjmod_entrypoint*) {});
    WithLibrary([&](xjmod_entrypoint* module) {
        EXPECT_TRUE(module->init(static_cast<IXJModRuntime*>(&runtime)));
        module->uninit();
    });
}

// A device is mapped, served and still in use when the host leaves; another was refused.
void use_devices(xjmod_entrypoint* module) {
    FakeController controller;
    FakeHost host(module);
    host.Start();
    host.Receive(VersionRequest(kVersionFlagCompress) + MapMessage(7));
    EXPECT_EQ(host.stream->WaitForMessage().size(), sizeof(usbip_version_rsp));
    const auto kernel = controller.WaitForAttach();
    ASSERT_TRUE(kernel);
    const std::string command = SubmitOut(1, std::string(2 * kCompressThreshold, 'x'));
    EXPECT_TRUE(kernel->Send(command));
    EXPECT_LT(host.stream->WaitForMessage().size(), kCompressThreshold) << "not compressed";
    const std::string reply = SubmitReply(1, 2 * kCompressThreshold);
    host.Receive(ForwardMessage(7, reply));
    EXPECT_EQ(kernel->Receive(reply.size()), reply);

    controller.RefuseAttaches(EBUSY);
    host.Receive(MapMessage(8));
    EXPECT_TRUE(Eventually([&] { return controller.Requests().size() == 2; }));
    host.DropPlugin();
    EXPECT_TRUE(kernel->WaitForEnd());
    EXPECT_EQ(host.stream->References(), 1);
}

TEST(Library, UnloadsAfterEachOfTwoSessions) {
    WithLibrary(use_devices);
    WithLibrary(use_devices);
}

}  // namespace
