// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// kus-hostile: clients that nobody wants, for the tests in the virtual terminal. Each command is
// one of them; it runs without any rights and tells what happens to it a line at a time.
//
//   block NAME SECONDS       registers a callback that, told of a device of that name, blocks until
//                            a line comes in on standard input, at least for SECONDS
//   register N [same]        registers N callbacks, or the same one N times, and waits
//   die                      registers a callback in which it kills itself
//   churn N                  N processes, one after the other, that register, take back and are
//                            killed meanwhile
//   reenter NAME             registers a callback that, told of a device of that name, calls the
//                            service itself, on the same thread and on another
//   decide N                 has an input device judged N times while other threads list and dump
//   fuzz SEED COUNT          sends COUNT transactions that follow from SEED
//   malformed KIND           sends one transaction: see kMalformed below
//
// Exit status: 0 done, 1 the daemon did not answer as it must, 2 usage, 3 no service.

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/IKUsbService.h>
#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "tools/service.h"
#include "vm/guest/hostile_fuzz.h"

namespace android::kus::hostile {
namespace {

using Arguments = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

enum ExitStatus { kDone = 0, kWrongAnswer = 1, kUsageError = 2, kNoService = 3 };

constexpr uid_t kNobody = 65534;
// No bus has a number that high: the terminal's own devices are left alone.
constexpr int32_t kInputDevice = 96000;
constexpr int32_t kUsbDevice = 96500;
constexpr std::chrono::seconds kPatience(20);

// One write a line, for several threads speak.
void say(const std::string& line) {
    CHECK(base::WriteStringToFd(line + "\n", STDOUT_FILENO));
}

bool isOk(const binder::Status& status, const std::string& what) {
    if (!status.isOk()) say(what + " failed: " + status.toString8().string());
    return status.isOk();
}

void dropRights() {
    CHECK(setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0);
}

sp<IKUsbService> connect() {
    ProcessState::self()->startThreadPool();
    sp<IKUsbService> service = tools::awaitService(kPatience);
    if (service == nullptr) {
        say("no service");
        exit(kNoService);
    }
    return service;
}

[[noreturn]] void waitForEnd() {
    while (true) pause();
}

[[noreturn]] void killThisProcess() {
    kill(getpid(), SIGKILL);
    waitForEnd();
}

DeviceInfo inputDevice(int32_t id) {
    DeviceInfo device;
    device.deviceName = "Keys";
    device.deviceId = id;
    device.deviceClass = 0x101;
    device.deviceType = 1;
    return device;
}

DeviceInfo usbDevice(int32_t id, const std::string& name) {
    DeviceInfo device;
    device.deviceName = name;
    device.deviceId = id;
    device.interfaceClasses = {8};
    return device;
}

// A callback that does the same for additions and removals.
class Callback : public BnKUsbServiceCallback {
  public:
    using Action = std::function<void(const std::string& event, const DeviceInfo& device)>;

    explicit Callback(Action action) : action_(std::move(action)) {}

    binder::Status onDeviceAdded(const DeviceInfo& device) override {
        action_("added", device);
        return binder::Status::ok();
    }
    binder::Status onDeviceRemoved(const DeviceInfo& device) override {
        action_("removed", device);
        return binder::Status::ok();
    }

  private:
    const Action action_;
};

sp<Callback> quietCallback() {
    return new Callback([](const std::string&, const DeviceInfo&) {});
}

// --- block ---------------------------------------------------------------------------------------

// Holds threads up until it is opened, and each one for a time at least.
class Gate {
  public:
    void pass(std::chrono::seconds least) {
        const auto end = Clock::now() + least;
        std::unique_lock<std::mutex> lock(mutex_);
        opened_.wait(lock, [this] { return open_; });
        opened_.wait_until(lock, end, [] { return false; });
    }

    void open() {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

ExitStatus block(const std::string& name, int seconds) {
    const sp<IKUsbService> service = connect();
    Gate gate;
    const sp<Callback> callback =
            new Callback([&](const std::string& event, const DeviceInfo& device) {
                if (device.deviceName != name)
                    return say("told " + event + " " + device.deviceName);
                say("blocked " + event);
                gate.pass(std::chrono::seconds(seconds));
                say("released " + event);
            });
    if (!isOk(service->registerKusCallback(callback), "registerKusCallback")) return kWrongAnswer;
    say("registered");
    std::string line;
    if (std::getline(std::cin, line)) gate.open();
    waitForEnd();
}

// --- register, die, churn ------------------------------------------------------------------------

ExitStatus registerMany(int count, bool same) {
    const sp<IKUsbService> service = connect();
    std::vector<sp<Callback>> callbacks;
    for (int i = 0; i < count; i++) {
        callbacks.push_back(same && i > 0 ? callbacks.front() : quietCallback());
        if (!isOk(service->registerKusCallback(callbacks.back()), "registerKusCallback")) {
            return kWrongAnswer;
        }
    }
    say("registered");
    waitForEnd();
}

ExitStatus die() {
    const sp<IKUsbService> service = connect();
    const sp<Callback> callback = new Callback([](const std::string& event, const DeviceInfo&) {
        say("dying " + event);
        killThisProcess();
    });
    if (!isOk(service->registerKusCallback(callback), "registerKusCallback")) return kWrongAnswer;
    say("registered");
    waitForEnd();
}

void takeBackOneWay(const sp<IKUsbService>& service, const sp<Callback>& callback) {
    constexpr uint32_t kUnregister = IBinder::FIRST_CALL_TRANSACTION + 1;
    Parcel data;
    data.writeInterfaceToken(IKUsbService::descriptor);
    data.writeStrongBinder(IInterface::asBinder(callback));
    IInterface::asBinder(service)->transact(kUnregister, data, nullptr, IBinder::FLAG_ONEWAY);
}

// Ends this process while it takes registrations back: the daemon hears of its death beside that.
[[noreturn]] void registerAndDie(int round) {
    constexpr int kRegistrations = 4;
    const sp<IKUsbService> service = connect();
    const sp<Callback> callback = quietCallback();
    for (int i = 0; i < kRegistrations; i++) service->registerKusCallback(callback);
    switch (round % 3) {
        case 0:
            for (int i = 0; i < kRegistrations; i++) service->unregisterKusCallback(callback);
            break;
        case 1:
            for (int i = 0; i < kRegistrations; i++) takeBackOneWay(service, callback);
            break;
        default:
            std::atomic<bool> began = false;
            std::thread other([&] {
                began = true;
                while (true) service->unregisterKusCallback(callback);
            });
            // From there on a little later in every round.
            while (!began) continue;
            const auto end = Clock::now() + std::chrono::microseconds(round * 17 % 3000);
            while (Clock::now() < end) continue;
            killThisProcess();
    }
    killThisProcess();
}

// This process itself has nothing to do with binder, which does not outlive a fork.
ExitStatus churn(int rounds) {
    for (int round = 0; round < rounds; round++) {
        const pid_t child = fork();
        CHECK(child != -1);
        if (child == 0) registerAndDie(round);
        int status = 0;
        CHECK(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child);
        if (WIFSIGNALED(status)) continue;
        say("round " + std::to_string(round) + " ended with status " +
            std::to_string(WEXITSTATUS(status)));
        return kWrongAnswer;
    }
    say("done");
    return kDone;
}

// --- reenter -------------------------------------------------------------------------------------

// Every call of the service, from within one of its calls of this client.
class Reentry {
  public:
    Reentry(const sp<IKUsbService>& service, const sp<IKUsbServiceCallback>& self)
        : service_(service), self_(self) {}

    void run(const std::string& thread, int32_t id) {
        bool allowed = false;
        tell(thread, "listed", [&] {
            std::vector<DeviceInfo> devices;
            return service_->getDeviceList(&devices);
        });
        tell(thread, "judged an input device",
             [&] { return service_->isDeviceAllowed(inputDevice(id), &allowed); });
        tell(thread, "judged a USB device",
             [&] { return service_->isDeviceAllowed(usbDevice(id, "Inner"), &allowed); });
        tell(thread, "removed a USB device",
             [&] { return service_->updateDeviceList(usbDevice(id, "Inner"), 0); });
        const sp<Callback> other = quietCallback();
        tell(thread, "registered another", [&] { return service_->registerKusCallback(other); });
        tell(thread, "took back another", [&] { return service_->unregisterKusCallback(other); });
        tell(thread, "took back itself", [&] { return service_->unregisterKusCallback(self_); });
        tell(thread, "registered itself", [&] { return service_->registerKusCallback(self_); });
        tell(thread, "dumped", [&] { return dump(); });
    }

  private:
    static void tell(const std::string& thread, const std::string& what,
                     const std::function<binder::Status()>& call) {
        if (isOk(call(), what)) say(thread + ": " + what);
    }

    binder::Status dump() {
        const base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        return binder::Status::fromStatusT(
                IInterface::asBinder(service_)->dump(null.get(), Vector<String16>()));
    }

    const sp<IKUsbService> service_;
    const sp<IKUsbServiceCallback> self_;
};

ExitStatus reenter(const std::string& name) {
    const sp<IKUsbService> service = connect();
    sp<Callback> callback;
    callback = new Callback([&](const std::string& event, const DeviceInfo& device) {
        say("told " + event + " " + device.deviceName);
        if (device.deviceName != name) return;
        Reentry reentry(service, callback);
        reentry.run("same thread", kUsbDevice);
        std::thread([&] { reentry.run("another thread", kUsbDevice + 1); }).join();
        say("left " + event);
    });
    if (!isOk(service->registerKusCallback(callback), "registerKusCallback")) return kWrongAnswer;
    say("registered");
    waitForEnd();
}

// --- decide --------------------------------------------------------------------------------------

// What goes on beside the decisions: a call for every few of them.
class Companion {
  public:
    explicit Companion(std::function<bool()> call)
        : call_(std::move(call)), thread_([this] { run(); }) {}
    ~Companion() { thread_.join(); }

    void ask() {
        const std::lock_guard<std::mutex> lock(mutex_);
        asked_ = true;
        changed_.notify_all();
    }

    // Returns how often the call was answered; -1 if once it was not.
    int finish() {
        std::unique_lock<std::mutex> lock(mutex_);
        done_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return over_; });
        return answers_;
    }

  private:
    bool next() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return asked_ || done_; });
        return std::exchange(asked_, false);
    }

    void run() {
        int answers = 0;
        while (answers >= 0 && next()) answers = call_() ? answers + 1 : -1;
        const std::lock_guard<std::mutex> lock(mutex_);
        answers_ = answers;
        over_ = true;
        changed_.notify_all();
    }

    const std::function<bool()> call_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool asked_ = false;
    bool done_ = false;
    bool over_ = false;
    int answers_ = 0;
    // Last: it uses all of the above.
    std::thread thread_;
};

ExitStatus decide(int count) {
    constexpr int kDecisionsPerCall = 10;
    const sp<IKUsbService> service = connect();
    const base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    Companion lister([&] {
        std::vector<DeviceInfo> devices;
        return service->getDeviceList(&devices).isOk();
    });
    Companion dumper([&] {
        return IInterface::asBinder(service)->dump(null.get(), Vector<String16>()) == OK;
    });

    std::vector<int64_t> times;
    bool answered = true;
    for (int i = 0; i < count && answered; i++) {
        if (i % kDecisionsPerCall == 0) lister.ask();
        if (i % kDecisionsPerCall == 0) dumper.ask();
        bool allowed = false;
        const auto began = Clock::now();
        answered = service->isDeviceAllowed(inputDevice(kInputDevice), &allowed).isOk();
        times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began)
                                .count());
    }
    const int lists = lister.finish();
    const int dumps = dumper.finish();
    if (!answered || lists <= 0 || dumps <= 0) {
        say("no answer");
        return kWrongAnswer;
    }
    std::sort(times.begin(), times.end());
    say("decisions " + std::to_string(times.size()) + " median " +
        std::to_string(times[times.size() / 2]) + " slowest " + std::to_string(times.back()) +
        " lists " + std::to_string(lists) + " dumps " + std::to_string(dumps));
    return kDone;
}

// --- fuzz, malformed -----------------------------------------------------------------------------

ExitStatus fuzz(uint32_t seed, uint32_t count) {
    const sp<IBinder> service = IInterface::asBinder(connect());
    Fuzzer fuzzer(service, IInterface::asBinder(defaultServiceManager()), seed);
    say("fuzzing");
    const auto began = Clock::now();
    if (!fuzzer.run(count)) {
        say("the daemon died; " + fuzzer.outcomes());
        return kWrongAnswer;
    }
    const std::chrono::duration<double> took = Clock::now() - began;
    say("outcomes " + fuzzer.outcomes());
    if (!fuzzer.cleanUp()) {
        say("the daemon does not answer");
        return kWrongAnswer;
    }
    say("done " + std::to_string(count) + " in " + std::to_string(took.count()));
    return kDone;
}

// A device whose interface classes number |count|, though not one of them is there.
status_t sendClassCount(const sp<IBinder>& service, int32_t count) {
    constexpr uint32_t kDecide = IBinder::FIRST_CALL_TRANSACTION + 4;
    constexpr int32_t kSize = 1000;
    Parcel data;
    data.writeInterfaceToken(IKUsbService::descriptor);
    data.writeInt32(1);
    data.writeInt32(kSize);
    data.writeString16(String16("Many classes"));
    data.writeInt32(kUsbDevice);
    data.writeInt32(0);
    data.writeInt32(count);
    Parcel reply;
    return service->transact(kDecide, data, &reply);
}

// Two thousand million arguments of which none can be read, as two bytes are left for them.
status_t sendEndlessArguments(const sp<IBinder>& service, uint32_t code, int descriptors) {
    const base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    Parcel data;
    for (int i = 0; i < descriptors; i++) {
        data.writeFileDescriptor(null.get(), /*takeOwnership=*/false);
    }
    data.writeInt32(0x7fffffff);
    data.setDataSize(data.dataSize() + 2);
    Parcel reply;
    return service->transact(code, data, &reply);
}

const std::map<std::string, std::function<status_t(const sp<IBinder>&)>>& malformed() {
    static const auto& kinds =
            *new std::map<std::string, std::function<status_t(const sp<IBinder>&)>>{
                    {"impossible-count",
                     [](const auto& s) { return sendClassCount(s, 0x7fffffff); }},
                    {"large-count", [](const auto& s) { return sendClassCount(s, 60'000'000); }},
                    {"dump-arguments",
                     [](const auto& s) {
                         return sendEndlessArguments(s, IBinder::DUMP_TRANSACTION, 1);
                     }},
                    {"shell-arguments", [](const auto& s) {
                         return sendEndlessArguments(s, IBinder::SHELL_COMMAND_TRANSACTION, 3);
                     }}};
    return kinds;
}

ExitStatus sendMalformed(const std::string& kind) {
    const auto found = malformed().find(kind);
    if (found == malformed().end()) return kUsageError;
    const status_t status = found->second(IInterface::asBinder(connect()));
    say(statusToString(status));
    return status == DEAD_OBJECT ? kWrongAnswer : kDone;
}

// --- the command line ----------------------------------------------------------------------------

// The number that |arguments| has at |index|; ends the program if there is none.
int numberAt(const Arguments& arguments, size_t index) {
    int number = 0;
    if (arguments.size() > index && base::ParseInt(arguments[index], &number, 0)) return number;
    std::cerr << "kus-hostile: a number is missing\n";
    exit(kUsageError);
}

ExitStatus run(const Arguments& arguments) {
    const std::string command = arguments.empty() ? "" : arguments[0];
    const std::string word = arguments.size() > 1 ? arguments[1] : "";
    if (command == "block") return block(word, numberAt(arguments, 2));
    if (command == "register") {
        return registerMany(numberAt(arguments, 1), arguments.back() == "same");
    }
    if (command == "die") return die();
    if (command == "churn") return churn(numberAt(arguments, 1));
    if (command == "reenter") return reenter(word);
    if (command == "decide") return decide(numberAt(arguments, 1));
    if (command == "fuzz") return fuzz(numberAt(arguments, 1), numberAt(arguments, 2));
    if (command == "malformed") return sendMalformed(word);
    std::cerr << "kus-hostile: unknown command '" << command << "'\n";
    return kUsageError;
}

}  // namespace
}  // namespace android::kus::hostile

int main(int argc, char** argv) {
    android::kus::hostile::dropRights();
    return android::kus::hostile::run({argv + 1, argv + argc});
}
