// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "android/kus/constants.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/ku_service.h"
#include "android/kus/util.h"
#include "tests/constants_second_unit.h"
#include "tests/support/process.h"

namespace android::kus::test {

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr unsigned int kNoCode = 0xFFFFFFFF;

struct NamedCode {
    std::string name;
    int32_t code;
};

const std::vector<NamedCode> kUsbClasses = {
        {"USB_CLASS_PER_INTERFACE", 0}, {"USB_CLASS_AUDIO", 1},
        {"USB_CLASS_COMM", 2},          {"USB_CLASS_HID", 3},
        {"USB_CLASS_PHYSICA", 5},       {"USB_CLASS_STILL_IMAGE", 6},
        {"USB_CLASS_PRINTER", 7},       {"USB_CLASS_MASS_STORAGE", 8},
        {"USB_CLASS_HUB", 9},           {"USB_CLASS_CDC_DATA", 10},
        {"USB_CLASS_CSCID", 11},        {"USB_CLASS_CONTENT_SEC", 13},
        {"USB_CLASS_VIDEO", 14},        {"USB_CLASS_WIRELESS_CONTROLLER", 224},
        {"USB_CLASS_MISC", 239},        {"USB_CLASS_APP_SPEC", 254},
        {"USB_CLASS_VENDOR_SPEC", 255},
};

const std::vector<NamedCode> kInputSources = {
        {"AINPUT_SOURCE_KEYBOARD", 0x100},     {"AINPUT_SOURCE_DPAD", 0x200},
        {"AINPUT_SOURCE_GAMEPAD", 0x400},      {"AINPUT_SOURCE_TOUCHSCREEN", 0x1000},
        {"AINPUT_SOURCE_MOUSE", 0x2000},       {"AINPUT_SOURCE_STYLUS", 0x4000},
        {"AINPUT_SOURCE_TRACKBALL", 0x10000},  {"AINPUT_SOURCE_MOUSE_RELATIVE", 0x20000},
        {"AINPUT_SOURCE_TOUCHPAD", 0x100000},  {"AINPUT_SOURCE_TOUCH_NAVIGATION", 0x200000},
        {"AINPUT_SOURCE_JOYSTICK", 0x1000000}, {"AINPUT_SOURCE_ROTARY_ENCODER", 0x400000},
};

std::vector<NamedCode> allNamedCodes() {
    std::vector<NamedCode> all = kUsbClasses;
    all.insert(all.end(), kInputSources.begin(), kInputSources.end());
    return all;
}

class LoudDevice : public DeviceInfo {
  public:
    explicit LoudDevice(std::string lastWord) : lastWord_(std::move(lastWord)) {}
    ~LoudDevice() override { dprintf(STDERR_FILENO, "%s\n", lastWord_.c_str()); }

  private:
    std::string lastWord_;
};

// --- Paths -------------------------------------------------------------------------------------

TEST(FixedPaths, AreThoseOfTheTerminal) {
    EXPECT_STREQ("/data/system/usbdeviceconfig", configDirPath);
    EXPECT_STREQ("/data/system/usbdeviceconfig/usb_device_config.xml", configFilePath);
    EXPECT_STREQ("/data/system/usbdeviceconfig/usb_device_config_backup.xml", backupFilePath);
    EXPECT_STREQ("/data/system/usbdeviceconfig/status.txt", statusFilePath);
}

TEST(FixedPaths, StatusFilePathIsAPointerToConstantText) {
    EXPECT_TRUE((std::is_same_v<const char*, std::remove_const_t<decltype(statusFilePath)>>));
}

// --- Rule and status variables -----------------------------------------------------------------

TEST(RuleVariables, HaveTheirTypes) {
    EXPECT_TRUE((std::is_same_v<std::string, decltype(configMode)>));
    EXPECT_TRUE((std::is_same_v<ClassRules, decltype(configClassList)>));
    EXPECT_TRUE((std::is_same_v<std::map<int32_t, std::string>, decltype(configClassMap)>));
    EXPECT_TRUE((std::is_same_v<VendorRules, decltype(vidPidMap)>));
    EXPECT_TRUE((std::is_same_v<std::string, decltype(errorMessage)>));
    EXPECT_TRUE((std::is_same_v<bool, decltype(xml_parse_status)>));
}

TEST(RuleVariables, AreConstructedWithTheirInitialValuesBeforeMain) {
    const StateBeforeMain& state = StateBeforeMainInSecondUnit();

    EXPECT_EQ("default", state.mode);
    EXPECT_EQ(0u, state.classListSize);
    EXPECT_EQ(0u, state.classMapSize);
    EXPECT_EQ(0u, state.vidPidMapSize);
    EXPECT_EQ("SUCCESS", state.error);
    EXPECT_FALSE(state.parsed);
}

TEST(RuleVariables, KeepTheirInitialValuesUntilTheFirstParse) {
    EXPECT_EQ("default", configMode);
    EXPECT_THAT(configClassList, IsEmpty());
    EXPECT_THAT(configClassMap, IsEmpty());
    EXPECT_THAT(vidPidMap, IsEmpty());
    EXPECT_EQ("SUCCESS", errorMessage);
    EXPECT_FALSE(xml_parse_status);
}

TEST(RuleVariables, ExistOnceInTheProcess) {
    const std::vector<const void*> here = {&configMode,        &configClassList,  &configClassMap,
                                           &vidPidMap,         &errorMessage,     &xml_parse_status,
                                           &restrictedClasses, &inputSourceNames, &statusFilePath};

    EXPECT_EQ(here, SharedAddressesInSecondUnit());
}

TEST(RuleVariables, AreTheOnesThatTheLookupsRead) {
    configMode = "blacklist";
    configClassList = {8};
    vidPidMap = {{1133, -1}};

    EXPECT_EQ("blacklist", Util::getMode());
    EXPECT_TRUE(Util::validateClass(8));
    EXPECT_TRUE(Util::validateVid(1133));

    configMode = "default";
    configClassList = {};
    vidPidMap = {};
}

// --- Device maps -------------------------------------------------------------------------------

TEST(DeviceMaps, HaveTheirTypes) {
    using Devices = std::map<int32_t, std::unique_ptr<DeviceInfo>>;
    EXPECT_TRUE((std::is_same_v<Devices, decltype(mUsbDeviceInfoList)>));
    EXPECT_TRUE((std::is_same_v<Devices, decltype(mInputDeviceInfoList)>));
}

TEST(DeviceMaps, AreEmptyAtStart) {
    EXPECT_EQ(0u, StateBeforeMainInSecondUnit().usbDeviceCount);
    EXPECT_EQ(0u, StateBeforeMainInSecondUnit().inputDeviceCount);
    EXPECT_THAT(mUsbDeviceInfoList, IsEmpty());
    EXPECT_THAT(mInputDeviceInfoList, IsEmpty());
}

TEST(DeviceMaps, ArePerSourceFile) {
    const std::vector<const void*> second = DeviceMapAddressesInSecondUnit();
    const std::set<const void*> distinct = {&mUsbDeviceInfoList, &mInputDeviceInfoList, second[0],
                                            second[1]};

    EXPECT_EQ(4u, distinct.size());
}

TEST(DeviceMaps, OfAnotherSourceFileAreUnknownToTheService) {
    mUsbDeviceInfoList.emplace(1005, std::make_unique<DeviceInfo>());
    mInputDeviceInfoList.emplace(7, std::make_unique<DeviceInfo>());
    const sp<KUsbService> service = new KUsbService();
    std::vector<DeviceInfo> listed;

    EXPECT_TRUE(service->getDeviceList(&listed).isOk());

    EXPECT_THAT(listed, IsEmpty());
    mUsbDeviceInfoList.clear();
    mInputDeviceInfoList.clear();
}

TEST(DeviceMaps, DestroyTheRecordsThatTheyOwn) {
    const ProcessResult result = RunInChild([] {
        std::map<int32_t, std::unique_ptr<DeviceInfo>> devices;
        devices.emplace(1005, std::make_unique<LoudDevice>("gone"));
        mUsbDeviceInfoList = std::move(devices);
        mUsbDeviceInfoList.erase(1005);
    });

    EXPECT_EQ(0, result.status);
    EXPECT_EQ("gone\n", result.err);
}

TEST(DeviceMaps, AreDestroyedAtProcessExit) {
    const ProcessResult result = RunInChild([] {
        mUsbDeviceInfoList.emplace(1005, std::make_unique<LoudDevice>("USB device gone"));
        mInputDeviceInfoList.emplace(7, std::make_unique<LoudDevice>("input device gone"));
        exit(EXIT_SUCCESS);
    });

    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.err, HasSubstr("USB device gone\n"));
    EXPECT_THAT(result.err, HasSubstr("input device gone\n"));
}

// --- Constant tables ---------------------------------------------------------------------------

TEST(RestrictedClasses, AreExactlySixInTheirOrder) {
    EXPECT_THAT(restrictedClasses, ElementsAre(0, 3, 9, 239, 254, 255));
    EXPECT_EQ(6u, StateBeforeMainInSecondUnit().restrictedClassCount);
}

TEST(RestrictedClasses, HoldEachOfTheByteCodesOrNot) {
    const std::set<unsigned int> restricted = {0, 3, 9, 239, 254, 255};
    for (unsigned int code = 0; code <= 300; code++) {
        EXPECT_EQ(restricted.count(code) > 0, Util::validateRestrictedClass(code)) << code;
    }
}

TEST(InputSourceNames, AreTheTwelveInputRowsByCode) {
    EXPECT_THAT(
            inputSourceNames,
            ElementsAre(Pair(0x100, "AINPUT_SOURCE_KEYBOARD"), Pair(0x200, "AINPUT_SOURCE_DPAD"),
                        Pair(0x400, "AINPUT_SOURCE_GAMEPAD"),
                        Pair(0x1000, "AINPUT_SOURCE_TOUCHSCREEN"),
                        Pair(0x2000, "AINPUT_SOURCE_MOUSE"), Pair(0x4000, "AINPUT_SOURCE_STYLUS"),
                        Pair(0x10000, "AINPUT_SOURCE_TRACKBALL"),
                        Pair(0x20000, "AINPUT_SOURCE_MOUSE_RELATIVE"),
                        Pair(0x100000, "AINPUT_SOURCE_TOUCHPAD"),
                        Pair(0x200000, "AINPUT_SOURCE_TOUCH_NAVIGATION"),
                        Pair(0x400000, "AINPUT_SOURCE_ROTARY_ENCODER"),
                        Pair(0x1000000, "AINPUT_SOURCE_JOYSTICK")));
}

TEST(InputSourceNames, AreBuiltBeforeMain) {
    EXPECT_EQ(12u, StateBeforeMainInSecondUnit().inputSourceCount);
}

TEST(UsbClassTable, HasItsRowsInTheirOrder) {
    std::vector<std::pair<std::string, int32_t>> expected;
    for (const NamedCode& row : allNamedCodes()) expected.emplace_back(row.name, row.code);
    std::vector<std::pair<std::string, int32_t>> rows;
    for (const auto& row : usbClassTable) rows.emplace_back(row.name, row.code);

    EXPECT_THAT(rows, ElementsAreArray(expected));
}

TEST(UsbClassTable, YieldsTheCodeOfEachName) {
    for (const NamedCode& row : allNamedCodes()) {
        EXPECT_EQ(static_cast<unsigned int>(row.code), Util::convert(row.name)) << row.name;
    }
}

TEST(UsbClassTable, YieldsTheNameOfEachCode) {
    for (const NamedCode& row : allNamedCodes()) {
        EXPECT_EQ(row.name, Util::getClassName(row.code)) << row.code;
    }
}

TEST(UsbClassTable, YieldsMinusOneForAnyOtherText) {
    const std::vector<std::string> texts = {
            "",
            " ",
            "USB_CLASS_PHYSICAL",
            "USB_CLASS_PHYSIC",
            "usb_class_hid",
            "Usb_Class_Hid",
            "USB_CLASS_HI",
            "USB_CLASS_HIDE",
            " USB_CLASS_HID",
            "USB_CLASS_HID ",
            "USB_CLASS_HID\n",
            std::string("USB_CLASS_HID\0", 14),
            "HID",
            "USB_CLASS_",
            "ainput_source_mouse",
            "AINPUT_SOURCE_MOUSE_",
            "AINPUT_SOURCE_ANY",
            "0",
            "8",
            "256",
    };
    for (const std::string& text : texts) {
        EXPECT_EQ(kNoCode, Util::convert(text)) << "\"" << text << "\"";
    }
}

TEST(UsbClassTable, SpellsThePhysicalClassWithoutItsFinalL) {
    EXPECT_EQ(5u, Util::convert("USB_CLASS_PHYSICA"));
    EXPECT_EQ("USB_CLASS_PHYSICA", Util::getClassName(5));
}

TEST(UsbClassTable, HasNoOtherNamesBelowTheInputSources) {
    std::set<int32_t> named;
    for (const NamedCode& row : kUsbClasses) named.insert(row.code);
    for (int32_t code = 0; code < 0x100; code++) {
        EXPECT_EQ(named.count(code) == 0, Util::getClassName(code) == " ") << code;
    }
}

TEST(UsbClassTable, YieldsOneBlankForAnyOtherCode) {
    const std::vector<int32_t> codes = {4,         12,      300,       -1,      INT_MIN,
                                        INT_MAX,   0x101,   0x300,     0x800,   0x8000,
                                        0x1000100, 0x40000, 0x2000000, 0x800000};
    for (const int32_t code : codes) EXPECT_EQ(" ", Util::getClassName(code)) << code;
}

}  // namespace

}  // namespace android::kus::test
