// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include <android/kus/IKUsbService.h>
#include <binder/Status.h>
#include <utils/StrongPointer.h>

#include "tools/device_scan.h"
#include "tools/event_writer.h"
#include "tools/uevent.h"
#include "tools/usb_interfaces.h"

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
 *
 * In Mode::kOpen the kernel binds drivers at once, and a refused device works until the daemon has
 * blocked it. In Mode::kClosed, which is for root hubs that are closed (closeRootHub), interfaces
 * come without a driver, and the agent opens those of an allowed device once the verdict is there:
 * - Whatever is open and was not opened by the agent is closed before it is asked about: a device
 *   that was there before the agent, or one that was quicker than the closing of a new root hub.
 *   So a restarted agent takes the devices from their users for the time of the question; a
 *   restarted daemon does not.
 * - Hubs are opened at once and never asked about, with or without a service: their interfaces of
 *   the class 9, and to the hub driver alone. What calls itself a hub may be a disk besides, or
 * bear the ids that another driver goes by.
 * - A device of HID interfaces alone is opened for the question and offered to usbhid, since the
 *   daemon looks at what that driver made. There are two refusals, told apart by what the daemon
 *   did. One with a record or a block is final (a vendor HID that the rules refuse): it is closed
 *   again. One with neither leaves the device to the input side (a keyboard): it stays open, for
 *   its input devices are judged each on its own and inhibited as in the other mode; interfaces
 *   that usbhid declined are closed, for no other driver was asked about.
 * - All other devices are closed when they are asked about. So the category in the record of a
 *   network or serial device is 0, with the path "empty;": there is no net or tty directory yet.
 * - Nothing that is closed is opened for the agent's or the daemon's end, nor when a call fails. A
 *   device that was allowed stays open while there is no daemon.
 */
class Agent {
  public:
    enum class Mode { kOpen, kClosed };

    /** |sysfs| is where sysfs is ("/sys"); |out| is not owned and has to outlive the agent. */
    Agent(std::string sysfs, const EventWriter* out, Mode mode = Mode::kOpen)
        : sysfs_(std::move(sysfs)), out_(out), mode_(mode) {}

    /**
     * Mode::kClosed: closes all devices present that the agent has not opened, but hubs, which are
     * opened. To be called when the root hubs have been closed; needs no service.
     */
    void closePresent();

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
     * took over, change nothing. Without a service only Mode::kClosed follows, and judges nothing.
     */
    void handle(const Uevent& event);

  private:
    using Key = std::pair<DeviceKind, std::string>;

    struct Judged {
        AttachedDevice device;
        /** Waiting for the interfaces of another configuration. */
        bool awaitsInterfaces = false;
        /** A USB device whose interfaces were all closed after the verdict. */
        bool blocked = false;
    };

    void judgeIfNew(DeviceKind kind, const std::string& dir, int32_t devnum,
                    Clock::time_point since);
    void judge(const AttachedDevice& device, Clock::time_point since);
    bool applyInputVerdict(const AttachedDevice& device, bool allowed) const;
    /** Nothing if there is no such record, or if the daemon did not tell. */
    std::optional<std::string> recordedReason(const DeviceInfo& info, bool allowed) const;
    void judgeNewConfiguration(const Uevent& event);
    bool isStill(const Judged& judged, const DeviceInfo& present) const;
    void forget(const Key& key);
    void forgetGone();
    /** Reports a failed call; the death of the daemon disconnects. */
    void callFailed(const AttachedDevice& device, const binder::Status& status);

    // Mode::kClosed.
    void followClosed(const Uevent& event);
    void closePresent(const std::string& dir);
    bool wasOpened(const std::string& sysname, std::optional<int32_t> devnum) const;
    void prepareQuestion(const AttachedDevice& device, const UsbInterfaces& interfaces) const;
    void applyUsbVerdict(const AttachedDevice& device, const UsbInterfaces& interfaces,
                         bool allowed, bool recorded);
    /** Reports what failed, with errno, unless it is because the device has gone. */
    void check(bool success, const AttachedDevice& device, const char* what) const;

    const std::string sysfs_;
    const EventWriter* const out_;
    const Mode mode_;
    sp<IKUsbService> service_;
    std::map<Key, Judged> judged_;
    /** Mode::kClosed: names and device numbers of those that are open by the agent's doing. */
    std::map<std::string, int32_t> opened_;
};

}  // namespace android::kus::tools
