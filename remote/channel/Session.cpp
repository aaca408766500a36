#include "remote/channel/Session.h"

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "remote/io/Log.h"

namespace remote {
namespace {

constexpr std::chrono::seconds kVersionTimeout{30};  // an emulated machine may be slow to start
constexpr std::chrono::seconds kCloseTimeout{2};     // a device whose attach failed never confirms
constexpr std::size_t kVectors = 32;                 // pieces of one write
constexpr std::uint32_t kBusNumber = 1;              // of devices that do not care

bool retry(ssize_t result) {
    return result < 0 && (errno == EAGAIN || errno == EINTR);
}

}  // namespace

// One device as the host knows it; takes the device's replies.
class Session::Mapping final : public ReplySink {
  public:
    Mapping(Session& session, Port& port, std::uint32_t devid)
        : port_(port), devid_(devid), session_(session) {
        port_.device->Attach(*this);
    }
    ~Mapping() override { port_.device->Detach(); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    void Reply(Bytes pdu) override { session_.Send(*this, std::move(pdu)); }

    Port& port_;
    const std::uint32_t devid_;

  private:
    Session& session_;
};

Session::Session(HostLink link, std::vector<Port>& ports, bool compress)
    : link_(std::move(link)),
      ports_(ports),
      compress_(compress),
      deadline_(Clock::now() + kVersionTimeout) {
    output_.Push(EncodeVersionReq(compress));
}

Session::~Session() {
    ReleaseAll();
}

int Session::OutputFd() const {
    return link_.separate_output ? link_.separate_output.Get() : link_.input.Get();
}

int Session::ReadableFd() const {
    return Congested() ? -1 : link_.input.Get();
}

int Session::WritableFd() const {
    return output_.Pending() != 0 ? OutputFd() : -1;
}

void Session::OnReadable() {
    const ByteSpan space = reader_.Space();
    const ssize_t count = read(link_.input.Get(), space.data(), space.size());
    if (retry(count)) return;
    if (count < 0) return End(true, "cannot read from the host: " + ErrorText(errno));
    if (count == 0) {
        return End(!reader_.Empty(), reader_.Empty() ? "host has closed the connection"
                                                     : "connection ends within a message");
    }
    reader_.Advance(static_cast<std::size_t>(count));
    Pump();
}

void Session::OnWritable() {
    std::array<iovec, kVectors> vectors{};
    const std::size_t filled = output_.Gather(vectors);
    const ssize_t count = writev(OutputFd(), vectors.data(), static_cast<int>(filled));
    if (retry(count)) return;
    if (count < 0) return End(true, "cannot write to the host: " + ErrorText(errno));
    output_.Consume(static_cast<std::size_t>(count));
    Pump();
}

void Session::OnDeadline() {
    if (closing_) return End(false, "connection closed without the host's confirmation");
    End(true, "host does not answer the version request");
}

// Handles what has been received, as far as the output has room.
void Session::Pump() {
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
    EndClosing();
}

void Session::Handle(ByteView whole) {
    Message message;
    const std::string error = DecodeMessage(whole, message);
    if (!error.empty()) return End(true, "malformed " + error);
    switch (message.type) {
        case kUsbipVersionRsp:
            return OnVersion(message.number);
        case kUsbipDevUnmap:
            return OnDeviceEnd(message.number);
        default:
            return OnForward(message);
    }
}

void Session::OnVersion(std::uint32_t version) {
    if (std::exchange(version_known_, true)) return;
    Log("host speaks protocol version %u%s", version,
        version == kUsbipProtocolVersion ? "" : ", which is not ours");
    if (closing_) return;
    deadline_.reset();
    for (Port& port : ports_) {
        if (port.plugged) Map(port);
    }
}

void Session::OnDeviceEnd(std::uint32_t devid) {
    if (unmapping_.erase(devid) != 0) return;
    const auto ended = mappings_.find(devid);
    if (ended == mappings_.end()) {
        Log("host reports the end of device id %u, which is not mapped", devid);
        return;
    }
    Port& port = ended->second->port_;
    Log("device %u has ended at the host", port.number);
    mappings_.erase(ended);
    output_.Push(EncodeDevUnmap(devid));  // until then the host keeps the id
    Forget(port);
}

void Session::OnForward(const Message& message) {
    const auto target = mappings_.find(message.number);
    if (target == mappings_.end()) return;  // on its way while we unmapped
    Port& port = target->second->port_;
    port.counters.CountCommand(message.pdu, message.inflated != nullptr);
    port.device->Command(message.pdu);
}

void Session::Send(Mapping& from, Bytes pdu) {
    Counters& counters = from.port_.counters;
    counters.CountReply(pdu);
    counters.CountForward(output_.PushForward(from.devid_, std::move(pdu), compress_));
}

Session::Mappings::const_iterator Session::FindMapping(const Port& port) const {
    auto found = mappings_.begin();
    while (found != mappings_.end() && &found->second->port_ != &port)
        ++found;
    return found;
}

void Session::Map(Port& port) {
    if (over_ || closing_ || !version_known_) return;
    wanted_.insert(&port);
    Follow(port);  // also when the device has left this very moment
    if (!Mapped(port)) port.device->Acquire();
}

void Session::Unmap(Port& port) {
    if (Mapped(port)) Withdraw(port);
    Forget(port);
}

void Session::FollowDevices() {
    for (Port* port : wanted_)
        Follow(*port);
}

void Session::Follow(Port& port) {
    const bool mapped = Mapped(port);
    if (port.device->Present() == mapped) return;
    mapped ? Withdraw(port) : Announce(port);
}

void Session::Announce(Port& port) {
    const DeviceInfo& info = port.device->Info();
    const std::uint32_t devid = next_devid_++;
    output_.Push(EncodeDevMap(devid, info.bus != 0 ? info.bus : kBusNumber,
                              info.bus != 0 ? info.number : port.number, info));
    mappings_.emplace(devid, std::make_unique<Mapping>(*this, port, devid));
    Log("device %u mapped with id %u: %s", port.number, devid, info.instance.c_str());
}

void Session::Withdraw(Port& port) {
    const auto mapping = FindMapping(port);
    output_.Push(EncodeDevUnmap(mapping->first));
    unmapping_.insert(mapping->first);
    Log("device %u unmapped", port.number);
    mappings_.erase(mapping);
}

void Session::Forget(Port& port) {
    if (wanted_.erase(&port) != 0) port.device->Release();
}

void Session::ReleaseAll() {
    mappings_.clear();
    while (!wanted_.empty())
        Forget(**wanted_.begin());
}

void Session::Close() {
    if (over_ || closing_) return;
    closing_ = true;
    deadline_ = Clock::now() + kCloseTimeout;
    for (Port& port : ports_)
        Unmap(port);
    EndClosing();
}

void Session::EndClosing() {
    if (closing_ && !over_ && unmapping_.empty() && output_.Pending() == 0) {
        End(false, "connection closed");
    }
}

void Session::End(bool failed, const std::string& reason) {
    Log("%s", reason.c_str());
    over_ = true;
    failed_ = failed;
    deadline_.reset();
    ReleaseAll();
}

}  // namespace remote
