// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/uevent.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

constexpr char kUsbPath[] = "/sys/devices/platform/dummy_hcd.0/usb3/3-1";

std::optional<Uevent> interpret(const RawUevent& raw) {
    return interpretUevent(raw, Clock::time_point());
}

TEST(InterpretUevent, UsbDeviceIsReadyOnceBound) {
    const auto event = interpret({"bind", "usb", "usb_device", kUsbPath, "012"});
    ASSERT_TRUE(event.has_value());
    EXPECT_EQ(Change::kReady, event->change);
    EXPECT_EQ(DeviceKind::kUsb, event->kind);
    EXPECT_EQ("3-1", event->sysname);
    EXPECT_EQ(kUsbPath, event->path);
    EXPECT_EQ(12, event->devnum);
}

TEST(InterpretUevent, UsbDeviceIsNotReadyWhenAdded) {
    EXPECT_FALSE(interpret({"add", "usb", "usb_device", kUsbPath, "012"}).has_value());
    EXPECT_FALSE(interpret({"change", "usb", "usb_device", kUsbPath, "012"}).has_value());
    EXPECT_FALSE(interpret({"unbind", "usb", "usb_device", kUsbPath, "012"}).has_value());
}

TEST(InterpretUevent, UsbDeviceIsGoneWhenRemoved) {
    const auto event = interpret({"remove", "usb", "usb_device", kUsbPath, "127"});
    ASSERT_TRUE(event.has_value());
    EXPECT_EQ(Change::kGone, event->change);
    EXPECT_EQ(127, event->devnum);
}

TEST(InterpretUevent, DeviceNumberIsDecimalDespiteItsZeros) {
    EXPECT_EQ(10, interpret({"bind", "usb", "usb_device", kUsbPath, "010"})->devnum);
    EXPECT_EQ(9, interpret({"bind", "usb", "usb_device", kUsbPath, "009"})->devnum);
    EXPECT_EQ(0, interpret({"bind", "usb", "usb_device", kUsbPath, ""})->devnum);
    EXPECT_EQ(0, interpret({"bind", "usb", "usb_device", kUsbPath, "x"})->devnum);
}

TEST(InterpretUevent, InterfaceEventsSpeakOfTheirDevice) {
    const std::string interface = std::string(kUsbPath) + "/3-1:1.0";
    const auto added = interpret({"add", "usb", "usb_interface", interface, ""});
    ASSERT_TRUE(added.has_value());
    EXPECT_EQ(Change::kInterfaceAdded, added->change);
    EXPECT_EQ("3-1", added->sysname);
    EXPECT_EQ(kUsbPath, added->path);

    const auto removed = interpret({"remove", "usb", "usb_interface", interface, ""});
    ASSERT_TRUE(removed.has_value());
    EXPECT_EQ(Change::kInterfaceRemoved, removed->change);

    EXPECT_FALSE(interpret({"bind", "usb", "usb_interface", interface, ""}).has_value());
    EXPECT_FALSE(interpret({"unbind", "usb", "usb_interface", interface, ""}).has_value());
}

TEST(InterpretUevent, InputDeviceIsReadyWhenAdded) {
    const std::string path = std::string(kUsbPath) + "/3-1:1.0/0003:0627:0001.0002/input/input12";
    const auto added = interpret({"add", "input", "", path, ""});
    ASSERT_TRUE(added.has_value());
    EXPECT_EQ(Change::kReady, added->change);
    EXPECT_EQ(DeviceKind::kInput, added->kind);
    EXPECT_EQ("input12", added->sysname);
    EXPECT_EQ(path, added->path);

    EXPECT_EQ(Change::kGone, interpret({"remove", "input", "", path, ""})->change);
    EXPECT_FALSE(interpret({"change", "input", "", path, ""}).has_value());
}

TEST(InterpretUevent, HandlersOfInputDevicesAreNoInputDevices) {
    EXPECT_FALSE(
            interpret({"add", "input", "", "/sys/devices/x/input/input12/event3", ""}).has_value());
    EXPECT_FALSE(
            interpret({"add", "input", "", "/sys/devices/x/input/input12/mouse0", ""}).has_value());
}

TEST(InterpretUevent, OfARootHubOnlyItsReadinessCounts) {
    constexpr char kRootHub[] = "/sys/devices/platform/hcd/usb3";
    const auto event = interpret({"bind", "usb", "usb_device", kRootHub, "001"});
    ASSERT_TRUE(event.has_value());
    EXPECT_EQ(Change::kRootHubReady, event->change);
    EXPECT_EQ("usb3", event->sysname);
    EXPECT_EQ(kRootHub, event->path);
    for (const char* action : {"add", "change", "unbind", "remove"}) {
        EXPECT_FALSE(interpret({action, "usb", "usb_device", kRootHub, "001"}).has_value())
                << action;
    }
}

TEST(InterpretUevent, OtherSubsystemsAreNothing) {
    EXPECT_FALSE(interpret({"add", "block", "disk", "/sys/devices/x/block/sda", ""}).has_value());
    EXPECT_FALSE(interpret({"bind", "usb", "", kUsbPath, ""}).has_value());
    EXPECT_FALSE(interpret({"", "", "", "", ""}).has_value());
}

TEST(InterpretUevent, TimeOfReceiptIsKept) {
    const auto now = Clock::now();
    EXPECT_EQ(now, interpretUevent({"bind", "usb", "usb_device", kUsbPath, "1"}, now)->received);
}

}  // namespace
}  // namespace android::kus::tools
