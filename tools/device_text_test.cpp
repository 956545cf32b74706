// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/device_text.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

DeviceInfo modem() {
    DeviceInfo info;
    info.deviceName = "Modem \"3\"";
    info.deviceId = 1005;
    info.deviceClass = 2;
    info.interfaceClasses = {2, 10};
    info.vendorId = 1133;
    info.productId = -1;
    info.status = 1;
    info.deviceType = 0;
    info.reason = "Whitelisted: Match by VID, VID : 1133";
    info.category = 3;
    info.categoryPath = "usb0;ttyACM0;";
    return info;
}

TEST(AddDeviceInfo, CarriesAllFieldsInTheRecordsOrder) {
    JsonObject object;
    EXPECT_EQ(
            "{\"deviceName\":\"Modem \\\"3\\\"\",\"deviceId\":1005,\"deviceClass\":2,"
            "\"interfaceClasses\":[2,10],\"vendorId\":1133,\"productId\":-1,\"status\":1,"
            "\"deviceType\":0,\"reason\":\"Whitelisted: Match by VID, VID : 1133\","
            "\"category\":3,\"categoryPath\":\"usb0;ttyACM0;\"}",
            addDeviceInfo(&object, modem()).str());
}

TEST(DeviceInfoText, IsOneLineForPeople) {
    EXPECT_EQ(
            "allowed usb id 1005 \"Modem \\\"3\\\"\" vendor 1133 product -1 class 2 interfaces "
            "[2,10] category 3 [usb0;ttyACM0;]: Whitelisted: Match by VID, VID : 1133",
            deviceInfoText(modem()));
}

TEST(DeviceInfoText, TellsRefusedInputDevices) {
    DeviceInfo info;
    info.deviceId = 7;
    info.deviceType = 1;
    info.reason = "No matching rule found to Whitelist the device";
    EXPECT_EQ(
            "refused input id 7 \"\" vendor 0 product 0 class 0 interfaces [] category 0 []: "
            "No matching rule found to Whitelist the device",
            deviceInfoText(info));
}

}  // namespace
}  // namespace android::kus::tools
