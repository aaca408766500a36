// The example of a remote side in another language, between the host with the module as it ships,
// before a kernel that is played, and a USB/IP server that is played.
#include <gtest/gtest.h>

#include <thread>

#include "fakes/FakeController.h"
#include "fakes/Messages.h"
#include "host/Host.h"
#include "posix/Peer.h"
#include "posix/Wait.h"
#include "wire/UsbipServer.h"

namespace host {
namespace {

TEST(BridgeExample, LendsADeviceOfAServerUntilThatLeaves) {
    FakeController controller;
    const posix::test::Port port;
    port.Listen(1);
    const posix::UniqueFd stop = posix::MakeEvent();
    const Target target{
        {}, "exec " XJ_BRIDGE " 127.0.0.1:" + std::to_string(port.address.port) + " 1-1"};
    testing::internal::CaptureStderr();
    std::thread host([&] {
        Options options;
        options.module = XJ_MODULE;
        options.target = target;
        options.sysfs = "/nowhere";
        RunHost(options, stop.Get());
    });
    posix::test::Peer server = port.Accept();
    std::string request = FromHex("01 11 80 03 00 00 00 00") + "1-1";
    request.resize(sizeof(usbip_op_import_request));
    EXPECT_EQ(request, server.Read(request.size()));
    usbip_op_import_reply lent{{htobe16(kUsbipServerVersion), htobe16(OP_REP_IMPORT), 0}, {}};
    lent.device.busnum = htobe32(3);
    lent.device.devnum = htobe32(7);
    lent.device.speed = htobe32(2);
    lent.device.id_vendor = htobe16(0x0627);
    server.Write(Bytes(lent));

    const auto kernel = controller.WaitForAttach();
    ASSERT_TRUE(kernel);
    EXPECT_TRUE(kernel->request.ends_with(" 196615 2")) << kernel->request;
    // In another order, and the number of a command that was given up comes again: whether an
    // answer has data is told by its command.
    const std::pair<std::string, std::string> exchanges[] = {
        {SubmitIn(1, 8) + SubmitOut(2, "output") +
             WithPackets(SubmitIn(3, 8), {{0, 4, 0}, {4, 4, 0}}) + SubmitIn(4, 8) + Unlink(5, 4),
         SubmitReply(2, 6) + UnlinkReply(5, -ECONNRESET) + SubmitReply(1, 5, "input") +
             WithPackets(SubmitReply(3, 3, "iso"), {{0, 4, 3}, {4, 4, 0}})},
        {SubmitOut(4, "anew"), SubmitReply(4, 4)}};
    for (const auto& [commands, replies] : exchanges) {
        EXPECT_TRUE(kernel->Send(commands));
        EXPECT_EQ(commands, server.Read(commands.size()));
        server.Write(replies);
        EXPECT_EQ(replies, kernel->Receive(replies.size()));
    }

    server = posix::test::Peer();
    EXPECT_TRUE(kernel->WaitForEnd());
    host.join();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, log.find("(0627:0000, full speed) left")) << log;
    EXPECT_NE(std::string::npos, log.find("ended it; the command ended with status 0")) << log;
}

}  // namespace
}  // namespace host
