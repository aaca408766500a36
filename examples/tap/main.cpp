// The kit between a host and a remote side that know nothing of it: tells what is mapped and what
// ends, and keeps devices away that rules refuse. A host that embeds the module does the same with
// the stream that it lends.
//   tap HOST PORT [RULE...]    connects there for one host, which comes to the port that is printed
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <xj-client-usbip/kit/Rules.h>
#include <xj-client-usbip/kit/Tap.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

// Reading and writing fail when the remote side has gone.
class RemoteSide final : public IPluginStreamRaw, CReference {
  public:
    explicit RemoteSide(int socket) : socket_(socket) {}
    ~RemoteSide() override { close(socket_); }
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void Reserved1() override {}
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long) override {
        return Moved(recv(socket_, buf, len, 0), got);
    }
    int Write(const void* data, unsigned long len, unsigned long* written, unsigned long) override {
        return Moved(send(socket_, data, len, MSG_NOSIGNAL), written);
    }
    void End() { shutdown(socket_, SHUT_RDWR); }

  private:
    static int Moved(ssize_t count, unsigned long* bytes) {
        *bytes = static_cast<unsigned long>(count > 0 ? count : 0);
        return count > 0 ? 0 : -1;
    }
    const int socket_;
};

class Events final : public xj_usbip::ITapEvents {
  public:
    explicit Events(const xj_usbip::Rules& rules) : rules_(rules) {}

    bool OnMap(const xj_usbip::RemoteDevice& device) override {
        const auto decision = rules_.Decide(device);
        // Interfaces are not known here: a rule that goes by class keeps the device away.
        const bool allowed = decision.verdict == xj_usbip::Rules::Verdict::Allow;
        std::printf("%s: %s\n", allowed ? "mapped" : "refused", Describe(device).c_str());
        return allowed;
    }
    void OnUnmap(std::uint32_t id) override { std::printf("unmapped: %u\n", id); }
    void OnEnd(std::uint32_t id) override { std::printf("ended: %u\n", id); }

  private:
    const xj_usbip::Rules& rules_;
};

int connected_to(const char* host, const char* port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, port, &hints, &found) != 0) return -1;
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int result = connect(fd, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    return result == 0 ? fd : -1;
}

// The host that comes first.
int accepted() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener, any, size) != 0 || listen(listener, 1) != 0) return -1;
    getsockname(listener, any, &size);
    std::printf("listening on 127.0.0.1:%d\n", ntohs(address.sin_port));
    const int host = accept(listener, nullptr, nullptr);
    close(listener);
    return host;
}

// A tap wants whole messages to be written: the host's are put together first.
void pass_to_remote(int host, xj_usbip::Tap& tap) {
    std::vector<char> message(8);
    const auto receive = [&](std::size_t begin) {
        const std::size_t size = message.size() - begin;
        return size == 0 ||
               recv(host, message.data() + begin, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    };
    while (receive(0)) {
        const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(message[i]); };
        const std::size_t length =
            byte(0) | byte(1) << 8 | byte(2) << 16;  // 16 MiB are enough here
        message.resize(8 + length);
        if (byte(3) != 0 || !receive(8)) return;
        unsigned long written = 0;
        for (std::size_t at = 0; at < message.size(); at += written)
            if (tap.Write(message.data() + at, message.size() - at, &written, 0) != 0) return;
        message.resize(8);
    }
}

}  // namespace

int main(int argc, char** argv) {
    setlinebuf(stdout);
    xj_usbip::Rules rules;
    std::string error;
    for (int i = 3; i < argc; ++i) {
        if (rules.Add(argv[i], error)) continue;
        std::fprintf(stderr, "tap: %s\n", error.c_str());
        return 2;
    }
    const int remote = argc > 2 ? connected_to(argv[1], argv[2]) : -1;
    const int host = remote >= 0 ? accepted() : -1;
    if (host < 0) {
        std::fprintf(stderr, "tap: usage: tap HOST PORT [RULE...]\n");
        return 1;
    }
    Events events(rules);
    const CRefObj<RemoteSide> stream = new RemoteSide(remote);
    const CRefObj<xj_usbip::Tap> tap = new xj_usbip::Tap(stream.Get(), events);
    std::thread to_remote([&] {
        pass_to_remote(host, *tap);
        stream->End();
    });
    char bytes[65536];
    for (unsigned long got = 0; tap->Read(bytes, sizeof bytes, &got, 0) == 0;) {
        if (send(host, bytes, got, MSG_NOSIGNAL) != static_cast<ssize_t>(got)) break;
    }
    shutdown(host, SHUT_RDWR);
    to_remote.join();
    close(host);
    return 0;
}
