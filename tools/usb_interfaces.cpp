// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/usb_interfaces.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "tools/device_scan.h"

namespace android::kus::tools {
namespace {

using base::unique_fd;

// The kernel's default for the interfaces of a bus; root hubs alone have it.
constexpr char kDefault[] = "/interface_authorized_default";
constexpr char kClosed = '0';
constexpr char kOpen = '1';

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

unique_fd openToWrite(const std::string& path) {
    return unique_fd(TEMP_FAILURE_RETRY(::open(path.c_str(), O_WRONLY | O_CLOEXEC)));
}

bool writeAtStart(const unique_fd& fd, char value) {
    return TEMP_FAILURE_RETRY(pwrite(fd.get(), &value, 1, 0)) == 1;
}

bool writeLine(const unique_fd& fd, const std::string& text) {
    const std::string line = text + "\n";
    return TEMP_FAILURE_RETRY(write(fd.get(), line.data(), line.size())) ==
           static_cast<ssize_t>(line.size());
}

std::string cannotClose(const std::string& hub) {
    return hub + kDefault + ": " + strerror(errno);
}

// Remembers the first failure of a row of which each one is tried.
class FirstError {
  public:
    void add(bool success) {
        if (!success && error_ == 0) error_ = errno;
    }
    // Returns success, with errno set if there was none.
    bool result() const {
        if (error_ != 0) errno = error_;
        return error_ == 0;
    }

  private:
    int error_ = 0;
};

}  // namespace

UsbInterfaces::UsbInterfaces(const std::string& dir, std::optional<int32_t> onlyClass) : dir_(dir) {
    const std::string parent = dir + "/";
    for (std::string& name : interfaceNames(dir)) {
        const unique_fd held(TEMP_FAILURE_RETRY(
                ::open((parent + name).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)));
        // What is read through the descriptor belongs to one and the same interface.
        const std::string path = "/proc/self/fd/" + std::to_string(held.get());
        Interface interface;
        interface.name = std::move(name);
        interface.interfaceClass = tools::interfaceClass(path).value_or(-1);
        interface.authorized.reset(
                TEMP_FAILURE_RETRY(::open((path + "/authorized").c_str(), O_RDWR | O_CLOEXEC)));
        if (interface.authorized.get() == -1) {
            // Gone since its name was read.
            interface.openError = errno == ENOENT ? ENODEV : errno;
        }
        if (onlyClass && interface.interfaceClass != *onlyClass) continue;
        interfaces_.push_back(std::move(interface));
    }
}

std::vector<int32_t> UsbInterfaces::classes() const {
    std::vector<int32_t> classes;
    for (const Interface& interface : interfaces_) classes.push_back(interface.interfaceClass);
    return classes;
}

bool UsbInterfaces::bound() const {
    return std::all_of(interfaces_.begin(), interfaces_.end(),
                       [this](const Interface& interface) { return isBound(interface); });
}

bool UsbInterfaces::anyClosed() const {
    return std::any_of(interfaces_.begin(), interfaces_.end(),
                       [](const Interface& interface) { return !interface.isOpen(); });
}

bool UsbInterfaces::close() const {
    FirstError errors;
    for (const Interface& interface : interfaces_) {
        if (interface.isOpen() || interface.openError != 0) errors.add(interface.set(false));
    }
    return errors.result();
}

bool UsbInterfaces::open() const {
    if (!setAllOpen()) return false;
    const unique_fd probe = openToWrite(busPath("drivers_probe"));
    if (probe.get() == -1) return false;
    FirstError errors;
    for (const Interface& interface : interfaces_) errors.add(writeLine(probe, interface.name));
    return errors.result();
}

bool UsbInterfaces::openFor(const std::string& driver) const {
    if (!setAllOpen()) return false;
    const unique_fd bind = openToWrite(busPath("drivers/" + driver + "/bind"));
    if (bind.get() == -1) return false;
    for (const Interface& interface : interfaces_) writeLine(bind, interface.name);
    return true;
}

bool UsbInterfaces::closeUnbound() const {
    FirstError errors;
    for (const Interface& interface : interfaces_) {
        if (!isBound(interface)) errors.add(interface.set(false));
    }
    return errors.result();
}

bool UsbInterfaces::isBound(const Interface& interface) const {
    return exists(dir_ + "/" + interface.name + "/driver");
}

bool UsbInterfaces::setAllOpen() const {
    FirstError errors;
    for (const Interface& interface : interfaces_) errors.add(interface.set(true));
    return errors.result();
}

bool UsbInterfaces::Interface::isOpen() const {
    char value = kClosed;
    return TEMP_FAILURE_RETRY(pread(authorized.get(), &value, 1, 0)) == 1 && value == kOpen;
}

bool UsbInterfaces::Interface::set(bool open) const {
    if (authorized.get() != -1) return writeAtStart(authorized, open ? kOpen : kClosed);
    errno = openError;
    return false;
}

bool closeRootHub(const std::string& dir) {
    const unique_fd fd = openToWrite(dir + kDefault);
    if (fd.get() == -1 || !writeAtStart(fd, kClosed)) return !exists(dir);
    const UsbInterfaces own(dir);
    return own.bound() || own.open() || !exists(dir);
}

std::optional<std::string> closeRootHubs(const std::string& sysfs) {
    const std::vector<std::string> hubs = rootHubDirectories(sysfs);
    for (const std::string& hub : hubs) {
        if (openToWrite(hub + kDefault).get() == -1 && exists(hub)) return cannotClose(hub);
    }
    for (const std::string& hub : hubs) {
        if (!closeRootHub(hub)) return cannotClose(hub);
    }
    return std::nullopt;
}

}  // namespace android::kus::tools
