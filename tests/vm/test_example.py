# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The integrator's guide: its example of a client, and what it says that a terminal shows."""

from __future__ import annotations

import re
import unittest
from pathlib import Path
from typing import NamedTuple

from support import DEFAULT_POLICY, DaemonTestCase, Process, class_rule, policy
from vm.devices import SERIAL, STORAGE

GUIDE = Path(__file__).resolve().parent.parent.parent / "docs/integration.md"

# No bus has a number that high, so no real device has these ids.
DISK, PRINTER = 90005, 90017

BY_CLASS = "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "
BY_SOURCE = "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_MOUSE "
NOT_WHITELISTED = "No matching rule found to Whitelist the device"

USAGE = ("usage: kus-example-client usb|input ID NAME CLASS VENDOR PRODUCT "
         "[INTERFACE-CLASS...]\n")


def arguments(device_id: int, name: str, *interface_classes: int) -> list[str]:
    return ["usb", str(device_id), name, "0", "0x64", "0xc8", *map(str, interface_classes)]


class ExampleTestCase(DaemonTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.use_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"),
                               class_rule("AINPUT_SOURCE_MOUSE")))

    def example(self, words: list[str]) -> Process:
        example = Process(self.terminal, ["kus-example-client", *words])
        self.addCleanup(example.kill)
        return example

    def assert_prints(self, example: Process, *lines: str) -> None:
        for line in lines:
            self.assertEqual(example.next_line(), line)

    def assert_ends_silently(self, example: Process) -> None:
        example.end_input()
        example.wait()
        self.assertEqual(example.lines(), [])


class ExampleTest(ExampleTestCase):
    def test_allowed_device_is_announced_and_its_verdict_printed(self) -> None:
        example = self.example(arguments(DISK, "Disk", 8))
        self.assert_prints(example, "found", f"added {DISK} 'Disk' allowed: {BY_CLASS}",
                           f"verdict {DISK} allowed")
        self.assertEqual([(record["deviceId"], record["vendorId"], record["productId"],
                           record["interfaceClasses"]) for record in self.records()],
                         [(DISK, 0x64, 0xC8, [8])])
        self.assert_ends_silently(example)

    def test_refused_device_is_announced_and_its_verdict_printed(self) -> None:
        example = self.example(arguments(PRINTER, "Printer", 8, 7))
        self.assert_prints(example, "found", f"added {PRINTER} 'Printer' refused: "
                           f"{NOT_WHITELISTED}", f"verdict {PRINTER} refused")
        self.assert_ends_silently(example)

    def test_input_device_gets_its_verdict_without_an_event(self) -> None:
        example = self.example(["input", "7", "Mouse", "0x2002", "0x46d", "0xc077"])
        self.assert_prints(example, "found", "verdict 7 allowed")
        self.assertEqual([(record["deviceType"], record["deviceId"], record["reason"])
                          for record in self.records()], [(1, 7, BY_SOURCE)])
        self.assert_ends_silently(example)

    def test_devices_that_come_and_go_are_told(self) -> None:
        example = self.example(arguments(DISK, "Disk", 8))
        self.assertEqual([example.next_line() for _ in range(3)][2], f"verdict {DISK} allowed")
        (disk,) = self.plug(STORAGE)
        (serial,) = self.plug(SERIAL)
        ids = {record["deviceName"]: record["deviceId"] for record in self.records()}
        disk_id, serial_id = ids[STORAGE.title], ids[SERIAL.title]
        self.assert_prints(example, f"added {disk_id} '{STORAGE.title}' allowed: {BY_CLASS}",
                           f"added {serial_id} '{SERIAL.title}' refused: {NOT_WHITELISTED}")
        self.terminal.wait_until_blocked(serial)
        self.unplug(disk)
        self.unplug(serial)
        self.assert_prints(example, f"removed {disk_id}", f"removed {serial_id}")
        self.assert_ends_silently(example)

    def test_daemon_that_was_killed_is_found_again_and_told_everything_anew(self) -> None:
        example = self.example(arguments(DISK, "Disk", 8))
        told = ("found", f"added {DISK} 'Disk' allowed: {BY_CLASS}", f"verdict {DISK} allowed")
        self.assert_prints(example, *told)
        for _ in range(2):
            log, agent = self.log.mark(), self.agent.mark()
            self.terminal.check_output("kill -KILL $(pidof kusd)")
            self.assert_prints(example, "lost", *told)
            self.agent.wait_for(agent, event="rescan", reason="service")
            self.assertEqual(self.log.messages(log, "^Size of callbacks"),
                             ["Size of callbacks at registerKusCallback 1"])
            self.assertEqual([record["deviceId"] for record in self.records()], [DISK])
        self.client("remove", "--id", str(DISK))
        self.assert_prints(example, f"removed {DISK}")
        self.assert_ends_silently(example)

    def test_client_waits_for_a_daemon_that_is_not_there_yet(self) -> None:
        self.stop_daemon()
        example = self.example(arguments(DISK, "Disk", 8))
        waiting = "kus-example-client"
        self.terminal.wait_until(lambda: self.terminal.run(["pidof", waiting]).status == 0, 30,
                                 waiting)
        self.assertEqual(example.lines(), [])
        self.start_daemon()
        self.assert_prints(example, "found", f"added {DISK} 'Disk' allowed: {BY_CLASS}",
                           f"verdict {DISK} allowed")
        self.assert_ends_silently(example)

    def test_its_end_takes_its_registration_back(self) -> None:
        log = self.log.mark()
        example = self.example(arguments(DISK, "Disk", 8))
        self.assertEqual([example.next_line() for _ in range(3)][2], f"verdict {DISK} allowed")
        self.assert_ends_silently(example)
        self.assertEqual(self.log.messages(log, "^Size of callbacks|binderDied"),
                         ["Size of callbacks at registerKusCallback 1",
                          "Size of callbacks at unregisterKusCallback0"])

    def test_wrong_words_are_answered_with_the_right_ones(self) -> None:
        for words in ([], ["usb", "1", "Disk", "0", "1"], ["hid", "1", "Disk", "0", "1", "1"],
                      ["usb", "x", "Disk", "0", "1", "1"], ["usb", "1", "Disk", "0", "1", "1", ""],
                      ["usb", "1", "Disk", "0", "1", "1", "256"]):
            with self.subTest(words=words):
                result = self.terminal.run(["kus-example-client", *words])
                self.assertEqual((result.status, result.stdout, result.stderr), (2, "", USAGE))


class Command(NamedTuple):
    text: str
    # The lines that it prints.
    output: list[str]


def guide_blocks(language: str) -> list[str]:
    return re.findall(rf"^```{language}\n(.*?)^```$", GUIDE.read_text(), re.MULTILINE | re.DOTALL)


def transcript(block: str) -> list[Command]:
    commands: list[Command] = []
    for line in block.splitlines():
        if line.startswith("$ "):
            commands.append(Command(line.removeprefix("$ "), []))
        else:
            commands[-1].output.append(line)
    return commands


class GuideTest(DaemonTestCase):
    """The guide's two transcripts are a terminal's: after its first start, and with a device that
    the guide's own rules refuse. Only the numbers of bus and device are open."""

    def words(self, line: str) -> list[str]:
        return line.split()

    def check(self, block: str, names: dict[str, str]) -> None:
        commands = transcript(block)
        self.assertGreater(len(commands), 2)
        for command in commands:
            with self.subTest(command=command.text):
                text = command.text
                for ours, real in names.items():
                    text = text.replace(ours, real)
                result = self.terminal.run(text)
                printed = result.stdout
                for ours, real in names.items():
                    printed = printed.replace(real, ours)
                self.assertEqual((result.status, result.stderr), (0, ""))
                self.assertEqual([self.words(line) for line in printed.splitlines()],
                                 [self.words(line) for line in command.output])

    def test_terminal_without_rules_looks_as_the_guide_says(self) -> None:
        self.use_policy(DEFAULT_POLICY)
        self.check(guide_blocks("console")[0], {})

    def test_refused_device_looks_as_the_guide_says(self) -> None:
        self.use_policy(guide_blocks("xml")[0])
        (disk,) = self.plug(STORAGE)
        self.terminal.wait_until_blocked(disk)
        (record,) = self.records()
        self.check(guide_blocks("console")[1],
                   {"2002": str(record["deviceId"]), "2-1": disk.sysname})


if __name__ == "__main__":
    unittest.main()
