// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// A large file's memory, when a small file has replaced its rules.

#include <stddef.h>
#include <stdio.h>

#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"

// The sanitizer keeps what is freed for a while, to find those who use it.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,google-*,misc-*)
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=0:thread_local_quarantine_size_kb=0:"
           "allocator_release_to_os_interval_ms=0";
}

namespace android::kus::test {

namespace {

using android::base::ScopedLogSeverity;

constexpr char kLargeFile[] = "/data/system/large.xml";
constexpr char kSmallFile[] = "/data/system/small.xml";
constexpr size_t kRules = 100000;
constexpr size_t kBytesOfRules = kRules * sizeof(VendorRule);
constexpr size_t kMiB = 1024UL * 1024;

void writeFiles() {
    std::string rules;
    for (size_t i = 0; i < kRules; ++i) {
        rules += "<vid vendorid=\"" + std::to_string(i % 65536) + "\"><pid>" + std::to_string(i) +
                 "</pid></vid>\n";
    }
    WriteFile(kLargeFile, "<usbconfig mode=\"whitelist\">" + rules + "</usbconfig>");
    WriteFile(kSmallFile, "<usbconfig mode=\"whitelist\"><vid vendorid=\"1\"/></usbconfig>");
}

void parse(const char* path, size_t rules) {
    const ScopedLogSeverity quiet(android::base::WARNING);
    Util::createMapFromConfig(path);
    CHECK(xml_parse_status) << errorMessage;
    CHECK_EQ(rules, vidPidMap.size());
}

size_t numberIn(const std::string& text) {
    size_t number = 0;
    CHECK(android::base::ParseUint(android::base::Trim(text), &number)) << text;
    return number;
}

// In bytes, what a line such as "Rss:   12 kB" of one of the process's own files tells.
size_t memoryIn(const std::string& file, const std::string& label) {
    std::string text;
    CHECK(android::base::ReadFileToString(file, &text)) << file;
    const size_t line = text.find("\n" + label);
    CHECK(line != std::string::npos) << file << " without " << label;
    const size_t number = line + 1 + label.size();
    return 1024 * numberIn(text.substr(number, text.find(" kB", number) - number));
}

size_t resident() {
    return memoryIn("/proc/self/smaps_rollup", "Rss:");
}

size_t mostResident() {
    return memoryIn("/proc/self/status", "VmHWM:");
}

class MemoryOfRules : public ::testing::Test {
  protected:
    void SetUp() override {
        ResetRules();
        ResetFiles();
        writeFiles();
    }
};

TEST_F(MemoryOfRules, IsFreedWhenOthersReplaceThem) {
    parse(kSmallFile, 1);
    const size_t before = BytesInUse();
    parse(kLargeFile, kRules);
    EXPECT_LE(before + kBytesOfRules, BytesInUse());
    parse(kSmallFile, 1);
    EXPECT_GE(before + kBytesOfRules / 100, BytesInUse());
}

// Rules in force take little; the document that they were read from is the larger part by far, and
// is gone when the parse ends.
TEST_F(MemoryOfRules, IsSmallBesideTheirDocuments) {
    parse(kSmallFile, 1);
    const size_t before = BytesInUse();
    parse(kLargeFile, kRules);
    EXPECT_GE(before + 3 * kBytesOfRules, BytesInUse());
}

TEST_F(MemoryOfRules, GoesBackToTheSystemWhenOthersReplaceThem) {
    const ProcessResult child = RunInChild([] {
        parse(kSmallFile, 1);
        const size_t before = resident();
        parse(kLargeFile, kRules);
        const size_t most = mostResident();
        parse(kSmallFile, 1);
        printf("%zu %zu", most - before, resident() - before);
    });
    ASSERT_EQ("", child.err);
    const std::vector<std::string> numbers = android::base::Split(child.out, " ");
    const size_t most = numberIn(numbers.at(0));
    const size_t kept = numberIn(numbers.at(1));
    EXPECT_LE(20 * kMiB, most);
    // A sanitizer's notes on the memory stay: an eighth of it.
    EXPECT_GE(most / 5, kept);
}

}  // namespace

}  // namespace android::kus::test
