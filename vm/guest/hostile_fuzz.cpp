// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "vm/guest/hostile_fuzz.h"

#include <fcntl.h>
#include <linux/android/binder.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <utility>

#include <android-base/logging.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/IKUsbService.h>
#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/IResultReceiver.h>
#include <utils/String16.h>

namespace android::kus::hostile {
namespace {

// In the order of the interface's operations.
enum Operation : uint32_t {
    kRegister = IBinder::FIRST_CALL_TRANSACTION,
    kUnregister,
    kGetList,
    kUpdateList,
    kDecide,
    kReset,
    kLastOperation = kReset,
};

// No bus has a number that high: no decision concerns a device of the terminal.
constexpr int32_t kFirstDevice = 95000;
constexpr uint32_t kDevices = 6;
constexpr uint32_t kLargestBody = 40000;
// A reset takes the controllers away for a second.
constexpr uint32_t kResetChances = 200;
constexpr uint32_t kTransactionsBetweenWaits = 50;
constexpr uint32_t kTransactionsBetweenRemovals = 1000;
constexpr uint32_t kRegistrationsEach = 3;
constexpr std::chrono::seconds kPatience(20);

constexpr int32_t kOddNumbers[] = {
        0,      1,          2,          3,
        4,      8,          9,          255,
        256,    4095,       65535,      65536,
        100000, 4000000,    0x7ffffffe, std::numeric_limits<int32_t>::max(),
        -1,     -2,         -4,         -65536,
        0x100,  0x01000002, 0x00100000, std::numeric_limits<int32_t>::min(),
};

// The driver's own flags; those that change who gets the reply are not for a client to fake.
constexpr uint32_t kFlags[] = {0, 0, 0, 0, 0, TF_ROOT_OBJECT, TF_STATUS_CODE, TF_CLEAR_BUF};

class Listener : public BnKUsbServiceCallback {
  public:
    binder::Status onDeviceAdded(const DeviceInfo& /*device*/) override {
        return binder::Status::ok();
    }
    binder::Status onDeviceRemoved(const DeviceInfo& /*device*/) override {
        return binder::Status::fromExceptionCode(binder::Status::EX_ILLEGAL_STATE);
    }
};

// Told of once, by the daemon's answer to a shell command.
class Barrier : public BnResultReceiver {
  public:
    void send(int32_t /*code*/) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        reached_ = true;
        changed_.notify_all();
    }

    bool await(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [this] { return reached_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool reached_ = false;
};

void readToTheEnd(const base::unique_fd& pipe) {
    char buffer[65536];
    while (TEMP_FAILURE_RETRY(read(pipe.get(), buffer, sizeof(buffer))) > 0) continue;
}

}  // namespace

Fuzzer::Fuzzer(const sp<IBinder>& service, const sp<IBinder>& stranger, uint32_t seed)
    : service_(service),
      binders_{nullptr, service, stranger, new BBinder(), new Listener()},
      random_(seed),
      null_(open("/dev/null", O_WRONLY | O_CLOEXEC)) {
    base::unique_fd readEnd;
    CHECK(null_.ok() && base::Pipe(&readEnd, &pipe_));
    reader_ = std::thread([readEnd = std::move(readEnd)] { readToTheEnd(readEnd); });
}

Fuzzer::~Fuzzer() {
    pipe_.reset();
    reader_.join();
}

bool Fuzzer::run(uint32_t count) {
    for (uint32_t i = 0; i < count; i++) {
        Message message;
        make(&message);
        if (send(message) == DEAD_OBJECT) return false;
        // The driver would have no room left for them.
        if (i % kTransactionsBetweenWaits == 0 && !awaitOneWayCalls()) return false;
        // The list would not fit into a reply any more.
        if (i % kTransactionsBetweenRemovals == 0 && !removeRecords()) return false;
    }
    return true;
}

bool Fuzzer::cleanUp() {
    // Calls that are on their way may register and have judged.
    if (!awaitOneWayCalls()) return false;
    unregisterAll();
    return removeRecords() && service_->pingBinder() == OK;
}

std::string Fuzzer::outcomes() const {
    std::string text;
    for (const auto& [status, count] : outcomes_) {
        if (!text.empty()) text += ", ";
        text += statusToString(status) + ": " + std::to_string(count);
    }
    return text;
}

uint32_t Fuzzer::below(uint32_t limit) {
    return random_() % limit;
}

int32_t Fuzzer::number() {
    if (oneIn(3)) return static_cast<int32_t>(random_());
    return kOddNumbers[below(std::size(kOddNumbers))];
}

std::string Fuzzer::text() {
    std::string text(oneIn(200) ? below(5000) : below(40), '\0');
    for (char& letter : text) letter = static_cast<char>(oneIn(20) ? below(128) : 'a' + below(26));
    return text;
}

DeviceInfo Fuzzer::device() {
    DeviceInfo device;
    device.deviceName = text();
    device.deviceId = kFirstDevice + static_cast<int32_t>(below(kDevices));
    device.deviceClass = oneIn(2) ? 0x101 << below(20) : number();
    device.interfaceClasses.resize(oneIn(100) ? below(2000) : below(8));
    for (int32_t& each : device.interfaceClasses) each = static_cast<int32_t>(below(256));
    device.vendorId = number();
    device.productId = number();
    device.status = number();
    // A decision on a USB device reads the whole bus anew, which takes its time.
    device.deviceType = oneIn(40) ? 0 : 1;
    device.reason = text();
    device.category = number();
    device.categoryPath = text();
    return device;
}

uint32_t Fuzzer::operation() {
    return kRegister + below(kLastOperation - kRegister + 1);
}

// All but those for which a body must not be arbitrary: see makeDump and makeShellCommand.
uint32_t Fuzzer::anyCode() {
    constexpr uint32_t kOthers[] = {
            IBinder::PING_TRANSACTION, IBinder::INTERFACE_TRANSACTION,
            IBinder::SYSPROPS_TRANSACTION, IBinder::EXTENSION_TRANSACTION,
            IBinder::DEBUG_PID_TRANSACTION, 0, kLastOperation + 1,
            // What a stable interface is asked for its version and its hash.
            IBinder::LAST_CALL_TRANSACTION, IBinder::LAST_CALL_TRANSACTION - 1};
    if (oneIn(3)) return operation();
    if (oneIn(2)) return kOthers[below(std::size(kOthers))];
    const uint32_t code = oneIn(2) ? random_() : random_() & IBinder::LAST_CALL_TRANSACTION;
    const bool needsCare =
            code == IBinder::DUMP_TRANSACTION || code == IBinder::SHELL_COMMAND_TRANSACTION;
    return needsCare ? code + 1 : code;
}

int Fuzzer::descriptor() {
    return oneIn(2) ? null_.get() : pipe_.get();
}

void Fuzzer::addToken(Message* message) {
    message->data.writeInterfaceToken(IKUsbService::descriptor);
}

// Bodies of any length, most of them short.
void Fuzzer::addGarbage(Message* message, uint32_t limit) {
    const uint32_t most = below(oneIn(10) ? limit : std::min<uint32_t>(limit, 200));
    const uint32_t size = oneIn(8) ? most : most / sizeof(uint32_t) * sizeof(uint32_t);
    const uint32_t kind = below(4);
    std::vector<uint32_t> words(size / sizeof(uint32_t) + 1);
    for (uint32_t& word : words) {
        if (kind == 0) word = 0xffffffff;
        if (kind == 1) word = below(20);
        if (kind == 2) word = static_cast<uint32_t>(number());
        if (kind == 3) word = random_();
    }
    const size_t end = message->data.dataPosition() + size;
    message->data.write(words.data(), size);
    // Parcel pads; the driver takes any size.
    message->data.setDataSize(end);
}

size_t Fuzzer::addBinder(Message* message) {
    const size_t which = below(binders_.size());
    message->data.writeStrongBinder(binders_[which]);
    return which;
}

void Fuzzer::addArguments(Message* message) {
    const uint32_t count = below(4);
    message->data.writeInt32(oneIn(4) ? number() : static_cast<int32_t>(count));
    for (uint32_t i = 0; i < count; i++) {
        // It takes a whole scan of the bus.
        const std::string argument = oneIn(50) ? "test" : text();
        message->data.writeString16(String16(argument.c_str()));
    }
}

// Makes something of the body behind |from| wrong. Binders in it are at most cut off: this process
// would fall over the false pointer of one.
void Fuzzer::distort(Message* message, size_t from) {
    Parcel& data = message->data;
    const size_t end = data.dataSize();
    if (end <= from + sizeof(int32_t)) return;
    const size_t length = end - from;
    const bool hasBinders = data.objectsCount() > 0;
    switch (below(3)) {
        case 0:
            data.setDataSize(from + below(length));
            break;
        case 1:
            for (uint32_t i = below(3) + 1; i > 0 && !hasBinders; i--) {
                data.setDataPosition(from + below(length / sizeof(int32_t)) * sizeof(int32_t));
                data.writeInt32(number());
            }
            break;
        default:
            data.setDataPosition(end);
            addGarbage(message, kLargestBody);
    }
}

void Fuzzer::makeGarbage(Message* message) {
    message->code = anyCode();
    addGarbage(message, kLargestBody);
}

void Fuzzer::makeOperation(Message* message) {
    // With a body of chance that begins with a number above 0 a reset would be a virtual dock of
    // that many milliseconds, during which no other reset ends.
    do {
        message->code = operation();
    } while (message->code == kReset);
    addToken(message);
    addGarbage(message, kLargestBody);
}

void Fuzzer::makeRegistryCall(Message* message) {
    addToken(message);
    const size_t from = message->data.dataSize();
    const size_t which = addBinder(message);
    uint32_t& registrations = registrations_[which];
    const bool registers = registrations < kRegistrationsEach && oneIn(2);
    // Also when it may fail: one time too many does no harm when they are taken back.
    if (registers) registrations++;
    message->code = registers ? kRegister : kUnregister;
    if (oneIn(4)) distort(message, from);
}

void Fuzzer::makeDeviceCall(Message* message) {
    message->code = oneIn(2) ? kDecide : kUpdateList;
    addToken(message);
    const size_t from = message->data.dataSize();
    message->data.writeParcelable(device());
    if (message->code == kUpdateList) message->data.writeInt32(oneIn(2) ? 0 : number());
    if (!oneIn(3)) distort(message, from);
}

void Fuzzer::makeListCall(Message* message) {
    message->code = kGetList;
    addToken(message);
    if (oneIn(2)) distort(message, 0);
}

// See makeOperation.
void Fuzzer::makeResetCall(Message* message) {
    message->code = kReset;
    addToken(message);
    if (oneIn(kResetChances)) message->data.writeInt32(oneIn(2) ? 0 : -1 - below(1000));
}

// Only with a descriptor that can be written to: the C library of this terminal loses 8 KB with
// each dprintf that fails.
void Fuzzer::makeDump(Message* message) {
    message->code = IBinder::DUMP_TRANSACTION;
    message->data.writeFileDescriptor(descriptor(), /*takeOwnership=*/false);
    addArguments(message);
}

void Fuzzer::makeShellCommand(Message* message) {
    message->code = IBinder::SHELL_COMMAND_TRANSACTION;
    for (int i = 0; i < 3; i++) {
        if (!oneIn(4)) message->data.writeFileDescriptor(descriptor(), /*takeOwnership=*/false);
    }
    addArguments(message);
    addBinder(message);
    addBinder(message);
}

void Fuzzer::make(Message* message) {
    const uint32_t kind = below(100);
    if (kind < 40) return makeGarbage(message);
    if (kind < 60) return makeOperation(message);
    if (kind < 68) return makeRegistryCall(message);
    if (kind < 94) return makeDeviceCall(message);
    if (kind < 96) return makeListCall(message);
    if (kind < 97) return makeResetCall(message);
    if (kind < 98) return makeDump(message);
    makeShellCommand(message);
}

status_t Fuzzer::send(const Message& message) {
    Parcel reply;
    uint32_t flags = kFlags[below(std::size(kFlags))];
    if (oneIn(2)) flags |= IBinder::FLAG_ONEWAY;
    const status_t status = service_->transact(message.code, message.data, &reply, flags);
    outcomes_[status]++;
    return status;
}

bool Fuzzer::removeRecords() {
    const sp<IKUsbService> service = interface_cast<IKUsbService>(service_);
    std::vector<DeviceInfo> records;
    if (!service->getDeviceList(&records).isOk()) return false;
    return std::all_of(records.begin(), records.end(), [&service](const DeviceInfo& record) {
        return service->updateDeviceList(record, 0).isOk();
    });
}

void Fuzzer::unregisterAll() {
    for (size_t which = 0; which < binders_.size(); which++) {
        for (; registrations_[which] > 0; registrations_[which]--) {
            Message message;
            message.code = kUnregister;
            addToken(&message);
            message.data.writeStrongBinder(binders_[which]);
            Parcel reply;
            service_->transact(message.code, message.data, &reply);
        }
    }
}

// The driver hands one-way calls of one binder over in their order and one at a time, and refuses
// more as long as there is no room for them.
bool Fuzzer::awaitOneWayCalls() {
    const sp<Barrier> barrier = new Barrier();
    Parcel data;
    for (int i = 0; i < 3; i++) data.writeFileDescriptor(null_.get(), /*takeOwnership=*/false);
    data.writeInt32(0);
    data.writeStrongBinder(nullptr);
    data.writeStrongBinder(IInterface::asBinder(barrier));
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    status_t sent = FAILED_TRANSACTION;
    while (sent == FAILED_TRANSACTION && std::chrono::steady_clock::now() < deadline) {
        sent = service_->transact(IBinder::SHELL_COMMAND_TRANSACTION, data, nullptr,
                                  IBinder::FLAG_ONEWAY);
    }
    return sent == OK && barrier->await(kPatience);
}

}  // namespace android::kus::hostile
