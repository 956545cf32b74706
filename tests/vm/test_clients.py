# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""What one client does never hurts another: clients that block, die or call back from within."""

from __future__ import annotations

import re
import unittest

from support import FOR_MANY_CALLS, DaemonTestCase, Process, class_rule, figure, policy
from vm.devices import STORAGE

# No bus has a number that high, so no real device has this id.
DISK = 90005

RULES = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"))
BY_CLASS = "Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "
NO_RULE = "No matching rule found to Whitelist the device"

REGISTRATIONS = 1000
DECISIONS = 1000
BLOCK_SECONDS = 20
ROUNDS = 200
CYCLES = 4


def disk(name: str = "Disk") -> list[str]:
    return ["--id", str(DISK), "--name", name, "--interfaces", "8"]


class ClientsTestCase(DaemonTestCase):
    options = FOR_MANY_CALLS

    def setUp(self) -> None:
        super().setUp()
        self.pid = self.use_policy(RULES)

    def hostile(self, *arguments: str) -> Process:
        process = Process(self.terminal, ["kus-hostile", *arguments])
        self.addCleanup(process.kill)
        return process

    def registered(self, *arguments: str) -> Process:
        process = self.hostile(*arguments)
        self.assertEqual(process.next_line(60), "registered")
        return process

    def decide(self, name: str = "Disk") -> str:
        return self.client("decide", *disk(name)).strip()

    def registry_size(self) -> int:
        """As the last change of the registry has left it."""
        return int(re.split(r"\D+", self.log.messages(0, "^Size of callbacks at ")[-1])[-1])

    def wait_until_registered(self, number: int) -> None:
        self.terminal.wait_until(lambda: self.registry_size() == number, 60,
                                 f"{number} registrations", self.registry_size)

    def assert_daemon_goes_on(self) -> None:
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)
        self.assertEqual(self.client("ping"), "pong\n")


class BlockedClientTest(ClientsTestCase):
    def test_client_that_hangs_holds_up_the_device_that_it_is_told_of_and_nothing_else(
            self) -> None:
        blocked = self.registered("block", STORAGE.title, str(BLOCK_SECONDS))
        other = self.watcher()
        agent = self.agent.mark()
        plugged = self._connect(STORAGE, None)
        self.assertEqual(blocked.next_line(), "blocked added")

        # A USB device that this client does not mind, with its announcement to all.
        self.assertEqual(self.decide(), "allowed")
        self.assertEqual(blocked.next_line(), "told added Disk")
        self.assertIn(("added", "Disk"),
                      [(event["event"], event["deviceName"]) for event in other.events()])
        decisions = self.hostile("decide", str(DECISIONS))
        found = re.fullmatch(r"decisions (\d+) median (\d+) slowest (\d+) lists (\d+) dumps (\d+)",
                             decisions.next_line(120))
        self.assertIsNotNone(found)
        assert found is not None
        self.assertEqual(int(found[1]), DECISIONS)
        self.assertEqual([record["deviceName"] for record in self.records()], ["Keys", "Disk"])
        self.assertIn("Device name : Disk", self.terminal.check_output("dumpsys kusbservice"))
        self.assertIn("USB Test", self.terminal.check_output("dumpsys kusbservice test"))
        self.assert_daemon_goes_on()

        # All that while the client hung and the question about its device was open.
        self.assertEqual(blocked.lines(), [])
        self.assertEqual(self.agent.events(agent, event="verdict"), [])
        blocked.send("go on")
        self.assertEqual(blocked.next_line(BLOCK_SECONDS + 10), "released added")
        verdict = self.agent.wait_for(agent, event="verdict", sysname=plugged.sysname)
        self.assertEqual((verdict["allowed"], verdict["reason"]), (True, BY_CLASS))
        self.terminal.wait_until_works(plugged)
        figure(f"decisions beside a client that hangs, median of {DECISIONS}",
               f"{int(found[2]) / 1000:.1f} ms")
        figure(f"decisions beside a client that hangs, slowest of {DECISIONS}",
               f"{int(found[3]) / 1000:.1f} ms; {found[4]} lists and {found[5]} dumps meanwhile")

    def test_client_that_hangs_on_a_removal_holds_up_nothing_else(self) -> None:
        self.assertEqual(self.decide("Stick"), "allowed")
        blocked = self.registered("block", "Stick", "0")
        removal = Process(self.terminal, ["kus-client", "remove", *disk("Stick")])
        self.addCleanup(removal.kill)
        self.assertEqual(blocked.next_line(), "blocked removed")
        self.assertEqual([record["deviceName"] for record in self.records()], ["Stick"])
        self.assertEqual(self.decide(), "allowed")
        self.assertEqual(blocked.next_line(), "told added Disk")
        self.assertEqual(blocked.lines(), [])
        blocked.send("go on")
        self.assertEqual(blocked.next_line(), "released removed")
        removal.wait()
        self.assertEqual(self.records(), [])


class DyingClientTest(ClientsTestCase):
    def test_client_that_dies_when_it_is_told_costs_nobody_a_verdict(self) -> None:
        before, after = self.watcher(), self.watcher()
        for _ in range(3):
            dying = self.registered("die")
            self.assertEqual(self.decide(), "allowed")
            self.assertEqual(dying.next_line(), "dying added")
            dying.wait()
            self.client("remove", *disk())
            for other in (before, after):
                self.assertEqual([event["event"] for event in other.events()],
                                 ["added", "removed"])
        self.wait_until_registered(2)
        self.assert_daemon_goes_on()

    def test_clients_killed_while_they_unregister_leave_nothing_behind(self) -> None:
        other = self.watcher()
        log = self.log.mark()
        churns = [self.hostile("churn", str(ROUNDS)), self.hostile("churn", str(ROUNDS))]
        told = 0
        lines: list[str] = []
        while len(lines) < len(churns):
            self.assertEqual(self.decide(), "allowed")
            self.client("remove", *disk())
            told += 1
            lines += [line for churn in churns for line in churn.lines()]
        self.assertEqual(lines, ["done", "done"])
        self.assertEqual([event["event"] for event in other.events()], ["added", "removed"] * told)
        self.wait_until_registered(1)
        self.assertEqual(self.log.messages(log, "Check failed"), [])
        # Both ways out have been gone: taken back in time, and by the death notice.
        self.assertNotEqual(self.log.messages(log, "at unregisterKusCallback[0-9]"), [])
        self.assertNotEqual(self.log.messages(log, "unregisterKusCallback binderDied "), [])
        self.assert_daemon_goes_on()


class ManyRegistrationsTest(ClientsTestCase):
    def setUp(self) -> None:
        # Else every registration logs all that there are.
        self.addCleanup(self.set_read_only_property, "ro.build.type", "userdebug")
        super().setUp()
        self.set_read_only_property("ro.build.type", "user")
        self.keep_memory_in_one_pool()
        self.pid = self.use_policy(RULES)

    def register_and_kill(self, *variant: str) -> int:
        """Returns the daemon's memory at the peak."""
        client = self.registered("register", str(REGISTRATIONS), *variant)
        self.assertEqual(self.registry_size(), REGISTRATIONS)
        peak = self.memory(self.pid)
        log = self.log.mark()
        client.kill()
        gone = "Callback from dead process unregistered"
        self.log.wait_for(log, "Size of callbacks at unregisterKusCallback binderDied 0", 60)
        self.log.wait(log, lambda _: len(self.log.messages(log, gone)) == REGISTRATIONS, gone)
        return peak

    def assert_memory_is_back(self, name: str, *variant: str) -> None:
        fresh = self.memory(self.pid)
        # A few times for what the allocator keeps for the next time.
        with_them = max(self.register_and_kill(*variant) for _ in range(3))
        before = self.memory(self.pid)
        for _ in range(CYCLES):
            self.register_and_kill(*variant)
        after = self.memory(self.pid)
        figure(f"daemon's memory and {REGISTRATIONS} registrations of {name}",
               f"fresh {fresh} KB, with them {with_them} KB, then {before} KB without them and "
               f"{after} KB after {CYCLES} more times")
        # If each registration left 32 bytes it would be twice as much.
        self.assertLess(after - before, CYCLES * REGISTRATIONS * 16 // 1024)
        self.assertEqual(self.decide(), "allowed")
        self.assert_daemon_goes_on()

    def test_memory_of_many_callbacks_is_back_when_their_process_is_killed(self) -> None:
        self.assert_memory_is_back("as many callbacks")

    def test_memory_of_one_callback_registered_many_times_is_back(self) -> None:
        self.assert_memory_is_back("one callback", "same")


class ReentryTest(ClientsTestCase):
    def test_callback_may_call_whatever_the_service_has_from_any_thread(self) -> None:
        client = self.registered("reenter", "Outer")
        other = self.watcher()
        self.assertEqual(self.decide("Outer"), "allowed")
        expected = ["told added Outer"]
        for thread in ("same thread", "another thread"):
            expected += [
                f"{thread}: listed",
                f"{thread}: judged an input device",
                "told added Inner",
                f"{thread}: judged a USB device",
                "told removed Inner",
                f"{thread}: removed a USB device",
                f"{thread}: registered another",
                f"{thread}: took back another",
                f"{thread}: took back itself",
                f"{thread}: registered itself",
                f"{thread}: dumped"]
        expected.append("left added")
        self.assertEqual(client.lines(), expected)
        # Which of the two clients is told of the outer one first is their binders' matter.
        self.assertEqual(
            sorted((event["event"], event["deviceName"]) for event in other.events()),
            [("added", "Inner")] * 2 + [("added", "Outer")] + [("removed", "Inner")] * 2)
        self.assertEqual(self.registry_size(), 2)
        self.assertEqual([record["deviceName"] for record in self.records()],
                         ["Keys", "Keys", "Outer"])
        # What was registered within a callback counts from then on.
        self.client("remove", *disk("Outer"))
        lines = client.lines()
        self.assertEqual((lines[0], lines[-1]), ("told removed Outer", "left removed"))
        self.assertEqual(len(lines), len(expected))
        self.assert_daemon_goes_on()


if __name__ == "__main__":
    unittest.main()
