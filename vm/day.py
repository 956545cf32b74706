#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""A day of a terminal: five devices, and rules that change while they are attached.

The devices are plugged into a virtual terminal that runs the service manager, the daemon and the
agent. Then the rules are rewritten, well and badly, the daemon is made to crash, and the ports are
reset. A line is printed for each verdict of the daemon as the agent reports it, with what the
terminal's kernel did then; both are compared with what the rules of DAY demand. The last line is
"N verdicts, N as expected", and the exit status is 0 only if those two are the same number, every
demanded verdict has come, no other one has, and nothing crashed but the daemon when it was made to.

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

CONFIG_DIR = "/data/system/usbdeviceconfig"
CONFIG_FILE = f"{CONFIG_DIR}/usb_device_config.xml"
BACKUP_FILE = f"{CONFIG_DIR}/usb_device_config_backup.xml"
STATUS_FILE = f"{CONFIG_DIR}/status.txt"
DRAFT_FILE = "/tmp/draft.xml"
DAEMON_LOG = "/data/log/kusd.log"

PAUSE = 2.0
VERDICT_TIMEOUT = 30.0
KERNEL_TIMEOUT = 15.0
# What the observer logs when it has put the backup in the place of a bad file and seen that.
RESTORED = "Parsing status xml_parse_status 1"


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


class Begin(enum.Enum):
    """What makes the daemon be asked."""

    PLUG = "the devices are plugged in"
    RULES = "the file is rewritten with good rules"
    BAD_RULES = "the file is rewritten with bad rules"
    CRASH = "the daemon crashes"
    RESET = "a client has the ports reset"


@dataclasses.dataclass(frozen=True)
class Chapter:
    """A part of the day. `text` is the file's for one that begins with rules; `status` is what a
    bad file's status must be."""

    title: str
    begin: Begin
    expected: tuple[Expected, ...] = ()
    text: str = ""
    status: str = "SUCCESS"


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

WHITELIST = """\
<?xml version="1.0" encoding="UTF-8"?>
<usbconfig mode="whitelist">
  <class>USB_CLASS_MASS_STORAGE</class>
  <class>AINPUT_SOURCE_KEYBOARD</class>
  <vid vendorid="4617">
    <pid>44033</pid>
  </vid>
</usbconfig>
"""

BLACKLIST = """\
<?xml version="1.0" encoding="UTF-8"?>
<usbconfig mode="blacklist">
  <class>USB_CLASS_MASS_STORAGE</class>
  <class>AINPUT_SOURCE_KEYBOARD</class>
  <vid vendorid="1317"/>
  <vid vendorid="4617">
    <pid>44034</pid>
  </vid>
</usbconfig>
"""

BAD_LIST = WHITELIST.replace("USB_CLASS_MASS_STORAGE", "USB_CLASS_MASS_STORAG")

BY_DEFAULT = (
    _allowed(devices.STORAGE, _BY_DEFAULT),
    _left_to_input_side(devices.KEYBOARD),
    _input_allowed(devices.KEYBOARD, _BY_DEFAULT),
    _allowed(devices.NETWORK, _BY_DEFAULT),
    _allowed(devices.SERIAL, _BY_DEFAULT),
    _allowed(devices.VENDOR_HID, _BY_DEFAULT),
)

_BY_WHITELIST_BUT_VENDOR_HID = (
    _allowed(devices.STORAGE, "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "),
    _left_to_input_side(devices.KEYBOARD),
    _input_allowed(devices.KEYBOARD,
                   "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD "),
    _refused(devices.NETWORK, _NOT_WHITELISTED),
    _allowed(devices.SERIAL, "Whitelisted: Match by VID_PID combination, VID : 4617 PID: 44033"),
)

BY_WHITELIST = (*_BY_WHITELIST_BUT_VENDOR_HID, _refused(devices.VENDOR_HID, _NOT_WHITELISTED))

# Nothing has enumerated again: to the new daemon a HID device that is blocked, and so without a
# driver, is one for the input side. It stays blocked.
BY_WHITELIST_AFTER_CRASH = (*_BY_WHITELIST_BUT_VENDOR_HID, _refused(devices.VENDOR_HID, ""))

BY_BLACKLIST = (
    _refused(devices.STORAGE, "Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "),
    _left_to_input_side(devices.KEYBOARD),
    _input_refused(devices.KEYBOARD,
                   "Blacklisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD "),
    _refused(devices.NETWORK, "Blacklisted: Match by VID, VID : 1317"),
    _allowed(devices.SERIAL, _NOT_BLACKLISTED),
    _refused(devices.VENDOR_HID,
             "Blacklisted: Match by VID_PID combination, VID : 4617 PID: 44034"),
)

DAY = (
    Chapter("default mode: everything may be used", Begin.PLUG, BY_DEFAULT),
    Chapter("a whitelist: mass storage, keyboards and one serial adapter, nothing else",
            Begin.RULES, BY_WHITELIST, WHITELIST),
    Chapter("a whitelist with a misspelt class: the last good rules stay", Begin.BAD_RULES,
            text=BAD_LIST, status="INVALID CLASS VALUE:USB_CLASS_MASS_STORAG"),
    Chapter("the daemon crashes, and comes back with the last good rules", Begin.CRASH,
            BY_WHITELIST_AFTER_CRASH),
    Chapter("a blacklist: no disks, no keyboards, nothing of vendor 1317, one vendor's HID not",
            Begin.RULES, BY_BLACKLIST, BLACKLIST),
    Chapter("the ports are reset: all devices come again, under the same rules", Begin.RESET,
            BY_BLACKLIST),
)


class Failure(Exception):
    """The day cannot go on; the text says why."""


class Day:
    """Goes through the chapters and keeps the score."""

    def __init__(self, terminal: Terminal, paced: bool) -> None:
        self._terminal = terminal
        self._paced = paced
        self._agent = AgentEvents(terminal)
        self._log = terminal.follow(DAEMON_LOG)
        self._plugged: dict[Device, Plugged] = {}
        self._began = time.monotonic()
        self._demanded = 0
        self._crashes = 0
        self.verdicts = 0
        self.as_expected = 0
        self.missing = 0

    def live(self) -> None:
        begin = {Begin.PLUG: self._plug, Begin.RULES: self._write_rules,
                 Begin.BAD_RULES: self._write_bad_rules, Begin.CRASH: self._crash,
                 Begin.RESET: self._reset}
        self._agent.wait_for(VERDICT_TIMEOUT, event="ready")
        for chapter in DAY:
            print(f"\n-- {chapter.title}", flush=True)
            self._demanded += len(chapter.expected)
            waiting = list(chapter.expected)
            began = time.monotonic()
            begin[chapter.begin](chapter, waiting)
            self._take_verdicts(waiting)
            if chapter.begin in (Begin.RULES, Begin.RESET):
                print(f"   all judged {time.monotonic() - began:.1f} s later")
            for expected in waiting:
                self.missing += 1
                print(f" BAD  no verdict for {expected.device.name} ({expected.kind.value})")
            self._pause()
        print("\n-- what is on record at the end of the day")
        self._show("kusctl", "list")
        self._unplug()
        self._count_unasked_verdicts()
        self._check_exits()

    @property
    def good(self) -> bool:
        return self.missing == 0 and self.verdicts == self.as_expected == self._demanded

    # --- what happens ---------------------------------------------------------------------------

    def _plug(self, chapter: Chapter, waiting: list[Expected]) -> None:
        for device in dict.fromkeys(expected.device for expected in chapter.expected):
            self._plugged[device] = self._terminal.connect(device)
            if self._paced:
                self._take_verdicts(waiting, {device})
                self._pause()

    def _write_rules(self, chapter: Chapter, _: list[Expected]) -> None:
        self._write(chapter.text)
        self._terminal.wait_until(lambda: self._read(BACKUP_FILE) == chapter.text,
                                  VERDICT_TIMEOUT, "the backup to be the file")
        self._require_status(chapter.status)

    def _write_bad_rules(self, chapter: Chapter, _: list[Expected]) -> None:
        # An administrator would have asked first.
        self._terminal.write_file(DRAFT_FILE, chapter.text)
        self._show("kusctl", "check", DRAFT_FILE)
        self._skip_log()
        self._write(chapter.text)
        self._log.wait_for(f"{RESTORED}$", VERDICT_TIMEOUT)
        self._require_status(chapter.status)
        self._require(self._read(CONFIG_FILE) == self._read(BACKUP_FILE) != chapter.text,
                      "the backup is not back in place")
        print("   the backup is back in place", flush=True)

    def _crash(self, *_: object) -> None:
        self._crashes += 1
        self._skip_log()
        self._terminal.check_output("kill -SEGV $(status kusd | cut -d' ' -f2)")
        self._agent.wait_for(VERDICT_TIMEOUT, event="service", state="lost")
        self._agent.wait_for(VERDICT_TIMEOUT, event="service", state="connected")
        told = ("Segmentation fault", "Stack Trace", "/system/bin/kusd ")
        for line in self._log.unread():
            if any(text in line for text in told):
                print(f"   > {line.partition('] ')[2]}")
        self._require(self._read(CONFIG_FILE) == self._read(BACKUP_FILE),
                      "the backup is not back in place")
        print("   the daemon runs again", flush=True)

    def _reset(self, *_: object) -> None:
        self._terminal.check_output(["kus-client", "reset", "0"])

    def _show(self, *command: str) -> None:
        """Runs a command in the terminal as a person there sees it."""
        print(f"   $ {' '.join(command)}")
        for line in self._terminal.run(list(command)).stdout.splitlines():
            print(f"   {line}".rstrip())
        sys.stdout.flush()

    def _skip_log(self) -> None:
        """Passes over what the daemon has logged before the last command's end."""
        for _ in self._log.unread():
            pass

    def _write(self, text: str) -> None:
        for line in text.splitlines():
            print(f"   | {line}")
        self._terminal.write_file(CONFIG_FILE, text)

    def _read(self, path: str) -> str:
        return self._terminal.read_file(path).decode()

    def _require_status(self, wanted: str) -> None:
        status = self._read(STATUS_FILE)
        self._require(status == wanted, f"the status is '{status}', not '{wanted}'")
        print(f"   status: {status}", flush=True)

    @staticmethod
    def _require(true: bool, otherwise: str) -> None:
        if not true:
            raise Failure(otherwise)

    # --- verdicts -------------------------------------------------------------------------------

    def _take_verdicts(self, waiting: list[Expected], of: set[Device] | None = None) -> None:
        """Takes verdicts until all those of these devices have come, or none comes for long."""
        while any(of is None or expected.device in of for expected in waiting):
            event = self._agent.next(VERDICT_TIMEOUT)
            if event is None:
                return
            if event["event"] == "verdict":
                self._judge(event, waiting)
            elif event["event"] in ("service", "problem"):
                raise Failure(f"the agent reports {json.dumps(event)}")

    def _judge(self, event: Event, waiting: list[Expected]) -> None:
        self.verdicts += 1
        expected = next((candidate for candidate in waiting
                         if self._is_about(event, candidate)), None)
        if expected is None:
            print(f" BAD  not expected: {json.dumps(event)}", flush=True)
            return
        waiting.remove(expected)
        kernel_good, kernel = self._kernel_side(event, expected)
        good = (kernel_good and event["allowed"] == expected.allowed
                and event["reason"] == expected.reason)
        self.as_expected += good
        verdict = "allowed" if event["allowed"] else "refused"
        reason = event["reason"] or "(left to the input side)"
        print(f" {'ok ' if good else 'BAD'} {time.monotonic() - self._began:5.1f} s  "
              f"{expected.device.name:<10}  {expected.kind.value:<5}  {verdict}  "
              f"{kernel:<33}  {reason.rstrip()}", flush=True)
        if not good:
            print(f"      demanded: {'allowed' if expected.allowed else 'refused'}, "
                  f"{expected.kernel.value}, '{expected.reason}'; reported: {json.dumps(event)}")

    def _is_about(self, event: Event, expected: Expected) -> bool:
        device = expected.device
        if device not in self._plugged or event["kind"] != expected.kind.value:
            return False
        if (event["vendorId"], event["productId"]) != (device.vendor, device.product):
            return False
        if expected.kind is Kind.INPUT:
            return True
        # A controller that was switched off and on may have another bus number.
        self._terminal.locate(self._plugged[device])
        return bool(event["sysname"] == self._plugged[device].sysname)

    def _kernel_side(self, event: Event, expected: Expected) -> tuple[bool, str]:
        """Whether the kernel comes to show what is demanded, and what it shows."""
        plugged = self._plugged[expected.device]
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

    # --- the end --------------------------------------------------------------------------------

    def _unplug(self) -> None:
        waiting = {plugged.sysname for plugged in self._plugged.values()}
        for plugged in self._plugged.values():
            self._terminal.disconnect(plugged)
        while waiting:
            waiting.discard(self._agent.wait_for(VERDICT_TIMEOUT, event="removed",
                                                 kind="usb")["sysname"])
        print("\n   all unplugged", flush=True)

    def _count_unasked_verdicts(self) -> None:
        """Verdicts that came when no device had been plugged in."""
        while (event := self._agent.next(0)) is not None:
            self._agent.skipped.append(event)
        for event in self._agent.skipped:
            if event["event"] == "verdict":
                self.verdicts += 1
                print(f" BAD  not expected: {json.dumps(event)}")

    def _check_exits(self) -> None:
        """A daemon that crashed when nobody made it is no good daemon."""
        exits = self._terminal.check_output("cat /data/log/services.log").splitlines()
        wanted = "kusd exited with status 11"
        self._require(len(exits) == self._crashes and all(line.endswith(wanted) for line in exits),
                      "services ended on their own:\n" + "\n".join(exits))

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
