// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What the service prints of itself, byte for byte, and the reset that a client may ask for.

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "android/kus/ku_service.h"
#include "android/kus/usbdevice.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"
#include "tests/usbdevice_fixture.h"

namespace android::kus::test {

namespace {

using android::base::unique_fd;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

using Arguments = std::vector<String16>;

Vector<String16> vectorOf(const Arguments& arguments) {
    Vector<String16> vector;
    for (const String16& argument : arguments) vector.push_back(argument);
    return vector;
}

// A stick that is not restricted.
DeviceInfo usbRecord() {
    DeviceInfo info;
    info.deviceName = "Stick";
    info.deviceId = 1005;
    info.interfaceClasses = {8};
    info.vendorId = 1921;
    info.productId = 21863;
    info.status = 1;
    info.deviceType = 0;
    info.reason = "Enabled by default rule";
    return info;
}

DeviceInfo usbRecord(std::vector<int32_t> interfaceClasses) {
    DeviceInfo info = usbRecord();
    info.interfaceClasses = std::move(interfaceClasses);
    return info;
}

DeviceInfo inputRecord(int32_t sources) {
    DeviceInfo info;
    info.deviceName = "Keys";
    info.deviceId = 2003;
    info.deviceClass = sources;
    info.vendorId = 1133;
    info.productId = 49948;
    info.deviceType = 1;
    info.reason = "Blacklisted: Match by VID, VID : 1133";
    return info;
}

std::string printed(const DeviceInfo& info) {
    return PrintedBy([&](int fd) { KUsbService::dumpPrint(fd, info); });
}

// The lines of a record from its class name to its restricted class name.
std::string classLines(const std::string& classes, const std::string& restricted) {
    return "\n   Device class name : " + classes + "\n   Restricted class name : " + restricted +
           "\n   Device Vendor Id : ";
}

class DumpTest : public ServiceTest {
  protected:
    std::string Dump(const Arguments& arguments = {}) {
        return PrintedBy([&](int fd) {
            // As the binder library calls it.
            EXPECT_EQ(0, static_cast<IBinder*>(service.get())->dump(fd, vectorOf(arguments)));
        });
    }
};

// --- One record --------------------------------------------------------------------------------

using DumpPrint = DumpTest;

TEST_F(DumpPrint, TellsAUsbDevice) {
    EXPECT_EQ(
            "\nDevice name : Stick"
            "\n   Device type(1=HID/0=Non-HID) : 0"
            "\n   DeviceID : 1005"
            "\n   Device class name : USB_CLASS_MASS_STORAGE;"
            "\n   Restricted class name : <none>"
            "\n   Device Vendor Id : 1921"
            "\n   Device Product Id : 21863"
            "\n   Device status(1-enabled/0-disabled): 1"
            "\n   Reason : Enabled by default rule\n",
            printed(usbRecord()));
}

TEST_F(DumpPrint, TellsAnInputDevice) {
    EXPECT_EQ(
            "\nDevice name : Keys"
            "\n   Device type(1=HID/0=Non-HID) : 1"
            "\n   DeviceID : 2003"
            "\n   Device class name : AINPUT_SOURCE_KEYBOARD;"
            "\n   Restricted class name : <none>"
            "\n   Device Vendor Id : 1133"
            "\n   Device Product Id : 49948"
            "\n   Device status(1-enabled/0-disabled): 0"
            "\n   Reason : Blacklisted: Match by VID, VID : 1133\n",
            printed(inputRecord(0x101)));
}

TEST_F(DumpPrint, TellsAnEmptyRecord) {
    EXPECT_EQ(
            "\nDevice name : "
            "\n   Device type(1=HID/0=Non-HID) : 0"
            "\n   DeviceID : 0"
            "\n   Device class name : "
            "\n   Restricted class name : <none>"
            "\n   Device Vendor Id : 0"
            "\n   Device Product Id : 0"
            "\n   Device status(1-enabled/0-disabled): 0"
            "\n   Reason : \n",
            printed(DeviceInfo()));
}

TEST_F(DumpPrint, TellsTheDeviceIdUnsignedAndAllOtherNumbersSigned) {
    DeviceInfo info = usbRecord();
    info.deviceId = -1;
    info.vendorId = -2;
    info.productId = INT_MIN;
    info.status = -3;
    EXPECT_THAT(printed(info), AllOf(HasSubstr("\n   DeviceID : 4294967295\n"),
                                     HasSubstr("\n   Device Vendor Id : -2\n"),
                                     HasSubstr("\n   Device Product Id : -2147483648\n"),
                                     HasSubstr("\n   Device status(1-enabled/0-disabled): -3\n")));
    info.deviceId = INT_MIN;
    EXPECT_THAT(printed(info), HasSubstr("\n   DeviceID : 2147483648\n"));
}

TEST_F(DumpPrint, TakesTextsAsTheyAre) {
    DeviceInfo info = usbRecord();
    info.deviceName = "100% %s %n\n\tLänge";
    info.reason = "%d;";
    EXPECT_THAT(printed(info), AllOf(HasSubstr("\nDevice name : 100% %s %n\n\tLänge\n   Device t"),
                                     HasSubstr("\n   Reason : %d;\n")));
}

TEST_F(DumpPrint, TellsNoCategory) {
    DeviceInfo info = usbRecord();
    const std::string without = printed(info);
    info.category = 4711;
    info.categoryPath = "sda;";
    EXPECT_EQ(without, printed(info));
}

TEST_F(DumpPrint, PartsTheInterfaceClassesOfAUsbDevice) {
    struct Case {
        std::vector<int32_t> interfaceClasses;
        const char* classes;
        const char* restricted;
    };
    const std::vector<Case> cases = {
            {{}, "", "<none>"},
            {{8, 8, 3}, "USB_CLASS_MASS_STORAGE;", "USB_CLASS_HID;"},
            {{3, 8, 8}, "USB_CLASS_MASS_STORAGE;", "USB_CLASS_HID;"},
            {{3, 9}, "<none>", "USB_CLASS_HID;USB_CLASS_HUB;"},
            {{9, 3, 9, 3}, "<none>", "USB_CLASS_HUB;USB_CLASS_HID;"},
            {{0}, "<none>", "USB_CLASS_PER_INTERFACE;"},
            {{239, 254, 255}, "<none>", "USB_CLASS_MISC;USB_CLASS_APP_SPEC;USB_CLASS_VENDOR_SPEC;"},
            {{10, 2, 224},
             "USB_CLASS_CDC_DATA;USB_CLASS_COMM;USB_CLASS_WIRELESS_CONTROLLER;",
             "<none>"},
            {{14, 1, 255, 14, 0},
             "USB_CLASS_VIDEO;USB_CLASS_AUDIO;",
             "USB_CLASS_VENDOR_SPEC;USB_CLASS_PER_INTERFACE;"},
            // A code without a name is a blank.
            {{4}, " ;", "<none>"},
            {{4, 12, -1}, " ;", "<none>"},
            {{8, 4, 3}, "USB_CLASS_MASS_STORAGE; ;", "USB_CLASS_HID;"},
            // A name that is a part of one that stands there already is left out.
            {{0x20000, 0x2000}, "AINPUT_SOURCE_MOUSE_RELATIVE;", "<none>"},
            {{0x2000, 0x20000}, "AINPUT_SOURCE_MOUSE;AINPUT_SOURCE_MOUSE_RELATIVE;", "<none>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.interfaceClasses));
        EXPECT_THAT(printed(usbRecord(c.interfaceClasses)),
                    HasSubstr(classLines(c.classes, c.restricted)));
    }
}

TEST_F(DumpPrint, TakesNoClassOfAUsbDeviceFromItsDeviceClass) {
    DeviceInfo info = usbRecord({});
    info.deviceClass = 0x301;
    EXPECT_THAT(printed(info), HasSubstr(classLines("", "<none>")));
}

TEST_F(DumpPrint, NamesTheSourcesOfAnInputDevice) {
    const std::vector<std::pair<int32_t, const char*>> cases = {
            {0x101, "AINPUT_SOURCE_KEYBOARD;"},
            {0x301, "AINPUT_SOURCE_KEYBOARD;AINPUT_SOURCE_DPAD;"},
            {0x22002, "AINPUT_SOURCE_MOUSE;AINPUT_SOURCE_MOUSE_RELATIVE;"},
            {0x1000611, "AINPUT_SOURCE_DPAD;AINPUT_SOURCE_GAMEPAD;AINPUT_SOURCE_JOYSTICK;"},
            {0x8000, ""},
            {3, ""},
            {0, ""},
    };
    for (const auto& [sources, names] : cases) {
        SCOPED_TRACE(sources);
        EXPECT_THAT(printed(inputRecord(sources)), HasSubstr(classLines(names, "<none>")));
    }
}

TEST_F(DumpPrint, LooksAtNoInterfaceClassOfAnInputDevice) {
    DeviceInfo info = inputRecord(0x101);
    info.interfaceClasses = {8, 3};
    EXPECT_THAT(printed(info), HasSubstr(classLines("AINPUT_SOURCE_KEYBOARD;", "<none>")));
}

TEST_F(DumpPrint, TakesEveryTypeButZeroAsAnInputDevice) {
    for (const int32_t type : {1, 2, -1}) {
        DeviceInfo info = inputRecord(0x101);
        info.deviceType = type;
        EXPECT_THAT(printed(info), AllOf(HasSubstr(classLines("AINPUT_SOURCE_KEYBOARD;", "<none>")),
                                         HasSubstr("\n   Device type(1=HID/0=Non-HID) : " +
                                                   std::to_string(type) + "\n")));
    }
}

// --- What one record logs

TEST_F(DumpPrint, LogsAUsbDeviceWithBothKindsOfClasses) {
    DeviceInfo info = usbRecord({8, 3, 8});
    info.deviceClass = 239;
    printed(info);
    EXPECT_THAT(
            log.Lines(),
            ElementsAre(Info("Dump DeviceInfo:= { DeviceId:1005, DeviceName: Stick, ClassName: "
                             "USB_CLASS_MISC[ 239] , VendorId: 1921, ProductId: 21863 }"),
                        Info("dumpPrint--USB_CLASS_MASS_STORAGE"), Info("dumpPrint--USB_CLASS_HID"),
                        Info("Found CLASS : 3 in restricted class list"),
                        Info("dumpPrint--USB_CLASS_MASS_STORAGE"),
                        Info("interfaceClassListStr USB_CLASS_MASS_STORAGE;")));
}

TEST_F(DumpPrint, LogsThatThereIsNoRestrictedClass) {
    DeviceInfo info = usbRecord({4});
    info.deviceId = -7;
    info.deviceName = "";
    info.deviceClass = -5;
    info.vendorId = -1;
    info.productId = -2;
    printed(info);
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("Dump DeviceInfo:= { DeviceId:-7, DeviceName: , ClassName:  [ -5] "
                                 ", VendorId: -1, ProductId: -2 }"),
                            Info("dumpPrint-- "), Info("restrictedClassList is null"),
                            Info("interfaceClassListStr  ;")));
}

TEST_F(DumpPrint, LogsThatThereIsNoOtherClass) {
    DeviceInfo info = usbRecord({9});
    info.deviceClass = 9;
    printed(info);
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("Dump DeviceInfo:= { DeviceId:1005, DeviceName: Stick, ClassName: "
                                 "USB_CLASS_HUB[ 9] , VendorId: 1921, ProductId: 21863 }"),
                            Info("dumpPrint--USB_CLASS_HUB"),
                            Info("Found CLASS : 9 in restricted class list"),
                            Info("interfaceClassListStr is null"),
                            Info("interfaceClassListStr <none>")));
}

TEST_F(DumpPrint, LogsOnlyTheRestrictedClassesAsMissingWhenThereIsNoClass) {
    printed(usbRecord({}));
    EXPECT_THAT(
            log.Lines(),
            ElementsAre(Info("Dump DeviceInfo:= { DeviceId:1005, DeviceName: Stick, ClassName: "
                             "USB_CLASS_PER_INTERFACE[ 0] , VendorId: 1921, ProductId: 21863 }"),
                        Info("restrictedClassList is null"), Info("interfaceClassListStr ")));
}

TEST_F(DumpPrint, LogsAnInputDevice) {
    printed(inputRecord(0x301));
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("Dump DeviceInfo:= { DeviceId:2003, DeviceName: Keys, ClassName:  "
                                 "[ 769] , VendorId: 1133, ProductId: 49948 }"),
                            Info("checkMultiClass key_val769"), Info("checkMultiClass--768"),
                            Info("Key not found"), Info(""),
                            Info("interfaceClassListStr AINPUT_SOURCE_KEYBOARD;"
                                 "AINPUT_SOURCE_DPAD;")));
}

TEST_F(DumpPrint, SaysNothingOfMissingClassesOfAnInputDevice) {
    printed(inputRecord(0x100 | 1));
    printed(inputRecord(0));
    EXPECT_EQ(0, log.CountOf(Info("restrictedClassList is null")));
    EXPECT_EQ(0, log.CountOf(Info("interfaceClassListStr is null")));
    EXPECT_EQ(1, log.CountOf(Info("interfaceClassListStr ")));
}

// --- The lists ---------------------------------------------------------------------------------

TEST_F(DumpTest, PrintsTheHeadingAloneForEmptyLists) {
    EXPECT_EQ("USB DEVICE INFO ", Dump());
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("mInputDeviceInfoList size 0mUsbDeviceInfoList size 0")));
}

class FilledDump : public DumpTest {
  protected:
    void SetUp() override {
        DumpTest::SetUp();
        for (const int32_t id : {3001, 1005, 1002}) Add(usbRecord({8}), id);
        for (const int32_t id : {1004, -6}) Add(inputRecord(0x101), id);
        log.Take();
    }

    static std::string InputLines(const std::string& id, const std::string& name) {
        return "\nDevice name : " + name +
               "\n   Device type(1=HID/0=Non-HID) : 1"
               "\n   DeviceID : " +
               id +
               "\n   Device class name : AINPUT_SOURCE_KEYBOARD;"
               "\n   Restricted class name : <none>"
               "\n   Device Vendor Id : 1133"
               "\n   Device Product Id : 49948"
               "\n   Device status(1-enabled/0-disabled): 0"
               "\n   Reason : reason of " +
               name + "\n";
    }

    static std::string UsbLines(const std::string& id, const std::string& name) {
        return "\nDevice name : " + name +
               "\n   Device type(1=HID/0=Non-HID) : 0"
               "\n   DeviceID : " +
               id +
               "\n   Device class name : USB_CLASS_MASS_STORAGE;"
               "\n   Restricted class name : <none>"
               "\n   Device Vendor Id : 1921"
               "\n   Device Product Id : 21863"
               "\n   Device status(1-enabled/0-disabled): 1"
               "\n   Reason : reason of " +
               name + "\n";
    }

    static std::string AllLines() {
        return "USB DEVICE INFO " + InputLines("4294967290", "device -6") +
               InputLines("1004", "device 1004") + UsbLines("1002", "device 1002") +
               UsbLines("1005", "device 1005") + UsbLines("3001", "device 3001");
    }

  private:
    void Add(DeviceInfo info, int32_t id) {
        info.deviceId = id;
        info.deviceName = "device " + std::to_string(id);
        service->addDeviceList(info, info.deviceType == 0, "reason of " + info.deviceName);
    }
};

TEST_F(FilledDump, PrintsInputDevicesThenUsbDevicesByAscendingId) {
    EXPECT_EQ(AllLines(), Dump());
}

TEST_F(FilledDump, LogsTheSizesAndThenEachRecord) {
    Dump();
    std::vector<std::string> starts;
    for (const std::string& text : log.Texts()) {
        if (text.find("size") != std::string::npos || text.find("Dump") == 0) {
            starts.push_back(text.substr(0, text.find(", ClassName")));
        }
    }
    EXPECT_EQ(log.Lines()[0], Info("mInputDeviceInfoList size 2mUsbDeviceInfoList size 3"));
    EXPECT_THAT(starts, ElementsAre("mInputDeviceInfoList size 2mUsbDeviceInfoList size 3",
                                    "Dump DeviceInfo:= { DeviceId:-6, DeviceName: device -6",
                                    "Dump DeviceInfo:= { DeviceId:1004, DeviceName: device 1004",
                                    "Dump DeviceInfo:= { DeviceId:1002, DeviceName: device 1002",
                                    "Dump DeviceInfo:= { DeviceId:1005, DeviceName: device 1005",
                                    "Dump DeviceInfo:= { DeviceId:3001, DeviceName: device 3001"));
}

TEST_F(FilledDump, PrintsTheSameAgain) {
    Dump();
    EXPECT_EQ(AllLines(), Dump());
}

TEST_F(FilledDump, LeavesOutWhatIsGone) {
    for (const DeviceInfo& info : Devices()) {
        if (info.deviceId != 1005) service->updateDeviceList(info, 0);
    }
    EXPECT_EQ("USB DEVICE INFO " + UsbLines("1005", "device 1005"), Dump());
}

TEST_F(FilledDump, PrintsTheSameWithoutInfoLogging) {
    const android::base::ScopedLogSeverity quiet(android::base::WARNING);
    EXPECT_EQ(AllLines(), Dump());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// The log goes to the same file as the print.
TEST_F(DumpTest, PrintsAtOnce) {
    const ProcessResult child = RunInChild([&] {
        DeviceInfo info = usbRecord({3});
        info.deviceClass = 8;
        service->addDeviceList(info, true, "a reason");
        dprintf(STDERR_FILENO, "--\n");
        service->dump(STDERR_FILENO, {});
        // Nothing may be left in a buffer.
        _exit(EXIT_SUCCESS);
    });
    EXPECT_EQ(
            "--\n"
            "USB DEVICE INFO "
            "I mInputDeviceInfoList size 0mUsbDeviceInfoList size 1\n"
            "I Dump DeviceInfo:= { DeviceId:1005, DeviceName: Stick, ClassName: "
            "USB_CLASS_MASS_STORAGE[ 8] , VendorId: 1921, ProductId: 21863 }\n"
            "I dumpPrint--USB_CLASS_HID\n"
            "I Found CLASS : 3 in restricted class list\n"
            "I interfaceClassListStr is null\n"
            "I interfaceClassListStr <none>\n"
            "\nDevice name : Stick"
            "\n   Device type(1=HID/0=Non-HID) : 0"
            "\n   DeviceID : 1005"
            "\n   Device class name : <none>"
            "\n   Restricted class name : USB_CLASS_HID;"
            "\n   Device Vendor Id : 1921"
            "\n   Device Product Id : 21863"
            "\n   Device status(1-enabled/0-disabled): 1"
            "\n   Reason : a reason\n",
            child.err.substr(child.err.find("--\n")));
}

// --- A first argument --------------------------------------------------------------------------

TEST_F(FilledDump, PrintsNothingForAnotherFirstArgument) {
    for (const char* argument :
         {"TEST", "Test", "tester", "tes", " test", "test ", "", "-a", "--help", "t", "USB Test"}) {
        SCOPED_TRACE(argument);
        log.Take();
        EXPECT_EQ("", Dump({String16(argument)}));
        EXPECT_THAT(log.Lines(), ElementsAre(Info(std::string("args[0] is") + argument)));
    }
}

TEST_F(FilledDump, PrintsNothingForAnArgumentThatGoesOnBehindAZero) {
    const std::u16string longer(u"test\0", 5);
    EXPECT_EQ("", Dump({String16(longer.data(), longer.size())}));
}

TEST_F(FilledDump, LogsTheArgumentAsEightBitText) {
    EXPECT_EQ("", Dump({String16(u"Gerät €")}));
    EXPECT_THAT(log.Lines(), ElementsAre(Info("args[0] isGerät €")));
}

TEST_F(FilledDump, LooksAtTheFirstArgumentOnly) {
    EXPECT_EQ("", Dump({String16("all"), String16("test")}));
    EXPECT_THAT(log.Lines(), ElementsAre(Info("args[0] isall")));
}

class DumpTree : public FilledDump {
  protected:
    void SetUp() override {
        FilledDump::SetUp();
        AddBus(1);
        AddDevice("1-2", 1, 5, "17e9", "6001");
        BindDriver(AddInterface("1-2:1.0", "08"), "usb-storage");
    }

    // What the USB layer prints by itself, and the lines that it logs, but the first: it tells the
    // descriptor, which for a client's dump is that of the memory printed to.
    std::string Tree() {
        log.Take();
        std::string text = PrintedBy([](int fd) { UsbDevice::dump_print_test(fd); });
        lines_ = log.Take();
        lines_.erase(lines_.begin());
        return text;
    }

    void ExpectLinesWith(const std::string& argument) const {
        std::vector<LogLine> lines = log.Lines();
        ASSERT_THAT(lines, SizeIs(Ge(2U)));
        EXPECT_EQ(Info("args[0] is" + argument), lines[0]);
        EXPECT_THAT(lines[1].text, MatchesRegex("dump_print_test called [0-9]+"));
        lines.erase(lines.begin(), lines.begin() + 2);
        EXPECT_EQ(lines_, lines);
    }

  private:
    std::vector<LogLine> lines_;
};

TEST_F(DumpTree, IsPrintedForTheArgumentTest) {
    const std::string tree = Tree();
    ASSERT_THAT(tree, HasSubstr("Vendor:Product ID 17e9:6001"));
    EXPECT_EQ("USB Test \n" + tree, Dump({String16("test")}));
    ExpectLinesWith("test");
}

TEST_F(DumpTree, IsPrintedWhateverElseIsAsked) {
    const std::string tree = Tree();
    EXPECT_EQ("USB Test \n" + tree, Dump({String16("test"), String16("all"), String16("")}));
    ExpectLinesWith("test");
}

TEST_F(DumpTree, IsThatOfThisMoment) {
    Dump({String16("test")});
    AddDevice("1-3", 1, 6, "0781", "5567");
    AddInterface("1-3:1.0", "08");
    const std::string now = Dump({String16("test")});
    EXPECT_THAT(now, HasSubstr("Vendor:Product ID 0781:5567"));
    EXPECT_EQ(now, "USB Test \n" + Tree());
}

TEST_F(DumpTree, LeavesTheListsAsTheyAre) {
    const std::vector<std::string> before = Texts(Devices());
    Dump({String16("test")});
    EXPECT_EQ(before, Texts(Devices()));
}

// --- A descriptor that cannot be written -------------------------------------------------------

using DumpNowhere = FilledDump;

// In a child: glibc's dprintf() does not give its buffer back when the write fails, and the leak is
// not the daemon's.
TEST_F(DumpNowhere, DoesNoHarm) {
    const unique_fd readOnly(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    // A number that no file opened by the test will get.
    const int closed = unique_fd(fcntl(readOnly, F_DUPFD_CLOEXEC, 900)).get();
    ASSERT_LE(900, closed);
    const std::vector<Arguments> argumentLists = {{}, {String16("test")}, {String16("TEST")}};
    for (const int fd : {-1, INT_MAX, closed, readOnly.get(), full.get()}) {
        SCOPED_TRACE(fd);
        const ProcessResult child = RunInChild([&] {
            for (const Arguments& arguments : argumentLists) {
                printf("%d ", service->dump(fd, vectorOf(arguments)));
            }
            KUsbService::dumpPrint(fd, usbRecord());
            CHECK(fflush(stdout) == 0);
            service->dump(STDOUT_FILENO, {});
        });
        EXPECT_EQ(0, child.status);
        EXPECT_EQ("0 0 0 " + AllLines(), child.out);
    }
}

TEST_F(DumpNowhere, LogsAsEver) {
    const ProcessResult somewhere = RunInChild([&] { service->dump(STDOUT_FILENO, {}); });
    const ProcessResult nowhere = RunInChild([&] { service->dump(-1, {}); });
    EXPECT_THAT(somewhere.err, HasSubstr("I mInputDeviceInfoList size 2mUsb"));
    EXPECT_EQ(somewhere.err, nowhere.err);
    EXPECT_EQ(0, nowhere.status);
}

TEST_F(DumpNowhere, LeavesTheDescriptorToTheCaller) {
    const unique_fd fd(memfd_create("printed", MFD_CLOEXEC));
    ASSERT_EQ(0, service->dump(fd, {}));
    EXPECT_NE(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(static_cast<off_t>(AllLines().size()), lseek(fd, 0, SEEK_CUR));
}

// --- Reset -------------------------------------------------------------------------------------

constexpr char kModeFile[] = "/sys/devices/platform/soc/c200000.hsusb/mode";
constexpr char kDcSupply[] = "/sys/class/power_supply/dc/online";

class ResetCommand : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        Remove("/sys/class");
        WriteFile(kModeFile, "host\n");
    }

    /** Calls the reset and returns how long it took. */
    std::chrono::milliseconds Reset(int32_t value) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(service->resetUsbDevices(value).isOk());
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - start);
    }
};

TEST_F(ResetCommand, FlipsTheControllersForZeroAndLess) {
    const std::string path = kModeFile;
    for (const int32_t value : {0, -1, INT_MIN}) {
        SCOPED_TRACE(value);
        log.Take();
        const std::chrono::milliseconds time = Reset(value);
        // Both pauses are over, and the last line is there, when it returns.
        EXPECT_LE(200, time.count());
        EXPECT_THAT(log.Lines(),
                    ElementsAre(Info("resetUsbDevices called"), Info("usb_host_reset entered:"),
                                Info("usb_host_reset mode set to none for syspath: " + path),
                                Info("usb_host_reset mode set to host for syspath: " + path)));
        EXPECT_EQ("host", ReadFile(kModeFile).substr(0, 4));
    }
}

// Without DC power a virtual dock ends before its delay.
TEST_F(ResetCommand, DocksVirtuallyForOneAndMore) {
    WriteFile(kDcSupply, "0\n");
    for (const int32_t value : {1, 500, INT_MAX}) {
        SCOPED_TRACE(value);
        log.Take();
        Reset(value);
        EXPECT_THAT(log.Lines(),
                    ElementsAre(Info("resetUsbDevices called"), Info("usb_host_reset entered:"),
                                Info("virtual_undock_dock_event usbPath : empty"),
                                Info("virtual_undock_dock_event usbPath empty for non-display "
                                     "link device")));
        EXPECT_EQ("host\n", ReadFile(kModeFile));
    }
}

TEST_F(ResetCommand, WaitsForTheWholeVirtualDock) {
    WriteFile(kDcSupply, "1\n");
    const std::chrono::milliseconds time = Reset(250);
    EXPECT_LE(250, time.count());
    char docked[PROPERTY_VALUE_MAX];
    property_get("persist.vendor.monitor.dock", docked, "");
    EXPECT_STREQ("1", docked);
    // The poll thread ends with the test.
    EXPECT_TRUE(log.WaitFor(Info("readSysfsChangeEvent:exit poll due to virtual dock")));
}

TEST_F(ResetCommand, IsOkWithoutAnyController) {
    Remove("/sys/devices");
    Reset(0);
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("resetUsbDevices called"), Info("usb_host_reset entered:")));
}

}  // namespace

}  // namespace android::kus::test
