// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The way of a device through the service:
//
//  1. isDeviceAllowed() is asked about it: the automation switch, then (USB only) a rescan of sysfs
//     and the screening of devices that the input side will ask about, then the rules.
//  2. A refused USB device is blocked in the kernel (UsbDevice::update_status).
//  3. addDeviceList() tells every registered client and records the verdict with its reason.
//  4. updateDeviceList(info, 0) forgets it when it goes, and tells the clients.
//
// The way of the rules: Register() reads the file; from then on the observer thread reads it each
// time that it was written. Good rules become the backup, and a reset makes all devices come again.
// Bad rules are overwritten with the backup.
//
// Threads: Register() runs on the main thread before the pool starts, the observer on its own;
// everything else on binder threads. Clients are called on the thread that made the change, one
// after another.
//
// Locks, in the order in which one thread may take them:
//
//  - the registry mutex (mutex_): a death notice, for its whole length; nobody else.
//  - UsbDevice::mapLock: a decision about a USB device, from its rescan to its record; a removal; a
//    dump of what sysfs shows; a virtual dock's look into the map.
//  - rulesLock: the mode and the rules together, for one verdict; a parse, to replace both at once.
//  - listLock: both lists and the registry.
//
// None is held while a client is called or written to, a thread sleeps or a controller's mode is
// written. The one exception is the lock that resets have for themselves (usbdevice.cpp); the
// observer is one of those that reset. The crash handler takes none.

#include "android/kus/ku_service.h"

#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <utility>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <cutils/properties.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "android/kus/constants.h"
#include "android/kus/usbdevice.h"
#include "android/kus/util.h"

namespace android::kus {

using android::base::unique_fd;
using binder::Status;

namespace {

constexpr char kServiceName[] = "kusbservice";
constexpr char kConfigFileName[] = "usb_device_config.xml";
constexpr char kTestArgument[] = "test";
constexpr char kNone[] = "<none>";
constexpr char kModeDefault[] = "default";
constexpr char kModeBlacklist[] = "blacklist";
constexpr char kMatchByClass[] = "Match by ClassName, CLASS : ";
constexpr int32_t kUsbDeviceType = 0;
constexpr int32_t kClassHid = 3;

// Logs the clients' addresses as well; set by Register() on "userdebug" builds.
bool verboseLogging = false;

// The observer's. Its descriptor is open for the rest of the process's life.
pthread_t observerThread;
int inotifyFd = -1;
int directoryWatch = -1;
// The backup was copied over a bad file: the event of that copy is not a new file. A good file that
// comes before the event is taken for the copy, and its own event for it, too: meant.
bool restored = false;
std::atomic<bool> observerStopped = false;

using By = KUsbService::Verdict::By;

// What the rules say of a device, before the mode makes a verdict of it.
struct Match {
    By by = By::kNoRule;
    std::string reason;
    std::optional<int32_t> codeWithoutRule;

    bool matched() const { return by != By::kNoRule; }
};

bool isUsbDevice(const DeviceInfo& info) {
    return info.deviceType == kUsbDeviceType;
}

bool isUserdebugBuild() {
    char type[PROPERTY_VALUE_MAX];
    property_get("ro.build.type", type, "userdebug");
    return strcmp(type, "userdebug") == 0;
}

bool isPolicySwitchedOff() {
    return property_get_int32("ro.config.device.kus_automation", 0) == 1;
}

std::vector<int32_t>::const_iterator firstBesideHid(const DeviceInfo& info) {
    return std::find_if(info.interfaceClasses.begin(), info.interfaceClasses.end(),
                        [](int32_t interfaceClass) { return interfaceClass != kClassHid; });
}

// Every interface class that is not restricted must have a rule, and there must be one such class.
Match matchInterfaceClasses(const std::vector<int32_t>& classes) REQUIRES(rulesLock) {
    Match match = {By::kNoRule, kMatchByClass, {}};
    for (const int32_t code : classes) {
        LOG(INFO) << code << "\n";
        if (Util::validateRestrictedClass(code)) continue;
        if (!Util::validateClass(code)) {
            LOG(INFO) << "interface class check false breaking";
            return {By::kNoRule, "", code};
        }
        match.by = By::kClass;
        const std::string& name = Util::getClassName(code);
        // A code without a name is one blank, which the text holds already: meant.
        if (match.reason.find(name) == std::string::npos) match.reason += name + " ";
    }
    return match;
}

// Every input source that makes up the device must have a rule.
Match matchSources(const SourceList& sources) REQUIRES(rulesLock) {
    Match match = {sources.empty() ? By::kNoRule : By::kClass, kMatchByClass, {}};
    for (const int32_t code : sources) {
        const bool hasRule = Util::validateClass(code);
        LOG(INFO) << "HID multiClass check";
        if (!hasRule) {
            LOG(INFO) << "HID multi class check false breaking";
            return {By::kNoRule, "", code};
        }
        match.reason += Util::getClassName(code) + " ";
    }
    return match;
}

Match matchClass(const DeviceInfo& info) REQUIRES(rulesLock) {
    if (!info.interfaceClasses.empty()) return matchInterfaceClasses(info.interfaceClasses);
    return matchSources(Util::checkMultiClass(info.deviceClass));
}

Match matchVendor(const DeviceInfo& info) REQUIRES(rulesLock) {
    const std::string vendor = std::to_string(info.vendorId);
    if (Util::validateVid(info.vendorId)) {
        return {By::kVendor, "Match by VID, VID : " + vendor, {}};
    }
    if (Util::validateVidPid(info.vendorId, info.productId)) {
        return {By::kProduct,
                "Match by VID_PID combination, VID : " + vendor +
                        " PID: " + std::to_string(info.productId),
                {}};
    }
    return {};
}

Match matchRules(const DeviceInfo& info) REQUIRES(rulesLock) {
    Match byClass = matchClass(info);
    if (byClass.matched()) return byClass;
    Match byVendor = matchVendor(info);
    byVendor.codeWithoutRule = byClass.codeWithoutRule;
    return byVendor;
}

void logDecision(const DeviceInfo& info, const KUsbService::Verdict& verdict) {
    LOG(INFO) << "isDeviceAllowed called with mode: " << verdict.mode
              << " DeviceInfo:= { DeviceId:" << info.deviceId << ", DeviceName: " << info.deviceName
              << ", ClassName: " << Util::getClassName(info.deviceClass) << "[ "
              << static_cast<uint32_t>(info.deviceClass)
              << " ], InterfaceClassCount: " << info.interfaceClasses.size()
              << ", VendorId: " << info.vendorId << ", ProductId: " << info.productId
              << ", Status: " << verdict.allowed << ", Reason: " << verdict.reason << " }";
}

// The whole file passes through the heap, and a large one would stay there.
void copyFile(const char* src, const char* dst) {
    Util::copyFileContent(src, dst);
    mallopt(M_PURGE, 0);
}

void takeGoodFile() {
    errorMessage = "SUCCESS";
    if (restored) {
        // The backup, whose rules were in force before: all but them is as it was.
        restored = false;
        return;
    }
    LOG(INFO) << "Parsing success, so update status file and create backup";
    Util::updateErrorFile(statusFilePath, errorMessage);
    copyFile(configFilePath, backupFilePath);
    UsbDevice::usb_host_reset(0);
}

// A backup that is bad itself comes here again and again: meant.
void replaceBadFile() {
    LOG(INFO) << "Parsing failure, copying backup file content";
    copyFile(backupFilePath, configFilePath);
    restored = true;
}

void takeConfigFile() {
    LOG(INFO) << "Admin usb_device_config.xml config file call parsing";
    Util::createMapFromConfig(configFilePath);
    LOG(INFO) << "Parsing status xml_parse_status " << xml_parse_status;
    if (xml_parse_status) {
        takeGoodFile();
    } else {
        replaceBadFile();
    }
}

// name is the event's, without the zeros that pad it.
void takeEvent(const inotify_event& event, const std::string& name) {
    if (event.len == 0 || event.wd != directoryWatch) return;
    if ((event.mask & IN_CLOSE_WRITE) == 0) return;
    LOG(INFO) << "CLOSE_WRITE event triggered on filename " << configDirPath << "/" << name;
    if (name == kConfigFileName && !observerStopped) takeConfigFile();
}

// The kernel puts whole events into a buffer, each with its name behind it (inotify(7)).
void takeEvents(const char* buffer, size_t length) {
    size_t offset = 0;
    while (length - offset >= sizeof(inotify_event)) {
        inotify_event event;
        memcpy(&event, buffer + offset, sizeof(event));
        offset += sizeof(event);
        const size_t nameLength = std::min<size_t>(event.len, length - offset);
        takeEvent(event, std::string(buffer + offset, strnlen(buffer + offset, nameLength)));
        offset += nameLength;
    }
}

// Appends "name;" unless the text holds the name already, be it as a part of another: meant.
void appendOnce(std::string* text, const std::string& name) {
    if (text->find(name) == std::string::npos) *text += name + ";";
}

struct ClassTexts {
    std::string classes;
    std::string restricted;
};

ClassTexts sourceTexts(const DeviceInfo& info) {
    ClassTexts texts;
    for (const int32_t code : Util::checkMultiClass(info.deviceClass)) {
        texts.classes += Util::getClassName(code) + ";";
    }
    texts.restricted = kNone;
    return texts;
}

ClassTexts interfaceTexts(const DeviceInfo& info) {
    ClassTexts texts;
    for (const int32_t code : info.interfaceClasses) {
        const std::string& name = Util::getClassName(code);
        LOG(INFO) << "dumpPrint--" << name;
        appendOnce(Util::validateRestrictedClass(code) ? &texts.restricted : &texts.classes, name);
    }
    if (texts.restricted.empty()) {
        LOG(INFO) << "restrictedClassList is null";
        texts.restricted = kNone;
    } else if (texts.classes.empty()) {
        // Only here: without restricted classes an empty class text stays empty. Meant.
        LOG(INFO) << "interfaceClassListStr is null";
        texts.classes = kNone;
    }
    return texts;
}

std::unique_ptr<DeviceInfo> makeRecord(DeviceInfo info, bool allowed, std::string reason) {
    auto record = std::make_unique<DeviceInfo>();
    record->deviceName = std::move(info.deviceName);
    record->deviceId = info.deviceId;
    record->deviceClass = info.deviceClass;
    record->interfaceClasses = std::move(info.interfaceClasses);
    record->vendorId = info.vendorId;
    record->productId = info.productId;
    record->deviceType = info.deviceType;
    record->status = allowed ? 1 : 0;
    record->reason = std::move(reason);
    return record;
}

// The sum counts every interface; a path is taken once, and not when it is part of one taken.
void categorise(DeviceInfo* record, const std::vector<DeviceIdEntry>& interfaces) {
    for (const DeviceIdEntry& interface : interfaces) {
        record->category += interface.category;
        const std::string path = interface.category_path;
        if (path.empty() || record->categoryPath.find(path) != std::string::npos) continue;
        record->categoryPath += path + ";";
    }
    LOG(INFO) << " device category  " << record->category << " categoryPath "
              << record->categoryPath;
}

std::unique_ptr<DeviceInfo> makeUsbRecord(const DeviceInfo& info, bool allowed,
                                          const std::string& reason) REQUIRES(UsbDevice::mapLock) {
    std::unique_ptr<DeviceInfo> record = makeRecord(info, allowed, reason);
    const std::vector<DeviceIdEntry> interfaces = UsbDevice::get_deviceid_data(info.deviceId);
    LOG(INFO) << info.deviceName << " device added to mUsbDeviceInfoList ";
    LOG(INFO) << "custom_struct size is " << interfaces.size();
    categorise(record.get(), interfaces);
    return record;
}

void forgetInterfaces(int deviceId) {
    const AutoMutex lock(UsbDevice::mapLock);
    UsbDevice::update_deviceid_map(deviceId, false);
}

// A USB device that the clients are being told of.
struct Announcement {
    int32_t deviceId;
    bool removed = false;
};
std::vector<Announcement*> announcements GUARDED_BY(listLock);

void eraseUsbDevice(int32_t deviceId) {
    const AutoMutex lock(listLock);
    for (Announcement* announcement : announcements) {
        if (announcement->deviceId == deviceId) announcement->removed = true;
    }
    mUsbDeviceInfoList.erase(deviceId);
}

using DeviceList = std::map<int32_t, std::unique_ptr<DeviceInfo>>;

void appendCopies(const DeviceList& list, std::vector<DeviceInfo>* copies) {
    for (const auto& [id, record] : list) copies->push_back(*record);
}

struct ListCopies {
    std::vector<DeviceInfo> input;
    std::vector<DeviceInfo> usb;
};

ListCopies copyLists() {
    const AutoMutex lock(listLock);
    ListCopies copies;
    appendCopies(mInputDeviceInfoList, &copies.input);
    appendCopies(mUsbDeviceInfoList, &copies.usb);
    return copies;
}

// A call stays in the process's binder buffer of 1 MB until it has returned, and a client may call
// from inside its callback: from there on the same thread, whose stack ends after some hundreds of
// such calls. With 16 threads these leave half of the buffer to everybody else.
constexpr size_t kLargestParcel = 8192;
constexpr int kDeepestCall = 4;

thread_local int callDepth = 0;

class CallDepth {
  public:
    CallDepth() { ++callDepth; }
    ~CallDepth() { --callDepth; }
    CallDepth(const CallDepth&) = delete;
    CallDepth& operator=(const CallDepth&) = delete;
};

// Of the interface's operations, those with a DeviceInfo.
bool takesDevice(uint32_t code) {
    constexpr uint32_t kUpdateDeviceList = IBinder::FIRST_CALL_TRANSACTION + 3;
    constexpr uint32_t kIsDeviceAllowed = IBinder::FIRST_CALL_TRANSACTION + 4;
    return code == kUpdateDeviceList || code == kIsDeviceAllowed;
}

// data stands behind the interface's token.
bool claimsTooManyClasses(const Parcel& data) {
    if (data.readInt32() == 0) return false;
    const size_t start = data.dataPosition();
    const size_t size = data.readInt32();
    size_t nameLength = 0;
    data.readString16Inplace(&nameLength);
    data.readInt32();  // deviceId
    data.readInt32();  // deviceClass
    if (data.dataPosition() - start >= size) return false;
    const int32_t classes = data.readInt32();
    return classes > 0 && static_cast<size_t>(classes) > data.dataAvail() / sizeof(int32_t);
}

// Into memory first: a client that does not read its end must hold up no decision.
void dumpTopology(int fd) {
    const unique_fd memory(memfd_create("kusd-dump", MFD_CLOEXEC));
    if (memory == -1) {
        PLOG(ERROR) << "No memory for the dump";
        return;
    }
    {
        const AutoMutex lock(UsbDevice::mapLock);
        UsbDevice::dump_print_test(memory);
    }
    std::string text;
    lseek(memory, 0, SEEK_SET);
    base::ReadFdToString(memory, &text);
    base::WriteFully(fd, text.data(), text.size());
}

}  // namespace

void KUsbService::Register() {
    LOG(INFO) << " parsing register createmap called";
    if (isUserdebugBuild()) verboseLogging = true;

    Util::createMapFromConfig(configFilePath);
    if (xml_parse_status) {
        LOG(INFO) << " updating error fle with success";
        Util::updateErrorFile(statusFilePath, "SUCCESS");
        LOG(INFO) << "copying backup ";
        copyFile(configFilePath, backupFilePath);
    } else {
        LOG(INFO) << " parsing failed";
    }

    const sp<KUsbService> service = new KUsbService();
    LOG(INFO) << "Register called in ku_service";
    const status_t added = defaultServiceManager()->addService(
            String16(kServiceName), service, /*allowIsolated=*/false,
            IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    if (added != OK) LOG(FATAL) << "Could not register KUS" << added;
    LOG(INFO) << "kus service Registered successfully";
    registerFileObserverViaThread();
}

status_t KUsbService::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (data.dataSize() > kLargestParcel) return BAD_VALUE;
    // Parcel cannot read the last bytes of an odd size; BBinder would try for each argument that a
    // dump claims to have.
    if (data.dataSize() % sizeof(int32_t) != 0) return BAD_VALUE;
    const CallDepth depth;
    if (callDepth > kDeepestCall) return INVALID_OPERATION;
    if (takesDevice(code)) {
        // Parcel makes room for all elements that a vector claims to have, before it reads one:
        // for two thousand million the process would end.
        const size_t start = data.dataPosition();
        if (data.checkInterface(this) && claimsTooManyClasses(data)) return BAD_VALUE;
        data.setDataPosition(start);
    }
    return BnKUsbService::onTransact(code, data, reply, flags);
}

Status KUsbService::registerKusCallback(const sp<IKUsbServiceCallback>& callback) {
    LOG(INFO) << "registerKusCallback called" << callback.get();
    const sp<IBinder> binder = IInterface::asBinder(callback);
    LOG(INFO) << "registerKusCallback binder " << binder.get();
    const sp<CallbackDeathRecipient> recipient = new CallbackDeathRecipient(callback, this);
    size_t count = 0;
    CallbackMap logged;
    {
        // Over both steps: a notice that comes between them waits, and finds its entry.
        const AutoMutex lock(listLock);
        if (binder->linkToDeath(recipient) != OK) {
            LOG(ERROR) << "Failed to link death recipient to binder";
            return Status::ok();
        }
        callbacks_.emplace(binder.get(), recipient);
        count = callbacks_.size();
        if (verboseLogging) logged = callbacks_;
    }
    LOG(ERROR) << "Size of callbacks at registerKusCallback " << count;
    logCallbacks("registerKusCallback--: iterating map ", logged);
    return Status::ok();
}

Status KUsbService::unregisterKusCallback(const sp<IKUsbServiceCallback>& callback) {
    LOG(INFO) << "unregisterKusCallback called" << callback.get();
    const sp<IBinder> binder = IInterface::asBinder(callback);
    LOG(INFO) << "unregisterKusCallback binder" << binder.get();
    size_t count = 0;
    CallbackMap logged;
    {
        const AutoMutex lock(listLock);
        const auto entry = findCallback(binder.get());
        if (entry == callbacks_.end()) {
            LOG(INFO) << "Given callback not registered with this list";
            return Status::ok();
        }
        UnregisterInternal(entry);
        count = callbacks_.size();
        if (verboseLogging) logged = callbacks_;
    }
    LOG(INFO) << "Size of callbacks at unregisterKusCallback" << count;
    // After the erase, whatever the text says.
    logCallbacks("unregisterKusCallback--: before erase iterating map ", logged);
    return Status::ok();
}

bool KUsbService::UnregisterInternal(CallbackMap::iterator entry) {
    const sp<CallbackDeathRecipient> recipient = entry->second;
    callbacks_.erase(entry);
    const sp<IBinder> binder = IInterface::asBinder(recipient->callback());
    const status_t unlinked = binder->unlinkToDeath(recipient, nullptr, 0, nullptr);
    // The client died meanwhile: the notice is on its way, or waits for the lock already.
    recipient->unregistered_ = unlinked == DEAD_OBJECT;
    if (unlinked != OK) {
        LOG(ERROR) << "Failed to unlink death recipient from binder";
        return false;
    }
    LOG(INFO) << "Callback successfully removed from list";
    return true;
}

KUsbService::CallbackDeathRecipient::CallbackDeathRecipient(
        const sp<IKUsbServiceCallback>& callback, KUsbService* owner)
    : callback_(callback), owner_(owner) {
    CHECK(callback_.get());
    CHECK(owner_);
}

void KUsbService::CallbackDeathRecipient::binderDied(const wp<IBinder>& who) {
    LOG(INFO) << "Received binderDied";
    const sp<IBinder> binder = IInterface::asBinder(callback_);
    CHECK(who.unsafe_get() == binder.get());

    const AutoMutex registry(owner_->mutex_);
    // Goes behind listLock: what it holds is the client's, and may end with it.
    sp<CallbackDeathRecipient> erased;
    const AutoMutex lock(listLock);
    if (unregistered_) return;
    const auto iter = owner_->findCallback(binder.get());
    CHECK(iter != owner_->callbacks_.end());
    // A dead binder needs no unlink.
    erased = iter->second;
    owner_->callbacks_.erase(iter);
    LOG(INFO) << "Size of callbacks at unregisterKusCallback binderDied "
              << owner_->callbacks_.size();
    LOG(INFO) << "Callback from dead process unregistered";
}

KUsbService::CallbackMap::iterator KUsbService::findCallback(IBinder* binder) {
    const auto first = callbacks_.lower_bound(binder);
    return first != callbacks_.end() && first->first == binder ? first : callbacks_.end();
}

void KUsbService::logCallbacks(const char* text, const CallbackMap& callbacks) {
    for (const auto& [binder, recipient] : callbacks) {
        LOG(INFO) << text << "key:" << binder << " value:" << recipient.get();
    }
}

// A snapshot in registry order: a client may register or unregister while it is being called.
std::vector<sp<IKUsbServiceCallback>> KUsbService::callbacks() const {
    const AutoMutex lock(listLock);
    std::vector<sp<IKUsbServiceCallback>> all;
    all.reserve(callbacks_.size());
    for (const auto& [binder, recipient] : callbacks_) all.push_back(recipient->callback());
    return all;
}

Status KUsbService::getDeviceList(std::vector<DeviceInfo>* out) {
    LOG(INFO) << "--getDeviceList()--";
    const ListCopies lists = copyLists();
    LOG(INFO) << "getDeviceList--completeDeviceInfoList size"
              << lists.input.size() + lists.usb.size();
    out->insert(out->end(), lists.input.begin(), lists.input.end());
    out->insert(out->end(), lists.usb.begin(), lists.usb.end());
    return Status::ok();
}

void KUsbService::addDeviceList(DeviceInfo info, bool allowed, std::string reason) {
    if (isUsbDevice(info)) {
        std::unique_ptr<DeviceInfo> record;
        {
            const AutoMutex lock(UsbDevice::mapLock);
            record = makeUsbRecord(info, allowed, reason);
        }
        addUsbDevice(std::move(record));
        return;
    }
    LOG(INFO) << info.deviceName << " device added to mInputDeviceInfoList";
    const int32_t deviceId = info.deviceId;
    auto record = makeRecord(std::move(info), allowed, std::move(reason));
    const AutoMutex lock(listLock);
    mInputDeviceInfoList.emplace(deviceId, std::move(record));
}

void KUsbService::addUsbDevice(std::unique_ptr<DeviceInfo> record) {
    Announcement announcement = {record->deviceId};
    {
        const AutoMutex lock(listLock);
        announcements.push_back(&announcement);
    }
    for (const sp<IKUsbServiceCallback>& callback : callbacks()) {
        if (verboseLogging) {
            LOG(INFO) << "addDeviceList: sending callback to client of onDeviceAdded  "
                      << callback.get();
        }
        callback->onDeviceAdded(*record);
    }
    const AutoMutex lock(listLock);
    announcements.erase(std::find(announcements.begin(), announcements.end(), &announcement));
    // It went while a client took its time: a record would stay for whatever gets its id next.
    if (announcement.removed) return;
    // An id that is listed already keeps its first record, though the clients have heard: meant.
    mUsbDeviceInfoList.emplace(record->deviceId, std::move(record));
}

Status KUsbService::updateDeviceList(const DeviceInfo& info, int32_t status) {
    if (isPolicySwitchedOff()) {
        LOG(INFO) << "updateDeviceList::Automation flag set, return";
        return Status::ok();
    }
    LOG(INFO) << "updateDeviceList--Device Name : " << info.deviceName
              << "updateStatus::Added/Removed " << status;
    const char* list = isUsbDevice(info) ? "mUsbDeviceInfoList" : "mInputDeviceInfoList";
    if (status != 0) {
        // Devices enter the lists through a decision only.
        LOG(INFO) << info.deviceName << " device added to " << list;
    } else if (isUsbDevice(info)) {
        LOG(INFO) << "updateDeviceList--calling get_deviceid_data while removing";
        for (const sp<IKUsbServiceCallback>& callback : callbacks()) {
            if (verboseLogging) {
                LOG(INFO) << "updateDeviceList--: sending callback to client onDeviceRemoved "
                          << callback.get();
            }
            callback->onDeviceRemoved(info);
        }
        forgetInterfaces(info.deviceId);
        LOG(INFO) << info.deviceName << " device removed from " << list;
        eraseUsbDevice(info.deviceId);
    } else {
        LOG(INFO) << info.deviceName << " device removed from " << list;
        const AutoMutex lock(listLock);
        mInputDeviceInfoList.erase(info.deviceId);
    }
    const AutoMutex lock(listLock);
    LOG(INFO) << "updateDeviceList--mInputDeviceInfoList size: " << mInputDeviceInfoList.size()
              << " mUsbDeviceInfoList size: " << mUsbDeviceInfoList.size();
    return Status::ok();
}

Status KUsbService::isDeviceAllowed(const DeviceInfo& info, bool* result) {
    if (isPolicySwitchedOff()) {
        LOG(INFO) << "isDeviceAllowed::Automation flag set, return";
        *result = true;
        return Status::ok();
    }
    *result = isUsbDevice(info) ? isUsbDeviceAllowed(info) : isInputDeviceAllowed(info);
    return Status::ok();
}

bool KUsbService::isHidAlone(const DeviceInfo& info) {
    return firstBesideHid(info) == info.interfaceClasses.end();
}

bool KUsbService::passesHidScreening(const DeviceInfo& info) {
    if (!isHidAlone(info)) {
        LOG(INFO) << "class is " << *firstBesideHid(info) << "not HID";
        UsbDevice::create_usb_device_map();
        return true;
    }
    UsbDevice::create_usb_device_map();
    if (UsbDevice::check_vendor_hid(info.deviceId)) return true;
    LOG(INFO) << "The HID device is controlled by Input Subsystem  ";
    return false;
}

KUsbService::Verdict KUsbService::judge(const DeviceInfo& info) {
    const AutoMutex lock(rulesLock);
    const std::string mode = Util::getMode();
    if (mode == kModeDefault) return {mode, true, "Enabled by default rule", By::kMode, {}};
    const Match match = matchRules(info);
    Verdict verdict = {mode, false, "", match.by, match.codeWithoutRule};
    if (mode == kModeBlacklist) {
        verdict.allowed = !match.matched();
        verdict.reason = match.matched() ? "Blacklisted: " + match.reason
                                         : "No matching rule found to Blacklist the device";
    } else {
        verdict.allowed = match.matched();
        verdict.reason = match.matched() ? "Whitelisted: " + match.reason
                                         : "No matching rule found to Whitelist the device";
    }
    return verdict;
}

bool KUsbService::isUsbDeviceAllowed(const DeviceInfo& info) {
    Verdict verdict;
    std::unique_ptr<DeviceInfo> record;
    {
        // All that is read of the map is of this decision's own rescan.
        const AutoMutex lock(UsbDevice::mapLock);
        if (!passesHidScreening(info)) return false;
        verdict = judge(info);
        LOG(INFO) << "isDeviceAllowed res val:" << verdict.allowed;
        if (!verdict.allowed) {
            LOG(INFO) << "isDeviceAllowed called and updating status authorized to 0";
            UsbDevice::update_status(info.deviceId, 0);
        }
        record = makeUsbRecord(info, verdict.allowed, verdict.reason);
    }
    addUsbDevice(std::move(record));
    logDecision(info, verdict);
    return verdict.allowed;
}

bool KUsbService::isInputDeviceAllowed(const DeviceInfo& info) {
    const Verdict verdict = judge(info);
    LOG(INFO) << "isDeviceAllowed res val:" << verdict.allowed;
    addDeviceList(info, verdict.allowed, verdict.reason);
    logDecision(info, verdict);
    return verdict.allowed;
}

Status KUsbService::resetUsbDevices(int32_t value) {
    LOG(INFO) << "resetUsbDevices called";
    UsbDevice::usb_host_reset(value);
    return Status::ok();
}

status_t KUsbService::dump(int fd, const Vector<String16>& args) {
    if (!args.empty()) {
        LOG(INFO) << "args[0] is" << String8(args[0]).string();
        // A String16 counts as equal up to its first zero, wherever it ends.
        if (args[0].size() == strlen(kTestArgument) && args[0] == String16(kTestArgument)) {
            dprintf(fd, "USB Test \n");
            dumpTopology(fd);
        }
        return OK;
    }
    dprintf(fd, "USB DEVICE INFO ");
    const ListCopies lists = copyLists();
    LOG(INFO) << "mInputDeviceInfoList size " << lists.input.size() << "mUsbDeviceInfoList size "
              << lists.usb.size();
    for (const DeviceInfo& record : lists.input) dumpPrint(fd, record);
    for (const DeviceInfo& record : lists.usb) dumpPrint(fd, record);
    return OK;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value is part of its interface.
void KUsbService::dumpPrint(int fd, DeviceInfo info) {
    LOG(INFO) << "Dump DeviceInfo:= { DeviceId:" << info.deviceId
              << ", DeviceName: " << info.deviceName
              << ", ClassName: " << Util::getClassName(info.deviceClass) << "[ " << info.deviceClass
              << "] , VendorId: " << info.vendorId << ", ProductId: " << info.productId << " }";
    const ClassTexts texts = isUsbDevice(info) ? interfaceTexts(info) : sourceTexts(info);
    LOG(INFO) << "interfaceClassListStr " << texts.classes;
    dprintf(fd, "\nDevice name : %s", info.deviceName.c_str());
    dprintf(fd, "\n   Device type(1=HID/0=Non-HID) : %d", info.deviceType);
    dprintf(fd, "\n   DeviceID : %u", static_cast<uint32_t>(info.deviceId));
    dprintf(fd, "\n   Device class name : %s", texts.classes.c_str());
    dprintf(fd, "\n   Restricted class name : %s", texts.restricted.c_str());
    dprintf(fd, "\n   Device Vendor Id : %d", info.vendorId);
    dprintf(fd, "\n   Device Product Id : %d", info.productId);
    dprintf(fd, "\n   Device status(1-enabled/0-disabled): %d", info.status);
    dprintf(fd, "\n   Reason : %s\n", info.reason.c_str());
}

void KUsbService::registerFileObserverViaThread() {
    const int result = pthread_create(&observerThread, nullptr, registerFileObserver, nullptr);
    LOG(INFO) << "registerFileObserverViaThread result--" << result;
}

void* KUsbService::registerFileObserver(void* /*argument*/) {
    // NOLINTNEXTLINE(android-cloexec-inotify-init): the daemon executes no other program.
    inotifyFd = inotify_init();
    if (!isDirectory(configDirPath)) LOG(INFO) << "No directory";
    directoryWatch = inotify_add_watch(inotifyFd, configDirPath, IN_ALL_EVENTS);
    if (directoryWatch < 0) {
        LOG(ERROR) << directoryWatch << " < 0 Could not register INotify for" << configDirPath;
    } else {
        LOG(INFO) << "registered successfully file observer";
    }
    readFileChangeEvent();
    return nullptr;
}

void KUsbService::readFileChangeEvent() {
    char buffer[512];
    while (true) {
        // A short read sets none, and an old EINTR must not count.
        errno = 0;
        const ssize_t length = read(inotifyFd, buffer, sizeof(buffer));
        if (length >= static_cast<ssize_t>(sizeof(inotify_event))) {
            takeEvents(buffer, length);
        } else if (errno == EINTR) {
            LOG(INFO) << "(errno == EINTR)";
        } else {
            LOG(INFO) << "Could not get read event, " << strerror(errno);
            return;
        }
    }
}

void KUsbService::stopFileObserver() {
    observerStopped = true;
}

}  // namespace android::kus
