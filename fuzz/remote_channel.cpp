// The remote side's channel: the host's bytes into a session with a disk. In the first byte, bit 0
// asks for compression and bit 1 leaves the version response to the rest, which is the stream.
#include <poll.h>
#include <sys/socket.h>

#include <list>

#include "fakes/Messages.h"
#include "fuzz/ScratchDisk.h"
#include "remote/channel/MessageReader.h"
#include "remote/channel/Session.h"

namespace {

// Each message in memory of its own size, where reading past its end is noticed.
void decode(std::string_view stream) {
    remote::MessageReader reader;
    while (!stream.empty() && reader.Error().empty()) {
        const remote::ByteSpan space = reader.Input().Space();
        const std::size_t size = stream.copy(reinterpret_cast<char*>(space.data()), space.size());
        reader.Input().Advance(size);
        stream.remove_prefix(size);
        for (remote::ByteView whole; !(whole = reader.Next()).empty();) {
            const remote::Bytes alone(whole.begin(), whole.end());
            remote::Message message;
            if (!remote::DecodeMessage(alone, message).empty()) return;
            const remote::Command& command = message.command;
            const remote::Bytes pdu(command.pdu.begin(), command.pdu.end());
            Require(message.type != kUsbipForward || pdu.size() == sizeof(usbip_header) +
                                                                       command.data.size() +
                                                                       command.packets.size(),
                    "a PDU is its header, its data and its packets");
        }
    }
}

// Lets the session work, and takes what it sends, until it has nothing more to do.
void settle(remote::Session& session, int host) {
    char scrap[65536];
    while (!session.Over()) {
        while (recv(host, scrap, sizeof scrap, MSG_DONTWAIT) > 0) {
        }
        pollfd fds[] = {{session.ReadableFd(), POLLIN, 0}, {session.WritableFd(), POLLOUT, 0}};
        if (poll(fds, 2, 0) <= 0) return;
        if (fds[0].revents != 0) session.OnReadable();
        if (fds[1].revents != 0 && !session.Over()) session.OnWritable();
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const auto options = input.Number<std::uint8_t>();
    std::list<remote::Slot> slots;
    slots.push_back({.device = ScratchDisk(remote::UsbSpeed::kHigh), .number = 1});
    const NothingLeftBehind check;

    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0,
            "a socket pair");
    posix::UniqueFd host(ends[1]);
    remote::Session session({posix::UniqueFd(ends[0]), {}}, slots, (options & 1) != 0);

    std::string stream;
    if ((options & 2) == 0) {
        stream = Message(kUsbipVersionRsp, Bytes(kUsbipProtocolVersion));
    }
    stream += input.Rest();
    decode(stream);
    for (std::string_view left = stream; !left.empty() && !session.Over();) {
        const ssize_t sent = send(host.Get(), left.data(), left.size(), MSG_NOSIGNAL);
        if (sent > 0) left.remove_prefix(static_cast<std::size_t>(sent));
        settle(session, host.Get());
    }
    settle(session, host.Get());
    host = posix::UniqueFd();
    settle(session, -1);
    Require(session.Over(), "the end of the connection ends the session");
    return 0;
}
