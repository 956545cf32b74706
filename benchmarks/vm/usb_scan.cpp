// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// bench-scan ROUNDS: a rescan of the terminal's sysfs by the daemon's code, and the same through
// libudev. Prints for each round "scan", "scan_info" (with INFO messages), "libudev" (the
// attributes alone) and "libudev_categories" (with what drivers have made), each with its
// nanoseconds.
//
// Exit status: 0 done, 1 the two have not found the same interfaces, 2 usage.

#include <iostream>
#include <string>
#include <vector>

#include <android-base/logging.h>
#include <android-base/parseint.h>

#include "android/kus/usbdevice.h"
#include "benchmarks/severity.h"
#include "benchmarks/vm/clock.h"
#include "benchmarks/vm/udev_scan.h"

namespace android::kus::bench {
namespace {

enum ExitStatus { kDone = 0, kDifferent = 1, kUsageError = 2 };

// Returns the number of interfaces found.
size_t timeRescan(base::LogSeverity severity) {
    const Severity logged(severity);
    const AutoMutex lock(UsbDevice::mapLock);
    const int64_t begin = now();
    UsbDevice::create_usb_device_map();
    const int64_t took = now() - begin;
    std::cout << "scan" << suffixOf(severity) << " " << took << "\n";
    return UsbDevice::DeviceIdMap.size();
}

size_t timeLibudev(bool withChildren) {
    const int64_t begin = now();
    const size_t interfaces = scanWithLibudev(withChildren);
    const int64_t took = now() - begin;
    std::cout << (withChildren ? "libudev_categories " : "libudev ") << took << "\n";
    return interfaces;
}

int compare(int rounds) {
    // Whoever comes first finds nothing in the kernel's caches.
    scanWithLibudev(/*withChildren=*/true);
    for (int round = 0; round < rounds; ++round) {
        const size_t scanned = timeRescan(base::WARNING);
        const size_t enumerated = timeLibudev(/*withChildren=*/false);
        timeLibudev(/*withChildren=*/true);
        const size_t logged = timeRescan(base::INFO);
        if (scanned > 0 && scanned == enumerated && scanned == logged) continue;
        std::cerr << "bench-scan: " << scanned << " interfaces, " << enumerated
                  << " through libudev\n";
        return kDifferent;
    }
    return kDone;
}

int run(const std::vector<std::string>& arguments) {
    int rounds = 0;
    if (arguments.size() == 1 && base::ParseInt(arguments[0], &rounds, 1)) return compare(rounds);
    std::cerr << "usage: bench-scan ROUNDS\n";
    return kUsageError;
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    return android::kus::bench::run({argv + 1, argv + argc});
}
