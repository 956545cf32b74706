// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// UsbDevice::split(). The input's first byte is the separator, the rest the text.

#include <android-base/logging.h>

#include "android/kus/usbdevice.h"
#include "tests/fuzz/fuzz_support.h"

using android::kus::UsbDevice;
using android::kus::fuzz::PiecesOf;
using android::kus::fuzz::TextOf;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const char separator = static_cast<char>(data[0]);
    const std::string text = TextOf(data + 1, size - 1);
    CHECK(UsbDevice::split(text, separator) == PiecesOf(text, separator));
    return 0;
}
