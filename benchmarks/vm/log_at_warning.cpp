// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Preloaded into the daemon, which has no knob for it: its log begins at WARNING.

#include <android-base/logging.h>

namespace {

[[gnu::constructor]] void logFromWarningOn() {
    android::base::SetMinimumLogSeverity(android::base::WARNING);
}

}  // namespace
