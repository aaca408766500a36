// Bytes from the kernel's end of the socket into the work thread: the peer gets the whole PDUs at
// their front, and nothing else.
#include "fuzz/MappedDevice.h"

namespace {

// The client makes room for all of a PDU, and clears it: that takes most of the time where a PDU
// announces many bytes of which none come.
constexpr std::uint64_t kMostRoom = std::uint64_t{1} << 20;

// How many bytes belong to whole PDUs before the first one that is refused or cut off, for which
// the client makes `room`.
std::size_t whole_pdus(std::string_view bytes, std::uint64_t& room) {
    std::size_t whole = 0;
    while (bytes.size() - whole >= sizeof(usbip_header)) {
        const auto header = Parse<usbip_header>(bytes.substr(whole));
        const std::uint32_t command = be32toh(header.command);
        if (command != USBIP_CMD_SUBMIT && command != USBIP_CMD_UNLINK) break;
        UsbipPduLength length;
        if (command == USBIP_CMD_SUBMIT) length = UsbipCmdSubmitLength(header);
        if (!length.Acceptable()) break;
        room = length.Total();
        if (bytes.size() - whole < room) break;
        whole += room;
    }
    return whole;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Rig& rig = ThePlugin();
    const NothingLeftBehind check;
    const std::string_view bytes = Input(data, size).Rest();
    std::uint64_t room = 0;
    const std::size_t whole = whole_pdus(bytes, room);
    if (room > kMostRoom) return 0;
    MappedDevice device;
    device.kernel->Send(bytes);
    device.kernel->Close();
    Require(device.SentUntilTheEnd() == bytes.substr(0, whole), "PDUs arrive whole");
    rig.Handle(UnmapMessage(MappedDevice::kDevId));
    return 0;
}
