// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** What the tests of the USB layer share: an empty device directory, and the records in reach. */

#pragma once

#include <dirent.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cutils/list.h>
#include <gtest/gtest.h>

#include "android/kus/usbdevice.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

inline constexpr char kUsbDevices[] = "/sys/bus/usb/devices";

class UsbDeviceTest : public testing::Test {
  protected:
    void SetUp() override {
        for (const char* path : {"/sys/bus/usb/devices", "/sys/bus/usb/drivers", "/sys/devices"}) {
            Remove(path);
        }
        UsbDevice::DeviceIdMap.clear();
    }

    void TearDown() override {
        UsbDevice::trace = false;
        UsbDevice::delete_all_nodes();
        UsbDevice::empty_list();
    }
};

/** A text of this many characters: "abc...yzabc...". */
inline std::string TextOf(size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    return text;
}

/** The name made this long by slashes at its end, which mean nothing in a path. */
inline std::string Padded(const std::string& name, size_t length) {
    return name + std::string(length - name.size(), '/');
}

/** Names in a directory in the order in which it yields them, without "." and "..". */
inline std::vector<std::string> EntriesOf(const std::string& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(directory.c_str()), closedir);
    CHECK(dir != nullptr) << directory;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    return names;
}

/**
 * Makes directories in an empty one so that it yields them in this order.
 *
 * The kernel's scratch file system yields the newest entry either first or last.
 */
inline void MakeDirsInOrder(const std::string& parent, std::vector<std::string> names) {
    const std::string directory = parent + "/";
    const std::vector<std::string> wanted = names;
    for (int attempt = 0; attempt < 2; ++attempt) {
        for (const std::string& name : names) Remove(directory + name);
        for (const std::string& name : names) MakeDir(directory + name);
        if (EntriesOf(parent) == wanted) return;
        std::reverse(names.begin(), names.end());
    }
    LOG(FATAL) << parent << " yields its entries in an order of its own";
}

/** What was written to the descriptor handed to print. */
inline std::string PrintedBy(const std::function<void(int)>& print) {
    const android::base::unique_fd fd(memfd_create("printed", MFD_CLOEXEC));
    CHECK(fd != -1);
    print(fd);
    CHECK(lseek(fd, 0, SEEK_SET) == 0);
    std::string text;
    CHECK(android::base::ReadFdToString(fd, &text));
    return text;
}

inline void Inspect(const std::vector<std::string>& names) {
    for (const std::string& name : names) UsbDevice::inspect_bus_entry(name.c_str());
}

// The records of a scan, in list order.

inline std::vector<usbbusnode*> Buses() {
    std::vector<usbbusnode*> buses;
    for (usbbusnode* bus = UsbDevice::bus_list; bus != nullptr; bus = bus->next) {
        buses.push_back(bus);
    }
    return buses;
}

inline std::vector<usbdevice*> Devices() {
    std::vector<usbdevice*> devices;
    listnode* node;
    list_for_each(node, &UsbDevice::device_list) {
        devices.push_back(node_to_item(node, usbdevice, list));
    }
    return devices;
}

inline std::vector<usbinterface*> Interfaces() {
    std::vector<usbinterface*> interfaces;
    listnode* node;
    list_for_each(node, &UsbDevice::interface_list) {
        interfaces.push_back(node_to_item(node, usbinterface, list));
    }
    return interfaces;
}

template <typename Node>
std::vector<std::string> NamesOf(const std::vector<Node*>& nodes) {
    std::vector<std::string> names;
    names.reserve(nodes.size());
    for (const Node* node : nodes) names.push_back(node->name);
    return names;
}

/** The names along a chain of next pointers; "ring" at the end of one that does not end. */
template <typename Node>
std::vector<std::string> ChainOf(const Node* node) {
    constexpr size_t kEndless = 50;
    std::vector<std::string> names;
    for (; node != nullptr && names.size() < kEndless; node = node->next) {
        names.push_back(node->name);
    }
    if (node != nullptr) names.push_back("ring");
    return names;
}

/** The first record of this name; there must be one. */
template <typename Node>
Node* Named(const std::vector<Node*>& nodes, const std::string& name) {
    const auto found = std::find_if(nodes.begin(), nodes.end(),
                                    [&](const Node* node) { return node->name == name; });
    CHECK(found != nodes.end()) << name;
    return *found;
}

inline usbbusnode* Bus(const std::string& name) {
    return Named(Buses(), name);
}

inline usbdevice* Device(const std::string& name) {
    return Named(Devices(), name);
}

inline usbinterface* Interface(const std::string& name) {
    return Named(Interfaces(), name);
}

/** Puts a text into a field of a record; it must fit. */
template <size_t size>
void SetText(char (&field)[size], const std::string& text) {
    CHECK(text.size() < size);
    memcpy(field, text.c_str(), text.size() + 1);
}

/** An entry of the device-id map. */
inline DeviceIdEntry EntryOf(const std::string& name, int32_t category = 0) {
    DeviceIdEntry entry = {};
    SetText(entry.interface_name, name);
    entry.category = category;
    return entry;
}

/** The map's ids and interfaces in map order, "1005 1-5:1.0" each. */
inline std::vector<std::string> MapLines() {
    std::vector<std::string> lines;
    for (const auto& [id, entry] : UsbDevice::DeviceIdMap) {
        lines.push_back(std::to_string(id) + " " + entry.interface_name);
    }
    return lines;
}

}  // namespace android::kus::test
