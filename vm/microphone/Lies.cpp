#include "vm/microphone/Lies.h"

#include <algorithm>
#include <cerrno>
#include <numeric>

namespace remote {
namespace {

using Packet = usbip_iso_packet_descriptor;

constexpr std::uint32_t kFar = 0x40000000;  // more than a guest's memory
constexpr std::size_t kManyPackets = 4096;

// --- harmful: where these are believed, memory outside the request is touched -------------------

void offset(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.packets.back().offset = kFar;
}

void packet_end(SubmitReply& reply, std::uint32_t room) {
    reply.packets.back().offset = room - 2;
    reply.packets.back().length = 2;
}

void packet_length(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.packets.back().length = ~0U;  // which added to an offset wraps to something small
}

void packet_actual(SubmitReply& reply, std::uint32_t /*room*/) {
    for (Packet& packet : reply.packets)
        packet.actual_length = 0;
    reply.packets.front().actual_length = reply.actual_length;
}

// The sum is right where it is computed in 32 bits.
void wrapping_sum(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.packets[0].actual_length += 1U << 31;
    reply.packets[1].actual_length += 1U << 31;
}

void sum(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.packets.back().actual_length -= 2;
}

void more_packets(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.packets.resize(kManyPackets, {kFar, kFar, 0, 0});
}

void actual_length(SubmitReply& reply, std::uint32_t room) {
    reply.data.resize(room + 2);
    reply.packets.back().actual_length += room + 2 - reply.actual_length;
    reply.actual_length = room + 2;
}

void out_actual(SubmitReply& reply, std::uint32_t room) {
    reply.actual_length = room + 1;
}

// --- harmless: as some servers and devices do ---------------------------------------------------

void shorten(SubmitReply& reply) {
    reply.actual_length = std::accumulate(
        reply.packets.begin(), reply.packets.end(), 0U,
        [](std::uint32_t sum, const Packet& packet) { return sum + packet.actual_length; });
    reply.data.resize(reply.actual_length);
}

void packed_offsets(SubmitReply& reply, std::uint32_t /*room*/) {
    std::uint32_t next = 0;
    for (Packet& packet : reply.packets) {
        packet.offset = next;
        next += packet.actual_length;
    }
}

void short_packets(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.packets.back().actual_length = 0;
    shorten(reply);
}

void fewer_packets(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.packets.resize(reply.packets.size() / 2);
    shorten(reply);
}

void no_packets(SubmitReply& reply, std::uint32_t /*room*/) {
    reply.status = -EPROTO;
    reply.packets.clear();
    shorten(reply);
}

void stall(SubmitReply& reply, std::uint32_t /*room*/) {
    reply = {-EPIPE, 0, {}, {}};
}

using enum Lie::About;
constexpr Lie kLies[] = {
    {"offset", kSound, offset},
    {"packet-end", kSound, packet_end},
    {"packet-length", kSound, packet_length},
    {"packet-actual", kSound, packet_actual},
    {"wrapping-sum", kSound, wrapping_sum},
    {"sum", kSound, sum},
    {"more-packets", kSound, more_packets},
    {"actual-length", kSound, actual_length},
    {"out-actual", kOut, out_actual},
    {"packed-offsets", kSound, packed_offsets},
    {"short-packets", kSound, short_packets},
    {"fewer-packets", kSound, fewer_packets},
    {"no-packets", kSound, no_packets},
    {"stall", kEnumeration, stall},
};

}  // namespace

const Lie* FindLie(std::string_view name) {
    const Lie* found = std::find_if(std::begin(kLies), std::end(kLies),
                                    [name](const Lie& lie) { return lie.name == name; });
    return found == std::end(kLies) ? nullptr : found;
}

std::string LieNames() {
    std::string names;
    for (const Lie& lie : kLies)
        names.append(names.empty() ? "" : ", ").append(lie.name);
    return names;
}

}  // namespace remote
