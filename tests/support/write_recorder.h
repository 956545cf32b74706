// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** Log lines and file writes in one sequence, with their times. */

#pragma once

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>

#include "tests/support/log_capture.h"

namespace android::kus::test {

/**
 * Records what happens to the files of some directories and what is logged meanwhile, in order.
 *
 * The order is exact, that of log lines and files among each other included: the kernel queues a
 * file's event before the system call returns, and the queue is emptied ahead of each line. The
 * time of a line is that at which it was logged. A file's time and content are taken a little
 * after the fact: its time is never too early, and of two writes with no line between them both
 * may show the second's content ("(gone)" when the file is gone again).
 */
class WriteRecorder {
  public:
    using Clock = std::chrono::steady_clock;

    struct Action {
        Clock::time_point time;
        std::string text; /**< as Logged(), Wrote() and Set() make it */
    };

    /** Records until its destruction; makes the directories. log must outlive it. */
    WriteRecorder(LogCapture* log, const std::vector<std::string>& directories);
    ~WriteRecorder();
    WriteRecorder(const WriteRecorder&) = delete;
    WriteRecorder& operator=(const WriteRecorder&) = delete;

    /** All actions so far. */
    std::vector<Action> Actions();
    /** Their texts. */
    std::vector<std::string> Texts();
    /** Their texts, and the actions are forgotten. */
    std::vector<std::string> Take();
    /** When this very action came, the count-th of its kind; it must have come. */
    Clock::time_point TimeOf(const std::string& text, int count = 1);
    /** Waits until this very action has come count times; false when it has not by then. */
    bool WaitFor(const std::string& text, int count = 1,
                 std::chrono::milliseconds patience = std::chrono::seconds(10));

  private:
    void run();
    void drain();
    void take(uint32_t event, const std::string& path);
    void add(const std::string& text);

    LogCapture* const log_;
    const android::base::unique_fd inotify_;
    const android::base::unique_fd stop_;
    std::map<int, std::string> directories_;
    std::set<std::string> modified_;
    std::mutex mutex_;
    std::condition_variable added_;
    std::vector<Action> actions_;
    std::thread thread_;
};

/** Where the property store keeps its files. */
inline constexpr char kPropertyDirectory[] = "/run/kus-properties";

/** The action of a log line. */
std::string Logged(const LogLine& line);

/** The action of a file that its writer closed, having changed it, or that was renamed into place.
 */
inline std::string Wrote(const std::string& path, const std::string& content) {
    return path + " <- " + content;
}

/** The action of a property. */
inline std::string Set(const std::string& property, const std::string& value) {
    return Wrote(std::string(kPropertyDirectory) + "/" + property, value);
}

}  // namespace android::kus::test
