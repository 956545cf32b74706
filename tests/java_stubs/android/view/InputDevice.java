// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.view;

public abstract class InputDevice {
    public abstract int getId();

    public abstract String getName();

    public abstract int getSources();

    public abstract int getVendorId();

    public abstract int getProductId();
}
