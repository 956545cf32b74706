# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The USB devices that can be plugged into the virtual terminal, and what the kernel makes of them.

Two ways lead into the terminal. A QemuDevice is emulated by QEMU behind its xhci controller and can
sit behind hubs. A Gadget is made inside the terminal: dummy_hcd is a host controller whose other
end is a device, built from the kernel's gadget functions with free choice of vendor, product and
classes. To the USB core of the terminal both are real devices: they enumerate, drivers bind to
them, and their interfaces have an `authorized` attribute that works. The kernel can make four HID
functions at a time.

CATALOGUE holds the ready-made devices with what is to be seen of each one in sysfs.
"""

from __future__ import annotations

import dataclasses
import enum
import shlex
from collections.abc import Mapping
from typing import Any


class Effect(enum.Enum):
    """What a bound driver leaves below its interface, the thing a user would miss."""

    NETWORK = "net"           # net/NAME
    SERIAL = "tty"            # tty/NAME
    DISK = "block"            # a SCSI disk
    INPUT = "input"           # a HID device with an input device
    VENDOR_HID = "vendor"     # a HID device without one
    DRIVER = "driver"         # a driver, and nothing that belongs to one of the above
    NONE = "none"             # no driver at all


@dataclasses.dataclass(frozen=True)
class Interface:
    """What is to be expected of one interface when nothing forbids it."""

    interface_class: int
    driver: str
    effect: Effect


@dataclasses.dataclass(frozen=True)
class QemuDevice:
    """A device emulated by QEMU. `backend` is what it needs on the machine's side; one that knows
    USB 3 appears on the controller's other bus unless a hub is in between."""

    driver: str
    properties: Mapping[str, Any] = dataclasses.field(default_factory=dict)
    backend: str = ""
    super_speed: bool = False


@dataclasses.dataclass(frozen=True)
class Function:
    """One function of a gadget, by its name in configfs, with its attributes."""

    kind: str
    attributes: Mapping[str, bytes] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class Gadget:
    """A device made of gadget functions, which become its interfaces in this order."""

    functions: tuple[Function, ...]
    device_class: int = 0

    def plug_script(self, name: str, controller: int, device: Device) -> str:
        """Shell text that makes the gadget and connects it to dummy_hcd's controller."""
        base = f"/sys/kernel/config/usb_gadget/{name}"
        directories = [f"{base}/strings/0x409", f"{base}/configs/c.1/strings/0x409"]
        directories += [f"{base}/functions/{function}" for function in self._names(name)]
        attributes = {
            "idVendor": b"0x%04x" % device.vendor,
            "idProduct": b"0x%04x" % device.product,
            "bDeviceClass": b"0x%02x" % self.device_class,
            "strings/0x409/manufacturer": b"Virtual terminal",
            "strings/0x409/product": device.title.encode(),
            "strings/0x409/serialnumber": name.encode(),
        }
        for function, its_name in zip(self.functions, self._names(name)):
            for attribute, value in function.attributes.items():
                attributes[f"functions/{its_name}/{attribute}"] = value
        lines = ["set -e", _needs_controller(controller), "mkdir -p " + " ".join(directories)]
        if any(function.kind == "mass_storage" for function in self.functions):
            lines.append(f"truncate -s 1M {DISK_IMAGE}")
        lines += [f"printf {shlex.quote(_octal(value))} > {base}/{attribute}"
                  for attribute, value in attributes.items()]
        lines += [f"ln -s {base}/functions/{function} {base}/configs/c.1/"
                  for function in self._names(name)]
        lines.append(f"echo dummy_udc.{controller} > {base}/UDC")
        return "\n".join(lines)

    def unplug_script(self, name: str, controller: int) -> str:
        """Shell text that disconnects the gadget and takes it apart."""
        return "\n".join(["set -e", _needs_controller(controller), self.clean_up_script(name)])

    def clean_up_script(self, name: str) -> str:
        """The same for one that is only half made."""
        base = f"/sys/kernel/config/usb_gadget/{name}"
        links = " ".join(f"{base}/configs/c.1/{function}" for function in self._names(name))
        functions = " ".join(f"{base}/functions/{function}" for function in self._names(name))
        return "\n".join([
            f"echo > {base}/UDC",
            f"rm {links}",
            f"rmdir {base}/configs/c.1/strings/0x409 {base}/configs/c.1 {functions}",
            f"rmdir {base}/strings/0x409 {base}",
        ])

    def _names(self, name: str) -> list[str]:
        return [f"{function.kind}.{name}-{number}"
                for number, function in enumerate(self.functions)]


@dataclasses.dataclass(frozen=True, eq=False)
class Device:
    """A device of the catalogue: how it is made, and what sysfs must show of it. Equal only to
    itself, so that it can be a key."""

    name: str
    title: str
    made_by: QemuDevice | Gadget
    vendor: int
    product: int
    device_class: int
    interfaces: tuple[Interface, ...]

    def with_ids(self, vendor: int, product: int) -> Device:
        """The same gadget under other ids. QEMU's devices have theirs built in."""
        if not isinstance(self.made_by, Gadget):
            raise ValueError(f"{self.name} is no gadget: its ids are fixed")
        return dataclasses.replace(self, vendor=vendor, product=product)


def _needs_controller(number: int) -> str:
    """dummy_hcd brings the kernel down if a gadget comes or goes while it has no driver, which the
    mode "none" takes from it."""
    name = f"dummy_hcd.{number}"
    return (f"[ -e /sys/bus/platform/drivers/dummy_hcd/{name} ] || "
            f"{{ echo '{name} is not in host mode' >&2; exit 1; }}")


def _octal(value: bytes) -> str:
    """For the shell's printf, which takes any byte in this form."""
    return "".join(f"\\{byte:03o}" for byte in value)


DISK_IMAGE = "/run/gadget-disk.img"

# Eight bytes in and out on usage page 0xFF00: what a vendor's own tool talks to. hid-generic binds
# to it but no input device comes of it.
VENDOR_REPORT = bytes.fromhex("0600ff 0901 a101 0902 1500 26ff00 7508 9508 8102 0903 9102 c0")

# The boot keyboard of the HID specification's appendix.
KEYBOARD_REPORT = bytes.fromhex(
    "0501 0906 a101 0507 19e0 29e7 1500 2501 7501 9508 8102 9501 7508 8103 9505 7501 0508 1901"
    "2905 9102 9501 7503 9103 9506 7508 1500 2565 0507 1900 2965 8100 c0")

_VENDOR_HID = Function("hid", {
    "protocol": b"0", "subclass": b"0", "report_length": b"8", "report_desc": VENDOR_REPORT})
_KEYBOARD_HID = Function("hid", {
    "protocol": b"1", "subclass": b"1", "report_length": b"8", "report_desc": KEYBOARD_REPORT})
_STORAGE = Function("mass_storage", {"lun.0/removable": b"1", "lun.0/file": DISK_IMAGE.encode()})
_SERIAL = Function("acm")
# The gadget's own end is a network interface of the same terminal: named apart, so that usb0 is
# the one that the host's driver makes.
_ECM = Function("ecm", {"ifname": b"gadget%d", "host_addr": b"02:00:00:00:00:01",
                        "dev_addr": b"02:00:00:00:00:02"})
_RNDIS = Function("rndis", {"ifname": b"gadget%d", "host_addr": b"02:00:00:00:01:01",
                            "dev_addr": b"02:00:00:00:01:02"})
_PRINTER = Function("printer", {"pnp_string": b"MFG:Virtual;MDL:Printer;CLS:PRINTER;"})

_DISK_INTERFACE = Interface(8, "usb-storage", Effect.DISK)
_ACM_INTERFACES = (Interface(2, "cdc_acm", Effect.SERIAL), Interface(10, "cdc_acm", Effect.DRIVER))
_INPUT_INTERFACE = Interface(3, "usbhid", Effect.INPUT)
_VENDOR_INTERFACE = Interface(3, "usbhid", Effect.VENDOR_HID)
_ECM_INTERFACES = (Interface(2, "cdc_ether", Effect.NETWORK),
                   Interface(10, "cdc_ether", Effect.DRIVER))

STORAGE = Device(
    "storage", "QEMU USB HARDDRIVE", QemuDevice("usb-storage", backend="drive", super_speed=True),
    0x46F4, 0x0001, 0, (_DISK_INTERFACE,))
KEYBOARD = Device(
    "keyboard", "QEMU USB Keyboard", QemuDevice("usb-kbd"),
    0x0627, 0x0001, 0, (_INPUT_INTERFACE,))
MOUSE = Device(
    "mouse", "QEMU USB Mouse", QemuDevice("usb-mouse"),
    0x0627, 0x0001, 0, (_INPUT_INTERFACE,))
TABLET = Device(
    "tablet", "QEMU USB Tablet", QemuDevice("usb-tablet"),
    0x0627, 0x0001, 0, (_INPUT_INTERFACE,))
NETWORK = Device(
    "network", "RNDIS/QEMU USB Network Device", QemuDevice("usb-net", backend="network"),
    0x0525, 0xA4A2, 2, _ECM_INTERFACES)
FTDI_SERIAL = Device(
    "ftdi-serial", "QEMU USB SERIAL", QemuDevice("usb-serial", {"always-plugged": True}, "serial"),
    0x0403, 0x6001, 0, (Interface(255, "ftdi_sio", Effect.DRIVER),))
SMARTCARD = Device(
    "smartcard", "QEMU USB CCID", QemuDevice("usb-ccid"),
    0x08E6, 0x4433, 0, (Interface(11, "", Effect.NONE),))
HUB = Device(
    "hub", "QEMU USB Hub", QemuDevice("usb-hub"),
    0x0409, 0x55AA, 9, (Interface(9, "hub", Effect.DRIVER),))

SERIAL = Device(
    "serial", "Serial port", Gadget((_SERIAL,), 2), 0x1209, 0xAC01, 2, _ACM_INTERFACES)
VENDOR_HID = Device(
    "vendor-hid", "Vendor HID", Gadget((_VENDOR_HID,)), 0x1209, 0xAC02, 0, (_VENDOR_INTERFACE,))
GADGET_KEYBOARD = Device(
    "gadget-keyboard", "Boot keyboard", Gadget((_KEYBOARD_HID,)),
    0x1209, 0xAC03, 0, (_INPUT_INTERFACE,))
GADGET_STORAGE = Device(
    "gadget-storage", "Flash disk", Gadget((_STORAGE,)), 0x1209, 0xAC04, 0, (_DISK_INTERFACE,))
ETHERNET = Device(
    "ethernet", "Ethernet adapter", Gadget((_ECM,), 2), 0x1209, 0xAC05, 2, _ECM_INTERFACES)
RNDIS = Device(
    "rndis", "RNDIS adapter", Gadget((_RNDIS,), 2), 0x1209, 0xAC06, 2,
    (Interface(2, "rndis_host", Effect.NETWORK), Interface(10, "rndis_host", Effect.DRIVER)))
PRINTER = Device(
    "printer", "Printer", Gadget((_PRINTER,)), 0x1209, 0xAC07, 0,
    (Interface(7, "usblp", Effect.DRIVER),))
COMPOSITE = Device(
    "composite", "Disk, serial port and vendor HID",
    Gadget((_STORAGE, _SERIAL, _VENDOR_HID)), 0x1209, 0xAC08, 0,
    (_DISK_INTERFACE, *_ACM_INTERFACES, _VENDOR_INTERFACE))
# A docking station with a display controller of the vendor 0x17E9, as far as its network goes.
DISPLAYLINK = Device(
    "displaylink", "Dock", Gadget((_ECM,)), 0x17E9, 0x4307, 0, _ECM_INTERFACES)

CATALOGUE: dict[str, Device] = {device.name: device for device in (
    STORAGE, KEYBOARD, MOUSE, TABLET, NETWORK, FTDI_SERIAL, SMARTCARD, HUB, SERIAL, VENDOR_HID,
    GADGET_KEYBOARD, GADGET_STORAGE, ETHERNET, RNDIS, PRINTER, COMPOSITE, DISPLAYLINK)}


# --- what the terminal's kernel shows -------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class InterfaceState:
    """One interface as `usb-state` finds it."""

    name: str
    interface_class: int
    sub_class: int
    protocol: int
    authorized: bool
    driver: str
    net: str | None
    tty: str | None
    hid: tuple[str, ...]
    block: str

    @property
    def effect(self) -> Effect:
        if self.net is not None:
            return Effect.NETWORK
        if self.tty is not None:
            return Effect.SERIAL
        if self.block:
            return Effect.DISK
        if self.hid:
            return Effect.VENDOR_HID if "vendor" in self.hid else Effect.INPUT
        return Effect.DRIVER if self.driver else Effect.NONE

    @property
    def product_of_driver(self) -> str:
        """The name of what the driver made, for people: usb0, ttyACM0, sda, input."""
        return self.net or self.tty or self.block or ",".join(self.hid)


@dataclasses.dataclass(frozen=True)
class DeviceState:
    """One device as `usb-state` finds it. The numbers of an unconfigured device are None."""

    sysname: str
    bus: int
    number: int
    vendor: int
    product: int
    device_class: int
    configuration: int | None
    interface_count: int | None
    speed: str
    interfaces: tuple[InterfaceState, ...]

    @property
    def device_id(self) -> int:
        return self.bus * 1000 + self.number

    @property
    def complete(self) -> bool:
        """The device is configured and all its interfaces are there."""
        return self.configuration is not None and self.interface_count == len(self.interfaces)

    @property
    def authorized(self) -> list[bool]:
        return [interface.authorized for interface in self.interfaces]

    def works_as(self, device: Device) -> bool:
        """Every interface is bound to the expected driver, which has made what it makes."""
        return self.complete and len(self.interfaces) == len(device.interfaces) and all(
            (state.interface_class, state.driver, state.effect)
            == (wanted.interface_class, wanted.driver, wanted.effect)
            for state, wanted in zip(self.interfaces, device.interfaces))

    def blocked(self) -> bool:
        """Every interface is there, not authorized, and without driver and all that it made."""
        return self.complete and all(
            not interface.authorized and interface.effect is Effect.NONE
            for interface in self.interfaces)


def _number(text: str, base: int) -> int | None:
    return int(text, base) if text else None


def parse_usb_state(text: str) -> list[DeviceState]:
    """Reads what `usb-state` prints, without what went while it was being read."""
    devices: list[DeviceState] = []
    readable = False
    for line in text.splitlines():
        kind, name, *pairs = line.split()
        fields = dict(pair.split("=", 1) for pair in pairs)
        try:
            if kind == "device":
                readable = False
                devices.append(_device_state(name, fields))
                readable = True
            elif readable:
                interfaces = (*devices[-1].interfaces, _interface_state(name, fields))
                devices[-1] = dataclasses.replace(devices[-1], interfaces=interfaces)
        except ValueError:
            # An attribute reads as empty once its device is gone.
            continue
    return devices


def _device_state(name: str, fields: Mapping[str, str]) -> DeviceState:
    return DeviceState(
        name, int(fields["busnum"]), int(fields["devnum"]), int(fields["idVendor"], 16),
        int(fields["idProduct"], 16), int(fields["bDeviceClass"], 16),
        _number(fields["bConfigurationValue"], 10), _number(fields["bNumInterfaces"], 10),
        fields["speed"], ())


def _interface_state(name: str, fields: Mapping[str, str]) -> InterfaceState:
    return InterfaceState(
        name, int(fields["bInterfaceClass"], 16), int(fields["bInterfaceSubClass"], 16),
        int(fields["bInterfaceProtocol"], 16), fields["authorized"] == "1", fields["driver"],
        fields.get("net"), fields.get("tty"), tuple(filter(None, fields["hid"].split(","))),
        fields["block"])
