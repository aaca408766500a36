// The bridge as a whole: a server thread of ours between a host at the other end of a socket pair
// and a USB/IP server on the loopback network, both played by the test.
#include <functional>

#include "ServerTest.h"
#include "remote/bridge/UsbipDevice.h"

namespace remote::test {

using posix::test::Port;

// A device of the server that a test plays at `port`.
std::unique_ptr<UsbipDevice> Served(const Port& port, const std::string& busid, bool wait) {
    std::string error;
    const auto server = UsbipServer::Resolve(port.address, -1, error);
    return std::make_unique<UsbipDevice>(server.value(), busid, wait);
}

struct Lent {
    Peer server;
    std::uint32_t devid;
};

class BridgeTest : public ServerTest {
  protected:
    // With devices 1-1 to 1-`count` of `fake_`.
    void Start(int count, bool wait = false) {
        CloseHost();
        fake_ = Port();
        fake_.Listen(8);
        for (int number = 1; number <= count; ++number)
            devices_.push_back(Served(fake_, "1-" + std::to_string(number), wait));
        ServeHost();
    }
    void CloseHost() {
        host_ = Host();
        Finish();
    }
    // Accepts the next connection and lends the device that it asks for.
    Lent Lend(const Port& fake) {
        Peer server = fake.Accept();
        const auto request = Parse<usbip_op_import_request>(server.Read(40));
        server.Write(::Bytes(ImportReply(request.busid)));
        return {std::move(server), host_.Mapped().devid};
    }
    // URBs and their replies on a device that ought to work.
    void ExpectWorks(const Lent& device) {
        for (const auto& [command, reply] :
             {std::pair{SubmitIn(1, 8), SubmitReply(1, 8, "keyboard")},
              {SubmitOut(2, std::string(200'000, 'x')), SubmitReply(2, 200'000)}}) {
            host_.Forward(device.devid, command);
            EXPECT_EQ(device.server.Read(command.size()), command);
            device.server.Write(reply);
            EXPECT_EQ(host_.Reply(device.devid), reply);
        }
    }

    Port fake_;
};

TEST_F(BridgeTest, EveryHostGetsTheDeviceAsTheServerDescribesItAndItWorks) {
    Start(1);
    const Peer early = fake_.Accept();
    early.Read(40);
    for (int host = 0; host < 2; ++host) {
        CloseHost();
        ServeHost();
        const Lent device{fake_.Accept(), 1};
        EXPECT_EQ(device.server.Read(40),
                  FromHex("01 11 80 03 00 00 00 00 31 2D 31") + std::string(29, '\0'));
        device.server.Write(::Bytes(ImportReply("1-1")));
        const _USBIP_DEV dev = host_.Mapped().dev;
        EXPECT_EQ(::Bytes(dev).substr(offsetof(_USBIP_DEV, busid), 16),
                  FromHex("03 00 00 00 09 00 00 00 02 00 00 00 6D 04 1C C3"));
        EXPECT_EQ(dev.instanceid, Describe(fake_.address) + "/1-1 046d:c31c");
        ExpectWorks(device);
        const std::string longer_than_buffers = SubmitOut(3, std::string(16 << 20, 'x'));
        host_.Forward(device.devid, longer_than_buffers);
        EXPECT_TRUE(device.server.Read(longer_than_buffers.size()) == longer_than_buffers);
        host_ = Host();
        device.server.ReadToEnd();  // given back when the host has gone
    }
    EXPECT_EQ(early.ReadToEnd(), "") << "given back before it was there";
}

// Closed without an answer, refused, cut off, not there yet: such devices are tried again and work,
// as their neighbour does all the time.
TEST_F(BridgeTest, FailedImportIsTriedAgainAndDisturbsNobody) {
    Port late;
    devices_.push_back(Served(late, "2-1", false));
    Start(4);
    const std::string whole = ::Bytes(ImportReply("1-2"));
    for (const std::string& answer :
         {std::string(), With(4, USBIP_ST_DEV_BUSY, whole), whole.substr(0, whole.size() - 1)})
        fake_.Accept().Write(answer);
    std::vector<Lent> lent;
    lent.push_back(Lend(fake_));
    late.Listen(8);
    for (const Port* fake : {&fake_, &fake_, &fake_, &late}) {
        ExpectWorks(lent.back());
        lent.push_back(Lend(*fake));
    }
    for (const Lent& device : lent)
        ExpectWorks(device);
}

TEST_F(BridgeTest, WhatEndsADeviceLeavesTheOtherAloneAndWithWaitItComesBack) {
    const std::tuple<const char*, bool, std::function<void(const Lent&)>> cases[] = {
        {"server leaves", true, [](const Lent& it) { shutdown(it.server.Get(), SHUT_RDWR); }},
        {"server lies", false, [](const Lent& it) { it.server.Write(SubmitReply(77, 0)); }},
        {"host ends it", false, [this](const Lent& it) { host_.Write(UnmapMessage(it.devid)); }},
        {"server does not read", false,  // the network's own buffers take some, too
         [this](const Lent& it) {
             for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
                 host_.Forward(it.devid, SubmitOut(seqnum, kMegabyte));
         }},
    };
    for (const auto& [what, wait, end] : cases) {
        SCOPED_TRACE(what);
        Start(2, wait);
        const Lent first = Lend(fake_);
        const Lent second = Lend(fake_);
        end(first);
        EXPECT_EQ(host_.Unmapped(), first.devid) << "so that the host forgets the id, too";
        first.server.ReadToEnd();
        ExpectWorks(second);
        if (!wait) continue;
        const Lent again = Lend(fake_);
        EXPECT_NE(again.devid, first.devid) << "what is on its way must not reach the new one";
        ExpectWorks(again);
    }
}

// While the host does not read, replies stay with the server: neither are they gathered without
// bound, nor does one get lost.
TEST_F(BridgeTest, HostThatStopsReadingHoldsTheServerBack) {
    Start(1);
    const Lent device = Lend(fake_);
    std::string replies;
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum) {
        host_.Forward(device.devid, SubmitIn(seqnum, 1 << 20));
        replies += SubmitReply(seqnum, 1 << 20, kMegabyte);
    }
    device.server.Read(64 * sizeof(usbip_header));
    std::string_view late = replies;
    pollfd writable{device.server.Get(), POLLOUT, 0};
    while (!late.empty() && poll(&writable, 1, 500) == 1) {
        const ssize_t count = send(writable.fd, late.data(), late.size(), MSG_DONTWAIT);
        late.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    EXPECT_GT(late.size(), replies.size() / 2) << "the server is read from";
    const std::jthread server([&] { device.server.Write(late); });
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
        EXPECT_TRUE(host_.Reply(device.devid) == SubmitReply(seqnum, 1 << 20, kMegabyte)) << seqnum;
}

// Driven by hand: nobody waits for the deadline.
TEST_F(BridgeTest, ServerThatLeavesAnUnlinkUnansweredLosesTheDeviceForGood) {
    struct : ReplySink {
        void Reply(Bytes) override {}
    } sink;
    fake_.Listen(8);
    const auto device = Served(fake_, "1-1", false);
    device->Acquire();
    const Peer server = fake_.Accept();
    device->OnEvents(POLLOUT);
    server.Write(::Bytes(ImportReply("1-1")));
    ASSERT_TRUE(Eventually([&] { return device->OnEvents(POLLIN), device->Present(); }));
    device->Attach(sink);
    for (const std::string& pdu : {SubmitIn(0, 8), Unlink(1)})
        device->TakeCommand(Decoded(pdu));
    EXPECT_GT(device->Deadline(), Clock::now());
    device->OnDeadline();
    EXPECT_FALSE(device->Present() || device->Deadline()) << "not to come back";
}

}  // namespace remote::test
