// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Two files give opposite verdicts on every device, each for a reason of its own, by a rule behind
// several hundred others. While they take turns, each verdict and its reason must be those of one
// of the two: one half of each, or half a table, gives a text that neither gives.

#include <stdio.h>

#include <atomic>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "android/kus/util.h"
#include "tests/support/line_counter.h"
#include "tests/support/observer_thread.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

namespace {

constexpr char kFirstFile[] = "/data/first.xml";
constexpr char kSecondFile[] = "/data/second.xml";
constexpr char kMarker[] = "/data/system/usbdeviceconfig/marker";
constexpr char kWatching[] = "registered successfully file observer";
constexpr char kClosed[] = "CLOSE_WRITE event triggered on filename ";

constexpr int kOtherRules = 400;

std::string times(const std::string& rule) {
    std::string rules;
    for (int i = 0; i < kOtherRules; ++i) rules += rule;
    return rules;
}

// Each device has a rule by its class here ...
std::string byClass(const std::string& mode) {
    return "<usbconfig mode=\"" + mode + "\">" + times("<class>USB_CLASS_VIDEO</class>") +
           "<class>USB_CLASS_MASS_STORAGE</class><class>AINPUT_SOURCE_KEYBOARD</class>"
           "<class>AINPUT_SOURCE_MOUSE</class></usbconfig>";
}

// ... and one by its vendor or product there.
std::string byId(const std::string& mode) {
    return "<usbconfig mode=\"" + mode + "\">" + times("<vid vendorid=\"1\"><pid>1</pid></vid>") +
           "<vid vendorid=\"9\"><pid>11</pid></vid><vid vendorid=\"7\"/></usbconfig>";
}

struct Opinion {
    bool allowed;
    std::string reason;

    bool operator==(const Opinion& other) const {
        return allowed == other.allowed && reason == other.reason;
    }
};

struct Device {
    DeviceInfo info;
    std::string classMatch;
    std::string idMatch;
};

Device makeDevice(int id, int type, int source, int vendorId, const std::string& name) {
    Device device;
    device.info.deviceId = id;
    device.info.deviceName = "device";
    device.info.deviceType = type;
    device.info.deviceClass = source;
    if (type == 0) device.info.interfaceClasses = {8};
    device.info.vendorId = vendorId;
    device.info.productId = 11;
    device.classMatch = "Match by ClassName, CLASS : " + name + " ";
    device.idMatch = vendorId == 7 ? "Match by VID, VID : 7"
                                   : "Match by VID_PID combination, VID : 9 PID: 11";
    return device;
}

// A vendor id is looked for from its own rules on: 9 is behind 7's.
std::vector<Device> devices() {
    return {makeDevice(1, 1, 0x101, 7, "AINPUT_SOURCE_KEYBOARD"),
            makeDevice(2, 1, 0x2002, 9, "AINPUT_SOURCE_MOUSE"),
            makeDevice(1002, 0, 0, 7, "USB_CLASS_MASS_STORAGE"),
            makeDevice(1003, 0, 0, 9, "USB_CLASS_MASS_STORAGE")};
}

struct Files {
    const char* name;
    std::string first;
    std::string second;
    /** What each says of a device, in front of the match. */
    Opinion firstOpinion;
    Opinion secondOpinion;
    bool firstByClass;
};

void PrintTo(const Files& files, std::ostream* os) {
    *os << files.name;
}

/** What was said of one device. */
struct Tally {
    int first = 0;
    int second = 0;
    std::vector<std::string> others;
};

class Consistency : public ::testing::TestWithParam<Files> {
  protected:
    void SetUp() override {
        CountLines({kWatching, kClosed});
        AddBus(1);
        AddDevice("1-1", 1, 2, "0007", "000b");
        AddInterface("1-1:1.0", "08");
        WriteFile(kFirstFile, GetParam().first);
        WriteFile(kSecondFile, GetParam().second);
        Util::createMapFromConfig(kFirstFile);
    }

    void TearDown() override {
        for (const char* path : {"/sys/bus/usb/devices", "/sys/devices", configDirPath}) {
            Remove(path);
        }
    }

    /** Asks about all devices at once, each on a thread of its own, until each was judged by both.
     */
    template <typename Swap>
    void JudgeWhile(Swap swap, int atLeast) {
        const std::vector<Device> all = devices();
        std::vector<Tally> tallies(all.size());
        std::vector<std::thread> threads;
        for (size_t i = 0; i < all.size(); ++i) {
            threads.emplace_back([this, &all, &tallies, i, atLeast] {
                const int enough = all[i].info.deviceType == 0 ? atLeast / 10 : atLeast;
                while (!isDone(tallies[i], enough)) judge(all[i], &tallies[i]);
                ++finished_;
            });
        }
        int swaps = 0;
        while (finished_ < static_cast<int>(all.size())) swap(++swaps % 2 == 0);
        for (std::thread& thread : threads) thread.join();

        for (size_t i = 0; i < all.size(); ++i) {
            EXPECT_TRUE(tallies[i].others.empty())
                    << "device " << all[i].info.deviceId << ": " << tallies[i].others.front();
            printf("device %d: judged by one file %d times, by the other %d times\n",
                   all[i].info.deviceId, tallies[i].first, tallies[i].second);
        }
        printf("%d swaps\n", swaps);
    }

  private:
    static bool isDone(const Tally& tally, int enough) {
        return !tally.others.empty() || (tally.first >= enough && tally.second >= enough);
    }

    void judge(const Device& device, Tally* tally) {
        Opinion opinion;
        EXPECT_TRUE(service_->isDeviceAllowed(device.info, &opinion.allowed).isOk());
        opinion.reason = takeReason(device.info, opinion.allowed);
        if (opinion == expected(GetParam().firstOpinion, device, GetParam().firstByClass)) {
            ++tally->first;
        } else if (opinion ==
                   expected(GetParam().secondOpinion, device, !GetParam().firstByClass)) {
            ++tally->second;
        } else {
            tally->others.push_back((opinion.allowed ? "allowed, " : "refused, ") + opinion.reason);
        }
    }

    // Takes the record out of the list; no other thread asks about the device.
    std::string takeReason(const DeviceInfo& info, bool allowed) {
        std::vector<DeviceInfo> records;
        EXPECT_TRUE(service_->getDeviceList(&records).isOk());
        EXPECT_TRUE(service_->updateDeviceList(info, 0).isOk());
        for (const DeviceInfo& record : records) {
            if (record.deviceId != info.deviceId) continue;
            EXPECT_EQ(allowed ? 1 : 0, record.status);
            return record.reason;
        }
        return "not listed";
    }

    static Opinion expected(Opinion opinion, const Device& device, bool byClass) {
        opinion.reason += byClass ? device.classMatch : device.idMatch;
        return opinion;
    }

    const sp<KUsbService> service_ = new KUsbService();
    std::atomic<int> finished_ = 0;
};

TEST_P(Consistency, OfVerdictsWhileFilesAreParsed) {
    JudgeWhile([](bool first) { Util::createMapFromConfig(first ? kFirstFile : kSecondFile); },
               1000);
}

TEST_P(Consistency, OfVerdictsWhileTheObserverTakesFiles) {
    MakeDir(configDirPath);
    ObserverThread observer;
    observer.Start();
    ASSERT_TRUE(WaitForLines({kWatching}, 1));
    observer.FindDescriptor();
    int markers = 0;
    JudgeWhile(
            [&](bool first) {
                // Whole at once: a file that is read half is a bad one.
                WriteFile(configFilePath, first ? GetParam().first : GetParam().second);
                WriteFile(kMarker, "");
                ASSERT_TRUE(WaitForLines({std::string(kClosed) + kMarker}, ++markers));
            },
            200);
}

INSTANTIATE_TEST_SUITE_P(AllFiles, Consistency,
                         ::testing::Values(Files{"WhitelistByClassAndBlacklistById",
                                                 byClass("whitelist"),
                                                 byId("blacklist"),
                                                 {true, "Whitelisted: "},
                                                 {false, "Blacklisted: "},
                                                 true},
                                           Files{"WhitelistByIdAndBlacklistByClass",
                                                 byId("whitelist"),
                                                 byClass("blacklist"),
                                                 {true, "Whitelisted: "},
                                                 {false, "Blacklisted: "},
                                                 false}),
                         [](const auto& test) { return test.param.name; });

}  // namespace

}  // namespace android::kus::test
