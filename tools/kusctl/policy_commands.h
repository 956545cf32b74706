// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "tools/kusctl/output.h"
#include "tools/kusctl/request.h"

namespace android::kus::tools {

/** Runs one of the commands about files: check, explain, generate, diff. Changes nothing. */
ExitStatus runOnFiles(const Request& request, const Style& style);

}  // namespace android::kus::tools
