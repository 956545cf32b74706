# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The kernel refuses the daemon's write of an interface's `authorized`: what is said about it, what
becomes of the device's other interfaces, and that the verdict stands.

Nobody asks by himself: the tests ask about a device that has its drivers already. The kernel takes
the byte '0' for every interface that it has, so it has to be brought to an error:

    ENOENT  the device is unplugged between the look at it and the open
    ENODEV  it is unplugged between the open and the write
    EACCES  the file is root's, and the daemon has not its capability
    EINVAL  another file of the kernel's lies over it, a controller's mode, for which 0 is no word:
            to the daemon's '0' an interface's own file never says this
"""

from __future__ import annotations

import dataclasses
import errno
import os
import unittest
from typing import NamedTuple

from support import (CONFIG_DIR, RUN_DAEMON, TIMEOUT, DaemonTestCase, Process, parse_log_line,
                     policy)
from vm.devices import GADGET_STORAGE, PRINTER, VENDOR_HID, Device, Gadget, InterfaceState
from vm.terminal import HSUSB, Plugged

LOG_FILE = "/data/log/kusd.log"
MODE_FILE = f"/sys/devices/platform/soc/{HSUSB}/mode"
# The service manager takes services from root and from this one alone.
SYSTEM = 1000
NO_SERVICE = 3  # kus-client's status

REGISTERED = "kus service Registered successfully"
WATCHING = "registered successfully file observer"
UPDATE = "update_status path with deviceId "
RECORD = "get_deviceid_data() with deviceId"
SUMMARY = "isDeviceAllowed called with mode: whitelist DeviceInfo:= "
NOT_WHITELISTED = "No matching rule found to Whitelist the device"

CANNOT_OPEN = "Unable to open the file"
CANNOT_WRITE = "Error writing to sysfs file"


def combined(*devices: Device) -> Device:
    """One gadget with the interfaces of several. They are none of each other's business: none goes
    when another one is blocked."""
    gadgets = [device.made_by for device in devices]
    functions = tuple(function for gadget in gadgets if isinstance(gadget, Gadget)
                      for function in gadget.functions)
    interfaces = tuple(interface for device in devices for interface in device.interfaces)
    return dataclasses.replace(devices[0], name="three-in-one", title="Three in one",
                               made_by=Gadget(functions), product=0xAC10, interfaces=interfaces)


DEVICE = combined(GADGET_STORAGE, PRINTER, VENDOR_HID)
# Of the three interfaces, the one whose write fails: no other was written, or one was.
FAILED = (0, 1)


def authorized_file(interface: str) -> str:
    return f"/sys/bus/usb/devices/{interface}/authorized"


class Said(NamedTuple):
    """A line of the log, or one of standard error, which has no severity."""

    severity: str
    text: str


class AuthorizedTest(DaemonTestCase):
    services = ("servicemanager", "kusd")

    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        cls.terminal.stop("kusd")

    def setUp(self) -> None:
        super().setUp()
        self.put_policy(policy("whitelist"))

    # --- the daemon -------------------------------------------------------------------------------

    def run_daemon(self, command: str) -> Process:
        """Runs the daemon by a command until it serves. Its output is its log and its standard
        error, line by line as it writes them."""
        self.wait_until_no_service()
        daemon = Process(self.terminal, ["sh", "-c", f"exec {command} 2>&1"])
        self.addCleanup(daemon.kill)
        missing = {REGISTERED, WATCHING}
        while missing:
            line = parse_log_line(daemon.next_line())
            if line is not None:
                missing.discard(line.message)
        return daemon

    def wait_until_no_service(self) -> None:
        self.terminal.wait_until(
            lambda: self.terminal.run("kus-client ping").status == NO_SERVICE, TIMEOUT,
            "the service manager to forget the last daemon")

    def plug_in(self) -> tuple[Plugged, list[InterfaceState]]:
        """A device that works, and its interfaces in the order in which the daemon knows them."""
        plugged = self.terminal.plug(DEVICE)
        self.plugged.append(plugged)
        state = self.terminal.wait_until_works(plugged)
        dump = self.client("dump", "test").partition("DeviceIdMap size")[2]
        return plugged, sorted(state.interfaces,
                               key=lambda each: dump.index(f"Interface name : {each.name},"))

    def question(self, plugged: Plugged) -> list[str]:
        state = self.state(plugged)
        classes = ",".join(str(each.interface_class) for each in state.interfaces)
        return ["kus-client", "decide", "--id", str(state.device_id), "--interfaces", classes,
                "--vid", str(state.vendor), "--pid", str(state.product)]

    # --- what must come of it ---------------------------------------------------------------------

    def assert_recorded_as_refused(self, device_id: int) -> None:
        self.assertEqual([(record["deviceId"], record["status"], record["reason"])
                          for record in self.records()], [(device_id, 0, NOT_WHITELISTED)])

    def assert_said(self, lines: list[str], device_id: int, names: list[str], what: str,
                    number: int) -> None:
        """Compares what was said from the update on: the last one of `names` has failed."""
        said = []
        for text in lines:
            line = parse_log_line(text)
            said.append(Said("", text) if line is None else Said(line.severity, line.message))
        begin = said.index(Said("I", f"{UPDATE}{device_id} status:0"))
        wanted = [said[begin]]
        for name in names:
            wanted += [
                Said("I", f"Found deviceId in native list : {device_id}\t interface path{name}"),
                Said("I", f"update_status path is :{authorized_file(name)}")]
        wanted += [Said("", f"{what}: {os.strerror(number)}"),
                   Said("E", "Error! Could not open file")]
        self.assertEqual(said[begin:begin + len(wanted)], wanted)
        rest = said[begin + len(wanted):]
        # The record is made next, and nobody goes back to an interface.
        self.assertTrue(rest and rest[0].text.startswith(RECORD), rest[:3])
        self.assertEqual([each for each in rest if each.severity != "I"
                          or "update_status" in each.text or "in native list" in each.text], [])
        self.assertIn(f"Status: 0, Reason: {NOT_WHITELISTED} }}", rest[-1].text)

    def assert_blocked_before(self, plugged: Plugged, before: list[InterfaceState],
                              failed: int) -> None:
        """Compares the interfaces with what they were: only those before the failed one are
        blocked, that one and those behind it work on."""
        after = {each.name: each for each in self.state(plugged).interfaces}
        for number, interface in enumerate(before):
            if number < failed:
                self.assertEqual((after[interface.name].authorized, after[interface.name].driver),
                                 (False, ""))
            else:
                self.assertEqual(after[interface.name], interface)

    # --- tests ------------------------------------------------------------------------------------

    def unplug_before(self, daemon: Process, call: str, failed: int, what: str,
                      number: int) -> None:
        """Unplugs a device right before a call on the file of one of its interfaces."""
        plugged, interfaces = self.plug_in()
        names = [each.name for each in interfaces[:failed + 1]]
        device_id = self.state(plugged).device_id
        client = Process(self.terminal, self.question(plugged))
        self.addCleanup(client.kill)
        lines: list[str] = []
        steps = []
        while not lines or SUMMARY not in lines[-1]:
            text = daemon.next_line()
            if not text.startswith("step: "):
                lines.append(text)
                continue
            step, _, path = text.removeprefix("step: ").partition(" ")
            steps.append((step, path.split("/")[-2]))
            if steps[-1] == (call, names[-1]):
                self.plugged.remove(plugged)
                self.terminal.unplug(plugged)
            daemon.send("")
        self.assertEqual(client.next_line(), "refused")
        self.assert_said(lines, device_id, names, what, number)
        self.assertEqual({name for _, name in steps}, set(names))
        self.assert_recorded_as_refused(device_id)
        self.client("remove", "--id", str(device_id))
        daemon.lines()

    def test_unplugged_before_the_open(self) -> None:
        daemon = self.run_daemon(f"vm-steps '*/authorized' {RUN_DAEMON}")
        for failed in FAILED:
            with self.subTest(failed):
                self.unplug_before(daemon, "open", failed, CANNOT_OPEN, errno.ENOENT)

    def test_unplugged_before_the_write(self) -> None:
        daemon = self.run_daemon(f"vm-steps '*/authorized' {RUN_DAEMON}")
        for failed in FAILED:
            with self.subTest(failed):
                self.unplug_before(daemon, "write", failed, CANNOT_WRITE, errno.ENODEV)

    def test_file_is_not_the_daemons(self) -> None:
        self.terminal.check_output(f"chown -R {SYSTEM} {CONFIG_DIR}")
        daemon = self.run_daemon("init-rc rights kusd-startup-tasks kusd")
        self.assertEqual(
            self.terminal.check_output("stat -c %u /proc/$(pidof kusd)").strip(), str(SYSTEM))
        for failed in FAILED:
            with self.subTest(failed):
                plugged, interfaces = self.plug_in()
                own = [authorized_file(each.name) for number, each in enumerate(interfaces)
                       if number != failed]
                self.terminal.check_output(["chown", str(SYSTEM), *own])
                device_id = self.state(plugged).device_id
                daemon.lines()
                self.assertEqual(self.terminal.check_output(self.question(plugged)), "refused\n")
                self.assert_said(daemon.lines(), device_id,
                                 [each.name for each in interfaces[:failed + 1]], CANNOT_OPEN,
                                 errno.EACCES)
                self.assert_blocked_before(plugged, interfaces, failed)
                self.assert_recorded_as_refused(device_id)
                self.unplug_and_forget(plugged, device_id)

    def unplug_and_forget(self, plugged: Plugged, device_id: int) -> None:
        self.plugged.remove(plugged)
        self.terminal.unplug(plugged)
        self.client("remove", "--id", str(device_id))

    def test_kernel_does_not_take_the_value(self) -> None:
        """The daemon is init's: its standard error is in the service's log."""
        log = self.log.mark()
        self.wait_until_no_service()
        self.terminal.start("kusd")
        self.addCleanup(self.terminal.stop, "kusd")
        self.wait_until_start_is_over(log)
        for failed in FAILED:
            with self.subTest(failed):
                plugged, interfaces = self.plug_in()
                device_id = self.state(plugged).device_id
                name = interfaces[failed].name
                before = self.terminal.read_file(LOG_FILE)
                self.terminal.check_output(["mount", "--bind", MODE_FILE, authorized_file(name)])
                self.assertEqual(self.terminal.check_output(self.question(plugged)), "refused\n")
                self.terminal.check_output(["umount", authorized_file(name)])
                said = self.terminal.read_file(LOG_FILE).removeprefix(before)
                self.assert_said(said.decode().splitlines(), device_id,
                                 [each.name for each in interfaces[:failed + 1]], CANNOT_WRITE,
                                 errno.EINVAL)
                self.assert_blocked_before(plugged, interfaces, failed)
                self.assert_recorded_as_refused(device_id)
                self.unplug_and_forget(plugged, device_id)
        self.assertEqual(self.terminal.mode(HSUSB), "host")


if __name__ == "__main__":
    unittest.main()
