// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// A rescan of trees of 10, 100 and 1,000 devices, beside the bare system calls of it.

#include <map>
#include <string>

#include <benchmark/benchmark.h>

#include "android/kus/usbdevice.h"
#include "benchmarks/bare_scan.h"
#include "benchmarks/severity.h"
#include "benchmarks/sysfs_tree.h"

namespace android::kus::bench {
namespace {

constexpr int kSizes[] = {10, 100, 1000};

SysfsTrees trees;

// Ends the process unless both see the whole tree.
void check(const SysfsTree& tree) {
    const Severity severity(base::WARNING);
    UsbDevice::create_usb_device_map();
    std::map<std::string, int32_t> found;
    for (const auto& [id, entry] : UsbDevice::DeviceIdMap) {
        found.emplace(entry.interface_name, entry.category);
    }
    CHECK_EQ(found.size(), UsbDevice::DeviceIdMap.size());
    CHECK_EQ(found.size(), static_cast<size_t>(2 * tree.devices()));
    for (const SysfsTree::Entry& entry : tree.entries()) {
        if (!entry.category) continue;
        CHECK_EQ(found.count(entry.name), 1U) << entry.name;
        CHECK_EQ(found[entry.name], *entry.category) << entry.name;
    }
    CHECK_EQ(BareScan(tree).run(), tree.missing());
    CHECK_EQ(BareScanAt(tree).run(), tree.missing());
}

void rescan(benchmark::State& state, int devices, base::LogSeverity minimum) {
    trees.show(devices);
    const Severity severity(minimum);
    for (auto _ : state) UsbDevice::create_usb_device_map();
}

template <typename Scan>
void bare(benchmark::State& state, int devices) {
    trees.show(devices);
    const Scan scan((SysfsTree(devices)));
    for (auto _ : state) benchmark::DoNotOptimize(scan.run());
}

void registerSize(int devices) {
    const std::string suffix = "/" + std::to_string(devices);
    for (const base::LogSeverity severity : {base::WARNING, base::INFO}) {
        const std::string name = std::string("rescan") + suffixOf(severity) + suffix;
        benchmark::RegisterBenchmark(name.c_str(), rescan, devices, severity);
    }
    benchmark::RegisterBenchmark(("bare" + suffix).c_str(), bare<BareScan>, devices);
    benchmark::RegisterBenchmark(("bare_at" + suffix).c_str(), bare<BareScanAt>, devices);
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    using namespace android::kus::bench;  // NOLINT(google-build-using-namespace)
    benchmark::Initialize(&argc, argv);
    for (const int devices : kSizes) {
        const SysfsTree tree(devices);
        trees.add(tree);
        check(tree);
        registerSize(devices);
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
