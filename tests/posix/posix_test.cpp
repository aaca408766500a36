// Addresses, command lines and sockets, as both programs have them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <thread>

#include "host/Options.h"
#include "posix/Listener.h"
#include "posix/Log.h"
#include "posix/Notify.h"
#include "posix/Socket.h"
#include "posix/StandardStreams.h"
#include "posix/Wait.h"
#include "remote/Options.h"

namespace posix::test {

// The address as it was understood, or what is wrong with it.
std::string parsed(auto parse, const std::string& text, auto how) {
    std::string error;
    const auto address = parse(text, how, error);
    return address ? Describe(*address) : error;
}

TEST(AddressTest, IsHostAndPortOrAPath) {
    const std::string longest = "unix:" + std::string(107, 'p');
    const std::string port = "the port is a number from 1 to 65535";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"", {"box:9", "[::1]:65535", "unix:/run/usb:1.sock", longest}},
        {"the path of a Unix socket has at most 107 bytes", {longest + "p"}},
        {"the path after unix: is missing", {"unix:"}},
        {"expected HOST:PORT or unix:PATH", {"", "box", "[::1]"}},
        {"the host is missing", {":9000"}},
        {"an IPv6 address stands in brackets: [::1]:9000",
         {"::1:9", "[::1:9", "[]:9", "[box]:9", "[::1]9", "fe80::1"}},
        {port, {"box:", "box:65536", "box:-1", "box: 80", "box:80x", "box:9999999999999"}}};
    for (const auto& [problem, texts] : cases) {
        for (const std::string& text : texts)
            EXPECT_EQ(problem.empty() ? text : problem,
                      parsed(ParseAddress, text, AddressUse::Connect));
    }
    EXPECT_EQ(port, parsed(ParseAddress, "box:0", AddressUse::Connect));
    EXPECT_EQ("box:0", parsed(ParseAddress, "box:0", AddressUse::Listen));
    EXPECT_EQ("[::1]:3240", parsed(ParseServer, "[::1]", std::uint16_t{3240}));
    EXPECT_EQ("box:9", parsed(ParseServer, "box:9", std::uint16_t{3240}));
}

TEST(CommandLineTest, WhatIsGivenArrives) {
    remote::Options remote;
    const char* const served[] = {"",       "--listen",         "[::1]:0", "--disk",  "a",
                                  "--disk", "b,ro,speed=super", "--usbip", "box/1-2", "--wait"};
    EXPECT_FALSE(ParseCommandLine(std::size(served), served, remote));
    std::string offered = Describe(remote.listen.value());
    for (const auto& disk : remote.disks)
        offered +=
            ' ' + disk.path + (disk.read_only ? " ro " : " ") + std::to_string(int(disk.speed));
    for (const auto& import : remote.imports)
        offered += ' ' + Describe(import.server) + '/' + import.busid;
    EXPECT_EQ("[::1]:0 a 3 b ro 5 box:3240/1-2", offered);
    EXPECT_TRUE(remote.wait && !remote.compress);
    host::Options host;
    const char* const doctor[] = {"", "doctor"};
    EXPECT_FALSE(ParseCommandLine(std::size(doctor), doctor, host));
    EXPECT_TRUE(host.doctor);
}

// A terminal that nobody reads any more; the lines do not divide its room evenly.
TEST(StandardStreamsTest, OutputThatNobodyReadsIsLost) {
    int ends[2];
    ASSERT_EQ(0, ::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr));
    const UniqueFd terminal(ends[0]), ours(ends[1]);
    for (int line = 0; line < 1000; ++line)
        Tell(ours.Get(), std::string(200, 'x') + '\n');
    EXPECT_EQ(0, ::fcntl(ours.Get(), F_GETFL) & O_NONBLOCK) << "others have to wait";
    std::string received(202, '\0');  // the terminal makes two characters of the line's end
    EXPECT_EQ(202, ::read(terminal.Get(), received.data(), received.size()));
    EXPECT_EQ(std::string(200, 'x') + "\r\n", received);
}

// What a child says whose standard error is the write end of this pipe.
std::string said_by_a_child(const std::function<void(int stream)>& child) {
    int ends[2];
    EXPECT_EQ(0, ::pipe(ends));
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(ends[1], STDERR_FILENO);
        child(ends[1]);
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string said(1000, '\0');
    const ssize_t size = ::read(ends[0], said.data(), said.size());
    ::close(ends[0]);
    ::waitpid(pid, nullptr, 0);
    return said.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

TEST(LogTest, ALineIsForAPersonOrForAJournal) {
    const std::string plain =
        said_by_a_child([](int) { Say("program", Severity::Failure, "a\nb\x1B\xC3"); });
    EXPECT_TRUE(std::regex_match(
        plain, std::regex("\\d\\d:\\d\\d:\\d\\d\\.\\d{3} program: a\\\\x0Ab\\\\x1B\\\\xC3\n")))
        << plain;
    const std::pair<Severity, std::string> priorities[] = {{Severity::Failure, "<3>text\n"},
                                                           {Severity::Notice, "<6>text\n"},
                                                           {Severity::Detail, "<7>text\n"}};
    for (const auto& [severity, line] : priorities) {
        EXPECT_EQ(line, said_by_a_child([&, how = severity](int stream) {
                      struct stat status {};
                      ::fstat(stream, &status);
                      const std::string journal =
                          std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
                      ::setenv("JOURNAL_STREAM", journal.c_str(), 1);
                      Say("program", how, "text");
                  }));
    }
}

TEST(NotifyTest, AServiceManagerIsToldIfThereIsOne) {
    ::unsetenv("NOTIFY_SOCKET");
    Notify("READY=1");
    const std::string name = "posix-notify-" + std::to_string(::getpid());
    for (const std::string& path : {testing::TempDir() + name, "@" + name, std::string(200, 'x')}) {
        const UniqueFd manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (path[0] == '@') address.sun_path[0] = '\0';
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        const bool fits = path.size() < sizeof address.sun_path;
        if (fits) {
            ASSERT_EQ(0, ::bind(manager.Get(), reinterpret_cast<sockaddr*>(&address), size));
        }
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
        Notify("READY=1\nSTATUS=here");
        char told[100];
        const ssize_t count = ::recv(manager.Get(), told, sizeof told, 0);
        EXPECT_EQ(fits ? "READY=1\nSTATUS=here" : "",
                  std::string(told, static_cast<std::size_t>(std::max<ssize_t>(count, 0))));
        ::unlink(path.c_str());
    }
    ::unsetenv("NOTIFY_SOCKET");
}

TEST(SocketTest, BothEndsOfATcpConnectionNoticeAPeerThatVanishes) {
    std::string error;
    EXPECT_FALSE(posix::Listener::Open({.name = "no.such.host.invalid"}, error));
    auto listener = posix::Listener::Open({.name = "localhost"}, error);
    ASSERT_TRUE(listener) << error;
    EXPECT_TRUE(listener->Private());
    EXPECT_FALSE(listener->Accept(error)) << "somebody is there";
    const auto address = ParseAddress(listener->Name(), AddressUse::Connect, error).value();
    EXPECT_FALSE(posix::Listener::Open(address, error));
    EXPECT_EQ("Address already in use", error);

    const UniqueFd ours = Connect(address, -1, error);
    const UniqueFd theirs = listener->Accept(error);
    EXPECT_EQ(listener->Name(), DescribePeer(ours.Get()));
    const std::tuple<int, int, int> options[] = {
        {IPPROTO_TCP, TCP_NODELAY, 1},   {SOL_SOCKET, SO_KEEPALIVE, 1},
        {IPPROTO_TCP, TCP_KEEPIDLE, 15}, {IPPROTO_TCP, TCP_KEEPINTVL, 5},
        {IPPROTO_TCP, TCP_KEEPCNT, 3},   {IPPROTO_TCP, TCP_USER_TIMEOUT, 30'000}};
    for (const auto& [level, name, expected] : options) {
        for (const int end : {ours.Get(), theirs.Get()}) {
            int value = 0;
            socklen_t size = sizeof value;
            EXPECT_EQ(0, ::getsockopt(end, level, name, &value, &size));
            EXPECT_EQ(expected, value) << name;
        }
    }
    listener = nullptr;
    EXPECT_TRUE(posix::Listener::Open(address, error)) << "no restart while connections end";
}

TEST(SocketTest, ABurstOfHostsIsHeldAndWhatCannotBeAcceptedWaits) {
    const std::string path = testing::TempDir() + "posix-" + std::to_string(::getpid());
    const Address address{Address::Kind::Unix, path, 0};
    std::string error;
    auto listener = posix::Listener::Open(address, error);
    ASSERT_TRUE(listener) << error;
    using std::filesystem::perms;
    EXPECT_EQ(perms::owner_read | perms::owner_write, std::filesystem::status(path).permissions());
    std::vector<UniqueFd> hosts(100);
    for (UniqueFd& host : hosts)
        ASSERT_TRUE(host = StartConnect(Resolve(address, -1, error).at(0), kPeerLost)) << errno;

    const int waiting = listener->Fd();
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{2, before.rlim_max};  // poll looks at as many
    ::setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(listener->Accept(error)) << "without a descriptor for it";
    EXPECT_NE(waiting, listener->Fd()) << "tried in a circle";
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(Wake::Ready, WaitFor(listener->Fd(), POLLIN, -1, 20'000));
    EXPECT_TRUE(listener->Accept(error));

    ::listen(listener->Fd(), 0);  // more wait already
    std::jthread accepting([&] {
        WaitFor(-1, 0, -1, 20);
        std::string ignored;
        while (listener->Accept(ignored))
            continue;
    });
    EXPECT_TRUE(Connect(address, -1, error)) << error;

    accepting.join();
    std::filesystem::remove(path);
    std::ofstream(path) << "of somebody else";
    EXPECT_FALSE(posix::Listener::Open(address, error)) << "in its place";
    listener = nullptr;
    EXPECT_TRUE(std::filesystem::remove(path));
}

}  // namespace posix::test
