// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The memory that rules take, in a process that has done nothing else: prints "NAME BYTES" lines.

#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "benchmarks/rule_file.h"
#include "tests/support/allocation_counter.h"

namespace android::kus::bench {
namespace {

constexpr char kSmall[] = "/data/system/small.xml";
constexpr char kLarge[] = "/data/system/large.xml";
constexpr int kSmallRules = 10;
constexpr int kLargeRules = 100000;

// In a process of its own: making the files takes memory, too.
void writeFiles() {
    const pid_t child = fork();
    if (child == 0) {
        const bool written = base::WriteStringToFile(RuleFile(kSmallRules, 1).text(), kSmall) &&
                             base::WriteStringToFile(RuleFile(kLargeRules, 1).text(), kLarge);
        _exit(written ? 0 : 1);
    }
    int status = -1;
    CHECK_EQ(waitpid(child, &status, 0), child);
    CHECK_EQ(status, 0);
}

// One of the sizes that the kernel tells of the process.
int64_t bytesOf(const std::string& name) {
    std::string text;
    CHECK(base::ReadFileToString("/proc/self/status", &text));
    for (const std::string& line : base::Split(text, "\n")) {
        if (base::StartsWith(line, name + ":")) {
            return 1024 * std::stoll(line.substr(name.size() + 1));
        }
    }
    LOG(FATAL) << "no " << name;
    return 0;
}

void parse(const char* path, int rules) {
    Util::createMapFromConfig(path);
    CHECK(xml_parse_status) << errorMessage;
    CHECK_EQ(configClassList.size() + vidPidMap.size(), static_cast<size_t>(rules));
}

int64_t heapGrowth(size_t before) {
    return static_cast<int64_t>(test::BytesInUse()) - static_cast<int64_t>(before);
}

void print(const char* name, int64_t bytes) {
    printf("%s %" PRId64 "\n", name, bytes);
}

}  // namespace
}  // namespace android::kus::bench

int main() {
    using namespace android::kus::bench;  // NOLINT(google-build-using-namespace)
    android::base::SetMinimumLogSeverity(android::base::WARNING);
    writeFiles();
    parse(kSmall, kSmallRules);
    const size_t heapBefore = android::kus::test::BytesInUse();
    print("resident_before", bytesOf("VmRSS"));
    parse(kLarge, kLargeRules);
    print("resident_in_force", bytesOf("VmRSS"));
    print("resident_peak", bytesOf("VmHWM"));
    print("heap_in_force", heapGrowth(heapBefore));
    parse(kSmall, kSmallRules);
    print("resident_after", bytesOf("VmRSS"));
    print("heap_after", heapGrowth(heapBefore));
    return 0;
}
