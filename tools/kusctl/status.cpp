// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/status.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include <android-base/file.h>

#include "android/kus/constants.h"
#include "tools/json.h"
#include "tools/kusctl/policy.h"

namespace android::kus::tools {
namespace {

using Outcome = PolicyStatus::Outcome;

constexpr char kSuccess[] = "SUCCESS";
constexpr char kCrash[] = "Unable to apply the USB Admin config rules";
constexpr size_t kLabelWidth = 12;

Outcome outcomeOf(const std::optional<std::string>& status) {
    if (!status) return Outcome::kNone;
    if (status->empty()) return Outcome::kUnfinished;
    if (*status == kSuccess) return Outcome::kTaken;
    return *status == kCrash ? Outcome::kCrashed : Outcome::kRejected;
}

const char* nameOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::kNone:
            return "none";
        case Outcome::kTaken:
            return "taken";
        case Outcome::kRejected:
            return "rejected";
        case Outcome::kCrashed:
            return "crashed";
        case Outcome::kUnfinished:
            return "unfinished";
    }
}

// The daemon ends each line of its copy.
bool isCopy(const std::string& backup, const std::string& file) {
    const bool open = !file.empty() && file.back() != '\n';
    return backup == (open ? file + "\n" : file);
}

const std::string kCheckFile = std::string("kusctl check ") + configFilePath;
const std::string kCheckYours =
        "correct it (kusctl check FILE tells what is wrong) and write it again";
const std::string kWriteAgain = "write it again in place, without renaming";

// The service found none when it started; otherwise the file has gone since.
bool wasNeverThere(const PolicyStatus& status) {
    return status.outcome == Outcome::kNone ||
           status.text.find("XML_ERROR_FILE_NOT_FOUND") != std::string::npos;
}

std::string aboutMissingFile(const PolicyStatus& status) {
    const std::string why = wasNeverThere(status)
                                    ? "there is no file:"
                                    : "the file is gone: the rules in force stay until the next "
                                      "start of the service, and from then on";
    return why + " every device is allowed: write " + configFilePath;
}

std::string aboutBadFileInPlace(const PolicyStatus& status) {
    const std::string which = status.outcome == Outcome::kRejected
                                      ? "the file was rejected and is still in place: of its "
                                        "rules those before the error may be in force"
                                      : "the file as it stands would be rejected";
    return which + ": correct it (" + kCheckFile + " tells what is wrong) and write it in place";
}

std::string aboutRestoredBackup(const PolicyStatus& status) {
    if (status.outcome == Outcome::kRejected) {
        return "the file was rejected and the backup restored: " + kCheckYours;
    }
    return "the service crashed and the backup was restored, in case the file was the reason: "
           "check the file (kusctl check FILE), correct it and write it again; if it is good, see "
           "the service's log";
}

std::string aboutDifference(const PolicyStatus& status) {
    if (status.outcome == Outcome::kRejected || status.outcome == Outcome::kCrashed) {
        return "the file in place is good but was not taken over: " + kWriteAgain;
    }
    return "the file is not the one that was taken over (renamed into place, written while the "
           "service was down, or right behind a bad one): " +
           kWriteAgain;
}

std::string adviceFor(const PolicyStatus& status) {
    if (status.good()) return "";
    if (!status.present) return aboutMissingFile(status);
    if (status.outcome == Outcome::kNone) {
        return "no service has read the file yet: start kusd; if it runs, its directory lets it "
               "write no status";
    }
    if (!status.reading.accepted) return aboutBadFileInPlace(status);
    if (status.outcome == Outcome::kUnfinished) {
        return "the power went while the status was written: " + kWriteAgain;
    }
    return status.backupSame ? aboutRestoredBackup(status) : aboutDifference(status);
}

Parsed<std::optional<std::string>> contentOf(const std::string& path) {
    std::string text;
    if (base::ReadFileToString(path, &text, /*follow_symlinks=*/true)) return text;
    if (errno == ENOENT) return std::nullopt;
    return wrong(path + ": " + strerror(errno));
}

Parsed<PolicyReading> readingOf(const std::string& path) {
    const auto policy = Policy::load(path);
    if (!policy.has_value()) return wrong(policy.error());
    PolicyReading reading;
    reading.accepted = (*policy)->accepted();
    reading.mode = (*policy)->mode();
    for (const RuleAt& rule : (*policy)->rules()) {
        (rule.code ? reading.classRules : reading.vendorRules)++;
    }
    return reading;
}

std::string count(size_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string modeText(const PolicyStatus& policy) {
    if (!policy.present) return "-";
    const PolicyReading& reading = policy.reading;
    const std::string mode = reading.mode ? printable(*reading.mode) : "-";
    if (!reading.accepted) return mode + ", and the daemon would reject the file";
    if (mode == "default") return "default: every device is allowed";
    return mode + ": " + count(reading.classRules, "class rule") + ", " +
           count(reading.vendorRules, "vendor rule");
}

Cell outcomeCell(const PolicyStatus& policy) {
    switch (policy.outcome) {
        case Outcome::kNone:
            return {"none yet", Colour::kAdvice};
        case Outcome::kTaken:
            return {"taken over (SUCCESS)", Colour::kGood};
        case Outcome::kRejected:
            return {"rejected: " + printable(policy.text), Colour::kBad};
        case Outcome::kCrashed:
            return {"crashed the service, or it crashed by itself: " + policy.text, Colour::kBad};
        case Outcome::kUnfinished:
            return {"unknown: the status is empty", Colour::kAdvice};
    }
}

Cell backupCell(const PolicyStatus& policy) {
    if (!policy.backupPresent) return {"missing", Colour::kAdvice};
    if (policy.backupSame) return {"the same as the file", Colour::kGood};
    return {"not the same as the file", Colour::kBad};
}

Cell serviceCell(const ServiceStatus& service) {
    if (service.running) return {"running", Colour::kGood};
    if (!service.problem.empty()) return {"cannot be asked: " + service.problem, Colour::kBad};
    return {"not running: no device is judged", Colour::kBad};
}

std::string line(const char* label, const Cell& cell, const Style& style) {
    return padded(label, kLabelWidth) + paint(style, cell.colour, cell.text) + "\n";
}

}  // namespace

PolicyStatus policyStatus(const PolicyFiles& files, const PolicyReading& reading) {
    PolicyStatus status;
    status.outcome = outcomeOf(files.status);
    status.text = files.status.value_or("");
    status.present = files.config.has_value();
    if (status.present) status.reading = reading;
    status.backupPresent = files.backup.has_value();
    status.backupSame = files.config && files.backup && isCopy(*files.backup, *files.config);
    status.advice = adviceFor(status);
    return status;
}

Parsed<PolicyStatus> readPolicyStatus() {
    const auto status = contentOf(statusFilePath);
    const auto config = contentOf(configFilePath);
    const auto backup = contentOf(backupFilePath);
    for (const auto* file : {&config, &status, &backup}) {
        if (!file->has_value()) return wrong(file->error());
    }
    const PolicyFiles files = {*status, *config, *backup};
    if (!files.config) return policyStatus(files, {});
    const auto reading = readingOf(configFilePath);
    if (!reading.has_value()) return wrong(reading.error());
    return policyStatus(files, *reading);
}

std::string statusText(const ServiceStatus& service, const PolicyStatus& policy,
                       const Style& style) {
    std::string text;
    if (service.automation) {
        text += paint(style, Colour::kBad,
                      "THE POLICY IS SWITCHED OFF: EVERY DEVICE IS ALLOWED "
                      "(ro.config.device.kus_automation is 1)") +
                "\n";
    }
    text += line("service", serviceCell(service), style) +
            line("last file", outcomeCell(policy), style) + line("mode", modeText(policy), style) +
            line("backup", backupCell(policy), style);
    if (!policy.advice.empty()) {
        text += paint(style, Colour::kAdvice, policy.advice) + "\n";
    }
    return text;
}

std::string statusJson(const ServiceStatus& service, const PolicyStatus& policy) {
    JsonObject object;
    object.addFlag("service", service.running)
            .addFlag("automation", service.automation)
            .addText("status", policy.text)
            .addText("outcome", nameOf(policy.outcome))
            .addFlag("taken", policy.taken())
            .addFlag("present", policy.present)
            .addFlag("accepted", policy.reading.accepted)
            .addText("mode", policy.reading.mode.value_or(""))
            .addNumber("classRules", static_cast<int64_t>(policy.reading.classRules))
            .addNumber("vendorRules", static_cast<int64_t>(policy.reading.vendorRules))
            .addFlag("backupPresent", policy.backupPresent)
            .addFlag("backupSame", policy.backupSame)
            .addText("advice", policy.advice);
    return object.str();
}

}  // namespace android::kus::tools
