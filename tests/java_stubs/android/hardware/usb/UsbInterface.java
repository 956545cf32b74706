// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.hardware.usb;

public class UsbInterface {
    private final int mInterfaceClass;
    private final int mAlternateSetting;

    public UsbInterface(int interfaceClass, int alternateSetting) {
        mInterfaceClass = interfaceClass;
        mAlternateSetting = alternateSetting;
    }

    public int getInterfaceClass() {
        return mInterfaceClass;
    }

    public int getAlternateSetting() {
        return mAlternateSetting;
    }
}
