// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.hardware.usb;

public abstract class UsbDevice {
    public abstract int getDeviceId();

    public abstract String getProductName();

    public abstract int getDeviceClass();

    public abstract int getVendorId();

    public abstract int getProductId();

    public abstract int getConfigurationCount();

    public abstract UsbConfiguration getConfiguration(int index);
}
