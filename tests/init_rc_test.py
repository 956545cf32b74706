# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""The file by which the platform's init starts the daemon: it agrees with the sources, and the
virtual terminal's reader of it (vm/rootfs/system/bin/init-rc) does what it says and refuses the
rest."""

from __future__ import annotations

import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path
from typing import NamedTuple

from vm import image

REPO = Path(__file__).resolve().parent.parent
RC = REPO / "android/kus/kusd.rc"
READER = REPO / "vm/rootfs/system/bin/init-rc"

# What the file uses of init's language: sections, their words, and how many values each has.
COMMANDS = {"exec_start": 1, "mkdir": 4}
OPTIONS = {"capabilities": 1, "class": 1, "disabled": 0, "group": 1, "oneshot": 0, "user": 1}
TRIGGERS = ("post-fs-data",)

DIRECTORY = "/data/system/usbdeviceconfig"
TASKS = "kusd-startup-tasks"


class Section(NamedTuple):
    words: list[str]
    lines: list[list[str]]


def sections(text: str) -> list[Section]:
    found: list[Section] = []
    for line in text.splitlines():
        words = line.split()
        if not words or words[0].startswith("#"):
            continue
        if words[0] in ("on", "service"):
            found.append(Section(words, []))
        else:
            found[-1].lines.append(words)
    return found


def actions(text: str) -> list[Section]:
    return [section for section in sections(text) if section.words[0] == "on"]


def services(text: str) -> dict[str, Section]:
    return {section.words[1]: section for section in sections(text)
            if section.words[0] == "service"}


def options(service: Section) -> dict[str, list[str]]:
    return {words[0]: words[1:] for words in service.lines}


def binary_with_the_file() -> str:
    """The name of the cc_binary that installs it."""
    text = (REPO / "android/kus/Android.bp").read_text()
    named = [re.findall(r'^    name: "([^"]*)",$', body, re.MULTILINE)
             for body in re.findall(r"^cc_binary \{\n(.*?)^\}", text, re.MULTILINE | re.DOTALL)
             if f'\n    init_rc: ["{RC.name}"],\n' in body]
    [[name]] = named
    return str(name)


def found_in(source: str, pattern: str) -> str:
    """What the pattern finds in a source, once."""
    [value] = re.findall(pattern, (REPO / "android/kus" / source).read_text())
    return str(value)


class InitFile(unittest.TestCase):
    def setUp(self) -> None:
        self.text = RC.read_text()
        self.services = services(self.text)

    def test_every_section_and_word_is_one_of_init_with_as_many_values(self) -> None:
        for section in sections(self.text):
            known = COMMANDS if section.words[0] == "on" else OPTIONS
            for words in section.lines:
                with self.subTest(" ".join(words)):
                    self.assertEqual(known.get(words[0]), len(words) - 1)
        for action in actions(self.text):
            self.assertIn(action.words[1], TRIGGERS)
            self.assertEqual(len(action.words), 2)

    def test_no_option_is_given_twice(self) -> None:
        for name, service in self.services.items():
            with self.subTest(name):
                self.assertEqual(len(options(service)), len(service.lines))

    def test_directory_is_the_daemons_and_made_before_the_task_runs(self) -> None:
        directory = found_in("constants.h", r'configDirPath\[\] = "([^"]*)"')
        [action] = actions(self.text)
        self.assertEqual(action.lines, [["mkdir", directory, "0770", "system", "system"],
                                        ["exec_start", TASKS]])
        self.assertEqual(directory, DIRECTORY)

    def test_programs_are_the_binary_that_installs_the_file(self) -> None:
        program = f"/system/bin/{binary_with_the_file()}"
        word = found_in("daemon.cpp", r'string_view\(argv\[1\]\) == "([^"]*)"')
        self.assertEqual({name: service.words[2:] for name, service in self.services.items()},
                         {TASKS: [program, word], "kusd": [program]})

    def test_daemon_has_one_capability_and_is_started_again_for_ever(self) -> None:
        self.assertEqual(options(self.services["kusd"]),
                         {"class": ["core"], "user": ["system"], "group": ["system"],
                          "capabilities": ["DAC_OVERRIDE"]})

    def test_task_runs_once_by_name_alone_and_without_a_capability(self) -> None:
        self.assertEqual(options(self.services[TASKS]),
                         {"user": ["system"], "group": ["system"], "disabled": [], "oneshot": []})

    def test_terminals_image_has_exactly_this_file(self) -> None:
        installed = {entry.name: entry for entry in image.init_entries(image.Sources())}
        self.assertEqual(installed.pop("system/etc/init/kusd.rc").read(), RC.read_bytes())
        self.assertEqual(set(installed), {"system/etc", "system/etc/init"})


# Prints the process's file mask and what it was called with.
STUB = '#!/bin/sh\necho "${0##*/} $(umask)"\nprintf "%s\\n" "$@"\n'

SERVICE_RIGHTS = ["setpriv 0077", "--reuid", "system", "--regid", "system", "--clear-groups",
                  "--inh-caps=-all,+dac_override", "--ambient-caps=-all,+dac_override",
                  "--bounding-set=-all,+dac_override"]
TASK_RIGHTS = ["setpriv 0077", "--reuid", "system", "--regid", "system", "--clear-groups",
               "--inh-caps=-all", "--ambient-caps=-all"]

CAPABILITIES = "    capabilities DAC_OVERRIDE\n"

# What the reader must refuse: an edit of the file, what is asked for, what it says of it.
REFUSED: tuple[tuple[str, str, str, str], ...] = (
    (CAPABILITIES, "    capabilities SYS_ADMIN\n", "service kusd", "unknown capability: SYS_ADMIN"),
    (CAPABILITIES, "    capabilities\n", "service kusd", "wrong number of words: capabilities"),
    (CAPABILITIES, "    critical\n", "service kusd", "unknown: critical"),
    (CAPABILITIES, "    seclabel u:r:kusd:s0\n", "service kusd", "unknown characters"),
    (CAPABILITIES, "    onrestart restart other\n", "service kusd", "unknown: onrestart"),
    (CAPABILITIES, "    mkdir /data/x 0770 system system\n", "service kusd", "unknown: mkdir"),
    (CAPABILITIES, CAPABILITIES.rstrip() + " \\\n", "service kusd", "unknown characters"),
    (CAPABILITIES, "    oneshot\n", "service kusd", "kusd is a oneshot"),
    ("    class core\n", "    class\n", "service kusd", "wrong number of words"),
    ("    class core\n", "    class core # early\n", "service kusd", "unknown characters"),
    ("    user system\n", "    user system shell\n", "service kusd", "wrong number of words"),
    ("    user system\n", "", "service kusd", "no user for kusd"),
    ("    group system\n", "", "service kusd", "no group for kusd"),
    ("service kusd /system/bin/kusd\n", "service kusd\n", "service kusd", "unknown section"),
    ("service kusd /system/bin/kusd\n", "service other /system/bin/kusd\n", "service kusd",
     "no service kusd"),
    ("on post-fs-data\n", "", "trigger post-fs-data", "outside of a section"),
    ("on post-fs-data\n", "on boot && charger\n", "trigger post-fs-data", "unknown characters"),
    ("on post-fs-data\n", "on post-fs-data fast\n", "trigger post-fs-data", "unknown section"),
    ("on post-fs-data\n", "import other.rc\non post-fs-data\n", "trigger post-fs-data",
     "outside of a section"),
    ("0770 system system\n", "0770\n", "trigger post-fs-data", "wrong number of words"),
    (f"mkdir {DIRECTORY} ", 'mkdir "/data" ', "trigger post-fs-data", "unknown characters"),
    (f"    exec_start {TASKS}\n", "    exec_start kusd\n", "trigger post-fs-data",
     "init would wait for kusd for ever"),
    (f"    exec_start {TASKS}\n", "    exec_start nobody\n", "trigger post-fs-data",
     "no service nobody"),
    (f"    exec_start {TASKS}\n", f"    exec {TASKS}\n", "trigger post-fs-data",
     "unknown: exec"),
    # A mistake in any section is one for all.
    (CAPABILITIES, "    critical\n", "trigger post-fs-data", "unknown: critical"),
)


class Reader(unittest.TestCase):
    """The reader, in a root of its own. What it would start or need root for prints instead."""

    def setUp(self) -> None:
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.scratch = Path(scratch.name)
        for name in ("setpriv", "chown"):
            (self.scratch / name).write_text(STUB)
            (self.scratch / name).chmod(0o755)

    def run_reader(self, text: str, *words: str, before: str = "true",
                   then: str = "true") -> subprocess.CompletedProcess[str]:
        (self.scratch / "kusd.rc").write_text(text)
        # A link that leads out of the sandbox, on Debian.
        awk = Path(shutil.which("awk") or "").resolve()
        return subprocess.run(
            [REPO / "tests/sandbox", "--dir", "/data/log",
             "--ro-bind", self.scratch / "kusd.rc", "/system/etc/init/kusd.rc",
             "--ro-bind", self.scratch / "setpriv", "/system/bin/setpriv",
             "--ro-bind", self.scratch / "chown", "/stubs/chown", "--symlink", awk, "/stubs/awk",
             "--setenv", "PATH", "/stubs:/usr/bin",
             "sh", "-c", f'{before}; "$0" "$@" || exit; {then}', READER, *words],
            capture_output=True, text=True, timeout=60, check=False)

    def said(self, text: str, *words: str, **around: str) -> list[str]:
        result = self.run_reader(text, *words, **around)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return result.stdout.splitlines()

    def test_service_gets_exactly_the_rights_of_its_lines(self) -> None:
        self.assertEqual(self.said(RC.read_text(), "service", "kusd"),
                         [*SERVICE_RIGHTS, "/system/bin/kusd"])

    def test_service_without_the_line_gets_no_capability(self) -> None:
        text = RC.read_text().replace(CAPABILITIES, "")
        self.assertEqual(self.said(text, "service", "kusd"), [*TASK_RIGHTS, "/system/bin/kusd"])

    def test_first_group_is_the_process_s_and_the_others_come_with_it(self) -> None:
        text = RC.read_text().replace("group system", "group usb log shell")
        said = self.said(text, "service", "kusd")
        self.assertEqual(said[3:7], ["--regid", "usb", "--groups", "log,shell"])

    def test_another_program_gets_the_rights_and_its_own_words(self) -> None:
        words = ["sh", "-c", "echo 'a  b' *"]
        self.assertEqual(self.said(RC.read_text(), "rights", "kusd", *words),
                         [*SERVICE_RIGHTS, *words])

    def test_trigger_makes_the_directory_and_runs_the_task(self) -> None:
        for before in ("true", f"mkdir -m 0700 {DIRECTORY}"):
            with self.subTest(before):
                said = self.said(
                    RC.read_text(), "trigger", "post-fs-data", before=before,
                    then=f"stat -c %a {DIRECTORY}; cat /data/log/{TASKS}.log")
                self.assertEqual(said[1:], ["system:system", DIRECTORY, "770", *TASK_RIGHTS,
                                            "/system/bin/kusd", "run-startup-tasks"])

    def test_trigger_without_a_section_does_nothing(self) -> None:
        self.assertEqual(self.said(RC.read_text(), "trigger", "boot"), [])

    def test_what_it_does_not_know_is_refused_by_name(self) -> None:
        for before, after, words, why in REFUSED:
            with self.subTest(words, after=after):
                head, found, tail = RC.read_text().rpartition(before)
                self.assertTrue(found)
                result = self.run_reader(head + after + tail, *words.split())
                self.assertEqual(result.returncode, 2, result)
                self.assertIn(why, result.stderr)
                self.assertNotIn("setpriv", result.stdout)


if __name__ == "__main__":
    unittest.main()
