// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/policy_commands.h"

#include <signal.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "android/kus/ku_service.h"
#include "tools/json.h"
#include "tools/kusctl/advice.h"
#include "tools/kusctl/explain.h"
#include "tools/kusctl/generate.h"
#include "tools/kusctl/policy.h"
#include "tools/kusctl/present.h"

namespace android::kus::tools {

using base::StringPrintf;
using Outcome = Explanation::Outcome;
using PolicyPtr = std::unique_ptr<Policy>;

namespace {

std::string placeText(const std::string& path, const Position& position) {
    return StringPrintf("%s:%d:%d", printable(path).c_str(), position.line, position.column);
}

JsonObject& addPlace(JsonObject* object, const Position& position) {
    return object->addNumber("line", position.line).addNumber("column", position.column);
}

// --- check ---------------------------------------------------------------------------------------

struct RuleCounts {
    size_t classes = 0;
    size_t vendors = 0;
};

RuleCounts countRules(const Policy& policy) {
    RuleCounts counts;
    for (const RuleAt& rule : policy.rules()) ++(rule.code ? counts.classes : counts.vendors);
    return counts;
}

std::string countText(size_t count, const char* what) {
    return StringPrintf("%zu %s rule%s", count, what, count == 1 ? "" : "s");
}

std::string rulesText(const RuleCounts& counts) {
    if (counts.vendors == 0) return countText(counts.classes, "class");
    if (counts.classes == 0) return countText(counts.vendors, "vendor");
    return countText(counts.classes, "class") + " and " + countText(counts.vendors, "vendor");
}

std::string summary(const Policy& policy) {
    const std::string& mode = *policy.mode();
    if (mode == "default") return "default: everything is allowed";
    const bool white = mode == "whitelist";
    if (policy.rules().empty()) {
        return mode + " without rules: everything is " + (white ? "refused" : "allowed");
    }
    return mode + " of " + rulesText(countRules(policy)) +
           (white ? ": what no rule names is refused" : ": what a rule names is refused");
}

std::string crashText(const Policy& policy) {
    return policy.crashSignal() == SIGSEGV ? "SIGSEGV" : "SIGABRT";
}

std::string rejection(const Policy& policy) {
    if (policy.crashSignal() == 0) return policy.status();
    return policy.status() + " (the daemon's parser dies of it: " + crashText(policy) + ")";
}

JsonObject checkObject(const Policy& policy, const std::vector<Advice>& advice) {
    JsonObject object;
    object.addText("file", policy.path()).addFlag("accepted", policy.accepted());
    object.addText("status", policy.status());
    if (!policy.accepted()) addPlace(&object, policy.errorPosition());
    if (policy.crashSignal() != 0) object.addText("crash", crashText(policy));
    if (policy.mode()) object.addText("mode", *policy.mode());
    const RuleCounts counts = countRules(policy);
    object.addNumber("classRules", static_cast<int64_t>(counts.classes));
    object.addNumber("vendorRules", static_cast<int64_t>(counts.vendors));
    std::vector<JsonObject> objects;
    for (const Advice& each : advice) {
        JsonObject item;
        item.addText("id", each.id);
        addPlace(&item, each.position).addText("text", each.text);
        objects.push_back(item);
    }
    return object.addObjects("advice", objects);
}

void printCheck(const Policy& policy, const std::vector<Advice>& advice, const Style& style) {
    if (policy.accepted()) {
        std::cout << printable(policy.path()) << ": " << paint(style, Colour::kGood, "ok") << ": "
                  << summary(policy) << "\n";
    } else {
        std::cout << placeText(policy.path(), policy.errorPosition()) << ": "
                  << paint(style, Colour::kBad, "rejected") << ": " << printable(rejection(policy))
                  << "\n";
    }
    for (const Advice& each : advice) {
        std::cout << placeText(policy.path(), each.position) << ": "
                  << paint(style, Colour::kAdvice, "advice") << ": " << printable(each.text) << " ["
                  << each.id << "]\n";
    }
}

ExitStatus check(const Request& request, const Style& style) {
    const Parsed<PolicyPtr> policy = Policy::load(request.file);
    if (!policy.has_value()) return complain(kUnreadable, policy.error());
    const std::vector<Advice> advice = adviceOn(**policy);
    if (style.json) {
        std::cout << checkObject(**policy, advice).str() << "\n";
    } else {
        printCheck(**policy, advice, style);
    }
    const bool good = (*policy)->accepted() && (advice.empty() || !request.strict);
    return good ? kGood : kNo;
}

// --- devices -------------------------------------------------------------------------------------

// A policy that devices can be judged by; a complaint has been made if there is none.
PolicyPtr loadAccepted(const std::string& path) {
    Parsed<PolicyPtr> policy = Policy::load(path);
    if (!policy.has_value()) {
        complain(kUnreadable, policy.error());
        return nullptr;
    }
    if ((*policy)->accepted()) return std::move(*policy);
    complain(kUnreadable, placeText(path, (*policy)->errorPosition()) +
                                  ": the daemon would reject this file: " +
                                  printable(rejection(**policy)) + ": run kusctl check " + path);
    return nullptr;
}

constexpr char kAssumed[] =
        "blocked: taken for a vendor's own HID device; a keyboard that has never been allowed "
        "looks "
        "the same";

struct Judged {
    PresentDevice present;
    Explanation explanation;
};

std::vector<Judged> judgeAll(const Policy& policy, const std::vector<PresentDevice>& devices) {
    policy.putInForce();
    std::vector<Judged> all;
    all.reserve(devices.size());
    for (const PresentDevice& present : devices) {
        all.push_back({present, explain(policy, present.device.info, present.leftToInput)});
        if (present.assumedVendorHid) all.back().explanation.tests[0].text = kAssumed;
    }
    return all;
}

Cell outcomeCell(Outcome outcome) {
    switch (outcome) {
        case Outcome::kAllowed:
            return {outcomeText(outcome), Colour::kGood};
        case Outcome::kRefused:
            return {outcomeText(outcome), Colour::kBad};
        case Outcome::kInput:
            // "input" would be read as the device's kind.
            return {"to input", Colour::kQuiet};
    }
}

const char* kindText(const AttachedDevice& device) {
    return device.kind == DeviceKind::kUsb ? "usb" : "input";
}

std::string classesOf(const AttachedDevice& device) {
    return classNames(device.info.deviceClass, device.info.interfaceClasses);
}

JsonObject deviceObject(const AttachedDevice& device) {
    JsonObject object;
    if (!device.sysname.empty()) object.addText("sysname", device.sysname);
    return object.addText("kind", kindText(device))
            .addText("name", device.info.deviceName)
            .addNumber("vendorId", device.info.vendorId)
            .addNumber("productId", device.info.productId)
            .addNumber("deviceClass", device.info.deviceClass)
            .addNumbers("interfaceClasses", device.info.interfaceClasses);
}

// --- explain -------------------------------------------------------------------------------------

JsonObject explanationObject(const Policy& policy, const Judged& judged) {
    JsonObject object = deviceObject(judged.present.device);
    object.addText("verdict", outcomeText(judged.explanation.outcome));
    object.addText("reason", judged.explanation.reason);
    std::vector<JsonObject> rules;
    for (const RuleAt* rule : judged.explanation.rules) {
        JsonObject item;
        addPlace(&item, policy.positionOf(*rule)).addText("text", policy.textOf(*rule));
        rules.push_back(item);
    }
    std::vector<JsonObject> tests;
    for (const Explanation::Test& test : judged.explanation.tests) {
        JsonObject item;
        tests.push_back(item.addText("test", test.name).addText("text", test.text));
    }
    return object.addObjects("rules", rules).addObjects("tests", tests);
}

void printObject(const Policy& policy, const std::vector<Judged>& all) {
    std::vector<JsonObject> devices;
    devices.reserve(all.size());
    for (const Judged& judged : all) devices.push_back(explanationObject(policy, judged));
    JsonObject object;
    object.addText("file", policy.path()).addText("mode", *policy.mode());
    std::cout << object.addObjects("devices", devices).str() << "\n";
}

// "5, 7": the lines of the rules that decided.
std::string ruleLines(const Policy& policy, const Explanation& explanation) {
    std::string lines;
    for (const RuleAt* rule : explanation.rules) {
        lines += (lines.empty() ? "" : ",") + std::to_string(policy.positionOf(*rule).line);
    }
    return lines.empty() ? "-" : lines;
}

// What the daemon has no reason for: the last test says more. Its reasons may end with a blank.
std::string whyText(const Explanation& explanation) {
    return explanation.reason.empty() ? explanation.tests.back().text
                                      : base::Trim(explanation.reason);
}

std::string noteOn(const Judged& judged) {
    const std::string why = whyText(judged.explanation);
    return judged.present.assumedVendorHid ? why + " (" + kAssumed + ")" : why;
}

void printTable(const Policy& policy, const std::vector<Judged>& all, const Style& style) {
    Table table({"DEVICE", "KIND", "VERDICT", "LINE", "HEX", "DECIMAL", "CLASSES", "NAME"});
    for (const Judged& judged : all) {
        const AttachedDevice& device = judged.present.device;
        table.add({device.sysname, std::string(kindText(device)),
                   outcomeCell(judged.explanation.outcome), ruleLines(policy, judged.explanation),
                   hexIds(device.info.vendorId, device.info.productId),
                   decimalIds(device.info.vendorId, device.info.productId), classesOf(device),
                   device.info.deviceName},
                  noteOn(judged));
    }
    std::cout << table.text(style);
}

// Sources may be asked about without ids, which are 0 then.
std::string idsText(const DeviceInfo& info) {
    if (info.vendorId == 0 && info.productId == 0) return "no ids";
    return "hex " + hexIds(info.vendorId, info.productId) + ", decimal " +
           decimalIds(info.vendorId, info.productId);
}

void printOne(const Policy& policy, const Judged& judged, const Style& style) {
    const DeviceInfo& info = judged.present.device.info;
    const Explanation& explanation = judged.explanation;
    const Cell outcome = outcomeCell(explanation.outcome);
    const auto line = [](const char* what, const std::string& text) {
        std::cout << StringPrintf("%-10s", what) << text << "\n";
    };
    line("device",
         StringPrintf("%s, %s, %s", kindText(judged.present.device), idsText(info).c_str(),
                      classNames(info.deviceClass, info.interfaceClasses).c_str()));
    line("verdict", paint(style, outcome.colour, outcome.text));
    if (!explanation.reason.empty()) line("reason", whyText(explanation));
    for (const RuleAt* rule : explanation.rules) {
        line("rule", placeText(policy.path(), policy.positionOf(*rule)) + ": " +
                             printable(policy.textOf(*rule)));
    }
    for (const Explanation::Test& test : explanation.tests) {
        line("test", StringPrintf("%-9s  %s", test.name.c_str(), test.text.c_str()));
    }
    if (explanation.outcome == Outcome::kInput && !info.interfaceClasses.empty()) {
        line("hint",
             "a vendor's own HID device, from which no input device comes, is judged itself: "
             "add --vendor-hid");
    }
}

// Neither of the devices that the question is about is attached to anything.
PresentDevice imagined(const Request& request) {
    PresentDevice present;
    present.device.kind = static_cast<DeviceKind>(request.device.deviceType);
    present.device.info = request.device;
    present.leftToInput = present.device.kind == DeviceKind::kUsb && !request.vendorHid &&
                          KUsbService::isHidAlone(request.device);
    return present;
}

Parsed<std::vector<PresentDevice>> devicesOf(const Request& request) {
    if (request.present) return presentDevices();
    return std::vector<PresentDevice>{imagined(request)};
}

bool isRefused(const Judged& judged) {
    return judged.explanation.outcome == Outcome::kRefused;
}

ExitStatus explainDevices(const Request& request, const Style& style) {
    const PolicyPtr policy = loadAccepted(request.file);
    if (policy == nullptr) return kUnreadable;
    const auto devices = devicesOf(request);
    if (!devices.has_value()) return complain(kUnreadable, devices.error());
    const std::vector<Judged> all = judgeAll(*policy, *devices);
    if (style.json) {
        printObject(*policy, all);
    } else if (!request.present) {
        printOne(*policy, all[0], style);
    } else if (all.empty()) {
        std::cout << "no USB device is attached\n";
    } else {
        printTable(*policy, all, style);
    }
    return std::any_of(all.begin(), all.end(), isRefused) ? kNo : kGood;
}

// --- generate ------------------------------------------------------------------------------------

const char* byText(Request::By by) {
    switch (by) {
        case Request::By::kClass:
            return "class";
        case Request::By::kVendor:
            return "vendor";
        case Request::By::kProduct:
            return "product";
    }
}

ExitStatus generate(const Request& request, const Style& style) {
    const auto devices = presentDevices();
    if (!devices.has_value()) return complain(kUnreadable, devices.error());
    const auto policy = generatePolicy(*devices, request.mode, request.by);
    if (!policy.has_value()) return complain(kUnreadable, policy.error());
    if (style.json) {
        JsonObject object;
        object.addText("mode", request.mode).addText("by", byText(request.by));
        std::cout << object.addText("policy", *policy).str() << "\n";
    } else {
        std::cout << *policy;
    }
    return kGood;
}

// --- diff ----------------------------------------------------------------------------------------

struct Change {
    const Judged& before;
    const Judged& after;
};

std::vector<Change> changes(const std::vector<Judged>& before, const std::vector<Judged>& after) {
    std::vector<Change> changed;
    for (size_t i = 0; i < before.size(); ++i) {
        if (before[i].explanation.outcome == after[i].explanation.outcome) continue;
        changed.push_back({before[i], after[i]});
    }
    return changed;
}

void printChangesObject(const Request& request, const std::vector<Judged>& before,
                        const std::vector<Judged>& after, size_t changed) {
    std::vector<JsonObject> devices;
    for (size_t i = 0; i < before.size(); ++i) {
        JsonObject object = deviceObject(before[i].present.device);
        devices.push_back(object.addText("old", outcomeText(before[i].explanation.outcome))
                                  .addText("new", outcomeText(after[i].explanation.outcome))
                                  .addText("oldReason", before[i].explanation.reason)
                                  .addText("newReason", after[i].explanation.reason));
    }
    JsonObject object;
    object.addText("old", request.file).addText("new", request.newFile);
    object.addNumber("changed", static_cast<int64_t>(changed));
    std::cout << object.addObjects("devices", devices).str() << "\n";
}

void printChanges(const std::vector<Change>& changed, size_t devices, const Style& style) {
    Table table({"DEVICE", "KIND", "OLD", "NEW", "HEX", "DECIMAL", "CLASSES", "NAME"});
    for (const Change& change : changed) {
        const AttachedDevice& device = change.after.present.device;
        table.add({device.sysname, std::string(kindText(device)),
                   outcomeCell(change.before.explanation.outcome),
                   outcomeCell(change.after.explanation.outcome),
                   hexIds(device.info.vendorId, device.info.productId),
                   decimalIds(device.info.vendorId, device.info.productId), classesOf(device),
                   device.info.deviceName},
                  noteOn(change.after));
    }
    if (!changed.empty()) std::cout << table.text(style);
    std::cout << changed.size() << " of " << devices << " devices change their verdict\n";
}

ExitStatus diff(const Request& request, const Style& style) {
    const PolicyPtr older = loadAccepted(request.file);
    const PolicyPtr newer = loadAccepted(request.newFile);
    if (older == nullptr || newer == nullptr) return kUnreadable;
    const auto devices = presentDevices();
    if (!devices.has_value()) return complain(kUnreadable, devices.error());
    const std::vector<Judged> before = judgeAll(*older, *devices);
    const std::vector<Judged> after = judgeAll(*newer, *devices);
    const std::vector<Change> changed = changes(before, after);
    if (style.json) {
        printChangesObject(request, before, after, changed.size());
    } else {
        printChanges(changed, devices->size(), style);
    }
    return changed.empty() ? kGood : kNo;
}

}  // namespace

ExitStatus runOnFiles(const Request& request, const Style& style) {
    switch (request.command) {
        case Request::Command::kCheck:
            return check(request, style);
        case Request::Command::kExplain:
            return explainDevices(request, style);
        case Request::Command::kGenerate:
            return generate(request, style);
        case Request::Command::kDiff:
            return diff(request, style);
        default:
            return complain(kUsageError, "that command is not about files");
    }
}

}  // namespace android::kus::tools
