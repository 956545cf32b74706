// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/request.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

using By = Request::By;
using Command = Request::Command;
using Words = std::vector<std::string>;

Request requestOf(const Words& args) {
    const auto request = parseRequest(args);
    EXPECT_TRUE(request.has_value()) << request.error();
    return request.has_value() ? *request : Request();
}

std::string errorOf(const Words& args) {
    const auto request = parseRequest(args);
    return request.has_value() ? "no error" : request.error();
}

Words explainUsb(const std::string& ids, const Words& more = {}) {
    Words words = {"explain", "p.xml", "--usb", ids};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST(ParseRequest, KnowsEachCommand) {
    struct Case {
        Words args;
        Command command;
    };
    const Case cases[] = {{{"help"}, Command::kHelp},
                          {{"--help"}, Command::kHelp},
                          {{"-h"}, Command::kHelp},
                          {{"list", "--help"}, Command::kHelp},
                          {{"list"}, Command::kList},
                          {{"watch"}, Command::kWatch},
                          {{"status"}, Command::kStatus},
                          {{"dump"}, Command::kDump},
                          {{"reset"}, Command::kReset},
                          {{"check", "p.xml"}, Command::kCheck},
                          {{"explain", "p.xml", "--present"}, Command::kExplain},
                          {{"generate"}, Command::kGenerate},
                          {{"diff", "a", "b", "--present"}, Command::kDiff}};
    for (const Case& each : cases) EXPECT_EQ(each.command, requestOf(each.args).command);
}

TEST(ParseRequest, EveryCommandTakesJson) {
    const Words commands[] = {{"list"},
                              {"watch"},
                              {"status"},
                              {"dump"},
                              {"reset"},
                              {"check", "p.xml"},
                              {"explain", "p.xml", "--present"},
                              {"generate"},
                              {"diff", "a", "b", "--present"}};
    for (Words args : commands) {
        EXPECT_FALSE(requestOf(args).json);
        args.emplace_back("--json");
        EXPECT_TRUE(requestOf(args).json);
    }
}

TEST(ParseRequest, LiveCommandsHaveTheirDefaultsAndOptions) {
    EXPECT_EQ(0, requestOf({"watch"}).count);
    EXPECT_EQ(100, requestOf({"watch", "--count", "100"}).count);
    EXPECT_FALSE(requestOf({"dump"}).test);
    EXPECT_TRUE(requestOf({"dump", "test"}).test);
    EXPECT_EQ(0, requestOf({"reset"}).undockMs);
    EXPECT_EQ(1, requestOf({"reset", "--undock", "1"}).undockMs);
    EXPECT_EQ(2147483, requestOf({"reset", "--undock", "2147483"}).undockMs);
}

TEST(ParseRequest, CheckAndDiffTakeTheirFiles) {
    EXPECT_EQ("p.xml", requestOf({"check", "p.xml"}).file);
    EXPECT_FALSE(requestOf({"check", "p.xml"}).strict);
    EXPECT_TRUE(requestOf({"check", "--strict", "p.xml"}).strict);
    EXPECT_EQ("--odd", requestOf({"check", "--", "--odd"}).file);
    const Request diff = requestOf({"diff", "old.xml", "--present", "new.xml"});
    EXPECT_EQ("old.xml", diff.file);
    EXPECT_EQ("new.xml", diff.newFile);
    EXPECT_TRUE(diff.present);
}

TEST(ParseRequest, GenerateTakesAModeAndAKindOfRule) {
    EXPECT_EQ("whitelist", requestOf({"generate"}).mode);
    EXPECT_EQ(By::kProduct, requestOf({"generate"}).by);
    const Request request = requestOf({"generate", "--mode", "blacklist", "--by", "class"});
    EXPECT_EQ("blacklist", request.mode);
    EXPECT_EQ(By::kClass, request.by);
    EXPECT_EQ(By::kVendor, requestOf({"generate", "--by", "vendor"}).by);
    EXPECT_EQ(By::kProduct, requestOf({"generate", "--by", "product"}).by);
}

TEST(ParseRequest, ExplainTakesWhatIsPresent) {
    const Request request = requestOf({"explain", "p.xml", "--present"});
    EXPECT_EQ("p.xml", request.file);
    EXPECT_TRUE(request.present);
}

TEST(ParseRequest, UsbDeviceIsMadeOfItsIdsAndClasses) {
    const Request plain = requestOf(explainUsb("046d:c52b", {"--interfaces", "8"}));
    EXPECT_FALSE(plain.present);
    EXPECT_FALSE(plain.vendorHid);
    EXPECT_EQ("046d:c52b", plain.device.deviceName);
    EXPECT_EQ(0, plain.device.deviceType);
    EXPECT_EQ(1133, plain.device.vendorId);
    EXPECT_EQ(50475, plain.device.productId);
    EXPECT_EQ(0, plain.device.deviceClass);
    EXPECT_EQ(std::vector<int32_t>{8}, plain.device.interfaceClasses);

    const Request whole =
            requestOf(explainUsb("0x46D:0X1", {"--class", "0xEF", "--interfaces",
                                               "mass_storage,0xff,0,USB_CLASS_vendor_SPEC"}));
    EXPECT_EQ("046d:0001", whole.device.deviceName);
    EXPECT_EQ(239, whole.device.deviceClass);
    EXPECT_EQ((std::vector<int32_t>{8, 255, 0, 255}), whole.device.interfaceClasses);
}

TEST(ParseRequest, UsbDeviceWantsItsInterfacesClasses) {
    const char* const wanted =
            "--usb wants the classes of the device's interfaces, too: --interfaces 8 for a memory "
            "stick (lsusb -v tells them, as bInterfaceClass)";
    EXPECT_EQ(wanted, errorOf(explainUsb("046d:c52b")));
    EXPECT_EQ(wanted, errorOf(explainUsb("046d:c52b", {"--class", "8"})));
}

TEST(ParseRequest, VendorHidIsForHidInterfacesAlone) {
    EXPECT_TRUE(requestOf(explainUsb("1:2", {"--interfaces", "3,3", "--vendor-hid"})).vendorHid);
    EXPECT_TRUE(requestOf(explainUsb("1:2", {"--vendor-hid"})).vendorHid);
    EXPECT_EQ("--vendor-hid is for a device of HID interfaces (class 3) alone",
              errorOf(explainUsb("1:2", {"--interfaces", "3,8", "--vendor-hid"})));
}

TEST(ParseRequest, InputDeviceIsMadeOfItsSources) {
    struct Case {
        const char* sources;
        int32_t deviceClass;
        const char* name;
    };
    const Case cases[] = {
            {"keyboard", 0x100, "keyboard"},
            {"keyboard,mouse", 0x2100, "keyboard, mouse"},
            {"AINPUT_SOURCE_KEYBOARD,ainput_source_Joystick", 0x1000100, "keyboard, joystick"},
            {"Mouse_Relative", 0x20000, "mouse_relative"},
            {"0x2002", 0x2002, "mouse"},
            {"257", 257, "keyboard"},
            {"mouse,0x101", 0x2101, "keyboard, mouse"},
            {"8", 8, "input"},
    };
    for (const Case& each : cases) {
        const Request request = requestOf({"explain", "p.xml", "--input", each.sources});
        EXPECT_EQ(each.deviceClass, request.device.deviceClass) << each.sources;
        EXPECT_EQ(each.name, request.device.deviceName) << each.sources;
        EXPECT_EQ(1, request.device.deviceType);
        EXPECT_EQ(0, request.device.vendorId);
        EXPECT_TRUE(request.device.interfaceClasses.empty());
    }
}

TEST(ParseRequest, InputDeviceMayHaveIds) {
    const Request request =
            requestOf({"explain", "p.xml", "--input", "keyboard", "--usb", "046d:c31c"});
    EXPECT_EQ(1, request.device.deviceType);
    EXPECT_EQ("keyboard", request.device.deviceName);
    EXPECT_EQ(1133, request.device.vendorId);
    EXPECT_EQ(0xc31c, request.device.productId);
}

struct Mistake {
    Words args;
    const char* error;
};

void expectErrors(const std::vector<Mistake>& mistakes) {
    for (const Mistake& each : mistakes) EXPECT_EQ(each.error, errorOf(each.args));
}

TEST(ParseRequest, UnknownCommandsGetAGuess) {
    expectErrors({
            {{}, "a command is needed: kusctl help lists them"},
            {{"lst"}, "there is no command 'lst': did you mean list"},
            {{"stauts"}, "there is no command 'stauts': did you mean status"},
            {{"gen"}, "there is no command 'gen': did you mean generate"},
            {{"explian", "f"}, "there is no command 'explian': did you mean explain"},
            {{"diff."}, "there is no command 'diff.': did you mean diff"},
            {{"xy"}, "there is no command 'xy': kusctl help lists them"},
            {{"frobnicate"}, "there is no command 'frobnicate': kusctl help lists them"},
            {{""}, "there is no command '': kusctl help lists them"},
            {{"--json", "list"},
             "the command comes first, and '--json' is none: kusctl help lists them"},
    });
}

TEST(ParseRequest, WrongOptionsAndWordsGetTheUsage) {
    expectErrors({
            {{"list", "--count", "1"}, "unknown option --count: kusctl list"},
            {{"list", "x"}, "'x' is one word too many: kusctl list"},
            {{"watch", "--count"}, "--count needs a value: kusctl watch [--count N]"},
            {{"list", "--json", "--json"}, "--json is given twice: kusctl list"},
            {{"check"}, "a file is missing: kusctl check FILE [--strict]"},
            {{"check", "a", "b"}, "'b' is one word too many: kusctl check FILE [--strict]"},
            {{"diff", "a", "--present"}, "a file is missing: kusctl diff OLD NEW --present"},
            {{"dump", "test", "x"}, "'x' is one word too many: kusctl dump [test]"},
            {{"dump", "all"}, "dump takes the word test or none, and 'all' is neither"},
            {{"diff", "a", "b"},
             "diff wants --present: it compares what becomes of the attached devices"},
    });
}

TEST(ParseRequest, NumbersKeepToTheirRanges) {
    for (const char* count : {"0", "-1", "2147483648", "x", "1x", " 1", "+1", "", "0x"}) {
        EXPECT_EQ(
                "--count wants a number of events, 1 or more: '" + std::string(count) + "' is none",
                errorOf({"watch", "--count", count}));
    }
    for (const char* ms : {"0", "-5", "2147484", "0.5"}) {
        EXPECT_EQ(
                "--undock wants milliseconds from 1 to 2147483: '" + std::string(ms) + "' is none",
                errorOf({"reset", "--undock", ms}));
    }
    for (const char* code : {"256", "-1", "hid", "", "0x100"}) {
        EXPECT_EQ("--class wants a USB class code from 0 to 255, decimal or 0x..: '" +
                          std::string(code) + "' is none",
                  errorOf(explainUsb("1:2", {"--class", code})));
    }
}

TEST(ParseRequest, InterfaceClassesAreCodes) {
    struct Case {
        const char* list;
        const char* wrong;
    };
    for (const Case& each :
         {Case{"", ""}, Case{"8,", ""}, Case{"8,256", "256"}, Case{"8, 3", " 3"},
          Case{"USB_CLASS_", "USB_CLASS_"}, Case{"AINPUT_SOURCE_MOUSE", "AINPUT_SOURCE_MOUSE"}}) {
        EXPECT_EQ(
                "--interfaces wants USB classes with commas between, as codes from 0 to 255, "
                "decimal or 0x.., or by name, like 8,0xff or mass_storage: '" +
                        std::string(each.wrong) + "' is none",
                errorOf(explainUsb("1:2", {"--interfaces", each.list})));
    }
}

TEST(ParseRequest, IdsAreHexadecimal) {
    for (const char* ids : {"", "046d", "046d:", ":c52b", "046d:c52b:1", "0x:c52b", "046g:c52b",
                            "046d c52b", "-1:1", " 46d:c52b", "--json"}) {
        EXPECT_EQ("--usb wants VID:PID in hexadecimal as lsusb prints it, like 046d:c52b: '" +
                          std::string(ids) + "' is none",
                  errorOf(explainUsb(ids)));
    }
    EXPECT_EQ(
            "--usb wants hexadecimal, and '1133:50475' looks decimal, as a policy file has it: "
            "write 046d:c52b",
            errorOf(explainUsb("1133:50475")));
    EXPECT_EQ("an id has four digits at most, 0000 to ffff: '70000' has more",
              errorOf(explainUsb("70000:1")));
    EXPECT_EQ("an id has four digits at most, 0000 to ffff: '1c52b' has more",
              errorOf(explainUsb("046d:1c52b")));
}

TEST(ParseRequest, ExplainWantsOneSubject) {
    const char* const twoSubjects =
            "--present asks about what is attached: leave out --usb and --input, or --present";
    expectErrors({
            {{"explain", "f"}, "explain wants one of --present, --usb VID:PID and --input SOURCES"},
            {{"explain", "f", "--present", "--usb", "1:2"}, twoSubjects},
            {{"explain", "f", "--present", "--input", "mouse"}, twoSubjects},
            {{"explain", "f", "--present", "--class", "8"},
             "--class needs --usb VID:PID beside it"},
            {{"explain", "f", "--present", "--vendor-hid"},
             "--vendor-hid needs --usb VID:PID beside it"},
            {{"explain", "f", "--input", "mouse", "--interfaces", "3"},
             "--interfaces belongs to a USB device, and --input asks about an input device"},
            {{"explain", "f", "--input", "mouse", "--usb", "1:2", "--vendor-hid"},
             "--vendor-hid belongs to a USB device, and --input asks about an input device"},
            {{"explain", "f", "--interfaces", "8"},
             "explain wants one of --present, --usb VID:PID and --input SOURCES"},
    });
}

TEST(ParseRequest, UnknownSourcesAreAnsweredWithThoseThatThereAre) {
    for (const char* word : {"mose", "", "USB_CLASS_HID", "0", "-1", "0x100000000"}) {
        EXPECT_EQ("'" + std::string(word) +
                          "' is no input source: --input wants a number like 0x2002, or of these, "
                          "with commas between: keyboard, dpad, gamepad, touchscreen, mouse, "
                          "stylus, trackball, mouse_relative, touchpad, touch_navigation, "
                          "rotary_encoder, joystick",
                  errorOf({"explain", "f", "--input", "keyboard," + std::string(word)}));
    }
}

TEST(ParseRequest, ModesAndKindsOfRulesAreTheirNames) {
    expectErrors({
            {{"generate", "--mode", "default"},
             "--mode wants whitelist or blacklist: 'default' is neither"},
            {{"generate", "--mode", "Whitelist"},
             "--mode wants whitelist or blacklist: 'Whitelist' is neither"},
            {{"generate", "--by", "id"},
             "--by wants class, vendor or product: 'id' is none of them"},
            {{"generate", "--by", ""}, "--by wants class, vendor or product: '' is none of them"},
    });
}

TEST(Usage, NamesEveryCommandAndFitsATerminal) {
    const std::string usage = kKusctlUsage;
    for (const char* command :
         {"list", "watch", "status", "dump", "reset", "check", "explain", "generate", "diff"}) {
        EXPECT_NE(std::string::npos, usage.find(std::string("\n  ") + command + " ")) << command;
    }
    size_t begin = 0;
    for (size_t end; (end = usage.find('\n', begin)) != std::string::npos; begin = end + 1) {
        EXPECT_LE(end - begin, 90U) << usage.substr(begin, end - begin);
    }
    EXPECT_EQ(usage.size(), begin);
}

}  // namespace
}  // namespace android::kus::tools
