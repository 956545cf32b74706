// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <stddef.h>
#include <stdint.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "android/kus/usbdevice.h"
#include "tests/support/fake_callback.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"

namespace android::kus::test {

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int32_t kUsb = 0;
constexpr int32_t kInput = 1;

// Bus 1, device 5.
constexpr int32_t kId = 1005;
constexpr int32_t kVendor = 0x046d;
constexpr int32_t kProduct = 0xc025;

constexpr int32_t kKeyboard = 0x100;
constexpr int32_t kMouse = 0x2000;
constexpr int32_t kMouseRelative = 0x20000;
// The platform's own constants carry a source class in their low bits.
constexpr int32_t kKeyboardSource = kKeyboard | 0x01;
constexpr int32_t kMouseSource = kMouse | 0x02;

constexpr char kHidDirectory[] = "0003:046D:C025.0001";
constexpr char kScreened[] = "The HID device is controlled by Input Subsystem  ";
constexpr char kBlocking[] = "isDeviceAllowed called and updating status authorized to 0";

constexpr char kVendorFound[] =
        "Found VID : 1133 without any pid associated inside admin config list.";

constexpr char kByDefault[] = "Enabled by default rule";
constexpr char kNotWhitelisted[] = "No matching rule found to Whitelist the device";
constexpr char kNotBlacklisted[] = "No matching rule found to Blacklist the device";

DeviceInfo makeUsb(std::vector<int32_t> interfaceClasses) {
    DeviceInfo info;
    info.deviceName = "Device";
    info.deviceId = kId;
    info.interfaceClasses = std::move(interfaceClasses);
    info.vendorId = kVendor;
    info.productId = kProduct;
    info.deviceType = kUsb;
    return info;
}

DeviceInfo makeInput(int32_t source) {
    DeviceInfo info = makeUsb({});
    info.deviceName = "Input";
    info.deviceId = 7;
    info.deviceClass = source;
    info.deviceType = kInput;
    return info;
}

std::string authorizedOf(const std::string& interface) {
    return ReadFile("/sys/bus/usb/devices/" + interface + "/authorized");
}

// --- Expected log lines ------------------------------------------------------------------------

using LogLines = std::vector<LogLine>;

LogLines concatenate(const std::vector<LogLines>& parts) {
    LogLines all;
    for (const LogLines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

LogLines infos(const std::vector<std::string>& texts) {
    LogLines lines;
    for (const std::string& text : texts) lines.push_back(Info(text));
    return lines;
}

// A rescan that finds the one interface that PlugIn({code}) makes.
LogLines rescan(const std::string& code) {
    return infos({"create_usb_device_map called", "deleting the list using deleteAllnode",
                  "***Entered empty_list******", "print_deviceid_map ",
                  " DeviceId: 1005 Interface name:1-5:1.0 class:" + code +
                          " Vendor ID:1133 Product ID:49189",
                  "create_usb_device_map returned check loop"});
}

// The same for a HID interface, whose directory is looked into.
LogLines hidRescan(bool isVendorHid) {
    LogLines lines = rescan("3");
    LogLines search = infos({" new path of subdir for HID:/sys/bus/usb/devices/1-5:1.0/" +
                             std::string(kHidDirectory)});
    if (isVendorHid) search.push_back(Info("vendor HID device found"));
    lines.insert(lines.begin() + 1, search.begin(), search.end());
    return lines;
}

LogLines blocking() {
    return infos({kBlocking, "update_status path with deviceId 1005 status:0",
                  "Found deviceId in native list : 1005\t interface path1-5:1.0",
                  "update_status path is :/sys/bus/usb/devices/1-5:1.0/authorized"});
}

LogLines recording(const std::string& category, const std::string& path) {
    return infos({"get_deviceid_data() with deviceId : 1005size--1",
                  "Found deviceid  : 1005device : 1-5:1.0",
                  "Device device added to mUsbDeviceInfoList ", "custom_struct size is 1",
                  " device category  " + category + " categoryPath " + path});
}

// The look for a vendor HID among the device's one interface.
LogLines vendorHidQuestion(const std::string& category) {
    return infos({"check_vendor_hid 1005",
                  "Found deviceId in native list : 1005\t interface path1-5:1.0 device category" +
                          category});
}

LogLines verdict(bool allowed) {
    return infos({allowed ? "isDeviceAllowed res val:1" : "isDeviceAllowed res val:0"});
}

// The summary lines of devices that makeUsb() and makeInput() make.
LogLines usbSummary(const std::string& mode, size_t interfaces, bool allowed,
                    const std::string& reason) {
    return infos({"isDeviceAllowed called with mode: " + mode +
                  " DeviceInfo:= { DeviceId:1005, DeviceName: Device, ClassName: "
                  "USB_CLASS_PER_INTERFACE[ 0 ], InterfaceClassCount: " +
                  std::to_string(interfaces) + ", VendorId: 1133, ProductId: 49189, Status: " +
                  (allowed ? "1" : "0") + ", Reason: " + reason + " }"});
}

LogLines inputSummary(const std::string& mode, const std::string& className, bool allowed,
                      const std::string& reason) {
    return infos({"Input device added to mInputDeviceInfoList",
                  "isDeviceAllowed called with mode: " + mode +
                          " DeviceInfo:= { DeviceId:7, DeviceName: Input, ClassName: " + className +
                          ", InterfaceClassCount: 0, VendorId: 1133, ProductId: 49189, Status: " +
                          (allowed ? "1" : "0") + ", Reason: " + reason + " }"});
}

class DecisionTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        client = AddClient();
    }

    // Makes the device's tree with interfaces 1-5:1.0, 1-5:1.1, ... of these classes.
    static void PlugIn(const std::vector<std::string>& classes) {
        AddBus(1);
        AddDevice("1-5", 1, 5, "046d", "c025");
        for (size_t i = 0; i < classes.size(); ++i) {
            AddInterface("1-5:1." + std::to_string(i), classes[i]);
        }
    }

    static void PlugInHid(bool isVendorHid) {
        AddBus(1);
        AddDevice("1-5", 1, 5, "046d", "c025");
        const std::string interface = AddInterface("1-5:1.0", "03");
        const std::string hid = interface + "/" + kHidDirectory;
        MakeDir(isVendorHid ? hid + "/hidraw" : hid + "/input/input4");
    }

    // Compares what is logged while the device is judged.
    void ExpectLog(const DeviceInfo& info, const std::vector<LogLines>& parts) {
        log.Take();
        Judge(info);
        EXPECT_THAT(log.Take(), ElementsAreArray(concatenate(parts)));
    }

    bool Judge(const DeviceInfo& info) {
        bool result = false;
        EXPECT_TRUE(service->isDeviceAllowed(info, &result).isOk());
        return result;
    }

    // Judges the device, takes it off the lists again, and returns the reason it was listed with.
    std::string ReasonOf(const DeviceInfo& info) {
        const bool allowed = Judge(info);
        const std::vector<DeviceInfo> devices = Devices();
        EXPECT_THAT(devices, SizeIs(1));
        if (devices.size() != 1) return "";
        EXPECT_EQ(allowed ? 1 : 0, devices[0].status);
        service->updateDeviceList(info, 0);
        return (allowed ? "yes: " : "no: ") + devices[0].reason;
    }

    sp<FakeCallback> client;
};

// --- The automation switch ---------------------------------------------------------------------

using AutomationSwitch = DecisionTest;

TEST_F(AutomationSwitch, AllowsEveryDeviceInEveryModeAndDoesNothingElse) {
    PlugIn({"08"});
    SetProperty(kAutomationProperty, "1");
    UsbDevice::DeviceIdMap.emplace(4004, DeviceIdEntry{});
    for (const char* mode : {"default", "whitelist", "blacklist", "other"}) {
        for (const DeviceInfo& info : {makeUsb({8}), makeUsb({3}), makeUsb({}), makeInput(0x101)}) {
            SCOPED_TRACE(mode + (" " + Text(info)));
            configMode = mode;
            vidPidMap = {{kVendor, -1}};
            log.Take();
            EXPECT_TRUE(Judge(info));
            EXPECT_THAT(log.Take(),
                        ElementsAre(Info("isDeviceAllowed::Automation flag set, return")));
        }
    }
    EXPECT_THAT(Devices(), IsEmpty());
    EXPECT_THAT(client->Events(), IsEmpty());
    EXPECT_EQ("1\n", authorizedOf("1-5:1.0"));
    EXPECT_EQ(1U, UsbDevice::DeviceIdMap.count(4004));
}

TEST_F(AutomationSwitch, IsOffForEveryOtherValue) {
    configMode = "whitelist";
    for (const char* value : {"0", "2", "-1", "", "true", "11"}) {
        SCOPED_TRACE(value);
        SetProperty(kAutomationProperty, value);
        EXPECT_FALSE(Judge(makeUsb({8})));
    }
}

TEST_F(AutomationSwitch, IsReadAtEachCall) {
    configMode = "whitelist";
    EXPECT_FALSE(Judge(makeUsb({8})));
    SetProperty(kAutomationProperty, "1");
    EXPECT_TRUE(Judge(makeUsb({8})));
    SetProperty(kAutomationProperty, "0");
    EXPECT_FALSE(Judge(makeUsb({8})));
}

// --- HID screening -----------------------------------------------------------------------------

using HidScreening = DecisionTest;

TEST_F(HidScreening, RefusesWithoutARecordInEveryMode) {
    PlugInHid(/*isVendorHid=*/false);
    for (const char* mode : {"default", "whitelist", "blacklist", "other"}) {
        for (const std::vector<int32_t>& classes :
             std::vector<std::vector<int32_t>>{{3}, {3, 3}, {}}) {
            SCOPED_TRACE(mode + (" " + std::to_string(classes.size())));
            configMode = mode;
            // Rules that would let it pass, and block it.
            vidPidMap = {{kVendor, -1}};
            configClassList = {3};
            ExpectLog(makeUsb(classes),
                      {hidRescan(false), vendorHidQuestion("0"), infos({kScreened})});
            EXPECT_FALSE(Judge(makeUsb(classes)));
        }
    }
    EXPECT_THAT(Devices(), IsEmpty());
    EXPECT_THAT(client->Events(), IsEmpty());
    EXPECT_EQ("1\n", authorizedOf("1-5:1.0"));
}

TEST_F(HidScreening, LetsAVendorHidPass) {
    PlugInHid(/*isVendorHid=*/true);
    for (const std::vector<int32_t>& classes : std::vector<std::vector<int32_t>>{{3}, {3, 3}, {}}) {
        SCOPED_TRACE(classes.size());
        EXPECT_EQ("yes: Enabled by default rule", ReasonOf(makeUsb(classes)));
    }
}

TEST_F(HidScreening, AsksForTheVendorHidOfTheVeryDevice) {
    PlugInHid(/*isVendorHid=*/true);
    DeviceInfo other = makeUsb({3});
    other.deviceId = 1006;
    EXPECT_FALSE(Judge(other));
    EXPECT_EQ(1, log.CountOf(Info(kScreened)));
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(HidScreening, RefusesADeviceThatIsGone) {
    EXPECT_FALSE(Judge(makeUsb({3})));
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(HidScreening, EndsAtTheFirstOtherClass) {
    struct Case {
        std::vector<int32_t> classes;
        std::string line;
    };
    const std::vector<Case> cases = {
            {{8}, "class is 8not HID"},       {{3, 8}, "class is 8not HID"},
            {{3, 3, 1}, "class is 1not HID"}, {{7, 8, 3}, "class is 7not HID"},
            {{0}, "class is 0not HID"},       {{-1, 8}, "class is -1not HID"},
            {{255}, "class is 255not HID"},
    };
    PlugInHid(/*isVendorHid=*/false);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        // No question for a vendor HID behind the rescan.
        ExpectLog(makeUsb(c.classes),
                  {infos({c.line}), hidRescan(false), verdict(true), recording("0", "empty;"),
                   usbSummary("default", c.classes.size(), true, kByDefault)});
    }
}

TEST_F(HidScreening, IsNotForInputDevices) {
    PlugInHid(/*isVendorHid=*/false);
    for (const int32_t type : {1, 2, -1}) {
        for (const std::vector<int32_t>& classes :
             std::vector<std::vector<int32_t>>{{3}, {3, 8}, {}}) {
            DeviceInfo info = makeInput(kKeyboardSource);
            info.deviceType = type;
            info.interfaceClasses = classes;
            SCOPED_TRACE(Text(info));
            log.Take();
            EXPECT_EQ("yes: Enabled by default rule", ReasonOf(info));
            EXPECT_EQ(0, log.CountOf(Info("create_usb_device_map called")));
            EXPECT_EQ(0, log.CountOf(Info("check_vendor_hid 7")));
        }
    }
}

// --- Rescans -----------------------------------------------------------------------------------

using Rescan = DecisionTest;

TEST_F(Rescan, IsMadeOncePerUsbDevice) {
    PlugInHid(/*isVendorHid=*/true);
    for (const char* mode : {"default", "whitelist", "blacklist"}) {
        for (const std::vector<int32_t>& classes :
             std::vector<std::vector<int32_t>>{{}, {3}, {3, 3}, {8}, {3, 8}, {8, 7, 1}}) {
            SCOPED_TRACE(mode + (" " + std::to_string(classes.size())));
            configMode = mode;
            log.Take();
            Judge(makeUsb(classes));
            EXPECT_EQ(1, log.CountOf(Info("create_usb_device_map called")));
        }
    }
}

TEST_F(Rescan, IsNotMadeForInputDevices) {
    PlugIn({"08"});
    UsbDevice::DeviceIdMap.emplace(4004, DeviceIdEntry{});
    for (const char* mode : {"default", "whitelist", "blacklist"}) {
        SCOPED_TRACE(mode);
        configMode = mode;
        log.Take();
        Judge(makeInput(kKeyboardSource));
        EXPECT_EQ(0, log.CountOf(Info("create_usb_device_map called")));
    }
    EXPECT_THAT(UsbDevice::DeviceIdMap, SizeIs(1));
}

TEST_F(Rescan, ReplacesWhatWasKnown) {
    PlugIn({"08"});
    UsbDevice::DeviceIdMap.emplace(4004, DeviceIdEntry{});
    Judge(makeUsb({8}));
    EXPECT_EQ(0U, UsbDevice::DeviceIdMap.count(4004));
    EXPECT_EQ(1U, UsbDevice::DeviceIdMap.count(kId));
}

TEST_F(Rescan, MayFindNoDirectory) {
    configMode = "whitelist";
    configClassList = {8};
    EXPECT_EQ("yes: Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
              ReasonOf(makeUsb({8})));
}

// --- The decision table ------------------------------------------------------------------------

enum class Rule { kNone, kClass, kVendor, kPair };
enum class Kind { kStick, kVendorHid, kInputDevice };

struct Row {
    std::string mode;
    Rule rule;
    bool allowed;
    std::string reason;
};

constexpr char kNames[] = "<names>";

const std::vector<Row> kRows = {
        {"default", Rule::kNone, true, kByDefault},
        {"default", Rule::kClass, true, kByDefault},
        {"default", Rule::kVendor, true, kByDefault},
        {"default", Rule::kPair, true, kByDefault},
        {"blacklist", Rule::kNone, true, kNotBlacklisted},
        {"blacklist", Rule::kClass, false, "Blacklisted: Match by ClassName, CLASS : <names>"},
        {"blacklist", Rule::kVendor, false, "Blacklisted: Match by VID, VID : 1133"},
        {"blacklist", Rule::kPair, false,
         "Blacklisted: Match by VID_PID combination, VID : 1133 PID: 49189"},
        {"whitelist", Rule::kNone, false, kNotWhitelisted},
        {"whitelist", Rule::kClass, true, "Whitelisted: Match by ClassName, CLASS : <names>"},
        {"whitelist", Rule::kVendor, true, "Whitelisted: Match by VID, VID : 1133"},
        {"whitelist", Rule::kPair, true,
         "Whitelisted: Match by VID_PID combination, VID : 1133 PID: 49189"},
};

// Modes that no valid file has, and which are whitelists all the same.
const std::map<std::string, std::string> kOtherModes = {
        {"Empty", ""},
        {"CapitalWhitelist", "Whitelist"},
        {"AllCapitalWhitelist", "WHITELIST"},
        {"CapitalDefault", "Default"},
        {"DefaultAndBlank", "default "},
        {"BlankAndDefault", " default"},
        {"CutDefault", "defaul"},
        {"DefaultAndZero", std::string("default\0", 8)},
        {"CapitalBlacklist", "Blacklist"},
        {"BlacklistAndBlank", "blacklist "},
        {"BlacklistAndNewline", "blacklist\n"},
        {"BlacklistAndZero", std::string("blacklist\0", 10)},
        {"Nonsense", "nonsense"},
};

struct Setting {
    Kind kind;
    Row row;
    std::string name;
};

// The test runner knows a setting by this.
void PrintTo(const Setting& setting, std::ostream* os) {
    *os << setting.name;
}

class DecisionTable : public DecisionTest, public ::testing::WithParamInterface<Setting> {
  protected:
    static DeviceInfo MakeDevice(Kind kind) {
        if (kind == Kind::kInputDevice) return makeInput(kKeyboardSource);
        PlugInHid(/*isVendorHid=*/true);
        AddInterface("1-5:1.1", "08");
        if (kind == Kind::kStick) return makeUsb({3, 8});
        // Without interface classes the device class is taken for a source.
        DeviceInfo info = makeUsb({});
        info.deviceClass = kKeyboard;
        return info;
    }

    static void SetRule(Rule rule) {
        if (rule == Rule::kClass) configClassList = {7, 8, kKeyboard};
        if (rule == Rule::kVendor) vidPidMap = {{1132, 1}, {kVendor, -1}};
        if (rule == Rule::kPair) vidPidMap = {{kVendor, 1}, {kVendor, kProduct}};
    }

    static std::string NamesOf(Kind kind) {
        return kind == Kind::kStick ? "USB_CLASS_MASS_STORAGE " : "AINPUT_SOURCE_KEYBOARD ";
    }
};

TEST_P(DecisionTable, GivesVerdictReasonAndEffects) {
    const auto& [kind, row, name] = GetParam();
    const DeviceInfo info = MakeDevice(kind);
    SetRule(row.rule);
    configMode = row.mode;
    std::string reason = row.reason;
    const size_t names = reason.find(kNames);
    if (names != std::string::npos) reason = reason.substr(0, names) + NamesOf(kind);

    EXPECT_EQ(row.allowed, Judge(info));

    const std::vector<DeviceInfo> devices = Devices();
    ASSERT_THAT(devices, SizeIs(1));
    EXPECT_EQ(reason, devices[0].reason);
    EXPECT_EQ(row.allowed ? 1 : 0, devices[0].status);
    EXPECT_EQ(info.deviceType, devices[0].deviceType);

    const bool isUsb = kind != Kind::kInputDevice;
    EXPECT_EQ(
            isUsb ? std::vector<std::string>{"+ " + Text(devices[0])} : std::vector<std::string>{},
            Texts(client->Events()));
    const bool isBlocked = isUsb && !row.allowed;
    EXPECT_EQ(isBlocked ? 1 : 0, log.CountOf(Info(kBlocking)));
    if (isUsb) {
        EXPECT_EQ(isBlocked ? "0\n" : "1\n", authorizedOf("1-5:1.0"));
        EXPECT_EQ(isBlocked ? "0\n" : "1\n", authorizedOf("1-5:1.1"));
    }
}

std::string nameOf(Kind kind) {
    switch (kind) {
        case Kind::kStick:
            return "Stick";
        case Kind::kVendorHid:
            return "VendorHid";
        case Kind::kInputDevice:
            return "InputDevice";
    }
}

std::string nameOf(Rule rule) {
    switch (rule) {
        case Rule::kNone:
            return "NoRule";
        case Rule::kClass:
            return "ClassRule";
        case Rule::kVendor:
            return "VendorRule";
        case Rule::kPair:
            return "PairRule";
    }
}

std::vector<Setting> allSettings() {
    std::vector<Setting> settings;
    for (const Kind kind : {Kind::kStick, Kind::kVendorHid, Kind::kInputDevice}) {
        for (Row row : kRows) {
            const std::string rest = "_" + nameOf(row.rule) + "_" + nameOf(kind);
            settings.push_back({kind, row, row.mode + rest});
            if (row.mode != "whitelist") continue;
            for (const auto& [name, mode] : kOtherModes) {
                row.mode = mode;
                settings.push_back({kind, row, name + rest});
            }
        }
    }
    return settings;
}

INSTANTIATE_TEST_SUITE_P(Settings, DecisionTable, ::testing::ValuesIn(allSettings()),
                         [](const auto& info) { return info.param.name; });

// --- Class test --------------------------------------------------------------------------------

using ClassTest = DecisionTest;

TEST_F(ClassTest, NeedsARuleForEveryClassThatIsNotRestricted) {
    struct Case {
        std::vector<int32_t> classes;
        ClassRules rules;
        std::string reason;
    };
    const std::string match = "yes: Whitelisted: Match by ClassName, CLASS : ";
    const std::string none = "no: " + std::string(kNotWhitelisted);
    const std::vector<Case> cases = {
            {{1}, {1}, match + "USB_CLASS_AUDIO "},
            {{1}, {}, none},
            {{1}, {8}, none},
            {{8, 7}, {7, 8}, match + "USB_CLASS_MASS_STORAGE USB_CLASS_PRINTER "},
            {{7, 8}, {8, 7}, match + "USB_CLASS_PRINTER USB_CLASS_MASS_STORAGE "},
            {{8, 7}, {8}, none},
            {{7, 8}, {8}, none},
            // A name is taken once.
            {{8, 8}, {8}, match + "USB_CLASS_MASS_STORAGE "},
            {{8, 7, 8}, {7, 8}, match + "USB_CLASS_MASS_STORAGE USB_CLASS_PRINTER "},
            // Restricted classes neither match nor spoil a match.
            {{1, 3}, {1}, match + "USB_CLASS_AUDIO "},
            {{3, 1}, {1}, match + "USB_CLASS_AUDIO "},
            {{0, 3, 9, 239, 254, 255, 1}, {1}, match + "USB_CLASS_AUDIO "},
            {{1, 0, 3, 9, 239, 254, 255}, {1}, match + "USB_CLASS_AUDIO "},
            {{0}, {0}, none},
            {{9}, {9}, none},
            {{239}, {239}, none},
            {{254}, {254}, none},
            {{255}, {255}, none},
            {{0, 3, 9, 239, 254, 255}, {0, 3, 9, 239, 254, 255}, none},
            {{1, 3, 7}, {1}, none},
            // A name that is part of another one that stands already is not taken.
            {{kMouseRelative, kMouse},
             {kMouse, kMouseRelative},
             match + "AINPUT_SOURCE_MOUSE_RELATIVE "},
            {{kMouse, kMouseRelative},
             {kMouse, kMouseRelative},
             match + "AINPUT_SOURCE_MOUSE AINPUT_SOURCE_MOUSE_RELATIVE "},
            // The blank that stands for an unknown class stands already.
            {{4}, {4}, match},
            {{4, 1, 300}, {1, 4, 300}, match + "USB_CLASS_AUDIO "},
            {{-1}, {-1}, match},
    };
    configMode = "whitelist";
    for (const Case& c : cases) {
        SCOPED_TRACE(Text(makeUsb(c.classes)));
        configClassList = c.rules;
        EXPECT_EQ(c.reason, ReasonOf(makeUsb(c.classes)));
    }
}

TEST_F(ClassTest, AppliesToInputDevicesWithInterfaceClasses) {
    configMode = "whitelist";
    configClassList = {8, kKeyboard};
    DeviceInfo info = makeInput(kKeyboardSource);
    info.interfaceClasses = {8};
    EXPECT_EQ("yes: Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
              ReasonOf(info));
    info.interfaceClasses = {3};
    EXPECT_EQ("no: " + std::string(kNotWhitelisted), ReasonOf(info));
    vidPidMap = {{kVendor, -1}};
    EXPECT_EQ("yes: Whitelisted: Match by VID, VID : 1133", ReasonOf(info));
}

TEST_F(ClassTest, NeverMatchesAVendorHidByItsInterfaces) {
    PlugInHid(/*isVendorHid=*/true);
    configMode = "whitelist";
    configClassList = {3};
    EXPECT_EQ("no: " + std::string(kNotWhitelisted), ReasonOf(makeUsb({3})));
    vidPidMap = {{kVendor, kProduct}};
    EXPECT_EQ("yes: Whitelisted: Match by VID_PID combination, VID : 1133 PID: 49189",
              ReasonOf(makeUsb({3})));
}

TEST_F(ClassTest, TakesTheDeviceClassOfAVendorHidWithoutInterfacesForASource) {
    PlugInHid(/*isVendorHid=*/true);
    configMode = "whitelist";
    configClassList = {kKeyboard, kMouse};
    DeviceInfo info = makeUsb({});
    EXPECT_EQ("no: " + std::string(kNotWhitelisted), ReasonOf(info));
    info.deviceClass = kKeyboard | kMouse;
    EXPECT_EQ(
            "yes: Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD "
            "AINPUT_SOURCE_MOUSE ",
            ReasonOf(info));
}

TEST_F(ClassTest, NeedsARuleForEverySourceOfAnInputDevice) {
    struct Case {
        int32_t source;
        ClassRules rules;
        std::string reason;
    };
    const std::string match = "yes: Whitelisted: Match by ClassName, CLASS : ";
    const std::string none = "no: " + std::string(kNotWhitelisted);
    const std::vector<Case> cases = {
            {kKeyboardSource, {kKeyboard}, match + "AINPUT_SOURCE_KEYBOARD "},
            {kKeyboardSource, {kMouse}, none},
            {kKeyboardSource, {}, none},
            {kKeyboardSource | kMouseSource,
             {kMouse, kKeyboard},
             match + "AINPUT_SOURCE_KEYBOARD AINPUT_SOURCE_MOUSE "},
            {kKeyboardSource | kMouseSource, {kKeyboard}, none},
            {kKeyboardSource | kMouseSource, {kMouse}, none},
            // No name is left out here.
            {kMouse | kMouseRelative,
             {kMouse, kMouseRelative},
             match + "AINPUT_SOURCE_MOUSE AINPUT_SOURCE_MOUSE_RELATIVE "},
            // Nothing that is known.
            {0, {kKeyboard}, none},
            {0x10, {kKeyboard}, none},
            {0x8000, {kKeyboard, 0x8000}, none},
            // Known bits beside unknown ones.
            {0x8000 | kKeyboard, {kKeyboard}, match + "AINPUT_SOURCE_KEYBOARD "},
            // USB class rules say nothing of sources.
            {8, {8}, none},
    };
    configMode = "whitelist";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.source);
        configClassList = c.rules;
        EXPECT_EQ(c.reason, ReasonOf(makeInput(c.source)));
    }
}

TEST_F(ClassTest, ComesBeforeTheVendorRules) {
    configMode = "whitelist";
    configClassList = {8, kKeyboard};
    vidPidMap = {{kVendor, -1}, {kVendor, kProduct}};
    EXPECT_EQ("yes: Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
              ReasonOf(makeUsb({8})));
    EXPECT_EQ("yes: Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD ",
              ReasonOf(makeInput(kKeyboardSource)));
    EXPECT_EQ(0, log.CountOf(Info(kVendorFound)));
}

// --- Vendor test -------------------------------------------------------------------------------

using VendorTest = DecisionTest;

TEST_F(VendorTest, DecidesWhereTheClassTestDoesNot) {
    struct Case {
        std::vector<VendorRule> rules;
        std::string reason;
    };
    const std::string none = "no: " + std::string(kNotWhitelisted);
    const std::string vendor = "yes: Whitelisted: Match by VID, VID : 1133";
    const std::string pair =
            "yes: Whitelisted: Match by VID_PID combination, VID : 1133 PID: 49189";
    const std::vector<Case> cases = {
            {{}, none},
            {{{1133, -1}}, vendor},
            {{{1133, 49189}}, pair},
            {{{1133, 49189}, {1133, -1}}, vendor},
            {{{1133, -1}, {1133, 49189}}, vendor},
            {{{1133, 1}}, none},
            {{{1134, -1}}, none},
            {{{1134, 49189}}, none},
            {{{1132, -1}}, none},
            {{{49189, 1133}}, none},
            {{{1133, 1}, {1133, 2}, {1133, 49189}}, pair},
            // The search for a vendor without products goes on to larger vendors.
            {{{1133, 1}, {2000, -1}}, vendor},
    };
    configMode = "whitelist";
    // The name that the class test collects for 8 is gone again.
    configClassList = {8};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.rules));
        vidPidMap = VendorRules(c.rules);
        EXPECT_EQ(c.reason, ReasonOf(makeUsb({8, 7})));
        EXPECT_EQ(c.reason, ReasonOf(makeUsb({255})));
        EXPECT_EQ(c.reason, ReasonOf(makeInput(kKeyboardSource)));
        EXPECT_EQ(c.reason, ReasonOf(makeInput(0)));
    }
}

TEST_F(VendorTest, PrintsIdsWithTheirSigns) {
    configMode = "whitelist";
    DeviceInfo info = makeUsb({8});
    info.vendorId = -5;
    info.productId = INT32_MIN;
    vidPidMap = {{-5, INT32_MIN}};
    EXPECT_EQ("yes: Whitelisted: Match by VID_PID combination, VID : -5 PID: -2147483648",
              ReasonOf(info));
    vidPidMap = {{-5, -1}};
    EXPECT_EQ("yes: Whitelisted: Match by VID, VID : -5", ReasonOf(info));
    info.vendorId = INT32_MAX;
    info.productId = 0;
    vidPidMap = {{INT32_MAX, 0}};
    EXPECT_EQ("yes: Whitelisted: Match by VID_PID combination, VID : 2147483647 PID: 0",
              ReasonOf(info));
}

// --- Log lines ---------------------------------------------------------------------------------

using DecisionLog = DecisionTest;

TEST_F(DecisionLog, OfADeviceInDefaultMode) {
    PlugIn({"08"});
    ExpectLog(makeUsb({8}),
              {infos({"class is 8not HID"}), rescan("8"), verdict(true), recording("4", "sdcard;"),
               usbSummary("default", 1, true, kByDefault)});
}

TEST_F(DecisionLog, OfAVendorHidInDefaultMode) {
    PlugInHid(/*isVendorHid=*/true);
    ExpectLog(makeUsb({3}), {hidRescan(true), vendorHidQuestion("8"), verdict(true),
                             recording("8", "empty;"), usbSummary("default", 1, true, kByDefault)});
}

TEST_F(DecisionLog, OfAClassMatchWithARestrictedClass) {
    PlugIn({"01"});
    configMode = "whitelist";
    configClassList = {1};
    ExpectLog(makeUsb({1, 3}),
              {infos({"class is 1not HID"}), rescan("1"),
               infos({"1", "", "Found CLASS : 1 in admin config list", "3", "",
                      "Found CLASS : 3 in restricted class list"}),
               verdict(true), recording("0", "empty;"),
               usbSummary("whitelist", 2, true,
                          "Whitelisted: Match by ClassName, CLASS : USB_CLASS_AUDIO ")});
}

TEST_F(DecisionLog, OfARefusalWithoutAMatch) {
    PlugIn({"08"});
    configMode = "whitelist";
    configClassList = {8};
    ExpectLog(makeUsb({8, 7, 1}), {infos({"class is 8not HID"}), rescan("8"),
                                   infos({"8", "", "Found CLASS : 8 in admin config list", "7", "",
                                          "interface class check false breaking"}),
                                   verdict(false), blocking(), recording("4", "sdcard;"),
                                   usbSummary("whitelist", 3, false, kNotWhitelisted)});
}

TEST_F(DecisionLog, OfARefusalByVendor) {
    PlugIn({"08"});
    configMode = "blacklist";
    vidPidMap = {{kVendor, -1}, {kVendor, kProduct}};
    ExpectLog(makeUsb({8}),
              {infos({"class is 8not HID"}), rescan("8"),
               infos({"8", "", "interface class check false breaking", kVendorFound}),
               verdict(false), blocking(), recording("4", "sdcard;"),
               usbSummary("blacklist", 1, false, "Blacklisted: Match by VID, VID : 1133")});
}

TEST_F(DecisionLog, OfARefusalByVendorAndProduct) {
    PlugIn({"ff"});
    configMode = "blacklist";
    vidPidMap = {{kVendor, kProduct}};
    ExpectLog(makeUsb({255}),
              {infos({"class is 255not HID"}), rescan("255"),
               infos({"255", "", "Found CLASS : 255 in restricted class list",
                      "Found VID_PID : 1133_49189 combination inside admin config list"}),
               verdict(false), blocking(), recording("0", "empty;"),
               usbSummary("blacklist", 1, false,
                          "Blacklisted: Match by VID_PID combination, VID : 1133 PID: 49189")});
}

TEST_F(DecisionLog, OfABlacklistWithoutAMatch) {
    PlugIn({"08"});
    configMode = "blacklist";
    ExpectLog(makeUsb({8}),
              {infos({"class is 8not HID"}), rescan("8"),
               infos({"8", "", "interface class check false breaking"}), verdict(true),
               recording("4", "sdcard;"), usbSummary("blacklist", 1, true, kNotBlacklisted)});
}

TEST_F(DecisionLog, OfAVendorHidWithoutInterfaces) {
    PlugInHid(/*isVendorHid=*/true);
    configMode = "whitelist";
    ExpectLog(makeUsb({}),
              {hidRescan(true), vendorHidQuestion("8"),
               infos({"checkMultiClass key_val0", "checkMultiClass--0", "Key not found", ""}),
               verdict(false), blocking(), recording("8", "empty;"),
               usbSummary("whitelist", 0, false, kNotWhitelisted)});
}

TEST_F(DecisionLog, OfAnInputDeviceInDefaultMode) {
    ExpectLog(makeInput(kKeyboardSource),
              {verdict(true), inputSummary("default", " [ 257 ]", true, kByDefault)});
}

TEST_F(DecisionLog, OfAnInputDeviceOfTwoSources) {
    configMode = "whitelist";
    configClassList = {kMouse, kKeyboard};
    ExpectLog(makeInput(kKeyboardSource | kMouseSource),
              {infos({"checkMultiClass key_val8451", "checkMultiClass--8448", "Key not found", "",
                      "Found CLASS : 256 in admin config list", "HID multiClass check",
                      "Found CLASS : 8192 in admin config list", "HID multiClass check"}),
               verdict(true),
               inputSummary("whitelist", " [ 8451 ]", true,
                            "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD "
                            "AINPUT_SOURCE_MOUSE ")});
}

TEST_F(DecisionLog, OfAnInputDeviceWithARuleForTheFirstOfThreeSources) {
    configMode = "whitelist";
    configClassList = {kKeyboard};
    ExpectLog(makeInput(kKeyboard | kMouse | kMouseRelative),
              {infos({"checkMultiClass key_val139520", "checkMultiClass--139520", "Key not found",
                      "", "Found CLASS : 256 in admin config list", "HID multiClass check",
                      "HID multiClass check", "HID multi class check false breaking"}),
               verdict(false), inputSummary("whitelist", " [ 139520 ]", false, kNotWhitelisted)});
}

TEST_F(DecisionLog, OfAnInputDeviceOfOneKnownSource) {
    configMode = "blacklist";
    configClassList = {kMouse};
    ExpectLog(makeInput(kMouse),
              {infos({"checkMultiClass key_val8192", "checkMultiClass--8192", "Key found", "",
                      "Found CLASS : 8192 in admin config list", "HID multiClass check"}),
               verdict(false),
               inputSummary("blacklist", "AINPUT_SOURCE_MOUSE[ 8192 ]", false,
                            "Blacklisted: Match by ClassName, CLASS : AINPUT_SOURCE_MOUSE ")});
}

TEST_F(DecisionLog, SummarisesNumbersWithTheirSignsButTheClassWithout) {
    DeviceInfo info = makeInput(-1);
    info.deviceName = "";
    info.deviceId = INT32_MIN;
    info.interfaceClasses = {3, 3, -1};
    info.vendorId = -5;
    info.productId = -1;
    info.deviceType = -1;
    log.Take();
    Judge(info);
    EXPECT_EQ(Info("isDeviceAllowed called with mode: default DeviceInfo:= { "
                   "DeviceId:-2147483648, DeviceName: , ClassName:  [ 4294967295 ], "
                   "InterfaceClassCount: 3, VendorId: -5, ProductId: -1, Status: 1, Reason: "
                   "Enabled by default rule }"),
              log.Take().back());
}

// --- Mode --------------------------------------------------------------------------------------

using DecisionMode = DecisionTest;

TEST_F(DecisionMode, IsThatOfTheCallsStart) {
    PlugIn({"08"});
    configMode = "whitelist";
    configClassList = {8};
    client->onEvent = [](const FakeCallback::Event&) { configMode = "blacklist"; };
    ExpectLog(makeUsb({8}),
              {infos({"class is 8not HID"}), rescan("8"),
               infos({"8", "", "Found CLASS : 8 in admin config list"}), verdict(true),
               recording("4", "sdcard;"),
               usbSummary("whitelist", 1, true,
                          "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ")});
    EXPECT_EQ("blacklist", configMode);
}

TEST_F(DecisionMode, AndRulesAreReadAtEachCall) {
    EXPECT_EQ("yes: " + std::string(kByDefault), ReasonOf(makeUsb({8})));
    configMode = "blacklist";
    EXPECT_EQ("yes: " + std::string(kNotBlacklisted), ReasonOf(makeUsb({8})));
    configClassList = {8};
    EXPECT_EQ("no: Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
              ReasonOf(makeUsb({8})));
    configMode = "whitelist";
    EXPECT_EQ("yes: Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
              ReasonOf(makeUsb({8})));
}

TEST_F(DecisionMode, ShowsInTheSummaryAsItIs) {
    PlugIn({"08"});
    for (const char* mode : {"", "Whitelist", "default "}) {
        SCOPED_TRACE(mode);
        configMode = mode;
        ExpectLog(makeUsb({8}), {infos({"class is 8not HID"}), rescan("8"),
                                 infos({"8", "", "interface class check false breaking"}),
                                 verdict(false), blocking(), recording("4", "sdcard;"),
                                 usbSummary(mode, 1, false, kNotWhitelisted)});
    }
}

// --- Effects -----------------------------------------------------------------------------------

using DecisionEffects = DecisionTest;

TEST_F(DecisionEffects, BlockEveryInterfaceOfARefusedDevice) {
    PlugIn({"08", "07", "03"});
    AddDevice("1-6", 1, 6, "046d", "c025");
    AddInterface("1-6:1.0", "08");
    configMode = "whitelist";
    configClassList = {8};
    EXPECT_EQ("no: " + std::string(kNotWhitelisted), ReasonOf(makeUsb({8, 7, 3})));
    EXPECT_EQ("0\n", authorizedOf("1-5:1.0"));
    EXPECT_EQ("0\n", authorizedOf("1-5:1.1"));
    EXPECT_EQ("0\n", authorizedOf("1-5:1.2"));
    EXPECT_EQ("1\n", authorizedOf("1-6:1.0"));
}

TEST_F(DecisionEffects, LeaveTheInterfacesOfAnAllowedDeviceAsTheyAre) {
    PlugIn({"08", "07"});
    WriteFile("/sys/devices/usb/1-5:1.1/authorized", "0\n");
    configMode = "blacklist";
    configClassList = {8};
    EXPECT_EQ("yes: " + std::string(kNotBlacklisted), ReasonOf(makeUsb({8, 7})));
    EXPECT_EQ("1\n", authorizedOf("1-5:1.0"));
    EXPECT_EQ("0\n", authorizedOf("1-5:1.1"));
}

TEST_F(DecisionEffects, DoNotBlockARefusedInputDevice) {
    PlugIn({"08"});
    UsbDevice::create_usb_device_map();
    configMode = "whitelist";
    DeviceInfo info = makeInput(kKeyboardSource);
    // The id of the USB device: input ids are numbers of their own.
    info.deviceId = kId;
    log.Take();
    EXPECT_FALSE(Judge(info));
    EXPECT_EQ("1\n", authorizedOf("1-5:1.0"));
    EXPECT_EQ(0, log.CountOf(Info(kBlocking)));
}

TEST_F(DecisionEffects, AreTheSameWhenTheDeviceCannotBeBlocked) {
    PlugIn({"08"});
    Remove("/sys/devices/usb/1-5:1.0/authorized");
    MakeDir("/sys/devices/usb/1-5:1.0/authorized");
    configMode = "whitelist";
    EXPECT_EQ("no: " + std::string(kNotWhitelisted), ReasonOf(makeUsb({8})));
    EXPECT_EQ(1, log.CountOf(Error("Error! Could not open file")));
    EXPECT_THAT(client->Events(), SizeIs(2));
}

TEST_F(DecisionEffects, AreTheSameWhenTheDeviceIsGone) {
    configMode = "whitelist";
    EXPECT_EQ("no: " + std::string(kNotWhitelisted), ReasonOf(makeUsb({8})));
    EXPECT_EQ(1, log.CountOf(Info(kBlocking)));
}

TEST_F(DecisionEffects, ComeInTheOrderBlockNotifyInsertSummarise) {
    PlugIn({"08"});
    configMode = "whitelist";
    log.Take();
    std::string authorized;
    size_t listed = 99;
    LogLines before;
    client->onEvent = [&](const FakeCallback::Event&) {
        before = log.Take();
        authorized = authorizedOf("1-5:1.0");
        listed = Devices().size();
        log.Take();
    };
    EXPECT_FALSE(Judge(makeUsb({8})));
    EXPECT_EQ("0\n", authorized);
    EXPECT_EQ(0U, listed);
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(recording("4", "sdcard;").back(), before.back());
    EXPECT_EQ(usbSummary("whitelist", 1, false, kNotWhitelisted), log.Take());
    EXPECT_THAT(Devices(), SizeIs(1));
}

TEST_F(DecisionEffects, IncludeTheCategoryOfTheDevice) {
    AddBus(1);
    AddDevice("1-5", 1, 5, "046d", "c025");
    MakeDir(AddInterface("1-5:1.0", "02") + "/net/usb0");
    MakeDir(AddInterface("1-5:1.1", "02") + "/tty/ttyACM0");
    Judge(makeUsb({2, 2}));
    const std::vector<DeviceInfo> devices = Devices();
    ASSERT_THAT(devices, SizeIs(1));
    EXPECT_EQ(kCategoryNetwork + kCategorySerial, devices[0].category);
    EXPECT_THAT(devices[0].categoryPath, ::testing::AnyOf("usb0;ttyACM0;", "ttyACM0;usb0;"));
}

TEST_F(DecisionEffects, TellEveryClientOfEachDecision) {
    const auto other = AddClient();
    const DeviceInfo info = makeUsb({8});
    Judge(info);
    configMode = "whitelist";
    EXPECT_FALSE(Judge(info));

    const std::vector<FakeCallback::Event> events = client->Events();
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(1, events[0].device.status);
    EXPECT_EQ(kByDefault, events[0].device.reason);
    EXPECT_EQ(0, events[1].device.status);
    EXPECT_EQ(kNotWhitelisted, events[1].device.reason);
    EXPECT_EQ(Texts(events), Texts(other->Events()));
    // The list keeps the first.
    EXPECT_THAT(Texts(Devices()), ElementsAre(Text(events[0].device)));
}

TEST_F(DecisionEffects, LeaveTheCallersRecordAloneAndIgnoreWhatItClaims) {
    PlugIn({"08"});
    DeviceInfo info = makeUsb({8});
    info.status = 5;
    info.reason = "claimed";
    info.category = 77;
    info.categoryPath = "claimed;";
    const std::string before = Text(info);
    Judge(info);
    EXPECT_EQ(before, Text(info));

    DeviceInfo record = makeUsb({8});
    record.status = 1;
    record.reason = kByDefault;
    record.category = kCategoryMassStorage;
    record.categoryPath = "sdcard;";
    EXPECT_THAT(Texts(Devices()), ElementsAre(Text(record)));
}

TEST_F(DecisionEffects, WriteTheVerdictOnEveryPath) {
    PlugInHid(/*isVendorHid=*/false);
    bool result = true;
    service->isDeviceAllowed(makeUsb({3}), &result);
    EXPECT_FALSE(result);
    service->isDeviceAllowed(makeUsb({8}), &result);
    EXPECT_TRUE(result);
    configMode = "whitelist";
    service->isDeviceAllowed(makeUsb({8}), &result);
    EXPECT_FALSE(result);
    SetProperty(kAutomationProperty, "1");
    service->isDeviceAllowed(makeUsb({8}), &result);
    EXPECT_TRUE(result);
}

}  // namespace

}  // namespace android::kus::test
