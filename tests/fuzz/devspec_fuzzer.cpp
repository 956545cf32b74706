// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// UsbDevice::get_displaylink_soc_path(). The input is the content of a root hub's "devspec".

#include <string.h>

#include <android-base/logging.h>

#include "android/kus/usbdevice.h"
#include "tests/fuzz/fuzz_support.h"

using android::kus::DeviceIdEntry;
using android::kus::UsbDevice;
using android::kus::fuzz::PiecesOf;
using android::kus::fuzz::TextOf;

namespace {

constexpr char kHubDirectory[] = "/sys/bus/usb/devices/usb2";
constexpr char kDevspec[] = "/sys/bus/usb/devices/usb2/devspec";
constexpr char kInterface[] = "2-1:1.0";
constexpr uint32_t kDisplayLink = 0x17E9;
// The longest text that is read of the file.
constexpr size_t kLimit = 4095;

// "/soc/NAME@ADDRESS/..." names the controller; an empty text for everything else.
std::string expectedPath(const std::string& content) {
    const std::string devspec = content.substr(0, kLimit).c_str();
    const std::vector<std::string> nodes = PiecesOf(devspec, '/');
    if (nodes.size() < 3) return "";
    const std::vector<std::string> controller = PiecesOf(nodes[2], '@');
    if (controller.size() < 2) return "";
    return "/sys/devices/platform/soc/" + controller[1] + "." + controller[0] + "/mode";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    android::kus::fuzz::MakeDirs(kHubDirectory);
    DeviceIdEntry entry = {};
    memcpy(entry.interface_name, kInterface, sizeof(kInterface));
    entry.idVendor = kDisplayLink;
    UsbDevice::DeviceIdMap.emplace(2002, entry);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string content = TextOf(data, size);
    android::kus::fuzz::WriteFile(kDevspec, content);
    CHECK_EQ(UsbDevice::get_displaylink_soc_path(), expectedPath(content));
    return 0;
}
