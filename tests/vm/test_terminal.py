#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The virtual terminal itself: what the other tests and the scripted day rely on.

Half of it makes the terminal die, hang or lie still in every way at hand, for a harness that takes
silence for success would make all other tests worthless."""

from __future__ import annotations

import dataclasses
import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import unittest
from pathlib import Path
from unittest import mock

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT))

from vm import devices, terminal  # noqa: E402
from vm.devices import Effect  # noqa: E402
from vm.terminal import Terminal  # noqa: E402


def boot(name: str) -> Terminal:
    return Terminal(name, start="none")


class CommandTest(unittest.TestCase):
    terminal: Terminal

    @classmethod
    def setUpClass(cls) -> None:
        cls.terminal = cls.enterClassContext(boot("commands"))

    def test_output_errors_and_status_come_apart(self) -> None:
        result = self.terminal.run("echo out; echo err >&2; exit 3")
        self.assertEqual((result.status, result.stdout, result.stderr), (3, "out\n", "err\n"))

    def test_status_of_a_command_ended_by_a_signal(self) -> None:
        self.assertEqual(self.terminal.run("kill -TERM $$").status, 128 + signal.SIGTERM)

    def test_a_list_is_not_touched_by_the_shell(self) -> None:
        self.assertEqual(self.terminal.run(["echo", "$HOME  'x'"]).stdout, "$HOME  'x'\n")

    def test_every_byte_passes_both_ways(self) -> None:
        data = bytes(range(256)) * 4096 + os.urandom(100_000)
        self.terminal.write_file("/tmp/bytes", data)
        self.assertEqual(self.terminal.read_file("/tmp/bytes"), data)

    def test_large_output_is_complete(self) -> None:
        result = self.terminal.run("seq 400000", timeout=60)
        self.assertEqual(result.output, b"".join(b"%d\n" % n for n in range(1, 400001)))

    def test_a_hanging_command_times_out_and_is_killed(self) -> None:
        with self.assertRaisesRegex(terminal.CommandTimeout, "longer than 1 s.*'begun"):
            self.terminal.run("echo begun; sleep 4321 & sleep 4321", timeout=1)
        self.assertEqual(self.terminal.run("ps -o args | grep '[4]321'").stdout, "")

    def test_a_background_job_does_not_hold_its_command(self) -> None:
        self.assertEqual(self.terminal.run("sleep 5 & echo done", timeout=4).stdout, "done\n")

    def test_commands_run_side_by_side(self) -> None:
        self.terminal.check_output("mkfifo /tmp/meet")
        results = []
        reader = threading.Thread(
            target=lambda: results.append(self.terminal.run("cat /tmp/meet").stdout))
        reader.start()
        self.terminal.check_output("echo met > /tmp/meet")
        reader.join()
        self.assertEqual(results, ["met\n"])

    def test_a_followed_file_gives_old_and_new_lines_while_commands_run(self) -> None:
        self.terminal.write_file("/tmp/followed", "old\n")
        with self.terminal.follow("/tmp/followed") as lines:
            self.assertEqual(lines.next_line(5), "old")
            self.terminal.check_output("for n in 1 2 3; do echo new $n >> /tmp/followed; done")
            self.assertEqual(lines.wait_for("new [23]", 5), "new 2")
            self.assertEqual(lines.next_line(5), "new 3")
            with self.assertRaisesRegex(TimeoutError, "no line matches never within 0.2 s"):
                lines.wait_for("never", 0.2)

    def test_what_a_command_wrote_to_a_followed_file_is_here_when_it_returns(self) -> None:
        with self.terminal.follow("/tmp/ordered") as lines:
            for number in range(40):
                self.terminal.check_output(f"echo {number} >> /tmp/ordered")
                self.assertEqual(lines.next_line(0), str(number))

    def test_a_followed_file_that_cannot_be_opened_is_an_error(self) -> None:
        with self.terminal.follow("/no/such/directory/file") as lines:
            with self.assertRaisesRegex(terminal.channel.TaskFailed, "No such file"):
                lines.next_line(5)


class ShellTest(unittest.TestCase):
    def test_a_shell_on_a_terminal_takes_keys_and_knows_its_size(self) -> None:
        script = ("import sys; sys.path.insert(0, sys.argv[1])\n"
                  "from vm.terminal import Terminal\n"
                  "with Terminal('shell', start='none') as machine:\n"
                  "    sys.exit(machine.shell())\n")
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("<HHHH", 31, 97, 0, 0))
        self.addCleanup(os.close, ours)
        shell = subprocess.Popen([sys.executable, "-c", script, str(ROOT)], stdin=theirs,
                                 stdout=theirs, stderr=theirs, start_new_session=True)
        self.addCleanup(shell.wait)
        self.addCleanup(shell.kill)
        os.close(theirs)
        self.read_until(ours, b"# ")
        # Its own line shows that the command is there to be interrupted: before that, the signal
        # would meet a shell about to become it.
        os.write(ours, b"stty size; tty; sh -c 'echo $((6 * 7))up; exec sleep 1000'\n")
        shown = self.read_until(ours, b"42up")
        self.assertIn(b"31 97", shown)
        self.assertIn(b"/dev/pts/", shown)
        # Only a shell with a terminal of its own turns this key into a signal.
        os.write(ours, b"\x03")
        os.write(ours, b"exit 7\n")
        self.assertEqual(shell.wait(60), 7)

    def read_until(self, descriptor: int, wanted: bytes) -> bytes:
        shown = b""
        while wanted not in shown:
            self.assertTrue(select.select([descriptor], [], [], 90)[0], shown)
            shown += os.read(descriptor, 4096)
        return shown


class ServiceTest(unittest.TestCase):
    terminal: Terminal

    @classmethod
    def setUpClass(cls) -> None:
        cls.terminal = cls.enterClassContext(boot("services"))

    def service(self, name: str, script: str) -> None:
        self.terminal.write_file(f"/etc/services/{name}", f"#!/bin/sh\n{script}\n")
        self.terminal.check_output(["chmod", "755", f"/etc/services/{name}"])

    def test_started_service_runs_under_the_printed_pid_until_stopped(self) -> None:
        self.service("sleeper", "echo up; exec sleep 1000")
        pid = self.terminal.start("sleeper")
        self.assertEqual(self.terminal.status("sleeper"), terminal.ServiceState("running", pid))
        with self.terminal.follow("/data/log/sleeper.log") as log:
            log.wait_for("^up$", 5)
        self.assertNotEqual(self.terminal.run(["start", "sleeper"]).status, 0)
        self.terminal.stop("sleeper")
        self.assertEqual(self.terminal.status("sleeper"), terminal.ServiceState("stopped", None))
        self.assertNotEqual(self.terminal.run(["kill", "-0", str(pid)]).status, 0)
        self.assertNotEqual(self.terminal.run(["stop", "sleeper"]).status, 0)

    def test_service_that_exits_is_logged_and_started_again(self) -> None:
        self.service("failing", "echo begin; exit 11")
        with (self.terminal.follow("/data/log/services.log") as exits,
              self.terminal.follow("/data/log/failing.log") as log):
            self.terminal.start("failing")
            exits.wait_for("failing exited with status 11$", 5)
            log.wait_for("begin", 5)
            log.wait_for("begin", 5)
            self.terminal.stop("failing")

    def test_service_that_ignores_sigterm_is_killed(self) -> None:
        self.service("stubborn", "trap '' TERM; while true; do sleep 1; done")
        self.terminal.start("stubborn")
        with self.terminal.follow("/data/log/services.log") as exits:
            self.terminal.stop("stubborn")
            exits.wait_for("stubborn exited with status 137$", 5)

    def test_unknown_service_cannot_be_started(self) -> None:
        self.assertIn("no service nothing", self.terminal.run(["start", "nothing"]).stderr)


class DeathTest(unittest.TestCase):
    def test_killed_machine_raises_in_the_command_and_afterwards(self) -> None:
        with self.assertRaises(terminal.TerminalDied), boot("killed") as machine:
            killer = threading.Timer(0.5, os.kill, (machine.qemu_pid, signal.SIGKILL))
            killer.start()
            with self.assertRaisesRegex(terminal.TerminalDied, "status -9"):
                machine.run("sleep 1000")
            killer.join()

    def test_panic_is_a_failure_that_shows_the_console(self) -> None:
        with self.assertRaisesRegex(terminal.TerminalDied, "(?s)sysrq.*Kernel panic"), \
                boot("panic") as machine:
            machine.run("echo c > /proc/sysrq-trigger")

    def test_unwanted_power_off_is_a_failure_even_if_nobody_asks_the_terminal_again(self) -> None:
        with self.assertRaises(terminal.TerminalDied), boot("off") as machine:
            machine.channel.open(terminal.channel.RUN, b"\0poweroff -f")
            self.assertIsNotNone(machine.qmp.wait_event("SHUTDOWN", 20))

    def test_wanted_power_off_is_none(self) -> None:
        with boot("wanted-off") as machine:
            machine.power_off()

    def test_halted_machine_hangs_and_raises(self) -> None:
        with mock.patch.object(terminal, "GRACE", 1), boot("halted") as machine:
            machine.qmp.execute("stop")
            with self.assertRaisesRegex(terminal.TerminalHung, "cannot be killed"):
                machine.run("true", timeout=1)
            with self.assertRaisesRegex(terminal.TerminalHung, "no sign of life"):
                machine.assert_well(timeout=1)
            machine.qmp.execute("cont")

    def test_program_that_crashed_is_a_failure(self) -> None:
        with self.assertRaisesRegex(terminal.TerminalFault, "sh crashed with signal 6"), \
                boot("crash") as machine:
            self.assertEqual(machine.run("kill -ABRT $$").status, 128 + signal.SIGABRT)
            machine.wait_until(machine.crashes, 5, "the report of the crash")

    def test_program_that_may_crash_is_none(self) -> None:
        with boot("expected-crash") as machine:
            machine.expect_crash("sh")
            machine.run("kill -SEGV $$")
            crashes = machine.wait_until(machine.crashes, 5, "the report of the crash")
            self.assertEqual([(crash.program, crash.signal) for crash in crashes],
                             [("sh", signal.SIGSEGV)])

    def test_machine_without_init_never_counts_as_booted(self) -> None:
        with self.assertRaisesRegex(terminal.TerminalDied, "(?s)Kernel panic"):
            with Terminal("no-init", start="none", options=("rdinit=/no-such-init",)):
                self.fail("a machine without init booted")

    def test_machine_dies_with_the_process_that_started_it(self) -> None:
        script = ("import sys; sys.path.insert(0, sys.argv[1])\n"
                  "from vm.terminal import Terminal\n"
                  "with Terminal('orphan', start='none') as machine:\n"
                  "    print(machine.qemu_pid, flush=True)\n"
                  "    sys.stdin.read()\n")
        with subprocess.Popen([sys.executable, "-c", script, str(ROOT)], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True) as owner:
            assert owner.stdout is not None
            machine = os.pidfd_open(int(owner.stdout.readline()))
            owner.kill()
        try:
            self.assertEqual(select.select([machine], [], [], 10)[0], [machine])
        finally:
            os.close(machine)


class TurnTest(unittest.TestCase):
    def test_no_more_machines_than_allowed_at_once(self) -> None:
        with tempfile.TemporaryDirectory() as name:
            directory = Path(name)
            turns = [terminal._Turn(directory, 0) for _ in range(terminal.MACHINES)]
            with self.assertRaises(terminal.TerminalError):
                terminal._Turn(directory, 0)
            turns[0].give_back()
            terminal._Turn(directory, 0).give_back()
            turns[1].give_back()


class UsbTest(unittest.TestCase):
    terminal: Terminal

    @classmethod
    def setUpClass(cls) -> None:
        cls.terminal = cls.enterClassContext(boot("usb"))

    def interface_path(self, plugged: terminal.Plugged, number: int) -> str:
        return f"/sys/bus/usb/devices/{plugged.sysname}:1.{number}"

    def authorize(self, plugged: terminal.Plugged, number: int, value: int) -> None:
        path = self.interface_path(plugged, number)
        self.terminal.check_output(f"echo {value} > {path}/authorized")

    def exists(self, pattern: str) -> bool:
        return self.terminal.run(f"ls -d {pattern}").status == 0

    def test_each_device_of_the_catalogue_works_and_goes(self) -> None:
        paths = {Effect.NETWORK: "net/*", Effect.SERIAL: "tty/*", Effect.DISK: "host*",
                 Effect.INPUT: "0003:*/input", Effect.VENDOR_HID: "0003:*"}
        for device in devices.CATALOGUE.values():
            with self.subTest(device.name):
                plugged = self.terminal.plug(device)
                state = self.terminal.wait_until_works(plugged)
                self.assertEqual(
                    (state.vendor, state.product, state.device_class, set(state.authorized)),
                    (device.vendor, device.product, device.device_class, {True}))
                for number, interface in enumerate(device.interfaces):
                    base = self.interface_path(plugged, number)
                    for effect, path in paths.items():
                        wanted = effect is interface.effect or (
                            effect is Effect.VENDOR_HID and interface.effect is Effect.INPUT)
                        self.assertEqual(self.exists(f"{base}/{path}"), wanted, f"{base}/{path}")
                plugged.unplug()
                self.assertFalse(self.exists(f"/sys/bus/usb/devices/{plugged.sysname}"))

    def test_devices_behind_two_hubs(self) -> None:
        outer = self.terminal.plug(devices.HUB)
        inner = self.terminal.plug(devices.HUB, behind=outer)
        keyboard = self.terminal.plug(devices.KEYBOARD, behind=inner)
        disk = self.terminal.plug(devices.STORAGE, behind=inner)
        self.assertEqual(inner.sysname, f"{outer.sysname}.1")
        self.assertEqual((keyboard.sysname, disk.sysname),
                         (f"{inner.sysname}.1", f"{inner.sysname}.2"))
        self.terminal.wait_until_works(keyboard)
        self.terminal.wait_until_works(disk)
        outer.unplug()
        self.assertEqual(self.terminal.usb_state(*(
            device.sysname for device in (outer, inner, keyboard, disk))), {})

    def test_interface_without_authorization_is_blocked_and_works_again_when_probed(self) -> None:
        plugged = self.terminal.plug(devices.COMPOSITE)
        self.terminal.wait_until_works(plugged)
        for number in range(len(plugged.device.interfaces)):
            self.authorize(plugged, number, 0)
        self.terminal.wait_until_blocked(plugged)
        # All of them first: a driver that needs two interfaces takes none while one is forbidden.
        for number in range(len(plugged.device.interfaces)):
            self.authorize(plugged, number, 1)
        for number in range(len(plugged.device.interfaces)):
            self.terminal.run(f"basename {self.interface_path(plugged, number)} "
                              "> /sys/bus/usb/drivers_probe")
        self.terminal.wait_until_works(plugged)
        plugged.unplug()

    def test_device_that_never_works_is_a_timeout_that_shows_its_state(self) -> None:
        plugged = self.terminal.plug(devices.SMARTCARD)
        with self.assertRaisesRegex(TimeoutError, "to be blocked; its state: DeviceState"):
            self.terminal.wait_until_blocked(plugged, timeout=0.5)
        plugged.unplug()

    def test_plug_and_unplug_are_told_by_uevents(self) -> None:
        mark = self.terminal.uevent_mark()
        plugged = self.terminal.plug(devices.SERIAL.with_ids(0x17E9, 0x1234))
        self.assertEqual(self.terminal.wait_for_device(plugged).vendor, 0x17E9)
        plugged.unplug()
        wanted = {"SUBSYSTEM": "usb", "DEVTYPE": "usb_device", "PRODUCT": "17e9/1234/601"}
        actions = [event["ACTION"] for event in self.terminal.uevents_since(mark)
                   if wanted.items() <= event.items()]
        self.assertEqual([action for action in actions if action in ("add", "remove")],
                         ["add", "remove"])

    def test_gadget_that_cannot_be_made_leaves_nothing(self) -> None:
        impossible = dataclasses.replace(devices.SERIAL, made_by=devices.Gadget(
            (devices.Function("acm"), devices.Function("no-such-function"))))
        with self.assertRaises(terminal.CommandFailed):
            self.terminal.connect(impossible)
        self.assertFalse(self.exists("/sys/kernel/config/usb_gadget/*"))
        self.terminal.plug(devices.SERIAL).unplug()

    def test_all_controllers_at_once(self) -> None:
        kinds = (devices.VENDOR_HID, devices.SERIAL) * (len(terminal.GADGET_CONTROLLERS) // 2)
        plugged = [self.terminal.connect(kind) for kind in kinds]
        with self.assertRaisesRegex(ValueError, "no free port"):
            self.terminal.connect(devices.SERIAL)
        for device in plugged:
            self.terminal.wait_until_works(device)
        self.assertEqual(len({device.sysname for device in plugged}), len(plugged))
        for device in plugged:
            device.unplug()


if __name__ == "__main__":
    unittest.main()
