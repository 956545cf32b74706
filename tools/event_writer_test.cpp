// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/event_writer.h"

#include <android/input.h>
#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

using Format = EventWriter::Format;

AttachedDevice stick() {
    AttachedDevice device;
    device.sysname = "3-1";
    device.info.deviceName = "USB Stick";
    device.info.deviceId = 3002;
    device.info.interfaceClasses = {8, 3};
    device.info.vendorId = 0x46f4;
    device.info.productId = 1;
    return device;
}

AttachedDevice keyboard() {
    AttachedDevice device;
    device.kind = DeviceKind::kInput;
    device.sysname = "input12";
    device.info.deviceName = "Keyboard";
    device.info.deviceId = 12;
    device.info.deviceClass = AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_DPAD;
    device.info.vendorId = 0x627;
    device.info.productId = 1;
    device.info.deviceType = 1;
    return device;
}

Verdict verdictOn(AttachedDevice device, bool allowed, const std::string& reason) {
    Verdict verdict;
    verdict.device = std::move(device);
    verdict.allowed = allowed;
    verdict.reason = reason;
    verdict.milliseconds = 17;
    return verdict;
}

template <typename Tell>
std::string told(Format format, Tell tell) {
    std::string lines;
    const EventWriter writer(format, [&lines](const std::string& line) { lines += line + "\n"; });
    tell(writer);
    return lines;
}

TEST(EventWriter, JsonOfServiceRescanAndReady) {
    EXPECT_EQ(
            "{\"event\":\"service\",\"state\":\"connected\"}\n"
            "{\"event\":\"service\",\"state\":\"lost\"}\n"
            "{\"event\":\"rescan\",\"reason\":\"start\"}\n"
            "{\"event\":\"rescan\",\"reason\":\"overflow\"}\n"
            "{\"event\":\"rescan\",\"reason\":\"service\"}\n"
            "{\"event\":\"ready\"}\n",
            told(Format::kJson, [](const EventWriter& writer) {
                writer.service(true);
                writer.service(false);
                writer.rescan(RescanReason::kStart);
                writer.rescan(RescanReason::kOverflow);
                writer.rescan(RescanReason::kService);
                writer.ready();
            }));
}

TEST(EventWriter, TextOfServiceRescanAndReady) {
    EXPECT_EQ("service connected\nservice lost\nrescan (overflow)\nready\n",
              told(Format::kText, [](const EventWriter& writer) {
                  writer.service(true);
                  writer.service(false);
                  writer.rescan(RescanReason::kOverflow);
                  writer.ready();
              }));
}

TEST(EventWriter, JsonOfAUsbVerdict) {
    EXPECT_EQ(
            "{\"event\":\"verdict\",\"kind\":\"usb\",\"sysname\":\"3-1\",\"deviceId\":3002,"
            "\"name\":\"USB Stick\",\"vendorId\":18164,\"productId\":1,\"deviceClass\":0,"
            "\"interfaceClasses\":[8,3],\"allowed\":true,\"reason\":\"Enabled by default rule\","
            "\"ms\":17}\n",
            told(Format::kJson, [](const EventWriter& writer) {
                writer.verdict(verdictOn(stick(), true, "Enabled by default rule"));
            }));
}

TEST(EventWriter, JsonOfAnInputVerdictTellsOfTheSwitch) {
    EXPECT_EQ(
            "{\"event\":\"verdict\",\"kind\":\"input\",\"sysname\":\"input12\",\"deviceId\":12,"
            "\"name\":\"Keyboard\",\"vendorId\":1575,\"productId\":1,\"deviceClass\":769,"
            "\"interfaceClasses\":[],\"allowed\":false,\"reason\":\"\",\"inhibited\":true,"
            "\"ms\":17}\n",
            told(Format::kJson, [](const EventWriter& writer) {
                Verdict verdict = verdictOn(keyboard(), false, "");
                verdict.inhibited = true;
                writer.verdict(verdict);
            }));
}

TEST(EventWriter, JsonOfARemoval) {
    EXPECT_EQ(
            "{\"event\":\"removed\",\"kind\":\"usb\",\"sysname\":\"3-1\",\"deviceId\":3002,"
            "\"name\":\"USB Stick\",\"vendorId\":18164,\"productId\":1,\"deviceClass\":0,"
            "\"interfaceClasses\":[8,3]}\n",
            told(Format::kJson, [](const EventWriter& writer) { writer.removed(stick()); }));
}

TEST(EventWriter, JsonOfAProblem) {
    EXPECT_EQ("{\"event\":\"problem\",\"sysname\":\"3-1\",\"text\":\"no \\\"answer\\\"\"}\n",
              told(Format::kJson,
                   [](const EventWriter& writer) { writer.problem(stick(), "no \"answer\""); }));
}

TEST(EventWriter, TextOfVerdicts) {
    EXPECT_EQ(
            "allowed usb 3-1 \"USB Stick\" (id 3002, 46f4:0001, class 0, interfaces 8,3): "
            "Enabled by default rule [17 ms]\n"
            "refused input input12 \"Keyboard\" (id 12, 0627:0001, keyboard+dpad): "
            "no reason recorded, inhibited [17 ms]\n",
            told(Format::kText, [](const EventWriter& writer) {
                writer.verdict(verdictOn(stick(), true, "Enabled by default rule"));
                Verdict verdict = verdictOn(keyboard(), false, "");
                verdict.inhibited = true;
                writer.verdict(verdict);
            }));
}

TEST(EventWriter, TextOfRemovalsAndProblems) {
    EXPECT_EQ(
            "removed usb 3-1 \"USB Stick\" (id 3002, 46f4:0001, class 0, no interfaces)\n"
            "problem with input input12 \"Keyboard\" (id 12, 0627:0001, no known source): none\n",
            told(Format::kText, [](const EventWriter& writer) {
                AttachedDevice bare = stick();
                bare.info.interfaceClasses.clear();
                writer.removed(bare);
                AttachedDevice sensor = keyboard();
                sensor.info.deviceClass = 0;
                writer.problem(sensor, "none");
            }));
}

TEST(EventWriter, NameCannotForgeALine) {
    const auto tellForged = [](const EventWriter& writer) {
        AttachedDevice forged = stick();
        forged.info.deviceName = "x\nallowed";
        writer.removed(forged);
    };
    EXPECT_EQ("removed usb 3-1 \"x\\nallowed\" (id 3002, 46f4:0001, class 0, interfaces 8,3)\n",
              told(Format::kText, tellForged));
    EXPECT_NE(std::string::npos, told(Format::kJson, tellForged).find("\"name\":\"x\\nallowed\""));
}

}  // namespace
}  // namespace android::kus::tools
