// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.kus;

import android.kus.DeviceInfo;
import android.kus.IKUsbServiceCallback;

/**
 * The daemon's service "kusbservice". Every call answers with the "ok" status.
 *
 * The order of the operations fixes their transaction codes: append, never insert.
 */
interface IKUsbService {
    /** Registers a callback until its unregistration or its process's death; repeats count. */
    void registerKusCallback(IKUsbServiceCallback callback);
    /** Takes back one registration of the callback. */
    void unregisterKusCallback(IKUsbServiceCallback callback);
    /** The judged devices: input devices first, then USB devices, each in ascending id order. */
    DeviceInfo[] getDeviceList();
    /** Reports a device as removed (status 0); any other status changes nothing. */
    void updateDeviceList(in DeviceInfo device, int status);
    /** May this device be used? A refused USB device is blocked in the kernel as well. */
    boolean isDeviceAllowed(in DeviceInfo device);
    /**
     * Makes attached devices enumerate again: 0 or less resets every controller in host mode,
     * 1 or more is a virtual undock and dock with that delay in milliseconds.
     */
    void resetUsbDevices(int delayMs);
}
