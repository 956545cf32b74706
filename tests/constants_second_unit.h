// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** What another source file of the same program sees of the shared header. */

#pragma once

#include <stddef.h>

#include <string>
#include <vector>

namespace android::kus::test {

/** Where each variable that the process has once lies for the second source file. */
std::vector<const void*> SharedAddressesInSecondUnit();

/** Where the second source file's own device maps lie. */
std::vector<const void*> DeviceMapAddressesInSecondUnit();

/** The variables as a static object saw them before main() ran. */
struct StateBeforeMain {
    std::string mode;
    size_t classListSize;
    size_t classMapSize;
    size_t vidPidMapSize;
    std::string error;
    bool parsed;
    size_t restrictedClassCount;
    size_t inputSourceCount;
    size_t usbDeviceCount;
    size_t inputDeviceCount;
};
const StateBeforeMain& StateBeforeMainInSecondUnit();

}  // namespace android::kus::test
