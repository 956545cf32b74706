// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

namespace android::kus::bench {

/** For its lifetime, messages below a severity are off; with INFO, standard error is nowhere. */
class Severity {
  public:
    explicit Severity(base::LogSeverity severity);
    ~Severity();
    Severity(const Severity&) = delete;
    Severity& operator=(const Severity&) = delete;

  private:
    base::ScopedLogSeverity severity_;
    base::unique_fd standardError_;
};

/** "" for WARNING, "_info" for INFO. */
const char* suffixOf(base::LogSeverity severity);

}  // namespace android::kus::bench
