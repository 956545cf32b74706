// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/device_text.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

namespace android::kus::tools {

JsonObject& addDeviceInfo(JsonObject* object, const DeviceInfo& info) {
    return object->addText("deviceName", info.deviceName)
            .addNumber("deviceId", info.deviceId)
            .addNumber("deviceClass", info.deviceClass)
            .addNumbers("interfaceClasses", info.interfaceClasses)
            .addNumber("vendorId", info.vendorId)
            .addNumber("productId", info.productId)
            .addNumber("status", info.status)
            .addNumber("deviceType", info.deviceType)
            .addText("reason", info.reason)
            .addNumber("category", info.category)
            .addText("categoryPath", info.categoryPath);
}

std::string deviceInfoText(const DeviceInfo& info) {
    return base::StringPrintf(
            "%s %s id %d %s vendor %d product %d class %d interfaces [%s] category %d [%s]: %s",
            info.status == 1 ? "allowed" : "refused", info.deviceType == 0 ? "usb" : "input",
            info.deviceId, jsonQuote(info.deviceName).c_str(), info.vendorId, info.productId,
            info.deviceClass, base::Join(info.interfaceClasses, ",").c_str(), info.category,
            info.categoryPath.c_str(), info.reason.c_str());
}

}  // namespace android::kus::tools
