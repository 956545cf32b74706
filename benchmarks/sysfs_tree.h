// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace android::kus::bench {

/** What a rescan cannot do without at one entry of the USB device directory. */
struct ScanCall {
    enum class Kind { kRead, kReadLink, kReadDirectory };

    Kind kind;
    /** Below the entry; empty for the entry's own directory. */
    std::string file;
    /** Of kRead: the bytes that are asked for. */
    size_t size = 0;
    /** Of kReadDirectory: whether its end must be seen, or what is looked for is in the middle. */
    bool toEnd = false;
};

/**
 * A tree of USB devices as the kernel shows it below /sys, for tests/sandbox alone.
 *
 * Of each ten devices four are hubs, one behind the other; on them hang adapters, modems,
 * keyboards, scanners, sticks and mice. There are two interfaces for each device, hubs' own
 * included. A root hub takes 120 devices.
 */
class SysfsTree {
  public:
    struct Entry {
        std::string name;
        std::string directory;
        std::vector<std::pair<std::string, std::string>> attributes;
        /** Below the entry: what its driver made, its endpoints. */
        std::vector<std::string> directories;
        /** A name below /sys/bus/usb/drivers, or empty. */
        std::string driver;
        std::vector<ScanCall> calls;
        /** Of an interface that has a device. */
        std::optional<int32_t> category;
    };

    /** devices must be a multiple of ten; nothing is made yet. */
    explicit SysfsTree(int devices);

    /** Makes the tree in an empty /sys. Ends the process when that is the machine's. */
    void make() const;

    int devices() const { return devices_; }
    const std::vector<Entry>& entries() const { return entries_; }
    /** Files and links among the entries' calls that are not there, as with real devices. */
    size_t missing() const;

  private:
    struct Device;

    void addBus(int bus);
    void addUnit(int bus, int port, int* devnum);
    void addDevice(const Device& device);
    void addInterfaces(const Device& device);

    int devices_;
    std::vector<Entry> entries_;
    std::string busDirectory_;
    int hidNumber_ = 0;
};

/** Trees of several sizes, one of which is at /sys. */
class SysfsTrees {
  public:
    /** Makes a tree, which takes the place of the one at /sys. */
    void add(const SysfsTree& tree);
    /** Puts the tree of that many devices to /sys. */
    void show(int devices);

  private:
    void putAway() const;

    int shown_ = 0;
};

}  // namespace android::kus::bench
