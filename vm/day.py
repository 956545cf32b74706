#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""A day of a terminal: the same five devices come under three sets of rules.

Each device is plugged into a virtual terminal that runs the service manager, the daemon and the
agent. A line is printed for each verdict of the daemon as the agent reports it, with what the
terminal's kernel did then; both are compared with what the rules of DAY demand. The last line is
"N verdicts, N as expected", and the exit status is 0 only if those two are the same number, every
demanded verdict has come, no other one has, and neither daemon nor kernel crashed.

    vm/day.py           at a human's pace, with a shell in the terminal at the end
    vm/day.py --once    as fast as it goes
"""

from __future__ import annotations

import argparse
import dataclasses
import enum
import json
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
if str(ROOT) not in sys.path:
    sys.path.insert(0, str(ROOT))

from vm import channel, devices, image  # noqa: E402
from vm.agent import AgentEvents, Event  # noqa: E402
from vm.devices import Device  # noqa: E402
from vm.qmp import QmpError  # noqa: E402
from vm.terminal import CommandFailed, Plugged, Terminal, TerminalError  # noqa: E402

CONFIG_FILE = "/data/system/usbdeviceconfig/usb_device_config.xml"

PAUSE = 2.0
VERDICT_TIMEOUT = 30.0
KERNEL_TIMEOUT = 15.0


class Kind(enum.Enum):
    """Who asks the daemon: the USB side about a device, the input side about an input device."""

    USB = "usb"
    INPUT = "input"


class Kernel(enum.Enum):
    """What the kernel must show after the verdict."""

    WORKS = "authorized, with its drivers"
    BLOCKED = "not authorized, without drivers"
    ACTIVE = "not inhibited"
    INHIBITED = "inhibited"


@dataclasses.dataclass(frozen=True)
class Expected:
    """One verdict that the rules demand."""

    device: Device
    kind: Kind
    allowed: bool
    reason: str
    kernel: Kernel


@dataclasses.dataclass(frozen=True)
class Chapter:
    """A part of the day. Without a configuration the one that the terminal booted with holds."""

    title: str
    configuration: str
    expected: tuple[Expected, ...]


def _allowed(device: Device, reason: str) -> Expected:
    return Expected(device, Kind.USB, True, reason, Kernel.WORKS)


def _refused(device: Device, reason: str) -> Expected:
    return Expected(device, Kind.USB, False, reason, Kernel.BLOCKED)


def _left_to_input_side(device: Device) -> Expected:
    """A HID device with an input device: refused as a USB device, without a record and without
    being touched, because its input device is asked about as well."""
    return Expected(device, Kind.USB, False, "", Kernel.WORKS)


def _input_allowed(device: Device, reason: str) -> Expected:
    return Expected(device, Kind.INPUT, True, reason, Kernel.ACTIVE)


def _input_refused(device: Device, reason: str) -> Expected:
    return Expected(device, Kind.INPUT, False, reason, Kernel.INHIBITED)


_BY_DEFAULT = "Enabled by default rule"
_NOT_WHITELISTED = "No matching rule found to Whitelist the device"
_NOT_BLACKLISTED = "No matching rule found to Blacklist the device"

DAY = (
    Chapter("default mode: everything may be used", "", (
        _allowed(devices.STORAGE, _BY_DEFAULT),
        _left_to_input_side(devices.KEYBOARD),
        _input_allowed(devices.KEYBOARD, _BY_DEFAULT),
        _allowed(devices.NETWORK, _BY_DEFAULT),
        _allowed(devices.SERIAL, _BY_DEFAULT),
        _allowed(devices.VENDOR_HID, _BY_DEFAULT),
    )),
    Chapter("whitelist: mass storage, keyboards and one serial adapter, nothing else", """\
<?xml version="1.0" encoding="UTF-8"?>
<usbconfig mode="whitelist">
  <class>USB_CLASS_MASS_STORAGE</class>
  <class>AINPUT_SOURCE_KEYBOARD</class>
  <vid vendorid="4617">
    <pid>44033</pid>
  </vid>
</usbconfig>
""", (
        _allowed(devices.STORAGE,
                 "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "),
        _left_to_input_side(devices.KEYBOARD),
        _input_allowed(devices.KEYBOARD,
                       "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD "),
        _refused(devices.NETWORK, _NOT_WHITELISTED),
        _allowed(devices.SERIAL,
                 "Whitelisted: Match by VID_PID combination, VID : 4617 PID: 44033"),
        _refused(devices.VENDOR_HID, _NOT_WHITELISTED),
    )),
    Chapter("blacklist: no disks, no keyboards, nothing of vendor 1317, one vendor's HID not",
            """\
<?xml version="1.0" encoding="UTF-8"?>
<usbconfig mode="blacklist">
  <class>USB_CLASS_MASS_STORAGE</class>
  <class>AINPUT_SOURCE_KEYBOARD</class>
  <vid vendorid="1317"/>
  <vid vendorid="4617">
    <pid>44034</pid>
  </vid>
</usbconfig>
""", (
        _refused(devices.STORAGE,
                 "Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "),
        _left_to_input_side(devices.KEYBOARD),
        _input_refused(devices.KEYBOARD,
                       "Blacklisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD "),
        _refused(devices.NETWORK, "Blacklisted: Match by VID, VID : 1317"),
        _allowed(devices.SERIAL, _NOT_BLACKLISTED),
        _refused(devices.VENDOR_HID,
                 "Blacklisted: Match by VID_PID combination, VID : 4617 PID: 44034"),
    )),
)


class Failure(Exception):
    """The day cannot go on; the text says why."""


class Day:
    """Goes through the chapters and keeps the score."""

    def __init__(self, terminal: Terminal, paced: bool) -> None:
        self._terminal = terminal
        self._paced = paced
        self._agent = AgentEvents(terminal)
        self._began = time.monotonic()
        self.verdicts = 0
        self.as_expected = 0
        self.missing = 0

    def live(self) -> None:
        self._agent.wait_for(VERDICT_TIMEOUT, event="ready")
        for chapter in DAY:
            print(f"\n-- {chapter.title}", flush=True)
            if chapter.configuration:
                self._put_in_force(chapter.configuration)
            self._play(chapter)
        self._count_unasked_verdicts()
        self._check_exits(restarts=sum(1 for chapter in DAY if chapter.configuration))

    @property
    def good(self) -> bool:
        demanded = sum(len(chapter.expected) for chapter in DAY)
        return self.missing == 0 and self.verdicts == self.as_expected == demanded

    def _put_in_force(self, configuration: str) -> None:
        for line in configuration.splitlines():
            print(f"   | {line}")
        self._terminal.write_file(CONFIG_FILE, configuration)
        self._terminal.stop("kusd")
        self._agent.wait_for(VERDICT_TIMEOUT, event="service", state="lost")
        self._terminal.start("kusd")
        self._agent.wait_for(VERDICT_TIMEOUT, event="service", state="connected")
        print("   the daemon has been restarted", flush=True)
        self._pause()

    def _play(self, chapter: Chapter) -> None:
        waiting = list(chapter.expected)
        plugged: dict[Device, Plugged] = {}
        for device in dict.fromkeys(expected.device for expected in chapter.expected):
            plugged[device] = self._terminal.connect(device)
            if self._paced:
                self._take_verdicts(waiting, plugged, {device})
                self._pause()
        self._take_verdicts(waiting, plugged, set(plugged))
        for expected in waiting:
            self.missing += 1
            print(f" BAD  no verdict for {expected.device.name} ({expected.kind.value})")
        self._unplug(list(plugged.values()))

    def _take_verdicts(self, waiting: list[Expected], plugged: dict[Device, Plugged],
                       of: set[Device]) -> None:
        """Takes verdicts until all those of these devices have come, or none comes for long."""
        while any(expected.device in of for expected in waiting):
            event = self._agent.next(VERDICT_TIMEOUT)
            if event is None:
                return
            if event["event"] == "verdict":
                self._judge(event, waiting, plugged)
            elif event["event"] in ("service", "problem"):
                raise Failure(f"the agent reports {json.dumps(event)}")

    def _judge(self, event: Event, waiting: list[Expected],
               plugged: dict[Device, Plugged]) -> None:
        self.verdicts += 1
        expected = next((candidate for candidate in waiting
                         if self._is_about(event, candidate, plugged)), None)
        if expected is None:
            print(f" BAD  not expected: {json.dumps(event)}", flush=True)
            return
        waiting.remove(expected)
        kernel_good, kernel = self._kernel_side(event, expected, plugged[expected.device])
        good = (kernel_good and event["allowed"] == expected.allowed
                and event["reason"] == expected.reason)
        self.as_expected += good
        verdict = "allowed" if event["allowed"] else "refused"
        reason = event["reason"] or "(its input device is judged instead)"
        print(f" {'ok ' if good else 'BAD'} {time.monotonic() - self._began:5.1f} s  "
              f"{expected.device.name:<10}  {expected.kind.value:<5}  {verdict}  "
              f"{kernel:<33}  {reason.rstrip()}", flush=True)
        if not good:
            print(f"      demanded: {'allowed' if expected.allowed else 'refused'}, "
                  f"{expected.kernel.value}, '{expected.reason}'; reported: {json.dumps(event)}")

    @staticmethod
    def _is_about(event: Event, expected: Expected,
                  plugged: dict[Device, Plugged]) -> bool:
        device = expected.device
        if device not in plugged or event["kind"] != expected.kind.value:
            return False
        if expected.kind is Kind.USB and event["sysname"] != plugged[device].sysname:
            return False
        return (event["vendorId"], event["productId"]) == (device.vendor, device.product)

    def _kernel_side(self, event: Event, expected: Expected,
                     plugged: Plugged) -> tuple[bool, str]:
        """Whether the kernel comes to show what is demanded, and what it shows."""
        if expected.kind is Kind.INPUT:
            path = f"/sys/class/input/{event['sysname']}/inhibited"
            value = self._terminal.run(["cat", path]).stdout.strip()
            return value == ("1" if expected.kernel is Kernel.INHIBITED else "0"), \
                f"{event['sysname']}, inhibited {value or '(gone)'}"
        wait = (self._terminal.wait_until_works if expected.kernel is Kernel.WORKS
                else self._terminal.wait_until_blocked)
        try:
            wait(plugged, KERNEL_TIMEOUT)
            good = True
        except TimeoutError:
            good = False
        return good, self._describe(plugged)

    @staticmethod
    def _describe(plugged: Plugged) -> str:
        state = plugged.state()
        if state is None:
            return "gone"
        authorized = " ".join(str(int(value)) for value in state.authorized)
        drivers = dict.fromkeys(interface.driver for interface in state.interfaces
                                if interface.driver)
        made = [interface.product_of_driver for interface in state.interfaces
                if interface.product_of_driver]
        return f"authorized {authorized}, {' '.join([*drivers, *made]) or 'no driver'}"

    def _unplug(self, plugged: list[Plugged]) -> None:
        for device in plugged:
            self._terminal.disconnect(device)
        self._terminal.wait_until(
            lambda: not self._terminal.usb_state(*(device.sysname for device in plugged)),
            VERDICT_TIMEOUT, "the devices to go")
        waiting = {device.sysname for device in plugged}
        while waiting:
            waiting.discard(self._agent.wait_for(VERDICT_TIMEOUT, event="removed",
                                                 kind="usb")["sysname"])
        print("   all unplugged", flush=True)
        self._pause()

    def _count_unasked_verdicts(self) -> None:
        """Verdicts that came when no device had been plugged in."""
        while (event := self._agent.next(0)) is not None:
            self._agent.skipped.append(event)
        for event in self._agent.skipped:
            if event["event"] == "verdict":
                self.verdicts += 1
                print(f" BAD  not expected: {json.dumps(event)}")

    def _check_exits(self, restarts: int) -> None:
        """A daemon that crashed and was started again by its supervisor is no good daemon."""
        exits = self._terminal.check_output("grep -v ^$ /data/log/services.log || true")
        if len(exits.splitlines()) != restarts:
            raise Failure(f"services ended on their own:\n{exits}")

    def _pause(self) -> None:
        if self._paced:
            time.sleep(PAUSE)


def offer_shell(terminal: Terminal) -> None:
    if not sys.stdin.isatty():
        return
    print("\nThe terminal is still up. Press Enter to end it, or s and Enter for a shell in it "
          "(its exit ends it too): ", end="", flush=True)
    if sys.stdin.readline().strip().lower().startswith("s"):
        terminal.shell()


def main() -> int:
    parser = argparse.ArgumentParser(description="a scripted day of a terminal")
    parser.add_argument("--once", action="store_true", help="no pauses, no questions")
    arguments = parser.parse_args()
    day: Day | None = None
    ended_well = False
    try:
        with Terminal("day") as terminal:
            print(f"the virtual terminal is up after {terminal.boot_seconds:.1f} s", flush=True)
            day = Day(terminal, paced=not arguments.once)
            day.live()
            if not arguments.once:
                offer_shell(terminal)
        ended_well = True
    except (TerminalError, Failure, CommandFailed, TimeoutError, QmpError, image.ImageError,
            channel.TaskFailed) as error:
        notes = "".join(f"\n{note}" for note in getattr(error, "__notes__", []))
        print(f"\nday: {error}{notes}", file=sys.stderr)
    except KeyboardInterrupt:
        print("\nday: interrupted", file=sys.stderr)
    if day is None:
        return 1
    print(f"\n{day.verdicts} verdicts, {day.as_expected} as expected", flush=True)
    return 0 if ended_well and day.good else 1


if __name__ == "__main__":
    sys.exit(main())
