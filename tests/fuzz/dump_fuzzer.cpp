// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// KUsbService::dump(): its arguments, and what it prints of judged devices. The input is a few
// records and the arguments.

#include <stdio.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <android/kus/DeviceInfo.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "tests/fuzz/fuzz_support.h"

using android::OK;
using android::sp;
using android::String16;
using android::Vector;
using android::kus::DeviceInfo;
using android::kus::KUsbService;
using android::kus::fuzz::Sink;

namespace {

constexpr size_t kMostDevices = 4;
constexpr size_t kMostClasses = 8;
constexpr size_t kMostArguments = 3;
constexpr size_t kLongestText = 300;

struct Judged {
    DeviceInfo info;
    bool allowed;
    std::string reason;
};

using Records = std::map<int32_t, Judged>;

// A code that has a name, or any number.
int32_t consumeClass(FuzzedDataProvider* input) {
    if (input->ConsumeBool()) return input->ConsumeIntegral<int32_t>();
    return input->PickValueInArray(android::kus::usbClassTable).code;
}

Judged consumeJudged(FuzzedDataProvider* input) {
    Judged judged;
    judged.info.deviceName = input->ConsumeRandomLengthString(kLongestText);
    judged.reason = input->ConsumeRandomLengthString(kLongestText);
    judged.info.deviceType = input->ConsumeBool() ? 0 : input->ConsumeIntegral<int32_t>();
    judged.info.deviceId = input->ConsumeIntegral<int32_t>();
    judged.info.deviceClass = consumeClass(input);
    judged.info.vendorId = input->ConsumeIntegral<int32_t>();
    judged.info.productId = input->ConsumeIntegral<int32_t>();
    judged.allowed = input->ConsumeBool();
    const auto classes = input->ConsumeIntegralInRange<size_t>(0, kMostClasses);
    for (size_t i = 0; i < classes; ++i)
        judged.info.interfaceClasses.push_back(consumeClass(input));
    return judged;
}

// Either well-formed text or any 16-bit units.
String16 consumeArgument(FuzzedDataProvider* input) {
    const std::string bytes = input->ConsumeRandomLengthString(kLongestText);
    if (input->ConsumeBool()) return String16(bytes.c_str(), bytes.size());
    std::u16string units;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        units += static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) |
                                       static_cast<uint8_t>(bytes[i + 1]) << 8);
    }
    return String16(units.data(), units.size());
}

Vector<String16> consumeArguments(FuzzedDataProvider* input) {
    Vector<String16> arguments;
    const auto count = input->ConsumeIntegralInRange<size_t>(0, kMostArguments);
    for (size_t i = 0; i < count; ++i) arguments.add(consumeArgument(input));
    return arguments;
}

std::string nameOf(int32_t code) {
    for (const auto& row : android::kus::usbClassTable) {
        if (row.code == code) return row.name;
    }
    return " ";
}

bool isRestricted(int32_t code) {
    return code == 0 || code == 3 || code == 9 || code == 239 || code == 254 || code == 255;
}

void addName(std::string* text, const std::string& name) {
    if (text->find(name) == std::string::npos) *text += name + ";";
}

// The names of a device's classes: those a rule may name, then the restricted ones.
std::pair<std::string, std::string> classTextsOf(const DeviceInfo& info) {
    std::string named;
    std::string restricted;
    if (info.deviceType != 0) {
        const int32_t bits = info.deviceClass & ~0xFF;
        for (const auto& [code, name] : android::kus::inputSourceNames) {
            if ((bits & code) == code) named += name + ";";
        }
        return {named, "<none>"};
    }
    for (const int32_t code : info.interfaceClasses) {
        addName(isRestricted(code) ? &restricted : &named, nameOf(code));
    }
    if (restricted.empty()) return {named, "<none>"};
    return {named.empty() ? "<none>" : named, restricted};
}

// A text ends at its first zero in the print.
std::string printed(const std::string& text) {
    return text.c_str();
}

std::string textOf(const Judged& judged) {
    const auto [named, restricted] = classTextsOf(judged.info);
    return "\nDevice name : " + printed(judged.info.deviceName) +
           "\n   Device type(1=HID/0=Non-HID) : " + std::to_string(judged.info.deviceType) +
           "\n   DeviceID : " + std::to_string(static_cast<uint32_t>(judged.info.deviceId)) +
           "\n   Device class name : " + named + "\n   Restricted class name : " + restricted +
           "\n   Device Vendor Id : " + std::to_string(judged.info.vendorId) +
           "\n   Device Product Id : " + std::to_string(judged.info.productId) +
           "\n   Device status(1-enabled/0-disabled): " + (judged.allowed ? "1" : "0") +
           "\n   Reason : " + printed(judged.reason) + "\n";
}

std::string textOf(const Records& records) {
    std::string text;
    for (const auto& [id, judged] : records) text += textOf(judged);
    return text;
}

KUsbService& service() {
    static const sp<KUsbService> service = new KUsbService();
    return *service;
}

std::string expectedDump(const Vector<String16>& arguments, const std::string& devices) {
    if (arguments.empty()) return "USB DEVICE INFO " + devices;
    const std::u16string first(arguments[0].string(), arguments[0].size());
    return first == u"test" ? "USB Test \n\n\nDeviceIdMap size0\n" : "";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Sink sink;
    FuzzedDataProvider input(data, size);
    const Vector<String16> arguments = consumeArguments(&input);
    Records inputDevices;
    Records usbDevices;
    for (size_t i = 0; i < kMostDevices && input.remaining_bytes() > 0; ++i) {
        const Judged judged = consumeJudged(&input);
        service().addDeviceList(judged.info, judged.allowed, judged.reason);
        (judged.info.deviceType == 0 ? usbDevices : inputDevices)
                .emplace(judged.info.deviceId, judged);
    }
    const std::string devices = textOf(inputDevices) + textOf(usbDevices);

    CHECK_EQ(service().dump(sink.fd(), arguments), OK);
    CHECK_EQ(sink.Take(), expectedDump(arguments, devices));
    // The records themselves, whatever was asked for.
    CHECK_EQ(service().dump(sink.fd(), Vector<String16>()), OK);
    CHECK_EQ(sink.Take(), "USB DEVICE INFO " + devices);

    for (const Records* records : {&inputDevices, &usbDevices}) {
        for (const auto& [id, judged] : *records) service().updateDeviceList(judged.info, 0);
    }
    std::vector<DeviceInfo> left;
    service().getDeviceList(&left);
    CHECK(left.empty());
    return 0;
}
