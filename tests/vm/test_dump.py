# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""What `dumpsys kusbservice` prints, byte for byte: the records, and the tree of USB devices.

The expected tree is put together here from what the terminal's sysfs holds."""

from __future__ import annotations

import collections
import dataclasses
import unittest

from support import (DEFAULT_POLICY, DaemonTestCase, LogLine, class_rule, policy, vendor_rule)
from vm.devices import (COMPOSITE, DISPLAYLINK, FTDI_SERIAL, HUB, KEYBOARD, MOUSE, NETWORK, SERIAL,
                        SMARTCARD, STORAGE, VENDOR_HID, Device)
from vm.terminal import Plugged

USB_DEVICES = "/sys/bus/usb/devices"
HEADING = "USB DEVICE INFO "
NOT_WHITELISTED = "No matching rule found to Whitelist the device"
BY_CLASS = "Whitelisted: Match by ClassName, CLASS : "
BY_VENDOR = "Whitelisted: Match by VID, VID : "

RULES = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"),
               class_rule("AINPUT_SOURCE_KEYBOARD"), class_rule("AINPUT_SOURCE_MOUSE"),
               vendor_rule(100))


@dataclasses.dataclass(frozen=True)
class Judged:
    """A made-up device, and what is to be printed and logged of it."""

    device_id: int
    name: str
    class_text: str
    restricted_text: str
    # What the printing logs between the record and the class text.
    logged: tuple[str, ...]
    interfaces: tuple[int, ...] = ()
    device_class: int = 0
    class_name: str = "USB_CLASS_PER_INTERFACE"
    vendor: int = 1
    product: int = 2
    device_type: int = 0
    status: int = 0
    reason: str = NOT_WHITELISTED

    @property
    def question(self) -> list[str]:
        return ["kus-client", "decide", "--id", str(self.device_id), "--name", self.name,
                "--class", str(self.device_class), "--interfaces",
                ",".join(map(str, self.interfaces)), "--vid", str(self.vendor), "--pid",
                str(self.product), "--type", str(self.device_type)]

    @property
    def printed(self) -> str:
        return (f"\nDevice name : {self.name}"
                f"\n   Device type(1=HID/0=Non-HID) : {self.device_type}"
                f"\n   DeviceID : {self.device_id % 2**32}"
                f"\n   Device class name : {self.class_text}"
                f"\n   Restricted class name : {self.restricted_text}"
                f"\n   Device Vendor Id : {self.vendor}"
                f"\n   Device Product Id : {self.product}"
                f"\n   Device status(1-enabled/0-disabled): {self.status}"
                f"\n   Reason : {self.reason}\n")

    @property
    def messages(self) -> list[str]:
        return [f"Dump DeviceInfo:= {{ DeviceId:{self.device_id}, DeviceName: {self.name}, "
                f"ClassName: {self.class_name}[ {self.device_class}] , VendorId: {self.vendor}, "
                f"ProductId: {self.product} }}",
                *self.logged, f"interfaceClassListStr {self.class_text}"]


def of_class(name: str, restricted: int | None = None) -> tuple[str, ...]:
    """What the printing logs of one interface class."""
    found = () if restricted is None else (f"Found CLASS : {restricted} in restricted class list",)
    return (f"dumpPrint--{name}", *found)


def of_source(source: int, known: bool) -> tuple[str, ...]:
    """The same of an input device's source; the last message ends with a newline."""
    return (f"checkMultiClass key_val{source}", f"checkMultiClass--{source & ~0xFF}",
            "Key found" if known else "Key not found", "")


NO_RESTRICTED = "restrictedClassList is null"
NO_CLASS = "interfaceClassListStr is null"

DISK = of_class("USB_CLASS_MASS_STORAGE")
HID = of_class("USB_CLASS_HID", 3)

# Each list by ascending id; the daemon is asked in another order.
INPUT_DEVICES = (
    Judged(-7, "Ghost", "", "<none>", of_source(8, known=False), device_class=8,
           class_name="USB_CLASS_MASS_STORAGE", device_type=1),
    Judged(3, "Keys", "AINPUT_SOURCE_KEYBOARD;", "<none>", of_source(0x101, known=True),
           device_class=0x101, class_name=" ", device_type=1, vendor=-1, product=-2, status=1,
           reason=f"{BY_CLASS}AINPUT_SOURCE_KEYBOARD "),
    Judged(4, "Keys and mouse", "AINPUT_SOURCE_KEYBOARD;AINPUT_SOURCE_MOUSE;", "<none>",
           of_source(0x2103, known=False), device_class=0x2103, class_name=" ", device_type=1,
           status=1, reason=f"{BY_CLASS}AINPUT_SOURCE_KEYBOARD AINPUT_SOURCE_MOUSE "),
    # Its interface classes are not looked at, one name within another is no duplicate, and the type
    # is printed as it is.
    Judged(5, "Pad", "AINPUT_SOURCE_MOUSE;AINPUT_SOURCE_MOUSE_RELATIVE;"
           "AINPUT_SOURCE_ROTARY_ENCODER;", "<none>", of_source(0x422000, known=False),
           interfaces=(3, 8, 7), device_class=0x422000, class_name=" ", device_type=7),
)
USB_DEVICES_ASKED = (
    Judged(-2**31, "Restricted only", "<none>", "USB_CLASS_HID;USB_CLASS_HUB;",
           (*HID, *of_class("USB_CLASS_HUB", 9), NO_CLASS), (3, 9)),
    Judged(4, "Disk", "USB_CLASS_MASS_STORAGE;", "<none>", (*DISK, NO_RESTRICTED), (8,),
           status=1, reason=f"{BY_CLASS}USB_CLASS_MASS_STORAGE "),
    Judged(90001, "Disk and keys", "USB_CLASS_MASS_STORAGE;", "USB_CLASS_HID;",
           (*DISK, *DISK, *HID), (8, 8, 3), vendor=-1, product=-65535, status=1,
           reason=f"{BY_CLASS}USB_CLASS_MASS_STORAGE "),
    Judged(90002, "All restricted ones, twice",
           "<none>", "USB_CLASS_PER_INTERFACE;USB_CLASS_HID;USB_CLASS_HUB;USB_CLASS_MISC;"
           "USB_CLASS_APP_SPEC;USB_CLASS_VENDOR_SPEC;",
           (*(of_class("USB_CLASS_PER_INTERFACE", 0) + HID + of_class("USB_CLASS_HUB", 9)
              + of_class("USB_CLASS_MISC", 239) + of_class("USB_CLASS_APP_SPEC", 254)
              + of_class("USB_CLASS_VENDOR_SPEC", 255)) * 2, NO_CLASS),
           (0, 3, 9, 239, 254, 255) * 2),
    # Codes without a name have a blank for one.
    Judged(90003, "Nameless", " ;USB_CLASS_AUDIO;", "<none>",
           (*of_class(" "), *of_class("USB_CLASS_AUDIO"), *of_class(" "), NO_RESTRICTED),
           (4, 1, 12)),
    # A name that is within another one before it is left out.
    Judged(90004, "Numbers of sources", "AINPUT_SOURCE_MOUSE_RELATIVE;", "<none>",
           (*of_class("AINPUT_SOURCE_MOUSE_RELATIVE"), *of_class("AINPUT_SOURCE_MOUSE"),
            NO_RESTRICTED), (0x20000, 0x2000)),
    Judged(90005, "The other way round", "AINPUT_SOURCE_MOUSE;AINPUT_SOURCE_MOUSE_RELATIVE;",
           "<none>", (*of_class("AINPUT_SOURCE_MOUSE"), *of_class("AINPUT_SOURCE_MOUSE_RELATIVE"),
                      NO_RESTRICTED), (0x2000, 0x20000)),
    Judged(2**31 - 1, 'Gerät "7"\t☃ %s', "USB_CLASS_PRINTER;", "USB_CLASS_VENDOR_SPEC;",
           (*of_class("USB_CLASS_PRINTER"), *of_class("USB_CLASS_VENDOR_SPEC", 255)), (7, 255),
           device_class=-2, class_name=" ", vendor=100, product=2**31 - 1, status=1,
           reason=f"{BY_VENDOR}100"),
)


class DumpTestCase(DaemonTestCase):
    """Without an agent: what is on record and in the log comes from the test alone."""

    services = ("servicemanager", "kusd")
    rules = RULES

    def setUp(self) -> None:
        super().setUp()
        self.use_policy(self.rules)

    def use_policy(self, text: str) -> int:
        log = self.log.mark()
        pid = super().use_policy(text)
        self.wait_until_start_is_over(log)
        return pid

    def dump(self, *arguments: str) -> str:
        result = self.terminal.run(["dumpsys", "kusbservice", *arguments])
        self.assertEqual((result.status, result.errors), (0, b""))
        return result.output.decode()

    def attach(self, device: Device, behind: Plugged | None = None) -> Plugged:
        plugged = self.terminal.plug(device, behind)
        self.plugged.append(plugged)
        self.terminal.wait_until_works(plugged)
        return plugged


class RecordTest(DumpTestCase):
    def ask(self, *devices: Judged) -> None:
        for device in devices:
            self.terminal.check_output(device.question)

    def assert_dump(self, inputs: tuple[Judged, ...], usb: tuple[Judged, ...]) -> None:
        log = self.log.mark()
        printed = self.dump()
        self.assertEqual(printed, HEADING + "".join(each.printed for each in (*inputs, *usb)))
        self.assertEqual(self.log.messages(log), [
            f"mInputDeviceInfoList size {len(inputs)}mUsbDeviceInfoList size {len(usb)}",
            *(message for each in (*inputs, *usb) for message in each.messages)])
        self.assertEqual({line.severity for line in self.log.since(log)}, {"I"})

    def test_empty_lists_are_the_heading_alone(self) -> None:
        self.assert_dump((), ())

    def test_records_are_printed_by_id_input_devices_first(self) -> None:
        self.ask(*reversed(USB_DEVICES_ASKED), *reversed(INPUT_DEVICES))
        self.assert_dump(INPUT_DEVICES, USB_DEVICES_ASKED)
        # It changes nothing.
        self.assert_dump(INPUT_DEVICES, USB_DEVICES_ASKED)

    def test_only_what_is_on_record_is_printed(self) -> None:
        disk, keys = USB_DEVICES_ASKED[1], INPUT_DEVICES[1]
        self.ask(disk)
        self.assert_dump((), (disk,))
        self.ask(keys)
        self.assert_dump((keys,), (disk,))
        self.client("remove", "--id", str(disk.device_id))
        self.assert_dump((keys,), ())
        # Left to the input side: not recorded.
        self.ask(dataclasses.replace(disk, interfaces=(3,)))
        self.assert_dump((keys,), ())

    def test_reader_that_hangs_up_ends_nothing_but_its_own_dump(self) -> None:
        pid = self.terminal.status("kusd").pid
        self.terminal.check_output("mkfifo /tmp/pipe; exec 3<> /tmp/pipe 4> /tmp/pipe 3<&-; "
                                   "rm /tmp/pipe; dumpsys kusbservice >&4")
        self.assertEqual(self.client("ping"), "pong\n")
        self.assertEqual(self.terminal.status("kusd").pid, pid)

    def test_usb_devices_without_interface_classes_have_an_empty_class_text(self) -> None:
        """Only the ids of vendors' HID devices are recorded without any other class than HID's."""
        ids = [self.state(self.attach(device)).device_id for device in (VENDOR_HID, COMPOSITE)]
        without, hid = sorted([
            Judged(ids[0], "Nothing", "", "<none>", (NO_RESTRICTED,), vendor=100, status=1,
                   reason=f"{BY_VENDOR}100"),
            Judged(ids[1], "HID only", "<none>", "USB_CLASS_HID;", (*HID, *HID, NO_CLASS), (3, 3))],
            key=lambda each: each.device_id)
        self.ask(hid, without)
        self.assert_dump((), (without, hid))


class ArgumentTest(DumpTestCase):
    rules = DEFAULT_POLICY

    def test_other_words_print_nothing(self) -> None:
        self.terminal.check_output(USB_DEVICES_ASKED[1].question)
        for words in (("TEST",), ("tester",), ("",), ("Test",), ("tes",), ("test ",), (" test",),
                      ("-a",), ("--help",), ("", "test"), ("all", "test"), ("téßt",)):
            with self.subTest(words):
                log = self.log.mark()
                self.assertEqual(self.dump(*words), "")
                self.assertEqual([(line.severity, line.message) for line in self.log.since(log)],
                                 [("I", f"args[0] is{words[0]}")])

    def test_further_words_are_ignored(self) -> None:
        alone = self.dump("test")
        self.assertTrue(alone.startswith("USB Test \n"))
        for words in (("test", "test"), ("test", ""), ("test", "-v", "7")):
            self.assertEqual(self.dump(*words), alone)


# --- the tree -------------------------------------------------------------------------------------


class Entry:
    """An entry of the kernel's directory of USB devices; attributes that it lacks are empty."""

    def __init__(self, name: str, attributes: dict[str, str]) -> None:
        self.name = name
        self.attributes = attributes

    def number(self, attribute: str, base: int = 10) -> int:
        return int(self.attributes[attribute] or "0", base)

    def __getitem__(self, attribute: str) -> str:
        return self.attributes[attribute]


ATTRIBUTES = ("devnum", "idVendor", "idProduct", "manufacturer", "product", "bInterfaceClass")

# Only the shell's own commands: an emulated processor takes long to start a program.
READ_ENTRIES = f"""
cd {USB_DEVICES}
for entry in $(find . -maxdepth 1 -mindepth 1); do
    entry=${{entry#./}}
    echo "entry=$entry"
    for attribute in {' '.join(ATTRIBUTES)}; do
        value=
        [ ! -e "$entry/$attribute" ] || IFS= read -r value < "$entry/$attribute"
        echo "$attribute=$value"
    done
    driver=
    [ ! -e "$entry/driver" ] || driver=$(cd -P "$entry/driver" && pwd)
    echo "driver=${{driver##*/}}"
    category=0
    [ ! -d "$entry/net" ] || category=1
    [ ! -d "$entry/tty" ] || category=2
    for hid in "$entry"/0003:*; do
        [ ! -d "$hid" ] || [ -d "$hid/input" ] || category=8
    done
    echo "category=$category"
done
"""


class Tree:
    """What is attached, in the order of the kernel's directory, which is the daemon's."""

    def __init__(self, text: str) -> None:
        self.buses: list[Entry] = []
        self.devices: dict[str, Entry] = {}
        self.interfaces: list[Entry] = []
        for line in text.splitlines():
            key, _, value = line.partition("=")
            if key == "entry":
                attributes: dict[str, str] = {}
                self.add(Entry(value, attributes))
            else:
                attributes[key] = value
        self.of_device = collections.defaultdict(list)
        self.children = collections.defaultdict(list)
        for interface in self.interfaces:
            self.of_device[interface.name.partition(":")[0]].append(interface)
        for device in self.devices.values():
            self.children[self.parent_name(device)].append(device)

    def add(self, entry: Entry) -> None:
        if entry.name.startswith("usb"):
            self.buses.append(entry)
        elif ":" in entry.name:
            self.interfaces.append(entry)
        else:
            self.devices[entry.name] = entry

    def parent_name(self, device: Entry) -> str:
        """The hub's, or the root hub's."""
        hub, dot, _ = device.name.rpartition(".")
        return hub if dot else f"usb{device.name.partition('-')[0]}"

    def device_id(self, device: Entry) -> int:
        return int(device.name.partition("-")[0]) * 1000 + device.number("devnum")

    def category(self, interface: Entry) -> int:
        if interface.number("bInterfaceClass", 16) == 8:
            return 4
        return interface.number("category")

    def owned(self) -> list[tuple[Entry, Entry]]:
        """Every interface of a device, with the device: not those of root hubs."""
        return [(interface, self.devices[interface.name.partition(":")[0]])
                for interface in self.interfaces
                if interface.name.partition(":")[0] in self.devices]

    def in_tree(self) -> list[tuple[Entry, Entry]]:
        """The same in the tree's order: each device with its interfaces, then what is behind."""
        found: list[tuple[Entry, Entry]] = []
        for bus in self.buses:
            self.descend(bus.name, found)
        return found

    def descend(self, parent: str, found: list[tuple[Entry, Entry]]) -> None:
        for device in self.children[parent]:
            found += [(interface, device) for interface in self.of_device[device.name]]
            self.descend(device.name, found)

    # --- as it must be printed ------------------------------------------------------------------

    def printed(self) -> str:
        tree = "".join(self.tree_text(*each) for each in self.in_tree())
        interfaces = "".join(map(self.interface_text, self.interfaces))
        by_id = sorted(self.owned(), key=lambda each: self.device_id(each[1]))
        return (f"USB Test \n{tree}{interfaces}\n\nDeviceIdMap size{len(by_id)}\n"
                + "".join(f" {self.map_text(*each)}\n" for each in by_id))

    def tree_text(self, interface: Entry, device: Entry) -> str:
        bus, _, ports = device.name.partition("-")
        *_, parent_port, port = ["0", *ports.split(".")]
        class_number = interface.number("bInterfaceClass", 16)
        line = (f"Port : {port}, DevNum : {device['devnum']}, "
                f"If : {interface.name.rpartition('.')[2]}, Class : {class_number}, "
                f"Driver : {interface['driver']}")
        parent = self.parent_name(device)
        return (f"   |__  {line}" + ("\n  \n" if class_number == 9 else " \n")
                + f"       Vendor:Product ID {device['idVendor']}:{device['idProduct']} "
                f"\n{USB_DEVICES}/{device.name}  /dev/bus/usb/{int(bus):03}/"
                f"{device.number('devnum'):03}\n"
                f"printing interfaces for device device:{device.name} and "
                f"first_interface:{self.of_device[device.name][0].name} \n"
                + (f"parent name :{parent}\n" if parent in self.devices else "")
                + f"parent_portnum:{parent_port}\n************************\n")

    def interface_text(self, interface: Entry) -> str:
        text = (f"\nprint_interfacelist  usbinterface:{USB_DEVICES}/{interface.name}/ and "
                f"class:{interface.number('bInterfaceClass', 16)}")
        device = self.devices.get(interface.name.partition(":")[0])
        if device is None:
            return text
        return (f"{text}\n\t parent vendorid : {device.number('idVendor', 16)}, productid: "
                f"{device.number('idProduct', 16)},parent path: {device.name},manufacturer: "
                f"{device['manufacturer']},product: {device['product']},deviceId:"
                f"{self.device_id(device)} devCategory: {self.category(interface)}")

    def map_text(self, interface: Entry, device: Entry) -> str:
        return (f"\n DeviceId : {self.device_id(device)}, Interface name : {interface.name}, "
                f"class : {interface.number('bInterfaceClass', 16)}, "
                f"Vendor ID : {device.number('idVendor', 16)}, "
                f"Product ID : {device.number('idProduct', 16)}")

    # --- as it must be logged -------------------------------------------------------------------

    def ids_logged(self) -> list[str]:
        return [f"ID {device.number('idVendor', 16)}:{device.number('idProduct', 16)}"
                for _, device in self.in_tree()]

    def map_logged(self) -> list[str]:
        return [f" DeviceId: {self.device_id(device)} Interface name:{interface.name} "
                f"class:{interface.number('bInterfaceClass', 16)} "
                f"Vendor ID:{device.number('idVendor', 16)} "
                f"Product ID:{device.number('idProduct', 16)}"
                for interface, device in sorted(self.owned(),
                                                key=lambda each: self.device_id(each[1]))]


class TreeTest(DumpTestCase):
    rules = DEFAULT_POLICY

    def tree(self) -> Tree:
        return Tree(self.terminal.check_output(READ_ENTRIES))

    def assert_dump(self) -> Tree:
        tree = self.tree()
        log = self.log.mark()
        printed = self.dump("test")
        self.assertEqual(printed, tree.printed())
        self.assert_log(tree, self.log.since(log))
        return tree

    def assert_log(self, tree: Tree, seen: list[LogLine]) -> None:
        self.assertEqual([line for line in seen if line.severity != "I"], [])
        # What the look into each interface says is not the dump's own.
        messages = [line.message for line in seen
                    if not line.message.startswith((" new path of ", "vendor HID"))]
        self.assertEqual(messages[0], "args[0] istest")
        self.assertRegex(messages[1], r"^dump_print_test called \d+$")
        end = ["deleting the list using deleteAllnode", "***Entered empty_list******",
               "print_deviceid_map ", *tree.map_logged()]
        self.assertEqual(messages[2], "print_tree entered")
        self.assertEqual(messages[-len(end):], end)
        walk = messages[3:-len(end)]
        self.assertEqual([message for message in walk if message.startswith("ID ")],
                         tree.ids_logged())
        # One for each hub or root hub with something behind it.
        entered = "print_tree_dev_children entered"
        self.assertEqual(walk.count(entered), sum(map(bool, tree.children.values())))
        self.assertEqual(set(walk), {entered, *tree.ids_logged()} if tree.devices else set())
        vendor_hids = [line.message for line in seen if line.message == "vendor HID device found"]
        self.assertEqual(len(vendor_hids), 2 * sum(
            tree.category(interface) == 8 for interface, _ in tree.owned()))

    def test_bare_terminal_has_root_hubs_alone(self) -> None:
        tree = self.assert_dump()
        self.assertEqual((len(tree.buses), len(tree.interfaces), len(tree.devices)), (8, 8, 0))

    def test_devices_of_all_kinds_on_two_hubs_and_on_several_buses(self) -> None:
        outer = self.attach(HUB)
        inner = self.attach(HUB, outer)
        for device, hub in ((STORAGE, None), (KEYBOARD, outer), (STORAGE, inner), (MOUSE, inner),
                            (NETWORK, inner), (FTDI_SERIAL, outer), (SMARTCARD, None),
                            (SERIAL, None), (VENDOR_HID, None), (COMPOSITE, None),
                            (DISPLAYLINK, None)):
            self.attach(device, hub)
        tree = self.assert_dump()
        # A check of the check: what it has to get right is there.
        self.assertEqual(len(tree.devices), 13)
        self.assertEqual({tree.category(interface) for interface, _ in tree.owned()},
                         {0, 1, 2, 4, 8})
        self.assertEqual(max(name.count(".") for name in tree.devices), 2)
        self.assertEqual(sorted(map(len, tree.children.values()))[-1], 3)
        self.assertIn("17e9:4307", tree.printed())
        self.assertIn("Vendor ID : 6121,", tree.printed())
        # It looks again each time.
        hub = [each for each in self.plugged if each.behind is inner]
        for each in hub:
            self.plugged.remove(each)
            self.terminal.unplug(each)
        self.assertEqual(len(self.assert_dump().devices), 10)

    def test_refused_device_is_shown_without_its_driver(self) -> None:
        self.use_policy(policy("whitelist"))
        composite = self.attach(COMPOSITE)
        state = self.state(composite)
        self.assertEqual(self.client("decide", "--id", str(state.device_id), "--interfaces",
                                     "8,2,10,3").strip(), "refused")
        self.terminal.wait_until_blocked(composite)
        tree = self.assert_dump()
        self.assertEqual([interface["driver"] for interface, _ in tree.owned()], [""] * 4)


if __name__ == "__main__":
    unittest.main()
