// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What a tracer is to look at:
//
//   scan_calls tree DEVICES           makes the tree
//   scan_calls WHAT DEVICES TIMES     scans it; WHAT is rescan, bare or bare_at
//
// What two scans make of system calls beyond one is one scan's.

#include <string>

#include <android-base/logging.h>

#include "android/kus/usbdevice.h"
#include "benchmarks/bare_scan.h"
#include "benchmarks/sysfs_tree.h"

int main(int argc, char** argv) {
    using namespace android::kus;         // NOLINT(google-build-using-namespace)
    using namespace android::kus::bench;  // NOLINT(google-build-using-namespace)
    android::base::SetMinimumLogSeverity(android::base::WARNING);
    CHECK(argc > 2) << "what, and of how many devices?";
    const std::string what = argv[1];
    const SysfsTree tree(std::stoi(argv[2]));
    if (what == "tree") {
        tree.make();
        return 0;
    }
    CHECK_EQ(argc, 4) << "how often?";
    const BareScan bare(tree);
    const BareScanAt bareAt(tree);
    for (int left = std::stoi(argv[3]); left > 0; --left) {
        if (what == "rescan") {
            UsbDevice::create_usb_device_map();
        } else if (what == "bare") {
            CHECK_EQ(bare.run(), tree.missing());
        } else {
            CHECK_EQ(what, "bare_at");
            CHECK_EQ(bareAt.run(), tree.missing());
        }
    }
    return 0;
}
