# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The hotplug agent: what is plugged in is judged, whatever happens to the agent, to the daemon or
to the messages between kernel and agent."""

from __future__ import annotations

import signal
import unittest

from support import (DEFAULT_POLICY, AgentLog, DaemonTestCase, Event, Process, class_rule, policy,
                     refused)
from vm.devices import (GADGET_STORAGE, HUB, KEYBOARD, MOUSE, SERIAL, SMARTCARD, STORAGE, TABLET,
                        VENDOR_HID)
from vm.terminal import Plugged

NOT_WHITELISTED = "No matching rule found to Whitelist the device"

# Sources as the platform numbers them, class bits included.
SOURCE_KEYBOARD, SOURCE_MOUSE = 0x101, 0x2002


def told(events: list[Event]) -> list[tuple[str, str]]:
    """Each event with what it is about."""
    return [(event["event"], event.get("sysname") or event.get("reason") or event.get("state", ""))
            for event in events]


class HotplugTestCase(DaemonTestCase):
    def setUp(self) -> None:
        super().setUp()
        if self.terminal.status("kusd").state == "stopped":
            self.start_daemon()
        if self.terminal.status("kus-hotplug").state == "stopped":
            self.start_agent()
        self.use_policy(DEFAULT_POLICY)

    def start_agent(self) -> int:
        """Starts the agent, waits until it is ready, and returns the log's mark from before."""
        mark = self.agent.mark()
        self.terminal.start("kus-hotplug")
        self.agent.wait_for(mark, event="ready")
        return mark

    def input_of(self, plugged: Plugged) -> str:
        (name,) = self.inputs(plugged)
        return name


class PresentDevicesTest(HotplugTestCase):
    def test_agent_judges_what_is_present_when_it_starts(self) -> None:
        (outer,) = self.plug(HUB)
        disk, keyboard = self.plug(STORAGE, KEYBOARD, behind=outer)
        (vendor_hid,) = self.plug(VENDOR_HID)
        input_name = self.input_of(keyboard)
        self.terminal.stop("kus-hotplug")
        mark = self.start_agent()
        # USB devices by their place, hubs left out, then input devices.
        self.assertEqual(told(self.agent.since(mark)), [
            ("service", "connected"), ("rescan", "start"),
            ("verdict", disk.sysname), ("verdict", keyboard.sysname),
            ("verdict", vendor_hid.sysname), ("verdict", input_name), ("ready", "")])

    def test_agent_that_was_away_learns_of_what_came_and_went_meanwhile(self) -> None:
        (disk,) = self.plug(STORAGE)
        self.terminal.stop("kus-hotplug")
        self.plugged.clear()
        self.terminal.unplug(disk)
        serial = self.terminal.plug(SERIAL)
        self.plugged.append(serial)
        mark = self.start_agent()
        self.assertEqual(told(self.agent.events(mark, event="verdict")),
                         [("verdict", serial.sysname)])

    def test_once_judges_what_is_present_and_ends(self) -> None:
        (disk,) = self.plug(STORAGE)
        self.terminal.stop("kus-hotplug")
        output = self.terminal.check_output("kus-hotplug --once")
        self.assertRegex(output, rf"(?s)^service connected\nrescan \(start\)\n"
                                rf"allowed usb {disk.sysname} .*: Enabled by default rule")
        self.stop_daemon()
        self.assertEqual(self.terminal.run("kus-hotplug --once --wait 0").status, 3)


class DaemonsEndTest(HotplugTestCase):
    def assert_judged_anew(self, mark: int, *sysnames: str) -> None:
        for sysname in sysnames:
            self.agent.wait_for(mark, event="verdict", sysname=sysname)
        self.assertEqual(told(self.agent.since(mark)), [
            ("service", "lost"), ("service", "connected"), ("rescan", "service"),
            *(("verdict", sysname) for sysname in sysnames)])

    def test_what_is_present_is_judged_again_when_the_daemon_was_killed(self) -> None:
        disk, keyboard = self.plug(STORAGE, KEYBOARD)
        before = self.records()
        mark = self.agent.mark()
        pid = self.terminal.status("kusd").pid
        self.terminal.check_output(["kill", "-KILL", str(pid)])
        by_bus = sorted((disk.sysname, keyboard.sysname))
        self.assert_judged_anew(mark, *by_bus, self.input_of(keyboard))
        self.assertNotEqual(self.terminal.status("kusd").pid, pid)
        self.assertEqual(len(before), 2)
        self.assertEqual(self.records(), before)

    def test_devices_that_come_and_go_without_a_daemon_are_judged_by_the_next_one(self) -> None:
        disk, card_reader = self.plug(STORAGE, SMARTCARD)
        mark = self.agent.mark()
        self.stop_daemon()
        self.plugged.remove(disk)
        self.terminal.unplug(disk)
        serial = self.terminal.plug(SERIAL)
        self.plugged.append(serial)
        self.assertEqual(told(self.agent.since(mark)), [("service", "lost")])
        self.start_daemon()
        self.assert_judged_anew(mark, card_reader.sysname, serial.sysname)
        self.assertEqual(len(self.records()), 2)

    def test_agent_that_is_first_waits_for_the_daemon(self) -> None:
        (disk,) = self.plug(STORAGE)
        self.terminal.stop("kus-hotplug")
        self.stop_daemon()
        mark = self.agent.mark()
        path = "/data/log/kus-hotplug.log"
        waiting = "kus-hotplug: waiting for the daemon's service"
        times = self.terminal.read_file(path).decode().splitlines().count(waiting)
        with self.terminal.follow(path) as log:
            self.terminal.start("kus-hotplug")
            for _ in range(times + 1):
                log.wait_for(f"^{waiting}$", 20)
        self.assertEqual(self.agent.since(mark), [])
        self.terminal.start("kusd")
        self.agent.wait_for(mark, event="ready")
        self.assertEqual(told(self.agent.since(mark)), [
            ("service", "connected"), ("rescan", "start"), ("verdict", disk.sysname),
            ("ready", "")])

    def test_device_refused_by_the_last_daemon_stays_blocked_until_it_is_plugged_in_again(
            self) -> None:
        self.use_policy(policy("whitelist"))
        (disk,) = self.plug(STORAGE)
        self.terminal.wait_until_blocked(disk)
        mark = self.agent.mark()
        self.use_policy(DEFAULT_POLICY)
        self.agent.wait_for(mark, event="verdict", sysname=disk.sysname, allowed=True)
        # An allowed device gets no write at all.
        self.assertTrue(self.state(disk).blocked())
        self.unplug(disk)
        (disk,) = self.plug(STORAGE)
        self.terminal.wait_until_works(disk)


class ComingAndGoingTest(HotplugTestCase):
    def test_removal_is_told_and_drops_the_record(self) -> None:
        client = self.watcher()
        disk, keyboard = self.plug(STORAGE, KEYBOARD)
        name = self.input_of(keyboard)
        (added,) = client.events()
        self.assertEqual(len(self.records()), 2)
        mark = self.agent.mark()
        self.unplug(disk, keyboard)
        self.agent.wait_for(mark, event="removed", kind="input", sysname=name)
        self.assertEqual(self.records(), [])
        # Clients hear of every USB device that goes, also of the keyboard, which was not recorded;
        # with the agent's record, which knows nothing of the verdict.
        removed = {event["deviceId"]: event for event in client.events()}
        self.assertEqual(len(removed), 2)
        self.assertEqual(removed[added["deviceId"]],
                         added | {"event": "removed", "status": 0, "reason": "", "category": 0,
                                  "categoryPath": ""})

    def test_what_the_agent_says_of_input_devices(self) -> None:
        mark = self.agent.mark()
        plugged = self.plug(KEYBOARD, MOUSE, TABLET)
        # The tablet has absolute axes and no touch button: nothing the platform has a use for.
        for each, sources in zip(plugged, (SOURCE_KEYBOARD, SOURCE_MOUSE, 0)):
            with self.subTest(each.device.name):
                name = self.input_of(each)
                event = self.agent.wait_for(mark, event="verdict", kind="input", sysname=name)
                self.assertEqual(
                    (event["deviceId"], event["name"], event["vendorId"], event["productId"],
                     event["deviceClass"], event["interfaceClasses"]),
                    (int(name.removeprefix("input")), f"QEMU {each.device.title}", 0x627, 1,
                     sources, []))

    def test_devices_replugged_in_haste_leave_nothing_behind(self) -> None:
        mark = self.agent.mark()
        for _ in range(8):
            for device in (SMARTCARD, GADGET_STORAGE):
                self.terminal.disconnect(self.terminal.connect(device))
        (last,) = self.plug(SMARTCARD)
        self.unplug(last)
        verdicts = self.agent.events(mark, event="verdict")
        removals = self.agent.events(mark, event="removed")
        self.assertEqual(sorted(event["deviceId"] for event in verdicts),
                         sorted(event["deviceId"] for event in removals))
        self.assertEqual(self.records(), [])
        self.assertEqual(self.agent.events(mark, event="problem"), [])

    def test_refused_device_that_gets_its_configuration_anew_is_refused_anew(self) -> None:
        """The kernel starts new interfaces unblocked."""
        self.use_policy(policy("whitelist"))
        (disk,) = self.plug(STORAGE)
        self.terminal.wait_until_blocked(disk)
        directory = f"/sys/bus/usb/devices/{disk.sysname}"
        for attribute in ("bConfigurationValue", "authorized"):
            with self.subTest(attribute):
                mark, log = self.agent.mark(), self.log.mark()
                self.terminal.check_output(
                    f"echo 0 > {directory}/{attribute}; echo 1 > {directory}/{attribute}")
                verdict = self.agent.wait_for(mark, event="verdict", sysname=disk.sysname)
                self.assertEqual((verdict["allowed"], verdict["reason"]), refused(NOT_WHITELISTED))
                self.terminal.wait_until_blocked(disk)
                self.assertEqual(told(self.agent.since(mark)), [("removed", disk.sysname),
                                                                ("verdict", disk.sysname)])
                self.assertEqual(
                    self.log.messages(log, "^update_status path is :"),
                    [f"update_status path is :{directory}:1.0/authorized"])
        self.assertEqual(len(self.records()), 1)


class InhibitionTest(HotplugTestCase):
    def test_refused_input_device_is_inhibited_and_sends_no_events_until_allowed(self) -> None:
        self.use_policy(policy("whitelist", class_rule("AINPUT_SOURCE_MOUSE")))
        mark = self.agent.mark()
        keyboard, mouse = self.plug(KEYBOARD, MOUSE)
        inputs = {"keyboard": self.input_of(keyboard), "mouse": self.input_of(mouse)}
        for name, allowed in (("keyboard", False), ("mouse", True)):
            self.agent.wait_for(mark, event="verdict", kind="input", sysname=inputs[name],
                                allowed=allowed, inhibited=not allowed)
            self.assertEqual(self.inhibited(inputs[name]), not allowed)

        mark = self.agent.mark()
        self.use_policy(policy("whitelist", class_rule("AINPUT_SOURCE_KEYBOARD")))
        for name, allowed in (("keyboard", True), ("mouse", False)):
            self.agent.wait_for(mark, event="verdict", kind="input", sysname=inputs[name],
                                allowed=allowed, inhibited=not allowed)
            self.assertEqual(self.inhibited(inputs[name]), not allowed)

    def test_keys_of_a_refused_keyboard_reach_nobody(self) -> None:
        keyboard, mouse = self.plug(KEYBOARD, MOUSE)
        keys, motion = self.reader(keyboard), self.reader(mouse)
        self.type_and_move()
        self.assertEqual((keys.next_line(), motion.next_line()), ("came", "came"))

        mark = self.agent.mark()
        self.use_policy(policy("whitelist", class_rule("AINPUT_SOURCE_MOUSE")))
        self.agent.wait_for(mark, event="verdict", kind="input", sysname=self.input_of(mouse))
        keys, motion = self.reader(keyboard), self.reader(mouse)
        self.type_and_move()
        # Typed before it was moved.
        self.assertEqual(motion.next_line(), "came")
        self.assertEqual(keys.lines(), [])

    def reader(self, plugged: Plugged) -> Process:
        """Says when the first event of an input device has come."""
        node = self.terminal.check_output(
            f"cd /sys/class/input/{self.input_of(plugged)} && echo event*").strip()
        reader = Process(self.terminal, [
            "sh", "-c", f"exec < /dev/input/{node}; echo open; "
            "dd bs=24 count=1 of=/dev/null 2> /dev/null; echo came"])
        self.addCleanup(reader.kill)
        self.assertEqual(reader.next_line(), "open")
        return reader

    def type_and_move(self) -> None:
        self.terminal.qmp.execute("send-key", keys=[{"type": "qcode", "data": "a"}])
        self.terminal.qmp.execute("input-send-event", events=[
            {"type": "rel", "data": {"axis": "x", "value": 10}}])


class OverflowTest(HotplugTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.terminal.stop("kus-hotplug")
        # As root of a user namespace it may not enlarge its socket's buffer, which then takes some
        # fifty messages; the usual one takes eight thousand.
        path = "/data/log/small-buffer.log"
        self.terminal.check_output(["rm", "-f", path])
        self.process = Process(self.terminal, [
            "sh", "-c", f"exec unshare -U -r kus-hotplug --json > {path} 2>&1"])
        self.addCleanup(self.process.kill)
        self.agent = AgentLog(self.terminal, path)
        self.agent.wait_for(0, event="ready")

    def lost_messages(self) -> int:
        """How many uevents the kernel has not been able to deliver to somebody."""
        lines = self.terminal.read_file("/proc/net/netlink").decode().splitlines()
        column = lines[0].split().index("Drops")
        return sum(int(line.split()[column]) for line in lines[1:])

    def lose_messages(self, input_name: str) -> None:
        """Stops the agent and lets the kernel send it more messages than it has room for."""
        self.process.signal(signal.SIGSTOP)
        self.terminal.check_output(
            "i=0; while [ $i -lt 400 ]; do "
            f"echo change > /sys/class/input/{input_name}/uevent; i=$((i + 1)); done")
        self.assertGreater(self.lost_messages(), 0)

    def test_lost_messages_are_made_up_for(self) -> None:
        disk, keyboard = self.plug(STORAGE, KEYBOARD)
        input_name = self.input_of(keyboard)
        mark = self.agent.mark()
        self.lose_messages(input_name)
        self.plugged.remove(disk)
        self.terminal.unplug(disk)
        serial = self.terminal.plug(SERIAL)
        self.plugged.append(serial)
        self.assertEqual(self.agent.since(mark), [])

        self.process.signal(signal.SIGCONT)
        self.agent.wait_for(mark, event="rescan", reason="overflow")
        self.agent.wait_for(mark, event="verdict", sysname=serial.sysname)
        self.assertEqual([event for event in told(self.agent.since(mark)) if event[0] != "rescan"],
                         [("removed", disk.sysname), ("verdict", serial.sysname)])
        self.assertEqual(sorted(record["deviceType"] for record in self.records()), [0, 1])
        # From then on messages are enough again.
        mark = self.agent.mark()
        (card_reader,) = self.plug(SMARTCARD)
        self.assertEqual(told(self.agent.since(mark)), [("verdict", card_reader.sysname)])

    def test_refused_device_that_gets_its_configuration_anew_meanwhile_is_refused_anew(
            self) -> None:
        self.use_policy(policy("whitelist"))
        disk, keyboard = self.plug(STORAGE, KEYBOARD)
        self.terminal.wait_until_blocked(disk)
        mark = self.agent.mark()
        self.lose_messages(self.input_of(keyboard))
        configuration = f"/sys/bus/usb/devices/{disk.sysname}/bConfigurationValue"
        self.terminal.check_output(f"echo 0 > {configuration}; echo 1 > {configuration}")
        self.assertFalse(self.state(disk).blocked())
        self.process.signal(signal.SIGCONT)
        self.agent.wait_for(mark, event="rescan", reason="overflow")
        self.terminal.wait_until_blocked(disk)


if __name__ == "__main__":
    unittest.main()
