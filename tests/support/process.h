// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** Child processes, for what ends a process or shows on its standard streams. */

#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

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

/**
 * For the body of RunInChild(): waits until any thread of the child has logged this line, written
 * as there. Ends the child through a FATAL log when that takes too long.
 */
void WaitForLogLine(const std::string& line);

/** A child process beside the test. */
class Process {
  public:
    /**
     * Starts a program (absolute path), in front of which the child calls prepare. The sanitizers
     * leave it all signals.
     */
    explicit Process(
            const std::vector<std::string>& arguments,
            const std::function<void()>& prepare = [] {});
    /** Forks and runs body, as RunInChild() does but with the logger of the test. */
    explicit Process(const std::function<void()>& body);
    /** Kills it when nobody has waited for it. */
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    /** Waits for its end; once. */
    ProcessResult Wait();
    /** What it was, for a wait status that somebody else got; instead of Wait(). */
    ProcessResult Ended(int status);

  private:
    android::base::unique_fd out_;
    android::base::unique_fd err_;
    pid_t pid_;
};

/** Runs a program (absolute path) and waits for it. */
ProcessResult RunProgram(const std::vector<std::string>& arguments);

}  // namespace android::kus::test
