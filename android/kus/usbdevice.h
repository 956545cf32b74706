// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include <cutils/list.h>
#include <utils/Mutex.h>

namespace android::kus {

// Room in the records below, the terminating zero included: a name keeps 254 characters, a
// descriptor text 63.
inline constexpr int kNameSize = 255;
inline constexpr int kTextSize = 64;

/** What an interface is good for, by what the kernel made of it; one bit each. */
enum Category : int32_t {
    kCategoryNone = 0,
    kCategoryNetwork = 1,
    kCategorySerial = 2,
    kCategoryMassStorage = 4,
    kCategoryVendorHid = 8,
};

struct usbdevice;
struct usbinterface;

// The records of one rescan: plain, zero-filled blocks, freed at its end. Their numbers are those
// of the kernel's sysfs attributes of the same name (Documentation/ABI/stable/sysfs-bus-usb).

/** A root hub: "usb1". */
struct usbbusnode {
    usbbusnode* next;              /**< in the order of discovery */
    usbinterface* first_interface; /**< chained through usbinterface::next */
    usbdevice* first_child;        /**< chained through usbdevice::next */
    uint32_t busnum;
    uint32_t bDeviceClass;
    uint32_t devnum;
    uint32_t idProduct;
    uint32_t idVendor;
    uint32_t maxchild;
    char speed[8];
    uint32_t rx_lanes;
    uint32_t tx_lanes;
    char name[kNameSize];
    char driver[kNameSize]; /**< the controller's driver */
};

/** A device: "1-1.4". */
struct usbdevice {
    listnode list;                 /**< in UsbDevice::device_list */
    usbdevice* next;               /**< next sibling on the same hub or bus */
    usbinterface* first_interface; /**< chained through usbinterface::next */
    usbdevice* first_child;        /**< first device on this hub's ports */
    usbdevice* parent;             /**< the hub it hangs on; null on a root hub */
    uint32_t busnum;
    uint32_t parent_portnum; /**< 0 on a root hub */
    uint32_t portnum;
    uint32_t bConfigurationValue;
    uint32_t bDeviceClass;
    uint32_t bDeviceProtocol;
    uint32_t bDeviceSubClass;
    uint32_t bMaxPacketSize0;
    char bMaxPower[kTextSize];
    uint32_t bNumConfigurations;
    uint32_t bNumInterfaces;
    uint32_t bcdDevice;
    uint32_t bmAttributes;
    uint32_t configuration;
    uint32_t devnum;
    uint32_t idProduct;
    uint32_t idVendor;
    uint32_t maxchild;
    char manufacturer[kTextSize];
    char product[kTextSize];
    char serial[kTextSize];
    char version[kTextSize];
    char speed[kTextSize];
    uint32_t rx_lanes;
    uint32_t tx_lanes;
    char name[kNameSize];
    char driver[261];
};

/** An interface: "1-1.4:1.0". */
struct usbinterface {
    listnode list;      /**< in UsbDevice::interface_list */
    usbinterface* next; /**< next interface of the same device or bus */
    usbdevice* parent;  /**< null when its device has no record, and for a root hub's own */
    uint32_t configuration;
    uint32_t ifnum;
    uint32_t bAlternateSetting;
    uint32_t bInterfaceClass;
    uint32_t bInterfaceNumber;
    uint32_t bInterfaceProtocol;
    uint32_t bInterfaceSubClass;
    uint32_t bNumEndpoints;
    char name[kNameSize];
    int32_t category;
    char category_path[kTextSize];
    char driver[260];
};

/** What outlives a rescan: one interface and what is needed of its device. */
struct DeviceIdEntry {
    uint32_t bInterfaceClass;
    uint32_t bInterfaceNumber;
    uint32_t bInterfaceProtocol;
    uint32_t bInterfaceSubClass;
    char interface_name[kNameSize];
    uint32_t busnum;
    uint32_t devnum;
    uint32_t idVendor;
    uint32_t idProduct;
    char manufacturer[kTextSize];
    char product[kTextSize];
    int32_t category;
    char category_path[kTextSize];
};

/**
 * The USB devices as the kernel shows them in sysfs, and the switch that blocks them.
 *
 * All state is process-wide; there are no objects. Who rescans or uses the map holds mapLock, and
 * has the picture of one rescan as long as it does. The sysfs primitives have no state and may be
 * called from any thread.
 *
 * A device id is bus number * 1000 + device number. No operation reports a failure other than by
 * its result: what cannot be read is missing from the picture, with a message in the log, on
 * standard error or on standard output.
 */
class UsbDevice {
  public:
    UsbDevice() = delete;

    /**
     * Held from a rescan to the last look at what it found. Whoever holds it may be waiting for the
     * kernel: reads of attributes and writes of "authorized" take the device's own lock there,
     * which is held while a driver is being bound or unbound.
     */
    static Mutex mapLock;

    // --- Topology ------------------------------------------------------------------------------

    /** One rescan: afterwards the map holds what is attached now, and the node lists are empty. */
    static void create_usb_device_map() REQUIRES(mapLock);

    /** Takes one entry of the USB device directory: a bus, a device, an interface, or ignored. */
    static void inspect_bus_entry(const char* name) REQUIRES(mapLock);
    static void add_usb_bus(const char* name) REQUIRES(mapLock);
    static void add_usb_device(const char* name) REQUIRES(mapLock);
    static void add_usb_interface(const char* name) REQUIRES(mapLock);
    /** Fills bus->driver; leaves it empty when there is no driver link. */
    static void get_roothub_driver(usbbusnode* bus, const char* name);

    /** Links the records by their names, then fills the map from the linked interfaces. */
    static void connect_devices() REQUIRES(mapLock);
    static void assign_dev_to_parent(usbdevice* device) REQUIRES(mapLock);
    static void assign_interface_to_parent(usbdevice* device, usbinterface* interface)
            REQUIRES(mapLock);

    /** Frees every device and interface record. */
    static void delete_all_nodes() REQUIRES(mapLock);
    /** Frees every bus record. */
    static void empty_list() REQUIRES(mapLock);

    // Printing of the linked records. The descriptor stays the caller's.
    static void print_tree(int fd) REQUIRES(mapLock);
    static void print_tree_dev_children(usbdevice* device, int fd);
    static void print_usbdevice(usbdevice* device, usbinterface* interface, int fd);
    static void print_interfacelist(int fd) REQUIRES(mapLock);

    // --- Device-id map -------------------------------------------------------------------------

    /** Sets category and category_path by what the kernel made under the interface. */
    static void populate_category_device(usbinterface* interface);

    /** Copies of the entries of a device, one per interface; empty for an unknown id. */
    static std::vector<DeviceIdEntry> get_deviceid_data(int deviceId) REQUIRES(mapLock);

    /** Has an interface of the device the vendor-HID category? */
    static bool check_vendor_hid(int deviceId) REQUIRES(mapLock);

    /**
     * Writes '0' (status 0) or '1' to "authorized" of each interface of the device: the
     * interface's own switch, which unbinds its driver at once when it goes to 0.
     *
     * The first interface that cannot be opened or written ends the walk.
     */
    static void update_status(int deviceId, int status) REQUIRES(mapLock);

    /** With keep false, forgets the device's entries; with keep true, nothing. */
    static void update_deviceid_map(int deviceId, bool keep) REQUIRES(mapLock);

    /** Logs the map; prints it as well unless fd is -1. */
    static void print_deviceid_map(int fd) REQUIRES(mapLock);

    /** Rescans and prints tree, interfaces and map. */
    static void dump_print_test(int fd) REQUIRES(mapLock);

    // --- Controllers, dock and power supplies --------------------------------------------------

    /**
     * Makes the attached devices enumerate again, and returns when that is under way.
     *
     * delay 0 or less flips each controller that is in host mode to "none" and back, 0.2 s each.
     * delay 1 or more is a virtual undock and dock, that many milliseconds apart.
     *
     * Any thread may call it; resets wait for each other, each for the whole time of the others. A
     * virtual dock takes mapLock for its look into the map. A controller that cannot be read or
     * written stays as it is.
     */
    static void usb_host_reset(int delay) EXCLUDES(mapLock);

    /**
     * The virtual undock and dock of usb_host_reset(), which alone calls it; delay in milliseconds.
     *
     * With a DisplayLink device in the map its controller is switched off for delay, and on again
     * only when there is external power by then. Without one, and on DC power, the platform is told
     * by properties, and for the time of delay a thread watches the DC supply.
     *
     * A supply of the first case whose text is no number ends the process (uncaught conversion
     * failure, SIGABRT); in the second one only a leading '0' is no power.
     */
    static void virtual_undock_dock_event(int delay) EXCLUDES(mapLock);

    /**
     * The mode file of the controller on which the map's first DisplayLink device hangs.
     *
     * "empty" without such a device. An empty text when the root hub's "devspec", the path of the
     * controller's device-tree node, cannot be read or does not name a controller.
     */
    static std::string get_displaylink_soc_path() EXCLUDES(mapLock);

    /** Starts the thread that watches the DC supply; a failure is only logged. */
    static void registersysfsObserverViaThread();
    /** Entry of that thread, its argument unused; returns null. */
    static void* registersysfsObserver(void* argument);
    /**
     * Polls the DC supply every 400 ms until the running virtual dock is over, or the terminal
     * leaves the supply, which the platform is told then. A further virtual dock that begins before
     * the next look keeps it polling.
     */
    static void readSysfsChangeEvent();

    // --- Sysfs access --------------------------------------------------------------------------

    /**
     * Reads a file's text, at most size - 1 bytes in one read, and terminates it.
     *
     * Returns the number of bytes, a trailing newline included; 0 on failure or for an empty file,
     * and then buf is neither written nor terminated: clear it beforehand.
     */
    static int32_t read_sysfs_val(const char* path, char* buf, unsigned int size);

    /** Writes count bytes in one write. Returns the number written, 0 on failure. */
    static int32_t write_sysfs_val(const char* path, const char* value, unsigned int count);

    /** The number in attribute of entry name, at most 11 characters of it; 0 on failure. */
    static uint32_t read_sysfs_file_int(const char* name, const char* attribute, int base);

    /**
     * The text in attribute of entry name without trailing newlines, inner ones made blanks.
     *
     * buf is empty on failure, and for a text of size bytes or more.
     */
    static void read_sysfs_file_string(const char* name, const char* attribute, char* buf,
                                       int size);

    /** Cuts a text at each separator and drops the newlines of the pieces. */
    static std::vector<std::string> split(std::string text, char separator);

    // --- State ---------------------------------------------------------------------------------

    /** One entry per interface that has a device; equal ids in interface order. */
    static std::multimap<int32_t, DeviceIdEntry> DeviceIdMap GUARDED_BY(mapLock);

    // The records of a running rescan; empty between rescans.
    static usbbusnode* bus_list GUARDED_BY(mapLock);
    static listnode device_list GUARDED_BY(mapLock);
    static listnode interface_list GUARDED_BY(mapLock);

    /** Logs each step of a rescan. Off, and nothing in the daemon turns it on. */
    static bool trace;
};

}  // namespace android::kus
