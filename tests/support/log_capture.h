// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <android-base/logging.h>

namespace android::kus::test {

/** One line as the logging library hands it to a logger: a message with a newline gives two. */
struct LogLine {
    android::base::LogSeverity severity;
    std::string text;

    bool operator==(const LogLine& other) const {
        return severity == other.severity && text == other.text;
    }
};

void PrintTo(const LogLine& line, std::ostream* os);

inline LogLine Info(std::string text) {
    return {android::base::INFO, std::move(text)};
}

inline LogLine Error(std::string text) {
    return {android::base::ERROR, std::move(text)};
}

/**
 * Takes the process's log lines from its construction to its destruction, in order.
 *
 * One at a time. Safe with many logging threads. FATAL lines are taken, too, and the process ends
 * behind them as ever (see process.h).
 */
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /** All lines so far. */
    std::vector<LogLine> Lines() const;
    /** The texts of all lines so far. */
    std::vector<std::string> Texts() const;
    /** All lines so far, which are then forgotten. */
    std::vector<LogLine> Take();
    /** Where this very line stands first, or -1. */
    int IndexOf(const LogLine& line) const;
    /** How many lines are this very line. */
    int CountOf(const LogLine& line) const;
    /** Waits until this very line was logged so many times; false when that takes too long. */
    bool WaitFor(const LogLine& line, int times = 1) const;

    /**
     * Has each further line handed to this function, on its thread and before it is kept, until
     * another is given or null; the function must neither log nor call this object.
     */
    void OnLine(std::function<void(const LogLine&)> onLine);

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable logged_;
    std::vector<LogLine> lines_;
    std::function<void(const LogLine&)> onLine_;
};

}  // namespace android::kus::test
