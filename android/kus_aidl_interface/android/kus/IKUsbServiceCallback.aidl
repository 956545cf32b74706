// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.kus;

import android.kus.DeviceInfo;

/**
 * Told of USB devices (never of input devices) as they are judged and as they go.
 *
 * Both calls are synchronous: the daemon waits for the client before it tells the next one.
 */
interface IKUsbServiceCallback {
    /** The device was judged; status and reason hold the verdict. */
    void onDeviceAdded(in DeviceInfo device);
    /** The device is gone. The record is the one that the reporter of the removal sent. */
    void onDeviceRemoved(in DeviceInfo device);
}
