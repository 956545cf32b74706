// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** What became of the last policy, as the files in the configuration directory tell it. */

#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "tools/kusctl/output.h"
#include "tools/options.h"

namespace android::kus::tools {

/** The contents of the three files; nothing for one that is not there. */
struct PolicyFiles {
    std::optional<std::string> status;
    std::optional<std::string> config;
    std::optional<std::string> backup;
};

/** What the daemon's parser makes of the configuration file as it stands. */
struct PolicyReading {
    bool accepted = false;
    /** Nothing when the file ends before it tells one. */
    std::optional<std::string> mode;
    size_t classRules = 0;
    size_t vendorRules = 0;
};

/** What the files say together. */
struct PolicyStatus {
    enum class Outcome {
        /** No service has read a policy here. */
        kNone,
        kTaken,
        kRejected,
        /** The service crashed; it may have been over the policy. */
        kCrashed,
        /** Empty: the power went while it was written. */
        kUnfinished,
    };

    Outcome outcome = Outcome::kNone;
    /** The status file's text. */
    std::string text;
    /** Is there a configuration file? The reading is empty without one. */
    bool present = false;
    PolicyReading reading;
    bool backupPresent = false;
    /** Is the backup what the daemon makes of the file when it copies it? */
    bool backupSame = false;
    /** What is wrong and what to do; empty when all is well. */
    std::string advice;

    bool taken() const { return outcome == Outcome::kTaken; }
    /** The last file was taken over, and is what the backup holds. */
    bool good() const { return taken() && backupSame; }
};

/** Puts the files together. |reading| counts only if there is a configuration file. */
PolicyStatus policyStatus(const PolicyFiles& files, const PolicyReading& reading);

/**
 * Reads the files where the daemon has them. An error names a file that is there and cannot be
 * read, and why. No other thread may run.
 */
Parsed<PolicyStatus> readPolicyStatus();

/** What the service itself tells of its state. */
struct ServiceStatus {
    bool running = false;
    /** Why it cannot be asked, if that is known: no binder driver, no right to use it. */
    std::string problem;
    /** The property that allows everything is set. */
    bool automation = false;
};

/** Some lines for people. */
std::string statusText(const ServiceStatus& service, const PolicyStatus& policy,
                       const Style& style);

/** One JSON object without a line end. */
std::string statusJson(const ServiceStatus& service, const PolicyStatus& policy);

}  // namespace android::kus::tools
