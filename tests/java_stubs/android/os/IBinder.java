// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.os;

public interface IBinder {
    int FIRST_CALL_TRANSACTION = 1;
    int INTERFACE_TRANSACTION = 0x5f4e5446;

    interface DeathRecipient {
        void binderDied();
    }

    IInterface queryLocalInterface(String descriptor);

    boolean transact(int code, Parcel data, Parcel reply, int flags) throws RemoteException;

    void linkToDeath(DeathRecipient recipient, int flags) throws RemoteException;

    boolean unlinkToDeath(DeathRecipient recipient, int flags);
}
