// The server and the hosts that it serves: over a socket pair and over a Unix socket.
#include <filesystem>
#include <fstream>

#include "ServerTest.h"
#include "posix/Control.h"

namespace remote::test {

class SessionTest : public ServerTest {
  protected:
    void Add(const std::string& name) { devices_.push_back(std::make_unique<EagerDevice>(name)); }
    static void ExpectWorks(const Host& host, std::uint32_t devid, std::uint32_t length = 8) {
        host.Forward(devid, SubmitIn(devid, length));
        EXPECT_TRUE(host.Reply(devid) == EagerDevice::Answer(devid, length));
    }
    Host Connect() { return Host(posix::Connect(address_, -1, error_)); }

    const posix::Address address_{posix::Address::Kind::Unix,
                                  testing::TempDir() + "session-" + std::to_string(getpid())};
    std::string error_;
};

TEST_F(SessionTest, DevicesComeAndGoAndComeBackWithAFreshId) {
    testing::internal::CaptureStderr();
    Add("disk1");
    Add("disk2");
    EXPECT_EQ(ServeHost(true), kVersionFlagCompress);
    EXPECT_EQ(host_.Mapped().dev.speed, static_cast<std::uint32_t>(UsbSpeed::kSuper));
    EXPECT_EQ(host_.Mapped().devid, 2U);
    ExpectAnswer("unplug 1", "unplugged 1");
    EXPECT_EQ(host_.Unmapped(), 1U);
    ExpectAnswer("plug 1", "plugged 1");
    EXPECT_EQ(host_.Mapped().devid, 3U);
    // What was on its way for the old mapping, its end included, does not reach the new one. A
    // second greeting changes nothing, nor does the end of what was never there.
    host_.Write(ForwardMessage(1, Unlink(50)) + UnmapMessage(1) + UnmapMessage(77) +
                UnmapMessage(2) + kGreeting);
    EXPECT_EQ(host_.Unmapped(), 2U) << "it has ended at the host";
    ExpectWorks(host_, 3);
    ExpectAnswer("list", "1 mapped disk1\n2 plugged disk2");
    ExpectAnswer("plug 2", "plugged 2");
    EXPECT_EQ(host_.Mapped().devid, 4U);
    for (const std::string number : {"0", "3", "-1", "1x", ""})
        ExpectAnswer("unplug " + number, "error: no device " + number);
    ExpectAnswer("eject", "error: unknown command; there are: list, plug N, unplug N, quit");

    constexpr std::uint32_t kLongestPlain = kCompressThreshold - sizeof(usbip_header);
    ExpectWorks(host_, 4, kLongestPlain);
    const std::string command = SubmitOut(5, kMegabyte.substr(0, kLongestPlain + 1));
    host_.Write(CompressedForward(4, command));
    EXPECT_EQ(host_.Reply(4, true), EagerDevice::Answer(5, kLongestPlain + 1));
    for (const auto& pdu : {With(kEndpoint, EagerDevice::kStalled, SubmitIn(6, 0)), Unlink(7)}) {
        host_.Forward(4, pdu);
        host_.Reply(4);
    }
    Signal(SIGUSR1);
    Signal(SIGTERM);
    EXPECT_EQ(host_.Unmapped(), 3U);
    EXPECT_EQ(host_.Unmapped(), 4U);
    host_.Write(UnmapMessage(3) + UnmapMessage(4));
    EXPECT_EQ(host_.ReadToEnd(), "");
    EXPECT_TRUE(Finish());
    const std::string log = testing::internal::GetCapturedStderr();
    ExpectIn(log, "host reports the end of device id 77, which is not mapped");
    ExpectIn(log,
             "device 2: URBs in 2 out 1, bytes in 8097 out 4049, unlinks 1, stalls 1, "
             "messages compressed 2 plain 6\n");
}

TEST_F(SessionTest, ALongNameKeepsItsEndAndAHostAtFaultOrLostDataIsAFailure) {
    for (const std::string& last : {kGreeting.substr(0, 9), std::string()}) {
        Add(std::string(300, 'n'));
        EagerDevice::data_safe = !last.empty();
        ServeHost();
        EXPECT_EQ(host_.Mapped().dev.instanceid, std::string(255, 'n'));
        host_.Write(last);
        shutdown(host_.Get(), SHUT_WR);
        EXPECT_FALSE(Finish());
    }
}

TEST_F(SessionTest, HoweverAHostGoesTheNextOneIsServedAndASecondToldWhoIs) {
    const posix::UniqueFd killed(socket(AF_UNIX, SOCK_STREAM, 0));
    const auto place = posix::Resolve(address_, -1, error_).at(0);
    EXPECT_EQ(bind(killed.Get(), place.Get(), place.size), 0);
    listener_ = posix::Listener::Open(address_, error_);
    ASSERT_TRUE(listener_) << error_;
    EXPECT_FALSE(posix::Listener::Open(address_, error_)) << "took the socket of a living program";
    testing::internal::CaptureStderr();
    Add("disk1");
    Add("disk2");
    Serve();
    ExpectAnswer("unplug 2", "unplugged 2");
    const auto expect_served = [](const Host& host) {
        EXPECT_EQ(host.Greet(), 0U) << "no compression asked for";
        EXPECT_EQ(host.Mapped().devid, 1U);
        ExpectWorks(host, 1);
    };
    for (const bool leaves : {true, false}) {
        const Host host = Connect();
        expect_served(host);
        if (!leaves) host.Write(std::string(64, '\xFF'));
        shutdown(host.Get(), SHUT_WR);
        host.ReadToEnd();
    }
    host_ = Connect();
    expect_served(host_);
    const std::string us =
        "process " + std::to_string(getpid()) + " of user " + std::to_string(getuid());
    const std::string refusal = Connect().ReadToEnd();
    EXPECT_EQ(refusal.substr(0, refusal.size() - 9), "xj-usbip-remote: " + us + " is served since ")
        << "then the time";
    // Whoever comes after the first is served, although its last words are still to be read.
    host_.Forward(1, With(kEndpoint, EagerDevice::kBusy, SubmitIn(1, 0)));
    EXPECT_TRUE(EagerDevice::busy.try_acquire_for(kPatience));
    host_.Forward(77, SubmitOut(1, kMegabyte.substr(0, 100'000)));
    host_ = Connect();
    EagerDevice::go_on.release();
    expect_served(host_);
    EagerDevice::data_safe = false;
    ExpectAnswer("quit", "quitting");
    EXPECT_EQ(host_.Unmapped(), 1U);
    EXPECT_EQ(host_.ReadToEnd(), "") << "soon, without the confirmation";
    EXPECT_FALSE(Finish()) << "data is lost";
    const std::string log = testing::internal::GetCapturedStderr();
    ExpectIn(log, "host connected: " + us);
    ExpectIn(log, us + " turned away: " + us + " is served since ");
}

// The lines of the answer, and how it ended.
std::string Ask(const std::string& path, const std::string& request) {
    std::string answer, error;
    const bool done = posix::Ask(
        path, request, -1, posix::kAskPatienceMs,
        [&](std::string_view line) { answer += std::string(line) + "\n"; }, error);
    return answer + (done ? "done" : error);
}

TEST_F(SessionTest, DevicesAreAddedAndRemovedForGoodOverTheControlSocket) {
    const std::string path = address_.name + ".control", image = address_.name + ".img";
    std::ofstream(image) << std::string(512, 'x');
    control_ = Control::Open(path, false, error_);
    ASSERT_TRUE(control_) << error_;
    Add("eager");
    ServeHost();
    EXPECT_EQ(host_.Mapped().devid, 1U);
    const std::string named = std::filesystem::path(image).filename().string();
    for (const std::string number : {"2", "3"}) {
        const std::string disk = "disk" + number + " " + named + " 1d6b:0104";
        EXPECT_EQ(Ask(path, R"({"command":"add","disk":")" + image + ",ro\"}"), "done");
        EXPECT_EQ(host_.Mapped().dev.instanceid, disk);
        const std::string listed = Ask(path, R"({"command":"list"})");
        ExpectIn(listed, R"({"device":1,"state":"mapped","name":"eager","text":"1 mapped eager"})");
        ExpectIn(listed, R"({"device":)" + number + R"(,"state":"mapped","name":")" + disk);
        EXPECT_EQ(Ask(path, R"({"command":"remove","device":)" + number + "}"), "done");
        EXPECT_EQ(host_.Unmapped(), number == "2" ? 2U : 3U);
    }
    EXPECT_EQ(Ask(path, R"({"command":"add","usbip":"127.0.0.1:1/1-1"})"), "done");
    ExpectAnswer("list", "1 mapped eager\n4 plugged 127.0.0.1:1/1-1");
    ExpectIn(Ask(path, R"({"command":"stats"})"), R"("urbs_in":0,)");
    const std::pair<std::string, std::string> wrong[] = {
        {R"({"command":"remove","device":2})", "no device 2"},
        {R"({"command":"plug"})", "no device 0"},
        {R"({"command":"add"})", "'' is not HOST[:PORT]/BUSID"},
        {R"({"command":"add","disk":",ro"})", "',ro' names no image"},
        {R"({"command":"add","disk":"/nowhere"})", "/nowhere: No such file or directory"},
        {R"({"command":"add","usbip":"localhost/1-1"})", "'localhost' is no address"},
        {R"({"command":["list"]})", "no such command; there are: list, stats, plug, "},
        {"list", "no such command"}};
    for (const auto& [request, error] : wrong)
        ExpectIn(Ask(path, request), error);
    EagerDevice::data_safe = false;
    EXPECT_EQ(Ask(path, R"({"command":"unplug","device":1})"), "done");
    EXPECT_EQ(host_.Unmapped(), 1U);
    EXPECT_EQ(Ask(path, R"({"command":"remove","device":1})"), "done");
    EXPECT_EQ(Ask(path, R"({"command":"quit"})"), "done");
    host_.Write(UnmapMessage(1) + UnmapMessage(2) + UnmapMessage(3));
    EXPECT_EQ(host_.ReadToEnd(), "");
    EXPECT_FALSE(Finish()) << "what was written to a device that was removed is lost";
    std::filesystem::remove(image);
}

}  // namespace remote::test
