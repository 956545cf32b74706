// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// A rescan, step by step:
//
//  1. Every name in /sys/bus/usb/devices becomes a bus, a device or an interface record
//     (inspect_bus_entry). Names tell what hangs where: "usb1" is a root hub, "1-1.4" port 4 of the
//     hub at port 1 of bus 1, "1-1.4:1.0" interface 0 of its configuration 1.
//  2. The records are linked into a tree (connect_devices), whatever order they came in.
//  3. Each interface with a device gets its category, by what its driver made below its directory,
//     and an entry in the DeviceIdMap.
//  4. The records are freed. The map stays until the next rescan.
//
// Devices that are attached already come through a decision again when their controller goes out of
// host mode and back (usb_host_reset). The pauses there are the hardware's.
//
// Threads: the poll thread of a virtual dock; everything else runs on its callers'.
//
// Locks: resetLock, for the whole of a reset, its pauses included: another reset waits for it, be
// it the observer's behind new rules. mapLock, by the callers of a rescan and of the map's
// operations; taken here by a virtual dock alone, behind resetLock, for its look into the map.

#include "android/kus/usbdevice.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <thread>
#include <unordered_map>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"

namespace android::kus {

using android::base::unique_fd;

Mutex UsbDevice::mapLock;
std::multimap<int32_t, DeviceIdEntry> UsbDevice::DeviceIdMap;
usbbusnode* UsbDevice::bus_list = nullptr;
listnode UsbDevice::device_list = {&UsbDevice::device_list, &UsbDevice::device_list};
listnode UsbDevice::interface_list = {&UsbDevice::interface_list, &UsbDevice::interface_list};
bool UsbDevice::trace = false;

namespace {

#define KUS_TRACE \
    if (UsbDevice::trace) LOG(INFO)

constexpr char kUsbDevicesPath[] = "/sys/bus/usb/devices";
constexpr int kPathSize = 4096;
constexpr int kCategoryPathSize = 255;
// The longest text that read_sysfs_file_int() looks at: a 32-bit number with its sign.
constexpr int kNumberLength = 11;
constexpr uint32_t kClassMassStorage = 8;
constexpr uint32_t kClassHub = 9;
constexpr int kPrintVerbosity = 2;
constexpr char kTreePrefix[] = "   |__ ";

constexpr char kSocPath[] = "/sys/devices/platform/soc/";
constexpr const char* kControllerModePaths[] = {"c200000.hsusb/mode", "a800000.ssusb/mode"};
constexpr char kHostMode[] = "host";
constexpr char kNoMode[] = "none";
constexpr char kDcSupply[] = "/sys/class/power_supply/dc/online";
constexpr char kUsbSupply[] = "/sys/class/power_supply/usb/online";
constexpr uint32_t kDisplayLinkVendor = 0x17E9;
constexpr char kNoDisplayLink[] = "empty";
constexpr auto kModePause = std::chrono::milliseconds(100);
constexpr auto kPollPause = std::chrono::milliseconds(400);

// Held for the whole of a reset, its pauses included.
Mutex resetLock;
// Set when the running virtual dock is over; ends the poll thread. The only thing that the two
// share: each keeps the text that it reads of a supply to itself, because it looks at no other.
std::atomic<bool> virtualDockDone = false;
pthread_t pollThread;

struct CloseDir {
    void operator()(DIR* dir) const { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, CloseDir>;

UniqueDir openDirectory(const char* path) {
    return UniqueDir(opendir(path));
}

bool isDotEntry(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// By the entry's own type: a symbolic link to a directory is none.
bool isDirectory(const dirent& entry) {
    return entry.d_type == DT_DIR;
}

bool isDigit(char c) {
    return isdigit(static_cast<unsigned char>(c)) != 0;
}

// size is the room in dst, its terminator included. False when the text had to be cut.
bool copyText(char* dst, size_t size, const char* text) {
    const size_t length = strlen(text);
    const size_t kept = std::min(length, size - 1);
    memcpy(dst, text, kept);
    dst[kept] = '\0';
    return kept == length;
}

void copyNameOrWarn(char* dst, const char* name) {
    if (copyText(dst, kNameSize, name)) return;
    printf("warning: '%s' truncated to '%s'\n", name, dst);
}

// Reads a decimal number at text, moves *end behind it. False when there is none.
bool readNumber(const char* text, char** end, uint32_t* value) {
    *value = static_cast<uint32_t>(strtoul(text, end, 10));
    return *end != text;
}

// Formats the path of a file of entry name into a buffer of kPathSize, cut to fit.
void formatPath(char* path, const char* name, const char* file) {
    (void)snprintf(path, kPathSize, "%s/%s/%s", kUsbDevicesPath, name, file);
}

// Of the whole path, whether it fits or not.
int pathLength(const char* name, const char* file) {
    return static_cast<int>(strlen(kUsbDevicesPath) + 1 + strlen(name) + 1 + strlen(file));
}

bool fitsPath(int length) {
    return length < kPathSize;
}

// An entry of the USB device directory while its files are read. With its directory open each of
// them is one look-up away; by their paths, all would go from the root through a link and the dozen
// directories of a real sysfs again.
struct Entry {
    const char* name;
    unique_fd directory;  // or none, and the files are opened by their paths
};

Entry openEntry(const char* name) {
    Entry entry = {name, unique_fd()};
    // No real entry is longer; the rules for paths that do not fit are those of whole paths.
    if (strlen(name) > NAME_MAX) return entry;
    char path[kPathSize];
    formatPath(path, name, "");
    entry.directory.reset(open(path, O_PATH | O_CLOEXEC));
    return entry;
}

unique_fd openFile(Entry& entry, const char* attribute) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC;
    if (entry.directory != -1) {
        unique_fd fd(openat(entry.directory, attribute, kFlags));
        if (fd != -1 || errno != EMFILE) return fd;
        // The directory has the last descriptor that was free.
        entry.directory.reset();
    }
    char path[kPathSize];
    formatPath(path, entry.name, attribute);
    return unique_fd(open(path, kFlags));
}

ssize_t readLink(const Entry& entry, const char* link, char* target, size_t size) {
    if (entry.directory != -1) return readlinkat(entry.directory, link, target, size);
    char path[kPathSize];
    formatPath(path, entry.name, link);
    return readlink(path, target, size);
}

// perror() with the path that failed.
void printError(const Entry& entry, const char* attribute) {
    const int error = errno;
    char path[kPathSize];
    formatPath(path, entry.name, attribute);
    errno = error;
    perror(path);
}

uint32_t readInt(Entry& entry, const char* attribute, int base) {
    unique_fd fd = openFile(entry, attribute);
    if (fd == -1) {
        printError(entry, attribute);
        return 0;
    }
    char text[kNumberLength + 1] = {};
    const ssize_t count = read(fd, text, kNumberLength);
    // Closing keeps errno.
    fd.reset();
    if (count < 0) {
        printError(entry, attribute);
        return 0;
    }
    return static_cast<uint32_t>(strtoul(text, nullptr, base));
}

void readString(Entry& entry, const char* attribute, char* buf, int size) {
    buf[0] = '\0';
    if (!fitsPath(pathLength(entry.name, attribute))) return;
    const unique_fd fd = openFile(entry, attribute);
    if (fd == -1) return;
    ssize_t count = read(fd, buf, size);
    if (count < 1 || count >= size) {
        buf[0] = '\0';
        return;
    }
    buf[count] = '\0';
    while (count > 0 && buf[count - 1] == '\n') buf[--count] = '\0';
    std::replace(buf, buf + count, '\n', ' ');
}

// Puts the base name of the link below the entry into driver. Returns the length of the link's
// path: it tells whether that path fits.
int readDriver(const Entry& entry, const char* link, char* driver) {
    const int length = pathLength(entry.name, link);
    if (!fitsPath(length)) return length;

    char target[kPathSize];
    const ssize_t count = readLink(entry, link, target, sizeof(target));
    if (count < 0) return length;
    target[count > kPathSize - 2 ? 0 : count] = '\0';
    const char* slash = strrchr(target, '/');
    if (slash != nullptr) copyText(driver, kNameSize, slash + 1);
    return length;
}

int32_t deviceIdOf(const usbdevice& device) {
    return static_cast<int32_t>(device.busnum * 1000 + device.devnum);
}

// The records are plain blocks, so that zero-filling makes them whole.
template <typename Node>
Node* allocateNode() {
    return static_cast<Node*>(calloc(1, sizeof(Node)));
}

usbdevice* deviceAt(listnode* node) {
    return node_to_item(node, usbdevice, list);
}

usbinterface* interfaceAt(listnode* node) {
    return node_to_item(node, usbinterface, list);
}

template <typename Node>
using Index = std::unordered_map<std::string_view, std::vector<Node*>>;

// The records of the lists by name, each name's in list order; they say what hangs where. Never
// destroyed: exit() destroys while other threads still scan.
Index<usbdevice>& devicesByName GUARDED_BY(UsbDevice::mapLock) = *new Index<usbdevice>;
// By the name's text before its ':'.
Index<usbinterface>& interfacesByDevice GUARDED_BY(UsbDevice::mapLock) = *new Index<usbinterface>;

// The text before the first ':' of an interface name; false when there is no ':'.
bool devicePartOf(const usbinterface& interface, std::string_view* part) {
    const char* colon = strchr(interface.name, ':');
    if (colon == nullptr) return false;
    *part = std::string_view(interface.name, colon - interface.name);
    return true;
}

void appendToList(usbdevice* device) REQUIRES(UsbDevice::mapLock) {
    list_add_tail(&UsbDevice::device_list, &device->list);
    devicesByName[device->name].push_back(device);
}

void appendToList(usbinterface* interface) REQUIRES(UsbDevice::mapLock) {
    list_add_tail(&UsbDevice::interface_list, &interface->list);
    std::string_view device;
    if (devicePartOf(*interface, &device)) interfacesByDevice[device].push_back(interface);
}

// Appends at the end of the chain unless it is in it already: two buses of one number, say, must
// not close a chain to a ring.
template <typename Node>
void appendToChain(Node** head, Node* node) {
    Node** link = head;
    for (; *link != nullptr; link = &(*link)->next) {
        if (*link == node) return;
    }
    *link = node;
}

template <typename Node, typename Convert>
void freeNodes(listnode* list, Convert convert) {
    while (!list_empty(list)) {
        listnode* first = list_head(list);
        list_remove(first);
        free(convert(first));
    }
}

// The first device of the right name, bus and port; null without one.
usbdevice* hubOf(const usbdevice& device) REQUIRES(UsbDevice::mapLock) {
    const char* dot = strrchr(device.name, '.');
    if (dot == nullptr) return nullptr;
    const auto named = devicesByName.find(std::string_view(device.name, dot - device.name));
    if (named == devicesByName.end()) return nullptr;
    for (usbdevice* hub : named->second) {
        if (hub != &device && hub->busnum == device.busnum &&
            hub->portnum == device.parent_portnum) {
            return hub;
        }
    }
    return nullptr;
}

void assign_dev_to_bus(usbdevice* device) REQUIRES(UsbDevice::mapLock) {
    for (usbbusnode* bus = UsbDevice::bus_list; bus != nullptr; bus = bus->next) {
        if (bus->busnum == device->busnum) appendToChain(&bus->first_child, device);
    }
}

void linkDevice(usbdevice* device) REQUIRES(UsbDevice::mapLock) {
    if (device->parent_portnum != 0) {
        KUS_TRACE << "calling assign_dev_to_parent usbdevice:" << device->name;
        UsbDevice::assign_dev_to_parent(device);
        return;
    }
    KUS_TRACE << "calling assign_dev_to_bus usbdevice:" << device->name;
    assign_dev_to_bus(device);
}

void linkInterface(usbdevice* device, usbinterface* interface) REQUIRES(UsbDevice::mapLock) {
    if (interface->parent != nullptr) return;
    KUS_TRACE << "calling assign_interface_to_parent usbdevice:" << device->name
              << "and usbinterface:" << interface->name;
    UsbDevice::assign_interface_to_parent(device, interface);
}

// Behind the first device those of its own name are left: the others can only go to their bus, and
// there the first one has put them.
void linkInterfaces(usbdevice* device) REQUIRES(UsbDevice::mapLock) {
    const bool isFirst = list_head(&UsbDevice::device_list) == &device->list;
    // The trace tells of every pair.
    if (isFirst || UsbDevice::trace) {
        listnode* node;
        list_for_each(node, &UsbDevice::interface_list) linkInterface(device, interfaceAt(node));
        return;
    }
    const auto own = interfacesByDevice.find(device->name);
    if (own == interfacesByDevice.end()) return;
    for (usbinterface* interface : own->second) linkInterface(device, interface);
}

DeviceIdEntry makeEntry(const usbinterface& interface, const usbdevice& device) {
    DeviceIdEntry entry = {};
    entry.bInterfaceClass = interface.bInterfaceClass;
    entry.bInterfaceNumber = interface.bInterfaceNumber;
    entry.bInterfaceProtocol = interface.bInterfaceProtocol;
    entry.bInterfaceSubClass = interface.bInterfaceSubClass;
    copyText(entry.interface_name, sizeof(entry.interface_name), interface.name);
    entry.busnum = device.busnum;
    entry.devnum = device.devnum;
    entry.idVendor = device.idVendor;
    entry.idProduct = device.idProduct;
    copyText(entry.manufacturer, sizeof(entry.manufacturer), device.manufacturer);
    copyText(entry.product, sizeof(entry.product), device.product);
    entry.category = interface.category;
    copyText(entry.category_path, sizeof(entry.category_path), interface.category_path);
    return entry;
}

void addToMap(usbinterface* interface) REQUIRES(UsbDevice::mapLock) {
    KUS_TRACE << "creating object and populating map  usbinterface:" << interface->name
              << " and class: " << interface->bInterfaceClass;
    if (interface->parent == nullptr) return;
    UsbDevice::populate_category_device(interface);

    const usbdevice& device = *interface->parent;
    const int32_t id = deviceIdOf(device);
    KUS_TRACE << "creating object and populating \t parent vendorid : " << device.idVendor
              << ", productid: " << device.idProduct << ",parent path: " << device.name
              << ",manufacturer: " << device.manufacturer << ",product: " << device.product
              << ",deviceId:" << id;
    KUS_TRACE << "creating object and populating category_path" << interface->category_path
              << " and category:" << interface->category << " interface path:" << interface->name;
    UsbDevice::DeviceIdMap.emplace(id, makeEntry(*interface, device));
}

// Appends to a text in a buffer of kCategoryPathSize; what does not fit is cut.
void appendToPath(char* path, const char* text) {
    const size_t length = strlen(path);
    copyText(path + length, kCategoryPathSize - length, text);
}

// The first directory below path, or an empty text.
std::string firstDirectoryIn(DIR* dir) {
    while (const dirent* entry = readdir(dir)) {
        if (!isDotEntry(entry->d_name) && isDirectory(*entry)) return entry->d_name;
    }
    return "";
}

bool hasDirectory(DIR* dir, const char* name) {
    while (const dirent* entry = readdir(dir)) {
        if (isDirectory(*entry) && strcmp(entry->d_name, name) == 0) return true;
    }
    return false;
}

// "net" or "tty": its first directory names the network interface or the serial port. True when
// that settles the category.
bool takeNamedCategory(const dirent& entry, Category category, char* path,
                       usbinterface* interface) {
    const bool isNetwork = category == kCategoryNetwork;
    interface->category = category;
    if (!isDirectory(entry)) return false;

    appendToPath(path, "/");
    appendToPath(path, entry.d_name);
    if (isNetwork) {
        LOG(INFO) << " new path of dir:" << path;
    } else {
        KUS_TRACE << " new path of dir in tty:" << path;
    }
    const UniqueDir dir = openDirectory(path);
    if (!dir) {
        LOG(INFO) << "Cannot open directory \n" << path;
        return false;
    }
    const std::string name = firstDirectoryIn(dir.get());
    if (name.empty()) return false;
    copyText(interface->category_path, sizeof(interface->category_path), name.c_str());
    KUS_TRACE << "updating the devcategory path for " << (isNetwork ? "network" : "tty")
              << " and return:" << interface->category_path;
    return true;
}

// A HID device's directory ("0003:1234:5678.0001") without "input": nothing but its vendor's
// software can use it. True when that settles the category.
bool takeVendorHidCategory(const dirent& entry, char* path, usbinterface* interface) {
    appendToPath(path, "/");
    appendToPath(path, entry.d_name);
    LOG(INFO) << " new path of subdir for HID:" << path;
    const UniqueDir dir = openDirectory(path);
    if (!dir) {
        LOG(INFO) << "Cannot open subdir \n" << path;
        return false;
    }
    if (hasDirectory(dir.get(), "input")) {
        KUS_TRACE << "input device found";
        return false;
    }
    LOG(INFO) << "vendor HID device found";
    interface->category = kCategoryVendorHid;
    return true;
}

bool takeCategory(const dirent& entry, char* path, usbinterface* interface) {
    if (strcmp(entry.d_name, "net") == 0) {
        return takeNamedCategory(entry, kCategoryNetwork, path, interface);
    }
    if (strcmp(entry.d_name, "tty") == 0) {
        return takeNamedCategory(entry, kCategorySerial, path, interface);
    }
    if (strchr(entry.d_name, ':') != nullptr && isDirectory(entry)) {
        return takeVendorHidCategory(entry, path, interface);
    }
    return false;
}

// False when the remaining interfaces of the device are to be left alone.
bool writeAuthorized(const char* interfaceName, char value) {
    const std::string path = std::string(kUsbDevicesPath) + "/" + interfaceName + "/authorized";
    LOG(INFO) << "update_status path is :" << path;
    // NOLINTNEXTLINE(android-cloexec-open): the daemon executes no other program.
    const unique_fd fd(open(path.c_str(), O_WRONLY));
    if (fd == -1) {
        perror("Unable to open the file");
        LOG(ERROR) << "Error! Could not open file";
        return false;
    }
    if (write(fd, &value, 1) != 1) {
        perror("Error writing to sysfs file");
        // The open's text: meant.
        LOG(ERROR) << "Error! Could not open file";
        return false;
    }
    return true;
}

// Empty when the file cannot be read.
std::string readText(const std::string& path) {
    char text[kPathSize] = {};
    UsbDevice::read_sysfs_val(path.c_str(), text, sizeof(text));
    return text;
}

// A controller in peripheral mode, or in none, is not ours to switch.
bool isInHostMode(const std::string& modePath) {
    return exists(modePath) && readText(modePath).compare(0, strlen(kHostMode), kHostMode) == 0;
}

void writeMode(const std::string& modePath, const char* mode) {
    UsbDevice::write_sysfs_val(modePath.c_str(), mode, strlen(mode));
}

void flipController(const std::string& modePath) {
    if (!isInHostMode(modePath)) return;
    writeMode(modePath, kNoMode);
    LOG(INFO) << "usb_host_reset mode set to none for syspath: " << modePath;
    std::this_thread::sleep_for(kModePause);
    LOG(INFO) << "usb_host_reset mode set to host for syspath: " << modePath;
    writeMode(modePath, kHostMode);
    std::this_thread::sleep_for(kModePause);
}

// What acts on these properties lies outside the daemon; "reset" comes behind each.
void announce(const char* event) {
    property_set(event, "1");
    property_set("persist.vendor.monitor.reset", "1");
}

void announceUndock() {
    announce("persist.vendor.monitor.undock");
}

void announceDock() {
    announce("persist.vendor.monitor.dock");
}

// A supply that cannot be read is not off.
bool isOff(const std::string& online) {
    return online[0] == '0';
}

void undockAndDock(int delay) {
    LOG(INFO) << "virtual_undock_dock_event usbPath empty for non-display link device";
    virtualDockDone = false;
    if (isOff(readText(kDcSupply))) return;
    announceUndock();
    UsbDevice::registersysfsObserverViaThread();
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    virtualDockDone = true;
    announceDock();
}

// A text that is no number throws, and nobody catches: meant.
bool isPowered(const std::string& online, const char* label) {
    const int value = std::stoi(online);
    LOG(INFO) << label << value;
    return value == 1;
}

bool hasExternalPower() {
    const std::string usb = readText(kUsbSupply);
    LOG(INFO) << "USB charging_state val " << usb;
    if (isPowered(usb, "power_supply_state val ")) return true;
    LOG(INFO) << "virtual_undock_dock_event check for dc charge state";
    const std::string dc = readText(kDcSupply);
    LOG(INFO) << "DC charging_state val " << dc;
    return isPowered(dc, "DC power_supply_state val ");
}

void flipDisplayLinkController(const std::string& modePath, int delay) {
    LOG(INFO) << "virtual_undock_dock_event usbPath for display link device";
    if (!isInHostMode(modePath)) return;
    writeMode(modePath, kNoMode);
    LOG(INFO) << "virtual_undock_dock_event mode set to none for syspath: " << modePath;
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    // From here on, whatever goes wrong leaves the controller off, to spare the battery.
    if (!exists(kUsbSupply)) return;
    if (!hasExternalPower()) {
        LOG(INFO) << "device is undocked, not charging state";
        return;
    }
    LOG(INFO) << "virtual_undock_dock_event mode set to host for syspath: " << modePath;
    writeMode(modePath, kHostMode);
    std::this_thread::sleep_for(kModePause);
}

std::optional<DeviceIdEntry> firstDisplayLinkDevice() {
    const AutoMutex lock(UsbDevice::mapLock);
    for (const auto& [id, entry] : UsbDevice::DeviceIdMap) {
        if (entry.idVendor == kDisplayLinkVendor) return entry;
    }
    return std::nullopt;
}

// The mode file of the controller that a device-tree path such as /soc/ssusb@a800000/dwc3@a800000
// names: the kernel calls the platform device of a node "name@address" "address.name". Empty for a
// path without such a node, "(null)" included.
std::string modePathOf(const std::string& devspec) {
    constexpr size_t kControllerNode = 2;
    const std::vector<std::string> nodes = UsbDevice::split(devspec, '/');
    if (nodes.size() <= kControllerNode) return "";
    const std::vector<std::string> pieces = UsbDevice::split(nodes[kControllerNode], '@');
    if (pieces.size() < 2) return "";
    return kSocPath + pieces[1] + "." + pieces[0] + "/mode";
}

void inspectEntries(DIR* dir) REQUIRES(UsbDevice::mapLock) {
    while (const dirent* entry = readdir(dir)) UsbDevice::inspect_bus_entry(entry->d_name);
}

void freeAllNodes() REQUIRES(UsbDevice::mapLock) {
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
}

}  // namespace

// --- Topology ----------------------------------------------------------------------------------

void UsbDevice::create_usb_device_map() {
    LOG(INFO) << "create_usb_device_map called";
    UniqueDir dir = openDirectory(kUsbDevicesPath);
    if (!dir) perror(kUsbDevicesPath);
    DeviceIdMap.clear();
    if (dir) {
        inspectEntries(dir.get());
        dir.reset();
        connect_devices();
    }
    freeAllNodes();
    print_deviceid_map(-1);
    LOG(INFO) << "create_usb_device_map returned check loop";
}

void UsbDevice::inspect_bus_entry(const char* name) {
    if (strncmp(name, "usb", 3) == 0 && isDigit(name[3])) {
        add_usb_bus(name);
        return;
    }
    if (isDotEntry(name)) return;
    if (!isDigit(name[0])) {
        (void)fprintf(stderr, "ignoring '%s'\n", name);
        return;
    }
    if (strchr(name, ':') != nullptr) {
        add_usb_interface(name);
    } else {
        add_usb_device(name);
    }
}

void UsbDevice::add_usb_bus(const char* name) {
    auto* bus = allocateNode<usbbusnode>();
    if (bus == nullptr) return;
    bus->busnum = static_cast<uint32_t>(strtoul(name + 3, nullptr, 10));
    copyNameOrWarn(bus->name, name);
    Entry entry = openEntry(name);
    bus->devnum = readInt(entry, "devnum", 10);
    bus->bDeviceClass = readInt(entry, "bDeviceClass", 16);
    bus->idProduct = readInt(entry, "idProduct", 16);
    bus->idVendor = readInt(entry, "idVendor", 16);
    bus->maxchild = readInt(entry, "maxchild", 10);
    // Read with the limit of the other texts, kept as far as the bus has room.
    char speed[kTextSize];
    readString(entry, "speed", speed, sizeof(speed));
    copyText(bus->speed, sizeof(bus->speed), speed);
    bus->rx_lanes = readInt(entry, "rx_lanes", 10);
    bus->tx_lanes = readInt(entry, "tx_lanes", 10);

    KUS_TRACE << "calling append_busnode " << name;
    appendToChain(&bus_list, bus);
    get_roothub_driver(bus, name);
}

void UsbDevice::get_roothub_driver(usbbusnode* bus, const char* name) {
    // The parent of a root hub is its controller.
    const int length = readDriver({name, unique_fd()}, "../driver", bus->driver);
    if (!fitsPath(length)) {
        LOG(ERROR) << "Cannot read driver link for " << name << ": " << name << length;
    }
}

void UsbDevice::add_usb_device(const char* name) {
    KUS_TRACE << " add_usb_device  enter" << name;
    char* end = nullptr;
    uint32_t busnum = 0;
    if (!readNumber(name, &end, &busnum)) return;
    auto* device = allocateNode<usbdevice>();
    if (device == nullptr) return;
    device->busnum = busnum;

    for (uint32_t port = 0; *end != '\0' && readNumber(end + 1, &end, &port);) {
        device->parent_portnum = device->portnum;
        device->portnum = port;
    }

    Entry entry = openEntry(name);
    // Only for a name that had to be cut: meant.
    if (!copyText(device->name, sizeof(device->name), name)) {
        device->bConfigurationValue = readInt(entry, "bConfigurationValue", 10);
    }
    device->bDeviceClass = readInt(entry, "bDeviceClass", 16);
    device->bDeviceProtocol = readInt(entry, "bDeviceProtocol", 16);
    device->bDeviceSubClass = readInt(entry, "bDeviceSubClass", 16);
    device->bMaxPacketSize0 = readInt(entry, "bMaxPacketSize0", 16);
    readString(entry, "bMaxPower", device->bMaxPower, kTextSize);
    device->bNumConfigurations = readInt(entry, "bNumConfigurations", 10);
    device->bNumInterfaces = readInt(entry, "bNumInterfaces", 16);
    device->bcdDevice = readInt(entry, "bcdDevice", 16);
    device->bmAttributes = readInt(entry, "bmAttributes", 16);
    device->configuration = readInt(entry, "configuration", 10);
    device->devnum = readInt(entry, "devnum", 10);
    device->idProduct = readInt(entry, "idProduct", 16);
    device->idVendor = readInt(entry, "idVendor", 16);
    device->maxchild = readInt(entry, "maxchild", 10);
    readString(entry, "manufacturer", device->manufacturer, kTextSize);
    readString(entry, "product", device->product, kTextSize);
    readString(entry, "serial", device->serial, kTextSize);
    readString(entry, "version", device->version, kTextSize);
    readString(entry, "speed", device->speed, kTextSize);
    device->rx_lanes = readInt(entry, "rx_lanes", 10);
    device->tx_lanes = readInt(entry, "tx_lanes", 10);

    const int length = readDriver(entry, "driver", device->driver);
    if (!fitsPath(length)) {
        LOG(ERROR) << "Can not read driver link for " << name << ": " << name << length;
    }
    appendToList(device);
}

void UsbDevice::add_usb_interface(const char* name) {
    KUS_TRACE << " add_usb_interface  enter" << name;
    const char* colon = strchr(name, ':');
    if (colon == nullptr) return;
    char* end = nullptr;
    uint32_t configuration = 0;
    if (!readNumber(colon + 1, &end, &configuration)) return;
    uint32_t ifnum = 0;
    if (*end == '\0' || !readNumber(end + 1, &end, &ifnum)) return;
    auto* interface = allocateNode<usbinterface>();
    if (interface == nullptr) return;
    interface->configuration = configuration;
    interface->ifnum = ifnum;

    copyNameOrWarn(interface->name, name);
    Entry entry = openEntry(name);
    interface->bAlternateSetting = readInt(entry, "bAlternateSetting", 10);
    interface->bInterfaceClass = readInt(entry, "bInterfaceClass", 16);
    interface->bInterfaceNumber = readInt(entry, "bInterfaceNumber", 16);
    interface->bInterfaceProtocol = readInt(entry, "bInterfaceProtocol", 16);
    interface->bInterfaceSubClass = readInt(entry, "bInterfaceSubClass", 16);
    interface->bNumEndpoints = readInt(entry, "bNumEndpoints", 16);

    const int length = readDriver(entry, "driver", interface->driver);
    if (!fitsPath(length)) {
        KUS_TRACE << "Can not read driver link for d_name:" << name << "for: " << length;
    }
    appendToList(interface);
}

void UsbDevice::connect_devices() {
    listnode* node;
    list_for_each(node, &device_list) {
        linkDevice(deviceAt(node));
        linkInterfaces(deviceAt(node));
    }
    list_for_each(node, &interface_list) addToMap(interfaceAt(node));
}

void UsbDevice::assign_dev_to_parent(usbdevice* device) {
    usbdevice* hub = hubOf(*device);
    if (hub == nullptr) return;
    device->parent = hub;
    if (hub->first_child != nullptr) {
        KUS_TRACE << "calling assign_dev_to_parent usbdevice  append_dev_sibling pd:" << hub->name;
    }
    appendToChain(&hub->first_child, device);
}

void UsbDevice::assign_interface_to_parent(usbdevice* device, usbinterface* interface) {
    std::string_view devicePart;
    if (!devicePartOf(*interface, &devicePart)) return;
    if (devicePart == device->name) {
        interface->parent = device;
        appendToChain(&device->first_interface, interface);
        return;
    }

    char* end = nullptr;
    uint32_t busnum = 0;
    if (!readNumber(interface->name, &end, &busnum)) return;
    // A root hub's own interface is B-0:C.I, and this looks at C: it stays unattached, as meant.
    if (interface->name[devicePart.size() + 1] != '0') return;
    KUS_TRACE << " append_businterface usbdevice:" << device->name
              << " for the interface:" << interface->name << " and busnum:" << busnum;
    for (usbbusnode* bus = bus_list; bus != nullptr; bus = bus->next) {
        if (bus->busnum != busnum) continue;
        appendToChain(&bus->first_interface, interface);
        return;
    }
}

void UsbDevice::delete_all_nodes() {
    LOG(INFO) << "deleting the list using deleteAllnode";
    devicesByName.clear();
    interfacesByDevice.clear();
    freeNodes<usbdevice>(&device_list, deviceAt);
    freeNodes<usbinterface>(&interface_list, interfaceAt);
}

void UsbDevice::empty_list() {
    LOG(INFO) << "***Entered empty_list******";
    while (bus_list != nullptr) {
        usbbusnode* first = bus_list;
        bus_list = first->next;
        free(first);
    }
}

void UsbDevice::print_tree(int fd) {
    LOG(INFO) << "print_tree entered";
    for (usbbusnode* bus = bus_list; bus != nullptr; bus = bus->next) {
        if (bus->first_child != nullptr) print_tree_dev_children(bus->first_child, fd);
    }
}

// The prefix is the same at every depth: meant.
void UsbDevice::print_tree_dev_children(usbdevice* device, int fd) {
    LOG(INFO) << "print_tree_dev_children entered";
    for (; device != nullptr; device = device->next) {
        for (usbinterface* interface = device->first_interface; interface != nullptr;
             interface = interface->next) {
            dprintf(fd, "%s", kTreePrefix);
            print_usbdevice(device, interface, fd);
        }
        if (device->first_child != nullptr) print_tree_dev_children(device->first_child, fd);
    }
}

void UsbDevice::print_usbdevice(usbdevice* device, usbinterface* interface, int fd) {
    std::ostringstream line;
    line << "Port : " << device->portnum << ", DevNum : " << device->devnum
         << ", If : " << interface->ifnum << ", Class : " << interface->bInterfaceClass
         << ", Driver : " << interface->driver;
    if (interface->bInterfaceClass == kClassHub) {
        line << "\n  ";
        dprintf(fd, " %s\n", line.str().c_str());
    } else {
        line << " \n";
        dprintf(fd, " %s", line.str().c_str());
    }
    if (kPrintVerbosity >= 1) {
        dprintf(fd, "       Vendor:Product ID %04x:%04x ", device->idVendor, device->idProduct);
        LOG(INFO) << "ID " << device->idVendor << ":" << device->idProduct;
    }
    if (kPrintVerbosity >= 2) {
        dprintf(fd, "\n%s/%s  /dev/bus/usb/%03d/%03d\n", kUsbDevicesPath, device->name,
                device->busnum, device->devnum);
        const usbinterface* first = device->first_interface;
        dprintf(fd, "printing interfaces for device device:%s and first_interface:%s \n",
                device->name, first == nullptr ? "" : first->name);
        if (device->parent != nullptr) dprintf(fd, "parent name :%s\n", device->parent->name);
        dprintf(fd, "parent_portnum:%d\n", device->parent_portnum);
        dprintf(fd, "************************\n");
    }
}

void UsbDevice::print_interfacelist(int fd) {
    listnode* node;
    list_for_each(node, &interface_list) {
        usbinterface* interface = interfaceAt(node);
        dprintf(fd, "\nprint_interfacelist  usbinterface:%s/%s/ and class:%d", kUsbDevicesPath,
                interface->name, interface->bInterfaceClass);
        const usbdevice* device = interface->parent;
        if (device == nullptr) continue;
        populate_category_device(interface);
        std::ostringstream line;
        line << "\t parent vendorid : " << device->idVendor << ", productid: " << device->idProduct
             << ",parent path: " << device->name << ",manufacturer: " << device->manufacturer
             << ",product: " << device->product << ",deviceId:" << deviceIdOf(*device)
             << " devCategory: " << interface->category;
        dprintf(fd, "\n%s", line.str().c_str());
    }
}

// --- Device-id map -----------------------------------------------------------------------------

void UsbDevice::populate_category_device(usbinterface* interface) {
    char path[kCategoryPathSize] = {};
    appendToPath(path, kUsbDevicesPath);
    appendToPath(path, "/");
    appendToPath(path, interface->name);
    KUS_TRACE << "path of dir:" << path;
    interface->category = kCategoryNone;
    KUS_TRACE << "Other category default to none";
    copyText(interface->category_path, sizeof(interface->category_path), "empty");
    if (interface->bInterfaceClass == kClassMassStorage) {
        interface->category = kCategoryMassStorage;
        copyText(interface->category_path, sizeof(interface->category_path), "sdcard");
        return;
    }

    const UniqueDir dir = openDirectory(path);
    if (!dir) {
        LOG(INFO) << "Cannot open directory \n" << path;
        return;
    }
    // What is appended to path for one entry stays for the next: after a look-up that settles
    // nothing, the others go below it. Meant.
    while (const dirent* entry = readdir(dir.get())) {
        KUS_TRACE << "Entered while with dir is :" << entry->d_name;
        if (isDotEntry(entry->d_name)) continue;
        if (takeCategory(*entry, path, interface)) return;
    }
}

std::vector<DeviceIdEntry> UsbDevice::get_deviceid_data(int deviceId) {
    LOG(INFO) << "get_deviceid_data() with deviceId : " << deviceId << "size--"
              << DeviceIdMap.size();
    std::vector<DeviceIdEntry> entries;
    const auto [first, last] = DeviceIdMap.equal_range(deviceId);
    for (auto entry = first; entry != last; ++entry) {
        LOG(INFO) << "Found deviceid  : " << deviceId
                  << "device : " << entry->second.interface_name;
        entries.push_back(entry->second);
    }
    return entries;
}

bool UsbDevice::check_vendor_hid(int deviceId) {
    LOG(INFO) << "check_vendor_hid " << deviceId;
    const auto [first, last] = DeviceIdMap.equal_range(deviceId);
    return std::any_of(first, last, [=](const auto& item) {
        const DeviceIdEntry& entry = item.second;
        LOG(INFO) << "Found deviceId in native list : " << deviceId << "\t interface path"
                  << entry.interface_name << " device category" << entry.category;
        return entry.category == kCategoryVendorHid;
    });
}

void UsbDevice::update_status(int deviceId, int status) {
    LOG(INFO) << "update_status path with deviceId " << deviceId << " status:" << status;
    const auto [first, last] = DeviceIdMap.equal_range(deviceId);
    for (auto entry = first; entry != last; ++entry) {
        const char* name = entry->second.interface_name;
        LOG(INFO) << "Found deviceId in native list : " << deviceId << "\t interface path" << name;
        if (name[0] == '\0') {
            LOG(INFO) << "update_status interface_name is NULL";
            continue;
        }
        if (!writeAuthorized(name, status != 0 ? '1' : '0')) return;
    }
}

void UsbDevice::update_deviceid_map(int deviceId, bool keep) {
    LOG(INFO) << "update_deviceid_map deviceId:" << deviceId << " flag:" << keep;
    if (!keep) DeviceIdMap.erase(deviceId);
}

void UsbDevice::print_deviceid_map(int fd) {
    LOG(INFO) << "print_deviceid_map ";
    if (fd == -1 && !WOULD_LOG(INFO)) return;
    if (fd != -1)
        dprintf(fd, "\n\nDeviceIdMap size%s\n", std::to_string(DeviceIdMap.size()).c_str());
    for (const auto& [id, entry] : DeviceIdMap) {
        LOG(INFO) << " DeviceId: " << id << " Interface name:" << entry.interface_name
                  << " class:" << entry.bInterfaceClass << " Vendor ID:" << entry.idVendor
                  << " Product ID:" << entry.idProduct;
        if (fd == -1) continue;
        std::ostringstream line;
        line << "\n DeviceId : " << id << ", Interface name : " << entry.interface_name
             << ", class : " << entry.bInterfaceClass << ", Vendor ID : " << entry.idVendor
             << ", Product ID : " << entry.idProduct;
        dprintf(fd, " %s\n", line.str().c_str());
    }
}

void UsbDevice::dump_print_test(int fd) {
    LOG(INFO) << "dump_print_test called " << fd;
    UniqueDir dir = openDirectory(kUsbDevicesPath);
    DeviceIdMap.clear();
    if (dir) {
        inspectEntries(dir.get());
        dir.reset();
        connect_devices();
        print_tree(fd);
        print_interfacelist(fd);
    }
    freeAllNodes();
    print_deviceid_map(fd);
}

// --- Controllers, dock and power supplies ------------------------------------------------------

void UsbDevice::usb_host_reset(int delay) {
    LOG(INFO) << "usb_host_reset entered:";
    const AutoMutex lock(resetLock);
    if (delay >= 1) {
        virtual_undock_dock_event(delay);
        return;
    }
    for (const char* path : kControllerModePaths) flipController(std::string(kSocPath) + path);
}

void UsbDevice::virtual_undock_dock_event(int delay) {
    const std::string modePath = get_displaylink_soc_path();
    LOG(INFO) << "virtual_undock_dock_event usbPath : " << modePath;
    if (modePath == kNoDisplayLink) {
        undockAndDock(delay);
    } else {
        flipDisplayLinkController(modePath, delay);
    }
}

std::string UsbDevice::get_displaylink_soc_path() {
    const std::optional<DeviceIdEntry> device = firstDisplayLinkDevice();
    if (!device) return kNoDisplayLink;

    // One character of the bus number: of bus 10 the root hub of bus 1 is asked. Meant.
    const std::string path =
            std::string(kUsbDevicesPath) + "/usb" + device->interface_name[0] + "/devspec";
    LOG(INFO) << "get_displaylink_soc_path " << path;
    const std::string devspec = readText(path);
    if (devspec.empty()) return "";
    LOG(INFO) << "get_displaylink_soc_path devspec_val : " << devspec;
    return modePathOf(devspec);
}

void UsbDevice::registersysfsObserverViaThread() {
    const int result = pthread_create(&pollThread, nullptr, registersysfsObserver, nullptr);
    // The text of another observer: meant.
    LOG(INFO) << "registerFileObserverViaThread result--" << result;
}

void* UsbDevice::registersysfsObserver(void* /*argument*/) {
    readSysfsChangeEvent();
    return nullptr;
}

void UsbDevice::readSysfsChangeEvent() {
    while (!virtualDockDone) {
        const std::string online = readText(kDcSupply);
        LOG(INFO) << "readSysfsChangeEvent:polling for power_val " << kDcSupply
                  << "power_val:" << online;
        if (isOff(online)) {
            LOG(INFO) << "readSysfsChangeEvent: undocked power_val" << online;
            announceDock();
            return;
        }
        std::this_thread::sleep_for(kPollPause);
    }
    LOG(INFO) << "readSysfsChangeEvent:exit poll due to virtual dock";
}

// --- Sysfs access ------------------------------------------------------------------------------

int32_t UsbDevice::read_sysfs_val(const char* path, char* buf, unsigned int size) {
    const unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd == -1) {
        LOG(ERROR) << "Unable to open sysfs path for reading" << path;
        return 0;
    }
    const ssize_t count = read(fd, buf, size == 0 ? 0 : size - 1);
    if (count <= 0) {
        LOG(ERROR) << "Unable to read from sysfs path" << count;
        return 0;
    }
    buf[count] = '\0';
    return static_cast<int32_t>(count);
}

int32_t UsbDevice::write_sysfs_val(const char* path, const char* value, unsigned int count) {
    const unique_fd fd(open(path, O_WRONLY | O_CLOEXEC));
    if (fd == -1) {
        LOG(ERROR) << "Unable to open  sysfs path for writing" << path;
        return 0;
    }
    const ssize_t written = write(fd, value, count);
    if (written <= 0) {
        LOG(ERROR) << "Unable to write to sysfs path" << written;
        return 0;
    }
    return static_cast<int32_t>(written);
}

uint32_t UsbDevice::read_sysfs_file_int(const char* name, const char* attribute, int base) {
    Entry entry = {name, unique_fd()};
    return readInt(entry, attribute, base);
}

void UsbDevice::read_sysfs_file_string(const char* name, const char* attribute, char* buf,
                                       int size) {
    Entry entry = {name, unique_fd()};
    readString(entry, attribute, buf, size);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value is part of its interface.
std::vector<std::string> UsbDevice::split(std::string text, char separator) {
    std::vector<std::string> items;
    std::istringstream stream(text);
    for (std::string item; std::getline(stream, item, separator);) {
        item.erase(std::remove(item.begin(), item.end(), '\n'), item.end());
        items.push_back(item);
    }
    return items;
}

}  // namespace android::kus
