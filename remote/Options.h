// The command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "posix/Address.h"
#include "remote/Ask.h"
#include "remote/device/Device.h"

namespace remote {

struct DiskOption {
    std::string path;
    bool read_only = false;
    UsbSpeed speed = UsbSpeed::kHigh;
};

struct UsbipOption {
    posix::Address server;
    std::string busid;
};

// "IMAGE[,ro][,speed=high|super]" and "HOST[:PORT]/BUSID". Nothing with an `error`.
std::optional<DiskOption> ParseDisk(const std::string& text, std::string& error);
std::optional<UsbipOption> ParseUsbip(const std::string& text, std::string& error);

struct Options {
    Question question;  // ask a program that runs, and end

    std::optional<posix::Address> list;    // list this server's devices and end
    std::optional<posix::Address> listen;  // without it: one host on standard input and output
    std::vector<DiskOption> disks;
    std::vector<UsbipOption> imports;
    bool wait = false;
    bool compress = false;
    std::string control;  // path of the socket to answer at; empty: none
};

// The exit status, when the program is to end at once: help was shown, or the user told what is
// wrong.
std::optional<int> ParseCommandLine(int argc, const char* const* argv, Options& options);

}  // namespace remote
