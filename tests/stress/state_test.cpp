// Lives of a plug-in, made up from a seed, against a model of what has to come out.
//
// XJ_STRESS_SECONDS: how long. XJ_STRESS_SEED: one life only, that of the seed that a failure
// names. A seed fixes the sequence of operations; the module's own threads add what no seed can
// fix.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <deque>
#include <random>
#include <stdexcept>

#include "base/BaseThread.h"
#include "stress/Traffic.h"
#include "support/FakeHost.h"
#include "support/Ledger.h"

namespace {

constexpr std::uint32_t kIds = 4;
constexpr long kMaxUnreaped = 6;  // with kIds live ones below the fake's 16 ports

void Check(bool good, const std::string& what) {
    if (!good) throw std::runtime_error(what);
}

struct Pdu {
    std::uint32_t seqnum;  // 0: not a PDU, but the report that the device has ended
    std::size_t size;
    bool optional;  // may have been dropped with a client, a stream or a queue
};

// One mapping of a device id. Its tag travels as the bus and device number of the attach request.
struct Client {
    std::uint32_t devid = 0;
    std::unique_ptr<KernelEnd> kernel;  // null: not yet taken from the controller
    std::deque<Pdu> to_kernel;
    bool deaf = false;   // its write thread has met an invalid PDU
    bool ended = false;  // unmapped, replaced, or its connection broke
};

class Life {
  public:
    explicit Life(unsigned long seed) : random_(static_cast<std::mt19937::result_type>(seed)) {
        NewStream();
        host_.Start();
    }

    void Play() {
        const int length = Pick(20, 200);
        for (int i = 0; i < length; ++i)
            Step();
        Settle();
        if (Pick(0, 1) == 0) host_.EndRun();
        if (Pick(0, 1) == 0) Exit();
        host_.EndRun();
        host_.plugin = nullptr;  // Release, sometimes without ExitInstance
        EndAll();
        Reap();
        const auto lines = host_.runtime.Lines(1);
        const auto count = [&](const char* start) {
            return std::count_if(lines.begin(), lines.end(),
                                 [&](const LogLine& line) { return line.text.starts_with(start); });
        };
        Check(count("[usbipclient] device end") == count("[linuxvhci] Attach success"),
              "each attached client reports its end once");
        Check(!host_.stream->WritesOverlapped(), "one writer at a time");
        for (const int state : controller_.States())
            Check(state == 4, "a port is not free in the end");
    }

    std::string Journal() const {
        std::string text;
        for (const char* operation : journal_)
            text.append(" ").append(operation);
        return text;
    }

  private:
    int Pick(int from, int to) { return std::uniform_int_distribution(from, to)(random_); }
    std::size_t PickSize() {
        const std::size_t sizes[] = {48, 49, 500, 4095, 4096, 4097, 20'000, 40'961, 90'000};
        return sizes[Pick(0, std::size(sizes) - 1)];
    }
    std::uint32_t PickId() { return static_cast<std::uint32_t>(Pick(1, kIds)); }

    // The client mapped under this id; null when there is none.
    Client* Mapped(std::uint32_t devid) {
        const auto found = mapped_.find(devid);
        return found == mapped_.end() ? nullptr : &clients_.at(found->second);
    }
    // The same, if its connection stands, and with the kernel's end at hand.
    Client* Live(std::uint32_t devid) {
        Client* client = Mapped(devid);
        if (client == nullptr || client->ended) return nullptr;
        while (!client->kernel)
            Adopt();
        return client;
    }

    void Step() {
        const int kind = Pick(0, 99);
        const std::uint32_t devid = PickId();
        const auto run = [&](const char* name, auto operation) {
            journal_.push_back(name);
            operation();
        };
        if (kind < 10) return run("map", [&] { Remap(devid); });
        if (kind < 15) return run("unmap", [&] { Unmap(devid); });
        if (kind < 40) return run("forward", [&] { Forward(devid); });
        if (kind < 65) return run("kernel", [&] { KernelSends(devid); });
        if (kind < 72) return run("read", [&] { KernelReads(devid, 2); });
        if (kind < 76) return run("close", [&] { KernelCloses(devid); });
        if (kind < 78) return run("garbage", [&] { KernelSendsGarbage(devid); });
        if (kind < 80) return run("invalid", [&] { PeerSendsInvalid(devid); });
        if (kind < 84) return run("noise", [&] { Noise(devid); });
        if (kind < 88) return run("burst", [&] { Burst(devid); });
        if (kind < 91) return run("version", [&] { host_.Receive(VersionRequest(Flag())); });
        if (kind < 96) return run("settle", [&] { Settle(); });
        if (kind < 97) return run("rerun", [&] { Rerun(); });
        if (kind < 98) return run("storm", [&] { Storm(); });
        if (kind < 99) return run("exit", [&] { Restart(false); });
        run("break", [&] { Restart(true); });
    }

    // --- what the remote side does ---

    std::uint8_t Flag() {
        ++versions_;
        return static_cast<std::uint8_t>(Pick(0, 1));
    }

    std::string MapText(std::uint32_t devid) {
        const unsigned tag = next_tag_++;
        clients_[tag].devid = devid;
        mapped_[devid] = tag;
        _USBIP_DEV dev = DeviceInfo();
        dev.busid = 1;
        dev.portid = tag;
        return MapMessage(devid, dev);
    }
    void Map(std::uint32_t devid) { host_.Receive(MapText(devid)); }
    void Remap(std::uint32_t devid) {
        Retire(devid);
        Map(devid);
    }
    void Unmap(std::uint32_t devid) {
        Retire(devid);
        host_.Receive(UnmapMessage(devid));
        mapped_.erase(devid);
    }

    std::string ForwardText(std::uint32_t devid) {
        const Pdu pdu{kPeerSeq + next_seq_++, PickSize(), false};
        Client* client = Mapped(devid);
        if (client != nullptr && !client->deaf) client->to_kernel.push_back(pdu);
        const std::string bytes = PeerPdu(pdu.seqnum, pdu.size);
        return Pick(0, 1) == 0 ? ForwardMessage(devid, bytes) : CompressedForward(devid, bytes);
    }
    void Forward(std::uint32_t devid) { host_.Receive(ForwardText(devid)); }

    void PeerSendsInvalid(std::uint32_t devid) {
        if (Client* client = Mapped(devid)) client->deaf = true;
        host_.Receive(ForwardMessage(devid, std::string(40, 'x')));
    }
    void Noise(std::uint32_t devid) {
        host_.Receive(Message(9, "junk") + Message(kUsbipVersionRsp, "abcd") +
                      Message(kUsbipDevUnmap, "ab") + ForwardMessage(kIds + 1, "nobody") +
                      ForwardMessage(devid, "x", 0xFFFFFFFF));
    }

    // Clients that are replaced and unmapped whether or not they are attached by then.
    void Burst(std::uint32_t devid) {
        Settle();
        Retire(devid);
        std::string bytes;
        for (int i = Pick(1, 3); i > 0; --i) {
            bytes += MapText(devid);
            unresolved_.push_back(mapped_[devid]);
            if (Pick(0, 1) == 0) bytes += ForwardText(devid);
            if (i == 1 && Pick(0, 1) == 0) {
                bytes += UnmapMessage(devid);
                mapped_.erase(devid);
            }
        }
        if (mapped_.count(devid) != 0) unresolved_.pop_back();
        for (const unsigned tag : unresolved_)
            clients_[tag].ended = true;
        host_.Receive(bytes);
        Settle();
    }

    // --- what the kernel does ---

    void KernelSends(std::uint32_t devid) {
        Client* client = Live(devid);
        if (client == nullptr) return;
        for (int i = Pick(1, 5); i > 0; --i) {
            const Pdu pdu{next_seq_++, PickSize(), rerunning_};
            to_peer_[devid].push_back(pdu);
            Check(client->kernel->Send(KernelPdu(pdu.seqnum, pdu.size)), "a live device is cut");
        }
    }

    void KernelReads(std::uint32_t devid, std::size_t most = SIZE_MAX) {
        Client* client = Live(devid);
        if (client == nullptr) return;
        for (; most > 0 && !client->to_kernel.empty(); --most) {
            const Pdu pdu = client->to_kernel.front();
            client->to_kernel.pop_front();
            Check(client->kernel->Receive(pdu.size) == PeerPdu(pdu.seqnum, pdu.size),
                  "the kernel got another PDU than expected");
        }
    }

    void KernelCloses(std::uint32_t devid) {
        if (rerunning_) Settle();
        const bool drained = Pick(0, 1) == 0;
        if (drained) KernelReads(devid);
        Client* client = Live(devid);
        if (client == nullptr) return;
        // With bytes unread, the close is a reset, which may overtake what the kernel sent.
        End(*client, client->to_kernel.empty());
        client->kernel.reset();
    }

    void KernelSendsGarbage(std::uint32_t devid) {
        if (rerunning_) Settle();
        Client* client = Live(devid);
        if (client == nullptr) return;
        End(*client, true);
        client->kernel->Send(UnlinkReply(1));
    }

    // --- what the host does ---

    void NewStream() {
        host_.stream = new FakeStream;
        const unsigned long blocks[] = {7, 1000, 4096, ~0UL};
        host_.stream->SetReadBlock(blocks[Pick(0, 3)]);
        host_.stream->SetWriteBlock(blocks[Pick(0, 3)]);
        versions_ = 0;
    }

    // A second Run while devices are mapped: it drops what is queued and goes on.
    void Rerun() {
        Settle();
        for (std::uint32_t devid = 1; devid <= kIds; ++devid)
            KernelSends(devid);
        for (const auto& [devid, tag] : mapped_)
            Waive(devid);
        host_.RunAgain();
        rerunning_ = true;  // until it has answered, the queue may be closed
    }

    // ExitInstance while Run still dispatches.
    void Storm() {
        Settle();
        Reap();
        for (std::uint32_t devid = 1; devid <= kIds; ++devid) {
            Map(devid);
            Forward(devid);
            Forward(PickId());
            host_.Receive(UnmapMessage(PickId()));
        }
        host_.plugin->ExitInstance();
        Check(host_.stream->WaitUntilDrained(), "Run goes on");
        Restart(false);
    }

    // ExitInstance, and then Run with a new stream. `broken`: the old one fails first.
    void Restart(bool broken) {
        if (broken) host_.stream->FailWrites(INT_MAX);
        host_.EndRun();
        Exit();
        EndAll();
        if (Pick(0, 1) == 0) Reap();
        NewStream();
        host_.Start();
    }

    void Exit() {
        const Stopwatch watch;
        host_.plugin->ExitInstance();
        Check(watch.Milliseconds() < 2000 || kSanitized, "ExitInstance hangs");
    }

    // --- the model ---

    void Adopt() {
        auto kernel = controller_.WaitForAttach();
        Check(kernel != nullptr, "a mapped device is not attached");
        ++adopted_;
        unsigned tag = 0;
        std::sscanf(kernel->request.c_str(), "%*u %*d %u", &tag);
        clients_.at(tag & 0xFFFF).kernel = std::move(kernel);
    }
    // Once nothing attaches any more.
    void AdoptAll() {
        while (adopted_ < controller_.Requests().size())
            Adopt();
    }

    // The client, which is attached, ends now: what is on its way may be lost, its end is reported.
    void End(Client& client, bool all_sent_arrives) {
        client.ended = true;
        if (!all_sent_arrives) Waive(client.devid);
        to_peer_[client.devid].push_back({0, 0, false});
    }
    void Waive(std::uint32_t devid) {
        for (Pdu& pdu : to_peer_[devid])
            pdu.optional = pdu.optional || pdu.seqnum != 0;
    }
    // Before a message that replaces or unmaps what is mapped under this id.
    void Retire(std::uint32_t devid) {
        if (std::count_if(clients_.begin(), clients_.end(), [](const auto& entry) {
                return entry.second.ended && entry.second.kernel;
            }) > kMaxUnreaped) {
            Settle();
            Reap();
        }
        if (rerunning_) Settle();
        if (Client* client = Live(devid)) End(*client, false);
        Waive(devid);  // also of one that was still ending
    }
    void EndAll() {
        AdoptAll();
        for (auto& [tag, client] : clients_)
            client.ended = true;
        mapped_.clear();
        to_peer_.clear();
        unresolved_.clear();
        rerunning_ = false;
    }

    // Ended clients have let go of their ends, and what the kernel got is the start of what was
    // sent to it.
    void Reap() {
        for (auto& [tag, client] : clients_) {
            if (!client.ended || !client.kernel) continue;
            std::string sent;
            for (const Pdu& pdu : client.to_kernel)
                sent += PeerPdu(pdu.seqnum, pdu.size);
            const std::string got = client.kernel->Receive(sent.size() + 1);
            Check(sent.starts_with(got), "the kernel got what was not sent");
            Check(client.kernel->WaitForEnd(), "a port is stuck");
            client.kernel.reset();
        }
    }

    // Everything received has been handled, and everything that has to come out has come.
    void Settle() {
        host_.Receive(VersionRequest(Flag()));
        std::vector<std::string> messages;
        while (versions_ > 0) {
            std::string message = host_.stream->WaitForMessage();
            Check(!message.empty(), "a version request is not answered");
            if (Parse<usbip_message_head>(message).inner.type == kUsbipVersionRsp) {
                --versions_;
            } else {
                messages.push_back(std::move(message));
            }
        }
        rerunning_ = false;
        // Whether these clients were attached before they were stopped is known only now.
        const auto requests = controller_.Requests();
        for (const unsigned tag : unresolved_) {
            const std::string devid = ' ' + std::to_string(1U << 16 | tag) + " 3";
            if (std::any_of(requests.begin(), requests.end(),
                            [&](const std::string& request) { return request.ends_with(devid); })) {
                to_peer_[clients_.at(tag).devid].push_back({0, 0, false});
                while (!clients_.at(tag).kernel)
                    Adopt();
            }
        }
        unresolved_.clear();
        for (const std::string& message : messages)
            Match(message);
        while (!Awaited().empty()) {
            const std::string message = host_.stream->WaitForMessage();
            Check(!message.empty(), "missing (device:PDU, 0 for its end):" + Awaited());
            Match(message);
        }
        for (std::uint32_t devid = 1; devid <= kIds; ++devid)
            KernelReads(devid);
    }

    std::string Awaited() const {  // empty: nothing
        std::string text;
        for (const auto& [devid, pdus] : to_peer_)
            for (const Pdu& pdu : pdus)
                if (!pdu.optional)
                    text += ' ' + std::to_string(devid) + ':' + std::to_string(pdu.seqnum);
        return text;
    }

    void Match(const std::string& message) {
        const auto forward = Parse<usbip_forward>(message);
        const bool end = forward.head.inner.type == kUsbipDevUnmap;
        const std::string pdu = end ? std::string() : CarriedPdu(message);
        const std::uint32_t seqnum = end ? 0 : be32toh(Parse<usbip_header>(pdu).seqnum);
        auto& expected = to_peer_[forward.devid];
        while (!expected.empty() && expected.front().optional && expected.front().seqnum != seqnum)
            expected.pop_front();
        Check(!expected.empty() && expected.front().seqnum == seqnum,
              "from device " + std::to_string(forward.devid) + " came " + std::to_string(seqnum) +
                  " instead of " +
                  (expected.empty() ? "nothing" : std::to_string(expected.front().seqnum)));
        Check(end || pdu == KernelPdu(seqnum, expected.front().size), "a PDU is not whole");
        expected.pop_front();
    }

    std::mt19937 random_;
    FakeController controller_{2, 16};
    FakeHost host_;
    std::vector<const char*> journal_;
    std::map<unsigned, Client> clients_;        // by tag
    std::map<std::uint32_t, unsigned> mapped_;  // device id to tag
    std::map<std::uint32_t, std::deque<Pdu>> to_peer_;
    std::vector<unsigned> unresolved_;  // tags of ended clients that may never have been attached
    std::size_t adopted_ = 0;           // attaches taken from the controller
    unsigned next_tag_ = 1;
    std::uint32_t next_seq_ = 1;
    int versions_ = 0;        // answers to version requests not yet seen
    bool rerunning_ = false;  // a second Run may still be dropping what is queued
};

TEST(State, LivesAsTheModelSays) {
    const unsigned long given = FromEnvironment("XJ_STRESS_SEED", 0);
    const auto clock = std::chrono::system_clock::now().time_since_epoch().count();
    unsigned long seed = given != 0 ? given : static_cast<unsigned long>(clock) % 1'000'000'000;
    const long end = static_cast<long>(FromEnvironment("XJ_STRESS_SECONDS", XJ_STRESS_SECONDS));
    const Stopwatch watch;
    int lives = 0;
    do {
        const Ledger ledger;
        const auto threads =
            OBJECT_MONITOR<CBaseThread>::_new - OBJECT_MONITOR<CBaseThread>::_delete;
        auto life = std::make_unique<Life>(seed);
        try {
            life->Play();
        } catch (const std::runtime_error& error) {
            FAIL() << error.what() << "; XJ_STRESS_SEED=" << seed << " after" << life->Journal();
        }
        life.reset();
        ++lives;
        EXPECT_EQ(OBJECT_MONITOR<CBaseThread>::_new - OBJECT_MONITOR<CBaseThread>::_delete,
                  threads);
        ASSERT_TRUE(ledger.Balanced()) << "XJ_STRESS_SEED=" << seed;
        ++seed;
    } while (given == 0 && watch.Milliseconds() < end * 1000);
    std::printf("%d lives in %ld s\n", lives, watch.Milliseconds() / 1000);
}

}  // namespace
