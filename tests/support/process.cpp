// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>

namespace android::kus::test {

using android::base::unique_fd;

namespace {

// A file, not a pipe: the child never waits for a reader.
unique_fd makeBuffer() {
    unique_fd fd(memfd_create("output", MFD_CLOEXEC));
    CHECK(fd != -1);
    return fd;
}

std::string contentOf(const unique_fd& fd) {
    CHECK(lseek(fd, 0, SEEK_SET) == 0);
    std::string text;
    CHECK(android::base::ReadFdToString(fd, &text));
    return text;
}

void logToStandardError(android::base::LogId, android::base::LogSeverity severity, const char*,
                        const char*, unsigned int, const char* text) {
    dprintf(STDERR_FILENO, "%c %s\n", "VDIWEFF"[severity], text);
}

// noexcept, because an exception that nobody catches must end the child as it ends a program,
// instead of reaching the handlers of the test that forked.
[[noreturn]] void endWith(const std::function<void()>& body) noexcept {
    body();
    CHECK(fflush(nullptr) == 0);
    _exit(EXIT_SUCCESS);
}

ProcessResult runChild(const std::function<void()>& body) {
    const unique_fd out = makeBuffer();
    const unique_fd err = makeBuffer();
    CHECK(fflush(nullptr) == 0);
    const pid_t child = fork();
    CHECK(child != -1);
    if (child == 0) {
        CHECK(dup2(out, STDOUT_FILENO) != -1);
        CHECK(dup2(err, STDERR_FILENO) != -1);
        endWith(body);
    }
    int status = 0;
    CHECK(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0, contentOf(out), contentOf(err)};
}

}  // namespace

ProcessResult RunInChild(const std::function<void()>& body) {
    return runChild([&] {
        CHECK(signal(SIGSEGV, SIG_DFL) != SIG_ERR);
        CHECK(signal(SIGABRT, SIG_DFL) != SIG_ERR);
        android::base::SetLogger(logToStandardError);
        body();
    });
}

ProcessResult RunProgram(const std::vector<std::string>& arguments) {
    return runChild([&] {
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        // A fault is the program's own business, not the sanitizer's.
        setenv("ASAN_OPTIONS", "handle_segv=0:handle_abort=0:detect_leaks=0", 1);
        execv(argv[0], argv.data());
        PLOG(FATAL) << argv[0];
    });
}

}  // namespace android::kus::test
