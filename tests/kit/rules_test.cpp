// Which devices rules take, and what is wrong with those that are none.
#include "xj-client-usbip/kit/Rules.h"

#include <gtest/gtest.h>

namespace xj_usbip {
namespace {

using Verdict = Rules::Verdict;

const RemoteDevice kStick{1, 0, 3, 0x1D6B, 0x0104, "disk1 my stick.img"};
constexpr UsbClass kStorage{8, 6, 0x50};
constexpr UsbClass kKeyboard{3, 1, 1};

Rules Of(const std::string& text) {
    Rules rules;
    std::string error;
    EXPECT_TRUE(rules.AddLines(text, error)) << error;
    return rules;
}

TEST(RulesTest, TheFirstThatFitsDecides) {
    const std::pair<std::string, Verdict> cases[] = {
        {"", Verdict::Allow},
        {"# nothing\n\n  deny\t# all\r\n", Verdict::Deny},
        {"deny 1d6b:0105\ndeny 1D6C:*\ndeny *:104 speed=low\nallow *:*\ndeny", Verdict::Allow},
        {"deny 1d6b:104", Verdict::Deny},
        {"deny *:0104 speed=high", Verdict::Deny},
        {"deny speed=super\ndeny speed=full\nallow speed=high\ndeny", Verdict::Allow},
        {"deny name=disk1", Verdict::Allow},
        {"deny name=disk?*", Verdict::Deny},
        {"allow name=\"disk1 my*\"\ndeny", Verdict::Allow},
        {"allow name=*\" my stick.img\"\ndeny", Verdict::Allow},
        {"deny class=3", Verdict::ByClass},
        {"deny class=3 speed=low\nallow", Verdict::Allow},
        {"allow 1d6b:0104\ndeny class=3", Verdict::Allow},
    };
    for (const auto& [text, verdict] : cases)
        EXPECT_EQ(Of(text).Decide(kStick).verdict, verdict) << text;
    EXPECT_EQ(Of("deny speed=low\n  deny\t1d6b:* # ours\n").Decide(kStick).rule, "deny\t1d6b:*");
    EXPECT_EQ(Of("deny speed=low").Decide(kStick).rule, "");
}

TEST(RulesTest, DenyingOneInterfaceIsEnoughAndAllowingTakesAll) {
    const std::vector<UsbClass> disk{kStorage}, keyboard{kKeyboard}, both{kStorage, kKeyboard};
    const struct {
        std::string text;
        const std::vector<UsbClass>& interfaces;
        Verdict verdict;
    } cases[] = {
        {"deny class=03", disk, Verdict::Allow},
        {"deny class=03", both, Verdict::Deny},
        {"deny class=3/1/2", both, Verdict::Allow},
        {"deny class=3/1/1", both, Verdict::Deny},
        {"deny class=3/2", both, Verdict::Allow},
        {"allow class=8\ndeny", both, Verdict::Deny},
        {"allow class=8/6\ndeny", disk, Verdict::Allow},
        {"allow class=8\ndeny", keyboard, Verdict::Deny},
        {"deny class=8 speed=low\nallow class=8\ndeny", disk, Verdict::Allow},
        {"allow class=8\ndeny", {}, Verdict::Deny},
    };
    for (const auto& [text, interfaces, verdict] : cases) {
        EXPECT_TRUE(Of(text).ByClass());
        EXPECT_EQ(Of(text).Decide(kStick, interfaces).verdict, verdict) << text;
    }
    EXPECT_FALSE(Of("deny speed=low").ByClass());
}

TEST(RulesTest, WhatIsNoRuleIsNamed) {
    const std::pair<std::string, std::string> cases[] = {
        {"permit", "line 1: a rule begins with allow or deny, not with \"permit\""},
        {"deny\nallow 1d6b", "line 2: \"1d6b\" is none of VENDOR:PRODUCT"},
        {"deny 1d6b:", "\"1d6b:\" is none"},
        {"deny 11d6b:1", "\"11d6b:1\" is none"},
        {"deny speed=fast", "\"speed=fast\" is none"},
        {"deny class=", "\"class=\" is none"},
        {"deny class=3/1/1/1", "\"class=3/1/1/1\" is none"},
        {"deny class=100", "\"class=100\" is none"},
        {"deny class=3 class=8", "\"class=8\" is none"},
        {"deny name=", "\"name=\" is none"},
        {"deny name=\"a", "a double quote is missing"},
        {"deny colour=red", "\"colour=red\" is none"},
    };
    for (const auto& [text, expected] : cases) {
        Rules rules;
        std::string error;
        EXPECT_FALSE(rules.AddLines(text, error)) << text;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

}  // namespace
}  // namespace xj_usbip
