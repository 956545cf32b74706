// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// How controllers are flipped, docks announced and supplies watched: in which order, with which
// pauses.

#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/usbdevice.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/write_recorder.h"
#include "tests/usbdevice_fixture.h"

namespace {

/** Called ahead of each property that the daemon sets; none when empty. */
std::function<void(const std::string&)> onProperty;
bool threadsFail = false;
/** The threads that the daemon has asked for, by whether with default attributes. */
std::vector<bool> threadsWithDefaults;
/** The pauses that this thread has asked for. */
thread_local std::vector<std::chrono::nanoseconds> pauses;

}  // namespace

// The linker routes the daemon's calls through here (LINKER:--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,google-*)
extern "C" {

int __real_property_set(const char* key, const char* value);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument);
int __real_nanosleep(const timespec* request, timespec* remaining);

int __wrap_property_set(const char* key, const char* value) {
    if (onProperty) onProperty(key);
    return __real_property_set(key, value);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument) {
    threadsWithDefaults.push_back(attributes == nullptr);
    if (threadsFail) return EAGAIN;
    return __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_nanosleep(const timespec* request, timespec* remaining) {
    pauses.push_back(std::chrono::seconds(request->tv_sec) +
                     std::chrono::nanoseconds(request->tv_nsec));
    return __real_nanosleep(request, remaining);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,google-*)

namespace android::kus::test {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

using Texts = std::vector<std::string>;
using Clock = WriteRecorder::Clock;

constexpr char kFirstDirectory[] = "/sys/devices/platform/soc/c200000.hsusb";
constexpr char kSecondDirectory[] = "/sys/devices/platform/soc/a800000.ssusb";
constexpr char kFirst[] = "/sys/devices/platform/soc/c200000.hsusb/mode";
constexpr char kSecond[] = "/sys/devices/platform/soc/a800000.ssusb/mode";
constexpr char kDevspec[] = "/sys/bus/usb/devices/usb1/devspec";
constexpr char kDcSupply[] = "/sys/class/power_supply/dc/online";
constexpr char kUsbSupply[] = "/sys/class/power_supply/usb/online";

constexpr char kUndock[] = "persist.vendor.monitor.undock";
constexpr char kDock[] = "persist.vendor.monitor.dock";
constexpr char kReset[] = "persist.vendor.monitor.reset";

constexpr milliseconds kModePause(100);
constexpr milliseconds kPollPause(400);
// Long enough for the test to do something meanwhile.
constexpr milliseconds kLongDelay(600);
// Over when the poll thread sleeps for the first time, with room on either side.
constexpr milliseconds kWithinOnePoll(200);
// How much later than asked for a sleeper may come on a busy machine.
constexpr milliseconds kLateness(1500);

std::string info(const std::string& text) {
    return Logged(Info(text));
}

std::string error(const std::string& text) {
    return Logged(Error(text));
}

Texts operator+(Texts texts, const Texts& more) {
    texts.insert(texts.end(), more.begin(), more.end());
    return texts;
}

// A value's newline makes two lines of the one.
Texts infos(const std::string& text) {
    Texts lines;
    for (const std::string& line : android::base::Split(text, "\n")) lines.push_back(info(line));
    return lines;
}

const std::string kEntered = info("usb_host_reset entered:");

std::string resetNone(const std::string& path) {
    return info("usb_host_reset mode set to none for syspath: " + path);
}

std::string resetHost(const std::string& path) {
    return info("usb_host_reset mode set to host for syspath: " + path);
}

// The plain reset of a controller whose file holds "host" and a newline.
Texts plainFlip(const std::string& path) {
    return {Wrote(path, "none\n"), resetNone(path), resetHost(path), Wrote(path, "host\n")};
}

std::string undockNone(const std::string& path) {
    return info("virtual_undock_dock_event mode set to none for syspath: " + path);
}

std::string undockHost(const std::string& path) {
    return info("virtual_undock_dock_event mode set to host for syspath: " + path);
}

const Texts kWithoutDisplayLink = {
        info("virtual_undock_dock_event usbPath : empty"),
        info("virtual_undock_dock_event usbPath empty for non-display link device")};
const std::string kThreadStarted = info("registerFileObserverViaThread result--0");
const std::string kThreadFailed =
        info("registerFileObserverViaThread result--" + std::to_string(EAGAIN));
const std::string kPollEnded = info("readSysfsChangeEvent:exit poll due to virtual dock");
const Texts kUndockAnnounced = {Set(kUndock, "1"), Set(kReset, "1")};
const Texts kDockAnnounced = {Set(kDock, "1"), Set(kReset, "1")};

Texts undockedAndDocked(const std::string& threadResult = kThreadStarted) {
    return kWithoutDisplayLink + kUndockAnnounced + Texts{threadResult} + kDockAnnounced;
}

std::string polled(const std::string& value) {
    return info(std::string("readSysfsChangeEvent:polling for power_val ") + kDcSupply +
                "power_val:" + value);
}

const std::string kPollSawUndock = info("readSysfsChangeEvent: undocked power_val0");

// What stands in the log ahead of the controller's flip, when bus 1 names the second controller.
const std::string kForDisplayLink =
        info("virtual_undock_dock_event usbPath for display link device");
const Texts kDisplayLinkFound =
        infos(std::string("get_displaylink_soc_path ") + kDevspec) +
        infos("get_displaylink_soc_path devspec_val : /soc/ssusb@a800000/dwc3@a800000\n") +
        Texts{info(std::string("virtual_undock_dock_event usbPath : ") + kSecond), kForDisplayLink};
const Texts kSwitchedOff = {Wrote(kSecond, "none\n"), undockNone(kSecond)};
const Texts kSwitchedOn = {undockHost(kSecond), Wrote(kSecond, "host\n")};
const std::string kStaysOff = info("device is undocked, not charging state");

Texts usbPower(const std::string& text, const std::string& value) {
    return infos("USB charging_state val " + text) + infos("power_supply_state val " + value);
}

Texts dcPower(const std::string& text, const std::string& value) {
    return infos("virtual_undock_dock_event check for dc charge state") +
           infos("DC charging_state val " + text) + infos("DC power_supply_state val " + value);
}

void addToMap(int deviceId, uint32_t idVendor, const std::string& interfaceName) {
    DeviceIdEntry entry = EntryOf(interfaceName);
    entry.idVendor = idVendor;
    UsbDevice::DeviceIdMap.emplace(deviceId, entry);
}

// The DisplayLink device of a dock at the second controller, which is in host mode.
void attachDisplayLink() {
    addToMap(1002, 0x17e9, "1-1:1.0");
    WriteFile(kDevspec, "/soc/ssusb@a800000/dwc3@a800000\n");
    WriteFile(kSecond, "host\n");
}

void setSupplies(const std::string& usb, const std::string& dc) {
    WriteFile(kUsbSupply, usb);
    WriteFile(kDcSupply, dc);
}

void expectPause(Clock::time_point from, Clock::time_point to, milliseconds pause) {
    const auto passed = std::chrono::duration_cast<microseconds>(to - from);
    EXPECT_GE(passed.count(), microseconds(pause).count());
    EXPECT_LT(passed.count(), microseconds(pause + kLateness).count());
}

// By the time that the kernel gave the file when it was written, which no waiting can delay.
microseconds timeSinceWriteOf(const std::string& path) {
    struct stat status = {};
    CHECK(stat(path.c_str(), &status) == 0) << path;
    timespec now = {};
    CHECK(clock_gettime(CLOCK_REALTIME, &now) == 0);
    return std::chrono::duration_cast<microseconds>(
            std::chrono::seconds(now.tv_sec - status.st_mtim.tv_sec) +
            std::chrono::nanoseconds(now.tv_nsec - status.st_mtim.tv_nsec));
}

size_t threadCount() {
    return EntriesOf("/proc/self/task").size();
}

// A thread that was joined may be listed for a moment still.
bool threadsComeDownTo(size_t count) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (threadCount() > count) {
        if (Clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return threadCount() == count;
}

// A file that can be opened for writing, but not written.
android::base::unique_fd sealedFile(const std::string& content) {
    android::base::unique_fd fd(memfd_create("mode", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    CHECK(fd != -1);
    CHECK(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    CHECK(fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE) == 0);
    return fd;
}

// Controllers and supplies: none until a test makes them. No device is in the map, no property set.
class ResetTest : public UsbDeviceTest {
  protected:
    void SetUp() override {
        UsbDeviceTest::SetUp();
        Remove("/sys/class");
        Remove(kPropertyDirectory);
        onProperty = nullptr;
        threadsFail = false;
        threadsWithDefaults.clear();
        pauses.clear();
    }

    void TearDown() override {
        recorder.reset();
        onProperty = nullptr;
        // A virtual dock leaves its mark for good; the next, here one that stops at once, takes it.
        UsbDevice::DeviceIdMap.clear();
        WriteFile(kDcSupply, "0");
        UsbDevice::virtual_undock_dock_event(1);
        UsbDeviceTest::TearDown();
    }

    // From here on, all that happens to controllers and properties, and all log lines.
    void record(const std::vector<std::string>& more = {}) {
        std::vector<std::string> directories = {kFirstDirectory, kSecondDirectory,
                                                kPropertyDirectory};
        directories.insert(directories.end(), more.begin(), more.end());
        recorder = std::make_unique<WriteRecorder>(&log, directories);
    }

    // The actions without the lines of the poll thread, whose place among the others is its own.
    Texts callersActions() {
        Texts actions;
        for (const std::string& text : recorder->Texts()) {
            if (text.find("readSysfsChangeEvent") == std::string::npos) actions.push_back(text);
        }
        return actions;
    }

    // The poll thread's lines alone.
    Texts pollLines() {
        Texts lines;
        for (const std::string& text : recorder->Texts()) {
            if (text.find("readSysfsChangeEvent") != std::string::npos) lines.push_back(text);
        }
        return lines;
    }

    LogCapture log;
    std::unique_ptr<WriteRecorder> recorder;
};

}  // namespace

// --- usb_host_reset: plain ---------------------------------------------------------------------

using PlainReset = ResetTest;

TEST_F(PlainReset, FlipsTheControllersInListOrderWithAPauseAfterEachWrite) {
    WriteFile(kFirst, "host\n");
    WriteFile(kSecond, "host\n");
    record();
    UsbDevice::usb_host_reset(0);
    const Clock::time_point returned = Clock::now();
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + plainFlip(kFirst) + plainFlip(kSecond));
    expectPause(recorder->TimeOf(resetNone(kFirst)), recorder->TimeOf(resetHost(kFirst)),
                kModePause);
    expectPause(recorder->TimeOf(resetHost(kFirst)), recorder->TimeOf(resetNone(kSecond)),
                kModePause);
    expectPause(recorder->TimeOf(resetNone(kSecond)), recorder->TimeOf(resetHost(kSecond)),
                kModePause);
    expectPause(recorder->TimeOf(resetHost(kSecond)), returned, kModePause);
}

TEST_F(PlainReset, AsksForExactlyItsPauses) {
    WriteFile(kFirst, "host\n");
    WriteFile(kSecond, "host\n");
    UsbDevice::usb_host_reset(0);
    EXPECT_THAT(pauses, ElementsAre(kModePause, kModePause, kModePause, kModePause));
}

TEST_F(PlainReset, WritesHostAheadOfTheLastPause) {
    WriteFile(kFirst, "host\n");
    UsbDevice::usb_host_reset(0);
    EXPECT_GE(timeSinceWriteOf(kFirst), kModePause);
}

TEST_F(PlainReset, FlipsOnlyTheFirstWhenTheSecondIsAPeripheral) {
    WriteFile(kFirst, "host\n");
    WriteFile(kSecond, "peripheral\n");
    record();
    UsbDevice::usb_host_reset(0);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + plainFlip(kFirst));
    EXPECT_EQ(ReadFile(kSecond), "peripheral\n");
}

TEST_F(PlainReset, GoesOnWithTheSecondWhenTheFirstIsNotInHostMode) {
    WriteFile(kFirst, "none\n");
    WriteFile(kSecond, "host\n");
    record();
    UsbDevice::usb_host_reset(0);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + plainFlip(kSecond));
}

TEST_F(PlainReset, GoesOnWithTheSecondWhenTheFirstHasNoModeFile) {
    WriteFile(kSecond, "host\n");
    record();
    UsbDevice::usb_host_reset(0);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + plainFlip(kSecond));
    EXPECT_FALSE(Exists(kFirst));
}

TEST_F(PlainReset, DoesNothingWithoutModeFiles) {
    record();
    UsbDevice::usb_host_reset(0);
    EXPECT_THAT(recorder->Texts(), ElementsAre(kEntered));
    EXPECT_FALSE(Exists(kFirst));
    EXPECT_FALSE(Exists(kSecond));
}

TEST_F(PlainReset, TakesALinkThatLeadsNowhereForNoModeFile) {
    MakeLink(kFirst, "nowhere");
    record();
    UsbDevice::usb_host_reset(0);
    EXPECT_THAT(recorder->Texts(), ElementsAre(kEntered));
}

TEST_F(PlainReset, LeavesAControllerAloneThatIsNotInHostMode) {
    for (const char* mode : {"peripheral\n", "none\n", "none", "hos", "hos\n", "Host\n", " host\n",
                             "\nhost", "hoss", "otg host\n"}) {
        SCOPED_TRACE(mode);
        WriteFile(kFirst, mode);
        WriteFile(kSecond, mode);
        record();
        UsbDevice::usb_host_reset(0);
        EXPECT_THAT(recorder->Texts(), ElementsAre(kEntered));
        EXPECT_EQ(ReadFile(kFirst), mode);
        recorder.reset();
    }
}

TEST_F(PlainReset, LeavesAControllerAloneThatCannotBeRead) {
    WriteFile(kFirst, "");
    MakeDir(kSecond);
    record();
    UsbDevice::usb_host_reset(0);
    EXPECT_THAT(recorder->Texts(), ElementsAre(kEntered, error("Unable to read from sysfs path0"),
                                               error("Unable to read from sysfs path-1")));
    EXPECT_EQ(ReadFile(kFirst), "");
}

TEST_F(PlainReset, DoesNotTakeTheFirstControllersModeForTheSecondsUnreadableOne) {
    WriteFile(kFirst, "host\n");
    WriteFile(kSecond, "");
    record();
    UsbDevice::usb_host_reset(0);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + plainFlip(kFirst) +
                                         Texts{error("Unable to read from sysfs path0")});
}

TEST_F(PlainReset, ComparesFourCharactersAndWritesFour) {
    const std::pair<std::string, std::string> modes[] = {
            {"host", "none"},
            {"hostess", "noneess"},
            {"host peripheral\n", "none peripheral\n"},
            {"host" + TextOf(5000), "none" + TextOf(5000)}};
    for (const auto& [host, none] : modes) {
        SCOPED_TRACE(host);
        WriteFile(kFirst, host);
        record();
        UsbDevice::usb_host_reset(0);
        EXPECT_THAT(recorder->Texts(), ElementsAre(kEntered, Wrote(kFirst, none), resetNone(kFirst),
                                                   resetHost(kFirst), Wrote(kFirst, host)));
        recorder.reset();
    }
}

TEST_F(PlainReset, GoesOnWhenAModeCannotBeWritten) {
    const android::base::unique_fd mode = sealedFile("host\n");
    MakeLink(kFirst, "/proc/self/fd/" + std::to_string(mode.get()));
    WriteFile(kSecond, "host\n");
    record();
    UsbDevice::usb_host_reset(0);
    const std::string failure = error("Unable to write to sysfs path-1");
    EXPECT_EQ(recorder->Texts(),
              (Texts{kEntered, failure, resetNone(kFirst), resetHost(kFirst), failure} +
               plainFlip(kSecond)));
    expectPause(recorder->TimeOf(failure), recorder->TimeOf(failure, 2), kModePause);
    expectPause(recorder->TimeOf(failure, 2), recorder->TimeOf(resetNone(kSecond)), kModePause);
}

TEST_F(PlainReset, GoesOnWhenAControllerGoesAwayMeanwhile) {
    WriteFile(kFirst, "host\n");
    WriteFile(kSecond, "host\n");
    log.OnLine([](const LogLine& line) {
        if (Logged(line) == resetHost(kFirst)) Remove(kFirstDirectory);
    });
    UsbDevice::usb_host_reset(0);
    log.OnLine(nullptr);
    EXPECT_THAT(
            log.Texts(),
            ElementsAre("usb_host_reset entered:",
                        std::string("usb_host_reset mode set to none for syspath: ") + kFirst,
                        std::string("usb_host_reset mode set to host for syspath: ") + kFirst,
                        std::string("Unable to open  sysfs path for writing") + kFirst,
                        std::string("usb_host_reset mode set to none for syspath: ") + kSecond,
                        std::string("usb_host_reset mode set to host for syspath: ") + kSecond));
    EXPECT_EQ(ReadFile(kSecond), "host\n");
}

TEST_F(PlainReset, IsWhatEveryDelayBelowOneMeans) {
    attachDisplayLink();
    WriteFile(kFirst, "peripheral\n");
    setSupplies("1\n", "1\n");
    for (const int delay : {0, -1, -500, INT_MIN}) {
        SCOPED_TRACE(delay);
        record();
        UsbDevice::usb_host_reset(delay);
        EXPECT_EQ(recorder->Texts(), Texts{kEntered} + plainFlip(kSecond));
        recorder.reset();
    }
}

// --- usb_host_reset: the lock ------------------------------------------------------------------

using ResetLock = ResetTest;

TEST_F(ResetLock, KeepsAResetWaitingUntilTheOneBeforeIsThroughItsPauses) {
    attachDisplayLink();
    WriteFile(kFirst, "host\n");
    setSupplies("1\n", "0\n");
    record();
    const std::future<void> first =
            std::async(std::launch::async, [] { UsbDevice::usb_host_reset(kLongDelay.count()); });
    ASSERT_TRUE(recorder->WaitFor(undockNone(kSecond)));
    UsbDevice::usb_host_reset(0);
    first.wait();

    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound + kSwitchedOff +
                                         Texts{kEntered} + usbPower("1\n", "1") + kSwitchedOn +
                                         plainFlip(kFirst) + plainFlip(kSecond));
    expectPause(recorder->TimeOf(undockHost(kSecond)), recorder->TimeOf(resetNone(kFirst)),
                kModePause);
}

TEST_F(ResetLock, KeepsAVirtualDockWaitingForAPlainReset) {
    WriteFile(kFirst, "host\n");
    WriteFile(kDcSupply, "0\n");
    record();
    // From within the reset: behind its first write, a pause ahead of its end.
    const std::future<void> first =
            std::async(std::launch::async, [] { UsbDevice::usb_host_reset(0); });
    ASSERT_TRUE(recorder->WaitFor(resetNone(kFirst)));
    UsbDevice::usb_host_reset(1);
    first.wait();
    const Texts actions = recorder->Texts();
    EXPECT_EQ(actions[0], kEntered);
    EXPECT_EQ(Texts(actions.end() - 2, actions.end()), kWithoutDisplayLink);
    expectPause(recorder->TimeOf(resetHost(kFirst)), recorder->TimeOf(kWithoutDisplayLink[0]),
                kModePause);
}

TEST_F(ResetLock, IsFreeAgainAfterEveryWayOut) {
    WriteFile(kDcSupply, "0\n");
    record();
    UsbDevice::usb_host_reset(1);
    attachDisplayLink();
    Remove(kSecond);
    UsbDevice::usb_host_reset(1);
    UsbDevice::usb_host_reset(0);
    EXPECT_EQ(log.CountOf(Info("usb_host_reset entered:")), 3);
}

TEST_F(ResetLock, IsNotTakenByTheVirtualUndockAndDockItself) {
    attachDisplayLink();
    setSupplies("1\n", "0\n");
    record();
    const std::future<void> reset =
            std::async(std::launch::async, [] { UsbDevice::usb_host_reset(kLongDelay.count()); });
    ASSERT_TRUE(recorder->WaitFor(undockNone(kSecond)));
    // The controller is in "none" now, so this one ends at once.
    UsbDevice::virtual_undock_dock_event(1);
    reset.wait();
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound + kSwitchedOff +
                                         kDisplayLinkFound + usbPower("1\n", "1") + kSwitchedOn);
}

// --- get_displaylink_soc_path ------------------------------------------------------------------

using DisplayLinkPath = ResetTest;

TEST_F(DisplayLinkPath, IsEmptyAsAWordForAnEmptyMap) {
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "empty");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(DisplayLinkPath, IsEmptyAsAWordWhenNoDeviceIsOfTheVendor) {
    WriteFile(kDevspec, "/soc/ssusb@a800000/dwc3@a800000\n");
    int deviceId = 1002;
    for (const uint32_t vendor : {0x0000U, 0x17e8U, 0x17eaU, 0xe917U, 0x117e9U, 0x46dU}) {
        addToMap(deviceId++, vendor, "1-1:1.0");
    }
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "empty");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(DisplayLinkPath, IsBuiltFromTheDevspecOfTheBus) {
    addToMap(2002, 0x17e9, "2-1:1.0");
    WriteFile("/sys/bus/usb/devices/usb2/devspec", "/soc/ssusb@a800000/dwc3@a800000\n");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), kSecond);
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("get_displaylink_soc_path /sys/bus/usb/devices/usb2/devspec"),
                            Info("get_displaylink_soc_path devspec_val : "
                                 "/soc/ssusb@a800000/dwc3@a800000"),
                            Info("")));
}

TEST_F(DisplayLinkPath, IsThatOfADeviceThatAScanFound) {
    WriteFile(AddBus(1) + "/devspec", "/soc/hsusb@c200000/dwc3@c200000\n");
    AddDevice("1-1", 1, 2, "046d", "c31c");
    AddInterface("1-1:1.0", "03");
    AddDevice("1-2", 1, 3, "17e9", "6000");
    AddInterface("1-2:1.0", "ff");
    UsbDevice::create_usb_device_map();
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), kFirst);
}

TEST_F(DisplayLinkPath, IsThatOfTheFirstDeviceInKeyOrder) {
    WriteFile("/sys/bus/usb/devices/usb1/devspec", "/soc/one@1\n");
    WriteFile("/sys/bus/usb/devices/usb2/devspec", "/soc/two@2\n");
    WriteFile("/sys/bus/usb/devices/usb3/devspec", "/soc/three@3\n");
    addToMap(2003, 0x17e9, "2-1:1.0");
    addToMap(1004, 0x17e9, "3-1:1.0");
    addToMap(1004, 0x17e9, "1-1:1.0");
    addToMap(1003, 0x1d6b, "1-2:1.0");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "/sys/devices/platform/soc/3.three/mode");
}

TEST_F(DisplayLinkPath, TakesOnlyTheFirstCharacterOfTheInterfacesName) {
    WriteFile("/sys/bus/usb/devices/usb1/devspec", "/soc/one@1\n");
    WriteFile("/sys/bus/usb/devices/usb10/devspec", "/soc/ten@10\n");
    addToMap(10002, 0x17e9, "10-1:1.0");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "/sys/devices/platform/soc/1.one/mode");
}

TEST_F(DisplayLinkPath, ComesFromTheThirdPieceOfTheDevspec) {
    const std::string soc = "/sys/devices/platform/soc/";
    const std::string mode = "/mode";
    struct {
        std::string devspec;
        std::string path;
    } const cases[] = {
            {"/soc/ssusb@a800000/dwc3@a800000", soc + "a800000.ssusb" + mode},
            {"/soc/ssusb@a800000/dwc3@a800000\n", soc + "a800000.ssusb" + mode},
            {"/soc/ssusb@a800000", soc + "a800000.ssusb" + mode},
            {"/soc/ssusb@a800000\n", soc + "a800000.ssusb" + mode},
            {"/soc/ssusb@a800000/", soc + "a800000.ssusb" + mode},
            {"/soc@0/usb@a600000/usb@a600000\n", soc + "a600000.usb" + mode},
            {"a/b/ssusb@a800000", soc + "a800000.ssusb" + mode},
            {"//ssusb@a800000", soc + "a800000.ssusb" + mode},
            {"/soc/ss\nusb@a8\n00000\n", soc + "a800000.ssusb" + mode},
            {"/soc/a@b@c", soc + "b.a" + mode},
            {"/soc/a@@c", soc + ".a" + mode},
            {"/soc/@a800000", soc + "a800000." + mode},
            {"/soc/ssusb@a800000/" + TextOf(5000), soc + "a800000.ssusb" + mode},
            // Only 4095 characters are read: 11 of them are "/soc/ssusb@".
            {"/soc/ssusb@" + TextOf(5000), soc + TextOf(4095 - 11) + ".ssusb" + mode},
    };
    addToMap(1002, 0x17e9, "1-1:1.0");
    for (const auto& [devspec, path] : cases) {
        SCOPED_TRACE(devspec.substr(0, 60));
        WriteFile(kDevspec, devspec);
        EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), path);
    }
}

TEST_F(DisplayLinkPath, IsAnEmptyTextForADevspecWithTooFewPieces) {
    addToMap(1002, 0x17e9, "1-1:1.0");
    for (const char* devspec : {"(null)\n",
                                "(null)",
                                "\n",
                                "/",
                                "//",
                                "///",
                                "/soc",
                                "/soc\n",
                                "/soc/",
                                "/soc//dwc3@1",
                                "/soc/\n",
                                "/soc/ssusb",
                                "/soc/ssusb\n",
                                "/soc/ssusb@",
                                "/soc/ssusb@\n",
                                "/soc/@",
                                "/soc/ssusb/dwc3@a800000",
                                "ssusb@a800000",
                                "/ssusb@a800000",
                                "soc/ssusb@a800000",
                                "@"}) {
        SCOPED_TRACE(devspec);
        WriteFile(kDevspec, devspec);
        EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "");
    }
}

TEST_F(DisplayLinkPath, IsAnEmptyTextWhenTheDevspecYieldsNothing) {
    addToMap(1002, 0x17e9, "1-1:1.0");
    const LogLine path = Info("get_displaylink_soc_path /sys/bus/usb/devices/usb1/devspec");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "");
    EXPECT_THAT(log.Take(), ElementsAre(path, Error("Unable to open sysfs path for reading"
                                                    "/sys/bus/usb/devices/usb1/devspec")));
    WriteFile(kDevspec, "");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "");
    EXPECT_THAT(log.Take(), ElementsAre(path, Error("Unable to read from sysfs path0")));
}

TEST_F(DisplayLinkPath, DoesNotFallBackOnAnotherDeviceWhenTheDevspecIsMissing) {
    addToMap(1002, 0x17e9, "1-1:1.0");
    addToMap(2002, 0x17e9, "2-1:1.0");
    WriteFile("/sys/bus/usb/devices/usb2/devspec", "/soc/ssusb@a800000/dwc3@a800000\n");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "");
}

// --- virtual_undock_dock_event: without a DisplayLink device -----------------------------------

using VirtualDock = ResetTest;

TEST_F(VirtualDock, AnnouncesUndockThenWaitsThenAnnouncesDock) {
    constexpr milliseconds kDelay(500);
    WriteFile(kDcSupply, "1");
    WriteFile(kUsbSupply, "0");
    WriteFile(kFirst, "host\n");
    WriteFile(kSecond, "host\n");
    record();
    UsbDevice::usb_host_reset(kDelay.count());
    const Clock::time_point returned = Clock::now();
    ASSERT_TRUE(recorder->WaitFor(kPollEnded));

    EXPECT_EQ(callersActions(), Texts{kEntered} + undockedAndDocked());
    const Clock::time_point started = recorder->TimeOf(kThreadStarted);
    expectPause(started, recorder->TimeOf(Set(kDock, "1")), kDelay);
    expectPause(started, returned, kDelay);
    const Texts lines = pollLines();
    ASSERT_GE(lines.size(), 2U);
    for (size_t i = 0; i + 1 < lines.size(); ++i) EXPECT_EQ(lines[i], polled("1"));
    EXPECT_EQ(lines.back(), kPollEnded);
    EXPECT_EQ(ReadFile(kFirst), "host\n");
    EXPECT_EQ(ReadFile(kSecond), "host\n");
}

TEST_F(VirtualDock, StartsAtADelayOfOneAndCanBeCalledByItself) {
    WriteFile(kDcSupply, "1");
    record();
    UsbDevice::usb_host_reset(1);
    ASSERT_TRUE(recorder->WaitFor(kPollEnded));
    EXPECT_EQ(callersActions(), Texts{kEntered} + undockedAndDocked());
    recorder->Take();
    UsbDevice::virtual_undock_dock_event(1);
    ASSERT_TRUE(recorder->WaitFor(kPollEnded));
    EXPECT_EQ(callersActions(), undockedAndDocked());
}

TEST_F(VirtualDock, StartsItsThreadBehindTheUndockAndDoesNotJoinIt) {
    WriteFile(kDcSupply, "1");
    record();
    std::vector<std::pair<std::string, size_t>> threads;
    const size_t before = threadCount();
    onProperty = [&](const std::string& name) { threads.emplace_back(name, threadCount()); };
    UsbDevice::usb_host_reset(kWithinOnePoll.count());
    const Texts atReturn = pollLines();
    using testing::Pair;
    EXPECT_THAT(threads, ElementsAre(Pair(kUndock, before), Pair(kReset, before),
                                     Pair(kDock, before + 1), Pair(kReset, before + 1)));
    EXPECT_THAT(atReturn, Not(testing::Contains(kPollEnded)));
    EXPECT_TRUE(recorder->WaitFor(kPollEnded));
}

TEST_F(VirtualDock, AsksForExactlyItsDelayAndAThreadOfDefaultAttributes) {
    threadsFail = true;
    WriteFile(kDcSupply, "1");
    UsbDevice::usb_host_reset(30);
    EXPECT_THAT(pauses, ElementsAre(milliseconds(30)));
    EXPECT_THAT(threadsWithDefaults, ElementsAre(true));
}

TEST_F(VirtualDock, IsOverForThePollBeforeDockIsAnnounced) {
    WriteFile(kDcSupply, "1");
    record();
    // Its own poll would be at the supply at the same time.
    threadsFail = true;
    bool asked = false;
    onProperty = [&](const std::string& name) {
        if (name != kDock || std::exchange(asked, true)) return;
        WriteFile(kDcSupply, "0");
        UsbDevice::registersysfsObserver(nullptr);
    };
    UsbDevice::usb_host_reset(1);
    EXPECT_TRUE(asked);
    EXPECT_THAT(pollLines(), ElementsAre(kPollEnded));
}

TEST_F(VirtualDock, StopsAtOnceWhenTheTerminalIsNotOnDcPower) {
    for (const char* online : {"0\n", "0", "01", "0 V\n"}) {
        SCOPED_TRACE(online);
        WriteFile(kDcSupply, online);
        WriteFile(kUsbSupply, "1");
        WriteFile(kSecond, "host\n");
        record();
        UsbDevice::usb_host_reset(60000);
        EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kWithoutDisplayLink);
        EXPECT_THAT(threadsWithDefaults, IsEmpty());
        recorder.reset();
    }
}

TEST_F(VirtualDock, GoesOnWithEveryOtherFirstCharacter) {
    // No poll reads a supply that is just being written.
    threadsFail = true;
    for (const char* online : {"1", "1\n", "2", " 0", "\n0", "-0", "x", "10"}) {
        SCOPED_TRACE(online);
        WriteFile(kDcSupply, online);
        record();
        UsbDevice::usb_host_reset(1);
        EXPECT_EQ(recorder->Texts(), Texts{kEntered} + undockedAndDocked(kThreadFailed));
        recorder.reset();
    }
}

TEST_F(VirtualDock, TakesAnUnreadableSupplyForDcPowerWhateverItReadBefore) {
    const std::pair<std::function<void()>, LogLine> cases[] = {
            {[] { Remove(kDcSupply); },
             Error(std::string("Unable to open sysfs path for reading") + kDcSupply)},
            {[] { WriteFile(kDcSupply, ""); }, Error("Unable to read from sysfs path0")},
    };
    for (const auto& [makeUnreadable, failure] : cases) {
        SCOPED_TRACE(failure.text);
        WriteFile(kDcSupply, "0");
        UsbDevice::usb_host_reset(1);
        makeUnreadable();
        record();
        UsbDevice::usb_host_reset(1);
        ASSERT_TRUE(recorder->WaitFor(kPollEnded));
        const Texts actions = recorder->Texts();
        const Texts untilThread =
                Texts{kEntered} + kWithoutDisplayLink + Texts{Logged(failure)} + kUndockAnnounced;
        ASSERT_GE(actions.size(), untilThread.size());
        EXPECT_EQ(Texts(actions.begin(), actions.begin() + untilThread.size()), untilThread);
        EXPECT_THAT(actions, testing::Contains(Set(kDock, "1")).Times(1));
        recorder.reset();
    }
}

TEST_F(VirtualDock, GoesOnWhenNoThreadCanBeMade) {
    constexpr milliseconds kDelay(50);
    WriteFile(kDcSupply, "1");
    record();
    threadsFail = true;
    UsbDevice::usb_host_reset(kDelay.count());
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + undockedAndDocked(kThreadFailed));
    expectPause(recorder->TimeOf(kThreadFailed), recorder->TimeOf(Set(kDock, "1")), kDelay);
    recorder->Take();
    UsbDevice::registersysfsObserver(nullptr);
    EXPECT_THAT(recorder->Texts(), ElementsAre(kPollEnded));
}

TEST_F(VirtualDock, AnnouncesDockTwiceWhenDcPowerGoesMeanwhile) {
    constexpr milliseconds kDelay(900);
    WriteFile(kDcSupply, "1");
    record();
    const size_t before = threadCount();
    std::future<void> reset =
            std::async(std::launch::async, [&] { UsbDevice::usb_host_reset(kDelay.count()); });
    ASSERT_TRUE(recorder->WaitFor(polled("1")));
    WriteFile(kDcSupply, "0");
    reset.get();
    EXPECT_EQ(callersActions(), Texts{kEntered} + undockedAndDocked() + kDockAnnounced);
    EXPECT_THAT(pollLines(), ElementsAre(polled("1"), polled("0"), kPollSawUndock));
    EXPECT_TRUE(threadsComeDownTo(before));

    // The thread's announcement follows its line, the caller's comes when the delay is over.
    const Clock::time_point started = recorder->TimeOf(kThreadStarted);
    expectPause(recorder->TimeOf(polled("1")), recorder->TimeOf(Set(kDock, "1")), kPollPause);
    EXPECT_LT(recorder->TimeOf(kPollSawUndock), recorder->TimeOf(Set(kDock, "1")));
    expectPause(started, recorder->TimeOf(Set(kDock, "1"), 2), kDelay);
}

TEST_F(VirtualDock, PollsAnewEachTime) {
    WriteFile(kDcSupply, "1");
    record();
    for (int round = 1; round <= 2; ++round) {
        SCOPED_TRACE(round);
        UsbDevice::usb_host_reset(kLongDelay.count());
        ASSERT_TRUE(recorder->WaitFor(kPollEnded));
        Texts lines = pollLines();
        EXPECT_EQ(lines.back(), kPollEnded);
        lines.pop_back();
        EXPECT_THAT(lines, AllOf(Not(IsEmpty()), testing::Each(polled("1"))));
        recorder->Take();
    }
}

TEST_F(VirtualDock, MakesItsPollPossibleAgainEvenWhenItStops) {
    WriteFile(kDcSupply, "1");
    record();
    UsbDevice::usb_host_reset(1);
    ASSERT_TRUE(recorder->WaitFor(kPollEnded));
    WriteFile(kDcSupply, "0");
    UsbDevice::usb_host_reset(1);
    recorder->Take();
    UsbDevice::registersysfsObserver(nullptr);
    EXPECT_EQ(recorder->Texts(), (Texts{polled("0"), kPollSawUndock} + kDockAnnounced));
}

TEST_F(VirtualDock, WaitsThroughADelayWhoseMicrosecondsNeedMoreThan32Bits) {
    WriteFile(kDcSupply, "1");
    const ProcessResult child = RunInChild([] {
        LogCapture log;
        WriteRecorder recorder(&log, {kPropertyDirectory});
        // 704 microseconds, were it cut.
        std::thread([] { UsbDevice::usb_host_reset(4294968); }).detach();
        CHECK(recorder.WaitFor(kThreadStarted));
        printf("docked %d", recorder.WaitFor(Set(kDock, "1"), 1, milliseconds(300)));
    });
    EXPECT_EQ(child.signal, 0) << child.err;
    EXPECT_EQ(child.out, "docked 0");
}

// --- virtual_undock_dock_event: with a DisplayLink device --------------------------------------

using DisplayLinkDock = ResetTest;

TEST_F(DisplayLinkDock, SwitchesItsControllerOffAndOnAgainOnUsbPower) {
    constexpr milliseconds kDelay(300);
    attachDisplayLink();
    WriteFile(kFirst, "host\n");
    setSupplies("1\n", "0\n");
    record();
    UsbDevice::usb_host_reset(kDelay.count());
    const Clock::time_point returned = Clock::now();
    const microseconds sinceWrite = timeSinceWriteOf(kSecond);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound + kSwitchedOff +
                                         usbPower("1\n", "1") + kSwitchedOn);
    expectPause(recorder->TimeOf(undockNone(kSecond)),
                recorder->TimeOf(info("USB charging_state val 1")), kDelay);
    expectPause(recorder->TimeOf(undockHost(kSecond)), returned, kModePause);
    EXPECT_GE(sinceWrite, kModePause);
    EXPECT_EQ(ReadFile(kFirst), "host\n");
}

TEST_F(DisplayLinkDock, AsksForExactlyItsPauses) {
    attachDisplayLink();
    setSupplies("1\n", "0\n");
    UsbDevice::usb_host_reset(30);
    EXPECT_THAT(pauses, ElementsAre(milliseconds(30), kModePause));
}

TEST_F(DisplayLinkDock, IsSwitchedOnAgainOnDcPower) {
    attachDisplayLink();
    setSupplies("0\n", "1\n");
    record();
    UsbDevice::usb_host_reset(1);
    const Clock::time_point returned = Clock::now();
    const microseconds sinceWrite = timeSinceWriteOf(kSecond);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound + kSwitchedOff +
                                         usbPower("0\n", "0") + dcPower("1\n", "1") + kSwitchedOn);
    expectPause(recorder->TimeOf(undockHost(kSecond)), returned, kModePause);
    EXPECT_GE(sinceWrite, kModePause);
}

TEST_F(DisplayLinkDock, StaysOffOnBattery) {
    attachDisplayLink();
    setSupplies("0\n", "0\n");
    record();
    UsbDevice::usb_host_reset(1);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound + kSwitchedOff +
                                         usbPower("0\n", "0") + dcPower("0\n", "0") +
                                         Texts{kStaysOff});
    EXPECT_EQ(ReadFile(kSecond), "none\n");
    EXPECT_FALSE(Exists(std::string(kPropertyDirectory) + "/" + kUndock));
}

TEST_F(DisplayLinkDock, LooksAtThePowerOnlyWhenTheDelayIsOver) {
    struct {
        const char* changed;
        const char* online;
        Texts end;
    } const cases[] = {
            {kUsbSupply, "1\n", usbPower("1\n", "1") + kSwitchedOn},
            {kDcSupply, "1\n", usbPower("0\n", "0") + dcPower("1\n", "1") + kSwitchedOn},
    };
    for (const auto& [changed, online, end] : cases) {
        SCOPED_TRACE(changed);
        UsbDevice::DeviceIdMap.clear();
        attachDisplayLink();
        setSupplies("0\n", "0\n");
        record();
        const std::future<void> reset = std::async(
                std::launch::async, [] { UsbDevice::usb_host_reset(kLongDelay.count()); });
        ASSERT_TRUE(recorder->WaitFor(undockNone(kSecond)));
        WriteFile(changed, online);
        reset.wait();
        EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound + kSwitchedOff + end);
        recorder.reset();
    }
}

TEST_F(DisplayLinkDock, StaysOffWithoutAUsbSupply) {
    attachDisplayLink();
    WriteFile(kDcSupply, "1\n");
    record();
    UsbDevice::usb_host_reset(1);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound + kSwitchedOff);
    EXPECT_EQ(ReadFile(kSecond), "none\n");
}

TEST_F(DisplayLinkDock, TakesExactlyOneForUsbPower) {
    struct {
        const char* text;
        const char* value;
    } const cases[] = {{"1", "1"},
                       {"1abc", "1"},
                       {" 1", "1"},
                       {"+1", "1"},
                       {"0001", "1"},
                       {"1.9", "1"},
                       {"2", "2"},
                       {"-1", "-1"},
                       {"10", "10"},
                       {"0x1", "0"},
                       {"00", "0"},
                       {"2147483647", "2147483647"},
                       {"-2147483648", "-2147483648"}};
    attachDisplayLink();
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        setSupplies(text, "0");
        WriteFile(kSecond, "host\n");
        record();
        UsbDevice::usb_host_reset(1);
        const Texts end =
                value == std::string("1") ? kSwitchedOn : dcPower("0", "0") + Texts{kStaysOff};
        EXPECT_EQ(recorder->Texts(),
                  Texts{kEntered} + kDisplayLinkFound + kSwitchedOff + usbPower(text, value) + end);
        recorder.reset();
    }
}

TEST_F(DisplayLinkDock, TakesExactlyOneForDcPower) {
    struct {
        const char* text;
        const char* value;
    } const cases[] = {{"1abc", "1"}, {" 1", "1"},  {"2", "2"},
                       {"-1", "-1"},  {"10", "10"}, {"0x1", "0"}};
    attachDisplayLink();
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        setSupplies("0", text);
        WriteFile(kSecond, "host\n");
        record();
        UsbDevice::usb_host_reset(1);
        EXPECT_EQ(recorder->Texts(),
                  Texts{kEntered} + kDisplayLinkFound + kSwitchedOff + usbPower("0", "0") +
                          dcPower(text, value) +
                          (value == std::string("1") ? kSwitchedOn : Texts{kStaysOff}));
        recorder.reset();
    }
}

TEST_F(DisplayLinkDock, ReadsNoMoreOfASupplyThanItsBufferHolds) {
    attachDisplayLink();
    const std::string text = "1" + TextOf(5000);
    setSupplies(text, "0");
    UsbDevice::usb_host_reset(1);
    EXPECT_EQ(log.CountOf(Info("USB charging_state val " + text.substr(0, 4095))), 1);
}

TEST_F(DisplayLinkDock, EndsTheProcessWhenTheUsbSupplyIsNoNumber) {
    struct {
        std::string text;
        std::string line;
        const char* exception;
    } const cases[] = {
            {"", "E Unable to read from sysfs path0\nI USB charging_state val \n",
             "std::invalid_argument"},
            {"\n", "I USB charging_state val \n", "std::invalid_argument"},
            {"on\n", "I USB charging_state val on\n", "std::invalid_argument"},
            {"-\n", "I USB charging_state val -\n", "std::invalid_argument"},
            {"2147483648\n", "I USB charging_state val 2147483648\n", "std::out_of_range"},
            {"-2147483649\n", "I USB charging_state val -2147483649\n", "std::out_of_range"},
            {"99999999999999999999\n", "I USB charging_state val 99999999999999999999\n",
             "std::out_of_range"},
    };
    attachDisplayLink();
    for (const auto& [text, line, exception] : cases) {
        SCOPED_TRACE(text);
        setSupplies(text, "1\n");
        WriteFile(kSecond, "host\n");
        const ProcessResult child = RunInChild([] { UsbDevice::usb_host_reset(1); });
        EXPECT_EQ(child.status, -1);
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_THAT(child.err,
                    AllOf(HasSubstr(std::string("for syspath: ") + kSecond + "\n" + line),
                          HasSubstr(exception), Not(HasSubstr("power_supply_state"))));
        EXPECT_EQ(ReadFile(kSecond), "none\n");
    }
}

TEST_F(DisplayLinkDock, EndsTheProcessWhenTheDcSupplyIsNoNumber) {
    struct {
        const char* text;
        const char* lines;
        const char* exception;
    } const cases[] = {
            {nullptr,
             "E Unable to open sysfs path for reading/sys/class/power_supply/dc/online\n"
             "I DC charging_state val \n",
             "std::invalid_argument"},
            {"", "E Unable to read from sysfs path0\nI DC charging_state val \n",
             "std::invalid_argument"},
            {"off\n", "I DC charging_state val off\n", "std::invalid_argument"},
            {"4294967297\n", "I DC charging_state val 4294967297\n", "std::out_of_range"},
    };
    attachDisplayLink();
    for (const auto& [text, lines, exception] : cases) {
        SCOPED_TRACE(lines);
        WriteFile(kUsbSupply, "0\n");
        Remove(kDcSupply);
        if (text != nullptr) WriteFile(kDcSupply, text);
        WriteFile(kSecond, "host\n");
        const ProcessResult child = RunInChild([] { UsbDevice::usb_host_reset(1); });
        EXPECT_EQ(child.status, -1);
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_THAT(child.err,
                    AllOf(HasSubstr(std::string("I power_supply_state val 0\n"
                                                "I virtual_undock_dock_event check for dc charge "
                                                "state\n") +
                                    lines),
                          HasSubstr(exception), Not(HasSubstr("DC power_supply_state"))));
        EXPECT_EQ(ReadFile(kSecond), "none\n");
    }
}

TEST_F(DisplayLinkDock, StopsWithoutAModeFile) {
    attachDisplayLink();
    Remove(kSecond);
    setSupplies("1\n", "1\n");
    record();
    UsbDevice::usb_host_reset(60000);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound);
    EXPECT_FALSE(Exists(kSecond));
}

TEST_F(DisplayLinkDock, StopsWhenTheControllerIsNotInHostMode) {
    attachDisplayLink();
    setSupplies("1\n", "1\n");
    for (const char* mode : {"peripheral\n", "none\n", "hos", "Host\n", " host\n"}) {
        SCOPED_TRACE(mode);
        WriteFile(kSecond, mode);
        record();
        UsbDevice::usb_host_reset(60000);
        EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound);
        EXPECT_EQ(ReadFile(kSecond), mode);
        recorder.reset();
    }
}

TEST_F(DisplayLinkDock, StopsWhenTheModeCannotBeRead) {
    attachDisplayLink();
    WriteFile(kSecond, "");
    setSupplies("1\n", "1\n");
    record();
    UsbDevice::usb_host_reset(60000);
    EXPECT_EQ(recorder->Texts(), Texts{kEntered} + kDisplayLinkFound +
                                         Texts{error("Unable to read from sysfs path0")});
}

TEST_F(DisplayLinkDock, WritesFourCharacters) {
    attachDisplayLink();
    WriteFile(kSecond, "hostess");
    setSupplies("1\n", "0\n");
    record();
    UsbDevice::usb_host_reset(1);
    EXPECT_EQ(recorder->Texts(),
              (Texts{kEntered} + kDisplayLinkFound +
               Texts{Wrote(kSecond, "noneess"), undockNone(kSecond)} + usbPower("1\n", "1") +
               Texts{undockHost(kSecond), Wrote(kSecond, "hostess")}));
}

TEST_F(DisplayLinkDock, GoesOnWhenTheModeCannotBeWritten) {
    attachDisplayLink();
    Remove(kSecond);
    const android::base::unique_fd mode = sealedFile("host\n");
    MakeLink(kSecond, "/proc/self/fd/" + std::to_string(mode.get()));
    setSupplies("1\n", "0\n");
    record();
    UsbDevice::usb_host_reset(1);
    const std::string failure = error("Unable to write to sysfs path-1");
    EXPECT_EQ(recorder->Texts(),
              (Texts{kEntered} + kDisplayLinkFound + Texts{failure, undockNone(kSecond)} +
               usbPower("1\n", "1") + Texts{undockHost(kSecond), failure}));
}

TEST_F(DisplayLinkDock, SwitchesAControllerThatIsOnNoList) {
    const std::string directory = "/sys/devices/platform/soc/a600000.usb";
    const std::string mode = directory + "/mode";
    attachDisplayLink();
    WriteFile(kDevspec, "/soc/usb@a600000/dwc3@a600000\n");
    WriteFile(mode, "host\n");
    setSupplies("1\n", "0\n");
    record({directory});
    UsbDevice::usb_host_reset(1);
    EXPECT_THAT(recorder->Texts(), testing::Contains(Wrote(mode, "none\n")).Times(1));
    EXPECT_THAT(recorder->Texts(), testing::Contains(Wrote(mode, "host\n")).Times(1));
    EXPECT_THAT(recorder->Texts(), Not(testing::Contains(StartsWith(kSecondDirectory))));
}

TEST_F(DisplayLinkDock, WritesNothingWithoutADevspec) {
    attachDisplayLink();
    WriteFile(kFirst, "host\n");
    setSupplies("1\n", "1\n");
    Remove(kDevspec);
    record();
    UsbDevice::usb_host_reset(60000);
    EXPECT_THAT(recorder->Texts(),
                ElementsAre(kEntered, kDisplayLinkFound[0],
                            error(std::string("Unable to open sysfs path for reading") + kDevspec),
                            info("virtual_undock_dock_event usbPath : "), kForDisplayLink));
}

TEST_F(DisplayLinkDock, WritesNothingForADevspecWithoutAController) {
    attachDisplayLink();
    WriteFile(kFirst, "host\n");
    setSupplies("1\n", "1\n");
    WriteFile(kDevspec, "(null)\n");
    record();
    UsbDevice::usb_host_reset(60000);
    EXPECT_THAT(recorder->Texts(),
                ElementsAre(kEntered, kDisplayLinkFound[0],
                            info("get_displaylink_soc_path devspec_val : (null)"), info(""),
                            info("virtual_undock_dock_event usbPath : "), kForDisplayLink));
}

TEST_F(DisplayLinkDock, WaitsThroughADelayWhoseMicrosecondsNeedMoreThan32Bits) {
    attachDisplayLink();
    setSupplies("1\n", "0\n");
    const ProcessResult child = RunInChild([] {
        LogCapture log;
        WriteRecorder recorder(&log, {kSecondDirectory});
        std::thread([] { UsbDevice::usb_host_reset(4294968); }).detach();
        CHECK(recorder.WaitFor(undockNone(kSecond)));
        printf("looked %d", recorder.WaitFor(usbPower("1\n", "1")[0], 1, milliseconds(300)));
    });
    EXPECT_EQ(child.signal, 0) << child.err;
    EXPECT_EQ(child.out, "looked 0");
    EXPECT_EQ(ReadFile(kSecond), "none\n");
}

// --- The poll thread ---------------------------------------------------------------------------

using DcSupplyPoll = ResetTest;

TEST_F(DcSupplyPoll, ReadsEvery400MillisecondsUntilTheSupplyDrops) {
    WriteFile(kDcSupply, "1");
    record();
    std::vector<std::chrono::nanoseconds> asked;
    std::future<void*> end = std::async(std::launch::async, [&] {
        void* const result = UsbDevice::registersysfsObserver(nullptr);
        asked = pauses;
        return result;
    });
    ASSERT_TRUE(recorder->WaitFor(polled("1"), 2));
    WriteFile(kDcSupply, "0");
    EXPECT_EQ(end.get(), nullptr);
    EXPECT_THAT(asked, ElementsAre(kPollPause, kPollPause));
    EXPECT_EQ(recorder->Texts(),
              (Texts{polled("1"), polled("1"), polled("0"), kPollSawUndock} + kDockAnnounced));
    expectPause(recorder->TimeOf(polled("1")), recorder->TimeOf(polled("1"), 2), kPollPause);
    expectPause(recorder->TimeOf(polled("1"), 2), recorder->TimeOf(polled("0")), kPollPause);
}

TEST_F(DcSupplyPoll, GoesOnAfterAReadThatFails) {
    WriteFile(kDcSupply, "0");
    UsbDevice::usb_host_reset(1);
    Remove(kDcSupply);
    record();
    std::future<void*> end = std::async(std::launch::async,
                                        [] { return UsbDevice::registersysfsObserver(nullptr); });
    ASSERT_TRUE(recorder->WaitFor(polled("")));
    WriteFile(kDcSupply, "0");
    EXPECT_EQ(end.get(), nullptr);
    EXPECT_EQ(recorder->Texts(),
              (Texts{error(std::string("Unable to open sysfs path for reading") + kDcSupply),
                     polled(""), polled("0"), kPollSawUndock} +
               kDockAnnounced));
}

TEST_F(DcSupplyPoll, LogsTheWholeValueAndLooksAtItsFirstCharacter) {
    WriteFile(kDcSupply, "0 offline\n");
    record();
    UsbDevice::readSysfsChangeEvent();
    EXPECT_EQ(recorder->Texts(),
              infos(std::string("readSysfsChangeEvent:polling for power_val ") + kDcSupply +
                    "power_val:0 offline\n") +
                      infos("readSysfsChangeEvent: undocked power_val0 offline\n") +
                      kDockAnnounced);
}

TEST_F(DcSupplyPoll, EndsAtOnceWhenTheVirtualDockIsOver) {
    WriteFile(kDcSupply, "1");
    record();
    UsbDevice::usb_host_reset(1);
    ASSERT_TRUE(recorder->WaitFor(kPollEnded));
    WriteFile(kDcSupply, "0");
    recorder->Take();
    EXPECT_EQ(UsbDevice::registersysfsObserver(&log), nullptr);
    EXPECT_THAT(recorder->Texts(), ElementsAre(kPollEnded));
}

TEST_F(DcSupplyPoll, RunsOnAThreadOfItsOwn) {
    WriteFile(kDcSupply, "0");
    record();
    UsbDevice::registersysfsObserverViaThread();
    ASSERT_TRUE(recorder->WaitFor(Set(kReset, "1")));
    EXPECT_THAT(pollLines(), ElementsAre(polled("0"), kPollSawUndock));
    EXPECT_THAT(recorder->Texts(), testing::Contains(kThreadStarted).Times(1));
}

}  // namespace android::kus::test
