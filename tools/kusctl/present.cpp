// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/present.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>

#include <android-base/unique_fd.h>

#include "android/kus/ku_service.h"
#include "android/kus/usbdevice.h"
#include "android/kus/util.h"

namespace android::kus::tools {

using base::unique_fd;

namespace {

constexpr char kSysfs[] = "/sys";
constexpr char kUsbDevices[] = "/sys/bus/usb/devices";

// The daemon's rescan tells standard output and standard error of odd entries; there, what this
// program prints is the caller's.
class Silence {
  public:
    Silence() {
        (void)fflush(stdout);
        const unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(null.get(), STDOUT_FILENO);
        dup2(null.get(), STDERR_FILENO);
    }
    ~Silence() {
        (void)fflush(stdout);
        dup2(out_.get(), STDOUT_FILENO);
        dup2(errors_.get(), STDERR_FILENO);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    const unique_fd out_{fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)};
    const unique_fd errors_{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)};
};

PresentDevice screened(AttachedDevice device) {
    PresentDevice present;
    if (device.kind == DeviceKind::kUsb) {
        present.assumedVendorHid = KUsbService::isHidAlone(device.info) && isBlocked(device.path);
        const AutoMutex lock(UsbDevice::mapLock);
        present.leftToInput =
                !present.assumedVendorHid && !KUsbService::passesHidScreening(device.info);
    }
    present.device = std::move(device);
    return present;
}

}  // namespace

Parsed<std::vector<PresentDevice>> presentDevices() {
    if (!isDirectory(kUsbDevices)) {
        return wrong(std::string(kUsbDevices) + " is not there: this machine has no USB");
    }
    const Silence silence;
    std::vector<PresentDevice> devices;
    for (const DeviceKind kind : {DeviceKind::kUsb, DeviceKind::kInput}) {
        for (const std::string& dir : deviceDirectories(kind, kSysfs)) {
            std::optional<AttachedDevice> device = readDevice(kind, dir);
            if (device) devices.push_back(screened(std::move(*device)));
        }
    }
    return devices;
}

}  // namespace android::kus::tools
