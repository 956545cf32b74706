#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The scripted day, and that it is no success when anything differs from what it demands."""

from __future__ import annotations

import contextlib
import dataclasses
import functools
import io
import re
import sys
import unittest
from pathlib import Path
from unittest import mock

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT))

from vm import day, devices  # noqa: E402


def live(chapters: tuple[day.Chapter, ...]) -> tuple[int, str]:
    """The exit status and the output of a day made of these chapters."""
    output = io.StringIO()
    with (mock.patch.object(day, "DAY", chapters),
          mock.patch.object(sys, "argv", ["day", "--once"]),
          contextlib.redirect_stdout(output), contextlib.redirect_stderr(output)):
        return day.main(), output.getvalue()


def chapter(*expected: day.Expected) -> tuple[day.Chapter, ...]:
    return (day.Chapter("", day.Begin.PLUG, expected),)


@functools.cache
def whole_day() -> tuple[int, str]:
    return live(day.DAY)


def without_figures(line: str) -> str:
    """Times, and ids that the kernel gives, are another day's."""
    line = re.sub(r" +[0-9]+\.[0-9] s", " N s", line.strip())
    line = re.sub(r"\binput[0-9]+", "inputN", line)
    return re.sub(r"^[0-9]+ +(usb|input) ", r"ID \1 ", line)


def picture() -> list[str]:
    """What the README shows of a day."""
    text = (ROOT / "README.md").read_text()
    return re.findall("^    (.*)$", text[text.index("    -- "):text.index(" as expected\n") + 13],
                      re.MULTILINE)


class DayTest(unittest.TestCase):
    storage, keyboard, keyboard_input = day.BY_DEFAULT[:3]

    def test_the_whole_day_is_as_expected(self) -> None:
        status, output = whole_day()
        self.assertEqual((status, output.splitlines()[-1]), (0, "30 verdicts, 30 as expected"),
                         output)

    def test_the_readme_shows_what_a_day_prints(self) -> None:
        printed = {without_figures(line) for line in whole_day()[1].splitlines()}
        shown = {without_figures(line) for line in picture()} - {"", "..."}
        self.assertGreater(len(shown), 20)
        self.assertEqual(shown - printed, set())

    def test_another_verdict_reason_or_kernel_state_is_no_success(self) -> None:
        with mock.patch.object(day, "KERNEL_TIMEOUT", 1):
            status, output = live(chapter(
                dataclasses.replace(self.storage, allowed=False),
                dataclasses.replace(self.keyboard, reason="some reason"),
                dataclasses.replace(self.keyboard_input, kernel=day.Kernel.INHIBITED),
                day.Expected(devices.SERIAL, day.Kind.USB, True, self.storage.reason,
                             day.Kernel.BLOCKED)))
        self.assertEqual((status, output.splitlines()[-1]), (1, "4 verdicts, 0 as expected"),
                         output)

    def test_a_verdict_that_nobody_demands_is_no_success(self) -> None:
        status, output = live(chapter(self.keyboard))
        self.assertEqual((status, output.splitlines()[-1]), (1, "2 verdicts, 1 as expected"),
                         output)

    def test_a_verdict_that_does_not_come_is_no_success(self) -> None:
        with mock.patch.object(day, "VERDICT_TIMEOUT", 5):
            status, output = live(chapter(self.storage, dataclasses.replace(
                self.keyboard_input, device=devices.STORAGE)))
        self.assertIn("BAD  no verdict for storage (input)", output)
        self.assertEqual((status, output.splitlines()[-1]), (1, "1 verdicts, 1 as expected"),
                         output)

    def test_rules_that_are_not_rejected_as_demanded_are_no_success(self) -> None:
        for text, status, complaint in (
                (day.WHITELIST, "SUCCESS", "the backup is not back in place"),
                (day.BAD_LIST, "INVALID MODE", "the status is 'INVALID CLASS VALUE:")):
            with self.subTest(complaint):
                result, output = live((day.Chapter("", day.Begin.BAD_RULES, text=text,
                                                   status=status),))
                self.assertIn(complaint, output)
                self.assertEqual(result, 1, output)

    def test_a_daemon_that_dies_is_no_success(self) -> None:
        killer = "kill -KILL $(status kusd | cut -d' ' -f2)"
        connect = day.Terminal.connect

        def connect_and_kill(terminal: day.Terminal, *arguments: object) -> day.Plugged:
            terminal.check_output(killer)
            return connect(terminal, *arguments)

        with mock.patch.object(day.Terminal, "connect", connect_and_kill):
            status, output = live(chapter(self.storage))
        self.assertEqual(status, 1, output)


if __name__ == "__main__":
    unittest.main()
