// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/uevent_monitor.h"

#include <cerrno>
#include <string>

namespace android::kus::tools {
namespace {

// For some thousand messages: a hub with a dozen devices sends some hundred at once.
constexpr int kReceiveBufferBytes = 2 * 1024 * 1024;

std::string textOrEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

RawUevent read(udev_device* device) {
    return {textOrEmpty(udev_device_get_action(device)),
            textOrEmpty(udev_device_get_subsystem(device)),
            textOrEmpty(udev_device_get_devtype(device)),
            textOrEmpty(udev_device_get_syspath(device)),
            textOrEmpty(udev_device_get_property_value(device, "DEVNUM"))};
}

}  // namespace

std::unique_ptr<UeventMonitor> UeventMonitor::open() {
    std::unique_ptr<UeventMonitor> result(new UeventMonitor());
    result->context_.reset(udev_new());
    if (result->context_ == nullptr) return nullptr;
    result->monitor_.reset(udev_monitor_new_from_netlink(result->context_.get(), "kernel"));
    udev_monitor* monitor = result->monitor_.get();
    if (monitor == nullptr) return nullptr;
    // Smaller than wished for without the right to it: overflows are then only more likely.
    udev_monitor_set_receive_buffer_size(monitor, kReceiveBufferBytes);
    for (const char* subsystem : {"usb", "input"}) {
        udev_monitor_filter_add_match_subsystem_devtype(monitor, subsystem, nullptr);
    }
    const int failure = udev_monitor_enable_receiving(monitor);
    if (failure < 0) {
        errno = -failure;
        return nullptr;
    }
    return result;
}

bool UeventMonitor::receive(std::deque<Uevent>* events) const {
    while (true) {
        errno = 0;
        const std::unique_ptr<udev_device, decltype(&udev_device_unref)> device(
                udev_monitor_receive_device(monitor_.get()), udev_device_unref);
        if (device == nullptr) {
            if (errno == EINTR) continue;
            return errno != ENOBUFS;
        }
        const std::optional<Uevent> event = interpretUevent(read(device.get()), Clock::now());
        if (event) events->push_back(*event);
    }
}

}  // namespace android::kus::tools
