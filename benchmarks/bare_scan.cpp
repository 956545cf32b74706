// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "benchmarks/bare_scan.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace android::kus::bench {

namespace {

constexpr char kUsbDevices[] = "/sys/bus/usb/devices";
constexpr size_t kLinkSize = 4096;
// What readdir() of the C library asks for.
constexpr size_t kDirectorySize = 32768;

bool readAttribute(int directory, const ScanCall& call) {
    const int fd = openat(directory, call.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) return false;
    char text[64];
    const ssize_t count = read(fd, text, call.size);
    close(fd);
    return count >= 0;
}

bool readDriverLink(int directory, const ScanCall& call) {
    char target[kLinkSize];
    return readlinkat(directory, call.file.c_str(), target, sizeof(target)) != -1;
}

bool readDirectory(int directory, const ScanCall& call) {
    const int fd = openat(directory, call.file.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) return false;
    char entries[kDirectorySize];
    while (syscall(SYS_getdents64, fd, entries, sizeof(entries)) > 0 && call.toEnd) {
    }
    close(fd);
    return true;
}

bool make(int directory, const ScanCall& call) {
    switch (call.kind) {
        case ScanCall::Kind::kRead:
            return readAttribute(directory, call);
        case ScanCall::Kind::kReadLink:
            return readDriverLink(directory, call);
        case ScanCall::Kind::kReadDirectory:
            return readDirectory(directory, call);
    }
    return false;
}

size_t makeAll(int directory, const std::vector<ScanCall>& calls) {
    size_t missing = 0;
    for (const ScanCall& call : calls) missing += make(directory, call) ? 0 : 1;
    return missing;
}

ScanCall readUsbDevices() {
    return {ScanCall::Kind::kReadDirectory, kUsbDevices, 0, /*toEnd=*/true};
}

std::string pathOf(const SysfsTree::Entry& entry) {
    return std::string(kUsbDevices) + "/" + entry.name;
}

}  // namespace

BareScan::BareScan(const SysfsTree& tree) : calls_({readUsbDevices()}) {
    for (const SysfsTree::Entry& entry : tree.entries()) {
        for (ScanCall call : entry.calls) {
            call.file = call.file.empty() ? pathOf(entry) : pathOf(entry) + "/" + call.file;
            calls_.push_back(call);
        }
    }
}

size_t BareScan::run() const {
    return makeAll(AT_FDCWD, calls_);
}

BareScanAt::BareScanAt(const SysfsTree& tree) {
    for (const SysfsTree::Entry& entry : tree.entries()) {
        entries_.push_back({pathOf(entry), entry.calls});
        for (ScanCall& call : entries_.back().calls) {
            if (call.file.empty()) call.file = ".";
        }
    }
}

size_t BareScanAt::run() const {
    make(AT_FDCWD, readUsbDevices());
    size_t missing = 0;
    for (const Entry& entry : entries_) {
        const int directory = open(entry.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        missing += makeAll(directory, entry.calls);
        close(directory);
    }
    return missing;
}

}  // namespace android::kus::bench
