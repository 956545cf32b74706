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

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

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

// What a child has logged.
std::mutex logMutex;
std::condition_variable logged;
std::set<std::string> logLines;

void logToStandardError(android::base::LogId, android::base::LogSeverity severity, const char*,
                        const char*, unsigned int, const char* text) {
    const std::string line = std::string(1, "VDIWEFF"[severity]) + " " + text;
    const std::lock_guard<std::mutex> lock(logMutex);
    dprintf(STDERR_FILENO, "%s\n", line.c_str());
    logLines.insert(line);
    logged.notify_all();
}

// noexcept, because an exception that nobody catches must end the child as it ends a program,
// instead of reaching the handlers of the test that forked.
[[noreturn]] void endWith(const std::function<void()>& body) noexcept {
    body();
    CHECK(fflush(nullptr) == 0);
    _exit(EXIT_SUCCESS);
}

// Runs in the child.
void execute(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    // A fault is the program's own business, not the sanitizer's.
    setenv("ASAN_OPTIONS",
           "handle_abort=0:handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:"
           "detect_leaks=0",
           1);
    execv(argv[0], argv.data());
    PLOG(FATAL) << argv[0];
}

}  // namespace

ProcessResult RunInChild(const std::function<void()>& body) {
    return Process([&] {
               CHECK(signal(SIGSEGV, SIG_DFL) != SIG_ERR);
               CHECK(signal(SIGABRT, SIG_DFL) != SIG_ERR);
               android::base::SetLogger(logToStandardError);
               body();
           })
            .Wait();
}

void WaitForLogLine(const std::string& line) {
    std::unique_lock<std::mutex> lock(logMutex);
    const bool found = logged.wait_for(lock, std::chrono::seconds(20),
                                       [&] { return logLines.count(line) > 0; });
    lock.unlock();
    CHECK(found) << line;
}

Process::Process(const std::vector<std::string>& arguments, const std::function<void()>& prepare)
    : Process([&] {
          prepare();
          execute(arguments);
      }) {}

Process::Process(const std::function<void()>& body) : out_(makeBuffer()), err_(makeBuffer()) {
    CHECK(fflush(nullptr) == 0);
    pid_ = fork();
    CHECK(pid_ != -1);
    if (pid_ == 0) {
        CHECK(dup2(out_, STDOUT_FILENO) != -1);
        CHECK(dup2(err_, STDERR_FILENO) != -1);
        endWith(body);
    }
}

Process::~Process() {
    if (pid_ == -1) return;
    kill(pid_, SIGKILL);
    Wait();
}

ProcessResult Process::Wait() {
    int status = 0;
    CHECK(TEMP_FAILURE_RETRY(waitpid(pid_, &status, 0)) == pid_);
    return Ended(status);
}

ProcessResult Process::Ended(int status) {
    pid_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0, contentOf(out_), contentOf(err_)};
}

ProcessResult RunProgram(const std::vector<std::string>& arguments) {
    return Process(arguments).Wait();
}

}  // namespace android::kus::test
