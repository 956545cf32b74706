// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

#include <android/kus/DeviceInfo.h>

#include "tools/kusctl/policy.h"

namespace android::kus::tools {

/** What the daemon would say of a device under a policy, and how it comes to that. */
struct Explanation {
    enum class Outcome {
        kAllowed,
        kRefused,
        /** A USB device that is left to the input side, which asks about its input devices. */
        kInput,
    };
    /** One of the tests that the device went through, in their order. */
    struct Test {
        std::string name;
        std::string text;
    };

    Outcome outcome = Outcome::kRefused;
    /** As the daemon records it; empty for kInput. */
    std::string reason;
    /** The rules that decided: one for each class, or the one for the ids; may be empty. */
    std::vector<const RuleAt*> rules;
    std::vector<Test> tests;
};

/** "allowed", "refused", "input". */
const char* outcomeText(Explanation::Outcome outcome);

/**
 * The decision is the service's own, by the rules in force: the policy's, which must be accepted
 * and have been put in force. |leftToInput|: the screening's answer about a USB device.
 */
Explanation explain(const Policy& policy, const DeviceInfo& device, bool leftToInput);

}  // namespace android::kus::tools
