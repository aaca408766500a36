// The bridge as a whole: a server thread of ours between a host at the other end of a socket pair
// and a USB/IP server on the loopback network, both played by the test.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

#include "Pdus.h"
#include "UsbipReplies.h"
#include "remote/Server.h"
#include "remote/UsbipDevice.h"
#include "remote/UsbipServer.h"
#include "support/Patience.h"
#include "wire/ChannelMessages.h"

namespace remote::test {
namespace {

// A connected socket, read and written by the test; every wait ends with a failure at last.
class Peer {
  public:
    Peer() = default;
    explicit Peer(FileDescriptor fd) : fd_(std::move(fd)) {
        const timeval patience{kPatience.count(), 0};
        setsockopt(fd_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(fd_.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }

    Bytes Read(std::size_t size) const {
        Bytes bytes(size);
        if (size == 0) return bytes;
        const ssize_t count = recv(fd_.Get(), bytes.data(), size, MSG_WAITALL);
        EXPECT_EQ(count, static_cast<ssize_t>(size)) << ErrorText(errno);
        return bytes;
    }
    void Write(const Bytes& bytes, std::size_t piece = SIZE_MAX) const {
        for (std::size_t at = 0; at < bytes.size();) {
            const std::size_t size = std::min(piece, bytes.size() - at);
            const ssize_t count = send(fd_.Get(), &bytes[at], size, MSG_NOSIGNAL);
            ASSERT_GT(count, 0) << ErrorText(errno);
            at += static_cast<std::size_t>(count);
        }
    }
    bool Closed() const {  // by the other side, now or soon; unread bytes do not count
        for (Bytes bytes(65536);;) {
            const ssize_t count = recv(fd_.Get(), bytes.data(), bytes.size(), 0);
            if (count <= 0) return count == 0 || errno == ECONNRESET;
        }
    }
    int Fd() const { return fd_.Get(); }
    void Close() { fd_ = FileDescriptor(); }

  private:
    static std::string ErrorText(int error) { return std::strerror(error); }

    FileDescriptor fd_;
};

class FakeServer {
  public:
    // Without `listening`, connections are refused until Listen.
    explicit FakeServer(bool listening = true) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t size = sizeof address;
        getsockname(fd_.Get(), reinterpret_cast<sockaddr*>(&address), &size);
        name_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        if (listening) Listen();
    }
    void Listen() const { EXPECT_EQ(listen(fd_.Get(), 8), 0); }
    const std::string& Name() const { return name_; }

    UsbipServer Address() const {
        std::string error;
        auto server = UsbipServer::Resolve(name_, error);
        EXPECT_TRUE(server) << error;
        return *server;
    }

    Peer Accept() const {
        pollfd wanted{fd_.Get(), POLLIN, 0};
        EXPECT_EQ(poll(&wanted, 1, kPatience.count() * 1000), 1) << "nobody connects";
        return Peer(FileDescriptor(accept(fd_.Get(), nullptr, nullptr)));
    }

    // Accepts the next connection, which must ask for `busid`.
    Peer AcceptImport(const std::string& busid) const {
        Peer peer = Accept();
        Bytes request{0x01, 0x11, 0x80, 0x03, 0, 0, 0, 0};
        request.insert(request.end(), busid.begin(), busid.end());
        request.resize(40);
        EXPECT_EQ(peer.Read(40), request);
        return peer;
    }
    // And lends the device.
    Peer Lend(const std::string& busid) const {
        Peer peer = AcceptImport(busid);
        peer.Write(Raw(ImportReply(busid)));
        return peer;
    }
    // Lends the device that is asked for.
    Peer LendAny() const {
        Peer peer = Accept();
        const Bytes request = peer.Read(sizeof(usbip_op_import_request));
        peer.Write(Raw(ImportReply(reinterpret_cast<const char*>(&request[8]))));
        return peer;
    }

  private:
    FileDescriptor fd_;
    std::string name_;
};

constexpr const char* kFirst = "1-1";
constexpr const char* kSecond = "1-2";

class BridgeTest : public testing::Test {
  protected:
    void TearDown() override { CloseHost(); }

    void Start(const std::vector<std::string>& busids, bool wait = false) {
        CloseHost();
        for (const std::string& busid : busids)
            devices_.push_back(std::make_unique<UsbipDevice>(fake_.Address(), busid, wait));
        server_ = std::make_unique<remote::Server>(std::move(devices_), false,
                                                   remote::Server::Controls{});
        ConnectHost();
    }
    void CloseHost() {
        host_.Close();
        if (thread_.joinable()) thread_.join();
    }
    void ConnectHost() {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        host_ = Peer(FileDescriptor(ends[0]));
        FileDescriptor ours(ends[1]);
        fcntl(ours.Get(), F_SETFL, O_NONBLOCK);
        thread_ = std::thread([this, link = std::move(ours)]() mutable {
            server_->Run(HostLink{std::move(link), {}});
        });
        host_.Read(sizeof(usbip_version_req));
        usbip_version_rsp answer{MakeMessageHead(kUsbipVersionRsp, sizeof answer), 3};
        host_.Write(Raw(answer));
    }

    // The host's next message, which must be of this type.
    Bytes Message(UsbipMessageType type) {
        Bytes message = host_.Read(sizeof(usbip_message_head));
        const auto head = LoadRaw<usbip_message_head>(message.data());
        EXPECT_EQ(head.inner.type, type);
        const Bytes payload = host_.Read(std::min<std::size_t>(head.inner.length, 1 << 26));
        message.insert(message.end(), payload.begin(), payload.end());
        message.resize(std::max(message.size(), sizeof(usbip_dev_map)));
        return message;
    }
    usbip_dev_map Mapped() { return LoadRaw<usbip_dev_map>(Message(kUsbipDevMap).data()); }
    std::uint32_t Unmapped() {
        return LoadRaw<usbip_dev_unmap>(Message(kUsbipDevUnmap).data()).devid;
    }
    void EndAtHost(std::uint32_t devid) {
        usbip_dev_unmap end{MakeMessageHead(kUsbipDevUnmap, sizeof end), devid};
        host_.Write(Raw(end));
    }
    void Command(std::uint32_t devid, const Bytes& pdu) {
        usbip_forward head{MakeMessageHead(kUsbipForward, kForwardOverhead + pdu.size()), devid,
                           static_cast<std::uint32_t>(pdu.size()), 0};
        host_.Write(Joined({Raw(head), pdu, Bytes(kForwardFiller)}));
    }
    Bytes Reply(std::uint32_t devid) {
        const Bytes message = Message(kUsbipForward);
        const auto forward = LoadRaw<usbip_forward>(message.data());
        EXPECT_EQ(forward.devid, devid);
        const auto data = message.begin() + sizeof forward;
        const std::size_t most = message.size() - sizeof forward;
        return {data,
                data + static_cast<std::ptrdiff_t>(std::min<std::size_t>(forward.datasize, most))};
    }
    // A URB and its reply on a device that ought to work.
    void ExpectWorks(std::uint32_t devid, const Peer& server, std::uint32_t seqnum) {
        const Bytes command = Submit{.seqnum = seqnum, .endpoint = 1, .length = 8}.Pdu();
        Command(devid, command);
        EXPECT_EQ(server.Read(command.size()), command);
        const Bytes reply = RetSubmit{.seqnum = seqnum, .actual = 8, .data = 8};
        server.Write(reply);
        EXPECT_EQ(Reply(devid), reply);
    }

    FakeServer fake_;
    std::vector<std::unique_ptr<Device>> devices_;
    std::unique_ptr<remote::Server> server_;
    std::thread thread_;
    Peer host_;
};

TEST_F(BridgeTest, DeviceIsMappedAsTheServerDescribesItAndWorks) {
    Start({kFirst});
    const Peer server = fake_.AcceptImport(kFirst);
    server.Write(Raw(ImportReply(kFirst)), 1);
    const usbip_dev_map map = Mapped();
    EXPECT_EQ(map.dev.busid << 16 | map.dev.portid, 0x00030009U) << "the device id of commands";
    EXPECT_EQ(map.dev.speed, 2U);
    EXPECT_EQ(map.dev.vid, 0x046D);
    EXPECT_EQ(map.dev.pid, 0xC31C);
    EXPECT_EQ(map.dev.instanceid, fake_.Name() + "/1-1 046d:c31c");
    ExpectWorks(map.devid, server, 1);
    const Bytes write = Submit{.seqnum = 2, .direction = kOut, .data = Pattern(200'000)}.Pdu();
    Command(map.devid, write);
    EXPECT_EQ(server.Read(write.size()), write);
    server.Write(RetSubmit{.seqnum = 2, .actual = 200'000}, 1);
    EXPECT_EQ(Reply(map.devid).size(), sizeof(usbip_header));
}

// Closed without an answer, refused, cut off: the devices are tried again and work, as their
// neighbour does all the time.
TEST_F(BridgeTest, FailedImportIsTriedAgainAndDisturbsNobody) {
    usbip_op_import_reply busy = ImportReply(kFirst);
    busy.head.status = htobe32(USBIP_ST_DEV_BUSY);
    Bytes cut = Raw(ImportReply(kFirst));
    cut.pop_back();
    Start({"2-1", "2-2", "2-3", kSecond});
    for (const Bytes& answer : {Bytes{}, Raw(busy), cut})
        fake_.Accept().Write(answer);
    const Peer neighbour = fake_.Lend(kSecond);
    const std::uint32_t devid = Mapped().devid;
    ExpectWorks(devid, neighbour, 1);
    std::vector<Peer> again;
    for (int device = 0; device < 3; ++device) {
        again.push_back(fake_.LendAny());
        ExpectWorks(Mapped().devid, again.back(), 2);
    }
    ExpectWorks(devid, neighbour, 3);
}

TEST_F(BridgeTest, DeviceThatLeavesIsUnmappedAndWithWaitComesBack) {
    Start({kFirst, kSecond}, true);
    Peer first = fake_.Lend(kFirst);
    const std::uint32_t left = Mapped().devid;
    const Peer second = fake_.Lend(kSecond);
    const std::uint32_t stays = Mapped().devid;
    first.Close();
    EXPECT_EQ(Unmapped(), left);
    EndAtHost(left);
    ExpectWorks(stays, second, 1);
    first = fake_.Lend(kFirst);
    const std::uint32_t again = Mapped().devid;
    EXPECT_NE(again, left) << "what is still on its way for the old one must not reach it";
    ExpectWorks(again, first, 2);
}

TEST_F(BridgeTest, LyingServerLosesItsDeviceOnly) {
    Start({kFirst, kSecond});
    const Peer first = fake_.Lend(kFirst);
    const std::uint32_t devid = Mapped().devid;
    const Peer second = fake_.Lend(kSecond);
    const std::uint32_t other = Mapped().devid;
    first.Write(RetSubmit{.seqnum = 77});
    EXPECT_EQ(Unmapped(), devid);
    EXPECT_TRUE(first.Closed());
    ExpectWorks(other, second, 1);
}

TEST_F(BridgeTest, DeviceThatEndsAtTheHostIsGivenBack) {
    Start({kFirst, kSecond}, true);
    const Peer first = fake_.Lend(kFirst);
    const std::uint32_t devid = Mapped().devid;
    const Peer second = fake_.Lend(kSecond);
    const std::uint32_t other = Mapped().devid;
    EndAtHost(devid);
    EXPECT_TRUE(first.Closed());
    EXPECT_EQ(Unmapped(), devid) << "so that the host forgets the id";
    ExpectWorks(other, second, 1);
}

TEST_F(BridgeTest, EveryHostImportsAnew) {
    Start({kFirst});
    for (int host = 0; host < 2; ++host) {
        if (host != 0) ConnectHost();
        const Peer server = fake_.Lend(kFirst);
        ExpectWorks(Mapped().devid, server, 1);
        CloseHost();
        EXPECT_TRUE(server.Closed()) << "given back when the host has gone";
    }
}

// A device driven by hand, turn by turn.
class UsbipDeviceTest : public testing::Test, public ReplySink {
  protected:
    void Reply(Bytes) override {}

    template <typename Condition>
    void RunUntil(Condition condition) {
        EXPECT_TRUE(Eventually([&] {
            if (condition()) return true;
            pollfd wanted{device_->Fd(), device_->Events(), 0};
            const auto deadline = device_->Deadline();
            if (poll(&wanted, 1, 1) > 0) {
                device_->OnEvents(wanted.revents);
            } else if (deadline && Clock::now() >= *deadline) {
                device_->OnDeadline();
            }
            return condition();
        }));
    }
    Peer Import(const FakeServer& fake) {
        Peer peer = fake.Accept();
        peer.Write(Raw(ImportReply(kFirst)));
        RunUntil([&] { return device_->Present(); });
        device_->Attach(*this);
        return peer;
    }

    std::unique_ptr<UsbipDevice> device_;
};

TEST_F(UsbipDeviceTest, WaitsForAServerThatAppearsLater) {
    const FakeServer fake(false);
    device_ = std::make_unique<UsbipDevice>(fake.Address(), kFirst, true);
    device_->Acquire();
    RunUntil([&] { return device_->Fd() < 0; });
    EXPECT_FALSE(device_->Present()) << "refused";
    ASSERT_TRUE(device_->Deadline()) << "to be tried again";
    fake.Listen();
    RunUntil([&] { return device_->Fd() >= 0; });
    Import(fake);
}

TEST_F(UsbipDeviceTest, WithoutWaitLeavesForGood) {
    const FakeServer fake;
    device_ = std::make_unique<UsbipDevice>(fake.Address(), kFirst, false);
    device_->Acquire();
    Import(fake).Close();
    RunUntil([&] { return !device_->Present(); });
    EXPECT_FALSE(device_->Deadline());
}

TEST_F(UsbipDeviceTest, EndsWhenTheServerLeavesAnUnlinkUnanswered) {
    const FakeServer fake;
    device_ = std::make_unique<UsbipDevice>(fake.Address(), kFirst, false);
    device_->Acquire();
    const Peer server = Import(fake);
    device_->Command(Submit{.seqnum = 1, .length = 8}.Pdu());
    EXPECT_FALSE(device_->Deadline());
    device_->Command(UnlinkPdu(2, 1));
    ASSERT_TRUE(device_->Deadline());
    EXPECT_GT(*device_->Deadline(), Clock::now());
    device_->OnDeadline();
    EXPECT_FALSE(device_->Present());
    EXPECT_TRUE(server.Closed());
}

TEST_F(BridgeTest, ServerThatStopsReadingLosesItsDeviceOnly) {
    Start({kFirst, kSecond});
    const Peer stuck = fake_.Lend(kFirst);
    const std::uint32_t devid = Mapped().devid;
    const Peer second = fake_.Lend(kSecond);
    const std::uint32_t other = Mapped().devid;
    const Bytes data(1 << 20);
    // The network's own buffers take some of it, too.
    for (std::uint32_t seqnum = 1; seqnum <= 64; ++seqnum)
        Command(devid, Submit{.seqnum = seqnum, .direction = kOut, .data = data}.Pdu());
    EXPECT_EQ(Unmapped(), devid);
    ExpectWorks(other, second, 1);
}

// Replies stay with the server while the host does not read: neither are they gathered without
// bound, nor does one get lost.
TEST_F(BridgeTest, HostThatStopsReadingHoldsTheServerBack) {
    constexpr std::uint32_t kUrbs = 64;
    Start({kFirst});
    const Peer server = fake_.Lend(kFirst);
    const std::uint32_t devid = Mapped().devid;
    for (std::uint32_t seqnum = 1; seqnum <= kUrbs; ++seqnum)
        Command(devid, Submit{.seqnum = seqnum, .endpoint = 1, .length = 1 << 20}.Pdu());
    server.Read(kUrbs * sizeof(usbip_header));

    Bytes stream;
    for (std::uint32_t seqnum = 1; seqnum <= kUrbs; ++seqnum) {
        const Bytes reply = RetSubmit{.seqnum = seqnum, .actual = 1 << 20, .data = 1 << 20};
        stream.insert(stream.end(), reply.begin(), reply.end());
    }
    std::size_t sent = 0;
    pollfd writable{server.Fd(), POLLOUT, 0};
    while (sent < stream.size() && poll(&writable, 1, 500) == 1) {
        const ssize_t count =
            send(server.Fd(), &stream[sent], stream.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        ASSERT_GT(count, 0);
        sent += static_cast<std::size_t>(count);
    }
    EXPECT_LT(sent, stream.size()) << "the server could write all it had";

    std::thread rest([&] {
        server.Write({stream.begin() + static_cast<std::ptrdiff_t>(sent), stream.end()});
    });
    for (std::uint32_t seqnum = 1; seqnum <= kUrbs; ++seqnum) {
        const ReplyFields reply = ParseReply(Reply(devid));
        ASSERT_EQ(reply.seqnum, seqnum);
        ASSERT_EQ(reply.data.size(), std::size_t{1} << 20);
    }
    rest.join();
}

TEST(UsbipServer, ListsItsDevicesOrSaysWhyNot) {
    usbip_op_device device = ImportReply(kFirst).device;
    const Bytes whole = Joined({Raw(ListReply(1)), Raw(device)});
    const struct {
        Bytes answer;
        const char* error;
    } cases[] = {
        {whole, ""},
        {{}, "in the middle of its answer"},
        {{whole.begin(), whole.end() - 1}, "in the middle of its answer"},
        {Raw(ListReply(100'000)), "announces 100000 devices"},
    };
    for (const auto& one : cases) {
        const FakeServer fake;
        std::thread server([&] {
            const Peer peer = fake.Accept();
            EXPECT_EQ(peer.Read(8), (Bytes{0x01, 0x11, 0x80, 0x05, 0, 0, 0, 0}));
            peer.Write(one.answer, 100);
        });
        std::string error;
        const auto devices = fake.Address().List(error);
        server.join();
        EXPECT_EQ(devices.has_value(), *one.error == '\0') << error;
        if (devices) {
            ASSERT_EQ(devices->size(), 1U);
            EXPECT_EQ(devices->front().busid, kFirst);
        } else {
            EXPECT_NE(error.find(one.error), std::string::npos) << error;
        }
    }
    std::string error;
    EXPECT_FALSE(FakeServer(false).Address().List(error));
    EXPECT_NE(error.find("refused"), std::string::npos) << error;
}

TEST(UsbipServer, NamesCarryAPortOrNot) {
    for (const char* name : {"127.0.0.1", "127.0.0.1:3240", "[::1]", "[::1]:3240"}) {
        std::string error;
        EXPECT_TRUE(UsbipServer::Resolve(name, error)) << name << ": " << error;
    }
    for (const char* name : {"", ":3240", "127.0.0.1:", "127.0.0.1:usb", "[::1", "[::1]3240"}) {
        std::string error;
        EXPECT_FALSE(UsbipServer::Resolve(name, error)) << name;
        EXPECT_NE(error, "") << name;
    }
}

}  // namespace
}  // namespace remote::test
