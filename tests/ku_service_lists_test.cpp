// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/ku_service.h"
#include "android/kus/usbdevice.h"
#include "tests/support/fake_callback.h"
#include "tests/support/log_capture.h"
#include "tests/support/service_fixture.h"

namespace android::kus::test {

namespace {

using binder::Status;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int32_t kUsb = 0;
constexpr int32_t kInput = 1;

// Every field but deviceId and deviceType set to something that shows when it is taken over.
DeviceInfo makeDevice(const std::string& name, int32_t id, int32_t type) {
    DeviceInfo info;
    info.deviceName = name;
    info.deviceId = id;
    info.deviceClass = 239;
    info.interfaceClasses = {2, 10};
    info.vendorId = 1133;
    info.productId = 49189;
    info.status = 7;
    info.deviceType = type;
    info.reason = "said by the caller";
    info.category = 99;
    info.categoryPath = "sent;";
    return info;
}

DeviceInfo makeUsb(const std::string& name, int32_t id) {
    return makeDevice(name, id, kUsb);
}

DeviceInfo makeInput(const std::string& name, int32_t id) {
    return makeDevice(name, id, kInput);
}

// What the lists keep of a device without interface entries.
DeviceInfo recordOf(DeviceInfo info, bool allowed, const std::string& reason) {
    info.status = allowed ? 1 : 0;
    info.reason = reason;
    info.category = 0;
    info.categoryPath = "";
    return info;
}

struct Interface {
    int32_t category;
    std::string path;
};

template <size_t Size>
void fill(char (&field)[Size], const std::string& text) {
    ASSERT_LT(text.size(), Size);
    text.copy(field, Size);
}

void addInterface(int32_t deviceId, const Interface& interface) {
    DeviceIdEntry entry = {};
    fill(entry.interface_name, "1-5:1.0");
    entry.category = interface.category;
    fill(entry.category_path, interface.path);
    UsbDevice::DeviceIdMap.emplace(deviceId, entry);
}

std::string added(const DeviceInfo& record) {
    return "+ " + Text(record);
}

std::string removed(const DeviceInfo& record) {
    return "- " + Text(record);
}

// --- addDeviceList -----------------------------------------------------------------------------

using AddDeviceList = ServiceTest;

TEST_F(AddDeviceList, KeepsTheDeviceWithItsVerdictAndReason) {
    for (const int32_t type : {kUsb, kInput}) {
        for (const bool allowed : {true, false}) {
            SCOPED_TRACE(std::to_string(type) + (allowed ? " allowed" : " refused"));
            const DeviceInfo info = makeDevice("Modem", 1005, type);
            service->addDeviceList(info, allowed, "the decision's reason");
            EXPECT_THAT(Texts(Devices()),
                        ElementsAre(Text(recordOf(info, allowed, "the decision's reason"))));
            service->updateDeviceList(info, 0);
        }
    }
}

TEST_F(AddDeviceList, KeepsIdsOfEverySign) {
    for (const int32_t id : {INT32_MIN, -1, 0, INT32_MAX}) {
        SCOPED_TRACE(id);
        service->addDeviceList(makeUsb("Modem", id), true, "reason");
        EXPECT_THAT(Texts(Devices()),
                    ElementsAre(Text(recordOf(makeUsb("Modem", id), true, "reason"))));
        service->updateDeviceList(makeUsb("Modem", id), 0);
    }
}

TEST_F(AddDeviceList, LogsOneLineForAnInputDevice) {
    service->addDeviceList(makeInput("Keyboard", 7), true, "reason");
    EXPECT_THAT(log.Take(), ElementsAre(Info("Keyboard device added to mInputDeviceInfoList")));
}

TEST_F(AddDeviceList, TellsNobodyOfAnInputDevice) {
    const auto client = AddClient();
    service->addDeviceList(makeInput("Keyboard", 7), true, "reason");
    EXPECT_THAT(client->Events(), IsEmpty());
}

TEST_F(AddDeviceList, LeavesTheCategoryOfAnInputDeviceEmpty) {
    addInterface(1005, {kCategorySerial, "ttyACM0"});
    service->addDeviceList(makeInput("Keyboard", 1005), true, "reason");
    EXPECT_THAT(Texts(Devices()),
                ElementsAre(Text(recordOf(makeInput("Keyboard", 1005), true, "reason"))));
}

TEST_F(AddDeviceList, TakesEveryTypeButZeroForAnInputDevice) {
    const auto client = AddClient();
    for (const int32_t type : {1, 2, -1, 256}) {
        SCOPED_TRACE(type);
        log.Take();
        service->addDeviceList(makeDevice("Mouse", 7, type), true, "reason");
        EXPECT_THAT(log.Take(), ElementsAre(Info("Mouse device added to mInputDeviceInfoList")));
        EXPECT_THAT(client->Events(), IsEmpty());
        service->updateDeviceList(makeInput("Mouse", 7), 0);
    }
}

TEST_F(AddDeviceList, KeepsTheFirstRecordOfAnInputDevice) {
    const DeviceInfo first = makeInput("First", 7);
    service->addDeviceList(first, true, "first");
    log.Take();
    service->addDeviceList(makeInput("Second", 7), false, "second");
    EXPECT_THAT(log.Take(), ElementsAre(Info("Second device added to mInputDeviceInfoList")));
    EXPECT_THAT(Texts(Devices()), ElementsAre(Text(recordOf(first, true, "first"))));
}

TEST_F(AddDeviceList, LogsInterfacesAndCategoryOfAUsbDevice) {
    addInterface(1005, {kCategoryNetwork, "usb0"});
    addInterface(1005, {kCategorySerial, "ttyACM0"});
    addInterface(2001, {kCategoryMassStorage, "sdcard"});
    service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    EXPECT_THAT(log.Take(), ElementsAre(Info("get_deviceid_data() with deviceId : 1005size--3"),
                                        Info("Found deviceid  : 1005device : 1-5:1.0"),
                                        Info("Found deviceid  : 1005device : 1-5:1.0"),
                                        Info("Modem device added to mUsbDeviceInfoList "),
                                        Info("custom_struct size is 2"),
                                        Info(" device category  3 categoryPath usb0;ttyACM0;")));
}

TEST_F(AddDeviceList, LogsAUsbDeviceWithoutInterfaces) {
    service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    EXPECT_THAT(log.Take(), ElementsAre(Info("get_deviceid_data() with deviceId : 1005size--0"),
                                        Info("Modem device added to mUsbDeviceInfoList "),
                                        Info("custom_struct size is 0"),
                                        Info(" device category  0 categoryPath ")));
}

TEST_F(AddDeviceList, SumsCategoriesAndJoinsDistinctPaths) {
    struct Case {
        std::vector<Interface> interfaces;
        int32_t category;
        std::string path;
    };
    const std::string longest(63, 'n');
    const std::vector<Case> cases = {
            {{}, 0, ""},
            {{{0, "empty"}}, 0, "empty;"},
            {{{1, "usb0"}}, 1, "usb0;"},
            {{{8, "empty"}}, 8, "empty;"},
            {{{4, "sdcard"}}, 4, "sdcard;"},
            {{{1, "usb0"}, {1, "usb0"}, {2, "ttyACM0"}}, 4, "usb0;ttyACM0;"},
            {{{1, "usb0"}, {2, "ttyACM0"}}, 3, "usb0;ttyACM0;"},
            {{{2, "ttyACM0"}, {1, "usb0"}}, 3, "ttyACM0;usb0;"},
            // The same number as one serial interface.
            {{{1, "usb0"}, {1, "usb1"}}, 2, "usb0;usb1;"},
            {{{2, "ttyACM0"}}, 2, "ttyACM0;"},
            {{{1, "usb0"}, {0, "empty"}, {0, "empty"}}, 1, "usb0;empty;"},
            {{{1, "usb0"}, {2, "ttyACM0"}, {4, "sdcard"}, {8, "empty"}},
             15,
             "usb0;ttyACM0;sdcard;empty;"},
            // A text is looked for anywhere in what stands already, and only there.
            {{{1, "usb0"}, {1, "usb"}}, 2, "usb0;"},
            {{{1, "usb"}, {1, "usb0"}}, 2, "usb;usb0;"},
            {{{1, "usb0"}, {2, "ttyACM0"}, {2, "ACM"}}, 5, "usb0;ttyACM0;"},
            {{{1, "usb0"}, {2, "ttyACM0"}, {1, "0;tty"}}, 4, "usb0;ttyACM0;"},
            {{{1, "usb0"}, {2, ";"}}, 3, "usb0;"},
            // An empty path is no path, though the interface counts.
            {{{2, ""}}, 2, ""},
            {{{2, ""}, {1, "usb0"}, {2, ""}}, 5, "usb0;"},
            {{{1, longest}}, 1, longest + ";"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        UsbDevice::DeviceIdMap.clear();
        addInterface(1004, {kCategoryMassStorage, "other"});
        for (const Interface& interface : c.interfaces) addInterface(1005, interface);
        addInterface(1006, {kCategoryMassStorage, "another"});

        service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
        const std::vector<DeviceInfo> devices = Devices();
        ASSERT_THAT(devices, SizeIs(1));
        EXPECT_EQ(c.category, devices[0].category);
        EXPECT_EQ(c.path, devices[0].categoryPath);
        service->updateDeviceList(makeUsb("Modem", 1005), 0);
    }
}

TEST_F(AddDeviceList, TellsEveryClientOfTheNewRecord) {
    const auto first = AddClient();
    const auto second = AddClient();
    addInterface(1005, {kCategorySerial, "ttyACM0"});
    service->addDeviceList(makeUsb("Modem", 1005), false, "the decision's reason");

    DeviceInfo record = recordOf(makeUsb("Modem", 1005), false, "the decision's reason");
    record.category = kCategorySerial;
    record.categoryPath = "ttyACM0;";
    EXPECT_THAT(Texts(first->Events()), ElementsAre(added(record)));
    EXPECT_THAT(Texts(second->Events()), ElementsAre(added(record)));
    EXPECT_THAT(Texts(Devices()), ElementsAre(Text(record)));
}

TEST_F(AddDeviceList, TellsClientsInTheOrderOfTheRegistry) {
    std::vector<IBinder*> expected;
    std::vector<IBinder*> told;
    for (int i = 0; i < 5; ++i) {
        const sp<FakeCallback> client = AddClient();
        expected.push_back(client.get());
        client->onEvent = [&told, binder = expected.back()](const FakeCallback::Event&) {
            told.push_back(binder);
        };
    }
    std::sort(expected.begin(), expected.end(), std::less<>());
    service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    EXPECT_EQ(expected, told);
}

TEST_F(AddDeviceList, TellsClientsBehindItsLogLines) {
    const auto client = AddClient();
    log.Take();
    std::vector<LogLine> before;
    client->onEvent = [&](const FakeCallback::Event&) { before = log.Take(); };
    service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    ASSERT_THAT(before, SizeIs(4));
    EXPECT_EQ(Info(" device category  0 categoryPath "), before.back());
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(AddDeviceList, TellsClientsBeforeItInsertsTheRecord) {
    const auto client = AddClient();
    size_t listed = 99;
    client->onEvent = [&](const FakeCallback::Event&) { listed = Devices().size(); };
    service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    EXPECT_EQ(0U, listed);
    EXPECT_THAT(Devices(), SizeIs(1));
}

TEST_F(AddDeviceList, GoesOnWhenAClientFails) {
    const std::vector<sp<FakeCallback>> clients = {AddClient(), AddClient(), AddClient()};
    for (const sp<FakeCallback>& client : clients) {
        client->answer = Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    }
    service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    for (const sp<FakeCallback>& client : clients) EXPECT_THAT(client->Events(), SizeIs(1));
    EXPECT_THAT(Devices(), SizeIs(1));
}

TEST_F(AddDeviceList, TellsOfARepeatedIdButKeepsTheFirstRecord) {
    const auto client = AddClient();
    const DeviceInfo first = makeUsb("First", 1005);
    const DeviceInfo second = makeUsb("Second", 1005);
    service->addDeviceList(first, false, "first");
    service->addDeviceList(second, true, "second");
    EXPECT_THAT(Texts(client->Events()), ElementsAre(added(recordOf(first, false, "first")),
                                                     added(recordOf(second, true, "second"))));
    EXPECT_THAT(Texts(Devices()), ElementsAre(Text(recordOf(first, false, "first"))));
}

TEST_F(AddDeviceList, SharesTheListsAmongServices) {
    const sp<KUsbService> other = new KUsbService();
    other->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    EXPECT_THAT(Devices(), SizeIs(1));
}

TEST_F(AddDeviceList, LetsAClientUnregisterWhileItIsTold) {
    const auto first = AddClient();
    const auto second = AddClient();
    for (const sp<FakeCallback>& client : {first, second}) {
        client->onEvent = [this, client = client.get()](const FakeCallback::Event&) {
            service->unregisterKusCallback(client);
        };
    }
    service->addDeviceList(makeUsb("Modem", 1005), true, "reason");
    service->addDeviceList(makeUsb("Modem", 1006), true, "reason");
    EXPECT_THAT(first->Events(), SizeIs(1));
    EXPECT_THAT(second->Events(), SizeIs(1));
}

// --- updateDeviceList: added -------------------------------------------------------------------

using UpdateDeviceListAdded = ServiceTest;

TEST_F(UpdateDeviceListAdded, ChangesNothingAndLogsBothSizes) {
    const auto client = AddClient();
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    service->addDeviceList(makeInput("Keyboard", 7), true, "reason");
    service->addDeviceList(makeInput("Mouse", 8), true, "reason");
    addInterface(1006, {kCategoryNetwork, "usb0"});
    const std::vector<std::string> devices = Texts(Devices());
    const std::vector<std::string> events = Texts(client->Events());

    for (const int32_t status : {1, 2, -1, 256}) {
        SCOPED_TRACE(status);
        const std::string number = std::to_string(status);
        log.Take();
        EXPECT_TRUE(service->updateDeviceList(makeUsb("Modem", 1006), status).isOk());
        EXPECT_THAT(log.Take(), ElementsAre(Info("updateDeviceList--Device Name : Modem"
                                                 "updateStatus::Added/Removed " +
                                                 number),
                                            Info("Modem device added to mUsbDeviceInfoList"),
                                            Info("updateDeviceList--mInputDeviceInfoList size: 2 "
                                                 "mUsbDeviceInfoList size: 1")));
        EXPECT_TRUE(service->updateDeviceList(makeInput("Joystick", 9), status).isOk());
        EXPECT_THAT(log.Take(), ElementsAre(Info("updateDeviceList--Device Name : Joystick"
                                                 "updateStatus::Added/Removed " +
                                                 number),
                                            Info("Joystick device added to mInputDeviceInfoList"),
                                            Info("updateDeviceList--mInputDeviceInfoList size: 2 "
                                                 "mUsbDeviceInfoList size: 1")));
        EXPECT_EQ(devices, Texts(Devices()));
        EXPECT_EQ(events, Texts(client->Events()));
        EXPECT_THAT(UsbDevice::DeviceIdMap, SizeIs(1));
    }
}

TEST_F(UpdateDeviceListAdded, LeavesAListedDeviceAsItIs) {
    service->addDeviceList(makeUsb("Stick", 1005), false, "refused");
    service->updateDeviceList(makeUsb("Other", 1005), 1);
    EXPECT_THAT(Texts(Devices()),
                ElementsAre(Text(recordOf(makeUsb("Stick", 1005), false, "refused"))));
}

// --- updateDeviceList: removed -----------------------------------------------------------------

using UpdateDeviceListRemoved = ServiceTest;

TEST_F(UpdateDeviceListRemoved, DropsAnInputDevice) {
    const auto client = AddClient();
    service->addDeviceList(makeInput("Keyboard", 7), true, "reason");
    service->addDeviceList(makeInput("Mouse", 8), true, "reason");
    addInterface(7, {kCategoryNetwork, "usb0"});
    log.Take();
    EXPECT_TRUE(service->updateDeviceList(makeInput("Keyboard", 7), 0).isOk());
    EXPECT_THAT(log.Take(), ElementsAre(Info("updateDeviceList--Device Name : Keyboard"
                                             "updateStatus::Added/Removed 0"),
                                        Info("Keyboard device removed from mInputDeviceInfoList"),
                                        Info("updateDeviceList--mInputDeviceInfoList size: 1 "
                                             "mUsbDeviceInfoList size: 0")));
    EXPECT_THAT(client->Events(), IsEmpty());
    EXPECT_THAT(UsbDevice::DeviceIdMap, SizeIs(1));
    EXPECT_THAT(Texts(Devices()),
                ElementsAre(Text(recordOf(makeInput("Mouse", 8), true, "reason"))));
}

TEST_F(UpdateDeviceListRemoved, TakesEveryTypeButZeroForAnInputDevice) {
    for (const int32_t type : {1, 2, -1}) {
        SCOPED_TRACE(type);
        service->addDeviceList(makeInput("Mouse", 7), true, "reason");
        service->updateDeviceList(makeDevice("Mouse", 7, type), 0);
        EXPECT_THAT(Devices(), IsEmpty());
    }
}

TEST_F(UpdateDeviceListRemoved, SaysNothingOfAnUnknownInputDevice) {
    service->addDeviceList(makeInput("Mouse", 8), true, "reason");
    log.Take();
    EXPECT_TRUE(service->updateDeviceList(makeInput("Keyboard", 7), 0).isOk());
    EXPECT_THAT(log.Take(), ElementsAre(Info("updateDeviceList--Device Name : Keyboard"
                                             "updateStatus::Added/Removed 0"),
                                        Info("Keyboard device removed from mInputDeviceInfoList"),
                                        Info("updateDeviceList--mInputDeviceInfoList size: 1 "
                                             "mUsbDeviceInfoList size: 0")));
    EXPECT_THAT(Devices(), SizeIs(1));
}

TEST_F(UpdateDeviceListRemoved, DropsAUsbDeviceAndItsInterfaces) {
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    service->addDeviceList(makeUsb("Modem", 1006), true, "reason");
    addInterface(1005, {kCategoryMassStorage, "sdcard"});
    addInterface(1005, {kCategoryNone, "empty"});
    addInterface(1006, {kCategoryNetwork, "usb0"});
    log.Take();
    EXPECT_TRUE(service->updateDeviceList(makeUsb("Stick", 1005), 0).isOk());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("updateDeviceList--Device Name : Stick"
                                 "updateStatus::Added/Removed 0"),
                            Info("updateDeviceList--calling get_deviceid_data while removing"),
                            Info("update_deviceid_map deviceId:1005 flag:0"),
                            Info("Stick device removed from mUsbDeviceInfoList"),
                            Info("updateDeviceList--mInputDeviceInfoList size: 0 "
                                 "mUsbDeviceInfoList size: 1")));
    EXPECT_EQ(0U, UsbDevice::DeviceIdMap.count(1005));
    EXPECT_EQ(1U, UsbDevice::DeviceIdMap.count(1006));
    EXPECT_THAT(Texts(Devices()),
                ElementsAre(Text(recordOf(makeUsb("Modem", 1006), true, "reason"))));
}

TEST_F(UpdateDeviceListRemoved, TellsEveryClientTheCallersRecord) {
    const auto first = AddClient();
    const auto second = AddClient();
    service->addDeviceList(makeUsb("Stick", 1005), true, "kept");
    const DeviceInfo sent = makeUsb("Sent", 1005);
    service->updateDeviceList(sent, 0);
    const std::string kept = added(recordOf(makeUsb("Stick", 1005), true, "kept"));
    EXPECT_THAT(Texts(first->Events()), ElementsAre(kept, removed(sent)));
    EXPECT_THAT(Texts(second->Events()), ElementsAre(kept, removed(sent)));
}

TEST_F(UpdateDeviceListRemoved, TellsClientsBeforeItTouchesMapAndList) {
    const auto client = AddClient();
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    addInterface(1005, {kCategoryMassStorage, "sdcard"});
    log.Take();
    size_t listed = 0;
    size_t interfaces = 0;
    std::vector<LogLine> before;
    client->onEvent = [&](const FakeCallback::Event&) {
        before = log.Take();
        listed = Devices().size();
        interfaces = UsbDevice::DeviceIdMap.size();
        log.Take();
    };
    service->updateDeviceList(makeUsb("Stick", 1005), 0);
    EXPECT_THAT(before,
                ElementsAre(Info("updateDeviceList--Device Name : Stick"
                                 "updateStatus::Added/Removed 0"),
                            Info("updateDeviceList--calling get_deviceid_data while removing")));
    EXPECT_EQ(1U, listed);
    EXPECT_EQ(1U, interfaces);
    EXPECT_THAT(log.Take(), ElementsAre(Info("update_deviceid_map deviceId:1005 flag:0"),
                                        Info("Stick device removed from mUsbDeviceInfoList"),
                                        Info("updateDeviceList--mInputDeviceInfoList size: 0 "
                                             "mUsbDeviceInfoList size: 0")));
}

TEST_F(UpdateDeviceListRemoved, TellsOfADeviceThatWasNeverListed) {
    const auto client = AddClient();
    addInterface(1005, {kCategoryMassStorage, "sdcard"});
    const DeviceInfo sent = makeUsb("Stick", 1005);
    EXPECT_TRUE(service->updateDeviceList(sent, 0).isOk());
    EXPECT_THAT(Texts(client->Events()), ElementsAre(removed(sent)));
    EXPECT_THAT(UsbDevice::DeviceIdMap, IsEmpty());
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(UpdateDeviceListRemoved, GoesOnWhenAClientFails) {
    const std::vector<sp<FakeCallback>> clients = {AddClient(), AddClient(), AddClient()};
    for (const sp<FakeCallback>& client : clients) {
        client->answer = Status::fromStatusT(DEAD_OBJECT);
    }
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    EXPECT_TRUE(service->updateDeviceList(makeUsb("Stick", 1005), 0).isOk());
    for (const sp<FakeCallback>& client : clients) EXPECT_THAT(client->Events(), SizeIs(2));
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(UpdateDeviceListRemoved, SendsNothingWithoutClients) {
    const auto unregistered = MakeClient();
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    EXPECT_THAT(Devices(), SizeIs(1));
    EXPECT_TRUE(service->updateDeviceList(makeUsb("Stick", 1005), 0).isOk());
    EXPECT_THAT(Devices(), IsEmpty());
    EXPECT_THAT(unregistered->Events(), IsEmpty());
}

TEST_F(UpdateDeviceListRemoved, DropsFromTheListOfTheSentType) {
    const DeviceInfo usb = recordOf(makeUsb("Stick", 7), true, "reason");
    const DeviceInfo input = recordOf(makeInput("Keyboard", 7), true, "reason");
    service->addDeviceList(usb, true, "reason");
    service->addDeviceList(input, true, "reason");
    service->updateDeviceList(makeInput("Keyboard", 7), 0);
    EXPECT_THAT(Texts(Devices()), ElementsAre(Text(usb)));
    service->addDeviceList(input, true, "reason");
    service->updateDeviceList(makeUsb("Stick", 7), 0);
    EXPECT_THAT(Texts(Devices()), ElementsAre(Text(input)));
}

TEST_F(UpdateDeviceListRemoved, MakesRoomForANewRecord) {
    service->addDeviceList(makeUsb("First", 1005), true, "first");
    service->updateDeviceList(makeUsb("First", 1005), 0);
    service->addDeviceList(makeUsb("Second", 1005), false, "second");
    EXPECT_THAT(Texts(Devices()),
                ElementsAre(Text(recordOf(makeUsb("Second", 1005), false, "second"))));
}

// --- updateDeviceList: switched off ------------------------------------------------------------

using UpdateDeviceListSwitch = ServiceTest;

TEST_F(UpdateDeviceListSwitch, LeavesEverythingAloneWhenThePropertyIsOne) {
    const auto client = AddClient();
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    service->addDeviceList(makeInput("Keyboard", 7), true, "reason");
    addInterface(1005, {kCategoryMassStorage, "sdcard"});
    const std::vector<std::string> devices = Texts(Devices());
    const std::vector<std::string> events = Texts(client->Events());

    // Numbers as the platform reads them: any base's prefix, then as far as it goes.
    for (const char* value : {"1", "0x1", "01", "1 and more"}) {
        SetProperty(kAutomationProperty, value);
        for (const int32_t status : {0, 1}) {
            for (const DeviceInfo& info : {makeUsb("Stick", 1005), makeInput("Keyboard", 7)}) {
                SCOPED_TRACE(value + (" " + Text(info)));
                log.Take();
                EXPECT_TRUE(service->updateDeviceList(info, status).isOk());
                EXPECT_THAT(log.Take(),
                            ElementsAre(Info("updateDeviceList::Automation flag set, return")));
            }
        }
    }
    EXPECT_EQ(devices, Texts(Devices()));
    EXPECT_EQ(events, Texts(client->Events()));
    EXPECT_THAT(UsbDevice::DeviceIdMap, SizeIs(1));
}

TEST_F(UpdateDeviceListSwitch, WorksForEveryOtherValue) {
    for (const char* value : {"0", "2", "-1", "", "true", "10", "4294967297"}) {
        SCOPED_TRACE(value);
        SetProperty(kAutomationProperty, value);
        service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
        service->updateDeviceList(makeUsb("Stick", 1005), 0);
        EXPECT_THAT(Devices(), IsEmpty());
    }
}

TEST_F(UpdateDeviceListSwitch, IsReadAtEachCall) {
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    SetProperty(kAutomationProperty, "1");
    service->updateDeviceList(makeUsb("Stick", 1005), 0);
    EXPECT_THAT(Devices(), SizeIs(1));
    SetProperty(kAutomationProperty, "0");
    service->updateDeviceList(makeUsb("Stick", 1005), 0);
    EXPECT_THAT(Devices(), IsEmpty());
}

// --- getDeviceList -----------------------------------------------------------------------------

using GetDeviceList = ServiceTest;

TEST_F(GetDeviceList, IsEmptyAtFirst) {
    std::vector<DeviceInfo> devices;
    EXPECT_TRUE(service->getDeviceList(&devices).isOk());
    EXPECT_THAT(devices, IsEmpty());
    EXPECT_THAT(log.Take(), ElementsAre(Info("--getDeviceList()--"),
                                        Info("getDeviceList--completeDeviceInfoList size0")));
}

TEST_F(GetDeviceList, HasInputDevicesThenUsbDevicesEachByAscendingId) {
    std::vector<DeviceInfo> expected;
    for (const int32_t id : {-3, 7, 1005, 9000}) {
        expected.push_back(recordOf(makeInput("Input", id), true, "reason"));
    }
    for (const int32_t id : {-1, 7, 1005, 2017}) {
        expected.push_back(recordOf(makeUsb("Usb", id), true, "reason"));
    }
    for (const size_t i : {6, 1, 4, 3, 0, 7, 2, 5}) {
        service->addDeviceList(expected[i], true, "reason");
    }
    log.Take();
    EXPECT_EQ(Texts(expected), Texts(Devices()));
    EXPECT_THAT(log.Take(), ElementsAre(Info("--getDeviceList()--"),
                                        Info("getDeviceList--completeDeviceInfoList size8")));
}

TEST_F(GetDeviceList, AppendsToWhatIsThere) {
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    std::vector<DeviceInfo> devices = {makeInput("Earlier", 1), makeUsb("Earlier", 2)};
    service->getDeviceList(&devices);
    EXPECT_THAT(Texts(devices),
                ElementsAre(Text(makeInput("Earlier", 1)), Text(makeUsb("Earlier", 2)),
                            Text(recordOf(makeUsb("Stick", 1005), true, "reason"))));
    EXPECT_EQ(1, log.CountOf(Info("getDeviceList--completeDeviceInfoList size1")));
}

TEST_F(GetDeviceList, GivesCopies) {
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    std::vector<DeviceInfo> devices = Devices();
    ASSERT_THAT(devices, SizeIs(1));
    devices[0].deviceName = "Changed";
    devices[0].interfaceClasses.clear();
    EXPECT_THAT(Texts(Devices()),
                ElementsAre(Text(recordOf(makeUsb("Stick", 1005), true, "reason"))));
}

TEST_F(GetDeviceList, IsNotSwitchedOff) {
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    SetProperty(kAutomationProperty, "1");
    EXPECT_THAT(Devices(), SizeIs(1));
}

TEST_F(GetDeviceList, KeepsItsRecordsWhenTheRulesChange) {
    service->addDeviceList(makeUsb("Stick", 1005), true, "Enabled by default rule");
    configMode = "whitelist";
    EXPECT_THAT(
            Texts(Devices()),
            ElementsAre(Text(recordOf(makeUsb("Stick", 1005), true, "Enabled by default rule"))));
}

// --- A device that goes while the clients are being told of it -----------------------------------

TEST_F(GetDeviceList, LacksADeviceThatWasRemovedWhileItWasAnnounced) {
    const sp<FakeCallback> client = AddClient();
    client->onEvent = [this](const FakeCallback::Event& event) {
        if (!event.added) return;
        service->updateDeviceList(makeUsb("Another", 1006), 0);
        service->updateDeviceList(event.device, 0);
    };
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    EXPECT_THAT(Devices(), IsEmpty());
    // What gets its number next is another device.
    client->onEvent = nullptr;
    service->addDeviceList(makeUsb("Modem", 1005), false, "another");
    EXPECT_THAT(Texts(Devices()),
                ElementsAre(Text(recordOf(makeUsb("Modem", 1005), false, "another"))));
}

TEST_F(GetDeviceList, HasADeviceWhileAnotherOneWasRemoved) {
    const sp<FakeCallback> client = AddClient();
    client->onEvent = [this](const FakeCallback::Event& event) {
        if (event.added) service->updateDeviceList(makeUsb("Another", 1006), 0);
    };
    service->addDeviceList(makeUsb("Stick", 1005), true, "reason");
    EXPECT_THAT(Devices(), SizeIs(1));
}

}  // namespace

}  // namespace android::kus::test
