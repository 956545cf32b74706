// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/watch.h"

#include "tools/device_text.h"

namespace android::kus::tools {

JsonObject eventObject(const char* event, const DeviceInfo& device) {
    JsonObject object;
    object.addText("event", event);
    return addDeviceInfo(&object, device);
}

binder::Status WatchCallback::onDeviceAdded(const DeviceInfo& device) {
    tell("added", device);
    return binder::Status::ok();
}

binder::Status WatchCallback::onDeviceRemoved(const DeviceInfo& device) {
    tell("removed", device);
    return binder::Status::ok();
}

void WatchCallback::tell(const char* event, const DeviceInfo& device) {
    const Mutex::Autolock lock(mutex_);
    if (limit_ != 0 && told_ == limit_) return;
    sink_(event, device);
    told_++;
    if (told_ == limit_) atLimit_();
}

bool WatchSession::start(int32_t times) {
    binder::Status status;
    for (int32_t i = 0; i < times && status.isOk(); i++) status = registerOnce();
    return answer(status, "registered");
}

void WatchSession::command(const std::string& line) {
    if (line == "register") {
        answer(registerOnce(), "registered");
    } else if (line == "unregister") {
        answer(unregisterOnce(), "unregistered");
    } else if (line == "unregister-unknown") {
        answer(unregisterUnknown(), "unregistered-unknown");
    } else {
        sink_("unknown command: " + line);
    }
}

void WatchSession::finish() {
    while (registrations_ > 0 && unregisterOnce().isOk()) continue;
}

bool WatchSession::answer(const binder::Status& status, const std::string& done) const {
    sink_(status.isOk() ? done : std::string("failed: ") + status.toString8().string());
    return status.isOk();
}

binder::Status WatchSession::registerOnce() {
    binder::Status status = service_->registerKusCallback(callback_);
    if (status.isOk()) registrations_++;
    return status;
}

// Also without a registration left: what the daemon does then is for the user to see.
binder::Status WatchSession::unregisterOnce() {
    binder::Status status = service_->unregisterKusCallback(callback_);
    if (status.isOk() && registrations_ > 0) registrations_--;
    return status;
}

binder::Status WatchSession::unregisterUnknown() const {
    return service_->unregisterKusCallback(
            new WatchCallback([](const char*, const DeviceInfo&) {}, 0, [] {}));
}

}  // namespace android::kus::tools
