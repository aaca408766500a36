#include "bench/relay/Relay.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "fakes/Messages.h"
#include "fakes/Patience.h"

namespace {

// Ours is closed in the relay, the other one is inherited by it.
posix::UniqueFd Pair(posix::UniqueFd& theirs) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "a socket pair can be made");
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    theirs = posix::UniqueFd(ends[1]);
    return posix::UniqueFd(ends[0]);
}

void BoundWaits(int socket) {
    const timeval patience{kPatience.count(), 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

posix::UniqueFd ReceiveDescriptor(int control) {
    char byte = 0;
    iovec part{&byte, 1};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    Require(recvmsg(control, &message, MSG_CMSG_CLOEXEC) == 1 && CMSG_FIRSTHDR(&message) != nullptr,
            "the relay has the kernel's socket");
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof descriptor);
    return posix::UniqueFd(descriptor);
}

}  // namespace

Relay::Relay(const RelayOptions& options) {
    posix::UniqueFd control, stream;
    control_ = Pair(control);
    stream_ = Pair(stream);
    std::vector<std::string> words = options.wrapper;
    words.insert(words.end(),
                 {std::filesystem::read_symlink("/proc/self/exe").string(), kServe, options.what,
                  std::to_string(control.Get()), std::to_string(stream.Get()),
                  std::to_string(options.devices), options.counted ? "counted" : ""});
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    process_ = fork();
    Require(process_ >= 0, "a process can be made");
    if (process_ == 0) {
        if (options.counted) setenv("LD_PRELOAD", XJ_OBSERVE, 1);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    BoundWaits(control_.Get());
    BoundWaits(stream_.Get());
    for (std::uint32_t device = 0; device < options.devices; ++device) {
        const std::string map = MapMessage(device);
        Require(options.what == kLean || send(stream_.Get(), map.data(), map.size(),
                                              MSG_NOSIGNAL) == static_cast<ssize_t>(map.size()),
                "the relay takes a map");
        kernels_.push_back(ReceiveDescriptor(control_.Get()));
        BoundWaits(kernels_.back().Get());
    }
}

Relay::~Relay() {
    control_ = {};
    int status = -1;
    Require(waitpid(process_, &status, 0) == process_ && status == 0, "the relay ends well");
}

Counts Relay::Count() const {
    Counts counts;
    Require(send(control_.Get(), "", 1, MSG_NOSIGNAL) == 1 &&
                recv(control_.Get(), &counts, sizeof counts, MSG_WAITALL) == sizeof counts,
            "the relay tells its counts");
    return counts;
}

std::vector<int> Relay::Kernels() const {
    std::vector<int> sockets;
    for (const auto& kernel : kernels_)
        sockets.push_back(kernel.Get());
    return sockets;
}
