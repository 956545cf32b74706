// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <android/kus/BnKUsbService.h>
#include <android/kus/DeviceInfo.h>
#include <android/kus/IKUsbServiceCallback.h>
#include <binder/IBinder.h>
#include <binder/Status.h>
#include <utils/Errors.h>
#include <utils/Mutex.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include "android/kus/constants.h"
#include "android/kus/usbdevice.h"

namespace android::kus {

/**
 * The service "kusbservice": judges devices, remembers what it judged, and tells its clients.
 *
 * Binder threads call the operations, many at once; every one answers ok and carries its result in
 * an out-parameter. The device lists are process-wide, the registry of callbacks is the object's.
 *
 * A client is called on the thread that made the change, without a lock: it may call the service
 * from there. One that does not return holds up nobody but whoever has the coming or going of a USB
 * device told to it. A change that was under way is still told to a client that has unregistered
 * meanwhile, and one that was removed before all clients had heard of it is not listed.
 */
class KUsbService : public BnKUsbService {
  public:
    /**
     * Reads the rules, makes the one service object, publishes it, and starts the thread that
     * follows the rules' file; once, before the thread pool starts.
     *
     * Waits for the service manager as long as there is none. Ends the process through a FATAL log
     * when the service cannot be added. Rules that do not parse stop nothing.
     */
    static void Register();

    // --- IKUsbService --------------------------------------------------------------------------

    /**
     * As generated, with limits. BAD_VALUE for a parcel of more than 8 KB, of an odd size, or with
     * a record that claims more interface classes than follow; INVALID_OPERATION for the fifth call
     * of a thread within each other (a client that calls from inside its callback, and so on).
     */
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override;

    /** Ok also when the client is dead already, and then nothing is kept. */
    binder::Status registerKusCallback(const sp<IKUsbServiceCallback>& callback) override;
    /** Takes back one registration; ok also when there is none. */
    binder::Status unregisterKusCallback(const sp<IKUsbServiceCallback>& callback) override;
    /** Appends the judged devices to out: input devices, then USB devices, by ascending id. */
    binder::Status getDeviceList(std::vector<DeviceInfo>* out) override;
    /** Status 0 drops the device and tells the clients; any other changes nothing. */
    binder::Status updateDeviceList(const DeviceInfo& info, int32_t status) override;
    /** The verdict, its enforcement in the kernel, and its record. */
    binder::Status isDeviceAllowed(const DeviceInfo& info, bool* result) override;
    /** 0 or less flips every controller, else a virtual dock of that many ms; waits for its end. */
    binder::Status resetUsbDevices(int32_t value) override;

    // --- Decision ------------------------------------------------------------------------------

    /** A verdict, and how it came about. */
    struct Verdict {
        enum class By { kMode, kClass, kVendor, kProduct, kNoRule };

        /** The mode in force when it was made. */
        std::string mode;
        bool allowed = false;
        /** As the record has it. */
        std::string reason;
        /** What kind of rule matched. */
        By by = By::kNoRule;
        /** The interface class or input source at which the class test ended without a match. */
        std::optional<int32_t> codeWithoutRule;
    };

    /**
     * Are all its interfaces HID, or has it none? Such a USB device goes to the rules only as a
     * vendor HID.
     */
    static bool isHidAlone(const DeviceInfo& info);

    /**
     * Rescans sysfs; false for a USB device that goes no further: it becomes input devices, and the
     * input side asks again about those.
     */
    static bool passesHidScreening(const DeviceInfo& info) REQUIRES(UsbDevice::mapLock);

    /**
     * What the rules in force say, as one answer of one file. Any mode but "default" and
     * "blacklist" is a whitelist, a rejected file's word included. Changes nothing; any thread.
     */
    static Verdict judge(const DeviceInfo& info) EXCLUDES(rulesLock);

    // --- Diagnostics ---------------------------------------------------------------------------

    /**
     * Prints the judged devices, or with the first argument "test" what sysfs shows now; with any
     * other first argument nothing. The descriptor stays the caller's. Always 0.
     */
    status_t dump(int fd, const Vector<String16>& args) override;

    /** Prints one judged device. */
    static void dumpPrint(int fd, DeviceInfo info);

    // --- Lists ---------------------------------------------------------------------------------

    /**
     * Records a judged device and tells the clients of a USB device.
     *
     * A device id that is listed already keeps its first record; the clients are told of the new.
     * A decision about a USB device makes the record beside its own rescan and joins in behind
     * that.
     */
    void addDeviceList(DeviceInfo info, bool allowed, std::string reason);

    // --- Registry ------------------------------------------------------------------------------

    /** Drops one registration when its client's process dies. */
    class CallbackDeathRecipient : public IBinder::DeathRecipient {
      public:
        /** Both must be set. owner is not owned and outlives the recipient. */
        CallbackDeathRecipient(const sp<IKUsbServiceCallback>& callback, KUsbService* owner);
        ~CallbackDeathRecipient() override = default;

        /** Called on a binder thread, once, with the binder of callback. */
        void binderDied(const wp<IBinder>& who) override;

        const sp<IKUsbServiceCallback>& callback() const { return callback_; }

      private:
        friend class KUsbService;

        sp<IKUsbServiceCallback> callback_;
        KUsbService* owner_;
        /** Its entry was taken out when the notice was under way already: nothing is to be done. */
        bool unregistered_ GUARDED_BY(listLock) = false;
    };

    /** By the client's binder object; a callback registered twice has two entries. */
    using CallbackMap = std::multimap<IBinder*, sp<CallbackDeathRecipient>>;

    /** Erases the entry; false when its death notice could not be taken back. */
    bool UnregisterInternal(CallbackMap::iterator entry) REQUIRES(listLock);

    // --- Configuration observer ----------------------------------------------------------------

    /** Starts the thread that follows the configuration file; a failure is only logged. */
    static void registerFileObserverViaThread();
    /** Entry of that thread, its argument unused: watches the directory (inotify). Returns null. */
    static void* registerFileObserver(void* argument);
    /**
     * Takes over the file each time that it is closed after writing; returns when its events can
     * no longer be read.
     *
     * A file renamed into place is not noticed: it is not closed there.
     */
    static void readFileChangeEvent();

    /**
     * No further file is taken over: the process is ending, and what the crash handler does to the
     * files is nobody's rules. One that is being taken over is not held up. Any thread may call it,
     * in a signal handler as well.
     */
    static void stopFileObserver();

  private:
    bool isUsbDeviceAllowed(const DeviceInfo& info);
    bool isInputDeviceAllowed(const DeviceInfo& info);
    void addUsbDevice(std::unique_ptr<DeviceInfo> record);

    /** The first entry of the binder, or the end. */
    CallbackMap::iterator findCallback(IBinder* binder) REQUIRES(listLock);
    static void logCallbacks(const char* text, const CallbackMap& callbacks);
    std::vector<sp<IKUsbServiceCallback>> callbacks() const EXCLUDES(listLock);

    /** Taken by the death notice alone. */
    Mutex mutex_;
    CallbackMap callbacks_ GUARDED_BY(listLock);
};

}  // namespace android::kus
