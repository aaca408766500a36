// Loading and unloading the library as it ships: nothing of it may stay behind in the host.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>

#include "support/FakeController.h"
#include "support/FakeHost.h"
#include "support/Messages.h"

namespace {

bool Mapped() {
    std::ifstream maps("/proc/self/maps");
    const std::string path = std::filesystem::canonical(XJ_MODULE).string();
    for (std::string line; std::getline(maps, line);) {
        if (line.ends_with(path)) return true;
    }
    return false;
}

long Threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
}

class LibraryTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(Mapped());
        std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
        descriptors_ = OpenDescriptors();
        threads_ = Threads();
    }
    void TearDown() override {
        EXPECT_EQ(OpenDescriptors(), descriptors_);
        EXPECT_TRUE(Eventually([&] { return Threads() == threads_; }))
            << Threads() << " threads, but " << threads_ << " before";
        EXPECT_EQ(FakeController::LiveUdevObjects(), 0);
    }

    // Loads the library, hands its descriptor to `use`, and sees it go.
    template <typename Use>
    void WithLibrary(Use use) {
        void* library = dlopen(XJ_MODULE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        EXPECT_TRUE(Mapped());
        const auto entry =
            reinterpret_cast<xjmod_get_entrypoint_fn>(dlsym(library, "xjmod_get_entrypoint"));
        if (entry != nullptr) use(entry());
        EXPECT_NE(entry, nullptr);
        EXPECT_EQ(dlclose(library), 0);
        EXPECT_FALSE(Mapped()) << "something keeps the library in memory";
    }

  private:
    long descriptors_ = 0;
    long threads_ = 0;
};

TEST_F(LibraryTest, UnloadsUnused) {
    for (int i = 0; i < 2; ++i) {
        WithLibrary(
            [](xjmod_entrypoint* module) { EXPECT_STREQ(module->name, "xj-client-usbip"); });
    }
}

TEST_F(LibraryTest, UnloadsAfterInitWithoutPlugin) {
    FakeRuntime runtime;
    WithLibrary([&](xjmod_entrypoint* module) {
        EXPECT_TRUE(module->init(static_cast<IXJModRuntime*>(&runtime)));
        module->uninit();
    });
    EXPECT_EQ(runtime.Count({8, "usbip_client_init"}), 1);
}

// A device is mapped, served and still in use when the host leaves.
void session_with_device(xjmod_entrypoint* module) {
    FakeController controller;
    FakeHost host(module);
    host.Start();
    host.Receive(VersionRequest(kVersionFlagCompress));
    EXPECT_EQ(host.stream->WaitForMessage().size(), sizeof(usbip_version_rsp));
    host.Receive(MapMessage(7));
    const auto kernel = controller.WaitForAttach();
    ASSERT_TRUE(kernel);

    // Long enough to be compressed.
    const std::string command = SubmitOut(1, std::string(2 * kCompressThreshold, 'x'));
    EXPECT_TRUE(kernel->Send(command));
    const std::string forward = host.stream->WaitForMessage();
    EXPECT_EQ(Parse<usbip_forward>(forward).rawsize, command.size());
    EXPECT_LT(forward.size(), kCompressThreshold);
    const std::string reply = SubmitReply(1, 2 * kCompressThreshold);
    host.Receive(ForwardMessage(7, reply));
    EXPECT_EQ(kernel->Receive(reply.size()), reply);

    host.DropPlugin();
    EXPECT_TRUE(kernel->WaitForEnd());
    EXPECT_EQ(host.stream->References(), 1);
}

void session_with_refused_device(xjmod_entrypoint* module) {
    FakeController controller;
    controller.RefuseAttaches(EBUSY);
    FakeHost host(module);
    host.Start();
    host.Receive(MapMessage(7) + MapMessage(8) + UnmapMessage(8));
    EXPECT_TRUE(Eventually([&] { return !controller.Requests().empty(); }));
}

TEST_F(LibraryTest, UnloadsAfterSessions) {
    for (int i = 0; i < 2; ++i) {
        WithLibrary(session_with_device);
        WithLibrary(session_with_refused_device);
    }
}

// Nobody tells the library how many plug-ins there are.
TEST_F(LibraryTest, UnloadsAfterTwoPlugins) {
    WithLibrary([](xjmod_entrypoint* module) {
        FakeHost first(module);
        FakeHost second(module);
        first.Start();
        second.Start();
        second.Receive(VersionRequest(0));
        EXPECT_NE(second.stream->WaitForMessage(), "");
        second.DropPlugin();
        first.Receive(VersionRequest(0));
        EXPECT_NE(first.stream->WaitForMessage(), "");
    });
}

}  // namespace
