// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/watch.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tools/fake_daemon.h"

namespace android::kus::tools {
namespace {

using Lines = std::vector<std::string>;

class Watch : public testing::Test {
  protected:
    sp<WatchCallback> callback(int32_t limit) {
        return new WatchCallback(
                [sink = sink()](const char* event, const DeviceInfo& device) {
                    sink(eventObject(event, device).str());
                },
                limit, [this] { atLimit_++; });
    }

    LineSink sink() {
        return [this](const std::string& line) { lines_.push_back(line); };
    }

    WatchSession session() { return WatchSession(daemon_, callback(0), sink()); }

    const sp<FakeDaemon> daemon_ = new FakeDaemon();
    Lines lines_;
    int atLimit_ = 0;
};

TEST_F(Watch, EachEventIsALineWithTheWholeRecord) {
    DeviceInfo info;
    info.deviceName = "Stick";
    info.deviceId = 3002;
    info.interfaceClasses = {8};
    info.status = 1;
    info.reason = "Enabled by default rule";
    info.category = 4;
    info.categoryPath = "sdcard;";
    const sp<WatchCallback> watch = callback(0);
    EXPECT_TRUE(watch->onDeviceAdded(info).isOk());
    EXPECT_TRUE(watch->onDeviceRemoved(DeviceInfo()).isOk());
    EXPECT_EQ(Lines({"{\"event\":\"added\",\"deviceName\":\"Stick\",\"deviceId\":3002,"
                     "\"deviceClass\":0,\"interfaceClasses\":[8],\"vendorId\":0,\"productId\":0,"
                     "\"status\":1,\"deviceType\":0,\"reason\":\"Enabled by default rule\","
                     "\"category\":4,\"categoryPath\":\"sdcard;\"}",
                     "{\"event\":\"removed\",\"deviceName\":\"\",\"deviceId\":0,"
                     "\"deviceClass\":0,\"interfaceClasses\":[],\"vendorId\":0,\"productId\":0,"
                     "\"status\":0,\"deviceType\":0,\"reason\":\"\",\"category\":0,"
                     "\"categoryPath\":\"\"}"}),
              lines_);
}

TEST_F(Watch, LimitIsToldOnceAndLaterEventsAreNot) {
    const sp<WatchCallback> watch = callback(2);
    watch->onDeviceAdded(DeviceInfo());
    EXPECT_EQ(0, atLimit_);
    watch->onDeviceRemoved(DeviceInfo());
    EXPECT_EQ(1, atLimit_);
    watch->onDeviceAdded(DeviceInfo());
    EXPECT_EQ(1, atLimit_);
    EXPECT_EQ(2U, lines_.size());
}

TEST_F(Watch, EventsOfManyThreadsAreTakenOneAtATime) {
    constexpr int kThreads = 4;
    constexpr int kEvents = 250;
    const sp<WatchCallback> watch = callback(kThreads * kEvents);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&watch] {
            for (int event = 0; event < kEvents; event++) watch->onDeviceAdded(DeviceInfo());
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(static_cast<size_t>(kThreads * kEvents), lines_.size());
    EXPECT_EQ(1, atLimit_);
}

TEST_F(Watch, StartRegistersAsOftenAsAskedAndAnswersOnce) {
    WatchSession watch = session();
    EXPECT_TRUE(watch.start(3));
    EXPECT_EQ(3U, daemon_->callbacks.size());
    EXPECT_EQ(Lines({"registered"}), lines_);
}

TEST_F(Watch, StartWithoutRegistrationsCallsNobody) {
    WatchSession watch = session();
    EXPECT_TRUE(watch.start(0));
    EXPECT_EQ(Lines({"registered"}), lines_);
    EXPECT_EQ(Lines(), daemon_->takeCalls());
}

TEST_F(Watch, StartTellsOfADaemonThatDoesNotAnswer) {
    daemon_->answer = binder::Status::fromStatusT(DEAD_OBJECT);
    WatchSession watch = session();
    EXPECT_FALSE(watch.start(3));
    EXPECT_EQ(Lines({"register"}), daemon_->takeCalls());
    ASSERT_EQ(1U, lines_.size());
    EXPECT_EQ(0U, lines_[0].find("failed: "));
}

TEST_F(Watch, CommandsRegisterAndUnregisterTheSameCallback) {
    WatchSession watch = session();
    watch.start(1);
    watch.command("register");
    ASSERT_EQ(2U, daemon_->callbacks.size());
    EXPECT_EQ(daemon_->callbacks[0], daemon_->callbacks[1]);
    watch.command("unregister");
    watch.command("unregister");
    EXPECT_EQ(0U, daemon_->callbacks.size());
    // Once more than it was registered.
    watch.command("unregister");
    EXPECT_EQ(Lines({"registered", "registered", "unregistered", "unregistered", "unregistered"}),
              lines_);
    EXPECT_EQ(5U, daemon_->takeCalls().size());
}

TEST_F(Watch, UnknownCallbackIsAnotherOne) {
    WatchSession watch = session();
    watch.start(1);
    watch.command("unregister-unknown");
    EXPECT_EQ(1U, daemon_->callbacks.size());
    EXPECT_EQ(Lines({"register", "unregister"}), daemon_->takeCalls());
    EXPECT_EQ(Lines({"registered", "unregistered-unknown"}), lines_);
}

TEST_F(Watch, UnknownCommandIsAnsweredAndCallsNobody) {
    WatchSession watch = session();
    watch.command("jump");
    watch.command("");
    EXPECT_EQ(Lines({"unknown command: jump", "unknown command: "}), lines_);
    EXPECT_EQ(Lines(), daemon_->takeCalls());
}

TEST_F(Watch, FinishTakesBackWhatIsLeft) {
    WatchSession watch = session();
    watch.start(3);
    watch.command("unregister");
    daemon_->takeCalls();
    watch.finish();
    EXPECT_EQ(Lines({"unregister", "unregister"}), daemon_->takeCalls());
    EXPECT_EQ(0U, daemon_->callbacks.size());
}

TEST_F(Watch, FinishStopsAtADaemonThatDoesNotAnswer) {
    WatchSession watch = session();
    watch.start(2);
    daemon_->takeCalls();
    daemon_->answer = binder::Status::fromStatusT(DEAD_OBJECT);
    watch.finish();
    EXPECT_EQ(Lines({"unregister"}), daemon_->takeCalls());
}

}  // namespace
}  // namespace android::kus::tools
