// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Linking finds each record's place by a key. What comes of it is what a plain walk over all
// devices and, for each of them, over all interfaces gives: for random sets of names in random
// order.

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/usbdevice.h"
#include "tests/support/dice.h"
#include "tests/support/log_capture.h"
#include "tests/usbdevice_fixture.h"

namespace android::kus::test {

namespace {

using android::base::unique_fd;

// --- The plain walk ------------------------------------------------------------------------------

/** Where a record hangs; others are told by their place in their list, -1 is none. */
struct Place {
    int parent = -1;
    int next = -1;
    int firstChild = -1;
    int firstInterface = -1;

    bool operator==(const Place& other) const {
        return parent == other.parent && next == other.next && firstChild == other.firstChild &&
               firstInterface == other.firstInterface;
    }
};

using Places = std::vector<Place>;

void PrintTo(const Place& place, std::ostream* os) {
    *os << "parent " << place.parent << " next " << place.next << " child " << place.firstChild
        << " interface " << place.firstInterface;
}

struct Links {
    Places buses;
    Places devices;
    Places interfaces;
};

// Reads the records as they are before they are linked, and links places of its own.
class Walk {
  public:
    Walk()
        : buses_(Buses()),
          devices_(Devices()),
          interfaces_(Interfaces()),
          links_({Places(buses_.size()), Places(devices_.size()), Places(interfaces_.size())}) {
        for (size_t device = 0; device < devices_.size(); ++device) {
            linkDevice(device);
            for (size_t interface = 0; interface < interfaces_.size(); ++interface) {
                if (links_.interfaces[interface].parent == -1) linkInterface(device, interface);
            }
        }
    }

    const Links& links() const { return links_; }
    const std::vector<std::string>& trace() const { return trace_; }

    /** The map's lines (MapLines()) once it is filled. */
    std::vector<std::string> map() const {
        std::multimap<uint32_t, std::string> names;
        for (size_t i = 0; i < interfaces_.size(); ++i) {
            const int parent = links_.interfaces[i].parent;
            if (parent == -1) continue;
            const usbdevice& device = *devices_[parent];
            names.emplace(device.busnum * 1000 + device.devnum, interfaces_[i]->name);
        }
        std::vector<std::string> lines;
        for (const auto& [id, name] : names) lines.push_back(std::to_string(id) + " " + name);
        return lines;
    }

  private:
    static void append(int* head, Places* places, int place) {
        int* link = head;
        while (*link != -1 && *link != place) link = &(*places)[*link].next;
        *link = place;
    }

    void linkDevice(int device) {
        const usbdevice& record = *devices_[device];
        if (record.parent_portnum != 0) {
            trace_.push_back(std::string("calling assign_dev_to_parent usbdevice:") + record.name);
            linkToHub(device);
            return;
        }
        trace_.push_back(std::string("calling assign_dev_to_bus usbdevice:") + record.name);
        for (size_t bus = 0; bus < buses_.size(); ++bus) {
            if (buses_[bus]->busnum != record.busnum) continue;
            append(&links_.buses[bus].firstChild, &links_.devices, device);
        }
    }

    bool isHubOf(int hub, int device) const {
        const usbdevice& h = *devices_[hub];
        const usbdevice& d = *devices_[device];
        const std::string name = d.name;
        return hub != device && h.busnum == d.busnum && h.portnum == d.parent_portnum &&
               name.find('.') != std::string::npos && name.substr(0, name.rfind('.')) == h.name;
    }

    void linkToHub(int device) {
        for (size_t hub = 0; hub < devices_.size(); ++hub) {
            if (!isHubOf(hub, device)) continue;
            links_.devices[device].parent = hub;
            if (links_.devices[hub].firstChild != -1) {
                trace_.push_back(
                        std::string("calling assign_dev_to_parent usbdevice  append_dev_sibling "
                                    "pd:") +
                        devices_[hub]->name);
            }
            append(&links_.devices[hub].firstChild, &links_.devices, device);
            return;
        }
    }

    void linkInterface(int device, int interface) {
        const std::string deviceName = devices_[device]->name;
        const std::string name = interfaces_[interface]->name;
        trace_.push_back("calling assign_interface_to_parent usbdevice:" + deviceName +
                         "and usbinterface:" + name);
        const size_t colon = name.find(':');
        if (colon == std::string::npos) return;
        if (name.substr(0, colon) == deviceName) {
            links_.interfaces[interface].parent = device;
            append(&links_.devices[device].firstInterface, &links_.interfaces, interface);
            return;
        }
        if (name[colon + 1] != '0') return;
        const auto busnum = static_cast<uint32_t>(strtoul(name.c_str(), nullptr, 10));
        trace_.push_back(" append_businterface usbdevice:" + deviceName +
                         " for the interface:" + name + " and busnum:" + std::to_string(busnum));
        for (size_t bus = 0; bus < buses_.size(); ++bus) {
            if (buses_[bus]->busnum != busnum) continue;
            append(&links_.buses[bus].firstInterface, &links_.interfaces, interface);
            return;
        }
    }

    const std::vector<usbbusnode*> buses_;
    const std::vector<usbdevice*> devices_;
    const std::vector<usbinterface*> interfaces_;
    Links links_;
    std::vector<std::string> trace_;
};

// --- The records ---------------------------------------------------------------------------------

template <typename Node>
int placeOf(const std::vector<Node*>& nodes, const Node* node) {
    if (node == nullptr) return -1;
    const auto found = std::find(nodes.begin(), nodes.end(), node);
    CHECK(found != nodes.end()) << "no record of the list";
    return static_cast<int>(found - nodes.begin());
}

Links linksOfRecords() {
    const std::vector<usbdevice*> devices = Devices();
    const std::vector<usbinterface*> interfaces = Interfaces();
    Links links;
    for (const usbbusnode* bus : Buses()) {
        links.buses.push_back({-1, -1, placeOf(devices, bus->first_child),
                               placeOf(interfaces, bus->first_interface)});
    }
    for (const usbdevice* device : devices) {
        links.devices.push_back({placeOf(devices, device->parent), placeOf(devices, device->next),
                                 placeOf(devices, device->first_child),
                                 placeOf(interfaces, device->first_interface)});
    }
    for (const usbinterface* interface : interfaces) {
        links.interfaces.push_back({placeOf(devices, interface->parent),
                                    placeOf(interfaces, interface->next), -1, -1});
    }
    return links;
}

// What the log says of linking, without what it says of the map behind it.
std::vector<std::string> tracedLinking(const LogCapture& log) {
    std::vector<std::string> lines = log.Texts();
    const auto isOfMap = [](const std::string& line) {
        return line.rfind("creating object and populating map", 0) == 0;
    };
    lines.erase(std::find_if(lines.begin(), lines.end(), isOfMap), lines.end());
    return lines;
}

// --- Random names --------------------------------------------------------------------------------

constexpr const char* kBusNumbers[] = {"1", "1", "1", "2", "2", "10", "0", "01", "4294967297"};
constexpr const char* kOddBuses[] = {"usb1x", "usb1-1", "usb1:0.0", "usb010", "usb1.1"};
// Separators are not looked at, numbers may be missing.
constexpr const char* kOddDevices[] = {"1",       "1-",     "1-x",    "1-1.",   "1-1x2",
                                       "1-1x2.3", "1.2-3",  "1-1..2", "1-1.1.", "1-1.2.",
                                       "1-01",    "1-01.2", "1-1.02", "1-0",    "1-1.2.x"};
constexpr const char* kOddInterfaces[] = {"1:0.0",    "1:1.0",  "1-0:0.0",    "1-0:1.0",
                                          "1-1:00.0", "1x:0.0", "1-1:0.0:0",  "1-:0.0",
                                          "1-1.:0.0", "10:0.0", "1-1:1.0:2.0"};
constexpr const char* kConfigurations[] = {"0.0", "0.1",  "1.0", "1.0",
                                           "1.1", "01.0", "2.0", "10.0"};
constexpr size_t kLongestName = 254;

std::string randomBus(Dice* dice) {
    if (dice->Percent(15)) return dice->OneOf(kOddBuses);
    return std::string("usb") + dice->OneOf(kBusNumbers);
}

// Behind so many hubs that its name is about as long as a record keeps, or longer; those that are
// cut may become equal.
std::string randomLongDevice(Dice* dice) {
    std::string name = "1-1";
    while (name.size() < kLongestName - 6) name += ".1";
    for (uint32_t ports = dice->Below(6); ports > 0; --ports) {
        name += dice->Percent(80) ? ".1" : ".12";
    }
    return name;
}

std::string randomDevice(Dice* dice) {
    if (dice->Percent(10)) return dice->OneOf(kOddDevices);
    if (dice->Percent(10)) return randomLongDevice(dice);
    std::string name = dice->OneOf(kBusNumbers) + ("-" + std::to_string(1 + dice->Below(2)));
    for (uint32_t hubs = dice->Below(4); hubs > 0; --hubs) {
        name += "." + std::to_string(1 + dice->Below(2));
    }
    return name;
}

// A device's own, or one whose device is missing.
std::string randomInterface(const std::vector<std::string>& devices, Dice* dice) {
    if (dice->Percent(10)) return dice->OneOf(kOddInterfaces);
    const bool isOwn = !devices.empty() && dice->Percent(80);
    const std::string device = isOwn ? dice->OneOf(devices) : randomDevice(dice);
    // Its colon is the last character that a record keeps, or the first that it does not.
    const bool isCutAtColon = device.size() < kLongestName && dice->Percent(3);
    if (isCutAtColon) return Padded(device, kLongestName - dice->Below(2)) + ":0.0";
    return device + ":" + dice->OneOf(kConfigurations);
}

std::vector<std::string> randomNames(Dice* dice) {
    std::vector<std::string> names;
    std::vector<std::string> devices;
    for (uint32_t count = dice->Below(5); count > 0; --count) names.push_back(randomBus(dice));
    for (uint32_t count = dice->Below(20); count > 0; --count) {
        const bool isBehindAnother = !devices.empty() && dice->Percent(40);
        devices.push_back(isBehindAnother
                                  ? dice->OneOf(devices) + "." + std::to_string(1 + dice->Below(3))
                                  : randomDevice(dice));
    }
    names.insert(names.end(), devices.begin(), devices.end());
    for (uint32_t count = dice->Below(25); count > 0; --count) {
        names.push_back(randomInterface(devices, dice));
    }
    dice->Shuffle(&names);
    return names;
}

// Takes the entries. They have no files: each attribute of each would be reported.
void inspectSilently(const std::vector<std::string>& names) {
    const unique_fd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const unique_fd out(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
    const unique_fd err(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    CHECK(nowhere != -1 && out != -1 && err != -1 && fflush(stdout) == 0);
    CHECK(dup2(nowhere, STDOUT_FILENO) != -1 && dup2(nowhere, STDERR_FILENO) != -1);
    Inspect(names);
    CHECK(fflush(stdout) == 0);
    CHECK(dup2(out, STDOUT_FILENO) != -1 && dup2(err, STDERR_FILENO) != -1);
}

class Linking : public UsbDeviceTest {
  protected:
    static void ExpectTheWalksResult(const std::vector<std::string>& names) {
        inspectSilently(names);
        // So that interfaces of devices of equal numbers differ in the map.
        uint32_t devnum = 0;
        for (usbdevice* device : Devices()) device->devnum = ++devnum % 7;
        const Walk walk;
        const LogCapture log;
        UsbDevice::connect_devices();

        const Links links = linksOfRecords();
        EXPECT_EQ(walk.links().buses, links.buses);
        EXPECT_EQ(walk.links().devices, links.devices);
        EXPECT_EQ(walk.links().interfaces, links.interfaces);
        EXPECT_EQ(walk.map(), MapLines());
        if (UsbDevice::trace) {
            EXPECT_EQ(walk.trace(), tracedLinking(log));
        }
        UsbDevice::delete_all_nodes();
        UsbDevice::empty_list();
        UsbDevice::DeviceIdMap.clear();
    }
};

TEST_F(Linking, OfRandomNamesIsThatOfAPlainWalk) {
    for (uint32_t seed = 0; seed < 600 && !HasFailure(); ++seed) {
        UsbDevice::trace = seed % 3 == 0;
        Dice dice(seed);
        const std::vector<std::string> names = randomNames(&dice);
        SCOPED_TRACE(testing::Message() << seed << " " << testing::PrintToString(names));
        ExpectTheWalksResult(names);
    }
}

// Each of them in every order that its names can come in.
TEST_F(Linking, OfOddNamesIsThatOfAPlainWalkInAnyOrder) {
    const std::string longest = Padded("1-1", kLongestName - 1);
    std::vector<std::vector<std::string>> sets = {
            {"usb1", "1-1", "1-2", "1-0:0.0", "1-0:1.0"},
            // Configuration 0: on the bus first when another device comes first.
            {"usb1", "1-1", "1-2", "1-1:0.0", "1-1:1.0"},
            {"usb1", "1-1", "1-1:0.0", "1-1:1.0", "1-1:0.1"},
            {"usb1", "1-1", "1-2:0.0", "1-1:0.0", "1-2"},
            {"usb1", "usb01", "1-1", "1-2", "1-9:0.0"},
            {"usb1", "usb01", "01-1", "1-1", "01-1:1.0"},
            {"1-1.4", "1-1.4.1", "1-1.4:1.0", "usb1", "1-1.4.1:0.0"},
            {"1-1", "1-1", "1-1.2", "1-1:1.0", "usb1"},
            {"1-1.2", "1-1.2.", "1-1.2..1", "1-1.1.", "1-1.1..2"},
            {"1:0.0", "1", "usb1", "1:1.0", "1-1"},
            // Equal when they are cut.
            {longest + ".1", longest + ".2", longest + ".:1.0", "usb1"},
            {Padded("1-1", kLongestName), Padded("1-1", kLongestName + 9), "usb1", longest},
            // Cut in front of, at and behind the colon.
            {longest, longest + ":1.0", Padded("1-1", kLongestName) + ":0.0", "usb1"},
            {Padded("1-1", kLongestName - 2), Padded("1-1", kLongestName - 2) + ":0.0", "1-1",
             "usb1"},
            {"4294967297-1", "usb1", "4294967297-1:0.0", "1-1:0.0", "usb4294967297"},
    };
    for (std::vector<std::string>& names : sets) {
        SCOPED_TRACE(testing::PrintToString(names));
        std::sort(names.begin(), names.end());
        do {
            for (const bool isTraced : {false, true}) {
                UsbDevice::trace = isTraced;
                ExpectTheWalksResult(names);
            }
            if (HasFailure()) return;
        } while (std::next_permutation(names.begin(), names.end()));
    }
}

// A rescan that was left without its end must not reach into the next one.
TEST_F(Linking, KnowsNoRecordOfAnEarlierScan) {
    inspectSilently({"usb1", "1-1", "1-1.2", "1-1.2:1.0"});
    UsbDevice::connect_devices();
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
    UsbDevice::DeviceIdMap.clear();
    ExpectTheWalksResult({"1-1.2.3", "1-1.2:1.0", "1-1.3", "usb2", "1-1:0.0"});
}

TEST_F(Linking, OfRandomNamesMeetsWhatItIsMeantToMeet) {
    int children = 0;
    int ownInterfaces = 0;
    int busInterfaces = 0;
    int sharedChains = 0;
    int equalNames = 0;
    for (uint32_t seed = 0; seed < 100; ++seed) {
        Dice dice(seed);
        inspectSilently(randomNames(&dice));
        const Walk walk;
        for (const Place& device : walk.links().devices) children += device.parent != -1 ? 1 : 0;
        for (const Place& bus : walk.links().buses) busInterfaces += bus.firstInterface != -1;
        for (const Place& interface : walk.links().interfaces) {
            ownInterfaces += interface.parent != -1;
            sharedChains += interface.parent != -1 && interface.next != -1 &&
                            walk.links().interfaces[interface.next].parent != interface.parent;
        }
        std::vector<std::string> names = NamesOf(Devices());
        std::sort(names.begin(), names.end());
        equalNames += std::adjacent_find(names.begin(), names.end()) != names.end();
        UsbDevice::delete_all_nodes();
        UsbDevice::empty_list();
    }
    EXPECT_LT(100, children);
    EXPECT_LT(100, ownInterfaces);
    EXPECT_LT(20, busInterfaces);
    EXPECT_LT(20, sharedChains);
    EXPECT_LT(20, equalNames);
}

}  // namespace

}  // namespace android::kus::test
