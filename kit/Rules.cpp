#include "xj-client-usbip/kit/Rules.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace xj_usbip {
namespace {

constexpr std::string_view kBlanks = " \t\r";

// The next word, without the double quotes around a part of it; none at the end of `text`.
std::optional<std::string> take_word(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    if (text.empty()) return std::nullopt;
    std::string word;
    bool quoted = false;
    for (; !text.empty() && (quoted || kBlanks.find(text.front()) == text.npos);
         text.remove_prefix(1)) {
        if (text.front() == '"') {
            quoted = !quoted;
        } else {
            word += text.front();
        }
    }
    return word;
}

template <typename Number>
bool parse_hex(std::string_view text, Number& number) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, 16);
    return error == std::errc() && rest == end;
}

bool parse_id(std::string_view text, std::optional<std::uint16_t>& id) {
    if (text == "*") return true;
    std::uint16_t number = 0;
    if (!parse_hex(text, number)) return false;
    id = number;
    return true;
}

bool parse_class(std::string_view text, std::vector<std::uint8_t>& numbers) {
    constexpr std::size_t kMost = 3;
    for (;;) {
        const std::size_t end = text.find('/');
        std::uint8_t number = 0;
        if (!parse_hex(text.substr(0, end), number)) return false;
        numbers.push_back(number);
        if (end == text.npos) return numbers.size() <= kMost;
        text.remove_prefix(end + 1);
    }
}

// The kernel's enum usb_device_speed.
std::optional<std::uint32_t> parse_speed(std::string_view text) {
    constexpr std::array<std::pair<std::string_view, std::uint32_t>, 4> kSpeeds{
        {{"low", 1}, {"full", 2}, {"high", 3}, {"super", 5}}};
    const auto* const found =
        std::ranges::find(kSpeeds, text, [](const auto& s) { return s.first; });
    if (found == kSpeeds.end()) return std::nullopt;
    return found->second;
}

}  // namespace

bool Rules::ParseCondition(const std::string& word, Rule& rule) {
    const std::size_t equals = word.find('=');
    const std::string_view key = std::string_view(word).substr(0, equals);
    const std::string value = equals == word.npos ? "" : word.substr(equals + 1);
    if (equals == word.npos) {
        const std::size_t colon = word.find(':');
        return colon != word.npos && parse_id(key.substr(0, colon), rule.vendor) &&
               parse_id(key.substr(colon + 1), rule.product);
    }
    if (key == "speed") return (rule.speed = parse_speed(value)).has_value();
    if (key == "class" && rule.usb_class.empty()) return parse_class(value, rule.usb_class);
    if (key == "name") rule.name = value;
    return key == "name" && !value.empty();
}

bool Rules::Parse(std::string_view text, Rule& rule, std::string& error) {
    if (std::ranges::count(text, '"') % 2 != 0) {
        error = "a double quote is missing";
        return false;
    }
    const std::string verb = take_word(text).value_or("");
    rule.allow = verb == "allow";
    if (!rule.allow && verb != "deny") {
        error = "a rule begins with allow or deny, not with \"" + verb + "\"";
        return false;
    }
    while (const auto word = take_word(text)) {
        if (ParseCondition(*word, rule)) continue;
        error = "\"" + *word +
                "\" is none of VENDOR:PRODUCT, speed=low|full|high|super, name=PATTERN, "
                "class=CLASS[/SUBCLASS[/PROTOCOL]]";
        return false;
    }
    return true;
}

bool Rules::Add(std::string_view text, std::string& error) {
    Rule rule;
    rule.text = text;
    if (!Parse(text, rule, error)) return false;
    rules_.push_back(std::move(rule));
    return true;
}

bool Rules::AddLines(std::string_view text, std::string& error) {
    for (int number = 1; !text.empty(); ++number) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        line = line.substr(0, line.find('#'));
        line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
        line = line.substr(0, line.find_last_not_of(kBlanks) + 1);
        if (line.empty() || Add(line, error)) continue;
        error = "line " + std::to_string(number) + ": " + error;
        return false;
    }
    return true;
}

bool Rules::ByClass() const {
    return std::ranges::any_of(rules_, [](const Rule& rule) { return !rule.usb_class.empty(); });
}

bool Rules::Fits(const Rule& rule, const RemoteDevice& device) {
    return rule.vendor.value_or(device.vendor) == device.vendor &&
           rule.product.value_or(device.product) == device.product &&
           rule.speed.value_or(device.speed) == device.speed &&
           (!rule.name || ::fnmatch(rule.name->c_str(), device.instance.c_str(), 0) == 0);
}

bool Rules::Fits(const Rule& rule, std::span<const UsbClass> interfaces) {
    if (rule.usb_class.empty()) return true;
    const auto fits = [&](const UsbClass& one) {
        const std::array numbers{one.code, one.subclass, one.protocol};
        return std::equal(rule.usb_class.begin(), rule.usb_class.end(), numbers.begin());
    };
    if (!rule.allow) return std::ranges::any_of(interfaces, fits);
    return !interfaces.empty() && std::ranges::all_of(interfaces, fits);
}

Rules::Decision Rules::Decide(const RemoteDevice& device) const {
    for (const Rule& rule : rules_) {
        if (!Fits(rule, device)) continue;
        if (!rule.usb_class.empty()) return {Verdict::ByClass, rule.text};
        return {rule.allow ? Verdict::Allow : Verdict::Deny, rule.text};
    }
    return {Verdict::Allow, {}};
}

Rules::Decision Rules::Decide(const RemoteDevice& device,
                              std::span<const UsbClass> interfaces) const {
    for (const Rule& rule : rules_) {
        if (Fits(rule, device) && Fits(rule, interfaces))
            return {rule.allow ? Verdict::Allow : Verdict::Deny, rule.text};
    }
    return {Verdict::Allow, {}};
}

}  // namespace xj_usbip
