// Messages out of the stream and into it.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "Pdus.h"
#include "posix/UniqueFd.h"
#include "remote/channel/MessageReader.h"
#include "remote/channel/MessageWriter.h"

namespace remote::test {
namespace {

constexpr std::uint32_t kDevid = 7;

std::string Compressed(const std::string& pdu) {
    return ForwardMessage(kDevid, Deflated(pdu), static_cast<std::uint32_t>(pdu.size()));
}

// Feeds the stream in pieces of `piece` bytes. Returns the PDUs that come out, one behind the
// other, or what is wrong.
std::string Feed(std::string_view stream, std::size_t piece) {
    MessageReader reader;
    std::string pdus;
    for (; !stream.empty(); stream.remove_prefix(piece)) {
        const ByteSpan space = reader.Input().Space();
        piece = std::min({piece, stream.size(), space.size()});
        std::copy_n(stream.begin(), piece, space.begin());
        reader.Input().Advance(piece);
        for (ByteView whole; !(whole = reader.Next()).empty();) {
            Message message;
            std::string error = DecodeMessage(whole, message);
            if (!error.empty()) return error;
            EXPECT_EQ(message.devid, kDevid);
            pdus += Text(message.command.pdu);
        }
        if (!reader.Error().empty()) return reader.Error();
    }
    return reader.Empty() ? pdus : "incomplete";
}

TEST(Channel, MessagesComeOutWholeInPiecesOfAnySize) {
    const std::string small = SubmitOut(1, "data"), large = SubmitOut(2, kMegabyte);
    const std::string stream = ForwardMessage(kDevid, small) + ForwardMessage(kDevid, large) +
                               Compressed(large) + Compressed(Unlink(3));
    for (const std::size_t piece : {1UL, 7UL, 48UL, stream.size()})
        EXPECT_TRUE(Feed(stream, piece) == small + large + large + Unlink(3)) << piece;
}

TEST(Channel, MalformedMessagesAreRefused) {
    const std::string good = SubmitOut(1, std::string(100, 'x'));
    const std::string deflated = Deflated(good);
    const auto forward = [](std::string_view data, std::uint32_t rawsize = 0) {
        return ForwardMessage(kDevid, data, rawsize);
    };
    const auto message = [&](std::size_t offset, std::uint32_t value) {
        return With(offset, htobe32(htole32(value)), forward(good));  // not big-endian as in PDUs
    };
    const auto pdu = [&](std::size_t offset, std::uint32_t value) {
        return forward(With(offset, value, good));
    };
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"outer length one too long", message(0, kMaxMessage - 7), "announces"},
        {"outer length longer than the stream", message(0, 173), "incomplete"},
        {"outer length 0", message(0, 0), "message of 8 bytes"},
        {"other channel", message(4, 0x0C), "channel 12"},
        {"inner length of 4 GiB", message(8, 0xFFFFFFFF), "inner message announces"},
        {"inner length one too long", message(8, 165), "inner message announces"},
        {"inner length without an id", message(8, 3), "payload of 3"},
        {"inner length within the fields", message(8, 11), "forward too short"},
        {"version request from a host", message(12, 1), "type 1"},
        {"datasize of 4 GiB", message(20, 0xFFFFFFFF), "announces 4294967295"},
        {"datasize beyond the filler", message(20, 153), "announces 153"},
        {"datasize one short", message(20, 147), "PDU of 147 bytes announces 148"},
        {"no PDU", forward({}), "PDU of 0 bytes"},
        {"half a header", forward(good.substr(0, 47)), "shorter than its header"},
        {"a reply", pdu(0, USBIP_RET_SUBMIT), "unknown command 3"},
        {"4 billion iso packets", pdu(32, 0xFFFFFFFE), "announces 68719476852"},
        {"an unlink with data", pdu(0, USBIP_CMD_UNLINK), "PDU of 148 bytes announces 48"},
        {"rawsize above the limit", forward(deflated, kMaxRawSize + 1), "inflates to"},
        {"rawsize too long", forward(deflated, 149), "not 149 bytes"},
        {"no zlib stream", forward(good, 148), "damaged"},
        {"bytes behind the zlib stream", forward(deflated + "more", 148), "damaged"},
    };
    for (const auto& [name, whole, error] : cases) {
        const std::string outcome = Feed(whole, whole.size());
        EXPECT_NE(outcome.find(error), std::string::npos)
            << name << ": expected '" << error << "', got '" << outcome << "'";
    }
}

TEST(Channel, ForwardsGoOutAsTheClientMakesThem) {
    const std::string small(kCompressThreshold, 's'), large(kCompressThreshold + 1, 'l');
    OutputQueue queue;
    for (const std::string& pdu : {small, large})
        for (const bool compress : {false, true})
            EXPECT_EQ(PushForward(queue, kDevid, {pdu.begin(), pdu.end()}, compress),
                      compress && pdu == large);
    const std::size_t size = queue.Pending();
    const posix::UniqueFd sent(memfd_create("sent", MFD_CLOEXEC));
    while (!queue.Empty())
        ASSERT_EQ(queue.WriteTo(sent.Get()), Progress::kMoved);
    std::string stream(size + 1, '\0');
    stream.resize(static_cast<std::size_t>(pread(sent.Get(), stream.data(), stream.size(), 0)));
    const std::string plain = ForwardMessage(kDevid, small);
    EXPECT_EQ(stream, plain + plain + ForwardMessage(kDevid, large) + Compressed(large));
}

TEST(Channel, MapMessageHasTheDocumentedLayout) {
    const DeviceInfo info{std::string(300, 'n'), UsbSpeed::kSuper, 0x1D6B, 0x0104};
    const std::string map = Text(EncodeDevMap(3, 1, 2, info));
    EXPECT_EQ(map, FromHex("44 03 00 00 0B 00 00 00 3C 03 00 00 03 00 00 00 03 00 00 00") +
                       std::string(255, 'n') + std::string(545, '\0') +
                       FromHex("01 00 00 00 02 00 00 00 05 00 00 00 6B 1D 04 01") +
                       std::string(8, '\0'))
        << "a long name keeps its end";
}

}  // namespace
}  // namespace remote::test
