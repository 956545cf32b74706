#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""What the daemon costs in the virtual terminal: real binder, real sysfs, real uevents.

All is measured in one run of one machine, by the terminal's own CLOCK_MONOTONIC. The terminal has
one processor for it: two emulated ones that hand a call over to each other measure the emulator.
Whatever is a ratio, and has a target, is of two things that were done by turns.

Debian's USBGuard is measured for comparison on the same devices. The two do not do the same work
up to their verdicts:

* kusd lets the kernel configure a device and bind its drivers, is asked when that is done, and
  takes the drivers away again from what it refuses. Its verdict is timed when the agent, which has
  asked it, has written it to its log.
* USBGuard has the kernel leave every new device alone (authorized_default), reads its descriptors,
  judges it before it has interfaces, and has it configured if it may be used. Its verdict is timed
  when it has written what it has decided and done to its audit log.

    benchmarks/vm/vm_bench.py [--smoke] [FILE]      writes build/bench/vm.json, or FILE
"""

from __future__ import annotations

import argparse
import concurrent.futures
import contextlib
import dataclasses
import json
import math
import re
import statistics
import sys
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(ROOT), str(ROOT / "tests" / "vm")]

from support import (BACKUP_FILE, CONFIG_FILE, FOR_MANY_CALLS, TIMEOUT, AgentLog,  # noqa: E402
                     Process, class_rule, policy, vendor_rule)
from vm import agent, image  # noqa: E402
from vm.devices import (COMPOSITE, ETHERNET, FTDI_SERIAL, GADGET_STORAGE, HUB,  # noqa: E402
                        KEYBOARD, MOUSE, NETWORK, PRINTER, SERIAL, STORAGE, VENDOR_HID)
from vm.terminal import HSUSB, SSUSB, Plugged, Terminal  # noqa: E402

REPORT = image.BUILD / "bench/vm.json"
# Unpacked there by host/setup bench.
OTHER_PROGRAMS = image.BUILD / "deps/bench-arm64"
PROGRAMS = (image.CHANNEL, *image.PROGRAMS, *image.PLATFORM_PROGRAMS, "bench-binder",
            "bench-callbacks", "bench-scan", "bench-starts", "bench-times", "bench-warning.so",
            "usbguard-daemon")

DAEMON_LOG = "/data/log/kusd.log"
AUDIT_LOG = "/var/log/usbguard/usbguard-audit.log"
EMPTY_SERVICE = "bench.empty"

# A dozen rules. Disks, serial ports and network adapters have none and are refused.
CLASSES = {"USB_CLASS_AUDIO": 0x01, "USB_CLASS_STILL_IMAGE": 0x06, "USB_CLASS_PRINTER": 0x07,
           "USB_CLASS_VIDEO": 0x0E}
SOURCES = ("AINPUT_SOURCE_KEYBOARD", "AINPUT_SOURCE_MOUSE")
VENDORS = (1133, 1118, 1452)
PRODUCTS = ((1267, 4660), (1267, 4661), (2385, 5734))
RULES = policy("whitelist", *map(class_rule, (*CLASSES, *SOURCES)), *map(vendor_rule, VENDORS),
               *(vendor_rule(vendor, product) for vendor, product in PRODUCTS))
# The same for USBGuard, which knows input devices by their interface's class alone.
USBGUARD_RULES = "".join(f"allow {attributes}\n" for attributes in (
    "with-interface equals { 09:00:00 }",
    *(f"with-interface all-of {{ {code:02x}:*:* }}" for code in CLASSES.values()),
    "with-interface all-of { 03:*:* }",
    *(f"id {vendor:04x}:*" for vendor in VENDORS),
    *(f"id {vendor:04x}:{product:04x}" for vendor, product in PRODUCTS)))

REFUSED = (GADGET_STORAGE, SERIAL, ETHERNET)
# Plugged in when sysfs is scanned, with two hubs, one behind the other.
BEHIND_INNER_HUB = (STORAGE, KEYBOARD, MOUSE)
BEHIND_OUTER_HUB = (FTDI_SERIAL,)
AT_THE_MACHINE = (NETWORK, SERIAL, VENDOR_HID, ETHERNET, PRINTER, COMPOSITE)
# Judged again when the rules change.
ATTACHED = (GADGET_STORAGE, SERIAL, STORAGE)

CLIENTS = (1, 8, 64)
MANY_DEVICES = 1000
MANY_RULES = 100_000

Uevent = dict[str, str]


@dataclasses.dataclass(frozen=True)
class Rounds:
    """How often each thing is done."""

    binder_blocks: int
    scans: int
    plugs: int
    decisions: int
    rewrites: int
    starts: int


FULL = Rounds(binder_blocks=75, scans=15, plugs=200, decisions=21, rewrites=20, starts=20)
SMOKE = Rounds(binder_blocks=1, scans=1, plugs=3, decisions=1, rewrites=1, starts=1)


class Report:
    def __init__(self) -> None:
        self._figures: list[dict[str, object]] = []
        self._targets: list[dict[str, object]] = []

    def figure(self, name: str, value: float, unit: str) -> None:
        self._figures.append({"name": name, "value": value, "unit": unit})

    def percentiles(self, name: str, seconds: Sequence[float]) -> None:
        for percent in (50, 99):
            self.figure(f"{name}_p{percent}", percentile(seconds, percent) * 1e3, "ms")

    def target(self, name: str, value: float, limit: float) -> None:
        self._targets.append({"name": name, "value": value, "limit": limit})

    def write(self, path: Path) -> None:
        path.parent.mkdir(parents=True, exist_ok=True)
        content = {"figures": self._figures, "targets": self._targets}
        path.write_text(json.dumps(content, indent=2) + "\n")


def percentile(values: Sequence[float], percent: int) -> float:
    """The smallest value that so many percent of all do not exceed."""
    return sorted(values)[math.ceil(len(values) * percent / 100) - 1]


class Times:
    """Of lines "NAME NANOSECONDS": the times of each name, in order."""

    def __init__(self, output: str) -> None:
        self.of: dict[str, list[int]] = {}
        for line in output.splitlines():
            name, nanoseconds = line.split()
            self.of.setdefault(name, []).append(int(nanoseconds))

    def median(self, name: str) -> float:
        """In seconds."""
        return statistics.median(self.of[name]) / 1e9

    def ratio(self, name: str, base: str, turns: int) -> float:
        """The median over the turns that the two took, for what else the machine has to do is the
        same for both within one turn, and another at the next."""
        medians = [[statistics.median(times[begin:begin + len(times) // turns])
                    for begin in range(0, len(times), len(times) // turns)]
                   for times in (self.of[name], self.of[base])]
        return statistics.median(time / other for time, other in zip(*medians, strict=True))


# --- the terminal's services ----------------------------------------------------------------------


@contextlib.contextmanager
def daemon(terminal: Terminal, rules: str, info: bool = True) -> Iterator[int]:
    """The daemon with these rules, as the terminal runs it, or with messages from WARNING on.
    Gives its process id."""
    terminal.write_file(CONFIG_FILE, rules)
    environment = "" if info else "env LD_PRELOAD=/system/bin/bench-warning.so "
    terminal.write_file("/etc/services/kusd",
                        f"#!/bin/sh\nexec init-rc rights kusd {environment}kusd\n")
    pid = terminal.start("kusd")
    terminal.check_output(["kus-client", "ping", "--wait", str(int(TIMEOUT))])
    yield pid
    terminal.stop("kusd")


@contextlib.contextmanager
def running_agent(terminal: Terminal) -> Iterator[AgentLog]:
    log = AgentLog(terminal)
    mark = log.mark()
    terminal.start("kus-hotplug")
    log.wait_for(mark, event="ready")
    yield log
    terminal.stop("kus-hotplug")
    log.close()


class TimedLines:
    """The lines that come to a file of the terminal, with the second in which each one did."""

    def __init__(self, terminal: Terminal, path: str) -> None:
        self._process = Process(terminal, ["bench-times", "follow", path])
        if self._process.next_line() != "ready":
            raise RuntimeError(f"{path} cannot be followed")

    def wait_for(self, matches: Callable[[str], object], since: float = 0.0) -> float:
        """When the next line came that matches, and was not there before `since`; those that come
        before it are passed over."""
        while True:
            nanoseconds, _, line = self._process.next_line().partition(" ")
            if matches(line) and int(nanoseconds) / 1e9 > since:
                return int(nanoseconds) / 1e9

    def close(self) -> None:
        self._process.kill()


def verdict_of(line: str) -> str:
    """The name of the USB device of which the agent's line tells the verdict, or nothing."""
    event = json.loads(line) if line.startswith("{") else {}
    is_verdict = event.get("event") == "verdict" and event["kind"] == "usb"
    return event["sysname"] if is_verdict else ""


# --- devices that come and go ---------------------------------------------------------------------


def seconds(event: Uevent) -> float:
    return float(event["MONOTONIC"])


class Cable:
    """A gadget's cable, which can be pulled and put in again while the gadget stays."""

    def __init__(self, terminal: Terminal, plugged: Plugged) -> None:
        self._terminal = terminal
        self.plugged = plugged
        self._mark = 0

    def put_in(self) -> float:
        """Gives a time before anybody can know of it."""
        self._mark = self._terminal.uevent_mark()
        uptime = self._terminal.check_output(["cut", "-d ", "-f1", "/proc/uptime"])
        self._set_udc(f"dummy_udc.{self.plugged.port}")
        return float(uptime)

    def pull(self) -> None:
        self._set_udc("")
        self.wait_for("remove", "usb_device")

    def _set_udc(self, name: str) -> None:
        gadget = f"/sys/kernel/config/usb_gadget/{self.plugged.identity}"
        self._terminal.check_output(f"echo '{name}' > {gadget}/UDC")

    def wait_for(self, action: str, kind: str) -> float:
        """When it had happened to the device, or the last of its interfaces, since it was put
        in."""
        wanted = 1 if kind == "usb_device" else len(self.plugged.device.interfaces)

        def found() -> list[Uevent]:
            events = [event for event in self._terminal.uevents_since(self._mark)
                      if event["ACTION"] == action and event.get("DEVTYPE") == kind
                      and self._is_own(event)]
            return events if len(events) >= wanted else []
        what = f"{action} of {self.plugged} ({kind})"
        return max(map(seconds, self._terminal.wait_until(found, TIMEOUT, what)))

    def _is_own(self, event: Uevent) -> bool:
        name = event["DEVPATH"].rpartition("/")[2]
        return name.partition(":")[0] == self.plugged.sysname


def unplugged_cables(terminal: Terminal) -> list[Cable]:
    # One reset of the port less, before anybody hears of the device.
    terminal.check_output("echo Y > /sys/module/usbcore/parameters/old_scheme_first")
    cables = [Cable(terminal, terminal.plug(device)) for device in REFUSED]
    for cable in cables:
        cable.pull()
    return cables


def plug_all(terminal: Terminal) -> list[Plugged]:
    """A dozen devices, each with its drivers bound."""
    outer = terminal.plug(HUB)
    inner = terminal.plug(HUB, behind=outer)
    wanted = [*((device, inner) for device in BEHIND_INNER_HUB),
              *((device, outer) for device in BEHIND_OUTER_HUB),
              *((device, None) for device in AT_THE_MACHINE)]
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        plugged = list(pool.map(lambda each: terminal.plug(*each), wanted))
    for each in plugged:
        terminal.wait_until_works(each)
    return [*plugged, inner, outer]


# --- what is measured -----------------------------------------------------------------------------


class Bench:
    def __init__(self, terminal: Terminal, rounds: Rounds, report: Report) -> None:
        self._terminal = terminal
        self._rounds = rounds
        self._report = report

    def run(self) -> None:
        self.binder_calls()
        self.callbacks()
        self.starts()
        self.memory()
        self.scans()
        self.rewrites()
        cables = unplugged_cables(self._terminal)
        self.plugs(cables)
        self.plugs_with_usbguard(cables)

    def _output(self, program: str, *arguments: object) -> str:
        return self._terminal.check_output([program, *map(str, arguments)], timeout=120)

    def binder_calls(self) -> None:
        empty = Process(self._terminal, ["bench-binder", "empty", EMPTY_SERVICE])
        empty.next_line()
        for suffix, info in (("", False), ("_info", True)):
            with daemon(self._terminal, RULES, info):
                times = Times(self._output("bench-binder", "compare", EMPTY_SERVICE,
                                           self._rounds.binder_blocks))
            for name in times.of:
                self._report.figure(f"binder_input_{name}{suffix}_p50", times.median(name) * 1e6,
                                    "us")
            self._report.target(f"binder_input_over_empty{suffix}",
                                times.ratio("daemon", "empty", self._rounds.binder_blocks), 1.30)
        empty.kill()

    def callbacks(self) -> None:
        rules = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"))
        for clients in (0, *CLIENTS):
            with daemon(self._terminal, rules):
                times = Times(self._output("bench-callbacks", clients, self._rounds.decisions))
            for name in times.of:
                self._report.figure(f"callbacks_{clients}_{name}_p50", times.median(name) * 1e3,
                                    "ms")

    def starts(self) -> None:
        self._terminal.write_file(CONFIG_FILE, RULES)
        times = self._output("bench-starts", self._rounds.starts, DAEMON_LOG).split()
        self._report.figure("start_to_service_p50", statistics.median(map(int, times)) / 1e6, "ms")

    def memory(self) -> None:
        # New rules have the controllers reset, but for those that are off. The messages of a
        # hundred thousand rules are as many as they are slow; they take no memory of the daemon's.
        self._set_modes("none")
        with daemon(self._terminal, RULES, info=False) as pid:
            self._tell_memory("idle", pid)
            self._output("bench-binder", "judge", MANY_DEVICES)
            self._tell_memory(f"{MANY_DEVICES}_devices", pid)
            many = policy("whitelist", *map(vendor_rule, range(MANY_RULES)))
            self._take_over(pid, many)
            self._check_verdict(MANY_RULES - 1, "allowed")
            self._tell_memory(f"{MANY_RULES}_rules", pid)
            self._take_over(pid, RULES)
            self._check_verdict(MANY_RULES - 1, "refused")
            self._tell_memory("small_file_again", pid)
        self._set_modes("host")

    def _set_modes(self, mode: str) -> None:
        for node in (HSUSB, SSUSB):
            self._terminal.set_mode(node, mode)

    def _take_over(self, pid: int, rules: str) -> None:
        """Writes the rules and waits until the daemon has taken them over and its memory rests."""
        self._terminal.check_output(["bench-times", "write", CONFIG_FILE], data=rules.encode())
        self._terminal.wait_until(
            lambda: self._terminal.run(["cmp", "-s", CONFIG_FILE, BACKUP_FILE]).status == 0,
            TIMEOUT, "the rules to be taken over")
        seen: list[int] = []

        def settled() -> bool:
            seen.append(self._sizes(pid)["Rss"])
            return len(seen) > 2 and seen[-1] == seen[-2] == seen[-3]
        self._terminal.wait_until(settled, TIMEOUT, "the daemon's memory to settle")

    def _sizes(self, pid: int | str) -> dict[str, int]:
        rollup = self._terminal.read_file(f"/proc/{pid}/smaps_rollup").decode()
        return {name: int(size) for name, size in re.findall(r"(\w+): +(\d+) kB", rollup)}

    def _check_verdict(self, vendor: int, wanted: str) -> None:
        """The rules that are in force must be those that were meant."""
        answer = self._output("kus-client", "decide", "--id", 1, "--type", 1, "--vid", vendor)
        if answer != f"{wanted}\n":
            raise RuntimeError(f"a device of vendor {vendor} is {answer}")

    def _tell_memory(self, when: str, pid: int | str) -> None:
        sizes = self._sizes(pid)
        for name in ("Rss", "Pss", "Private_Dirty"):
            self._report.figure(f"memory_{when}_{name.lower()}", sizes[name], "KB")

    def scans(self) -> None:
        plugged = plug_all(self._terminal)
        times = Times(self._output("bench-scan", self._rounds.scans))
        for name in times.of:
            self._report.figure(f"usb_{name}_p50", times.median(name) * 1e3, "ms")
        for suffix in ("", "_info"):
            self._report.target(f"scan_over_libudev{suffix}",
                                times.ratio(f"scan{suffix}", "libudev", self._rounds.scans), 0.50)
        for each in plugged:
            each.unplug()

    def rewrites(self) -> None:
        """From the file's close to the first verdict, with devices attached to both controllers.
        In between the observer parses, makes the backup, and takes the controllers out of host
        mode and back, with the pauses that the hardware needs."""
        times = []
        with daemon(self._terminal, RULES), running_agent(self._terminal) as log:
            lines = TimedLines(self._terminal, agent.LOG)
            mark = log.mark()
            attached = [self._terminal.connect(device) for device in ATTACHED]
            self._wait_for_verdicts(log, mark)
            for _ in range(self._rounds.rewrites):
                mark = log.mark()
                closed = int(self._terminal.check_output(["bench-times", "write", CONFIG_FILE],
                                                         data=RULES.encode())) / 1e9
                times.append(lines.wait_for(verdict_of, since=closed) - closed)
                # The next file is written when this one's rules have been asked about all.
                self._wait_for_verdicts(log, mark)
            lines.close()
            for each in attached:
                self._terminal.locate(each)
                each.unplug()
        self._report.percentiles("close_to_first_verdict", times)

    def _wait_for_verdicts(self, log: AgentLog, mark: int) -> None:
        self._terminal.wait_until(
            lambda: len(log.events(mark, event="verdict", kind="usb")) >= len(ATTACHED),
            TIMEOUT, "verdicts on the attached devices")

    def plugs(self, cables: Sequence[Cable]) -> None:
        to_verdict, to_unbind, from_ready = [], [], []
        with daemon(self._terminal, RULES), running_agent(self._terminal):
            lines = TimedLines(self._terminal, agent.LOG)
            for number in range(self._rounds.plugs):
                cable = cables[number % len(cables)]
                verdict = lines.wait_for(
                    lambda line: verdict_of(line) == cable.plugged.sysname, since=cable.put_in())
                attached = cable.wait_for("add", "usb_device")
                to_verdict.append(verdict - attached)
                to_unbind.append(cable.wait_for("unbind", "usb_interface") - attached)
                from_ready.append(verdict - cable.wait_for("bind", "usb_device"))
                cable.pull()
            lines.close()
        self._report.percentiles("attach_to_verdict", to_verdict)
        self._report.percentiles("attach_to_unbind", to_unbind)
        self._report.percentiles("ready_to_verdict", from_ready)

    def plugs_with_usbguard(self, cables: Sequence[Cable]) -> None:
        times = []
        pid = self._start_usbguard()
        self._tell_memory("usbguard", pid)
        lines = TimedLines(self._terminal, AUDIT_LOG)
        for number in range(self._rounds.plugs):
            cable = cables[number % len(cables)]
            refused = re.compile(
                rf"result='SUCCESS'.*/{cable.plugged.sysname}' target\.new='block'.*"
                r"type='Policy\.Device\.Update'")
            verdict = lines.wait_for(refused.search, since=cable.put_in())
            times.append(verdict - cable.wait_for("add", "usb_device"))
            cable.pull()
        lines.close()
        self._report.percentiles("usbguard_attach_to_verdict", times)

    def _start_usbguard(self) -> str:
        """As Debian's package starts it, with its configuration and with rules."""
        self._terminal.check_output(
            "mkdir -p /etc/usbguard/rules.d /etc/usbguard/IPCAccessControl.d /var/log/usbguard "
            "/var/run; umask 077; : > /etc/usbguard/rules.conf")
        configuration = (OTHER_PROGRAMS / "etc/usbguard/usbguard-daemon.conf").read_bytes()
        for path, content in (("usbguard-daemon.conf", configuration),
                              ("rules.conf", USBGUARD_RULES.encode())):
            self._terminal.write_file(f"/etc/usbguard/{path}", content)
            self._terminal.check_output(["chmod", "600", f"/etc/usbguard/{path}"])
        self._terminal.check_output("usbguard-daemon -f -s -c /etc/usbguard/usbguard-daemon.conf "
                                    "> /data/log/usbguard.log 2>&1 < /dev/null")
        return self._terminal.check_output(["pidof", "usbguard-daemon"]).strip()


def run(smoke: bool, report: Path) -> None:
    """Measures all, each thing as often as it takes, or as often as shows that it works, and
    writes the report."""
    results = Report()
    sources = dataclasses.replace(image.Sources(), others=(OTHER_PROGRAMS,))
    with Terminal("bench", start="servicemanager", programs=PROGRAMS, options=FOR_MANY_CALLS,
                  sources=sources) as terminal:
        Bench(terminal, SMOKE if smoke else FULL, results).run()
    results.write(report)


def main() -> int:
    parser = argparse.ArgumentParser(description="the section vm of ./bench")
    parser.add_argument("--smoke", action="store_true", help="each thing once")
    parser.add_argument("report", nargs="?", type=Path, default=REPORT)
    arguments = parser.parse_args()
    run(arguments.smoke, arguments.report)
    print(arguments.report.read_text(), end="")
    return 0


if __name__ == "__main__":
    sys.exit(main())
