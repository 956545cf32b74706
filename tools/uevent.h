// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tools/device_scan.h"

namespace android::kus::tools {

using Clock = std::chrono::steady_clock;

/** What the kernel said, as far as it matters here. Texts that the message lacks are empty. */
struct RawUevent {
    std::string action;
    std::string subsystem;
    std::string devtype;
    /** The device's directory: "/sys/devices/.../3-1". */
    std::string path;
    /** USB devices: DEVNUM, "012". */
    std::string devnum;
};

enum class Change {
    /** The device can be judged: it is registered, configured, its drivers are probed. */
    kReady,
    kGone,
    /** Interfaces of a USB device came or went: it got another configuration, or none. */
    kInterfaceAdded,
    kInterfaceRemoved,
    /** A root hub has its configuration and its driver: nothing is enumerated behind it yet. */
    kRootHubReady,
};

/** A change of one device that might have to be judged. */
struct Uevent {
    Change change = Change::kReady;
    DeviceKind kind = DeviceKind::kUsb;
    /** Of the device; for a change of an interface that of the USB device it belongs to. */
    std::string sysname;
    std::string path;
    /**
     * The device number of a USB device's own events: names like "3-1" stand for ports and are
     * used again at once. 0 if the kernel gave none.
     */
    int32_t devnum = 0;
    Clock::time_point received;
};

/**
 * Translates a message, or returns nothing if it is about something else. Of root hubs, which are
 * no attached devices, only the readiness matters.
 *
 * A USB device's "add" comes before it has a configuration. Its "bind" comes when the driver
 * that configures devices has done so: by then the kernel has added the interfaces and run their
 * drivers' probes, so that the net, tty and HID directories that the daemon looks for are there.
 * Devices that stay unconfigured get a "bind" as well. Input devices are complete at "add".
 */
std::optional<Uevent> interpretUevent(const RawUevent& raw, Clock::time_point received);

}  // namespace android::kus::tools
