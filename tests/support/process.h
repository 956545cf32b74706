// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** Child processes, for what ends a process or shows on its standard streams. */

#pragma once

#include <functional>
#include <string>
#include <vector>

namespace android::kus::test {

struct ProcessResult {
    /** Exit status, or -1 when a signal ended the child. */
    int status;
    /** The signal that ended the child, or 0. */
    int signal;
    std::string out;
    std::string err;
};

/**
 * Runs body in a forked child and waits for it; a body that returns ends the child with status 0.
 *
 * Log lines go to the child's standard error as "SEVERITY TEXT" (severity as its first letter), one
 * line each. The sanitizers leave SIGSEGV and SIGABRT to their default actions there.
 */
ProcessResult RunInChild(const std::function<void()>& body);

/** Runs a program (absolute path) and waits for it. */
ProcessResult RunProgram(const std::vector<std::string>& arguments);

}  // namespace android::kus::test
