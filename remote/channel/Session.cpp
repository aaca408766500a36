#include "remote/channel/Session.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "remote/channel/MessageWriter.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

constexpr std::chrono::seconds kVersionTimeout{30};  // an emulated machine may be slow to start
constexpr std::chrono::seconds kMessageTimeout{30};  // without a byte of a message that has begun
constexpr std::chrono::seconds kCloseTimeout{2};     // a device whose attach failed never confirms

}  // namespace

Session::Session(HostLink link, std::list<Slot>& slots, bool compress)
    : link_(std::move(link)),
      slots_(slots),
      mappings_(output_, compress),
      deadline_(Clock::now() + kVersionTimeout) {
    output_.Push(EncodeVersionReq(compress));
}

int Session::OutputFd() const {
    return link_.separate_output ? link_.separate_output.Get() : link_.input.Get();
}

int Session::ReadableFd() const {
    return Congested() ? -1 : link_.input.Get();
}

int Session::WritableFd() const {
    return output_.Empty() ? -1 : OutputFd();
}

void Session::OnReadable() {
    switch (reader_.Input().ReadFrom(link_.input.Get())) {
        case Progress::kMoved:
            return HandleInput();
        case Progress::kLater:
            return;
        case Progress::kEnd:
            return End(!reader_.Empty(), reader_.Empty() ? "host has closed the connection"
                                                         : "connection ends within a message");
        case Progress::kFailed:
            return End(true, "cannot read from the host: " + ErrorText(errno));
    }
}

void Session::OnWritable() {
    HandleWritten(output_.WriteTo(OutputFd()));
}

// A host may have closed its end right behind what was read: whether that is an orderly end tells
// the input, which is read before the next attempt.
void Session::Send() {
    if (over_ || !output_.Untried()) return;
    const Progress progress = output_.WriteTo(OutputFd());
    if (progress != Progress::kFailed || errno != EPIPE) HandleWritten(progress);
}

void Session::HandleWritten(Progress progress) {
    if (progress == Progress::kFailed) {
        return End(true, "cannot write to the host: " + ErrorText(errno));
    }
    if (progress == Progress::kMoved) HandleInput();
}

void Session::OnDeadline() {
    if (closing_) return End(false, "connection closed without the host's confirmation");
    End(true, version_known_ ? "host stops in the middle of a message"
                             : "host does not answer the version request");
}

// We are the reason that a message does not go on while we do not read.
std::optional<Clock::time_point> Session::Deadline() const {
    if (deadline_ || Congested()) return deadline_;
    return message_deadline_;
}

// Handles what has been received, as far as the output has room.
void Session::HandleInput() {
    while (!over_ && !Congested()) {
        const ByteView whole = reader_.Next();
        if (!reader_.Error().empty()) return End(true, "malformed " + reader_.Error());
        if (whole.empty()) break;
        try {
            Handle(whole);
        } catch (const std::bad_alloc&) {
            return End(true, "out of memory");
        }
    }
    message_deadline_.reset();
    if (!reader_.Empty()) message_deadline_ = Clock::now() + kMessageTimeout;
    EndClosing();
}

void Session::Handle(ByteView whole) {
    Message message;
    const std::string error = DecodeMessage(whole, message);
    if (!error.empty()) return End(true, "malformed " + error);
    switch (message.type) {
        case kUsbipVersionRsp:
            return OnVersion(message.version);
        case kUsbipDevUnmap:
            return mappings_.TakeEnd(message.devid);
        default:
            return mappings_.TakeCommand(message.devid, message.command,
                                         message.inflated != nullptr);
    }
}

void Session::OnVersion(std::uint32_t version) {
    if (std::exchange(version_known_, true)) return;
    if (version != kUsbipProtocolVersion) {
        return End(true, "host speaks protocol version " + std::to_string(version) +
                             ", and this remote side version " +
                             std::to_string(kUsbipProtocolVersion) + ": one must be updated");
    }
    Log("host speaks protocol version %u", version);
    if (closing_) return;
    deadline_.reset();
    for (Slot& slot : slots_) {
        if (slot.plugged) Offer(slot);
    }
}

void Session::Offer(Slot& slot) {
    if (!over_ && !closing_ && version_known_) mappings_.Offer(slot);
}

void Session::Close() {
    if (over_ || closing_) return;
    closing_ = true;
    deadline_ = Clock::now() + kCloseTimeout;
    for (Slot& slot : slots_)
        Withdraw(slot);
    EndClosing();
}

void Session::EndClosing() {
    if (closing_ && !over_ && mappings_.AllConfirmed() && output_.Empty()) {
        End(false, "connection closed");
    }
}

void Session::End(bool failed, const std::string& reason) {
    Log("%s", reason.c_str());
    over_ = true;
    failed_ = failed;
    deadline_.reset();
    message_deadline_.reset();
    mappings_.ReleaseAll();
}

}  // namespace remote
