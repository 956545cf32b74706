// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/explain.h"

#include <algorithm>
#include <utility>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "android/kus/ku_service.h"
#include "android/kus/util.h"
#include "tools/device_scan.h"
#include "tools/kusctl/output.h"

namespace android::kus::tools {

using base::StringPrintf;
using Outcome = Explanation::Outcome;
using Verdict = KUsbService::Verdict;
using By = Verdict::By;

namespace {

std::string codeText(int32_t code) {
    const bool named = Util::getClassName(code) != " ";
    return named ? StringPrintf("%s (%d)", className(code).c_str(), code) : className(code);
}

// What the class test looks at, each code once.
std::vector<int32_t> codesOf(const DeviceInfo& device) {
    std::vector<int32_t> codes;
    const auto add = [&](int32_t code) {
        if (std::find(codes.begin(), codes.end(), code) == codes.end()) codes.push_back(code);
    };
    if (device.interfaceClasses.empty()) {
        for (const int32_t code : Util::checkMultiClass(device.deviceClass)) add(code);
    } else {
        for (const int32_t code : device.interfaceClasses) add(code);
    }
    return codes;
}

bool isPassedOver(const DeviceInfo& device, int32_t code) {
    return !device.interfaceClasses.empty() && Util::validateRestrictedClass(code);
}

std::string screeningText(const DeviceInfo& device, bool leftToInput) {
    if (leftToInput) {
        return device.interfaceClasses.empty()
                       ? "no interfaces: only its input devices are judged"
                       : "HID interfaces alone: only its input devices are judged";
    }
    if (KUsbService::isHidAlone(device)) return "passed: a vendor's own HID device";
    const auto& codes = device.interfaceClasses;
    const auto other =
            std::find_if_not(codes.begin(), codes.end(), [](int32_t code) { return code == 3; });
    return "passed: " + codeText(*other) + " is not HID";
}

std::string classTestText(const DeviceInfo& device, const Verdict& verdict) {
    const std::vector<int32_t> codes = codesOf(device);
    if (codes.empty()) return "no match: it has no class or input source that a rule can name";
    if (verdict.codeWithoutRule)
        return "no match: no rule for " + codeText(*verdict.codeWithoutRule);
    std::vector<std::string> ruled;
    std::vector<std::string> passedOver;
    for (const int32_t code : codes) {
        (isPassedOver(device, code) ? passedOver : ruled).push_back(codeText(code));
    }
    if (ruled.empty()) {
        return "no match: no rule can name " + base::Join(passedOver, " or ");
    }
    std::string text = "match: " + base::Join(ruled, ", ");
    if (!passedOver.empty()) text += "; passed over: " + base::Join(passedOver, ", ");
    return text;
}

std::string vendorTestText(const Policy& policy, const DeviceInfo& device, const Verdict& verdict) {
    const int32_t vendor = device.vendorId;
    if (verdict.by == By::kVendor) {
        const int32_t ruled = policy.findVendorOnlyFrom(vendor)->ids.first;
        if (ruled == vendor) return StringPrintf("match: all of vendor %d", vendor);
        return StringPrintf(
                "match: vendor %d has product rules, and the rule for all of vendor %d "
                "reaches down to it",
                vendor, ruled);
    }
    return StringPrintf("no match: no rule for all of vendor %d", vendor);
}

std::string productTestText(const Policy& policy, const DeviceInfo& device,
                            const Verdict& verdict) {
    const std::string ids = decimalIds(device.vendorId, device.productId);
    if (verdict.by == By::kProduct) return "match: " + ids;
    const bool others = policy.hasVendor(device.vendorId);
    return "no match: no rule for " + ids + (others ? ", only for other products" : "");
}

// The tests that the decision came to: a match ends them.
std::vector<Explanation::Test> testsOf(const Policy& policy, const DeviceInfo& device,
                                       const Verdict& verdict) {
    if (verdict.by == By::kMode) return {{"mode", "default: everything is allowed"}};
    std::vector<Explanation::Test> tests = {{"class", classTestText(device, verdict)}};
    if (verdict.by == By::kClass) return tests;
    tests.push_back({"vendor", vendorTestText(policy, device, verdict)});
    if (verdict.by == By::kVendor) return tests;
    tests.push_back({"product", productTestText(policy, device, verdict)});
    return tests;
}

std::vector<const RuleAt*> rulesOf(const Policy& policy, const DeviceInfo& device, By by) {
    std::vector<const RuleAt*> rules;
    switch (by) {
        case By::kMode:
        case By::kNoRule:
            break;
        case By::kClass:
            for (const int32_t code : codesOf(device)) {
                if (!isPassedOver(device, code)) rules.push_back(policy.findClass(code));
            }
            break;
        case By::kVendor:
            rules.push_back(policy.findVendorOnlyFrom(device.vendorId));
            break;
        case By::kProduct:
            rules.push_back(policy.findProduct(device.vendorId, device.productId));
            break;
    }
    return rules;
}

}  // namespace

const char* outcomeText(Outcome outcome) {
    switch (outcome) {
        case Outcome::kAllowed:
            return "allowed";
        case Outcome::kRefused:
            return "refused";
        case Outcome::kInput:
            return "input";
    }
}

Explanation explain(const Policy& policy, const DeviceInfo& device, bool leftToInput) {
    Explanation explanation;
    if (device.deviceType == static_cast<int32_t>(DeviceKind::kUsb)) {
        explanation.tests.push_back({"screening", screeningText(device, leftToInput)});
    }
    if (leftToInput) {
        explanation.outcome = Outcome::kInput;
        return explanation;
    }
    const Verdict verdict = KUsbService::judge(device);
    explanation.outcome = verdict.allowed ? Outcome::kAllowed : Outcome::kRefused;
    explanation.reason = verdict.reason;
    explanation.rules = rulesOf(policy, device, verdict.by);
    for (auto& test : testsOf(policy, device, verdict))
        explanation.tests.push_back(std::move(test));
    return explanation;
}

}  // namespace android::kus::tools
