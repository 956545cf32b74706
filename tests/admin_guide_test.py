# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""What the administrator's guide shows is what the programs print: its commands are run, in their
order, on a machine with the devices that it tells of.

"$" is the administrator's machine, "terminal#" a terminal. No service runs there; what it does with
its files is done here, by what kusctl check says of them."""

from __future__ import annotations

import json
import re
import unittest
from typing import Iterator, NamedTuple, Optional

from tests.kusctl_sandbox import KEYBOARD, REPO, TOUCHSCREEN, Machine, Usb

GUIDE = REPO / "docs/admin.md"
# Attached in the guide's walk-through.
DEVICES = (Usb("222a:0001", "ILITEK Touch", (3,), TOUCHSCREEN),
           Usb("05e0:1200", "Symbol Bar Code Scanner", (3,), KEYBOARD),
           Usb("0525:a4a7", "Receipt Printer", (7,)))
HOME = "/home"
POLICIES = "/data/system/usbdeviceconfig"
DEFAULT = '<?xml version="1.0" encoding="UTF-8"?>\n<usbconfig mode="default">\n</usbconfig>\n'


class Block(NamedTuple):
    """A block of code, with the line before it and what it is marked as."""

    before: str
    kind: str
    text: str


def blocks(guide: str) -> Iterator[Block]:
    before = ""
    block: Optional[Block] = None
    for line in guide.splitlines():
        if block is None and line.startswith("```"):
            block = Block(before, line[3:], "")
        elif line == "```" and block is not None:
            yield block
            before, block = "", None
        elif block is not None:
            block = block._replace(text=f"{block.text}{line}\n")
        elif line:
            before = line


def file_named(block: Block) -> str:
    """What "... `name.xml`:" before a policy calls it."""
    found = re.search(r"`([\w-]+\.xml)`:$", block.before)
    return found.group(1) if found else ""


class Guide:
    """Runs the guide's commands one after the other."""

    def __init__(self, machine: Machine) -> None:
        self._machine = machine
        self._config = machine.policies / "usb_device_config.xml"
        self._status = 0
        self._config.write_text(DEFAULT)
        self._takeover()

    def _takeover(self) -> None:
        """What the service does about a file that was closed after writing."""
        policies = self._machine.policies
        result = self._machine.bash(f"kusctl check --json {self._config.name}", POLICIES)
        check = json.loads(result.stdout)
        (policies / "status.txt").write_text(check["status"])
        backup = policies / "usb_device_config_backup.xml"
        source, copy = (self._config, backup) if check["accepted"] else (backup, self._config)
        copy.write_text(source.read_text())

    def _run(self, command: str, folder: str) -> str:
        result = self._machine.bash(f"(exit {self._status}); {command}", folder)
        self._status = result.returncode
        return result.stdout

    def on_terminal(self, command: str) -> str:
        before = self._config.stat()
        # While it is open, no other file can be given its inode.
        with self._config.open():
            printed = self._run(command, POLICIES)
            after = self._config.stat()
        # A renamed file is another one, and goes unnoticed.
        if after.st_ino == before.st_ino and after.st_mtime_ns != before.st_mtime_ns:
            self._takeover()
        return re.sub(r"^(service +)(?:not running|cannot be asked): .*$", r"\1running", printed,
                      flags=re.MULTILINE)

    def transcript(self, block: str) -> str:
        """The same block with what the programs print."""
        text = ""
        for line in block.splitlines():
            if line.startswith("$ "):
                text += f"{line}\n" + self._run(line[2:], HOME)
            elif line.startswith("terminal# "):
                text += f"{line}\n" + self.on_terminal(line[10:])
        # No line of a document ends in blanks.
        return re.sub(r" +$", "", text, flags=re.MULTILINE)

    def write(self, name: str, text: str) -> None:
        (self._machine.home / name).write_text(text)


class AdminGuideTest(unittest.TestCase):
    """docs/admin.md"""

    maxDiff = None

    def setUp(self) -> None:
        self.guide = GUIDE.read_text()

    def test_its_commands_print_what_it_shows(self) -> None:
        ran = 0
        with Machine(DEVICES) as machine:
            guide = Guide(machine)
            for block in blocks(self.guide):
                if block.kind == "xml":
                    guide.write(file_named(block) or "unnamed.xml", block.text)
                elif block.kind == "console":
                    ran += 1
                    with self.subTest(block=block.text.partition("\n")[0]):
                        self.assertEqual(block.text, guide.transcript(block.text))
        self.assertEqual(ran, self.guide.count("```console"))

    def test_its_policies_are_good_but_for_those_that_show_a_mistake(self) -> None:
        shown = 0
        for block in blocks(self.guide):
            name = file_named(block)
            if block.kind != "xml" or name.startswith("bad"):
                continue
            shown += 1
            with self.subTest(policy=block.text), Machine() as machine:
                (machine.home / "policy.xml").write_text(block.text)
                result = machine.bash("kusctl check policy.xml")
                self.assertEqual(result.returncode, 0, result.stdout)
        self.assertGreater(shown, 0)

    def test_it_names_every_class_that_a_rule_can_name(self) -> None:
        constants = (REPO / "android/kus/constants.h").read_text()
        rows = re.findall(r'\{"((?:USB_CLASS|AINPUT_SOURCE)_\w+)", (\w+)\}', constants)
        restricted = re.search(r"restrictedClasses = \{(.*?)\};", constants)
        assert restricted is not None
        codes = {int(code) for code in restricted.group(1).split(",")}
        names = {name for name, code in rows if int(code, 0) not in codes}
        self.assertEqual(set(re.findall(r"^\| `(\w+)` \|", self.guide, re.MULTILINE)), names)

    def test_its_codes_of_classes_are_the_parsers(self) -> None:
        constants = (REPO / "android/kus/constants.h").read_text()
        named = {name: int(code, 0)
                 for name, code in re.findall(r'\{"(USB_CLASS_\w+)", (\w+)\}', constants)}
        restricted = re.search(r"restrictedClasses = \{(.*?)\};", constants)
        assert restricted is not None
        codes = [int(code) for code in restricted.group(1).split(",")]
        shown = re.findall(r"^\| `(USB_CLASS_\w+)` \| (\d+) \|", self.guide, re.MULTILINE)
        self.assertEqual({name: int(code) for name, code in shown},
                         {name: code for name, code in named.items() if code not in codes})
        uncounted = re.findall(r"^\| (\d+) \|", self.guide, re.MULTILINE)
        self.assertEqual(sorted(map(int, uncounted)), sorted(codes))

    def test_a_vendors_own_hid_device_is_judged_as_a_usb_device(self) -> None:
        vendors, screen = Usb("11ca:0220", "Payment Terminal", (3,)), DEVICES[0]
        with Machine((vendors, screen)) as machine:
            (machine.home / "policy.xml").write_text('<usbconfig mode="whitelist"/>')
            result = machine.bash("kusctl explain policy.xml --present --json")
        verdicts = {device["sysname"]: (device["kind"], device["verdict"])
                    for device in json.loads(result.stdout)["devices"]}
        self.assertEqual(verdicts, {"1-1": ("usb", "refused"), "1-2": ("usb", "input"),
                                    "input2": ("input", "refused")})

    def test_it_tells_every_reason(self) -> None:
        service = (REPO / "android/kus/ku_service.cpp").read_text()
        reasons = re.findall(r'"(Enabled by default rule|Match by [^"]+?|No matching rule [^"]+)"',
                             service)
        self.assertGreater(len(reasons), 3)
        for reason in reasons:
            # What follows is the class or the ids of a device.
            self.assertIn(reason.partition(",")[0], self.guide)

    def test_its_links_lead_somewhere(self) -> None:
        links = re.findall(r"\]\(([^)#:]+)\)", self.guide)
        self.assertGreater(len(links), 0)
        for target in links:
            self.assertTrue((GUIDE.parent / target).exists(), target)


if __name__ == "__main__":
    unittest.main()
