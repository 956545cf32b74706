// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Everything at once, as in the field on its worst day: binder threads with every operation,
// clients that come, go, die, hang and call back, an administrator who writes rules good and bad,
// ports that are reset, devices and supplies that come and go. A sanitizer watches; ThreadSanitizer
// above all.
//
// Each worker has devices and clients of its own beside the common ones. No other thread touches
// those, so that the worker knows at any time what the service must say of them.

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "tests/support/fake_callback.h"
#include "tests/support/line_counter.h"
#include "tests/support/observer_thread.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

namespace {

using android::base::StartsWith;
using android::base::unique_fd;

constexpr int kWorkers = 8;
constexpr int kStepsOfAWorker = 26000;
constexpr int kOperations = 200000;

constexpr char kMarker[] = "/data/system/usbdeviceconfig/marker";
constexpr char kFirstMode[] = "/sys/devices/platform/soc/c200000.hsusb/mode";
constexpr char kSecondMode[] = "/sys/devices/platform/soc/a800000.ssusb/mode";
constexpr char kDcSupply[] = "/sys/class/power_supply/dc/online";
constexpr char kUsbSupply[] = "/sys/class/power_supply/usb/online";

constexpr char kWatching[] = "registered successfully file observer";
constexpr char kParsing[] = "Parsing status xml_parse_status ";
constexpr char kClosed[] = "CLOSE_WRITE event triggered on filename ";
constexpr char kPollStarted[] = "registerFileObserverViaThread result--0";
constexpr char kPollEnded[] = "readSysfsChangeEvent:exit poll due to virtual dock";
constexpr char kPollSawUndock[] = "readSysfsChangeEvent: undocked power_val0";
constexpr char kRegistered[] = "Size of callbacks at registerKusCallback ";

// Devices: those that sysfs shows, those that all threads ask about, and each worker's own.
constexpr int kPluggedIn[] = {1002, 1003, 1004, 1005, 1006};
constexpr int kCommonIds = 20;
constexpr int kIdsOfAWorker = 8;

int firstIdOf(int worker) {
    return 10000 + 1000 * worker;
}

enum Operation {
    kDecideInput,
    kDecideUsb,
    kForget,
    kConfirm,
    kList,
    kRegister,
    kUnregister,
    kDumpLists,
    kDumpTopology,
    kReset,
    kDock,
    kKinds
};

constexpr std::array<const char*, kKinds> kNames = {
        "input decisions", "USB decisions", "removals",        "additions",
        "lists",           "registrations", "unregistrations", "dumps",
        "scans",           "resets",        "virtual docks"};

/** What was done so far, and waiting for more of it. */
class Progress {
  public:
    void Add(Operation operation) {
        ++counts_[operation];
        constexpr int kSelfless = 256;
        if (++total_ % kSelfless != 0) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        moved_.notify_all();
    }

    /** Returns when so many more operations were done, or all are. */
    void WaitForMore(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        const int wanted = Total() + count;
        moved_.wait(lock, [&] { return ended_ || Total() >= wanted; });
    }

    void End() {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        moved_.notify_all();
    }

    bool Ended() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return ended_;
    }

    int Total() const { return total_.Get(); }
    int CountOf(Operation operation) const { return counts_[operation].Get(); }

  private:
    /** Orders nothing between the threads that count. */
    class Counter {
      public:
        int operator++() { return value_.fetch_add(1, std::memory_order_relaxed) + 1; }
        int Get() const { return value_.load(std::memory_order_relaxed); }

      private:
        std::atomic<int> value_ = 0;
    };

    Counter total_;
    std::array<Counter, kKinds> counts_;
    std::mutex mutex_;
    std::condition_variable moved_;
    bool ended_ = false;
};

/** Whether the reason is one that the rules give for this status. */
bool agree(int32_t status, const std::string& reason) {
    if (StartsWith(reason, "Whitelisted: Match by ")) return status == 1;
    if (StartsWith(reason, "Blacklisted: Match by ")) return status == 0;
    if (reason == "Enabled by default rule") return status == 1;
    if (reason == "No matching rule found to Whitelist the device") return status == 0;
    if (reason == "No matching rule found to Blacklist the device") return status == 1;
    return false;
}

/** A client that counts what it hears of some ids, and keeps nothing else. */
class CountingClient : public FakeCallback {
  public:
    explicit CountingClient(int firstId = 0, std::function<void()> onCall = nullptr)
        : firstId_(firstId), onCall_(std::move(onCall)) {}

    binder::Status onDeviceAdded(const DeviceInfo& device) override {
        if (!agree(device.status, device.reason)) contradicted_ = true;
        count(device, &added_);
        return binder::Status::ok();
    }

    binder::Status onDeviceRemoved(const DeviceInfo& device) override {
        count(device, &removed_);
        return binder::Status::ok();
    }

    /** Of devices of the worker whose first id was given, for that worker's thread. */
    int Added() const { return added_; }
    int Removed() const { return removed_; }
    /** Of any device. */
    int Calls() const { return calls_.load(std::memory_order_relaxed); }
    bool Contradicted() const { return contradicted_; }

  private:
    void count(const DeviceInfo& device, int* counter) {
        calls_.fetch_add(1, std::memory_order_relaxed);
        if (device.deviceId >= firstId_ && device.deviceId < firstId_ + kIdsOfAWorker) ++*counter;
        if (onCall_) onCall_();
    }

    const int firstId_;
    const std::function<void()> onCall_;
    int added_ = 0;
    int removed_ = 0;
    std::atomic<int> calls_ = 0;
    std::atomic<bool> contradicted_ = false;
};

/** Ends clients' processes on a thread of its own, as the binder driver does. */
class Undertaker {
  public:
    Undertaker() : thread_([this] { run(); }) {}

    void Take(const sp<CountingClient>& client) {
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.push_back(client);
        moved_.notify_all();
    }

    /** Returns the dead when all are. */
    std::vector<sp<CountingClient>> Join() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ended_ = true;
            moved_.notify_all();
        }
        thread_.join();
        return dead_;
    }

  private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (true) {
            moved_.wait(lock, [&] { return ended_ || !waiting_.empty(); });
            if (waiting_.empty()) return;
            dead_.push_back(waiting_.front());
            waiting_.pop_front();
            lock.unlock();
            dead_.back()->Die();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable moved_;
    std::deque<sp<CountingClient>> waiting_;
    std::vector<sp<CountingClient>> dead_;
    bool ended_ = false;
    std::thread thread_;
};

/** The service and what its operations need, with each of them counted. */
class Subject {
  public:
    bool Decide(const DeviceInfo& info) {
        bool allowed = false;
        EXPECT_TRUE(service->isDeviceAllowed(info, &allowed).isOk());
        progress.Add(info.deviceType == 0 ? kDecideUsb : kDecideInput);
        return allowed;
    }

    void Update(const DeviceInfo& info, int32_t status) {
        EXPECT_TRUE(service->updateDeviceList(info, status).isOk());
        progress.Add(status == 0 ? kForget : kConfirm);
    }

    std::vector<DeviceInfo> List() {
        std::vector<DeviceInfo> devices;
        EXPECT_TRUE(service->getDeviceList(&devices).isOk());
        progress.Add(kList);
        return devices;
    }

    void Register(const sp<CountingClient>& client) {
        EXPECT_TRUE(service->registerKusCallback(client).isOk());
        progress.Add(kRegister);
    }

    void Unregister(const sp<CountingClient>& client) {
        EXPECT_TRUE(service->unregisterKusCallback(client).isOk());
        progress.Add(kUnregister);
    }

    void Dump(const char* argument = nullptr) {
        Vector<String16> arguments;
        if (argument != nullptr) arguments.add(String16(argument));
        EXPECT_EQ(OK, service->dump(null_, arguments));
        progress.Add(argument == nullptr ? kDumpLists : kDumpTopology);
    }

    void Reset(int32_t delay) {
        EXPECT_TRUE(service->resetUsbDevices(delay).isOk());
        progress.Add(delay > 0 ? kDock : kReset);
    }

    const sp<KUsbService> service = new KUsbService();
    Progress progress;
    Undertaker undertaker;

  private:
    const unique_fd null_{open("/dev/null", O_WRONLY | O_CLOEXEC)};
};

DeviceInfo makeDevice(int id, bool usb, unsigned int kind, const std::string& name) {
    DeviceInfo info;
    info.deviceId = id;
    info.deviceName = name;
    info.deviceType = usb ? 0 : 1;
    // Those with rules by class, by vendor and by product, and one without.
    constexpr int kSources[] = {0x101, 0x2002, 0x2103, 0x1002};
    constexpr int kClasses[] = {8, 7, 1, 2};
    constexpr int kVendors[] = {5, 7, 9, 5};
    const unsigned int which = kind % std::size(kSources);
    info.deviceClass = usb ? 0 : kSources[which];
    if (usb) info.interfaceClasses = {kClasses[which], 3};
    info.vendorId = kVendors[which];
    info.productId = 11;
    return info;
}

/** One binder thread. Its choices are its seed's. */
class Worker {
  public:
    Worker(Subject* subject, int number)
        : subject_(subject), firstId_(firstIdOf(number)), random_(number) {}

    void Run() {
        for (int i = 0; i < kStepsOfAWorker; ++i) step();
        checkList();
        while (!clients_.empty()) bury();
    }

  private:
    // What the list must hold of a device of its own.
    struct Expected {
        std::string name;
        int32_t status;
        bool operator==(const Expected& other) const {
            return name == other.name && status == other.status;
        }
    };
    using Devices = std::map<int, Expected>;

    struct Client {
        sp<CountingClient> callback;
        int registrations;
    };

    unsigned int choose(unsigned int count) { return random_() % count; }

    void step() {
        const unsigned int choice = choose(10000);
        if (choice < 4600) return decide(false);
        if (choice < 7500) return forget(false);
        if (choice < 8300) return decideCommon();
        if (choice < 8500) return subject_->Update(device(false), 1);
        if (choice < 9000) return checkList();
        if (choice < 9400) return enroll();
        if (choice < 9800) return withdraw();
        if (choice < 9830) return bury();
        if (choice < 9890) return decide(true);
        if (choice < 9930) return forget(true);
        if (choice < 9960) return decidePluggedIn();
        if (choice < 9990) return subject_->Dump();
        if (choice < 9995) return subject_->Dump("test");
        if (choice < 9998) return subject_->Reset(0);
        subject_->Reset(1 + static_cast<int>(choose(3)));
    }

    DeviceInfo device(bool usb) {
        return makeDevice(firstId_ + static_cast<int>(choose(kIdsOfAWorker)), usb, choose(4),
                          "device " + std::to_string(++names_) + " of " + std::to_string(firstId_));
    }

    void decide(bool usb) {
        const DeviceInfo info = device(usb);
        const std::vector<int> added = heard(&CountingClient::Added);
        const bool allowed = subject_->Decide(info);
        // An id that is listed keeps its first record.
        (usb ? usb_ : input_).emplace(info.deviceId, Expected{info.deviceName, allowed ? 1 : 0});
        if (usb) expectHeard(added, heard(&CountingClient::Added));
    }

    void forget(bool usb) {
        const DeviceInfo info = device(usb);
        const std::vector<int> removed = heard(&CountingClient::Removed);
        subject_->Update(info, 0);
        (usb ? usb_ : input_).erase(info.deviceId);
        if (usb) expectHeard(removed, heard(&CountingClient::Removed));
    }

    void decideCommon() {
        const DeviceInfo info =
                makeDevice(static_cast<int>(choose(kCommonIds)), false, choose(4), "common");
        subject_->Decide(info);
        if (choose(2) == 0) subject_->Update(info, 0);
    }

    void decidePluggedIn() {
        const int id = kPluggedIn[choose(std::size(kPluggedIn))];
        DeviceInfo info = makeDevice(id, true, choose(4), "plugged in");
        // For all that, no vendor HID: it is the input side's.
        const bool screened = choose(4) == 0;
        if (screened) info.interfaceClasses = {3};
        const bool allowed = subject_->Decide(info);
        EXPECT_FALSE(screened && allowed);
        if (choose(2) == 0) subject_->Update(info, 0);
    }

    void checkList() {
        Devices input;
        Devices usb;
        std::pair<bool, int> last = {false, -1};
        for (const DeviceInfo& record : subject_->List()) {
            EXPECT_TRUE(agree(record.status, record.reason)) << record.reason;
            const std::pair<bool, int> place = {record.deviceType == 0, record.deviceId};
            EXPECT_LT(last, place);
            last = place;
            if (record.deviceId < firstId_ || record.deviceId >= firstId_ + kIdsOfAWorker) continue;
            (place.first ? usb : input)[record.deviceId] = {record.deviceName, record.status};
        }
        EXPECT_TRUE(input == input_);
        EXPECT_TRUE(usb == usb_);
    }

    void enroll() {
        constexpr size_t kMost = 3;
        if (clients_.size() < kMost) clients_.push_back({new CountingClient(firstId_), 0});
        Client& client = clients_[choose(clients_.size())];
        subject_->Register(client.callback);
        ++client.registrations;
    }

    void withdraw() {
        if (clients_.empty()) return enroll();
        Client& client = clients_[choose(clients_.size())];
        // Also of a client that is not registered: nothing is to happen.
        subject_->Unregister(client.callback);
        if (client.registrations > 0) --client.registrations;
    }

    // Its process ends while it calls the service.
    void bury() {
        if (clients_.empty()) return enroll();
        const Client client = clients_.back();
        clients_.pop_back();
        subject_->undertaker.Take(client.callback);
        const unsigned int calls = choose(4);
        for (unsigned int i = 0; i < calls; ++i) {
            if (choose(3) == 0) {
                subject_->Register(client.callback);
            } else {
                subject_->Unregister(client.callback);
            }
        }
    }

    // What its clients have heard of its own devices, once for each registration.
    std::vector<int> heard(int (CountingClient::*count)() const) const {
        std::vector<int> counts;
        for (const Client& client : clients_) counts.push_back((client.callback.get()->*count)());
        return counts;
    }

    void expectHeard(const std::vector<int>& before, const std::vector<int>& after) const {
        for (size_t i = 0; i < clients_.size(); ++i) {
            EXPECT_EQ(before[i] + clients_[i].registrations, after[i]);
        }
    }

    Subject* const subject_;
    const int firstId_;
    std::mt19937 random_;
    int names_ = 0;
    Devices input_;
    Devices usb_;
    std::vector<Client> clients_;
};

/** Takes the place of a file at once: no reader finds it empty. */
void replaceFile(const std::string& path, const std::string& content) {
    WriteFile(path + ".new", content);
    CHECK(rename((path + ".new").c_str(), path.c_str()) == 0);
}

std::string config(const std::string& mode) {
    return "<usbconfig mode=\"" + mode +
           "\"><class>USB_CLASS_MASS_STORAGE</class><class>AINPUT_SOURCE_KEYBOARD</class>"
           "<vid vendorid=\"7\"/><vid vendorid=\"9\"><pid>11</pid></vid></usbconfig>";
}

/** Returns when the observer has seen all that was done to the files before. */
void waitForObserver() {
    const std::string line = std::string(kClosed) + kMarker;
    const int seen = LinesLogged(line);
    WriteFile(kMarker, "");
    ASSERT_TRUE(WaitForLines({line}, seen + 1));
}

/** Writes the rules, and does not wait for what they come to. */
void administer(Subject* subject) {
    const std::string badRule = "<usbconfig mode=\"whitelist\"><class/></usbconfig>";
    const std::vector<std::string> contents = {
            config("whitelist"), config("blacklist"), "<usbconfig mode=\"none\"/>",
            config("default"),   config("blacklist"), badRule,
            config("whitelist"), "<usbconfig mode=",
    };
    for (size_t i = 0; !subject->progress.Ended(); ++i) {
        WriteFile(configFilePath, contents[i % contents.size()]);
        // A queue of the kernel's that overflows is none of the daemon's business.
        waitForObserver();
    }
}

void plugIn(const std::string& name, int devnum, const std::string& vendor,
            const std::string& interfaceClass) {
    AddDevice(name, 1, devnum, vendor, "000b");
    AddInterface(name + ":1.0", interfaceClass);
}

void unplug(const std::string& name) {
    for (const std::string& entry : {name + ":1.0", name}) {
        Remove("/sys/bus/usb/devices/" + entry);
        Remove("/sys/devices/usb/" + entry);
    }
}

void setUpHardware() {
    AddBus(1);
    WriteFile("/sys/devices/usb/usb1/devspec", "/soc/ssusb@a800000/dwc3@a800000\n");
    plugIn("1-1", 2, "0007", "08");
    plugIn("1-2", 3, "0009", "02");
    MakeDir("/sys/devices/usb/1-2:1.0/net/usb0");
    plugIn("1-3", 4, "0005", "07");
    plugIn("1-4", 5, "0005", "03");
    MakeDir("/sys/devices/usb/1-4:1.0/0003:0005:000B.0001/input");
    replaceFile(kFirstMode, "host\n");
    replaceFile(kSecondMode, "peripheral\n");
    replaceFile(kDcSupply, "1\n");
    replaceFile(kUsbSupply, "0\n");
}

/** A DisplayLink dock, supplies and controllers that change from time to time. */
void changeHardware(Subject* subject) {
    const std::vector<std::pair<const char*, const char*>> changes = {
            {kFirstMode, "peripheral\n"}, {kDcSupply, "0\n"},  {kSecondMode, "host\n"},
            {kUsbSupply, "1\n"},          {kDcSupply, "1\n"},  {kFirstMode, "host\n"},
            {kFirstMode, "none\n"},       {kUsbSupply, "0\n"}, {kSecondMode, "peripheral\n"},
    };
    for (size_t i = 0; !subject->progress.Ended(); ++i) {
        const auto& [path, content] = changes[i % changes.size()];
        replaceFile(path, content);
        if (i % 4 == 0) plugIn("1-5", 6, "17e9", "ff");
        if (i % 4 == 2) unplug("1-5");
        subject->progress.WaitForMore(1000);
    }
}

/** Makes calls from inside the callback, but not from inside those that it causes itself. */
void callBack(Subject* subject) {
    thread_local bool busy = false;
    if (busy) return;
    busy = true;
    const sp<CountingClient> passing = new CountingClient();
    subject->Register(passing);
    constexpr int kId = 30;
    subject->Decide(makeDevice(kId, false, 0, "of a callback"));
    subject->Decide(makeDevice(kId, true, 0, "of a callback"));
    subject->List();
    subject->Update(makeDevice(kId, true, 0, "of a callback"), 0);
    subject->Update(makeDevice(kId, false, 0, "of a callback"), 0);
    subject->Dump();
    subject->Unregister(passing);
    EXPECT_LE(2, passing->Calls());
    busy = false;
}

TEST(Everything, GoesOnAtOnce) {
    CountLines({kWatching, kParsing, std::string(kClosed) + kMarker, kRegistered, kPollStarted,
                kPollEnded, kPollSawUndock});
    setUpHardware();
    WriteFile(configFilePath, config("whitelist"));
    WriteFile(backupFilePath, config("whitelist"));

    Subject subject;
    ObserverThread observer;
    observer.Start();
    ASSERT_TRUE(WaitForLines({kWatching}, 1));
    observer.FindDescriptor();

    std::atomic<int> hangs = 0;
    const sp<CountingClient> hanging = new CountingClient(0, [&] {
        constexpr int kTimes = 5;
        if (hangs.fetch_add(1) < kTimes) subject.progress.WaitForMore(5000);
    });
    const sp<CountingClient> calling = new CountingClient(0, [&] { callBack(&subject); });
    subject.Register(hanging);
    subject.Register(calling);

    std::thread administrator(administer, &subject);
    std::thread hardware(changeHardware, &subject);
    std::vector<std::thread> workers;
    workers.reserve(kWorkers);
    for (int i = 0; i < kWorkers; ++i) {
        workers.emplace_back([&subject, i] { Worker(&subject, i).Run(); });
    }
    for (std::thread& worker : workers) worker.join();
    subject.progress.End();
    hardware.join();
    administrator.join();

    for (int kind = 0; kind < kKinds; ++kind) {
        const int count = subject.progress.CountOf(static_cast<Operation>(kind));
        printf("%d %s\n", count, kNames[kind]);
        EXPECT_LT(0, count) << kNames[kind];
    }
    printf("%d good files, %d bad ones\n", LinesLogged(std::string(kParsing) + "1"),
           LinesLogged(std::string(kParsing) + "0"));
    EXPECT_LT(0, LinesLogged(std::string(kParsing) + "1"));
    EXPECT_LT(0, LinesLogged(std::string(kParsing) + "0"));
    EXPECT_LE(kOperations, subject.progress.Total());

    // A bad file's backup is a file of its own. Then nothing is left to be seen.
    waitForObserver();
    waitForObserver();
    WriteFile(configFilePath, config("blacklist"));
    waitForObserver();
    observer.Stop();

    const std::vector<sp<CountingClient>> dead = subject.undertaker.Join();
    subject.Unregister(hanging);
    subject.Unregister(calling);
    EXPECT_LT(0U, dead.size());
    const auto callsOfTheDead = [&] {
        return std::accumulate(dead.begin(), dead.end(), 0, [](int sum, const auto& client) {
            EXPECT_FALSE(client->Contradicted());
            return sum + client->Calls();
        });
    };
    const int callsBefore = callsOfTheDead();
    EXPECT_LT(0, callsBefore);

    // The registry was emptied, and no lock is held.
    const int registered = LinesLogged(std::string(kRegistered) + "1");
    const sp<CountingClient> last = new CountingClient();
    subject.Register(last);
    EXPECT_EQ(registered + 1, LinesLogged(std::string(kRegistered) + "1"));
    for (const DeviceInfo& record : subject.List()) subject.Update(record, 0);
    EXPECT_TRUE(subject.List().empty());
    const int calls = last->Calls();
    const DeviceInfo stick = makeDevice(1002, true, 0, "stick");
    EXPECT_FALSE(subject.Decide(stick));
    EXPECT_EQ(calls + 1, last->Calls());
    EXPECT_EQ(callsBefore, callsOfTheDead());
    EXPECT_EQ("0\n", ReadFile("/sys/bus/usb/devices/1-1:1.0/authorized"));
    const std::vector<DeviceInfo> devices = subject.List();
    ASSERT_EQ(1U, devices.size());
    EXPECT_EQ("Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
              devices[0].reason);
    subject.Dump();
    subject.Dump("test");
    subject.Reset(0);
    subject.Unregister(last);

    // A virtual dock that was cut short leaves the poll threads of others running until then.
    replaceFile(kDcSupply, "0\n");
    const int polls = LinesLogged(kPollStarted);
    EXPECT_LT(0, polls);
    EXPECT_TRUE(WaitForLines({kPollEnded, kPollSawUndock}, polls));
}

}  // namespace

}  // namespace android::kus::test
