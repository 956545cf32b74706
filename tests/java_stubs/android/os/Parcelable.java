// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.os;

public interface Parcelable {
    int PARCELABLE_WRITE_RETURN_VALUE = 1;

    interface Creator<T> {
        T createFromParcel(Parcel source);

        T[] newArray(int size);
    }

    int describeContents();

    void writeToParcel(Parcel dest, int flags);
}
