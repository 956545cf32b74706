// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// DeviceInfo::readFromParcel(). The input is what a client sends, byte by byte, from the record's
// size on.

#include <android-base/logging.h>
#include <android/kus/DeviceInfo.h>
#include <binder/Parcel.h>

#include "tests/fuzz/fuzz_support.h"

using android::OK;
using android::Parcel;
using android::kus::DeviceInfo;

namespace {

// More interface classes than there are bytes for. The platform's reader would make room for all of
// them first, up to 8 GB: the service refuses such a parcel unread.
bool claimsTooManyClasses(const uint8_t* data, size_t size) {
    Parcel parcel;
    CHECK_EQ(parcel.setData(data, size), OK);
    parcel.readInt32();  // the record's size
    size_t nameLength = 0;
    if (parcel.readString16Inplace(&nameLength) == nullptr) return false;
    parcel.readInt32();  // deviceId
    parcel.readInt32();  // deviceClass
    const int32_t classes = parcel.readInt32();
    return classes > 0 && static_cast<size_t>(classes) > parcel.dataAvail() / sizeof(int32_t);
}

bool areEqual(const DeviceInfo& a, const DeviceInfo& b) {
    return a.deviceName == b.deviceName && a.deviceId == b.deviceId &&
           a.deviceClass == b.deviceClass && a.interfaceClasses == b.interfaceClasses &&
           a.vendorId == b.vendorId && a.productId == b.productId && a.status == b.status &&
           a.deviceType == b.deviceType && a.reason == b.reason && a.category == b.category &&
           a.categoryPath == b.categoryPath;
}

// What a record of ours becomes on its way through a parcel.
DeviceInfo sent(const DeviceInfo& info) {
    Parcel parcel;
    CHECK_EQ(info.writeToParcel(&parcel), OK);
    parcel.setDataPosition(0);
    DeviceInfo received;
    CHECK_EQ(received.readFromParcel(&parcel), OK);
    CHECK_EQ(parcel.dataAvail(), 0U);
    return received;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (claimsTooManyClasses(data, size)) return 0;
    Parcel parcel;
    CHECK_EQ(parcel.setData(data, size), OK);
    DeviceInfo info;
    if (info.readFromParcel(&parcel) != OK) return 0;
    CHECK_LE(parcel.dataPosition(), size);
    // Texts that are no UTF-16 are mended when they are first read; from then on nothing changes.
    const DeviceInfo once = sent(info);
    CHECK(areEqual(once, sent(once)));
    return 0;
}
