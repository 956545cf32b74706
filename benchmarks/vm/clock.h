// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stdint.h>

#include <chrono>

namespace android::kus::bench {

/** Nanoseconds of CLOCK_MONOTONIC, which all processes of the terminal share. */
inline int64_t now() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace android::kus::bench
