// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/log_capture.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace android::kus::test {

namespace {

constexpr std::chrono::seconds kPatience(20);

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
        const LogLine line = {severity, text};
        if (onLine_) onLine_(line);
        lines_.push_back(line);
        logged_.notify_all();
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

bool LogCapture::WaitFor(const LogLine& line, int times) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return logged_.wait_for(lock, kPatience, [&] {
        return std::count(lines_.begin(), lines_.end(), line) >= times;
    });
}

void LogCapture::OnLine(std::function<void(const LogLine&)> onLine) {
    const std::lock_guard<std::mutex> lock(mutex_);
    onLine_ = std::move(onLine);
}

}  // namespace android::kus::test
