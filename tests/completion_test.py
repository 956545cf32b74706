# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""What bash offers for the next word of a kusctl command line."""

from __future__ import annotations

import re
import subprocess
import tempfile
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
COMPLETION = REPO / "tools/kusctl/kusctl.bash-completion"
PROGRAM = REPO / "build/bin/kusctl"
# As bash calls it: the words with the one that is being typed, and which one that is.
CALL = """
set -u
source "$1"; shift
COMP_WORDS=(kusctl "$@")
COMP_CWORD=$#
[[ $(complete -p kusctl) == "complete -F _kusctl kusctl" ]] || exit 1
_kusctl kusctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
((${#COMPREPLY[@]} == 0)) || printf '%s\\n' "${COMPREPLY[@]}"
"""
COMMANDS = ["list", "watch", "status", "dump", "reset", "check", "explain", "generate", "diff",
            "help", "--help"]
ALWAYS = ["--json", "--help"]
OF_USB = ["--class", "--interfaces", "--vendor-hid"]

# What is typed, with the last word under way: what is offered.
OFFERS: list[tuple[list[str], list[str]]] = [
    ([""], COMMANDS),
    (["w"], ["watch"]),
    (["d"], ["dump", "diff"]),
    (["--"], ["--help"]),
    (["x"], []),
    # Options by command
    (["list", ""], ALWAYS),
    (["list", "--j"], ["--json"]),
    (["list", "--json", ""], ["--help"]),
    (["watch", ""], ["--count", *ALWAYS]),
    (["watch", "--count", ""], []),
    (["watch", "--count", "3", "--"], ALWAYS),
    (["status", "--"], ALWAYS),
    (["reset", "--u"], ["--undock"]),
    (["reset", "--undock", ""], []),
    (["dump", ""], ["test"]),
    (["dump", "t"], ["test"]),
    (["dump", "test", ""], ALWAYS),
    (["dump", "--json", ""], ["test"]),
    (["help", ""], []),
    (["nonsense", "--"], []),
    # Files
    (["check", ""], ["a.xml", "b c.xml", "folder"]),
    (["check", "b"], ["b c.xml"]),
    (["check", "folder/"], ["folder/deep.xml"]),
    (["check", "--strict", "a"], ["a.xml"]),
    (["check", "-"], ["--strict", *ALWAYS]),
    (["check", "a.xml", ""], ["--strict", *ALWAYS]),
    (["check", "a.xml", "--strict", ""], ALWAYS),
    (["explain", "f"], ["folder"]),
    (["diff", "a"], ["a.xml"]),
    (["diff", "a.xml", ""], ["a.xml", "b c.xml", "folder"]),
    (["diff", "--present", "a.xml", "b"], ["b c.xml"]),
    (["diff", "a.xml", "b c.xml", ""], ["--present", *ALWAYS]),
    # What can be asked about together
    (["explain", "a.xml", ""], ["--present", "--usb", "--input", *ALWAYS]),
    (["explain", "a.xml", "--present", ""], ALWAYS),
    (["explain", "a.xml", "--usb", ""], []),
    (["explain", "a.xml", "--usb", "046d", ":"], []),
    (["explain", "a.xml", "--usb", "046d", ":", "c"], []),
    (["explain", "a.xml", "--usb", "046d", ":", "c52b", ""], [*OF_USB, "--input", *ALWAYS]),
    (["explain", "--usb", "046d", ":", "c52b", "a"], ["a.xml"]),
    (["explain", "a.xml", "--usb", "046d", ":", "c52b", "--class", "3", ""],
     ["--interfaces", "--vendor-hid", *ALWAYS]),
    (["explain", "a.xml", "--class", "3", ""],
     ["--usb", "--interfaces", "--vendor-hid", *ALWAYS]),
    (["explain", "a.xml", "--usb", "046d", ":", "c52b", "--interfaces", ""], []),
    (["explain", "a.xml", "--input", "mouse", ""], ["--usb", *ALWAYS]),
    (["explain", "a.xml", "--input", "mouse", "--usb", "046d", ":", "c52b", ""], ALWAYS),
    # Values
    (["generate", "--mode", ""], ["whitelist", "blacklist"]),
    (["generate", "--mode", "b"], ["blacklist"]),
    (["generate", "--by", ""], ["class", "vendor", "product"]),
    (["generate", ""], ["--mode", "--by", *ALWAYS]),
    (["generate", "--mode", "whitelist", "--"], ["--by", *ALWAYS]),
    (["explain", "a.xml", "--input", "mo"], ["mouse", "mouse_relative"]),
    (["explain", "a.xml", "--input", "keyboard,to"],
     ["keyboard,touchscreen", "keyboard,touchpad", "keyboard,touch_navigation"]),
    (["explain", "a.xml", "--input", "dpad,mouse,mo"], ["dpad,mouse,mouse_relative"]),
    (["explain", "a.xml", "--input", "AINPUT_SOURCE_K"], ["AINPUT_SOURCE_KEYBOARD"]),
    (["explain", "a.xml", "--input", "mouse,AINPUT_SOURCE_R"],
     ["mouse,AINPUT_SOURCE_ROTARY_ENCODER"]),
]


class CompletionTest(unittest.TestCase):
    """In a folder with policies, other files and a folder of them."""

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        (self.folder / "folder").mkdir()
        for name in ("a.xml", "b c.xml", "notes.txt", "folder/deep.xml", "folder/deep.txt"):
            (self.folder / name).touch()

    def offered(self, typed: list[str]) -> list[str]:
        """By a bash that has nothing but the file."""
        result = subprocess.run(
            ["env", "-i", "PATH=/usr/bin:/bin", "bash", "--norc", "--noprofile", "-c", CALL, "bash",
             COMPLETION, *typed],
            cwd=self.folder, capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual((result.stderr, result.returncode), ("", 0))
        return result.stdout.splitlines()

    def test_offers_what_may_follow(self) -> None:
        for typed, expected in OFFERS:
            with self.subTest(typed=typed):
                self.assertEqual(sorted(self.offered(typed)), sorted(expected))

    def test_commands_are_the_programs(self) -> None:
        result = subprocess.run([PROGRAM, "help"], capture_output=True, text=True, timeout=60,
                                check=True)
        commands = set(re.findall(r"^  ([a-z]+)\b", result.stdout, re.MULTILINE))
        self.assertEqual(set(self.offered([""])), commands | {"help", "--help"})

    def test_options_of_each_command_are_the_programs(self) -> None:
        for command in set(COMMANDS) - {"help", "--help"}:
            with self.subTest(command=command):
                result = subprocess.run([PROGRAM, command, "--no-such-option"], capture_output=True,
                                        text=True, timeout=60, check=False)
                usage = result.stderr.partition(": kusctl ")[2]
                options = set(re.findall(r"--[a-z][a-z-]*", usage)) | set(ALWAYS)
                offered = set(self.offered([command, "--"]))
                if command == "explain":
                    offered |= set(self.offered([command, "--usb", "1", ":", "2", "--"]))
                self.assertEqual(offered, options)

    def test_sources_are_those_of_the_rules(self) -> None:
        constants = (REPO / "android/kus/constants.h").read_text()
        names = set(re.findall(r'\{"(AINPUT_SOURCE_\w+)"', constants))
        self.assertEqual(set(self.offered(["explain", "a.xml", "--input", "AI"])), names)

    def test_is_clean_shell(self) -> None:
        result = subprocess.run(["shellcheck", COMPLETION], capture_output=True, text=True,
                                timeout=60, check=False)
        self.assertEqual((result.stdout, result.returncode), ("", 0))


if __name__ == "__main__":
    unittest.main()
