# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The verdicts on real devices, in every mode: what the daemon answers and records, and what the
kernel does about it."""

from __future__ import annotations

import dataclasses
import re
import unittest
from collections.abc import Mapping, Sequence

from support import (AUTOMATION, DEFAULT_POLICY, TIMEOUT, DaemonTestCase, Event, Node, Outcome,
                     Process, Screened, Verdict, allowed, class_rule, policy, refused, vendor_rule)
from vm.devices import (COMPOSITE, DISPLAYLINK, FTDI_SERIAL, GADGET_KEYBOARD, GADGET_STORAGE, HUB,
                        KEYBOARD, MOUSE, NETWORK, PRINTER, RNDIS, SERIAL, SMARTCARD, STORAGE,
                        VENDOR_HID, Device, DeviceState, Effect, Function, Gadget)
from vm.terminal import Plugged


def combined(name: str, product: int, *devices: Device) -> Device:
    """One gadget with the interfaces of several, in their order."""
    functions: tuple[Function, ...] = ()
    for device in devices:
        assert isinstance(device.made_by, Gadget)
        functions += device.made_by.functions
    interfaces = tuple(interface for device in devices for interface in device.interfaces)
    return dataclasses.replace(devices[0], name=name, title=name.replace("-", " "),
                               made_by=Gadget(functions), product=product, device_class=0,
                               interfaces=interfaces)


DISK_AND_PRINTER = combined("disk-and-printer", 0xAC09, GADGET_STORAGE, PRINTER)
TWO_DISKS = combined("two-disks", 0xAC0A, GADGET_STORAGE, GADGET_STORAGE)
TWO_HIDS = combined("keyboard-and-vendor-hid", 0xAC0B, GADGET_KEYBOARD, VENDOR_HID)
DISK_AND_KEYBOARD = combined("disk-and-keyboard", 0xAC0C, GADGET_STORAGE, GADGET_KEYBOARD)
TWO_NETWORKS = combined("two-network-adapters", 0xAC0D, RNDIS, DISPLAYLINK)

# The vendors in the rules are decimal.
QEMU_DISK_VENDOR = 18164    # 0x46F4
GADGET_VENDOR = 4617        # 0x1209
DISPLAYLINK_VENDOR = 6121   # 0x17E9
FTDI_VENDOR = 1027          # 0x0403
QEMU_INPUT_VENDOR = 1575    # 0x0627
SERIAL_PRODUCT = 44033      # 0xAC01
VENDOR_HID_PRODUCT = 44034  # 0xAC02
DISK_AND_PRINTER_PRODUCT = 44041  # 0xAC09

BY_DEFAULT = "Enabled by default rule"
NOT_WHITELISTED = "No matching rule found to Whitelist the device"
NOT_BLACKLISTED = "No matching rule found to Blacklist the device"
BY_CLASS = "Match by ClassName, CLASS : "
BY_VENDOR = "Match by VID, VID : "
BY_PRODUCT = "Match by VID_PID combination, VID : "

# One device of every kind; each has its interface classes behind it.
FLEET: tuple[Device, ...] = (
    STORAGE,             # 8
    NETWORK,             # 2, 10
    FTDI_SERIAL,         # 255
    SMARTCARD,           # 11
    KEYBOARD,            # 3, with an input device
    MOUSE,               # 3, with an input device
    SERIAL,              # 2, 10
    VENDOR_HID,          # 3, without one
    PRINTER,             # 7
    COMPOSITE,           # 8, 2, 10, 3
    DISPLAYLINK,         # 2, 10
    DISK_AND_PRINTER,    # 8, 7
)


def all_devices(outcome: Verdict) -> dict[Device, Outcome]:
    """The same verdict on every device, on keyboard and mouse as input devices."""
    return {device: Screened(outcome) if device in (KEYBOARD, MOUSE) else outcome
            for device in FLEET}


WHITELIST_OF_CLASSES = policy(
    "whitelist", class_rule("USB_CLASS_MASS_STORAGE"), class_rule("USB_CLASS_COMM"),
    class_rule("USB_CLASS_PRINTER"), class_rule("AINPUT_SOURCE_KEYBOARD"))
UNDER_WHITELIST_OF_CLASSES: dict[Device, Outcome] = {
    STORAGE: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_MASS_STORAGE "),
    # The class test ends at the first class without a rule, whatever matched before it.
    NETWORK: refused(NOT_WHITELISTED),
    # Restricted classes only: nothing that could match.
    FTDI_SERIAL: refused(NOT_WHITELISTED),
    SMARTCARD: refused(NOT_WHITELISTED),
    KEYBOARD: Screened(allowed(f"Whitelisted: {BY_CLASS}AINPUT_SOURCE_KEYBOARD ")),
    MOUSE: Screened(refused(NOT_WHITELISTED)),
    SERIAL: refused(NOT_WHITELISTED),
    VENDOR_HID: refused(NOT_WHITELISTED),
    PRINTER: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_PRINTER "),
    COMPOSITE: refused(NOT_WHITELISTED),
    DISPLAYLINK: refused(NOT_WHITELISTED),
    DISK_AND_PRINTER: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_MASS_STORAGE USB_CLASS_PRINTER "),
}

WHITELIST_OF_ALL_KINDS = policy(
    "whitelist", class_rule("USB_CLASS_MASS_STORAGE"), class_rule("USB_CLASS_COMM"),
    class_rule("USB_CLASS_CDC_DATA"), class_rule("USB_CLASS_CSCID"),
    class_rule("AINPUT_SOURCE_MOUSE"), vendor_rule(FTDI_VENDOR),
    vendor_rule(QEMU_INPUT_VENDOR, 1),
    vendor_rule(GADGET_VENDOR, VENDOR_HID_PRODUCT, DISK_AND_PRINTER_PRODUCT))
UNDER_WHITELIST_OF_ALL_KINDS: dict[Device, Outcome] = {
    STORAGE: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_MASS_STORAGE "),
    NETWORK: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_COMM USB_CLASS_CDC_DATA "),
    FTDI_SERIAL: allowed(f"Whitelisted: {BY_VENDOR}1027"),
    SMARTCARD: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_CSCID "),
    # Both have vendor and product of a rule; a match by class comes first.
    KEYBOARD: Screened(allowed(f"Whitelisted: {BY_PRODUCT}1575 PID: 1")),
    MOUSE: Screened(allowed(f"Whitelisted: {BY_CLASS}AINPUT_SOURCE_MOUSE ")),
    SERIAL: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_COMM USB_CLASS_CDC_DATA "),
    # Class 3 is restricted, so a vendor HID can only be allowed by its ids.
    VENDOR_HID: allowed(f"Whitelisted: {BY_PRODUCT}4617 PID: 44034"),
    PRINTER: refused(NOT_WHITELISTED),
    COMPOSITE: allowed(
        f"Whitelisted: {BY_CLASS}USB_CLASS_MASS_STORAGE USB_CLASS_COMM USB_CLASS_CDC_DATA "),
    DISPLAYLINK: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_COMM USB_CLASS_CDC_DATA "),
    # Storage has a rule and the printer none: the name that was collected is thrown away.
    DISK_AND_PRINTER: allowed(f"Whitelisted: {BY_PRODUCT}4617 PID: 44041"),
}

WHITELIST_OF_VENDORS = policy(
    "whitelist", vendor_rule(GADGET_VENDOR, 1), vendor_rule(DISPLAYLINK_VENDOR),
    vendor_rule(QEMU_DISK_VENDOR, 1), vendor_rule(QEMU_DISK_VENDOR))
UNDER_WHITELIST_OF_VENDORS: dict[Device, Outcome] = {
    # A rule for the vendor goes before one for the product.
    STORAGE: allowed(f"Whitelisted: {BY_VENDOR}18164"),
    NETWORK: refused(NOT_WHITELISTED),
    FTDI_SERIAL: refused(NOT_WHITELISTED),
    SMARTCARD: refused(NOT_WHITELISTED),
    KEYBOARD: Screened(refused(NOT_WHITELISTED)),
    MOUSE: Screened(refused(NOT_WHITELISTED)),
    # The search for a rule of the whole vendor begins at the vendor's first rule, which names a
    # product that nobody has, and goes on over all larger vendors: it finds the one of 6121.
    SERIAL: allowed(f"Whitelisted: {BY_VENDOR}4617"),
    VENDOR_HID: allowed(f"Whitelisted: {BY_VENDOR}4617"),
    PRINTER: allowed(f"Whitelisted: {BY_VENDOR}4617"),
    COMPOSITE: allowed(f"Whitelisted: {BY_VENDOR}4617"),
    DISPLAYLINK: allowed(f"Whitelisted: {BY_VENDOR}6121"),
    DISK_AND_PRINTER: allowed(f"Whitelisted: {BY_VENDOR}4617"),
}

BLACKLIST = policy(
    "blacklist", class_rule("USB_CLASS_PRINTER"), class_rule("AINPUT_SOURCE_KEYBOARD"),
    vendor_rule(DISPLAYLINK_VENDOR), vendor_rule(QEMU_DISK_VENDOR, 1))
UNDER_BLACKLIST: dict[Device, Outcome] = {
    STORAGE: refused(f"Blacklisted: {BY_PRODUCT}18164 PID: 1"),
    NETWORK: allowed(NOT_BLACKLISTED),
    FTDI_SERIAL: allowed(NOT_BLACKLISTED),
    SMARTCARD: allowed(NOT_BLACKLISTED),
    KEYBOARD: Screened(refused(f"Blacklisted: {BY_CLASS}AINPUT_SOURCE_KEYBOARD ")),
    MOUSE: Screened(allowed(NOT_BLACKLISTED)),
    SERIAL: allowed(NOT_BLACKLISTED),
    VENDOR_HID: allowed(NOT_BLACKLISTED),
    PRINTER: refused(f"Blacklisted: {BY_CLASS}USB_CLASS_PRINTER "),
    COMPOSITE: allowed(NOT_BLACKLISTED),
    DISPLAYLINK: refused(f"Blacklisted: {BY_VENDOR}6121"),
    # The class test ends at the storage interface, so the printer does not count.
    DISK_AND_PRINTER: allowed(NOT_BLACKLISTED),
}


@dataclasses.dataclass(frozen=True)
class Marks:
    """Where the things begin that are to be looked at."""

    agent: int
    log: int
    uevents: int


@dataclasses.dataclass(frozen=True)
class Evidence:
    """What there is to be seen of all devices when everything is over."""

    states: Mapping[str, DeviceState]
    # By type and id.
    records: Mapping[tuple[int, int], Event]
    # Input devices by the USB device they belong to: name and whether it is inhibited.
    inputs: Mapping[str, tuple[str, bool]]
    # Interfaces in the order in which the directory of all USB devices lists them.
    interfaces: Sequence[str]
    # Everything that the devices' drivers made, and what of it is still there.
    made: Mapping[str, set[Node]]
    present: set[Node]
    written: Sequence[str]


class DecisionTest(DaemonTestCase):
    def judge(self, rules: str, outcomes: Mapping[Device, Outcome]) -> dict[Device, Plugged]:
        """Plugs the devices in under the rules and checks all that must come of it."""
        self.use_policy(rules)
        marks = self.marks()
        plugged = dict(zip(outcomes, self.plug(*outcomes)))
        self.check(plugged, outcomes, marks)
        return plugged

    def marks(self) -> Marks:
        return Marks(self.agent.mark(), self.log.mark(), self.terminal.uevent_mark())

    def check(self, plugged: Mapping[Device, Plugged], outcomes: Mapping[Device, Outcome],
              marks: Marks) -> None:
        self.wait_until_settled(plugged, outcomes, marks)
        evidence = self.evidence(plugged, marks)
        for device, outcome in outcomes.items():
            with self.subTest(device.name):
                each = plugged[device]
                event = self.the_verdict(each, marks)
                self.assertEqual(event["deviceId"], evidence.states[each.sysname].device_id)
                if isinstance(outcome, Screened):
                    self.check_screened(each, event, evidence)
                    self.check_input(each, outcome.as_input, evidence, marks)
                else:
                    self.check_judged(each, outcome, event, evidence, marks)

    def wait_until_settled(self, plugged: Mapping[Device, Plugged],
                           outcomes: Mapping[Device, Outcome], marks: Marks) -> None:
        """Waits until the drivers of allowed devices work and those of refused ones are gone."""
        def unsettled() -> list[str]:
            states = self.terminal.usb_state(*(each.sysname for each in plugged.values()))
            found = []
            for device, outcome in outcomes.items():
                state = states[plugged[device].sysname]
                blocked = isinstance(outcome, Verdict) and not outcome.allowed
                if not (state.blocked() if blocked else state.works_as(device)):
                    found.append(f"{device.name} is {state}")
            return found

        # The driver's link goes before what the driver made: only the daemon's answer says that
        # its write, and with it the kernel's work, is done.
        for each in plugged.values():
            self.agent.wait_for(marks.agent, event="verdict", kind="usb", sysname=each.sysname)
        self.terminal.wait_until(lambda: not unsettled(), TIMEOUT, "all devices to work or to be "
                                 "blocked as the rules say", unsettled)
        screened = [plugged[device] for device, outcome in outcomes.items()
                    if isinstance(outcome, Screened)]
        for each in screened:
            (name,) = self.inputs(each)
            self.agent.wait_for(marks.agent, event="verdict", kind="input", sysname=name)

    def evidence(self, plugged: Mapping[Device, Plugged], marks: Marks) -> Evidence:
        sysnames = [each.sysname for each in plugged.values()]
        inputs = {}
        for line in self.terminal.check_output(
                "for input in /sys/bus/usb/devices/*:*/0003:*/input/input*; do "
                '[ ! -e "$input" ] || echo "$input $(cat "$input/inhibited")"; done').splitlines():
            path, inhibited = line.split()
            inputs[path.split("/")[5].partition(":")[0]] = (
                path.rpartition("/")[2], inhibited == "1")
        made = {each.sysname: self.nodes(each, marks.uevents) for each in plugged.values()}
        found = self.terminal.check_output(
            "find /sys/bus/usb/devices/ -maxdepth 1 -name '*:*'").split()
        return Evidence(
            states=self.terminal.usb_state(*sysnames),
            records={(record["deviceType"], record["deviceId"]): record
                     for record in self.records()},
            inputs=inputs,
            interfaces=[path.rpartition("/")[2] for path in found],
            made=made,
            present=self.present(set().union(*made.values())),
            written=self.log.messages(marks.log, "^update_status path is :"))

    def the_verdict(self, plugged: Plugged, marks: Marks) -> Event:
        """The one verdict on a USB device: nobody is asked twice."""
        (event,) = self.agent.events(marks.agent, event="verdict", kind="usb",
                                     sysname=plugged.sysname)
        return event

    def check_judged(self, plugged: Plugged, verdict: Verdict, event: Event, evidence: Evidence,
                     marks: Marks) -> None:
        self.assertEqual((event["allowed"], event["reason"]), verdict)
        state = evidence.states[plugged.sysname]
        self.assertEqual(evidence.records.get((0, state.device_id)), {
            "deviceName": plugged.device.title, "deviceId": state.device_id,
            "deviceClass": plugged.device.device_class,
            "interfaceClasses": [each.interface_class for each in plugged.device.interfaces],
            "vendorId": plugged.device.vendor, "productId": plugged.device.product,
            "status": int(verdict.allowed), "deviceType": 0, "reason": verdict.reason,
            **self.category(plugged, evidence, marks)})
        made = evidence.made[plugged.sysname]
        self.assertEqual(made & evidence.present, made if verdict.allowed else set())
        self.assertEqual(set(state.authorized), {verdict.allowed})
        refused_interfaces = [] if verdict.allowed else [each.name for each in state.interfaces]
        self.assertEqual(self.written_to(plugged, evidence), refused_interfaces)

    def check_screened(self, plugged: Plugged, event: Event, evidence: Evidence) -> None:
        """Refused without a record, and left alone."""
        self.assertEqual((event["allowed"], event["reason"]), (False, ""))
        state = evidence.states[plugged.sysname]
        self.assertNotIn((0, state.device_id), evidence.records)
        self.assertEqual(set(state.authorized), {True})
        self.assertEqual(self.written_to(plugged, evidence), [])

    def check_input(self, plugged: Plugged, verdict: Verdict, evidence: Evidence,
                    marks: Marks) -> None:
        name, inhibited = evidence.inputs[plugged.sysname]
        (event,) = self.agent.events(marks.agent, event="verdict", kind="input", sysname=name)
        self.assertEqual((event["allowed"], event["reason"], event["inhibited"]),
                         (*verdict, not verdict.allowed))
        self.assertEqual(inhibited, not verdict.allowed)
        record = evidence.records[1, int(name.removeprefix("input"))]
        self.assertEqual(
            (record["status"], record["reason"], record["category"], record["categoryPath"],
             record["vendorId"], record["productId"], record["interfaceClasses"]),
            (int(verdict.allowed), verdict.reason, 0, "", plugged.device.vendor,
             plugged.device.product, []))

    def written_to(self, plugged: Plugged, evidence: Evidence) -> list[str]:
        """The device's interfaces to whose `authorized` the daemon has written."""
        pattern = re.compile(
            rf"update_status path is :/sys/bus/usb/devices/({plugged.sysname}:.*)/authorized")
        return sorted(match[1] for match in map(pattern.fullmatch, evidence.written) if match)

    def category(self, plugged: Plugged, evidence: Evidence, marks: Marks) -> dict[str, object]:
        """Category and path that the record must have by what the kernel has made of the device,
        though a refusal has taken it away since."""
        total, path = 0, ""
        for interface in evidence.interfaces:
            if interface.partition(":")[0] == plugged.sysname:
                category, its_path = self.interface_category(plugged, interface, marks)
                total += category
                path += "" if its_path in path else f"{its_path};"
        return {"category": total, "categoryPath": path}

    def interface_category(self, plugged: Plugged, name: str, marks: Marks) -> tuple[int, str]:
        interface = plugged.device.interfaces[int(name.rpartition(".")[2])]
        if interface.interface_class == 8:
            return 4, "sdcard"
        if interface.effect in (Effect.NETWORK, Effect.SERIAL):
            made = self.terminal.wait_until(
                lambda: self.last_made_below(name, interface.effect.value, marks), 5,
                f"a uevent from {name}")
            return (1 if interface.effect is Effect.NETWORK else 2), made
        return (8 if interface.effect is Effect.VENDOR_HID else 0), "empty"

    def last_made_below(self, interface: str, subsystem: str, marks: Marks) -> str:
        """The last name that the kernel has given to what it added below an interface."""
        for event in reversed(self.terminal.uevents_since(marks.uevents)):
            directory, _, name = event.get("DEVPATH", "").rpartition("/")
            if event.get("ACTION") == "add" and directory.endswith(f"/{interface}/{subsystem}"):
                return name
        return ""

    def test_default_mode_allows_everything_and_an_empty_whitelist_takes_it_away_again(
            self) -> None:
        before = self.terminal.uevent_mark()
        plugged = self.judge(DEFAULT_POLICY, all_devices(allowed(BY_DEFAULT)))
        serial = self.terminal.wait_until_works(plugged[SERIAL]).interfaces[0].tty
        holder = Process(self.terminal, ["sh", "-c", f"echo open; exec sleep 600 < /dev/{serial}"])
        self.addCleanup(holder.kill)
        self.assertEqual(holder.next_line(), "open")

        # What is to go was made before this moment.
        marks = dataclasses.replace(self.marks(), uevents=before)
        self.use_policy(policy("whitelist"))
        for each in plugged.values():
            self.agent.wait_for(marks.agent, event="verdict", kind="usb", sysname=each.sysname)
        self.check(plugged, all_devices(refused(NOT_WHITELISTED)), marks)

    def test_whitelist_of_classes(self) -> None:
        self.judge(WHITELIST_OF_CLASSES, UNDER_WHITELIST_OF_CLASSES)

    def test_whitelist_of_classes_vendors_and_products(self) -> None:
        self.judge(WHITELIST_OF_ALL_KINDS, UNDER_WHITELIST_OF_ALL_KINDS)

    def test_whitelist_of_vendors(self) -> None:
        self.judge(WHITELIST_OF_VENDORS, UNDER_WHITELIST_OF_VENDORS)

    def test_blacklist(self) -> None:
        self.judge(BLACKLIST, UNDER_BLACKLIST)

    def test_class_of_two_interfaces_is_named_once(self) -> None:
        self.judge(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")),
                   {TWO_DISKS: allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_MASS_STORAGE ")})

    def test_keyboard_beside_a_vendor_hid_is_judged_as_usb_and_as_input(self) -> None:
        self.use_policy(policy("blacklist", class_rule("AINPUT_SOURCE_KEYBOARD")))
        marks = self.marks()
        (plugged,) = self.plug(TWO_HIDS)
        self.terminal.wait_until_works(plugged)
        evidence = self.evidence({TWO_HIDS: plugged}, marks)
        self.check_judged(plugged, allowed(NOT_BLACKLISTED), self.the_verdict(plugged, marks),
                          evidence, marks)
        self.assertEqual(evidence.records[0, self.state(plugged).device_id]["category"], 8)
        self.check_input(plugged, refused(f"Blacklisted: {BY_CLASS}AINPUT_SOURCE_KEYBOARD "),
                         evidence, marks)

    def test_refused_disk_takes_the_keyboard_in_the_same_device_with_it(self) -> None:
        plugged = self.judge(
            policy("blacklist", class_rule("USB_CLASS_MASS_STORAGE")),
            {DISK_AND_KEYBOARD: refused(f"Blacklisted: {BY_CLASS}USB_CLASS_MASS_STORAGE ")})
        self.assertEqual(self.inputs(plugged[DISK_AND_KEYBOARD]), [])

    def test_categories_of_two_interfaces_of_a_kind_add_up(self) -> None:
        self.use_policy(DEFAULT_POLICY)
        (plugged,) = self.plug(TWO_NETWORKS)
        self.terminal.wait_until_works(plugged)
        names = [each.net for each in self.state(plugged).interfaces if each.net is not None]
        self.assertEqual(len(names), 2)
        (record,) = self.records()
        self.assertEqual(record["category"], 2)
        self.assertEqual(sorted(record["categoryPath"].split(";")), sorted(["", "empty", *names]))

    def test_automation_property_allows_what_the_rules_refuse_and_records_nothing(self) -> None:
        self.use_policy(policy("whitelist"))
        self.set_read_only_property(AUTOMATION, "1")
        self.addCleanup(self.set_read_only_property, AUTOMATION, None)
        marks = self.marks()
        plugged = self.plug(STORAGE, VENDOR_HID, KEYBOARD)
        for each in plugged:
            with self.subTest(each.device.name):
                state = self.terminal.wait_until_works(each)
                verdict = self.the_verdict(each, marks)
                self.assertEqual((verdict["allowed"], verdict["reason"]), (True, ""))
                self.assertEqual(set(state.authorized), {True})
        (name,) = self.inputs(plugged[-1])
        self.agent.wait_for(marks.agent, event="verdict", kind="input", sysname=name, allowed=True,
                            reason="", inhibited=False)
        self.assertEqual(self.records(), [])
        about_devices = self.log.messages(marks.log, "(?i)device|authorized|class|map")
        self.assertEqual([message for message in about_devices if "getDeviceList" not in message],
                         ["isDeviceAllowed::Automation flag set, return"] * 4)

    def verdicts(self, rules: str) -> tuple[Verdict, ...]:
        """On a disk, a vendor HID and a keyboard's input device."""
        self.use_policy(rules)
        mark = self.agent.mark()
        plugged = self.plug(STORAGE, VENDOR_HID, KEYBOARD)
        (name,) = self.inputs(plugged[-1])
        events = [self.agent.wait_for(mark, event="verdict", kind="usb", sysname=each.sysname)
                  for each in plugged[:-1]]
        events.append(self.agent.wait_for(mark, event="verdict", kind="input", sysname=name))
        for each, event in zip(plugged, events):
            if not event["allowed"] and event["kind"] == "usb":
                self.terminal.wait_until_blocked(each)
            else:
                self.terminal.wait_until_works(each)
        self.unplug(*plugged)
        return tuple(Verdict(event["allowed"], event["reason"]) for event in events)

    def test_any_other_mode_is_a_whitelist(self) -> None:
        for mode in ("Whitelist", "Blacklist", "default ", ""):
            with self.subTest(mode):
                self.assertEqual(
                    self.verdicts(policy(mode, class_rule("USB_CLASS_MASS_STORAGE"))),
                    (refused(NOT_WHITELISTED),) * 3)

    def test_rules_before_a_bad_one_are_in_force(self) -> None:
        rules = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"), "<bad/>",
                       vendor_rule(GADGET_VENDOR), class_rule("AINPUT_SOURCE_KEYBOARD"))
        self.assertEqual(
            self.verdicts(rules),
            (allowed(f"Whitelisted: {BY_CLASS}USB_CLASS_MASS_STORAGE "),
             refused(NOT_WHITELISTED), refused(NOT_WHITELISTED)))

    def test_file_that_is_no_xml_leaves_the_mode_of_the_start_which_allows(self) -> None:
        self.assertEqual(self.verdicts("<usbconfig mode='whitelist'>"),
                         (allowed(BY_DEFAULT),) * 3)

    def test_hubs_are_never_asked_about_and_devices_behind_two_of_them_are_judged(self) -> None:
        self.use_policy(policy("whitelist", class_rule("USB_CLASS_CSCID")))
        agent, log = self.agent.mark(), self.log.mark()
        (outer,) = self.plug(HUB)
        (inner,) = self.plug(HUB, behind=outer)
        disk, keyboard, card_reader = self.plug(STORAGE, KEYBOARD, SMARTCARD, behind=inner)
        self.assertRegex(disk.sysname, r"^\d+-\d+\.\d+\.\d+$")
        self.terminal.wait_until_blocked(disk)
        self.terminal.wait_until_works(keyboard)
        self.terminal.wait_until_works(card_reader)
        (name,) = self.inputs(keyboard)
        self.agent.wait_for(agent, event="verdict", kind="input", sysname=name, allowed=False,
                            inhibited=True)

        for hub in (outer, inner):
            state = self.terminal.wait_until_works(hub)
            self.assertEqual(self.agent.events(agent, sysname=hub.sysname), [])
            self.assertEqual(self.log.messages(log, f"DeviceId:{state.device_id},"), [])
        records = {(record["deviceType"], record["deviceId"]): record["reason"]
                   for record in self.records()}
        self.assertEqual(records, {
            (0, self.state(disk).device_id): NOT_WHITELISTED,
            (0, self.state(card_reader).device_id): f"Whitelisted: {BY_CLASS}USB_CLASS_CSCID ",
            (1, int(name.removeprefix("input"))): NOT_WHITELISTED})

    def test_everything_behind_a_hub_goes_with_it(self) -> None:
        self.use_policy(DEFAULT_POLICY)
        (outer,) = self.plug(HUB)
        (inner,) = self.plug(HUB, behind=outer)
        below = self.plug(STORAGE, SMARTCARD, behind=inner)
        self.assertEqual(len(self.records()), 2)
        mark = self.agent.mark()
        self.terminal.unplug(outer)
        self.plugged.clear()
        for each in below:
            self.agent.wait_for(mark, event="removed", sysname=each.sysname)
        self.assertEqual(self.records(), [])


if __name__ == "__main__":
    unittest.main()
