# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The daemon crashes: what it leaves behind, and how it comes back."""

from __future__ import annotations

import itertools
import re
import unittest
from collections.abc import Callable, Iterable
from typing import NamedTuple

from support import (BACKUP_FILE, CONFIG_DIR, CONFIG_FILE, DEFAULT_POLICY, MAKE_CONFIG_DIR,
                     RUN_DAEMON, STATUS_FILE, TIMEOUT, DaemonTestCase, LogLine, Process, Stream,
                     class_rule, parse_log_line, policy, vendor_rule)
from vm.devices import KEYBOARD, SERIAL, STORAGE
from vm.terminal import HSUSB, SSUSB

REGISTERED = "kus service Registered successfully"
WATCHING = "registered successfully file observer"
CRASHED = "Segmentation faultsignum"
TRACE = "Stack Trace"
REPORTED = "updateErrorFile called with error message : "
RESET = "usb_host_reset entered:"
UNABLE = "Unable to apply the USB Admin config rules"

NOT_WHITELISTED = "No matching rule found to Whitelist the device"

FRAME = re.compile(r"#(\d\d) pc [0-9a-f]{16}  (\S.*)")
# Of a frame: the function, without where in it and without its arguments.
FUNCTION = re.compile(r"/kusd \((\w[\w:]*(?:\(anonymous namespace\)::)?[\w:]*)[(+]")

HANDLER = "android::kus::(anonymous namespace)::signalHandler"
PARSER = "android::kus::Util::createMapFromConfig"
OBSERVER = ("android::kus::KUsbService::readFileChangeEvent",
            "android::kus::KUsbService::registerFileObserver")
START = ("android::kus::KUsbService::Register", "main")

FRIEND = 1000
RULES = policy("whitelist", vendor_rule(FRIEND)).encode()

SEGV, ABRT = 11, 6


class Document(NamedTuple):
    """A file that the daemon cannot read to its end."""

    text: bytes
    signal: int


NO_ELEMENT = b'<?xml version="1.0" encoding="UTF-8"?>\n'
DOCUMENTS = (
    Document(NO_ELEMENT, SEGV),
    Document(NO_ELEMENT + b"<!-- nothing -->\n<!-- at all -->\n", SEGV),
    Document(policy("blacklist", vendor_rule(2**31)).encode(), ABRT),
    Document(policy("whitelist", vendor_rule(5, 2**31)).encode(), ABRT),
    Document(policy("whitelist", vendor_rule(10**30)).encode(), ABRT),
)


def functions(frames: Iterable[str]) -> list[str]:
    """The daemon's own functions on a stack, the innermost first."""
    return [match[1] for frame in frames if (match := FUNCTION.search(frame))]


class CrashTestCase(DaemonTestCase):
    def assert_crash_log(self, lines: list[LogLine], number: int, backup: bytes | None,
                         stack: tuple[str, ...]) -> None:
        """Compares what the thread that crashed has logged with what it has to log, in order.

        `stack`: functions of the daemon that must be on it, the innermost first."""
        begin = next(line for line in lines if line.message.startswith(CRASHED))
        mine = [line for line in lines if (line.pid, line.thread) == (begin.pid, begin.thread)]
        mine = mine[mine.index(begin):]
        copied = [("E", "USB device error is source file open")]
        if backup is not None:
            copied = [("I", line) for line in backup.decode().removesuffix("\n").split("\n")]
        wanted = [("I", f"{CRASHED}{number}"), ("I", ""),
                  ("I", f" USB xml src path is {BACKUP_FILE}"),
                  ("I", f"USB xml dest path is {CONFIG_FILE}"), *copied,
                  ("I", "Usb Device config file copied successfully..!!"),
                  ("I", f"{REPORTED}{UNABLE}"), ("I", TRACE), ("I", "")]
        self.assertEqual([(line.severity, line.message) for line in mine[:len(wanted)]], wanted)
        frames = [FRAME.fullmatch(line.message) for line in mine[len(wanted):]]
        self.assertNotIn(None, frames, mine)
        self.assertEqual({line.severity for line in mine[len(wanted):]}, {"E"})
        self.assertEqual([int(frame[1]) for frame in frames if frame], list(range(len(frames))))
        found = functions(frame[2] for frame in frames if frame)
        self.assertEqual(found[0], HANDLER)
        positions = [found.index(name) for name in stack]
        self.assertEqual(positions, sorted(positions), found)
        # One crash, and its handler has not crashed.
        self.assertEqual([line for line in lines if line.message.startswith(CRASHED)], [begin])

    def bytes_of(self, path: str) -> bytes | None:
        return self.terminal.read_file(path) if self.exists(path) else None


class LastWordsTest(CrashTestCase):
    """Nobody starts the daemon again: what it has left behind stays to be seen."""

    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        for service in ("kus-hotplug", "kusd"):
            cls.terminal.stop(service)

    @classmethod
    def tearDownClass(cls) -> None:
        cls.terminal.write_file(CONFIG_FILE, DEFAULT_POLICY)
        agent = cls.agent.mark()
        for service in ("kusd", "kus-hotplug"):
            cls.terminal.start(service)
        cls.agent.wait_for(agent, event="ready")

    def setUp(self) -> None:
        super().setUp()
        self.terminal.check_output(MAKE_CONFIG_DIR)

    def run_daemon(self) -> Process:
        """Starts the daemon under a shell that tells of its end."""
        daemon = Process(self.terminal, ["sh", "-c", f'{RUN_DAEMON} 2>&1; echo "status $?"'])
        self.addCleanup(self.end, daemon)
        self.lines: list[LogLine] = []
        self.status: int | None = None
        return daemon

    def end(self, daemon: Process) -> None:
        # It may have come to its end already.
        self.terminal.run("kill -KILL $(pidof kusd)")
        daemon.wait()

    def read_until(self, daemon: Process, wanted: Callable[[str], object]) -> None:
        """Takes lines of the log until one is wanted or the shell tells of the daemon's end."""
        while self.status is None:
            text = daemon.next_line()
            if text.startswith("status "):
                self.status = int(text.removeprefix("status "))
                break
            line = parse_log_line(text)
            # The C++ runtime, libbinder and the shell have their say as well.
            if line is None:
                continue
            self.lines.append(line)
            if wanted(line.message):
                break

    def start(self, text: bytes = RULES) -> Process:
        """Starts the daemon with these rules and waits until it follows the file."""
        self.put_policy(text)
        daemon = self.run_daemon()
        seen = set()
        while not {REGISTERED, WATCHING} <= seen:
            self.read_until(daemon, {REGISTERED, WATCHING}.__contains__)
            self.assertIsNone(self.status, self.lines)
            seen.add(self.lines[-1].message)
        return daemon

    def read_to_the_end(self, daemon: Process) -> int:
        self.read_until(daemon, lambda _: False)
        daemon.wait()
        assert self.status is not None
        return self.status

    def assert_left_behind(self, number: int, backup: bytes | None, stack: tuple[str, ...]) -> None:
        self.assertEqual(self.status, number)
        self.assertEqual(self.terminal.read_file(STATUS_FILE).decode(), UNABLE)
        self.assertEqual(self.terminal.read_file(CONFIG_FILE), backup or b"")
        self.assertEqual(self.bytes_of(BACKUP_FILE), backup)
        self.assert_crash_log(self.lines, number, backup, stack)
        self.assertNotIn(RESET, [line.message for line in self.lines])
        # The kernel knows of no crash: the process has exited.
        self.assertEqual(self.terminal.crashes(), [])

    def test_signal(self) -> None:
        for number in (SEGV, ABRT):
            with self.subTest(number):
                daemon = self.start()
                # Not noticed, as a file that is renamed into place is not.
                self.terminal.write_file("/run/other", "anything\n")
                self.terminal.check_output(f"cp /run/other {CONFIG_DIR}/new; "
                                           f"mv {CONFIG_DIR}/new {CONFIG_FILE}")
                self.terminal.check_output(f"kill -{number} $(pidof kusd)")
                self.read_to_the_end(daemon)
                self.assert_left_behind(number, RULES, (HANDLER, "main"))

    def test_signal_without_a_backup(self) -> None:
        for number in (SEGV, ABRT):
            with self.subTest(number):
                daemon = self.start()
                self.terminal.check_output(f"rm {BACKUP_FILE}; kill -{number} $(pidof kusd)")
                self.read_to_the_end(daemon)
                self.assert_left_behind(number, None, (HANDLER, "main"))

    def test_every_crash_of_many_comes_to_its_end(self) -> None:
        for number in [SEGV, ABRT] * 10:
            daemon = self.start()
            self.terminal.check_output(f"kill -{number} $(pidof kusd)")
            self.read_to_the_end(daemon)
            self.assert_left_behind(number, RULES, (HANDLER, "main"))

    def test_second_thread_that_faults_leaves_the_work_to_the_first(self) -> None:
        daemon = self.start()
        # The handler waits there for somebody who writes.
        self.terminal.check_output(f"rm {BACKUP_FILE}; mkfifo {BACKUP_FILE}")
        self.terminal.check_output(f"kill -{SEGV} $(pidof kusd)")
        self.read_until(daemon, f"USB xml dest path is {CONFIG_FILE}".__eq__)
        # A thread that is in its handler takes no second one.
        self.terminal.check_output(f"kill -{SEGV} $(pidof kusd)")
        self.terminal.wait_until(lambda: not self.pending_signals(), TIMEOUT, "the second fault")
        self.terminal.write_file("/run/rules", RULES)
        self.terminal.check_output(f"cat /run/rules > {BACKUP_FILE}")
        self.assertEqual(self.read_to_the_end(daemon), SEGV)
        self.assertEqual(self.terminal.read_file(CONFIG_FILE), RULES)
        self.assertEqual(self.terminal.read_file(STATUS_FILE).decode(), UNABLE)
        self.assert_crash_log(self.lines, SEGV, RULES, (HANDLER, "main"))

    def pending_signals(self) -> int:
        """The signals that no thread of the daemon has taken yet, as the kernel's mask."""
        return int(self.terminal.check_output(
            "grep ShdPnd /proc/$(pidof kusd)/status").split()[1], 16)

    def test_document_that_cannot_be_read_live(self) -> None:
        for document in DOCUMENTS:
            with self.subTest(document):
                daemon = self.start()
                self.put_policy(document.text)
                self.read_to_the_end(daemon)
                self.assert_left_behind(document.signal, RULES, (HANDLER, PARSER, *OBSERVER))

    def test_document_that_cannot_be_read_at_the_start(self) -> None:
        for document in DOCUMENTS:
            with self.subTest(document):
                self.terminal.write_file(BACKUP_FILE, RULES)
                self.put_policy(document.text)
                self.read_to_the_end(self.run_daemon())
                self.assert_left_behind(document.signal, RULES, (HANDLER, PARSER, *START))
                # The next start has the last good rules.
                daemon = self.run_daemon()
                self.read_until(daemon, REGISTERED.__eq__)
                self.assertEqual(self.terminal.read_file(STATUS_FILE), b"SUCCESS")
                self.end(daemon)

    def test_document_that_cannot_be_read_and_no_backup(self) -> None:
        for document in (DOCUMENTS[0], DOCUMENTS[2]):
            with self.subTest(document):
                self.terminal.check_output(f"rm -f {BACKUP_FILE}")
                self.put_policy(document.text)
                self.read_to_the_end(self.run_daemon())
                self.assert_left_behind(document.signal, None, (HANDLER, PARSER, *START))
                # An empty file does no harm: the service comes up.
                daemon = self.run_daemon()
                self.read_until(daemon, REGISTERED.__eq__)
                self.assertEqual(self.client("ping"), "pong\n")
                self.assertRegex(self.terminal.read_file(STATUS_FILE).decode(),
                                 "^Error=XML_ERROR_EMPTY_DOCUMENT ")
                self.end(daemon)

    def test_largest_id_is_no_reason_to_crash(self) -> None:
        text = policy("whitelist", vendor_rule(2**31 - 1, 2**31 - 1)).encode()
        daemon = self.start(text)
        self.assertEqual(self.terminal.read_file(STATUS_FILE), b"SUCCESS")
        self.end(daemon)

    def test_service_that_cannot_be_registered_is_a_crash(self) -> None:
        self.addCleanup(self.terminal.run, "[ ! -e /run/binder ] || mv /run/binder /dev/binder")
        self.put_policy(RULES)
        self.terminal.check_output("mv /dev/binder /run/binder")
        self.read_to_the_end(self.run_daemon())
        self.assert_left_behind(ABRT, RULES, (HANDLER, *START))

    def test_other_signals_leave_the_files_alone(self) -> None:
        for name, number in (("TERM", 15), ("INT", 2), ("HUP", 1), ("KILL", 9), ("USR1", 10)):
            with self.subTest(name):
                daemon = self.start()
                self.terminal.check_output(f"echo anything > {CONFIG_DIR}/new; "
                                           f"mv {CONFIG_DIR}/new {CONFIG_FILE}")
                self.terminal.check_output(f"kill -{name} $(pidof kusd)")
                self.assertEqual(self.read_to_the_end(daemon), 128 + number)
                self.assertEqual(self.terminal.read_file(CONFIG_FILE), b"anything\n")
                self.assertEqual(self.terminal.read_file(BACKUP_FILE), RULES)
                self.assertEqual(self.terminal.read_file(STATUS_FILE), b"SUCCESS")
                self.assertEqual([line.message for line in self.lines
                                  if line.message.startswith((CRASHED, TRACE))], [])


EXIT = re.compile(r"[\d.]+ (\w\S*) exited with status (\d+)")


def parse_exit(line: str) -> tuple[str, int] | None:
    match = EXIT.fullmatch(line)
    return None if match is None else (match[1], int(match[2]))


class RestartTest(CrashTestCase):
    """Init starts the daemon again, and the agent has it judge what is there."""

    RULES = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")).encode()

    def setUp(self) -> None:
        super().setUp()
        self.exits = Stream(self.terminal, "/data/log/services.log", parse_exit)
        self.kernel_marks = itertools.count()
        log = self.log.mark()
        self.use_policy(self.RULES.decode())
        self.log.wait_for(log, WATCHING)
        self.disk, self.serial, self.keyboard = self.plug(STORAGE, SERIAL, KEYBOARD)
        self.terminal.wait_until_works(self.disk)
        self.terminal.wait_until_blocked(self.serial)
        (self.keys,) = self.inputs(self.keyboard)
        self.terminal.wait_until(lambda: self.inhibited(self.keys), TIMEOUT, "the keyboard's end")

    def tearDown(self) -> None:
        # Its rules may be anything after a test that failed.
        self.use_policy(DEFAULT_POLICY)

    def verdicts(self, agent: int) -> list[tuple[str, str, bool, str]]:
        return sorted((event["kind"], event["sysname"], event["allowed"], event["reason"])
                      for event in self.agent.events(agent, event="verdict"))

    def crash(self, cause: Callable[[], object], number: int, stack: tuple[str, ...]) -> None:
        """Has the daemon crash, and compares what comes of it."""
        log, agent, exits = self.log.mark(), self.agent.mark(), self.exits.mark()
        uevents = self.terminal.uevent_mark()
        pid = self.terminal.status("kusd").pid
        kernel = f"crash mark {next(self.kernel_marks)} of {self.id()}"
        self.terminal.check_output(f"echo '{kernel}' > /dev/kmsg")
        cause()
        self.exits.wait(exits, lambda _: True, "exit of a service")
        self.agent.wait_for(agent, event="service", state="lost")
        self.agent.wait_for(agent, event="rescan", reason="service")
        for sysname in (self.disk.sysname, self.serial.sysname, self.keyboard.sysname, self.keys):
            self.agent.wait_for(agent, event="verdict", sysname=sysname)
        # The last word of the agent's questions, and of the new daemon's start.
        self.log.wait_for(log, WATCHING)
        self.assertEqual(self.client("ping"), "pong\n")

        self.assertEqual(self.exits.since(exits), [("kusd", number)])
        after = self.terminal.status("kusd")
        self.assertEqual(after.state, "running")
        self.assertNotEqual(after.pid, pid)
        self.assert_crash_log([line for line in self.log.since(log) if line.pid == pid], number,
                              self.RULES, stack)
        for path in (CONFIG_FILE, BACKUP_FILE):
            self.assertEqual(self.terminal.read_file(path), self.RULES)
        self.assertEqual(self.terminal.read_file(STATUS_FILE), b"SUCCESS")
        self.assertEqual(self.verdicts(agent), sorted([
            ("usb", self.disk.sysname, True,
             "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "),
            ("usb", self.serial.sysname, False, NOT_WHITELISTED),
            ("usb", self.keyboard.sysname, False, ""),
            ("input", self.keys, False, NOT_WHITELISTED)]))
        self.assertEqual({record["deviceName"] for record in self.records()}, {
            event["name"] for event in self.agent.events(agent, event="verdict")
            if event["reason"]})

        # Nothing has gone, and no controller was touched.
        self.assertEqual(self.log.messages(log, f"^{RESET}"), [])
        self.assertEqual([self.terminal.mode(node) for node in (HSUSB, SSUSB)], ["host", "host"])
        _, found, kernel_log = self.terminal.check_output("dmesg").partition(kernel)
        self.assertTrue(found)
        self.assertEqual(re.findall(r": mode \w+$", kernel_log, re.MULTILINE), [])
        self.assertEqual([event for event in self.terminal.uevents_since(uevents)
                          if event["ACTION"] in ("add", "remove")], [])
        self.assertTrue(self.state(self.disk).works_as(STORAGE))
        self.assertTrue(self.state(self.serial).blocked())
        self.assertTrue(self.inhibited(self.keys))
        self.assertEqual(self.terminal.crashes(), [])

    def test_signal(self) -> None:
        for number in (SEGV, ABRT, SEGV, ABRT):
            with self.subTest(number):
                pid = self.terminal.status("kusd").pid
                self.crash(lambda: self.terminal.check_output(f"kill -{number} {pid}"), number,
                           (HANDLER, "main"))

    def test_document_that_cannot_be_read(self) -> None:
        for document in (DOCUMENTS[0], DOCUMENTS[2]):
            with self.subTest(document):
                self.crash(lambda: self.put_policy(document.text), document.signal,
                           (HANDLER, PARSER, *OBSERVER))

    def test_document_that_cannot_be_read_is_met_at_the_start(self) -> None:
        for document in (DOCUMENTS[1], DOCUMENTS[3]):
            with self.subTest(document):
                self.stop_daemon()
                self.put_policy(document.text)
                log, agent, exits = self.log.mark(), self.agent.mark(), self.exits.mark()
                self.terminal.start("kusd")
                self.agent.wait_for(agent, event="verdict", sysname=self.keys)
                self.assertEqual(self.exits.since(exits), [("kusd", document.signal)])
                crashed = self.log.since(log)[0].pid
                self.assertNotEqual(self.terminal.status("kusd").pid, crashed)
                self.assert_crash_log(
                    [line for line in self.log.since(log) if line.pid == crashed],
                    document.signal, self.RULES, (HANDLER, PARSER, *START))
                self.assertEqual(self.terminal.read_file(CONFIG_FILE), self.RULES)
                self.assertEqual(self.terminal.read_file(STATUS_FILE), b"SUCCESS")
                self.agent.wait_for(agent, event="verdict", sysname=self.disk.sysname,
                                    allowed=True)
                self.agent.wait_for(agent, event="verdict", sysname=self.serial.sysname,
                                    allowed=False, reason=NOT_WHITELISTED)

    def test_daemon_that_came_back_follows_the_file(self) -> None:
        pid = self.terminal.status("kusd").pid
        self.crash(lambda: self.terminal.check_output(f"kill -{SEGV} {pid}"), SEGV,
                   (HANDLER, "main"))
        log, agent = self.log.mark(), self.agent.mark()
        self.put_policy(DEFAULT_POLICY)
        self.log.wait_for(log, RESET)
        for each in (self.disk, self.serial, self.keyboard):
            self.agent.wait_for(agent, event="verdict", kind="usb",
                                vendorId=each.device.vendor, allowed=each is not self.keyboard)
        self.agent.wait_for(agent, event="verdict", kind="input", allowed=True)
        for each in (self.disk, self.serial, self.keyboard):
            self.terminal.locate(each)
            self.terminal.wait_until_works(each)


if __name__ == "__main__":
    unittest.main()
