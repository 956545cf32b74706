// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The program itself, on policy files and on a /sys of its own.

#include "tools/kusctl/policy_commands.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::tools {
namespace {

using test::AddDevice;
using test::BindDriver;
using test::MakeDir;
using test::MakeLink;
using test::ProcessResult;
using test::WriteFile;
using ::testing::HasSubstr;

constexpr char kWhite[] = "/tmp/white.xml";
constexpr char kBlack[] = "/tmp/black.xml";
constexpr char kBad[] = "/tmp/bad.xml";
constexpr char kCrash[] = "/tmp/crash.xml";
constexpr char kNoXml[] = "/tmp/no_xml.xml";

ProcessResult run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KUSCTL_PATH);
    return test::RunProgram(arguments);
}

void expectRun(const std::vector<std::string>& arguments, int status, const std::string& out,
               const std::string& err = "") {
    const ProcessResult result = run(arguments);
    EXPECT_EQ(status, result.status);
    EXPECT_EQ(0, result.signal);
    EXPECT_EQ(out, result.out);
    EXPECT_EQ(err, result.err);
}

class PolicyCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        WriteFile(kWhite,
                  "<usbconfig mode=\"whitelist\">\n"
                  "  <class>USB_CLASS_MASS_STORAGE</class>\n"
                  "  <class>AINPUT_SOURCE_KEYBOARD</class>\n"
                  "  <vid vendorid=\"1027\"><pid>24577</pid></vid>\n"
                  "</usbconfig>\n");
        WriteFile(kBlack,
                  "<usbconfig mode=\"blacklist\">\n"
                  "  <class>USB_CLASS_MASS_STORAGE</class>\n"
                  "</usbconfig>\n");
        WriteFile(kBad,
                  "<usbconfig mode=\"whitelist\">\n"
                  "  <class>USB_CLASS_PHYSICAL</class>\n"
                  "</usbconfig>\n");
        WriteFile(kCrash,
                  "<usbconfig mode=\"whitelist\">\n"
                  "  <vid vendorid=\"2147483648\"/>\n"
                  "</usbconfig>\n");
        WriteFile(kNoXml, "<usbconfig mode=\"whitelist\">\n  <class>\n</usbconfig>\n");
    }

    // A stick, a keyboard with its input device, a cable, a vendor's own HID device, a hub.
    static void attachDevices() {
        MakeDir("/sys/bus/usb");
        MakeDir("/sys/class/input");
        attach("1-1", 2, "46f4", "0001", "USB Stick", "08");
        const std::string keyboard = attach("1-2", 3, "0627", "0001", "Keyboard", "03");
        MakeDir(keyboard + "/1-2:1.0/0003:0627:0001.0001/input");
        attachInput("input5", keyboard);
        attach("1-3", 4, "0403", "6001", std::string("Cable \x1b[31m\xe2\x80") + "\xae", "ff");
        const std::string hid = attach("1-4", 5, "05e0", "1200", "", "03");
        MakeDir(hid + "/1-4:1.0/0003:05E0:1200.0002");
        BindDriver(AddDevice("1-5", 1, 6, "1a40", "0101",
                             {{"bDeviceClass", "09\n"}, {"bConfigurationValue", "1\n"}}),
                   "usb");
    }

  private:
    static std::string attach(const std::string& name, int devnum, const std::string& vendor,
                              const std::string& product, const std::string& text,
                              const std::string& interfaceClass) {
        test::Attributes extra = {{"bConfigurationValue", "1\n"}};
        if (!text.empty()) extra.emplace_back("product", text + "\n");
        std::string directory = AddDevice(name, 1, devnum, vendor, product, extra);
        BindDriver(directory, "usb");
        MakeLink(directory + "/subsystem", "../../../bus/usb");
        // Below the device, and linked as sysfs has it.
        const std::string interface = directory + "/" + name + ":1.0";
        WriteFile(interface + "/bInterfaceClass", interfaceClass + "\n");
        WriteFile(interface + "/authorized", "1\n");
        MakeLink("/sys/bus/usb/devices/" + name + ":1.0",
                 "../../../devices/usb/" + name + "/" + name + ":1.0");
        return directory;
    }

    static void attachInput(const std::string& name, const std::string& parent) {
        const std::string directory = parent + "/input/" + name;
        WriteFile(directory + "/name", "Keyboard\n");
        WriteFile(directory + "/id/vendor", "0627\n");
        WriteFile(directory + "/id/product", "0001\n");
        WriteFile(directory + "/properties", "0\n");
        WriteFile(directory + "/capabilities/key",
                  "1000000000007 ff9f207ac14057ff febeffdfffefffff fffffffffffffffe\n");
        WriteFile(directory + "/capabilities/rel", "0\n");
        WriteFile(directory + "/capabilities/abs", "0\n");
        MakeLink("/sys/class/input/" + name, directory);
    }
};

// --- check ---------------------------------------------------------------------------------------

TEST_F(PolicyCommands, CheckTellsOfAGoodFile) {
    expectRun({"check", kWhite}, 0,
              "/tmp/white.xml: ok: whitelist of 2 class rules and 1 vendor rule: what no rule "
              "names is refused\n");
    expectRun({"check", kWhite, "--strict"}, 0,
              "/tmp/white.xml: ok: whitelist of 2 class rules and 1 vendor rule: what no rule "
              "names is refused\n");
    expectRun({"check", "--json", kWhite}, 0,
              "{\"file\":\"/tmp/white.xml\",\"accepted\":true,\"status\":\"SUCCESS\","
              "\"mode\":\"whitelist\",\"classRules\":2,\"vendorRules\":1,\"advice\":[]}\n");
}

TEST_F(PolicyCommands, CheckTellsOfARejectedFile) {
    expectRun({"check", kBad}, 1,
              "/tmp/bad.xml:2:3: rejected: INVALID CLASS VALUE:USB_CLASS_PHYSICAL\n"
              "/tmp/bad.xml:2:3: advice: there is no class \"USB_CLASS_PHYSICAL\": write "
              "USB_CLASS_PHYSICA [bad-name]\n");
    expectRun({"check", kBad, "--json"}, 1,
              "{\"file\":\"/tmp/bad.xml\",\"accepted\":false,\"status\":\"INVALID CLASS "
              "VALUE:USB_CLASS_PHYSICAL\",\"line\":2,\"column\":3,\"mode\":\"whitelist\","
              "\"classRules\":0,\"vendorRules\":0,\"advice\":[{\"id\":\"bad-name\",\"line\":2,"
              "\"column\":3,\"text\":\"there is no class \\\"USB_CLASS_PHYSICAL\\\": write "
              "USB_CLASS_PHYSICA\"}]}\n");
    expectRun(
            {"check", kNoXml}, 1,
            "/tmp/no_xml.xml:2:3: rejected: Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) "
            "Line number=2: XMLElement name=class\n"
            "/tmp/no_xml.xml:2:3: advice: this is no well-formed XML: each element that is opened "
            "must be closed, by the same name, and & and < in a text are &amp; and &lt; "
            "[bad-xml]\n");
}

TEST_F(PolicyCommands, CheckTellsOfAFileThatEndsTheDaemon) {
    expectRun({"check", kCrash}, 1,
              "/tmp/crash.xml:2:3: rejected: Unable to apply the USB Admin config rules (the "
              "daemon's parser dies of it: SIGABRT)\n"
              "/tmp/crash.xml:2:3: advice: the vendor id 2147483648 ends the daemon: USB ids go up "
              "to 65535 [crash]\n");
    expectRun({"check", "--json", kCrash}, 1,
              "{\"file\":\"/tmp/crash.xml\",\"accepted\":false,\"status\":\"Unable to apply the "
              "USB Admin config rules\",\"line\":2,\"column\":3,\"crash\":\"SIGABRT\","
              "\"classRules\":0,\"vendorRules\":0,\"advice\":[{\"id\":\"crash\",\"line\":2,"
              "\"column\":3,\"text\":\"the vendor id 2147483648 ends the daemon: USB ids go up to "
              "65535\"}]}\n");
    WriteFile("/tmp/empty.xml", "<!-- nothing -->");
    EXPECT_THAT(run({"check", "/tmp/empty.xml"}).out, HasSubstr("SIGSEGV"));
}

TEST_F(PolicyCommands, CheckIsStrictAboutAdviceWhenAsked) {
    WriteFile("/tmp/advice.xml", "<usbconfig mode=\"whitelist\"/>\n");
    const std::string out =
            "/tmp/advice.xml: ok: whitelist without rules: everything is refused\n"
            "/tmp/advice.xml:1:1: advice: no device can match: every device will be refused "
            "[refuses-all]\n";
    expectRun({"check", "/tmp/advice.xml"}, 0, out);
    expectRun({"check", "/tmp/advice.xml", "--strict"}, 1, out);
}

TEST_F(PolicyCommands, CheckShowsNoControlCharactersOfAFile) {
    WriteFile("/tmp/evil.xml",
              "<usbconfig mode=\"whitelist\"><class>\x1b[31m\xff</class></usbconfig>");
    const std::string out = run({"check", "/tmp/evil.xml"}).out;
    EXPECT_EQ(std::string::npos, out.find('\x1b'));
    EXPECT_EQ(std::string::npos, out.find('\xff'));
}

TEST_F(PolicyCommands, TouchNoFileOfTheDaemon) {
    attachDevices();
    WriteFile(statusFilePath, "the status");
    for (const char* file : {kWhite, kBad, kCrash}) run({"check", file});
    run({"explain", kWhite, "--present"});
    run({"generate"});
    run({"diff", kWhite, kBlack, "--present"});

    EXPECT_EQ("the status", test::ReadFile(statusFilePath));
    EXPECT_FALSE(test::Exists(configFilePath));
    EXPECT_FALSE(test::Exists(backupFilePath));
    for (const char* interface : {"1-1:1.0", "1-2:1.0", "1-3:1.0"}) {
        EXPECT_EQ("1\n",
                  test::ReadFile(std::string("/sys/bus/usb/devices/") + interface + "/authorized"));
    }
}

// --- explain -------------------------------------------------------------------------------------

TEST_F(PolicyCommands, ExplainTellsOfADeviceByItsIds) {
    expectRun({"explain", kWhite, "--usb", "46f4:0001", "--interfaces", "8"}, 0,
              "device    usb, hex 46f4:0001, decimal 18164:1, USB_CLASS_MASS_STORAGE\n"
              "verdict   allowed\n"
              "reason    Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE\n"
              "rule      /tmp/white.xml:2:3: <class>USB_CLASS_MASS_STORAGE</class>\n"
              "test      screening  passed: USB_CLASS_MASS_STORAGE (8) is not HID\n"
              "test      class      match: USB_CLASS_MASS_STORAGE (8)\n");
    expectRun({"explain", kWhite, "--usb", "0403:6002", "--interfaces", "0xff"}, 1,
              "device    usb, hex 0403:6002, decimal 1027:24578, USB_CLASS_VENDOR_SPEC\n"
              "verdict   refused\n"
              "reason    No matching rule found to Whitelist the device\n"
              "test      screening  passed: USB_CLASS_VENDOR_SPEC (255) is not HID\n"
              "test      class      no match: no rule can name USB_CLASS_VENDOR_SPEC (255)\n"
              "test      vendor     no match: no rule for all of vendor 1027\n"
              "test      product    no match: no rule for 1027:24578, only for other products\n");
}

TEST_F(PolicyCommands, ExplainTellsOfADeviceOfHidInterfaces) {
    expectRun({"explain", kWhite, "--usb", "0627:0001", "--interfaces", "3"}, 0,
              "device    usb, hex 0627:0001, decimal 1575:1, USB_CLASS_HID\n"
              "verdict   to input\n"
              "test      screening  HID interfaces alone: only its input devices are judged\n"
              "hint      a vendor's own HID device, from which no input device comes, is judged "
              "itself: add --vendor-hid\n");
    expectRun({"explain", kWhite, "--usb", "0403:6001", "--interfaces", "3", "--vendor-hid"}, 0,
              "device    usb, hex 0403:6001, decimal 1027:24577, USB_CLASS_HID\n"
              "verdict   allowed\n"
              "reason    Whitelisted: Match by VID_PID combination, VID : 1027 PID: 24577\n"
              "rule      /tmp/white.xml:4:24: <pid>24577</pid></vid>\n"
              "test      screening  passed: a vendor's own HID device\n"
              "test      class      no match: no rule can name USB_CLASS_HID (3)\n"
              "test      vendor     no match: no rule for all of vendor 1027\n"
              "test      product    match: 1027:24577\n");
}

TEST_F(PolicyCommands, ExplainTellsOfInputSources) {
    expectRun({"explain", kWhite, "--input", "keyboard"}, 0,
              "device    input, no ids, AINPUT_SOURCE_KEYBOARD\n"
              "verdict   allowed\n"
              "reason    Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD\n"
              "rule      /tmp/white.xml:3:3: <class>AINPUT_SOURCE_KEYBOARD</class>\n"
              "test      class      match: AINPUT_SOURCE_KEYBOARD (256)\n");
    expectRun({"explain", kWhite, "--input", "0x2002", "--usb", "046d:c52b", "--json"}, 1,
              "{\"file\":\"/tmp/white.xml\",\"mode\":\"whitelist\",\"devices\":[{\"kind\":"
              "\"input\",\"name\":\"mouse\",\"vendorId\":1133,\"productId\":50475,"
              "\"deviceClass\":8194,\"interfaceClasses\":[],\"verdict\":\"refused\",\"reason\":"
              "\"No matching rule found to Whitelist the device\",\"rules\":[],\"tests\":["
              "{\"test\":\"class\",\"text\":\"no match: no rule for AINPUT_SOURCE_MOUSE (8192)\"},"
              "{\"test\":\"vendor\",\"text\":\"no match: no rule for all of vendor 1133\"},"
              "{\"test\":\"product\",\"text\":\"no match: no rule for 1133:50475\"}]}]}\n");
}

TEST_F(PolicyCommands, ExplainTellsOfWhatIsAttached) {
    attachDevices();
    expectRun({"explain", kWhite, "--present"}, 1,
              "DEVICE  KIND   VERDICT   LINE  HEX        DECIMAL     CLASSES                 NAME\n"
              "1-1     usb    allowed   2     46f4:0001  18164:1     USB_CLASS_MASS_STORAGE  USB "
              "Stick\n"
              "    Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE\n"
              "1-2     usb    to input  -     0627:0001  1575:1      USB_CLASS_HID           "
              "Keyboard\n"
              "    HID interfaces alone: only its input devices are judged\n"
              "1-3     usb    allowed   4     0403:6001  1027:24577  USB_CLASS_VENDOR_SPEC   Cable "
              "\xef\xbf\xbd[31m\xef\xbf\xbd"
              "\n"
              "    Whitelisted: Match by VID_PID combination, VID : 1027 PID: 24577\n"
              "1-4     usb    refused   -     05e0:1200  1504:4608   USB_CLASS_HID           "
              "05e0:1200\n"
              "    No matching rule found to Whitelist the device\n"
              "input5  input  allowed   3     0627:0001  1575:1      AINPUT_SOURCE_KEYBOARD  "
              "Keyboard\n"
              "    Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD\n");
}

// A vendor's own that was refused, and a keyboard that nobody has opened yet, look the same.
TEST_F(PolicyCommands, ExplainTellsThatABlockedDeviceIsTakenForAVendorsOwn) {
    attachDevices();
    WriteFile("/sys/bus/usb/devices/1-4:1.0/authorized", "0\n");
    EXPECT_THAT(
            run({"explain", kWhite, "--present"}).out,
            HasSubstr("1-4     usb    refused   -     05e0:1200  1504:4608   USB_CLASS_HID     "
                      "      05e0:1200\n"
                      "    No matching rule found to Whitelist the device (blocked: taken for a "
                      "vendor's own HID device; a keyboard that has never been allowed looks the "
                      "same)\n"));
    EXPECT_THAT(run({"explain", kWhite, "--present", "--json"}).out,
                HasSubstr("\"text\":\"blocked: taken for a vendor's own HID device; "));
}

TEST_F(PolicyCommands, PathCannotSteerTheTerminal) {
    WriteFile("/tmp/a\x1b[31m.xml", "<usbconfig mode=\"default\"/>");
    expectRun({"check", "/tmp/a\x1b[31m.xml"}, 0,
              "/tmp/a\xef\xbf\xbd[31m.xml: ok: default: everything is allowed\n");
    WriteFile("/tmp/b\x1b[31m.xml", "<usbconfig mode=\"x\"/>");
    EXPECT_EQ(std::string::npos, run({"check", "/tmp/b\x1b[31m.xml"}).out.find('\x1b'));
}

TEST_F(PolicyCommands, ExplainTellsThatNothingIsAttached) {
    MakeDir("/sys/bus/usb/devices");
    expectRun({"explain", kWhite, "--present"}, 0, "no USB device is attached\n");
    expectRun({"explain", kWhite, "--present", "--json"}, 0,
              "{\"file\":\"/tmp/white.xml\",\"mode\":\"whitelist\",\"devices\":[]}\n");
}

// --- generate ------------------------------------------------------------------------------------

TEST_F(PolicyCommands, GenerateMakesAPolicyForWhatIsAttached) {
    attachDevices();
    const ProcessResult result = run({"generate", "--by", "class"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    WriteFile("/tmp/generated.xml", result.out);

    expectRun({"check", "/tmp/generated.xml", "--strict"}, 0,
              "/tmp/generated.xml: ok: whitelist of 2 class rules and 2 vendor rules: what no rule "
              "names is refused\n");
    EXPECT_EQ(0, run({"explain", "/tmp/generated.xml", "--present"}).status);
}

TEST_F(PolicyCommands, GenerateWritesOneObject) {
    MakeDir("/sys/bus/usb/devices");
    expectRun({"generate", "--mode", "blacklist", "--by", "vendor", "--json"}, 0,
              "{\"mode\":\"blacklist\",\"by\":\"vendor\",\"policy\":\"<?xml version=\\\"1.0\\\" "
              "encoding=\\\"UTF-8\\\"?>\\n<usbconfig mode=\\\"blacklist\\\">\\n  <!-- What was "
              "attached when this was made. Nothing is refused yet: take the comment\\n       "
              "marks away from the rules that should refuse. -->\\n</usbconfig>\\n\"}\n");
    expectRun({"generate"}, 4, "",
              "kusctl: nothing is attached that a rule could name: attach what may be used, then "
              "run it again\n");
}

// --- diff ----------------------------------------------------------------------------------------

TEST_F(PolicyCommands, DiffTellsWhoseVerdictChanges) {
    attachDevices();
    expectRun({"diff", kWhite, kWhite, "--present"}, 0, "0 of 5 devices change their verdict\n");
    const ProcessResult result = run({"diff", kWhite, kBlack, "--present"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_EQ(
            "DEVICE  KIND  OLD      NEW      HEX        DECIMAL    CLASSES                 NAME\n"
            "1-1     usb   allowed  refused  46f4:0001  18164:1    USB_CLASS_MASS_STORAGE  USB "
            "Stick\n"
            "    Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE\n"
            "1-4     usb   refused  allowed  05e0:1200  1504:4608  USB_CLASS_HID           "
            "05e0:1200\n"
            "    No matching rule found to Blacklist the device\n"
            "2 of 5 devices change their verdict\n",
            result.out);
}

TEST_F(PolicyCommands, DiffWritesOneObject) {
    attachDevices();
    const ProcessResult result = run({"diff", kWhite, kBlack, "--present", "--json"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.out,
                HasSubstr("{\"old\":\"/tmp/white.xml\",\"new\":\"/tmp/black.xml\",\"changed\":2,"
                          "\"devices\":[{\"sysname\":\"1-1\",\"kind\":\"usb\",\"name\":\"USB "
                          "Stick\",\"vendorId\":18164,\"productId\":1,\"deviceClass\":0,"
                          "\"interfaceClasses\":[8],\"old\":\"allowed\",\"new\":\"refused\","
                          "\"oldReason\":\"Whitelisted: Match by ClassName, CLASS : "
                          "USB_CLASS_MASS_STORAGE \",\"newReason\":\"Blacklisted: Match by "
                          "ClassName, CLASS : USB_CLASS_MASS_STORAGE \"},"));
    EXPECT_EQ(result.out.size() - 1, result.out.find('\n'));
}

// --- What cannot be done -------------------------------------------------------------------------

TEST_F(PolicyCommands, SayWhichFileCannotBeRead) {
    attachDevices();
    const std::string missing = "kusctl: /tmp/no.xml cannot be read: No such file or directory\n";
    expectRun({"check", "/tmp/no.xml"}, 4, "", missing);
    expectRun({"check", "/tmp/no.xml", "--json"}, 4, "", missing);
    expectRun({"explain", "/tmp/no.xml", "--present"}, 4, "", missing);
    expectRun({"diff", "/tmp/no.xml", kWhite, "--present"}, 4, "", missing);
    expectRun({"diff", kWhite, "/tmp/no.xml", "--present"}, 4, "", missing);
    expectRun({"check", "/tmp"}, 4, "", "kusctl: /tmp cannot be read: Is a directory\n");
}

TEST_F(PolicyCommands, JudgeByNoFileThatTheDaemonWouldReject) {
    attachDevices();
    const std::string bad =
            "kusctl: /tmp/bad.xml:2:3: the daemon would reject this file: INVALID CLASS "
            "VALUE:USB_CLASS_PHYSICAL: run kusctl check /tmp/bad.xml\n";
    expectRun({"explain", kBad, "--present"}, 4, "", bad);
    expectRun({"explain", kBad, "--input", "keyboard", "--json"}, 4, "", bad);
    expectRun({"diff", kBad, kWhite, "--present"}, 4, "", bad);
    expectRun({"diff", kWhite, kBad, "--present"}, 4, "", bad);
    expectRun({"explain", kCrash, "--input", "keyboard"}, 4, "",
              "kusctl: /tmp/crash.xml:2:3: the daemon would reject this file: Unable to apply the "
              "USB Admin config rules (the daemon's parser dies of it: SIGABRT): run kusctl check "
              "/tmp/crash.xml\n");
}

TEST_F(PolicyCommands, SayThatAMachineHasNoUsb) {
    const std::string none = "kusctl: /sys/bus/usb/devices is not there: this machine has no USB\n";
    expectRun({"explain", kWhite, "--present"}, 4, "", none);
    expectRun({"generate"}, 4, "", none);
    expectRun({"diff", kWhite, kBlack, "--present"}, 4, "", none);
    // Those that ask about no device of it do not care.
    EXPECT_EQ(0, run({"check", kWhite}).status);
    EXPECT_EQ(0, run({"explain", kWhite, "--input", "keyboard"}).status);
}

}  // namespace
}  // namespace android::kus::tools
