// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <map>
#include <string>
#include <utility>

#include <android/kus/IKUsbService.h>
#include <binder/Status.h>
#include <utils/StrongPointer.h>

#include "tools/device_scan.h"
#include "tools/event_writer.h"
#include "tools/uevent.h"

namespace android::kus::tools {

/**
 * Plays the platform framework's part: has the daemon judge every attached USB device and every
 * input device behind USB once, tells it when they go, and carries out its refusals of input
 * devices (a refused USB device is the daemon's own to block).
 *
 * A device is not asked about again until it has gone. A USB device that loses its interfaces and
 * gets interfaces again (another configuration, a first one, authorised anew) counts as gone and
 * come: the kernel starts the new interfaces unblocked.
 *
 * Without a service everything is dropped, since connecting starts with what is present anyway.
 * All methods belong to one thread; calls of the daemon are made on it and waited for.
 */
class Agent {
  public:
    /** |sysfs| is where sysfs is ("/sys"); |out| is not owned and has to outlive the agent. */
    Agent(std::string sysfs, const EventWriter* out) : sysfs_(std::move(sysfs)), out_(out) {}

    /** Takes |service| into use and has it judge everything present: a rescan for |reason|. */
    void connect(const sp<IKUsbService>& service, RescanReason reason);

    /**
     * Forgets the service and its verdicts. Happens by itself when a call finds the daemon dead.
     * Does nothing while there is no service.
     */
    void disconnect();

    bool connected() const { return service_ != nullptr; }

    /** Compares what is present with what was judged: reports what has gone, judges what is new. */
    void rescan(RescanReason reason);

    /**
     * Follows a change. Events about devices that meanwhile went, or whose name another device
     * took over, change nothing.
     */
    void handle(const Uevent& event);

  private:
    using Key = std::pair<DeviceKind, std::string>;

    struct Judged {
        AttachedDevice device;
        /** Waiting for the interfaces of another configuration. */
        bool awaitsInterfaces = false;
        /** A USB device whose interfaces the daemon has blocked. */
        bool blocked = false;
    };

    void judgeIfNew(DeviceKind kind, const std::string& dir, int32_t devnum,
                    Clock::time_point since);
    void judge(const AttachedDevice& device, Clock::time_point since);
    bool applyInputVerdict(const AttachedDevice& device, bool allowed) const;
    std::string recordedReason(const DeviceInfo& info, bool allowed) const;
    void judgeNewConfiguration(const Uevent& event);
    static bool isStill(const Judged& judged, const DeviceInfo& present);
    void forget(const Key& key);
    void forgetGone();
    /** Reports a failed call; the death of the daemon disconnects. */
    void callFailed(const AttachedDevice& device, const binder::Status& status);

    const std::string sysfs_;
    const EventWriter* const out_;
    sp<IKUsbService> service_;
    std::map<Key, Judged> judged_;
};

}  // namespace android::kus::tools
