// URBs of a host into the virtual disk. The first byte is the speed; then each URB has a byte for
// its kind (see Step) and what that kind needs. Every URB is answered at most once, with no more
// than it has room for; every unlink at once.
#include <map>

#include "fuzz/ScratchDisk.h"
#include "remote/device/Command.h"
#include "remote/disk/BulkOnly.h"
#include "remote/disk/DiskDescriptors.h"
#include "wire/UsbipPdu.h"

namespace {

enum Step : std::uint8_t { kControl, kCommand, kDataOut, kDataIn, kUnlink, kAnyEndpoint, kSteps };

class Host : public remote::ReplySink {
  public:
    explicit Host(remote::Device& disk) : disk_(disk) { disk.Attach(*this); }

    void Submit(std::uint32_t endpoint, bool in, std::uint32_t length, std::string_view data,
                std::string_view setup = {}, std::uint32_t flags = 0) {
        usbip_header header{};
        header.command = htobe32(USBIP_CMD_SUBMIT);
        header.seqnum = htobe32(++seqnum_);
        header.direction = htobe32(in ? USBIP_DIR_IN : USBIP_DIR_OUT);
        header.ep = htobe32(endpoint);
        header.u.cmd_submit.transfer_flags = htobe32(flags);
        header.u.cmd_submit.transfer_buffer_length = htobe32(length);
        if (!setup.empty()) std::memcpy(header.u.cmd_submit.setup, setup.data(), setup.size());
        remote::Bytes pdu(UsbipCmdSubmitLength(header).Total());
        remote::StoreRaw(pdu.data(), header);
        std::copy(data.begin(), data.end(), pdu.begin() + sizeof header);
        waiting_[seqnum_] = {in, length};
        Send(pdu);
    }
    void Out(std::uint32_t endpoint, std::string_view data, std::string_view setup = {}) {
        Submit(endpoint, false, static_cast<std::uint32_t>(data.size()), data, setup);
    }
    void Unlink(std::uint32_t back) {
        usbip_header header{};
        header.command = htobe32(USBIP_CMD_UNLINK);
        unlink_ = ++seqnum_;
        header.seqnum = htobe32(unlink_);
        header.u.cmd_unlink.seqnum = htobe32(seqnum_ - back);
        Send(remote::ToBytes(header));
        Require(unlink_ == 0, "an unlink is answered at once");
        waiting_.erase(seqnum_ - back);
    }

    void Reply(remote::Bytes pdu) override {
        Require(pdu.size() >= sizeof(usbip_header), "replies have a header");
        const auto header = remote::LoadRaw<usbip_header>(pdu.data());
        const std::uint32_t seqnum = be32toh(header.seqnum);
        if (be32toh(header.command) == USBIP_RET_UNLINK) {
            Require(seqnum == unlink_, "an unlink is answered once");
            unlink_ = 0;
            return;
        }
        const auto urb = waiting_.find(seqnum);
        Require(urb != waiting_.end(), "a URB is answered once, and not after its unlink");
        const std::uint32_t actual = be32toh(header.u.ret_submit.actual_length);
        Require(actual <= urb->second.length, "a reply fits its URB");
        Require(pdu.size() == sizeof header + (urb->second.in ? actual : 0), "a reply is whole");
        waiting_.erase(urb);
    }

  private:
    struct Urb {
        bool in;
        std::uint32_t length;
    };
    void Send(const remote::Bytes& pdu) {
        remote::Command command;
        Require(remote::DecodeCommand(pdu, command).empty(), "our own commands are good");
        disk_.TakeCommand(command);
    }

    remote::Device& disk_;
    std::uint32_t seqnum_ = 0;
    std::uint32_t unlink_ = 0;  // not answered; 0: none
    std::map<std::uint32_t, Urb> waiting_;
};

void step(Input& input, Host& host) {
    constexpr std::uint32_t kIn = remote::kBulkIn & 0x0F;
    switch (input.Number<std::uint8_t>() % kSteps) {
        case kControl: {
            std::string setup(input.Take(8));
            setup.resize(8);
            const auto length = static_cast<std::uint32_t>(input.Number<std::uint16_t>());
            if ((setup[0] & 0x80) != 0) return host.Submit(0, true, length, {}, setup);
            return host.Out(0, std::string(length % 64, '\0'), setup);
        }
        case kCommand: {  // the length of the data stage, its direction, the command block's length
            std::string cbw = "USBCtag.";
            cbw += input.Take(4);
            cbw += static_cast<char>(input.Number<std::uint8_t>() & 0x80);
            cbw += '\0';
            cbw += input.Take(1);
            cbw += input.Take(16);
            cbw.resize(remote::BulkOnly::kCbwSize);
            return host.Out(remote::kBulkOut, cbw);
        }
        case kDataOut:
            return host.Out(remote::kBulkOut, std::string(input.Number<std::uint16_t>(), 'd'));
        case kDataIn: {
            const auto length = input.Number<std::uint32_t>();
            return host.Submit(kIn, true, length, {}, {}, input.Number<std::uint8_t>());
        }
        case kUnlink:
            return host.Unlink(input.Number<std::uint8_t>());
        default: {
            const auto endpoint = input.Number<std::uint8_t>();
            return host.Out(endpoint, input.Block());
        }
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const bool super = (input.Number<std::uint8_t>() & 1) != 0;
    const auto disk = ScratchDisk(super ? remote::UsbSpeed::kSuper : remote::UsbSpeed::kHigh);
    Host host(*disk);
    const char configure[] = {0x00, 0x09, 0x01, 0, 0, 0, 0, 0};
    host.Out(0, {}, {configure, sizeof configure});
    while (!input.Empty())
        step(input, host);
    disk->Detach();
    return 0;
}
