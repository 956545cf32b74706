// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <chrono>
#include <string>

#include <android-base/unique_fd.h>
#include <android/kus/IKUsbService.h>
#include <binder/IBinder.h>
#include <utils/StrongPointer.h>

namespace android::kus::tools {

/**
 * Why there is no binder driver to use, empty if there is one. Without one the first use of binder
 * would abort the process.
 */
std::string binderProblem();

/** Is there a binder driver? Says on standard error what is missing if not. */
bool haveBinder();

/**
 * The daemon's service if it is registered now, else null. Does not wait, not even for a service
 * manager. Needs a binder driver.
 */
sp<IKUsbService> findService();

/** As findService, but waits for the service up to |limit|. */
sp<IKUsbService> awaitService(std::chrono::milliseconds limit);

/**
 * Finds the service and learns of its death. One thread uses it; death notices come in on a
 * binder thread, so the process needs a thread pool.
 */
class ServiceLink {
  public:
    ServiceLink();
    ~ServiceLink();
    ServiceLink(const ServiceLink&) = delete;
    ServiceLink& operator=(const ServiceLink&) = delete;

    /** As findService, and lets go of the one before. One that dies meanwhile is not found. */
    sp<IKUsbService> find();

    /** Has the service found last died? */
    bool dead() const;

    /** Becomes readable with each death notice and stays so until clearNotices. */
    int noticeFd() const { return noticeFd_.get(); }
    void clearNotices() const;

  private:
    class DeathRecipient;

    void unlink();

    const base::unique_fd noticeFd_;
    sp<IBinder> binder_;
    sp<DeathRecipient> recipient_;
};

}  // namespace android::kus::tools
