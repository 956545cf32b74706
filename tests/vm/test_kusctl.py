# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""kusctl against the running service: what it shows of it, what it has it do, and how it ends.

No agent runs: what is judged and what is told comes from the test alone."""

from __future__ import annotations

import json
import re
import signal
import time
import unittest

from support import (AUTOMATION, BACKUP_FILE, CONFIG_DIR, CONFIG_FILE, DEFAULT_POLICY, RUN_DAEMON,
                     STATUS_FILE, TIMEOUT, DaemonTestCase, Event, Process, class_rule, policy,
                     vendor_rule)
from vm import channel
from vm.terminal import Result, Terminal

GOOD, NO, USAGE_ERROR, NO_SERVICE, UNREADABLE = range(5)

NOBODY = "/system/bin/setpriv --reuid 65534 --regid 65534 --clear-groups"

RULES = policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE"),
               class_rule("AINPUT_SOURCE_KEYBOARD"), vendor_rule(1133), vendor_rule(2385, 5734))
MODE = "whitelist: 2 class rules, 2 vendor rules"
BAD = b"<usbconfig mode='Whitelist'/>"
UNABLE = "Unable to apply the USB Admin config rules"
NO_RULE = "No matching rule found to Whitelist the device"
BY_CLASS = "Whitelisted: Match by ClassName, CLASS : "

# No bus has a number that high, so no real device has these ids.
DISK, PRINTER, RECEIVER = 90005, 90017, 91001

ESCAPES = "\033[2J\033]0;owned\007\n\u009b31mred\u202e"
HARMLESS = "\ufffd[2J\ufffd]0;owned\ufffd\ufffd\ufffd31mred\ufffd"

EVENTS = 100
HEADINGS = ["TIME", "EVENT", "ID", "KIND", "VERDICT", "HEX", "DECIMAL", "CLASSES", "NAME", "REASON"]

# More than a pipe holds, all names together.
LONG_NAMES = 30
LONG_NAME = 3000


def device(device_id: int, name: str, classes: str, vendor: int, product: int,
           device_class: int = 0, device_type: int = 0) -> list[str]:
    """A device for kus-client."""
    return ["--id", str(device_id), "--name", name, "--class", str(device_class), "--interfaces",
            classes, "--vid", str(vendor), "--pid", str(product), "--type", str(device_type)]


STICK = device(DISK, "Stick", "8", 0x1234, 0xABCD)
LASER = device(PRINTER, "Laser", "7,255", 100, 200)
MOUSE = device(RECEIVER, "Gerät", "3,8,3", 1133, 50475)
KEYS = device(7, "Keys", "", 1, 2, 0x101, 1)


class Kusctl(Process):
    """A kusctl that runs beside the test; its last line tells its exit status."""

    def __init__(self, terminal: Terminal, *arguments: str) -> None:
        # The shell hears of a signal as well, and goes on.
        script = 'trap : INT TERM; kusctl "$@"; echo "status $?"'
        super().__init__(terminal, ["sh", "-c", script, "sh", *arguments])

    def rest(self, timeout: float = TIMEOUT) -> tuple[list[str], int]:
        """The lines up to the end, and the exit status."""
        self.wait(timeout)
        *lines, status = self.lines()
        return lines, int(status.removeprefix("status "))

    @property
    def errors(self) -> str:
        return self._errors.decode()


class KusctlTestCase(DaemonTestCase):
    services = ("servicemanager", "kusd")
    rules = RULES

    def setUp(self) -> None:
        super().setUp()
        self.begin_with(self.rules)

    def begin_with(self, text: str) -> int:
        """A fresh daemon that has taken these rules and follows their file."""
        if self.terminal.status("kusd").state == "running":
            self.stop_daemon()
        self.terminal.check_output(f"rm -rf {CONFIG_DIR}/*")
        self.put_policy(text)
        log = self.log.mark()
        pid = self.start_daemon()
        self.wait_until_start_is_over(log)
        return pid

    def run_kusctl(self, *arguments: str, before: str = "") -> Result:
        command = " ".join(["exec", before, "kusctl", *arguments])
        result = self.terminal.run(command)
        # Not on a terminal: no colours, whatever it shows; and never what a device puts in.
        self.assertNotIn(b"\033", result.output + result.errors)
        return result

    def kusctl(self, *arguments: str, status: int = GOOD) -> str:
        """Its standard output; it must end so, and complain only if that is no answer."""
        result = self.run_kusctl(*arguments)
        self.assertEqual(result.status, status, result)
        self.assertEqual(result.errors, b"")
        return result.output.decode()

    def complaint(self, *arguments: str, status: int, before: str = "") -> str:
        result = self.run_kusctl(*arguments, before=before)
        self.assertEqual((result.status, result.output), (status, b""), result)
        self.assertTrue(result.stderr.startswith("kusctl: "), result.stderr)
        self.assertEqual(result.stderr.count("\n"), 1, result.stderr)
        return result.stderr.removeprefix("kusctl: ").removesuffix("\n")

    def json(self, *arguments: str, status: int = GOOD) -> Event:
        text = self.kusctl(*arguments, "--json", status=status)
        self.assertEqual(text.count("\n"), 1)
        found = json.loads(text)
        self.assertIsInstance(found, dict)
        return found

    def decide(self, *devices: list[str]) -> None:
        for each in devices:
            self.client("decide", *each)

    def beside(self, *arguments: str) -> Kusctl:
        process = Kusctl(self.terminal, *arguments)
        self.addCleanup(process.kill)
        return process

    def wait_until_registered(self, mark: int) -> None:
        self.log.wait(mark, lambda line: line.message.startswith(
            "Size of callbacks at registerKusCallback"), "registration")

    def watch(self, *arguments: str) -> Kusctl:
        log = self.log.mark()
        process = self.beside("watch", *arguments)
        self.wait_until_registered(log)
        if "--json" not in arguments:
            self.assertEqual(process.next_line().split(), HEADINGS)
        return process


def with_meaning(record: Event, class_names: list[str]) -> Event:
    return {"kind": "input" if record["deviceType"] else "usb", "allowed": record["status"] == 1,
            **record, "classNames": class_names}


def aligned(rows: list[list[str]]) -> list[str]:
    widths = [max(len(cell) for cell in column) for column in zip(*rows, strict=True)]
    return ["  ".join(cell.ljust(width) for cell, width in zip(row, widths, strict=True)).rstrip()
            for row in rows]


# --- list ---------------------------------------------------------------------------------------


class ListTest(KusctlTestCase):
    def test_nothing_has_been_judged_at_first(self) -> None:
        self.assertEqual(self.kusctl("list"), "no device has been judged\n")
        self.assertEqual(self.json("list"), {"devices": []})

    def test_each_device_is_an_aligned_row_with_its_reason_below(self) -> None:
        self.decide(MOUSE, KEYS, LASER, STICK)
        rows = aligned([
            ["ID", "KIND", "VERDICT", "HEX", "DECIMAL", "CLASSES", "NAME"],
            ["7", "input", "allowed", "0001:0002", "1:2", "AINPUT_SOURCE_KEYBOARD", "Keys"],
            ["90005", "usb", "allowed", "1234:abcd", "4660:43981", "USB_CLASS_MASS_STORAGE",
             "Stick"],
            ["90017", "usb", "refused", "0064:00c8", "100:200",
             "USB_CLASS_PRINTER, USB_CLASS_VENDOR_SPEC", "Laser"],
            ["91001", "usb", "allowed", "046d:c52b", "1133:50475",
             "USB_CLASS_HID, USB_CLASS_MASS_STORAGE", "Gerät"]])
        reasons = [f"{BY_CLASS}AINPUT_SOURCE_KEYBOARD", f"{BY_CLASS}USB_CLASS_MASS_STORAGE",
                   NO_RULE, f"{BY_CLASS}USB_CLASS_MASS_STORAGE"]
        wanted = [rows[0]]
        for row, reason in zip(rows[1:], reasons, strict=True):
            wanted += [row, f"    {reason}"]
        self.assertEqual(self.kusctl("list").split("\n"), [*wanted, ""])
        # Whole on a terminal of usual width.
        self.assertLessEqual(max(len(line) for line in wanted), 120)

    def test_json_is_the_services_own_records_with_their_meaning(self) -> None:
        self.decide(MOUSE, KEYS, LASER, STICK)
        names = [["AINPUT_SOURCE_KEYBOARD"], ["USB_CLASS_MASS_STORAGE"],
                 ["USB_CLASS_PRINTER", "USB_CLASS_VENDOR_SPEC"],
                 ["USB_CLASS_HID", "USB_CLASS_MASS_STORAGE"]]
        records = self.records()
        self.assertEqual(len(records), 4)
        self.assertEqual(self.json("list"), {"devices": [
            with_meaning(record, each) for record, each in zip(records, names, strict=True)]})

    def test_name_cannot_steer_the_terminal(self) -> None:
        self.decide(device(DISK, ESCAPES, "8", 1, 2))
        self.assertEqual(self.kusctl("list").splitlines()[1],
                         f"90005  usb   allowed  0001:0002  1:2      USB_CLASS_MASS_STORAGE  "
                         f"{HARMLESS}")
        self.assertEqual(self.json("list")["devices"][0]["deviceName"], ESCAPES)

    def test_verdicts_are_coloured_on_a_terminal_unless_that_is_unwanted(self) -> None:
        self.decide(STICK)
        for setting, coloured in (("TERM=linux", True), ("TERM=dumb", False),
                                  ("TERM=linux NO_COLOR=1", False), ("TERM=linux NO_COLOR=", True)):
            with self.subTest(setting):
                output = self.on_a_terminal(f"{setting} kusctl list")
                self.assertIn(b"Stick", output)
                self.assertEqual(b"\033[32mallowed\033[0m" in output, coloured, output)
                self.assertEqual(b"\033" in output, coloured, output)
        self.assertNotIn(b"\033", self.on_a_terminal("TERM=linux kusctl list --json"))

    def on_a_terminal(self, command: str) -> bytes:
        task = self.terminal.channel.open(channel.RUN, b"\1" + command.encode())
        output = b""
        deadline = time.monotonic() + TIMEOUT
        while not task.over:
            frame = task.next(deadline)
            self.assertIsNotNone(frame, f"'{command}' does not end")
            assert frame is not None
            if frame[0] == channel.OUTPUT:
                output += frame[1]
        return output


# --- watch --------------------------------------------------------------------------------------


def event_line(text: str) -> list[str]:
    """Its columns behind the time of day, which must be one."""
    match = re.fullmatch(r"([01]\d|2[0-3]):[0-5]\d:[0-5]\d  (.*)", text)
    assert match is not None, text
    return re.split("  +", match[2])


class WatchTest(KusctlTestCase):
    def test_sees_every_event_in_order_and_ends_with_the_last_one_wanted(self) -> None:
        plain, other = self.watch("--count", str(EVENTS)), self.watcher()
        objects = self.watch("--count", str(EVENTS), "--json")
        # Ids that come again and again, whose records say at which time of asking.
        self.terminal.check_output(
            f"for i in $(seq 1 {EVENTS // 4}); do "
            "kus-client decide --id $((90000 + i % 3)) --name \"Disk $i\" --interfaces 8 "
            "--vid $i --pid $((i * 100)); "
            "kus-client decide --id $((91000 + i % 5)) --name \"Laser $i\" --interfaces 7 "
            "--vid 9$i --pid $i; "
            "kus-client remove --id $((90000 + i % 3)) --name \"Disk $i\" --interfaces 8 --vid $i; "
            "kus-client remove --id $((91000 + i % 5)) --name \"Laser $i\" --interfaces 7; "
            "done", timeout=300)
        # One more, which nobody waits for.
        self.decide(STICK)

        rows, objects_seen = [], []
        for i in range(1, EVENTS // 4 + 1):
            disk, laser = 90000 + i % 3, 91000 + i % 5
            rows += [
                ["added", str(disk), "usb", "allowed", f"{i:04x}:{i * 100:04x}", f"{i}:{i * 100}",
                 "USB_CLASS_MASS_STORAGE", f"Disk {i}", f"{BY_CLASS}USB_CLASS_MASS_STORAGE"],
                ["added", str(laser), "usb", "refused", f"{int(f'9{i}'):04x}:{i:04x}", f"9{i}:{i}",
                 "USB_CLASS_PRINTER", f"Laser {i}", NO_RULE],
                ["removed", str(disk), "usb", "-", f"{i:04x}:0000", f"{i}:0",
                 "USB_CLASS_MASS_STORAGE", f"Disk {i}"],
                ["removed", str(laser), "usb", "-", "0000:0000", "0:0", "USB_CLASS_PRINTER",
                 f"Laser {i}"]]
        lines, status = plain.rest()
        self.assertEqual([event_line(line) for line in lines], rows)
        self.assertEqual((status, plain.errors), (GOOD, ""))

        lines, status = objects.rest()
        objects_seen = [json.loads(line) for line in lines]
        told = other.events()
        self.assertEqual(len(told), EVENTS + 1)
        classes = {8: "USB_CLASS_MASS_STORAGE", 7: "USB_CLASS_PRINTER"}
        self.assertEqual(objects_seen, [
            {"event": each["event"], **with_meaning(
                {key: value for key, value in each.items() if key != "event"},
                [classes[each["interfaceClasses"][0]]])}
            for each in told[:EVENTS]])
        self.assertEqual((status, objects.errors), (GOOD, ""))

    def test_columns_are_aligned_from_line_to_line(self) -> None:
        watch = self.watch("--count", "2")
        self.decide(STICK, device(1, "x", "1", 1, 1))
        first, second = watch.rest()[0]
        for column in ("usb", "USB_CLASS", "ed  "):
            self.assertEqual(first.index(column), second.index(column))
        self.assertEqual(first.index("Stick"), second.index("x  "))
        self.assertEqual(first.index(BY_CLASS), second.index(NO_RULE))

    def test_event_is_there_as_soon_as_it_has_happened(self) -> None:
        watch = self.watch()
        self.decide(STICK)
        self.assertEqual(event_line(watch.next_line())[0], "added")
        self.client("remove", *STICK)
        self.assertEqual(event_line(watch.next_line())[0], "removed")

    def test_signal_ends_it_well_and_takes_its_callback_back(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number):
                watch = self.watch()
                self.decide(STICK)
                watch.next_line()
                log = self.log.mark()
                watch.signal(number)
                self.assertEqual((watch.rest(), watch.errors), (([], GOOD), ""))
                self.log.wait_for(log, "Size of callbacks at unregisterKusCallback0")
                self.assertEqual(self.log.messages(log, "binderDied"), [])

    def test_death_of_the_service_ends_it_with_a_complaint(self) -> None:
        for arguments in ((), ("--json",)):
            with self.subTest(arguments):
                watch = self.watch(*arguments)
                self.decide(STICK)
                pid = self.terminal.status("kusd").pid
                log = self.log.mark()
                self.terminal.check_output(f"kill -KILL {pid}")
                lines, status = watch.rest()
                self.assertEqual((len(lines), status), (1, NO_SERVICE))
                self.assertEqual(watch.errors, "kusctl: the service did not answer (it died): see "
                                               "its log, and start it again\n")
                # init has it back.
                self.wait_until_start_is_over(log)

    def test_name_cannot_steer_the_terminal(self) -> None:
        watch = self.watch("--count", "1")
        objects = self.watch("--count", "1", "--json")
        self.decide(device(DISK, ESCAPES, "8", 1, 2))
        (line,), status = watch.rest()
        self.assertEqual((event_line(line)[7], status), (HARMLESS, GOOD))
        (line,), status = objects.rest()
        self.assertNotIn("\033", line)
        self.assertEqual((json.loads(line)["deviceName"], status), (ESCAPES, GOOD))

    def test_output_that_nobody_reads_holds_up_no_decision(self) -> None:
        log = self.log.mark()
        # The pipe is open and nobody reads it.
        watch = Process(self.terminal, ["sh", "-c", "mkfifo /tmp/unread && exec 3<> /tmp/unread && "
                                        "rm /tmp/unread && exec kusctl watch --json >&3"])
        self.addCleanup(watch.kill)
        self.wait_until_registered(log)
        names = [f"{i:02}" + "x" * LONG_NAME for i in range(LONG_NAMES)]
        for i, name in enumerate(names):
            self.decide(device(92000 + i, name, "8", 1, 2))
        self.assertEqual([record["deviceName"] for record in self.records()], names)
        # A dump of more than a pipe holds, while we are here.
        dump = self.kusctl("dump")
        self.assertGreater(len(dump), 65536)
        self.assertEqual(dump, self.terminal.check_output("dumpsys kusbservice"))


# --- status -------------------------------------------------------------------------------------


class StatusTest(KusctlTestCase):
    def assert_status(self, text: str, status: int) -> None:
        self.assertEqual(self.kusctl("status", status=status), text)

    def assert_json(self, exit_status: int, /, **fields: object) -> None:
        found = self.json("status", status=exit_status)
        self.assertEqual({key: found.get(key) for key in fields}, fields)

    def put_back(self, name: str, text: str | bytes) -> None:
        """As somebody does whom the service does not notice."""
        self.terminal.write_file(f"/data/system/{name}.new", text)
        self.terminal.check_output(f"mv /data/system/{name}.new {CONFIG_DIR}/{name}")

    def test_policy_that_was_taken_over(self) -> None:
        self.assert_status(f"service     running\nlast file   taken over (SUCCESS)\n"
                           f"mode        {MODE}\nbackup      the same as the file\n", GOOD)
        self.assert_json(GOOD, service=True, automation=False, status="SUCCESS", mode="whitelist",
                         taken=True, backupSame=True, outcome="taken", classRules=2, vendorRules=2,
                         advice="")

    def test_file_without_an_end_to_its_last_line_is_the_same_as_its_backup(self) -> None:
        self.begin_with(RULES.removesuffix("\n"))
        self.assertNotEqual(self.terminal.read_file(CONFIG_FILE),
                            self.terminal.read_file(BACKUP_FILE))
        self.assert_json(GOOD, backupSame=True, taken=True)

    def test_rejected_file_whose_backup_was_restored_and_the_good_one_behind_it(self) -> None:
        log = self.log.mark()
        self.put_policy(BAD)
        self.log.wait_for(log, "Parsing failure, copying backup file content")
        self.log.wait_for(log, "Parsing status xml_parse_status 1")
        self.assert_status(
            f"service     running\nlast file   rejected: INVALID MODE\nmode        {MODE}\n"
            "backup      the same as the file\nthe file was rejected and the backup restored: "
            "correct it (kusctl check FILE tells what is wrong) and write it again\n", NO)
        self.assert_json(NO, status="INVALID MODE", taken=False, backupSame=True,
                         outcome="rejected")
        log = self.log.mark()
        self.put_policy(DEFAULT_POLICY)
        self.log.wait_for(log, "usb_host_reset entered:")
        self.assert_json(GOOD, status="SUCCESS", mode="default", taken=True, backupSame=True)

    def test_rejected_file_that_a_start_leaves_in_place(self) -> None:
        self.begin_with(BAD.decode())
        self.assert_status(
            "service     running\nlast file   rejected: INVALID MODE\n"
            "mode        Whitelist, and the daemon would reject the file\nbackup      missing\n"
            "the file was rejected and is still in place: of its rules those before the error may "
            f"be in force: correct it (kusctl check {CONFIG_FILE} tells what is wrong) and write "
            "it in place\n", NO)

    def test_file_that_crashed_the_service(self) -> None:
        self.stop_daemon()
        for content in (b"<!-- nothing -->\n", b"<usbconfig mode='whitelist'>\n"
                        b"<vid vendorid='2147483648'/>\n</usbconfig>\n"):
            with self.subTest(content):
                self.put_policy(content)
                self.assertEqual(
                    self.terminal.run(f"{RUN_DAEMON} > /dev/null 2>&1").status in (6, 11), True)
                self.assertEqual(self.terminal.read_file(STATUS_FILE).decode(), UNABLE)
                # Nobody has started it again yet.
                self.assert_json(NO_SERVICE, service=False, outcome="crashed", status=UNABLE,
                                 taken=False, backupSame=True, mode="whitelist")
                text = self.kusctl("status", status=NO_SERVICE)
                self.assertIn("service     not running: no device is judged\n"
                              "last file   crashed the service, or it crashed by itself: "
                              f"{UNABLE}\n"
                              f"mode        {MODE}\nbackup      the same as the file\n"
                              "the service crashed and the backup was restored", text)
        self.start_daemon()
        self.assert_json(GOOD, outcome="taken")
        # It came back without having read a file: the text is all that is left of its crash.
        self.terminal.write_file(STATUS_FILE, UNABLE)
        self.assert_json(NO, service=True, outcome="crashed")

    def test_file_that_crashes_whoever_reads_it_does_not_crash_this(self) -> None:
        for content in ("<!-- nothing -->\n",
                        "<usbconfig mode='whitelist'><vid vendorid='2147483648'/></usbconfig>\n"):
            self.put_back("usb_device_config.xml", content)
            self.assert_json(NO, accepted=False, status="SUCCESS", backupSame=False)
            self.assertIn("the file as it stands would be rejected: ",
                          self.kusctl("status", status=NO))

    def test_file_that_the_service_did_not_notice(self) -> None:
        self.put_back("usb_device_config.xml", DEFAULT_POLICY)
        self.assert_status(
            "service     running\nlast file   taken over (SUCCESS)\n"
            "mode        default: every device is allowed\nbackup      not the same as the file\n"
            "the file is not the one that was taken over (renamed into place, written while the "
            "service was down, or right behind a bad one): write it again in place, without "
            "renaming\n", NO)
        self.assert_json(NO, taken=True, backupSame=False, mode="default")

    def test_files_that_are_missing(self) -> None:
        self.terminal.check_output(["rm", BACKUP_FILE])
        self.assert_json(NO, taken=True, backupPresent=False, backupSame=False)
        self.terminal.check_output(["rm", CONFIG_FILE])
        self.assert_json(NO, taken=True, present=False, mode="")
        self.assertIn("every device is allowed: write ", self.kusctl("status", status=NO))
        self.terminal.check_output(["rm", STATUS_FILE])
        self.assert_json(NO, status="", outcome="none", taken=False)
        self.assertIn("last file   none yet\n", self.kusctl("status", status=NO))

    def test_service_that_does_not_run(self) -> None:
        self.stop_daemon()
        self.assert_status("service     not running: no device is judged\n"
                           "last file   taken over (SUCCESS)\n"
                           f"mode        {MODE}\nbackup      the same as the file\n", NO_SERVICE)
        self.put_back("status.txt", "INVALID MODE")
        self.assert_json(NO_SERVICE, service=False, status="INVALID MODE")

    def test_policy_that_is_switched_off(self) -> None:
        self.addCleanup(self.set_read_only_property, AUTOMATION, None)
        for value, off in (("1", True), ("0", False), ("2", False), ("x", False)):
            self.set_read_only_property(AUTOMATION, value)
            text = self.kusctl("status")
            self.assertEqual(text.startswith(
                "THE POLICY IS SWITCHED OFF: EVERY DEVICE IS ALLOWED "
                "(ro.config.device.kus_automation is 1)\nservice     running\n"), off, text)
            self.assert_json(GOOD, automation=off, service=True)

    def test_files_are_for_those_who_may_read_them(self) -> None:
        for arguments in (("status",), ("status", "--json")):
            self.assertEqual(
                self.complaint(*arguments, status=UNREADABLE, before=NOBODY),
                f"{CONFIG_FILE}: Permission denied: run it as root or system")

    def test_it_changes_nothing(self) -> None:
        look = f"cd {CONFIG_DIR} && stat -c '%n %s %i %Y %Z %a' . * && cat *"
        before = self.terminal.check_output(look)
        log = self.log.mark()
        for arguments in ("status", "list", "status --json"):
            self.kusctl(arguments)
        self.assertEqual(self.terminal.check_output(look), before)
        self.assertEqual(self.log.messages(log, "CLOSE_WRITE"), [])


# --- dump, reset --------------------------------------------------------------------------------


class DumpTest(KusctlTestCase):
    rules = DEFAULT_POLICY

    def test_is_what_dumpsys_prints(self) -> None:
        self.decide(MOUSE, KEYS, LASER, STICK)
        for words in ((), ("test",)):
            wanted = self.terminal.check_output(["dumpsys", "kusbservice", *words])
            self.assertGreater(wanted.count("\n"), 10)
            self.assertEqual(self.kusctl("dump", *words), wanted)
            self.assertEqual(self.json("dump", *words), {"dump": wanted})

    def test_name_cannot_steer_the_terminal(self) -> None:
        self.decide(device(DISK, ESCAPES, "8", 1, 2))
        self.assertIn("\033", self.terminal.check_output("dumpsys kusbservice"))
        # A line end in a name is one of the dump's for all that can be told.
        self.assertIn("Device name : \ufffd[2J\ufffd]0;owned\ufffd\n\ufffd31mred\ufffd\n",
                      self.kusctl("dump"))
        self.assertIn(ESCAPES, self.json("dump")["dump"])


class ResetTest(KusctlTestCase):
    rules = DEFAULT_POLICY

    def resets(self, log: int) -> list[str]:
        return self.log.messages(log, "^(resetUsbDevices called|usb_host_reset |virtual_undock)")

    def test_plain_one_takes_every_controller_out_of_host_mode_and_back(self) -> None:
        flips = [f"usb_host_reset mode set to {mode} for syspath: "
                 f"/sys/devices/platform/soc/{node}/mode"
                 for node in ("c200000.hsusb", "a800000.ssusb") for mode in ("none", "host")]
        log = self.log.mark()
        self.assertEqual(self.kusctl("reset"), "reset done\n")
        self.assertEqual(self.resets(log),
                         ["resetUsbDevices called", "usb_host_reset entered:", *flips])
        log = self.log.mark()
        self.assertEqual(self.json("reset"), {"reset": "done"})
        self.assertEqual(self.resets(log),
                         ["resetUsbDevices called", "usb_host_reset entered:", *flips])

    def test_undock_waits_for_the_end_of_its_delay(self) -> None:
        log = self.log.mark()
        began = time.monotonic()
        self.assertEqual(self.kusctl("reset", "--undock", "500"), "reset done\n")
        self.assertGreaterEqual(time.monotonic() - began, 0.5)
        self.assertEqual(self.resets(log), [
            "resetUsbDevices called", "usb_host_reset entered:",
            "virtual_undock_dock_event usbPath : empty",
            "virtual_undock_dock_event usbPath empty for non-display link device"])
        for name in ("undock", "dock", "reset"):
            self.assertEqual(self.terminal.properties[f"persist.vendor.monitor.{name}"], "1")


class ExitStatusTest(KusctlTestCase):
    def test_without_a_service_nobody_answers(self) -> None:
        self.stop_daemon()
        for arguments in (("list",), ("list", "--json"), ("watch",), ("dump",), ("reset",)):
            with self.subTest(arguments):
                self.assertEqual(
                    self.complaint(*arguments, status=NO_SERVICE),
                    "the service is not there: run this on the terminal, with kusd started")

    def test_wrong_words_ask_nobody(self) -> None:
        log = self.log.mark()
        for arguments, complaint in (
                (("lst",), "there is no command 'lst': did you mean list"),
                (("dump", "all"), "dump takes the word test or none, and 'all' is neither"),
                (("reset", "--undock", "0"),
                 "--undock wants milliseconds from 1 to 2147483: '0' is none")):
            with self.subTest(arguments):
                self.assertEqual(self.complaint(*arguments, status=USAGE_ERROR), complaint)
        self.assertEqual(self.log.since(log), [])

    def test_reader_that_has_seen_enough_ends_it_without_a_word(self) -> None:
        self.decide(STICK, LASER)
        result = self.terminal.run("kusctl list | head -n 1")
        self.assertEqual((result.status, result.errors), (0, b""))
        self.assertTrue(result.stdout.startswith("ID "), result)


if __name__ == "__main__":
    unittest.main()
