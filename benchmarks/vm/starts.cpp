// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// bench-starts ROUNDS LOG: starts the daemon ROUNDS times, its output appended to LOG, and prints
// for each time the nanoseconds from then until the service manager told of its service.
//
// Exit status: 0 done, 1 a start failed, 2 usage, 3 no service manager.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <android/os/BnServiceCallback.h>
#include <android/os/IServiceManager.h>
#include <binder/IInterface.h>
#include <binder/ProcessState.h>

#include "benchmarks/vm/clock.h"
#include "tools/service.h"

namespace android::kus::bench {
namespace {

enum ExitStatus { kDone = 0, kStartFailed = 1, kUsageError = 2, kNoServiceManager = 3 };

constexpr int kPatienceMs = 20000;

// Writes the time of each registration to a pipe.
class Registrations : public os::BnServiceCallback {
  public:
    Registrations() { CHECK(base::Pipe(&in_, &out_)); }

    binder::Status onRegistration(const std::string& /*name*/,
                                  const sp<IBinder>& /*service*/) override {
        const int64_t time = now();
        CHECK(base::WriteFully(out_, &time, sizeof(time)));
        return binder::Status::ok();
    }

    // Waits for the next one; -1 if none comes.
    int64_t next() const {
        pollfd fd = {in_.get(), POLLIN, 0};
        int64_t time = -1;
        if (poll(&fd, 1, kPatienceMs) == 1) base::ReadFully(in_, &time, sizeof(time));
        return time;
    }

  private:
    base::unique_fd in_;
    base::unique_fd out_;
};

pid_t startDaemon(int log) {
    const pid_t pid = fork();
    CHECK(pid != -1);
    if (pid != 0) return pid;
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    execlp("kusd", "kusd", nullptr);
    _exit(kStartFailed);
}

int measure(int rounds, int log) {
    ProcessState::self()->startThreadPool();
    const auto manager =
            interface_cast<os::IServiceManager>(ProcessState::self()->getContextObject(nullptr));
    const sp<Registrations> registrations = new Registrations();
    if (manager == nullptr ||
        !manager->registerForNotifications("kusbservice", registrations).isOk()) {
        return kNoServiceManager;
    }
    for (int round = 0; round < rounds; ++round) {
        const int64_t begin = now();
        const pid_t pid = startDaemon(log);
        const int64_t end = registrations->next();
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        if (end == -1) return kStartFailed;
        std::cout << end - begin << std::endl;
    }
    return kDone;
}

int run(const std::vector<std::string>& arguments) {
    int rounds = 0;
    if (arguments.size() != 2 || !base::ParseInt(arguments[0], &rounds, 1)) {
        std::cerr << "usage: bench-starts ROUNDS LOG\n";
        return kUsageError;
    }
    if (!tools::haveBinder()) return kNoServiceManager;
    constexpr mode_t kMode = 0644;
    const base::unique_fd log(
            open(arguments[1].c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kMode));
    CHECK(log != -1);
    return measure(rounds, log);
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    return android::kus::bench::run({argv + 1, argv + argc});
}
