// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.os;

/** An object of this process alone: nothing is ever sent. */
public class Binder implements IBinder {
    private IInterface mOwner;

    public void attachInterface(IInterface owner, @SuppressWarnings("unused") String descriptor) {
        mOwner = owner;
    }

    @Override
    public IInterface queryLocalInterface(String descriptor) {
        return mOwner;
    }

    @Override
    public final boolean transact(int code, Parcel data, Parcel reply, int flags)
            throws RemoteException {
        return onTransact(code, data, reply, flags);
    }

    @SuppressWarnings("unused")
    protected boolean onTransact(int code, Parcel data, Parcel reply, int flags)
            throws RemoteException {
        return false;
    }

    @Override
    @SuppressWarnings("unused")
    public void linkToDeath(DeathRecipient recipient, int flags) throws RemoteException {}

    @Override
    public boolean unlinkToDeath(DeathRecipient recipient, int flags) {
        return true;
    }
}
