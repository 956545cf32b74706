// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// bench-callbacks CLIENTS ROUNDS: what clients cost a decision that they are told of.
//
// CLIENTS processes register a callback each; then the daemon judges a USB device ROUNDS times, and
// forgets it again. Prints for each time "decision NANOSECONDS", until the call has returned, and
// with at least one client "told NANOSECONDS", until the last client had been called.
//
// Exit status: 0 done, 1 a call failed or a client is missing, 2 usage, 3 no service.

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/IKUsbService.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include "benchmarks/vm/clock.h"
#include "tools/service.h"

namespace android::kus::bench {
namespace {

enum ExitStatus { kDone = 0, kCallFailed = 1, kUsageError = 2, kNoService = 3 };

constexpr std::chrono::seconds kPatience(60);

// Messages of clients are times; this is sent once a client is registered.
constexpr int64_t kRegistered = 0;

class Callback : public BnKUsbServiceCallback {
  public:
    explicit Callback(base::unique_fd out) : out_(std::move(out)) {}

    binder::Status onDeviceAdded(const DeviceInfo& /*device*/) override {
        tell(now());
        return binder::Status::ok();
    }
    binder::Status onDeviceRemoved(const DeviceInfo& /*device*/) override {
        return binder::Status::ok();
    }

    void tell(int64_t message) const { CHECK(base::WriteFully(out_, &message, sizeof(message))); }

  private:
    const base::unique_fd out_;
};

// No bus has a number that high: no real device has this id.
DeviceInfo disk() {
    DeviceInfo device;
    device.deviceName = "Flash disk";
    device.deviceId = 90001;
    device.interfaceClasses = {8};
    device.vendorId = 0x1209;
    device.productId = 0xAC04;
    return device;
}

[[noreturn]] void beClient(base::unique_fd out) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    ProcessState::self()->startThreadPool();
    const sp<IKUsbService> daemon = tools::awaitService(kPatience);
    const sp<Callback> callback = new Callback(std::move(out));
    if (daemon == nullptr || !daemon->registerKusCallback(callback).isOk()) _exit(kNoService);
    callback->tell(kRegistered);
    IPCThreadState::self()->joinThreadPool(true);
    _exit(kDone);
}

// Client processes, which end with it. To be made before this process uses binder itself.
class Clients {
  public:
    explicit Clients(int count) : pids_(count) {
        base::unique_fd out;
        CHECK(base::Pipe(&in_, &out));
        for (pid_t& pid : pids_) {
            pid = fork();
            CHECK(pid != -1);
            if (pid == 0) beClient(std::move(out));
        }
    }
    ~Clients() {
        for (const pid_t pid : pids_) kill(pid, SIGKILL);
        for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
    }
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

    // The latest of one message from each; -1 when no client is left.
    int64_t last() const {
        int64_t last = 0;
        for (size_t client = 0; client < pids_.size(); ++client) {
            int64_t message = 0;
            if (!base::ReadFully(in_, &message, sizeof(message))) return -1;
            last = std::max(last, message);
        }
        return last;
    }

  private:
    std::vector<pid_t> pids_;
    base::unique_fd in_;
};

bool timeDecision(const sp<IKUsbService>& daemon, const Clients& clients, int count) {
    bool allowed = false;
    const int64_t begin = now();
    const binder::Status status = daemon->isDeviceAllowed(disk(), &allowed);
    const int64_t end = now();
    const int64_t told = clients.last();
    if (!status.isOk() || !allowed || told == -1) return false;
    std::cout << "decision " << end - begin << "\n";
    if (count > 0) std::cout << "told " << told - begin << "\n";
    return daemon->updateDeviceList(disk(), /*status=*/0).isOk();
}

int measure(int count, int rounds) {
    const Clients clients(count);
    if (clients.last() != kRegistered) return kNoService;
    ProcessState::self()->startThreadPool();
    const sp<IKUsbService> daemon = tools::awaitService(kPatience);
    if (daemon == nullptr) return kNoService;
    for (int round = 0; round < rounds; ++round) {
        if (!timeDecision(daemon, clients, count)) return kCallFailed;
    }
    return kDone;
}

int run(const std::vector<std::string>& arguments) {
    int clients = 0;
    int rounds = 0;
    if (arguments.size() != 2 || !base::ParseInt(arguments[0], &clients, 0) ||
        !base::ParseInt(arguments[1], &rounds, 1)) {
        std::cerr << "usage: bench-callbacks CLIENTS ROUNDS\n";
        return kUsageError;
    }
    return tools::haveBinder() ? measure(clients, rounds) : kNoService;
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    return android::kus::bench::run({argv + 1, argv + argc});
}
