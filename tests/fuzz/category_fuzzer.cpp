// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// UsbDevice::populate_category_device() over an interface's directory. The input is a tree
// (tree_text.h) whose first entry is the interface; the word "storage" makes it one.

#include <dirent.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>

#include "android/kus/usbdevice.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/tree_text.h"

using android::kus::UsbDevice;
using android::kus::usbinterface;
using android::kus::fuzz::IsTerminated;
using android::kus::fuzz::ParseTree;
using android::kus::fuzz::ScratchTree;
using android::kus::fuzz::TreeText;

namespace {

constexpr size_t kLongestName = 254;
constexpr size_t kLongestPath = 254;
constexpr size_t kLongestCategoryPath = 63;
constexpr uint32_t kStorage = 8;
constexpr uint32_t kVendorSpecific = 255;

struct Entry {
    std::string name;
    bool isDirectory;
};

struct Category {
    int32_t value;
    std::string path;
};

// False when there is no such directory. Without "." and "..".
bool list(const std::string& path, std::vector<Entry>* entries) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), closedir);
    if (dir == nullptr) return false;
    entries->clear();
    while (const dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") entries->push_back({name, entry->d_type == DT_DIR});
    }
    return true;
}

std::string below(const std::string& path, const std::string& name) {
    return (path + "/" + name).substr(0, kLongestPath);
}

// The rule as a loop over what the directory yields; path is where the next look goes to.
Category expectedCategory(const std::string& name, uint32_t interfaceClass) {
    if (interfaceClass == kStorage) return {4, "sdcard"};
    std::string path = below(android::kus::fuzz::kUsbDevices, name);
    Category category = {0, "empty"};
    std::vector<Entry> entries;
    if (!list(path, &entries)) return category;
    for (const Entry& entry : entries) {
        const bool isNamed = entry.name == "net" || entry.name == "tty";
        const bool isHid = entry.name.find(':') != std::string::npos;
        if (isNamed) category.value = entry.name == "net" ? 1 : 2;
        if (!entry.isDirectory || (!isNamed && !isHid)) continue;
        path = below(path, entry.name);
        std::vector<Entry> content;
        if (!list(path, &content)) continue;
        const auto found = std::find_if(content.begin(), content.end(), [=](const Entry& inner) {
            return inner.isDirectory && (isNamed || inner.name == "input");
        });
        if (isNamed && found != content.end()) {
            return {category.value, found->name.substr(0, kLongestCategoryPath)};
        }
        if (!isNamed && found == content.end()) return {8, category.path};
    }
    return category;
}

// A record whose other bytes are all set: none of them may change.
std::unique_ptr<usbinterface> makeRecord(const std::string& name, uint32_t interfaceClass) {
    auto record = std::make_unique<usbinterface>();
    memset(record.get(), 0xA5, sizeof(*record));
    record->bInterfaceClass = interfaceClass;
    memcpy(record->name, name.c_str(), name.size() + 1);
    return record;
}

std::string bytesOf(const usbinterface& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    android::kus::fuzz::MakeDirs(android::kus::fuzz::kUsbDevices);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const TreeText text = ParseTree(data, size);
    if (text.entries.empty()) return 0;
    const auto has = [&](const char* word) {
        return std::count(text.words.begin(), text.words.end(), word) > 0;
    };
    const uint32_t interfaceClass = has("storage") ? kStorage : kVendorSpecific;
    const ScratchTree tree(text.entries);
    const std::string name = text.entries[0].name.substr(0, kLongestName);

    const std::unique_ptr<usbinterface> record = makeRecord(name, interfaceClass);
    usbinterface expected = *record;
    UsbDevice::trace = has("trace");
    UsbDevice::populate_category_device(record.get());

    const Category category = expectedCategory(name, interfaceClass);
    CHECK_EQ(record->category, category.value);
    CHECK(IsTerminated(record->category_path));
    CHECK_EQ(std::string(record->category_path), category.path);
    expected.category = record->category;
    memcpy(expected.category_path, record->category_path, sizeof(expected.category_path));
    CHECK(bytesOf(*record) == bytesOf(expected));
    return 0;
}
