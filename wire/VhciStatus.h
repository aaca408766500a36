// The status attribute of the kernel's vhci_hcd: a header line, then a line for each virtual port.
//
//     hub port sta spd dev      sockfd local_busid
//     hs  0004 006 003 00010002 000012 1-1
//
// All numbers are decimal with leading zeros, but for the hexadecimal device.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Port states (the kernel's enum usbip_device_status). In any other state the port holds a device.
inline constexpr std::uint32_t VDEV_ST_NULL = 4;         // free
inline constexpr std::uint32_t VDEV_ST_NOTASSIGNED = 5;  // attached, not yet enumerated

// Fields behind the last one that was converted are zero or empty.
struct VhciPortLine {
    static constexpr int kRequired = 5;  // up to the device; a line with fewer says nothing

    int fields = 0;    // converted, in this order; -1: the line is blank
    char hub[3] = {};  // "hs" or "ss"; longer ones are not one field
    int port = 0;
    int status = 0;
    int speed = 0;             // the kernel's enum usb_device_speed
    std::uint32_t devid = 0;   // bus number << 16 | device number, of the remote device
    std::uint32_t sockfd = 0;  // in the process that attached it
    char lbusid[32] = {};      // sysfs name of the local device, cut off; "0-0" when there is none

    bool Complete() const { return fields >= kRequired; }
    bool SuperSpeed() const { return std::string_view(hub) != "hs"; }
    bool Free() const { return static_cast<std::uint32_t>(status) == VDEV_ST_NULL; }
};

// One line, with or without its newline; nothing behind the newline is looked at. A number that
// does not fit its field is none.
inline VhciPortLine ParseVhciPortLine(std::string_view line) {
    constexpr std::string_view kBlank = " \t\r\v\f";
    line = line.substr(0, line.find('\n'));
    VhciPortLine result;

    const auto skip_blanks = [&] {
        line.remove_prefix(std::min(line.find_first_not_of(kBlank), line.size()));
        return !line.empty();
    };
    const auto word = [&](auto& to) {  // as much as `to` holds; the rest is the next field's
        if (!skip_blanks()) return false;
        const std::size_t end = std::min(line.find_first_of(kBlank), line.size());
        const std::size_t size = std::min(end, sizeof to - 1);
        line.copy(to, size);
        line.remove_prefix(size);
        return true;
    };
    const auto number = [&](auto& to, int base = 10) {
        if (!skip_blanks()) return false;
        const char* const end = line.data() + line.size();
        const auto [rest, error] = std::from_chars(line.data(), end, to, base);
        if (error != std::errc()) return false;
        line = std::string_view(rest, static_cast<std::size_t>(end - rest));
        return true;
    };

    if (!word(result.hub)) {
        result.fields = -1;
        return result;
    }
    result.fields = 1;
    const auto next = [&](bool converted) {
        result.fields += converted;
        return converted;
    };
    next(number(result.port)) && next(number(result.status)) && next(number(result.speed)) &&
        next(number(result.devid, 16)) && next(number(result.sockfd)) && next(word(result.lbusid));
    return result;
}
