// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What is printed of the tree, the interfaces and the map, byte for byte.

#include <stdio.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

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
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

}  // namespace

// --- Printing ----------------------------------------------------------------------------------

using Printing = UsbDeviceTest;

TEST_F(Printing, OfADeviceTellsPortDriverIdsPathAndFirstInterface) {
    AddDevice("1-2", 1, 5, "17e9", "6001");
    BindDriver(AddInterface("1-2:1.0", "03"), "usbhid");
    BindDriver(AddInterface("1-2:1.11", "0a"), "cdc_acm");
    Inspect({"1-2", "1-2:1.0", "1-2:1.11"});
    UsbDevice::connect_devices();
    LogCapture log;
    EXPECT_EQ(PrintedBy([](int fd) {
                  UsbDevice::print_usbdevice(Device("1-2"), Interface("1-2:1.11"), fd);
              }),
              " Port : 2, DevNum : 5, If : 11, Class : 10, Driver : cdc_acm \n"
              "       Vendor:Product ID 17e9:6001 "
              "\n/sys/bus/usb/devices/1-2  /dev/bus/usb/001/005\n"
              "printing interfaces for device device:1-2 and first_interface:1-2:1.0 \n"
              "parent_portnum:0\n"
              "************************\n");
    EXPECT_THAT(log.Lines(), ElementsAre(Info("ID 6121:24577")));
}

TEST_F(Printing, OfADeviceOnAHubTellsTheHub) {
    AddDevice("12-3.14", 12, 123, "00a1", "000b");
    Inspect({"12-3", "12-3.14", "12-3.14:1.0"});
    UsbDevice::connect_devices();
    LogCapture log;
    EXPECT_EQ(PrintedBy([](int fd) {
                  UsbDevice::print_usbdevice(Device("12-3.14"), Interface("12-3.14:1.0"), fd);
              }),
              " Port : 14, DevNum : 123, If : 0, Class : 0, Driver :  \n"
              "       Vendor:Product ID 00a1:000b "
              "\n/sys/bus/usb/devices/12-3.14  /dev/bus/usb/012/123\n"
              "printing interfaces for device device:12-3.14 and first_interface:12-3.14:1.0 \n"
              "parent name :12-3\n"
              "parent_portnum:3\n"
              "************************\n");
    EXPECT_THAT(log.Lines(), ElementsAre(Info("ID 161:11")));
}

TEST_F(Printing, OfAHubInterfaceEndsItsLineInItsOwnWay) {
    AddDevice("1-1", 1, 2, "0409", "005a");
    BindDriver(AddInterface("1-1:1.0", "09"), "hub");
    Inspect({"1-1", "1-1:1.0"});
    UsbDevice::connect_devices();
    EXPECT_THAT(PrintedBy([](int fd) {
                    UsbDevice::print_usbdevice(Device("1-1"), Interface("1-1:1.0"), fd);
                }),
                StartsWith(" Port : 1, DevNum : 2, If : 0, Class : 9, Driver : hub\n  \n"
                           "       Vendor:Product ID 0409:005a "));
}

TEST_F(Printing, DoesNotShowTheLanes) {
    for (const Attributes& lanes : std::vector<Attributes>{
                 {{"rx_lanes", "1\n"}, {"tx_lanes", "2\n"}},
                 {{"rx_lanes", "2\n"}, {"tx_lanes", "2\n"}},
         }) {
        SetUp();
        AddDevice("1-1", 1, 2, "0409", "005a", lanes);
        Inspect({"1-1", "1-1:1.0"});
        UsbDevice::connect_devices();
        EXPECT_EQ(PrintedBy([](int fd) {
                      UsbDevice::print_usbdevice(Devices().back(), Interfaces().back(), fd);
                  }),
                  " Port : 1, DevNum : 2, If : 0, Class : 0, Driver :  \n"
                  "       Vendor:Product ID 0409:005a "
                  "\n/sys/bus/usb/devices/1-1  /dev/bus/usb/001/002\n"
                  "printing interfaces for device device:1-1 and first_interface:1-1:1.0 \n"
                  "parent_portnum:0\n"
                  "************************\n");
        UsbDevice::delete_all_nodes();
    }
}

TEST_F(Printing, OfTheTreeGoesFromEachDeviceToItsChildrenThenToItsSiblings) {
    Inspect({"usb1", "usb2", "usb3", "1-1", "1-2", "1-1.3", "1-1.4", "1-1.3.1", "3-1", "1-1:1.0",
             "1-1:1.1", "1-2:1.0", "1-1.3.1:1.0", "1-1.4:1.0", "3-1:1.0"});
    UsbDevice::connect_devices();
    std::string expected;
    for (const auto& [device, interface] : std::vector<std::pair<const char*, const char*>>{
                 {"1-1", "1-1:1.0"},
                 {"1-1", "1-1:1.1"},
                 // 1-1.3 has no interface and no line.
                 {"1-1.3.1", "1-1.3.1:1.0"},
                 {"1-1.4", "1-1.4:1.0"},
                 {"1-2", "1-2:1.0"},
                 {"3-1", "3-1:1.0"},
         }) {
        expected += "   |__ ";
        expected += PrintedBy([&, device = device, interface = interface](int fd) {
            UsbDevice::print_usbdevice(Device(device), Interface(interface), fd);
        });
    }
    EXPECT_EQ(PrintedBy(UsbDevice::print_tree), expected);
}

TEST_F(Printing, OfTheTreeLogsEachLevelItEnters) {
    AddDevice("1-1.3", 1, 3, "0a", "0b");
    AddDevice("1-2", 1, 4, "0c", "0d");
    // usb2 has no device, 1-1 no interface.
    Inspect({"usb1", "usb2", "1-1", "1-2", "1-1.3", "1-1.3:1.0", "1-2:1.0"});
    UsbDevice::connect_devices();
    LogCapture log;
    PrintedBy(UsbDevice::print_tree);
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("print_tree entered"), Info("print_tree_dev_children entered"),
                            Info("print_tree_dev_children entered"), Info("ID 10:11"),
                            Info("ID 12:13")));
}

TEST_F(Printing, OfATreeWithoutDevicesWritesNothing) {
    Inspect({"usb1", "1-0:1.0"});
    UsbDevice::connect_devices();
    LogCapture log;
    EXPECT_EQ(PrintedBy(UsbDevice::print_tree), "");
    EXPECT_THAT(log.Lines(), ElementsAre(Info("print_tree entered")));
}

TEST_F(Printing, OfTheTreeShowsADeviceUnderBothBusesOfItsNumber) {
    Inspect({"usb1", "usb01", "1-1", "1-1:1.0"});
    UsbDevice::connect_devices();
    const std::string once =
            PrintedBy([](int fd) { UsbDevice::print_tree_dev_children(Device("1-1"), fd); });
    EXPECT_THAT(once, StartsWith("   |__  Port : 1, "));
    EXPECT_EQ(PrintedBy(UsbDevice::print_tree), once + once);
}

TEST_F(Printing, OfInterfacesTellsTheirDevices) {
    AddDevice("1-1", 1, 5, "17e9", "6001", {{"manufacturer", "ACME\n"}, {"product", "Dock\n"}});
    AddInterface("1-1:1.0", "08");
    AddInterface("1-1:1.1", "0a");
    AddInterface("1-0:1.0", "09");
    Inspect({"usb1", "1-0:1.0", "1-1", "1-1:1.0", "1-1:1.1"});
    UsbDevice::connect_devices();
    LogCapture log;
    EXPECT_EQ(PrintedBy(UsbDevice::print_interfacelist),
              "\nprint_interfacelist  usbinterface:/sys/bus/usb/devices/1-0:1.0/ and class:9"
              "\nprint_interfacelist  usbinterface:/sys/bus/usb/devices/1-1:1.0/ and class:8"
              "\n\t parent vendorid : 6121, productid: 24577,parent path: 1-1,manufacturer: ACME,"
              "product: Dock,deviceId:1005 devCategory: 4"
              "\nprint_interfacelist  usbinterface:/sys/bus/usb/devices/1-1:1.1/ and class:10"
              "\n\t parent vendorid : 6121, productid: 24577,parent path: 1-1,manufacturer: ACME,"
              "product: Dock,deviceId:1005 devCategory: 0");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(Printing, OfInterfacesJudgesTheCategoryAnew) {
    AddDevice("1-1", 1, 5, "17e9", "6001");
    const std::string entry = AddInterface("1-1:1.0", "02");
    Inspect({"1-1", "1-1:1.0"});
    UsbDevice::connect_devices();
    EXPECT_EQ(Interface("1-1:1.0")->category, 0);
    MakeDir(entry + "/tty/ttyACM0");
    EXPECT_THAT(PrintedBy(UsbDevice::print_interfacelist), EndsWith(" devCategory: 2"));
    EXPECT_EQ(Interface("1-1:1.0")->category, 2);
    EXPECT_STREQ(Interface("1-1:1.0")->category_path, "ttyACM0");
}

// --- print_deviceid_map ------------------------------------------------------------------------

class PrintDeviceidMap : public UsbDeviceTest {
  protected:
    void SetUp() override {
        UsbDeviceTest::SetUp();
        DeviceIdEntry entry = EntryOf("3-1.2:1.4");
        entry.bInterfaceClass = 255;
        entry.idVendor = 0x17e9;
        entry.idProduct = 0x6001;
        UsbDevice::DeviceIdMap.emplace(3012, entry);
        entry = EntryOf("1-5:1.0");
        entry.bInterfaceClass = 8;
        entry.idVendor = 0x0781;
        entry.idProduct = 0x5567;
        UsbDevice::DeviceIdMap.emplace(1005, entry);
    }

    const std::vector<LogLine> logged_ = {
            Info("print_deviceid_map "),
            Info(" DeviceId: 1005 Interface name:1-5:1.0 class:8 Vendor ID:1921 Product ID:21863"),
            Info(" DeviceId: 3012 Interface name:3-1.2:1.4 class:255 Vendor ID:6121 "
                 "Product ID:24577"),
    };
};

TEST_F(PrintDeviceidMap, WritesAndLogsEachEntryInMapOrder) {
    LogCapture log;
    EXPECT_EQ(PrintedBy(UsbDevice::print_deviceid_map),
              "\n\nDeviceIdMap size2\n"
              " \n DeviceId : 1005, Interface name : 1-5:1.0, class : 8, Vendor ID : 1921, "
              "Product ID : 21863\n"
              " \n DeviceId : 3012, Interface name : 3-1.2:1.4, class : 255, Vendor ID : 6121, "
              "Product ID : 24577\n");
    EXPECT_EQ(log.Lines(), logged_);
}

TEST_F(PrintDeviceidMap, WritesTheSizeOfAnEmptyMap) {
    UsbDevice::DeviceIdMap.clear();
    LogCapture log;
    EXPECT_EQ(PrintedBy(UsbDevice::print_deviceid_map), "\n\nDeviceIdMap size0\n");
    EXPECT_THAT(log.Lines(), ElementsAre(Info("print_deviceid_map ")));
}

TEST_F(PrintDeviceidMap, OnlyLogsWithoutADescriptor) {
    std::string expected;
    for (const LogLine& line : logged_) expected += "I " + line.text + "\n";
    const ProcessResult child = RunInChild([] { UsbDevice::print_deviceid_map(-1); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err, expected);
}

// --- dump_print_test ---------------------------------------------------------------------------

using DumpPrintTest = UsbDeviceTest;

TEST_F(DumpPrintTest, RescansAndPrintsTreeInterfacesAndMap) {
    AddBus(1);
    AddDevice("1-5", 1, 5, "17e9", "6001", {{"manufacturer", "ACME\n"}, {"product", "Dock\n"}});
    BindDriver(AddInterface("1-5:1.0", "08"), "usb-storage");
    UsbDevice::DeviceIdMap.emplace(9009, DeviceIdEntry{});
    LogCapture log;
    int descriptor = -1;
    EXPECT_EQ(PrintedBy([&](int fd) {
                  descriptor = fd;
                  UsbDevice::dump_print_test(fd);
              }),
              "   |__  Port : 5, DevNum : 5, If : 0, Class : 8, Driver : usb-storage \n"
              "       Vendor:Product ID 17e9:6001 "
              "\n/sys/bus/usb/devices/1-5  /dev/bus/usb/001/005\n"
              "printing interfaces for device device:1-5 and first_interface:1-5:1.0 \n"
              "parent_portnum:0\n"
              "************************\n"
              "\nprint_interfacelist  usbinterface:/sys/bus/usb/devices/1-5:1.0/ and class:8"
              "\n\t parent vendorid : 6121, productid: 24577,parent path: 1-5,manufacturer: ACME,"
              "product: Dock,deviceId:1005 devCategory: 4"
              "\n\nDeviceIdMap size1\n"
              " \n DeviceId : 1005, Interface name : 1-5:1.0, class : 8, Vendor ID : 6121, "
              "Product ID : 24577\n");
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("dump_print_test called " + std::to_string(descriptor)),
                            Info("print_tree entered"), Info("print_tree_dev_children entered"),
                            Info("ID 6121:24577"), Info("deleting the list using deleteAllnode"),
                            Info("***Entered empty_list******"), Info("print_deviceid_map "),
                            Info(" DeviceId: 1005 Interface name:1-5:1.0 class:8 Vendor ID:6121 "
                                 "Product ID:24577")));
    EXPECT_THAT(MapLines(), ElementsAre("1005 1-5:1.0"));
    EXPECT_EQ(UsbDevice::bus_list, nullptr);
    EXPECT_TRUE(list_empty(&UsbDevice::device_list));
    EXPECT_TRUE(list_empty(&UsbDevice::interface_list));
}

TEST_F(DumpPrintTest, PrintsAnEmptyMapForAMissingDirectoryAndReportsNoError) {
    UsbDevice::DeviceIdMap.emplace(9009, DeviceIdEntry{});
    const ProcessResult child = RunInChild([] {
        printf("%s", PrintedBy([](int fd) {
                         dprintf(STDERR_FILENO, "%d\n", fd);
                         UsbDevice::dump_print_test(fd);
                     }).c_str());
    });
    EXPECT_EQ(child.out, "\n\nDeviceIdMap size0\n");
    const std::string descriptor = child.err.substr(0, child.err.find('\n'));
    EXPECT_EQ(child.err, descriptor + "\nI dump_print_test called " + descriptor +
                                 "\n"
                                 "I deleting the list using deleteAllnode\n"
                                 "I ***Entered empty_list******\n"
                                 "I print_deviceid_map \n");
}

TEST_F(DumpPrintTest, KeepsNoDescriptor) {
    AddBus(1);
    const size_t before = EntriesOf("/proc/self/fd").size();
    PrintedBy(UsbDevice::dump_print_test);
    EXPECT_EQ(EntriesOf("/proc/self/fd").size(), before);
}

}  // namespace android::kus::test
