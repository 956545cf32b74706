// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** The system calls and instructions of a program, for what no log line and no file shows. */

#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace android::kus::test {

/** A call that the program is about to make; it stands still meanwhile. */
struct SystemCall {
    pid_t pid;
    uint64_t number;
    std::array<uint64_t, 6> arguments;
};

/** Runs a program of one thread (absolute path) and hands each of its calls to onCall. */
ProcessResult RunTraced(const std::vector<std::string>& arguments,
                        const std::function<void(const SystemCall&)>& onCall);
/** The same for what a forked child does in body. */
ProcessResult RunTraced(const std::function<void()>& body,
                        const std::function<void(const SystemCall&)>& onCall);

/**
 * How many instructions a forked child takes for body, and some hundred for being counted; not
 * beyond limit.
 */
uint64_t CountInstructions(const std::function<void()>& body, uint64_t limit);

/** Copies size bytes out of a traced program's memory; they must be there. */
void ReadMemory(pid_t pid, uint64_t address, void* bytes, size_t size);

/** A text that ends with a zero in a traced program's memory, cut at 255 characters. */
std::string ReadText(pid_t pid, uint64_t address);

/** Puts another first character into a text in a traced program's memory, read-only or not. */
void SpoilText(pid_t pid, uint64_t address);

}  // namespace android::kus::test
