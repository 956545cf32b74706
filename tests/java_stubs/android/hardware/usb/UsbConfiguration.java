// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.hardware.usb;

public class UsbConfiguration {
    private final UsbInterface[] mInterfaces;

    public UsbConfiguration(UsbInterface... interfaces) {
        mInterfaces = interfaces;
    }

    public int getInterfaceCount() {
        return mInterfaces.length;
    }

    public UsbInterface getInterface(int index) {
        return mInterfaces[index];
    }
}
