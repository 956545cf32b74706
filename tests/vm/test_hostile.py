# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""Transactions that no generated code would send, through the real driver, from a process without
any rights."""

from __future__ import annotations

import re
import time
import unittest

from support import (FOR_MANY_CALLS, DaemonTestCase, Process, allowed, class_rule, figure, policy,
                     refused)
from vm.devices import SERIAL, STORAGE

PROCESSES = 4
WARM_UP = 20_000
TRANSACTIONS = 100_000
TIMEOUT = 600

ALLOWED = allowed("Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE ")
REFUSED = refused("No matching rule found to Whitelist the device")


class HostileTestCase(DaemonTestCase):
    options = FOR_MANY_CALLS

    def setUp(self) -> None:
        super().setUp()
        self.keep_memory_in_one_pool()
        self.pid = self.use_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")))

    def hostile(self, *arguments: str) -> Process:
        process = Process(self.terminal, ["kus-hostile", *arguments])
        self.addCleanup(process.kill)
        return process

    def assert_daemon_judges(self) -> None:
        """The same process as ever gives real devices their verdicts."""
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)
        self.assertEqual(self.records(), [])
        disk, serial = self.plug(STORAGE, SERIAL)
        self.terminal.wait_until_works(disk)
        self.terminal.wait_until_blocked(serial)
        records = {record["vendorId"]: record for record in self.records()}
        self.assertEqual(len(records), 2)
        for device, (verdict, reason) in ((STORAGE, ALLOWED), (SERIAL, REFUSED)):
            record = records[device.vendor]
            self.assertEqual((record["deviceName"], record["status"], record["reason"]),
                             (device.title, int(verdict), reason))
        self.unplug(disk, serial)
        self.assertEqual(self.records(), [])


class MalformedTest(HostileTestCase):
    def test_transactions_that_the_platform_does_not_survive_are_refused(self) -> None:
        for kind in ("impossible-count", "large-count", "dump-arguments", "shell-arguments"):
            with self.subTest(kind):
                before = self.memory(self.pid)
                self.assertEqual(self.hostile("malformed", kind).next_line(), "BAD_VALUE")
                self.assertLess(self.memory(self.pid) - before, 100)
        self.assert_daemon_judges()


class TransactionsTest(HostileTestCase):
    def fuzz(self, first_seed: int, transactions: int) -> dict[str, int]:
        """Sends transactions from several processes at once, each with a seed of its own. Returns
        how many ended with which status."""
        processes = [self.hostile("fuzz", str(first_seed + number), str(transactions // PROCESSES))
                     for number in range(PROCESSES)]
        outcomes: dict[str, int] = {}
        for process in processes:
            self.assertEqual(process.next_line(), "fuzzing")
        for process in processes:
            line = process.next_line(TIMEOUT)
            self.assertRegex(line, "^outcomes ")
            for status, count in re.findall(r"(\w+): (\d+)", line):
                outcomes[status] = outcomes.get(status, 0) + int(count)
            self.assertRegex(process.next_line(TIMEOUT), "^done ")
        return outcomes

    def log_lines(self, pattern: str) -> list[str]:
        return self.terminal.run(["grep", "-aE", pattern, "/data/log/kusd.log"]).stdout.splitlines()

    def test_hundred_thousand_transactions_leave_the_daemon_as_it_was(self) -> None:
        # Every line of the log passes through the terminal's one processor once more otherwise.
        self.log.close()
        began = time.monotonic()
        self.fuzz(1, WARM_UP)
        warm = self.memory(self.pid)
        outcomes = self.fuzz(1000, TRANSACTIONS - WARM_UP)
        seconds = time.monotonic() - began
        after = self.memory(self.pid)
        figure("hostile transactions", f"{TRANSACTIONS} in {seconds:.0f} s; of the last "
               f"{TRANSACTIONS - WARM_UP}: {outcomes}")
        figure("daemon's memory", f"{warm} KB after {WARM_UP} hostile transactions, {after} KB "
               f"after {TRANSACTIONS}")
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)
        self.assertEqual(self.log_lines(r"^\S+ F |Segmentation fault|Check failed"), [])
        self.assertEqual(sum(outcomes.values()), TRANSACTIONS - WARM_UP)
        # Many have got through to an operation, and many have not.
        for status in ("OK", "BAD_TYPE", "BAD_VALUE", "UNKNOWN_TRANSACTION"):
            self.assertGreater(outcomes.get(status, 0), 1000, status)
        # Two bytes for each of them would be more.
        self.assertLess(after - warm, 150)
        self.assert_daemon_judges()


if __name__ == "__main__":
    unittest.main()
