// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/event_queue.h"

#include <sys/eventfd.h>
#include <time.h>

#include <string>
#include <utility>

#include <android-base/logging.h>

namespace android::kus::tools {
namespace {

std::string timeOfDay() {
    const time_t now = time(nullptr);
    tm local = {};
    char text[sizeof("hh:mm:ss")];
    const bool known = localtime_r(&now, &local) != nullptr;
    return known && strftime(text, sizeof(text), "%H:%M:%S", &local) != 0 ? text : "";
}

}  // namespace

EventQueue::EventQueue() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_.get() == -1) PLOG(FATAL) << "Cannot make an eventfd";
}

void EventQueue::put(const char* event, const DeviceInfo& device) {
    const Mutex::Autolock lock(mutex_);
    events_.push_back({event, device, timeOfDay()});
    if (eventfd_write(fd_.get(), 1) == -1) PLOG(FATAL) << "Cannot pass on an event";
}

std::vector<DeviceEvent> EventQueue::take() {
    const Mutex::Autolock lock(mutex_);
    eventfd_t count = 0;
    eventfd_read(fd_.get(), &count);
    return std::exchange(events_, {});
}

}  // namespace android::kus::tools
