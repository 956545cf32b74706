// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

#include "tools/kusctl/present.h"
#include "tools/kusctl/request.h"

namespace android::kus::tools {

/**
 * A policy for these devices, each named in a comment, under which all of them are allowed.
 *
 * A whitelist has rules for all of them. A blacklist has the same rules as comments: which devices
 * are to be refused is for a person to say. A device whose classes no rule can name gets a rule of
 * its ids, whatever |by| is.
 *
 * An error says that there is no device to make a whitelist for.
 */
Parsed<std::string> generatePolicy(const std::vector<PresentDevice>& devices,
                                   const std::string& mode, Request::By by);

}  // namespace android::kus::tools
