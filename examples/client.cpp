// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// kus-example-client: a client of the daemon, to begin one's own with (docs/integration.md).
//
//     kus-example-client usb|input ID NAME CLASS VENDOR PRODUCT [INTERFACE-CLASS...]
//
// Asks about one attached device, prints the verdict and what the daemon tells of USB devices, and
// does all of it again with a daemon that was started anew. Ends with its standard input.

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/DeviceInfo.h>
#include <android/kus/IKUsbService.h>
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <utils/String16.h>

namespace {

using android::IBinder;
using android::sp;
using android::String16;
using android::base::ParseInt;
using android::base::unique_fd;
using android::binder::Status;
using android::kus::BnKUsbServiceCallback;
using android::kus::DeviceInfo;
using android::kus::IKUsbService;

constexpr char kServiceName[] = "kusbservice";

// Comes on any thread of the binder pool, several at once, and on the very thread that is waiting
// for an answer of the daemon: hold no lock over a call of the service that a callback takes.
//
// The daemon waits for the end of each callback, and whoever had the device judged waits with it:
// return soon, and leave work that takes its time to a thread of your own. Calling the service from
// here is allowed.
class Events : public BnKUsbServiceCallback {
  public:
    // With the verdict. The device is not in the daemon's list yet; ask for that later.
    Status onDeviceAdded(const DeviceInfo& device) override {
        printf("added %d '%s' %s: %s\n", device.deviceId, device.deviceName.c_str(),
               device.status == 1 ? "allowed" : "refused", device.reason.c_str());
        return Status::ok();
    }

    // The record is the reporter's: only id and type are sure to be filled in.
    Status onDeviceRemoved(const DeviceInfo& device) override {
        printf("removed %d\n", device.deviceId);
        return Status::ok();
    }
};

// The end of one daemon. The notice comes on a thread of the binder pool, which does no more than
// pass it on.
class DeathNotice : public IBinder::DeathRecipient {
  public:
    DeathNotice() : fd_(eventfd(0, EFD_CLOEXEC)) {
        if (fd_ == -1) PLOG(FATAL) << "Cannot make an eventfd";
    }

    void binderDied(const android::wp<IBinder>& /*who*/) override {
        if (eventfd_write(fd_, 1) == -1) PLOG(FATAL) << "Cannot pass on a death notice";
    }

    // False when standard input ended first.
    bool wait() const {
        pollfd fds[] = {{fd_, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        char input[64];
        do {
            if (TEMP_FAILURE_RETRY(poll(fds, std::size(fds), -1)) == -1) PLOG(FATAL) << "poll";
            if (fds[0].revents != 0) return true;
        } while (TEMP_FAILURE_RETRY(read(STDIN_FILENO, input, sizeof(input))) > 0);
        return false;
    }

  private:
    const unique_fd fd_;
};

// What the platform knows of the device. The daemon fills in the rest, in its own record.
std::optional<DeviceInfo> deviceFrom(const std::vector<std::string>& words) {
    if (words.size() < 6 || (words[0] != "usb" && words[0] != "input")) return {};
    DeviceInfo device;
    device.deviceType = words[0] == "usb" ? 0 : 1;
    // USB: bus number * 1000 + device number, by which the daemon finds it in sysfs. Input: the
    // platform's own id of the input device.
    if (!ParseInt(words[1], &device.deviceId)) return {};
    device.deviceName = words[2];
    // USB: bDeviceClass. Input: the sources, such as 0x2002 for a mouse.
    if (!ParseInt(words[3], &device.deviceClass)) return {};
    if (!ParseInt(words[4], &device.vendorId)) return {};
    if (!ParseInt(words[5], &device.productId)) return {};
    // USB: of each interface, in the order of their numbers. Input: none.
    for (size_t i = 6; i < words.size(); ++i) {
        int32_t interfaceClass = 0;
        if (!ParseInt(words[i], &interfaceClass, 0, 255)) return {};
        device.interfaceClasses.push_back(interfaceClass);
    }
    return device;
}

// A daemon that was started anew knows neither callbacks nor devices: it is told all of both. Calls
// fail when it has died again; the notice of that is on its way then.
void begin(const sp<IKUsbService>& service, const sp<Events>& events, const DeviceInfo& device) {
    // First, so that no device is judged unheard.
    if (!service->registerKusCallback(events).isOk()) return;
    bool allowed = false;
    const Status status = service->isDeviceAllowed(device, &allowed);
    // No answer is a refusal.
    printf("verdict %d %s\n", device.deviceId, status.isOk() && allowed ? "allowed" : "refused");
}

int follow(const DeviceInfo& device) {
    const sp<Events> events = new Events();
    while (true) {
        const sp<IKUsbService> service =
                android::waitForService<IKUsbService>(String16(kServiceName));
        if (service == nullptr) {
            (void)fprintf(stderr, "kus-example-client: may not find %s\n", kServiceName);
            return 1;
        }
        const sp<IBinder> binder = android::IInterface::asBinder(service);
        const sp<DeathNotice> death = new DeathNotice();
        // Fails when it has died meanwhile.
        if (binder->linkToDeath(death) != android::OK) continue;
        printf("found\n");
        begin(service, events, device);
        if (!death->wait()) {
            service->unregisterKusCallback(events);
            binder->unlinkToDeath(death);
            return 0;
        }
        printf("lost\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<DeviceInfo> device = deviceFrom({argv + 1, argv + argc});
    if (!device) {
        (void)fprintf(stderr,
                      "usage: kus-example-client usb|input ID NAME CLASS VENDOR PRODUCT "
                      "[INTERFACE-CLASS...]\n");
        return 2;
    }
    if (setvbuf(stdout, nullptr, _IOLBF, 0) != 0) PLOG(FATAL) << "setvbuf";
    // Without a pool neither callbacks nor the death notice come in.
    android::ProcessState::self()->startThreadPool();
    return follow(*device);
}
