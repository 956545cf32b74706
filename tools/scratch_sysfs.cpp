// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/scratch_sysfs.h"

#include <filesystem>

#include <android-base/logging.h>

namespace android::kus::tools {
namespace {

namespace fs = std::filesystem;

void writeLine(const std::string& path, const std::string& text) {
    ScratchSysfs::write(path, text + "\n");
}

void link(const std::string& at, const std::string& target) {
    fs::create_symlink(fs::path(target).lexically_relative(fs::path(at).parent_path()), at);
}

}  // namespace

ScratchSysfs::ScratchSysfs() {
    fs::create_directories(path() + "/bus/usb/devices");
    write(path() + "/bus/usb/drivers_probe", "");
    for (const std::string driver : {"hub", "usbhid"}) {
        const std::string dir = path() + "/bus/usb/drivers/" + driver;
        fs::create_directories(dir);
        write(dir + "/bind", "");
    }
    fs::create_directories(path() + "/bus/platform");
    fs::create_directories(path() + "/class/input");
}

std::string ScratchSysfs::addUsb(const std::string& sysname, const Usb& usb) const {
    std::string dir =
            path() + "/devices/platform/hcd/usb" + std::to_string(usb.bus) + "/" + sysname;
    fs::create_directories(dir);
    writeLine(dir + "/busnum", std::to_string(usb.bus));
    writeLine(dir + "/devnum", std::to_string(usb.devnum));
    writeLine(dir + "/bDeviceClass", usb.deviceClass);
    writeLine(dir + "/idVendor", usb.vendor);
    writeLine(dir + "/idProduct", usb.product);
    if (!usb.name.empty()) writeLine(dir + "/product", usb.name);
    write(dir + "/bConfigurationValue", usb.configuration.empty() ? "" : usb.configuration + "\n");
    int number = 0;
    for (const std::string& interfaceClass : usb.interfaceClasses) {
        addInterface(dir, usb.configuration, number++, interfaceClass);
    }
    link(dir + "/subsystem", path() + "/bus/usb");
    if (usb.bound) link(dir + "/driver", path() + "/bus/usb/drivers/usb");
    link(path() + "/bus/usb/devices/" + sysname, dir);
    return dir;
}

void ScratchSysfs::addInterface(const std::string& dir, const std::string& configuration,
                                int number, const std::string& interfaceClass) {
    const std::string name =
            fs::path(dir).filename().string() + ":" + configuration + "." + std::to_string(number);
    fs::create_directories(dir + "/" + name);
    writeLine(dir + "/" + name + "/bInterfaceClass", interfaceClass);
    writeLine(dir + "/" + name + "/authorized", "1");
}

std::string ScratchSysfs::addRootHub(int bus) const {
    const std::string sysname = "usb" + std::to_string(bus);
    std::string dir = path() + "/devices/platform/hcd/" + sysname;
    fs::create_directories(dir);
    writeLine(dir + "/interface_authorized_default", "1");
    const std::string interface = dir + "/" + std::to_string(bus) + "-0:1.0";
    fs::create_directories(interface + "/driver");
    writeLine(interface + "/bInterfaceClass", "09");
    writeLine(interface + "/authorized", "1");
    link(dir + "/subsystem", path() + "/bus/usb");
    link(path() + "/bus/usb/devices/" + sysname, dir);
    return dir;
}

void ScratchSysfs::removeUsb(const std::string& sysname) const {
    const std::string entry = path() + "/bus/usb/devices/" + sysname;
    fs::remove_all(fs::canonical(entry));
    fs::remove(entry);
}

std::string ScratchSysfs::addInput(int number, const std::string& parent,
                                   const Input& input) const {
    const std::string sysname = "input" + std::to_string(number);
    std::string dir = parent + "/input/" + sysname;
    fs::create_directories(dir + "/capabilities");
    fs::create_directories(dir + "/id");
    writeLine(dir + "/name", input.name);
    writeLine(dir + "/id/vendor", input.vendor);
    writeLine(dir + "/id/product", input.product);
    writeLine(dir + "/properties", "0");
    writeLine(dir + "/capabilities/key", input.keys);
    writeLine(dir + "/capabilities/rel", "0");
    writeLine(dir + "/capabilities/abs", "0");
    if (input.inhibitable) writeLine(dir + "/inhibited", "0");
    link(dir + "/subsystem", path() + "/class/input");
    link(path() + "/class/input/" + sysname, dir);
    return dir;
}

void ScratchSysfs::removeInput(int number) const {
    const std::string entry = path() + "/class/input/input" + std::to_string(number);
    fs::remove_all(fs::canonical(entry));
    fs::remove(entry);
}

std::string ScratchSysfs::addPlatformDevice(const std::string& name) const {
    std::string dir = path() + "/devices/platform/" + name;
    fs::create_directories(dir);
    link(dir + "/subsystem", path() + "/bus/platform");
    return dir;
}

void ScratchSysfs::write(const std::string& path, const std::string& text) {
    CHECK(base::WriteStringToFile(text, path)) << path;
}

std::string ScratchSysfs::read(const std::string& path) {
    std::string text;
    CHECK(base::ReadFileToString(path, &text)) << path;
    return text;
}

}  // namespace android::kus::tools
