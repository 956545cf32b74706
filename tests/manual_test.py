# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""The manual pages tell what the programs do: their options and statuses, names and texts are those
of the sources, and the policies in them are good."""

from __future__ import annotations

import json
import re
import signal
import subprocess
import unittest
from pathlib import Path
from typing import Any

from tests.kusctl_sandbox import KEYBOARD, PROGRAMS, REPO, Machine, Usb

PAGES = sorted((REPO / "docs/man").iterdir())
OPTION = re.compile(r"--([a-z][a-z-]*)")
STICK = Usb("0951:1666", "Stick", (8,))
KEYS = Usb("046d:c31c", "Keyboard", (3,), KEYBOARD)
POLICY = '<usbconfig mode="whitelist"><class>USB_CLASS_MASS_STORAGE</class></usbconfig>'


def page(name: str) -> str:
    return (REPO / "docs/man" / name).read_text()


def source(name: str) -> str:
    return (REPO / name).read_text()


def part(text: str, heading: str) -> str:
    """What stands under a heading of a page."""
    found = re.search(rf"^\.S[hs] {re.escape(heading)}\n(.*?)(?=^\.S[hs] |\Z)", text,
                      re.MULTILINE | re.DOTALL)
    if found is None:
        raise AssertionError(f"no heading {heading}")
    return found.group(1)


def body(text: str, opening: str) -> str:
    """What a source has between the braces that an expression opens."""
    found = re.search(opening + r"\s*\{(.*?)\n?\};", text, re.DOTALL)
    if found is None:
        raise AssertionError(f"no {opening}")
    return found.group(1)


def options_in(text: str) -> set[str]:
    """Of a page."""
    return set(re.findall(r"\bFl -([a-z][a-z-]*)", text))


def usage(*command: str) -> str:
    result = subprocess.run([PROGRAMS / command[0], *command[1:]], capture_output=True, text=True,
                            timeout=60, check=False)
    return result.stdout + result.stderr


def synopsis(text: str) -> dict[str, set[str]]:
    """The options that a page of commands lists for each of them."""
    commands: dict[str, set[str]] = {}
    for call in re.split(r"^\.Nm\n", part(text, "SYNOPSIS"), flags=re.MULTILINE)[1:]:
        first = re.match(r"\.Cm ([a-z]+)", call)
        if first is None:
            raise AssertionError(f"a call without a command: {call}")
        commands.setdefault(first.group(1), set()).update(options_in(call))
    return commands


def policies(text: str) -> list[str]:
    blocks = re.findall(r"^\.Bd -literal.*?\n(.*?)^\.Ed", text, re.MULTILINE | re.DOTALL)
    return [block for block in blocks if "<usbconfig" in block]


def exit_statuses(text: str) -> set[int]:
    return {int(number)
            for number in re.findall(r"^\.It (\d+)$", part(text, "EXIT STATUS"), re.MULTILINE)}


def statuses_of(file: str) -> set[int]:
    return {int(number) for number in re.findall(r"= (\d+)", body(source(file), "enum ExitStatus"))}


def words_of_item(text: str, item: str) -> set[str]:
    """The literal words of one item of a list, where Li takes all up to punctuation or Pq."""
    found = re.search(rf"^\.It Cm {item}\n(.*?)(?=^\.It |^\.El)", text, re.MULTILINE | re.DOTALL)
    if found is None:
        raise AssertionError(f"no item {item}")
    lines = found.group(1).replace("\\\n", "").splitlines()
    literals = [line.partition("Li ")[2] for line in lines if "Li " in line]
    return {word for literal in literals for word in literal.split() if word[0].isalpha()}


def members(value: Any) -> set[str]:
    """The names of all members of what a program printed, at any depth."""
    if isinstance(value, dict):
        return set(value).union(*(members(each) for each in value.values()))
    if isinstance(value, list):
        return set().union(*(members(each) for each in value))
    return set()


class PagesTest(unittest.TestCase):
    """All of them."""

    def test_each_page_is_good_mdoc(self) -> None:
        self.assertEqual([file.name for file in PAGES],
                         ["kus-hotplug.8", "kusctl.1", "kusd.8", "usb_device_config.5"])
        result = subprocess.run(["mandoc", "-Tlint", "-Wwarning", *PAGES], capture_output=True,
                                text=True, timeout=60, check=False)
        self.assertEqual((result.stdout + result.stderr, result.returncode), ("", 0))

    def test_each_policy_is_taken_over_without_advice(self) -> None:
        shown = 0
        for file in PAGES:
            for text in policies(file.read_text()):
                shown += 1
                with self.subTest(page=file.name, policy=text), Machine() as machine:
                    (machine.home / "policy.xml").write_text(text)
                    result = machine.bash("kusctl check --strict policy.xml")
                    self.assertEqual(result.returncode, 0, result.stdout)
        self.assertEqual(shown, 5)


class KusctlPageTest(unittest.TestCase):
    """kusctl(1)"""

    def setUp(self) -> None:
        self.page = page("kusctl.1")

    def test_commands_are_the_programs(self) -> None:
        commands = set(re.findall(r"^  ([a-z]+)\b", usage("kusctl", "help"), re.MULTILINE))
        self.assertEqual(set(synopsis(self.page)), commands | {"help"})

    def test_options_of_each_command_are_the_programs(self) -> None:
        for command, options in synopsis(self.page).items():
            with self.subTest(command=command):
                said = usage("kusctl", command, "--no-such-option").partition(": kusctl ")[2]
                self.assertTrue(said)
                always = set() if command == "help" else {"json"}
                self.assertEqual(options, set(OPTION.findall(said)) | always)

    def test_every_option_is_described(self) -> None:
        listed = set().union(*synopsis(self.page).values())
        described = options_in("".join(re.findall(r"^\.It Fl .*", self.page, re.MULTILINE)))
        # That of diff stands in the item of its command, help in the text.
        self.assertEqual(described, listed)
        self.assertIn("\n.Fl -help\n", part(self.page, "DESCRIPTION"))

    def test_advice_is_the_programs(self) -> None:
        known = re.findall(r'\{"([a-z-]+)", "', body(source("tools/kusctl/advice.cpp"),
                                                     r"kIds = \*new std::vector<AdviceId>"))
        listed = re.findall(r"^\.It Li ([a-z-]+)$", part(self.page, "ADVICE"), re.MULTILINE)
        self.assertEqual(listed, known)

    def test_advice_that_cannot_be_taken_back_is_the_programs(self) -> None:
        kept = re.findall(r'"([a-z-]+)"', body(source("tools/kusctl/advice.cpp"),
                                               r"kRejected =\s*\*new std::set<std::string>"))
        told = part(self.page, "ADVICE").partition("cannot be taken back:\n")[2]
        self.assertEqual(re.findall(r"[a-z]+(?:-[a-z]+)?", told.replace(".Li", "")),
                         [*kept[:-1], "and", kept[-1]])

    def test_exit_statuses_are_the_programs(self) -> None:
        self.assertEqual(exit_statuses(self.page), statuses_of("tools/kusctl/output.h"))

    def test_json_members_are_the_programs(self) -> None:
        commands = {
            "status": "kusctl status --json",
            "check": "kusctl check a.xml --json; kusctl check crash.xml --json",
            "explain": "kusctl explain a.xml --present --json",
            "generate": "kusctl generate --json",
        }
        with Machine((STICK, KEYS)) as machine:
            (machine.home / "a.xml").write_text(POLICY)
            (machine.home / "crash.xml").write_text("<!-- nothing -->")
            for command, call in commands.items():
                with self.subTest(command=command):
                    printed = machine.bash(call).stdout.splitlines()
                    found = set().union(*(members(json.loads(line)) for line in printed))
                    told = words_of_item(part(self.page, "JSON"), command)
                    self.assertEqual(told, found)

    def test_json_members_of_diff_are_the_programs(self) -> None:
        with Machine((STICK, KEYS)) as machine:
            (machine.home / "a.xml").write_text(POLICY)
            printed = machine.bash("kusctl diff a.xml a.xml --present --json").stdout
        json_part = part(self.page, "JSON")
        # "With the members of explain up to interfaceClasses".
        item = re.search(r"^\.It Cm explain\n(.*?), verdict", json_part, re.MULTILINE | re.DOTALL)
        assert item is not None
        shared = set(re.findall(r"\b(sysname|kind|name|vendorId|productId|deviceClass|"
                                r"interfaceClasses)\b", item.group(1)))
        self.assertEqual((words_of_item(json_part, "diff") - {"interfaceClasses"}) | shared,
                         members(json.loads(printed)))


class ConfigPageTest(unittest.TestCase):
    """usb_device_config(5)"""

    def setUp(self) -> None:
        self.page = page("usb_device_config.5")
        self.constants = source("android/kus/constants.h")
        rows = re.findall(r'\{"(\w+)", (\w+)\}', body(self.constants, r"usbClassTable\[\] ="))
        self.codes = {name: int(code, 0) for name, code in rows}

    def listed(self, text: str) -> dict[str, int]:
        rows = re.findall(r"^\.It Li (\w+) Ta (\w+) Ta \S", text, re.MULTILINE)
        self.assertEqual(len(rows), len(dict(rows)), "a name stands there twice")
        return {name: int(code, 0) for name, code in rows}

    def test_names_and_codes_are_the_parsers(self) -> None:
        self.assertEqual(self.listed(self.page), self.codes)

    def test_restricted_classes_are_the_parsers(self) -> None:
        found = re.search(r"restrictedClasses = \{(.*?)\};", self.constants)
        assert found is not None
        codes = {int(code) for code in found.group(1).split(",")}
        restricted = part(self.page, "Classes").partition(".Em restricted")[2]
        self.assertEqual(set(self.listed(restricted).values()), codes)

    def test_errors_are_the_parsers(self) -> None:
        # All capitals but for the attribute's name; the part after the colon is the file's.
        written = re.findall(r'"((?:vendorid TAG|[A-Z]{4,7} )[A-Z ]+(?::| : )?)"',
                             source("android/kus/util.cpp"))
        listed = re.findall(r'^\.It Li "?([^"\n]+?)"?$', part(self.page, "The status file"),
                            re.MULTILINE)
        texts = {re.sub(r":( ?)(NAME|TEXT)$", r":\1", text) for text in listed}
        crash = re.search(r'updateErrorFile\(statusFilePath, "([^"]+)"\)',
                          source("android/kus/daemon.cpp"))
        assert crash is not None
        library = "Error=XML_ERROR_... ErrorID=... Line number=..."
        self.assertEqual(texts, {*written, crash.group(1), library, "SUCCESS"})

    def test_paths_are_the_daemons(self) -> None:
        paths = re.findall(r'"(/data/[^"]+)"', self.constants)
        folder, *files = sorted(paths)
        self.assertEqual({Path(file).parent.as_posix() for file in files}, {folder})
        listed = re.findall(r"^\.It Pa (\S+)$", part(self.page, "FILES"), re.MULTILINE)
        self.assertEqual(sorted(listed), sorted(Path(file).name for file in files))
        self.assertIn(f".Pa {folder} :\n", part(self.page, "FILES"))


class DaemonPageTest(unittest.TestCase):
    """kusd(8)"""

    def test_exit_statuses_are_the_signals_it_handles(self) -> None:
        found = re.search(r"for \(const int signum : \{(.*?)\}\)", source("android/kus/daemon.cpp"))
        assert found is not None
        handled = {int(signal.Signals[name]) for name in found.group(1).split(", ")}
        self.assertEqual(exit_statuses(page("kusd.8")), {0} | handled)

    def test_mode_is_the_daemons(self) -> None:
        found = re.search(r'argv\[1\]\) == "([^"]+)"', source("android/kus/daemon.cpp"))
        assert found is not None
        self.assertIn(f".Cm {found.group(1)}\n", part(page("kusd.8"), "SYNOPSIS"))

    def test_properties_are_the_daemons(self) -> None:
        texts = source("android/kus/ku_service.cpp") + source("android/kus/usbdevice.cpp")
        names = set(re.findall(r'"((?:ro|persist)\.[\w.]+\w)"', texts))
        environment = part(page("kusd.8"), "ENVIRONMENT")
        listed = set(re.findall(r"\b(?:ro|persist)\.[\w.]+", environment))
        self.assertEqual(listed, names)


class HotplugPageTest(unittest.TestCase):
    """kus-hotplug(8)"""

    def setUp(self) -> None:
        self.page = page("kus-hotplug.8")

    def test_options_are_the_programs(self) -> None:
        said = usage("kus-hotplug", "--help")
        self.assertIn("usage: kus-hotplug ", said)
        self.assertEqual(options_in(part(self.page, "SYNOPSIS")), set(OPTION.findall(said)))
        described = options_in("".join(re.findall(r"^\.It Fl .*", self.page, re.MULTILINE)))
        self.assertEqual(described, set(OPTION.findall(said)))

    def test_exit_statuses_are_the_programs(self) -> None:
        self.assertEqual(exit_statuses(self.page), statuses_of("tools/hotplug_main.cpp"))

    def test_events_are_the_programs(self) -> None:
        writer = source("tools/event_writer.cpp")
        events = set(re.findall(r'eventObject\("(\w+)"\)', writer))
        items = re.findall(r"^\.It Li (\w+)$", part(self.page, "OUTPUT"), re.MULTILINE)
        self.assertEqual(set(items), events)
        names = set(re.findall(r'add\w+\("(\w+)"', writer))
        told = set(re.findall(r"\w+", part(self.page, "OUTPUT")))
        self.assertEqual(names - told, set())


if __name__ == "__main__":
    unittest.main()
