// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.os;

public interface IInterface {
    IBinder asBinder();
}
