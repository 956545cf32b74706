# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The service seen from other processes: callbacks, their registry, the lists, made-up devices."""

from __future__ import annotations

import signal
import unittest
from typing import NamedTuple

from support import (AUTOMATION, DEFAULT_POLICY, PROPERTY_DIR, DaemonTestCase, Event, Process,
                     class_rule, policy, vendor_rule)

# No bus has a number that high, so no real device has these ids.
DISK, PRINTER, CAMERA = 90005, 90017, 91001

NOT_WHITELISTED = "No matching rule found to Whitelist the device"
BY_CLASS = "Whitelisted: Match by ClassName, CLASS : "
BY_VENDOR = "Whitelisted: Match by VID, VID : "
BY_PRODUCT = "Whitelisted: Match by VID_PID combination, VID : "

ADDRESS = "0x[0-9a-f]+"


def device(device_id: int, name: str = "Disk", classes: str = "8", vendor: int = 100,
           product: int = 200, device_class: int = 0, device_type: int = 0) -> list[str]:
    """A device for kus-client."""
    return ["--id", str(device_id), "--name", name, "--class", str(device_class), "--interfaces",
            classes, "--vid", str(vendor), "--pid", str(product), "--type", str(device_type)]


def record(device_id: int, name: str = "Disk", classes: tuple[int, ...] = (8,), vendor: int = 100,
           product: int = 200, status: int = 0, reason: str = "", device_type: int = 0,
           device_class: int = 0) -> Event:
    """The record of such a device, which has no interfaces in sysfs and so no category."""
    return {"deviceName": name, "deviceId": device_id, "deviceClass": device_class,
            "interfaceClasses": list(classes), "vendorId": vendor, "productId": product,
            "status": status, "deviceType": device_type, "reason": reason, "category": 0,
            "categoryPath": ""}


class ServiceTestCase(DaemonTestCase):
    """Without an agent: what is asked and what is told comes from the test alone."""

    services = ("servicemanager", "kusd")

    def decide(self, *arguments: str) -> str:
        return self.client("decide", *arguments).strip()

    def remove(self, *arguments: str) -> None:
        self.assertEqual(self.client("remove", *arguments), "")

    def automation(self, value: str | None) -> None:
        self.set_read_only_property(AUTOMATION, value)


class CallbackTest(ServiceTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.pid = self.use_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")))

    def assert_daemon_goes_on(self) -> None:
        self.assertEqual(self.terminal.status("kusd").pid, self.pid)
        self.assertEqual(self.client("ping"), "pong\n")

    def test_every_client_hears_of_every_usb_device(self) -> None:
        clients = [self.watcher(), self.watcher()]
        disk = record(DISK, status=1, reason=f"{BY_CLASS}USB_CLASS_MASS_STORAGE ")
        printer = record(PRINTER, "Printer", (7,), reason=NOT_WHITELISTED)
        self.assertEqual(self.decide(*device(DISK)), "allowed")
        for client in clients:
            self.assertEqual(client.events(), [{"event": "added"} | disk])
        self.assertEqual(self.decide(*device(PRINTER, "Printer", "7")), "refused")
        self.remove(*device(DISK))
        for client in clients:
            # A removal hands on the caller's record, which knows of no verdict.
            self.assertEqual(client.events(), [{"event": "added"} | printer,
                                               {"event": "removed"} | record(DISK)])
        self.assertEqual(self.records(), [printer])

    def test_clients_are_told_in_the_order_of_their_binders(self) -> None:
        log = self.log.mark()
        clients = [self.watcher() for _ in range(4)]
        self.decide(*device(DISK))
        self.remove(*device(DISK))
        for client in clients:
            self.assertEqual([event["event"] for event in client.events()], ["added", "removed"])
        binder_of = {}
        callback = ""
        for message in self.log.messages(log, "^registerKusCallback (called|binder )0x"):
            address = message.rpartition(" ")[2].removeprefix("called")
            if message.startswith("registerKusCallback called"):
                callback = address
            else:
                binder_of[callback] = int(address, 16)
        self.assertEqual(len(set(binder_of.values())), 4)
        in_order = sorted(binder_of, key=lambda each: binder_of[each])
        self.assertEqual(
            self.log.messages(log, "sending callback"),
            [f"addDeviceList: sending callback to client of onDeviceAdded  {each}"
             for each in in_order]
            + [f"updateDeviceList--: sending callback to client onDeviceRemoved {each}"
               for each in in_order])

    def test_callback_registered_twice_hears_everything_twice_until_one_is_taken_back(self) -> None:
        log = self.log.mark()
        client = self.watcher()
        self.assertEqual(client.command("register"), "registered")
        self.decide(*device(DISK))
        self.assertEqual([event["deviceId"] for event in client.events()], [DISK, DISK])
        self.assertEqual(client.command("unregister"), "unregistered")
        self.decide(*device(PRINTER))
        self.assertEqual([event["deviceId"] for event in client.events()], [PRINTER])
        self.assertEqual(client.command("unregister"), "unregistered")
        self.decide(*device(CAMERA))
        self.assertEqual(client.events(), [])
        self.assertEqual(
            [(line.severity, line.message) for line in self.log.since(log)
             if line.message.startswith("Size of callbacks")],
            [("E", "Size of callbacks at registerKusCallback 1"),
             ("E", "Size of callbacks at registerKusCallback 2"),
             ("I", "Size of callbacks at unregisterKusCallback1"),
             ("I", "Size of callbacks at unregisterKusCallback0")])

    def test_every_entry_is_logged_at_each_change_of_the_registry(self) -> None:
        log = self.log.mark()
        client = self.watcher(registrations=2)
        client.command("unregister")
        (binder,) = set(self.log.messages(log, "^registerKusCallback binder "))
        key = binder.rpartition(" ")[2]
        self.assertRegex(key, ADDRESS)
        entries = self.log.messages(log, "iterating map")
        recipients = [message.rpartition(":")[2] for message in entries]
        first, second = recipients[0], recipients[2]
        self.assertNotEqual(first, second)
        self.assertEqual(entries, [
            f"registerKusCallback--: iterating map key:{key} value:{first}",
            f"registerKusCallback--: iterating map key:{key} value:{first}",
            f"registerKusCallback--: iterating map key:{key} value:{second}",
            # The first of the two is gone by then.
            f"unregisterKusCallback--: before erase iterating map key:{key} value:{second}"])

    def test_taking_back_an_unknown_callback_changes_nothing(self) -> None:
        client = self.watcher()
        log = self.log.mark()
        self.assertEqual(client.command("unregister-unknown"), "unregistered-unknown")
        self.assertEqual(self.log.messages(log, "(?i)callback")[2:],
                         ["Given callback not registered with this list"])
        self.decide(*device(DISK))
        self.assertEqual([event["deviceId"] for event in client.events()], [DISK])

    def test_killed_client_leaves_none_of_its_three_entries(self) -> None:
        client = self.watcher(registrations=3)
        log = self.log.mark()
        client.kill()
        size = "Size of callbacks at unregisterKusCallback binderDied "
        gone = "Callback from dead process unregistered"
        self.log.wait_for(log, f"{size}0")
        self.log.wait(log, lambda _: len(self.log.messages(log, gone)) == 3, "third end")
        self.assertEqual(
            [(line.severity, line.message) for line in self.log.since(log)],
            [("I", text) for left in (2, 1, 0)
             for text in ("Received binderDied", f"{size}{left}", gone)])
        self.assertEqual(self.decide(*device(DISK)), "allowed")
        self.assertEqual(self.log.messages(log, "sending callback"), [])
        self.assert_daemon_goes_on()

    def test_client_that_ends_in_order_takes_its_entries_back(self) -> None:
        client = self.watcher(registrations=2)
        log = self.log.mark()
        client.end_input()
        client.wait()
        self.log.wait_for(log, "Size of callbacks at unregisterKusCallback0")
        self.assertEqual(self.log.messages(log, "binderDied"), [])

    def test_other_clients_go_on_hearing_when_one_is_killed(self) -> None:
        killed, other = self.watcher(registrations=2), self.watcher()
        log = self.log.mark()
        killed.kill()
        self.log.wait_for(log, "Size of callbacks at unregisterKusCallback binderDied 1")
        self.decide(*device(DISK))
        self.remove(*device(DISK))
        self.assertEqual([event["event"] for event in other.events()], ["added", "removed"])
        self.assert_daemon_goes_on()

    def test_client_that_is_killed_while_it_is_being_told_holds_nobody_up(self) -> None:
        stopped, other = self.watcher(), self.watcher()
        log = self.log.mark()
        stopped.signal(signal.SIGSTOP)
        question = Process(self.terminal, ["kus-client", "decide", *device(DISK)])
        self.addCleanup(question.kill)
        self.log.wait(log, lambda line: line.message.startswith("addDeviceList: sending callback"),
                      "start of the notification")
        # Other calls are answered meanwhile.
        self.assertEqual(self.client("ping"), "pong\n")
        self.assertEqual(self.records(), [])
        stopped.kill()
        self.assertEqual(question.next_line(), "allowed")
        question.wait()
        self.assertEqual([event["deviceId"] for event in other.events()], [DISK])
        self.assertEqual([each["deviceId"] for each in self.records()], [DISK])
        self.log.wait_for(log, "Size of callbacks at unregisterKusCallback binderDied 1")
        self.assert_daemon_goes_on()


class ListTest(ServiceTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.use_policy(policy("whitelist", class_rule("USB_CLASS_MASS_STORAGE")))

    def test_input_devices_come_before_usb_devices_each_by_ascending_id(self) -> None:
        for device_id in (91001, 4, 90005):
            self.decide(*device(device_id))
        for device_id in (12, 4):
            self.decide(*device(device_id, "Keys", "", device_class=0x101, device_type=1))
        self.assertEqual([(each["deviceType"], each["deviceId"]) for each in self.records()],
                         [(1, 4), (1, 12), (0, 4), (0, 90005), (0, 91001)])

    def test_repeated_question_keeps_the_first_record_and_tells_of_both(self) -> None:
        client = self.watcher()
        self.assertEqual(self.decide(*device(DISK)), "allowed")
        self.assertEqual(self.decide(*device(DISK, "Printer", "7", vendor=7)), "refused")
        first = record(DISK, status=1, reason=f"{BY_CLASS}USB_CLASS_MASS_STORAGE ")
        second = record(DISK, "Printer", (7,), vendor=7, reason=NOT_WHITELISTED)
        self.assertEqual(client.events(), [{"event": "added"} | first, {"event": "added"} | second])
        self.assertEqual(self.records(), [first])

    def test_repeated_question_about_an_input_device_keeps_the_first_record(self) -> None:
        for name in ("Keys", "Mouse"):
            self.decide(*device(3, name, "", device_class=0x101, device_type=1))
        self.assertEqual(self.records(), [record(3, "Keys", (), reason=NOT_WHITELISTED,
                                                 device_class=0x101, device_type=1)])

    def test_removal_of_an_unknown_device_is_told_all_the_same(self) -> None:
        client = self.watcher()
        self.remove(*device(CAMERA, "Camera", "14,1", vendor=-1, product=0))
        self.assertEqual(client.events(), [
            {"event": "removed"} | record(CAMERA, "Camera", (14, 1), vendor=-1, product=0)])

    def test_input_devices_come_and_go_without_a_word_to_clients(self) -> None:
        client = self.watcher()
        keys = device(3, "Keys", "", device_class=0x101, device_type=1)
        self.decide(*keys)
        self.assertEqual(len(self.records()), 1)
        self.remove(*keys)
        self.assertEqual(self.records(), [])
        self.assertEqual(client.events(), [])

    def test_report_of_an_addition_changes_nothing_and_logs_both_sizes(self) -> None:
        client = self.watcher()
        self.decide(*device(3, "Keys", "", device_class=0x101, device_type=1))
        log = self.log.mark()
        self.remove(*device(DISK), "--status", "1")
        self.assertEqual(self.log.messages(log), [
            "updateDeviceList--Device Name : DiskupdateStatus::Added/Removed 1",
            "Disk device added to mUsbDeviceInfoList",
            "updateDeviceList--mInputDeviceInfoList size: 1 mUsbDeviceInfoList size: 0"])
        self.assertEqual([each["deviceId"] for each in self.records()], [3])
        self.assertEqual(client.events(), [])

    def test_record_of_a_removed_device_can_be_made_anew(self) -> None:
        self.decide(*device(DISK))
        self.remove(*device(DISK))
        self.decide(*device(DISK, "Printer", "7"))
        self.assertEqual([each["deviceName"] for each in self.records()], ["Printer"])


class AutomationTest(ServiceTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.automation(None)
        self.addCleanup(self.automation, None)
        self.use_policy(policy("whitelist"))

    def test_property_switches_the_rules_off_and_on_again_in_the_running_daemon(self) -> None:
        client = self.watcher()
        self.assertEqual(self.decide(*device(DISK)), "refused")
        self.automation("1")
        log = self.log.mark()
        self.assertEqual(self.decide(*device(PRINTER)), "allowed")
        self.assertEqual(self.decide(*device(3, "Keys", "3")), "allowed")
        self.remove(*device(DISK))
        self.assertEqual(self.log.messages(log),
                         ["isDeviceAllowed::Automation flag set, return"] * 2
                         + ["updateDeviceList::Automation flag set, return"])
        self.automation("0")
        self.assertEqual([each["deviceId"] for each in self.records()], [DISK])
        self.assertEqual(self.decide(*device(CAMERA)), "refused")
        self.remove(*device(DISK))
        self.assertEqual([each["deviceId"] for each in self.records()], [CAMERA])
        self.assertEqual([(event["event"], event["deviceId"]) for event in client.events()],
                         [("added", DISK), ("added", CAMERA), ("removed", DISK)])

    def test_only_exactly_one_switches_the_rules_off(self) -> None:
        # Numbers are read as by the platform: any base that C knows, as far as they go.
        for value, verdict in {"2": "refused", "-1": "refused", "true": "refused", "": "refused",
                               "10": "refused", "01": "allowed", "0x1": "allowed"}.items():
            with self.subTest(value):
                self.automation(value)
                self.assertEqual(self.decide(*device(DISK)), verdict)

    def test_setprop_can_set_it_once_as_every_read_only_property(self) -> None:
        self.terminal.properties[AUTOMATION] = "1"
        self.assertEqual(self.decide(*device(DISK)), "allowed")
        again = self.terminal.run(["setprop", AUTOMATION, "0"])
        self.assertNotEqual(again.status, 0)
        self.assertEqual(self.terminal.properties[AUTOMATION], "1")
        self.assertEqual(self.terminal.read_file(f"{PROPERTY_DIR}/{AUTOMATION}"), b"1")
        self.assertEqual(self.decide(*device(DISK)), "allowed")


class Question(NamedTuple):
    what: str
    device: list[str]
    allowed: bool
    # Nothing: not recorded.
    reason: str | None


# In the order of the rules: 100 has one for itself and one for a product, 300 for a product only
# and no larger vendor has one for itself.
RULES = policy("whitelist", class_rule("USB_CLASS_AUDIO"), class_rule("USB_CLASS_MASS_STORAGE"),
               class_rule("USB_CLASS_PHYSICA"), class_rule("AINPUT_SOURCE_KEYBOARD"),
               class_rule("AINPUT_SOURCE_MOUSE"), vendor_rule(100, 5), vendor_rule(100),
               vendor_rule(300, 6, 7))

QUESTIONS = (
    Question("class beside a restricted one", device(1, classes="1,3", vendor=1), True,
             f"{BY_CLASS}USB_CLASS_AUDIO "),
    Question("class twice", device(2, classes="8,8", vendor=1), True,
             f"{BY_CLASS}USB_CLASS_MASS_STORAGE "),
    Question("two classes", device(3, classes="8,1", vendor=1), True,
             f"{BY_CLASS}USB_CLASS_MASS_STORAGE USB_CLASS_AUDIO "),
    Question("class spelled without its last letter", device(4, classes="5", vendor=1), True,
             f"{BY_CLASS}USB_CLASS_PHYSICA "),
    Question("class without a rule behind one with", device(5, classes="8,7", vendor=1), False,
             NOT_WHITELISTED),
    Question("the same, and the vendor has a rule", device(6, classes="8,7", vendor=100), True,
             f"{BY_VENDOR}100"),
    Question("restricted classes only", device(7, classes="255,239,254", vendor=1), False,
             NOT_WHITELISTED),
    Question("vendor with a rule for itself and one for the product",
             device(8, classes="255", vendor=100, product=5), True, f"{BY_VENDOR}100"),
    Question("second product of a rule", device(9, classes="255", vendor=300, product=7), True,
             f"{BY_PRODUCT}300 PID: 7"),
    Question("other product", device(10, classes="255", vendor=300, product=8), False,
             NOT_WHITELISTED),
    Question("negative ids", device(11, classes="255", vendor=-300, product=-7), False,
             NOT_WHITELISTED),
    Question("HID only, which is no vendor HID", device(12, classes="3,3", vendor=100), False,
             None),
    Question("USB device without interfaces", device(13, classes="", vendor=100), False, None),
    Question("keyboard", device(14, classes="", device_class=0x101, device_type=1, vendor=1), True,
             f"{BY_CLASS}AINPUT_SOURCE_KEYBOARD "),
    Question("keyboard and mouse in one",
             device(15, classes="", device_class=0x2103, device_type=1, vendor=1), True,
             f"{BY_CLASS}AINPUT_SOURCE_KEYBOARD AINPUT_SOURCE_MOUSE "),
    Question("keyboard and gamepad in one, with a rule for one of them",
             device(16, classes="", device_class=0x501, device_type=1, vendor=1), False,
             NOT_WHITELISTED),
    Question("the same of a vendor with a rule",
             device(17, classes="", device_class=0x501, device_type=1, vendor=100), True,
             f"{BY_VENDOR}100"),
    Question("input device without a known source",
             device(18, classes="", device_class=0x8, device_type=1, vendor=1), False,
             NOT_WHITELISTED),
    Question("input device with interface classes",
             device(19, classes="3,8", device_class=0x101, device_type=1, vendor=1), True,
             f"{BY_CLASS}USB_CLASS_MASS_STORAGE "),
    Question("any other type is an input device",
             device(20, classes="", device_class=0x101, device_type=7, vendor=1), True,
             f"{BY_CLASS}AINPUT_SOURCE_KEYBOARD "),
)


class MadeUpDeviceTest(ServiceTestCase):
    def test_each_gets_its_verdict_and_its_record(self) -> None:
        self.use_policy(RULES)
        for question in QUESTIONS:
            with self.subTest(question.what):
                self.assertEqual(self.decide(*question.device),
                                 "allowed" if question.allowed else "refused")
        found = {(each["deviceId"], each["status"], each["reason"]) for each in self.records()}
        self.assertEqual(found, {(int(each.device[1]), int(each.allowed), each.reason)
                                 for each in QUESTIONS if each.reason is not None})

    def test_summary_names_all_that_was_judged(self) -> None:
        self.use_policy(RULES)
        log = self.log.mark()
        self.decide(*device(DISK, classes="8,7", device_class=8))
        self.decide(*device(3, "Keys", "", vendor=-1, device_class=-2, device_type=1))
        self.assertEqual(self.log.messages(log, "^isDeviceAllowed called with mode"), [
            f"isDeviceAllowed called with mode: whitelist DeviceInfo:= {{ DeviceId:{DISK}, "
            "DeviceName: Disk, ClassName: USB_CLASS_MASS_STORAGE[ 8 ], InterfaceClassCount: 2, "
            "VendorId: 100, ProductId: 200, Status: 1, Reason: Whitelisted: "
            "Match by VID, VID : 100 }",
            "isDeviceAllowed called with mode: whitelist DeviceInfo:= { DeviceId:3, "
            "DeviceName: Keys, ClassName:  [ 4294967294 ], InterfaceClassCount: 0, "
            "VendorId: -1, ProductId: 200, Status: 0, Reason: "
            f"{NOT_WHITELISTED} }}"])

    def test_refused_device_that_is_not_there_is_written_to_nowhere(self) -> None:
        self.use_policy(policy("whitelist"))
        log = self.log.mark()
        self.assertEqual(self.decide(*device(DISK)), "refused")
        self.assertEqual(self.log.messages(log, "authorized|update_status"), [
            "isDeviceAllowed called and updating status authorized to 0",
            f"update_status path with deviceId {DISK} status:0"])
        self.assertEqual([line for line in self.log.since(log) if line.severity == "E"], [])

    def test_name_of_any_letters_goes_through_unchanged(self) -> None:
        self.use_policy(DEFAULT_POLICY)
        name = "Gerät \"7\"\t\\ ☃ 𝄞"
        client = self.watcher()
        self.assertEqual(self.decide(*device(DISK, name)), "allowed")
        self.assertEqual([event["deviceName"] for event in client.events()], [name])
        self.assertEqual([each["deviceName"] for each in self.records()], [name])


if __name__ == "__main__":
    unittest.main()
