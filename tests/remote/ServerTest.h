// A server of ours on a thread of its own, and who talks to it, played by the test: hosts, and the
// person at the terminal.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <semaphore>
#include <thread>

#include "Pdus.h"
#include "posix/Listener.h"
#include "posix/Peer.h"
#include "remote/Server.h"
#include "remote/device/Reply.h"

namespace remote::test {

using posix::test::Peer;

inline const std::string kGreeting = VersionResponse();

// The client's side of the channel, as far as a script needs it.
class Host : public Peer {
  public:
    using Peer::Peer;
    Host(Peer&& peer) : Peer(std::move(peer)) {}

    // The next message, which must be of this type.
    template <typename T>
    T Next(UsbipMessageType type) const {
        const T message = Parse<T>(Read(sizeof(T)));
        EXPECT_EQ(message.head.inner.type, type);
        return message;
    }
    std::uint32_t Greet() const {  // returns the flags of the version request
        const std::uint32_t flags = Next<usbip_version_req>(kUsbipVersionReq).flags;
        Write(kGreeting);
        return flags;
    }
    usbip_dev_map Mapped() const { return Next<usbip_dev_map>(kUsbipDevMap); }
    std::uint32_t Unmapped() const { return Next<usbip_dev_unmap>(kUsbipDevUnmap).devid; }
    void Forward(std::uint32_t id, std::string_view pdu) const { Write(ForwardMessage(id, pdu)); }
    // The PDU of the next forward, which must be of this device.
    std::string Reply(std::uint32_t devid, bool compressed = false) const {
        const auto forward = Next<usbip_forward>(kUsbipForward);
        EXPECT_EQ(forward.devid, devid);
        EXPECT_EQ(forward.rawsize != 0, compressed);
        const std::size_t size = std::min<std::size_t>(forward.datasize, 1 << 26);
        return CarriedPdu(::Bytes(forward) + Read(size + kForwardFiller));
    }
};

// Two connected sockets.
struct Link {
    Link() {
        std::tie(ours, theirs) = posix::test::ConnectedPair();
        fcntl(theirs.Get(), F_SETFL, O_NONBLOCK);
    }
    Host ours;
    posix::UniqueFd theirs;  // does not block
};

// Answers every URB at once, with as many bytes as there is room for.
class EagerDevice : public Device {
  public:
    // Endpoints: one that stalls; one whose command holds the server up and has no answer.
    static constexpr std::uint32_t kStalled = 15, kBusy = 14;
    static inline std::binary_semaphore busy{0}, go_on{0};

    explicit EagerDevice(const std::string& name) : info_{name, UsbSpeed::kSuper, 1, 2} {}
    ~EagerDevice() override { EXPECT_FALSE(Attached()) << "to a session that is gone"; }
    const DeviceInfo& Info() const override { return info_; }
    void Attach(ReplySink& sink) override { sink_ = &sink; }
    void Detach() override { sink_ = nullptr; }
    bool DataSafe() const override { return data_safe; }
    void TakeCommand(const Command& command) override {
        taken.append(command.pdu.begin(), command.pdu.end());
        if (command.endpoint == kBusy)
            return busy.release(), void(go_on.try_acquire_for(kPatience));
        if (command.unlinks) return sink_->Reply(RetUnlink(command.seqnum, 0));
        const int status = command.endpoint == kStalled ? -EPIPE : 0;
        remote::Bytes reply = RoomForReply();
        reply.resize(reply.size() + command.length, 'x');
        sink_->Reply(RetSubmit({command.seqnum, status, command.length}, std::move(reply)));
    }
    static std::string Answer(std::uint32_t seqnum, std::uint32_t length) {
        return SubmitReply(seqnum, length, std::string(length, 'x'));
    }

    bool Attached() const { return sink_ != nullptr; }

    static inline bool data_safe = true;
    std::string taken;  // the PDUs of all commands

  private:
    const DeviceInfo info_;
    ReplySink* sink_ = nullptr;
};

class ServerTest : public testing::Test {
  protected:
    ServerTest() {
        signal(SIGPIPE, SIG_IGN);
        EagerDevice::data_safe = true;
    }
    ~ServerTest() override {
        host_ = Host();
        terminal_.ours.Write("quit\n");  // nobody reads it when the server has ended with its host
    }

    // Serves `devices_`, if there are new ones, to whoever comes to `listener_` or has this link.
    void Serve(HostLink link = {}, bool compress = false) {
        const int terminal = terminal_.theirs.Get();
        const Server::Controls controls{signals_.theirs.Get(), terminal, terminal, control_.get()};
        if (!devices_.empty())
            server_ = std::make_unique<Server>(std::exchange(devices_, {}), compress, controls);
        thread_ = std::jthread([this, link = std::move(link)]() mutable {
            served_ = listener_ ? server_->Run(*listener_) : server_->Run(std::move(link));
        });
    }
    // Serves one host, `host_`. Returns the flags of the version request.
    std::uint32_t ServeHost(bool compress = false) {
        Link link;
        host_ = std::move(link.ours);
        posix::UniqueFd output(dup(link.theirs.Get()));
        Serve({std::move(link.theirs), std::move(output)}, compress);
        return host_.Greet();
    }
    bool Finish() {  // waits for the server's end and returns its verdict
        thread_ = std::jthread();
        return served_;
    }

    void ExpectAnswer(const std::string& command, const std::string& lines) const {
        terminal_.ours.Write(command + '\n');
        EXPECT_EQ(terminal_.ours.Read(lines.size() + 1), lines + '\n') << command;
    }
    void Signal(std::uint32_t number) const {
        signalfd_siginfo info{};
        info.ssi_signo = number;
        signals_.ours.Write(::Bytes(info));
    }

    Host host_;
    std::vector<std::unique_ptr<Device>> devices_;
    std::unique_ptr<posix::Listener> listener_;
    std::unique_ptr<Control> control_;

  private:
    const Link terminal_;
    const Link signals_;
    std::unique_ptr<Server> server_;
    bool served_ = false;
    std::jthread thread_;  // last: it ends before what it uses
};

}  // namespace remote::test
