// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <deque>
#include <memory>

#include <libudev.h>

#include "tools/uevent.h"

namespace android::kus::tools {

/** The kernel's own uevents; no device manager has to run. Belongs to one thread. */
class UeventMonitor {
  public:
    /** Listens from here on. Returns null with errno set if the kernel's socket cannot be had. */
    static std::unique_ptr<UeventMonitor> open();

    /** Readable when there is something to receive. */
    int fd() const { return udev_monitor_get_fd(monitor_.get()); }

    /**
     * Appends the waiting events that matter to |events|. Returns false as soon as it learns that
     * the kernel had to drop messages. What is left then is old and a lot: better a new monitor
     * and a look at what is present.
     */
    bool receive(std::deque<Uevent>* events) const;

  private:
    struct Unref {
        void operator()(udev* context) const { udev_unref(context); }
        void operator()(udev_monitor* monitor) const { udev_monitor_unref(monitor); }
    };

    UeventMonitor() = default;

    std::unique_ptr<udev, Unref> context_;
    std::unique_ptr<udev_monitor, Unref> monitor_;
};

}  // namespace android::kus::tools
