// A plug-in in a host, between a fake kernel and the caller as the remote side: where tests, fuzz
// targets and benchmarks of the module start from. What it cannot go on without is required.
#pragma once

#include "fakes/FakeController.h"
#include "fakes/FakeHost.h"
#include "fakes/Messages.h"

class Rig {
  public:
    explicit Rig(int ports = 16, xjmod_entrypoint* module = xjmod_get_entrypoint())
        : controller(1, ports), host(module) {}

    // The remote side maps `devid`, and the kernel has its socket.
    std::unique_ptr<KernelEnd> Map(std::uint32_t devid, const _USBIP_DEV& dev = DeviceInfo()) {
        host.Receive(MapMessage(devid, dev));
        auto kernel = controller.WaitForAttach();
        Require(kernel != nullptr, "a mapped device is attached");
        return kernel;
    }
    // A message to the module, and all before it, was handled.
    void Handle(const std::string& messages) {
        host.Receive(messages);
        Require(host.stream->WaitUntilDrained(), "the module reads its stream");
    }
    // Nothing more comes from the module than the answer to this.
    bool Silent() {
        Handle(VersionRequest(0));
        return NextMessage() == VersionResponse() && host.stream->Written().empty();
    }
    // The next whole message from the module; empty: none came.
    std::string NextMessage() { return host.stream->WaitForMessage(); }

    // The device works, both ways. What the module has sent before that is dropped.
    bool Works(std::uint32_t devid, KernelEnd& kernel) {
        const std::string command = Unlink(++seqnum_);
        if (!kernel.Send(command)) return false;
        for (std::string message; message != ForwardMessage(devid, command);)
            if ((message = NextMessage()).empty()) return false;
        const std::string reply = UnlinkReply(seqnum_);
        host.Receive(ForwardMessage(devid, reply));
        return kernel.Receive(reply.size()) == reply;
    }

    FakeController controller;
    FakeHost host;

  private:
    std::uint32_t seqnum_ = 0x40000000;  // beyond those that callers choose
};
