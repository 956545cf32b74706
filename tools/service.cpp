// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/service.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <iostream>

#include <android-base/logging.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <utils/String16.h>

namespace android::kus::tools {
namespace {

constexpr char kBinderDevice[] = "/dev/binder";
constexpr char kServiceName[] = "kusbservice";
constexpr std::chrono::milliseconds kRetry(100);

// The service manager has no event for "there is a service manager".
void pause(std::chrono::milliseconds time) {
    poll(nullptr, 0, static_cast<int>(time.count()));
}

}  // namespace

std::string binderProblem() {
    if (access(kBinderDevice, R_OK | W_OK) == 0) return "";
    return std::string(kBinderDevice) + ": " + strerror(errno);
}

bool haveBinder() {
    const std::string problem = binderProblem();
    if (problem.empty()) return true;
    std::cerr << problem << "\n";
    return false;
}

sp<IKUsbService> findService() {
    // defaultServiceManager() would wait for a service manager without end.
    if (ProcessState::self()->getContextObject(nullptr) == nullptr) return nullptr;
    return interface_cast<IKUsbService>(
            defaultServiceManager()->checkService(String16(kServiceName)));
}

sp<IKUsbService> awaitService(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        sp<IKUsbService> service = findService();
        if (service != nullptr || std::chrono::steady_clock::now() >= deadline) return service;
        pause(kRetry);
    }
}

class ServiceLink::DeathRecipient : public IBinder::DeathRecipient {
  public:
    explicit DeathRecipient(int noticeFd) : noticeFd_(noticeFd) {}

    void binderDied(const wp<IBinder>& /*who*/) override {
        dead_ = true;
        if (eventfd_write(noticeFd_, 1) == -1) PLOG(ERROR) << "Cannot pass on a death notice";
    }

    bool dead() const { return dead_; }

  private:
    const int noticeFd_;
    std::atomic<bool> dead_ = false;
};

ServiceLink::ServiceLink() : noticeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (noticeFd_.get() == -1) PLOG(FATAL) << "Cannot make an eventfd";
}

ServiceLink::~ServiceLink() {
    unlink();
}

sp<IKUsbService> ServiceLink::find() {
    sp<IKUsbService> service = findService();
    if (service == nullptr) return nullptr;
    unlink();
    binder_ = IInterface::asBinder(service);
    recipient_ = new DeathRecipient(noticeFd_.get());
    if (binder_->linkToDeath(recipient_) != OK) return nullptr;
    // The service manager may not have noticed a death yet, and linking alone does not tell.
    return binder_->pingBinder() == OK ? service : nullptr;
}

bool ServiceLink::dead() const {
    return recipient_ != nullptr && recipient_->dead();
}

// Fails for a service that is dead, which is as good.
void ServiceLink::unlink() {
    if (binder_ != nullptr) binder_->unlinkToDeath(recipient_);
    binder_.clear();
    recipient_.clear();
}

void ServiceLink::clearNotices() const {
    eventfd_t count = 0;
    eventfd_read(noticeFd_.get(), &count);
}

}  // namespace android::kus::tools
