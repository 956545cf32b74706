// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/line_counter.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <numeric>

#include <android-base/logging.h>
#include <android-base/strings.h>

namespace android::kus::test {

namespace {

constexpr std::chrono::seconds kPatience(60);

// Never destroyed: threads that nobody joins log to the end of the process.
// Written before there is a second thread.
auto& counted = *new std::vector<std::string>;

auto& mutex = *new std::mutex;
auto& logged = *new std::condition_variable;
auto& counts = *new std::map<std::string, int>;

void countLine(android::base::LogId, android::base::LogSeverity, const char*, const char*,
               unsigned int, const char* text) {
    const auto begins = [&](const std::string& beginning) {
        return android::base::StartsWith(text, beginning);
    };
    if (std::none_of(counted.begin(), counted.end(), begins)) return;
    const std::lock_guard<std::mutex> lock(mutex);
    ++counts[text];
    logged.notify_all();
}

}  // namespace

void CountLines(const std::vector<std::string>& beginnings) {
    counted = beginnings;
    counts.clear();
    android::base::SetLogger(countLine);
}

int LinesLogged(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex);
    return counts[line];
}

bool WaitForLines(const std::vector<std::string>& lines, int times) {
    std::unique_lock<std::mutex> lock(mutex);
    return logged.wait_for(lock, kPatience, [&] {
        return std::accumulate(lines.begin(), lines.end(), 0, [](int sum, const auto& line) {
                   return sum + counts[line];
               }) >= times;
    });
}

}  // namespace android::kus::test
