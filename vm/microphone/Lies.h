// What a hostile or odd server says in place of the truth: each lie by its name, one rule of
// replies broken by each. They begin only when a URB's reply can be told from enumeration's.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "remote/io/Bytes.h"
#include "wire/UsbipPdu.h"

namespace remote {

// A RET_SUBMIT and what follows it, in this machine's byte order.
struct SubmitReply {
    int status = 0;
    std::uint32_t actual_length = 0;
    Bytes data;
    std::vector<usbip_iso_packet_descriptor> packets;
};

struct Lie {
    enum class About : std::uint8_t { kSound, kOut, kEnumeration };

    std::string_view name;
    About about;
    // `room`: length of the URB's buffer, which a reply about sound has to fit. Such a reply has
    // two packets or more.
    void (*tell)(SubmitReply& reply, std::uint32_t room);
};

// Told in turn; none: whoever has them is honest.
using Lies = std::vector<const Lie*>;

const Lie* FindLie(std::string_view name);  // null: there is none
std::string LieNames();

}  // namespace remote
