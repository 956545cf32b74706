// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/judged.h"

#include <stddef.h>

#include <array>

#include <android-base/strings.h>

#include "tools/device_text.h"

namespace android::kus::tools {
namespace {

// Time, event, id, kind, verdict, ids twice, classes, name. Classes and names may be longer and
// move what stands behind them.
constexpr std::array<size_t, 9> kWidths = {8, 7, 6, 5, 7, 9, 11, 24, 24};

const char* kindOf(const DeviceInfo& device) {
    return device.deviceType == 0 ? "usb" : "input";
}

bool isAllowed(const DeviceInfo& device) {
    return device.status == 1;
}

Cell verdictOf(const DeviceInfo& device) {
    if (isAllowed(device)) return {"allowed", Colour::kGood};
    return {"refused", Colour::kBad};
}

std::string classesOf(const DeviceInfo& device) {
    return classNames(device.deviceClass, device.interfaceClasses);
}

// The daemon's reasons may end with a blank.
std::string reasonOf(const DeviceInfo& device) {
    return base::Trim(printable(device.reason));
}

// A line of cells in columns of kWidths, what is beyond those as it is.
std::string fixedLine(const std::vector<Cell>& cells, const Style& style) {
    std::string line;
    for (size_t i = 0; i < cells.size(); i++) {
        const size_t width = i < kWidths.size() ? kWidths[i] : 0;
        const std::string text = printable(cells[i].text);
        const std::string blanks = padded(text, width).substr(text.size());
        line += paint(style, cells[i].colour, text) + blanks + "  ";
    }
    return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

}  // namespace

JsonObject& addJudged(JsonObject* object, const DeviceInfo& device) {
    object->addText("kind", kindOf(device)).addFlag("allowed", isAllowed(device));
    return addDeviceInfo(object, device)
            .addTexts("classNames", classNameList(device.deviceClass, device.interfaceClasses));
}

std::string judgedText(const std::vector<DeviceInfo>& devices, const Style& style) {
    if (devices.empty()) return "no device has been judged\n";
    Table table({"ID", "KIND", "VERDICT", "HEX", "DECIMAL", "CLASSES", "NAME"});
    for (const DeviceInfo& device : devices) {
        table.add({std::to_string(device.deviceId), kindOf(device), verdictOf(device),
                   hexIds(device.vendorId, device.productId),
                   decimalIds(device.vendorId, device.productId), classesOf(device),
                   device.deviceName},
                  reasonOf(device));
    }
    return table.text(style);
}

std::string eventHeadings() {
    return fixedLine({"TIME", "EVENT", "ID", "KIND", "VERDICT", "HEX", "DECIMAL", "CLASSES", "NAME",
                      "REASON"},
                     Style());
}

std::string eventText(const DeviceEvent& event, const Style& style) {
    const DeviceInfo& device = event.device;
    const Cell verdict = event.event == "added" ? verdictOf(device) : Cell("-");
    return fixedLine({event.time, event.event, std::to_string(device.deviceId), kindOf(device),
                      verdict, hexIds(device.vendorId, device.productId),
                      decimalIds(device.vendorId, device.productId), classesOf(device),
                      device.deviceName, reasonOf(device)},
                     style);
}

JsonObject judgedEventObject(const DeviceEvent& event) {
    JsonObject object;
    object.addText("event", event.event);
    return addJudged(&object, event.device);
}

}  // namespace android::kus::tools
