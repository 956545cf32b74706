// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

#include <android/kus/DeviceInfo.h>

#include "tools/json.h"

namespace android::kus::tools {

/** Adds all eleven fields of |info| under their own names, in the record's order. */
JsonObject& addDeviceInfo(JsonObject* object, const DeviceInfo& info);

/** |info| as one line for people. */
std::string deviceInfoText(const DeviceInfo& info);

}  // namespace android::kus::tools
