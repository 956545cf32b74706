// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/event_writer.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "tools/input_sources.h"
#include "tools/json.h"

namespace android::kus::tools {
namespace {

using android::base::Join;
using android::base::StringPrintf;

const char* kindName(DeviceKind kind) {
    return kind == DeviceKind::kUsb ? "usb" : "input";
}

const char* reasonName(RescanReason reason) {
    switch (reason) {
        case RescanReason::kStart:
            return "start";
        case RescanReason::kOverflow:
            return "overflow";
        case RescanReason::kService:
            return "service";
    }
}

JsonObject eventObject(const char* name) {
    JsonObject object;
    object.addText("event", name);
    return object;
}

JsonObject& addDevice(JsonObject* object, const AttachedDevice& device) {
    return object->addText("kind", kindName(device.kind))
            .addText("sysname", device.sysname)
            .addNumber("deviceId", device.info.deviceId)
            .addText("name", device.info.deviceName)
            .addNumber("vendorId", device.info.vendorId)
            .addNumber("productId", device.info.productId)
            .addNumber("deviceClass", device.info.deviceClass)
            .addNumbers("interfaceClasses", device.info.interfaceClasses);
}

std::string usbClasses(const DeviceInfo& info) {
    const std::string own = StringPrintf("class %d", info.deviceClass);
    if (info.interfaceClasses.empty()) return own + ", no interfaces";
    return own + ", interfaces " + Join(info.interfaceClasses, ",");
}

std::string inputClasses(const DeviceInfo& info) {
    const std::string names = Join(inputSourceNames(info.deviceClass), "+");
    return names.empty() ? "no known source" : names;
}

std::string describe(const AttachedDevice& device) {
    const DeviceInfo& info = device.info;
    const std::string classes =
            device.kind == DeviceKind::kUsb ? usbClasses(info) : inputClasses(info);
    // Quoted for its control characters: a name must not forge a line of its own.
    return StringPrintf("%s %s %s (id %d, %04x:%04x, %s)", kindName(device.kind),
                        device.sysname.c_str(), jsonQuote(info.deviceName).c_str(), info.deviceId,
                        info.vendorId, info.productId, classes.c_str());
}

std::string verdictJson(const Verdict& verdict) {
    JsonObject object = eventObject("verdict");
    addDevice(&object, verdict.device)
            .addFlag("allowed", verdict.allowed)
            .addText("reason", verdict.reason);
    if (verdict.device.kind == DeviceKind::kInput) object.addFlag("inhibited", verdict.inhibited);
    return object.addNumber("ms", verdict.milliseconds).str();
}

std::string verdictText(const Verdict& verdict) {
    std::string text = verdict.allowed ? "allowed " : "refused ";
    text += describe(verdict.device) + ": ";
    text += verdict.reason.empty() ? "no reason recorded" : verdict.reason;
    if (verdict.inhibited) text += ", inhibited";
    return text + StringPrintf(" [%lld ms]", static_cast<long long>(verdict.milliseconds));
}

}  // namespace

void EventWriter::service(bool connected) const {
    const char* state = connected ? "connected" : "lost";
    sink_(format_ == Format::kJson ? eventObject("service").addText("state", state).str()
                                   : StringPrintf("service %s", state));
}

void EventWriter::rescan(RescanReason reason) const {
    const char* name = reasonName(reason);
    sink_(format_ == Format::kJson ? eventObject("rescan").addText("reason", name).str()
                                   : StringPrintf("rescan (%s)", name));
}

void EventWriter::ready() const {
    sink_(format_ == Format::kJson ? eventObject("ready").str() : "ready");
}

void EventWriter::verdict(const Verdict& verdict) const {
    sink_(format_ == Format::kJson ? verdictJson(verdict) : verdictText(verdict));
}

void EventWriter::removed(const AttachedDevice& device) const {
    if (format_ == Format::kText) return sink_("removed " + describe(device));
    JsonObject object = eventObject("removed");
    sink_(addDevice(&object, device).str());
}

void EventWriter::problem(const AttachedDevice& device, const std::string& text) const {
    sink_(format_ == Format::kJson ? eventObject("problem")
                                             .addText("sysname", device.sysname)
                                             .addText("text", text)
                                             .str()
                                   : "problem with " + describe(device) + ": " + text);
}

}  // namespace android::kus::tools
