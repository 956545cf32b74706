// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include <android/kus/BnKUsbServiceCallback.h>
#include <binder/IBinder.h>

namespace android::kus::test {

/**
 * A client in the test's own process.
 *
 * A local binder cannot be linked to in the real library, so this one keeps its death recipients
 * itself: Die() is what the driver does when the client's process ends.
 */
class FakeCallback : public BnKUsbServiceCallback {
  public:
    struct Event {
        bool added;
        DeviceInfo device;
    };

    binder::Status onDeviceAdded(const DeviceInfo& device) override;
    binder::Status onDeviceRemoved(const DeviceInfo& device) override;

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie,
                         uint32_t flags) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                           wp<DeathRecipient>* outRecipient) override;

    /**
     * Tells every linked recipient, each once and without a lock of its own. Links and unlinks are
     * answered with DEAD_OBJECT from here on: what was linked is being told, or was told.
     */
    void Die();

    std::vector<Event> Events() const;
    std::vector<sp<DeathRecipient>> Recipients() const;

    /** What linkToDeath() and unlinkToDeath() answer; not OK: they do nothing. */
    status_t linkResult = OK;
    status_t unlinkResult = OK;
    /** What both callbacks answer. */
    binder::Status answer = binder::Status::ok();
    /** Called from inside each callback, behind the recording of its event. */
    std::function<void(const Event&)> onEvent;
    /** Called by Die() when nothing can be unlinked any more and nobody was told yet. */
    std::function<void()> onObituary;

  private:
    binder::Status record(bool added, const DeviceInfo& device);

    mutable std::mutex mutex_;
    std::vector<Event> events_;
    std::vector<sp<DeathRecipient>> recipients_;
    bool dead_ = false;
};

}  // namespace android::kus::test
