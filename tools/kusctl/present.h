// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "tools/device_scan.h"
#include "tools/options.h"

namespace android::kus::tools {

/** A device that is attached to this machine. */
struct PresentDevice {
    AttachedDevice device;
    /** A USB device that the daemon leaves to the input side. */
    bool leftToInput = false;
    /**
     * A USB device of HID interfaces alone that is blocked. It was refused as a vendor's own, most
     * likely, and has lost the driver by which the daemon would know; but where interfaces come
     * blocked (kus-hotplug --closed), a keyboard that nobody has opened looks the same.
     */
    bool assumedVendorHid = false;
};

/**
 * What the platform would ask the daemon about: the USB devices without hubs, then the input
 * devices behind USB. An error says that this machine has no USB.
 */
Parsed<std::vector<PresentDevice>> presentDevices();

}  // namespace android::kus::tools
