// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stddef.h>

#include <string>
#include <vector>

#include "benchmarks/sysfs_tree.h"

namespace android::kus::bench {

/**
 * The system calls that a rescan cannot do without, and nothing else: what is read is neither
 * converted nor kept. Every path is ready.
 */
class BareScan {
  public:
    explicit BareScan(const SysfsTree& tree);

    /** Makes the calls by full paths. Returns how many files and links were not there. */
    size_t run() const;

  private:
    std::vector<ScanCall> calls_;
};

/** The same below one O_PATH descriptor for each entry. */
class BareScanAt {
  public:
    explicit BareScanAt(const SysfsTree& tree);

    size_t run() const;

  private:
    struct Entry {
        std::string path;
        std::vector<ScanCall> calls;
    };

    std::vector<Entry> entries_;
};

}  // namespace android::kus::bench
