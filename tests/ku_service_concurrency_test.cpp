// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Who waits for whom: nobody for a client that hangs, for a reader that does not read or for a
// controller, but the one call that has to do with it. What many threads come to together is
// ku_service_stress_test.cpp's.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "android/kus/ku_service.h"
#include "tests/support/fake_callback.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"

namespace android::kus::test {

namespace {

using android::base::unique_fd;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr std::chrono::seconds kPatience(20);
constexpr char kFirstMode[] = "/sys/devices/platform/soc/c200000.hsusb/mode";
constexpr char kDcSupply[] = "/sys/class/power_supply/dc/online";
// The device that an unusual client is told of; the operations' own have other ids.
constexpr int kAnnounced = 7777;

DeviceInfo makeDevice(int id, int type) {
    DeviceInfo info;
    info.deviceId = id;
    info.deviceName = "device";
    info.deviceType = type;
    if (type == 0) info.interfaceClasses = {8};
    return info;
}

/** Keeps one thread until the test lets it go. */
class Gate {
  public:
    /** For the thread that is to be kept. */
    void Pass() {
        arrived_.set_value();
        opened_.get_future().wait();
    }

    bool WaitForArrival() {
        return arrived_.get_future().wait_for(kPatience) == std::future_status::ready;
    }

    void Open() { opened_.set_value(); }

  private:
    std::promise<void> arrived_;
    std::promise<void> opened_;
};

/** Tries again and again; false when it takes too long. */
bool eventually(const std::function<bool()>& isSo) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!isSo()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

class ConcurrencyTest : public ServiceTest {
  protected:
    using Operation = std::pair<const char*, std::function<void()>>;

    bool Decide(const DeviceInfo& info) {
        bool allowed = false;
        EXPECT_TRUE(service->isDeviceAllowed(info, &allowed).isOk());
        return allowed;
    }

    status_t Dump(int fd, const std::vector<std::string>& arguments = {}) {
        Vector<String16> args;
        for (const std::string& argument : arguments) args.add(String16(argument.c_str()));
        return service->dump(fd, args);
    }

    std::string Dumped(const std::vector<std::string>& arguments = {}) {
        const TemporaryFile file;
        EXPECT_EQ(OK, Dump(file.fd, arguments));
        return ReadFile(file.path);
    }

    /** All that a client can do to the service and that must not wait. */
    std::vector<Operation> Operations() {
        const sp<FakeCallback> passing = MakeClient();
        return {{"list", [this] { EXPECT_THAT(Devices(), SizeIs(Ge(1U))); }},
                {"decision about an input device",
                 [this] { EXPECT_TRUE(Decide(makeDevice(101, 1))); }},
                {"decision about a USB device",
                 [this] { EXPECT_TRUE(Decide(makeDevice(102, 0))); }},
                {"addition",
                 [this] { EXPECT_TRUE(service->updateDeviceList(makeDevice(102, 0), 1).isOk()); }},
                {"dump of the lists",
                 [this] { EXPECT_THAT(Dumped(), HasSubstr("DeviceID : 102\n")); }},
                {"dump of what sysfs shows",
                 [this] { EXPECT_THAT(Dumped({"test"}), StartsWith("USB Test \n")); }},
                {"removal of an input device",
                 [this] { EXPECT_TRUE(service->updateDeviceList(makeDevice(101, 1), 0).isOk()); }},
                {"removal of a USB device",
                 [this] { EXPECT_TRUE(service->updateDeviceList(makeDevice(102, 0), 0).isOk()); }},
                {"registration",
                 [=] { EXPECT_TRUE(service->registerKusCallback(passing).isOk()); }},
                {"removal of a registration",
                 [=] { EXPECT_TRUE(service->unregisterKusCallback(passing).isOk()); }},
                {"death", [=] {
                     EXPECT_TRUE(service->registerKusCallback(passing).isOk());
                     passing->Die();
                 }}};
    }

    void SetUp() override {
        ServiceTest::SetUp();
        Remove("/sys/class");
        // Something to list.
        Decide(makeDevice(100, 1));
    }

    /** Does all that, each on a thread of its own; let is called when one did not come back. */
    void ExpectNothingWaits(const std::function<void()>& let) {
        for (const auto& [name, operation] : Operations()) {
            const std::future<void> done = std::async(std::launch::async, operation);
            if (done.wait_for(kPatience) == std::future_status::ready) continue;
            ADD_FAILURE() << "waits: " << name;
            let();
            return;
        }
        let();
    }
};

// --- A client that hangs -----------------------------------------------------------------------

class HangingClient : public ConcurrencyTest {
  protected:
    void SetUp() override {
        ConcurrencyTest::SetUp();
        client = AddClient();
        client->onEvent = [this](const FakeCallback::Event& event) {
            if (event.device.deviceId == kAnnounced) gate.Pass();
        };
    }

    sp<FakeCallback> client;
    Gate gate;
};

TEST_F(HangingClient, HoldsUpNobodyButTheDecisionThatItIsToldOf) {
    const auto decision = std::async(std::launch::async,
                                     [this] { EXPECT_TRUE(Decide(makeDevice(kAnnounced, 0))); });
    ASSERT_TRUE(gate.WaitForArrival());
    ExpectNothingWaits([this] {
        // It is listed when all clients have heard.
        EXPECT_THAT(Devices(), SizeIs(1));
        gate.Open();
    });
    decision.wait();
    EXPECT_THAT(Devices(), SizeIs(2));
    std::vector<std::string> heard;
    for (const FakeCallback::Event& event : client->Events()) {
        heard.push_back((event.added ? "+" : "-") + std::to_string(event.device.deviceId));
    }
    EXPECT_THAT(heard, ElementsAre("+7777", "+102", "-102"));
}

TEST_F(HangingClient, HoldsUpNobodyButTheRemovalThatItIsToldOf) {
    const auto removal = std::async(std::launch::async, [this] {
        EXPECT_TRUE(service->updateDeviceList(makeDevice(kAnnounced, 0), 0).isOk());
    });
    ASSERT_TRUE(gate.WaitForArrival());
    ExpectNothingWaits([this] { gate.Open(); });
    removal.wait();
}

TEST_F(HangingClient, MayDieMeanwhile) {
    const auto decision = std::async(std::launch::async,
                                     [this] { EXPECT_TRUE(Decide(makeDevice(kAnnounced, 0))); });
    ASSERT_TRUE(gate.WaitForArrival());
    client->Die();
    ExpectNothingWaits([this] { gate.Open(); });
    decision.wait();
    EXPECT_THAT(client->Events(), SizeIs(1));
}

// --- A client that calls back ------------------------------------------------------------------

using CallingClient = ConcurrencyTest;

TEST_F(CallingClient, MayDoAnythingOnItsOwnThread) {
    const sp<FakeCallback> client = AddClient();
    int done = 0;
    client->onEvent = [&](const FakeCallback::Event& event) {
        if (event.device.deviceId != kAnnounced) return;
        for (const auto& [name, operation] : Operations()) {
            operation();
            ++done;
        }
    };
    EXPECT_TRUE(Decide(makeDevice(kAnnounced, 0)));
    EXPECT_EQ(Operations().size(), static_cast<size_t>(done));
}

TEST_F(CallingClient, MayDoAnythingOnAnotherThread) {
    const sp<FakeCallback> client = AddClient();
    client->onEvent = [&](const FakeCallback::Event& event) {
        if (event.device.deviceId == kAnnounced) ExpectNothingWaits([] {});
    };
    EXPECT_TRUE(Decide(makeDevice(kAnnounced, 0)));
    EXPECT_TRUE(service->updateDeviceList(makeDevice(kAnnounced, 0), 0).isOk());
}

TEST_F(CallingClient, MayRegisterItselfAgainAndIsToldOfTheNextDeviceTwice) {
    const sp<FakeCallback> client = AddClient();
    client->onEvent = [&](const FakeCallback::Event& event) {
        if (event.device.deviceId == kAnnounced) service->registerKusCallback(client);
    };
    EXPECT_TRUE(Decide(makeDevice(kAnnounced, 0)));
    EXPECT_THAT(client->Events(), SizeIs(1));
    EXPECT_TRUE(Decide(makeDevice(1, 0)));
    EXPECT_THAT(client->Events(), SizeIs(3));
}

// --- A reader that does not read ---------------------------------------------------------------

class UnreadDump : public ConcurrencyTest {
  protected:
    void SetUp() override {
        ConcurrencyTest::SetUp();
        int ends[2];
        ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
        reader_.reset(ends[0]);
        writer_.reset(ends[1]);
        // The smallest that there is.
        ASSERT_NE(-1, fcntl(writer_, F_SETPIPE_SZ, 1));
    }

    /** Has a dump fill the pipe; nothing else waits; then it is read, and the text returned. */
    std::string DumpWithoutReader(const std::vector<std::string>& arguments) {
        const int pipe = writer_.get();
        const auto dump = std::async(std::launch::async, [&] {
            EXPECT_EQ(OK, Dump(pipe, arguments));
            writer_.reset();
        });
        EXPECT_TRUE(eventually([pipe] { return isFull(pipe); }));
        std::string text;
        ExpectNothingWaits([&] { EXPECT_TRUE(base::ReadFdToString(reader_, &text)); });
        dump.wait();
        return text;
    }

  private:
    static bool isFull(int pipe) {
        pollfd fd = {pipe, POLLOUT, 0};
        return poll(&fd, 1, 0) == 0;
    }

    unique_fd reader_;
    unique_fd writer_;
};

TEST_F(UnreadDump, OfTheListsHoldsUpNobody) {
    // More than any pipe takes that has its usual size.
    for (int id = 200; id < 300; ++id) {
        DeviceInfo info = makeDevice(id, id % 2);
        info.deviceName = std::string(1000, 'n');
        EXPECT_TRUE(Decide(info));
    }
    const std::string before = Dumped();
    ASSERT_LT(65536U, before.size());
    EXPECT_EQ(before, DumpWithoutReader({}));
}

TEST_F(UnreadDump, OfWhatSysfsShowsHoldsUpNobody) {
    AddBus(1);
    for (int number = 2; number < 40; ++number) {
        const std::string name = "1-" + std::to_string(number);
        AddDevice(name, 1, number, "1234", "5678");
        AddInterface(name + ":1.0", "08");
    }
    const std::string before = Dumped({"test"});
    ASSERT_LT(8192U, before.size());
    EXPECT_EQ(before, DumpWithoutReader({"test"}));
}

// --- A controller that takes its time ----------------------------------------------------------

class BlockedReset : public ConcurrencyTest {
  protected:
    /** A file whose reader waits until the test lets it go. */
    void MakeBlocking(const std::string& path) {
        path_ = path;
        WriteFile(path, "");
        Remove(path);
        ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    }

    /** Has a reset wait for the file, and nothing else. */
    void ExpectNothingWaitsForReset(int32_t value) {
        const auto reset = std::async(std::launch::async,
                                      [&] { EXPECT_TRUE(service->resetUsbDevices(value).isOk()); });
        unique_fd writer;
        // Without a reader there it cannot be opened so.
        ASSERT_TRUE(eventually([&] {
            writer.reset(open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            return writer != -1;
        }));
        ExpectNothingWaits([&] {
            EXPECT_TRUE(base::WriteStringToFd("0", writer));
            writer.reset();
        });
        reset.wait();
    }

  private:
    std::string path_;
};

TEST_F(BlockedReset, HoldsUpNobody) {
    MakeBlocking(kFirstMode);
    ExpectNothingWaitsForReset(0);
}

TEST_F(BlockedReset, HoldsUpNobodyAsAVirtualDock) {
    MakeBlocking(kDcSupply);
    ExpectNothingWaitsForReset(1);
}

}  // namespace

}  // namespace android::kus::test
