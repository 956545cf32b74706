// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/fake_daemon.h"

#include <algorithm>
#include <utility>

namespace android::kus::tools {
namespace {

auto sameDevice(const DeviceInfo& device) {
    return [&device](const DeviceInfo& record) {
        return record.deviceId == device.deviceId && record.deviceType == device.deviceType;
    };
}

}  // namespace

std::vector<std::string> FakeDaemon::takeCalls() {
    return std::exchange(calls, {});
}

binder::Status FakeDaemon::registerKusCallback(const sp<IKUsbServiceCallback>& callback) {
    calls.emplace_back("register");
    if (answer.isOk()) callbacks.push_back(callback);
    return answer;
}

binder::Status FakeDaemon::unregisterKusCallback(const sp<IKUsbServiceCallback>& callback) {
    calls.emplace_back("unregister");
    const auto found = std::find(callbacks.begin(), callbacks.end(), callback);
    if (answer.isOk() && found != callbacks.end()) callbacks.erase(found);
    return answer;
}

binder::Status FakeDaemon::getDeviceList(std::vector<DeviceInfo>* devices) {
    devices->insert(devices->end(), records.begin(), records.end());
    return answer;
}

binder::Status FakeDaemon::updateDeviceList(const DeviceInfo& device, int32_t status) {
    calls.push_back("remove " + device.deviceName + " " + std::to_string(device.deviceId) + " " +
                    std::to_string(status));
    if (!answer.isOk()) return answer;
    records.erase(std::remove_if(records.begin(), records.end(), sameDevice(device)),
                  records.end());
    return answer;
}

binder::Status FakeDaemon::isDeviceAllowed(const DeviceInfo& device, bool* allowed) {
    calls.push_back("decide " + device.deviceName + " " + std::to_string(device.deviceId));
    if (!answer.isOk()) return answer;
    const Judgement judgement = judge(device);
    *allowed = judgement.allowed;
    if (!judgement.recorded || std::any_of(records.begin(), records.end(), sameDevice(device))) {
        return answer;
    }
    DeviceInfo record = device;
    record.status = judgement.allowed ? 1 : 0;
    record.reason = judgement.reason;
    records.push_back(record);
    return answer;
}

binder::Status FakeDaemon::resetUsbDevices(int32_t delayMs) {
    calls.push_back("reset " + std::to_string(delayMs));
    return answer;
}

}  // namespace android::kus::tools
