// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/event_queue.h"

#include <poll.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

DeviceInfo deviceWithId(int32_t id) {
    DeviceInfo device;
    device.deviceId = id;
    return device;
}

bool isReadable(const EventQueue& queue) {
    pollfd waiting = {queue.fd(), POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
}

TEST(EventQueue, HandsOutEachEventOnceAndInOrder) {
    EventQueue queue;
    queue.put("added", deviceWithId(1));
    queue.put("removed", deviceWithId(2));
    queue.put("added", deviceWithId(1));
    const std::vector<DeviceEvent> events = queue.take();
    ASSERT_EQ(3U, events.size());
    EXPECT_EQ("added", events[0].event);
    EXPECT_EQ(1, events[0].device.deviceId);
    EXPECT_EQ("removed", events[1].event);
    EXPECT_EQ(2, events[1].device.deviceId);
    EXPECT_EQ(1, events[2].device.deviceId);
    EXPECT_TRUE(queue.take().empty());
}

TEST(EventQueue, IsReadableWhileThereAreEvents) {
    EventQueue queue;
    EXPECT_FALSE(isReadable(queue));
    queue.put("added", deviceWithId(1));
    queue.put("added", deviceWithId(2));
    EXPECT_TRUE(isReadable(queue));
    queue.take();
    EXPECT_FALSE(isReadable(queue));
    queue.put("added", deviceWithId(3));
    EXPECT_TRUE(isReadable(queue));
}

TEST(EventQueue, TimeIsThatOfTheCallWhereTheTerminalIs) {
    setenv("TZ", "KUS-5:30", 1);
    tzset();
    const time_t before = time(nullptr);
    EventQueue queue;
    queue.put("added", deviceWithId(1));
    const time_t after = time(nullptr);
    const std::string told = queue.take()[0].time;
    bool found = false;
    for (time_t second = before; second <= after; second++) {
        const time_t ofDay = (second + 19800) % 86400;
        char text[16];
        (void)snprintf(text, sizeof(text), "%02d:%02d:%02d", static_cast<int>(ofDay / 3600),
                       static_cast<int>(ofDay / 60 % 60), static_cast<int>(ofDay % 60));
        found = found || told == text;
    }
    EXPECT_TRUE(found) << told;
}

TEST(EventQueue, LosesNothingOfManyThreads) {
    constexpr size_t kThreads = 4;
    constexpr int kEvents = 250;
    EventQueue queue;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (size_t i = 0; i < kThreads; i++) {
        threads.emplace_back([&queue] {
            for (int id = 0; id < kEvents; id++) queue.put("added", deviceWithId(id));
        });
    }
    size_t taken = 0;
    while (taken < kThreads * kEvents) {
        pollfd waiting = {queue.fd(), POLLIN, 0};
        constexpr int kLongMs = 20000;
        ASSERT_EQ(1, poll(&waiting, 1, kLongMs));
        taken += queue.take().size();
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kThreads * kEvents, taken);
    EXPECT_TRUE(queue.take().empty());
}

}  // namespace
}  // namespace android::kus::tools
