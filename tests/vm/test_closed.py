# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The window in which a refused device works, and the agent that closes it: kus-hotplug --closed
lets no driver near a device before the daemon has allowed it."""

from __future__ import annotations

import dataclasses
import statistics
import unittest
from collections.abc import Sequence

from support import (DEFAULT_POLICY, NODE_SUBSYSTEMS, TIMEOUT, DaemonTestCase, Verdict, allowed,
                     class_rule, figure, policy, refused, vendor_rule)
from vm.devices import (COMPOSITE, ETHERNET, FTDI_SERIAL, GADGET_KEYBOARD, GADGET_STORAGE, HUB,
                        KEYBOARD, MOUSE, NETWORK, PRINTER, SERIAL, STORAGE, VENDOR_HID, Device,
                        Gadget)
from vm.terminal import HSUSB, SSUSB, Plugged, TerminalError

NOT_WHITELISTED = refused("No matching rule found to Whitelist the device")
BY_DEFAULT = allowed("Enabled by default rule")
NOTHING = policy("whitelist")
ROOT_HUB_DEFAULTS = "/sys/bus/usb/devices/usb*/interface_authorized_default"
ROOT_HUBS = 8

PLUGS = 100
# Storage, network and serial, from QEMU and from gadgets.
REFUSED = (STORAGE, NETWORK, FTDI_SERIAL, GADGET_STORAGE, ETHERNET, SERIAL)

# What makes a device one for its user.
USABLE = {STORAGE: "block", ETHERNET: "net", SERIAL: "tty"}

assert isinstance(GADGET_STORAGE.made_by, Gadget)
DISK_AS_HUB = dataclasses.replace(
    GADGET_STORAGE, device_class=9,
    made_by=dataclasses.replace(GADGET_STORAGE.made_by, device_class=9))

Uevent = dict[str, str]


def seconds(event: Uevent) -> float:
    return float(event["MONOTONIC"])


def name(event: Uevent) -> str:
    return event["DEVPATH"].rpartition("/")[2]


def percentiles(values: Sequence[float]) -> str:
    ordered = sorted(values)
    p99 = ordered[-(len(ordered) // 100) - 1] if len(ordered) >= 100 else ordered[-1]
    return (f"p50 {statistics.median(ordered) * 1000:.0f} ms, p99 {p99 * 1000:.0f} ms, "
            f"{len(ordered)} plugs")


class WindowTestCase(DaemonTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.use_policy(DEFAULT_POLICY)

    def restart_agent(self, command: str) -> None:
        """Runs a command that has the agent started anew, and waits until it is ready."""
        mark = self.agent.mark()
        self.terminal.check_output(command)
        self.agent.wait_for(mark, event="ready")

    # --- uevents --------------------------------------------------------------------------------

    def of_interfaces(self, plugged: Plugged, since: int, action: str) -> list[Uevent]:
        return [event for event in self.terminal.uevents_since(since)
                if event.get("DEVTYPE") == "usb_interface" and event["ACTION"] == action
                and name(event).startswith(f"{plugged.sysname}:")]

    def made_by_drivers(self, plugged: Plugged, since: int) -> list[Uevent]:
        """The comings of what drivers make for their users below a device."""
        return [event for event in self.terminal.uevents_since(since)
                if event["SUBSYSTEM"] in NODE_SUBSYSTEMS and event["ACTION"] == "add"
                and f"/{plugged.sysname}:" in event["DEVPATH"]]

    def wait_for_interfaces(self, plugged: Plugged, since: int, action: str,
                            count: int | None = None) -> list[Uevent]:
        wanted = len(plugged.device.interfaces) if count is None else count

        def found() -> list[Uevent]:
            events = self.of_interfaces(plugged, since, action)
            return events if len(events) >= wanted else []
        return self.terminal.wait_until(found, TIMEOUT, f"{wanted} times {action} of {plugged}")

    def assert_never_bound(self, plugged: Plugged, since: int) -> None:
        """The device has come with all its interfaces, and no driver has had one. To be asked when
        something that came later is known."""
        self.assertGreaterEqual(len(self.of_interfaces(plugged, since, "add")),
                                len(plugged.device.interfaces))
        self.assertEqual(self.of_interfaces(plugged, since, "bind"), [])
        self.assertEqual(self.made_by_drivers(plugged, since), [])

    def verdict_on(self, plugged: Plugged, mark: int) -> Verdict:
        event = self.agent.wait_for(mark, event="verdict", kind="usb", sysname=plugged.sysname)
        return Verdict(event["allowed"], event["reason"])

    def usable_after(self, device: Device) -> float:
        """Seconds from the device's coming to that of the disk, network interface or port."""
        since = self.terminal.uevent_mark()
        (plugged,) = self.plug(device)
        made = self.terminal.wait_until(
            lambda: [event for event in self.made_by_drivers(plugged, since)
                     if event["SUBSYSTEM"] == USABLE[device]],
            TIMEOUT, f"what {plugged} is for")
        (added,) = [event for event in self.terminal.uevents_since(since)
                    if event.get("DEVTYPE") == "usb_device" and event["ACTION"] == "add"
                    and name(event) == plugged.sysname]
        self.unplug(plugged)
        return seconds(made[0]) - seconds(added)

    def tell_time_to_usable(self, mode: str) -> None:
        for device in USABLE:
            times = [self.usable_after(device) for _ in range(3)]
            figure(f"from {device.name} plugged in to usable, {mode}",
                   f"{statistics.median(times) * 1000:.0f} ms (median of {len(times)})")


class OpenWindowTest(WindowTestCase):
    """Without --closed."""

    def test_refused_device_works_until_the_daemon_has_blocked_it(self) -> None:
        self.use_policy(NOTHING)
        windows = []
        for number in range(PLUGS // 2):
            since = self.terminal.uevent_mark()
            fleet = self.plug(STORAGE, (GADGET_STORAGE, ETHERNET, SERIAL)[number % 3])
            for plugged in fleet:
                unbound = self.wait_for_interfaces(plugged, since, "unbind")
                bound = self.of_interfaces(plugged, since, "bind")
                self.assertEqual(len(bound), len(plugged.device.interfaces))
                windows.append(max(map(seconds, unbound)) - min(map(seconds, bound)))
            self.unplug(*fleet)
        self.assertGreater(min(windows), 0)
        figure("refused device, two plugged in at once, from its first bound driver to its last "
               "unbound one", percentiles(windows))

    def test_time_to_usable(self) -> None:
        self.tell_time_to_usable("open")


class ClosedTestCase(WindowTestCase):
    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        cls.switch("on")
        cls.addClassCleanup(cls.switch, "off")

    @classmethod
    def switch(cls, word: str) -> None:
        # Behind a command the log is here up to now, also the part that a new reader finds.
        cls.terminal.check_output("closed")
        mark = cls.agent.mark()
        cls.terminal.check_output(["closed", word])
        cls.agent.wait_for(mark, event="ready")

    def setUp(self) -> None:
        super().setUp()
        self.problems = self.agent.mark()
        self.addCleanup(self.assert_no_problem)

    def assert_no_problem(self) -> None:
        self.assertEqual(self.agent.events(self.problems, event="problem"), [])

    def assert_root_hubs_closed(self) -> None:
        self.assertEqual(self.terminal.check_output(f"cat {ROOT_HUB_DEFAULTS}").split(),
                         ["0"] * ROOT_HUBS)

    def relocate(self, *plugged: Plugged) -> None:
        for each in plugged:
            self.terminal.locate(each)


class RefusedTest(ClosedTestCase):
    def test_no_driver_ever_binds(self) -> None:
        self.use_policy(NOTHING)
        self.assert_root_hubs_closed()
        for _ in range(-(-PLUGS // len(REFUSED))):
            since, mark = self.terminal.uevent_mark(), self.agent.mark()
            fleet = self.plug(*REFUSED)
            for plugged in fleet:
                self.assertEqual(self.verdict_on(plugged, mark), NOT_WHITELISTED)
            self.unplug(*fleet)
            for plugged in fleet:
                self.wait_for_interfaces(plugged, since, "remove")
                self.assert_never_bound(plugged, since)

    def test_refused_behind_nested_hubs(self) -> None:
        self.use_policy(NOTHING)
        outer = self.plug(HUB)[0]
        inner = self.plug(HUB, behind=outer)[0]
        since = self.terminal.uevent_mark()
        fleet = self.plug(STORAGE, NETWORK, FTDI_SERIAL, behind=inner)
        for plugged in fleet:
            self.terminal.wait_until_blocked(plugged)
        self.unplug(*fleet)
        for plugged in fleet:
            self.wait_for_interfaces(plugged, since, "remove")
            self.assert_never_bound(plugged, since)


class AllowedTest(ClosedTestCase):
    def test_devices_work_and_the_composite_too(self) -> None:
        since = self.terminal.uevent_mark()
        fleet = self.plug(STORAGE, NETWORK, FTDI_SERIAL, PRINTER, COMPOSITE, SERIAL, ETHERNET)
        for plugged in fleet:
            with self.subTest(plugged.device.name):
                state = self.terminal.wait_until_works(plugged)
                self.assertEqual(state.authorized, [True] * len(plugged.device.interfaces))
                # One time each: nothing was bound, taken away, and bound again.
                self.assertEqual(len(self.of_interfaces(plugged, since, "bind")),
                                 len(plugged.device.interfaces))
        # What a driver makes is not there when the record is made; a disk is one by its class.
        records = {record["deviceName"]: (record["category"], record["categoryPath"])
                   for record in self.records()}
        self.assertEqual(records[ETHERNET.title], (0, "empty;"))
        self.assertEqual(records[SERIAL.title], (0, "empty;"))
        self.assertEqual(records[STORAGE.title], (4, "sdcard;"))

    def test_only_what_the_rules_allow_works(self) -> None:
        self.use_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")))
        since, mark = self.terminal.uevent_mark(), self.agent.mark()
        disk, composite, other = self.plug(STORAGE, COMPOSITE, SERIAL)
        self.terminal.wait_until_works(disk)
        for plugged in (composite, other):
            self.assertEqual(self.verdict_on(plugged, mark), NOT_WHITELISTED)
            self.terminal.wait_until_blocked(plugged)
        self.unplug(composite, other)
        for plugged in (composite, other):
            self.wait_for_interfaces(plugged, since, "remove")
            self.assert_never_bound(plugged, since)

    def test_devices_behind_nested_hubs_work(self) -> None:
        mark = self.agent.mark()
        outer = self.plug(HUB)[0]
        inner = self.plug(HUB, behind=outer)[0]
        for plugged in self.plug(STORAGE, KEYBOARD, FTDI_SERIAL, behind=inner):
            self.terminal.wait_until_works(plugged)
        asked = {event["sysname"] for event in self.agent.events(mark, event="verdict")}
        self.assertTrue(asked.isdisjoint({outer.sysname, inner.sysname}))

    def test_disk_that_calls_itself_a_hub_gets_no_driver(self) -> None:
        """Hubs are not asked about; this one would be missed by the daemon in the other mode."""
        since = self.terminal.uevent_mark()
        impostor = self._connect(DISK_AS_HUB, None)
        self.terminal.wait_for_device(impostor)
        # The agent takes one event after the other: it has seen the impostor's.
        (disk,) = self.plug(STORAGE)
        self.terminal.wait_until_works(disk)
        self.assertTrue(self.state(impostor).blocked())
        self.assert_never_bound(impostor, since)

    def test_new_configuration_is_asked_about_and_works(self) -> None:
        (disk,) = self.plug(STORAGE)
        self.terminal.wait_until_works(disk)
        directory = f"/sys/bus/usb/devices/{disk.sysname}"
        for attribute in ("bConfigurationValue", "authorized"):
            with self.subTest(attribute):
                mark = self.agent.mark()
                self.terminal.check_output(
                    f"echo 0 > {directory}/{attribute}; echo 1 > {directory}/{attribute}")
                self.assertEqual(self.verdict_on(disk, mark), BY_DEFAULT)
                self.terminal.wait_until_works(disk)

    def test_time_to_usable(self) -> None:
        self.tell_time_to_usable("closed")


class HidTest(ClosedTestCase):
    """Devices of HID interfaces alone are opened for the question."""

    def test_keyboards_and_mice_are_left_to_the_input_side(self) -> None:
        self.use_policy(policy("whitelist", class_rule("AINPUT_SOURCE_MOUSE")))
        mark = self.agent.mark()
        keyboard, mouse, other = self.plug(KEYBOARD, MOUSE, GADGET_KEYBOARD)
        for plugged, may in ((keyboard, False), (mouse, True), (other, False)):
            self.assertEqual(self.verdict_on(plugged, mark), refused(""))
            self.terminal.wait_until_works(plugged)
            (input_name,) = self.inputs(plugged)
            self.agent.wait_for(mark, event="verdict", kind="input", sysname=input_name,
                                allowed=may, inhibited=not may)
            self.assertEqual(self.inhibited(input_name), not may)

    def test_refused_vendor_hid_is_closed_again(self) -> None:
        self.use_policy(NOTHING)
        since, mark = self.terminal.uevent_mark(), self.agent.mark()
        (plugged,) = self.plug(VENDOR_HID)
        self.assertEqual(self.verdict_on(plugged, mark), NOT_WHITELISTED)
        self.terminal.wait_until_blocked(plugged)
        bound = self.of_interfaces(plugged, since, "bind")
        unbound = self.wait_for_interfaces(plugged, since, "unbind")
        self.assertEqual([event["DRIVER"] for event in bound], ["usbhid"])
        figure("refused vendor HID, open for the question",
               f"{(seconds(unbound[0]) - seconds(bound[0])) * 1000:.0f} ms")

    def test_allowed_vendor_hid_works(self) -> None:
        self.use_policy(policy("whitelist", vendor_rule(VENDOR_HID.vendor)))
        (plugged,) = self.plug(VENDOR_HID)
        self.terminal.wait_until_works(plugged)

    def test_driver_that_goes_by_ids_does_not_get_what_calls_itself_hid(self) -> None:
        """The serial port's driver looks at nothing but the ids."""
        disguised = VENDOR_HID.with_ids(FTDI_SERIAL.vendor, FTDI_SERIAL.product)
        for text in (NOTHING, DEFAULT_POLICY):
            self.use_policy(text)
            since = self.terminal.uevent_mark()
            (plugged,) = self.plug(disguised)
            self.unplug(plugged)
            self.wait_for_interfaces(plugged, since, "remove")
            self.assertEqual([event["DRIVER"]
                              for event in self.of_interfaces(plugged, since, "bind")], ["usbhid"])


class NewRootHubsTest(ClosedTestCase):
    def head_start(self, since: int, *plugged: Plugged) -> float:
        """Seconds from a root hub's readiness to the first interface on its bus, at least."""
        events = self.terminal.uevents_since(since)
        times = []
        for each in plugged:
            hub = f"usb{each.sysname.partition('-')[0]}"
            came = max(seconds(event) for event in events
                       if event["ACTION"] == "bind" and name(event) == hub)
            times.append(min(seconds(event) for event in self.of_interfaces(each, since, "add")
                             if seconds(event) > came) - came)
        return min(times)

    def test_rules_that_change_live(self) -> None:
        self.use_policy(NOTHING)
        since = self.terminal.uevent_mark()
        disk, keyboard, serial = self.plug(STORAGE, KEYBOARD, SERIAL)
        self.terminal.wait_until_blocked(disk)
        mark = self.agent.mark()
        self.put_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"),
                               class_rule("AINPUT_SOURCE_KEYBOARD")))
        for each in (disk, keyboard, serial):
            self.agent.wait_for(mark, event="removed", kind="usb", sysname=each.sysname)
        for each in (disk, keyboard, serial):
            self.wait_until_back(each)
            self.agent.wait_for(mark, event="verdict", kind="usb", sysname=each.sysname)
        self.terminal.wait_until_works(disk)
        self.terminal.wait_until_works(keyboard)
        (input_name,) = self.inputs(keyboard)
        self.agent.wait_for(mark, event="verdict", kind="input", sysname=input_name, allowed=True)
        self.assert_root_hubs_closed()
        self.unplug(serial)
        self.wait_for_interfaces(serial, since, "remove", 2 * len(SERIAL.interfaces))
        self.assert_never_bound(serial, since)

    def wait_until_back(self, plugged: Plugged) -> None:
        def back() -> bool:
            try:
                self.terminal.locate(plugged)
            except TerminalError:
                # Its controller is still off.
                return False
            return plugged.state() is not None
        self.terminal.wait_until(back, TIMEOUT, f"{plugged} to be back")

    def test_refused_device_gets_no_driver_when_its_controller_comes_back(self) -> None:
        self.use_policy(NOTHING)
        since = self.terminal.uevent_mark()
        fleet = disk, network = self.plug(STORAGE, ETHERNET)
        starts = []
        rounds = 4
        for _ in range(rounds):
            for node in (SSUSB, HSUSB):
                self.terminal.set_mode(node, "none")
            mark, reset = self.agent.mark(), self.terminal.uevent_mark()
            for node in (SSUSB, HSUSB):
                self.terminal.set_mode(node, "host")
            self.relocate(*fleet)
            for plugged in fleet:
                self.assertEqual(self.verdict_on(plugged, mark), NOT_WHITELISTED)
            starts.append(self.head_start(reset, *fleet))
        self.assert_root_hubs_closed()
        self.unplug(*fleet)
        for plugged in fleet:
            self.wait_for_interfaces(plugged, since, "remove",
                                     (rounds + 1) * len(plugged.device.interfaces))
            self.assert_never_bound(plugged, since)
        figure("from a new root hub that is ready to the first interface on its bus, at least",
               f"{min(starts) * 1000:.0f} ms ({rounds} resets)")

    def test_device_that_was_quicker_than_the_agent_is_closed(self) -> None:
        self.use_policy(NOTHING)
        (disk,) = self.plug(STORAGE)
        pid = self.terminal.status("kus-hotplug").pid
        self.terminal.check_output(["kill", "-STOP", str(pid)])
        for mode in ("none", "host"):
            self.terminal.set_mode(SSUSB, mode)
        self.relocate(disk)
        self.terminal.wait_until_works(disk)
        mark = self.agent.mark()
        self.terminal.check_output(["kill", "-CONT", str(pid)])
        self.assertEqual(self.verdict_on(disk, mark), NOT_WHITELISTED)
        self.terminal.wait_until_blocked(disk)
        self.assert_root_hubs_closed()


class EndsTest(ClosedTestCase):
    def stays_closed(self, plugged: Plugged, since: int) -> None:
        """The device is configured, and everything after that has told nothing of a driver."""
        self.terminal.wait_for_device(plugged)
        self.wait_for_interfaces(plugged, since, "add")
        self.terminal.wait_until(
            lambda: [event for event in self.terminal.uevents_since(since)
                     if event["ACTION"] == "bind" and name(event) == plugged.sysname],
            TIMEOUT, f"{plugged} to be configured")
        self.assert_never_bound(plugged, since)
        self.assertTrue(self.state(plugged).blocked())

    def connect(self, *devices: Device, behind: Plugged | None = None) -> list[Plugged]:
        """Plugs devices in without an agent that could judge them."""
        return [self._connect(device, behind) for device in devices]

    def test_what_is_closed_stays_closed_without_the_agent(self) -> None:
        (disk,) = self.plug(GADGET_STORAGE)
        self.terminal.wait_until_works(disk)
        self.terminal.stop("kus-hotplug")
        self.assert_root_hubs_closed()
        since = self.terminal.uevent_mark()
        keyboard, serial = self.connect(KEYBOARD, SERIAL)
        self.stays_closed(keyboard, since)
        self.stays_closed(serial, since)
        self.terminal.wait_until_works(disk)
        self.assertEqual(self.of_interfaces(disk, since, "unbind"), [])

        self.restart_agent("start kus-hotplug")
        for plugged in (disk, keyboard, serial):
            self.terminal.wait_until_works(plugged)
        # The new agent does not know who has opened it.
        self.assertEqual(len(self.of_interfaces(disk, since, "unbind")), 1)

    def test_agent_that_was_killed_goes_on_where_it_was(self) -> None:
        self.use_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")))
        since = self.terminal.uevent_mark()
        disk, serial = self.plug(STORAGE, SERIAL)
        mark = self.agent.mark()
        pid = self.terminal.status("kus-hotplug").pid
        self.restart_agent(f"kill -KILL {pid}")
        self.assertEqual(self.verdict_on(serial, mark), NOT_WHITELISTED)
        self.terminal.wait_until_works(disk)
        self.unplug(serial)
        self.wait_for_interfaces(serial, since, "remove")
        self.assert_never_bound(serial, since)

    def test_daemons_end_closes_nothing_and_opens_nothing(self) -> None:
        self.use_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")))
        since = self.terminal.uevent_mark()
        disk, serial = self.plug(STORAGE, SERIAL)
        self.terminal.wait_until_works(disk)
        mark = self.agent.mark()
        pid = self.terminal.status("kusd").pid
        self.terminal.check_output(["kill", "-KILL", str(pid)])
        for plugged in (disk, serial):
            self.agent.wait_for(mark, event="verdict", sysname=plugged.sysname)
        self.assertEqual(self.of_interfaces(disk, since, "unbind"), [])
        self.terminal.wait_until_works(disk)
        self.unplug(serial)
        self.wait_for_interfaces(serial, since, "remove")
        self.assert_never_bound(serial, since)

    def test_devices_that_come_without_a_daemon_wait_for_the_next_one(self) -> None:
        self.stop_daemon()
        since = self.terminal.uevent_mark()
        (hub,) = self.connect(HUB)
        # Nobody has to be asked about it.
        self.terminal.wait_until_works(hub)
        (disk,) = self.connect(STORAGE, behind=hub)
        (keyboard,) = self.connect(GADGET_KEYBOARD)
        self.stays_closed(disk, since)
        self.stays_closed(keyboard, since)
        self.start_daemon()
        for plugged in (disk, keyboard):
            self.terminal.wait_until_works(plugged)


class CommandLineTest(WindowTestCase):
    def test_root_hub_that_cannot_be_closed_ends_the_agent_and_none_is_closed(self) -> None:
        path = "/sys/bus/usb/devices/usb2/interface_authorized_default"
        result = self.terminal.run(
            ["unshare", "-m", "sh", "-c",
             f"file=$(readlink -f {path}) && mount --bind $file $file && "
             "mount -o remount,ro,bind $file && exec kus-hotplug --closed"])
        self.assertEqual((result.status, result.stdout, result.stderr),
                         (1, "", f"kus-hotplug: {path}: Read-only file system\n"))
        self.assertEqual(self.terminal.check_output(f"cat {ROOT_HUB_DEFAULTS}").split(),
                         ["1"] * ROOT_HUBS)

    def test_once_and_closed_do_not_go_together(self) -> None:
        result = self.terminal.run("kus-hotplug --once --closed")
        self.assertEqual(result.status, 2)
        self.assertTrue(result.stderr.startswith(
            "kus-hotplug: --closed wants an agent that stays: not with --once\n"), result.stderr)


if __name__ == "__main__":
    unittest.main()
