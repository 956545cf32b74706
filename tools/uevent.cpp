// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/uevent.h"

#include <cstdint>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

namespace android::kus::tools {
namespace {

using android::base::Basename;
using android::base::Dirname;

// Decimal despite the zeros in front. 0 if it is none.
int32_t deviceNumber(const std::string& text) {
    uint32_t value = 0;
    return base::ParseUint(text, &value, uint32_t{INT32_MAX}) ? static_cast<int32_t>(value) : 0;
}

// "usb3": no device of its own.
bool isRootHub(const std::string& path) {
    return base::StartsWith(Basename(path), "usb");
}

std::optional<Change> rootHubChange(const std::string& action) {
    if (action == "bind") return Change::kRootHubReady;
    return std::nullopt;
}

std::optional<Change> usbDeviceChange(const std::string& action) {
    if (action == "bind") return Change::kReady;
    if (action == "remove") return Change::kGone;
    return std::nullopt;
}

std::optional<Change> interfaceChange(const std::string& action) {
    if (action == "add") return Change::kInterfaceAdded;
    if (action == "remove") return Change::kInterfaceRemoved;
    return std::nullopt;
}

std::optional<Change> inputChange(const std::string& action) {
    if (action == "add") return Change::kReady;
    if (action == "remove") return Change::kGone;
    return std::nullopt;
}

}  // namespace

std::optional<Uevent> interpretUevent(const RawUevent& raw, Clock::time_point received) {
    Uevent event;
    event.received = received;
    event.path = raw.path;
    std::optional<Change> change;
    if (raw.subsystem == "usb" && raw.devtype == "usb_device") {
        change = isRootHub(raw.path) ? rootHubChange(raw.action) : usbDeviceChange(raw.action);
        event.devnum = deviceNumber(raw.devnum);
    } else if (raw.subsystem == "usb" && raw.devtype == "usb_interface") {
        change = interfaceChange(raw.action);
        event.path = Dirname(raw.path);
    } else if (raw.subsystem == "input" && isInputName(Basename(raw.path))) {
        change = inputChange(raw.action);
        event.kind = DeviceKind::kInput;
    }
    if (!change) return std::nullopt;
    event.change = *change;
    event.sysname = Basename(event.path);
    return event;
}

}  // namespace android::kus::tools
