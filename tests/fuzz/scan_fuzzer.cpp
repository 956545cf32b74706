// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// A rescan of the USB device directory, and all that is asked of its result. The input is a tree
// (tree_text.h). Names that no directory can hold are handed to the scan by themselves.
//
// Everything found is compared with a second reading of the same files.

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <cutils/list.h>

#include "android/kus/usbdevice.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/tree_text.h"

using android::kus::DeviceIdEntry;
using android::kus::usbbusnode;
using android::kus::UsbDevice;
using android::kus::usbdevice;
using android::kus::usbinterface;
using android::kus::fuzz::IsTerminated;
using android::kus::fuzz::kUsbDevices;
using android::kus::fuzz::NamesIn;
using android::kus::fuzz::ParseTree;
using android::kus::fuzz::ReadFile;
using android::kus::fuzz::ScratchTree;
using android::kus::fuzz::Sink;
using android::kus::fuzz::TreeText;

namespace {

constexpr size_t kLongestPath = 4095;
constexpr size_t kLongestFileName = 255;
constexpr size_t kLongestName = 254;
constexpr size_t kLongestDriver = 254;
constexpr size_t kLongestLink = 4094;
constexpr size_t kLongestText = 63;
constexpr size_t kLongestBusSpeed = 7;
constexpr size_t kLongestNumber = 11;
constexpr size_t kMostAsked = 3;

std::string pathOf(const std::string& name, const std::string& file) {
    return std::string(kUsbDevices) + "/" + name + "/" + file;
}

// The directories of this input's entries. Most hold few of the attributes, and one listing is
// cheaper than twenty files that cannot be opened.
std::map<std::string, std::vector<std::string>> listings;

bool mayHave(const std::string& name, const char* attribute) {
    if (name.size() > kLongestFileName) return true;
    const auto [listing, isNew] = listings.try_emplace(name);
    if (isNew) listing->second = NamesIn(std::string(kUsbDevices) + "/" + name);
    const auto& files = listing->second;
    return std::find(files.begin(), files.end(), attribute) != files.end();
}

uint32_t numberIn(const std::string& name, const char* attribute, int base) {
    if (!mayHave(name, attribute)) return 0;
    const std::string path = pathOf(name, attribute).substr(0, kLongestPath);
    const std::string text = ReadFile(path, kLongestNumber);
    return static_cast<uint32_t>(strtoul(text.c_str(), nullptr, base));
}

std::string textIn(const std::string& name, const char* attribute) {
    if (!mayHave(name, attribute)) return "";
    const std::string path = pathOf(name, attribute);
    if (path.size() > kLongestPath) return "";
    std::string text = ReadFile(path, kLongestText + 1);
    if (text.size() > kLongestText) return "";
    text.resize(text.find_last_not_of('\n') + 1);
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text.c_str();
}

std::string driverOf(const std::string& name, const char* link) {
    const std::string path = pathOf(name, link);
    if (path.size() > kLongestPath) return "";
    char target[kLongestLink + 2] = {};
    const ssize_t length = readlink(path.c_str(), target, sizeof(target));
    if (length < 0 || length > static_cast<ssize_t>(kLongestLink)) return "";
    const std::string text(target, length);
    const size_t slash = text.rfind('/');
    return slash == std::string::npos ? "" : text.substr(slash + 1, kLongestDriver);
}

// The number that a text begins with; *end is moved behind it.
std::optional<uint32_t> leadingNumber(const char* text, const char** end) {
    char* behind = nullptr;
    const auto value = static_cast<uint32_t>(strtoul(text, &behind, 10));
    if (behind == text) return std::nullopt;
    *end = behind;
    return value;
}

enum class Kind { kBus, kDevice, kInterface, kOther };

Kind kindOf(const std::string& name) {
    const auto isDigit = [&](size_t i) {
        return i < name.size() && name[i] >= '0' && name[i] <= '9';
    };
    if (name.compare(0, 3, "usb") == 0 && isDigit(3)) return Kind::kBus;
    if (!isDigit(0)) return Kind::kOther;
    const size_t colon = name.find(':');
    if (colon == std::string::npos) return Kind::kDevice;
    const char* end = name.c_str() + colon + 1;
    if (!leadingNumber(end, &end) || *end == '\0') return Kind::kOther;
    return leadingNumber(end + 1, &end) ? Kind::kInterface : Kind::kOther;
}

std::vector<std::string> namesOfKind(const std::vector<std::string>& names, Kind kind) {
    std::vector<std::string> found;
    std::copy_if(names.begin(), names.end(), std::back_inserter(found),
                 [=](const std::string& name) { return kindOf(name) == kind; });
    return found;
}

std::string cut(const std::string& name) {
    return name.substr(0, kLongestName);
}

// --- What a record holds, field by field ------------------------------------------------------

struct NumberField {
    const char* attribute;
    int base;
    uint32_t value;
};

void checkNumbers(const std::string& name, const std::vector<NumberField>& fields) {
    for (const auto& [attribute, base, value] : fields) {
        CHECK_EQ(value, numberIn(name, attribute, base)) << attribute;
    }
}

template <size_t size>
void checkText(const char (&field)[size], const std::string& expected) {
    CHECK(IsTerminated(field));
    CHECK_EQ(std::string(field), expected);
}

void checkBus(const usbbusnode& bus, const std::string& name) {
    checkNumbers(name, {{"devnum", 10, bus.devnum},
                        {"bDeviceClass", 16, bus.bDeviceClass},
                        {"idProduct", 16, bus.idProduct},
                        {"idVendor", 16, bus.idVendor},
                        {"maxchild", 10, bus.maxchild},
                        {"rx_lanes", 10, bus.rx_lanes},
                        {"tx_lanes", 10, bus.tx_lanes}});
    checkText(bus.speed, textIn(name, "speed").substr(0, kLongestBusSpeed));
    checkText(bus.name, cut(name));
    checkText(bus.driver, driverOf(name, "../driver"));
}

void checkDevice(const usbdevice& device, const std::string& name) {
    CHECK_EQ(device.bConfigurationValue,
             name.size() > kLongestName ? numberIn(name, "bConfigurationValue", 10) : 0);
    checkNumbers(name, {{"bDeviceClass", 16, device.bDeviceClass},
                        {"bDeviceProtocol", 16, device.bDeviceProtocol},
                        {"bDeviceSubClass", 16, device.bDeviceSubClass},
                        {"bMaxPacketSize0", 16, device.bMaxPacketSize0},
                        {"bNumConfigurations", 10, device.bNumConfigurations},
                        {"bNumInterfaces", 16, device.bNumInterfaces},
                        {"bcdDevice", 16, device.bcdDevice},
                        {"bmAttributes", 16, device.bmAttributes},
                        {"configuration", 10, device.configuration},
                        {"devnum", 10, device.devnum},
                        {"idProduct", 16, device.idProduct},
                        {"idVendor", 16, device.idVendor},
                        {"maxchild", 10, device.maxchild},
                        {"rx_lanes", 10, device.rx_lanes},
                        {"tx_lanes", 10, device.tx_lanes}});
    checkText(device.bMaxPower, textIn(name, "bMaxPower"));
    checkText(device.manufacturer, textIn(name, "manufacturer"));
    checkText(device.product, textIn(name, "product"));
    checkText(device.serial, textIn(name, "serial"));
    checkText(device.version, textIn(name, "version"));
    checkText(device.speed, textIn(name, "speed"));
    checkText(device.name, cut(name));
    checkText(device.driver, driverOf(name, "driver"));
}

void checkInterface(const usbinterface& interface, const std::string& name) {
    checkNumbers(name, {{"bAlternateSetting", 10, interface.bAlternateSetting},
                        {"bInterfaceClass", 16, interface.bInterfaceClass},
                        {"bInterfaceNumber", 16, interface.bInterfaceNumber},
                        {"bInterfaceProtocol", 16, interface.bInterfaceProtocol},
                        {"bInterfaceSubClass", 16, interface.bInterfaceSubClass},
                        {"bNumEndpoints", 16, interface.bNumEndpoints}});
    checkText(interface.name, cut(name));
    checkText(interface.driver, driverOf(name, "driver"));
    CHECK_EQ(interface.category, 0);
    checkText(interface.category_path, "");
}

// --- The lists --------------------------------------------------------------------------------

std::vector<const usbbusnode*> buses() {
    std::vector<const usbbusnode*> nodes;
    for (const auto* bus = UsbDevice::bus_list; bus != nullptr; bus = bus->next) {
        nodes.push_back(bus);
    }
    return nodes;
}

std::vector<const usbdevice*> devices() {
    std::vector<const usbdevice*> nodes;
    listnode* node;
    list_for_each(node, &UsbDevice::device_list) {
        nodes.push_back(node_to_item(node, usbdevice, list));
    }
    return nodes;
}

std::vector<const usbinterface*> interfaces() {
    std::vector<const usbinterface*> nodes;
    listnode* node;
    list_for_each(node, &UsbDevice::interface_list) {
        nodes.push_back(node_to_item(node, usbinterface, list));
    }
    return nodes;
}

void checkNoRecordIsLeft() {
    CHECK(UsbDevice::bus_list == nullptr);
    CHECK(list_empty(&UsbDevice::device_list));
    CHECK(list_empty(&UsbDevice::interface_list));
}

template <typename Node>
void checkEach(const std::vector<const Node*>& nodes, const std::vector<std::string>& names,
               void (*check)(const Node&, const std::string&)) {
    CHECK_EQ(nodes.size(), names.size());
    for (size_t i = 0; i < nodes.size(); ++i) check(*nodes[i], names[i]);
}

// A chain holds each of its records once; most is the number of all records of its kind.
template <typename Node>
void checkChain(const Node* first, size_t most) {
    size_t length = 0;
    for (const Node* node = first; node != nullptr; node = node->next) CHECK_LE(++length, most);
}

void checkLinks() {
    for (const usbbusnode* bus : buses()) {
        checkChain(bus->first_child, devices().size());
        checkChain(bus->first_interface, interfaces().size());
    }
    for (const usbdevice* device : devices()) {
        checkChain(device->first_child, devices().size());
        checkChain(device->first_interface, interfaces().size());
        if (device->parent == nullptr) continue;
        const std::string name = device->name;
        CHECK_EQ(name.substr(0, name.rfind('.')), device->parent->name);
        CHECK_EQ(device->busnum, device->parent->busnum);
    }
}

// --- The map ----------------------------------------------------------------------------------

struct MapLine {
    int32_t id;
    std::string text;

    bool operator==(const MapLine& other) const { return id == other.id && text == other.text; }
};

std::string describe(const std::string& name, const std::vector<uint32_t>& numbers,
                     const std::string& manufacturer, const std::string& product) {
    std::string text = name;
    for (const uint32_t number : numbers) text += " " + std::to_string(number);
    return text + "|" + manufacturer + "|" + product;
}

MapLine mapLineOf(int32_t id, const DeviceIdEntry& entry) {
    CHECK(IsTerminated(entry.interface_name));
    CHECK(IsTerminated(entry.manufacturer));
    CHECK(IsTerminated(entry.product));
    CHECK(IsTerminated(entry.category_path));
    CHECK_NE(entry.category_path[0], '\0');
    return {id, describe(entry.interface_name,
                         {entry.bInterfaceClass, entry.bInterfaceNumber, entry.bInterfaceProtocol,
                          entry.bInterfaceSubClass, entry.busnum, entry.devnum, entry.idVendor,
                          entry.idProduct},
                         entry.manufacturer, entry.product)};
}

// What an interface puts into the map; nothing when its device is not among the names.
std::optional<MapLine> expectedLine(const std::string& interface,
                                    const std::vector<std::string>& deviceNames) {
    const std::string name = cut(interface);
    const size_t colon = name.find(':');
    if (colon == std::string::npos) return std::nullopt;
    const auto found = std::find_if(
            deviceNames.begin(), deviceNames.end(),
            [&](const std::string& device) { return cut(device) == name.substr(0, colon); });
    if (found == deviceNames.end()) return std::nullopt;

    const std::string& device = *found;
    const auto busnum = static_cast<uint32_t>(strtoul(device.c_str(), nullptr, 10));
    const uint32_t devnum = numberIn(device, "devnum", 10);
    return MapLine{static_cast<int32_t>(busnum * 1000 + devnum),
                   describe(name,
                            {numberIn(interface, "bInterfaceClass", 16),
                             numberIn(interface, "bInterfaceNumber", 16),
                             numberIn(interface, "bInterfaceProtocol", 16),
                             numberIn(interface, "bInterfaceSubClass", 16), busnum, devnum,
                             numberIn(device, "idVendor", 16), numberIn(device, "idProduct", 16)},
                            textIn(device, "manufacturer"), textIn(device, "product"))};
}

void checkMap(const std::vector<std::string>& names) {
    std::vector<MapLine> expected;
    const std::vector<std::string> deviceNames = namesOfKind(names, Kind::kDevice);
    for (const std::string& interface : namesOfKind(names, Kind::kInterface)) {
        if (const auto line = expectedLine(interface, deviceNames)) expected.push_back(*line);
    }
    std::stable_sort(expected.begin(), expected.end(),
                     [](const MapLine& a, const MapLine& b) { return a.id < b.id; });

    std::vector<MapLine> lines;
    for (const auto& [id, entry] : UsbDevice::DeviceIdMap) lines.push_back(mapLineOf(id, entry));
    CHECK(lines == expected);
}

// --- The steps --------------------------------------------------------------------------------

// Record by record, names of any length.
void buildAndFree(const std::vector<std::string>& names, Sink* sink) {
    UsbDevice::DeviceIdMap.clear();
    for (const std::string& name : names) UsbDevice::inspect_bus_entry(name.c_str());
    checkEach(buses(), namesOfKind(names, Kind::kBus), checkBus);
    checkEach(devices(), namesOfKind(names, Kind::kDevice), checkDevice);
    checkEach(interfaces(), namesOfKind(names, Kind::kInterface), checkInterface);
    UsbDevice::connect_devices();
    checkLinks();
    checkMap(names);
    UsbDevice::print_tree(sink->fd());
    UsbDevice::print_interfacelist(sink->fd());
    CHECK_EQ(sink->Take().empty(), interfaces().empty());
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
    checkNoRecordIsLeft();
}

// The way a decision does it, or the way the dump does.
void rescan(bool prints, const std::vector<std::string>& names, Sink* sink) {
    if (prints) {
        UsbDevice::dump_print_test(sink->fd());
        const std::string size = std::to_string(UsbDevice::DeviceIdMap.size());
        CHECK_NE(sink->Take().find("\n\nDeviceIdMap size" + size + "\n"), std::string::npos);
    } else {
        UsbDevice::create_usb_device_map();
    }
    checkNoRecordIsLeft();
    checkMap(names);
}

// '0' goes to each interface until the first that cannot be written.
void checkBlocking(int32_t id, const std::vector<DeviceIdEntry>& entries) {
    UsbDevice::update_status(id, 0);
    for (const DeviceIdEntry& entry : entries) {
        const std::string path = pathOf(entry.interface_name, "authorized");
        if (access(path.c_str(), W_OK) != 0) return;
        const std::string text = ReadFile(path, 1);
        if (text.empty()) return;
        CHECK_EQ(text, "0");
    }
}

void ask(int32_t id) {
    const std::vector<DeviceIdEntry> entries = UsbDevice::get_deviceid_data(id);
    CHECK_EQ(entries.size(), UsbDevice::DeviceIdMap.count(id));
    CHECK_EQ(UsbDevice::check_vendor_hid(id),
             std::any_of(entries.begin(), entries.end(),
                         [](const DeviceIdEntry& entry) { return entry.category == 8; }));
    checkBlocking(id, entries);
    const size_t all = UsbDevice::DeviceIdMap.size();
    UsbDevice::update_deviceid_map(id, true);
    CHECK_EQ(UsbDevice::DeviceIdMap.size(), all);
    UsbDevice::update_deviceid_map(id, false);
    CHECK_EQ(UsbDevice::DeviceIdMap.size(), all - entries.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    android::kus::fuzz::MakeDirs(kUsbDevices);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Sink sink;
    const TreeText text = ParseTree(data, size);
    const auto has = [&](const char* word) {
        return std::count(text.words.begin(), text.words.end(), word) > 0;
    };
    const ScratchTree tree(text.entries);
    UsbDevice::trace = has("trace");

    const std::vector<std::string> present = NamesIn(kUsbDevices);
    std::vector<std::string> names = present;
    for (const auto& entry : text.entries) {
        const bool canBeThere =
                entry.name.size() <= kLongestFileName && entry.name.find('/') == std::string::npos;
        if (!canBeThere) names.push_back(entry.name);
    }
    buildAndFree(names, &sink);
    rescan(has("dump"), present, &sink);
    for (size_t i = 0; i < kMostAsked && !UsbDevice::DeviceIdMap.empty(); ++i) {
        ask(UsbDevice::DeviceIdMap.begin()->first);
    }
    UsbDevice::DeviceIdMap.clear();
    listings.clear();
    return 0;
}
