// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What clients of the service are built against: the record, the operations and their order.

#include <stdint.h>

#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <android/kus/BnKUsbService.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/BpKUsbService.h>
#include <android/kus/BpKUsbServiceCallback.h>
#include <android/kus/DeviceInfo.h>
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utils/String16.h>

#include "android/kus/ku_service.h"
#include "tests/support/fake_callback.h"
#include "tests/support/service_fixture.h"

namespace android {

// These four of the binder library ask the driver for the state of the calling thread or for the
// object of another process. Both ends of a call are in this program, and there is no driver.

status_t Parcel::writeInterfaceToken(const String16& interface) {
    return writeString16(interface);
}

bool Parcel::checkInterface(IBinder* binder) const {
    return readString16() == binder->getInterfaceDescriptor();
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& binder) {
    return writeUint64(reinterpret_cast<uintptr_t>(binder.get()));
}

status_t Parcel::readStrongBinder(sp<IBinder>* binder) const {
    uint64_t address = 0;
    const status_t result = readUint64(&address);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): what writeStrongBinder made of a pointer.
    *binder = reinterpret_cast<IBinder*>(static_cast<uintptr_t>(address));
    return result;
}

}  // namespace android

namespace android::kus::test {

namespace {

using binder::Status;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint32_t kFirstCode = IBinder::FIRST_CALL_TRANSACTION;

DeviceInfo makeRecord() {
    DeviceInfo info;
    info.deviceName = "Stick";
    info.deviceId = 1005;
    info.deviceClass = 239;
    info.interfaceClasses = {8, 3};
    info.vendorId = 1133;
    info.productId = 49189;
    info.status = 1;
    info.deviceType = 7;
    info.reason = "Enabled by default rule";
    info.category = 4;
    info.categoryPath = "sdcard;";
    return info;
}

// The stub of a service that notes what reaches it.
class NotingService : public BnKUsbService {
  public:
    Status registerKusCallback(const sp<IKUsbServiceCallback>& callback) override {
        calls.push_back("register " + Address(callback.get()));
        return Status::ok();
    }
    Status unregisterKusCallback(const sp<IKUsbServiceCallback>& callback) override {
        calls.push_back("unregister " + Address(callback.get()));
        return Status::ok();
    }
    Status getDeviceList(std::vector<DeviceInfo>* out) override {
        calls.emplace_back("list");
        *out = {makeRecord(), DeviceInfo()};
        return Status::ok();
    }
    Status updateDeviceList(const DeviceInfo& info, int32_t status) override {
        calls.push_back("update " + std::to_string(status) + " " + Text(info));
        return Status::ok();
    }
    Status isDeviceAllowed(const DeviceInfo& info, bool* result) override {
        calls.push_back("allowed " + Text(info));
        *result = true;
        return Status::ok();
    }
    Status resetUsbDevices(int32_t value) override {
        calls.push_back("reset " + std::to_string(value));
        return Status::ok();
    }

    std::vector<std::string> calls;
};

// What a proxy holds in place of the object in another process.
class Wire : public BBinder {
  public:
    explicit Wire(const sp<BBinder>& stub) : stub_(stub) {}

    std::vector<uint32_t> codes;

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        codes.push_back(code);
        return stub_->transact(code, data, reply, flags);
    }

  private:
    const sp<BBinder> stub_;
};

class RemoteService : public ::testing::Test {
  protected:
    const sp<NotingService> stub = new NotingService();
    const sp<Wire> wire = new Wire(stub);
    const sp<IKUsbService> proxy = new BpKUsbService(wire);
};

// --- DeviceInfo --------------------------------------------------------------------------------

template <typename Field>
const void* addressOf(const Field& field) {
    return &field;
}

TEST(DeviceInfoRecord, IsACopyableClassWithAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor_v<DeviceInfo>);
    EXPECT_TRUE(std::is_copy_constructible_v<DeviceInfo>);
    EXPECT_TRUE(std::is_copy_assignable_v<DeviceInfo>);
}

TEST(DeviceInfoRecord, HasElevenFieldsOfTheirTypes) {
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::deviceName), std::string>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::deviceId), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::deviceClass), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::interfaceClasses), std::vector<int32_t>>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::vendorId), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::productId), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::status), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::deviceType), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::reason), std::string>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::category), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(DeviceInfo::categoryPath), std::string>));
}

TEST(DeviceInfoRecord, KeepsItsFieldsInTheirDeclaredOrder) {
    const DeviceInfo info;
    const std::vector<const void*> fields = {
            addressOf(info.deviceName),   addressOf(info.deviceId),
            addressOf(info.deviceClass),  addressOf(info.interfaceClasses),
            addressOf(info.vendorId),     addressOf(info.productId),
            addressOf(info.status),       addressOf(info.deviceType),
            addressOf(info.reason),       addressOf(info.category),
            addressOf(info.categoryPath),
    };
    for (size_t i = 1; i < fields.size(); ++i) {
        EXPECT_TRUE(std::less<>()(fields[i - 1], fields[i])) << "field " << i + 1;
    }
}

TEST(DeviceInfoRecord, IsEmptyAtFirst) {
    const DeviceInfo info;
    EXPECT_EQ("", info.deviceName);
    EXPECT_EQ(0, info.deviceId);
    EXPECT_EQ(0, info.deviceClass);
    EXPECT_THAT(info.interfaceClasses, IsEmpty());
    EXPECT_EQ(0, info.vendorId);
    EXPECT_EQ(0, info.productId);
    EXPECT_EQ(0, info.status);
    EXPECT_EQ(0, info.deviceType);
    EXPECT_EQ("", info.reason);
    EXPECT_EQ(0, info.category);
    EXPECT_EQ("", info.categoryPath);
}

TEST(DeviceInfoRecord, CopiesDeeply) {
    DeviceInfo original = makeRecord();
    const DeviceInfo copy = original;
    const std::string before = Text(copy);
    original.deviceName[0] = 'X';
    original.interfaceClasses[0] = 1;
    original.reason[0] = 'X';
    original.categoryPath[0] = 'X';
    EXPECT_EQ(before, Text(copy));
}

TEST(DeviceInfoRecord, IsWrittenToAParcelInTheOrderOfItsFields) {
    Parcel parcel;
    ASSERT_EQ(OK, makeRecord().writeToParcel(&parcel));
    parcel.setDataPosition(0);

    // Records of one version say their size, so that a later version can add fields.
    EXPECT_EQ(parcel.dataSize(), static_cast<size_t>(parcel.readInt32()));
    EXPECT_EQ(String16("Stick"), parcel.readString16());
    EXPECT_EQ(1005, parcel.readInt32());
    EXPECT_EQ(239, parcel.readInt32());
    std::vector<int32_t> interfaceClasses;
    EXPECT_EQ(OK, parcel.readInt32Vector(&interfaceClasses));
    EXPECT_THAT(interfaceClasses, ElementsAre(8, 3));
    EXPECT_EQ(1133, parcel.readInt32());
    EXPECT_EQ(49189, parcel.readInt32());
    EXPECT_EQ(1, parcel.readInt32());
    EXPECT_EQ(7, parcel.readInt32());
    EXPECT_EQ(String16("Enabled by default rule"), parcel.readString16());
    EXPECT_EQ(4, parcel.readInt32());
    EXPECT_EQ(String16("sdcard;"), parcel.readString16());
    EXPECT_EQ(0U, parcel.dataAvail());
}

TEST(DeviceInfoRecord, SurvivesAParcel) {
    DeviceInfo foreign = makeRecord();
    foreign.deviceName = "Clé USB \xF0\x9F\x94\x91";
    DeviceInfo extreme = makeRecord();
    extreme.deviceId = INT32_MIN;
    extreme.deviceClass = INT32_MAX;
    extreme.interfaceClasses = {-1, 0, 255, INT32_MAX, INT32_MIN};
    extreme.vendorId = -5;
    extreme.productId = -1;
    extreme.category = -8;
    DeviceInfo large = makeRecord();
    large.interfaceClasses.assign(1000, 8);
    large.reason.assign(10000, 'r');

    for (const DeviceInfo& info : {DeviceInfo(), makeRecord(), foreign, extreme, large}) {
        SCOPED_TRACE(Text(info));
        Parcel parcel;
        ASSERT_EQ(OK, info.writeToParcel(&parcel));
        parcel.setDataPosition(0);
        DeviceInfo read = makeRecord();
        read.interfaceClasses = {99};
        ASSERT_EQ(OK, read.readFromParcel(&parcel));
        EXPECT_EQ(Text(info), Text(read));
    }
}

// --- Operations --------------------------------------------------------------------------------

TEST(KUsbServiceInterface, CarriesResultsInOutParameters) {
    using Callback = const sp<IKUsbServiceCallback>&;
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbService::registerKusCallback),
                                Status (IKUsbService::*)(Callback)>));
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbService::unregisterKusCallback),
                                Status (IKUsbService::*)(Callback)>));
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbService::getDeviceList),
                                Status (IKUsbService::*)(std::vector<DeviceInfo>*)>));
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbService::updateDeviceList),
                                Status (IKUsbService::*)(const DeviceInfo&, int32_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbService::isDeviceAllowed),
                                Status (IKUsbService::*)(const DeviceInfo&, bool*)>));
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbService::resetUsbDevices),
                                Status (IKUsbService::*)(int32_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbServiceCallback::onDeviceAdded),
                                Status (IKUsbServiceCallback::*)(const DeviceInfo&)>));
    EXPECT_TRUE((std::is_same_v<decltype(&IKUsbServiceCallback::onDeviceRemoved),
                                Status (IKUsbServiceCallback::*)(const DeviceInfo&)>));
}

TEST(KUsbServiceInterface, IsVersionOne) {
    const sp<KUsbService> service = new KUsbService();
    const sp<FakeCallback> callback = new FakeCallback();
    EXPECT_EQ(1, service->getInterfaceVersion());
    EXPECT_EQ(1, callback->getInterfaceVersion());
}

TEST_F(RemoteService, HasCodesInTheOrderOfItsOperations) {
    const sp<FakeCallback> callback = new FakeCallback();
    std::vector<DeviceInfo> devices;
    bool allowed = false;
    EXPECT_TRUE(proxy->registerKusCallback(callback).isOk());
    EXPECT_TRUE(proxy->unregisterKusCallback(callback).isOk());
    EXPECT_TRUE(proxy->getDeviceList(&devices).isOk());
    EXPECT_TRUE(proxy->updateDeviceList(makeRecord(), -2).isOk());
    EXPECT_TRUE(proxy->isDeviceAllowed(makeRecord(), &allowed).isOk());
    EXPECT_TRUE(proxy->resetUsbDevices(300).isOk());

    EXPECT_THAT(wire->codes, ElementsAre(kFirstCode, kFirstCode + 1, kFirstCode + 2, kFirstCode + 3,
                                         kFirstCode + 4, kFirstCode + 5));
    const std::string address = Address(static_cast<IKUsbServiceCallback*>(callback.get()));
    EXPECT_THAT(stub->calls, ElementsAre("register " + address, "unregister " + address, "list",
                                         "update -2 " + Text(makeRecord()),
                                         "allowed " + Text(makeRecord()), "reset 300"));
    EXPECT_THAT(Texts(devices), ElementsAre(Text(makeRecord()), Text(DeviceInfo())));
    EXPECT_TRUE(allowed);
}

TEST(RemoteCallback, HasCodesInTheOrderOfItsOperations) {
    const sp<FakeCallback> stub = new FakeCallback();
    const sp<Wire> wire = new Wire(stub);
    const sp<IKUsbServiceCallback> proxy = new BpKUsbServiceCallback(wire);
    EXPECT_TRUE(proxy->onDeviceAdded(makeRecord()).isOk());
    EXPECT_TRUE(proxy->onDeviceRemoved(makeRecord()).isOk());

    EXPECT_THAT(wire->codes, ElementsAre(kFirstCode, kFirstCode + 1));
    EXPECT_THAT(Texts(stub->Events()),
                ElementsAre("+ " + Text(makeRecord()), "- " + Text(makeRecord())));
}

// --- The service object ------------------------------------------------------------------------

TEST(KUsbServiceObject, IsAStubAndItsRecipientADeathRecipient) {
    EXPECT_TRUE((std::is_base_of_v<BnKUsbService, KUsbService>));
    EXPECT_TRUE((std::is_base_of_v<IBinder::DeathRecipient, KUsbService::CallbackDeathRecipient>));
    EXPECT_TRUE(std::has_virtual_destructor_v<KUsbService::CallbackDeathRecipient>);
}

TEST(KUsbServiceObject, IsItsOwnBinder) {
    const sp<KUsbService> service = new KUsbService();
    EXPECT_EQ(static_cast<IBinder*>(service.get()), IInterface::asBinder(service).get());
}

TEST(KUsbServiceObject, NamesItsInterface) {
    const sp<KUsbService> service = new KUsbService();
    EXPECT_EQ(IKUsbService::descriptor,
              static_cast<IBinder*>(service.get())->getInterfaceDescriptor());
}

TEST(KUsbServiceObject, IsFoundLocallyUnderItsOwnDescriptorOnly) {
    const sp<KUsbService> service = new KUsbService();
    EXPECT_EQ(static_cast<IInterface*>(service.get()),
              service->queryLocalInterface(IKUsbService::descriptor).get());
    EXPECT_EQ(nullptr, service->queryLocalInterface(IKUsbServiceCallback::descriptor).get());
}

// What a hostile client sends. What is not refused reaches the operation.
class HostileParcel : public ServiceTest {
  protected:
    static constexpr uint32_t kUpdate = kFirstCode + 3;
    static constexpr uint32_t kAllowed = kFirstCode + 4;

    // A record up to its interface classes, of which it claims to have so many.
    void WriteClaim(int32_t classes) {
        data.writeInterfaceToken(service->getInterfaceDescriptor());
        data.writeInt32(1);
        data.writeInt32(1000);
        data.writeString16(String16("Stick"));
        data.writeInt32(1005);
        data.writeInt32(0);
        data.writeInt32(classes);
    }

    status_t Send(uint32_t code) {
        data.setDataPosition(0);
        return service->transact(code, data, &reply);
    }

    int32_t ExceptionOf(uint32_t code) {
        EXPECT_EQ(OK, Send(code));
        reply.setDataPosition(0);
        Status status;
        EXPECT_EQ(OK, status.readFromParcel(reply));
        reply.freeData();
        return status.exceptionCode();
    }

    Parcel data;
    Parcel reply;
};

TEST_F(HostileParcel, IsRefusedWhenItClaimsMoreInterfacesThanItHolds) {
    for (const uint32_t code : {kUpdate, kAllowed}) {
        for (const int32_t claim : {INT32_MAX, 1 << 26, 3}) {
            SCOPED_TRACE(claim);
            data.freeData();
            WriteClaim(claim);
            data.writeInt32(8);
            data.writeInt32(8);
            EXPECT_EQ(BAD_VALUE, Send(code));
        }
    }
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(HostileParcel, IsReadWhenItHoldsWhatItClaims) {
    WriteClaim(2);
    data.writeInt32(8);
    data.writeInt32(8);
    // Further members are missing.
    EXPECT_EQ(NOT_ENOUGH_DATA, Send(kAllowed));
}

TEST_F(HostileParcel, IsReadUpToItsEndWhateverItLacks) {
    EXPECT_EQ(BAD_TYPE, Send(kAllowed));
    data.writeInterfaceToken(String16("another"));
    EXPECT_EQ(BAD_TYPE, Send(kUpdate));
    data.freeData();
    data.writeInterfaceToken(service->getInterfaceDescriptor());
    EXPECT_EQ(NOT_ENOUGH_DATA, Send(kUpdate));
}

TEST_F(HostileParcel, WithoutARecordOrWithoutItsClassesIsAnsweredWithAnException) {
    WriteClaim(-1);
    EXPECT_EQ(Status::EX_NULL_POINTER, ExceptionOf(kAllowed));
    data.freeData();
    data.writeInterfaceToken(service->getInterfaceDescriptor());
    data.writeInt32(0);
    EXPECT_EQ(Status::EX_NULL_POINTER, ExceptionOf(kUpdate));
    EXPECT_THAT(Devices(), IsEmpty());
}

TEST_F(HostileParcel, OfAWholeRecordIsJudged) {
    data.writeInterfaceToken(service->getInterfaceDescriptor());
    DeviceInfo info = makeRecord();
    data.writeParcelable(info);
    EXPECT_EQ(OK, Send(kAllowed));
    ASSERT_THAT(Devices(), SizeIs(1));
    EXPECT_EQ(info.interfaceClasses, Devices()[0].interfaceClasses);
}

// Two bytes are left behind the number of arguments, and stay.
TEST_F(HostileParcel, OfAnOddSizeIsRefused) {
    const uint16_t odd = 0;
    data.writeInt32(-1);
    data.writeInt32(INT32_MAX);
    std::vector<uint8_t> bytes(data.data(), data.data() + data.dataSize());
    bytes.insert(bytes.end(), sizeof(odd), 0);
    data.setData(bytes.data(), bytes.size());
    const std::vector<uint32_t> codes = {IBinder::DUMP_TRANSACTION,
                                         IBinder::SHELL_COMMAND_TRANSACTION, kAllowed};
    for (const uint32_t code : codes) {
        EXPECT_EQ(BAD_VALUE, Send(code));
    }
}

TEST_F(HostileParcel, OfMoreThanEightKilobytesIsRefused) {
    for (const size_t size : {size_t{8192}, size_t{8196}, size_t{1} << 20}) {
        SCOPED_TRACE(size);
        data.freeData();
        data.writeInterfaceToken(service->getInterfaceDescriptor());
        data.writeInt32(INT32_MIN);  // a reset, of nothing here
        const std::vector<uint8_t> padding(size - data.dataSize());
        data.write(padding.data(), padding.size());
        ASSERT_EQ(size, data.dataSize());
        EXPECT_EQ(size <= 8192 ? OK : BAD_VALUE, Send(kFirstCode + 5));
    }
}

class NestedCalls : public ServiceTest {
  protected:
    // Removes a device, and from inside its callback again.
    void Remove() {
        const Status status = proxy->updateDeviceList(DeviceInfo(), 0);
        results.push_back(status.transactionError());
    }

    const sp<IKUsbService> proxy = new BpKUsbService(new Wire(service));
    std::vector<status_t> results;
};

TEST_F(NestedCalls, AreRefusedBeforeTheyUseUpTheStack) {
    const sp<FakeCallback> client = AddClient();
    client->onEvent = [this](const FakeCallback::Event&) { Remove(); };
    Remove();
    EXPECT_THAT(results, ElementsAre(INVALID_OPERATION, OK, OK, OK, OK));
    EXPECT_THAT(client->Events(), SizeIs(4));
    // And all over again: none is counted for ever.
    results.clear();
    Remove();
    EXPECT_THAT(results, ElementsAre(INVALID_OPERATION, OK, OK, OK, OK));
}

TEST_F(NestedCalls, AreCountedForEachThread) {
    const sp<FakeCallback> client = AddClient();
    int levels = 0;
    client->onEvent = [&](const FakeCallback::Event&) {
        if (++levels < 20) std::thread([this] { Remove(); }).join();
    };
    Remove();
    EXPECT_THAT(results, ElementsAreArray(std::vector<status_t>(20, OK)));
}

TEST(KUsbServiceObject, DiesWithItsLastReference) {
    wp<KUsbService> object;
    {
        const sp<KUsbService> service = new KUsbService();
        object = service;
    }
    EXPECT_EQ(nullptr, object.promote().get());
}

}  // namespace

}  // namespace android::kus::test
