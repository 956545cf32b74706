#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The terminal's own hardware: USB controllers with a mode, power supplies, and the programs that
show what the daemon does with them. No daemon takes part but in the test of `dumpsys`."""

from __future__ import annotations

import dataclasses
import errno
import os
import re
import sys
import tempfile
import unittest
from collections.abc import Iterable
from pathlib import Path
from unittest import mock

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(ROOT), str(ROOT / "tests" / "vm")]

from support import TIMEOUT, DaemonLog, Process, PropertyWatch  # noqa: E402
from vm import devices, devicetree, image, terminal  # noqa: E402
from vm.devices import Device  # noqa: E402
from vm.terminal import HSUSB, SSUSB, CommandFailed, Plugged, Terminal, TerminalError  # noqa: E402

SOC = "/sys/devices/platform/soc"
NODES = (SSUSB, HSUSB)
DEVSPEC = {SSUSB: b"/soc/ssusb@a800000/dwc3@a800000\n", HSUSB: b"/soc/hsusb@c200000/dwc3@c200000\n"}
ROOT_HUBS = {SSUSB: 2, HSUSB: len(terminal.GADGET_CONTROLLERS)}

# All that QEMU can plug in, and as many gadgets as there are controllers, the dock among them.
ON_SSUSB = (devices.STORAGE, devices.KEYBOARD, devices.MOUSE, devices.TABLET, devices.NETWORK,
            devices.FTDI_SERIAL, devices.SMARTCARD, devices.HUB)
ON_HSUSB = (devices.DISPLAYLINK, devices.SERIAL, devices.VENDOR_HID, devices.COMPOSITE,
            devices.PRINTER, devices.GADGET_STORAGE)
OTHER_NODE = {SSUSB: HSUSB, HSUSB: SSUSB}

CYCLES = 20
KERNEL_TROUBLE = re.compile(r"WARNING|BUG|Call trace|Unable to handle|refcount_t|use-after-free")


class EquipmentTestCase(unittest.TestCase):
    terminal: Terminal

    @classmethod
    def setUpClass(cls) -> None:
        # Room for all that the kernel says when devices come and go hundreds of times.
        cls.terminal = cls.enterClassContext(
            Terminal(cls.__name__, start="none", options=("log_buf_len=8M",)))

    def setUp(self) -> None:
        self.plugged: dict[str, list[Plugged]] = {node: [] for node in NODES}
        self.addCleanup(self.tidy_up)

    def tidy_up(self) -> None:
        for node in NODES:
            self.terminal.set_mode(node, "host")
            for plugged in self.plugged[node]:
                self.terminal.locate(plugged)
                self.terminal.unplug(plugged)
        # Also the numbers of the buses are to be as at first.
        for mode in ("none", "host"):
            for node in NODES:
                self.terminal.set_mode(node, mode)
        for name, online in (("dc", 1), ("usb", 0)):
            self.terminal.set_supply(name, online)

    def plug(self, *kinds: Device) -> list[Plugged]:
        """Plugs devices in at once and returns when all of them work."""
        plugged = []
        for kind in kinds:
            device = self.terminal.connect(kind)
            self.plugged[device.node].append(device)
            plugged.append(device)
        self.wait_until_work(plugged)
        return plugged

    def wait_until_work(self, plugged: Iterable[Plugged]) -> None:
        for device in plugged:
            self.terminal.wait_until_works(device)

    def write_mode(self, node: str, text: str) -> terminal.Result:
        """Writes exactly these bytes in one write; shows what errno says."""
        return self.terminal.run(f"dd of={SOC}/{node}/mode bs=4096 2>&1", data=text.encode())

    def usb_devices(self) -> set[str]:
        return set(self.terminal.check_output("ls /sys/bus/usb/devices").split())

    def buses(self, node: str) -> list[str]:
        """The root hubs of the controllers behind a node."""
        base = {SSUSB: "/sys/bus/pci/drivers/xhci_hcd/0*",
                HSUSB: "/sys/bus/platform/drivers/dummy_hcd/dummy_hcd.*"}[node]
        return self.terminal.run(f"for hub in {base}/usb*; do [ ! -e $hub ] || echo ${{hub##*/}}; "
                                 "done").stdout.split()

    def kernel_log(self) -> str:
        log = self.terminal.check_output("dmesg")
        self.assertIn("Booting Linux", log.partition("\n")[0])
        return log

    def modes_logged(self) -> list[tuple[str, str]]:
        return re.findall(r"(\S+): mode (\w+)$", self.kernel_log(), re.MULTILINE)

    def assert_no_trouble(self) -> None:
        trouble = [line for line in self.kernel_log().splitlines() if KERNEL_TROUBLE.search(line)]
        self.assertEqual(trouble, [])


class ModeTest(EquipmentTestCase):
    def test_both_controllers_begin_in_host_mode(self) -> None:
        for node in NODES:
            self.assertEqual(self.terminal.read_file(f"{SOC}/{node}/mode"), b"host\n")
            self.assertEqual(len(self.buses(node)), ROOT_HUBS[node])

    def test_none_takes_all_devices_of_one_node_and_host_brings_them_back(self) -> None:
        for node, kinds in ((SSUSB, ON_SSUSB), (HSUSB, ON_HSUSB)):
            self.plug(*kinds)
        for node in NODES:
            with self.subTest(node):
                mine, others = self.plugged[node], self.plugged[OTHER_NODE[node]]
                hubs = self.buses(node)
                before = self.usb_devices()
                # Names by the bus, "3-1:1.0" as well as "usb3".
                taken = {name for name in before
                         if re.sub(r"usb|-.*", "", name) in {hub[3:] for hub in hubs}}
                mark = self.terminal.uevent_mark()
                self.terminal.set_mode(node, "none")
                self.assertEqual(self.terminal.mode(node), "none")
                # Nothing is waited for: they are gone when the write is over.
                self.assertEqual(self.usb_devices(), before - taken)
                self.assertEqual(self.buses(node), [])
                self.terminal.set_mode(node, "host")
                self.assertEqual(self.terminal.mode(node), "host")
                for plugged in mine:
                    self.terminal.locate(plugged)
                self.wait_until_work(mine)
                self.assertEqual(self.replugged(mark), sorted(
                    (device.device.vendor, device.device.product) for device in mine))
                for plugged in others:
                    self.assertTrue(self.terminal.wait_until_works(plugged))
        self.assert_no_trouble()

    def replugged(self, mark: int) -> list[tuple[int, int]]:
        """The ids of the devices, root hubs aside, that came after having gone."""
        gone: list[tuple[int, int]] = []
        back: list[tuple[int, int]] = []
        for event in self.terminal.uevents_since(mark):
            if event.get("DEVTYPE") != "usb_device" or event["ACTION"] not in ("add", "remove"):
                continue
            vendor, product, _ = (int(part, 16) for part in event["PRODUCT"].split("/"))
            if vendor == 0x1D6B:
                continue
            (gone if event["ACTION"] == "remove" else back).append((vendor, product))
            self.assertLessEqual(len(back), len(gone))
        self.assertEqual(sorted(gone), sorted(back))
        return sorted(back)

    def test_dock_with_a_display_controller_comes_back_on_its_own(self) -> None:
        dock, = self.plug(devices.DISPLAYLINK)
        self.assertEqual(dock.node, HSUSB)
        hub = f"usb{dock.sysname[0]}"
        self.assertEqual(self.terminal.read_file(f"/sys/bus/usb/devices/{hub}/devspec"),
                         DEVSPEC[HSUSB])
        self.terminal.set_mode(HSUSB, "none")
        self.assertIsNone(dock.state())
        self.terminal.set_mode(HSUSB, "host")
        self.terminal.locate(dock)
        self.assertEqual(self.terminal.wait_until_works(dock).vendor, 0x17E9)

    def test_gadget_that_keeps_sending_while_its_controller_is_off_does_no_harm(self) -> None:
        ethernet, = self.plug(devices.ETHERNET)
        self.terminal.check_output("ip addr add 10.9.9.1/24 dev gadget0")
        self.make_gadget_send()
        for _ in range(5):
            self.terminal.set_mode(HSUSB, "none")
            enough = self.pings_sent() + 5
            self.terminal.wait_until(lambda: self.pings_sent() >= enough, TIMEOUT, "pings")
            self.terminal.set_mode(HSUSB, "host")
            self.wait_until_work([ethernet])
        self.assert_no_trouble()

    def make_gadget_send(self) -> None:
        """The gadget tells the other end only once that its line is up. Seen at times: the notice
        is lost, and nothing is sent until the line has gone down and up again."""
        sent = "/sys/class/net/gadget0/statistics/tx_packets"
        for attempt in range(5):
            self.terminal.check_output("ip link set usb0 up; ip link set gadget0 up")
            talker = Process(self.terminal, ["ping", "-q", "-i", "0.05", "10.9.9.255"])
            self.addCleanup(talker.kill)
            try:
                self.terminal.wait_until(lambda: int(self.terminal.read_file(sent)) > 0, 6,
                                         f"the gadget to send, attempt {attempt}")
                return
            except TimeoutError:
                talker.kill()
                self.terminal.check_output("ip link set gadget0 down; ip link set usb0 down")
        self.fail("the gadget does not send")

    def pings_sent(self) -> int:
        """As the IP layer counts them, whether or not the device takes them."""
        heads, values = (line.split() for line in self.terminal.check_output(
            "grep ^Icmp: /proc/net/snmp").splitlines())
        return int(dict(zip(heads, values))["OutEchos"])

    def test_mode_is_taken_with_and_without_a_newline(self) -> None:
        for node in NODES:
            for text in ("none", "host\n", "none\n", "host"):
                result = self.write_mode(node, text)
                self.assertEqual(result.status, 0, result.stdout)
                self.assertEqual(self.terminal.read_file(f"{SOC}/{node}/mode"),
                                 f"{text.strip()}\n".encode())
                self.assertEqual(len(self.buses(node)), ROOT_HUBS[node] if "host" in text else 0)

    def test_other_words_are_refused_and_change_nothing(self) -> None:
        for node in NODES:
            for text in ("hos", "hostess", "Host", "none none", "device", "0", "\n", " host"):
                with self.subTest(node, text=text):
                    result = self.write_mode(node, text)
                    self.assertIn(os.strerror(errno.EINVAL), result.stdout)
                    self.assertNotEqual(result.status, 0)
                    self.assertEqual(self.terminal.mode(node), "host")
                    self.assertEqual(len(self.buses(node)), ROOT_HUBS[node])

    def test_peripheral_mode_has_no_controllers_either(self) -> None:
        for node in NODES:
            self.terminal.set_mode(node, "peripheral")
            self.assertEqual(self.terminal.read_file(f"{SOC}/{node}/mode"), b"peripheral\n")
            self.assertEqual(self.buses(node), [])
            self.terminal.set_mode(node, "none")
            self.assertEqual(self.buses(node), [])
            self.terminal.set_mode(node, "host")
            self.assertEqual(len(self.buses(node)), ROOT_HUBS[node])

    def test_mode_in_force_already_is_no_change(self) -> None:
        plugged = self.plug(devices.KEYBOARD, devices.SERIAL)
        numbers = [device.state().number for device in plugged]
        mark = self.terminal.uevent_mark()
        logged = self.modes_logged()
        for node in NODES:
            self.terminal.set_mode(node, "host")
        self.assertEqual(self.modes_logged(), logged)
        self.assertEqual(self.replugged(mark), [])
        self.assertEqual([device.state().number for device in plugged], numbers)

    def test_kernel_log_tells_each_change_in_order(self) -> None:
        before = len(self.modes_logged())
        for node, mode in ((HSUSB, "none"), (SSUSB, "none"), (HSUSB, "host"), (SSUSB, "host")):
            self.terminal.set_mode(node, mode)
        self.assertEqual(self.modes_logged()[before:], [
            (HSUSB, "none"), (SSUSB, "none"), (HSUSB, "host"), (SSUSB, "host")])

    def test_root_hubs_name_their_node(self) -> None:
        self.assert_devspecs()
        # The buses get the numbers that the other node's had.
        for node in NODES:
            self.terminal.set_mode(node, "none")
        for node in reversed(NODES):
            self.terminal.set_mode(node, "host")
        self.assertIn("usb1", self.buses(HSUSB))
        self.assert_devspecs()

    def assert_devspecs(self) -> None:
        for node in NODES:
            hubs = self.buses(node)
            self.assertEqual(len(hubs), ROOT_HUBS[node])
            for hub in hubs:
                self.assertEqual(self.terminal.read_file(f"/sys/bus/usb/devices/{hub}/devspec"),
                                 DEVSPEC[node], hub)

    def test_located_devices_are_found_on_buses_with_other_numbers(self) -> None:
        disk, keyboard, serial = self.plug(devices.STORAGE, devices.KEYBOARD, devices.SERIAL)
        names = [device.sysname for device in (disk, keyboard, serial)]
        for node in NODES:
            self.terminal.set_mode(node, "none")
        for node in reversed(NODES):
            self.terminal.set_mode(node, "host")
        for device, name in zip((disk, keyboard, serial), names):
            self.terminal.locate(device)
            self.assertNotEqual(device.sysname, name)
            self.terminal.wait_until_works(device)

    def test_plugging_where_no_controller_is_on_is_an_error_and_leaves_the_port_free(self) -> None:
        serial, = self.plug(devices.SERIAL)
        for node in NODES:
            self.terminal.set_mode(node, "none")
        with self.assertRaisesRegex(TerminalError, "the xhci has not its two buses"):
            self.terminal.connect(devices.KEYBOARD)
        with self.assertRaisesRegex(CommandFailed, "dummy_hcd.1 is not in host mode"):
            self.terminal.connect(devices.SERIAL)
        with self.assertRaisesRegex(CommandFailed, "dummy_hcd.0 is not in host mode"):
            self.terminal.disconnect(serial)
        with self.assertRaisesRegex(TerminalError, "dummy_hcd.0 has no bus"):
            self.terminal.locate(serial)
        for node in NODES:
            self.terminal.set_mode(node, "host")
        self.terminal.locate(serial)
        self.wait_until_work([serial])
        keyboard, other = self.plug(devices.KEYBOARD, devices.SERIAL)
        self.assertEqual((keyboard.port, other.port), (1, 1))

    def test_many_changes_of_mode_leave_the_kernel_well(self) -> None:
        kinds = {SSUSB: ON_SSUSB, HSUSB: ON_HSUSB}
        for node in NODES:
            self.plug(*kinds[node])
        for node in NODES:
            with self.subTest(node):
                # Each time a little later while the devices are on their way back.
                self.terminal.check_output(
                    f"cd {SOC}/{node}; for cycle in $(seq {CYCLES}); do "
                    "echo none > mode; echo host > mode; usleep $((cycle * 50000)); done",
                    timeout=120)
                for plugged in self.plugged[node]:
                    self.terminal.locate(plugged)
                self.wait_until_work(self.plugged[node])
        self.assertGreaterEqual(self.modes_logged().count((SSUSB, "none")), CYCLES)
        self.assertGreaterEqual(self.modes_logged().count((HSUSB, "none")), CYCLES)
        self.assert_no_trouble()

    def test_module_cannot_be_taken_away(self) -> None:
        self.assertNotEqual(self.terminal.run("rmmod kus_soc").status, 0)
        for driver in ("kus-port", "kus-supplies"):
            self.assertNotEqual(
                self.terminal.run(f"test -e /sys/bus/platform/drivers/{driver}/unbind").status, 0)


class DockedTest(EquipmentTestCase):
    def test_terminal_begins_on_its_docks_supply(self) -> None:
        for name, online in (("dc", b"1\n"), ("usb", b"0\n")):
            self.assertEqual(
                self.terminal.read_file(f"/sys/class/power_supply/{name}/online"), online)


class SupplyTest(EquipmentTestCase):
    def test_each_supply_keeps_what_is_written(self) -> None:
        for dc, usb in ((0, 0), (0, 1), (1, 1), (2, 0), (1, 0)):
            self.terminal.set_supply("dc", dc)
            self.terminal.set_supply("usb", usb)
            self.assertEqual((self.terminal.supply("dc"), self.terminal.supply("usb")), (dc, usb))
            self.assertEqual(self.terminal.read_file("/sys/class/power_supply/dc/online"),
                             b"%d\n" % dc)

    def test_what_is_no_state_is_refused(self) -> None:
        for value in ("3", "-1", "yes"):
            with self.assertRaisesRegex(CommandFailed, os.strerror(errno.EINVAL)):
                self.terminal.check_output(["supply", "dc", value])
            self.assertEqual(self.terminal.supply("dc"), 1)

    def test_change_is_told_by_a_uevent(self) -> None:
        mark = self.terminal.uevent_mark()
        self.terminal.set_supply("usb", 1)
        wanted = {"ACTION": "change", "SUBSYSTEM": "power_supply", "POWER_SUPPLY_NAME": "usb",
                  "POWER_SUPPLY_ONLINE": "1"}
        self.terminal.wait_until(
            lambda: any(wanted.items() <= event.items()
                        for event in self.terminal.uevents_since(mark)), TIMEOUT, "the uevent")


class CommandTest(EquipmentTestCase):
    def test_mode_shows_and_sets(self) -> None:
        self.assertEqual(self.terminal.check_output("mode"),
                         "a800000.ssusb: host\nc200000.hsusb: host\n")
        self.terminal.check_output("mode a800000.ssusb none")
        self.assertEqual(self.terminal.check_output("mode a800000.ssusb"), "none\n")
        for arguments in ("b800000.ssusb", "a800000.ssusb nothing", "a800000.ssusb none none"):
            self.assertNotEqual(self.terminal.run(f"mode {arguments}").status, 0, arguments)
        self.assertEqual(self.terminal.mode(SSUSB), "none")

    def test_supply_shows_and_sets(self) -> None:
        self.assertEqual(self.terminal.check_output("supply"), "dc: 1\nusb: 0\n")
        self.terminal.check_output("supply usb 1")
        self.assertEqual(self.terminal.check_output("supply usb"), "1\n")
        for arguments in ("ac", "usb on", "usb 1 1"):
            self.assertNotEqual(self.terminal.run(f"supply {arguments}").status, 0, arguments)
        self.assertEqual(self.terminal.check_output("supply"), "dc: 1\nusb: 1\n")

    def test_properties_are_watched_in_order(self) -> None:
        watch = PropertyWatch(self.terminal)
        self.addCleanup(watch.kill)
        changes = [("persist.vendor.monitor.undock", "1"), ("persist.vendor.monitor.reset", "1"),
                   ("persist.vendor.monitor.dock", "1"), ("persist.vendor.monitor.reset", "1"),
                   ("persist.vendor.monitor.dock", "two words")]
        for name, value in changes:
            self.terminal.properties[name] = value
        seen = [watch.next_change() for _ in changes]
        self.assertEqual([(change.name, change.value) for change in seen], changes)
        times = [change.time for change in seen]
        self.assertEqual(times, sorted(set(times)))
        uptime = float(self.terminal.read_file("/proc/uptime").split()[0])
        self.assertTrue(uptime - TIMEOUT < times[0] <= times[-1] <= uptime + 0.01, (times, uptime))
        self.assertEqual(self.terminal.properties["persist.vendor.monitor.undock"], "1")

    def test_dumpsys_knows_one_service(self) -> None:
        result = self.terminal.run("dumpsys nosuchservice")
        self.assertEqual((result.status, result.stdout, result.stderr),
                         (1, "", "Can't find service: nosuchservice\n"))
        result = self.terminal.run("dumpsys kusbservice")
        self.assertNotEqual(result.status, 0)
        self.assertEqual(result.stdout, "")
        self.assertEqual(self.terminal.run("dumpsys").status, 2)


class DumpsysTest(unittest.TestCase):
    terminal: Terminal

    @classmethod
    def setUpClass(cls) -> None:
        cls.terminal = cls.enterClassContext(Terminal("dumpsys", start="servicemanager,kusd"))
        DaemonLog(cls.terminal).wait_for(0, "kus service Registered successfully")

    def test_dumpsys_prints_what_the_client_gets_as_it_is(self) -> None:
        for arguments in ((), ("test",), ("--help",)):
            by_client = self.terminal.run(["kus-client", "dump", "--", *arguments])
            by_dumpsys = self.terminal.run(["dumpsys", "kusbservice", *arguments])
            self.assertEqual((by_dumpsys.status, by_dumpsys.output, by_dumpsys.errors),
                             (0, by_client.output, b""))
            self.assertEqual(by_client.status, 0)


class DeviceTreeTest(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = Path(directory.name)
        self.qemu = terminal.shutil.which(terminal.QEMU) or self.fail("no QEMU")
        self.overlay = image.Sources().own_module("soc.dtbo")

    def build(self, *options: str) -> Path:
        return devicetree.build(self.qemu, terminal.MACHINE, options or terminal.BOARD,
                                self.overlay, self.directory)

    def test_tree_is_made_once_until_the_board_or_the_overlay_changes(self) -> None:
        first = self.build()
        for name in (b"ssusb@a800000", b"hsusb@c200000", b"virtio_mmio@a000000"):
            self.assertIn(name, first.read_bytes())
        with mock.patch.object(devicetree, "_run", side_effect=AssertionError("made anew")):
            self.assertEqual(self.build(), first)
        other = self.build(*terminal.BOARD[:-1], "256")
        self.assertNotEqual(other, first)
        self.assertNotEqual(other.read_bytes(), first.read_bytes())
        changed = self.directory / "changed.dtbo"
        changed.write_bytes(self.overlay.read_bytes().replace(b"supplies", b"supplied"))
        self.overlay = changed
        self.assertIn(b"kus,supplied", self.build().read_bytes())

    def test_only_the_last_trees_are_kept(self) -> None:
        trees = [self.build(*terminal.BOARD[:-1], str(256 + number))
                 for number in range(devicetree.TREES_KEPT + 2)]
        left = list(self.directory.iterdir())
        self.assertEqual(len(left), devicetree.TREES_KEPT)
        self.assertIn(trees[-1], left)

    def test_what_went_wrong_is_told(self) -> None:
        with self.assertRaisesRegex(image.ImageError, "qemu-system-aarch64 failed: .*no-such"):
            self.build("-cpu", "no-such")
        self.assertEqual(list(self.directory.iterdir()), [])
        sources = dataclasses.replace(image.Sources(), module=self.directory)
        with self.assertRaisesRegex(image.ImageError, "no soc.dtbo in .*host/setup makes it"):
            sources.own_module("soc.dtbo")


if __name__ == "__main__":
    unittest.main()
