# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""What the tests of the daemon in the virtual terminal share: rules, logs, clients, a fixture.

Nothing here sleeps. A command's result comes over the same channel as the lines of a followed file
and as the output of a client, in the order in which they were written: once a call of the daemon
has returned, everything that it logged and all that it told its clients is here.
"""

from __future__ import annotations

import concurrent.futures
import json
import re
import shlex
import signal
import sys
import time
import unittest
from collections.abc import Callable, Iterable, Mapping
from pathlib import Path
from typing import Any, Generic, NamedTuple, TypeVar

ROOT = Path(__file__).resolve().parent.parent.parent
if str(ROOT) not in sys.path:
    sys.path.insert(0, str(ROOT))

from vm import channel  # noqa: E402
from vm.devices import Device, DeviceState  # noqa: E402
from vm.terminal import Plugged, Terminal  # noqa: E402

CONFIG_DIR = "/data/system/usbdeviceconfig"
CONFIG_FILE = f"{CONFIG_DIR}/usb_device_config.xml"
BACKUP_FILE = f"{CONFIG_DIR}/usb_device_config_backup.xml"
STATUS_FILE = f"{CONFIG_DIR}/status.txt"
# Makes it anew, as init makes it.
MAKE_CONFIG_DIR = (f"rm -rf {CONFIG_DIR} && mkdir -m 0770 {CONFIG_DIR} && "
                   f"chown system:system {CONFIG_DIR}")
# The daemon by hand, and its start-up task, with the rights that init gives each.
RUN_DAEMON = "init-rc rights kusd kusd"
RUN_TASKS = "init-rc rights kusd-startup-tasks kusd run-startup-tasks"
PROPERTY_DIR = "/run/kus-properties"
AUTOMATION = "ro.config.device.kus_automation"

TIMEOUT = 30.0

# Where a driver's work becomes something that a user has.
NODE_SUBSYSTEMS = {"block", "hidraw", "input", "net", "tty", "usbmisc"}

Event = dict[str, Any]
T = TypeVar("T")


class Node(NamedTuple):
    """A file that a driver has made. The name in /dev may be another device's by now: what it is
    the name of tells."""

    path: str
    owner: str


# --- rules ----------------------------------------------------------------------------------------


def policy(mode: str, *rules: str) -> str:
    body = "".join(f"  {rule}\n" for rule in rules)
    return (f'<?xml version="1.0" encoding="UTF-8"?>\n<usbconfig mode="{mode}">\n'
            f"{body}</usbconfig>\n")


def class_rule(name: str) -> str:
    return f"<class>{name}</class>"


def vendor_rule(vendor: int, *products: int) -> str:
    inner = "".join(f"<pid>{product}</pid>" for product in products)
    return f'<vid vendorid="{vendor}">{inner}</vid>'


DEFAULT_POLICY = policy("default")


def rules(*lines: str) -> bytes:
    return policy("whitelist", *lines).encode()


# What becomes of files that cannot be used: the text in the status file.
BAD_FILES: tuple[tuple[bytes, str], ...] = (
    (b"<config mode='default'/>", "INVALID ROOT ELEMENT : config"),
    (b"<usbconfig/>", "MODE NOT PRESENT"),
    (b"<usbconfig mode='Whitelist'/>", "INVALID MODE"),
    (rules("<class/>"), "EMPTY CLASS VALUE"),
    (rules("<class>USB_CLASS_HID</class>"), "INVALID CLASS VALUE:USB_CLASS_HID"),
    (rules("<class> USB_CLASS_AUDIO</class>"), "INVALID CLASS VALUE: USB_CLASS_AUDIO"),
    (rules("<vid/>"), "vendorid TAG NOT PRESENT"),
    (rules("<vid vendorid=''/>"), "EMPTY VENDOR ID VALUE"),
    (rules("<vid vendorid='0x046d'/>"), "INVALID VENDOR ID VALUE:0x046d"),
    (rules("<vid vendorid='1'><pid/></vid>"), "EMPTY PRODUCT ID VALUE"),
    (rules("<vid vendorid='1'><pid>5</pid><name>abc</name></vid>"),
     "INVALID PRODUCT ID VALUE:abc"),
    (rules("<device/>"), "INVALID TAG:device"),
)

# Files that are no XML: the name of the library's error. Its text tells more.
NO_XML: tuple[tuple[bytes, str], ...] = (
    (b"", "XML_ERROR_EMPTY_DOCUMENT"),
    (b"<usbconfig mode='default'>\n<class>\n</usbconfig>", "XML_ERROR_MISMATCHED_ELEMENT"),
)


# --- figures --------------------------------------------------------------------------------------


def figure(name: str, value: str) -> None:
    """Tells whoever runs the tests what a test has measured."""
    print(f"\nfigure: {name}: {value}", flush=True)


# --- logs -----------------------------------------------------------------------------------------


class Stream(Generic[T]):
    """What the lines of a log say, as far as they say something, from the time of its making."""

    def __init__(self, terminal: Terminal, path: str, parse: Callable[[str], T | None]) -> None:
        self._follow = terminal.follow(path)
        self._parse = parse
        self._seen: list[T] = []

    def _add(self, line: str) -> None:
        item = self._parse(line)
        if item is not None:
            self._seen.append(item)

    def mark(self) -> int:
        """The place behind all that has been written up to now."""
        for line in self._follow.unread():
            self._add(line)
        return len(self._seen)

    def since(self, mark: int) -> list[T]:
        self.mark()
        return self._seen[mark:]

    def close(self) -> None:
        """Follows the file no longer."""
        self._follow.close()

    def wait(self, mark: int, matches: Callable[[T], object], what: object,
             timeout: float = TIMEOUT) -> T:
        """The first item behind `mark` that matches, waited for."""
        deadline = time.monotonic() + timeout
        position = mark
        while True:
            for item in self._seen[position:]:
                if matches(item):
                    return item
            position = max(position, len(self._seen))
            line = self._follow.next_line(deadline - time.monotonic())
            if line is None:
                tail = "\n".join(self._follow.seen[-20:])
                raise TimeoutError(f"{self._follow.path}: no {what} within {timeout:g} s; the last "
                                   f"lines are:\n{tail}")
            self._add(line)


class LogLine(NamedTuple):
    severity: str
    pid: int
    thread: int
    source: str
    message: str


_LOG_LINE = re.compile(r"\S+ ([VDIWEF]) \S+ \S+ +(\d+) +(\d+) (\w+\.cpp):\d+\] (.*)")


def parse_log_line(line: str) -> LogLine | None:
    match = _LOG_LINE.fullmatch(line)
    if match is None:
        return None
    severity, pid, thread, source, message = match.groups()
    return LogLine(severity, int(pid), int(thread), source, message)


class DaemonLog(Stream[LogLine]):
    def __init__(self, terminal: Terminal, path: str = "/data/log/kusd.log") -> None:
        super().__init__(terminal, path, parse_log_line)

    def wait_for(self, mark: int, message: str, timeout: float = TIMEOUT) -> LogLine:
        return self.wait(mark, lambda line: line.message == message, f"line '{message}'", timeout)

    def messages(self, mark: int, pattern: str = "") -> list[str]:
        """The messages behind `mark` in which the regular expression is found."""
        return [line.message for line in self.since(mark) if re.search(pattern, line.message)]


def parse_event(line: str) -> Event | None:
    return json.loads(line) if line.startswith("{") else None


def is_subset(wanted: Mapping[str, object], event: Event) -> bool:
    return wanted.items() <= {key: value for key, value in event.items()
                              if not isinstance(value, list)}.items()


class AgentLog(Stream[Event]):
    def __init__(self, terminal: Terminal, path: str = "/data/log/kus-hotplug.log") -> None:
        super().__init__(terminal, path, parse_event)

    def wait_for(self, mark: int, timeout: float = TIMEOUT, **fields: object) -> Event:
        return self.wait(mark, lambda event: is_subset(fields, event), fields, timeout)

    def events(self, mark: int, **fields: object) -> list[Event]:
        return [event for event in self.since(mark) if is_subset(fields, event)]


# --- clients --------------------------------------------------------------------------------------


class Process:
    """A program that runs in the terminal beside the test, one line of output at a time."""

    def __init__(self, terminal: Terminal, command: list[str]) -> None:
        self._command = shlex.join(command)
        self._task = terminal.channel.open(channel.RUN, b"\0exec " + self._command.encode())
        self._lines: list[str] = []
        self._rest = b""
        self._errors = b""
        self._over = False

    def _take(self, deadline: float) -> bool:
        """Takes one frame; False if none comes in time or the program has ended."""
        if self._over:
            return False
        frame = self._task.next(deadline)
        if frame is None:
            return False
        kind, payload = frame
        if kind == channel.OUTPUT:
            *lines, self._rest = (self._rest + payload).split(b"\n")
            self._lines += [line.decode() for line in lines]
        elif kind == channel.ERRORS:
            self._errors += payload
        elif kind == channel.EXIT:
            self._over = True
        return True

    def lines(self) -> list[str]:
        """The lines that have come since the last look."""
        while self._take(time.monotonic()):
            pass
        lines, self._lines = self._lines, []
        return lines

    def next_line(self, timeout: float = TIMEOUT) -> str:
        deadline = time.monotonic() + timeout
        while not self._lines:
            if not self._take(deadline):
                raise TimeoutError(f"'{self._command}' prints nothing within {timeout:g} s; it "
                                   f"{'has ended' if self._over else 'runs'}: {self._errors!r}")
        return self._lines.pop(0)

    def send(self, line: str) -> None:
        self._task.send_input(line.encode() + b"\n")

    def signal(self, number: int) -> None:
        self._task.kill(number)

    def end_input(self) -> None:
        self._task.send(channel.INPUT_END)

    def wait(self, timeout: float = TIMEOUT) -> None:
        """Waits until the program has ended."""
        deadline = time.monotonic() + timeout
        while not self._over:
            if not self._take(deadline):
                raise TimeoutError(f"'{self._command}' has not ended within {timeout:g} s")

    def kill(self) -> None:
        if not self._over:
            self.signal(signal.SIGKILL)
            self.wait()


class Watcher(Process):
    """A client process whose callback is registered `registrations` times."""

    def __init__(self, terminal: Terminal, registrations: int = 1) -> None:
        super().__init__(terminal, ["kus-client", "watch", "--register", str(registrations)])
        answer = self.next_line()
        if answer != "registered":
            raise AssertionError(f"kus-client watch says '{answer}'")

    def command(self, line: str) -> str:
        """Sends a command and returns its answer; no event may be on its way."""
        self.send(line)
        return self.next_line()

    def events(self) -> list[Event]:
        """What the daemon has told this client since the last look."""
        return [json.loads(line) for line in self.lines()]


class PropertyChange(NamedTuple):
    """`time` is that of the terminal's monotonic clock, in seconds."""

    time: float
    name: str
    value: str


class PropertyWatch(Process):
    """Tells every setting of a property from the time of its making, in order."""

    _LINE = re.compile(r"(\d+\.\d{6}) (\S+) = '(.*)'")

    def __init__(self, terminal: Terminal) -> None:
        super().__init__(terminal, ["watchprops"])
        answer = self.next_line()
        if answer != "watching":
            raise AssertionError(f"watchprops says '{answer}'")

    def _parse(self, line: str) -> PropertyChange:
        match = self._LINE.fullmatch(line)
        if match is None:
            raise AssertionError(f"watchprops says '{line}'")
        return PropertyChange(float(match[1]), match[2], match[3])

    def next_change(self, timeout: float = TIMEOUT) -> PropertyChange:
        return self._parse(self.next_line(timeout))

    def changes(self) -> list[PropertyChange]:
        """What has been set since the last look."""
        return [self._parse(line) for line in self.lines()]


# --- what a device must come to -------------------------------------------------------------------


class Verdict(NamedTuple):
    allowed: bool
    reason: str


def allowed(reason: str) -> Verdict:
    return Verdict(True, reason)


def refused(reason: str) -> Verdict:
    return Verdict(False, reason)


class Screened(NamedTuple):
    """Refused as a USB device without a record and left alone, then judged as an input device."""

    as_input: Verdict


Outcome = Verdict | Screened


# --- the fixture ----------------------------------------------------------------------------------


_terminals: dict[tuple[tuple[str, ...], tuple[str, ...]], Terminal] = {}

# Two emulated processors that hand every call over to each other cost ten times what one does that
# does all, and more on a busy machine; half as much again goes into the kernel's defences.
FOR_MANY_CALLS = ("maxcpus=1", "kpti=off", "nokaslr", "mitigations=off")


class DaemonTestCase(unittest.TestCase):
    """One terminal for all classes of a module that want the same services in it. Each test takes
    away what it has plugged in, its clients and its properties, and begins with its own rules."""

    services: tuple[str, ...] = ("servicemanager", "kusd", "kus-hotplug")
    # More words for the kernel's command line.
    options: tuple[str, ...] = ()
    terminal: Terminal
    log: DaemonLog
    agent: AgentLog

    @classmethod
    def setUpClass(cls) -> None:
        key = (cls.services, cls.options)
        if key not in _terminals:
            _terminals[key] = unittest.enterModuleContext(
                Terminal(cls.__module__, start=",".join(cls.services) or "none",
                         options=cls.options))
        cls.terminal = _terminals[key]
        cls.log = DaemonLog(cls.terminal)
        cls.agent = AgentLog(cls.terminal)
        if "kus-hotplug" in cls.services:
            cls.agent.wait_for(0, event="ready")
        elif "kusd" in cls.services:
            cls.log.wait_for(0, "kus service Registered successfully")

    def setUp(self) -> None:
        # Devices that this test has plugged in and not unplugged itself.
        self.plugged: list[Plugged] = []
        self.addCleanup(self._unplug_what_is_left)

    def _unplug_what_is_left(self) -> None:
        # What is behind a hub goes before it. Whether there is an agent to notice is open.
        levels = {each.path.count(".") for each in self.plugged}
        for level in sorted(levels, reverse=True):
            with concurrent.futures.ThreadPoolExecutor(4) as pool:
                list(pool.map(self.terminal.unplug, [each for each in self.plugged
                                                     if each.path.count(".") == level]))

    # --- services -------------------------------------------------------------------------------

    def put_policy(self, text: str | bytes) -> None:
        self.terminal.write_file(CONFIG_FILE, text)

    def start_daemon(self) -> int:
        """Starts the daemon, waits until its service and, if there is one, the agent are ready to
        judge, and returns its process id."""
        agent_runs = self.terminal.status("kus-hotplug").state == "running"
        log, agent = self.log.mark(), self.agent.mark()
        pid = self.terminal.start("kusd")
        self.log.wait_for(log, "kus service Registered successfully")
        if agent_runs:
            self.agent.wait_for(agent, event="rescan", reason="service")
        return pid

    def stop_daemon(self) -> None:
        """Stops the daemon and waits until the agent, if there is one, knows."""
        agent_runs = self.terminal.status("kus-hotplug").state == "running"
        agent = self.agent.mark()
        self.terminal.stop("kusd")
        if agent_runs:
            self.agent.wait_for(agent, event="service", state="lost")

    def use_policy(self, text: str) -> int:
        """Has a fresh daemon take its rules from `text`; returns its process id."""
        self.stop_daemon()
        self.put_policy(text)
        return self.start_daemon()

    def keep_memory_in_one_pool(self) -> None:
        """For the daemons that this test starts from here on: what the allocator keeps for each
        thread, for the next time, would pass for a loss, or hide one."""
        script = "/etc/services/kusd"
        content = self.terminal.read_file(script)
        self.addCleanup(self.terminal.write_file, script, content)
        self.terminal.write_file(script, "#!/bin/sh\nexport MALLOC_ARENA_MAX=1\n"
                                 "export GLIBC_TUNABLES=glibc.malloc.tcache_count=0\n"
                                 "exec init-rc service kusd\n")

    def memory(self, pid: int) -> int:
        """What a process uses of its own memory, in KB: counted page by page, for the figures in
        its status are off by up to 64 pages a thread."""
        rollup = self.terminal.read_file(f"/proc/{pid}/smaps_rollup").decode()
        fields = dict(line.split(":", 1) for line in rollup.splitlines()[1:])
        return int(fields["Anonymous"].removesuffix("kB"))

    def wait_until_start_is_over(self, mark: int) -> None:
        """Waits until a daemon started behind `mark` of its log follows its file. The last lines of
        its start come from two threads."""
        for message in ("registerFileObserverViaThread result--0",
                        "registered successfully file observer"):
            self.log.wait_for(mark, message)

    def set_read_only_property(self, name: str, value: str | None) -> None:
        """As the platform's administration would: a read-only property can be set only once."""
        path = f"{PROPERTY_DIR}/{name}"
        if value is None:
            self.terminal.check_output(["rm", "-f", path])
        else:
            self.terminal.write_file(f"{path}.new", value)
            self.terminal.check_output(["mv", f"{path}.new", path])

    # --- clients --------------------------------------------------------------------------------

    def watcher(self, registrations: int = 1) -> Watcher:
        watcher = Watcher(self.terminal, registrations)
        self.addCleanup(watcher.kill)
        return watcher

    def client(self, *arguments: str) -> str:
        return self.terminal.check_output(["kus-client", *arguments])

    def records(self) -> list[Event]:
        """The daemon's records in its own order."""
        return [json.loads(line) for line in self.client("list", "--json").splitlines()]

    # --- devices --------------------------------------------------------------------------------

    def plug(self, *devices: Device, behind: Plugged | None = None) -> list[Plugged]:
        """Plugs devices in at once and returns when the agent has had each one judged, hubs
        aside, with the input devices that it has."""
        mark = self.agent.mark()
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            plugged = list(pool.map(lambda device: self._connect(device, behind), devices))
        for each in plugged:
            if each.device.device_class == 9:
                self.terminal.wait_until_works(each)
            else:
                self.agent.wait_for(mark, event="verdict", kind="usb", sysname=each.sysname)
        return plugged

    def _connect(self, device: Device, behind: Plugged | None) -> Plugged:
        plugged = self.terminal.connect(device, behind)
        self.plugged.append(plugged)
        return plugged

    def unplug(self, *plugged: Plugged) -> None:
        """Unplugs devices at once and returns when the agent has told the daemon of each one."""
        mark = self.agent.mark()
        for each in plugged:
            self.plugged.remove(each)
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            list(pool.map(self.terminal.disconnect, plugged))
        for each in plugged:
            self.agent.wait_for(mark, event="removed", kind="usb", sysname=each.sysname)

    def state(self, plugged: Plugged) -> DeviceState:
        state = plugged.state()
        self.assertIsNotNone(state, f"{plugged} is not there")
        assert state is not None
        return state

    def inputs(self, plugged: Plugged) -> list[str]:
        """The names of the input devices that the kernel has made of a device."""
        found = self.terminal.run(
            f"ls -d /sys/bus/usb/devices/{plugged.sysname}:*/0003:*/input/input*").stdout
        return [path.rpartition("/")[2] for path in found.splitlines()]

    def inhibited(self, input_name: str) -> bool:
        return self.terminal.read_file(f"/sys/class/input/{input_name}/inhibited") == b"1\n"

    def exists(self, path: str) -> bool:
        return self.terminal.run(["test", "-e", path]).status == 0

    def nodes(self, plugged: Plugged, since: int) -> set[Node]:
        """What the device's drivers have made since a mark of the uevents, though it may be gone
        again."""
        nodes: set[Node] = set()
        for event in self.terminal.uevents_since(since):
            below = f"/{plugged.sysname}:" in event.get("DEVPATH", "")
            if not below or event["ACTION"] != "add" or event["SUBSYSTEM"] not in NODE_SUBSYSTEMS:
                continue
            owner = f"/sys{event['DEVPATH']}"
            nodes.add(Node(owner, owner))
            if "DEVNAME" in event:
                nodes.add(Node(f"/dev/{event['DEVNAME']}", owner))
        return nodes

    def present(self, nodes: Iterable[Node]) -> set[Node]:
        """Those of the nodes that exist."""
        wanted = list(nodes)
        tests = " ".join(f"{shlex.quote(node.path)} {shlex.quote(node.owner)}" for node in wanted)
        output = self.terminal.run(
            f'set -- {tests}; while [ $# -gt 0 ]; do '
            '[ -e "$1" ] && [ -e "$2" ] && echo yes || echo no; shift 2; done').stdout
        return {node for node, answer in zip(wanted, output.split(), strict=True)
                if answer == "yes"}
