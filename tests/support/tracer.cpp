// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/tracer.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

namespace android::kus::test {

using android::base::unique_fd;

namespace {

// How the kernel marks a stop at a system call (PTRACE_O_TRACESYSGOOD).
constexpr int kCallStop = SIGTRAP | 0x80;

int waitFor(pid_t pid) {
    int status = 0;
    CHECK(TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) == pid);
    return status;
}

void tellCall(pid_t pid, const std::function<void(const SystemCall&)>& onCall) {
    __ptrace_syscall_info info = {};
    CHECK(ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info) > 0);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return;
    SystemCall call = {pid, info.entry.nr, {}};
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
    onCall(call);
}

// A tracer may write there what the program itself may only read.
unique_fd memoryOf(pid_t pid) {
    unique_fd memory(open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDWR | O_CLOEXEC));
    CHECK(memory != -1);
    return memory;
}

void letParentTrace() {
    CHECK(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0);
}

// The child has stopped itself, or been stopped at its start, by this signal.
void awaitStart(pid_t pid, int signal) {
    const int status = waitFor(pid);
    CHECK(WIFSTOPPED(status) && WSTOPSIG(status) == signal) << "not started";
    CHECK(ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) == 0);
}

ProcessResult follow(Process* program, const std::function<void(const SystemCall&)>& onCall) {
    const pid_t pid = program->pid();
    awaitStart(pid, SIGTRAP);
    int pending = 0;
    while (true) {
        CHECK(ptrace(PTRACE_SYSCALL, pid, nullptr, pending) == 0);
        const int status = waitFor(pid);
        if (!WIFSTOPPED(status)) return program->Ended(status);
        pending = WSTOPSIG(status);
        if (pending != kCallStop) continue;
        pending = 0;
        tellCall(pid, onCall);
    }
}

}  // namespace

ProcessResult RunTraced(const std::vector<std::string>& arguments,
                        const std::function<void(const SystemCall&)>& onCall) {
    Process program(arguments, letParentTrace);
    return follow(&program, onCall);
}

ProcessResult RunTraced(const std::function<void()>& body,
                        const std::function<void(const SystemCall&)>& onCall) {
    Process child([&] {
        letParentTrace();
        CHECK(raise(SIGTRAP) == 0);
        body();
    });
    return follow(&child, onCall);
}

uint64_t CountInstructions(const std::function<void()>& body, uint64_t limit) {
    const Process child([&] {
        letParentTrace();
        CHECK(raise(SIGSTOP) == 0);
        body();
        CHECK(raise(SIGSTOP) == 0);
    });
    awaitStart(child.pid(), SIGSTOP);
    for (uint64_t count = 0; count < limit; ++count) {
        CHECK(ptrace(PTRACE_SINGLESTEP, child.pid(), nullptr, 0) == 0);
        const int status = waitFor(child.pid());
        CHECK(WIFSTOPPED(status)) << "ended early";
        if (WSTOPSIG(status) == SIGSTOP) return count;
    }
    return limit;
}

void ReadMemory(pid_t pid, uint64_t address, void* bytes, size_t size) {
    CHECK(pread(memoryOf(pid), bytes, size, static_cast<off_t>(address)) ==
          static_cast<ssize_t>(size));
}

std::string ReadText(pid_t pid, uint64_t address) {
    std::string text;
    for (char c; text.size() < 255; text += c) {
        ReadMemory(pid, address + text.size(), &c, 1);
        if (c == '\0') break;
    }
    return text;
}

void SpoilText(pid_t pid, uint64_t address) {
    CHECK(pwrite(memoryOf(pid), "?", 1, static_cast<off_t>(address)) == 1);
}

}  // namespace android::kus::test
