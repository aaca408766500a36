// Both directions through the tap. The first byte is the most bytes that one Read or Write of the
// wrapped stream takes (0: no limit), the second which devices are refused: those whose id shares a
// bit with it. Blocks follow: by turns what the remote side sends, and one message of the module's.
#include "xj-client-usbip/kit/Tap.h"

#include <functional>
#include <string>

#include "fuzz/Target.h"

namespace {

class Stream : public IPluginStreamRaw, protected CReference {
  public:
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void Reserved1() override {}
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long) override {
        while (inbound.empty())
            if (!on_empty()) return 1;
        *got = Cut(std::min(len, inbound.size()));
        inbound.copy(static_cast<char*>(buf), *got);
        inbound.remove_prefix(*got);
        return 0;
    }
    int Write(const void* data, unsigned long len, unsigned long* written, unsigned long) override {
        *written = Cut(len);
        outbound.append(static_cast<const char*>(data), *written);
        return 0;
    }
    unsigned long Cut(unsigned long size) const { return most == 0 ? size : std::min(size, most); }

    std::function<bool()> on_empty;  // has more come meanwhile?
    std::string_view inbound;
    std::string outbound;
    unsigned long most = 0;
};

class Host : public xj_usbip::ITapEvents {
  public:
    bool OnMap(const xj_usbip::RemoteDevice& device) override { return (device.id & refused) == 0; }
    void OnUnmap(std::uint32_t) override {}
    void OnEnd(std::uint32_t) override {}
    void OnPdu(const xj_usbip::TappedPdu& pdu) override {
        Require(pdu.bytes.size() >= 48 && pdu.bytes.size() <= 48 + kShown, "the front of a PDU");
        Require(pdu.bytes.size() <= pdu.size || pdu.to_remote, "no more than it has");
    }

    static constexpr std::size_t kShown = 100;
    std::uint8_t refused = 0;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const NothingLeftBehind check;
    Input input(data, size);
    const CRefObj<Stream> stream = new Stream;
    Host host;
    const CRefObj<xj_usbip::Tap> tap = new xj_usbip::Tap(stream.Get(), host);
    tap->ShowPdus(Host::kShown);
    stream->most = input.Number<std::uint8_t>();
    host.refused = input.Number<std::uint8_t>();
    std::string fed, got, sent;
    unsigned long count = 0;
    stream->on_empty = [&] {
        if (!fed.empty()) {  // the module's turn
            for (std::string_view message = input.Block(); !message.empty();) {
                Require(tap->Write(message.data(), message.size(), &count, 0) == 0,
                        "it is written");
                sent += message.substr(0, count);
                message.remove_prefix(count);
            }
        }
        const bool more = !input.Empty();
        stream->inbound = input.Block();
        fed += stream->inbound;
        return more;
    };
    char piece[256];
    for (unsigned long size_read = 0; tap->Read(piece, sizeof piece, &size_read, 0) == 0;)
        got.append(piece, size_read);
    Require(stream->outbound.size() >= sent.size(), "nothing is lost on the way out");
    if (host.refused == 0) {
        Require(stream->outbound == sent, "nothing is changed on the way out");
        Require(fed.starts_with(got), "nor on the way in");
        Require(fed.size() - got.size() < 1000, "and little is held back");
    }
    return 0;
}
