// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <android/kus/DeviceInfo.h>

namespace android::kus::tools {

/** Values of DeviceInfo::deviceType. */
enum class DeviceKind : int32_t { kUsb = 0, kInput = 1 };

/**
 * One attached device as sysfs shows it. |info| is complete up to what the daemon fills in
 * (status, reason, category, categoryPath).
 */
struct AttachedDevice {
    DeviceKind kind = DeviceKind::kUsb;
    /** The kernel's name: "3-1.2", "input12". */
    std::string sysname;
    /** Its directory, without symbolic links. */
    std::string path;
    DeviceInfo info;
};

/**
 * Reads the USB device whose sysfs directory is |dir|:
 *   deviceName        product; without one "vvvv:pppp", the ids in hexadecimal (a manufacturer
 *                     alone would not tell two of its devices apart)
 *   deviceId          busnum * 1000 + devnum
 *   deviceClass       bDeviceClass
 *   interfaceClasses  bInterfaceClass of the active configuration's interfaces, by number; empty
 *                     for an unconfigured device
 * Waits while the kernel is configuring the device and probing its interfaces' drivers, at most
 * for the device's own control timeouts.
 *
 * Returns nothing for a device that is going away, for one that no driver is bound to yet (its
 * "bind" uevent is still to come), and for hubs, whose refusal would cut off all behind them.
 */
std::optional<AttachedDevice> readUsbDevice(const std::string& dir);

/**
 * Reads the input device whose sysfs directory (.../inputN) is |dir|:
 *   deviceId     N, which the kernel never uses twice between two starts
 *   deviceName   name
 *   deviceClass  inputSources() of its capabilities
 *   ids          id/vendor, id/product
 * Returns nothing for a device that is going away and for one that is not behind USB.
 */
std::optional<AttachedDevice> readInputDevice(const std::string& dir);

/** Reads a device of |kind|. */
std::optional<AttachedDevice> readDevice(DeviceKind kind, const std::string& dir);

/**
 * Directories of everything below |sysfs| ("/sys") that the readers above could take, in
 * ascending order of their numbers. Empty if the subsystem is missing.
 */
std::vector<std::string> deviceDirectories(DeviceKind kind, const std::string& sysfs);

/** Directories of the root hubs below |sysfs|; empty if there is no USB. */
std::vector<std::string> rootHubDirectories(const std::string& sysfs);

/** The device number in a USB device's record. */
int32_t deviceNumber(const DeviceInfo& info);

/** The device number of the USB device at |dir|; nothing if it is going away. */
std::optional<int32_t> deviceNumberAt(const std::string& dir);

/** Is the USB device at |dir| a hub? False for one that is going away. */
bool isHub(const std::string& dir);

/**
 * The names of the interfaces that the USB device or root hub at |dir| has, in the order of their
 * numbers.
 */
std::vector<std::string> interfaceNames(const std::string& dir);

/** bInterfaceClass of the interface at |dir|; nothing if it is going away. */
std::optional<int32_t> interfaceClass(const std::string& dir);

/**
 * Does the kernel keep every interface of the USB device at |dir| from drivers ("authorized" is 0)?
 * False for a device without interfaces.
 */
bool isBlocked(const std::string& dir);

/** True for "inputN". */
bool isInputName(std::string_view sysname);

/** Is the input device at |dir| inhibited? False also if the kernel has no such switch. */
bool isInhibited(const std::string& dir);

/**
 * Inhibits the input device at |dir|, or lets it send events again. Returns false with errno set
 * if that failed.
 */
bool setInhibited(const std::string& dir, bool inhibited);

}  // namespace android::kus::tools
