// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "benchmarks/sysfs_tree.h"

#include <stdio.h>

#include <algorithm>
#include <filesystem>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include "android/kus/usbdevice.h"

namespace android::kus::bench {

namespace fs = std::filesystem;

using android::base::StringPrintf;
using Kind = ScanCall::Kind;

namespace {

constexpr char kUsbDevices[] = "/sys/bus/usb/devices";
constexpr char kUsbDrivers[] = "/sys/bus/usb/drivers";
constexpr char kPlatformDrivers[] = "/sys/bus/platform/drivers";
constexpr char kController[] = "/sys/devices/platform/soc/a800000.ssusb/a800000.dwc3";
constexpr int kDevicesPerUnit = 10;
constexpr int kUnitsPerBus = 12;

// What the reads of a number and of a text ask for.
constexpr size_t kNumber = 11;
constexpr size_t kText = kTextSize;

struct Read {
    const char* attribute;
    size_t size;
};

constexpr Read kBusReads[] = {
        {"devnum", kNumber},   {"bDeviceClass", kNumber}, {"idProduct", kNumber},
        {"idVendor", kNumber}, {"maxchild", kNumber},     {"speed", kText},
        {"rx_lanes", kNumber}, {"tx_lanes", kNumber},
};

constexpr Read kDeviceReads[] = {
        {"bDeviceClass", kNumber},
        {"bDeviceProtocol", kNumber},
        {"bDeviceSubClass", kNumber},
        {"bMaxPacketSize0", kNumber},
        {"bMaxPower", kText},
        {"bNumConfigurations", kNumber},
        {"bNumInterfaces", kNumber},
        {"bcdDevice", kNumber},
        {"bmAttributes", kNumber},
        {"configuration", kNumber},
        {"devnum", kNumber},
        {"idProduct", kNumber},
        {"idVendor", kNumber},
        {"maxchild", kNumber},
        {"manufacturer", kText},
        {"product", kText},
        {"serial", kText},
        {"version", kText},
        {"speed", kText},
        {"rx_lanes", kNumber},
        {"tx_lanes", kNumber},
};

constexpr Read kInterfaceReads[] = {
        {"bAlternateSetting", kNumber},  {"bInterfaceClass", kNumber},
        {"bInterfaceNumber", kNumber},   {"bInterfaceProtocol", kNumber},
        {"bInterfaceSubClass", kNumber}, {"bNumEndpoints", kNumber},
};

// What the kernel makes of an interface.
enum class Made { kNothing, kNetwork, kSerialPort, kUsbSerialPort, kInput, kVendorHid, kDisk };

struct Interface {
    const char* interfaceClass;
    const char* subClass;
    const char* protocol;
    const char* driver;  // empty: none has taken it
    int endpoints;
    Made made;
};

constexpr Interface kHubInterface = {"09", "00", "01", "hub", 1, Made::kNothing};
constexpr Interface kNetworkControl = {"02", "06", "00", "cdc_ether", 1, Made::kNetwork};
constexpr Interface kNetworkData = {"0a", "00", "00", "cdc_ether", 2, Made::kNothing};
constexpr Interface kModemControl = {"02", "02", "01", "cdc_acm", 1, Made::kSerialPort};
constexpr Interface kModemData = {"0a", "00", "00", "cdc_acm", 2, Made::kNothing};
constexpr Interface kKeyboard = {"03", "01", "01", "usbhid", 1, Made::kInput};
constexpr Interface kMouse = {"03", "01", "02", "usbhid", 1, Made::kInput};
constexpr Interface kVendorHid = {"03", "00", "00", "usbhid", 2, Made::kVendorHid};
constexpr Interface kDisk = {"08", "06", "50", "usb-storage", 2, Made::kDisk};
constexpr Interface kSerial = {"ff", "00", "00", "ftdi_sio", 2, Made::kUsbSerialPort};
constexpr Interface kUnknown = {"ff", "ff", "ff", "", 3, Made::kNothing};

void write(const std::string& path, const std::string& text) {
    CHECK(base::WriteStringToFile(text, path)) << path;
}

// Relative, as the kernel's links are.
void link(const std::string& path, const std::string& target) {
    fs::create_symlink(fs::path(target).lexically_relative(fs::path(path).parent_path()), path);
}

template <typename Reads>
void addReads(const Reads& reads, std::vector<ScanCall>* calls) {
    for (const Read& read : reads) calls->push_back({Kind::kRead, read.attribute, read.size});
}

std::string line(const std::string& text) {
    return text + "\n";
}

// What every directory of a device in sysfs has beside its attributes.
void addCommon(const std::string& uevent, SysfsTree::Entry* entry) {
    entry->attributes.emplace_back("uevent", uevent);
    entry->directories.push_back("power");
}

void addEndpoint(const std::string& address, SysfsTree::Entry* entry) {
    const std::string directory = "ep_" + address;
    entry->directories.push_back(directory);
    const std::vector<std::pair<std::string, std::string>> attributes = {
            {"bEndpointAddress", line(address)},
            {"bInterval", "08\n"},
            {"bLength", "07\n"},
            {"bmAttributes", "03\n"},
            {"direction", "in\n"},
            {"interval", "8ms\n"},
            {"type", "Interrupt\n"},
            {"wMaxPacketSize", "0040\n"}};
    for (const auto& [name, text] : attributes) {
        entry->attributes.emplace_back((fs::path(directory) / name).string(), text);
    }
}

// The interface's directory is looked at until a directory in it settles the category.
void addCategory(const Interface& interface, int hidNumber, SysfsTree::Entry* entry) {
    const std::string number = std::to_string(hidNumber);
    const std::string hid = StringPrintf("0003:046D:C31C.%04X", hidNumber);
    const auto own = [&](bool toEnd) {
        entry->calls.push_back({Kind::kReadDirectory, "", 0, toEnd});
    };
    const auto below = [&](const std::string& directory, bool toEnd) {
        entry->calls.push_back({Kind::kReadDirectory, directory, 0, toEnd});
    };
    switch (interface.made) {
        case Made::kNothing:
            own(/*toEnd=*/true);
            break;
        case Made::kNetwork:
            entry->directories.push_back("net/eth" + number + "/queues");
            entry->category = kCategoryNetwork;
            own(/*toEnd=*/false);
            below("net", /*toEnd=*/false);
            break;
        case Made::kSerialPort:
            entry->directories.push_back("tty/ttyACM" + number + "/power");
            entry->category = kCategorySerial;
            own(/*toEnd=*/false);
            below("tty", /*toEnd=*/false);
            break;
        case Made::kUsbSerialPort:
            entry->directories.push_back("ttyUSB" + number + "/tty/ttyUSB" + number);
            own(/*toEnd=*/true);
            break;
        case Made::kInput:
            entry->directories.push_back(hid + "/hidraw/hidraw" + number);
            entry->directories.push_back(hid + "/input/input" + number + "/capabilities");
            own(/*toEnd=*/true);
            below(hid, /*toEnd=*/false);
            break;
        case Made::kVendorHid:
            entry->directories.push_back(hid + "/hidraw/hidraw" + number);
            entry->category = kCategoryVendorHid;
            own(/*toEnd=*/false);
            below(hid, /*toEnd=*/true);
            break;
        case Made::kDisk:
            // Its class alone settles it.
            entry->directories.push_back("host" + number + "/target" + number + ":0:0");
            entry->category = kCategoryMassStorage;
            break;
    }
}

SysfsTree::Entry makeInterface(const std::string& device, const std::string& directory, int number,
                               const Interface& interface) {
    SysfsTree::Entry entry;
    entry.name = StringPrintf("%s:1.%d", device.c_str(), number);
    entry.directory = directory + "/" + entry.name;
    entry.driver = interface.driver;
    entry.attributes = {
            {"authorized", "1\n"},
            {"bAlternateSetting", " 0\n"},
            {"bInterfaceClass", line(interface.interfaceClass)},
            {"bInterfaceNumber", StringPrintf("%02x\n", number)},
            {"bInterfaceProtocol", line(interface.protocol)},
            {"bInterfaceSubClass", line(interface.subClass)},
            {"bNumEndpoints", StringPrintf("%02x\n", interface.endpoints)},
            {"modalias", "usb:v046DpC31Cd6401dc00dsc00dp00ic03isc01ip01in00\n"},
            {"supports_autosuspend", "1\n"},
    };
    addCommon("DEVTYPE=usb_interface\nPRODUCT=46d/c31c/6401\nTYPE=0/0/0\n", &entry);
    for (int endpoint = 1; endpoint <= interface.endpoints; ++endpoint) {
        addEndpoint(StringPrintf("%02x", 0x80 + endpoint), &entry);
    }
    addReads(kInterfaceReads, &entry.calls);
    entry.calls.push_back({Kind::kReadLink, "driver"});
    return entry;
}

void makeEntry(const SysfsTree::Entry& entry) {
    fs::create_directories(entry.directory);
    for (const std::string& directory : entry.directories) {
        fs::create_directories(entry.directory + "/" + directory);
    }
    for (const auto& [name, text] : entry.attributes) write(entry.directory + "/" + name, text);
    link(entry.directory + "/subsystem", "/sys/bus/usb");
    if (!entry.driver.empty()) {
        const std::string driver = std::string(kUsbDrivers) + "/" + entry.driver;
        fs::create_directories(driver);
        link(entry.directory + "/driver", driver);
    }
    link(std::string(kUsbDevices) + "/" + entry.name, entry.directory);
}

bool isMissing(const SysfsTree::Entry& entry, const ScanCall& call) {
    if (call.kind == Kind::kReadLink) return call.file == "driver" && entry.driver.empty();
    if (call.kind == Kind::kReadDirectory) return false;
    return std::none_of(entry.attributes.begin(), entry.attributes.end(),
                        [&](const auto& attribute) { return attribute.first == call.file; });
}

constexpr const char* kParts[] = {"/bus", "/devices"};

// Where a tree waits that is not at /sys.
std::string shelf(int devices) {
    return "/sys/shelf/" + std::to_string(devices);
}

}  // namespace

struct SysfsTree::Device {
    std::string name;
    /** Its hub's or bus's directory. */
    std::string parentDirectory;
    int bus;
    int devnum;
    const char* deviceClass;
    const char* product;  // null: its descriptor has no texts
    int ports;
    std::vector<Interface> interfaces;
};

SysfsTree::SysfsTree(int devices) : devices_(devices) {
    CHECK_EQ(devices % kDevicesPerUnit, 0);
    const int units = devices / kDevicesPerUnit;
    for (int first = 0, bus = 1; first < units; first += kUnitsPerBus, ++bus) {
        addBus(bus);
        int devnum = 1;
        const int here = std::min(kUnitsPerBus, units - first);
        for (int port = 1; port <= here; ++port) addUnit(bus, port, &devnum);
    }
}

void SysfsTree::addBus(int bus) {
    Entry entry;
    entry.name = StringPrintf("usb%d", bus);
    busDirectory_ = StringPrintf("%s/xhci-hcd.%d.auto/%s", kController, bus, entry.name.c_str());
    entry.directory = busDirectory_;
    entry.driver = "usb";
    entry.attributes = {
            {"authorized", "1\n"},
            {"authorized_default", "1\n"},
            {"bDeviceClass", "09\n"},
            {"busnum", StringPrintf("%d\n", bus)},
            {"devnum", "1\n"},
            {"devspec", "/soc/ssusb@a800000/dwc3@a800000\n"},
            {"idProduct", "0002\n"},
            {"idVendor", "1d6b\n"},
            {"interface_authorized_default", "1\n"},
            {"manufacturer", "Linux 6.1.0 xhci-hcd\n"},
            {"maxchild", StringPrintf("%d\n", kUnitsPerBus)},
            {"product", "xHCI Host Controller\n"},
            {"removable", "unknown\n"},
            {"rx_lanes", "1\n"},
            {"serial", StringPrintf("xhci-hcd.%d.auto\n", bus)},
            {"speed", "480\n"},
            {"tx_lanes", "1\n"},
            {"version", " 2.00\n"},
    };
    addCommon("DEVTYPE=usb_device\nDRIVER=usb\n", &entry);
    addReads(kBusReads, &entry.calls);
    entry.calls.push_back({Kind::kReadLink, "../driver"});
    entries_.push_back(entry);
    // It belongs to no device, and so nobody asks for its category.
    entries_.push_back(makeInterface(StringPrintf("%d-0", bus), busDirectory_, 0, kHubInterface));
}

void SysfsTree::addUnit(int bus, int port, int* devnum) {
    const auto add = [&](const std::string& name, const std::string& parentDirectory,
                         const char* deviceClass, const char* product, int ports,
                         const std::vector<Interface>& interfaces) {
        addDevice({name, parentDirectory, bus, ++*devnum, deviceClass, product, ports, interfaces});
    };
    std::string hubs[4];
    std::string directories[4];
    std::string name = StringPrintf("%d-%d", bus, port);
    std::string directory = busDirectory_;
    for (int tier = 0; tier < 4; ++tier) {
        if (tier > 0) name += ".4";
        add(name, directory, "09", tier % 2 == 0 ? "USB2.0 Hub" : nullptr, 4, {kHubInterface});
        directory += "/" + name;
        hubs[tier] = name;
        directories[tier] = directory;
    }
    add(hubs[0] + ".1", directories[0], "00", "USB Ethernet", 0,
        {kNetworkControl, kNetworkData, kUnknown});
    add(hubs[1] + ".1", directories[1], "02", "Modem", 0, {kModemControl, kModemData, kSerial});
    add(hubs[2] + ".1", directories[2], "00", "Keyboard", 0, {kKeyboard, kKeyboard, kVendorHid});
    add(hubs[2] + ".2", directories[2], "00", "Scanner", 0, {kVendorHid, kKeyboard, kDisk});
    add(hubs[3] + ".1", directories[3], "00", "USB Stick", 0, {kDisk, kUnknown});
    add(hubs[3] + ".2", directories[3], "00", "Mouse", 0, {kMouse, kVendorHid});
}

void SysfsTree::addDevice(const Device& device) {
    const size_t interfaces = device.interfaces.size();
    const std::string path = device.name.substr(device.name.find('-') + 1);
    Entry entry;
    entry.name = device.name;
    entry.directory = device.parentDirectory + "/" + device.name;
    entry.driver = "usb";
    entry.attributes = {
            {"authorized", "1\n"},
            {"avoid_reset_quirk", "0\n"},
            {"bConfigurationValue", "1\n"},
            {"bDeviceClass", line(device.deviceClass)},
            {"bDeviceProtocol", "00\n"},
            {"bDeviceSubClass", "00\n"},
            {"bMaxPacketSize0", "64\n"},
            {"bMaxPower", "100mA\n"},
            {"bNumConfigurations", "1\n"},
            {"bNumInterfaces", StringPrintf("%2zu\n", interfaces)},
            {"bcdDevice", "6401\n"},
            {"bmAttributes", "a0\n"},
            {"busnum", StringPrintf("%d\n", device.bus)},
            {"configuration", ""},
            {"dev", StringPrintf("189:%d\n", (device.bus - 1) * 128 + device.devnum - 1)},
            {"devnum", StringPrintf("%d\n", device.devnum)},
            {"devpath", line(path)},
            {"idProduct", "c31c\n"},
            {"idVendor", "046d\n"},
            {"ltm_capable", "no\n"},
            {"maxchild", StringPrintf("%d\n", device.ports)},
            {"quirks", "0x0\n"},
            {"removable", "removable\n"},
            {"rx_lanes", "1\n"},
            {"speed", device.ports > 0 ? "480\n" : "12\n"},
            {"tx_lanes", "1\n"},
            {"urbnum", "19\n"},
            {"version", " 2.00\n"},
    };
    if (device.product != nullptr) {
        entry.attributes.emplace_back("manufacturer", "Logitech\n");
        entry.attributes.emplace_back("product", line(device.product));
        if (device.ports == 0) {
            entry.attributes.emplace_back("serial", StringPrintf("%012d\n", device.devnum));
        }
    }
    addCommon("DEVTYPE=usb_device\nDRIVER=usb\nPRODUCT=46d/c31c/6401\n", &entry);
    addEndpoint("00", &entry);
    addReads(kDeviceReads, &entry.calls);
    entry.calls.push_back({Kind::kReadLink, "driver"});
    entries_.push_back(entry);
    addInterfaces(device);
}

void SysfsTree::addInterfaces(const Device& device) {
    const std::string directory = device.parentDirectory + "/" + device.name;
    int number = 0;
    for (const Interface& interface : device.interfaces) {
        Entry entry = makeInterface(device.name, directory, number++, interface);
        entry.category = kCategoryNone;
        addCategory(interface, ++hidNumber_, &entry);
        entries_.push_back(entry);
    }
}

void SysfsTree::make() const {
    CHECK(!fs::exists("/sys/kernel")) << "run this program through tests/sandbox";
    fs::create_directories(kUsbDevices);
    for (const Entry& entry : entries_) makeEntry(entry);
    const std::string driver = std::string(kPlatformDrivers) + "/xhci-hcd";
    fs::create_directories(driver);
    for (const fs::directory_entry& controller : fs::directory_iterator(kController)) {
        link(controller.path().string() + "/driver", driver);
    }
}

size_t SysfsTree::missing() const {
    size_t missing = 0;
    for (const Entry& entry : entries_) {
        missing += std::count_if(entry.calls.begin(), entry.calls.end(),
                                 [&](const ScanCall& call) { return isMissing(entry, call); });
    }
    return missing;
}

void SysfsTrees::add(const SysfsTree& tree) {
    putAway();
    tree.make();
    shown_ = tree.devices();
}

void SysfsTrees::show(int devices) {
    if (devices == shown_) return;
    putAway();
    for (const char* part : kParts) fs::rename(shelf(devices) + part, std::string("/sys") + part);
    shown_ = devices;
}

void SysfsTrees::putAway() const {
    if (shown_ == 0) return;
    fs::create_directories(shelf(shown_));
    for (const char* part : kParts) fs::rename(std::string("/sys") + part, shelf(shown_) + part);
}

}  // namespace android::kus::bench
