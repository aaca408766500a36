// The command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "remote/device/Device.h"

namespace remote {

struct DiskOption {
    std::string path;
    bool read_only = false;
    UsbSpeed speed = UsbSpeed::kHigh;
};

// "IMAGE[,ro][,speed=high|super]". Nothing: `error` says why.
std::optional<DiskOption> ParseDisk(const std::string& text, std::string& error);

struct UsbipOption {
    std::string server;
    std::string busid;
};

// "SERVER/BUSID"; the server's own form is checked when it is resolved.
std::optional<UsbipOption> ParseUsbip(const std::string& text, std::string& error);

struct Options {
    std::string listen;  // empty: serve one host on standard input and output
    std::string list;    // not empty: list this server's devices and end
    std::vector<DiskOption> disks;
    std::vector<UsbipOption> imports;
    bool wait = false;
    bool compress = false;
};

// Nothing: help was shown or a mistake was explained, and the program ends with `exit_code`.
std::optional<Options> ParseOptions(int argc, char** argv, int& exit_code);

}  // namespace remote
