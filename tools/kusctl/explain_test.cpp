// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/explain.h"

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/dice.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"

namespace android::kus::tools {
namespace {

using test::Dice;
using ::testing::ElementsAreArray;
using Outcome = Explanation::Outcome;

constexpr int32_t kUsb = 0;
constexpr int32_t kInput = 1;
constexpr char kNotWhite[] = "No matching rule found to Whitelist the device";
constexpr char kNotBlack[] = "No matching rule found to Blacklist the device";

DeviceInfo usb(std::vector<int32_t> classes, int32_t vendor = 1133, int32_t product = 50475) {
    DeviceInfo info;
    info.deviceType = kUsb;
    info.deviceId = 1005;
    info.interfaceClasses = std::move(classes);
    info.vendorId = vendor;
    info.productId = product;
    return info;
}

DeviceInfo input(int32_t sources, int32_t vendor = 1133, int32_t product = 50475) {
    DeviceInfo info = usb({}, vendor, product);
    info.deviceType = kInput;
    info.deviceId = 7;
    info.deviceClass = sources;
    return info;
}

std::vector<std::string> testsOf(const Explanation& explanation) {
    std::vector<std::string> texts;
    for (const Explanation::Test& test : explanation.tests) {
        texts.push_back(test.name + ": " + test.text);
    }
    return texts;
}

std::vector<int> linesOf(const Policy& policy, const Explanation& explanation) {
    std::vector<int> lines;
    for (const RuleAt* rule : explanation.rules) lines.push_back(policy.positionOf(*rule).line);
    return lines;
}

// --- A table -------------------------------------------------------------------------------------

// The rules begin in the second line.
constexpr char kRules[] =
        "<class>USB_CLASS_AUDIO</class>\n"                 // 2
        "<class>USB_CLASS_MASS_STORAGE</class>\n"          // 3
        "<class>AINPUT_SOURCE_KEYBOARD</class>\n"          // 4
        "<class>AINPUT_SOURCE_MOUSE</class>\n"             // 5
        "<vid vendorid=\"100\"><pid>1</pid></vid>\n"       // 6
        "<vid vendorid=\"200\"/>\n"                        // 7
        "<vid vendorid=\"300\">\n<pid>1</pid>\n</vid>\n";  // 8, 9

struct Case {
    const char* name;
    DeviceInfo device;
    /** Of a whitelist; empty when nothing matches. */
    std::string match;
    std::vector<int> lines;
    std::vector<std::string> tests;
};

std::vector<Case> cases() {
    const std::string notHid = "screening: passed: USB_CLASS_MASS_STORAGE (8) is not HID";
    const std::string audio = "screening: passed: USB_CLASS_AUDIO (1) is not HID";
    const std::string special = "screening: passed: USB_CLASS_VENDOR_SPEC (255) is not HID";
    const std::string noClass8 = "class: match: USB_CLASS_MASS_STORAGE (8)";
    const std::string noVendor = "vendor: no match: no rule for all of vendor ";
    return {
            {"a class",
             usb({8}),
             "Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
             {3},
             {notHid, noClass8}},
            {"a class twice",
             usb({8, 8}),
             "Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
             {3},
             {notHid, noClass8}},
            {"two classes in the device's order",
             usb({8, 1}),
             "Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE USB_CLASS_AUDIO ",
             {3, 2},
             {notHid, "class: match: USB_CLASS_MASS_STORAGE (8), USB_CLASS_AUDIO (1)"}},
            {"a class beside restricted ones",
             usb({1, 3, 255}),
             "Match by ClassName, CLASS : USB_CLASS_AUDIO ",
             {2},
             {audio,
              "class: match: USB_CLASS_AUDIO (1); passed over: USB_CLASS_HID (3), "
              "USB_CLASS_VENDOR_SPEC (255)"}},
            {"a class beside one without a rule",
             usb({8, 7}),
             "",
             {},
             {notHid, "class: no match: no rule for USB_CLASS_PRINTER (7)", noVendor + "1133",
              "product: no match: no rule for 1133:50475"}},
            {"a class without a name",
             usb({19}),
             "",
             {},
             {"screening: passed: class 19 is not HID", "class: no match: no rule for class 19",
              noVendor + "1133", "product: no match: no rule for 1133:50475"}},
            {"restricted classes alone",
             usb({255, 3}),
             "",
             {},
             {special,
              "class: no match: no rule can name USB_CLASS_VENDOR_SPEC (255) or "
              "USB_CLASS_HID (3)",
              noVendor + "1133", "product: no match: no rule for 1133:50475"}},
            {"a vendor's own HID device",
             usb({3}, 200),
             "Match by VID, VID : 200",
             {7},
             {"screening: passed: a vendor's own HID device",
              "class: no match: no rule can name USB_CLASS_HID (3)",
              "vendor: match: all of vendor 200"}},
            {"a vendor",
             usb({255}, 200),
             "Match by VID, VID : 200",
             {7},
             {special, "class: no match: no rule can name USB_CLASS_VENDOR_SPEC (255)",
              "vendor: match: all of vendor 200"}},
            {"a vendor that a larger one's rule reaches",
             usb({255}, 100, 77),
             "Match by VID, VID : 100",
             {7},
             {special, "class: no match: no rule can name USB_CLASS_VENDOR_SPEC (255)",
              "vendor: match: vendor 100 has product rules, and the rule for all of vendor 200 "
              "reaches down to it"}},
            {"a vendor between, without rules",
             usb({255}, 150),
             "",
             {},
             {special, "class: no match: no rule can name USB_CLASS_VENDOR_SPEC (255)",
              noVendor + "150", "product: no match: no rule for 150:50475"}},
            {"a product",
             usb({255}, 300, 1),
             "Match by VID_PID combination, VID : 300 PID: 1",
             {9},
             {special, "class: no match: no rule can name USB_CLASS_VENDOR_SPEC (255)",
              noVendor + "300", "product: match: 300:1"}},
            {"another product",
             usb({255}, 300, 2),
             "",
             {},
             {special, "class: no match: no rule can name USB_CLASS_VENDOR_SPEC (255)",
              noVendor + "300", "product: no match: no rule for 300:2, only for other products"}},
            {"a class and a vendor",
             usb({8}, 200),
             "Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
             {3},
             {notHid, noClass8}},
            {"a keyboard",
             input(0x101),
             "Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD ",
             {4},
             {"class: match: AINPUT_SOURCE_KEYBOARD (256)"}},
            {"a keyboard and mouse",
             input(0x2103),
             "Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD AINPUT_SOURCE_MOUSE ",
             {4, 5},
             {"class: match: AINPUT_SOURCE_KEYBOARD (256), AINPUT_SOURCE_MOUSE (8192)"}},
            {"a keyboard and gamepad",
             input(0x501),
             "",
             {},
             {"class: no match: no rule for AINPUT_SOURCE_GAMEPAD (1024)", noVendor + "1133",
              "product: no match: no rule for 1133:50475"}},
            {"no input source of a name",
             input(0x8000, 300, 1),
             "Match by VID_PID combination, VID : 300 PID: 1",
             {9},
             {"class: no match: it has no class or input source that a rule can name",
              noVendor + "300", "product: match: 300:1"}},
    };
}

std::unique_ptr<Policy> inForce(const std::string& mode, const std::string& rules) {
    auto policy = Policy::parse("policy.xml",
                                "<usbconfig mode=\"" + mode + "\">\n" + rules + "</usbconfig>\n");
    EXPECT_TRUE(policy->accepted()) << policy->status();
    policy->putInForce();
    return policy;
}

void expectCase(const Policy& policy, const Case& each, bool white) {
    const Explanation explanation = explain(policy, each.device, /*leftToInput=*/false);
    const bool matched = !each.match.empty();
    EXPECT_EQ(matched == white ? Outcome::kAllowed : Outcome::kRefused, explanation.outcome);
    const std::string prefix = white ? "Whitelisted: " : "Blacklisted: ";
    EXPECT_EQ(matched ? prefix + each.match : (white ? kNotWhite : kNotBlack), explanation.reason);
    EXPECT_THAT(linesOf(policy, explanation), ElementsAreArray(each.lines));
    EXPECT_THAT(testsOf(explanation), ElementsAreArray(each.tests));
}

TEST(Explain, TellsHowADeviceComesToItsVerdict) {
    for (const bool white : {true, false}) {
        const auto policy = inForce(white ? "whitelist" : "blacklist", kRules);
        for (const Case& each : cases()) {
            SCOPED_TRACE(std::string(white ? "whitelist: " : "blacklist: ") + each.name);
            expectCase(*policy, each, white);
        }
    }
}

TEST(Explain, NamesNoRuleInDefaultMode) {
    const auto policy = inForce("default", kRules);
    for (const DeviceInfo& device : {usb({8}), usb({255}, 9, 9), input(0x101)}) {
        const Explanation explanation = explain(*policy, device, /*leftToInput=*/false);

        EXPECT_EQ(Outcome::kAllowed, explanation.outcome);
        EXPECT_EQ("Enabled by default rule", explanation.reason);
        EXPECT_TRUE(explanation.rules.empty());
        EXPECT_EQ("mode: default: everything is allowed", testsOf(explanation).back());
    }
}

TEST(Explain, LeavesAScreenedDeviceToTheInputSideInEveryMode) {
    for (const char* mode : {"default", "whitelist", "blacklist"}) {
        const auto policy = inForce(mode, kRules);
        const auto expectLeft = [&](const DeviceInfo& device, const std::string& test) {
            const Explanation explanation = explain(*policy, device, /*leftToInput=*/true);
            EXPECT_EQ(Outcome::kInput, explanation.outcome);
            EXPECT_EQ("", explanation.reason);
            EXPECT_TRUE(explanation.rules.empty());
            EXPECT_EQ(std::vector<std::string>{"screening: " + test}, testsOf(explanation));
        };
        expectLeft(usb({3, 3}, 200), "HID interfaces alone: only its input devices are judged");
        expectLeft(usb({}, 200), "no interfaces: only its input devices are judged");
    }
}

TEST(Explain, NamesTheFirstOfEqualRules) {
    const auto policy = inForce("whitelist",
                                "<class>USB_CLASS_AUDIO</class>\n<class>USB_CLASS_AUDIO</class>\n"
                                "<vid vendorid=\"5\"/>\n<vid vendorid=\"5\"/>\n");
    EXPECT_EQ(std::vector<int>{2}, linesOf(*policy, explain(*policy, usb({1}), false)));
    EXPECT_EQ(std::vector<int>{4}, linesOf(*policy, explain(*policy, usb({7}, 5), false)));
}

TEST(Explain, NamesTheNearestRuleThatReachesDown) {
    const auto policy = inForce("whitelist",
                                "<vid vendorid=\"900\"/>\n<vid vendorid=\"5\"><pid>6</pid></vid>\n"
                                "<vid vendorid=\"700\"/>\n<vid vendorid=\"4\"/>\n");
    const Explanation explanation = explain(*policy, usb({255}, 5, 7), false);

    EXPECT_EQ("Whitelisted: Match by VID, VID : 5", explanation.reason);
    EXPECT_EQ(std::vector<int>{4}, linesOf(*policy, explanation));
    EXPECT_EQ(
            "vendor: match: vendor 5 has product rules, and the rule for all of vendor 700 "
            "reaches down to it",
            testsOf(explanation).back());
}

TEST(OutcomeText, IsOneWord) {
    EXPECT_STREQ("allowed", outcomeText(Outcome::kAllowed));
    EXPECT_STREQ("refused", outcomeText(Outcome::kRefused));
    EXPECT_STREQ("input", outcomeText(Outcome::kInput));
}

// --- Any device under any policy -----------------------------------------------------------------

constexpr int32_t kClasses[] = {1, 2, 3, 4, 7, 8, 10, 14, 239, 255};
constexpr int32_t kSources[] = {0x100, 0x200, 0x2000, 0x1000, 0x20000, 0x8000, 0x10};
constexpr int32_t kVendors[] = {0, 5, 6, 7, 8, 1133};
constexpr int32_t kProducts[] = {0, 1, 2, 50475};
// Of the two devices that are attached, see below.
constexpr int32_t kVendorHid = 1005;
constexpr int32_t kKeyboard = 1006;

/** One line of a policy, which is one rule. */
using Rules = std::vector<std::string>;

std::string vendorRule(int32_t vendor, const std::string& inside) {
    return "<vid vendorid=\"" + std::to_string(vendor) + "\">" + inside + "</vid>";
}

std::string anyRule(Dice* dice) {
    const uint32_t kind = dice->Below(5);
    if (kind == 0) return vendorRule(dice->OneOf(kVendors), "");
    if (kind <= 2) {
        return vendorRule(dice->OneOf(kVendors),
                          "<pid>" + std::to_string(dice->OneOf(kProducts)) + "</pid>");
    }
    std::string name = " ";
    while (name == " ") {
        const int32_t code = kind == 3 ? dice->OneOf(kClasses) : dice->OneOf(kSources);
        if (!Util::validateRestrictedClass(code)) name = Util::getClassName(code);
    }
    return "<class>" + name + "</class>";
}

Rules anyRules(Dice* dice) {
    Rules rules;
    for (size_t left = dice->Below(12); left > 0; --left) rules.push_back(anyRule(dice));
    return rules;
}

std::unique_ptr<Policy> inForce(const std::string& mode, const Rules& rules) {
    std::string text;
    for (const std::string& rule : rules) text += rule + "\n";
    return inForce(mode, text);
}

DeviceInfo anyDevice(Dice* dice) {
    DeviceInfo device = usb({}, dice->OneOf(kVendors), dice->OneOf(kProducts));
    device.deviceType = dice->Percent(60) ? kUsb : kInput;
    if (device.deviceType == kInput) {
        for (int i = 0; i < 3; ++i) device.deviceClass |= dice->OneOf(kSources);
        return device;
    }
    device.deviceId = dice->Percent(50) ? kVendorHid : kKeyboard;
    const bool hid = dice->Percent(20);
    for (size_t left = dice->Below(4); left > 0; --left) {
        device.interfaceClasses.push_back(hid ? 3 : dice->OneOf(kClasses));
    }
    return device;
}

class ExplainAnyDevice : public test::ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        test::AddDevice("1-5", 1, 5, "046d", "c025");
        test::MakeDir(test::AddInterface("1-5:1.0", "03") + "/0003:046D:C025.0001");
        test::AddDevice("1-6", 1, 6, "046d", "c026");
        test::MakeDir(test::AddInterface("1-6:1.0", "03") + "/0003:046D:C026.0002/input");
    }

    // As the service sees it, the verdict and the reason on record.
    std::pair<Outcome, std::string> asked(const DeviceInfo& device) {
        bool allowed = false;
        EXPECT_TRUE(service->isDeviceAllowed(device, &allowed).isOk());
        const std::vector<DeviceInfo> records = Devices();
        EXPECT_TRUE(service->updateDeviceList(device, 0).isOk());
        log.Take();
        if (records.empty()) return {Outcome::kInput, ""};
        EXPECT_EQ(1u, records.size());
        EXPECT_EQ(allowed, records[0].status != 0);
        return {allowed ? Outcome::kAllowed : Outcome::kRefused, records[0].reason};
    }

    static bool isLeftToInput(const DeviceInfo& device) {
        if (device.deviceType != kUsb) return false;
        const AutoMutex lock(UsbDevice::mapLock);
        return !KUsbService::passesHidScreening(device);
    }
};

std::set<std::string> namedRules(const Policy& policy, const Explanation& explanation,
                                 const Rules& rules) {
    std::set<std::string> named;
    for (const int line : linesOf(policy, explanation)) named.insert(rules.at(line - 2));
    return named;
}

Rules without(const Rules& rules, const std::set<std::string>& taken) {
    Rules kept;
    std::copy_if(rules.begin(), rules.end(), std::back_inserter(kept),
                 [&](const std::string& rule) { return taken.count(rule) == 0; });
    return kept;
}

// The vendor's own rules let one of a larger vendor reach down to it.
Rules onlyWhatDecides(const Rules& rules, const std::set<std::string>& named, int32_t vendor) {
    const std::string own = vendorRule(vendor, "").substr(0, vendorRule(vendor, "").size() - 6);
    Rules kept;
    std::copy_if(rules.begin(), rules.end(), std::back_inserter(kept),
                 [&](const std::string& rule) {
                     return named.count(rule) != 0 || rule.rfind(own, 0) == 0;
                 });
    return kept;
}

TEST_F(ExplainAnyDevice, SaysWhatTheServiceRecords) {
    Dice dice(1);
    size_t outcomes[3] = {};
    for (int round = 0; round < 500; ++round) {
        const char* const modes[] = {"whitelist", "whitelist", "blacklist", "default"};
        const auto policy = inForce(dice.OneOf(modes), anyRules(&dice));
        for (int i = 0; i < 10; ++i) {
            const DeviceInfo device = anyDevice(&dice);
            SCOPED_TRACE(test::Text(device));
            const Explanation explanation = explain(*policy, device, isLeftToInput(device));

            const auto [outcome, reason] = asked(device);

            ASSERT_EQ(outcomeText(outcome), std::string(outcomeText(explanation.outcome)));
            ASSERT_EQ(reason, explanation.reason);
            ++outcomes[static_cast<size_t>(outcome)];
        }
    }
    for (const size_t count : outcomes) EXPECT_GE(count, 100u);
}

TEST_F(ExplainAnyDevice, NamesTheRulesThatDecide) {
    Dice dice(2);
    size_t named = 0;
    for (int round = 0; round < 400; ++round) {
        const char* const modes[] = {"whitelist", "blacklist"};
        const char* const mode = dice.OneOf(modes);
        const Rules rules = anyRules(&dice);
        const DeviceInfo device = anyDevice(&dice);
        const auto policy = inForce(mode, rules);
        const Explanation explanation = explain(*policy, device, isLeftToInput(device));
        log.Take();
        if (explanation.rules.empty()) continue;
        SCOPED_TRACE(test::Text(device) + ": " + explanation.reason);
        const std::set<std::string> deciding = namedRules(*policy, explanation, rules);
        ++named;

        // With them alone it is the same.
        const auto enough = inForce(mode, onlyWhatDecides(rules, deciding, device.vendorId));
        EXPECT_EQ(explanation.reason, explain(*enough, device, false).reason);
        // Without them it is not, but where another vendor's rule reaches as far.
        const Rules others = without(rules, deciding);
        const auto less = inForce(mode, others);
        const Explanation other = explain(*less, device, false);
        if (other.reason == explanation.reason) {
            EXPECT_NE(std::string::npos, other.reason.find("Match by VID, VID : "));
            EXPECT_NE(deciding, namedRules(*less, other, others));
        }
    }
    EXPECT_GE(named, 100u);
}

}  // namespace
}  // namespace android::kus::tools
