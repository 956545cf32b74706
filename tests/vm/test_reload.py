# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The rules change while the daemon runs: what a good file, a bad one and many of both come to.

What the observer has done is read from its thread's lines of the log. Whether it has done all that
there is to do is asked with a marker, a file of the watched directory whose own line comes behind
what came before it.
"""

from __future__ import annotations

import dataclasses
import itertools
import random
import re
import shlex
import time
import unittest
from collections.abc import Iterable, Sequence

from support import (BACKUP_FILE, BAD_FILES, CONFIG_DIR, CONFIG_FILE, DEFAULT_POLICY, NO_XML,
                     STATUS_FILE, TIMEOUT, DaemonTestCase, Event, Process, class_rule, figure,
                     policy, vendor_rule)
from vm.devices import KEYBOARD, NETWORK, SERIAL, STORAGE, VENDOR_HID
from vm.terminal import HSUSB, SSUSB, Plugged

DAEMON_LOG = "/data/log/kusd.log"
SOC = "/sys/devices/platform/soc"
# In the order in which they are flipped.
NODES = (HSUSB, SSUSB)
FLIPS = [(HSUSB, "none"), (HSUSB, "host"), (SSUSB, "none"), (SSUSB, "host")]
ROOT_HUB_VENDOR = 0x1D6B

WATCHING = "registered successfully file observer"
PARSING = "Admin usb_device_config.xml config file call parsing"
PARSED = "Parsing status xml_parse_status 1"
NOT_PARSED = "Parsing status xml_parse_status 0"
TAKING = "Parsing success, so update status file and create backup"
RESTORING = "Parsing failure, copying backup file content"
COPIED = "Usb Device config file copied successfully..!!"
REPORTED = "updateErrorFile called with error message : "
RESET = "usb_host_reset entered:"

BY_DEFAULT = "Enabled by default rule"
NOT_WHITELISTED = "No matching rule found to Whitelist the device"
NOT_BLACKLISTED = "No matching rule found to Blacklist the device"
BY_CLASS = "Whitelisted: Match by ClassName, CLASS : "
BY_VENDOR = "Whitelisted: Match by VID, VID : "
BY_PRODUCT = "Whitelisted: Match by VID_PID combination, VID : "

# No bus has a number that high, so no real device has such an id.
MADE_UP = itertools.count(90001)


def closed(path: str) -> str:
    return f"CLOSE_WRITE event triggered on filename {path}"


def reported(text: str) -> str:
    return f"{REPORTED}{text}"


def copied(source: str, target: str, content: bytes) -> list[str]:
    """What the copy of a file logs, its lines among it: none, when it was caught empty."""
    lines = content.decode().removesuffix("\n").split("\n") if content else []
    return [f" USB xml src path is {source}", f"USB xml dest path is {target}", *lines, COPIED]


def flipped(*nodes: str) -> list[str]:
    return [f"usb_host_reset mode set to {mode} for syspath: {SOC}/{node}/mode"
            for node in nodes for mode in ("none", "host")]


class ReloadTestCase(DaemonTestCase):
    """Each test has a daemon of its own, whose restore flag is clear, and both controllers."""

    def setUp(self) -> None:
        super().setUp()
        self.addCleanup(self.set_modes, "host")
        self.markers = itertools.count()
        self.kernel_marks = itertools.count()

    def begin_with(self, text: str) -> int:
        """Has a fresh daemon, with nothing else in its directory, take its rules from `text`;
        returns its process id once it watches the directory."""
        self.stop_daemon()
        self.terminal.check_output(f"rm -rf {CONFIG_DIR}/*")
        self.put_policy(text)
        log = self.log.mark()
        self.pid = self.start_daemon()
        self.observer = self.log.wait_for(log, WATCHING).thread
        return self.pid

    def set_modes(self, mode: str) -> None:
        for node in NODES:
            self.terminal.set_mode(node, mode)

    # --- the observer -----------------------------------------------------------------------------

    def observed(self, mark: int) -> list[str]:
        """What the observer has logged behind the mark."""
        return [line.message for line in self.log.since(mark) if line.thread == self.observer]

    def settle(self, timeout: float = TIMEOUT) -> None:
        """Returns when the observer has followed all that has happened, its own writes included."""
        while True:
            mark = self.log.mark()
            marker = f"{CONFIG_DIR}/marker-{next(self.markers)}"
            self.terminal.check_output(f": > {marker}; rm {marker}")
            self.log.wait_for(mark, closed(marker), timeout)
            if self.observed(mark) == [closed(marker)]:
                return

    def write(self, content: bytes) -> list[str]:
        """Writes the file in place; returns what the observer has logged once it is at rest."""
        mark = self.log.mark()
        self.put_policy(content)
        self.log.wait(mark, lambda line: line.message == PARSING, "parse")
        self.settle()
        return [message for message in self.observed(mark) if "/marker-" not in message]

    # --- files ------------------------------------------------------------------------------------

    def assert_files(self, config: bytes, backup: bytes, status: str) -> None:
        self.assertEqual(self.terminal.read_file(CONFIG_FILE), config)
        self.assertEqual(self.terminal.read_file(BACKUP_FILE), backup)
        self.assertEqual(self.terminal.read_file(STATUS_FILE).decode(), status)

    # --- rules in force ---------------------------------------------------------------------------

    def reason_for(self, vendor: int) -> str:
        """Why a made-up device of that vendor is allowed or refused."""
        device = ["--id", str(next(MADE_UP)), "--interfaces", "255", "--vid", str(vendor),
                  "--pid", "1"]
        self.client("decide", *device)
        (record,) = [each for each in self.records() if each["deviceId"] == int(device[1])]
        self.client("remove", *device)
        return str(record["reason"])

    # --- controllers ------------------------------------------------------------------------------

    def kernel_mark(self) -> str:
        mark = f"reload mark {next(self.kernel_marks)} of {self.id()}"
        self.terminal.check_output(f"echo {shlex.quote(mark)} > /dev/kmsg")
        return mark

    def modes_set(self, kernel_mark: str) -> list[tuple[str, str]]:
        """The changes of mode that the kernel tells of behind its mark."""
        _, found, log = self.terminal.check_output("dmesg").partition(kernel_mark)
        self.assertTrue(found, "the kernel's log has lost the mark")
        return re.findall(r"(\S+): mode (\w+)$", log, re.MULTILINE)

    def comings_and_goings(self, mark: int) -> list[tuple[str, str, int, int]]:
        """Each USB device that came or went: node, action, vendor, product."""
        changes = []
        for event in self.terminal.uevents_since(mark):
            if event.get("DEVTYPE") == "usb_device" and event["ACTION"] in ("add", "remove"):
                node = HSUSB if "/dummy_hcd." in event["DEVPATH"] else SSUSB
                vendor, product, _ = (int(part, 16) for part in event["PRODUCT"].split("/"))
                changes.append((node, event["ACTION"], vendor, product))
        return changes


def verdict(kind: str, plugged: Plugged, allowed: bool, reason: str) -> Event:
    return {"event": "verdict", "kind": kind, "vendorId": plugged.device.vendor,
            "productId": plugged.device.product, "allowed": allowed, "reason": reason}


class GoodFileTest(ReloadTestCase):
    RULES = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"),
                   vendor_rule(SERIAL.vendor, SERIAL.product))
    PARSE = ["attribute--whitelist", " before while first child element name class",
             "class--USB_CLASS_MASS_STORAGE", "class val--8",
             "vendorid--4617", "isValidNumber s--4617", "pid--44033", "isValidNumber s--44033",
             "pid value print in while--44033"]

    def reload(self, text: str, expected: Sequence[Event]) -> tuple[list[str], float]:
        """Writes rules and waits for a verdict on each device, then for the observer; returns what
        the observer has logged, and the seconds from the file's close to the last verdict."""
        log, agent = self.log.mark(), self.agent.mark()
        began = time.monotonic()
        self.put_policy(text)
        for event in expected:
            about = {key: event[key] for key in ("event", "kind", "vendorId", "productId")}
            self.agent.wait_for(agent, **about)
        seconds = time.monotonic() - began
        self.settle()
        for plugged in self.plugged:
            self.terminal.locate(plugged)
        given = [{key: event[key] for key in expected[0]}
                 for event in self.agent.events(agent, event="verdict")]
        self.assertCountEqual(given, expected)
        return [line for line in self.observed(log) if "/marker-" not in line], seconds

    def assert_each_controller_flipped_once(self, kernel: str, uevents: int) -> None:
        self.assertEqual(self.modes_set(kernel), FLIPS)
        for node in NODES:
            self.assertEqual(self.terminal.mode(node), "host")
        changes = self.comings_and_goings(uevents)
        for plugged in self.plugged:
            self.assertEqual(
                [action for _, action, *ids in changes
                 if ids == [plugged.device.vendor, plugged.device.product]],
                ["remove", "add"], plugged)
        hubs = [(node, action) for node, action, vendor, _ in changes if vendor == ROOT_HUB_VENDOR]
        self.assertEqual([key for key, _ in itertools.groupby(hubs)], [
            (HSUSB, "remove"), (HSUSB, "add"), (SSUSB, "remove"), (SSUSB, "add")])

    def test_new_rules_reach_every_attached_device(self) -> None:
        self.begin_with(DEFAULT_POLICY)
        disk, keyboard, network, serial, vendor_hid = self.plug(STORAGE, KEYBOARD, NETWORK, SERIAL,
                                                                VENDOR_HID)
        for each in self.plugged:
            self.terminal.wait_until_works(each)
        (keys,) = self.inputs(keyboard)
        kernel, uevents = self.kernel_mark(), self.terminal.uevent_mark()
        observed, seconds = self.reload(self.RULES, [
            verdict("usb", disk, True, f"{BY_CLASS}USB_CLASS_MASS_STORAGE "),
            verdict("usb", keyboard, False, ""),
            verdict("input", keyboard, False, NOT_WHITELISTED),
            verdict("usb", network, False, NOT_WHITELISTED),
            verdict("usb", serial, True, f"{BY_PRODUCT}{SERIAL.vendor} PID: {SERIAL.product}"),
            verdict("usb", vendor_hid, False, NOT_WHITELISTED)])
        figure("new rules, from the file's close to the last of 6 verdicts", f"{seconds:.2f} s")
        self.assertEqual(observed, [
            closed(CONFIG_FILE), PARSING, *self.PARSE, PARSED, TAKING, reported("SUCCESS"),
            *copied(CONFIG_FILE, BACKUP_FILE, self.RULES.encode()), RESET, *flipped(*NODES),
            closed(STATUS_FILE), closed(BACKUP_FILE)])
        self.assert_files(self.RULES.encode(), self.RULES.encode(), "SUCCESS")
        self.assert_each_controller_flipped_once(kernel, uevents)
        for each in (disk, keyboard, serial):
            self.terminal.wait_until_works(each)
        for each in (network, vendor_hid):
            self.terminal.wait_until_blocked(each)
        self.assertFalse(self.exists(f"/sys/class/input/{keys}"))
        (keys,) = self.inputs(keyboard)
        self.assertTrue(self.inhibited(keys))

        # Looser rules give them their drivers back.
        kernel, uevents = self.kernel_mark(), self.terminal.uevent_mark()
        _, seconds = self.reload(DEFAULT_POLICY, [
            *(verdict("usb", each, True, BY_DEFAULT) for each in (disk, network, serial,
                                                                 vendor_hid)),
            verdict("usb", keyboard, False, ""), verdict("input", keyboard, True, BY_DEFAULT)])
        self.assert_files(DEFAULT_POLICY.encode(), DEFAULT_POLICY.encode(), "SUCCESS")
        self.assert_each_controller_flipped_once(kernel, uevents)
        for each in self.plugged:
            self.terminal.wait_until_works(each)
        (keys,) = self.inputs(keyboard)
        self.assertFalse(self.inhibited(keys))
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)

    def test_backup_is_the_file_with_an_end_to_each_line(self) -> None:
        self.begin_with(DEFAULT_POLICY)
        for content, backup in ((b"<usbconfig mode='default'/>", b"<usbconfig mode='default'/>\n"),
                                (b"<usbconfig mode='blacklist'>\r\n\r\n</usbconfig>\r\n", None)):
            with self.subTest(content):
                self.write(content)
                self.assert_files(content, backup or content, "SUCCESS")

    def test_memory_of_many_rules_is_given_back_behind_their_file_and_behind_them(self) -> None:
        few = self.RULES.encode()
        many = policy("whitelist", *map(vendor_rule, range(5000))).encode()
        self.begin_with(self.RULES)
        self.set_modes("none")
        self.write(few)
        sizes = [self.memory(self.pid)]
        for content in (many, few):
            self.write(content)
            self.assert_files(content, content, "SUCCESS")
            sizes.append(self.memory(self.pid))
        before, in_force, after = sizes
        figure("memory with few rules, with 5,000, with few again",
               f"{before} KB, {in_force} KB, {after} KB")
        # The document alone takes 2 MB, the text for the backup as much as the file has.
        self.assertLess(in_force - before, 512)
        self.assertLess(after - before, 256)

    def test_controller_that_is_not_in_host_mode_is_left_alone(self) -> None:
        self.begin_with(DEFAULT_POLICY)
        texts = itertools.cycle((policy("whitelist", vendor_rule(1)), DEFAULT_POLICY))
        for modes in ({HSUSB: "none"}, {SSUSB: "peripheral"}, {SSUSB: "none"},
                      {HSUSB: "peripheral", SSUSB: "none"}):
            with self.subTest(modes):
                self.set_modes("host")
                for node, mode in modes.items():
                    self.terminal.set_mode(node, mode)
                kernel, uevents = self.kernel_mark(), self.terminal.uevent_mark()
                text = next(texts).encode()
                observed = self.write(text)
                others = [node for node in NODES if node not in modes]
                self.assertEqual(observed[observed.index(RESET):],
                                 [RESET, *flipped(*others), closed(STATUS_FILE),
                                  closed(BACKUP_FILE)])
                self.assertEqual(self.modes_set(kernel),
                                 [flip for flip in FLIPS if flip[0] in others])
                for node in NODES:
                    self.assertEqual(self.terminal.mode(node), modes.get(node, "host"))
                self.assertLessEqual({node for node, *_ in self.comings_and_goings(uevents)},
                                     set(others))
                self.assert_files(text, text, "SUCCESS")


# A vendor that only bad files name, in front of what makes them bad.
STRANGER = 7
SEEN_BEFORE = f"<usbconfig mode=\"whitelist\">\n  {vendor_rule(STRANGER)}\n"


def with_a_rule_before(content: bytes) -> bytes:
    return content.replace(b'<usbconfig mode="whitelist">\n', SEEN_BEFORE.encode(), 1)


class BadFileTest(ReloadTestCase):
    FRIEND = 1000
    # Without an end to the last line, which the backup has.
    RULES = policy("whitelist", vendor_rule(FRIEND)).removesuffix("\n").encode()
    BACKUP = RULES + b"\n"
    RESTORED = [RESTORING, *copied(BACKUP_FILE, CONFIG_FILE, BACKUP), closed(STATUS_FILE),
                closed(CONFIG_FILE), PARSING, "attribute--whitelist",
                " before while first child element name vid", f"vendorid--{FRIEND}",
                f"isValidNumber s--{FRIEND}", "pid value print in else--", PARSED]

    def setUp(self) -> None:
        super().setUp()
        self.begin_with(DEFAULT_POLICY)
        self.write(self.RULES)

    def assert_old_rules_in_force(self) -> None:
        self.assertEqual(self.reason_for(self.FRIEND), f"{BY_VENDOR}{self.FRIEND}")
        self.assertEqual(self.reason_for(STRANGER), NOT_WHITELISTED)

    def test_each_kind_of_bad_file_is_replaced_by_the_backup(self) -> None:
        (disk,) = self.plug(STORAGE)
        kernel, uevents, agent = (self.kernel_mark(), self.terminal.uevent_mark(),
                                  self.agent.mark())
        for content, status in BAD_FILES:
            with self.subTest(status):
                observed = self.write(with_a_rule_before(content))
                self.assert_files(self.BACKUP, self.BACKUP, status)
                failed = observed.index(NOT_PARSED)
                self.assertEqual(observed[:2], [closed(CONFIG_FILE), PARSING])
                self.assertIn(reported(status), observed[:failed])
                self.assertEqual(observed[failed + 1:], self.RESTORED)
                self.assert_old_rules_in_force()
        for content, error in NO_XML:
            with self.subTest(error):
                observed = self.write(content)
                status = self.terminal.read_file(STATUS_FILE).decode()
                self.assertRegex(
                    status, rf"^Error={error} ErrorID=\d+ \(0x[0-9a-f]+\) Line number=\d+")
                self.assert_files(self.BACKUP, self.BACKUP, status)
                failed = observed.index(NOT_PARSED)
                self.assertEqual(observed[:2], [closed(CONFIG_FILE), PARSING])
                self.assertIn(reported(status), observed[:failed])
                self.assertEqual(observed[failed + 1:], self.RESTORED)
                self.assert_old_rules_in_force()
        self.assertEqual(self.modes_set(kernel), [])
        self.assertEqual(self.comings_and_goings(uevents), [])
        self.assertEqual(self.agent.since(agent), [])
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)

        # Then a good one is taken as ever.
        text = policy("whitelist", vendor_rule(STRANGER)).encode()
        agent = self.agent.mark()
        observed = self.write(text)
        self.assertEqual(observed[observed.index(PARSED):], [
            PARSED, TAKING, reported("SUCCESS"), *copied(CONFIG_FILE, BACKUP_FILE, text), RESET,
            *flipped(*NODES), closed(STATUS_FILE), closed(BACKUP_FILE)])
        self.assert_files(text, text, "SUCCESS")
        self.assertEqual(self.modes_set(kernel), FLIPS)
        self.terminal.locate(disk)
        self.agent.wait_for(agent, event="verdict", sysname=disk.sysname, allowed=False)
        self.terminal.wait_until_blocked(disk)
        self.assertEqual(self.reason_for(STRANGER), f"{BY_VENDOR}{STRANGER}")
        self.assertEqual(self.reason_for(self.FRIEND), NOT_WHITELISTED)

    def test_many_bad_files_one_after_the_other_change_nothing_for_the_next_good_one(self) -> None:
        for content, status in BAD_FILES[:3] * 2:
            self.write(content)
            self.assert_files(self.BACKUP, self.BACKUP, status)
        self.write(DEFAULT_POLICY.encode())
        self.assert_files(DEFAULT_POLICY.encode(), DEFAULT_POLICY.encode(), "SUCCESS")

    # The parser reports for a list without rules what the parse before it has left, also when the
    # observer leaves the status alone.
    def test_backup_without_rules_is_reported_by_its_own_parse(self) -> None:
        empty = policy("whitelist").encode()
        self.write(empty)
        for content, status in ((BAD_FILES[2][0], BAD_FILES[2][1]), (NO_XML[1][0], "SUCCESS")):
            with self.subTest(status):
                observed = self.write(content)
                self.assert_files(empty, empty, status)
                self.assertEqual(observed[observed.index(RESTORING):], [
                    RESTORING, *copied(BACKUP_FILE, CONFIG_FILE, empty), closed(STATUS_FILE),
                    closed(CONFIG_FILE), PARSING, "attribute--whitelist",
                    "no element, blocking all device", reported(status), PARSED,
                    closed(STATUS_FILE)])
                self.assertEqual(self.reason_for(STRANGER), NOT_WHITELISTED)


@dataclasses.dataclass
class Observer:
    """What the files must hold, by the rule of the restore flag, after the parses that the
    observer's own log tells of."""

    backup: bytes
    status: str = "SUCCESS"
    error: str = "SUCCESS"
    restored: bool = False
    parses: int = 0
    absorbed: int = 0
    resets: int = 0

    def follow(self, messages: Iterable[str], test: ReloadTestCase) -> None:
        """Takes all rounds of a log of the observer's."""
        rounds: list[list[str]] = []
        for message in messages:
            if message == PARSING:
                rounds.append([])
            elif rounds and not message.startswith(closed("")):
                rounds[-1].append(message)
        for each in rounds:
            self._take(each, test)

    def _take(self, messages: list[str], test: ReloadTestCase) -> None:
        self.parses += 1
        verdict = next(text for text in messages if text in (PARSED, NOT_PARSED))
        position = messages.index(verdict)
        reports = [text.removeprefix(REPORTED) for text in messages[:position]
                   if text.startswith(REPORTED)]
        after = messages[position + 1:]
        if verdict == NOT_PARSED:
            (self.status,) = reports
            if not any(text.startswith("xmlinput --") for text in messages):
                self.error = self.status
            test.assertEqual(after, [RESTORING, *copied(BACKUP_FILE, CONFIG_FILE, self.backup)])
            self.restored = True
            return
        # A list without rules has its parser report the error that was left before.
        empty = "no element, blocking all device" in messages
        test.assertEqual(reports, [self.error] if empty else [])
        if empty:
            self.status = self.error
        self.error = "SUCCESS"
        if self.restored:
            test.assertEqual(after, [])
            self.restored = False
            self.absorbed += 1
            return
        self._take_backup(after, test)

    def _take_backup(self, after: list[str], test: ReloadTestCase) -> None:
        end = after.index(COPIED)
        content = "".join(f"{line}\n" for line in after[4:end]).encode()
        test.assertEqual(after[:end + 2], [
            TAKING, reported("SUCCESS"), *copied(CONFIG_FILE, BACKUP_FILE, content), RESET])
        test.assertLessEqual(set(after[end + 2:]), set(flipped(*NODES)))
        self.status, self.backup = "SUCCESS", content
        self.resets += 1


VENDORS = (1000, 1001, 1002)

# Good files, and why a device of each of VENDORS is then allowed or refused.
GOOD_FILES: tuple[tuple[str, tuple[str, str, str]], ...] = (
    (policy("whitelist", vendor_rule(1000)),
     (f"{BY_VENDOR}1000", NOT_WHITELISTED, NOT_WHITELISTED)),
    (policy("whitelist", class_rule("USB_CLASS_AUDIO"), vendor_rule(1001, 5, 1),
            class_rule("USB_CLASS_PRINTER")),
     (NOT_WHITELISTED, f"{BY_PRODUCT}1001 PID: 1", NOT_WHITELISTED)),
    (policy("blacklist", vendor_rule(1002)),
     (NOT_BLACKLISTED, NOT_BLACKLISTED, "Blacklisted: Match by VID, VID : 1002")),
    (policy("whitelist"), (NOT_WHITELISTED,) * 3),
    (DEFAULT_POLICY, (BY_DEFAULT,) * 3),
)
BAD_TEXTS = [content.decode() for content, _ in (*BAD_FILES, *NO_XML)]
WRITES = 200


def of_one_length(texts: Iterable[str]) -> list[str]:
    """The same documents with blanks at the end. One that is written over another without being
    truncated first takes its place at once."""
    texts = list(texts)
    length = max(len(text) for text in texts) + 1
    return [f"{text:{length - 1}}\n" for text in texts]


class ManyWritesTest(ReloadTestCase):
    """The file is rewritten faster than the observer follows.

    A bad file that is put in place when the observer has parsed a good one, and has not copied it
    yet, gets into the backup, and a bad backup is put back for ever. So bad ones are written only
    when the observer cannot be there: when it resets the controllers, or is at rest."""

    def setUp(self) -> None:
        super().setUp()
        self.random = random.Random(20260)

    def follow_from(self, text: str) -> None:
        self.begin_with(text)
        self.model = Observer(text.encode())
        self.log_mark = self.log.mark()

    def assert_files_as_modelled(self) -> bytes:
        """Compares the files with what the observer's log says since the last time; returns the
        file in place."""
        end = self.log.mark()
        self.model.follow(self.observed(self.log_mark), self)
        self.log_mark = end
        config = self.terminal.read_file(CONFIG_FILE)
        self.assert_files(config, self.model.backup, self.model.status)
        return config

    def assert_rules_in_force(self, config: bytes, good: Sequence[str]) -> None:
        """The file in place must be a good one, and the rules its own."""
        self.assertIn(config.decode(), good)
        reasons = GOOD_FILES[good.index(config.decode())][1]
        self.assertEqual(tuple(self.reason_for(vendor) for vendor in VENDORS), reasons)
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)

    # --- during resets ----------------------------------------------------------------------------

    def bursts(self, last_is_good: bool) -> str:
        """Shell text: bursts of good and bad files, each while the observer is in a reset."""
        good = [text for text, _ in GOOD_FILES]
        names = {text: f"v{number}" for number, text in enumerate(good + BAD_TEXTS)}
        # A shell's own command writes a file in less than a millisecond.
        lines = [f"{name}={shlex.quote(text)}" for text, name in names.items()]
        lines += [f"resets() {{ grep -c {shlex.quote(RESET)} {DAEMON_LOG}; }}",
                  f'put() {{ printf "%s" "$1" > {CONFIG_FILE}; }}',
                  "before=$(resets)", f'put "${names[good[1]]}"']
        left = WRITES - 1
        while left:
            burst = left if left < 20 else self.random.randint(8, 15)
            left -= burst
            chosen = [self.random.choice(list(names)) for _ in range(burst)]
            if not left:
                chosen[-1] = self.random.choice(good if last_is_good else BAD_TEXTS)
            lines += ['until [ "$(resets)" -gt "$before" ]; do :; done',
                      *(f'put "${names[text]}"' for text in chosen), "before=$(resets)"]
        return "\n".join(lines)

    def test_files_written_during_resets(self) -> None:
        for last_is_good in (False, True):
            with self.subTest(last_is_good=last_is_good):
                self.follow_from(GOOD_FILES[0][0])
                self.terminal.check_output("sh", timeout=120,
                                           data=self.bursts(last_is_good).encode())
                # What is left to be parsed would take the controllers through a reset each time.
                modes = " ".join(f"{SOC}/{node}/mode" for node in NODES)
                off = Process(self.terminal, ["sh", "-c", "while :; do for mode in "
                                              f"{modes}; do echo none > $mode; done; "
                                              "usleep 10000; done"])
                self.addCleanup(off.kill)
                self.settle(120)
                off.kill()
                config = self.assert_files_as_modelled()
                self.assert_rules_in_force(config, [text for text, _ in GOOD_FILES])
                self.assertGreater(self.model.parses, WRITES)
                figure(f"parses of {WRITES} files written during resets, a "
                       f"{'good' if last_is_good else 'bad'} one last",
                       f"{self.model.parses}, of which {self.model.resets} taken over, "
                       f"{self.model.absorbed} absorbed")
                self.assertGreater(self.model.absorbed, 0)
                self.set_modes("host")

    # --- with good ones right behind bad ones -----------------------------------------------------

    def train(self, good: Sequence[str], bad: Sequence[str], length: int) -> list[str]:
        """One or two bad files and then good ones, with hardly a pause in between."""
        bad_ones = self.random.randint(1, 2)
        # The observer needs three closes to get from a bad file to a copy of a good one: by then
        # the second bad one is not in place any more.
        chosen = [self.random.choice(bad) for _ in range(bad_ones)]
        return chosen + [self.random.choice(good) for _ in range(length - bad_ones)]

    def test_good_files_written_right_behind_bad_ones(self) -> None:
        texts = of_one_length([text for text, _ in GOOD_FILES] + BAD_TEXTS)
        good, bad = texts[:len(GOOD_FILES)], texts[len(GOOD_FILES):]
        self.follow_from(good[0])
        # A reset would give each file the time to be followed.
        self.set_modes("none")
        length = 5
        for number in range(WRITES // length):
            with self.subTest(number):
                lines = [f'put() {{ printf "%s" "$1" 1<> {CONFIG_FILE}; }}',
                         'pause() { n=$1; while [ "$n" -gt 0 ]; do n=$((n - 1)); done; }']
                for text in self.train(good, bad, length):
                    lines += [f"put {shlex.quote(text)}",
                              f"pause {self.random.choice((0, 10, 100, 300))}"]
                self.terminal.check_output("sh", data="\n".join(lines).encode())
                self.settle()
                config = self.assert_files_as_modelled()
                self.assertIn(config.decode(), good)
        self.assert_rules_in_force(config, good)
        self.assertGreater(self.model.absorbed, 0)
        self.assertGreater(self.model.resets, 0)
        figure(f"parses of {WRITES} files, good ones right behind bad ones",
               f"{self.model.parses}, of which {self.model.resets} taken over, "
               f"{self.model.absorbed} absorbed")


class OtherFilesTest(ReloadTestCase):
    RULES = policy("whitelist", vendor_rule(VENDORS[0]))
    OTHERS = ("usb_device_config.xml.new", "usb_device_config.xm", "Usb_device_config.xml",
              ".usb_device_config.xml", "usb_device_config.xml ", "a")

    def setUp(self) -> None:
        super().setUp()
        self.begin_with(self.RULES)

    def lines_of(self, command: str) -> list[str]:
        """What the observer logs of a command in its directory."""
        mark = self.log.mark()
        self.terminal.check_output(f"cd {CONFIG_DIR} && {command}")
        self.settle()
        return [line for line in self.observed(mark) if "/marker-" not in line]

    def test_only_the_file_itself_counts_once_it_is_closed_after_writing(self) -> None:
        kernel = self.kernel_mark()
        bad = "echo '<usbconfig/>'"
        file = CONFIG_FILE.rpartition("/")[2]
        for command, lines in (
                (f"cat {file}", []),
                (f"head -c 1 {file} && tail -c 1 {file}", []),
                (f"cat {BACKUP_FILE} {STATUS_FILE}", []),
                (f"touch {file}", []),
                (f"chmod 600 {file}", []),
                (f"{bad} > {STATUS_FILE}", [STATUS_FILE]),
                (f": >> {STATUS_FILE}", [STATUS_FILE]),
                *((f"{bad} > {shlex.quote(name)}", [f"{CONFIG_DIR}/{name}"])
                  for name in self.OTHERS),
                (f"mkdir {file}.d && {bad} > {file}.d/{file}", []),
                (f"mv {file} a", []),
                (f"mkdir {file} && rmdir {file}", []),
                ("ln -s b usb_device_config.xml && rm usb_device_config.xml", []),
                # A file renamed or linked into place is not seen, whatever it is.
                (f"{bad} > b && mv b {file}", [f"{CONFIG_DIR}/b"]),
                (f"rm {file} && ln a {file} && {bad} > a", [f"{CONFIG_DIR}/a"]),
                (f"{bad} > {BACKUP_FILE}", [BACKUP_FILE]),
                (f"rm {file} {BACKUP_FILE}", [])):
            with self.subTest(command):
                self.assertEqual(self.lines_of(command), [closed(path) for path in lines])
        self.assertEqual(self.modes_set(kernel), [])
        self.assertEqual(self.terminal.read_file(STATUS_FILE), b"<usbconfig/>\n")
        self.assertEqual(self.reason_for(VENDORS[0]), f"{BY_VENDOR}{VENDORS[0]}")
        self.assertEqual(self.reason_for(VENDORS[1]), NOT_WHITELISTED)

    def test_file_renamed_into_place_is_taken_when_it_is_next_closed_after_writing(self) -> None:
        text = policy("blacklist", vendor_rule(VENDORS[0]))
        self.terminal.write_file(f"{CONFIG_DIR}/new", text)
        self.lines_of(f"mv new {CONFIG_FILE}")
        self.assertEqual(self.reason_for(VENDORS[0]), f"{BY_VENDOR}{VENDORS[0]}")
        # Opened to write, but nothing is written.
        self.assertIn(PARSED, self.lines_of(f": >> {CONFIG_FILE}"))
        self.assert_files(text.encode(), text.encode(), "SUCCESS")
        self.assertEqual(self.reason_for(VENDORS[0]),
                         f"Blacklisted: Match by VID, VID : {VENDORS[0]}")

    def test_file_counts_when_it_is_closed_not_when_it_is_written(self) -> None:
        mark = self.log.mark()
        writer = Process(self.terminal, ["sh", "-c", f"exec 3> {CONFIG_FILE}; echo opened; "
                                         "while read -r line; do echo \"$line\" >&3; "
                                         "echo written; done"])
        self.addCleanup(writer.kill)
        self.assertEqual(writer.next_line(), "opened")
        for line in DEFAULT_POLICY.splitlines():
            writer.send(line)
            self.assertEqual(writer.next_line(), "written")
        self.settle()
        self.assertNotIn(PARSING, self.observed(mark))
        self.assertEqual(self.reason_for(VENDORS[1]), NOT_WHITELISTED)
        writer.end_input()
        self.log.wait_for(mark, PARSING)
        self.settle()
        self.assertEqual(self.observed(mark).count(PARSING), 1)
        self.assert_files(DEFAULT_POLICY.encode(), DEFAULT_POLICY.encode(), "SUCCESS")
        self.assertEqual(self.reason_for(VENDORS[1]), BY_DEFAULT)


if __name__ == "__main__":
    unittest.main()
