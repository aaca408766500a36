#include "remote/Server.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <ctime>
#include <utility>
#include <vector>

#include "posix/Socket.h"
#include "posix/StandardStreams.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

constexpr std::size_t kMaxCommandLine = 256;  // longer ones are no command of ours

std::string time_of_day() {
    std::array<char, sizeof "23:59:59"> text{};
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::strftime(text.data(), text.size(), "%T", localtime_r(&now, &local));
    return text.data();
}

}  // namespace

Server::Server(std::vector<std::unique_ptr<Device>> devices, bool compress, Controls controls)
    : compress_(compress), controls_(controls) {
    for (auto& device : devices)
        Add(std::move(device));
}

bool Server::Run(posix::Listener& listener) {
    return Loop(&listener) && DataSafe();
}

bool Server::Run(HostLink link) {
    Log("host connected");
    session_ = std::make_unique<Session>(std::move(link), slots_, compress_);
    return Loop(nullptr) && DataSafe();
}

bool Server::DataSafe() const {
    return removed_safely_ && std::all_of(slots_.begin(), slots_.end(),
                                          [](const Slot& slot) { return slot.device->DataSafe(); });
}

bool Server::Loop(posix::Listener* listener) {
    std::vector<pollfd> fds;
    for (;;) {
        if (session_ && session_->Over()) {
            const bool failed = session_->Failed();
            session_.reset();
            if (listener == nullptr) return !failed;
        }
        if (quitting_ && !session_) return true;
        if (session_) session_->FollowDevices();

        const bool accepting = listener != nullptr && !quitting_;
        fds.assign({
            {controls_.signals, POLLIN, 0},
            {controls_.commands, POLLIN, 0},
            {accepting ? listener->Fd() : -1, POLLIN, 0},
            {session_ ? session_->ReadableFd() : -1, POLLIN | POLLRDHUP, 0},
            {session_ ? session_->WritableFd() : -1, POLLOUT, 0},
        });
        const std::size_t first_device = fds.size();
        for (const Slot& slot : slots_)
            fds.push_back(DevicePoll(*slot.device));
        const std::size_t first_client = fds.size();
        if (controls_.control != nullptr) controls_.control->Watch(fds);
        if (poll(fds.data(), fds.size(), PollTimeout()) < 0) {
            if (errno == EINTR) continue;
            Log("cannot wait for events: %s", ErrorText(errno).c_str());
            return false;
        }
        OnDevices(std::span(fds).subspan(first_device));
        if (controls_.control != nullptr) {  // may change which devices there are
            controls_.control->OnEvents(std::span(fds).subspan(first_client), *this);
        }
        if (fds[0].revents != 0) OnSignal();
        if (fds[1].revents != 0) OnCommands();
        if (session_) ServeSession(fds[3].revents, fds[4].revents);
        // Whoever comes when a host has left waits until the last that it sent is read.
        const bool leaving = (fds[3].revents & ~POLLIN) != 0 || (session_ && session_->Over());
        if (fds[2].revents != 0 && !leaving && !quitting_) {
            std::string error;
            Welcome(listener->Accept(error));
            if (!error.empty()) Log("%s", error.c_str());
        }
    }
}

void Server::ServeSession(short readable, short writable) {
    if (readable != 0 && !session_->Over()) session_->OnReadable();
    if (writable != 0 && !session_->Over()) session_->OnWritable();
    const auto deadline = session_->Deadline();
    if (deadline && Clock::now() >= *deadline) session_->OnDeadline();
    // Most of the time there is room, both ways: it is not waited for before that is known.
    session_->Send();
    for (Slot& slot : slots_)
        slot.device->Send();
}

// A second host is turned away at once: one that had to wait could not be told why, would take us
// for a server that hangs, and might wait for ever. The channel has no message for people, so the
// reason is a line of text, as from any server that is full; hosts with --reconnect try again.
void Server::Welcome(posix::UniqueFd host) {
    if (!host) return;
    const std::string name = posix::DescribePeer(host.Get());
    if (!session_) {
        Log("host connected: %s", name.c_str());
        served_ = name + " is served since " + time_of_day();
        session_ = std::make_unique<Session>(HostLink{std::move(host), {}}, slots_, compress_);
        return;
    }
    Log("%s turned away: %s", name.c_str(), served_.c_str());
    const std::string reason = "xj-usbip-remote: " + served_ + "\n";
    send(host.Get(), reason.data(), reason.size(), MSG_NOSIGNAL);  // it is empty: there is room
}

bool Server::Congested() const {
    return session_ && session_->Congested();
}

// Nothing is read from a device whose replies have no room: its own connection holds it back.
pollfd Server::DevicePoll(const Device& device) const {
    const int wanted = device.Events() & (Congested() ? POLLOUT : ~0);
    return {wanted != 0 ? device.Fd() : -1, static_cast<short>(wanted), 0};
}

// A device is not late while there is something to be read from it.
void Server::OnDevices(std::span<const pollfd> fds) {
    const bool read = !Congested();
    for (Slot& slot : slots_) {
        Device& device = *slot.device;
        const auto deadline = device.Deadline();
        const short events = fds.front().revents;
        fds = fds.subspan(1);
        if (events != 0) {
            device.OnEvents(events);
        } else if (read && deadline && Clock::now() >= *deadline) {
            device.OnDeadline();
        }
    }
}

int Server::PollTimeout() const {
    auto next = Clock::time_point::max();
    const auto consider = [&next](std::optional<Clock::time_point> deadline) {
        next = std::min(next, deadline.value_or(next));
    };
    if (session_) consider(session_->Deadline());
    if (!Congested()) {
        for (const Slot& slot : slots_)
            consider(slot.device->Deadline());
    }
    if (next == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

void Server::OnSignal() {
    signalfd_siginfo info{};
    if (read(controls_.signals, &info, sizeof info) != sizeof info) return;
    if (info.ssi_signo == SIGUSR1) {
        ReportCounters();
    } else {
        Quit();
    }
}

void Server::OnCommands() {
    std::array<char, 512> text{};
    const ssize_t count = read(controls_.commands, text.data(), text.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count <= 0) {
        controls_.commands = -1;
        return;
    }
    typed_.append(text.data(), static_cast<std::size_t>(count));
    for (std::size_t end = 0; (end = typed_.find('\n')) != std::string::npos;) {
        const std::string line = typed_.substr(0, end);
        typed_.erase(0, end + 1);
        OnCommand(line);
    }
    if (typed_.size() > kMaxCommandLine) typed_.clear();
}

void Server::OnCommand(const std::string& line) {
    const std::size_t blank = line.find(' ');
    const std::string verb = line.substr(0, blank);
    const std::string_view rest =
        blank == std::string::npos ? std::string_view() : std::string_view(line).substr(blank + 1);
    if (verb == "plug" || verb == "unplug") {
        std::uint32_t number = 0;
        const char* const end = rest.data() + rest.size();
        const auto [stop, error] = std::from_chars(rest.data(), end, number);
        const bool is_number = error == std::errc() && stop == end;
        const std::string wrong =
            is_number ? Plug(number, verb == "plug") : "no device " + std::string(rest);
        Answer(wrong.empty() ? verb + "ged " + std::to_string(number) : "error: " + wrong);
    } else if (line == "list") {
        for (const Slot& slot : slots_)
            Answer(Describe(slot, State(slot)));
    } else if (line == "quit") {
        Answer("quitting");
        Quit();
    } else {
        Answer("error: unknown command; there are: list, plug N, unplug N, quit");
    }
}

const char* Server::State(const Slot& slot) const {
    if (!slot.plugged) return "unplugged";
    return session_ && session_->Mapped(slot) ? "mapped" : "plugged";
}

std::string Server::Describe(const Slot& slot, const char* state) {
    return std::to_string(slot.number) + " " + state + " " + slot.device->Info().instance;
}

std::list<Slot>::iterator Server::Find(std::uint32_t number) {
    return std::ranges::find(slots_, number, &Slot::number);
}

std::string Server::Plug(std::uint32_t number, bool plugged) {
    const auto slot = Find(number);
    if (slot == slots_.end()) return "no device " + std::to_string(number);
    slot->plugged = plugged;
    if (session_) plugged ? session_->Offer(*slot) : session_->Withdraw(*slot);
    return {};
}

void Server::Add(std::unique_ptr<Device> device) {
    slots_.push_back({.device = std::move(device), .number = ++last_number_});
    if (session_) session_->Offer(slots_.back());
}

std::string Server::Remove(std::uint32_t number) {
    const auto slot = Find(number);
    if (slot == slots_.end()) return "no device " + std::to_string(number);
    if (session_) session_->Withdraw(*slot);
    removed_safely_ = slot->device->DataSafe() && removed_safely_;
    Log("device %u: %s; removed", number, slot->counters.Text().c_str());
    slots_.erase(slot);
    return {};
}

void Server::Quit() {
    quitting_ = true;
    if (session_) session_->Close();
}

void Server::Answer(const std::string& line) const {
    posix::Tell(controls_.answers, line + '\n');
}

void Server::ReportCounters() const {
    for (const Slot& slot : slots_) {
        Log("device %u: %s", slot.number, slot.counters.Text().c_str());
    }
}

}  // namespace remote
