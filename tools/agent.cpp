// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/agent.h"

#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include <android-base/file.h>

namespace android::kus::tools {
namespace {

constexpr int32_t kRemoved = 0;

bool hasDeviceNumber(const AttachedDevice& device, int32_t devnum) {
    return device.kind != DeviceKind::kUsb || devnum == 0 || deviceNumber(device.info) == devnum;
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
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
    }
}

void Agent::judgeIfNew(DeviceKind kind, const std::string& dir, int32_t devnum,
                       Clock::time_point since) {
    if (!connected() || judged_.count({kind, base::Basename(dir)}) != 0) return;
    const std::optional<AttachedDevice> device = readDevice(kind, dir);
    if (device && hasDeviceNumber(*device, devnum)) judge(*device, since);
}

void Agent::judge(const AttachedDevice& device, Clock::time_point since) {
    Verdict verdict;
    verdict.device = device;
    const binder::Status status = service_->isDeviceAllowed(device.info, &verdict.allowed);
    const auto took = Clock::now() - since;
    if (!status.isOk()) return callFailed(device, status);

    const bool configured =
            device.kind == DeviceKind::kInput || !device.info.interfaceClasses.empty();
    const bool blocked = device.kind == DeviceKind::kUsb && isBlocked(device.path);
    judged_[{device.kind, device.sysname}] = {device, !configured, blocked};
    if (device.kind == DeviceKind::kInput) {
        verdict.inhibited = applyInputVerdict(device, verdict.allowed);
    }
    verdict.reason = recordedReason(device.info, verdict.allowed);
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
std::string Agent::recordedReason(const DeviceInfo& info, bool allowed) const {
    std::vector<DeviceInfo> records;
    if (!service_->getDeviceList(&records).isOk()) return "";
    for (const DeviceInfo& record : records) {
        if (record.deviceId == info.deviceId && record.deviceType == info.deviceType &&
            record.status == (allowed ? 1 : 0)) {
            return record.reason;
        }
    }
    return "";
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
    const binder::Status status = service_->updateDeviceList(device.info, kRemoved);
    if (!status.isOk()) return callFailed(device, status);
    out_->removed(device);
}

// The interfaces of another configuration make another device of it, and so do interfaces that are
// no longer blocked: the kernel has made them anew.
bool Agent::isStill(const Judged& judged, const DeviceInfo& present) {
    const DeviceInfo& info = judged.device.info;
    if (judged.blocked && !isBlocked(judged.device.path)) return false;
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

void Agent::callFailed(const AttachedDevice& device, const binder::Status& status) {
    if (status.transactionError() == DEAD_OBJECT) return disconnect();
    out_->problem(device, std::string("the daemon did not answer: ") + status.toString8().string());
}

}  // namespace android::kus::tools
