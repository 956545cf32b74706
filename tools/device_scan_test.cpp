// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/device_scan.h"

#include <errno.h>
#include <unistd.h>

#include <filesystem>

#include <android/input.h>
#include <gtest/gtest.h>

#include "tools/scratch_sysfs.h"

namespace android::kus::tools {
namespace {

using Names = std::vector<std::string>;

class DeviceScan : public testing::Test {
  protected:
    /** Adds a device that differs from the stick in one attribute. */
    std::optional<AttachedDevice> readWith(const std::string& attribute, const std::string& text) {
        const std::string dir = sysfs_.addUsb("3-1", {});
        ScratchSysfs::write(dir + "/" + attribute, text);
        return readUsbDevice(dir);
    }

    Names names(DeviceKind kind) const {
        Names names;
        for (const std::string& dir : deviceDirectories(kind, sysfs_.path())) {
            names.push_back(base::Basename(dir));
        }
        return names;
    }

    ScratchSysfs sysfs_;
};

TEST_F(DeviceScan, UsbDeviceBecomesARecord) {
    ScratchSysfs::Usb usb;
    usb.bus = 3;
    usb.devnum = 12;
    usb.deviceClass = "ef";
    usb.vendor = "17e9";
    usb.product = "43a0";
    usb.name = "Dock 3";
    usb.interfaceClasses = {"ff", "01", "0a"};
    const std::string dir = sysfs_.addUsb("3-1.2", usb);

    const std::optional<AttachedDevice> device = readUsbDevice(dir);
    ASSERT_TRUE(device.has_value());
    EXPECT_EQ(DeviceKind::kUsb, device->kind);
    EXPECT_EQ("3-1.2", device->sysname);
    EXPECT_EQ(dir, device->path);
    EXPECT_EQ("Dock 3", device->info.deviceName);
    EXPECT_EQ(3012, device->info.deviceId);
    EXPECT_EQ(12, deviceNumber(device->info));
    EXPECT_EQ(239, device->info.deviceClass);
    EXPECT_EQ(std::vector<int32_t>({255, 1, 10}), device->info.interfaceClasses);
    EXPECT_EQ(6121, device->info.vendorId);
    EXPECT_EQ(0x43a0, device->info.productId);
    EXPECT_EQ(0, device->info.deviceType);
    EXPECT_EQ(0, device->info.status);
    EXPECT_EQ("", device->info.reason);
    EXPECT_EQ(0, device->info.category);
    EXPECT_EQ("", device->info.categoryPath);
}

TEST_F(DeviceScan, LinkAndDirectoryAreTheSameDevice) {
    const std::string dir = sysfs_.addUsb("3-1", {});
    const auto device = readUsbDevice(sysfs_.path() + "/bus/usb/devices/3-1");
    ASSERT_TRUE(device.has_value());
    EXPECT_EQ(dir, device->path);
}

TEST_F(DeviceScan, InterfacesStandInTheOrderOfTheirNumbers) {
    ScratchSysfs::Usb usb;
    usb.interfaceClasses = {};
    const std::string dir = sysfs_.addUsb("3-1", usb);
    for (const int number : {10, 2, 0}) {
        ScratchSysfs::addInterface(dir, "1", number, number == 10 ? "0a" : "02");
    }
    EXPECT_EQ(std::vector<int32_t>({2, 2, 10}), readUsbDevice(dir)->info.interfaceClasses);
}

TEST_F(DeviceScan, DirectoriesOfADeviceThatAreNoInterfacesDoNotCount) {
    const std::string dir = sysfs_.addUsb("3-1", {});
    for (const char* name : {"ep_00", "power", "3-1.1", "3-1-port1"}) {
        std::filesystem::create_directory(dir + "/" + name);
    }
    EXPECT_EQ(std::vector<int32_t>({8}), readUsbDevice(dir)->info.interfaceClasses);
}

TEST_F(DeviceScan, UnconfiguredDeviceHasNoInterfaceClasses) {
    ScratchSysfs::Usb usb;
    usb.configuration = "";
    usb.interfaceClasses = {};
    const auto device = readUsbDevice(sysfs_.addUsb("3-1", usb));
    ASSERT_TRUE(device.has_value());
    EXPECT_EQ(std::vector<int32_t>(), device->info.interfaceClasses);
}

TEST_F(DeviceScan, DeviceWithoutAProductTextIsCalledByItsIds) {
    ScratchSysfs::Usb usb;
    usb.name = "";
    const std::string dir = sysfs_.addUsb("3-1", usb);
    EXPECT_EQ("46f4:0001", readUsbDevice(dir)->info.deviceName);
    ScratchSysfs::write(dir + "/product", "\n");
    EXPECT_EQ("46f4:0001", readUsbDevice(dir)->info.deviceName);
}

TEST_F(DeviceScan, BytesThatAreNoTextAreReplacedInNames) {
    EXPECT_EQ(
            "A\xef\xbf\xbd"
            "B",
            readWith("product",
                     "A\xff"
                     "B\n")
                    ->info.deviceName);
}

TEST_F(DeviceScan, HubsAreLeftOut) {
    EXPECT_FALSE(readWith("bDeviceClass", "09\n").has_value());
}

TEST_F(DeviceScan, DeviceThatNoDriverConfiguredYetIsLeftOut) {
    ScratchSysfs::Usb usb;
    usb.bound = false;
    EXPECT_FALSE(readUsbDevice(sysfs_.addUsb("3-1", usb)).has_value());
}

TEST_F(DeviceScan, DeviceThatIsGoingAwayIsLeftOut) {
    const std::string dir = sysfs_.addUsb("3-1", {});
    for (const char* attribute : {"bConfigurationValue", "busnum", "devnum", "bDeviceClass",
                                  "idVendor", "idProduct", "3-1:1.0/bInterfaceClass"}) {
        const std::string text = ScratchSysfs::read(dir + "/" + attribute);
        ASSERT_EQ(0, unlink((dir + "/" + attribute).c_str()));
        EXPECT_FALSE(readUsbDevice(dir).has_value()) << attribute;
        ScratchSysfs::write(dir + "/" + attribute, text);
        ASSERT_TRUE(readUsbDevice(dir).has_value()) << attribute;
    }
    sysfs_.removeUsb("3-1");
    EXPECT_FALSE(readUsbDevice(dir).has_value());
}

TEST_F(DeviceScan, InputDeviceBecomesARecord) {
    const std::string usb = sysfs_.addUsb("3-1", {});
    const std::string dir = sysfs_.addInput(12, usb + "/3-1:1.0/0003:0627:0001.0003", {});

    const std::optional<AttachedDevice> device = readInputDevice(dir);
    ASSERT_TRUE(device.has_value());
    EXPECT_EQ(DeviceKind::kInput, device->kind);
    EXPECT_EQ("input12", device->sysname);
    EXPECT_EQ(dir, device->path);
    EXPECT_EQ("USB Keyboard", device->info.deviceName);
    EXPECT_EQ(12, device->info.deviceId);
    EXPECT_EQ(AINPUT_SOURCE_KEYBOARD, device->info.deviceClass);
    EXPECT_EQ(std::vector<int32_t>(), device->info.interfaceClasses);
    EXPECT_EQ(0x0627, device->info.vendorId);
    EXPECT_EQ(1, device->info.productId);
    EXPECT_EQ(1, device->info.deviceType);
}

TEST_F(DeviceScan, InputDeviceThatIsNotBehindUsbIsLeftOut) {
    const std::string board = sysfs_.addPlatformDevice("gpio-keys");
    EXPECT_FALSE(readInputDevice(sysfs_.addInput(1, board, {})).has_value());
}

TEST_F(DeviceScan, InputDeviceThatIsGoingAwayIsLeftOut) {
    const std::string usb = sysfs_.addUsb("3-1", {});
    const std::string dir = sysfs_.addInput(12, usb, {});
    for (const char* attribute : {"name", "id/vendor", "id/product"}) {
        const std::string text = ScratchSysfs::read(dir + "/" + attribute);
        ASSERT_EQ(0, unlink((dir + "/" + attribute).c_str()));
        EXPECT_FALSE(readInputDevice(dir).has_value()) << attribute;
        ScratchSysfs::write(dir + "/" + attribute, text);
        ASSERT_TRUE(readInputDevice(dir).has_value()) << attribute;
    }
}

TEST_F(DeviceScan, UsbDirectoriesAreDevicesInTheOrderOfTheirNumbers) {
    for (const char* name : {"3-1.10", "10-1", "3-2", "3-1.9", "3-1"}) sysfs_.addUsb(name, {});
    for (const char* name : {"usb3", "3-0:1.0", "3-1:1.0"}) {
        std::filesystem::create_directory_symlink("../../../devices",
                                                  sysfs_.path() + "/bus/usb/devices/" + name);
    }
    EXPECT_EQ(Names({"3-1", "3-1.9", "3-1.10", "3-2", "10-1"}), names(DeviceKind::kUsb));
}

TEST_F(DeviceScan, InputDirectoriesAreDevicesNotTheirHandlers) {
    const std::string usb = sysfs_.addUsb("3-1", {});
    for (const int number : {10, 9, 0}) sysfs_.addInput(number, usb, {});
    for (const char* name : {"event0", "mouse0", "js0", "mice"}) {
        std::filesystem::create_directory_symlink("../../devices",
                                                  sysfs_.path() + "/class/input/" + name);
    }
    EXPECT_EQ(Names({"input0", "input9", "input10"}), names(DeviceKind::kInput));
}

TEST_F(DeviceScan, MissingSubsystemsHaveNoDevices) {
    EXPECT_EQ(Names(), deviceDirectories(DeviceKind::kUsb, sysfs_.path() + "/none"));
    EXPECT_EQ(Names(), deviceDirectories(DeviceKind::kInput, sysfs_.path() + "/none"));
}

TEST_F(DeviceScan, InhibitingSetsAndClearsTheKernelsSwitch) {
    const std::string dir = sysfs_.addInput(12, sysfs_.addUsb("3-1", {}), {});
    EXPECT_FALSE(isInhibited(dir));
    ASSERT_TRUE(setInhibited(dir, true));
    EXPECT_EQ("1\n", ScratchSysfs::read(dir + "/inhibited"));
    EXPECT_TRUE(isInhibited(dir));
    ASSERT_TRUE(setInhibited(dir, false));
    EXPECT_EQ("0\n", ScratchSysfs::read(dir + "/inhibited"));
    EXPECT_FALSE(isInhibited(dir));
}

TEST_F(DeviceScan, InhibitingFailsOnAKernelWithoutTheSwitch) {
    ScratchSysfs::Input input;
    input.inhibitable = false;
    const std::string dir = sysfs_.addInput(12, sysfs_.addUsb("3-1", {}), input);
    errno = 0;
    EXPECT_FALSE(setInhibited(dir, true));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(isInhibited(dir));
    EXPECT_FALSE(std::filesystem::exists(dir + "/inhibited"));
}

TEST_F(DeviceScan, InterfacesAreNamedInTheOrderOfTheirNumbers) {
    ScratchSysfs::Usb usb;
    usb.interfaceClasses = {};
    const std::string dir = sysfs_.addUsb("3-1.2", usb);
    for (const int number : {10, 2, 0}) ScratchSysfs::addInterface(dir, "4", number, "08");
    EXPECT_EQ(Names({"3-1.2:4.0", "3-1.2:4.2", "3-1.2:4.10"}), interfaceNames(dir));
    EXPECT_EQ(8, interfaceClass(dir + "/3-1.2:4.10"));
    EXPECT_EQ(std::nullopt, interfaceClass(dir + "/3-1.2:4.1"));
}

TEST_F(DeviceScan, RootHubsAreNoDevicesAndHaveInterfacesUnderNamesOfTheirOwn) {
    const std::string dir = sysfs_.addRootHub(12);
    sysfs_.addUsb("12-1", {});
    EXPECT_EQ(Names({"12-1"}), names(DeviceKind::kUsb));
    EXPECT_EQ(Names({sysfs_.path() + "/bus/usb/devices/usb12"}), rootHubDirectories(sysfs_.path()));
    EXPECT_EQ(Names({"12-0:1.0"}), interfaceNames(dir));
    EXPECT_EQ(Names(), rootHubDirectories(sysfs_.path() + "/nowhere"));
}

TEST_F(DeviceScan, HubIsToldByItsDeviceClassAlone) {
    ScratchSysfs::Usb hub;
    hub.deviceClass = "09";
    EXPECT_TRUE(isHub(sysfs_.addUsb("3-1", hub)));
    ScratchSysfs::Usb other;
    other.interfaceClasses = {"09"};
    EXPECT_FALSE(isHub(sysfs_.addUsb("3-2", other)));
    EXPECT_FALSE(isHub(sysfs_.path() + "/bus/usb/devices/3-9"));
}

TEST_F(DeviceScan, DeviceNumberIsReadWithoutAConfiguration) {
    ScratchSysfs::Usb usb;
    usb.devnum = 77;
    usb.bound = false;
    EXPECT_EQ(77, deviceNumberAt(sysfs_.addUsb("3-1", usb)));
    EXPECT_EQ(std::nullopt, deviceNumberAt(sysfs_.path() + "/bus/usb/devices/3-9"));
}

TEST(IsInputName, OnlyInputAndANumberIsOne) {
    EXPECT_TRUE(isInputName("input0"));
    EXPECT_TRUE(isInputName("input2147483647"));
    for (const char* name :
         {"input", "inputs", "input-1", "input0x1", "event1", "xinput1", "", "input2147483648"}) {
        EXPECT_FALSE(isInputName(name)) << name;
    }
}

}  // namespace
}  // namespace android::kus::tools
