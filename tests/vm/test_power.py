# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The power fails while the daemon writes its files: what the next start finds, and makes of it.

The files are on an ext4 disk. vm-steps holds the daemon before each open, truncation, write, fsync
and close of one of them, and the disk is copied there: a copy is what a machine that is killed at
that moment leaves. What the guest's kernel still had in its memory is not in it. How much that is
depends on the kernel's mood, so that every sequence runs three times, in the worst weathers there
can be:

    NOTHING   nothing reaches the disk but what the daemon has asked for with fsync
    NAMES     names and lengths are on the disk at once, as whenever any program syncs anything;
              what was written into the files is not
    ALL       all is on the disk at once

The status is never synced, so that it reaches the disk in ALL alone: the next start writes it anew.

The kernel's own rescue of files that are replaced in place without an fsync is switched off.

A real disk has a cache of its own, which may reorder and lose what is in it. fsync empties that as
well: what the daemon has synced is safe from it, and what was not is in one of the weathers. That
ext4 syncs a new file's name with the file hides what the sync of the directory is there for.
"""

from __future__ import annotations

import base64
import contextlib
import enum
import itertools
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import NamedTuple

from support import (BACKUP_FILE, CONFIG_DIR, CONFIG_FILE, RUN_DAEMON, RUN_TASKS, STATUS_FILE,
                     TIMEOUT, DaemonTestCase, Process, figure, parse_log_line, policy, vendor_rule)
from vm.terminal import HSUSB, SSUSB, Terminal, TerminalDied

DISK = "/dev/vda"
MOUNT_POINT = "/data/system"
FILES = (CONFIG_FILE, BACKUP_FILE, STATUS_FILE)

NO_SERVICE = 3  # kus-client's status

REGISTERED = "kus service Registered successfully"
WATCHING = "registered successfully file observer"
RESET = "usb_host_reset entered:"
PARSED = "Parsing status xml_parse_status 1"
UNABLE = b"Unable to apply the USB Admin config rules"
SUCCESS = b"SUCCESS"
BAD_TAG = b"INVALID TAG:device"
# The library's words, and what they are short for here.
EMPTY_DOCUMENT_REPORT = re.compile(rb"Error=XML_ERROR_EMPTY_DOCUMENT ErrorID=\d+ ")
EMPTY_DOCUMENT = b"empty document"

FRIEND, STRANGER = 1000, 2000


class Allowed(NamedTuple):
    """Who is allowed: different under each of the files below."""

    friend: bool
    stranger: bool


DEFAULT = (b'<?xml version="1.0" encoding="UTF-8"?>\n'
           b'<usbconfig mode="default">\n'
           b'</usbconfig>')
OLD = policy("whitelist", vendor_rule(FRIEND)).encode()
NEW = policy("blacklist", vendor_rule(FRIEND), vendor_rule(STRANGER)).encode()
# Its first rule stands when its second one has failed.
BAD = policy("whitelist", vendor_rule(STRANGER), "<device/>").encode()
# Whoever reads it crashes.
DOOM = b'<?xml version="1.0" encoding="UTF-8"?>\n<!-- nothing -->\n'

# With the line end that a copy gives its last line.
DEFAULT_COPY = DEFAULT + b"\n"

RULES = {DEFAULT: Allowed(True, True), OLD: Allowed(True, False), NEW: Allowed(False, False)}
GOOD = {*RULES, DEFAULT_COPY}
UNDER_BAD = Allowed(False, True)
# Nothing is forbidden.
NO_RULES = Allowed(True, True)

NAMES = {None: "none", b"": "empty", DEFAULT: "default", DEFAULT_COPY: "default", OLD: "old",
         NEW: "new", BAD: "bad", DOOM: "crashing", SUCCESS: "SUCCESS", BAD_TAG: "why",
         UNABLE: "unable", b"earlier": "earlier"}


class State(NamedTuple):
    """The three files; None for one that is not there."""

    config: bytes | None
    backup: bytes | None
    status: bytes | None

    def __str__(self) -> str:
        return " ".join(f"{NAMES.get(content, content)!s:8}" for content in self).rstrip()


class Weather(enum.Enum):
    NOTHING = "true"
    # Some other program's file, on the same disk.
    NAMES = f"dd if=/dev/zero of={MOUNT_POINT}/other bs=1 count=1 conv=fsync 2> /dev/null"
    ALL = "sync"


class Sequence(NamedTuple):
    """Something that makes the daemon write.

    The end is a line of the log, or what vm-steps says of the end of the program. `steps` are some
    of those that the power fails before, with the names of their files. `found` is what the disk
    holds in each weather, from before the first step to the end."""

    name: str
    before: State
    command: str
    write: bytes | None
    end: str
    steps: frozenset[tuple[str, str]]
    found: dict[Weather, list[State]]


def replacing(*names: str) -> frozenset[tuple[str, str]]:
    return frozenset(itertools.product(("open", "truncate", "write", "close"), names))


CONFIG, BACKUP, STATUS = (Path(path).name for path in FILES)
SERVE = f"exec {RUN_DAEMON} 2>&1"

FIRST_START = Sequence(
    "first start", State(DEFAULT, None, None), SERVE, None, WATCHING,
    replacing(STATUS, BACKUP),
    {Weather.NOTHING: [State(DEFAULT, None, None),
                       State(DEFAULT, b"", b""),
                       State(DEFAULT, DEFAULT_COPY, b"")],
     Weather.NAMES: [State(DEFAULT, None, None),
                     State(DEFAULT, None, b""),
                     State(DEFAULT, b"", b""),
                     State(DEFAULT, DEFAULT_COPY, b"")],
     Weather.ALL: [State(DEFAULT, None, None),
                   State(DEFAULT, None, b""),
                   State(DEFAULT, None, SUCCESS),
                   State(DEFAULT, b"", SUCCESS),
                   State(DEFAULT, DEFAULT_COPY, SUCCESS)]})

START = Sequence(
    "start", State(NEW, OLD, b"earlier"), SERVE, None, WATCHING,
    replacing(STATUS, BACKUP),
    {Weather.NOTHING: [State(NEW, OLD, b"earlier"),
                       State(NEW, OLD, b""),
                       State(NEW, NEW, b"")],
     Weather.NAMES: [State(NEW, OLD, b"earlier"),
                     State(NEW, OLD, b""),
                     State(NEW, b"", b""),
                     State(NEW, NEW, b"")],
     Weather.ALL: [State(NEW, OLD, b"earlier"),
                   State(NEW, OLD, b""),
                   State(NEW, OLD, SUCCESS),
                   State(NEW, b"", SUCCESS),
                   State(NEW, NEW, SUCCESS)]})

# The administrator's tool does not sync what it writes: it is on the disk when the daemon has had
# it written, not before.
GOOD_FILE = Sequence(
    "good file", State(OLD, OLD, SUCCESS), SERVE, NEW, RESET,
    replacing(STATUS, BACKUP),
    {Weather.NOTHING: [State(OLD, OLD, SUCCESS),
                       State(NEW, OLD, b""),
                       State(NEW, NEW, b"")],
     Weather.NAMES: [State(b"", OLD, SUCCESS),
                     State(b"", OLD, b""),
                     State(NEW, OLD, b""),
                     State(NEW, b"", b""),
                     State(NEW, NEW, b"")],
     Weather.ALL: [State(NEW, OLD, SUCCESS),
                   State(NEW, OLD, b""),
                   State(NEW, OLD, SUCCESS),
                   State(NEW, b"", SUCCESS),
                   State(NEW, NEW, SUCCESS)]})

BAD_FILE = Sequence(
    "bad file", State(OLD, OLD, SUCCESS), SERVE, BAD, PARSED,
    replacing(STATUS, CONFIG),
    {Weather.NOTHING: [State(OLD, OLD, SUCCESS),
                       State(b"", OLD, b""),
                       State(OLD, OLD, b"")],
     Weather.NAMES: [State(b"", OLD, SUCCESS),
                     State(b"", OLD, b""),
                     State(OLD, OLD, b"")],
     Weather.ALL: [State(BAD, OLD, SUCCESS),
                   State(BAD, OLD, b""),
                   State(BAD, OLD, BAD_TAG),
                   State(b"", OLD, BAD_TAG),
                   State(OLD, OLD, BAD_TAG)]})

CRASH = Sequence(
    "crash", State(OLD, OLD, SUCCESS), SERVE, DOOM, "exit: 11",
    replacing(STATUS, CONFIG),
    {Weather.NOTHING: [State(OLD, OLD, SUCCESS),
                       State(b"", OLD, SUCCESS),
                       State(OLD, OLD, SUCCESS)],
     Weather.NAMES: [State(b"", OLD, SUCCESS),
                     State(OLD, OLD, SUCCESS),
                     State(OLD, OLD, b"")],
     Weather.ALL: [State(DOOM, OLD, SUCCESS),
                   State(b"", OLD, SUCCESS),
                   State(OLD, OLD, SUCCESS),
                   State(OLD, OLD, b""),
                   State(OLD, OLD, UNABLE)]})

STARTUP_TASK = Sequence(
    "startup task", State(None, None, None), f"exec {RUN_TASKS} 2>&1", None, "exit: 0",
    replacing(CONFIG),
    {Weather.NOTHING: [State(None, None, None), State(DEFAULT, None, None)],
     Weather.NAMES: [State(None, None, None), State(b"", None, None), State(DEFAULT, None, None)],
     Weather.ALL: [State(None, None, None), State(b"", None, None), State(DEFAULT, None, None)]})

SEQUENCES = (FIRST_START, START, GOOD_FILE, BAD_FILE, CRASH, STARTUP_TASK)


# The directory becomes the daemon's user's: the disk was made by who runs the tests.
MOUNT = (f"mount -t ext4 -o noauto_da_alloc,commit=600 {DISK} {MOUNT_POINT} && "
         f"chown system:system {CONFIG_DIR}")
UNMOUNT = f"umount {MOUNT_POINT}"
SHOW_FILES = "; ".join(f"if [ -e {path} ]; then echo yes $(base64 -w 0 {path}); else echo no; fi"
                       for path in FILES)


class Moment(NamedTuple):
    """What is on the disk when the power fails before a step."""

    step: str
    disk: bytes


class NextStart(NamedTuple):
    """How the daemon was after the next start, and what it had made of the files."""

    exit_status: int | None
    allowed: Allowed | None
    files: State


def next_start(found: State) -> NextStart:
    """What has to come of the files that were found. The daemon restores nothing at its start."""
    content, backup, _ = found
    if content is None:
        content = DEFAULT
    if content in RULES:
        copy = DEFAULT_COPY if content == DEFAULT else content
        return NextStart(None, RULES[content], State(content, copy, SUCCESS))
    return {
        b"": NextStart(None, NO_RULES, State(b"", backup, EMPTY_DOCUMENT)),
        BAD: NextStart(None, UNDER_BAD, State(BAD, backup, BAD_TAG)),
        DOOM: NextStart(11, None, State(backup, backup, UNABLE)),
    }[content]


def new_disk(directory: Path, files: State) -> bytes:
    """A disk with these files."""
    tree = directory / "tree"
    own = tree / Path(CONFIG_DIR).relative_to(MOUNT_POINT)
    own.mkdir(parents=True)
    for name, content in zip((CONFIG, BACKUP, STATUS), files, strict=True):
        if content is not None:
            (own / name).write_bytes(content)
    path = directory / "new"
    # With the smallest journal, and nothing that is left to the kernel's leisure.
    subprocess.run(["mke2fs", "-q", "-t", "ext4", "-b", "1024", "-J", "size=1", "-E",
                    "lazy_itable_init=0,lazy_journal_init=0", "-d", tree, path, "3M"],
                   env={"PATH": "/usr/sbin:/sbin"}, check=True, stdout=subprocess.DEVNULL)
    disk = path.read_bytes()
    path.unlink()
    shutil.rmtree(tree)
    return disk


class PowerTestCase(DaemonTestCase):
    services = ("servicemanager",)
    directory: Path
    disk: Path

    @classmethod
    def setUpClass(cls) -> None:
        cls.directory = Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.disk = cls.directory / "disk"
        cls.disk.write_bytes(new_disk(cls.directory, State(None, None, None)))

    @classmethod
    def boot(cls) -> Terminal:
        """A terminal that has the disk; to be entered."""
        return Terminal(cls.__module__, start=",".join(cls.services), disk=cls.disk)

    def prepare(self) -> None:
        self.terminal.check_output(
            # What is written stays in memory until somebody asks for it.
            "echo 0 > /proc/sys/vm/dirty_writeback_centisecs; "
            # Resets have nothing to do here.
            f"mode {HSUSB} peripheral; mode {SSUSB} peripheral")

    def mount(self) -> None:
        self.terminal.check_output(MOUNT)

    def insert(self, disk: bytes) -> None:
        """Gives the terminal this disk instead of its own."""
        # Nobody has it open: neither QEMU nor the kernel remembers what it held.
        with self.disk.open("r+b") as file:
            file.write(disk)

    @contextlib.contextmanager
    def mounted(self, disk: bytes) -> Iterator[None]:
        self.insert(disk)
        self.mount()
        try:
            yield
        finally:
            self.terminal.check_output(UNMOUNT)

    def copy_of_disk(self) -> bytes:
        """What a terminal that is killed now leaves."""
        self.terminal.qmp.execute("stop")
        disk = self.disk.read_bytes()
        self.terminal.qmp.execute("cont")
        return disk

    def files(self, command: str = SHOW_FILES) -> State:
        """The files as they are on the disk that is mounted."""
        answers = self.terminal.check_output(command).splitlines()
        return State(*(base64.b64decode(answer.removeprefix("yes"))
                       if answer.startswith("yes") else None for answer in answers))

    def hold(self, command: str) -> Process:
        """Runs a command that stops before each step that it takes on the files."""
        return Process(self.terminal, ["vm-steps", f"{CONFIG_DIR}*", "sh", "-c", command])

    def take_steps(self, held: Process, end: set[str],
                   before: Callable[[str], object] = lambda step: None) -> None:
        """Lets it take its steps until it has said all of `end`; calls `before` each step."""
        missing = set(end)
        while missing:
            text = held.next_line()
            if text.startswith("step: "):
                before(text.removeprefix("step: "))
                held.send("")
                continue
            line = parse_log_line(text)
            missing.discard(text if line is None else line.message)

    def rewrite_live(self, held: Process, content: bytes) -> None:
        """Waits until the daemon follows its file, and has the administrator write it."""
        self.take_steps(held, {REGISTERED, WATCHING})
        self.terminal.check_output("sync")
        self.put_policy(content)

    def start_once(self) -> NextStart:
        """One start, as init goes about it."""
        self.terminal.wait_until(
            lambda: self.terminal.run("kus-client ping").status == NO_SERVICE, TIMEOUT,
            "the service manager to forget the last daemon")
        daemon = Process(self.terminal, ["sh", "-c", f"{RUN_TASKS} 2> /dev/null; "
                                         f'{RUN_DAEMON} 2>&1; echo "exit: $?"'])
        try:
            status = self.exit_status(daemon)
            allowed = None
            if status is None:
                allowed = Allowed(self.is_allowed(FRIEND), self.is_allowed(STRANGER))
            files = self.files()
            if EMPTY_DOCUMENT_REPORT.match(files.status or b""):
                files = files._replace(status=EMPTY_DOCUMENT)
            return NextStart(status, allowed, files)
        finally:
            daemon.kill()

    def exit_status(self, daemon: Process) -> int | None:
        """That of a daemon that ends instead of following its file."""
        missing = {REGISTERED, WATCHING}
        while missing:
            text = daemon.next_line()
            if text.startswith("exit: "):
                return int(text.removeprefix("exit: "))
            line = parse_log_line(text)
            if line is not None:
                missing.discard(line.message)
        return None

    def is_allowed(self, vendor: int) -> bool:
        answer = self.client("decide", "--id", "90001", "--interfaces", "8", "--vid", str(vendor))
        return {"allowed\n": True, "refused\n": False}[answer]


class PowerCutTest(PowerTestCase):
    """One terminal, and copies of its disk at every moment."""

    moments = 0
    # What the kernel finds on a disk.
    states: dict[bytes, State] = {}
    # Configuration file and backup that have been started from. Nobody reads the status.
    started: set[tuple[bytes | None, bytes | None]] = set()

    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        cls.terminal = cls.enterClassContext(cls.boot())

    @classmethod
    def tearDownClass(cls) -> None:
        figure("power cuts", f"{cls.moments} moments left {len(cls.states)} different disks with "
               f"{len(set(cls.states.values()))} different states of the files")

    def setUp(self) -> None:
        super().setUp()
        self.prepare()

    def record(self, sequence: Sequence, weather: Weather) -> list[Moment]:
        """What a failure of the power leaves before each step, and behind the last one."""
        moments = []

        def cut(step: str) -> None:
            self.terminal.check_output(weather.value)
            moments.append(Moment(step, self.copy_of_disk()))

        with self.mounted(new_disk(self.directory, sequence.before)):
            held = self.hold(sequence.command)
            try:
                if sequence.write is not None:
                    self.rewrite_live(held, sequence.write)
                self.take_steps(held, {sequence.end}, cut)
                cut("end")
            finally:
                held.kill()
        type(self).moments += len(moments)
        return moments

    def look_at(self, disk: bytes) -> State:
        """The files that the kernel finds on a disk when it has replayed its journal."""
        if disk not in self.states:
            self.insert(disk)
            self.states[disk] = self.files(f"{MOUNT} && {{ {SHOW_FILES}; {UNMOUNT}; }}")
        return self.states[disk]

    def check_next_start(self, disk: bytes) -> None:
        found = self.states[disk]
        if (found.config, found.backup) in self.started:
            return
        self.started.add((found.config, found.backup))
        with self.mounted(disk):
            wanted = next_start(found)
            self.assertEqual(self.start_once(), wanted)
            # A start that crashes is the last one that does.
            if wanted.exit_status is not None:
                self.assertEqual(self.start_once(), next_start(wanted.files))

    def check(self, sequence: Sequence) -> None:
        for weather in Weather:
            with self.subTest(weather.name):
                moments = self.record(sequence, weather)
                found = [self.look_at(moment.disk) for moment in moments]
                about = "\n".join(f"{moment.step:72}{state}"
                                  for moment, state in zip(moments, found, strict=True))
                self.assertEqual([state for state, _ in itertools.groupby(found)],
                                 sequence.found[weather], about)
                steps = {(call, Path(path).name)
                         for call, _, path in (moment.step.partition(" ") for moment in moments)}
                self.assertLessEqual(sequence.steps, steps, about)
                for state in found:
                    # Where there were rules, there are rules.
                    self.assertTrue(sequence.before.config is None
                                    or GOOD & {state.config, state.backup}, about)
                for moment in moments:
                    with self.subTest(moment.step):
                        self.check_next_start(moment.disk)

    def test_first_start(self) -> None:
        self.check(FIRST_START)

    def test_start(self) -> None:
        self.check(START)

    def test_good_file(self) -> None:
        self.check(GOOD_FILE)

    def test_bad_file(self) -> None:
        self.check(BAD_FILE)

    def test_crash(self) -> None:
        self.check(CRASH)

    def test_startup_task(self) -> None:
        self.check(STARTUP_TASK)


class KilledTerminalTest(PowerTestCase):
    def test_copy_is_what_a_killed_terminal_leaves(self) -> None:
        copies = []

        def kill(step: str) -> None:
            if step == f"fsync {BACKUP_FILE}":
                self.terminal.check_output(Weather.NAMES.value)
                copies.append(self.copy_of_disk())
                os.kill(self.terminal.qemu_pid, signal.SIGKILL)

        self.disk.write_bytes(new_disk(self.directory, GOOD_FILE.before))
        with self.assertRaises(TerminalDied), self.boot() as self.terminal:
            self.prepare()
            self.mount()
            held = self.hold(GOOD_FILE.command)
            assert GOOD_FILE.write is not None
            self.rewrite_live(held, GOOD_FILE.write)
            self.take_steps(held, {GOOD_FILE.end}, kill)
        (copy,) = copies
        self.assertTrue(self.disk.read_bytes() == copy)

        with self.boot() as self.terminal:
            self.mount()
            found = self.files()
            self.assertEqual(found, State(NEW, b"", b""))
            self.assertEqual(self.start_once(), next_start(found))


if __name__ == "__main__":
    unittest.main()
