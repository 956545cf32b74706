// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What somebody would write who wants to know the same and takes the library that is there for it:
// an enumeration of the subsystem, a udev_device for each entry, its attributes and driver by name.
//
// What a driver has made of an interface is asked by a second enumeration, of the interface's
// descendants in the subsystems that matter. The other way, one enumeration of these subsystems and
// the search for the interface above each entry, takes longer: a terminal has dozens of ports that
// are not of USB.

#include "benchmarks/vm/udev_scan.h"

#include <libudev.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

namespace android::kus::bench {
namespace {

struct Unref {
    void operator()(udev* context) const { udev_unref(context); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
    void operator()(udev_enumerate* enumerate) const { udev_enumerate_unref(enumerate); }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref>;

constexpr const char* kBusAttributes[] = {"devnum",   "bDeviceClass", "idProduct", "idVendor",
                                          "maxchild", "speed",        "rx_lanes",  "tx_lanes"};
constexpr const char* kDeviceAttributes[] = {
        "bDeviceClass",    "bDeviceProtocol", "bDeviceSubClass",
        "bMaxPacketSize0", "bMaxPower",       "bNumConfigurations",
        "bNumInterfaces",  "bcdDevice",       "bmAttributes",
        "configuration",   "devnum",          "idProduct",
        "idVendor",        "maxchild",        "manufacturer",
        "product",         "serial",          "version",
        "speed",           "rx_lanes",        "tx_lanes"};
constexpr const char* kInterfaceAttributes[] = {"bAlternateSetting",  "bInterfaceClass",
                                                "bInterfaceNumber",   "bInterfaceProtocol",
                                                "bInterfaceSubClass", "bNumEndpoints"};
constexpr char kMassStorage[] = "08";

struct Record {
    std::string name;
    std::string driver;
    std::vector<std::string> attributes;
    std::vector<std::string> children;
};

std::string text(const char* value) {
    return value == nullptr ? "" : value;
}

template <size_t N>
Record makeRecord(udev_device* device, const char* const (&attributes)[N]) {
    Record record;
    record.name = text(udev_device_get_sysname(device));
    for (const char* attribute : attributes) {
        record.attributes.push_back(text(udev_device_get_sysattr_value(device, attribute)));
    }
    return record;
}

std::vector<std::string> pathsOf(udev_enumerate* enumerate) {
    std::vector<std::string> paths;
    udev_enumerate_scan_devices(enumerate);
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate)) {
        paths.push_back(text(udev_list_entry_get_name(entry)));
    }
    return paths;
}

// What tells the category of an interface: its network interface, its port, its HID device and
// whether that one is an input device.
std::vector<std::string> childrenOf(udev* context, udev_device* interface) {
    const Ref<udev_enumerate> enumerate(udev_enumerate_new(context));
    udev_enumerate_add_match_parent(enumerate.get(), interface);
    for (const char* subsystem : {"net", "tty", "hid", "input"}) {
        udev_enumerate_add_match_subsystem(enumerate.get(), subsystem);
    }
    std::vector<std::string> children;
    for (const std::string& path : pathsOf(enumerate.get())) {
        const Ref<udev_device> child(udev_device_new_from_syspath(context, path.c_str()));
        if (!child) continue;
        children.push_back(text(udev_device_get_subsystem(child.get())) + " " +
                           text(udev_device_get_sysname(child.get())));
    }
    return children;
}

bool isRootHub(udev_device* device) {
    return strncmp(udev_device_get_sysname(device), "usb", 3) == 0;
}

bool isOfRootHub(const Record& interface) {
    return interface.name.find("-0:") != std::string::npos;
}

Record readBus(udev_device* device) {
    Record bus = makeRecord(device, kBusAttributes);
    // The parent of a root hub is its controller.
    bus.driver = text(udev_device_get_driver(udev_device_get_parent(device)));
    return bus;
}

Record readDevice(udev_device* device) {
    Record record = makeRecord(device, kDeviceAttributes);
    record.driver = text(udev_device_get_driver(device));
    return record;
}

Record readInterface(udev* context, udev_device* device, bool withChildren) {
    Record interface = makeRecord(device, kInterfaceAttributes);
    interface.driver = text(udev_device_get_driver(device));
    if (!withChildren) return interface;
    // The daemon looks at no children of a disk, nor at those of a root hub's own interface.
    const bool isDisk =
            text(udev_device_get_sysattr_value(device, "bInterfaceClass")) == kMassStorage;
    if (!isDisk && !isOfRootHub(interface)) interface.children = childrenOf(context, device);
    return interface;
}

}  // namespace

size_t scanWithLibudev(bool withChildren) {
    const Ref<udev> context(udev_new());
    if (!context) return 0;
    const Ref<udev_enumerate> enumerate(udev_enumerate_new(context.get()));
    udev_enumerate_add_match_subsystem(enumerate.get(), "usb");
    std::vector<Record> buses;
    std::vector<Record> devices;
    std::vector<Record> interfaces;
    for (const std::string& path : pathsOf(enumerate.get())) {
        const Ref<udev_device> device(udev_device_new_from_syspath(context.get(), path.c_str()));
        if (!device) continue;
        if (text(udev_device_get_devtype(device.get())) == "usb_interface") {
            interfaces.push_back(readInterface(context.get(), device.get(), withChildren));
        } else if (isRootHub(device.get())) {
            buses.push_back(readBus(device.get()));
        } else {
            devices.push_back(readDevice(device.get()));
        }
    }
    size_t ofDevices = 0;
    for (const Record& interface : interfaces) ofDevices += isOfRootHub(interface) ? 0 : 1;
    return ofDevices;
}

}  // namespace android::kus::bench
