// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** The configuration observer beside a test. */

#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

#include "android/kus/ku_service.h"

namespace android::kus::test {

/** The process's inotify descriptors. */
inline std::vector<int> InotifyDescriptors() {
    namespace fs = std::filesystem;
    std::vector<int> descriptors;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry.path(), gone) == "anon_inode:inotify") {
            descriptors.push_back(std::stoi(entry.path().filename()));
        }
    }
    return descriptors;
}

inline void SetHandler(int signum, int flags) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = flags;
    CHECK(sigaction(signum, &action, nullptr) == 0);
}

/**
 * The observer in a thread of the test, with the kernel's real events. It is made to end by giving
 * its descriptor another file, from which no event can be read.
 */
class ObserverThread {
  public:
    ObserverThread() = default;
    ~ObserverThread() { Stop(); }
    ObserverThread(const ObserverThread&) = delete;
    ObserverThread& operator=(const ObserverThread&) = delete;

    /** Again only behind End(). The log tells when it watches. */
    void Start() {
        thread_ = std::thread([this] { result_ = KUsbService::registerFileObserver(this); });
    }

    /** For when it has told how its set-up went; the process must have no other inotify. */
    void FindDescriptor() {
        const std::vector<int> descriptors = InotifyDescriptors();
        CHECK(descriptors.size() == 1);
        descriptor_.reset(descriptors[0]);
    }

    /** Has the observer read from another file, which must make it end; returns its result. */
    std::optional<void*> End(const base::unique_fd& file) {
        CHECK(dup2(file, descriptor_) != -1);
        // Where it waits already, the read starts again, from the other file.
        SetHandler(SIGUSR1, SA_RESTART);
        CHECK(pthread_kill(Handle(), SIGUSR1) == 0);
        thread_.join();
        return result_;
    }

    /** Has it end when it runs. */
    void Stop() {
        if (thread_.joinable()) End(base::unique_fd(open("/dev/null", O_WRONLY | O_CLOEXEC)));
    }

    int Descriptor() const { return descriptor_.get(); }
    pthread_t Handle() { return thread_.native_handle(); }

  private:
    std::thread thread_;
    base::unique_fd descriptor_;
    std::optional<void*> result_;
};

}  // namespace android::kus::test
