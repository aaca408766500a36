// The library as it ships: one whole session told by its log, and nothing of it stays behind in the
// host.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <regex>

#include "fakes/Ledger.h"
#include "fakes/Rig.h"
#include "fakes/Traffic.h"

namespace {

// Loads the library, hands its descriptor to `use`, and sees it go, with all that it has taken.
void WithLibrary(void (*use)(xjmod_entrypoint*)) {
    const Ledger ledger;
    void* library = dlopen(XJ_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto entry =
        reinterpret_cast<xjmod_get_entrypoint_fn>(dlsym(library, "xjmod_get_entrypoint"));
    ASSERT_NE(entry, nullptr);
    use(entry());
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(dlopen(XJ_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr)
        << "something keeps the library in memory";
    EXPECT_TRUE(ledger.Balanced());
}

// One line each for the level and the text, without whether a write thread is stopped in the middle
// of a wait or between two.
std::string Log(const FakeRuntime& runtime) {
    std::string text;
    for (const auto& [level, line] : runtime.Lines())
        if (line.find("write thread") == line.npos) text += std::to_string(level) + line + '\n';
    return text;
}

constexpr char kSessionLog[] = R"(8usbip_client_init
8[file_client] file_client_create interface IClientUsbipPlugin  version 281474976710656
1[usbipclient] Run start
8[usbipclient] version req
1[usbipclient] map device 7, busid 1 portid 4 instanceid disk
1[CUsbipClientLinux] start attach vhci device
8[linuxvhci] open start
8[linuxvhci] available port 2
8[linuxvhci] ncontrollers_ 1
8[linuxvhci] RefreshImportedDeviceList controller  0
8[linuxvhci] ParseStatus hub hs port 0 status 4 speed 0 devid 0 sockfd 0 lbusid 0-0
8[linuxvhci] ParseStatus hub ss port 1 status 4 speed 0 devid 0 sockfd 0 lbusid 0-0
8[linuxvhci] open success
1[linuxvhci] Attach start sockfd FD busnum 1 devnum 4 speed 3
1[linuxvhci] Attach get free port 0
1[linuxvhci] Attach attribute path ROOT/platform/vhci_hcd.0/attach, buff:0 FD 65540 3
1[linuxvhci] Attach success, port 0
1[CUsbipClientLinux] attach vid: 1d6b, pid: 0104
8[linuxvhci] close
1[CUsbipClientLinux] attach sucess
1start forward data loop
1[usbipclient] unmap device 7
1[CUsbipClientLinux] work loop exit
1[usbipclient] device end 7
1[CUsbipClientLinux] 7 work thread prepare quit
1[usbipclient] Run return
1[usbipclient] ExitInstance
8[usbipclient] start to clear devs
8[usbipclient] finish to clear devs
8[usbipclient] start to stop send thread
8[usbipclient] ExitInstance finish
)";

// In order: what is logged is all there is to it. A second exit comes with the destruction.
void play_session(xjmod_entrypoint* module) {
    Rig rig(2, module);
    rig.host.Start();
    rig.Handle(VersionRequest(kVersionFlagCompress));
    EXPECT_EQ(rig.NextMessage().size(), sizeof(usbip_version_rsp));
    const auto kernel = rig.Map(7);
    const std::string command = SubmitOut(1, std::string(2 * kCompressThreshold, 'x'));
    EXPECT_TRUE(kernel->Send(command));
    const std::string message = rig.NextMessage();
    EXPECT_LT(message.size(), kCompressThreshold) << "not compressed";
    EXPECT_EQ(CarriedPdu(message), command);
    const std::string reply = SubmitReply(1, 2 * kCompressThreshold);
    rig.host.Receive(ForwardMessage(7, reply));
    EXPECT_EQ(kernel->Receive(reply.size()), reply);
    rig.Handle(UnmapMessage(7));
    EXPECT_EQ(rig.NextMessage(), UnmapMessage(7));
    EXPECT_TRUE(kernel->WaitForEnd());
    rig.host.DropPlugin();
    EXPECT_EQ(rig.host.stream->References(), 1);

    const std::string& request = kernel->request;
    const std::string fd = request.substr(2, request.find(' ', 2) - 2);
    const std::string expected = std::regex_replace(
        std::regex_replace(kSessionLog, std::regex("ROOT"), rig.controller.root.string()),
        std::regex("FD"), fd);
    const std::string exit = expected.substr(expected.find("1[usbipclient] ExitInstance"));
    EXPECT_EQ(Log(rig.host.runtime), expected + exit);
}

// One device is in use when the host leaves, another was refused.
void leave_with_devices(xjmod_entrypoint* module) {
    Rig rig(16, module);
    rig.host.Start();
    const auto kernel = rig.Map(7);
    EXPECT_TRUE(rig.Works(7, *kernel));
    rig.controller.refusal = EBUSY;
    rig.host.Receive(MapMessage(8));
    EXPECT_TRUE(rig.controller.WaitForRequests(2));
    rig.host.DropPlugin();
    EXPECT_TRUE(kernel->WaitForEnd());
}

TEST(Library, UnloadsAfterEachOfTwoSessions) {
    WithLibrary(play_session);
    WithLibrary(leave_with_devices);
}

}  // namespace
