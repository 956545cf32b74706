// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/log_capture.h"

#include <algorithm>
#include <utility>

namespace android::kus::test {

namespace {

void dropLine(android::base::LogId, android::base::LogSeverity, const char*, const char*,
              unsigned int, const char*) {}

}  // namespace

void PrintTo(const LogLine& line, std::ostream* os) {
    *os << (line.severity == android::base::INFO    ? "I"
            : line.severity == android::base::ERROR ? "E"
                                                    : std::to_string(line.severity))
        << " \"" << line.text << "\"";
}

LogCapture::LogCapture() {
    android::base::SetLogger([this](android::base::LogId, android::base::LogSeverity severity,
                                    const char*, const char*, unsigned int, const char* text) {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({severity, text});
    });
}

LogCapture::~LogCapture() {
    android::base::SetLogger(dropLine);
}

std::vector<LogLine> LogCapture::Lines() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> LogCapture::Texts() const {
    std::vector<std::string> texts;
    for (const LogLine& line : Lines()) texts.push_back(line.text);
    return texts;
}

std::vector<LogLine> LogCapture::Take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lines_, {});
}

int LogCapture::IndexOf(const LogLine& line) const {
    const std::vector<LogLine> lines = Lines();
    const auto found = std::find(lines.begin(), lines.end(), line);
    return found == lines.end() ? -1 : static_cast<int>(found - lines.begin());
}

int LogCapture::CountOf(const LogLine& line) const {
    const std::vector<LogLine> lines = Lines();
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

}  // namespace android::kus::test
