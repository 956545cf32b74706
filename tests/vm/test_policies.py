# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""What kusctl says of a policy beforehand is what the daemon and the kernel then do."""

from __future__ import annotations

import collections
import json
import re
import sys
import unittest
from pathlib import Path
from typing import Any, NamedTuple

from support import (BACKUP_FILE, CONFIG_DIR, CONFIG_FILE, DEFAULT_POLICY, STATUS_FILE,
                     DaemonTestCase, Event, class_rule, policy, vendor_rule)

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT))

from vm import day  # noqa: E402
from vm.devices import (COMPOSITE, KEYBOARD, MOUSE, NETWORK, PRINTER, SERIAL, STORAGE,  # noqa: E402
                        VENDOR_HID, Device)

TRIAL = "/tmp/trial.xml"
TABLE = ROOT / "tests/policies/table.tsv"
ATTACHED = (STORAGE, KEYBOARD, MOUSE, NETWORK, SERIAL, VENDOR_HID, PRINTER, COMPOSITE)

POLICIES = {
    "default": DEFAULT_POLICY,
    "whitelist": day.WHITELIST,
    "blacklist": day.BLACKLIST,
    "nothing": policy("whitelist"),
    "everything": policy("blacklist"),
    # 1317 (the network adapter's) has product rules alone, and 4617 is larger.
    "reach": policy("whitelist", class_rule("AINPUT_SOURCE_MOUSE"), vendor_rule(1317, 1),
                    vendor_rule(4617)),
    "half of a device": policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"),
                               class_rule("USB_CLASS_COMM")),
    "ids": policy("blacklist", vendor_rule(4617, 0xAC02, 0xAC08), vendor_rule(0x0627, 1)),
}


class Foretold(NamedTuple):
    """A verdict about one device; `reason` is empty for what is left to the input side."""

    kind: str
    name: str
    vendor: int
    product: int
    allowed: bool
    reason: str


class PoliciesTest(DaemonTestCase):
    def kusctl(self, *arguments: str, status: int = 0) -> str:
        result = self.terminal.run(["kusctl", *arguments])
        self.assertEqual(result.status, status, result)
        return result.stdout

    def begin(self, *devices: Device) -> None:
        self.use_policy(DEFAULT_POLICY)
        self.plug(*devices)

    def foretell(self, text: str) -> set[Foretold]:
        self.terminal.write_file(TRIAL, text)
        result = self.terminal.run(["kusctl", "explain", TRIAL, "--present", "--json"])
        devices: list[dict[str, Any]] = json.loads(result.stdout)["devices"]
        refused = any(device["verdict"] == "refused" for device in devices)
        self.assertEqual(result.status, 1 if refused else 0)
        return {Foretold(device["kind"], device["name"], device["vendorId"], device["productId"],
                         device["verdict"] == "allowed", device["reason"]) for device in devices}

    def told(self, event: Event) -> Foretold:
        return Foretold(event["kind"], event["name"], event["vendorId"], event["productId"],
                        event["allowed"], event["reason"])

    def come_to_pass(self, text: str, foretold: set[Foretold]) -> set[Foretold]:
        """The verdicts after the daemon has taken over the rules: all that were foretold, and what
        else there has been up to then."""
        agent = self.agent.mark()
        self.put_policy(text)
        for each in foretold:
            self.agent.wait(agent, lambda event, each=each: event["event"] == "verdict"
                            and self.told(event) == each, each)
        return {self.told(event) for event in self.agent.events(agent, event="verdict")}

    def test_verdicts_that_are_foretold_are_those_that_come(self) -> None:
        self.begin(*ATTACHED)
        for name, text in POLICIES.items():
            with self.subTest(policy=name):
                foretold = self.foretell(text)
                # Each USB device, and the input devices of two of them.
                self.assertEqual(len(foretold), len(ATTACHED) + 2)
                self.assertEqual(self.come_to_pass(text, foretold), foretold)

    def test_diff_tells_the_devices_whose_verdict_then_changes(self) -> None:
        self.begin(STORAGE, KEYBOARD, SERIAL)
        before = self.foretell(day.WHITELIST)
        self.terminal.write_file("/tmp/old.xml", day.WHITELIST)
        after = self.foretell(day.BLACKLIST)
        result = json.loads(self.kusctl("diff", "/tmp/old.xml", TRIAL, "--present", "--json",
                                        status=1))
        changed = {device["name"] for device in result["devices"]
                   if device["old"] != device["new"]}
        verdicts = {each.name: each.allowed for each in before}
        self.assertEqual(changed,
                         {each.name for each in after if verdicts[each.name] != each.allowed})
        self.assertEqual(result["changed"], len(changed))
        self.assertGreater(len(changed), 1)
        self.assertIn("0 of 4 devices change their verdict",
                      self.kusctl("diff", TRIAL, TRIAL, "--present"))

    def test_generated_policy_is_clean_and_allows_all_that_is_attached(self) -> None:
        self.begin(*ATTACHED)
        for mode in ("whitelist", "blacklist"):
            for by in ("class", "vendor", "product"):
                with self.subTest(mode=mode, by=by):
                    text = self.kusctl("generate", "--mode", mode, "--by", by)
                    self.terminal.write_file(TRIAL, text)
                    self.kusctl("check", "--strict", TRIAL)
                    self.kusctl("explain", TRIAL, "--present")
                    foretold = self.foretell(text)
                    self.assertEqual(self.come_to_pass(text, foretold), foretold)
                    # What is left to the input side has no reason.
                    self.assertEqual([each for each in foretold if each.reason
                                      and not each.allowed], [])

    def test_check_says_what_the_daemon_then_says_of_files_that_it_rejects(self) -> None:
        self.use_policy(DEFAULT_POLICY)
        rejected = some_rejected_files()
        self.assertGreaterEqual(len(rejected), 30)
        for name, content in rejected.items():
            with self.subTest(name):
                self.terminal.write_file(TRIAL, content)
                said = json.loads(self.kusctl("check", TRIAL, "--json", status=1))
                self.assertFalse(said["accepted"])
                log = self.log.mark()
                self.put_policy(content)
                # The copy of the backup over the bad file has been parsed, and nothing is to come.
                self.log.wait_for(log, "Parsing status xml_parse_status 1")
                self.assertEqual(self.terminal.read_file(STATUS_FILE).decode(), said["status"])

    def test_check_touches_nothing_and_works_without_the_daemon(self) -> None:
        self.use_policy(DEFAULT_POLICY)
        self.stop_daemon()
        self.addCleanup(self.start_daemon)
        state = f"ls -la --full-time {CONFIG_DIR}; cat {CONFIG_FILE} {BACKUP_FILE} {STATUS_FILE}"
        before = self.terminal.check_output(state)
        for text, status in ((day.WHITELIST, 0), (day.BAD_LIST, 1), ("<!-- nothing -->", 1),
                             (policy("whitelist", vendor_rule(2**31)), 1)):
            self.terminal.write_file(TRIAL, text)
            self.kusctl("check", TRIAL, status=status)
        self.assertEqual(self.terminal.check_output(state), before)


def some_rejected_files() -> dict[str, bytes]:
    """Three of each error; all of them are natively compared."""
    seen: collections.Counter[str] = collections.Counter()
    files = {}
    for line in TABLE.read_text("latin-1").split("\n"):
        if not line or line.startswith("#"):
            continue
        name, outcome, *_, document = line.split("\t")
        if outcome in ("SUCCESS", "SIGSEGV", "SIGABRT") or "\\x" in outcome:
            continue
        error = re.split("[: ] ?", outcome, maxsplit=1)[0]
        seen[error] += 1
        if seen[error] <= 3:
            files[name] = unescaped(document)
    return files


def unescaped(text: str) -> bytes:
    return text.encode("latin-1").decode("unicode_escape").encode("latin-1")


if __name__ == "__main__":
    unittest.main()
