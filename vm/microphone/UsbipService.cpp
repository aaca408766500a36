#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

#include "posix/Wait.h"
#include "vm/microphone/Microphone.h"
#include "vm/microphone/Services.h"
#include "wire/UsbipPdu.h"
#include "wire/UsbipServer.h"

namespace remote {
namespace {

// No driver of this device sends longer ones: URBs have 8 packets.
constexpr std::uint64_t kMaxCommand = 4096;

// For a client to finish what it has begun to say, and to take what we say.
constexpr timeval kPatience{10, 0};

template <typename... Parts>
Bytes joined(const Parts&... parts) {
    Bytes bytes((sizeof parts + ...));
    std::size_t at = 0;
    (StoreRaw(&bytes[std::exchange(at, at + sizeof parts)], parts), ...);
    return bytes;
}

void receive(int fd, void* to, std::size_t size) {
    if (size != 0 && recv(fd, to, size, MSG_WAITALL) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("the client has gone or stalls");
    }
}

void say(int fd, const Bytes& bytes) {
    if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("the client does not listen");
    }
}

Bytes receive_command(int fd) {
    usbip_header header;
    receive(fd, &header, sizeof header);
    const std::uint32_t command = be32toh(header.command);
    if (command != USBIP_CMD_SUBMIT && command != USBIP_CMD_UNLINK) {
        throw std::runtime_error("the client sends command " + std::to_string(command));
    }
    const std::uint64_t size = command == USBIP_CMD_SUBMIT ? UsbipCmdSubmitLength(header).Total()
                                                           : UsbipPduLength{}.Total();
    if (size > kMaxCommand) {
        throw std::runtime_error("the client sends " + std::to_string(size) + " bytes");
    }
    Bytes pdu(size);
    StoreRaw(pdu.data(), header);
    receive(fd, pdu.data() + sizeof header, size - sizeof header);
    return pdu;
}

[[noreturn]] void serve_device(int fd, const Lies& lies) {
    Microphone microphone(lies);
    for (;;) {
        int timeout = -1;
        if (const auto due = microphone.Due()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now());
            timeout = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
        }
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, timeout) > 0) {
            const Bytes pdu = receive_command(fd);
            Command command;
            const std::string error = DecodeCommand(pdu, command);
            if (!error.empty()) throw std::runtime_error("the client sends a " + error);
            say(fd, microphone.TakeCommand(command));
        }
        const auto due = microphone.Due();
        if (due && *due <= Clock::now()) say(fd, microphone.TakeRecording());
    }
}

void serve(int fd, const Lies& lies) {
    const usbip_op_device device = MicrophoneRecord();
    const auto reply_head = [](UsbipOperation code, UsbipOperationStatus status) {
        return usbip_op_header{htobe16(kUsbipServerVersion), htobe16(code), htobe32(status)};
    };
    usbip_op_import_request request{};
    receive(fd, &request.head, sizeof request.head);
    if (be16toh(request.head.version) != kUsbipServerVersion) {
        throw std::runtime_error("the client speaks another version");
    }
    if (be16toh(request.head.code) == OP_REQ_DEVLIST) {
        constexpr usbip_op_interface kControl{0x01, 0x01, 0x00, 0x00};
        constexpr usbip_op_interface kStreaming{0x01, 0x02, 0x00, 0x00};
        return say(
            fd, joined(usbip_op_devlist_reply{reply_head(OP_REP_DEVLIST, USBIP_ST_OK), htobe32(1)},
                       device, kControl, kStreaming));
    }
    if (be16toh(request.head.code) != OP_REQ_IMPORT) {
        throw std::runtime_error("the client has an unknown request");
    }
    receive(fd, request.busid, sizeof request.busid);
    if (!std::equal(std::begin(device.busid), std::end(device.busid), request.busid)) {
        say(fd, joined(reply_head(OP_REP_IMPORT, USBIP_ST_NODEV)));
        throw std::runtime_error("the client wants another device");
    }
    say(fd, joined(reply_head(OP_REP_IMPORT, USBIP_ST_OK), device));
    serve_device(fd, lies);
}

}  // namespace

void ServeUsbip(posix::Listener& listener, const Lies& lies) {
    for (;;) {
        posix::WaitFor(listener.Fd(), POLLIN, -1, -1);
        std::string error;
        const posix::UniqueFd client = listener.Accept(error);
        if (!client) continue;
        fcntl(client.Get(), F_SETFL, 0);  // blocking
        setsockopt(client.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
        setsockopt(client.Get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
        try {
            serve(client.Get(), lies);
        } catch (const std::runtime_error& end) {
            std::fprintf(stderr, "connection ends: %s\n", end.what());
        }
    }
}

}  // namespace remote
