// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <android/kus/DeviceInfo.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <utils/StrongPointer.h>

namespace android::kus::hostile {

/**
 * Sends the daemon transactions that no generated code would; which ones follows from the seed.
 * For one thread, in a process with a thread pool: the daemon calls back.
 */
class Fuzzer {
  public:
    /** |service| is the daemon's binder, |stranger| that of another process. */
    Fuzzer(const sp<IBinder>& service, const sp<IBinder>& stranger, uint32_t seed);
    ~Fuzzer();
    Fuzzer(const Fuzzer&) = delete;
    Fuzzer& operator=(const Fuzzer&) = delete;

    /** Sends |count| transactions. Returns early, and false, if the daemon dies. */
    bool run(uint32_t count);

    /**
     * Returns when the daemon has carried out all that it was sent, one-way calls included, and
     * has neither a registration nor a record left of it. False if the daemon does not answer.
     */
    bool cleanUp();

    /** How many transactions ended with which status: "OK: 5, UNKNOWN_TRANSACTION: 2". */
    std::string outcomes() const;

  private:
    struct Message {
        uint32_t code = 0;
        Parcel data;
    };

    // What there is to choose from.
    uint32_t below(uint32_t limit);
    bool oneIn(uint32_t chances) { return below(chances) == 0; }
    int32_t number();
    std::string text();
    DeviceInfo device();
    uint32_t operation();
    uint32_t anyCode();
    int descriptor();

    // Parts of a message.
    void addToken(Message* message);
    void addGarbage(Message* message, uint32_t limit);
    size_t addBinder(Message* message);
    void addArguments(Message* message);
    void distort(Message* message, size_t from);

    // Whole messages.
    void makeGarbage(Message* message);
    void makeOperation(Message* message);
    void makeRegistryCall(Message* message);
    void makeDeviceCall(Message* message);
    void makeListCall(Message* message);
    void makeResetCall(Message* message);
    void makeDump(Message* message);
    void makeShellCommand(Message* message);
    void make(Message* message);

    status_t send(const Message& message);
    bool removeRecords();
    void unregisterAll();
    bool awaitOneWayCalls();

    const sp<IBinder> service_;
    // Null is one of them.
    const std::array<sp<IBinder>, 5> binders_;
    std::array<uint32_t, 5> registrations_{};
    std::mt19937 random_;
    base::unique_fd null_;
    base::unique_fd pipe_;
    std::thread reader_;
    std::map<status_t, uint32_t> outcomes_;
};

}  // namespace android::kus::hostile
