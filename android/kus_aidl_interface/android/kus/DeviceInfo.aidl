// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.kus;

/** One attached device: what the platform knows of it and, once judged, what the daemon decided. */
parcelable DeviceInfo {
    /** Product name as the device or its driver gives it. */
    @utf8InCpp String deviceName;
    /** USB devices: bus number * 1000 + device number. Input devices: the platform's own id. */
    int deviceId = 0;
    /** USB devices: bDeviceClass. Input devices: the input-source bits (AINPUT_SOURCE_*). */
    int deviceClass = 0;
    /** bInterfaceClass of each interface; its length is the interface class count. */
    int[] interfaceClasses;
    /** idVendor. */
    int vendorId = 0;
    /** idProduct. */
    int productId = 0;
    /** 1 = enabled (allowed), 0 = disabled (blocked). Set by the daemon. */
    int status = 0;
    /** 0 = USB device, 1 = input (HID) device. */
    int deviceType = 0;
    /** Why the device was allowed or blocked. Set by the daemon. */
    @utf8InCpp String reason;
    /** Sum of its interfaces' categories: 1 network, 2 serial, 4 mass storage, 8 vendor HID. */
    int category = 0;
    /** The interfaces' distinct category paths, each followed by ";". */
    @utf8InCpp String categoryPath;
}
