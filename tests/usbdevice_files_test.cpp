// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What a rescan does with the files of the entries: the system calls that it makes for them, and
// what it makes and tells of those that it cannot read.

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/usbdevice.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/tracer.h"
#include "tests/usbdevice_fixture.h"

namespace android::kus::test {

namespace {

using android::base::ScopedLogSeverity;

// --- The attributes of each kind of entry, in the order in which they are read -------------------

struct Attribute {
    const char* name;
    int base; /**< 0: a text */
    size_t offset;
    size_t size = 64; /**< of a text's field */
};

struct Kind {
    const char* name;
    const char* entry;
    std::vector<Attribute> attributes;
    /** Its record; the one that was made last. */
    const char* (*record)();
};

const std::vector<Attribute> kBusAttributes = {
        {"devnum", 10, offsetof(usbbusnode, devnum)},
        {"bDeviceClass", 16, offsetof(usbbusnode, bDeviceClass)},
        {"idProduct", 16, offsetof(usbbusnode, idProduct)},
        {"idVendor", 16, offsetof(usbbusnode, idVendor)},
        {"maxchild", 10, offsetof(usbbusnode, maxchild)},
        {"speed", 0, offsetof(usbbusnode, speed), 8},
        {"rx_lanes", 10, offsetof(usbbusnode, rx_lanes)},
        {"tx_lanes", 10, offsetof(usbbusnode, tx_lanes)},
};

const std::vector<Attribute> kDeviceAttributes = {
        {"bDeviceClass", 16, offsetof(usbdevice, bDeviceClass)},
        {"bDeviceProtocol", 16, offsetof(usbdevice, bDeviceProtocol)},
        {"bDeviceSubClass", 16, offsetof(usbdevice, bDeviceSubClass)},
        {"bMaxPacketSize0", 16, offsetof(usbdevice, bMaxPacketSize0)},
        {"bMaxPower", 0, offsetof(usbdevice, bMaxPower)},
        {"bNumConfigurations", 10, offsetof(usbdevice, bNumConfigurations)},
        {"bNumInterfaces", 16, offsetof(usbdevice, bNumInterfaces)},
        {"bcdDevice", 16, offsetof(usbdevice, bcdDevice)},
        {"bmAttributes", 16, offsetof(usbdevice, bmAttributes)},
        {"configuration", 10, offsetof(usbdevice, configuration)},
        {"devnum", 10, offsetof(usbdevice, devnum)},
        {"idProduct", 16, offsetof(usbdevice, idProduct)},
        {"idVendor", 16, offsetof(usbdevice, idVendor)},
        {"maxchild", 10, offsetof(usbdevice, maxchild)},
        {"manufacturer", 0, offsetof(usbdevice, manufacturer)},
        {"product", 0, offsetof(usbdevice, product)},
        {"serial", 0, offsetof(usbdevice, serial)},
        {"version", 0, offsetof(usbdevice, version)},
        {"speed", 0, offsetof(usbdevice, speed)},
        {"rx_lanes", 10, offsetof(usbdevice, rx_lanes)},
        {"tx_lanes", 10, offsetof(usbdevice, tx_lanes)},
};

const std::vector<Attribute> kInterfaceAttributes = {
        {"bAlternateSetting", 10, offsetof(usbinterface, bAlternateSetting)},
        {"bInterfaceClass", 16, offsetof(usbinterface, bInterfaceClass)},
        {"bInterfaceNumber", 16, offsetof(usbinterface, bInterfaceNumber)},
        {"bInterfaceProtocol", 16, offsetof(usbinterface, bInterfaceProtocol)},
        {"bInterfaceSubClass", 16, offsetof(usbinterface, bInterfaceSubClass)},
        {"bNumEndpoints", 16, offsetof(usbinterface, bNumEndpoints)},
};

template <typename Node>
const char* bytesOf(const std::vector<Node*>& nodes) {
    return reinterpret_cast<const char*>(nodes.back());
}

const std::vector<Kind> kKinds = {
        {"bus", "usb1", kBusAttributes, [] { return bytesOf(Buses()); }},
        {"device", "1-1", kDeviceAttributes, [] { return bytesOf(Devices()); }},
        {"interface", "1-1:1.0", kInterfaceAttributes, [] { return bytesOf(Interfaces()); }},
};

const std::vector<Attribute>& attributesOf(const std::string& entry) {
    if (entry[0] == 'u') return kBusAttributes;
    return entry.find(':') == std::string::npos ? kDeviceAttributes : kInterfaceAttributes;
}

// Makes an entry with all its attributes, each of a value of its own; extra ones win.
std::string addWholeEntry(const std::string& entry, const Attributes& extra = {}) {
    Attributes attributes;
    int value = 11;
    for (const Attribute& attribute : attributesOf(entry)) {
        attributes.emplace_back(attribute.name, std::to_string(value++) + "\n");
    }
    attributes.insert(attributes.end(), extra.begin(), extra.end());
    return AddUsbEntry(entry, attributes);
}

// --- System calls --------------------------------------------------------------------------------

using Calls = std::vector<std::string>;

std::string pathOf(pid_t pid, uint64_t fd) {
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
    std::string path;
    return android::base::Readlink(link, &path) ? path : "closed";
}

// A name as a call gets it: by its path, or below a directory that is open.
std::string nameOf(const SystemCall& call, int directory, int name) {
    std::string text = ReadText(call.pid, call.arguments[name]);
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    const bool isBelow = static_cast<int>(call.arguments[directory]) != AT_FDCWD;
    return isBelow ? pathOf(call.pid, call.arguments[directory]) + " " + text : text;
}

std::string modeOf(uint64_t flags) {
    if ((flags & O_PATH) != 0) return " as a place";
    return (flags & O_DIRECTORY) != 0 ? " as a directory" : "";
}

// What the allocator asks of the kernel is no part of a rescan.
bool isOfMemory(const SystemCall& call) {
    constexpr uint64_t kCalls[] = {SYS_brk,      SYS_madvise, SYS_mmap,
                                   SYS_mprotect, SYS_mremap,  SYS_munmap};
    return std::count(std::begin(kCalls), std::end(kCalls), call.number) > 0;
}

std::string textOf(const SystemCall& call) {
    const auto file = [&] { return pathOf(call.pid, call.arguments[0]); };
    switch (call.number) {
        case SYS_openat:
            return "open " + nameOf(call, 0, 1) + modeOf(call.arguments[2]);
        case SYS_readlinkat:
            return "readlink " + nameOf(call, 0, 1);
#ifdef SYS_readlink
        case SYS_readlink:
            return "readlink " + ReadText(call.pid, call.arguments[0]);
#endif
        case SYS_read:
            return "read " + file();
        case SYS_close:
            return "close " + file();
        case SYS_getdents64:
            return "list " + file();
        case SYS_newfstatat:
            return "stat " + nameOf(call, 0, 1);
        default:
            return "call " + std::to_string(call.number);
    }
}

// No call of a rescan: shows where one begins and ends.
void mark() {
    syscall(SYS_getppid);
}

// The calls of a rescan, behind another one that has warmed up the allocator.
Calls callsOfARescan() {
    Calls calls;
    int marks = 0;
    const ProcessResult result = RunTraced(
            [] {
                const ScopedLogSeverity quiet(android::base::WARNING);
                UsbDevice::create_usb_device_map();
                mark();
                UsbDevice::create_usb_device_map();
                mark();
            },
            [&](const SystemCall& call) {
                if (call.number == SYS_getppid) {
                    ++marks;
                } else if (marks == 1 && !isOfMemory(call)) {
                    calls.push_back(textOf(call));
                }
            });
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.out + result.err);
    EXPECT_EQ(2, marks);
    return calls;
}

void append(const Calls& more, Calls* calls) {
    calls->insert(calls->end(), more.begin(), more.end());
}

std::string directoryOf(const std::string& entry) {
    return "/sys/devices/usb/" + entry;
}

std::string linkOf(const std::string& entry) {
    return std::string(kUsbDevices) + "/" + entry;
}

// Its directory is looked up once; everything else is one step from there.
Calls callsToReadEntry(const std::string& entry) {
    const std::string directory = directoryOf(entry);
    Calls calls = {"open " + linkOf(entry) + " as a place"};
    for (const Attribute& attribute : attributesOf(entry)) {
        const std::string file = directory + "/" + attribute.name;
        append({"open " + directory + " " + attribute.name, "read " + file, "close " + file},
               &calls);
    }
    // A root hub's driver is that of its parent, the controller.
    const bool isBus = entry[0] == 'u';
    calls.push_back(isBus ? "readlink " + linkOf(entry) + "/../driver"
                          : "readlink " + directory + " driver");
    calls.push_back("close " + directory);
    return calls;
}

// opendir(), some of its entries with what is done for them, and closedir(). To the end of the
// directory when nothing settles the question before.
Calls callsToList(const std::string& path, const std::string& directory, const Calls& inside,
                  bool toTheEnd) {
    Calls calls = {"open " + path + " as a directory", "stat " + directory + " ",
                   "list " + directory};
    append(inside, &calls);
    if (toTheEnd) calls.push_back("list " + directory);
    calls.push_back("close " + directory);
    return calls;
}

// An interface's category is that of the directory below it, if there is one.
Calls callsForCategory(const std::string& interface, const std::string& settledBy) {
    if (settledBy.empty()) {
        return callsToList(linkOf(interface), directoryOf(interface), {}, /*toTheEnd=*/true);
    }
    const std::string below = "/" + settledBy;
    const std::string belowDirectory = directoryOf(interface) + below;
    const bool isHid = settledBy.find(':') != std::string::npos;
    const Calls inside =
            callsToList(linkOf(interface) + below, belowDirectory, {}, /*toTheEnd=*/isHid);
    return callsToList(linkOf(interface), directoryOf(interface), inside, /*toTheEnd=*/false);
}

using Rescan = UsbDeviceTest;

TEST_F(Rescan, MakesNoSystemCallThatItsFilesDoNotNeed) {
    // By what their category is told; "-": by their class alone.
    const std::map<std::string, std::string> interfaces = {
            {"1-1:1.0", ""},
            {"1-1.2:1.0", "-"},
            {"1-1.2:1.1", "net"},
            {"1-1.2:1.2", "tty"},
            {"1-1.2:1.3", "0003:1234:5678.0001"},
    };
    for (const char* entry : {"usb1", "1-0:1.0", "1-1", "1-1.2"}) {
        BindDriver(addWholeEntry(entry), "usb");
    }
    for (const auto& [interface, settledBy] : interfaces) {
        addWholeEntry(interface, {{"bInterfaceClass", settledBy == "-" ? "08\n" : "ff\n"}});
        if (settledBy == "-" || settledBy.empty()) continue;
        MakeDir(directoryOf(interface).append("/").append(settledBy));
    }
    MakeDir("/sys/devices/usb/1-1.2:1.1/net/usb0");
    MakeDir("/sys/devices/usb/1-1.2:1.2/tty/ttyACM0");

    Calls reading;
    Calls categories;
    for (const std::string& entry : EntriesOf(kUsbDevices)) {
        append(callsToReadEntry(entry), &reading);
        const auto interface = interfaces.find(entry);
        if (interface == interfaces.end() || interface->second == "-") continue;
        append(callsForCategory(entry, interface->second), &categories);
    }
    Calls expected = callsToList(kUsbDevices, kUsbDevices, reading, /*toTheEnd=*/true);
    append(categories, &expected);
    EXPECT_EQ(expected, callsOfARescan());
}

TEST_F(Rescan, OfAnEmptyDirectoryReadsItAlone) {
    MakeDir(kUsbDevices);
    EXPECT_EQ(callsToList(kUsbDevices, kUsbDevices, {}, /*toTheEnd=*/true), callsOfARescan());
}

// --- Files that cannot be read -------------------------------------------------------------------

// What is told of an entry none of whose numbers can be read.
std::string errorsFor(const std::string& entry, const std::string& error) {
    std::string errors;
    for (const Attribute& attribute : attributesOf(entry)) {
        if (attribute.base == 0) continue;
        errors += linkOf(entry) + "/" + attribute.name + ": " + error + "\n";
    }
    return errors;
}

// The entries stand in the directory, as when it was read, and are gone.
TEST_F(Rescan, ReportsEachNumberOfAnEntryThatHasVanished) {
    for (const Kind& kind : kKinds) MakeLink(linkOf(kind.entry), "../../../devices/usb/gone");
    std::string errors;
    for (const std::string& entry : EntriesOf(kUsbDevices)) {
        errors += errorsFor(entry, "No such file or directory");
    }
    const ProcessResult child = RunInChild([] {
        const ScopedLogSeverity quiet(android::base::WARNING);
        UsbDevice::create_usb_device_map();
        printf("%zu", UsbDevice::DeviceIdMap.size());
    });
    EXPECT_EQ(errors, child.err);
    EXPECT_EQ("1", child.out);
}

TEST_F(Rescan, ReportsEachNumberOfAnEntryThatIsNoDirectory) {
    for (const Kind& kind : kKinds) {
        WriteFile(linkOf(kind.entry), "");
        const ProcessResult child = RunInChild([&] { UsbDevice::inspect_bus_entry(kind.entry); });
        EXPECT_EQ(errorsFor(kind.entry, "Not a directory"), child.err);
    }
}

TEST_F(Rescan, ReportsEachNumberOfAnEntryThatLinksToItself) {
    for (const Kind& kind : kKinds) {
        MakeLink(linkOf(kind.entry), kind.entry);
        const ProcessResult child = RunInChild([&] { UsbDevice::inspect_bus_entry(kind.entry); });
        EXPECT_EQ(errorsFor(kind.entry, "Too many levels of symbolic links"), child.err);
    }
}

TEST_F(Rescan, ReportsEachNumberOfAnEntryWithoutItsAttributes) {
    for (const Kind& kind : kKinds) {
        AddUsbEntry(kind.entry, {});
        const ProcessResult child = RunInChild([&] { UsbDevice::inspect_bus_entry(kind.entry); });
        EXPECT_EQ(errorsFor(kind.entry, "No such file or directory"), child.err);
    }
}

TEST_F(Rescan, ReportsEachNumberThatIsADirectory) {
    for (const Kind& kind : kKinds) {
        for (const Attribute& attribute : kind.attributes) {
            MakeDir(AddUsbEntry(kind.entry, {}) + "/" + attribute.name);
            Remove(linkOf(kind.entry));
        }
        AddUsbEntry(kind.entry, {});
        const ProcessResult child = RunInChild([&] { UsbDevice::inspect_bus_entry(kind.entry); });
        EXPECT_EQ(errorsFor(kind.entry, "Is a directory"), child.err);
    }
}

TEST_F(Rescan, ReportsNothingOfWhatItCanRead) {
    for (const Kind& kind : kKinds) {
        addWholeEntry(kind.entry);
        const ProcessResult child = RunInChild([&] { UsbDevice::inspect_bus_entry(kind.entry); });
        EXPECT_EQ("", child.err);
    }
}

// The directory of an entry is opened first: its files must not go without for it.
TEST_F(Rescan, ReadsAllOfAnEntryWithOneFreeDescriptor) {
    for (const Kind& kind : kKinds) {
        addWholeEntry(kind.entry);
        const ProcessResult child = RunInChild([&] {
            int last = -1;
            for (int fd; (fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) != -1;) last = fd;
            close(last);
            UsbDevice::inspect_bus_entry(kind.entry);
        });
        EXPECT_EQ(0, child.status);
        EXPECT_EQ("", child.err);
    }
}

// --- Records and the primitives ------------------------------------------------------------------

// The values that the record of an entry holds.
void printRecord(const Kind& kind, const std::string& entry) {
    UsbDevice::inspect_bus_entry(entry.c_str());
    const char* record = kind.record();
    printf("values:");
    for (const Attribute& attribute : kind.attributes) {
        uint32_t number = 0;
        memcpy(&number, record + attribute.offset, sizeof(number));
        if (attribute.base == 0) {
            printf(" '%s'", record + attribute.offset);
        } else {
            printf(" %u", number);
        }
    }
    printf("\n");
}

// The same, each value asked for by itself.
void printAttributes(const Kind& kind, const std::string& entry) {
    const bool isCutDevice = kind.name == std::string("device") && entry.size() > 254;
    if (isCutDevice) UsbDevice::read_sysfs_file_int(entry.c_str(), "bConfigurationValue", 10);
    printf("values:");
    for (const Attribute& attribute : kind.attributes) {
        if (attribute.base == 0) {
            char text[64];
            UsbDevice::read_sysfs_file_string(entry.c_str(), attribute.name, text, sizeof(text));
            printf(" '%.*s'", static_cast<int>(attribute.size - 1), text);
        } else {
            printf(" %u",
                   UsbDevice::read_sysfs_file_int(entry.c_str(), attribute.name, attribute.base));
        }
    }
    printf("\n");
}

// Without what is told of a name that had to be cut.
std::vector<std::string> valuesIn(const std::string& out) {
    std::vector<std::string> lines = android::base::Split(out, "\n");
    const auto isWarning = [](const std::string& line) { return line.rfind("warning: ", 0) == 0; };
    lines.erase(std::remove_if(lines.begin(), lines.end(), isWarning), lines.end());
    return lines;
}

// Records and primitives read the same of entries of a kind, and report the same.
void expectWhatThePrimitivesRead(const Kind& kind, const std::vector<std::string>& entries) {
    const auto runForEach = [&](void (*print)(const Kind&, const std::string&)) {
        return RunInChild([&] {
            const ScopedLogSeverity quiet(android::base::FATAL);
            for (const std::string& entry : entries) print(kind, entry);
        });
    };
    const ProcessResult records = runForEach(printRecord);
    const ProcessResult primitives = runForEach(printAttributes);
    EXPECT_EQ(entries.size() + 1, valuesIn(primitives.out).size());
    EXPECT_EQ(valuesIn(primitives.out), valuesIn(records.out));
    EXPECT_EQ(android::base::Split(primitives.err, "\n"), android::base::Split(records.err, "\n"));
}

using Record = UsbDeviceTest;

TEST_F(Record, HoldsWhatThePrimitivesReadOfOddAttributes) {
    const std::vector<std::string> texts = {"",
                                            "\n",
                                            "7",
                                            " 12\n",
                                            "0x1F\n",
                                            "-1\n",
                                            "ffffffff\n",
                                            "99999999999",
                                            "123456789012345\n",
                                            "\n\n5\n",
                                            "a\nb\n",
                                            TextOf(62) + "\n",
                                            TextOf(63),
                                            TextOf(63) + "\n",
                                            TextOf(64),
                                            TextOf(300),
                                            std::string("1\0002\n", 4)};
    for (const Kind& kind : kKinds) {
        for (const std::string& text : texts) {
            SCOPED_TRACE(testing::Message() << kind.name << " '" << text << "'");
            for (const Attribute& attribute : kind.attributes) {
                WriteFile(directoryOf(kind.entry) + "/" + attribute.name, text);
            }
            Remove(linkOf(kind.entry));
            AddUsbEntry(kind.entry, {});
            expectWhatThePrimitivesRead(kind, {kind.entry});
        }
    }
}

// Files for what is left of an attribute's name in a path that has to be cut.
void addCutAttributes(const Kind& kind) {
    for (const Attribute& attribute : kind.attributes) {
        const std::string name = attribute.name;
        for (size_t length = 1; length < name.size(); ++length) {
            WriteFile(directoryOf(kind.entry) + "/" + name.substr(0, length),
                      std::to_string(length) + "\n");
        }
    }
}

TEST_F(Record, HoldsWhatThePrimitivesReadUnderNamesOfAnyLength) {
    constexpr size_t kPrefix = sizeof("/sys/bus/usb/devices/") - 1;
    for (const Kind& kind : kKinds) {
        addWholeEntry(kind.entry, {{"bConfigurationValue", "9\n"}});
        addCutAttributes(kind);
        std::vector<size_t> lengths = {strlen(kind.entry) + 1, 253, 254, 255, 256, 257, 3000};
        // Where the paths of the attributes begin to be too long, and where all of them are.
        for (size_t path = 4096 - 22; path <= 4096 + 2; ++path) lengths.push_back(path - kPrefix);
        std::vector<std::string> names;
        names.reserve(lengths.size());
        for (const size_t length : lengths) names.push_back(Padded(kind.entry, length));
        SCOPED_TRACE(kind.name);
        expectWhatThePrimitivesRead(kind, names);
    }
}

TEST_F(Record, HoldsWhatThePrimitivesReadUnderOtherNamesOfAnEntry) {
    for (const Kind& kind : kKinds) {
        addWholeEntry(kind.entry);
        std::vector<std::string> names(5, kind.entry);
        names[0] += "/.";
        names[1] += "//";
        names[2] += std::string("/../") + kind.entry;
        names[3] += "/missing";
        names[4] += std::string("/") + kind.attributes[0].name;
        SCOPED_TRACE(kind.name);
        expectWhatThePrimitivesRead(kind, names);
    }
}

}  // namespace

}  // namespace android::kus::test
