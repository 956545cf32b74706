// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/agent.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <android-base/file.h>

namespace android::kus::tools {
namespace {

constexpr int32_t kRemoved = 0;
constexpr int32_t kHidClass = 3;
constexpr int32_t kHubClass = 9;
constexpr char kHidDriver[] = "usbhid";
constexpr char kHubDriver[] = "hub";

bool hasDeviceNumber(const AttachedDevice& device, int32_t devnum) {
    return device.kind != DeviceKind::kUsb || devnum == 0 || deviceNumber(device.info) == devnum;
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool isHidAlone(const DeviceInfo& info) {
    const std::vector<int32_t>& classes = info.interfaceClasses;
    return !classes.empty() && std::all_of(classes.begin(), classes.end(),
                                           [](int32_t code) { return code == kHidClass; });
}

// None if they have changed since |device| was read: nothing may be opened for a verdict on other
// interfaces. The events of the change, which are still to come, lead to another verdict.
UsbInterfaces interfacesOf(const AttachedDevice& device) {
    UsbInterfaces interfaces(device.path);
    if (interfaces.classes() != device.info.interfaceClasses) return UsbInterfaces();
    return interfaces;
}

}  // namespace

void Agent::connect(const sp<IKUsbService>& service, RescanReason reason) {
    service_ = service;
    judged_.clear();
    out_->service(true);
    rescan(reason);
}

void Agent::disconnect() {
    if (!connected()) return;
    service_.clear();
    judged_.clear();
    out_->service(false);
}

void Agent::rescan(RescanReason reason) {
    if (mode_ == Mode::kClosed) closePresent();
    if (!connected()) return;
    out_->rescan(reason);
    forgetGone();
    // Input devices second, and listed only then: a refused USB device takes its own with it.
    for (const DeviceKind kind : {DeviceKind::kUsb, DeviceKind::kInput}) {
        for (const std::string& dir : deviceDirectories(kind, sysfs_)) {
            judgeIfNew(kind, dir, 0, Clock::now());
        }
    }
}

void Agent::handle(const Uevent& event) {
    if (mode_ == Mode::kClosed && event.kind == DeviceKind::kUsb) followClosed(event);
    if (!connected()) return;
    const auto known = judged_.find({event.kind, event.sysname});
    switch (event.change) {
        case Change::kReady:
            judgeIfNew(event.kind, event.path, event.devnum, event.received);
            return;
        case Change::kGone:
            if (known == judged_.end()) return;
            if (hasDeviceNumber(known->second.device, event.devnum)) forget(known->first);
            return;
        case Change::kInterfaceRemoved:
            if (known != judged_.end()) known->second.awaitsInterfaces = true;
            return;
        case Change::kInterfaceAdded:
            if (known != judged_.end() && known->second.awaitsInterfaces) {
                judgeNewConfiguration(event);
            }
            return;
        case Change::kRootHubReady:
            return;
    }
}

void Agent::judgeIfNew(DeviceKind kind, const std::string& dir, int32_t devnum,
                       Clock::time_point since) {
    if (!connected() || judged_.count({kind, base::Basename(dir)}) != 0) return;
    const std::optional<AttachedDevice> device = readDevice(kind, dir);
    if (device && hasDeviceNumber(*device, devnum)) judge(*device, since);
}

void Agent::judge(const AttachedDevice& device, Clock::time_point since) {
    const bool isUsb = device.kind == DeviceKind::kUsb;
    const bool comesClosed = mode_ == Mode::kClosed && isUsb;
    const UsbInterfaces interfaces = comesClosed ? interfacesOf(device) : UsbInterfaces();
    if (comesClosed) prepareQuestion(device, interfaces);

    Verdict verdict;
    verdict.device = device;
    const binder::Status status = service_->isDeviceAllowed(device.info, &verdict.allowed);
    const auto took = Clock::now() - since;
    if (!status.isOk()) {
        if (!wasOpened(device.sysname, deviceNumber(device.info))) interfaces.close();
        return callFailed(device, status);
    }

    if (!isUsb) verdict.inhibited = applyInputVerdict(device, verdict.allowed);
    const std::optional<std::string> reason = recordedReason(device.info, verdict.allowed);
    if (comesClosed) {
        applyUsbVerdict(device, interfaces, verdict.allowed, reason.has_value());
    }
    const bool configured = !isUsb || !device.info.interfaceClasses.empty();
    judged_[{device.kind, device.sysname}] = {device, !configured, isUsb && isBlocked(device.path)};
    verdict.reason = reason.value_or("");
    verdict.milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
    out_->verdict(verdict);
}

// Returns the state of the switch afterwards.
bool Agent::applyInputVerdict(const AttachedDevice& device, bool allowed) const {
    const bool inhibited = isInhibited(device.path);
    if (inhibited == !allowed) return inhibited;
    if (setInhibited(device.path, !allowed)) return !allowed;
    const int error = errno;
    if (exists(device.path)) {
        out_->problem(device, std::string("cannot set inhibited: ") + strerror(error));
    }
    return inhibited;
}

// The daemon keeps an earlier record of the same id: only one with this verdict can be this
// verdict's.
std::optional<std::string> Agent::recordedReason(const DeviceInfo& info, bool allowed) const {
    std::vector<DeviceInfo> records;
    if (!service_->getDeviceList(&records).isOk()) return std::nullopt;
    for (const DeviceInfo& record : records) {
        if (record.deviceId == info.deviceId && record.deviceType == info.deviceType &&
            record.status == (allowed ? 1 : 0)) {
            return record.reason;
        }
    }
    return std::nullopt;
}

void Agent::judgeNewConfiguration(const Uevent& event) {
    const std::optional<AttachedDevice> device = readUsbDevice(event.path);
    // An event from before the interfaces went: the new ones are still to come.
    if (!device || device->info.interfaceClasses.empty()) return;
    forget({event.kind, event.sysname});
    if (connected()) judge(*device, event.received);
}

void Agent::forget(const Key& key) {
    const auto known = judged_.find(key);
    const AttachedDevice device = std::move(known->second.device);
    judged_.erase(known);
    if (device.kind == DeviceKind::kUsb) opened_.erase(device.sysname);
    const binder::Status status = service_->updateDeviceList(device.info, kRemoved);
    if (!status.isOk()) return callFailed(device, status);
    out_->removed(device);
}

// The interfaces of another configuration make another device of it, and so do interfaces that the
// kernel has made anew: open ones where they had been blocked, in the other mode closed ones where
// they had been opened.
bool Agent::isStill(const Judged& judged, const DeviceInfo& present) const {
    const DeviceInfo& info = judged.device.info;
    const bool blocked = isBlocked(judged.device.path);
    if (judged.blocked && !blocked) return false;
    if (mode_ == Mode::kClosed && blocked && !judged.blocked) return false;
    return present.deviceId == info.deviceId &&
           (judged.awaitsInterfaces ? present.interfaceClasses.empty()
                                    : present.interfaceClasses == info.interfaceClasses);
}

void Agent::forgetGone() {
    std::vector<Key> gone;
    for (const auto& [key, judged] : judged_) {
        const std::optional<AttachedDevice> present = readDevice(key.first, judged.device.path);
        if (!present || !isStill(judged, present->info)) gone.push_back(key);
    }
    for (const Key& key : gone) {
        if (connected()) forget(key);
    }
}

void Agent::closePresent() {
    for (const std::string& dir : deviceDirectories(DeviceKind::kUsb, sysfs_)) closePresent(dir);
}

void Agent::closePresent(const std::string& dir) {
    AttachedDevice device;
    device.sysname = base::Basename(dir);
    device.path = dir;
    if (isHub(dir)) {
        // One that has its driver is left alone: a write would wait while it enumerates a device.
        const UsbInterfaces hub(dir, kHubClass);
        if (hub.bound()) return;
        check(hub.openFor(kHubDriver), device, "cannot open for hub");
        check(hub.closeUnbound(), device, "cannot close");
    } else if (!wasOpened(device.sysname, deviceNumberAt(dir))) {
        check(UsbInterfaces(dir).close(), device, "cannot close");
    }
}

void Agent::followClosed(const Uevent& event) {
    switch (event.change) {
        case Change::kReady:
        case Change::kInterfaceAdded:
            return closePresent(event.path);
        case Change::kGone:
            if (event.devnum == 0 || wasOpened(event.sysname, event.devnum)) {
                opened_.erase(event.sysname);
            }
            return;
        case Change::kRootHubReady:
            return closePresent();
        case Change::kInterfaceRemoved:
            return;
    }
}

bool Agent::wasOpened(const std::string& sysname, std::optional<int32_t> devnum) const {
    const auto opened = opened_.find(sysname);
    return opened != opened_.end() && opened->second == devnum;
}

void Agent::prepareQuestion(const AttachedDevice& device, const UsbInterfaces& interfaces) const {
    if (!wasOpened(device.sysname, deviceNumber(device.info))) {
        check(interfaces.close(), device, "cannot close");
    }
    if (isHidAlone(device.info)) {
        check(interfaces.openFor(kHidDriver), device, "cannot open for usbhid");
    }
}

void Agent::applyUsbVerdict(const AttachedDevice& device, const UsbInterfaces& interfaces,
                            bool allowed, bool recorded) {
    const bool leftToInput =
            !allowed && !recorded && isHidAlone(device.info) && !interfaces.anyClosed();
    if (!allowed && !leftToInput) {
        opened_.erase(device.sysname);
        return check(interfaces.close(), device, "cannot close");
    }
    if (interfaces.empty()) return;
    opened_[device.sysname] = deviceNumber(device.info);
    check(allowed ? interfaces.open() : interfaces.closeUnbound(), device, "cannot open");
}

void Agent::check(bool success, const AttachedDevice& device, const char* what) const {
    if (success) return;
    const int error = errno;
    if (error == ENODEV || !exists(device.path)) return;
    out_->problem(device, std::string(what) + ": " + strerror(error));
}

void Agent::callFailed(const AttachedDevice& device, const binder::Status& status) {
    if (status.transactionError() == DEAD_OBJECT) return disconnect();
    out_->problem(device, std::string("the daemon did not answer: ") + status.toString8().string());
}

}  // namespace android::kus::tools
