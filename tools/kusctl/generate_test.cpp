// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/generate.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/kusctl/advice.h"
#include "tools/kusctl/explain.h"
#include "tools/kusctl/policy.h"

namespace android::kus::tools {
namespace {

using By = Request::By;
using Outcome = Explanation::Outcome;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr By kAllBy[] = {By::kClass, By::kVendor, By::kProduct};

PresentDevice usb(const std::string& sysname, const std::string& name, int32_t vendor,
                  int32_t product, std::vector<int32_t> classes) {
    PresentDevice present;
    present.device.kind = DeviceKind::kUsb;
    present.device.sysname = sysname;
    present.device.info.deviceType = 0;
    present.device.info.deviceName = name;
    present.device.info.vendorId = vendor;
    present.device.info.productId = product;
    present.device.info.interfaceClasses = std::move(classes);
    return present;
}

PresentDevice input(const std::string& sysname, const std::string& name, int32_t vendor,
                    int32_t product, int32_t sources) {
    PresentDevice present = usb(sysname, name, vendor, product, {});
    present.device.kind = DeviceKind::kInput;
    present.device.info.deviceType = 1;
    present.device.info.deviceClass = sources;
    return present;
}

PresentDevice screened(PresentDevice present) {
    present.leftToInput = true;
    return present;
}

const std::vector<PresentDevice>& desk() {
    static const std::vector<PresentDevice>& devices = *new std::vector<PresentDevice>{
            usb("3-1", "Stick", 0x46f4, 1, {8}),
            screened(usb("3-2", "Keyboard", 0x0627, 1, {3})),
            usb("3-3", "Headset", 0x046d, 0x0a44, {1, 1, 3}),
            usb("3-4", "Dock", 0x17e9, 0x43a0, {255, 1, 10}),
            usb("3-5", "Cable", 0x0403, 0x6001, {255}),
            usb("3-6", "Other cable", 0x0403, 0x6010, {255, 255}),
            usb("3-7", "Odd", 0x1234, 0x5678, {8, 19}),
            input("input5", "Keyboard", 0x0627, 1, 0x101),
            input("input6", "Nothing", 0x0627, 2, 0),
    };
    return devices;
}

std::string generated(const std::vector<PresentDevice>& devices, const std::string& mode, By by) {
    const auto policy = generatePolicy(devices, mode, by);
    EXPECT_TRUE(policy.has_value()) << policy.error();
    return policy.has_value() ? *policy : "";
}

std::vector<std::string> adviceIdsOf(const Policy& policy) {
    std::vector<std::string> ids;
    for (const Advice& advice : adviceOn(policy)) ids.push_back(advice.id + ": " + advice.text);
    return ids;
}

// A strict reader refuses what tinyxml2 takes: "--" in a comment, control characters, bytes that
// are no UTF-8, the two last code points.
void expectStrict(const std::string& text) {
    for (size_t begin = text.find("<!--"); begin != std::string::npos;
         begin = text.find("<!--", begin)) {
        const size_t end = text.find("-->", begin + 4);
        ASSERT_NE(std::string::npos, end);
        const std::string comment = text.substr(begin + 4, end - begin - 4);
        EXPECT_EQ(std::string::npos, comment.find("--")) << comment;
        EXPECT_FALSE(!comment.empty() && comment.back() == '-') << comment;
        begin = end;
    }
    for (const char c : text) {
        EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 || c == '\n') << static_cast<int>(c);
    }
    EXPECT_EQ(std::string::npos, text.find("\xef\xbf\xbe"));
    EXPECT_EQ(std::string::npos, text.find("\xef\xbf\xbf"));
    EXPECT_EQ(std::string::npos, text.find('\xff'));
}

// The daemon takes it, there is nothing to think over, and what it was made of is allowed.
std::unique_ptr<Policy> expectGood(const std::string& text,
                                   const std::vector<PresentDevice>& devices) {
    SCOPED_TRACE(text);
    expectStrict(text);
    auto policy = Policy::parse("generated", text);
    EXPECT_TRUE(policy->accepted()) << policy->status();
    EXPECT_THAT(adviceIdsOf(*policy), IsEmpty());
    policy->putInForce();
    for (const PresentDevice& present : devices) {
        const auto outcome = explain(*policy, present.device.info, present.leftToInput).outcome;
        EXPECT_EQ(present.leftToInput ? Outcome::kInput : Outcome::kAllowed, outcome)
                << present.device.sysname;
    }
    return policy;
}

std::vector<std::string> rulesOf(const Policy& policy) {
    std::vector<std::string> rules;
    for (const RuleAt& rule : policy.rules()) {
        rules.push_back(rule.code ? Util::getClassName(*rule.code)
                                  : std::to_string(rule.ids.first) + ":" +
                                            std::to_string(rule.ids.second));
    }
    return rules;
}

using Rules = std::vector<std::string>;

// --- Whitelists ----------------------------------------------------------------------------------

TEST(Generate, MakesARuleOfEachClassAndOfTheIdsWhereClassesWillNotDo) {
    const auto policy = expectGood(generated(desk(), "whitelist", By::kClass), desk());

    EXPECT_EQ((Rules{"USB_CLASS_AUDIO", "USB_CLASS_MASS_STORAGE", "USB_CLASS_CDC_DATA",
                     "AINPUT_SOURCE_KEYBOARD", "1027:24577", "1027:24592", "1575:2", "4660:22136"}),
              rulesOf(*policy));
}

TEST(Generate, MakesARuleOfEachVendor) {
    const auto policy = expectGood(generated(desk(), "whitelist", By::kVendor), desk());

    EXPECT_EQ((Rules{"1027:-1", "1133:-1", "1575:-1", "4660:-1", "6121:-1", "18164:-1"}),
              rulesOf(*policy));
}

TEST(Generate, MakesARuleOfEachProduct) {
    const auto policy = expectGood(generated(desk(), "whitelist", By::kProduct), desk());

    EXPECT_EQ((Rules{"1027:24577", "1027:24592", "1133:2628", "1575:1", "1575:2", "4660:22136",
                     "6121:17312", "18164:1"}),
              rulesOf(*policy));
}

TEST(Generate, WritesForPeople) {
    const std::vector<PresentDevice> devices = {
            usb("3-1", "USB Stick", 0x46f4, 1, {8}),
            usb("3-2", "Cable", 0x0403, 0x6001, {255}),
            usb("3-3", "Cable", 0x0403, 0x6001, {255}),
            input("input5", "Keyboard", 0x0627, 1, 0x101),
    };
    EXPECT_EQ(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<usbconfig mode=\"whitelist\">\n"
            "  <!-- What was attached when this was made; all else is refused. -->\n"
            "  <!-- 3-1 \"USB Stick\" 46f4:0001 (USB_CLASS_MASS_STORAGE) -->\n"
            "  <class>USB_CLASS_MASS_STORAGE</class>\n"
            "  <!-- input5 \"Keyboard\" 0627:0001 (AINPUT_SOURCE_KEYBOARD) -->\n"
            "  <class>AINPUT_SOURCE_KEYBOARD</class>\n"
            "  <!-- 3-2 \"Cable\" 0403:6001 (USB_CLASS_VENDOR_SPEC) -->\n"
            "  <!-- 3-3 \"Cable\" 0403:6001 (USB_CLASS_VENDOR_SPEC) -->\n"
            "  <vid vendorid=\"1027\">\n"
            "    <pid>24577</pid>\n"
            "  </vid>\n"
            "</usbconfig>\n",
            generated(devices, "whitelist", By::kClass));
}

TEST(Generate, TakesBackTheAdviceThatItKnowsOf) {
    const std::vector<PresentDevice> devices = {usb("3-1", "Modem", 5, 6, {2})};

    const std::string text = generated(devices, "whitelist", By::kClass);

    expectGood(text, devices);
    EXPECT_THAT(text, HasSubstr("<!-- kusctl: meant no-keyboard -->"));
    EXPECT_THAT(text, HasSubstr("<!-- kusctl: meant half-modem -->"));
    EXPECT_THAT(generated(desk(), "whitelist", By::kClass), Not(HasSubstr("meant no-keyboard")));
}

TEST(Generate, MakesRulesOfRestrictedDevicesAlone) {
    const std::vector<PresentDevice> devices = {
            usb("3-1", "Cable", 9, 1, {255}),   usb("3-2", "Vendor HID", 5, 2, {3, 3}),
            usb("3-3", "Many", 7, 3, {0, 239}), usb("3-4", "Updater", 7, 4, {254}),
            usb("3-5", "Unnamed", 8, 5, {4}),
    };
    for (const By by : kAllBy) expectGood(generated(devices, "whitelist", by), devices);
    EXPECT_EQ((Rules{"5:2", "7:3", "7:4", "8:5", "9:1"}),
              rulesOf(*Policy::parse("x", generated(devices, "whitelist", By::kClass))));
}

TEST(Generate, NamesEachClassThatHasAName) {
    for (const ClassName& row : usbClassTable) {
        SCOPED_TRACE(row.name);
        const bool isSource = row.code > 255;
        const std::vector<PresentDevice> devices = {isSource ? input("input1", "x", 5, 6, row.code)
                                                             : usb("1-1", "x", 5, 6, {row.code})};
        const auto policy = expectGood(generated(devices, "whitelist", By::kClass), devices);
        const bool named = isSource || !Util::validateRestrictedClass(row.code);
        EXPECT_EQ(named ? Rules{row.name} : Rules{"5:6"}, rulesOf(*policy));
    }
}

TEST(Generate, WantsADeviceForAWhitelist) {
    for (const By by : kAllBy) {
        for (const auto& devices :
             {std::vector<PresentDevice>(), {screened(usb("3-2", "Keyboard", 5, 6, {3}))}}) {
            const auto policy = generatePolicy(devices, "whitelist", by);
            ASSERT_FALSE(policy.has_value());
            EXPECT_EQ(
                    "nothing is attached that a rule could name: attach what may be used, then run "
                    "it again",
                    policy.error());
        }
    }
}

// --- Blacklists ----------------------------------------------------------------------------------

TEST(Generate, MakesABlacklistThatRefusesNothingYet) {
    for (const By by : kAllBy) {
        const std::string text = generated(desk(), "blacklist", by);
        EXPECT_THAT(expectGood(text, desk())->rules(), IsEmpty());
    }
    EXPECT_THAT(expectGood(generated({}, "blacklist", By::kProduct), {})->rules(), IsEmpty());
}

// Of "<!-- <vid ...> -->": takes the comment marks away from rules, and from nothing else.
std::string withRules(std::string text) {
    for (const std::string begin : {"<!-- <class", "<!-- <vid"}) {
        for (size_t at = text.find(begin); at != std::string::npos; at = text.find(begin)) {
            const size_t end = text.find(" -->", at);
            text.erase(end, 4).erase(at, 5);
        }
    }
    return text;
}

TEST(Generate, HasTheRulesOfTheWhitelistInTheBlacklistsComments) {
    for (const By by : kAllBy) {
        const auto white = Policy::parse("white", generated(desk(), "whitelist", by));
        const auto black = Policy::parse("black", withRules(generated(desk(), "blacklist", by)));
        ASSERT_TRUE(black->accepted()) << black->status();
        EXPECT_EQ(rulesOf(*white), rulesOf(*black));
    }
}

// --- Hostile names -------------------------------------------------------------------------------

const std::string kHostileNames[] = {
        "-->",
        "--",
        "---->",
        "-",
        "--><class>USB_CLASS_VIDEO</class><!--",
        "\" --><vid vendorid=\"7\"/><!-- \"",
        "<!-- <vid vendorid=\"7\"/> -->",
        "]]></usbconfig>",
        "\"'&lt;&amp;",
        "kusctl: meant refuses-all no-effect never-matches",
        std::string("a\0b\x01\x1b[31m\x7f\r\nc\td", 15),
        // One that turns the direction of writing.
        std::string("\xc2\x9b\xe2\x80") + "\xae\xe2\x80\xa8",
        "\xff\xfe\xc3(\xe2\x82\xed\xa0\x80\xf5\x80\x80\x80",
        "\xef\xbf\xbe\xef\xbf\xbf",
        "\xef\xbb\xbf",
        "-\xff-\xff-",
        "",
        std::string(100000, '-'),
        std::string(100000, 'x') + "-->",
};

TEST(Generate, MakesNoRuleOfAName) {
    for (const std::string& name : kHostileNames) {
        SCOPED_TRACE(name.substr(0, 50));
        const std::vector<PresentDevice> devices = {usb("3-1", name, 5, 6, {8}),
                                                    input("input5", name, 5, 7, 0x101)};
        for (const By by : kAllBy) {
            const auto plain = Policy::parse("plain", generated({usb("3-1", "x", 5, 6, {8}),
                                                                 input("input5", "x", 5, 7, 0x101)},
                                                                "whitelist", by));
            EXPECT_EQ(rulesOf(*plain),
                      rulesOf(*expectGood(generated(devices, "whitelist", by), devices)));
            EXPECT_THAT(expectGood(generated(devices, "blacklist", by), devices)->rules(),
                        IsEmpty());
        }
    }
}

}  // namespace
}  // namespace android::kus::tools
