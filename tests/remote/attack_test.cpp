// What hosts, files and operators can do to the remote side, and what they are told.
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <tuple>

#include "DiskTest.h"
#include "ServerTest.h"
#include "remote/channel/Session.h"
#include "remote/disk/DiskSerial.h"

namespace {
std::atomic<std::size_t> largest_allocation{SIZE_MAX};
int syncs = 0;
int sync_result = 0;
}  // namespace

extern "C" int fdatasync(int) {
    ++syncs;
    errno = EIO;
    return sync_result;
}

// Not inlined: the compiler would see one half of a pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = size <= largest_allocation ? std::malloc(size) : nullptr;
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace remote::test {
namespace {

using namespace std::chrono_literals;

// `text` says `what`.
void ExpectIn(const std::string& text, const std::string& what) {
    EXPECT_NE(text.find(what), std::string::npos) << "no '" << what << "' in '" << text << "'";
}

class AttackedDisk : public DiskTest {
  protected:
    // Returns what is wrong, or nothing.
    std::string Open(bool read_only) const {
        std::string error;
        const bool opened = DiskImage::Open(path_, read_only, error).has_value();
        EXPECT_EQ(opened, error.empty());
        return error;
    }
};

TEST_F(AttackedDisk, WhoWritesToAnImageIsAlone) {
    const std::tuple<bool, bool, const char*> cases[] = {
        {false, false, ": in use, by another program"},
        {false, true, ": in use by somebody who writes"},
        {true, false, ": in use, by another program"},
    };
    for (const auto& [first_reads, second_reads, error] : cases) {
        Plug(UsbSpeed::kHigh, first_reads);
        ExpectIn(Open(second_reads), path_ + error);
    }
    Plug(UsbSpeed::kHigh, true);
    EXPECT_EQ(Open(true), "");
    disk_.reset();
    EXPECT_EQ(Open(false), "");
}

TEST_F(AttackedDisk, WhoMayOnlyReadIsToldHow) {
    disk_.reset();
    fchmod(file_.Get(), S_IRUSR | S_IRGRP | S_IROTH);
    const int user = setfsuid(65534);  // root may do everything
    const std::string error = Open(false);
    setfsuid(static_cast<uid_t>(user));
    ExpectIn(error, ",ro");
    std::string missing;
    EXPECT_FALSE(DiskImage::Open("/nowhere", false, missing));
    EXPECT_EQ(missing, "/nowhere: No such file or directory");
}

// A host that stops the unit, and one that just goes.
TEST_F(AttackedDisk, DataThatCouldNotBeMadeSafeIsTold) {
    for (const bool stops : {true, false}) {
        for (const int result : {0, -1}) {
            syncs = 0;
            sync_result = result;
            Plug();
            EXPECT_EQ(Run(kOut, 512, Block10(kWrite, 1, 1)), "ok 512, passed 0");
            if (stops) {
                EXPECT_EQ(Run(kOut, 0, FromHex("1B 00 00 00 00 00")),
                          result == 0 ? "passed 0" : "failed 0");
                EXPECT_EQ(syncs, 1);
                sync_result = 0;  // the kernel tells of it once
            }
            Link link;
            link.ours.Write(kGreeting);
            shutdown(link.ours.Get(), SHUT_WR);
            std::vector<std::unique_ptr<Device>> devices;
            devices.push_back(std::move(disk_));
            Server server(std::move(devices), false, {});
            EXPECT_EQ(server.Run({std::move(link.theirs), {}}), result == 0);
            EXPECT_EQ(syncs, 1);
        }
    }
}

TEST(DiskSerial, TellsImagesAndMachinesApart) {
    const std::string serial = DiskSerial("/a/disk.img", "one");
    EXPECT_EQ(serial.size(), 16U);
    EXPECT_EQ(serial.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    EXPECT_EQ(DiskSerial("/a/../a/disk.img", "one"), serial);
    EXPECT_NE(DiskSerial("/b/disk.img", "one"), serial);
    EXPECT_NE(DiskSerial("/a/disk.img", "two"), serial);
    EXPECT_NE(MachineName(), "");
}

// Has more to say to every command than a session sends at once.
class Talker : public Device {
  public:
    const DeviceInfo& Info() const override { return info_; }
    void Attach(ReplySink& sink) override { sink_ = &sink; }
    void Detach() override { sink_ = nullptr; }
    void TakeCommand(const Command&) override {
        sink_->Reply(remote::Bytes(2 * Session::kMaxPendingOutput));
    }

  private:
    const DeviceInfo info_{"talker", UsbSpeed::kHigh, 1, 2};
    ReplySink* sink_ = nullptr;
};

class AttackedServer : public ServerTest {
  protected:
    Host Connect() const { return Host(posix::Connect(address_, -1, error_).Release()); }

    const posix::Address address_{posix::Address::Kind::Unix,
                                  testing::TempDir() + "attack-" + std::to_string(getpid())};
    mutable std::string error_;
};

TEST_F(AttackedServer, ASecondHostIsToldWhoIsServed) {
    listener_ = Listener::Open(address_, error_);
    ASSERT_TRUE(listener_) << error_;
    devices_.push_back(std::make_unique<Talker>());
    testing::internal::CaptureStderr();
    Serve();
    Host first = Connect();
    first.Greet();
    first.Mapped();

    const Host second = Connect();
    std::string text(200, '\0');
    text.resize(static_cast<std::size_t>(
        std::max<ssize_t>(recv(second.Get(), text.data(), text.size(), MSG_WAITALL), 0)));
    ExpectAnswer("list", "1 mapped talker");
    // Whoever comes after the first is served, although its last words are still to be read.
    first.Forward(77, SubmitOut(1, kMegabyte.substr(0, 100'000)));
    first = Host();
    const Host third = Connect();
    third.Greet();
    third.Mapped();
    ExpectAnswer("quit", "quitting");
    third.Write(UnmapMessage(1));
    EXPECT_TRUE(Finish());

    const std::string log = testing::internal::GetCapturedStderr();
    const std::string us =
        "process " + std::to_string(getpid()) + " of user " + std::to_string(getuid());
    const std::string served = us + " is served since ";
    EXPECT_EQ(text.substr(0, text.size() - 9), "xj-usbip-remote: " + served) << "then the time";
    ExpectIn(log, "host connected: " + us);
    ExpectIn(log, us + " turned away: " + served);
}

// Driven by hand: nobody waits for a deadline.
TEST(AttackedSession, EndsAndSaysWhy) {
    const std::string huge = ::Bytes(_MESSAGE_HEADER{200U << 20, kUsbipChannel, {}}) + kMegabyte;
    const std::string silent = "host does not answer the version request";
    const std::tuple<std::string, std::string> cases[] = {
        {silent, ""},
        {silent, kGreeting.substr(1)},
        {"host stops in the middle of a message", kGreeting + huge.substr(0, 9)},
        {"host speaks protocol version 4, and this remote side version 3",
         ::Message(kUsbipVersionRsp, ::Bytes(std::uint32_t{4}))},
        {"cannot read from the host: Cannot allocate memory", kGreeting + huge + kMegabyte},
    };
    largest_allocation = kMegabyte.size();
    for (const auto& [reason, bytes] : cases) {
        Link link;
        std::list<Slot> slots;
        Session session({std::move(link.theirs), {}}, slots, false);
        testing::internal::CaptureStderr();
        for (std::string_view left = bytes; !left.empty() && !session.Over();) {
            const ssize_t sent = send(link.ours.Get(), left.data(), left.size(), MSG_DONTWAIT);
            if (sent > 0) left.remove_prefix(static_cast<std::size_t>(sent));
            session.OnReadable();
        }
        if (!session.Over()) {
            EXPECT_LE(session.Deadline().value(), Clock::now() + 30s);
            session.OnDeadline();
        }
        EXPECT_TRUE(session.Over());
        EXPECT_TRUE(session.Failed());
        ExpectIn(testing::internal::GetCapturedStderr(), reason);
    }
    largest_allocation = SIZE_MAX;
}

TEST(AttackedSession, AMessageIsNotLateWhileNobodyReadsIt) {
    Link link;
    std::list<Slot> slots;
    slots.push_back({.device = std::make_unique<Talker>(), .number = 1});
    Session session({std::move(link.theirs), {}}, slots, false);
    link.ours.Write(kGreeting + ForwardMessage(1, Unlink(1)) + kGreeting.substr(1));
    session.OnReadable();
    EXPECT_TRUE(session.Congested());
    EXPECT_FALSE(session.Deadline());
    std::string scrap(1 << 20, '\0');
    while (session.Congested()) {
        session.OnWritable();
        while (recv(link.ours.Get(), scrap.data(), scrap.size(), MSG_DONTWAIT) > 0)
            continue;
    }
    EXPECT_TRUE(session.Deadline());
}

}  // namespace
}  // namespace remote::test
