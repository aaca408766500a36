// What replies the kernel may see.
#include <gtest/gtest.h>

#include "fakes/Messages.h"
#include "wire/UsbipReplyGuard.h"

namespace {

constexpr std::uint32_t kLengths[] = {100, 100, 100};
constexpr UsbipSubmitted kIsoIn{false, 300, kLengths};
constexpr UsbipSubmitted kIsoOut{true, 300, kLengths};
constexpr UsbipSubmitted kIn{false, 300, {}};
constexpr UsbipSubmitted kOut{true, 300, {}};

using Packets = std::vector<IsoPacket>;
const Packets kFull = {{0, 100, 100}, {100, 100, 100}, {200, 100, 100}};

std::string Reply(const UsbipSubmitted& command, std::uint32_t actual_length,
                  const Packets& packets = {}) {
    const std::string data(command.out ? 0 : actual_length, 'd');
    return WithPackets(SubmitReply(1, actual_length, data), packets);
}
std::string Marked(std::string reply) {  // as not isochronous
    return reply.replace(32, 4, "\xFF\xFF\xFF\xFF");
}

TEST(ReplyGuard, RefusesWhatIsUnsafeAndPassesWhatIsUnusual) {
    const struct {
        UsbipSubmitted command;
        std::string reply;
        const char* lie;  // null: none
    } rows[] = {
        {kIsoIn, Reply(kIsoIn, 300, kFull), nullptr},
        {kIsoIn, Reply(kIsoIn, 60, {{0, 100, 10}, {10, 100, 20}, {30, 100, 30}}), nullptr},
        {kIsoIn, Reply(kIsoIn, 60, {{240, 60, 60}}), nullptr},
        {kIsoIn, Reply(kIsoIn, 60, {{300, 0, 0}, {240, 0, 60}}), nullptr},
        {kIsoIn, Reply(kIsoIn, 0), nullptr},
        {kIsoIn, Marked(Reply(kIsoIn, 0)), "no number of packets"},
        {kIsoIn, Reply(kIsoIn, 301), "more data than the transfer holds"},
        {kIsoIn, Reply(kIsoIn, 0, {{}, {}, {}, {}}), "more packets than were asked for"},
        {kIsoIn, Reply(kIsoIn, 9, {{0, 100, 9}, {201, 100, 0}}), "a packet outside the transfer"},
        {kIsoIn, Reply(kIsoIn, 9, {{301, 0, 9}}), "a packet outside the transfer"},
        {kIsoIn, Reply(kIsoIn, 60, {{241, 0, 60}}), "a packet outside the transfer"},
        {kIsoIn, Reply(kIsoIn, 60, {{1, ~0U, 60}}), "a packet outside the transfer"},
        {kIsoIn, Reply(kIsoIn, 60, {{~0U, 1, 60}}), "a packet outside the transfer"},
        {kIsoIn, Reply(kIsoIn, 60, {{60, 60, ~0U}}), "a packet outside the transfer"},
        {kIsoIn, Reply(kIsoIn, 101, {{0, 100, 101}}), "more data than a packet holds"},
        {kIsoIn, Reply(kIsoIn, 299, kFull), "packets of another sum"},
        {kIsoOut, Reply(kIsoOut, 299, kFull), nullptr},
        {kIn, Marked(Reply(kIn, 3)), nullptr},
        {kIn, Reply(kIn, 301), "more data than the transfer holds"},
        {kIn, Reply(kIn, 0, {{}}), "more packets than were asked for"},
        {kOut, Reply(kOut, 300), nullptr},
    };
    for (const auto& row : rows)
        EXPECT_STREQ(UsbipLieIn(row.command, row.reply), row.lie) << &row - rows;
}

TEST(ReplyGuard, AReplyThatNobodyAskedForIsHarmlessWhateverTheKernelMakesOfIt) {
    const std::string within = SubmitReply(2, 0) + "x";
    const struct {
        std::string reply;
        const char* lie;
    } rows[] = {
        {Reply(kIn, 0), nullptr},
        {SubmitReply(1, 3, std::string("\0\0\1", 3)), nullptr},
        {SubmitReply(1, 48, Unlink(2)), nullptr},
        {Marked(Reply(kIn, 0)), "packets that nobody asked for"},
        {Reply(kIn, 0, kFull), "packets that nobody asked for"},
        {SubmitReply(1, 49, within), "a reply within a reply"},
        {SubmitReply(1, 3, within.substr(0, 3)), "a reply within a reply"},
        {SubmitReply(1, 48, UnlinkReply(2)), "a reply within a reply"},
    };
    for (const auto& row : rows)
        EXPECT_STREQ(UsbipLieInStray(row.reply), row.lie) << &row - rows;
}

}  // namespace
