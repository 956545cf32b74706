// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <android/kus/DeviceInfo.h>
#include <utils/Mutex.h>

#include "tools/kusctl/judged.h"

namespace android::kus::tools {

/**
 * Takes events from the daemon's calls and keeps them until somebody has the time to show them: the
 * daemon waits for each call, and a pager that nobody scrolls must not hold up its decisions.
 */
class EventQueue {
  public:
    EventQueue();

    /** Any thread. The event's time is that of the call. */
    void put(const char* event, const DeviceInfo& device) EXCLUDES(mutex_);

    /** Readable while there are events. */
    int fd() const { return fd_.get(); }

    /** What has come since the last time, in order. */
    std::vector<DeviceEvent> take() EXCLUDES(mutex_);

  private:
    const base::unique_fd fd_;
    Mutex mutex_;
    std::vector<DeviceEvent> events_ GUARDED_BY(mutex_);
};

}  // namespace android::kus::tools
