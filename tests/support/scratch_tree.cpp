// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/scratch_tree.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include <android-base/logging.h>
#include <gtest/gtest.h>

namespace android::kus::test {

namespace fs = std::filesystem;

namespace {

constexpr char kSysDevices[] = "/sys/devices/usb/";
constexpr char kUsbDevices[] = "/sys/bus/usb/devices/";

// A real /sys has /sys/kernel, the sandbox's never.
void requireSandbox() {
    CHECK(!fs::exists("/sys/kernel")) << "run this program through tests/sandbox";
}

void makeParent(const fs::path& path) {
    requireSandbox();
    fs::create_directories(path.parent_path());
}

}  // namespace

void MakeDir(const std::string& path) {
    requireSandbox();
    fs::create_directories(path);
}

void WriteFile(const std::string& path, const std::string& content) {
    makeParent(path);
    std::ofstream file(path, std::ios::binary);
    file << content;
    CHECK(file.good()) << path;
}

void MakeLink(const std::string& path, const std::string& target) {
    makeParent(path);
    fs::create_symlink(target, path);
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

bool Exists(const std::string& path) {
    return fs::exists(path);
}

void Remove(const std::string& path) {
    requireSandbox();
    fs::remove_all(path);
}

std::string AddUsbEntry(const std::string& name, const Attributes& attributes) {
    std::string directory = kSysDevices + name;
    MakeDir(directory);
    for (const auto& [attribute, text] : attributes) {
        WriteFile((fs::path(directory) / attribute).string(), text);
    }
    MakeLink(kUsbDevices + name, "../../../devices/usb/" + name);
    return directory;
}

std::string AddBus(int busnum) {
    return AddUsbEntry("usb" + std::to_string(busnum), {{"devnum", "1\n"},
                                                        {"bDeviceClass", "09\n"},
                                                        {"idProduct", "0002\n"},
                                                        {"idVendor", "1d6b\n"},
                                                        {"maxchild", "4\n"},
                                                        {"speed", "480\n"},
                                                        {"rx_lanes", "1\n"},
                                                        {"tx_lanes", "1\n"}});
}

std::string AddDevice(const std::string& name, int busnum, int devnum, const std::string& idVendor,
                      const std::string& idProduct, const Attributes& extra) {
    Attributes attributes = {{"busnum", std::to_string(busnum) + "\n"},
                             {"devnum", std::to_string(devnum) + "\n"},
                             {"idVendor", idVendor + "\n"},
                             {"idProduct", idProduct + "\n"},
                             {"bDeviceClass", "00\n"}};
    attributes.insert(attributes.end(), extra.begin(), extra.end());
    return AddUsbEntry(name, attributes);
}

std::string AddInterface(const std::string& name, const std::string& bInterfaceClass,
                         const Attributes& extra) {
    Attributes attributes = {{"bInterfaceClass", bInterfaceClass + "\n"}, {"authorized", "1\n"}};
    attributes.insert(attributes.end(), extra.begin(), extra.end());
    return AddUsbEntry(name, attributes);
}

void BindDriver(const std::string& entryDirectory, const std::string& driver) {
    MakeDir("/sys/bus/usb/drivers/" + driver);
    MakeLink(entryDirectory + "/driver", "../../../bus/usb/drivers/" + driver);
}

}  // namespace android::kus::test
