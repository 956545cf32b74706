# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The daemon with the rights that init's file gives it, and with no others: who it is, whose its
files are, and that its one capability is what blocks devices."""

from __future__ import annotations

import errno
import os
import unittest
from typing import NamedTuple

from support import (BACKUP_FILE, CONFIG_DIR, CONFIG_FILE, DEFAULT_POLICY, ROOT, STATUS_FILE,
                     DaemonTestCase, policy)
from vm.devices import SERIAL, STORAGE, Device
from vm.terminal import HSUSB, SSUSB

INIT_FILE = "/system/etc/init/kusd.rc"
FILES = (CONFIG_FILE, BACKUP_FILE, STATUS_FILE)

SYSTEM = 1000
# A user of the terminal who is neither root nor system.
SHELL = 2000
DAC_OVERRIDE = 1 << 1
NONE = 0

DEFAULT_FILE = (b'<?xml version="1.0" encoding="UTF-8"?>\n'
                b'<usbconfig mode="default">\n'
                b'</usbconfig>')

REFUSE_ALL = policy("whitelist")
RESET = "usb_host_reset entered:"
# Behind each controller, with one interface and with two.
DEVICES: tuple[Device, ...] = (STORAGE, SERIAL)


class Rights(NamedTuple):
    """What the kernel says of a thread; the identities are real, effective, saved and of files."""

    users: tuple[int, ...]
    groups: tuple[int, ...]
    other_groups: tuple[int, ...]
    inheritable: int
    permitted: int
    effective: int
    bounding: int
    ambient: int
    mask: str


def rights_of(status: str) -> Rights:
    fields = {key: value.split() for key, _, value in
              (line.partition(":") for line in status.splitlines())}

    def numbers(key: str) -> tuple[int, ...]:
        return tuple(int(number) for number in fields[key])

    def capabilities(key: str) -> int:
        (word,) = fields[key]
        return int(word, 16)

    return Rights(numbers("Uid"), numbers("Gid"), numbers("Groups"), capabilities("CapInh"),
                  capabilities("CapPrm"), capabilities("CapEff"), capabilities("CapBnd"),
                  capabilities("CapAmb"), fields["Umask"][0])


EXPECTED = Rights((SYSTEM,) * 4, (SYSTEM,) * 4, (), DAC_OVERRIDE, DAC_OVERRIDE, DAC_OVERRIDE,
                  DAC_OVERRIDE, DAC_OVERRIDE, "0077")


class RightsTestCase(DaemonTestCase):
    def rights(self, pid: int) -> set[Rights]:
        """Those of a process's threads."""
        output = self.terminal.check_output(
            f'for task in /proc/{pid}/task/*; do cat "$task/status"; echo; done')
        return {rights_of(status) for status in output.strip().split("\n\n")}

    def owner_and_mode(self, *paths: str) -> list[str]:
        return self.terminal.check_output(["stat", "-c", "%u:%g %a", *paths]).splitlines()

    def begin_with(self, text: str) -> int:
        """Has a fresh daemon take its rules from `text`; returns its process id once it follows the
        file."""
        if self.terminal.status("kusd").state != "stopped":
            self.stop_daemon()
        self.put_policy(text)
        mark = self.log.mark()
        pid = self.start_daemon()
        self.wait_until_start_is_over(mark)
        return pid


class IdentityTest(RightsTestCase):
    def test_terminal_has_the_products_file(self) -> None:
        self.assertEqual(self.terminal.read_file(INIT_FILE),
                         (ROOT / "android/kus/kusd.rc").read_bytes())

    def test_daemon_is_system_with_one_capability_in_every_thread(self) -> None:
        pid = self.begin_with(DEFAULT_POLICY)
        self.assertEqual(self.rights(pid), {EXPECTED})
        self.assertGreater(len(self.terminal.check_output(["ls", f"/proc/{pid}/task"]).split()), 2)

    def test_daemon_that_was_killed_comes_back_with_the_same_rights(self) -> None:
        before = self.begin_with(DEFAULT_POLICY)
        mark, agent = self.log.mark(), self.agent.mark()
        self.terminal.check_output(["kill", "-KILL", str(before)])
        self.wait_until_start_is_over(mark)
        self.agent.wait_for(agent, event="rescan", reason="service")
        after = self.terminal.status("kusd").pid
        assert after is not None
        self.assertNotEqual(after, before)
        self.assertEqual(self.rights(after), {EXPECTED})


class FilesTest(RightsTestCase):
    """From a terminal that has never had rules: what init's file makes and what the daemon does."""

    def setUp(self) -> None:
        super().setUp()
        self.stop_daemon()
        self.terminal.check_output(f"rm -r {CONFIG_DIR} && init-rc trigger post-fs-data")
        mark = self.log.mark()
        self.start_daemon()
        self.wait_until_start_is_over(mark)

    def test_directory_and_every_file_are_systems_alone(self) -> None:
        self.assertEqual(self.owner_and_mode(CONFIG_DIR), [f"{SYSTEM}:{SYSTEM} 770"])
        self.assertEqual(self.owner_and_mode(*FILES), [f"{SYSTEM}:{SYSTEM} 600"] * len(FILES))
        self.assertEqual(set(self.terminal.check_output(f"ls -d {CONFIG_DIR}/*").split()),
                         set(FILES))
        self.assertEqual(self.terminal.read_file(CONFIG_FILE), DEFAULT_FILE)
        self.assertEqual(self.terminal.read_file(STATUS_FILE), b"SUCCESS")

    def test_administrators_app_reads_the_files_and_writes_the_rules(self) -> None:
        """It is of the daemon's user and has no capability."""
        system = ["init-rc", "rights", "kusd-startup-tasks"]
        self.assertEqual(self.terminal.check_output([*system, "cat", *FILES]).encode(),
                         DEFAULT_FILE + DEFAULT_FILE + b"\n" + b"SUCCESS")
        mark = self.log.mark()
        self.terminal.check_output([*system, "sh", "-c", f"cat > {CONFIG_FILE}"],
                                   data=REFUSE_ALL.encode())
        self.log.wait_for(mark, RESET)
        self.assertEqual(self.terminal.read_file(BACKUP_FILE), REFUSE_ALL.encode())
        self.assertEqual(self.owner_and_mode(*FILES), [f"{SYSTEM}:{SYSTEM} 600"] * len(FILES))

    def test_nobody_else_reads_or_writes_a_file_or_lists_the_directory(self) -> None:
        shell = ["/system/bin/setpriv", "--reuid", str(SHELL), "--regid", str(SHELL),
                 "--clear-groups"]
        self.assertEqual(self.terminal.check_output([*shell, "id", "-u"]), f"{SHELL}\n")
        # The directory lets nobody through; nor would the files alone.
        for mode in ("0770", "0777"):
            self.terminal.check_output(["chmod", mode, CONFIG_DIR])
            for path in FILES:
                for command in (["cat", path], ["sh", "-c", f": >> {path}"]):
                    with self.subTest(command, mode=mode):
                        result = self.terminal.run([*shell, *command])
                        self.assertNotEqual(result.status, 0)
                        self.assertEqual(result.stdout, "")
                        self.assertIn(os.strerror(errno.EACCES), result.stderr)
        self.terminal.check_output(["chmod", "0770", CONFIG_DIR])
        self.assertIn(os.strerror(errno.EACCES),
                      self.terminal.run([*shell, "ls", CONFIG_DIR]).stderr)


class EnforcementTest(RightsTestCase):
    def restore_rules(self) -> None:
        self.begin_with(DEFAULT_POLICY)

    def setUp(self) -> None:
        super().setUp()
        self.addCleanup(self.restore_rules)

    def give_no_capability(self) -> None:
        """For the daemons that this test starts from here on."""
        content = self.terminal.read_file(INIT_FILE)
        without = b"".join(line for line in content.splitlines(keepends=True)
                           if line.split() != [b"capabilities", b"DAC_OVERRIDE"])
        self.assertNotEqual(without, content)
        self.addCleanup(self.terminal.write_file, INIT_FILE, content)
        self.terminal.write_file(INIT_FILE, without)

    def modes_set(self, kernel: str) -> list[str]:
        """The changes of a controller's mode that the kernel tells of behind its mark."""
        _, found, log = self.terminal.check_output("dmesg").partition(kernel)
        self.assertTrue(found, "the kernel's log has lost the mark")
        return [line.rpartition("] ")[2] for line in log.splitlines() if ": mode " in line]

    def kernel_mark(self) -> str:
        mark = f"rights mark of {self.id()}"
        self.terminal.check_output(f"echo '{mark}' > /dev/kmsg")
        return mark

    def test_refused_device_is_blocked(self) -> None:
        pid = self.begin_with(REFUSE_ALL)
        for each in self.plug(*DEVICES):
            with self.subTest(each.device.name):
                state = self.terminal.wait_until_blocked(each)
                self.assertEqual([(interface.authorized, interface.driver)
                                  for interface in state.interfaces],
                                 [(False, "")] * len(each.device.interfaces))
        self.assertEqual(self.rights(pid), {EXPECTED})

    def test_new_rules_take_every_controller_out_of_host_mode_and_back(self) -> None:
        self.begin_with(REFUSE_ALL)
        plugged = self.plug(*DEVICES)
        for each in plugged:
            self.terminal.wait_until_blocked(each)
        kernel, agent = self.kernel_mark(), self.agent.mark()
        self.put_policy(DEFAULT_POLICY)
        for each in plugged:
            self.agent.wait_for(agent, event="verdict", kind="usb", allowed=True,
                                vendorId=each.device.vendor, productId=each.device.product)
            self.terminal.locate(each)
            self.terminal.wait_until_works(each)
        changes = [change for node in (HSUSB, SSUSB) for change in (f"{node}: mode none",
                                                                    f"{node}: mode host")]
        self.assertEqual([line.partition(" ")[2] for line in self.modes_set(kernel)], changes)

    def test_without_the_capability_a_refusal_is_not_enforced(self) -> None:
        """So it is needed: the daemon's user alone may write none of the kernel's files."""
        self.give_no_capability()
        pid = self.begin_with(REFUSE_ALL)
        (rights,) = self.rights(pid)
        self.assertEqual((rights.users, rights.inheritable, rights.permitted, rights.effective,
                          rights.ambient), (EXPECTED.users, NONE, NONE, NONE, NONE))
        agent, before = self.agent.mark(), len(self.terminal.read_file("/data/log/kusd.log"))
        plugged = self.plug(*DEVICES)
        for each in plugged:
            self.agent.wait_for(agent, event="verdict", kind="usb", allowed=False,
                                vendorId=each.device.vendor, productId=each.device.product)
            state = self.terminal.wait_until_works(each)
            self.assertEqual(state.authorized, [True] * len(each.device.interfaces))
        log = self.terminal.read_file("/data/log/kusd.log")[before:].decode().splitlines()
        self.assertEqual(log.count(f"Unable to open the file: {os.strerror(errno.EACCES)}"),
                         len(plugged))

        # Nor does it reset a controller. The observer goes on when it has tried.
        kernel, mark = self.kernel_mark(), self.log.mark()
        self.put_policy(DEFAULT_POLICY)
        self.log.wait_for(mark, RESET)
        self.log.wait_for(mark, f"CLOSE_WRITE event triggered on filename {STATUS_FILE}")
        self.assertEqual(self.modes_set(kernel), [])


if __name__ == "__main__":
    unittest.main()
