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
};

/**
 * What the platform would ask the daemon about: the USB devices without hubs, then the input
 * devices behind USB. An error says that this machine has no USB.
 */
Parsed<std::vector<PresentDevice>> presentDevices();

}  // namespace android::kus::tools
