// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "benchmarks/severity.h"

#include <fcntl.h>
#include <unistd.h>

namespace android::kus::bench {

using android::base::unique_fd;

Severity::Severity(base::LogSeverity severity) : severity_(severity) {
    if (severity != base::INFO) return;
    // The product's own logger goes on writing, as on a terminal whose log nobody reads.
    standardError_.reset(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    const unique_fd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    CHECK(standardError_ != -1 && dup2(nowhere, STDERR_FILENO) != -1);
}

Severity::~Severity() {
    if (standardError_ != -1) dup2(standardError_, STDERR_FILENO);
}

const char* suffixOf(base::LogSeverity severity) {
    return severity == base::INFO ? "_info" : "";
}

}  // namespace android::kus::bench
