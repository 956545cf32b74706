// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.os;

/** For the generated code to compile: within one process no call is put into a parcel. */
public abstract class Parcel {
    public static Parcel obtain() {
        throw new UnsupportedOperationException();
    }

    public abstract void recycle();

    public abstract int dataPosition();

    public abstract void setDataPosition(int pos);

    public abstract void enforceInterface(String interfaceName);

    public abstract void writeInterfaceToken(String interfaceName);

    public abstract void writeNoException();

    public abstract void readException();

    public abstract void writeInt(int val);

    public abstract int readInt();

    public abstract void writeString(String val);

    public abstract String readString();

    public abstract void writeIntArray(int[] val);

    public abstract int[] createIntArray();

    public abstract void writeStrongBinder(IBinder val);

    public abstract IBinder readStrongBinder();

    public abstract <T extends Parcelable> void writeTypedArray(T[] val, int parcelableFlags);

    public abstract <T> T[] createTypedArray(Parcelable.Creator<T> c);
}
