// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/device_scan.h"

namespace android::kus::tools {

/** Why everything present is gone through. */
enum class RescanReason {
    /** For the first time. */
    kStart,
    /** The kernel had to drop messages. */
    kOverflow,
    /** The daemon was restarted and knows nothing of what it said before. */
    kService,
};

struct Verdict {
    AttachedDevice device;
    bool allowed = false;
    /** Empty if the daemon did not record the device. */
    std::string reason;
    /** Input devices: the state of the kernel's switch after the verdict. */
    bool inhibited = false;
    /** From the receipt of the uevent, or the moment the device was come across, to the verdict. */
    int64_t milliseconds = 0;
};

/**
 * Tells of each event in one line, for people or as JSON:
 *   {"event":"service","state":"connected"|"lost"}
 *   {"event":"rescan","reason":"start"|"overflow"|"service"}
 *   {"event":"ready"}
 *   {"event":"verdict","kind":"usb"|"input","sysname":..,"deviceId":..,"name":..,"vendorId":..,
 *    "productId":..,"deviceClass":..,"interfaceClasses":[..],"allowed":..,"reason":..,"ms":..}
 *     input devices carry "inhibited" behind "reason"
 *   {"event":"removed", the same members from "kind" to "interfaceClasses"}
 *   {"event":"problem","sysname":..,"text":..}
 */
class EventWriter {
  public:
    enum class Format { kText, kJson };
    /** Takes each line without its line end. */
    using Sink = std::function<void(const std::string&)>;

    EventWriter(Format format, Sink sink) : format_(format), sink_(std::move(sink)) {}

    void service(bool connected) const;
    void rescan(RescanReason reason) const;
    void ready() const;
    void verdict(const Verdict& verdict) const;
    void removed(const AttachedDevice& device) const;
    /** Something about |device| could not be done. */
    void problem(const AttachedDevice& device, const std::string& text) const;

  private:
    const Format format_;
    const Sink sink_;
};

}  // namespace android::kus::tools
