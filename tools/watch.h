// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/IKUsbService.h>
#include <binder/Status.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include "tools/json.h"

namespace android::kus::tools {

/** Takes each line without its line end. */
using LineSink = std::function<void(const std::string&)>;

/** The coming or going of a USB device: "added" or "removed", and the record. */
using EventSink = std::function<void(const char* event, const DeviceInfo& device)>;

/** {"event":"added"|"removed", the record's eleven fields} */
JsonObject eventObject(const char* event, const DeviceInfo& device);

/**
 * Tells of each event. Calls may come on several binder threads; events go out one at a time, and
 * the daemon waits for each.
 */
class WatchCallback : public BnKUsbServiceCallback {
  public:
    /** After |limit| events (0: never) |atLimit| is called once and later events are not told. */
    WatchCallback(EventSink sink, int32_t limit, std::function<void()> atLimit)
        : sink_(std::move(sink)), atLimit_(std::move(atLimit)), limit_(limit) {}

    binder::Status onDeviceAdded(const DeviceInfo& device) override;
    binder::Status onDeviceRemoved(const DeviceInfo& device) override;

  private:
    void tell(const char* event, const DeviceInfo& device);

    const EventSink sink_;
    const std::function<void()> atLimit_;
    const int32_t limit_;
    Mutex mutex_;
    int32_t told_ GUARDED_BY(mutex_) = 0;
};

/**
 * Registrations of one callback, driven by commands, each answered in one line:
 *   register            "registered"
 *   unregister          "unregistered"
 *   unregister-unknown  takes back a callback that was never registered: "unregistered-unknown"
 * "failed: ..." if the daemon did not answer, "unknown command: ..." for all else.
 */
class WatchSession {
  public:
    WatchSession(sp<IKUsbService> service, sp<WatchCallback> callback, LineSink sink)
        : service_(std::move(service)), callback_(std::move(callback)), sink_(std::move(sink)) {}

    /** Registers |times| times; one "registered" for all. Returns false after a failure. */
    bool start(int32_t times);

    void command(const std::string& line);

    /** Takes back the registrations that are left, without a word. */
    void finish();

  private:
    bool answer(const binder::Status& status, const std::string& done) const;
    binder::Status registerOnce();
    binder::Status unregisterOnce();
    binder::Status unregisterUnknown() const;

    const sp<IKUsbService> service_;
    const sp<WatchCallback> callback_;
    const LineSink sink_;
    int32_t registrations_ = 0;
};

}  // namespace android::kus::tools
