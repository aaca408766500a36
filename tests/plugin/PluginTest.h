// A plug-in in a host, between a fake kernel and the test as the remote side.
#pragma once

#include <gtest/gtest.h>

#include "client/IClientUsbipListenter.h"
#include "fakes/FakeController.h"
#include "fakes/FakeHost.h"
#include "fakes/Messages.h"

class PluginTest : public ::testing::Test {
  protected:
    // The remote side maps `devid`, and the kernel has its socket.
    std::unique_ptr<KernelEnd> Map(std::uint32_t devid) {
        host.Receive(MapMessage(devid));
        auto kernel = controller.WaitForAttach();
        EXPECT_TRUE(kernel) << "device " << devid << " was not attached";
        return kernel;
    }
    std::string NextMessage() { return host.stream->WaitForMessage(); }
    void ExpectLog(int level, const std::string& text) {
        EXPECT_TRUE(host.runtime.WaitForLine({level, "[usbipclient] " + text})) << text;
    }
    // A device with nothing pending answers this; what was sent before it has been handled then.
    void ExpectAlive(KernelEnd& kernel, std::uint32_t devid) {
        host.Receive(ForwardMessage(devid, UnlinkReply(99)));
        EXPECT_EQ(kernel.Receive(48), UnlinkReply(99)) << "device " << devid;
    }
    IClientUsbipListenter& Listener() { return dynamic_cast<IClientUsbipListenter&>(*host.plugin); }

    FakeController controller;
    FakeHost host;
};
