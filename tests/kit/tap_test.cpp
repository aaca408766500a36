// What the tap tells, counts, keeps back, and leaves as it is, while messages pass in pieces of any
// size.
#include "xj-client-usbip/kit/Tap.h"

#include <gtest/gtest.h>

#include "fakes/FakeHost.h"
#include "fakes/Traffic.h"

namespace xj_usbip {
namespace {

constexpr const char* kFirst = "disk (1d6b:0104, high speed)";

// The host and the module, on the test's one thread.
class TapTest : public ::testing::TestWithParam<unsigned long>, public ITapEvents {
  protected:
    TapTest() { stream_->read_block = stream_->write_block = GetParam(); }

    bool OnMap(const RemoteDevice& device) override {
        Tell("map " + std::to_string(device.id) + " " + Describe(device) + " " +
             std::to_string(device.kernel_id));
        return accept_;
    }
    void OnUnmap(std::uint32_t id) override { Tell("unmap " + std::to_string(id)); }
    void OnEnd(std::uint32_t id) override { Tell("end " + std::to_string(id)); }
    void OnVersion(std::uint32_t version) override { Tell("version " + std::to_string(version)); }
    void OnPdu(const TappedPdu& pdu) override {
        Tell(std::to_string(pdu.device.id) + (pdu.to_remote ? " > " : " < ") +
             std::to_string(pdu.size) + " " + std::string(pdu.bytes.substr(sizeof(usbip_header))));
    }
    void Tell(const std::string& text) { told_ += text + "\n"; }
    std::string Told() { return std::exchange(told_, ""); }

    // What of `messages` the module gets, which reads as it does: a header, then what it announces.
    std::string Receive(const std::string& messages) {
        stream_->Feed(messages);
        stream_->End();
        std::string got;
        for (std::size_t wanted = sizeof(_MESSAGE_HEADER); wanted > 0;) {
            std::string piece(wanted, '\0');
            unsigned long size = 0;
            if (tap_->Read(piece.data(), wanted, &size, 0) != 0) break;
            got += piece.substr(0, size);
            wanted -= size;
            if (wanted > 0) continue;
            const std::size_t message = got.size() - begun_;
            wanted = message == sizeof(_MESSAGE_HEADER)
                         ? Parse<_MESSAGE_HEADER>(got.substr(begun_)).length
                         : 0;
            if (wanted > 0) continue;
            begun_ = got.size();
            wanted = sizeof(_MESSAGE_HEADER);
        }
        begun_ = 0;
        stream_->End(false);
        return got;
    }
    // What of it the remote side gets.
    std::string Send(const std::string& message) {
        const std::size_t before = stream_->Written().size();
        unsigned long written = 0;
        for (std::string_view rest = message; !rest.empty(); rest.remove_prefix(written)) {
            if (tap_->Write(rest.data(), rest.size(), &written, 0) != 0) break;
            if (on_piece_) on_piece_();
        }
        return stream_->Written().substr(before);
    }
    void Passes(const std::string& messages) { EXPECT_TRUE(Receive(messages) == messages); }
    void Leaves(const std::string& message) { EXPECT_TRUE(Send(message) == message); }

    bool accept_ = true;
    std::function<void()> on_piece_;
    const CRefObj<FakeStream> stream_{new FakeStream};
    const CRefObj<Tap> tap_{new Tap(stream_.Get(), *this)};
    std::size_t begun_ = 0;
    std::string told_;
};

TEST_P(TapTest, ASessionIsFollowed) {
    Passes(VersionRequest(kVersionFlagCompress));
    Leaves(VersionResponse());
    Passes(MapMessage(7));
    EXPECT_EQ(Told(), "version 3\nmap 7 " + std::string(kFirst) + " 65540\n");

    const std::string big(5000, 'x');
    Leaves(ForwardMessage(7, SubmitIn(16, 4096)));
    Leaves(CompressedForward(7, SubmitOut(2, big)));
    Leaves(ForwardMessage(7, SubmitIn(3, 8)));
    Leaves(ForwardMessage(7, Unlink(4, 3)));
    EXPECT_EQ(tap_->Counts(7)->outstanding, 4u);
    Passes(ForwardMessage(7, SubmitReply(2, 5000) + SubmitReply(16, 4, "data") + UnlinkReply(4)) +
           ForwardMessage(8, SubmitReply(9, 0)));
    const DeviceCounts counts = *tap_->Counts(7);
    EXPECT_EQ(counts.outstanding, 0u) << "what was unlinked gets no reply";
    EXPECT_EQ(counts.to_remote.pdus, 4u);
    EXPECT_EQ(counts.to_remote.bytes, 4 * 48u + 5000);
    EXPECT_EQ(counts.to_remote.compressed, 1u);
    EXPECT_EQ(counts.to_remote.on_stream, stream_->Written().size() - 20);
    EXPECT_EQ(counts.from_remote.pdus, 3u);
    EXPECT_EQ(counts.from_remote.bytes, 3 * 48u + 4);
    EXPECT_GT(counts.round_trip.count(), 0);
    EXPECT_EQ(Told(), "") << "nobody has asked for PDUs";

    Passes(MapMessage(7));
    EXPECT_EQ(tap_->Counts(7)->to_remote.pdus, 0u) << "another device";
    Passes(UnmapMessage(7) + UnmapMessage(7) + MapMessage(8));
    Leaves(UnmapMessage(8));
    EXPECT_EQ(Told(), "unmap 7\nmap 7 " + std::string(kFirst) + " 65540\nunmap 7\nmap 8 " + kFirst +
                          " 65540\nend 8\n");
    EXPECT_FALSE(tap_->Counts(7) || tap_->Counts(8));
}

TEST_P(TapTest, ShowsSoMuchOfEachPduAsIsAskedFor) {
    Passes(MapMessage(7));
    Told();
    tap_->ShowPdus(6);
    Leaves(ForwardMessage(7, SubmitOut(1, "out data")));
    Leaves(CompressedForward(7, SubmitOut(2, std::string(5000, 'x'))));
    Leaves(ForwardMessage(7, SubmitIn(3, 100)));
    Passes(ForwardMessage(7, SubmitReply(1, 8) + SubmitReply(3, 9, "data that") + UnlinkReply(9)) +
           CompressedForward(7, SubmitReply(2, 4) + SubmitReply(4, 0)) +
           CompressedForward(7, SubmitReply(5, 4, "more")));
    EXPECT_EQ(Told(),
              "7 > 56 out da\n7 > 5048 xxxxxx\n7 > 48 \n"
              "7 < 48 \n7 < 57 data t\n7 < 48 \n7 < 48 \n7 < 52 more\n");
    tap_->ShowPdus(std::nullopt);
    Leaves(ForwardMessage(7, SubmitIn(3, 100)));
    EXPECT_EQ(Told(), "");
}

TEST_P(TapTest, ARefusedDeviceNeverReachesTheModule) {
    Passes(MapMessage(7));
    accept_ = false;
    const std::string longer = Message(kUsbipDevMap, MapMessage(9).substr(16) + "from tomorrow");
    EXPECT_TRUE(Receive(MapMessage(8) + longer + VersionRequest(0)) == VersionRequest(0));
    EXPECT_TRUE(stream_->Written() == UnmapMessage(8) + UnmapMessage(9));
    EXPECT_FALSE(tap_->Counts(8));
    EXPECT_TRUE(Receive(MapMessage(7)) == UnmapMessage(7)) << "the one before ends";

    // It waits for the message that is being written.
    const std::string message = ForwardMessage(1, "some data");
    const std::string before = stream_->Written();
    on_piece_ = [&] {
        on_piece_ = nullptr;
        Receive(MapMessage(10));
    };
    Send(message);
    EXPECT_TRUE(stream_->Written() == before + message + UnmapMessage(10));
}

TEST_P(TapTest, MoreDevicesThanCanBeAreRefused) {
    std::string maps;
    for (std::uint32_t id = 0; id <= Tap::kMostDevices; ++id)
        maps += MapMessage(id);
    if (GetParam() < 20) return;  // nothing new, and slow
    EXPECT_EQ(Receive(maps).size(), Tap::kMostDevices * sizeof(usbip_dev_map));
    EXPECT_TRUE(stream_->Written() == UnmapMessage(Tap::kMostDevices));
    // A remote side that takes nothing is not waited for.
    accept_ = false;
    unsigned long written = 0;
    stream_->write_block = 1;
    tap_->Write("half of it", 10, &written, 0);
    EXPECT_EQ(Receive(maps + VersionRequest(0)).size(), Tap::kMostDevices * sizeof(usbip_dev_unmap))
        << "read on, and kept what to tell";
}

TEST_P(TapTest, WhatIsNoMessagePassesAsItIs) {
    Passes(MapMessage(7));
    Told();
    tap_->ShowPdus(100);
    std::string other = VersionRequest(0);
    other[4] = '\x0C';
    std::string claims_more = ForwardMessage(7, SubmitReply(1, 1'000'000));
    auto forward = Parse<usbip_forward>(claims_more);
    forward.datasize = 0xFFFFFFFF;
    claims_more.replace(0, sizeof forward, Bytes(forward));
    for (const std::string& message :
         {other, Bytes(_MESSAGE_HEADER{0, 9, {}}),
          Bytes(_MESSAGE_HEADER{5, kUsbipChannel, {}}) + "short", Message(kUsbipDevMap, "short"),
          Message(kUsbipDevUnmap, "m"), Message(kUsbipForward, ""), Message(99, "unheard of"),
          claims_more, ForwardMessage(7, "no PDU"), ForwardMessage(7, SubmitOut(1, "a command")),
          ForwardMessage(7, "not deflated", 100), ForwardMessage(7, Deflated("short"), 5),
          CompressedForward(7, SubmitOut(1, "a command")),
          // Longer than any PDU may be.
          ForwardMessage(7, SubmitReply(1, 0xFFFFFFF0) + SubmitReply(1, 0))})
        Passes(message);
    for (const std::string& message :
         {std::string("short"), Message(kUsbipForward, ""), ForwardMessage(7, "no PDU"),
          ForwardMessage(7, "not deflated", 100), ForwardMessage(8, SubmitIn(1, 1))})
        Leaves(message);
    EXPECT_EQ(Told(), "");
    EXPECT_EQ(tap_->Counts(7)->from_remote.pdus, 1u) << "the one that claims more";

    // More than is ever under way: the oldest are forgotten.
    for (std::uint32_t seqnum = 1; seqnum <= 1025; ++seqnum)
        Leaves(ForwardMessage(7, SubmitIn(seqnum, 1)));
    EXPECT_EQ(tap_->Counts(7)->outstanding, 1024u);
    unsigned long written = 0;
    stream_->failing_writes = 1;
    EXPECT_NE(tap_->Write("a", 1, &written, 0), 0);
    Leaves(VersionResponse());
    EXPECT_NE(Told().find("version 3"), std::string::npos) << "behind one that failed";
}

INSTANTIATE_TEST_SUITE_P(InPiecesOf, TapTest, ::testing::Values(~0UL, 1, 13));

}  // namespace
}  // namespace xj_usbip
