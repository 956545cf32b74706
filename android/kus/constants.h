// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/**
 * What every part of the daemon shares: paths, name tables, the state of the rules, and the lists.
 *
 * The tables never change and may be read from any thread; rules and lists have a lock each.
 * errorMessage and xml_parse_status belong to the one thread that parses: first the main thread,
 * then the configuration observer's.
 *
 * A lock is an android::Mutex because it carries the annotations for clang's thread-safety analysis
 * whatever the C++ library.
 */

#pragma once

#include <stdint.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <android/kus/DeviceInfo.h>
#include <utils/Mutex.h>

namespace android::kus {

/** The directory is made by the platform's init configuration, never by the daemon. */
inline constexpr char configDirPath[] = "/data/system/usbdeviceconfig";
/** The administrator's rules. */
inline constexpr char configFilePath[] = "/data/system/usbdeviceconfig/usb_device_config.xml";
/** The last rules that were taken over, each line ended by a line feed. */
inline constexpr char backupFilePath[] =
        "/data/system/usbdeviceconfig/usb_device_config_backup.xml";
/** One line without a line end: "SUCCESS", or why the rules were not taken. */
inline const char* const statusFilePath = "/data/system/usbdeviceconfig/status.txt";

/** One row of usbClassTable. */
struct ClassName {
    const char* name;
    int32_t code;
};

/** The first code of the input-source half of usbClassTable; USB class codes lie below it. */
inline constexpr int32_t kFirstInputSource = 0x100;

/**
 * The names that a configuration file may use: the base class codes of the USB-IF, then the
 * device bits of the platform's input sources (AINPUT_SOURCE_* of android/input.h without their
 * class bits).
 */
inline constexpr ClassName usbClassTable[] = {
        {"USB_CLASS_PER_INTERFACE", 0},
        {"USB_CLASS_AUDIO", 1},
        {"USB_CLASS_COMM", 2},
        {"USB_CLASS_HID", 3},
        // Without its final L: configuration files in the field use exactly this text.
        {"USB_CLASS_PHYSICA", 5},
        {"USB_CLASS_STILL_IMAGE", 6},
        {"USB_CLASS_PRINTER", 7},
        {"USB_CLASS_MASS_STORAGE", 8},
        {"USB_CLASS_HUB", 9},
        {"USB_CLASS_CDC_DATA", 0x0A},
        {"USB_CLASS_CSCID", 0x0B},
        {"USB_CLASS_CONTENT_SEC", 0x0D},
        {"USB_CLASS_VIDEO", 0x0E},
        {"USB_CLASS_WIRELESS_CONTROLLER", 0xE0},
        {"USB_CLASS_MISC", 0xEF},
        {"USB_CLASS_APP_SPEC", 0xFE},
        {"USB_CLASS_VENDOR_SPEC", 0xFF},
        {"AINPUT_SOURCE_KEYBOARD", 0x100},
        {"AINPUT_SOURCE_DPAD", 0x200},
        {"AINPUT_SOURCE_GAMEPAD", 0x400},
        {"AINPUT_SOURCE_TOUCHSCREEN", 0x1000},
        {"AINPUT_SOURCE_MOUSE", 0x2000},
        {"AINPUT_SOURCE_STYLUS", 0x4000},
        {"AINPUT_SOURCE_TRACKBALL", 0x10000},
        {"AINPUT_SOURCE_MOUSE_RELATIVE", 0x20000},
        {"AINPUT_SOURCE_TOUCHPAD", 0x100000},
        {"AINPUT_SOURCE_TOUCH_NAVIGATION", 0x200000},
        {"AINPUT_SOURCE_JOYSTICK", 0x1000000},
        {"AINPUT_SOURCE_ROTARY_ENCODER", 0x400000},
};

/** The input-source half of usbClassTable, by code. */
inline const std::map<int32_t, std::string> inputSourceNames = [] {
    std::map<int32_t, std::string> names;
    for (const ClassName& row : usbClassTable) {
        if (row.code >= kFirstInputSource) names.emplace(row.code, row.name);
    }
    return names;
}();

/**
 * Classes that say nothing of what a device does, or that the input side judges: no rule can
 * name them, and the class test passes over them.
 */
inline const std::vector<int32_t> restrictedClasses = {0, 3, 9, 239, 254, 255};

/** The product id of a vendor rule that names no product. */
inline constexpr int32_t ANY_PRODUCT_ID = -1;

/** Class and input-source codes in file order, repeats kept. A question allocates nothing. */
class ClassRules {
  public:
    using value_type = int32_t;
    using const_iterator = std::vector<int32_t>::const_iterator;

    ClassRules() = default;
    ClassRules(std::initializer_list<int32_t> codes) {
        for (const int32_t code : codes) push_back(code);
    }

    void push_back(int32_t code) {
        codes_.push_back(code);
        const auto place = std::lower_bound(distinct_.begin(), distinct_.end(), code);
        if (place == distinct_.end() || *place != code) distinct_.insert(place, code);
    }

    /** Costs the same however often a file repeats its codes. */
    bool contains(int32_t code) const {
        return std::binary_search(distinct_.begin(), distinct_.end(), code);
    }

    const_iterator begin() const { return codes_.begin(); }
    const_iterator end() const { return codes_.end(); }
    size_t size() const { return codes_.size(); }
    bool empty() const { return codes_.empty(); }
    bool operator==(const ClassRules& other) const { return codes_ == other.codes_; }

  private:
    std::vector<int32_t> codes_;
    std::vector<int32_t> distinct_;  // ascending
};

/** Vendor id, and product id or ANY_PRODUCT_ID. */
using VendorRule = std::pair<int32_t, int32_t>;

/**
 * The vendor rules of one file: an ordered multimap in two blocks of memory, which is filled once.
 *
 * Ordered by vendor id, those of one vendor in file order, repeats kept. A question costs the
 * logarithm of their number and allocates nothing.
 */
class VendorRules {
  public:
    using value_type = VendorRule;
    using const_iterator = std::vector<VendorRule>::const_iterator;

    VendorRules() = default;
    VendorRules(std::initializer_list<VendorRule> rules)
        : VendorRules(std::vector<VendorRule>(rules)) {}
    /** From rules in file order. */
    explicit VendorRules(const std::vector<VendorRule>& rules);

    bool contains(const VendorRule& rule) const {
        return std::binary_search(pairs_.begin(), pairs_.end(), keyOf(rule.first, rule.second));
    }

    bool hasVendor(int32_t vendorId) const {
        const auto own = std::lower_bound(pairs_.begin(), pairs_.end(), keyOf(vendorId, INT32_MIN));
        return own != pairs_.end() && *own <= keyOf(vendorId, INT32_MAX);
    }

    /** Is there a rule without products of this vendor id or a larger one? */
    bool hasVendorOnlyFrom(int32_t vendorId) const {
        return lastVendorOnly_ && *lastVendorOnly_ >= vendorId;
    }

    const_iterator begin() const { return rules_.begin(); }
    const_iterator end() const { return rules_.end(); }
    size_t size() const { return rules_.size(); }
    bool empty() const { return rules_.empty(); }
    bool operator==(const VendorRules& other) const { return rules_ == other.rules_; }

  private:
    // Two ids in one number that sorts as they do.
    static uint64_t keyOf(int32_t high, int32_t low) {
        const auto shifted = [](int32_t id) { return static_cast<uint32_t>(id) ^ 0x80000000; };
        return uint64_t{shifted(high)} << 32 | shifted(low);
    }

    std::vector<VendorRule> rules_;
    std::vector<uint64_t> pairs_;  // the rules' keys, ascending
    std::optional<int32_t> lastVendorOnly_;
};

inline VendorRules::VendorRules(const std::vector<VendorRule>& rules) {
    // Numbers sort in half the time of records: first with the place in the file below the vendor,
    // which keeps the order of equal vendors.
    pairs_.reserve(rules.size());
    for (const VendorRule& rule : rules) {
        pairs_.push_back(keyOf(rule.first, static_cast<int32_t>(pairs_.size())));
    }
    std::sort(pairs_.begin(), pairs_.end());

    rules_.reserve(rules.size());
    for (uint64_t& key : pairs_) {
        const auto& [vendor, product] = rules[static_cast<uint32_t>(key) ^ 0x80000000];
        rules_.emplace_back(vendor, product);
        key = keyOf(vendor, product);
        if (product == ANY_PRODUCT_ID) lastVendorOnly_ = vendor;
    }
    std::sort(pairs_.begin(), pairs_.end());
}

/** Held while the rules are asked or replaced, so that all answers are of one file. */
inline Mutex rulesLock;
/** The last "mode" attribute read, valid or not; "default" before the first. */
inline std::string configMode GUARDED_BY(rulesLock) = "default";
inline ClassRules configClassList GUARDED_BY(rulesLock);
/** Code to the text that named it first. */
inline std::map<int32_t, std::string> configClassMap GUARDED_BY(rulesLock);
inline VendorRules vidPidMap GUARDED_BY(rulesLock);
/**
 * The text of the last rule that failed. The parser itself never clears it; the observer sets
 * "SUCCESS" after a good parse.
 */
inline std::string errorMessage = "SUCCESS";
/** True when the file that was parsed last is whole. */
inline bool xml_parse_status = false;

/** Held while the lists below or the registry of clients are used. */
inline Mutex listLock;
/**
 * The judged devices by device id. Internal linkage is meant: each source file has a pair of its
 * own, and only the pair of ku_service.cpp is ever used.
 */
static std::map<int32_t, std::unique_ptr<DeviceInfo>> mUsbDeviceInfoList GUARDED_BY(listLock);
static std::map<int32_t, std::unique_ptr<DeviceInfo>> mInputDeviceInfoList GUARDED_BY(listLock);

}  // namespace android::kus
