// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

#include "tools/kusctl/policy.h"

namespace android::kus::tools {

/** Something in a policy that its writer may not have meant. */
struct Advice {
    /** One of adviceIds(). */
    std::string id;
    Position position;
    /** What is wrong, and what would be right. */
    std::string text;
};

/**
 * What to think over about a policy, in the order of the places.
 *
 * A comment "kusctl: meant ID..." anywhere in the file takes back the advice of these ids: whoever
 * wrote it has thought it over. Advice on what the daemon rejects cannot be taken back.
 */
std::vector<Advice> adviceOn(const Policy& policy);

/** All ids, each with what it is about; the manual lists them. */
struct AdviceId {
    const char* id;
    const char* about;
};
const std::vector<AdviceId>& adviceIds();

}  // namespace android::kus::tools
