// Which devices this machine takes. The first rule that a device matches decides.
//
// A rule is a line of text:
//     allow|deny [VENDOR:PRODUCT] [speed=SPEED] [name=PATTERN] [class=CLASS[/SUBCLASS[/PROTOCOL]]]
// VENDOR, PRODUCT and the class's numbers are hexadecimal, either id may be "*"; SPEED is low,
// full, high or super; PATTERN may have *, ? and [...], and stands in double quotes when it has
// blanks. A rule matches a device that matches all of it, so "deny" alone matches every device.
//
// A device may have several interfaces. "deny class=..." matches when one of them is such, "allow
// class=..." when all are: a keyboard does not come in with a disk.
//
// What a rule goes by is what the device, or the remote side, says of itself; a device that means
// harm can say what it likes. Only the class is what drivers go by, too.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "xj-client-usbip/kit/Devices.h"
#include "xj-client-usbip/kit/Ports.h"

namespace xj_usbip {

class Rules {
  public:
    enum class Verdict {
        Allow,
        Deny,
        ByClass,  // no telling before the device's interfaces are known
    };
    struct Decision {
        Verdict verdict;
        std::string rule;  // its text; empty: no rule matches
    };

    // Puts a rule behind those there are. False with an `error` that names what is wrong in it.
    bool Add(std::string_view rule, std::string& error);

    // The rules in a text, one on each line; "#" begins a comment. False with an `error` that names
    // the line.
    bool AddLines(std::string_view text, std::string& error);

    bool Empty() const { return rules_.empty(); }
    bool ByClass() const;  // there is a rule that goes by class

    // Of a device that no rule matches: Allow.
    Decision Decide(const RemoteDevice& device) const;
    // Once its interfaces are known. A device without any matches no class.
    Decision Decide(const RemoteDevice& device, std::span<const UsbClass> interfaces) const;

  private:
    struct Rule {
        std::string text;
        bool allow = false;
        std::optional<std::uint16_t> vendor;
        std::optional<std::uint16_t> product;
        std::optional<std::uint32_t> speed;
        std::optional<std::string> name;
        std::vector<std::uint8_t> usb_class;  // and subclass, and protocol
    };
    static bool Parse(std::string_view text, Rule& rule, std::string& error);
    static bool ParseCondition(const std::string& word, Rule& rule);
    static bool Fits(const Rule& rule, const RemoteDevice& device);
    static bool Fits(const Rule& rule, std::span<const UsbClass> interfaces);

    std::vector<Rule> rules_;
};

}  // namespace xj_usbip
