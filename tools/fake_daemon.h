// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <functional>
#include <string>
#include <vector>

#include <android/kus/BnKUsbService.h>

namespace android::kus::tools {

/**
 * A daemon in the test's own process: judges by a rule that the test gives, keeps records as the
 * daemon does (the first of an id stays) and remembers what it was called for.
 */
class FakeDaemon : public BnKUsbService {
  public:
    struct Judgement {
        bool allowed = true;
        std::string reason = "Enabled by default rule";
        bool recorded = true;
    };

    /** Called for each question. */
    std::function<Judgement(const DeviceInfo&)> judge = [](const DeviceInfo&) {
        return Judgement();
    };
    /** What every call answers with. */
    binder::Status answer;

    /** "decide NAME ID", "remove NAME ID STATUS", "register", "unregister". */
    std::vector<std::string> calls;
    std::vector<DeviceInfo> records;
    /** Registered callbacks, in the order of their registrations. */
    std::vector<sp<IKUsbServiceCallback>> callbacks;

    /** The calls since the last time. */
    std::vector<std::string> takeCalls();

    binder::Status registerKusCallback(const sp<IKUsbServiceCallback>& callback) override;
    binder::Status unregisterKusCallback(const sp<IKUsbServiceCallback>& callback) override;
    binder::Status getDeviceList(std::vector<DeviceInfo>* devices) override;
    binder::Status updateDeviceList(const DeviceInfo& device, int32_t status) override;
    binder::Status isDeviceAllowed(const DeviceInfo& device, bool* allowed) override;
    binder::Status resetUsbDevices(int32_t delayMs) override;
};

}  // namespace android::kus::tools
