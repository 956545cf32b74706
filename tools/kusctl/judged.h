// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** How the devices that the service has judged are shown. */

#pragma once

#include <string>
#include <vector>

#include <android/kus/DeviceInfo.h>

#include "tools/json.h"
#include "tools/kusctl/output.h"

namespace android::kus::tools {

/** The members "kind" and "allowed", the record's own, "classNames". */
JsonObject& addJudged(JsonObject* object, const DeviceInfo& device);

/** A table, the reason below each device; a sentence when there are none. */
std::string judgedText(const std::vector<DeviceInfo>& devices, const Style& style);

/** The coming or going of a device. */
struct DeviceEvent {
    /** "added" or "removed". The record of one that is gone holds no verdict. */
    std::string event;
    DeviceInfo device;
    /** Local time, "13:07:59". */
    std::string time;
};

/** The headings of eventText, with a line end. */
std::string eventHeadings();

/** A line, with its end, in columns of fixed widths. */
std::string eventText(const DeviceEvent& event, const Style& style);

/** The member "event", and those of addJudged. */
JsonObject judgedEventObject(const DeviceEvent& event);

}  // namespace android::kus::tools
