# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""Resets of the USB ports that a client asks for: which controllers go and come back, when, what
the rest of the system is told by its properties, and what becomes of the devices.

No agent runs but where a test starts it, so the daemon's log holds what a reset logs and nothing
else. A log message that ends with a newline, as the kernel's values do, is two lines of the log."""

from __future__ import annotations

import contextlib
import itertools
import re
import unittest
from collections.abc import Iterable, Iterator
from typing import NamedTuple

from support import (DEFAULT_POLICY, PROPERTY_DIR, TIMEOUT, DaemonTestCase, Process,
                     PropertyChange, PropertyWatch, class_rule, figure, policy)
from vm.devices import DISPLAYLINK, KEYBOARD, PRINTER, SERIAL, STORAGE, Device
from vm.terminal import HSUSB, SSUSB, Plugged

SOC = "/sys/devices/platform/soc"
SUPPLIES = "/sys/class/power_supply"
DC_ONLINE = f"{SUPPLIES}/dc/online"
PROPERTY = "persist.vendor.monitor."
UNDOCK, DOCK, RESET = (f"{PROPERTY}{name}" for name in ("undock", "dock", "reset"))
MARKER = "test.marker"

# The pauses, in seconds.
MODE_PAUSE = 0.1
POLL_PAUSE = 0.4

ENTERED = ["resetUsbDevices called", "usb_host_reset entered:"]
NO_DOCK_FOUND = ["virtual_undock_dock_event usbPath : empty",
                 "virtual_undock_dock_event usbPath empty for non-display link device"]
POLL_STARTED = "registerFileObserverViaThread result--0"
POLLING = f"readSysfsChangeEvent:polling for power_val {DC_ONLINE}power_val:"
POLL_ENDED = "readSysfsChangeEvent:exit poll due to virtual dock"
UNDOCKED = "readSysfsChangeEvent: undocked power_val"
ON_BATTERY = "device is undocked, not charging state"
FOR_DISPLAYLINK = "virtual_undock_dock_event usbPath for display link device"

DEVSPEC = {SSUSB: "/soc/ssusb@a800000/dwc3@a800000\n", HSUSB: "/soc/hsusb@c200000/dwc3@c200000\n"}
# Of no bus, so it matches no device; asking about it makes the daemon look at what is attached.
MADE_UP_DISK = ["--id", "90001", "--interfaces", "8"]


def mode_file(node: str) -> str:
    return f"{SOC}/{node}/mode"


def lines(text: str) -> list[str]:
    return text.split("\n")


def plain_flip(node: str) -> list[str]:
    return [f"usb_host_reset mode set to {mode} for syspath: {mode_file(node)}"
            for mode in ("none", "host")]


def virtual_mode(node: str, mode: str) -> str:
    return f"virtual_undock_dock_event mode set to {mode} for syspath: {mode_file(node)}"


def path_found(bus: str, devspec: str, path: str) -> list[str]:
    """From the look for the dock to the decision for its controller."""
    return [f"get_displaylink_soc_path /sys/bus/usb/devices/usb{bus}/devspec",
            *lines(f"get_displaylink_soc_path devspec_val : {devspec}"),
            f"virtual_undock_dock_event usbPath : {path}", FOR_DISPLAYLINK]


def supplies_asked(usb: int, dc: int | None = None) -> list[str]:
    messages = [*lines(f"USB charging_state val {usb}\n"), f"power_supply_state val {usb}"]
    if dc is not None:
        messages += ["virtual_undock_dock_event check for dc charge state",
                     *lines(f"DC charging_state val {dc}\n"), f"DC power_supply_state val {dc}"]
    return messages


class ModeChange(NamedTuple):
    """`time` is the kernel log's, in seconds."""

    time: float
    node: str
    mode: str


class Called(NamedTuple):
    """A reset as the kernel's log shows it: all times are that log's."""

    began: float
    ended: float
    changes: list[ModeChange]

    @property
    def modes(self) -> list[tuple[str, str]]:
        return [(change.node, change.mode) for change in self.changes]


NONE_AND_HOST = [(HSUSB, "none"), (HSUSB, "host"), (SSUSB, "none"), (SSUSB, "host")]


class ResetTestCase(DaemonTestCase):
    """Each test begins in host mode, on the dock's supply, with no property set and a daemon that
    has looked at no device yet."""

    services = ("servicemanager", "kusd")
    rules = DEFAULT_POLICY
    _calls = 0

    def setUp(self) -> None:
        super().setUp()
        self.addCleanup(self.put_back)
        self.pid = self.use_policy(self.rules)

    def use_policy(self, text: str) -> int:
        log = self.log.mark()
        pid = super().use_policy(text)
        self.wait_until_start_is_over(log)
        return pid

    def put_back(self) -> None:
        for node in (SSUSB, HSUSB):
            self.terminal.set_mode(node, "host")
        for name, online in (("dc", 1), ("usb", 0)):
            self.terminal.set_supply(name, online)
        for plugged in self.plugged:
            self.terminal.locate(plugged)
            self.terminal.wait_for_device(plugged)
        self.clear_properties()

    def clear_properties(self) -> None:
        self.terminal.check_output(
            f"rm -f {PROPERTY_DIR}/{PROPERTY}* {PROPERTY_DIR}/{MARKER}")

    def attach(self, *devices: Device) -> list[Plugged]:
        """Plugs devices in where no agent runs."""
        attached = []
        for device in devices:
            attached.append(self.terminal.plug(device))
            self.plugged.append(attached[-1])
        for plugged in attached:
            self.terminal.wait_until_works(plugged)
        return attached

    def look_at_devices(self) -> None:
        self.client("decide", *MADE_UP_DISK)

    def watch_properties(self) -> PropertyWatch:
        watch = PropertyWatch(self.terminal)
        self.addCleanup(watch.kill)
        return watch

    def settings(self, watch: PropertyWatch) -> list[PropertyChange]:
        """What was set up to now since the last look."""
        self.terminal.properties[MARKER] = "1"
        changes = []
        while (change := watch.next_change()).name != MARKER:
            changes.append(change)
        return changes

    @contextlib.contextmanager
    def in_place(self, path: str, text: str) -> Iterator[None]:
        """Has a file of the kernel hold a text that the kernel would not give it."""
        self.terminal.write_file("/run/in-place", text)
        self.terminal.check_output(["mount", "-o", "bind", "/run/in-place", path])
        try:
            yield
        finally:
            self.terminal.check_output(["umount", path])

    def uptime(self) -> float:
        return float(self.terminal.read_file("/proc/uptime").split()[0])

    # --- calls ----------------------------------------------------------------------------------

    def reset(self, delay: int) -> Called:
        ResetTestCase._calls += 1
        name = f"call {ResetTestCase._calls} of reset"
        self.terminal.check_output(
            f'echo "{name} begins" > /dev/kmsg; kus-client reset {delay}; status=$?; '
            f'echo "{name} ends" > /dev/kmsg; exit $status')
        return self.called(name)

    def start_reset(self, delay: int) -> Process:
        call = Process(self.terminal, ["sh", "-c", f"kus-client reset {delay}; echo $?"])
        self.addCleanup(call.kill)
        return call

    def assert_done(self, call: Process) -> None:
        self.assertEqual(call.next_line(), "0")
        call.wait()

    def mark_kernel_log(self) -> str:
        ResetTestCase._calls += 1
        name = f"mark {ResetTestCase._calls}"
        self.terminal.check_output(f'echo "{name} begins" > /dev/kmsg')
        return name

    def called(self, name: str) -> Called:
        """What the kernel logged from "NAME begins" to "NAME ends", or to the end."""
        began, ended, changes = 0.0, 0.0, []
        for line in self.terminal.check_output("dmesg").splitlines():
            match = re.fullmatch(r"\[ *(\d+\.\d+)\] (.*)", line)
            if match is None:
                continue
            time, text = float(match[1]), match[2]
            if text == f"{name} begins":
                began = time
            elif text == f"{name} ends":
                ended = time
            elif began and not ended and (mode := re.fullmatch(r".* (\S+): mode (\w+)", text)):
                changes.append(ModeChange(time, mode[1], mode[2]))
        self.assertGreater(began, 0, f"the kernel's log has lost '{name}'")
        return Called(began, ended, changes)

    def assert_pauses(self, called: Called, pauses: Iterable[float]) -> None:
        """The mode changes are at least so far apart, the end of the call from the last one too."""
        times = [*(change.time for change in called.changes), called.ended]
        for (earlier, later), pause in zip(itertools.pairwise(times), pauses, strict=True):
            self.assertGreaterEqual(later - earlier, pause, called)
            self.assertLess(later - earlier, pause + TIMEOUT, called)

    def assert_both_in_host_mode(self) -> None:
        self.assertEqual((self.terminal.mode(HSUSB), self.terminal.mode(SSUSB)), ("host", "host"))

    def assert_same_daemon(self) -> None:
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)
        self.assertEqual(self.client("ping"), "pong\n")

    def usb_changes(self, mark: int) -> list[tuple[str, int, int]]:
        """The devices that came and went since a mark of the uevents, root hubs aside."""
        changes = []
        for event in self.terminal.uevents_since(mark):
            if event.get("DEVTYPE") != "usb_device" or event["ACTION"] not in ("add", "remove"):
                continue
            vendor, product, _ = (int(part, 16) for part in event["PRODUCT"].split("/"))
            if vendor != 0x1D6B:
                changes.append((event["ACTION"], vendor, product))
        return changes


class PlainResetTest(ResetTestCase):
    def assert_plain_reset(self, delay: int) -> None:
        watch = self.watch_properties()
        log = self.log.mark()
        called = self.reset(delay)
        self.assertEqual(self.log.messages(log),
                         [*ENTERED, *plain_flip(HSUSB), *plain_flip(SSUSB)])
        self.assertEqual(called.modes, NONE_AND_HOST)
        self.assert_pauses(called, [MODE_PAUSE] * 4)
        self.assert_both_in_host_mode()
        self.assertEqual(self.settings(watch), [])
        self.assert_same_daemon()

    def test_both_controllers_go_to_none_and_back_one_after_the_other(self) -> None:
        self.assert_plain_reset(0)

    def test_negative_delay_is_a_plain_reset(self) -> None:
        for delay in (-1, -500, -2**31):
            with self.subTest(delay):
                self.assert_plain_reset(delay)

    def test_neither_a_dock_nor_the_supplies_matter(self) -> None:
        dock, = self.attach(DISPLAYLINK)
        self.look_at_devices()
        self.assert_plain_reset(0)
        self.terminal.locate(dock)
        self.terminal.wait_until_works(dock)
        self.terminal.set_supply("dc", 0)
        self.assert_plain_reset(0)

    def test_controllers_in_another_mode_are_left_alone(self) -> None:
        for hsusb, ssusb in (("peripheral", "host"), ("none", "host"), ("host", "peripheral"),
                             ("none", "peripheral"), ("none", "none")):
            with self.subTest(hsusb=hsusb, ssusb=ssusb):
                modes = {HSUSB: hsusb, SSUSB: ssusb}
                for node, mode in modes.items():
                    self.terminal.set_mode(node, mode)
                flipped = [node for node, mode in modes.items() if mode == "host"]
                log = self.log.mark()
                called = self.reset(0)
                self.assertEqual(called.modes,
                                 [change for change in NONE_AND_HOST if change[0] in flipped])
                self.assertEqual(self.log.messages(log), [
                    *ENTERED, *(line for node in flipped for line in plain_flip(node))])
                self.assertEqual({node: self.terminal.mode(node) for node in modes}, modes)


class VirtualDockTest(ResetTestCase):
    """A delay, and no DisplayLink device."""

    def setUp(self) -> None:
        super().setUp()
        self.look_at_devices()

    def names(self, changes: Iterable[PropertyChange]) -> list[str]:
        changes = list(changes)
        self.assertEqual({change.value for change in changes}, {"1"})
        return [change.name for change in changes]

    def without_poll(self, mark: int) -> list[str]:
        """The log without the poll thread's lines, which come when they come."""
        return [message for message in self.log.messages(mark)
                if message and not message.startswith("readSysfsChangeEvent")]

    def poll_lines(self, mark: int) -> list[str]:
        return self.log.messages(mark, "^readSysfsChangeEvent")

    def test_terminal_is_undocked_and_docked_again_after_the_delay(self) -> None:
        # Anything but '0' is a dock.
        for dc in (1, 2):
            with self.subTest(dc=dc):
                self.terminal.set_supply("dc", dc)
                self.clear_properties()
                watch = self.watch_properties()
                log = self.log.mark()
                before = self.uptime()
                called = self.reset(500)
                self.log.wait_for(log, POLL_ENDED)
                self.assertEqual(self.without_poll(log), [*ENTERED, *NO_DOCK_FOUND, POLL_STARTED])
                *polls, end = self.poll_lines(log)
                self.assertEqual(set(polls), {f"{POLLING}{dc}"})
                self.assertEqual(end, POLL_ENDED)
                changes = self.settings(watch)
                self.assertEqual(self.names(changes), [UNDOCK, RESET, DOCK, RESET])
                # Of the times when a change was seen only the later ones say something: they are no
                # earlier than the change.
                self.assertGreaterEqual(changes[2].time, before + 0.5)
                self.assertGreaterEqual(called.ended - called.began, 0.5)
                self.assertEqual(called.modes, [])
                self.assert_both_in_host_mode()

    def test_supply_is_polled_until_the_delay_is_over(self) -> None:
        watch = self.watch_properties()
        log = self.log.mark()
        before = self.uptime()
        call = self.start_reset(4000)
        first = [watch.next_change() for _ in range(2)]
        self.assertEqual(self.names(first), [UNDOCK, RESET])
        # Well before the end, and the call is still on.
        self.assertLess(first[1].time, before + 4)
        self.assertEqual(call.lines(), [])
        self.clear_properties()
        self.assert_done(call)
        # What comes last was set before the call returned.
        self.assertEqual([self.terminal.properties[name] for name in (UNDOCK, DOCK, RESET)],
                         ["", "1", "1"])
        second = self.settings(watch)
        self.assertEqual(self.names(second), [DOCK, RESET])
        self.assertGreaterEqual(second[0].time, before + 4)
        self.log.wait_for(log, POLL_ENDED)
        after = self.uptime()
        *polls, end = self.poll_lines(log)
        self.assertEqual(set(polls), {f"{POLLING}1"})
        self.assertEqual(end, POLL_ENDED)
        self.assertGreaterEqual(len(polls), 3)
        self.assertLessEqual(len(polls), (after - before) / POLL_PAUSE + 1)

    def test_nothing_is_announced_on_battery(self) -> None:
        self.terminal.set_supply("dc", 0)
        # Nor does the USB supply matter here.
        self.terminal.set_supply("usb", 1)
        watch = self.watch_properties()
        log = self.log.mark()
        # It does not wait either: the delay is longer than a call may take.
        called = self.reset(int(TIMEOUT * 2000))
        self.assertEqual(self.log.messages(log), [*ENTERED, *NO_DOCK_FOUND])
        self.assertEqual(self.settings(watch), [])
        self.assertEqual(called.modes, [])

    def test_supply_that_cannot_be_read_is_no_battery_whatever_was_read_before(self) -> None:
        self.terminal.set_supply("dc", 0)
        watch = self.watch_properties()
        self.reset(1)
        self.assertEqual(self.settings(watch), [])
        self.enterContext(self.in_place(DC_ONLINE, ""))
        log = self.log.mark()
        self.reset(500)
        self.log.wait_for(log, POLL_ENDED)
        self.assertEqual(self.names(self.settings(watch)), [UNDOCK, RESET, DOCK, RESET])
        unreadable = "Unable to read from sysfs path0"
        self.assertEqual(set(self.poll_lines(log)), {POLLING, POLL_ENDED})
        errors = [line.message for line in self.log.since(log) if line.severity == "E"]
        self.assertEqual(set(errors), {unreadable})
        # One by the caller, one before each of the poll thread's lines.
        self.assertEqual(len(errors), 1 + self.log.messages(log).count(POLLING))

    def test_terminal_taken_out_of_its_dock_is_told_at_once_and_again_by_the_caller(self) -> None:
        watch = self.watch_properties()
        log = self.log.mark()
        before = self.uptime()
        call = self.start_reset(6000)
        self.assertEqual(self.names(watch.next_change() for _ in range(2)), [UNDOCK, RESET])
        self.log.wait_for(log, f"{POLLING}1")
        self.terminal.set_supply("dc", 0)
        taken_out = self.uptime()
        told = [watch.next_change() for _ in range(2)]
        self.assertEqual(self.names(told), [DOCK, RESET])
        # The caller cannot have been it yet.
        self.assertLess(told[1].time, before + 6)
        self.log.wait_for(log, f"{UNDOCKED}0")
        self.assertEqual(call.lines(), [])
        self.clear_properties()
        self.assert_done(call)
        self.assertEqual([self.terminal.properties[name] for name in (DOCK, RESET)], ["1", "1"])
        again = self.settings(watch)
        self.assertEqual(self.names(again), [DOCK, RESET])
        self.assertGreaterEqual(again[0].time, before + 6)
        self.assertEqual(self.without_poll(log), [*ENTERED, *NO_DOCK_FOUND, POLL_STARTED])
        *polls, last, end = self.poll_lines(log)
        self.assertEqual(set(polls), {f"{POLLING}1"})
        self.assertEqual((last, end), (f"{POLLING}0", f"{UNDOCKED}0"))
        figure("from the loss of the DC supply to the announced dock",
               f"{told[0].time - taken_out:.1f} s")

        # That thread is gone: the next virtual dock has one of its own, and it alone ends later.
        self.terminal.set_supply("dc", 1)
        mark = self.log.mark()
        self.reset(500)
        self.log.wait_for(mark, POLL_ENDED)
        self.assertEqual(self.names(self.settings(watch)), [UNDOCK, RESET, DOCK, RESET])
        self.assertEqual(self.log.messages(log).count(POLL_ENDED), 1)
        self.assertEqual(len(self.log.messages(log, f"^{UNDOCKED}")), 1)

    def test_two_virtual_docks_at_once_come_one_after_the_other(self) -> None:
        watch = self.watch_properties()
        log = self.log.mark()
        before = self.uptime()
        calls = [self.start_reset(1500) for _ in range(2)]
        for call in calls:
            self.assert_done(call)
        changes = self.settings(watch)
        self.assertEqual(self.names(changes), [UNDOCK, RESET, DOCK, RESET] * 2)
        self.assertGreaterEqual(changes[6].time, before + 3)
        self.log.wait(log, lambda _: self.log.messages(log).count(POLL_ENDED) == 2, "second end")
        # Each call logs that it was entered before it waits for its turn.
        self.assertEqual([message for message in self.without_poll(log) if message not in ENTERED],
                         [*NO_DOCK_FOUND, POLL_STARTED] * 2)


class DisplayLinkTest(ResetTestCase):
    """A delay, and a dock of vendor 17e9 behind the controllers of c200000.hsusb."""

    def setUp(self) -> None:
        super().setUp()
        self.dock, = self.attach(DISPLAYLINK)
        self.assertEqual(self.dock.node, HSUSB)
        self.look_at_devices()

    @property
    def bus(self) -> str:
        return self.dock.sysname[0]

    @property
    def devspec_file(self) -> str:
        return f"/sys/bus/usb/devices/usb{self.bus}/devspec"

    def back(self) -> None:
        self.terminal.locate(self.dock)
        self.terminal.wait_until_works(self.dock)
        self.look_at_devices()

    def found(self, node: str = HSUSB) -> list[str]:
        return path_found(self.bus, DEVSPEC[node], mode_file(node))

    def test_controller_comes_back_after_the_delay_on_external_power(self) -> None:
        disk, = self.attach(STORAGE)
        number = self.state(disk).number
        for delay, usb, dc in ((500, 0, 1), (500, 1, 0), (500, 1, 1), (1, 0, 1), (1500, 2, 1)):
            with self.subTest(delay, usb=usb, dc=dc):
                self.terminal.set_supply("usb", usb)
                self.terminal.set_supply("dc", dc)
                watch = self.watch_properties()
                log, uevents = self.log.mark(), self.terminal.uevent_mark()
                called = self.reset(delay)
                self.assertEqual(self.log.messages(log), [
                    *ENTERED, *self.found(), virtual_mode(HSUSB, "none"),
                    *(supplies_asked(usb) if usb == 1 else supplies_asked(usb, dc)),
                    virtual_mode(HSUSB, "host")])
                self.assertEqual(called.modes, [(HSUSB, "none"), (HSUSB, "host")])
                self.assert_pauses(called, [delay / 1000, MODE_PAUSE])
                self.assert_both_in_host_mode()
                self.back()
                self.assertEqual(self.settings(watch), [])
                # Only the dock went and came.
                self.assertEqual(self.usb_changes(uevents), [
                    ("remove", DISPLAYLINK.vendor, DISPLAYLINK.product),
                    ("add", DISPLAYLINK.vendor, DISPLAYLINK.product)])
        self.assertEqual(self.state(disk).number, number)

    def test_controller_stays_in_none_on_battery(self) -> None:
        self.attach(STORAGE)
        # Only exactly 1 is power.
        for usb, dc in ((0, 0), (2, 2), (0, 2)):
            with self.subTest(usb=usb, dc=dc):
                self.terminal.set_supply("usb", usb)
                self.terminal.set_supply("dc", dc)
                watch = self.watch_properties()
                log, uevents = self.log.mark(), self.terminal.uevent_mark()
                called = self.reset(500)
                self.assertEqual(self.log.messages(log), [
                    *ENTERED, *self.found(), virtual_mode(HSUSB, "none"),
                    *supplies_asked(usb, dc), ON_BATTERY])
                self.assertEqual(called.modes, [(HSUSB, "none")])
                self.assert_pauses(called, [0.5])
                self.assertEqual(self.terminal.mode(HSUSB), "none")
                self.assertIsNone(self.dock.state())
                self.assertEqual(self.terminal.mode(SSUSB), "host")
                self.assertEqual(self.usb_changes(uevents), [
                    ("remove", DISPLAYLINK.vendor, DISPLAYLINK.product)])
                # Power alone brings it back no more than a plain reset does.
                self.terminal.set_supply("dc", 1)
                self.assertEqual(self.reset(0).modes, [(SSUSB, "none"), (SSUSB, "host")])
                self.assertEqual(self.terminal.mode(HSUSB), "none")
                self.assertEqual(self.settings(watch), [])
                self.terminal.set_mode(HSUSB, "host")
                self.back()

    def test_dock_is_known_from_a_look_at_the_devices_to_the_next_one(self) -> None:
        self.terminal.set_supply("dc", 0)
        unknown = [*ENTERED, *NO_DOCK_FOUND]
        flipped = [*ENTERED, *self.found(), virtual_mode(HSUSB, "none"), *supplies_asked(1),
                   virtual_mode(HSUSB, "host")]
        self.terminal.set_supply("usb", 1)

        def reset() -> list[str]:
            log = self.log.mark()
            self.reset(1)
            return self.log.messages(log)

        # A daemon that has been asked about nothing.
        self.use_policy(self.rules)
        self.assertEqual(reset(), unknown)
        self.look_at_devices()
        self.assertEqual(reset(), flipped)
        # Gone with its controller, back under another number, and nobody has looked since.
        self.terminal.locate(self.dock)
        self.terminal.wait_for_device(self.dock)
        self.plugged.remove(self.dock)
        self.terminal.unplug(self.dock)
        self.assertEqual(reset(), flipped)
        self.look_at_devices()
        self.assertEqual(reset(), unknown)
        # The dump's look counts as well.
        self.dock, = self.attach(DISPLAYLINK)
        self.assertEqual(reset(), unknown)
        self.terminal.check_output("dumpsys kusbservice test")
        self.assertEqual(reset(), flipped)

    def test_dock_that_was_reported_gone_is_forgotten(self) -> None:
        state = self.state(self.dock)
        self.client("remove", "--id", str(state.device_id + 1))
        self.assertEqual(self.reset(1).modes, [(HSUSB, "none"), (HSUSB, "host")])
        self.back()
        state = self.state(self.dock)
        self.client("remove", "--id", str(state.device_id))
        self.terminal.set_supply("dc", 0)
        log = self.log.mark()
        self.assertEqual(self.reset(1).modes, [])
        self.assertEqual(self.log.messages(log), [*ENTERED, *NO_DOCK_FOUND])

    def test_controller_that_is_off_already_has_no_path(self) -> None:
        devspec = self.devspec_file
        for mode in ("none", "peripheral"):
            with self.subTest(mode):
                self.terminal.set_mode(HSUSB, mode)
                watch = self.watch_properties()
                log = self.log.mark()
                called = self.reset(int(TIMEOUT * 2000))
                self.assertEqual([(line.severity, line.message) for line in self.log.since(log)], [
                    *(("I", text) for text in ENTERED),
                    ("I", f"get_displaylink_soc_path {devspec}"),
                    ("E", f"Unable to open sysfs path for reading{devspec}"),
                    ("I", "virtual_undock_dock_event usbPath : "), ("I", FOR_DISPLAYLINK)])
                self.assertEqual(called.modes, [])
                self.assertEqual(self.terminal.mode(HSUSB), mode)
                self.assertEqual(self.settings(watch), [])

    def test_controller_is_the_one_that_the_root_hub_names(self) -> None:
        self.enterContext(self.in_place(self.devspec_file, DEVSPEC[SSUSB]))
        number = self.state(self.dock).number
        log = self.log.mark()
        called = self.reset(500)
        self.assertEqual(called.modes, [(SSUSB, "none"), (SSUSB, "host")])
        self.assert_pauses(called, [0.5, MODE_PAUSE])
        self.assertEqual(self.log.messages(log), [
            *ENTERED, *self.found(SSUSB), virtual_mode(SSUSB, "none"), *supplies_asked(0, 1),
            virtual_mode(SSUSB, "host")])
        self.assertEqual(self.state(self.dock).number, number)

        # Neither is another mode than "host" touched.
        for mode in ("peripheral", "none"):
            self.terminal.set_mode(SSUSB, mode)
            log = self.log.mark()
            self.assertEqual(self.reset(int(TIMEOUT * 2000)).modes, [])
            self.assertEqual(self.log.messages(log), [*ENTERED, *self.found(SSUSB)])
            self.assertEqual(self.terminal.mode(SSUSB), mode)

    def test_devspec_that_names_no_controller_is_no_path(self) -> None:
        for devspec, path in (("(null)\n", ""), ("/\n", ""), ("/soc\n", ""), ("/soc/ssusb\n", ""),
                              ("/soc/\n", ""), ("@\n", ""),
                              ("/soc/ssusb@b800000/dwc3@b800000\n", mode_file("b800000.ssusb"))):
            with self.subTest(devspec), self.in_place(self.devspec_file, devspec):
                watch = self.watch_properties()
                log = self.log.mark()
                called = self.reset(int(TIMEOUT * 2000))
                self.assertEqual(self.log.messages(log),
                                 [*ENTERED, *path_found(self.bus, devspec, path)])
                self.assertEqual(called.modes, [])
                self.assertEqual(self.settings(watch), [])
        self.assert_same_daemon()

    def test_plain_reset_waits_for_the_end_of_a_docks(self) -> None:
        name = self.mark_kernel_log()
        log = self.log.mark()
        first = self.start_reset(3000)
        self.log.wait_for(log, virtual_mode(HSUSB, "none"))
        second = self.start_reset(0)
        # It has come as far as it can while the other one sleeps.
        self.log.wait(log, lambda _: self.log.messages(log).count(ENTERED[1]) == 2, "second call")
        self.assertNotIn(supplies_asked(0)[0], self.log.messages(log))
        for call in (first, second):
            self.assert_done(call)
        self.assertEqual(self.log.messages(log), [
            *ENTERED, *self.found(), virtual_mode(HSUSB, "none"), *ENTERED, *supplies_asked(0, 1),
            virtual_mode(HSUSB, "host"), *plain_flip(HSUSB), *plain_flip(SSUSB)])
        called = self.called(name)
        self.assertEqual(called.modes, [(HSUSB, "none"), (HSUSB, "host"), *NONE_AND_HOST])
        self.assert_pauses(called._replace(ended=called.changes[-1].time + MODE_PAUSE + 1),
                           [3, *[MODE_PAUSE] * 5])

    def test_two_plain_resets_at_once_come_one_after_the_other(self) -> None:
        name = self.mark_kernel_log()
        log = self.log.mark()
        for call in [self.start_reset(0) for _ in range(2)]:
            self.assert_done(call)
        self.assertEqual([message for message in self.log.messages(log) if message not in ENTERED],
                         [*plain_flip(HSUSB), *plain_flip(SSUSB)] * 2)
        called = self.called(name)
        self.assertEqual(called.modes, NONE_AND_HOST * 2)
        self.assert_pauses(called._replace(ended=called.changes[-1].time + MODE_PAUSE + 1),
                           [MODE_PAUSE] * 8)

    def test_supply_that_is_no_number_ends_the_daemon_with_the_controller_off(self) -> None:
        for name, text in (("usb", "on\n"), ("dc", "\n"), ("dc", "")):
            with self.subTest(name, text=text):
                before = self.terminal.status("kusd").pid
                exits = self.exits()
                log = self.log.mark()
                with self.in_place(f"{SUPPLIES}/{name}/online", text):
                    self.assertEqual(self.terminal.run("kus-client reset 1").status, 1)
                self.wait_until_start_is_over(log)
                self.assertEqual(self.exits(), [*exits, "kusd exited with status 6"])
                self.assertNotEqual(self.terminal.status("kusd").pid, before)
                self.assertEqual(self.terminal.mode(HSUSB), "none")
                self.assertEqual(self.terminal.mode(SSUSB), "host")
                self.terminal.set_mode(HSUSB, "host")
                self.back()

    def exits(self) -> list[str]:
        log = self.terminal.run("cat /data/log/services.log").stdout
        return [line.partition(" ")[2] for line in log.splitlines() if "kusd exited" in line]


class JudgedAgainTest(ResetTestCase):
    """With the agent: what the reset does to the devices, and to the daemon's picture of them."""

    rules = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"),
                   class_rule("USB_CLASS_COMM"), class_rule("USB_CLASS_CDC_DATA"),
                   class_rule("AINPUT_SOURCE_KEYBOARD"))

    def setUp(self) -> None:
        super().setUp()
        mark = self.agent.mark()
        self.terminal.start("kus-hotplug")
        self.addCleanup(self.terminal.stop, "kus-hotplug")
        self.agent.wait_for(mark, event="ready")

    def told(self, mark: int) -> list[tuple[str, str]]:
        """What the agent says of USB devices."""
        return [(event["event"], event["sysname"])
                for event in self.agent.events(mark, kind="usb")]

    def verdicts(self) -> list[tuple[str, int, int, str]]:
        return sorted((record["deviceName"], record["deviceType"], record["status"],
                       record["reason"]) for record in self.records())

    def wait_until_judged_again(self, mark: int, *plugged: Plugged) -> None:
        for each in plugged:
            self.terminal.locate(each)
            self.agent.wait_for(mark, event="verdict", kind="usb", sysname=each.sysname)

    def test_all_devices_go_and_come_back_and_are_judged_by_the_same_rules(self) -> None:
        agent = self.agent.mark()
        disk, keyboard, printer, serial = fleet = self.plug(STORAGE, KEYBOARD, PRINTER, SERIAL)
        self.agent.wait_for(agent, event="verdict", kind="input")
        agent, uevents = self.agent.mark(), self.terminal.uevent_mark()
        records = self.verdicts()
        self.assertEqual([record[2] for record in records].count(0), 1)
        self.assertEqual(len(records), 4)
        names = {each.sysname for each in fleet}
        before = self.uptime()
        self.reset(0)
        returned = self.uptime()
        self.wait_until_judged_again(agent, *fleet)
        self.agent.wait_for(agent, event="verdict", kind="input")
        figure("plain reset of both controllers", f"{returned - before:.1f} s")
        figure("from a client's plain reset to the last verdict on four devices",
               f"{self.uptime() - before:.1f} s")
        for each in (disk, keyboard, serial):
            self.terminal.wait_until_works(each)
        self.terminal.wait_until_blocked(printer)
        self.assertEqual(self.verdicts(), records)
        told = self.told(agent)
        self.assertEqual({each.sysname for each in fleet}, names)
        self.assertEqual(sorted(told), sorted(
            (event, name) for event in ("removed", "verdict") for name in names))
        changes = self.usb_changes(uevents)
        for each in fleet:
            ids = (each.device.vendor, each.device.product)
            self.assertLess(told.index(("removed", each.sysname)),
                            told.index(("verdict", each.sysname)))
            self.assertEqual([change[0] for change in changes if change[1:] == ids],
                             ["remove", "add"])
        self.assertEqual(len(changes), 2 * len(fleet))

    def test_dock_alone_goes_and_is_judged_again_on_power(self) -> None:
        agent = self.agent.mark()
        disk, keyboard, dock = self.plug(STORAGE, KEYBOARD, DISPLAYLINK)
        self.agent.wait_for(agent, event="verdict", kind="input")
        agent, uevents = self.agent.mark(), self.terminal.uevent_mark()
        records = self.verdicts()
        called = self.reset(500)
        self.assertEqual(called.modes, [(HSUSB, "none"), (HSUSB, "host")])
        self.wait_until_judged_again(agent, dock)
        self.terminal.wait_until_works(dock)
        self.assertEqual(self.told(agent), [("removed", dock.sysname), ("verdict", dock.sysname)])
        self.assertEqual([change[0] for change in self.usb_changes(uevents)],
                         ["remove", "add"])
        self.assertEqual(self.verdicts(), records)
        for each in (disk, keyboard):
            self.assertTrue(self.state(each).works_as(each.device))

    def test_dock_on_battery_is_gone_until_its_controller_is_back(self) -> None:
        dock, = self.plug(DISPLAYLINK)
        self.terminal.set_supply("dc", 0)
        agent = self.agent.mark()
        self.assertEqual(self.reset(500).modes, [(HSUSB, "none")])
        self.agent.wait_for(agent, event="removed", kind="usb", sysname=dock.sysname)
        self.assertEqual(self.records(), [])
        # It is off the map with that, so a second one is not about it.
        log = self.log.mark()
        self.assertEqual(self.reset(500).modes, [])
        self.assertEqual(self.log.messages(log), [*ENTERED, *NO_DOCK_FOUND])
        self.terminal.set_supply("dc", 1)
        self.terminal.set_mode(HSUSB, "host")
        self.wait_until_judged_again(agent, dock)
        self.assertEqual([record["status"] for record in self.records()], [1])


if __name__ == "__main__":
    unittest.main()
