// The bridge as a whole: a server thread of ours between a host at the other end of a socket pair
// and a USB/IP server on the loopback network, both played by the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "UsbipReplies.h"
#include "remote/Server.h"
#include "remote/UsbipDevice.h"
#include "support/Messages.h"
#include "support/Patience.h"

namespace remote::test {
namespace {

// A connected socket, read and written by the test; every wait ends with a failure at last.
class Peer : public FileDescriptor {
  public:
    Peer() = default;
    explicit Peer(int fd) : FileDescriptor(fd) {
        const timeval patience{kPatience.count(), 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }
    std::string Read(std::size_t size) const {
        std::string bytes(size, '\0');
        EXPECT_EQ(recv(Get(), bytes.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
        return bytes;
    }
    void Write(std::string_view bytes) const {
        const ssize_t count = send(Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        EXPECT_EQ(count, static_cast<ssize_t>(bytes.size()));
    }
    bool Closed() const {  // by the other side, now or soon; unread bytes do not count
        std::string unread(65536, '\0');
        ssize_t count = 1;
        while (count > 0)
            count = recv(Get(), unread.data(), unread.size(), 0);
        return count == 0 || errno == ECONNRESET;
    }
};

class FakeServer {
  public:
    FakeServer() {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        getsockname(fd_.Get(), reinterpret_cast<sockaddr*>(&address), &size);
        name = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    UsbipServer Address() const {
        std::string error;
        return UsbipServer::Resolve(name, error).value();
    }
    // Until then, connections are refused.
    void Listen() const { EXPECT_EQ(listen(fd_.Get(), 8), 0); }
    Peer Accept() const {
        pollfd wanted{fd_.Get(), POLLIN, 0};
        EXPECT_EQ(poll(&wanted, 1, kPatience.count() * 1000), 1) << "nobody connects";
        return Peer(accept(fd_.Get(), nullptr, nullptr));
    }
    // Accepts the next connection and lends the device that it asks for.
    Peer Lend() const {
        Peer peer = Accept();
        const auto request = Parse<usbip_op_import_request>(peer.Read(40));
        peer.Write(::Bytes(ImportReply(request.busid)));
        return peer;
    }

    std::string name;

  private:
    FileDescriptor fd_{socket(AF_INET, SOCK_STREAM, 0)};
};

const std::string kMegabyte(1 << 20, 'x');

struct Lent {
    Peer server;
    std::uint32_t devid;
};

class BridgeTest : public testing::Test {
  protected:
    // With devices 1-1 to 1-`count` of `fake_`.
    void Start(int count, bool wait = false) {
        CloseHost();
        fake_ = FakeServer();
        fake_.Listen();
        for (int number = 1; number <= count; ++number)
            Add(fake_, "1-" + std::to_string(number), wait);
        server_ = std::make_unique<remote::Server>(std::exchange(devices_, {}), false,
                                                   remote::Server::Controls{});
        ConnectHost();
    }
    void Add(const FakeServer& fake, const std::string& busid, bool wait) {
        devices_.push_back(std::make_unique<UsbipDevice>(fake.Address(), busid, wait));
    }
    void CloseHost() {
        host_ = Peer();
        thread_ = std::jthread();  // once it has ended
    }
    void ConnectHost() {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        host_ = Peer(ends[0]);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        thread_ = std::jthread([this, link = FileDescriptor(ends[1])]() mutable {
            server_->Run(HostLink{std::move(link), {}});
        });
        Next<usbip_version_req>(kUsbipVersionReq);
        host_.Write(::Message(kUsbipVersionRsp, ::Bytes(kUsbipProtocolVersion)));
    }

    // The host's next message, which must be of this type.
    template <typename T>
    T Next(UsbipMessageType type) {
        const T message = Parse<T>(host_.Read(sizeof(T)));
        EXPECT_EQ(message.head.inner.type, type);
        return message;
    }
    usbip_dev_map Mapped() { return Next<usbip_dev_map>(kUsbipDevMap); }
    std::uint32_t Unmapped() { return Next<usbip_dev_unmap>(kUsbipDevUnmap).devid; }
    Lent Lend(const FakeServer& fake) {
        Peer server = fake.Lend();
        return {std::move(server), Mapped().devid};
    }
    std::string Reply(std::uint32_t devid) {
        const auto forward = Next<usbip_forward>(kUsbipForward);
        EXPECT_EQ(forward.devid, devid);
        const std::size_t size = std::min<std::size_t>(forward.datasize, 1 << 26);
        return host_.Read(size + kForwardFiller).substr(0, size);
    }
    // URBs and their replies on a device that ought to work.
    void ExpectWorks(const Lent& device) {
        const std::pair<std::string, std::string> urbs[] = {
            {SubmitIn(1, 8), SubmitReply(1, 8, "keyboard")},
            {SubmitOut(2, std::string(200'000, 'x')), SubmitReply(2, 200'000)},
        };
        for (const auto& [command, reply] : urbs) {
            host_.Write(ForwardMessage(device.devid, command));
            EXPECT_EQ(device.server.Read(command.size()), command);
            device.server.Write(reply);
            EXPECT_EQ(Reply(device.devid), reply);
        }
    }

    FakeServer fake_;
    std::vector<std::unique_ptr<Device>> devices_;  // before the start
    std::unique_ptr<remote::Server> server_;
    std::jthread thread_;
    Peer host_;
};

TEST_F(BridgeTest, EveryHostGetsTheDeviceAsTheServerDescribesItAndItWorks) {
    Start(1);
    for (int host = 0; host < 2; ++host) {
        if (host != 0) ConnectHost();
        Lent device{fake_.Accept(), 0};
        const auto request = FromHex("01 11 80 03 00 00 00 00 31 2D 31") + std::string(29, '\0');
        EXPECT_EQ(device.server.Read(40), request);
        for (const char byte : ::Bytes(ImportReply("1-1")))
            device.server.Write({&byte, 1});
        const usbip_dev_map map = Mapped();
        EXPECT_EQ((std::vector<std::uint32_t>{map.dev.busid, map.dev.portid, map.dev.speed,
                                              map.dev.vid, map.dev.pid}),
                  (std::vector<std::uint32_t>{3, 9, 2, 0x046D, 0xC31C}));
        EXPECT_EQ(map.dev.instanceid, fake_.name + "/1-1 046d:c31c");
        device.devid = map.devid;
        ExpectWorks(device);
        host_.Write(ForwardMessage(device.devid, SubmitIn(1, 8)));
        CloseHost();
        EXPECT_TRUE(device.server.Closed()) << "given back when the host has gone";
    }
}

// Closed without an answer, refused, cut off, not there yet: such devices are tried again and work,
// as their neighbour does all the time.
TEST_F(BridgeTest, FailedImportIsTriedAgainAndDisturbsNobody) {
    FakeServer late;
    Add(late, "2-1", false);
    Start(4);
    usbip_op_import_reply busy = ImportReply("1-2");
    busy.head.status = htobe32(USBIP_ST_DEV_BUSY);
    const std::string cut = ::Bytes(ImportReply("1-3")).substr(0, 319);
    for (const std::string& answer : {std::string(), ::Bytes(busy), cut})
        fake_.Accept().Write(answer);
    const Lent neighbour = Lend(fake_);
    late.Listen();
    ExpectWorks(neighbour);
    std::vector<Lent> again;
    for (const FakeServer* fake : {&fake_, &fake_, &fake_, &late}) {
        again.push_back(Lend(*fake));
        ExpectWorks(again.back());
    }
    ExpectWorks(neighbour);
}

TEST_F(BridgeTest, WhatEndsADeviceLeavesTheOtherAloneAndWithWaitItComesBack) {
    const struct {
        const char* what;
        bool wait;
        std::function<void(const Lent&)> end;
    } cases[] = {
        {"server leaves", true, [](const Lent& it) { shutdown(it.server.Get(), SHUT_RDWR); }},
        {"server lies", false, [](const Lent& it) { it.server.Write(SubmitReply(77, 0)); }},
        {"host ends it", false, [this](const Lent& it) { host_.Write(UnmapMessage(it.devid)); }},
        {"server does not read", false,  // the network's own buffers take some, too
         [this](const Lent& it) {
             for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
                 host_.Write(ForwardMessage(it.devid, SubmitOut(seqnum, kMegabyte)));
         }},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        Start(2, one.wait);
        const Lent first = Lend(fake_);
        const Lent second = Lend(fake_);
        one.end(first);
        EXPECT_EQ(Unmapped(), first.devid) << "so that the host forgets the id, too";
        EXPECT_TRUE(first.server.Closed());
        ExpectWorks(second);
        if (!one.wait) continue;
        const Lent again = Lend(fake_);
        EXPECT_NE(again.devid, first.devid) << "what is on its way must not reach the new one";
        ExpectWorks(again);
    }
}

// Replies stay with the server while the host does not read: neither are they gathered without
// bound, nor does one get lost.
TEST_F(BridgeTest, HostThatStopsReadingHoldsTheServerBack) {
    Start(1);
    const Lent device = Lend(fake_);
    std::string replies;
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum) {
        host_.Write(ForwardMessage(device.devid, SubmitIn(seqnum, 1 << 20)));
        replies += SubmitReply(seqnum, 1 << 20, kMegabyte);
    }
    device.server.Read(64 * sizeof(usbip_header));
    std::string_view left = replies;
    pollfd writable{device.server.Get(), POLLOUT, 0};
    while (!left.empty() && poll(&writable, 1, 500) == 1) {
        const ssize_t count = send(writable.fd, left.data(), left.size(), MSG_DONTWAIT);
        ASSERT_GT(count, 0);
        left.remove_prefix(static_cast<std::size_t>(count));
    }
    EXPECT_FALSE(left.empty()) << "the server could write all it had";
    const std::jthread rest([&] { device.server.Write(left); });
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
        EXPECT_TRUE(Reply(device.devid) == SubmitReply(seqnum, 1 << 20, kMegabyte)) << seqnum;
}

// Driven by hand, turn by turn: nobody waits for the deadline.
TEST(UsbipDevice, EndsForGoodWhenTheServerLeavesAnUnlinkUnanswered) {
    struct : ReplySink {
        void Reply(Bytes) override {}
    } sink;
    const FakeServer fake;
    fake.Listen();
    UsbipDevice device(fake.Address(), "1-1", false);
    const auto turn = [&device] {
        pollfd wanted{device.Fd(), device.Events(), 0};
        EXPECT_EQ(poll(&wanted, 1, kPatience.count() * 1000), 1);
        device.OnEvents(wanted.revents);
    };
    device.Acquire();
    turn();
    const Peer server = fake.Lend();
    turn();
    ASSERT_TRUE(device.Present());
    device.Attach(sink);
    device.Command(View(SubmitIn(0, 8)));
    EXPECT_FALSE(device.Deadline());
    device.Command(View(Unlink(1)));
    EXPECT_GT(device.Deadline(), Clock::now());
    device.OnDeadline();
    EXPECT_FALSE(device.Present());
    EXPECT_TRUE(server.Closed());
    EXPECT_FALSE(device.Deadline()) << "not to come back";
}

TEST(UsbipServer, ListsItsDevicesOrSaysWhyNot) {
    const std::string whole = ::Bytes(ListReply(1)) + ::Bytes(ImportReply("1-1").device);
    const FakeServer fake;
    std::string error;
    EXPECT_FALSE(fake.Address().List(error));
    EXPECT_NE(error.find("refused"), std::string::npos) << error;
    fake.Listen();
    for (const bool good : {true, false}) {
        const std::jthread server([&] {
            const Peer peer = fake.Accept();
            EXPECT_EQ(peer.Read(8), FromHex("01 11 80 05 00 00 00 00"));
            peer.Write(whole.substr(0, whole.size() - (good ? 0 : 1)));
        });
        EXPECT_EQ(fake.Address().List(error).has_value(), good) << error;
    }
    EXPECT_NE(error.find("in the middle of its answer"), std::string::npos) << error;
}

TEST(UsbipServer, NamesCarryAPortOrNot) {
    std::string error;
    for (const char* name : {"127.0.0.1", "[::1]", "[::1]:3240"})
        EXPECT_TRUE(UsbipServer::Resolve(name, error)) << name << ": " << error;
    for (const char* name : {"", ":3240", "127.0.0.1:", "127.0.0.1:usb", "[::1", "[::1]3240"})
        EXPECT_FALSE(UsbipServer::Resolve(name, error)) << name;
}

}  // namespace
}  // namespace remote::test
