// PDUs from the peer into the write thread, while OUT commands 1 to 4 wait for their replies. Each
// PDU has its length before it. The kernel gets those before the first that is refused.
#include <set>

#include "fuzz/MappedDevice.h"

namespace {

bool accepted(std::string_view pdu, std::set<std::uint32_t>& out_commands) {
    if (pdu.size() < sizeof(usbip_header)) return false;
    const auto header = Parse<usbip_header>(pdu);
    const std::uint32_t command = be32toh(header.command);
    if (command != USBIP_RET_SUBMIT) return command == USBIP_RET_UNLINK;
    const bool answers_out = out_commands.erase(be32toh(header.seqnum)) != 0;
    const UsbipPduLength length = UsbipRetSubmitLength(header, answers_out);
    return length.Acceptable() && length.Total() <= pdu.size();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Rig& rig = ThePlugin();
    const NothingLeftBehind check;
    MappedDevice device;
    std::set<std::uint32_t> out_commands{1, 2, 3, 4};
    for (const std::uint32_t seqnum : out_commands) {
        device.kernel->Send(SubmitOut(seqnum, "data"));
        Require(!rig.NextMessage().empty(), "commands reach the peer");
    }
    bool refused = false;
    std::string expected;
    for (Input input(data, size); !input.Empty() && !refused;) {
        const std::string_view pdu = input.Block();
        rig.host.Receive(ForwardMessage(MappedDevice::kDevId, pdu));
        refused = !accepted(pdu, out_commands);
        if (!refused) expected += pdu;
    }
    Require(device.kernel->Receive(expected.size()) == expected, "replies arrive in order");
    if (refused) {
        const LogLine quit{1, "[CUsbipClientLinux] 5 write thread prepare quit"};
        Require(rig.host.runtime.WaitForLine(quit), "a refused PDU ends the writing");
    }
    rig.Handle(UnmapMessage(MappedDevice::kDevId));
    Require(device.SentUntilTheEnd().empty(), "replies are not answered");
    Require(device.kernel->Receive(1).empty(), "nothing but accepted PDUs arrives");
    return 0;
}
