// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** What the tests of the service share: a fresh service, its clients, and texts to compare by. */

#pragma once

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "android/kus/usbdevice.h"
#include "tests/support/fake_callback.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

inline constexpr char kAutomationProperty[] = "ro.config.device.kus_automation";

/** Every field of a record, so that two records can be compared and read. */
inline std::string Text(const DeviceInfo& info) {
    std::ostringstream text;
    text << "name " << info.deviceName << ", id " << info.deviceId << ", class " << info.deviceClass
         << ", interfaces";
    for (const int32_t interfaceClass : info.interfaceClasses) text << " " << interfaceClass;
    text << ", vendor " << info.vendorId << ", product " << info.productId << ", status "
         << info.status << ", type " << info.deviceType << ", reason " << info.reason
         << ", category " << info.category << ", path " << info.categoryPath;
    return text.str();
}

/** A notification as "+" or "-" and its record. */
inline std::string Text(const FakeCallback::Event& event) {
    return (event.added ? "+ " : "- ") + Text(event.device);
}

template <typename Item>
std::vector<std::string> Texts(const std::vector<Item>& items) {
    std::vector<std::string> texts;
    for (const Item& item : items) texts.push_back(Text(item));
    return texts;
}

/** A pointer as a log line shows it. */
inline std::string Address(const void* pointer) {
    std::ostringstream text;
    text << pointer;
    return text.str();
}

inline std::string CallbackAddress(const sp<FakeCallback>& client) {
    return Address(static_cast<IKUsbServiceCallback*>(client.get()));
}

inline std::string BinderAddress(const sp<FakeCallback>& client) {
    return Address(static_cast<IBinder*>(client.get()));
}

/** Sets a property also when it may be set only once. */
inline void SetProperty(const std::string& name, const std::string& value) {
    Remove("/run/kus-properties/" + name);
    ASSERT_EQ(0, property_set(name.c_str(), value.c_str()));
}

inline void ClearProperties() {
    Remove("/run/kus-properties");
}

/** The rules of a process that has not parsed a file. */
inline void ResetRules() {
    configMode = "default";
    configClassList = {};
    configClassMap.clear();
    vidPidMap = {};
    errorMessage = "SUCCESS";
    xml_parse_status = false;
}

inline void ResetFiles() {
    Remove("/sys/bus/usb/devices");
    Remove("/sys/devices");
    Remove(configDirPath);
    ClearProperties();
}

/** A service without clients; no device listed, no rule, nothing plugged in, no property set. */
class ServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ResetRules();
        ResetFiles();
        UsbDevice::DeviceIdMap.clear();
    }

    void TearDown() override {
        ClearProperties();
        for (const sp<FakeCallback>& client : clients_) Unlink(client);
        // The lists are the process's: a service that knows no client empties them for the next.
        const sp<KUsbService> other = new KUsbService();
        for (const DeviceInfo& info : Devices()) other->updateDeviceList(info, 0);
    }

    /** A client that is not registered; kept until the end of the test. */
    template <typename Client = FakeCallback>
    sp<Client> MakeClient() {
        const sp<Client> client = new Client();
        clients_.push_back(client);
        return client;
    }

    /** A registered client. */
    sp<FakeCallback> AddClient() {
        const sp<FakeCallback> client = MakeClient();
        EXPECT_TRUE(service->registerKusCallback(client).isOk());
        return client;
    }

    std::vector<DeviceInfo> Devices() {
        std::vector<DeviceInfo> devices;
        EXPECT_TRUE(service->getDeviceList(&devices).isOk());
        return devices;
    }

    LogCapture log;
    const sp<KUsbService> service = new KUsbService();

  private:
    // Client and recipient hold each other while they are linked.
    static void Unlink(const sp<FakeCallback>& client) {
        client->onEvent = nullptr;
        client->unlinkResult = OK;
        for (const sp<IBinder::DeathRecipient>& recipient : client->Recipients()) {
            client->unlinkToDeath(recipient, nullptr, 0, nullptr);
        }
    }

    std::vector<sp<FakeCallback>> clients_;
};

}  // namespace android::kus::test
