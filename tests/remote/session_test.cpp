// A scripted host against the server: over a socket pair and over a real Unix socket.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Pdus.h"
#include "remote/Channel.h"
#include "remote/DiskImage.h"
#include "remote/Listener.h"
#include "remote/Server.h"
#include "remote/UsbDisk.h"
#include "support/Patience.h"

namespace remote::test {
namespace {

constexpr int kPatienceMs = static_cast<int>(kPatience.count()) * 1000;

Bytes ForwardMessage(std::uint32_t devid, const Bytes& pdu, bool compress = false) {
    OutputQueue queue;
    queue.PushForward(devid, pdu, compress);
    std::array<iovec, 3> vectors{};
    queue.Gather(vectors);
    Bytes message;
    for (const iovec& vector : vectors) {
        const auto* data = static_cast<const std::uint8_t*>(vector.iov_base);
        message.insert(message.end(), data, data + vector.iov_len);
    }
    return message;
}

// The client's side of the channel, as far as a script needs it.
class ScriptedHost {
  public:
    ScriptedHost() = default;
    explicit ScriptedHost(FileDescriptor socket) : socket_(std::move(socket)) {}

    void Send(const Bytes& bytes) const {
        EXPECT_EQ(send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Whether something, or the end, comes within `milliseconds`.
    bool Comes(int milliseconds) const { return Ready(POLLIN, milliseconds); }
    bool Ready(short events, int milliseconds) const {
        pollfd fd{socket_.Get(), events, 0};
        return poll(&fd, 1, milliseconds) == 1;
    }
    // The next message; empty at the end of the connection.
    Bytes Receive() const {
        Bytes message = Exactly(sizeof(_MESSAGE_HEADER));
        if (message.empty()) return message;
        const Bytes rest = Exactly(LoadLe32(message.data()));
        message.insert(message.end(), rest.begin(), rest.end());
        return message;
    }
    std::uint32_t Expect(UsbipMessageType type) const {  // returns the message's first field
        const Bytes message = Receive();
        if (message.size() < 20) {
            ADD_FAILURE() << "the connection ended instead of message " << type;
            return 0;
        }
        EXPECT_EQ(message[12], type);
        return LoadLe32(&message[16]);
    }
    bool Ended() const { return Receive().empty(); }

    std::uint32_t Greet() const {  // returns the flags of the version request
        const std::uint32_t flags = Expect(kUsbipVersionReq);
        usbip_version_rsp response{};
        response.head = MakeMessageHead(kUsbipVersionRsp, sizeof response);
        response.version = kUsbipProtocolVersion;
        Bytes bytes(sizeof response);
        StoreRaw(bytes.data(), response);
        Send(bytes);
        return flags;
    }
    void ReportEnd(std::uint32_t devid) const { Send(EncodeDevUnmap(devid)); }

    void Forward(std::uint32_t devid, const Bytes& pdu, bool compress = false) const {
        Send(ForwardMessage(devid, pdu, compress));
    }
    // The next reply, which must be of this device. `compressed`: how it came.
    ReplyFields Reply(std::uint32_t devid, bool* compressed = nullptr) const {
        const Bytes message = Receive();
        if (message.size() < kForwardOverhead || message[12] != kUsbipForward) {
            ADD_FAILURE() << "no forward but " << message.size() << " bytes";
            return {};
        }
        EXPECT_EQ(LoadLe32(&message[16]), devid);
        const std::uint32_t datasize = LoadLe32(&message[20]);
        const std::uint32_t rawsize = LoadLe32(&message[24]);
        EXPECT_EQ(message.size(), datasize + kForwardOverhead);
        if (compressed != nullptr) *compressed = rawsize != 0;
        Bytes pdu(message.begin() + sizeof(usbip_forward), message.end() - kForwardFiller);
        if (rawsize != 0) {
            Bytes raw(rawsize);
            uLongf size = rawsize;
            EXPECT_EQ(uncompress(raw.data(), &size, pdu.data(), pdu.size()), Z_OK);
            pdu = raw;
        }
        return ParseReply(pdu);
    }

    // Runs one bulk-only command with `data` to write, or `length` bytes to read.
    Bytes Transfer(std::uint32_t devid, const Bytes& block, const Bytes& data, std::uint32_t length,
                   bool compress) const {
        const std::uint32_t direction = data.empty() ? kIn : kOut;
        const auto size = data.empty() ? length : static_cast<std::uint32_t>(data.size());
        Forward(devid, Bulk(11, Cbw(size, direction, block)));
        EXPECT_EQ(Reply(devid).status, 0);
        Forward(devid, data.empty() ? Bulk(12, length) : Bulk(12, data), compress);
        bool compressed = false;
        const ReplyFields moved = Reply(devid, &compressed);
        EXPECT_EQ(compressed, compress && data.empty());
        EXPECT_EQ(moved.actual, size);
        Forward(devid, Bulk(13, 13));
        const ReplyFields csw = Reply(devid);
        EXPECT_TRUE(csw.data.size() == 13 && csw.data[12] == 0) << "command failed";
        return moved.data;
    }
    void Configure(std::uint32_t devid) const {
        Forward(devid, Submit{.seqnum = 9, .direction = kOut, .setup = {0x00, 9, 1}}.Pdu());
        EXPECT_EQ(Reply(devid).status, 0);
    }

    static Bytes Bulk(std::uint32_t seqnum, const Bytes& data) {
        return Submit{.seqnum = seqnum, .endpoint = 2, .direction = kOut, .data = data}.Pdu();
    }
    static Bytes Bulk(std::uint32_t seqnum, std::uint32_t length) {
        return Submit{.seqnum = seqnum, .endpoint = 1, .length = length}.Pdu();
    }

  private:
    Bytes Exactly(std::size_t size) const {
        Bytes bytes(size);
        for (std::size_t at = 0; at < size;) {
            const ssize_t count =
                Comes(kPatienceMs) ? recv(socket_.Get(), &bytes[at], size - at, 0) : -1;
            if (count <= 0) {
                EXPECT_TRUE(count == 0 || errno == ECONNRESET) << "nothing more came";
                return {};
            }
            at += static_cast<std::size_t>(count);
        }
        return bytes;
    }

    FileDescriptor socket_;
};

class SessionTest : public testing::Test {
  protected:
    // Serves `disks` disks over a socket pair on a thread of its own.
    ScriptedHost Serve(bool compress = false, int disks = 1) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        FileDescriptor ours(ends[0]);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        MakeServer(compress, disks);
        thread_ = std::thread([this, theirs = ends[1]] {
            result_ = server_->Run(HostLink{FileDescriptor(theirs), {}});
        });
        return ScriptedHost(std::move(ours));
    }

    void Listen(const std::string& path) {
        std::string error;
        listener_ = Listener::Open("unix:" + path, error);
        ASSERT_TRUE(listener_) << error;
        MakeServer(false, 1);
        thread_ = std::thread([this] { result_ = server_->Run(*listener_); });
    }

    void MakeServer(bool compress, int disks) {
        int commands[2];
        int answers[2];
        EXPECT_TRUE(pipe(commands) == 0 && pipe(answers) == 0);
        commands_from_ = FileDescriptor(commands[0]);
        commands_to_ = FileDescriptor(commands[1]);
        answers_from_ = FileDescriptor(answers[0]);
        answers_to_ = FileDescriptor(answers[1]);
        std::vector<std::unique_ptr<Device>> devices;
        for (int i = 1; i <= disks; ++i) {
            std::string error;
            auto image = DiskImage::Open(scratch_.Image(), false, error);
            ASSERT_TRUE(image) << error;
            devices.push_back(std::make_unique<UsbDisk>(
                std::move(*image), UsbSpeed::kHigh, "disk" + std::to_string(i), "0123456789AB"));
        }
        server_ =
            std::make_unique<Server>(std::move(devices), compress,
                                     Server::Controls{-1, commands_from_.Get(), answers_to_.Get()});
    }

    void Command(const std::string& command) const {
        dprintf(commands_to_.Get(), "%s\n", command.c_str());
    }
    // Types a command; returns the first line of the answer.
    std::string Type(const std::string& command) const {
        Command(command);
        return Answer();
    }
    std::string Answer() const {
        std::string line;
        pollfd fd{answers_from_.Get(), POLLIN, 0};
        for (char c = 0; poll(&fd, 1, kPatienceMs) == 1 && read(fd.fd, &c, 1) == 1 && c != '\n';) {
            line += c;
        }
        return line;
    }

    bool Finish() {  // waits for the server; returns its verdict
        thread_.join();
        return result_;
    }
    void TearDown() override {
        if (thread_.joinable()) {
            Command("quit");  // nobody answers when the server has ended with its host
            thread_.join();
        }
    }

    Scratch scratch_;
    FileDescriptor commands_from_, commands_to_, answers_from_, answers_to_;
    std::unique_ptr<Listener> listener_;
    std::unique_ptr<Server> server_;
    std::thread thread_;
    bool result_ = false;
};

TEST_F(SessionTest, WritesAndReadsBackPlainAndCompressed) {
    for (const bool compress : {false, true}) {
        SCOPED_TRACE(compress ? "compressed" : "plain");
        const ScriptedHost host = Serve(compress);
        EXPECT_EQ(host.Greet(), compress ? 1U : 0U);
        const std::uint32_t devid = host.Expect(kUsbipDevMap);
        host.Configure(devid);
        const Bytes data = Pattern(64 * 512, compress ? 5 : 9);
        host.Transfer(devid, Write10(16, 64), data, 0, compress);
        EXPECT_EQ(scratch_.Content(16 * 512, data.size()), data);
        const auto length = static_cast<std::uint32_t>(data.size());
        EXPECT_EQ(host.Transfer(devid, Read10(16, 64), {}, length, compress), data);
        const Stopwatch elapsed;
        EXPECT_EQ(Type("quit"), "quitting");
        EXPECT_EQ(host.Expect(kUsbipDevUnmap), devid);
        host.ReportEnd(devid);
        EXPECT_TRUE(host.Ended());
        EXPECT_TRUE(Finish());
        EXPECT_LT(elapsed.Milliseconds(), 1500) << "waited for a confirmation that had come";
    }
}

TEST_F(SessionTest, UnplugUnmapsAndPlugMapsWithAFreshId) {
    const ScriptedHost host = Serve(false, 2);
    host.Greet();
    EXPECT_EQ(host.Expect(kUsbipDevMap), 1U);
    EXPECT_EQ(host.Expect(kUsbipDevMap), 2U);
    EXPECT_EQ(Type("unplug 1"), "unplugged 1");
    EXPECT_EQ(host.Expect(kUsbipDevUnmap), 1U);
    EXPECT_EQ(Type("plug 1"), "plugged 1");
    EXPECT_EQ(host.Expect(kUsbipDevMap), 3U);
    // What was on its way for the old mapping, its end included, does not reach the new one.
    host.Forward(1, UnlinkPdu(50, 49));
    host.ReportEnd(1);
    host.Forward(3, UnlinkPdu(52, 51));
    EXPECT_EQ(host.Reply(3).seqnum, 52U);
    EXPECT_EQ(Type("list"), "1 mapped disk1");
    EXPECT_EQ(Answer(), "2 mapped disk2");
    for (const std::string number : {"0", "3", "-1", "1x", ""})
        EXPECT_EQ(Type("unplug " + number), "error: no device " + number);
    EXPECT_EQ(Type("eject 1").substr(0, 22), "error: unknown command");
}

TEST_F(SessionTest, ADeviceThatEndedAtTheHostIsUnmappedAndCanComeBack) {
    const ScriptedHost host = Serve();
    host.Greet();
    EXPECT_EQ(host.Expect(kUsbipDevMap), 1U);
    host.ReportEnd(1);
    EXPECT_EQ(host.Expect(kUsbipDevUnmap), 1U);
    EXPECT_EQ(Type("list"), "1 plugged disk1");
    EXPECT_EQ(Type("plug 1"), "plugged 1");
    EXPECT_EQ(host.Expect(kUsbipDevMap), 2U);
    EXPECT_FALSE(host.Comes(0));
}

// The host asks for far more than it reads: the server must stop reading, hoard no replies and lose
// none.
TEST_F(SessionTest, AHostThatDoesNotReadIsNotReadFromEither) {
    constexpr std::uint32_t kLength = Scratch::kBlocks * 512;
    constexpr std::uint32_t kMany = 4000;  // 500 MiB of replies
    const ScriptedHost host = Serve();
    host.Greet();
    host.Expect(kUsbipDevMap);
    host.Configure(1);
    std::uint32_t rounds = 0;
    for (; rounds < kMany && host.Ready(POLLOUT, 300); ++rounds) {
        host.Forward(1, ScriptedHost::Bulk(3 * rounds, Cbw(kLength, kIn, Read10(0, 256))));
        host.Forward(1, ScriptedHost::Bulk(3 * rounds + 1, kLength));
        host.Forward(1, ScriptedHost::Bulk(3 * rounds + 2, 13));
    }
    EXPECT_LT(rounds, kMany) << "all of them were read";
    for (std::uint32_t i = 0; i < 3 * rounds; ++i)
        ASSERT_EQ(host.Reply(1).seqnum, i);
}

ScriptedHost Connect(const std::string& path) {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return ScriptedHost(std::move(socket));
}

TEST_F(SessionTest, TheNextHostIsServedWhenTheFirstHasGone) {
    const std::string path = scratch_.Path("socket");
    // A socket that a killed program left behind does not stand in the way.
    {
        const FileDescriptor stale(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(stale.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    Listen(path);
    std::string error;
    EXPECT_FALSE(Listener::Open("unix:" + path, error)) << "a living one does";
    auto first = std::make_unique<ScriptedHost>(Connect(path));
    first->Greet();
    EXPECT_EQ(first->Expect(kUsbipDevMap), 1U);
    first->Configure(1);
    first->Forward(1, ScriptedHost::Bulk(20, 13));  // left waiting for ever

    const ScriptedHost second = Connect(path);
    EXPECT_EQ(Type("list"), "1 mapped disk1");
    EXPECT_FALSE(second.Comes(0)) << "waits in the backlog";
    first.reset();
    second.Greet();
    EXPECT_EQ(second.Expect(kUsbipDevMap), 1U);
    second.Configure(1);
    EXPECT_EQ(second.Transfer(1, Read10(0, 1), {}, 512, false), scratch_.Content(0, 512));
    EXPECT_EQ(Type("quit"), "quitting");
    EXPECT_EQ(second.Expect(kUsbipDevUnmap), 1U);
    second.ReportEnd(1);
    EXPECT_TRUE(Finish());
}

TEST_F(SessionTest, AHostileHostEndsItsConnectionAndNothingElse) {
    const std::string path = scratch_.Path("socket");
    Listen(path);
    Bytes other_channel = EncodeDevUnmap(1);
    other_channel[4] = 9;
    const struct {
        const char* name;
        bool greets;
        Bytes message;
    } cases[] = {
        {"noise instead of a version", false, Bytes(64, 'G')},
        {"length of 4 GiB", true, Bytes(64, 0xFF)},
        {"other channel", true, other_channel},
        {"a message of ours", true, EncodeVersionReq(false)},
        {"a PDU that is none", true, ForwardMessage(1, Bytes(47))},
        {"the same for no device", true, ForwardMessage(99, Bytes(47))},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        const ScriptedHost host = Connect(path);
        if (one.greets) {
            host.Greet();
            EXPECT_EQ(host.Expect(kUsbipDevMap), 1U);
            host.Configure(1);
        } else {
            host.Expect(kUsbipVersionReq);
        }
        host.Send(one.message);
        EXPECT_TRUE(host.Ended());
    }
    const ScriptedHost next = Connect(path);
    next.Greet();
    EXPECT_EQ(next.Expect(kUsbipDevMap), 1U);
    next.Configure(1);
    EXPECT_EQ(next.Transfer(1, Read10(0, 1), {}, 512, false), scratch_.Content(0, 512));
    EXPECT_EQ(Type("quit"), "quitting");
    EXPECT_EQ(next.Expect(kUsbipDevUnmap), 1U);
    EXPECT_TRUE(next.Ended()) << "soon, without the confirmation";
    EXPECT_TRUE(Finish());
}

}  // namespace
}  // namespace remote::test
