// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/device_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include "tools/input_sources.h"
#include "tools/utf8.h"

namespace android::kus::tools {
namespace {

using android::base::Basename;
using android::base::Dirname;
using android::base::ParseUint;
using android::base::StartsWith;

constexpr int32_t kHubClass = 9;
constexpr int32_t kIdsPerBus = 1000;
constexpr std::string_view kInputPrefix = "input";
constexpr std::string_view kRootHubPrefix = "usb";

std::vector<std::string> entryNames(const std::string& dir) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(dir.c_str()), closedir);
    if (stream == nullptr) return names;
    while (const dirent* entry = readdir(stream.get())) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    return names;
}

std::optional<std::string> attribute(const std::string& dir, const std::string& name) {
    std::string text;
    if (!android::base::ReadFileToString(dir + "/" + name, &text)) return std::nullopt;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

std::optional<int32_t> number(const std::string& dir, const std::string& name,
                              const char* basePrefix) {
    const std::optional<std::string> text = attribute(dir, name);
    uint32_t value = 0;
    if (!text || !ParseUint(basePrefix + *text, &value, uint32_t{INT32_MAX})) return std::nullopt;
    return static_cast<int32_t>(value);
}

std::optional<int32_t> decimal(const std::string& dir, const std::string& name) {
    return number(dir, name, "");
}

std::optional<int32_t> hexadecimal(const std::string& dir, const std::string& name) {
    return number(dir, name, "0x");
}

std::optional<std::string> linkName(const std::string& link) {
    std::string target;
    if (!android::base::Readlink(link, &target)) return std::nullopt;
    return Basename(target);
}

// The kernel holds the device's lock from the choice of a configuration until every interface is
// added and its driver probed. Reading this attribute takes the same lock: what is read after it
// is complete. It reads empty for a device without a configuration.
std::optional<std::string> settledConfiguration(const std::string& dir) {
    return attribute(dir, "bConfigurationValue");
}

std::optional<std::vector<int32_t>> interfaceClasses(const std::string& dir) {
    std::vector<int32_t> classes;
    const std::string parent = dir + "/";
    for (const std::string& name : interfaceNames(dir)) {
        const std::optional<int32_t> code = interfaceClass(parent + name);
        if (!code) return std::nullopt;
        classes.push_back(*code);
    }
    return classes;
}

std::string usbDeviceName(const std::string& dir, int32_t vendorId, int32_t productId) {
    const std::string product = attribute(dir, "product").value_or("");
    if (!product.empty()) return toValidUtf8(product);
    return android::base::StringPrintf("%04x:%04x", vendorId, productId);
}

bool isBehindUsb(const std::string& path) {
    for (std::string dir = Dirname(path); dir.size() > 1; dir = Dirname(dir)) {
        if (linkName(dir + "/subsystem") == "usb") return true;
    }
    return false;
}

InputCapabilities readCapabilities(const std::string& dir) {
    return {attribute(dir, "capabilities/key").value_or(""),
            attribute(dir, "capabilities/rel").value_or(""),
            attribute(dir, "capabilities/abs").value_or(""),
            attribute(dir, "properties").value_or("")};
}

std::optional<int32_t> inputNumber(std::string_view sysname) {
    if (sysname.substr(0, kInputPrefix.size()) != kInputPrefix) return std::nullopt;
    const std::string digits(sysname.substr(kInputPrefix.size()));
    uint32_t value = 0;
    if (digits.find_first_not_of("0123456789") != std::string::npos ||
        !ParseUint(digits, &value, uint32_t{INT32_MAX})) {
        return std::nullopt;
    }
    return static_cast<int32_t>(value);
}

bool isUsbDeviceName(const std::string& name) {
    return isdigit(static_cast<unsigned char>(name[0])) && name.find(':') == std::string::npos;
}

// "3-1.10" comes after "3-1.9".
std::vector<uint32_t> numbersIn(const std::string& name) {
    std::vector<uint32_t> numbers;
    for (const std::string& text : android::base::Split(name, "-.input")) {
        uint32_t value = 0;
        if (ParseUint(text, &value)) numbers.push_back(value);
    }
    return numbers;
}

}  // namespace

std::optional<AttachedDevice> readUsbDevice(const std::string& dir) {
    AttachedDevice device;
    device.kind = DeviceKind::kUsb;
    if (!android::base::Realpath(dir, &device.path)) return std::nullopt;
    device.sysname = Basename(device.path);
    // The link comes before the configuration: read in this order, a link means that the value
    // read next is final.
    if (!linkName(device.path + "/driver") || !settledConfiguration(device.path)) {
        return std::nullopt;
    }

    const std::optional<int32_t> bus = decimal(device.path, "busnum");
    const std::optional<int32_t> address = deviceNumberAt(device.path);
    const std::optional<int32_t> deviceClass = hexadecimal(device.path, "bDeviceClass");
    const std::optional<int32_t> vendorId = hexadecimal(device.path, "idVendor");
    const std::optional<int32_t> productId = hexadecimal(device.path, "idProduct");
    std::optional<std::vector<int32_t>> classes = interfaceClasses(device.path);
    if (!bus || !address || !deviceClass || !vendorId || !productId || !classes) {
        return std::nullopt;
    }
    if (*deviceClass == kHubClass) return std::nullopt;

    device.info.deviceName = usbDeviceName(device.path, *vendorId, *productId);
    device.info.deviceId = *bus * kIdsPerBus + *address;
    device.info.deviceClass = *deviceClass;
    device.info.interfaceClasses = std::move(*classes);
    device.info.vendorId = *vendorId;
    device.info.productId = *productId;
    device.info.deviceType = static_cast<int32_t>(DeviceKind::kUsb);
    return device;
}

std::optional<AttachedDevice> readInputDevice(const std::string& dir) {
    AttachedDevice device;
    device.kind = DeviceKind::kInput;
    if (!android::base::Realpath(dir, &device.path)) return std::nullopt;
    device.sysname = Basename(device.path);
    if (!isBehindUsb(device.path)) return std::nullopt;

    const std::optional<int32_t> id = inputNumber(device.sysname);
    const std::optional<std::string> name = attribute(device.path, "name");
    const std::optional<int32_t> vendorId = hexadecimal(device.path, "id/vendor");
    const std::optional<int32_t> productId = hexadecimal(device.path, "id/product");
    if (!id || !name || !vendorId || !productId) return std::nullopt;

    device.info.deviceName = toValidUtf8(*name);
    device.info.deviceId = *id;
    device.info.deviceClass = inputSources(readCapabilities(device.path));
    device.info.vendorId = *vendorId;
    device.info.productId = *productId;
    device.info.deviceType = static_cast<int32_t>(DeviceKind::kInput);
    return device;
}

std::optional<AttachedDevice> readDevice(DeviceKind kind, const std::string& dir) {
    return kind == DeviceKind::kUsb ? readUsbDevice(dir) : readInputDevice(dir);
}

std::vector<std::string> deviceDirectories(DeviceKind kind, const std::string& sysfs) {
    const bool usb = kind == DeviceKind::kUsb;
    const std::string parent = sysfs + (usb ? "/bus/usb/devices" : "/class/input");
    std::vector<std::string> names;
    for (std::string& name : entryNames(parent)) {
        if (usb ? isUsbDeviceName(name) : isInputName(name)) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return numbersIn(a) < numbersIn(b);
    });
    for (std::string& name : names) name.insert(0, parent + "/");
    return names;
}

std::vector<std::string> rootHubDirectories(const std::string& sysfs) {
    const std::string parent = sysfs + "/bus/usb/devices/";
    std::vector<std::string> hubs;
    for (const std::string& name : entryNames(parent)) {
        if (StartsWith(name, kRootHubPrefix)) hubs.push_back(parent + name);
    }
    return hubs;
}

int32_t deviceNumber(const DeviceInfo& info) {
    return info.deviceId % kIdsPerBus;
}

std::optional<int32_t> deviceNumberAt(const std::string& dir) {
    return decimal(dir, "devnum");
}

bool isHub(const std::string& dir) {
    return hexadecimal(dir, "bDeviceClass") == kHubClass;
}

// The names are DEVICE:CONFIGURATION.INTERFACE; where a device has its ports a root hub has a 0.
std::vector<std::string> interfaceNames(const std::string& dir) {
    const std::string device = Basename(dir);
    const bool isRootHub = StartsWith(device, kRootHubPrefix);
    const std::string prefix =
            isRootHub ? device.substr(kRootHubPrefix.size()) + "-0:" : device + ":";
    std::map<uint32_t, std::string> byNumber;
    for (const std::string& name : entryNames(dir)) {
        if (!StartsWith(name, prefix)) continue;
        uint32_t number = 0;
        if (ParseUint(name.substr(name.rfind('.') + 1), &number)) byNumber[number] = name;
    }
    std::vector<std::string> names;
    names.reserve(byNumber.size());
    for (auto& [number, name] : byNumber) names.push_back(std::move(name));
    return names;
}

std::optional<int32_t> interfaceClass(const std::string& dir) {
    return hexadecimal(dir, "bInterfaceClass");
}

bool isInputName(std::string_view sysname) {
    return inputNumber(sysname).has_value();
}

bool isBlocked(const std::string& dir) {
    const std::vector<std::string> names = interfaceNames(dir);
    return !names.empty() && std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        return attribute(dir, name + "/authorized") == "0";
    });
}

bool isInhibited(const std::string& dir) {
    return attribute(dir, "inhibited") == "1";
}

bool setInhibited(const std::string& dir, bool inhibited) {
    const android::base::unique_fd fd(
            TEMP_FAILURE_RETRY(open((dir + "/inhibited").c_str(), O_WRONLY | O_CLOEXEC)));
    return fd.get() != -1 && TEMP_FAILURE_RETRY(write(fd.get(), inhibited ? "1" : "0", 1)) == 1;
}

}  // namespace android::kus::tools
