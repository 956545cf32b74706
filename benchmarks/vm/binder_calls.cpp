// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// bench-binder: what a question about an input device costs its client.
//
//   empty NAME            publishes a service of the daemon's interface under NAME, in which every
//                         device is allowed and nothing else happens; prints "ready"
//   compare NAME BLOCKS   asks the daemon and the service NAME by turns, in blocks of calls; prints
//                         for each call "daemon NANOSECONDS" or "empty NANOSECONDS"
//   judge COUNT           has the daemon judge COUNT input devices
//
// Exit status: 0 done, 1 a call failed, 2 usage, 3 no service.

#include <stdlib.h>

#include <iostream>
#include <string>
#include <vector>

#include <android-base/parseint.h>
#include <android/kus/BnKUsbService.h>
#include <android/kus/DeviceInfo.h>
#include <binder/IInterface.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <utils/String16.h>

#include "benchmarks/vm/clock.h"
#include "tools/service.h"

namespace android::kus::bench {
namespace {

enum ExitStatus { kDone = 0, kCallFailed = 1, kUsageError = 2, kNoService = 3 };

constexpr int kCallsPerBlock = 20;
constexpr std::chrono::seconds kPatience(20);

class EmptyService : public BnKUsbService {
  public:
    binder::Status registerKusCallback(const sp<IKUsbServiceCallback>& /*callback*/) override {
        return binder::Status::ok();
    }
    binder::Status unregisterKusCallback(const sp<IKUsbServiceCallback>& /*callback*/) override {
        return binder::Status::ok();
    }
    binder::Status getDeviceList(std::vector<DeviceInfo>* /*out*/) override {
        return binder::Status::ok();
    }
    binder::Status updateDeviceList(const DeviceInfo& /*info*/, int32_t /*status*/) override {
        return binder::Status::ok();
    }
    binder::Status isDeviceAllowed(const DeviceInfo& /*info*/, bool* result) override {
        *result = true;
        return binder::Status::ok();
    }
    binder::Status resetUsbDevices(int32_t /*delayMs*/) override { return binder::Status::ok(); }
};

// No input device of the terminal has a number that high.
DeviceInfo keyboard(int32_t number) {
    DeviceInfo device;
    device.deviceName = "USB Keyboard";
    device.deviceId = 1000000 + number;
    device.deviceClass = 0x101;
    device.vendorId = 0x046D;
    device.productId = 0xC31C;
    device.deviceType = 1;
    return device;
}

int serveEmpty(const std::string& name) {
    const status_t added =
            defaultServiceManager()->addService(String16(name.c_str()), new EmptyService());
    if (added != OK) return kNoService;
    std::cout << "ready" << std::endl;
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool(true);
    return kDone;
}

void ask(const sp<IKUsbService>& service, const DeviceInfo& device) {
    bool allowed = false;
    const binder::Status status = service->isDeviceAllowed(device, &allowed);
    if (status.isOk() && allowed) return;
    std::cerr << "bench-binder: not allowed: " << status.toString8().string() << "\n";
    exit(kCallFailed);
}

void timeBlock(const char* name, const sp<IKUsbService>& service, const DeviceInfo& device) {
    std::vector<int64_t> times;
    for (int call = 0; call < kCallsPerBlock; ++call) {
        const int64_t begin = now();
        ask(service, device);
        times.push_back(now() - begin);
    }
    // Printed behind the block: output would have other processes run between its calls.
    for (const int64_t time : times) std::cout << name << " " << time << "\n";
}

int compare(const std::string& name, int blocks) {
    const sp<IKUsbService> daemon = tools::awaitService(kPatience);
    const auto empty = interface_cast<IKUsbService>(
            defaultServiceManager()->checkService(String16(name.c_str())));
    if (daemon == nullptr || empty == nullptr) return kNoService;
    for (int block = 0; block < blocks; ++block) {
        timeBlock("daemon", daemon, keyboard(0));
        timeBlock("empty", empty, keyboard(0));
    }
    return kDone;
}

int judge(int count) {
    const sp<IKUsbService> daemon = tools::awaitService(kPatience);
    if (daemon == nullptr) return kNoService;
    for (int number = 0; number < count; ++number) ask(daemon, keyboard(number));
    return kDone;
}

int run(const std::vector<std::string>& arguments) {
    if (!tools::haveBinder()) return kNoService;
    if (arguments.size() == 2 && arguments[0] == "empty") return serveEmpty(arguments[1]);
    int count = 0;
    if (arguments.size() >= 2 && base::ParseInt(arguments.back(), &count, 1)) {
        if (arguments.size() == 3 && arguments[0] == "compare") return compare(arguments[1], count);
        if (arguments.size() == 2 && arguments[0] == "judge") return judge(count);
    }
    std::cerr << "usage: bench-binder empty NAME | compare NAME BLOCKS | judge COUNT\n";
    return kUsageError;
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    return android::kus::bench::run({argv + 1, argv + argc});
}
