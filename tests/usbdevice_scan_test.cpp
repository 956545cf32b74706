// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// How the entries of the USB device directory become records, and the records a tree and text.

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <android-base/logging.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/usbdevice.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/usbdevice_fixture.h"

namespace {

// An allocation of this size fails; 0: none does.
size_t failingAllocation = 0;

}  // namespace

// The linker routes the daemon's calloc() and malloc() through here (LINKER:--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,google-*)
extern "C" {

void* __real_calloc(size_t count, size_t size);
void* __real_malloc(size_t size);

void* __wrap_calloc(size_t count, size_t size) {
    if (failingAllocation != 0 && count * size == failingAllocation) return nullptr;
    return __real_calloc(count, size);
}

void* __wrap_malloc(size_t size) {
    if (failingAllocation != 0 && size == failingAllocation) return nullptr;
    return __real_malloc(size);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,google-*)

namespace android::kus::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// The longest path that is formatted whole.
constexpr size_t kLongestPath = 4095;
constexpr char kWithoutAttributes[] = "No such file or directory\n";

// A name of this many characters, so long as a directory entry can be (255).
std::string longName(const std::string& start, size_t length) {
    return start + TextOf(length - start.size());
}

// A device name of 3 + 2 * hubs characters.
std::string deviceBehindHubs(int hubs) {
    std::string name = "1-1";
    for (int i = 0; i < hubs; ++i) name += ".1";
    return name;
}

// The entry name that makes the whole path of the link below it this long.
std::string nameForPathOf(size_t length, const std::string& name, const std::string& link) {
    return Padded(name, length - strlen("/sys/bus/usb/devices//") - link.size());
}

// Standard error without what perror() said of attributes that the fixture does not have.
std::string withoutMissingAttributes(const std::string& err) {
    std::string rest;
    for (size_t begin = 0; begin < err.size();) {
        const size_t end = std::min(err.find('\n', begin), err.size() - 1) + 1;
        const std::string line = err.substr(begin, end - begin);
        const bool isAttribute = line.rfind("/sys/bus/usb/devices/", 0) == 0 &&
                                 line.find(kWithoutAttributes) != std::string::npos;
        if (!isAttribute) rest += line;
        begin = end;
    }
    return rest;
}

struct Number {
    const char* attribute;
    uint32_t value;
};

// The names and texts of attributes; each text is two digits of its own.
Attributes attributesFor(const std::vector<Number>& numbers) {
    Attributes attributes;
    int text = 11;
    for (const Number& number : numbers) {
        attributes.emplace_back(number.attribute, std::to_string(text++) + "\n");
    }
    return attributes;
}

// What has a driver: one entry of each kind, its link, and the driver read from it last.
struct Kind {
    const char* name;
    std::string entry;
    std::string driverLink;
    std::string (*driver)();
};

const std::vector<Kind>& kinds() {
    static const auto* const kinds = new std::vector<Kind>{
            {"bus", "usb1", "/sys/devices/usb/driver",
             [] { return std::string(Buses().back()->driver); }},
            {"device", "1-1", "/sys/devices/usb/1-1/driver",
             [] { return std::string(Devices().back()->driver); }},
            {"interface", "1-1:1.0", "/sys/devices/usb/1-1:1.0/driver",
             [] { return std::string(Interfaces().back()->driver); }},
    };
    return *kinds;
}

// One root hub with a hub and a device behind it, as a terminal has them.
void addSmallTree() {
    AddBus(1);
    AddInterface("1-0:1.0", "09");
    AddDevice("1-1", 1, 2, "0409", "005a");
    AddInterface("1-1:1.0", "09");
    AddDevice("1-1.2", 1, 5, "17e9", "6001");
    AddInterface("1-1.2:1.0", "03");
}

const std::vector<std::string>& smallTree() {
    static const auto* const names =
            new std::vector<std::string>{"usb1", "1-0:1.0", "1-1", "1-1:1.0", "1-1.2", "1-1.2:1.0"};
    return *names;
}

// One text of a record: where it stands, and what it keeps of what sysfs gives.
struct TextField {
    const char* kind; /**< of kinds() */
    const char* name; /**< its attribute's, too */
    size_t offset;
    size_t size;
    size_t longest; /**< what is behind is cut */
    size_t dropped; /**< a text from this length on is left out whole; 0: none is */
};

const std::vector<TextField>& textFields() {
    static const auto* const fields = new std::vector<TextField>{
            {"bus", "speed", offsetof(usbbusnode, speed), 8, 7, 64},
            {"bus", "name", offsetof(usbbusnode, name), 255, 254, 0},
            {"bus", "driver", offsetof(usbbusnode, driver), 255, 254, 0},
            {"device", "bMaxPower", offsetof(usbdevice, bMaxPower), 64, 63, 64},
            {"device", "manufacturer", offsetof(usbdevice, manufacturer), 64, 63, 64},
            {"device", "product", offsetof(usbdevice, product), 64, 63, 64},
            {"device", "serial", offsetof(usbdevice, serial), 64, 63, 64},
            {"device", "version", offsetof(usbdevice, version), 64, 63, 64},
            {"device", "speed", offsetof(usbdevice, speed), 64, 63, 64},
            {"device", "name", offsetof(usbdevice, name), 255, 254, 0},
            {"device", "driver", offsetof(usbdevice, driver), 261, 254, 0},
            {"interface", "name", offsetof(usbinterface, name), 255, 254, 0},
            {"interface", "driver", offsetof(usbinterface, driver), 260, 254, 0},
    };
    return *fields;
}

const Kind& kindOf(const TextField& field) {
    return *std::find_if(kinds().begin(), kinds().end(),
                         [&](const Kind& kind) { return kind.name == std::string(field.kind); });
}

// Makes its entry with every attribute that has a field, each of a value of its own.
void addWholeEntry(const Kind& kind) {
    Remove("/sys/devices/usb");
    Remove(kUsbDevices);
    Attributes attributes = attributesFor({{"bDeviceClass", 0},       {"bDeviceProtocol", 0},
                                           {"bDeviceSubClass", 0},    {"bMaxPacketSize0", 0},
                                           {"bNumConfigurations", 0}, {"bNumInterfaces", 0},
                                           {"bcdDevice", 0},          {"bmAttributes", 0},
                                           {"configuration", 0},      {"devnum", 0},
                                           {"idProduct", 0},          {"idVendor", 0},
                                           {"maxchild", 0},           {"rx_lanes", 0},
                                           {"tx_lanes", 0},           {"bAlternateSetting", 0},
                                           {"bInterfaceClass", 0},    {"bInterfaceNumber", 0},
                                           {"bInterfaceProtocol", 0}, {"bInterfaceSubClass", 0},
                                           {"bNumEndpoints", 0}});
    attributes.insert(attributes.end(), {{"bMaxPower", "100mA\n"},
                                         {"manufacturer", "ACME\n"},
                                         {"product", "Dock\n"},
                                         {"serial", "0815\n"},
                                         {"version", "2.10\n"},
                                         {"speed", "480\n"}});
    AddUsbEntry(kind.entry, attributes);
    MakeLink(kind.driverLink, "drivers/usb");
}

// Gives a field's source a text of this length. Returns the name under which the entry is found:
// slashes at its end make it as long as is wanted and still name the entry.
std::string give(const TextField& field, size_t length) {
    const Kind& kind = kindOf(field);
    const std::string source = field.name;
    if (source == "name") return Padded(kind.entry, length);
    if (source == "driver") {
        Remove(kind.driverLink);
        MakeLink(kind.driverLink, "drivers/" + TextOf(length));
    } else {
        WriteFile("/sys/devices/usb/" + kind.entry + "/" + source, TextOf(length));
    }
    return kind.entry;
}

std::string textGiven(const TextField& field, size_t length) {
    if (field.name == std::string("name")) return Padded(kindOf(field).entry, length);
    return TextOf(length);
}

template <typename Node>
std::string bytesOf(const Node* node) {
    return {reinterpret_cast<const char*>(node), sizeof(*node)};
}

// The record of an entry byte by byte, what stands between and behind its fields included. Alone in
// its list, it has the same links each time.
std::string recordOf(const Kind& kind, const std::string& name) {
    UsbDevice::inspect_bus_entry(name.c_str());
    const std::string kindName = kind.name;
    std::string bytes = kindName == "bus"      ? bytesOf(Buses().at(0))
                        : kindName == "device" ? bytesOf(Devices().at(0))
                                               : bytesOf(Interfaces().at(0));
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
    return bytes;
}

}  // namespace

// --- Records -----------------------------------------------------------------------------------

TEST(Records, HaveTheirFieldsInOrder) {
    const struct {
        const char* name;
        std::vector<size_t> offsets;
    } table[] = {
            {"usbbusnode",
             {offsetof(usbbusnode, next), offsetof(usbbusnode, first_interface),
              offsetof(usbbusnode, first_child), offsetof(usbbusnode, busnum),
              offsetof(usbbusnode, bDeviceClass), offsetof(usbbusnode, devnum),
              offsetof(usbbusnode, idProduct), offsetof(usbbusnode, idVendor),
              offsetof(usbbusnode, maxchild), offsetof(usbbusnode, speed),
              offsetof(usbbusnode, rx_lanes), offsetof(usbbusnode, tx_lanes),
              offsetof(usbbusnode, name), offsetof(usbbusnode, driver)}},
            {"usbdevice",
             {offsetof(usbdevice, list),
              offsetof(usbdevice, next),
              offsetof(usbdevice, first_interface),
              offsetof(usbdevice, first_child),
              offsetof(usbdevice, parent),
              offsetof(usbdevice, busnum),
              offsetof(usbdevice, parent_portnum),
              offsetof(usbdevice, portnum),
              offsetof(usbdevice, bConfigurationValue),
              offsetof(usbdevice, bDeviceClass),
              offsetof(usbdevice, bDeviceProtocol),
              offsetof(usbdevice, bDeviceSubClass),
              offsetof(usbdevice, bMaxPacketSize0),
              offsetof(usbdevice, bMaxPower),
              offsetof(usbdevice, bNumConfigurations),
              offsetof(usbdevice, bNumInterfaces),
              offsetof(usbdevice, bcdDevice),
              offsetof(usbdevice, bmAttributes),
              offsetof(usbdevice, configuration),
              offsetof(usbdevice, devnum),
              offsetof(usbdevice, idProduct),
              offsetof(usbdevice, idVendor),
              offsetof(usbdevice, maxchild),
              offsetof(usbdevice, manufacturer),
              offsetof(usbdevice, product),
              offsetof(usbdevice, serial),
              offsetof(usbdevice, version),
              offsetof(usbdevice, speed),
              offsetof(usbdevice, rx_lanes),
              offsetof(usbdevice, tx_lanes),
              offsetof(usbdevice, name),
              offsetof(usbdevice, driver)}},
            {"usbinterface",
             {offsetof(usbinterface, list), offsetof(usbinterface, next),
              offsetof(usbinterface, parent), offsetof(usbinterface, configuration),
              offsetof(usbinterface, ifnum), offsetof(usbinterface, bAlternateSetting),
              offsetof(usbinterface, bInterfaceClass), offsetof(usbinterface, bInterfaceNumber),
              offsetof(usbinterface, bInterfaceProtocol),
              offsetof(usbinterface, bInterfaceSubClass), offsetof(usbinterface, bNumEndpoints),
              offsetof(usbinterface, name), offsetof(usbinterface, category),
              offsetof(usbinterface, category_path), offsetof(usbinterface, driver)}},
    };
    for (const auto& row : table) {
        EXPECT_TRUE(std::is_sorted(row.offsets.begin(), row.offsets.end())) << row.name;
    }
}

TEST(Records, HaveRoomForTextsOfFixedSizes) {
    EXPECT_EQ(sizeof(usbbusnode::speed), 8U);
    EXPECT_EQ(sizeof(usbbusnode::name), 255U);
    EXPECT_EQ(sizeof(usbbusnode::driver), 255U);
    EXPECT_EQ(sizeof(usbdevice::bMaxPower), 64U);
    EXPECT_EQ(sizeof(usbdevice::manufacturer), 64U);
    EXPECT_EQ(sizeof(usbdevice::product), 64U);
    EXPECT_EQ(sizeof(usbdevice::serial), 64U);
    EXPECT_EQ(sizeof(usbdevice::version), 64U);
    EXPECT_EQ(sizeof(usbdevice::speed), 64U);
    EXPECT_EQ(sizeof(usbdevice::name), 255U);
    EXPECT_EQ(sizeof(usbdevice::driver), 261U);
    EXPECT_EQ(sizeof(usbinterface::name), 255U);
    EXPECT_EQ(sizeof(usbinterface::category_path), 64U);
    EXPECT_EQ(sizeof(usbinterface::driver), 260U);
}

TEST(Records, HaveTheDescriptorOfAnInterfaceInOneBlock) {
    const size_t first = offsetof(usbinterface, bInterfaceClass);
    EXPECT_EQ(offsetof(usbinterface, bInterfaceNumber), first + 4);
    EXPECT_EQ(offsetof(usbinterface, bInterfaceProtocol), first + 8);
    EXPECT_EQ(offsetof(usbinterface, bInterfaceSubClass), first + 12);
}

// Each record is an allocation of its own, so that the sanitizer guards its end; within it, nothing
// but the field itself may differ from the record of ordinary texts.
TEST_F(UsbDeviceTest, RecordsKeepEachTextInItsField) {
    for (const TextField& field : textFields()) {
        const Kind& kind = kindOf(field);
        addWholeEntry(kind);
        const std::string ordinary = recordOf(kind, kind.entry);
        const size_t limit = field.longest;
        for (const size_t length : {limit - 1, limit, limit + 1, limit + 2, size_t(63), size_t(64),
                                    size_t(65), size_t(255), size_t(256), size_t(260), size_t(261),
                                    size_t(262), size_t(300), size_t(4000)}) {
            SCOPED_TRACE(testing::Message() << field.kind << " " << field.name << " of " << length);
            const std::string record = recordOf(kind, give(field, length));
            const std::string bytes = record.substr(field.offset, field.size);
            const bool isDropped = field.dropped != 0 && length >= field.dropped;
            ASSERT_NE(bytes.find('\0'), std::string::npos);
            EXPECT_EQ(std::string(bytes.c_str()),
                      isDropped ? "" : textGiven(field, length).substr(0, limit));
            EXPECT_EQ(record.substr(0, field.offset), ordinary.substr(0, field.offset));
            EXPECT_EQ(record.substr(field.offset + field.size),
                      ordinary.substr(field.offset + field.size));
        }
    }
}

TEST_F(UsbDeviceTest, RecordsLeaveTheRestOfADriversRoomAlone) {
    for (const TextField& field : textFields()) {
        if (field.name != std::string("driver")) continue;
        const Kind& kind = kindOf(field);
        addWholeEntry(kind);
        for (const size_t length : {254, 255, 260, 261, 262, 4000}) {
            SCOPED_TRACE(testing::Message() << field.kind << ", driver of " << length);
            const std::string record = recordOf(kind, give(field, length));
            EXPECT_EQ(record.substr(field.offset, field.size),
                      TextOf(254) + std::string(field.size - 254, '\0'));
        }
    }
}

// --- inspect_bus_entry -------------------------------------------------------------------------

using InspectBusEntry = UsbDeviceTest;

TEST_F(InspectBusEntry, TellsBusesDevicesAndInterfacesByTheirNames) {
    const struct {
        const char* name;
        size_t buses;
        size_t devices;
        size_t interfaces;
    } table[] = {
            {"usb1", 1, 0, 0},    {"usb0", 1, 0, 0},    {"usb9:1.0", 1, 0, 0}, {"usb10", 1, 0, 0},
            {"1-1", 0, 1, 0},     {"9", 0, 1, 0},       {"10-1.4.3", 0, 1, 0}, {"1usb1", 0, 1, 0},
            {"1-1:1.0", 0, 0, 1}, {"1-0:1.0", 0, 0, 1}, {"1:2:3", 0, 0, 1},    {"usb", 0, 0, 0},
            {"usbmon", 0, 0, 0},  {"usb-1", 0, 0, 0},   {"USB1", 0, 0, 0},     {"us1", 0, 0, 0},
            {"xsb1", 0, 0, 0},    {"uxb1", 0, 0, 0},    {"usx1", 0, 0, 0},     {":1.0", 0, 0, 0},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        UsbDevice::inspect_bus_entry(row.name);
        EXPECT_EQ(Buses().size(), row.buses);
        EXPECT_EQ(Devices().size(), row.devices);
        EXPECT_EQ(Interfaces().size(), row.interfaces);
        UsbDevice::delete_all_nodes();
        UsbDevice::empty_list();
    }
}

TEST_F(InspectBusEntry, ReportsAnUnknownNameOnStandardError) {
    for (const std::string name : {"usb", "usbmon", "usb-1", "USB1", "us1", "u", "ep_00", ":1.0",
                                   "-1", "...", ".hidden", ""}) {
        const ProcessResult child = RunInChild([&] { UsbDevice::inspect_bus_entry(name.c_str()); });
        EXPECT_EQ(child.err, "ignoring '" + name + "'\n");
        EXPECT_EQ(child.out, "");
    }
}

TEST_F(InspectBusEntry, IgnoresTheDotEntriesSilently) {
    const ProcessResult child = RunInChild([] {
        Inspect({".", ".."});
        printf("%zu", Buses().size() + Devices().size() + Interfaces().size());
    });
    EXPECT_EQ(child.out, "0");
    EXPECT_EQ(child.err, "");
}

TEST_F(InspectBusEntry, DropsWhatCannotBeAllocatedSilently) {
    const struct {
        const char* name;
        size_t size;
    } table[] = {
            {"usb1", sizeof(usbbusnode)},
            {"1-1", sizeof(usbdevice)},
            {"1-1:1.0", sizeof(usbinterface)},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const ProcessResult child = RunInChild([&] {
            failingAllocation = row.size;
            UsbDevice::inspect_bus_entry(row.name);
            printf("%zu", Buses().size() + Devices().size() + Interfaces().size());
        });
        EXPECT_EQ(child.status, 0);
        EXPECT_EQ(child.out, "0");
        EXPECT_EQ(child.err, "");
    }
}

// --- Drivers of buses, devices and interfaces --------------------------------------------------

using Driver = UsbDeviceTest;

TEST_F(Driver, IsTheBaseNameOfItsLink) {
    const struct {
        const char* name;
        std::string target;
        std::string driver;
    } table[] = {
            {"relative", "../../../bus/usb/drivers/usbhid", "usbhid"},
            {"absolute", "/sys/bus/usb/drivers/cdc_acm", "cdc_acm"},
            {"no slash", "usbhid", ""},
            {"slash at the end", "drivers/", ""},
            {"254 characters", "drivers/" + TextOf(254), TextOf(254)},
            {"255 characters", "drivers/" + TextOf(255), TextOf(254)},
            {"300 characters", "drivers/" + TextOf(300), TextOf(254)},
            {"link of 4094 characters", Padded("drivers", 4087) + "usbstor", "usbstor"},
            {"link of 4095 characters", Padded("drivers", 4087) + "usb_stor", ""},
    };
    for (const Kind& kind : kinds()) {
        AddUsbEntry(kind.entry, {});
        for (const auto& row : table) {
            SCOPED_TRACE(testing::Message() << kind.name << ", " << row.name);
            MakeLink(kind.driverLink, row.target);
            LogCapture log;
            UsbDevice::inspect_bus_entry(kind.entry.c_str());
            EXPECT_EQ(kind.driver(), row.driver);
            EXPECT_THAT(log.Lines(), IsEmpty());
            Remove(kind.driverLink);
        }
    }
}

TEST_F(Driver, IsEmptyWithoutAMessageWhenThereIsNoLink) {
    for (const Kind& kind : kinds()) {
        SCOPED_TRACE(kind.name);
        AddUsbEntry(kind.entry, {});
        const ProcessResult child = RunInChild([&] {
            UsbDevice::inspect_bus_entry(kind.entry.c_str());
            printf("'%s'", kind.driver().c_str());
        });
        EXPECT_EQ(child.out, "''");
        EXPECT_EQ(withoutMissingAttributes(child.err), "");
    }
}

TEST_F(Driver, IsEmptyWhenAFileStandsInTheLinksPlace) {
    for (const Kind& kind : kinds()) {
        SCOPED_TRACE(kind.name);
        AddUsbEntry(kind.entry, {});
        WriteFile(kind.driverLink, "drivers/usbhid");
        LogCapture log;
        UsbDevice::inspect_bus_entry(kind.entry.c_str());
        EXPECT_EQ(kind.driver(), "");
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST_F(Driver, OfARootHubIsItsControllersNotItsOwn) {
    const std::string entry = AddBus(1);
    MakeLink("/sys/devices/usb/driver", "../../bus/platform/drivers/xhci-hcd");
    BindDriver(entry, "usb");
    usbbusnode bus = {};
    UsbDevice::get_roothub_driver(&bus, "usb1");
    EXPECT_STREQ(bus.driver, "xhci-hcd");
}

TEST_F(Driver, OfARootHubWithAPathOf4096CharactersIsLeftOutWithAnError) {
    AddBus(1);
    MakeLink("/sys/devices/usb/driver", "../../bus/platform/drivers/xhci-hcd");
    usbbusnode bus = {};
    LogCapture log;
    UsbDevice::get_roothub_driver(&bus, nameForPathOf(kLongestPath, "usb1", "../driver").c_str());
    EXPECT_STREQ(bus.driver, "xhci-hcd");
    EXPECT_THAT(log.Lines(), IsEmpty());

    bus = {};
    const std::string name = nameForPathOf(kLongestPath + 1, "usb1", "../driver");
    UsbDevice::get_roothub_driver(&bus, name.c_str());
    EXPECT_STREQ(bus.driver, "");
    EXPECT_THAT(log.Lines(),
                ElementsAre(Error("Cannot read driver link for " + name + ": " + name + "4096")));
}

TEST_F(Driver, OfADeviceWithAPathOf4096CharactersIsLeftOutWithAnError) {
    BindDriver(AddUsbEntry("1-1", {}), "usb");
    LogCapture log;
    UsbDevice::add_usb_device(nameForPathOf(kLongestPath, "1-1", "driver").c_str());
    EXPECT_STREQ(Devices().at(0)->driver, "usb");
    EXPECT_THAT(log.Lines(), IsEmpty());

    const std::string name = nameForPathOf(kLongestPath + 2, "1-1", "driver");
    UsbDevice::add_usb_device(name.c_str());
    EXPECT_STREQ(Devices().at(1)->driver, "");
    EXPECT_THAT(log.Lines(),
                ElementsAre(Error("Can not read driver link for " + name + ": " + name + "4097")));
}

TEST_F(Driver, OfAnInterfaceWithAPathOf4096CharactersIsLeftOutAndOnlyTraced) {
    BindDriver(AddUsbEntry("1-1:1.0", {}), "usbhid");
    const std::string fits = nameForPathOf(kLongestPath, "1-1:1.0", "driver");
    const std::string tooLong = nameForPathOf(kLongestPath + 1, "1-1:1.0", "driver");
    LogCapture log;
    UsbDevice::add_usb_interface(fits.c_str());
    EXPECT_STREQ(Interfaces().at(0)->driver, "usbhid");
    UsbDevice::add_usb_interface(tooLong.c_str());
    EXPECT_STREQ(Interfaces().at(1)->driver, "");
    EXPECT_THAT(log.Take(), IsEmpty());

    UsbDevice::trace = true;
    UsbDevice::add_usb_interface(fits.c_str());
    EXPECT_THAT(log.Take(), ElementsAre(Info(" add_usb_interface  enter" + fits)));
    UsbDevice::add_usb_interface(tooLong.c_str());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info(" add_usb_interface  enter" + tooLong),
                            Info("Can not read driver link for d_name:" + tooLong + "for: 4096")));
}

// --- add_usb_bus -------------------------------------------------------------------------------

using AddUsbBus = UsbDeviceTest;

TEST_F(AddUsbBus, ReadsEachAttributeInItsBase) {
    Attributes attributes = attributesFor({{"devnum", 11},
                                           {"bDeviceClass", 0x12},
                                           {"idProduct", 0x13},
                                           {"idVendor", 0x14},
                                           {"maxchild", 15},
                                           {"rx_lanes", 16},
                                           {"tx_lanes", 17}});
    attributes.emplace_back("speed", "480\n");
    AddUsbEntry("usb12", attributes);
    const ProcessResult child = RunInChild([] { UsbDevice::add_usb_bus("usb12"); });
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(child.out, "");

    UsbDevice::add_usb_bus("usb12");
    const usbbusnode& bus = *Bus("usb12");
    EXPECT_EQ(bus.next, nullptr);
    EXPECT_EQ(bus.first_interface, nullptr);
    EXPECT_EQ(bus.first_child, nullptr);
    EXPECT_EQ(bus.busnum, 12U);
    EXPECT_EQ(bus.devnum, 11U);
    EXPECT_EQ(bus.bDeviceClass, 0x12U);
    EXPECT_EQ(bus.idProduct, 0x13U);
    EXPECT_EQ(bus.idVendor, 0x14U);
    EXPECT_EQ(bus.maxchild, 15U);
    EXPECT_STREQ(bus.speed, "480");
    EXPECT_EQ(bus.rx_lanes, 16U);
    EXPECT_EQ(bus.tx_lanes, 17U);
}

TEST_F(AddUsbBus, TakesItsNumberFromTheFourthCharacterOn) {
    const struct {
        const char* name;
        uint32_t busnum;
    } table[] = {{"usb1", 1}, {"usb12", 12}, {"usb012", 12}, {"usb7x9", 7}, {"usb0", 0}};
    for (const auto& row : table) {
        UsbDevice::add_usb_bus(row.name);
        EXPECT_EQ(Bus(row.name)->busnum, row.busnum) << row.name;
    }
}

TEST_F(AddUsbBus, KeepsSevenCharactersOfASpeed) {
    const struct {
        std::string text;
        std::string speed;
    } table[] = {
            {"1.5\n", "1.5"},
            {"20000\n", "20000"},
            {"1234567\n", "1234567"},
            {"12345678\n", "1234567"},
            {TextOf(63), "abcdefg"},
            {TextOf(64), ""},
            {"", ""},
    };
    const std::string entry = AddBus(1);
    WriteFile(entry + "/rx_lanes", "3\n");
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        WriteFile(entry + "/speed", row.text);
        UsbDevice::add_usb_bus("usb1");
        EXPECT_EQ(Buses().back()->speed, row.speed);
        EXPECT_EQ(Buses().back()->rx_lanes, 3U);
    }
}

TEST_F(AddUsbBus, CutsANameAt254CharactersWithAWarningOnStandardOutput) {
    const std::string fits = longName("usb1", 254);
    ProcessResult child = RunInChild([&] {
        UsbDevice::add_usb_bus(fits.c_str());
        dprintf(STDERR_FILENO, "%s", Buses().at(0)->name);
    });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(withoutMissingAttributes(child.err), fits);

    const std::string tooLong = longName("usb1", 255);
    child = RunInChild([&] {
        UsbDevice::add_usb_bus(tooLong.c_str());
        dprintf(STDERR_FILENO, "%s", Buses().at(0)->name);
    });
    EXPECT_EQ(child.out, "warning: '" + tooLong + "' truncated to '" + fits + "'\n");
    EXPECT_EQ(withoutMissingAttributes(child.err), fits);
}

TEST_F(AddUsbBus, AppendsInTheOrderOfDiscovery) {
    Inspect({"usb2", "usb1", "usb3"});
    EXPECT_THAT(NamesOf(Buses()), ElementsAre("usb2", "usb1", "usb3"));
}

TEST_F(AddUsbBus, ReadsAMissingAttributeAsZeroOrEmpty) {
    const ProcessResult child = RunInChild([] {
        UsbDevice::add_usb_bus("usb1");
        const usbbusnode& bus = *Bus("usb1");
        printf("%u %u %u %u %u %u %u '%s' '%s'", bus.devnum, bus.bDeviceClass, bus.idProduct,
               bus.idVendor, bus.maxchild, bus.rx_lanes, bus.tx_lanes, bus.speed, bus.driver);
    });
    EXPECT_EQ(child.out, "0 0 0 0 0 0 0 '' ''");
    std::string errors;
    for (const std::string attribute :
         {"devnum", "bDeviceClass", "idProduct", "idVendor", "maxchild", "rx_lanes", "tx_lanes"}) {
        errors += "/sys/bus/usb/devices/usb1/" + attribute + ": No such file or directory\n";
    }
    EXPECT_EQ(child.err, errors);
}

// --- add_usb_device ----------------------------------------------------------------------------

using AddUsbDevice = UsbDeviceTest;

TEST_F(AddUsbDevice, TakesBusAndPortsFromItsName) {
    const struct {
        const char* name;
        uint32_t busnum;
        uint32_t parent_portnum;
        uint32_t portnum;
    } table[] = {
            {"1-1", 1, 0, 1},
            {"1-1.4", 1, 1, 4},
            {"2-1.3.2", 2, 3, 2},
            {"12-10.11.12.13", 12, 12, 13},
            {"1", 1, 0, 0},
            {"1-", 1, 0, 0},
            {"1-x", 1, 0, 0},
            {"1-1.", 1, 0, 1},
            {"1-1.x.3", 1, 0, 1},
            // The separators are not looked at.
            {"1x2", 1, 0, 2},
            {"1-1x4", 1, 1, 4},
            {"1.2-3", 1, 2, 3},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        UsbDevice::add_usb_device(row.name);
        const usbdevice& device = *Device(row.name);
        EXPECT_EQ(device.busnum, row.busnum);
        EXPECT_EQ(device.parent_portnum, row.parent_portnum);
        EXPECT_EQ(device.portnum, row.portnum);
    }
}

TEST_F(AddUsbDevice, DropsANameWithoutABusNumberSilently) {
    for (const char* name : {"x1-1", "", ".1"}) {
        const ProcessResult child = RunInChild([=] {
            UsbDevice::add_usb_device(name);
            printf("%zu", Devices().size());
        });
        EXPECT_EQ(child.out, "0") << name;
        EXPECT_EQ(child.err, "") << name;
    }
}

TEST_F(AddUsbDevice, ReadsEachAttributeInItsBase) {
    Attributes attributes = attributesFor({{"bDeviceClass", 0x11},
                                           {"bDeviceProtocol", 0x12},
                                           {"bDeviceSubClass", 0x13},
                                           {"bMaxPacketSize0", 0x14},
                                           {"bNumConfigurations", 15},
                                           {"bNumInterfaces", 0x16},
                                           {"bcdDevice", 0x17},
                                           {"bmAttributes", 0x18},
                                           {"configuration", 19},
                                           {"devnum", 20},
                                           {"idProduct", 0x21},
                                           {"idVendor", 0x22},
                                           {"maxchild", 23},
                                           {"rx_lanes", 24},
                                           {"tx_lanes", 25}});
    attributes.insert(attributes.end(), {{"bMaxPower", "100mA\n"},
                                         {"manufacturer", "ACME\n"},
                                         {"product", "Dock\n"},
                                         {"serial", "0815\n"},
                                         {"version", " 2.10\n"},
                                         {"speed", "480\n"},
                                         {"bConfigurationValue", "1\n"}});
    AddUsbEntry("1-1.4", attributes);
    const ProcessResult child = RunInChild([] { UsbDevice::add_usb_device("1-1.4"); });
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(child.out, "");

    UsbDevice::add_usb_device("1-1.4");
    const usbdevice& device = *Device("1-1.4");
    EXPECT_EQ(device.next, nullptr);
    EXPECT_EQ(device.first_interface, nullptr);
    EXPECT_EQ(device.first_child, nullptr);
    EXPECT_EQ(device.parent, nullptr);
    EXPECT_EQ(device.bConfigurationValue, 0U);
    EXPECT_EQ(device.bDeviceClass, 0x11U);
    EXPECT_EQ(device.bDeviceProtocol, 0x12U);
    EXPECT_EQ(device.bDeviceSubClass, 0x13U);
    EXPECT_EQ(device.bMaxPacketSize0, 0x14U);
    EXPECT_STREQ(device.bMaxPower, "100mA");
    EXPECT_EQ(device.bNumConfigurations, 15U);
    EXPECT_EQ(device.bNumInterfaces, 0x16U);
    EXPECT_EQ(device.bcdDevice, 0x17U);
    EXPECT_EQ(device.bmAttributes, 0x18U);
    EXPECT_EQ(device.configuration, 19U);
    EXPECT_EQ(device.devnum, 20U);
    EXPECT_EQ(device.idProduct, 0x21U);
    EXPECT_EQ(device.idVendor, 0x22U);
    EXPECT_EQ(device.maxchild, 23U);
    EXPECT_STREQ(device.manufacturer, "ACME");
    EXPECT_STREQ(device.product, "Dock");
    EXPECT_STREQ(device.serial, "0815");
    EXPECT_STREQ(device.version, " 2.10");
    EXPECT_STREQ(device.speed, "480");
    EXPECT_EQ(device.rx_lanes, 24U);
    EXPECT_EQ(device.tx_lanes, 25U);
}

TEST_F(AddUsbDevice, KeepsTextsOf63CharactersAndDropsLongerOnes) {
    const struct {
        const char* attribute;
        char (usbdevice::*field)[64];
    } table[] = {
            {"bMaxPower", &usbdevice::bMaxPower}, {"manufacturer", &usbdevice::manufacturer},
            {"product", &usbdevice::product},     {"serial", &usbdevice::serial},
            {"version", &usbdevice::version},     {"speed", &usbdevice::speed},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.attribute);
        Remove("/sys/devices/usb");
        Remove(kUsbDevices);
        const std::string entry = AddUsbEntry("1-1", {});
        for (const std::string& text : {TextOf(63), TextOf(62) + "\n"}) {
            WriteFile(entry + "/" + row.attribute, text);
            UsbDevice::add_usb_device("1-1");
            EXPECT_EQ(Devices().back()->*row.field, text.substr(0, text.find('\n')));
        }
        for (const std::string& text : {TextOf(63) + "\n", TextOf(64), TextOf(65)}) {
            WriteFile(entry + "/" + row.attribute, text);
            UsbDevice::add_usb_device("1-1");
            EXPECT_STREQ(Devices().back()->*row.field, "");
        }
    }
}

TEST_F(AddUsbDevice, ReadsTheConfigurationValueOnlyForANameThatHadToBeCut) {
    const std::string fits = longName("1-1.4", 254);
    AddUsbEntry(fits, {{"bConfigurationValue", "10\n"}});
    UsbDevice::add_usb_device(fits.c_str());
    EXPECT_EQ(Devices().at(0)->name, fits);
    EXPECT_EQ(Devices().at(0)->bConfigurationValue, 0U);

    const std::string tooLong = deviceBehindHubs(126);
    ASSERT_EQ(tooLong.size(), 255U);
    AddUsbEntry(tooLong, {{"bConfigurationValue", "10\n"}});
    UsbDevice::add_usb_device(tooLong.c_str());
    EXPECT_EQ(Devices().at(1)->name, tooLong.substr(0, 254));
    EXPECT_EQ(Devices().at(1)->bConfigurationValue, 10U);
    EXPECT_EQ(Devices().at(1)->portnum, 1U);
}

TEST_F(AddUsbDevice, DoesNotWarnOfANameThatHadToBeCut) {
    const ProcessResult child = RunInChild([] {
        UsbDevice::add_usb_device(longName("1-1.4", 255).c_str());
        UsbDevice::add_usb_device(longName("1-1.4", 1000).c_str());
    });
    EXPECT_EQ(child.out, "");
    EXPECT_THAT(child.err, testing::Not(HasSubstr("warning")));
}

TEST_F(AddUsbDevice, AppendsAtTheTail) {
    Inspect({"1-2", "1-1", "2-1"});
    EXPECT_THAT(NamesOf(Devices()), ElementsAre("1-2", "1-1", "2-1"));
}

TEST_F(AddUsbDevice, ReadsAMissingNumberAsZeroInTheGivenOrder) {
    const ProcessResult child = RunInChild([] { UsbDevice::add_usb_device("1-1"); });
    std::string errors;
    for (const std::string attribute :
         {"bDeviceClass", "bDeviceProtocol", "bDeviceSubClass", "bMaxPacketSize0",
          "bNumConfigurations", "bNumInterfaces", "bcdDevice", "bmAttributes", "configuration",
          "devnum", "idProduct", "idVendor", "maxchild", "rx_lanes", "tx_lanes"}) {
        errors += "/sys/bus/usb/devices/1-1/" + attribute + ": No such file or directory\n";
    }
    EXPECT_EQ(child.err, errors);
}

// --- add_usb_interface -------------------------------------------------------------------------

using AddUsbInterface = UsbDeviceTest;

TEST_F(AddUsbInterface, TakesConfigurationAndNumberFromItsName) {
    const struct {
        const char* name;
        uint32_t configuration;
        uint32_t ifnum;
    } table[] = {
            {"1-1:1.0", 1, 0},
            {"1-1.4:2.13", 2, 13},
            {"1-0:1.0", 1, 0},
            {"1-1:2.3:4.5", 2, 3},
            // The separator is not looked at.
            {"1-1:1-5", 1, 5},
            {"1-1:1.5x", 1, 5},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        UsbDevice::add_usb_interface(row.name);
        EXPECT_EQ(Interface(row.name)->configuration, row.configuration);
        EXPECT_EQ(Interface(row.name)->ifnum, row.ifnum);
    }
}

TEST_F(AddUsbInterface, DropsANameWithoutItsNumbersSilently) {
    for (const char* name :
         {"1-1:", "1-1:x.0", "1-1:.0", "1-1:1", "1-1:1.", "1-1:1.x", "1-1::1.0"}) {
        const ProcessResult child = RunInChild([=] {
            UsbDevice::inspect_bus_entry(name);
            printf("%zu", Devices().size() + Interfaces().size());
        });
        EXPECT_EQ(child.status, 0) << name;
        EXPECT_EQ(child.out, "0") << name;
        EXPECT_EQ(child.err, "") << name;
    }
}

TEST_F(AddUsbInterface, ReadsEachAttributeInItsBase) {
    AddUsbEntry("1-1:1.0", attributesFor({{"bAlternateSetting", 11},
                                          {"bInterfaceClass", 0x12},
                                          {"bInterfaceNumber", 0x13},
                                          {"bInterfaceProtocol", 0x14},
                                          {"bInterfaceSubClass", 0x15},
                                          {"bNumEndpoints", 0x16}}));
    const ProcessResult child = RunInChild([] { UsbDevice::add_usb_interface("1-1:1.0"); });
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(child.out, "");

    UsbDevice::add_usb_interface("1-1:1.0");
    const usbinterface& interface = *Interface("1-1:1.0");
    EXPECT_EQ(interface.next, nullptr);
    EXPECT_EQ(interface.parent, nullptr);
    EXPECT_EQ(interface.bAlternateSetting, 11U);
    EXPECT_EQ(interface.bInterfaceClass, 0x12U);
    EXPECT_EQ(interface.bInterfaceNumber, 0x13U);
    EXPECT_EQ(interface.bInterfaceProtocol, 0x14U);
    EXPECT_EQ(interface.bInterfaceSubClass, 0x15U);
    EXPECT_EQ(interface.bNumEndpoints, 0x16U);
    EXPECT_EQ(interface.category, 0);
    EXPECT_STREQ(interface.category_path, "");
}

TEST_F(AddUsbInterface, CutsANameAt254CharactersWithAWarningOnStandardOutput) {
    const std::string fits = longName("1-1:1.0", 254);
    ProcessResult child = RunInChild([&] {
        UsbDevice::add_usb_interface(fits.c_str());
        dprintf(STDERR_FILENO, "%s", Interfaces().at(0)->name);
    });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(withoutMissingAttributes(child.err), fits);

    const std::string tooLong = longName("1-1:1.0", 255);
    child = RunInChild([&] {
        UsbDevice::add_usb_interface(tooLong.c_str());
        dprintf(STDERR_FILENO, "%s", Interfaces().at(0)->name);
    });
    EXPECT_EQ(child.out, "warning: '" + tooLong + "' truncated to '" + fits + "'\n");
    EXPECT_EQ(withoutMissingAttributes(child.err), fits);
}

TEST_F(AddUsbInterface, AppendsAtTheTail) {
    Inspect({"1-1:1.1", "1-1:1.0", "2-1:1.0"});
    EXPECT_THAT(NamesOf(Interfaces()), ElementsAre("1-1:1.1", "1-1:1.0", "2-1:1.0"));
}

TEST_F(AddUsbInterface, ReadsAMissingNumberAsZeroInTheGivenOrder) {
    const ProcessResult child = RunInChild([] { UsbDevice::add_usb_interface("1-1:1.0"); });
    std::string errors;
    for (const std::string attribute :
         {"bAlternateSetting", "bInterfaceClass", "bInterfaceNumber", "bInterfaceProtocol",
          "bInterfaceSubClass", "bNumEndpoints"}) {
        errors += "/sys/bus/usb/devices/1-1:1.0/" + attribute + ": No such file or directory\n";
    }
    EXPECT_EQ(child.err, errors);
}

// --- connect_devices ---------------------------------------------------------------------------

using ConnectDevices = UsbDeviceTest;

TEST_F(ConnectDevices, LinksBusHubDeviceAndInterfacesWhateverTheirOrder) {
    addSmallTree();
    std::vector<std::string> names = smallTree();
    std::sort(names.begin(), names.end());
    do {
        Inspect(names);
        UsbDevice::connect_devices();
        const std::string order = testing::PrintToString(names);
        const usbbusnode* bus = Bus("usb1");
        usbdevice* hub = Device("1-1");
        usbdevice* device = Device("1-1.2");
        ASSERT_EQ(bus->first_child, hub) << order;
        ASSERT_EQ(bus->first_interface, nullptr) << order;
        ASSERT_EQ(hub->next, nullptr) << order;
        ASSERT_EQ(hub->parent, nullptr) << order;
        ASSERT_EQ(hub->first_child, device) << order;
        ASSERT_EQ(hub->first_interface, Interface("1-1:1.0")) << order;
        ASSERT_EQ(device->parent, hub) << order;
        ASSERT_EQ(device->next, nullptr) << order;
        ASSERT_EQ(device->first_child, nullptr) << order;
        ASSERT_EQ(device->first_interface, Interface("1-1.2:1.0")) << order;
        ASSERT_EQ(Interface("1-1:1.0")->parent, hub) << order;
        ASSERT_EQ(Interface("1-1.2:1.0")->parent, device) << order;
        ASSERT_EQ(Interface("1-0:1.0")->parent, nullptr) << order;
        for (const usbinterface* interface : Interfaces()) ASSERT_EQ(interface->next, nullptr);
        UsbDevice::delete_all_nodes();
        UsbDevice::empty_list();
    } while (std::next_permutation(names.begin(), names.end()));
}

TEST_F(ConnectDevices, ChainsSiblingsInTheOrderOfTheList) {
    Inspect({"usb2", "usb1", "1-3", "2-1", "1-1", "1-2", "1-1.4", "1-1.1", "1-1.3", "1-1.1:1.1",
             "1-1.1:1.0", "1-1.1:1.2"});
    UsbDevice::connect_devices();
    EXPECT_THAT(ChainOf(Bus("usb1")->first_child), ElementsAre("1-3", "1-1", "1-2"));
    EXPECT_THAT(ChainOf(Bus("usb2")->first_child), ElementsAre("2-1"));
    EXPECT_THAT(ChainOf(Device("1-1")->first_child), ElementsAre("1-1.4", "1-1.1", "1-1.3"));
    EXPECT_THAT(ChainOf(Device("1-1.1")->first_interface),
                ElementsAre("1-1.1:1.1", "1-1.1:1.0", "1-1.1:1.2"));
}

TEST_F(ConnectDevices, FollowsHubsBehindHubs) {
    Inspect({"usb1", "1-1.2.3.4", "1-1.2.3", "1-1.2", "1-1"});
    UsbDevice::connect_devices();
    EXPECT_EQ(Device("1-1.2.3.4")->parent, Device("1-1.2.3"));
    EXPECT_EQ(Device("1-1.2.3")->parent, Device("1-1.2"));
    EXPECT_EQ(Device("1-1.2")->parent, Device("1-1"));
    EXPECT_EQ(Device("1-1")->parent, nullptr);
}

TEST_F(ConnectDevices, PutsADeviceOnEveryBusOfItsNumberOnce) {
    Inspect({"usb1", "usb01", "1-1", "1-2", "1-3"});
    UsbDevice::connect_devices();
    EXPECT_THAT(ChainOf(Bus("usb1")->first_child), ElementsAre("1-1", "1-2", "1-3"));
    EXPECT_THAT(ChainOf(Bus("usb01")->first_child), ElementsAre("1-1", "1-2", "1-3"));
}

TEST_F(ConnectDevices, LeavesADeviceWithoutABusUnlinkedAndMapsItsInterfaces) {
    AddDevice("3-1", 3, 4, "17e9", "6001");
    AddInterface("3-1:1.0", "03");
    Inspect({"usb1", "3-1", "3-1:1.0"});
    UsbDevice::connect_devices();
    EXPECT_EQ(Bus("usb1")->first_child, nullptr);
    EXPECT_EQ(Interface("3-1:1.0")->parent, Device("3-1"));
    EXPECT_EQ(UsbDevice::DeviceIdMap.count(3004), 1U);
}

TEST_F(ConnectDevices, LeavesADeviceWithoutItsHubUnlinkedAndMapsItsInterfaces) {
    AddDevice("1-1.2", 1, 5, "17e9", "6001");
    AddInterface("1-1.2:1.0", "03");
    Inspect({"usb1", "1-1.2", "1-1.2:1.0"});
    UsbDevice::connect_devices();
    EXPECT_EQ(Bus("usb1")->first_child, nullptr);
    EXPECT_EQ(Device("1-1.2")->parent, nullptr);
    EXPECT_THAT(NamesOf(Devices()), ElementsAre("1-1.2"));
    EXPECT_EQ(Interface("1-1.2:1.0")->parent, Device("1-1.2"));
    EXPECT_EQ(UsbDevice::DeviceIdMap.count(1005), 1U);
}

TEST_F(ConnectDevices, LeavesAnInterfaceWithoutItsDeviceOutOfTheMap) {
    AddDevice("1-1", 1, 2, "17e9", "6001");
    AddInterface("1-2:1.0", "03");
    Inspect({"usb1", "1-1", "1-2:1.0", "1-0:1.0"});
    UsbDevice::connect_devices();
    EXPECT_EQ(Interface("1-2:1.0")->parent, nullptr);
    EXPECT_EQ(Interface("1-2:1.0")->category, 0);
    EXPECT_STREQ(Interface("1-2:1.0")->category_path, "");
    EXPECT_THAT(UsbDevice::DeviceIdMap, IsEmpty());
}

TEST_F(ConnectDevices, PutsAnInterfaceOfConfigurationZeroWithoutADeviceOnItsBusOnce) {
    Inspect({"usb2", "usb1", "usb01", "1-1", "1-2", "2-1", "1-9:0.1", "1-9:0.0", "2-0:0.0",
             "3-1:0.0", "1-9:1.0"});
    UsbDevice::connect_devices();
    EXPECT_THAT(ChainOf(Bus("usb1")->first_interface), ElementsAre("1-9:0.1", "1-9:0.0"));
    EXPECT_THAT(ChainOf(Bus("usb01")->first_interface), IsEmpty());
    EXPECT_THAT(ChainOf(Bus("usb2")->first_interface), ElementsAre("2-0:0.0"));
    for (const usbinterface* interface : Interfaces()) EXPECT_EQ(interface->parent, nullptr);
    EXPECT_THAT(UsbDevice::DeviceIdMap, IsEmpty());
}

TEST_F(ConnectDevices, DoesNothingWithoutRecords) {
    LogCapture log;
    UsbDevice::connect_devices();
    EXPECT_THAT(UsbDevice::DeviceIdMap, IsEmpty());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// --- assign_dev_to_parent ----------------------------------------------------------------------

using AssignDevToParent = UsbDeviceTest;

TEST_F(AssignDevToParent, TakesOnlyADeviceOfTheRightName) {
    // All but the last read as port 1 of bus 1.
    for (const char* name : {"01-1", "1-01", "1_1", "1-1.2.1"}) {
        Inspect({name, "1-1.2"});
        UsbDevice::assign_dev_to_parent(Device("1-1.2"));
        EXPECT_EQ(Device("1-1.2")->parent, nullptr) << name;
        UsbDevice::delete_all_nodes();
    }
}

TEST_F(AssignDevToParent, TakesOnlyADeviceOfTheRightBusAndPort) {
    const struct {
        const char* name;
        void (*spoil)(usbdevice*);
    } table[] = {
            {"bus", [](usbdevice* hub) { hub->busnum = 2; }},
            {"port", [](usbdevice* hub) { hub->portnum = 2; }},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        Inspect({"1-1", "1-1.2"});
        usbdevice* hub = Devices().at(0);
        usbdevice* device = Devices().at(1);
        row.spoil(hub);
        UsbDevice::assign_dev_to_parent(device);
        EXPECT_EQ(device->parent, nullptr);
        EXPECT_EQ(hub->first_child, nullptr);
        UsbDevice::delete_all_nodes();
    }
}

TEST_F(AssignDevToParent, TakesTheFirstDeviceThatMatches) {
    Inspect({"2-1", "1-1", "1-1", "1-1.2"});
    UsbDevice::assign_dev_to_parent(Device("1-1.2"));
    EXPECT_EQ(Device("1-1.2")->parent, Devices().at(1));
    EXPECT_EQ(Devices().at(1)->first_child, Device("1-1.2"));
    EXPECT_EQ(Devices().at(2)->first_child, nullptr);
}

TEST_F(AssignDevToParent, CutsTheNameAtItsLastDot) {
    Inspect({"1-1", "1-1.2", "1-1.2.3"});
    UsbDevice::assign_dev_to_parent(Device("1-1.2.3"));
    EXPECT_EQ(Device("1-1.2.3")->parent, Device("1-1.2"));
    EXPECT_EQ(Device("1-1")->first_child, nullptr);
}

TEST_F(AssignDevToParent, NeverMatchesANameWithoutADot) {
    // Both read as port 2 behind port 1.
    Inspect({"1-1", "1-1x2"});
    UsbDevice::assign_dev_to_parent(Device("1-1x2"));
    EXPECT_EQ(Device("1-1x2")->parent, nullptr);
    EXPECT_EQ(Device("1-1")->first_child, nullptr);
}

TEST_F(AssignDevToParent, DoesNotAppendAChildTwice) {
    Inspect({"1-1", "1-1.2", "1-1.3"});
    for (int i = 0; i < 2; ++i) {
        UsbDevice::assign_dev_to_parent(Device("1-1.2"));
        UsbDevice::assign_dev_to_parent(Device("1-1.3"));
    }
    EXPECT_THAT(ChainOf(Device("1-1")->first_child), ElementsAre("1-1.2", "1-1.3"));
}

// --- assign_interface_to_parent ----------------------------------------------------------------

using AssignInterfaceToParent = UsbDeviceTest;

TEST_F(AssignInterfaceToParent, ComparesTheWholeTextBeforeTheFirstColon) {
    const struct {
        const char* interface;
        bool belongs;
    } table[] = {
            {"1-1:1.0", true},   {"1-1:0.0", true},  {"1-1:1.0:2.0", true}, {"1-1.2:1.0", false},
            {"1-11:1.0", false}, {"1-2:1.0", false}, {"1:1.0", false},      {"01-1:1.0", false},
    };
    Inspect({"1-1"});
    for (const auto& row : table) {
        SCOPED_TRACE(row.interface);
        UsbDevice::inspect_bus_entry(row.interface);
        usbinterface* interface = Interface(row.interface);
        UsbDevice::assign_interface_to_parent(Device("1-1"), interface);
        EXPECT_EQ(interface->parent, row.belongs ? Device("1-1") : nullptr);
    }
    EXPECT_THAT(ChainOf(Device("1-1")->first_interface),
                ElementsAre("1-1:1.0", "1-1:0.0", "1-1:1.0:2.0"));
}

TEST_F(AssignInterfaceToParent, DoesNotAppendAnInterfaceTwice) {
    Inspect({"usb1", "1-1", "1-1:1.0", "1-1:1.1", "1-9:0.0", "1-9:0.1"});
    for (int i = 0; i < 2; ++i) {
        for (usbinterface* interface : Interfaces()) {
            UsbDevice::assign_interface_to_parent(Device("1-1"), interface);
        }
    }
    EXPECT_THAT(ChainOf(Device("1-1")->first_interface), ElementsAre("1-1:1.0", "1-1:1.1"));
    EXPECT_THAT(ChainOf(Bus("usb1")->first_interface), ElementsAre("1-9:0.0", "1-9:0.1"));
}

TEST_F(AssignInterfaceToParent, LeavesANameWithoutAColonAlone) {
    Inspect({"usb1", "1-1"});
    usbinterface interface = {};
    SetText(interface.name, "1-1");
    UsbDevice::assign_interface_to_parent(Device("1-1"), &interface);
    EXPECT_EQ(interface.parent, nullptr);
    EXPECT_EQ(Device("1-1")->first_interface, nullptr);
    EXPECT_EQ(Bus("usb1")->first_interface, nullptr);
}

TEST_F(AssignInterfaceToParent, LeavesANameWithoutABusNumberAlone) {
    Inspect({"usb0", "1-1"});
    for (const char* name : {"x-1:0.0", ":0.0"}) {
        UsbDevice::add_usb_interface(name);
        UsbDevice::assign_interface_to_parent(Device("1-1"), Interface(name));
        EXPECT_EQ(Bus("usb0")->first_interface, nullptr) << name;
    }
}

TEST_F(AssignInterfaceToParent, LooksAtTheCharacterBehindTheColonOnly) {
    Inspect({"usb1", "1-1"});
    for (const char* name : {"1-0:1.0", "1-0:10.0", "1-9:1.0"}) {
        UsbDevice::inspect_bus_entry(name);
        UsbDevice::assign_interface_to_parent(Device("1-1"), Interface(name));
    }
    EXPECT_EQ(Bus("usb1")->first_interface, nullptr);
    UsbDevice::inspect_bus_entry("1-9:01.0");
    UsbDevice::assign_interface_to_parent(Device("1-1"), Interface("1-9:01.0"));
    EXPECT_EQ(Bus("usb1")->first_interface, Interface("1-9:01.0"));
}

// --- delete_all_nodes, empty_list --------------------------------------------------------------

using FreeNodes = UsbDeviceTest;

TEST_F(FreeNodes, DeleteAllNodesEmptiesTheDeviceAndInterfaceLists) {
    addSmallTree();
    Inspect(smallTree());
    UsbDevice::connect_devices();
    LogCapture log;
    UsbDevice::delete_all_nodes();
    EXPECT_TRUE(list_empty(&UsbDevice::device_list));
    EXPECT_TRUE(list_empty(&UsbDevice::interface_list));
    EXPECT_THAT(NamesOf(Buses()), ElementsAre("usb1"));
    EXPECT_THAT(log.Lines(), ElementsAre(Info("deleting the list using deleteAllnode")));
}

TEST_F(FreeNodes, EmptyListEmptiesTheBusList) {
    Inspect({"usb1", "usb2", "1-1", "1-1:1.0"});
    LogCapture log;
    UsbDevice::empty_list();
    EXPECT_EQ(UsbDevice::bus_list, nullptr);
    EXPECT_THAT(NamesOf(Devices()), ElementsAre("1-1"));
    EXPECT_THAT(NamesOf(Interfaces()), ElementsAre("1-1:1.0"));
    EXPECT_THAT(log.Lines(), ElementsAre(Info("***Entered empty_list******")));
}

TEST_F(FreeNodes, BothLogForEmptyListsToo) {
    LogCapture log;
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
    EXPECT_THAT(log.Lines(), ElementsAre(Info("deleting the list using deleteAllnode"),
                                         Info("***Entered empty_list******")));
}

// --- create_usb_device_map ---------------------------------------------------------------------

using CreateUsbDeviceMap = UsbDeviceTest;

TEST_F(CreateUsbDeviceMap, FillsTheMapAndLeavesNoRecord) {
    addSmallTree();
    LogCapture log;
    UsbDevice::create_usb_device_map();
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("create_usb_device_map called"),
                            Info("deleting the list using deleteAllnode"),
                            Info("***Entered empty_list******"), Info("print_deviceid_map "),
                            Info(" DeviceId: 1002 Interface name:1-1:1.0 class:9 Vendor ID:1033 "
                                 "Product ID:90"),
                            Info(" DeviceId: 1005 Interface name:1-1.2:1.0 class:3 Vendor ID:6121 "
                                 "Product ID:24577"),
                            Info("create_usb_device_map returned check loop")));
    EXPECT_EQ(UsbDevice::DeviceIdMap.size(), 2U);
    EXPECT_EQ(UsbDevice::bus_list, nullptr);
    EXPECT_TRUE(list_empty(&UsbDevice::device_list));
    EXPECT_TRUE(list_empty(&UsbDevice::interface_list));
}

TEST_F(CreateUsbDeviceMap, ForgetsWhatIsNoLongerThere) {
    UsbDevice::DeviceIdMap.emplace(9009, DeviceIdEntry{});
    addSmallTree();
    UsbDevice::create_usb_device_map();
    UsbDevice::create_usb_device_map();
    EXPECT_EQ(UsbDevice::DeviceIdMap.size(), 2U);
    EXPECT_EQ(UsbDevice::DeviceIdMap.count(9009), 0U);
    Remove("/sys/bus/usb/devices/1-1.2");
    Remove("/sys/bus/usb/devices/1-1.2:1.0");
    UsbDevice::create_usb_device_map();
    EXPECT_EQ(UsbDevice::DeviceIdMap.size(), 1U);
    EXPECT_EQ(UsbDevice::DeviceIdMap.count(1002), 1U);
}

TEST_F(CreateUsbDeviceMap, ReportsAMissingDirectoryAndLeavesAnEmptyMap) {
    UsbDevice::DeviceIdMap.emplace(1005, DeviceIdEntry{});
    const ProcessResult child = RunInChild([] {
        UsbDevice::create_usb_device_map();
        printf("%zu", UsbDevice::DeviceIdMap.size());
    });
    EXPECT_EQ(child.out, "0");
    EXPECT_EQ(child.err,
              "I create_usb_device_map called\n"
              "/sys/bus/usb/devices: No such file or directory\n"
              "I deleting the list using deleteAllnode\n"
              "I ***Entered empty_list******\n"
              "I print_deviceid_map \n"
              "I create_usb_device_map returned check loop\n");
}

TEST_F(CreateUsbDeviceMap, PassesEveryEntryOn) {
    MakeDir(std::string(kUsbDevices) + "/usbmon");
    MakeDir(std::string(kUsbDevices) + "/1-1:x");
    const ProcessResult child = RunInChild([] { UsbDevice::create_usb_device_map(); });
    EXPECT_EQ(child.err,
              "I create_usb_device_map called\n"
              "ignoring 'usbmon'\n"
              "I deleting the list using deleteAllnode\n"
              "I ***Entered empty_list******\n"
              "I print_deviceid_map \n"
              "I create_usb_device_map returned check loop\n");
}

TEST_F(CreateUsbDeviceMap, EndsWithTwoBusesOfOneNumber) {
    AddUsbEntry("usb01", {});
    addSmallTree();
    AddDevice("1-2", 1, 7, "17e9", "6002");
    AddInterface("1-2:1.0", "03");
    UsbDevice::create_usb_device_map();
    EXPECT_EQ(UsbDevice::DeviceIdMap.size(), 3U);
}

TEST_F(CreateUsbDeviceMap, KeepsNoDescriptor) {
    addSmallTree();
    const size_t before = EntriesOf("/proc/self/fd").size();
    UsbDevice::create_usb_device_map();
    Remove(kUsbDevices);
    UsbDevice::create_usb_device_map();
    EXPECT_EQ(EntriesOf("/proc/self/fd").size(), before);
}

// --- Trace -------------------------------------------------------------------------------------

using Trace = UsbDeviceTest;

TEST_F(Trace, IsOff) {
    EXPECT_FALSE(UsbDevice::trace);
    addSmallTree();
    LogCapture log;
    Inspect(smallTree());
    UsbDevice::connect_devices();
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(Trace, ShowsEachStepOfBuildingAndLinking) {
    AddBus(1);
    AddDevice("1-1", 1, 2, "0409", "005a");
    AddDevice("1-1.2", 1, 5, "17e9", "6001",
              {{"manufacturer", "ACME\n"}, {"product", "Dock 5000\n"}});
    AddDevice("1-1.3", 1, 6, "17e9", "6002");
    AddInterface("1-1.2:1.0", "08");
    AddInterface("1-9:0.0", "03");
    UsbDevice::trace = true;
    LogCapture log;
    Inspect({"usb1", "1-1", "1-1.2", "1-1.3", "1-1.2:1.0", "1-9:0.0"});
    UsbDevice::connect_devices();
    EXPECT_THAT(
            log.Texts(),
            ElementsAre(
                    "calling append_busnode usb1", " add_usb_device  enter1-1",
                    " add_usb_device  enter1-1.2", " add_usb_device  enter1-1.3",
                    " add_usb_interface  enter1-1.2:1.0", " add_usb_interface  enter1-9:0.0",
                    "calling assign_dev_to_bus usbdevice:1-1",
                    "calling assign_interface_to_parent usbdevice:1-1and usbinterface:1-1.2:1.0",
                    "calling assign_interface_to_parent usbdevice:1-1and usbinterface:1-9:0.0",
                    " append_businterface usbdevice:1-1 for the interface:1-9:0.0 and busnum:1",
                    "calling assign_dev_to_parent usbdevice:1-1.2",
                    "calling assign_interface_to_parent usbdevice:1-1.2and "
                    "usbinterface:1-1.2:1.0",
                    "calling assign_interface_to_parent usbdevice:1-1.2and usbinterface:1-9:0.0",
                    " append_businterface usbdevice:1-1.2 for the interface:1-9:0.0 and busnum:1",
                    "calling assign_dev_to_parent usbdevice:1-1.3",
                    "calling assign_dev_to_parent usbdevice  append_dev_sibling pd:1-1",
                    "calling assign_interface_to_parent usbdevice:1-1.3and usbinterface:1-9:0.0",
                    " append_businterface usbdevice:1-1.3 for the interface:1-9:0.0 and busnum:1",
                    "creating object and populating map  usbinterface:1-1.2:1.0 and class: 8",
                    "path of dir:/sys/bus/usb/devices/1-1.2:1.0", "Other category default to none",
                    testing::AllOf(
                            StartsWith("creating object and populating \t parent vendorid : "),
                            testing::ContainsRegex("6121.*24577.*1-1\\.2.*ACME.*Dock 5000.*1005")),
                    "creating object and populating category_pathsdcard and category:4 interface "
                    "path:1-1.2:1.0",
                    "creating object and populating map  usbinterface:1-9:0.0 and class: 3"));
    for (const LogLine& line : log.Lines()) EXPECT_EQ(line.severity, android::base::INFO);
}

}  // namespace android::kus::test
