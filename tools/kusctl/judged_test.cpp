// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/judged.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

const Style kPlain;
const Style kColoured = {false, true};

DeviceInfo disk() {
    DeviceInfo device;
    device.deviceName = "Stick";
    device.deviceId = 3002;
    device.interfaceClasses = {8};
    device.vendorId = 0x0951;
    device.productId = 0x1666;
    device.status = 1;
    // The daemon ends this reason with a blank.
    device.reason = "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ";
    device.category = 4;
    device.categoryPath = "sdcard;";
    return device;
}

DeviceInfo keyboard() {
    DeviceInfo device;
    device.deviceName = "Käys";
    device.deviceId = 7;
    device.deviceClass = 0x101;
    device.vendorId = 1133;
    device.productId = 50475;
    device.deviceType = 1;
    device.reason = "No matching rule found to Whitelist the device";
    return device;
}

TEST(JudgedText, IsATableWithTheReasonsBelow) {
    EXPECT_EQ(
            "ID    KIND   VERDICT  HEX        DECIMAL     CLASSES                 NAME\n"
            "7     input  refused  046d:c52b  1133:50475  AINPUT_SOURCE_KEYBOARD  Käys\n"
            "    No matching rule found to Whitelist the device\n"
            "3002  usb    allowed  0951:1666  2385:5734   USB_CLASS_MASS_STORAGE  Stick\n"
            "    Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE\n",
            judgedText({keyboard(), disk()}, kPlain));
}

TEST(JudgedText, ColoursTheVerdictsAlone) {
    EXPECT_EQ(
            "ID  KIND   VERDICT  HEX        DECIMAL     CLASSES                 NAME\n"
            "7   input  \033[31mrefused\033[0m  046d:c52b  1133:50475  "
            "AINPUT_SOURCE_KEYBOARD  Käys\n"
            "    No matching rule found to Whitelist the device\n",
            judgedText({keyboard()}, kColoured));
    EXPECT_NE(std::string::npos, judgedText({disk()}, kColoured).find("\033[32mallowed\033[0m"));
}

TEST(JudgedText, SaysSoWhenThereAreNone) {
    EXPECT_EQ("no device has been judged\n", judgedText({}, kPlain));
}

TEST(JudgedText, NamesAndReasonsCannotSteerTheTerminal) {
    DeviceInfo device = disk();
    device.deviceName = "\033]0;owned\a\n9999  usb    allowed";
    device.reason = "a\nb";
    EXPECT_EQ(
            "ID    KIND  VERDICT  HEX        DECIMAL    CLASSES                 NAME\n"
            "3002  usb   allowed  0951:1666  2385:5734  USB_CLASS_MASS_STORAGE  "
            "�]0;owned��9999  usb    allowed\n"
            "    a�b\n",
            judgedText({device}, kPlain));
}

TEST(AddJudged, HoldsTheWholeRecordAndWhatItMeans) {
    JsonObject usb;
    EXPECT_EQ(R"({"kind":"usb","allowed":true,"deviceName":"Stick","deviceId":3002,)"
              R"("deviceClass":0,"interfaceClasses":[8],"vendorId":2385,"productId":5734,)"
              R"("status":1,"deviceType":0,"reason":"Whitelisted: Match by ClassName, CLASS : )"
              R"(USB_CLASS_MASS_STORAGE ","category":4,"categoryPath":"sdcard;",)"
              R"("classNames":["USB_CLASS_MASS_STORAGE"]})",
              addJudged(&usb, disk()).str());
    JsonObject input;
    EXPECT_EQ(0U, addJudged(&input, keyboard()).str().find(R"({"kind":"input","allowed":false,)"));
}

TEST(EventText, StandsInColumnsOfFixedWidths) {
    EXPECT_EQ(
            "TIME      EVENT    ID      KIND   VERDICT  HEX        DECIMAL      "
            "CLASSES                   NAME                      REASON\n",
            eventHeadings());
    EXPECT_EQ(
            "13:07:59  added    3002    usb    allowed  0951:1666  2385:5734    "
            "USB_CLASS_MASS_STORAGE    Stick                     "
            "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE\n",
            eventText({"added", disk(), "13:07:59"}, kPlain));
    EXPECT_EQ(
            "13:07:59  added    7       input  \033[31mrefused\033[0m  046d:c52b  1133:50475   "
            "AINPUT_SOURCE_KEYBOARD    Käys                      "
            "No matching rule found to Whitelist the device\n",
            eventText({"added", keyboard(), "13:07:59"}, kColoured));
}

TEST(EventText, OfADeviceThatIsGoneHasNoVerdict) {
    DeviceInfo device = disk();
    device.status = 0;
    device.reason = "";
    EXPECT_EQ(
            "13:07:59  removed  3002    usb    -        0951:1666  2385:5734    "
            "USB_CLASS_MASS_STORAGE    Stick\n",
            eventText({"removed", device, "13:07:59"}, kColoured));
}

TEST(EventText, IsOneLineWhateverTheDeviceIsCalled) {
    DeviceInfo device = disk();
    device.deviceName = "a\nb\033[2J";
    device.reason = "";
    EXPECT_EQ(
            "13:07:59  added    3002    usb    allowed  0951:1666  2385:5734    "
            "USB_CLASS_MASS_STORAGE    a�b�[2J\n",
            eventText({"added", device, "13:07:59"}, kPlain));
}

TEST(JudgedEventObject, IsTheEventAndTheDevice) {
    EXPECT_EQ(0U, judgedEventObject({"added", disk(), "13:07:59"})
                          .str()
                          .find(R"({"event":"added","kind":"usb","allowed":true,)"
                                R"("deviceName":"Stick",)"));
    EXPECT_EQ(0U, judgedEventObject({"removed", keyboard(), ""})
                          .str()
                          .find(R"({"event":"removed","kind":"input",)"));
}

}  // namespace
}  // namespace android::kus::tools
