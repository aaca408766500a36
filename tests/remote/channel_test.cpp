// Messages out of the stream and into it.
#include "remote/Channel.h"

#include <zlib.h>

#include <algorithm>

#include "Pdus.h"

namespace remote::test {
namespace {

constexpr std::uint32_t kDevid = 7;

// A forward as the client makes it. `rawsize` != 0: the data is a zlib stream.
Bytes Forward(const Bytes& data, std::uint32_t rawsize = 0) {
    usbip_forward head{};
    head.head = MakeMessageHead(kUsbipForward, kForwardOverhead + data.size());
    head.devid = kDevid;
    head.datasize = static_cast<std::uint32_t>(data.size());
    head.rawsize = rawsize;
    Bytes message(sizeof head);
    StoreRaw(message.data(), head);
    message.insert(message.end(), data.begin(), data.end());
    message.resize(message.size() + kForwardFiller);
    return message;
}

Bytes Compressed(const Bytes& pdu) {
    Bytes deflated(compressBound(pdu.size()));
    uLongf size = deflated.size();
    compress(deflated.data(), &size, pdu.data(), pdu.size());
    deflated.resize(size);
    return deflated;
}

Bytes WritePdu(std::size_t size) {
    return Submit{.seqnum = 1, .endpoint = 2, .direction = kOut, .data = Pattern(size)}.Pdu();
}

struct Received {
    std::vector<Bytes> pdus;
    std::string error;
};

// Feeds the stream in pieces of `piece` bytes and decodes what comes out.
Received Feed(const Bytes& stream, std::size_t piece) {
    MessageReader reader;
    Received received;
    for (std::size_t at = 0; at < stream.size();) {
        const ByteSpan space = reader.Space();
        const std::size_t size = std::min({piece, stream.size() - at, space.size()});
        std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(at), size, space.begin());
        reader.Advance(size);
        at += size;
        for (ByteView whole; !(whole = reader.Next()).empty();) {
            Message message;
            received.error = DecodeMessage(whole, message);
            if (!received.error.empty()) return received;
            EXPECT_EQ(message.number, kDevid);
            received.pdus.emplace_back(message.pdu.begin(), message.pdu.end());
        }
        received.error = reader.Error();
        if (!received.error.empty()) return received;
    }
    if (!reader.Empty()) received.error = "incomplete";
    return received;
}

TEST(Channel, MessagesComeOutWholeInPiecesOfAnySize) {
    const std::vector<Bytes> pdus{WritePdu(31), WritePdu(300'000), UnlinkPdu(2, 1)};
    Bytes stream;
    for (const Bytes& pdu : pdus) {
        for (const Bytes& message :
             {Forward(pdu), Forward(Compressed(pdu), static_cast<std::uint32_t>(pdu.size()))}) {
            stream.insert(stream.end(), message.begin(), message.end());
        }
    }
    for (const std::size_t piece :
         {std::size_t{1}, std::size_t{7}, std::size_t{48}, stream.size()}) {
        const Received received = Feed(stream, piece);
        EXPECT_EQ(received.error, "") << "pieces of " << piece;
        ASSERT_EQ(received.pdus.size(), 2 * pdus.size()) << "pieces of " << piece;
        for (std::size_t i = 0; i < received.pdus.size(); ++i) {
            EXPECT_EQ(received.pdus[i], pdus[i / 2]) << "message " << i;
        }
    }
}

TEST(Channel, TruncatedAnywhereNothingComesOut) {
    const Bytes message = Forward(WritePdu(31));
    for (std::size_t size = 1; size < message.size(); ++size) {
        const Bytes part(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(size));
        const Received received = Feed(part, 16);
        EXPECT_TRUE(received.pdus.empty() && received.error == "incomplete") << size << " bytes";
    }
}

TEST(Channel, MalformedMessagesAreRefused) {
    const Bytes good = WritePdu(100);
    const auto changed = [](Bytes message, std::size_t offset, std::uint32_t value) {
        StoreLe32(&message[offset], value);
        return message;
    };
    const auto pdu_with = [&](std::size_t offset, std::uint32_t value) {
        Bytes pdu = good;
        StoreBe32(&pdu[offset], value);
        return Forward(pdu);
    };
    const Bytes deflated = Compressed(good);
    Bytes longer = deflated;
    longer.resize(longer.size() + 9);
    const std::uint32_t raw = 148;
    const struct {
        const char* name;
        Bytes message;
        const char* error;
    } cases[] = {
        {"outer length of 4 GiB", changed(Forward(good), 0, 0xFFFFFFFF), "announces 4294967295"},
        {"outer length one too long", changed(Forward(good), 0, kMaxMessage - 7), "announces"},
        {"outer length 0", changed(Forward(good), 0, 0), "message of 8 bytes"},
        {"other channel", changed(Forward(good), 4, 0x0C), "channel 12"},
        {"inner length of 4 GiB", changed(Forward(good), 8, 0xFFFFFFFF), "inner message announces"},
        {"inner length one too long", changed(Forward(good), 8, 165), "inner message announces"},
        {"inner length without an id", changed(Forward(good), 8, 3), "payload of 3"},
        {"inner length within the fields", changed(Forward(good), 8, 11), "forward too short"},
        {"version request from a host", changed(Forward(good), 12, 1), "type 1"},
        {"datasize of 4 GiB", changed(Forward(good), 20, 0xFFFFFFFF), "announces 4294967295"},
        {"datasize beyond the filler", changed(Forward(good), 20, 153), "announces 153"},
        {"datasize one short", changed(Forward(good), 20, 147), "PDU of 147 bytes announces 148"},
        {"no PDU", Forward({}), "PDU of 0 bytes"},
        {"half a header", Forward(Bytes(47)), "shorter than its header"},
        {"a reply", pdu_with(0, USBIP_RET_SUBMIT), "unknown command 3"},
        {"transfer of 4 GiB", pdu_with(24, 0xFFFFFFFF), "PDU of 148 bytes announces 4294967343"},
        {"4 billion iso packets", pdu_with(32, 0xFFFFFFFE), "announces 68719476852"},
        {"an unlink with data", pdu_with(0, USBIP_CMD_UNLINK), "PDU of 148 bytes announces 48"},
        {"rawsize above the limit", Forward(deflated, kMaxRawSize + 1), "inflates to"},
        {"rawsize too long", Forward(deflated, raw + 1), "not 149 bytes"},
        {"rawsize too short", Forward(deflated, raw - 1), "not 147 bytes"},
        {"no zlib stream", Forward(good, raw), "damaged"},
        {"bytes behind the zlib stream", Forward(longer, raw), "damaged"},
        {"half a zlib stream", Forward({deflated.begin(), deflated.end() - 9}, raw), "damaged"},
    };
    for (const auto& one : cases) {
        const Received received = Feed(one.message, one.message.size());
        EXPECT_TRUE(received.pdus.empty()) << one.name;
        EXPECT_NE(received.error.find(one.error), std::string::npos)
            << one.name << ": expected '" << one.error << "', got '" << received.error << "'";
    }
}

// Takes everything out of the queue, `piece` bytes at a time.
Bytes Drain(OutputQueue& queue, std::size_t piece) {
    Bytes stream;
    while (queue.Pending() != 0) {
        std::array<iovec, 2> vectors{};
        std::size_t room = piece;
        std::size_t taken = 0;
        for (std::size_t i = 0; i < queue.Gather(vectors); ++i) {
            const std::size_t size = std::min(room, vectors[i].iov_len);
            const auto* data = static_cast<const std::uint8_t*>(vectors[i].iov_base);
            stream.insert(stream.end(), data, data + size);
            room -= size;
            taken += size;
        }
        queue.Consume(taken);
    }
    return stream;
}

TEST(Channel, ForwardsGoOutAsTheClientMakesThem) {
    const Bytes small = WritePdu(kCompressThreshold - sizeof(usbip_header));
    const Bytes large = WritePdu(kCompressThreshold + 1 - sizeof(usbip_header));
    for (const std::size_t piece : {1U, 31U, 1U << 20}) {
        OutputQueue queue;
        EXPECT_FALSE(queue.PushForward(kDevid, small, true));
        EXPECT_FALSE(queue.PushForward(kDevid, large, false));
        EXPECT_TRUE(queue.PushForward(kDevid, large, true));
        const std::size_t promised = queue.Pending();
        const Bytes stream = Drain(queue, piece);
        EXPECT_EQ(stream.size(), promised);
        EXPECT_TRUE(std::equal(stream.begin(), stream.begin() + 4128, Forward(small).begin()));
        const Received received = Feed(stream, stream.size());
        EXPECT_EQ(received.error, "");
        EXPECT_EQ(received.pdus, (std::vector<Bytes>{small, large, large}));
    }
}

TEST(Channel, MapMessageHasTheDocumentedLayout) {
    const Bytes map =
        EncodeDevMap(3, 1, 2, {std::string(300, 'n'), UsbSpeed::kSuper, 0x1D6B, 0x0104});
    ASSERT_EQ(map.size(), 844U);
    EXPECT_EQ(Bytes(map.begin(), map.begin() + 20),
              (Bytes{0x44, 3, 0, 0, 0x0B, 0, 0, 0, 0x3C, 3, 0, 0, 3, 0, 0, 0, 3, 0, 0, 0}));
    EXPECT_EQ(map[20 + 254], 'n');
    EXPECT_EQ(map[20 + 255], 0) << "a long name keeps its end";
    EXPECT_EQ(Bytes(map.begin() + 820, map.begin() + 836),
              (Bytes{1, 0, 0, 0, 2, 0, 0, 0, 5, 0, 0, 0, 0x6B, 0x1D, 0x04, 0x01}));
}

}  // namespace
}  // namespace remote::test
