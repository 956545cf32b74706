// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/fake_callback.h"

#include <algorithm>

namespace android::kus::test {

binder::Status FakeCallback::onDeviceAdded(const DeviceInfo& device) {
    return record(true, device);
}

binder::Status FakeCallback::onDeviceRemoved(const DeviceInfo& device) {
    return record(false, device);
}

binder::Status FakeCallback::record(bool added, const DeviceInfo& device) {
    const Event event = {added, device};
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
    }
    if (onEvent) onEvent(event);
    return answer;
}

status_t FakeCallback::linkToDeath(const sp<DeathRecipient>& recipient, void*, uint32_t) {
    if (linkResult != OK) return linkResult;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (dead_) return DEAD_OBJECT;
    recipients_.push_back(recipient);
    return OK;
}

status_t FakeCallback::unlinkToDeath(const wp<DeathRecipient>& recipient, void*, uint32_t,
                                     wp<DeathRecipient>*) {
    if (unlinkResult != OK) return unlinkResult;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (dead_) return DEAD_OBJECT;
    const auto found = std::find_if(
            recipients_.begin(), recipients_.end(),
            [&](const sp<DeathRecipient>& r) { return r.get() == recipient.unsafe_get(); });
    if (found == recipients_.end()) return NAME_NOT_FOUND;
    recipients_.erase(found);
    return OK;
}

void FakeCallback::Die() {
    std::vector<sp<DeathRecipient>> recipients;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        dead_ = true;
        recipients.swap(recipients_);
    }
    if (onObituary) onObituary();
    for (const sp<DeathRecipient>& recipient : recipients) recipient->binderDied(this);
}

std::vector<FakeCallback::Event> FakeCallback::Events() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

std::vector<sp<IBinder::DeathRecipient>> FakeCallback::Recipients() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return recipients_;
}

}  // namespace android::kus::test
