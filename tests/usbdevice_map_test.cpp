// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The device-id map, the categories of interfaces, and the switch that blocks them.

#include <stddef.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/usbdevice.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/usbdevice_fixture.h"

namespace android::kus::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kInterface[] = "1-5:1.0";
constexpr char kInterfaceDir[] = "/sys/bus/usb/devices/1-5:1.0";
constexpr char kHid[] = "0003:1234:5678.0001";

// The record of an interface after the scan, before its category is known.
usbinterface interfaceOf(const std::string& name, uint32_t bInterfaceClass) {
    usbinterface interface = {};
    SetText(interface.name, name);
    interface.bInterfaceClass = bInterfaceClass;
    return interface;
}

// What the category rule makes of kInterface; logs as it does.
std::pair<int32_t, std::string> categoryOf(uint32_t bInterfaceClass = 3) {
    usbinterface interface = interfaceOf(kInterface, bInterfaceClass);
    interface.category = 77;
    SetText(interface.category_path, "from before");
    UsbDevice::populate_category_device(&interface);
    return {interface.category, interface.category_path};
}

// Makes an interface directory whose path has this many characters; returns its record.
usbinterface addInterfaceWithPathOf(size_t length) {
    const size_t nameLength = length - strlen("/sys/bus/usb/devices/");
    const std::string start = "1-1:1.0";
    const std::string name = start + TextOf(nameLength - start.size());
    AddInterface(name, "03");
    return interfaceOf(name, 3);
}

// The lines of a trace without those for "." and "..".
std::vector<LogLine> withoutDotEntries(std::vector<LogLine> lines) {
    const std::string text = "Entered while with dir is :";
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [&](const LogLine& line) {
                                   return line.text == text + "." || line.text == text + "..";
                               }),
                lines.end());
    return lines;
}

void addToMap(int32_t id, const std::string& name, int32_t category = 0) {
    UsbDevice::DeviceIdMap.emplace(id, EntryOf(name, category));
}

std::vector<std::string> namesOf(const std::vector<DeviceIdEntry>& entries) {
    std::vector<std::string> names;
    names.reserve(entries.size());
    for (const DeviceIdEntry& entry : entries) names.push_back(entry.interface_name);
    return names;
}

std::string authorizedOf(const std::string& name) {
    return "/sys/bus/usb/devices/" + name + "/authorized";
}

// The map's entry of an interface whose texts but one are ordinary, byte by byte.
std::string mapEntryWith(const std::string& field, const std::string& text) {
    Remove("/sys/devices");
    Remove(kUsbDevices);
    const auto textOf = [&](const std::string& name, const std::string& ordinary) {
        return field == name ? text : ordinary;
    };
    AddDevice("1-5", 1, 5, "17e9", "6001",
              {{"manufacturer", textOf("manufacturer", "ACME")},
               {"product", textOf("product", "Dock")}});
    // Mass storage has one category path, whatever its name.
    const bool isNetwork = field == "category_path";
    const std::string directory =
            AddInterface(textOf("interface_name", kInterface), isNetwork ? "ff" : "08");
    if (isNetwork) MakeDir(directory + "/net/" + text);
    UsbDevice::create_usb_device_map();
    CHECK_EQ(UsbDevice::DeviceIdMap.size(), 1U);
    const DeviceIdEntry& entry = UsbDevice::DeviceIdMap.begin()->second;
    return {reinterpret_cast<const char*>(&entry), sizeof(entry)};
}

}  // namespace

// --- Entries -----------------------------------------------------------------------------------

TEST(DeviceIdEntries, HaveTheirFieldsInOrder) {
    const std::vector<size_t> offsets = {offsetof(DeviceIdEntry, bInterfaceClass),
                                         offsetof(DeviceIdEntry, bInterfaceNumber),
                                         offsetof(DeviceIdEntry, bInterfaceProtocol),
                                         offsetof(DeviceIdEntry, bInterfaceSubClass),
                                         offsetof(DeviceIdEntry, interface_name),
                                         offsetof(DeviceIdEntry, busnum),
                                         offsetof(DeviceIdEntry, devnum),
                                         offsetof(DeviceIdEntry, idVendor),
                                         offsetof(DeviceIdEntry, idProduct),
                                         offsetof(DeviceIdEntry, manufacturer),
                                         offsetof(DeviceIdEntry, product),
                                         offsetof(DeviceIdEntry, category),
                                         offsetof(DeviceIdEntry, category_path)};
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
    EXPECT_EQ(sizeof(DeviceIdEntry::interface_name), 255U);
    EXPECT_EQ(sizeof(DeviceIdEntry::manufacturer), 64U);
    EXPECT_EQ(sizeof(DeviceIdEntry::product), 64U);
    EXPECT_EQ(sizeof(DeviceIdEntry::category_path), 64U);
}

// --- Filling -----------------------------------------------------------------------------------

using FillMap = UsbDeviceTest;

TEST_F(FillMap, CopiesWhatIsKnownOfAnInterfaceAndItsDevice) {
    AddDevice("3-1.2", 3, 12, "17e9", "6001",
              {{"manufacturer", "DisplayLink\n"}, {"product", "USB3.0 Dock\n"}});
    const std::string directory = AddInterface("3-1.2:1.4", "ff",
                                               {{"bInterfaceNumber", "04\n"},
                                                {"bInterfaceProtocol", "02\n"},
                                                {"bInterfaceSubClass", "0d\n"}});
    MakeDir(directory + "/net/usb0");
    UsbDevice::create_usb_device_map();
    ASSERT_EQ(UsbDevice::DeviceIdMap.size(), 1U);
    const auto& [id, entry] = *UsbDevice::DeviceIdMap.begin();
    EXPECT_EQ(id, 3012);
    EXPECT_EQ(entry.bInterfaceClass, 255U);
    EXPECT_EQ(entry.bInterfaceNumber, 4U);
    EXPECT_EQ(entry.bInterfaceProtocol, 2U);
    EXPECT_EQ(entry.bInterfaceSubClass, 13U);
    EXPECT_STREQ(entry.interface_name, "3-1.2:1.4");
    EXPECT_EQ(entry.busnum, 3U);
    EXPECT_EQ(entry.devnum, 12U);
    EXPECT_EQ(entry.idVendor, 0x17e9U);
    EXPECT_EQ(entry.idProduct, 0x6001U);
    EXPECT_STREQ(entry.manufacturer, "DisplayLink");
    EXPECT_STREQ(entry.product, "USB3.0 Dock");
    EXPECT_EQ(entry.category, 1);
    EXPECT_STREQ(entry.category_path, "usb0");
}

TEST_F(FillMap, CopiesTextsOfFullLength) {
    const std::string name = "1-1:1.0" + TextOf(247);
    ASSERT_EQ(name.size(), 254U);
    AddDevice("1-1", 1, 5, "17e9", "6001",
              {{"manufacturer", TextOf(63)}, {"product", TextOf(62) + "\n"}});
    AddInterface(name, "08");
    UsbDevice::create_usb_device_map();
    ASSERT_EQ(UsbDevice::DeviceIdMap.count(1005), 1U);
    const DeviceIdEntry& entry = UsbDevice::DeviceIdMap.find(1005)->second;
    EXPECT_EQ(entry.interface_name, name);
    EXPECT_EQ(entry.manufacturer, TextOf(63));
    EXPECT_EQ(entry.product, TextOf(62));
    EXPECT_STREQ(entry.category_path, "sdcard");
}

TEST_F(FillMap, KeepsEachTextInItsField) {
    const struct {
        const char* name;
        size_t offset;
        size_t size;
        size_t longest;
        size_t dropped; /**< a text from this length on is left out whole */
    } table[] = {
            {"interface_name", offsetof(DeviceIdEntry, interface_name), 255, 254, 256},
            {"manufacturer", offsetof(DeviceIdEntry, manufacturer), 64, 63, 64},
            {"product", offsetof(DeviceIdEntry, product), 64, 63, 64},
            {"category_path", offsetof(DeviceIdEntry, category_path), 64, 63, 256},
    };
    for (const auto& row : table) {
        const std::string ordinary = mapEntryWith(row.name, kInterface);
        for (const size_t length : {row.longest - 1, row.longest, row.longest + 1, size_t(200)}) {
            SCOPED_TRACE(testing::Message() << row.name << " of " << length);
            // As an interface's name, it must begin like one.
            const std::string text = kInterface + TextOf(length - strlen(kInterface));
            const std::string entry = mapEntryWith(row.name, text);
            const std::string kept = length < row.dropped ? text.substr(0, row.longest) : "";
            EXPECT_EQ(entry.substr(row.offset, row.size),
                      kept + std::string(row.size - kept.size(), '\0'));
            EXPECT_EQ(entry.substr(0, row.offset), ordinary.substr(0, row.offset));
            EXPECT_EQ(entry.substr(row.offset + row.size), ordinary.substr(row.offset + row.size));
        }
    }
}

TEST_F(FillMap, MakesTheIdOfBusAndDeviceNumber) {
    const struct {
        const char* device;
        int busnum;
        int devnum;
        int32_t id;
    } table[] = {{"1-5", 1, 5, 1005},
                 {"2-3", 2, 17, 2017},
                 {"3-1.4", 3, 12, 3012},
                 {"12-1", 12, 127, 12127}};
    for (const auto& row : table) {
        AddDevice(row.device, row.busnum, row.devnum, "17e9", "6001");
        AddInterface(row.device + std::string(":1.0"), "ff");
    }
    UsbDevice::create_usb_device_map();
    EXPECT_THAT(MapLines(),
                ElementsAre("1005 1-5:1.0", "2017 2-3:1.0", "3012 3-1.4:1.0", "12127 12-1:1.0"));
}

TEST_F(FillMap, TakesTheBusNumberFromTheDevicesName) {
    AddDevice("1-5", 9, 5, "17e9", "6001");
    AddInterface("1-5:1.0", "ff");
    UsbDevice::create_usb_device_map();
    EXPECT_THAT(MapLines(), ElementsAre("1005 1-5:1.0"));
}

TEST_F(FillMap, SortsByIdAndKeepsTheInterfacesOfOneDeviceInListOrder) {
    AddDevice("3-1", 3, 12, "17e9", "6001");
    AddDevice("1-1", 1, 2, "17e9", "6002");
    Inspect({"3-1:1.1", "3-1", "1-1:1.0", "3-1:1.0", "1-1", "3-1:1.2"});
    UsbDevice::connect_devices();
    EXPECT_THAT(MapLines(),
                ElementsAre("1002 1-1:1.0", "3012 3-1:1.1", "3012 3-1:1.0", "3012 3-1:1.2"));
}

TEST_F(FillMap, KeepsTheInterfacesOfOneDeviceInTheOrderOfTheDirectory) {
    AddDevice("3-1", 3, 12, "17e9", "6001");
    for (const char* name : {"3-1:1.2", "3-1:1.0", "3-1:1.1"}) AddInterface(name, "ff");
    std::vector<std::string> expected;
    for (const std::string& name : EntriesOf(kUsbDevices)) {
        if (name != "3-1") expected.push_back("3012 " + name);
    }
    ASSERT_EQ(expected.size(), 3U);
    UsbDevice::create_usb_device_map();
    EXPECT_EQ(MapLines(), expected);
}

// --- populate_category_device ------------------------------------------------------------------

class CategoryRule : public UsbDeviceTest {
  protected:
    void SetUp() override {
        UsbDeviceTest::SetUp();
        // What the kernel makes for any interface.
        directory_ = AddInterface(kInterface, "03", {{"modalias", "usb:v1234p5678\n"}});
        MakeDir(directory_ + "/power");
        MakeDir(directory_ + "/ep_81");
        BindDriver(directory_, "usbhid");
    }

    // An interface directory with nothing in it, for tests of its order.
    void makeEmpty() {
        Remove(directory_);
        MakeDir(directory_);
    }

    std::string directory_;
};

TEST_F(CategoryRule, IsNoneWithPathEmptyWhenNothingIsFound) {
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(0, std::string("empty")));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(CategoryRule, OfMassStorageIsFourWithoutALookIntoTheDirectory) {
    MakeDir(directory_ + "/net/usb0");
    LogCapture log;
    EXPECT_EQ(categoryOf(8), std::make_pair(4, std::string("sdcard")));
    Remove(kInterfaceDir);
    EXPECT_EQ(categoryOf(8), std::make_pair(4, std::string("sdcard")));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(CategoryRule, IsNoneWhenTheDirectoryCannotBeOpened) {
    Remove(kInterfaceDir);
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(0, std::string("empty")));
    // One message; its line end makes two lines of it.
    EXPECT_THAT(log.Lines(), ElementsAre(Info("Cannot open directory "), Info(kInterfaceDir)));
}

TEST_F(CategoryRule, OfANetworkInterfaceIsOneWithItsName) {
    MakeDir(directory_ + "/net/usb0");
    LogCapture log;
    EXPECT_EQ(categoryOf(2), std::make_pair(1, std::string("usb0")));
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info(" new path of dir:/sys/bus/usb/devices/1-5:1.0/net")));
}

TEST_F(CategoryRule, OfASerialPortIsTwoWithItsNameAndNoLogLine) {
    MakeDir(directory_ + "/tty/ttyACM0");
    LogCapture log;
    EXPECT_EQ(categoryOf(2), std::make_pair(2, std::string("ttyACM0")));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(CategoryRule, TakesTheFirstDirectoryAndNoOtherEntry) {
    for (const std::string parent : {"/net", "/tty"}) {
        SCOPED_TRACE(parent);
        makeEmpty();
        WriteFile(directory_ + parent + "/a_file", "");
        MakeLink(directory_ + parent + "/a_link", "../../1-5:1.0");
        MakeDir(directory_ + parent + "/port0");
        WriteFile(directory_ + parent + "/z_file", "");
        EXPECT_EQ(categoryOf().second, "port0");

        makeEmpty();
        MakeDirsInOrder(directory_ + parent, {"port1", "port0", "port2"});
        EXPECT_EQ(categoryOf().second, "port1");
    }
}

TEST_F(CategoryRule, KeepsANameOf63Characters) {
    for (const std::string parent : {"/net/", "/tty/"}) {
        for (const size_t length : {62, 63, 64, 255}) {
            SCOPED_TRACE(parent + std::to_string(length));
            makeEmpty();
            MakeDir(directory_ + parent + TextOf(length));
            EXPECT_EQ(categoryOf().second, TextOf(std::min<size_t>(length, 63)));
        }
    }
}

// The record ends at the sanitizer's guard; within it, every byte of the other fields stays.
TEST_F(CategoryRule, ChangesItsTwoFieldsOnly) {
    const auto bytesOf = [](const usbinterface& record) {
        return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
    };
    const size_t behind = offsetof(usbinterface, category_path) + kTextSize;
    const std::vector<std::string> paths = {"",
                                            "/net",
                                            "/net/" + TextOf(63),
                                            "/net/" + TextOf(64),
                                            "/net/" + TextOf(65),
                                            "/tty/" + TextOf(255),
                                            "/" + std::string(kHid),
                                            "/" + std::string(kHid) + "/input"};
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        makeEmpty();
        MakeDir(directory_ + path);
        const auto record = std::make_unique<usbinterface>();
        memset(record.get(), 0xA5, sizeof(*record));
        SetText(record->name, kInterface);
        record->bInterfaceClass = 3;
        const std::string before = bytesOf(*record);
        UsbDevice::populate_category_device(record.get());
        const std::string after = bytesOf(*record);
        EXPECT_EQ(after.substr(0, offsetof(usbinterface, category)),
                  before.substr(0, offsetof(usbinterface, category)));
        EXPECT_NE(memchr(record->category_path, '\0', kTextSize), nullptr);
        EXPECT_EQ(after.substr(behind), before.substr(behind));
    }
}

TEST_F(CategoryRule, IsSetByAFileOrALinkNamedNetOrTtyWithoutAPath) {
    const struct {
        const char* name;
        int32_t category;
    } table[] = {{"net", 1}, {"tty", 2}};
    MakeDir("/sys/devices/elsewhere/port0");
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const std::string path = directory_ + "/" + row.name;
        makeEmpty();
        WriteFile(path, "");
        LogCapture log;
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string("empty")));
        makeEmpty();
        MakeLink(path, "../../elsewhere");
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string("empty")));
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST_F(CategoryRule, GoesOnBehindAFileNamedNetOrTtyAndALaterStepOverwrites) {
    for (const std::string file : {"/net", "/tty"}) {
        SCOPED_TRACE(file);
        makeEmpty();
        WriteFile(directory_ + file, "");
        MakeDir(directory_ + "/" + kHid);
        EXPECT_EQ(categoryOf(), std::make_pair(8, std::string("empty")));
    }
    makeEmpty();
    WriteFile(directory_ + "/net", "");
    MakeDir(directory_ + "/tty/ttyUSB0");
    EXPECT_EQ(categoryOf(), std::make_pair(2, std::string("ttyUSB0")));
    makeEmpty();
    WriteFile(directory_ + "/tty", "");
    MakeDir(directory_ + "/net/usb0");
    EXPECT_EQ(categoryOf(), std::make_pair(1, std::string("usb0")));
}

TEST_F(CategoryRule, StaysWithoutAPathWhenNetOrTtyHoldsNoDirectory) {
    const struct {
        const char* name;
        int32_t category;
    } table[] = {{"net", 1}, {"tty", 2}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        makeEmpty();
        MakeDir(directory_ + "/" + row.name);
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string("empty")));
        WriteFile(directory_ + "/" + row.name + "/file", "");
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string("empty")));
    }
}

TEST_F(CategoryRule, OfAHidDeviceWithoutInputIsEight) {
    MakeDir(directory_ + "/" + kHid + "/hidraw/hidraw0");
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(8, std::string("empty")));
    EXPECT_THAT(log.Lines(), ElementsAre(Info(" new path of subdir for HID:/sys/bus/usb/devices/"
                                              "1-5:1.0/0003:1234:5678.0001"),
                                         Info("vendor HID device found")));
}

TEST_F(CategoryRule, OfAHidDeviceWithAnEmptyDirectoryIsEight) {
    MakeDir(directory_ + "/" + kHid);
    EXPECT_EQ(categoryOf(), std::make_pair(8, std::string("empty")));
}

TEST_F(CategoryRule, OfAHidDeviceWithInputStaysNone) {
    MakeDir(directory_ + "/" + kHid + "/input/input5");
    MakeDir(directory_ + "/" + kHid + "/hidraw/hidraw0");
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(0, std::string("empty")));
    EXPECT_THAT(log.Lines(), ElementsAre(Info(" new path of subdir for HID:/sys/bus/usb/devices/"
                                              "1-5:1.0/0003:1234:5678.0001")));
}

TEST_F(CategoryRule, OfAHidDeviceNeedsADirectoryNamedExactlyInput) {
    for (const std::string name : {"inputs", "inpu", "Input"}) {
        SCOPED_TRACE(name);
        makeEmpty();
        MakeDir(directory_ + "/" + kHid + "/" + name);
        EXPECT_EQ(categoryOf().first, 8);
    }
    makeEmpty();
    WriteFile(directory_ + "/" + kHid + "/input", "");
    EXPECT_EQ(categoryOf().first, 8);
}

TEST_F(CategoryRule, TakesOnlyADirectoryWithAColonForAHidDevice) {
    MakeDir("/sys/devices/elsewhere");
    MakeLink(directory_ + "/0003:1234:5678.0002", "../../elsewhere");
    WriteFile(directory_ + "/0003:1234:5678.0003", "");
    MakeDir(directory_ + "/0003.1234.5678.0004");
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(0, std::string("empty")));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(CategoryRule, TakesNetAndTtyByTheirWholeNames) {
    for (const char* name : {"nets", "ne", "Net", "ttyACM0", "tt", "TTY"}) {
        MakeDir(directory_ + "/" + name + "/port0");
    }
    EXPECT_EQ(categoryOf(), std::make_pair(0, std::string("empty")));
}

TEST_F(CategoryRule, EndsAtTheFirstEntryThatSettlesIt) {
    const struct {
        std::vector<std::string> order;
        int32_t category;
        const char* path;
    } table[] = {
            {{"net", "tty", kHid}, 1, "usb0"},
            {{"tty", "net", kHid}, 2, "ttyACM0"},
            {{kHid, "net", "tty"}, 8, "empty"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.order[0]);
        makeEmpty();
        MakeDirsInOrder(directory_, row.order);
        MakeDir(directory_ + "/net/usb0");
        MakeDir(directory_ + "/tty/ttyACM0");
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string(row.path)));
    }
}

// --- populate_category_device: its path is never undone ----------------------------------------

TEST_F(CategoryRule, LooksForASecondHidDeviceBelowAFirstWithInput) {
    makeEmpty();
    MakeDirsInOrder(directory_, {"0003:A", "0003:B"});
    MakeDir(directory_ + "/0003:A/input");
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(0, std::string("empty")));
    EXPECT_THAT(
            log.Take(),
            ElementsAre(
                    Info(" new path of subdir for HID:/sys/bus/usb/devices/1-5:1.0/0003:A"),
                    Info(" new path of subdir for HID:/sys/bus/usb/devices/1-5:1.0/0003:A/0003:B"),
                    Info("Cannot open subdir "),
                    Info("/sys/bus/usb/devices/1-5:1.0/0003:A/0003:B")));

    MakeDir(directory_ + "/0003:A/0003:B");
    EXPECT_EQ(categoryOf(), std::make_pair(8, std::string("empty")));
}

TEST_F(CategoryRule, GoesOnBehindAHidDirectoryThatCannotBeOpened) {
    makeEmpty();
    MakeDirsInOrder(directory_, {"0003:A", "0003:B", "net"});
    MakeDir(directory_ + "/0003:A/input");
    MakeDir(directory_ + "/net/usb0");
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(1, std::string("empty")));
    EXPECT_THAT(
            log.Lines(),
            ElementsAre(
                    Info(" new path of subdir for HID:/sys/bus/usb/devices/1-5:1.0/0003:A"),
                    Info(" new path of subdir for HID:/sys/bus/usb/devices/1-5:1.0/0003:A/0003:B"),
                    Info("Cannot open subdir "), Info("/sys/bus/usb/devices/1-5:1.0/0003:A/0003:B"),
                    Info(" new path of dir:/sys/bus/usb/devices/1-5:1.0/0003:A/0003:B/net"),
                    Info("Cannot open directory "),
                    Info("/sys/bus/usb/devices/1-5:1.0/0003:A/0003:B/net")));
}

TEST_F(CategoryRule, LooksForNetAndTtyBelowAHidDeviceWithInput) {
    const struct {
        const char* name;
        int32_t category;
    } table[] = {{"net", 1}, {"tty", 2}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        makeEmpty();
        MakeDirsInOrder(directory_, {kHid, row.name});
        MakeDir(directory_ + "/" + row.name + "/wrong0");
        MakeDir(directory_ + "/" + kHid + "/input");
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string("empty")));
        MakeDir(directory_ + "/" + kHid + "/" + row.name + "/right0");
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string("right0")));
    }
}

TEST_F(CategoryRule, ReportsATtyDirectoryThatCannotBeOpened) {
    makeEmpty();
    MakeDirsInOrder(directory_, {"net", "tty"});
    MakeDir(directory_ + "/tty/ttyACM0");
    LogCapture log;
    EXPECT_EQ(categoryOf(), std::make_pair(2, std::string("empty")));
    EXPECT_THAT(log.Lines(), ElementsAre(Info(" new path of dir:/sys/bus/usb/devices/1-5:1.0/net"),
                                         Info("Cannot open directory "),
                                         Info("/sys/bus/usb/devices/1-5:1.0/net/tty")));
}

TEST_F(CategoryRule, LooksForAHidDeviceBelowAnEmptyNetOrTty) {
    const struct {
        const char* name;
        int32_t category;
    } table[] = {{"net", 1}, {"tty", 2}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        makeEmpty();
        MakeDirsInOrder(directory_, {row.name, kHid});
        EXPECT_EQ(categoryOf(), std::make_pair(row.category, std::string("empty")));
    }
}

// --- populate_category_device: the room for its path -------------------------------------------

using CategoryPath = UsbDeviceTest;

TEST_F(CategoryPath, Keeps254Characters) {
    usbinterface interface = addInterfaceWithPathOf(254);
    LogCapture log;
    UsbDevice::populate_category_device(&interface);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(CategoryPath, OfALongInterfaceNameIsCut) {
    for (const size_t length : {255U, 256U, 275U}) {
        SCOPED_TRACE(length);
        usbinterface interface = addInterfaceWithPathOf(length);
        LogCapture log;
        UsbDevice::populate_category_device(&interface);
        EXPECT_EQ(interface.category, 0);
        EXPECT_STREQ(interface.category_path, "empty");
        const std::string path = std::string("/sys/bus/usb/devices/") + interface.name;
        EXPECT_THAT(log.Lines(),
                    ElementsAre(Info("Cannot open directory "), Info(path.substr(0, 254))));
    }
}

TEST_F(CategoryPath, WithAnAppendedNameIsCut) {
    for (const size_t room : {0U, 1U, 2U, 3U}) {
        SCOPED_TRACE(room);
        usbinterface interface = addInterfaceWithPathOf(254 - room);
        const std::string path = std::string("/sys/bus/usb/devices/") + interface.name;
        MakeDir(path + "/net");
        LogCapture log;
        UsbDevice::populate_category_device(&interface);
        EXPECT_EQ(interface.category, 1);
        EXPECT_EQ(log.IndexOf(Info(" new path of dir:" + path + std::string("/net", room))), 0);
    }
}

TEST_F(CategoryPath, WithFourCharactersOfRoomTakesNet) {
    usbinterface interface = addInterfaceWithPathOf(250);
    MakeDir(std::string("/sys/bus/usb/devices/") + interface.name + "/net/usb0");
    UsbDevice::populate_category_device(&interface);
    EXPECT_STREQ(interface.category_path, "usb0");
}

TEST_F(CategoryPath, OutgrowsItsRoomByManyHidDevicesWithoutHarm) {
    const std::string directory = AddUsbEntry("1-1:1.0", {});
    const std::vector<std::string> names = {"0003:A" + TextOf(80), "0003:B" + TextOf(80),
                                            "0003:C" + TextOf(80), "0003:D" + TextOf(80)};
    MakeDirsInOrder(directory, names);
    MakeDir(directory + "/" + names[0] + "/input");
    const std::string first = "/sys/bus/usb/devices/1-1:1.0/" + names[0];
    const std::string second = first + "/" + names[1];
    const std::string full = (second + "/" + names[2]).substr(0, 254);
    usbinterface interface = interfaceOf("1-1:1.0", 3);
    LogCapture log;
    UsbDevice::populate_category_device(&interface);
    EXPECT_EQ(interface.category, 0);
    EXPECT_THAT(log.Lines(), ElementsAre(Info(" new path of subdir for HID:" + first),
                                         Info(" new path of subdir for HID:" + second),
                                         Info("Cannot open subdir "), Info(second),
                                         Info(" new path of subdir for HID:" + full),
                                         Info("Cannot open subdir "), Info(full),
                                         Info(" new path of subdir for HID:" + full),
                                         Info("Cannot open subdir "), Info(full)));
}

// --- populate_category_device: trace -----------------------------------------------------------

TEST_F(CategoryRule, TracesItsSteps) {
    UsbDevice::trace = true;
    LogCapture log;
    makeEmpty();
    WriteFile(directory_ + "/modalias", "");
    categoryOf();
    EXPECT_THAT(withoutDotEntries(log.Take()),
                ElementsAre(Info("path of dir:/sys/bus/usb/devices/1-5:1.0"),
                            Info("Other category default to none"),
                            Info("Entered while with dir is :modalias")));

    makeEmpty();
    MakeDir(directory_ + "/net/usb0");
    categoryOf();
    EXPECT_THAT(withoutDotEntries(log.Take()),
                ElementsAre(Info("path of dir:/sys/bus/usb/devices/1-5:1.0"),
                            Info("Other category default to none"),
                            Info("Entered while with dir is :net"),
                            Info(" new path of dir:/sys/bus/usb/devices/1-5:1.0/net"),
                            Info("updating the devcategory path for network and return:usb0")));

    makeEmpty();
    MakeDir(directory_ + "/tty/ttyACM0");
    categoryOf();
    EXPECT_THAT(withoutDotEntries(log.Take()),
                ElementsAre(Info("path of dir:/sys/bus/usb/devices/1-5:1.0"),
                            Info("Other category default to none"),
                            Info("Entered while with dir is :tty"),
                            Info(" new path of dir in tty:/sys/bus/usb/devices/1-5:1.0/tty"),
                            Info("updating the devcategory path for tty and return:ttyACM0")));

    makeEmpty();
    MakeDir(directory_ + "/0003:A/input");
    categoryOf();
    EXPECT_THAT(withoutDotEntries(log.Take()),
                ElementsAre(Info("path of dir:/sys/bus/usb/devices/1-5:1.0"),
                            Info("Other category default to none"),
                            Info("Entered while with dir is :0003:A"),
                            Info(" new path of subdir for HID:/sys/bus/usb/devices/1-5:1.0/0003:A"),
                            Info("input device found")));

    categoryOf(8);
    EXPECT_THAT(log.Take(), ElementsAre(Info("path of dir:/sys/bus/usb/devices/1-5:1.0"),
                                        Info("Other category default to none")));
}

TEST_F(CategoryRule, KeepsNoDescriptor) {
    const size_t before = EntriesOf("/proc/self/fd").size();
    for (const std::string path :
         {"/net/usb0", "/tty/ttyACM0", "/0003:A/input", "/0003:A", "/net"}) {
        makeEmpty();
        MakeDir(directory_ + path);
        categoryOf();
    }
    EXPECT_EQ(EntriesOf("/proc/self/fd").size(), before);
}

// --- get_deviceid_data -------------------------------------------------------------------------

using GetDeviceidData = UsbDeviceTest;

TEST_F(GetDeviceidData, ReturnsTheEntriesOfADeviceInMapOrder) {
    addToMap(2017, "2-3:1.0");
    addToMap(1005, "1-5:1.1");
    addToMap(1005, "1-5:1.0");
    addToMap(1004, "1-4:1.0");
    LogCapture log;
    EXPECT_THAT(namesOf(UsbDevice::get_deviceid_data(1005)), ElementsAre("1-5:1.1", "1-5:1.0"));
    EXPECT_THAT(log.Lines(), ElementsAre(Info("get_deviceid_data() with deviceId : 1005size--4"),
                                         Info("Found deviceid  : 1005device : 1-5:1.1"),
                                         Info("Found deviceid  : 1005device : 1-5:1.0")));
}

TEST_F(GetDeviceidData, ReturnsCopiesOfWholeEntries) {
    const DeviceIdEntry entry = {2,      3,      4,      5,      "1-5:1.0", 1,     5,
                                 0x17e9, 0x6001, "ACME", "Dock", 1,         "usb0"};
    UsbDevice::DeviceIdMap.emplace(1005, entry);
    const std::vector<DeviceIdEntry> copies = UsbDevice::get_deviceid_data(1005);
    UsbDevice::DeviceIdMap.clear();
    ASSERT_EQ(copies.size(), 1U);
    EXPECT_EQ(copies[0].bInterfaceClass, 2U);
    EXPECT_EQ(copies[0].bInterfaceNumber, 3U);
    EXPECT_EQ(copies[0].bInterfaceProtocol, 4U);
    EXPECT_EQ(copies[0].bInterfaceSubClass, 5U);
    EXPECT_STREQ(copies[0].interface_name, "1-5:1.0");
    EXPECT_EQ(copies[0].busnum, 1U);
    EXPECT_EQ(copies[0].devnum, 5U);
    EXPECT_EQ(copies[0].idVendor, 0x17e9U);
    EXPECT_EQ(copies[0].idProduct, 0x6001U);
    EXPECT_STREQ(copies[0].manufacturer, "ACME");
    EXPECT_STREQ(copies[0].product, "Dock");
    EXPECT_EQ(copies[0].category, 1);
    EXPECT_STREQ(copies[0].category_path, "usb0");
}

TEST_F(GetDeviceidData, ReturnsNothingForAnUnknownId) {
    addToMap(1005, "1-5:1.0");
    LogCapture log;
    EXPECT_THAT(namesOf(UsbDevice::get_deviceid_data(1006)), IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(Info("get_deviceid_data() with deviceId : 1006size--1")));
}

// --- check_vendor_hid --------------------------------------------------------------------------

using CheckVendorHid = UsbDeviceTest;

TEST_F(CheckVendorHid, EndsAtTheFirstVendorHidInterface) {
    addToMap(1005, "1-5:1.0", 0);
    addToMap(1005, "1-5:1.1", 8);
    addToMap(1005, "1-5:1.2", 8);
    LogCapture log;
    EXPECT_TRUE(UsbDevice::check_vendor_hid(1005));
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("check_vendor_hid 1005"),
                            Info("Found deviceId in native list : 1005\t interface path1-5:1.0 "
                                 "device category0"),
                            Info("Found deviceId in native list : 1005\t interface path1-5:1.1 "
                                 "device category8")));
}

TEST_F(CheckVendorHid, IsFalseForEveryOtherCategory) {
    addToMap(1004, "1-4:1.0", 8);
    addToMap(1005, "1-5:1.0", 1);
    addToMap(1005, "1-5:1.1", 2);
    addToMap(1005, "1-5:1.2", 4);
    addToMap(1005, "1-5:1.3", 0);
    addToMap(1006, "1-6:1.0", 8);
    LogCapture log;
    EXPECT_FALSE(UsbDevice::check_vendor_hid(1005));
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("check_vendor_hid 1005"),
                            Info("Found deviceId in native list : 1005\t interface path1-5:1.0 "
                                 "device category1"),
                            Info("Found deviceId in native list : 1005\t interface path1-5:1.1 "
                                 "device category2"),
                            Info("Found deviceId in native list : 1005\t interface path1-5:1.2 "
                                 "device category4"),
                            Info("Found deviceId in native list : 1005\t interface path1-5:1.3 "
                                 "device category0")));
}

TEST_F(CheckVendorHid, IsFalseForAnUnknownId) {
    addToMap(1005, "1-5:1.0", 8);
    LogCapture log;
    EXPECT_FALSE(UsbDevice::check_vendor_hid(1006));
    EXPECT_THAT(log.Lines(), ElementsAre(Info("check_vendor_hid 1006")));
}

// --- update_status -----------------------------------------------------------------------------

class UpdateStatus : public UsbDeviceTest {
  protected:
    void SetUp() override {
        UsbDeviceTest::SetUp();
        for (const char* name : {"1-5:1.0", "1-5:1.1", "1-6:1.0"}) AddInterface(name, "ff");
        addToMap(1005, "1-5:1.0");
        addToMap(1005, "1-5:1.1");
        addToMap(1006, "1-6:1.0");
    }
};

TEST_F(UpdateStatus, WritesOneByteToEachInterfaceOfTheDevice) {
    LogCapture log;
    UsbDevice::update_status(1005, 0);
    // Opened for writing alone: the line end that was there stays.
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.0")), "0\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.1")), "0\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-6:1.0")), "1\n");
    EXPECT_THAT(
            log.Lines(),
            ElementsAre(Info("update_status path with deviceId 1005 status:0"),
                        Info("Found deviceId in native list : 1005\t interface path1-5:1.0"),
                        Info("update_status path is :/sys/bus/usb/devices/1-5:1.0/authorized"),
                        Info("Found deviceId in native list : 1005\t interface path1-5:1.1"),
                        Info("update_status path is :/sys/bus/usb/devices/1-5:1.1/authorized")));
}

TEST_F(UpdateStatus, AllowsForAnyStatusButZero) {
    for (const int status : {1, 2, -1, 256}) {
        SCOPED_TRACE(status);
        UsbDevice::update_status(1005, 0);
        LogCapture log;
        UsbDevice::update_status(1005, status);
        EXPECT_EQ(ReadFile(authorizedOf("1-5:1.0")), "1\n");
        EXPECT_EQ(ReadFile(authorizedOf("1-5:1.1")), "1\n");
        EXPECT_EQ(log.IndexOf(Info("update_status path with deviceId 1005 status:" +
                                   std::to_string(status))),
                  0);
    }
}

TEST_F(UpdateStatus, WritesTheInterfacesSwitchNotTheDevices) {
    AddDevice("1-5", 1, 5, "17e9", "6001", {{"authorized", "1\n"}});
    UsbDevice::update_status(1005, 0);
    EXPECT_EQ(ReadFile("/sys/bus/usb/devices/1-5/authorized"), "1\n");
}

TEST_F(UpdateStatus, DoesNothingForAnUnknownId) {
    const ProcessResult child = RunInChild([] { UsbDevice::update_status(1007, 0); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err, "I update_status path with deviceId 1007 status:0\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.0")), "1\n");
}

TEST_F(UpdateStatus, PassesOverAnInterfaceWithoutAName) {
    UsbDevice::DeviceIdMap.clear();
    addToMap(1005, "1-5:1.0");
    addToMap(1005, "");
    addToMap(1005, "1-5:1.1");
    const ProcessResult child = RunInChild([] { UsbDevice::update_status(1005, 0); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err,
              "I update_status path with deviceId 1005 status:0\n"
              "I Found deviceId in native list : 1005\t interface path1-5:1.0\n"
              "I update_status path is :/sys/bus/usb/devices/1-5:1.0/authorized\n"
              "I Found deviceId in native list : 1005\t interface path\n"
              "I update_status interface_name is NULL\n"
              "I Found deviceId in native list : 1005\t interface path1-5:1.1\n"
              "I update_status path is :/sys/bus/usb/devices/1-5:1.1/authorized\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.0")), "0\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.1")), "0\n");
}

TEST_F(UpdateStatus, EndsAtAMissingFileAndDoesNotMakeIt) {
    Remove(authorizedOf("1-5:1.0"));
    const ProcessResult child = RunInChild([] { UsbDevice::update_status(1005, 0); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err,
              "I update_status path with deviceId 1005 status:0\n"
              "I Found deviceId in native list : 1005\t interface path1-5:1.0\n"
              "I update_status path is :/sys/bus/usb/devices/1-5:1.0/authorized\n"
              "Unable to open the file: No such file or directory\n"
              "E Error! Could not open file\n");
    EXPECT_FALSE(Exists(authorizedOf("1-5:1.0")));
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.1")), "1\n");
}

TEST_F(UpdateStatus, EndsAtADirectoryInTheFilesPlace) {
    Remove(authorizedOf("1-5:1.1"));
    MakeDir(authorizedOf("1-5:1.1"));
    addToMap(1005, "1-6:1.0");
    const ProcessResult child = RunInChild([] { UsbDevice::update_status(1005, 0); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err,
              "I update_status path with deviceId 1005 status:0\n"
              "I Found deviceId in native list : 1005\t interface path1-5:1.0\n"
              "I update_status path is :/sys/bus/usb/devices/1-5:1.0/authorized\n"
              "I Found deviceId in native list : 1005\t interface path1-5:1.1\n"
              "I update_status path is :/sys/bus/usb/devices/1-5:1.1/authorized\n"
              "Unable to open the file: Is a directory\n"
              "E Error! Could not open file\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.0")), "0\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-6:1.0")), "1\n");
}

TEST_F(UpdateStatus, EndsAtAFailedWriteWithTheOpensLogText) {
    Remove(authorizedOf("1-5:1.0"));
    MakeLink(authorizedOf("1-5:1.0"), "/dev/full");
    const ProcessResult child = RunInChild([] { UsbDevice::update_status(1005, 0); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err,
              "I update_status path with deviceId 1005 status:0\n"
              "I Found deviceId in native list : 1005\t interface path1-5:1.0\n"
              "I update_status path is :/sys/bus/usb/devices/1-5:1.0/authorized\n"
              "Error writing to sysfs file: No space left on device\n"
              "E Error! Could not open file\n");
    EXPECT_EQ(ReadFile(authorizedOf("1-5:1.1")), "1\n");
}

TEST_F(UpdateStatus, KeepsNoDescriptor) {
    const size_t before = EntriesOf("/proc/self/fd").size();
    UsbDevice::update_status(1005, 0);
    Remove(authorizedOf("1-5:1.0"));
    MakeLink(authorizedOf("1-5:1.0"), "/dev/full");
    UsbDevice::update_status(1005, 0);
    EXPECT_EQ(EntriesOf("/proc/self/fd").size(), before);
}

// --- update_deviceid_map -----------------------------------------------------------------------

class UpdateDeviceidMap : public UsbDeviceTest {
  protected:
    void SetUp() override {
        UsbDeviceTest::SetUp();
        addToMap(1004, "1-4:1.0");
        addToMap(1005, "1-5:1.0");
        addToMap(1005, "1-5:1.1");
        addToMap(1006, "1-6:1.0");
    }
};

TEST_F(UpdateDeviceidMap, ForgetsEveryEntryOfTheDeviceWhenTheFlagIsFalse) {
    LogCapture log;
    UsbDevice::update_deviceid_map(1005, false);
    EXPECT_THAT(MapLines(), ElementsAre("1004 1-4:1.0", "1006 1-6:1.0"));
    EXPECT_THAT(log.Lines(), ElementsAre(Info("update_deviceid_map deviceId:1005 flag:0")));
}

TEST_F(UpdateDeviceidMap, ChangesNothingWhenTheFlagIsTrue) {
    const std::vector<std::string> before = MapLines();
    LogCapture log;
    UsbDevice::update_deviceid_map(1005, true);
    EXPECT_EQ(MapLines(), before);
    EXPECT_THAT(log.Lines(), ElementsAre(Info("update_deviceid_map deviceId:1005 flag:1")));
}

TEST_F(UpdateDeviceidMap, ChangesNothingForAnUnknownId) {
    const std::vector<std::string> before = MapLines();
    LogCapture log;
    UsbDevice::update_deviceid_map(1007, false);
    EXPECT_EQ(MapLines(), before);
    EXPECT_THAT(log.Lines(), ElementsAre(Info("update_deviceid_map deviceId:1007 flag:0")));
}

}  // namespace android::kus::test
