// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/constants_second_unit.h"

#include "android/kus/constants.h"

namespace android::kus::test {

namespace {

const StateBeforeMain stateBeforeMain = {
        configMode,
        configClassList.size(),
        configClassMap.size(),
        vidPidMap.size(),
        errorMessage,
        xml_parse_status,
        restrictedClasses.size(),
        inputSourceNames.size(),
        mUsbDeviceInfoList.size(),
        mInputDeviceInfoList.size(),
};

}  // namespace

std::vector<const void*> SharedAddressesInSecondUnit() {
    return {&configMode,       &configClassList,   &configClassMap,   &vidPidMap,     &errorMessage,
            &xml_parse_status, &restrictedClasses, &inputSourceNames, &statusFilePath};
}

std::vector<const void*> DeviceMapAddressesInSecondUnit() {
    return {&mUsbDeviceInfoList, &mInputDeviceInfoList};
}

const StateBeforeMain& StateBeforeMainInSecondUnit() {
    return stateBeforeMain;
}

}  // namespace android::kus::test
