// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/generate.h"

#include <algorithm>
#include <map>
#include <set>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "android/kus/util.h"
#include "tools/kusctl/advice.h"
#include "tools/kusctl/output.h"
#include "tools/kusctl/policy.h"

namespace android::kus::tools {

using base::StringPrintf;

namespace {

// Whatever a device calls itself, it ends no comment, and is made of XML's characters: of those
// that printable() leaves, all but two.
std::string inComment(const std::string& text) {
    std::string plain = printable(text);
    for (const char* other : {"\xef\xbf\xbe", "\xef\xbf\xbf"}) {
        plain = base::StringReplace(plain, other, "\xef\xbf\xbd", /*all=*/true);
    }
    std::string safe;
    for (const char c : plain) {
        if (c == '-' && !safe.empty() && safe.back() == '-') safe += ' ';
        safe += c;
    }
    return safe;
}

std::string titleOf(const PresentDevice& present) {
    const AttachedDevice& device = present.device;
    return inComment(StringPrintf(
            "%s \"%s\" %s (%s)", device.sysname.c_str(), device.info.deviceName.c_str(),
            hexIds(device.info.vendorId, device.info.productId).c_str(),
            classNames(device.info.deviceClass, device.info.interfaceClasses).c_str()));
}

// A rule under the comments that say what it is for.
struct Rule {
    std::vector<std::string> titles;
    std::vector<std::string> lines;
};

// The class rules that a device needs; none if they cannot do.
std::set<int32_t> classesFor(const DeviceInfo& info) {
    std::set<int32_t> codes;
    if (info.interfaceClasses.empty()) {
        for (const int32_t code : Util::checkMultiClass(info.deviceClass)) codes.insert(code);
        return codes;
    }
    for (const int32_t code : info.interfaceClasses) {
        if (Util::validateRestrictedClass(code)) continue;
        if (Util::getClassName(code) == " ") return {};
        codes.insert(code);
    }
    return codes;
}

bool hasIdsRule(const PresentDevice& present, Request::By by) {
    return by != Request::By::kClass || classesFor(present.device.info).empty();
}

void addClassRules(const std::vector<PresentDevice>& devices, std::vector<Rule>* rules) {
    std::map<int32_t, std::vector<std::string>> titles;
    for (const PresentDevice& present : devices) {
        for (const int32_t code : classesFor(present.device.info)) {
            titles[code].push_back(titleOf(present));
        }
    }
    for (const auto& [code, users] : titles) {
        rules->push_back({users, {"<class>" + Util::getClassName(code) + "</class>"}});
    }
}

std::vector<std::string> vendorLines(int32_t vendor, const std::set<int32_t>& products) {
    if (products.empty()) return {StringPrintf("<vid vendorid=\"%d\"/>", vendor)};
    std::vector<std::string> lines = {StringPrintf("<vid vendorid=\"%d\">", vendor)};
    for (const int32_t product : products) {
        lines.push_back(StringPrintf("  <pid>%d</pid>", product));
    }
    lines.emplace_back("</vid>");
    return lines;
}

void addIdsRules(const std::vector<PresentDevice>& devices, Request::By by,
                 std::vector<Rule>* rules) {
    struct Vendor {
        std::vector<std::string> titles;
        std::set<int32_t> products;
    };
    std::map<int32_t, Vendor> vendors;
    for (const PresentDevice& present : devices) {
        if (!hasIdsRule(present, by)) continue;
        Vendor& vendor = vendors[present.device.info.vendorId];
        vendor.titles.push_back(titleOf(present));
        if (by != Request::By::kVendor) vendor.products.insert(present.device.info.productId);
    }
    for (const auto& [id, vendor] : vendors) {
        rules->push_back({vendor.titles, vendorLines(id, vendor.products)});
    }
}

// A device that is left to the input side needs no rule: its input devices do.
std::vector<Rule> rulesFor(const std::vector<PresentDevice>& devices, Request::By by) {
    std::vector<PresentDevice> judged;
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(judged),
                 [](const PresentDevice& present) { return !present.leftToInput; });
    std::vector<Rule> rules;
    if (by == Request::By::kClass) addClassRules(judged, &rules);
    addIdsRules(judged, by, &rules);
    return rules;
}

bool isBehind(const AttachedDevice& input, const AttachedDevice& usb) {
    return input.kind == DeviceKind::kInput && base::StartsWith(input.path, usb.path + "/");
}

// Nobody asks about a HID device that is left to the input side and has no input device.
std::string unlistedText(const std::vector<PresentDevice>& devices) {
    std::string text;
    for (const PresentDevice& present : devices) {
        const bool hasInput = std::any_of(
                devices.begin(), devices.end(),
                [&](const PresentDevice& other) { return isBehind(other.device, present.device); });
        if (!present.leftToInput || hasInput) continue;
        text += "  <!-- " + titleOf(present) + ": without an input device, not listed -->\n";
    }
    return text;
}

std::string ruleText(const Rule& rule, bool asComment) {
    std::string text;
    for (const std::string& title : rule.titles) text += "  <!-- " + title + " -->\n";
    if (asComment) return text + "  <!-- " + base::Join(rule.lines, "\n       ") + " -->\n";
    for (const std::string& line : rule.lines) text += "  " + line + "\n";
    return text;
}

// What may be advised of a whitelist that is exactly what is attached.
const char* whyMeant(const std::string& id) {
    if (id == "no-keyboard") return "keyboards other than these are refused";
    if (id == "half-modem") return "there was no device with both classes";
    return nullptr;
}

std::string meantText(const std::vector<Advice>& advice) {
    std::string text;
    for (const Advice& each : advice) {
        const char* why = whyMeant(each.id);
        if (why == nullptr) continue;
        text += StringPrintf("  <!-- %s -->\n  <!-- kusctl: meant %s -->\n", why, each.id.c_str());
    }
    return text;
}

std::string document(const std::string& mode, const std::string& head, const std::string& rules) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<usbconfig mode=\"" + mode + "\">\n" +
           head + rules + "</usbconfig>\n";
}

std::string whitelist(const std::vector<Rule>& rules, const std::string& unlisted) {
    const std::string head =
            "  <!-- What was attached when this was made; all else is refused. -->\n";
    std::string text;
    for (const Rule& rule : rules) text += ruleText(rule, /*asComment=*/false);
    text += unlisted;
    const auto draft = Policy::parse("draft", document("whitelist", head, text));
    return document("whitelist", head + meantText(adviceOn(*draft)), text);
}

std::string blacklist(const std::vector<Rule>& rules, const std::string& unlisted) {
    std::string text;
    for (const Rule& rule : rules) text += ruleText(rule, /*asComment=*/true);
    text += unlisted;
    return document("blacklist",
                    "  <!-- What was attached when this was made. Nothing is refused yet: take the "
                    "comment\n       marks away from the rules that should refuse. -->\n",
                    text);
}

}  // namespace

Parsed<std::string> generatePolicy(const std::vector<PresentDevice>& devices,
                                   const std::string& mode, Request::By by) {
    const std::vector<Rule> rules = rulesFor(devices, by);
    const std::string unlisted = unlistedText(devices);
    if (mode == "blacklist") return blacklist(rules, unlisted);
    if (rules.empty()) {
        return wrong(
                "nothing is attached that a rule could name: attach what may be used, then run "
                "it again");
    }
    return whitelist(rules, unlisted);
}

}  // namespace android::kus::tools
