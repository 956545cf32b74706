// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stddef.h>

namespace android::kus::bench {

/**
 * Reads of all USB devices the attributes that the daemon's rescan reads of them, through libudev;
 * withChildren also what drivers have made of their interfaces, for the categories. Returns the
 * number of interfaces that belong to a device, 0 if libudev does not answer.
 */
size_t scanWithLibudev(bool withChildren);

}  // namespace android::kus::bench
