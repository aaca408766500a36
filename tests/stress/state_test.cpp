// Lives of a plug-in, made up from a seed, against a model of what has to come out.
//
// XJ_STRESS_SECONDS: how long. XJ_STRESS_SEED: one life only, that of this seed. Each life prints
// its seed and its steps as they come, so that they are there whatever ends it. A seed fixes the
// steps; the module's own threads add what no seed can fix.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <iostream>
#include <random>
#include <stdexcept>

#include "fakes/Ledger.h"
#include "fakes/Rig.h"
#include "fakes/Traffic.h"

namespace {

constexpr std::uint32_t kIds = 8;         // those of the model
constexpr std::uint32_t kBurstSpeed = 2;  // tells attaches of bursts from others

void Check(bool good, const char* expected) {
    if (good) return;
    ADD_FAILURE() << expected;  // at once, since the clean-up may hang
    throw std::runtime_error("the life is over");
}

// What is mapped under one id, and what is on its way.
struct Device {
    std::unique_ptr<KernelEnd> kernel;  // null: none
    std::string owed;                   // what the peer sent and the kernel has not read
    std::deque<std::string> awaited;    // PDUs that the kernel sent; "" for the device's end
    bool lossy = false;                 // all of them but the last may have been dropped
    usbip_header command = {};          // the last one that the peer has got and not answered
};

class Life : Rig {
  public:
    explicit Life(unsigned long seed)
        : Rig(128), random_(static_cast<std::mt19937::result_type>(seed)) {}

    void Play() {
        for (auto sessions = Pick(1, 3); sessions > 0; --sessions) {
            host.stream = new FakeStream;
            host.stream->read_block = PickSize();
            host.stream->write_block = PickSize();
            host.Start();
            for (auto steps = Pick(0, 400); steps > 0; --steps)
                Step();
            End(sessions == 1);
        }
        std::size_t ends = 0;
        for (const LogLine& line : host.runtime.Lines(1))
            if (line.text.starts_with("[usbipclient] device end")) ++ends;
        Check(ends == controller.Requests().size(), "each attached device reports its end once");
    }

  private:
    int Pick(int from, int to) { return std::uniform_int_distribution(from, to)(random_); }
    std::size_t PickSize() {
        constexpr std::size_t kSizes[] = {48, 49, 500, 4096, 4097, 20'000, 40'961, 90'000};
        return kSizes[Pick(0, std::size(kSizes) - 1)];
    }

    void Step() {
        static constexpr std::pair<const char*, void (Life::*)(std::uint32_t devid)> kKinds[] = {
            {"map", &Life::Plug},   {"forward", &Life::Forward}, {"send", &Life::KernelSends},
            {"map", &Life::Plug},   {"forward", &Life::Forward}, {"send", &Life::KernelSends},
            {"end", &Life::Unplug}, {"burst", &Life::Burst},     {"settle", &Life::Settle},
            {"storm", &Life::Storm}};
        const auto& [name, play] = kKinds[Pick(0, std::size(kKinds) - 1)];
        const auto devid = static_cast<std::uint32_t>(Pick(1, kIds));
        std::cerr << ' ' << name << devid;
        (this->*play)(devid);
    }

    void Plug(std::uint32_t devid) {
        host.Receive(MapMessage(devid));
        Device& device = devices_[devid];
        if (device.kernel) Ends(device, true);
        do {
            device.kernel = controller.WaitForAttach();
            Check(device.kernel != nullptr, "a mapped device is attached");
        } while (device.kernel->request.ends_with(std::to_string(kBurstSpeed)));
    }
    // Outside the model: comes and goes, perhaps before it is attached, and has no traffic.
    void Burst(std::uint32_t devid) {
        for (auto i = Pick(1, 4); i > 0; --i)
            host.Receive(Pick(0, 1) == 0 ? MapMessage(kIds + devid, DeviceInfo(kBurstSpeed))
                                         : UnmapMessage(kIds + devid));
    }
    // By the peer, by the kernel's closing in the middle of a PDU, or by what no kernel sends.
    void Unplug(std::uint32_t devid) {
        Device& device = devices_[devid];
        const auto way = Pick(0, 2);
        const std::string part = KernelPdu(next_++, 500).substr(0, PickSize() % 500);
        if (Pick(0, 1) == 0) Read(device);
        if (way == 0) host.Receive(UnmapMessage(devid));
        if (!device.kernel) return;
        if (way != 0) device.kernel->Send(way == 1 ? part : UnlinkReply(1));
        if (way == 1) device.kernel.reset();
        // A close with bytes unread is a reset, which may overtake what was sent.
        Ends(device, way == 0 || (way == 1 && !device.owed.empty()));
    }
    void Forward(std::uint32_t devid) {
        Device& device = devices_[devid];
        for (auto i = Pick(1, 4); i > 0; --i) {
            std::string pdu = PeerPdu(kPeerSeq + next_++, PickSize());
            // An OUT command is answered without data.
            if (Pick(0, 3) == 0 && device.command.seqnum != 0) {
                const auto command = std::exchange(device.command, {});
                pdu = SubmitReply(be32toh(command.seqnum),
                                  be32toh(command.u.cmd_submit.transfer_buffer_length));
            }
            if (device.kernel) device.owed += pdu;
            host.Receive(Pick(0, 1) == 0 ? ForwardMessage(devid, pdu)
                                         : CompressedForward(devid, pdu));
        }
    }
    void KernelSends(std::uint32_t devid) {
        Device& device = devices_[devid];
        for (auto i = device.kernel ? Pick(1, 4) : 0; i > 0; --i) {
            device.awaited.push_back(KernelPdu(next_++, PickSize()));
            Check(device.kernel->Send(device.awaited.back()), "a live device reads");
        }
    }

    // Everybody at once, both ways, with a large PDU now and then. Rare, since it takes its time.
    void Storm(std::uint32_t) {
        if (Pick(0, 9) != 0) return;
        Settle();
        const auto size = [this] { return Pick(0, 200) == 0 ? std::size_t{4} << 20 : PickSize(); };
        std::vector<std::string> commands(kIds + 1), replies(kIds + 1);
        for (auto rounds = Pick(1, 20); rounds > 0; --rounds)
            for (auto& [devid, device] : devices_) {
                if (!device.kernel) continue;
                commands[devid] += device.awaited.emplace_back(KernelPdu(next_++, size()));
                const std::string reply = PeerPdu(kPeerSeq + next_++, size());
                replies[devid] += reply;
                host.Receive(rounds % 3 == 0 ? CompressedForward(devid, reply)
                                             : ForwardMessage(devid, reply));
            }
        std::atomic<bool> good{true};
        std::vector<std::jthread> threads;
        for (auto& [devid, device] : devices_) {
            if (!device.kernel) continue;
            threads.emplace_back([&good, &kernel = *device.kernel, &all = commands[devid]] {
                if (!kernel.Send(all)) good = false;
            });
            threads.emplace_back([&good, &kernel = *device.kernel, &all = replies[devid]] {
                if (kernel.Receive(all.size()) != all) good = false;
            });
        }
        Settle();
        threads.clear();
        Check(good, "no byte is lost");
    }
    // By ExitInstance or Release, perhaps inside Run, or after the stream has failed.
    void End(bool release) {
        Burst(1);
        if (Pick(0, 1) == 0) host.stream->failing_writes = 1'000'000;
        if (Pick(0, 1) == 0) host.EndRun();
        const Stopwatch watch;
        if (!release || Pick(0, 1) == 0) host.plugin->ExitInstance();
        Check(watch.Milliseconds() < (kSanitized ? 10'000 : 2000), "ExitInstance takes below 2 s");
        host.EndRun();
        if (release) host.plugin = nullptr;
        if (!release) host.plugin->ExitInstance();  // of what was mapped meanwhile
        Check(!host.stream->overlapped, "one thread writes at a time");
        for (auto& [devid, device] : devices_)
            if (device.kernel) CheckClosed(device);
        devices_.clear();
        for (const auto& kernel : controller.Attached())
            Check(kernel->WaitForEnd(), "every socket is closed");
    }

    // --- the model ---

    void Read(Device& device) {
        if (!device.kernel) return;
        Check(device.kernel->Receive(device.owed.size()) == device.owed,
              "the kernel gets what the peer has sent");
        device.owed.clear();
    }
    void CheckClosed(Device& device) {
        const std::string got = device.kernel->Receive(device.owed.size() + 1);
        Check(device.owed.starts_with(got) && device.kernel->WaitForEnd(),
              "the kernel gets what the peer has sent or the start of it, and then the end");
    }
    void Ends(Device& device, bool lossy) {
        if (device.kernel) CheckClosed(device);
        device.kernel = nullptr;
        device.awaited.emplace_back();
        device.lossy = device.lossy || lossy;
        Settle();
        device = {};
    }
    // Everything that has to come out has come.
    void Settle(std::uint32_t = 0) {
        host.Receive(VersionRequest(Pick(0, 1) == 0 ? kVersionFlagCompress : 0));
        for (auto& [devid, device] : devices_) {
            while (!device.awaited.empty())
                Match(NextMessage());
            device.lossy = false;
            Read(device);
        }
    }
    void Match(const std::string& message) {
        Check(!message.empty(), "all messages come");
        if (Parse<usbip_message_head>(message).inner.type == kUsbipVersionRsp) return;
        const auto devid = Parse<usbip_forward>(message).devid;
        const std::string pdu = CarriedPdu(message);
        if (devid > kIds && pdu.empty()) return;
        Device& device = devices_[devid];
        while (device.lossy && device.awaited.size() > 1 && device.awaited.front() != pdu)
            device.awaited.pop_front();
        Check(!device.awaited.empty() && device.awaited.front() == pdu,
              "what comes is whole, once and in order");
        device.awaited.pop_front();
        device.command = Parse<usbip_header>(pdu);
    }

    std::mt19937 random_;
    std::map<std::uint32_t, Device> devices_;  // by id
    std::uint32_t next_ = 1;                   // sequence number
};

}  // namespace

// In place of the C library's: the module and the kernel move parts at a time, as often as not.
static std::size_t part(std::size_t size) {
    thread_local std::minstd_rand random{std::random_device{}()};
    return random() % 2 == 0 ? size : 1 + random() % size;
}
extern "C" ssize_t send(int socket, const void* data, std::size_t size, int flags) {
    return sendto(socket, data, part(size), flags, nullptr, 0);
}
extern "C" ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
    return recvfrom(socket, buffer, part(size), flags, nullptr, nullptr);
}

TEST(State, LivesAsTheModelSays) {
    const auto number = [](const char* name, unsigned long otherwise) {
        const char* text = std::getenv(name);
        return text != nullptr ? std::strtoul(text, nullptr, 10) : otherwise;
    };
    const auto given = number("XJ_STRESS_SEED", 0);
    const auto seconds = static_cast<long>(number("XJ_STRESS_SECONDS", XJ_STRESS_SECONDS));
    const auto first = given != 0 ? given : std::random_device{}();
    auto seed = first;
    const Stopwatch watch;
    do {
        const Ledger ledger;
        std::cerr << "\nXJ_STRESS_SEED=" << seed << ':';
        Life(seed++).Play();
        ASSERT_TRUE(ledger.Balanced());
    } while (given == 0 && watch.Milliseconds() < seconds * 1000);
    std::cerr << '\n' << seed - first << " lives in " << watch.Milliseconds() / 1000 << " s\n";
}
