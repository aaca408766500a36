#include "host/Greeting.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "posix/Error.h"
#include "posix/Wait.h"
#include "wire/ChannelMessages.h"

namespace host {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kLongestLine = 200;  // more of it would not help to recognise anybody
constexpr milliseconds kLookAgain{20};

usbip_message_head head_of(std::string_view bytes) {
    usbip_message_head head{};
    std::memcpy(&head, bytes.data(), std::min(bytes.size(), sizeof head));
    return head;
}

// As far as can be told from so many of its bytes.
bool may_be_message(std::string_view bytes) {
    const usbip_message_head head = head_of(bytes);
    if (bytes.size() <= offsetof(_MESSAGE_HEADER, type)) return true;
    if (head.outer.type != kUsbipChannel) return false;
    if (bytes.size() < sizeof head) return true;
    return head.outer.length >= sizeof head.inner &&
           head.inner.length <= head.outer.length - sizeof head.inner;
}

// Nothing as long as more bytes could tell more; `last`: there will be no more.
std::optional<Greeting> judge(std::string_view said, bool last) {
    if (may_be_message(said)) {
        const usbip_message_head head = head_of(said);
        const std::size_t size = sizeof head.outer + std::size_t{head.outer.length};
        if (said.size() >= sizeof head) return Greeting{Greeting::Kind::RemoteSide, {}, size};
        if (!last) return std::nullopt;
    }
    said.remove_prefix(std::min(said.find_first_not_of("\r\n"), said.size()));
    const std::string_view line = said.substr(0, said.find_first_of("\r\n"));
    if (line.size() == said.size() && said.size() < kLongestLine && !last) return std::nullopt;
    // The text for those that --listen turns away.
    const bool busy =
        line.starts_with("xj-usbip-remote: ") && line.find(" is served since ") != line.npos;
    return Greeting{busy ? Greeting::Kind::Busy : Greeting::Kind::Other, std::string(line)};
}

std::string quoted(const std::string& text) {
    return '"' + text + '"';
}

std::string explain_other(const std::string& line, const Target& target) {
    const bool tcp = target.address && target.address->kind == posix::Address::Kind::Tcp;
    if (line.starts_with("SSH-")) {
        return " is an SSH server, which says " + quoted(line) + ". Try --exec \"ssh " +
               (tcp ? target.address->name : "HOST") + " xj-usbip-remote --stdio ...\"";
    }
    const std::string advice =
        target.address ? "Try where `xj-usbip-remote --listen` listens"
                       : "Nothing but what `xj-usbip-remote --stdio` writes may come from it, no "
                         "greeting of a login script either";
    return (line.starts_with("HTTP/") ? " is an HTTP server" : " is no remote side") +
           std::string(": it says ") + quoted(line) + ". " + advice;
}

std::string explain_silence(const Target& target) {
    if (!target.address) {
        return " has written nothing yet. Is it a remote side, as \"ssh HOST xj-usbip-remote "
               "--stdio ...\" is, and does it wait for a password?";
    }
    std::string silent = " says nothing, and `xj-usbip-remote --listen` would speak first";
    if (target.address->kind == posix::Address::Kind::Unix) return silent;
    return silent + ". Should it be a USB/IP server, have a remote side offer its devices: " +
           "xj-usbip-remote --listen ... --usbip " + Describe(target) + "/BUSID";
}

}  // namespace

Greeting AwaitGreeting(int socket, int stop, milliseconds patience) {
    using Kind = Greeting::Kind;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    const auto wait = [&](short events, milliseconds most) {
        const auto left = deadline - std::chrono::steady_clock::now();
        most = std::clamp(std::chrono::ceil<milliseconds>(left), milliseconds(0), most);
        return posix::WaitFor(socket, events, stop, static_cast<int>(most.count()));
    };
    posix::Wake wake = wait(POLLIN, patience);
    if (wake == posix::Wake::TimedOut) return {Kind::Silence, {}};
    for (bool last = false; wake != posix::Wake::Stopped;) {
        char bytes[kLongestLine];
        const ssize_t size = posix::Retry(
            [&] { return ::recv(socket, bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT); });
        if (size <= 0) return {Kind::Ended, size < 0 ? posix::ErrorText(errno) : ""};
        const auto greeting = judge({bytes, static_cast<std::size_t>(size)}, last);
        if (greeting) return *greeting;
        // Bytes that were left where they are hide those that follow; only the end has an event.
        wake = wait(POLLRDHUP, kLookAgain);
        last = wake == posix::Wake::Ready || std::chrono::steady_clock::now() >= deadline;
    }
    return {Kind::Stopped, {}};
}

std::string Explain(const Greeting& greeting, const Target& target) {
    switch (greeting.kind) {
        case Greeting::Kind::Busy:
            return Describe(target) + " is busy: " + greeting.text;
        case Greeting::Kind::Silence:
            return Describe(target) + explain_silence(target);
        default:
            return Describe(target) + explain_other(greeting.text, target);
    }
}

}  // namespace host
