// A server of ours on a thread of its own, and who talks to it, played by the test: hosts, and the
// person at the terminal.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <memory>
#include <thread>

#include "Pdus.h"
#include "fakes/Patience.h"
#include "remote/Server.h"
#include "remote/io/Listener.h"

namespace remote::test {

// A connected socket. Every wait ends with a failure at last, and after it all that follow at once.
class Peer : public posix::UniqueFd {
  public:
    Peer() = default;
    explicit Peer(int fd) : posix::UniqueFd(fd) {
        const timeval patience{kPatience.count(), 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }
    std::string Read(std::size_t size) const {
        std::string bytes(size, '\0');
        ExpectAll(recv(Get(), bytes.data(), size, MSG_WAITALL), size, "received");
        return bytes;
    }
    void Write(std::string_view bytes) const {
        ExpectAll(send(Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), bytes.size(), "sent");
    }
    // Returns what is left when nobody has read for a while.
    std::string_view WriteUntilStuck(std::string_view bytes) const {
        pollfd writable{Get(), POLLOUT, 0};
        while (!bytes.empty() && poll(&writable, 1, 500) == 1) {
            const ssize_t count = send(Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (count <= 0) break;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        return bytes;
    }
    // Something to be read, or the end.
    bool Comes(std::chrono::milliseconds in_time = kPatience) const {
        pollfd readable{Get(), POLLIN, 0};
        return poll(&readable, 1, static_cast<int>(in_time.count())) == 1;
    }
    bool Closed() const {  // by the other side, now or soon; unread bytes do not count
        char unread[65536];
        while (recv(Get(), unread, sizeof unread, 0) > 0)
            continue;
        return recv(Get(), unread, sizeof unread, 0) == 0;
    }

  private:
    void ExpectAll(ssize_t count, std::size_t size, const char* what) const {
        if (count == static_cast<ssize_t>(size)) return;
        ADD_FAILURE() << count << " of " << size << " bytes " << what;
        shutdown(Get(), SHUT_RDWR);
    }
};

// The client's side of the channel, as far as a script needs it.
class Host : public Peer {
  public:
    using Peer::Peer;

    // The next message, which must be of this type.
    template <typename T>
    T Next(UsbipMessageType type) const {
        const T message = Parse<T>(Read(sizeof(T)));
        EXPECT_EQ(message.head.inner.type, type);
        return message;
    }
    std::uint32_t Greet() const {  // returns the flags of the version request
        const std::uint32_t flags = Next<usbip_version_req>(kUsbipVersionReq).flags;
        Write(::Message(kUsbipVersionRsp, ::Bytes(kUsbipProtocolVersion)));
        return flags;
    }
    usbip_dev_map Mapped() const { return Next<usbip_dev_map>(kUsbipDevMap); }
    std::uint32_t Unmapped() const { return Next<usbip_dev_unmap>(kUsbipDevUnmap).devid; }
    void Forward(std::uint32_t id, std::string_view pdu) const { Write(ForwardMessage(id, pdu)); }
    // The data of the next forward, which must be of this device.
    std::string Reply(std::uint32_t devid, std::size_t rawsize = 0) const {
        const auto forward = Next<usbip_forward>(kUsbipForward);
        EXPECT_EQ(forward.devid, devid);
        EXPECT_EQ(forward.rawsize, rawsize);
        const std::size_t size = std::min<std::size_t>(forward.datasize, 1 << 26);
        return Read(size + kForwardFiller).substr(0, size);
    }
};

class ServerTest : public testing::Test {
  protected:
    ServerTest() { signal(SIGPIPE, SIG_IGN); }
    ~ServerTest() override {
        host_ = Host();
        Type("quit");  // nobody reads it when the server has ended with its host
    }

    // Serves `devices_`, if there are new ones, to whoever comes to `listener_` or has this link.
    void Serve(HostLink link = {}, bool compress = false) {
        const Server::Controls controls{-1, controls_.Get(), controls_.Get()};
        if (!devices_.empty())
            server_ = std::make_unique<Server>(std::exchange(devices_, {}), compress, controls);
        thread_ = std::jthread([this, link = std::move(link)]() mutable {
            served_ = listener_ ? server_->Run(*listener_) : server_->Run(std::move(link));
        });
    }
    // Serves one host at a socket pair, `host_`. Returns the flags of the version request.
    std::uint32_t ServeHost(bool compress = false) {
        const auto [ours, theirs] = Pair();
        fcntl(theirs, F_SETFL, O_NONBLOCK);
        host_ = Host(ours);
        Serve({posix::UniqueFd(theirs), {}}, compress);
        return host_.Greet();
    }
    bool Finish() {  // waits for the server's end and returns its verdict
        thread_ = std::jthread();
        return served_;
    }

    void Type(const std::string& command) const { terminal_.Write(command + '\n'); }
    void ExpectAnswer(const std::string& command, const std::string& lines) const {
        Type(command);
        EXPECT_EQ(terminal_.Read(lines.size() + 1), lines + '\n') << command;
    }

    Host host_;
    std::vector<std::unique_ptr<Device>> devices_;
    std::unique_ptr<Listener> listener_;

  private:
    static std::pair<int, int> Pair() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        return {ends[0], ends[1]};
    }
    const std::pair<int, int> ends_ = Pair();
    const Peer terminal_{ends_.first};
    const posix::UniqueFd controls_{ends_.second};
    std::unique_ptr<Server> server_;
    bool served_ = false;
    std::jthread thread_;  // last: it ends before what it uses
};

}  // namespace remote::test
