# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""Devices come and go on all controllers at once, behind hubs behind hubs, while the rules are
rewritten and the daemon is killed again and again. When all is over each device that is there must
have one verdict, that of the rules in force, and the kernel must have done what it says.

What happens follows from a seed: who plugs what in where, which rules there are, and at which line
of its log the daemon dies. In which order the threads get to it is up to the machine.

    KUS_STORM_SEED    another storm
    KUS_STORM_FACTOR  a storm that many times as long
"""

from __future__ import annotations

import concurrent.futures
import contextlib
import dataclasses
import enum
import itertools
import os
import random
import re
import threading
import time
import unittest
from collections import Counter
from collections.abc import Iterator, Sequence, Set
from typing import NamedTuple

import test_decisions
from support import (BACKUP_FILE, CONFIG_FILE, STATUS_FILE, TIMEOUT, AgentLog, DaemonLog,
                     DaemonTestCase, Event, Outcome, Screened, Verdict, class_rule, figure, policy,
                     vendor_rule)
from test_decisions import (BY_CLASS, BY_DEFAULT, BY_PRODUCT, BY_VENDOR, DISK_AND_KEYBOARD,
                            DISK_AND_PRINTER, NOT_BLACKLISTED, NOT_WHITELISTED, TWO_HIDS)
from test_equipment import KERNEL_TROUBLE
from test_reload import (NODES, PARSED, PARSING, RESET, RESTORING, SOC, TAKING, WATCHING, closed)
from vm.devices import (COMPOSITE, DISPLAYLINK, ETHERNET, FTDI_SERIAL, GADGET_KEYBOARD,
                        GADGET_STORAGE, HUB, KEYBOARD, MOUSE, NETWORK, PRINTER, RNDIS, SERIAL,
                        SMARTCARD, STORAGE, TABLET, VENDOR_HID, Device, DeviceState, Effect, Gadget)
from vm.terminal import HSUSB, SSUSB, Plugged, Terminal

EVENTS = 300
FACTOR = int(os.environ.get("KUS_STORM_FACTOR", "1"))
SEED = int(os.environ.get("KUS_STORM_SEED", "20261121"))

DIGITS = "0123456789"
# For what the agent has yet to come to: it takes one thing after the other.
LONG = 120.0
# The first line of a daemon's log.
STARTING = " parsing register createmap called"


def mode_set(node: str, mode: str) -> str:
    return f"usb_host_reset mode set to {mode} for syspath: {SOC}/{node}/mode"


# --- what the rules say ---------------------------------------------------------------------------

RESTRICTED = {0, 3, 9, 239, 254, 255}
USB_CLASSES = {2: "USB_CLASS_COMM", 7: "USB_CLASS_PRINTER", 8: "USB_CLASS_MASS_STORAGE",
               10: "USB_CLASS_CDC_DATA", 11: "USB_CLASS_CSCID"}
INPUT_SOURCES = {0x100: "AINPUT_SOURCE_KEYBOARD", 0x2000: "AINPUT_SOURCE_MOUSE"}
CLASS_NAMES = (*USB_CLASSES.values(), *INPUT_SOURCES.values())

# The sources of the input device that comes of a device, class bits included.
SOURCES = {KEYBOARD: 0x101, MOUSE: 0x2002, TABLET: 0, GADGET_KEYBOARD: 0x101, TWO_HIDS: 0x101,
           DISK_AND_KEYBOARD: 0x101}


class Facts(NamedTuple):
    """All that a verdict depends on but the rules; an input device has no interfaces."""

    interfaces: tuple[int, ...]
    sources: int
    vendor: int
    product: int


@dataclasses.dataclass(frozen=True)
class Policy:
    """Rules; a vendor without products stands for all that it makes."""

    mode: str
    classes: tuple[str, ...] = ()
    vendors: tuple[tuple[int, tuple[int, ...]], ...] = ()

    @property
    def text(self) -> str:
        return policy(self.mode, *(class_rule(name) for name in self.classes),
                      *(vendor_rule(vendor, *products) for vendor, products in self.vendors))

    def judge(self, facts: Facts) -> Verdict:
        if self.mode == "default":
            return Verdict(True, BY_DEFAULT)
        match = self._match_by_class(facts) or self._match_by_ids(facts)
        if self.mode == "blacklist":
            return Verdict(not match, f"Blacklisted: {match}" if match else NOT_BLACKLISTED)
        return Verdict(bool(match), f"Whitelisted: {match}" if match else NOT_WHITELISTED)

    def _match_by_class(self, facts: Facts) -> str:
        """Every class must have a rule, but those that no rule can name."""
        if facts.interfaces:
            names = list(dict.fromkeys(USB_CLASSES[code] for code in facts.interfaces
                                       if code not in RESTRICTED))
        else:
            names = [name for bit, name in INPUT_SOURCES.items() if facts.sources & bit]
        if not names or not set(names) <= set(self.classes):
            return ""
        return BY_CLASS + "".join(f"{name} " for name in names)

    def _match_by_ids(self, facts: Facts) -> str:
        rules = [products for vendor, products in self.vendors if vendor == facts.vendor]
        # The search for a rule of the whole vendor goes on over all larger vendors.
        if rules and any(vendor >= facts.vendor and not products
                         for vendor, products in self.vendors):
            return f"{BY_VENDOR}{facts.vendor}"
        if any(facts.product in products for products in rules):
            return f"{BY_PRODUCT}{facts.vendor} PID: {facts.product}"
        return ""

    def judge_usb(self, device: Device) -> Outcome:
        classes = tuple(each.interface_class for each in device.interfaces)
        vendor_hid = any(each.effect is Effect.VENDOR_HID for each in device.interfaces)
        if set(classes) == {3} and not vendor_hid:
            return Screened(self.judge_input(device))
        return self.judge(Facts(classes, 0, device.vendor, device.product))

    def judge_input(self, device: Device) -> Verdict:
        return self.judge(Facts((), SOURCES[device], device.vendor, device.product))


# A file that does not parse, with the rules that it leaves until the backup is back. A file that is
# no XML leaves none, and the mode that was there before.
BAD_FILES: tuple[tuple[str, Policy | None], ...] = (
    (policy("whitelist", class_rule("USB_CLASS_PRINTER"), class_rule("USB_CLASS_HID")),
     Policy("whitelist", ("USB_CLASS_PRINTER",))),
    (policy("blacklist", vendor_rule(STORAGE.vendor), "<device/>"),
     Policy("blacklist", (), ((STORAGE.vendor, ()),))),
    ("<usbconfig mode='whitelist'>\n<class>\n</usbconfig>\n", None),
)


class PolicyTest(unittest.TestCase):
    def test_oracle_agrees_with_the_tables_that_were_written_by_hand(self) -> None:
        for rules, text, outcomes in (
                (Policy("whitelist", ("USB_CLASS_MASS_STORAGE", "USB_CLASS_COMM",
                                      "USB_CLASS_PRINTER", "AINPUT_SOURCE_KEYBOARD")),
                 test_decisions.WHITELIST_OF_CLASSES,
                 test_decisions.UNDER_WHITELIST_OF_CLASSES),
                (Policy("whitelist", ("USB_CLASS_MASS_STORAGE", "USB_CLASS_COMM",
                                      "USB_CLASS_CDC_DATA", "USB_CLASS_CSCID",
                                      "AINPUT_SOURCE_MOUSE"),
                        ((1027, ()), (1575, (1,)), (4617, (44034, 44041)))),
                 test_decisions.WHITELIST_OF_ALL_KINDS,
                 test_decisions.UNDER_WHITELIST_OF_ALL_KINDS),
                (Policy("whitelist", (), ((4617, (1,)), (6121, ()), (18164, (1,)), (18164, ()))),
                 test_decisions.WHITELIST_OF_VENDORS,
                 test_decisions.UNDER_WHITELIST_OF_VENDORS),
                (Policy("blacklist", ("USB_CLASS_PRINTER", "AINPUT_SOURCE_KEYBOARD"),
                        ((6121, ()), (18164, (1,)))),
                 test_decisions.BLACKLIST, test_decisions.UNDER_BLACKLIST)):
            self.assertEqual(rules.text, text)
            self.assertEqual({device: rules.judge_usb(device) for device in outcomes}, outcomes)


# --- what is going to happen ----------------------------------------------------------------------


@dataclasses.dataclass(frozen=True, eq=False)
class Slot:
    """A place for a device: one kind at a time, as long as its hub is there."""

    kinds: tuple[Device, ...]
    behind: Slot | None = None


class Patience(enum.Enum):
    """What is waited for once a device is plugged in."""

    NONE = enum.auto()
    UNTIL_CONFIGURED = enum.auto()
    UNTIL_JUDGED = enum.auto()


@dataclasses.dataclass(frozen=True)
class Step:
    """Plugs a device into a slot, or pulls out what is in it and with it all that is behind it."""

    slot: Slot
    device: Device | None
    patience: Patience = Patience.NONE


# How often which is chosen.
PATIENCE = (30, 40, 30)

QEMU_KINDS = (STORAGE, KEYBOARD, MOUSE, TABLET, NETWORK, FTDI_SERIAL, SMARTCARD)
# The kernel makes four HID functions at a time, and no more than these have.
GADGET_KINDS = ((VENDOR_HID, SERIAL, PRINTER), (COMPOSITE, ETHERNET), (TWO_HIDS, DISPLAYLINK),
                (GADGET_STORAGE, RNDIS), (DISK_AND_PRINTER, SERIAL), (DISPLAYLINK, GADGET_STORAGE))


def tree(*leaves: int) -> tuple[Slot, ...]:
    """A hub, one behind it and so on, each with that many devices."""
    slots: list[Slot] = []
    hub = None
    for count in leaves:
        hub = Slot((HUB,), hub)
        slots += [hub, *(Slot(QEMU_KINDS, hub) for _ in range(count))]
    return tuple(slots)


def workers() -> list[tuple[Slot, ...]]:
    """The slots of each thread that plugs."""
    gadgets = tuple(Slot(kinds) for kinds in GADGET_KINDS)
    return [tuple(Slot(QEMU_KINDS) for _ in range(4)), tree(1, 2, 2), tree(1, 2),
            gadgets[:3], gadgets[3:]]


class Planner:
    """Thinks out who does what; at the end all slots are taken, or all but one."""

    def __init__(self, dice: random.Random, events: int) -> None:
        self._dice = dice
        self._slots = workers()
        self.steps: list[list[Step]] = [[] for _ in self._slots]
        self.inside: dict[Slot, Device] = {}
        self._left = events
        while self._left:
            empty = self._empty(self._slots)
            self._take(self._filling(empty) if empty and self._left <= len(empty) + 1
                       else self._any(len(empty)))

    def _empty(self, slots: Sequence[Sequence[Slot]]) -> list[Slot]:
        return [slot for each in slots for slot in each if slot not in self.inside]

    def _filling(self, empty: Sequence[Slot]) -> Step:
        return self._plug(empty[0])

    def _plug(self, slot: Slot) -> Step:
        (patience,) = self._dice.choices(tuple(Patience), weights=PATIENCE)
        return Step(slot, self._dice.choice(slot.kinds), patience)

    def _any(self, empty: int) -> Step:
        while True:
            slot = self._dice.choice(self._dice.choice(self._slots))
            if slot.behind is not None and slot.behind not in self.inside:
                continue
            if slot not in self.inside:
                return self._plug(slot)
            pulled = len(self._with_all_behind(slot))
            # A tree that is always torn down at once never grows.
            if slot.kinds == (HUB,) and self._dice.random() < 0.8:
                continue
            if self._left - 1 >= empty + pulled or self._left == 1:
                return Step(slot, None)

    def _with_all_behind(self, slot: Slot) -> list[Slot]:
        below = [each for each in self.inside if each.behind is slot]
        return [slot, *(each for child in below for each in self._with_all_behind(child))]

    def _take(self, step: Step) -> None:
        (worker,) = [number for number, slots in enumerate(self._slots) if step.slot in slots]
        self.steps[worker].append(step)
        self._left -= 1
        if step.device is not None:
            self.inside[step.slot] = step.device
            return
        for slot in self._with_all_behind(step.slot):
            del self.inside[slot]


@dataclasses.dataclass(frozen=True)
class Rewrite:
    """Writes a file; `kill_behind` is the line of the daemon's log at which it is killed."""

    text: str
    # What may be in force from then on.
    rules: tuple[Policy, ...]
    good: bool
    kill_behind: str = ""


@dataclasses.dataclass(frozen=True)
class Kill:
    """Kills the daemon, and the next one when it has begun to start, so many times in all."""

    times: int


class Rules:
    """Makes up policies that differ in what they allow."""

    def __init__(self, dice: random.Random) -> None:
        self._dice = dice
        self._fleet = (*QEMU_KINDS, *dict.fromkeys(kind for kinds in GADGET_KINDS
                                                   for kind in kinds))
        self.last = Policy("default")

    def next(self) -> Policy:
        """One that turns the verdict on a third of all kinds."""
        while True:
            found = self._any()
            turned = sum(_allows(found, device) != _allows(self.last, device)
                         for device in self._fleet)
            if turned * 3 >= len(self._fleet):
                self.last = found
                return found

    def last_one(self, devices: Sequence[Device]) -> Policy:
        """One that allows a third of these devices at least, and refuses as many."""
        while True:
            found = self.next()
            allowed = sum(_allows(found, device) for device in devices)
            refused = sum(isinstance(found.judge_usb(device), Verdict)
                          and not _allows(found, device) for device in devices)
            if min(allowed, refused) * 3 >= len(devices):
                return found

    def _any(self) -> Policy:
        mode = self._dice.choice(("whitelist", "whitelist", "blacklist", "blacklist", "default"))
        if mode == "default":
            return Policy(mode)
        classes = self._dice.sample(CLASS_NAMES, self._dice.randint(0, len(CLASS_NAMES)))
        chosen = self._dice.sample(self._fleet, self._dice.randint(0, 4))
        vendors = {device.vendor: () if self._dice.random() < 0.3 else (device.product,)
                   for device in chosen}
        return Policy(mode, tuple(classes), tuple(vendors.items()))


def _allows(rules: Policy, device: Device) -> bool:
    outcome = rules.judge_usb(device)
    return (outcome.as_input if isinstance(outcome, Screened) else outcome).allowed


class Plan:
    """Everything that a seed decides."""

    def __init__(self, seed: int, factor: int) -> None:
        self.dice = random.Random(seed)
        self.events = EVENTS * factor
        planner = Planner(self.dice, self.events)
        self.steps = planner.steps
        self.rules = Rules(self.dice)
        self.last = [device for device in planner.inside.values() if device is not HUB]
        # With the number of events that are over by then.
        self.disruptions: list[tuple[int, Rewrite | Kill]] = []
        for begin in range(0, self.events, EVENTS):
            self._disrupt(begin)
        at, _ = self.disruptions.pop()
        self.final = self.rules.last_one(self.last)
        self.disruptions.append((at, self._good(self.final)))

    def _disrupt(self, begin: int) -> None:
        # Between the two modes there are 100 ms, as long as one controller after the other is off.
        lines = [PARSING, TAKING, RESET, *(mode_set(node, "none") for node in NODES)]
        self.dice.shuffle(lines)
        bad = self.dice.sample(BAD_FILES, 2)
        happenings = [
            self._rewrite(), Kill(1), self._rewrite(mode_set(HSUSB, "none")), self._bad(bad[0]),
            self._rewrite(), Kill(2), self._rewrite(mode_set(SSUSB, "none")),
            self._bad(bad[1], RESTORING), self._rewrite(), self._rewrite(lines[0]), Kill(1),
            self._rewrite()]
        for number, happening in enumerate(happenings, 1):
            at = begin + number * EVENTS // (len(happenings) + 1) + self.dice.randint(-5, 5)
            self.disruptions.append((at, happening))

    def _good(self, rules: Policy, kill_behind: str = "") -> Rewrite:
        return Rewrite(rules.text, (rules,), True, kill_behind)

    def _rewrite(self, kill_behind: str = "") -> Rewrite:
        return self._good(self.rules.next(), kill_behind)

    def _bad(self, file: tuple[str, Policy | None], kill_behind: str = "") -> Rewrite:
        text, left = file
        rules = (left or Policy(self.rules.last.mode), self.rules.last)
        # What is no XML leaves the next daemon at the mode that it has without a file, and so does
        # a backup that is only half copied.
        return Rewrite(text, (*rules, Policy("default")) if kill_behind else rules, False,
                       kill_behind)

    @property
    def kinds(self) -> set[Device]:
        return {step.device for steps in self.steps for step in steps if step.device is not None}


class PlanTest(unittest.TestCase):
    def test_plans_hold_what_a_storm_needs(self) -> None:
        for seed in range(20):
            with self.subTest(seed):
                plan = Plan(seed, 1 + seed % 2)
                steps = [step for steps in plan.steps for step in steps]
                self.assertEqual(len(steps), plan.events)
                on_hsusb = {kind for kind in plan.kinds if isinstance(kind.made_by, Gadget)}
                self.assertGreaterEqual(len(on_hsusb), 6)
                self.assertGreaterEqual(len(plan.kinds - on_hsusb), 6)
                # Behind a hub behind a hub behind a hub.
                self.assertTrue(any(step.slot.behind and step.slot.behind.behind
                                    and step.slot.behind.behind.behind for step in steps))
                self.assertGreaterEqual(len(plan.last), 17)
                self.assertEqual([at for at, _ in plan.disruptions],
                                 sorted(at for at, _ in plan.disruptions))
                self.assertEqual(plan.disruptions[-1][1].text, plan.final.text)

    def test_same_seed_makes_the_same_plan(self) -> None:
        def told(plan: Plan) -> list[object]:
            return [*([(step.device and step.device.name, step.patience) for step in steps]
                      for steps in plan.steps), plan.disruptions]
        self.assertEqual(told(Plan(1, 1)), told(Plan(1, 1)))
        self.assertNotEqual(told(Plan(1, 1)), told(Plan(2, 1)))


# --- the storm ------------------------------------------------------------------------------------


class StormTerminal(Terminal):
    """While a storm lasts a device's name is not looked for: its bus may be away, which does not
    keep anybody from plugging in what QEMU makes."""

    storm = False

    def locate(self, plugged: Plugged) -> None:
        if not self.storm:
            super().locate(plugged)


class Gate:
    """Lets gadgets come and go at all times but those when their controllers may be off, which is
    when dummy_hcd brings the kernel down."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._inside = 0
        self._shut = False

    @contextlib.contextmanager
    def pass_through(self) -> Iterator[None]:
        with self._changed:
            if not self._changed.wait_for(lambda: not self._shut, LONG):
                raise TimeoutError("gadgets are kept waiting")
            self._inside += 1
        try:
            yield
        finally:
            with self._changed:
                self._inside -= 1
                self._changed.notify_all()

    @contextlib.contextmanager
    def shut(self) -> Iterator[None]:
        with self._changed:
            self._shut = True
            if not self._changed.wait_for(lambda: self._inside == 0, TIMEOUT):
                raise TimeoutError("a gadget neither comes nor goes")
        try:
            yield
        finally:
            with self._changed:
                self._shut = False
                self._changed.notify_all()


class Progress:
    """How many events are over, for whoever waits for some."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self.events = 0
        self._failed = False

    def step(self) -> None:
        with self._changed:
            self.events += 1
            self._changed.notify_all()

    def fail(self) -> None:
        with self._changed:
            self._failed = True
            self._changed.notify_all()

    @property
    def failed(self) -> bool:
        with self._changed:
            return self._failed

    def wait_for(self, events: int, timeout: float) -> bool:
        """False if nothing more is to be expected of those who plug."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._failed or self.events >= events, timeout):
                raise TimeoutError(f"{self.events} of {events} events after {timeout:g} s")
            return not self._failed


class SharedAgentLog(AgentLog):
    """What the agent reports, for several threads."""

    def __init__(self, terminal: Terminal) -> None:
        self._one_at_a_time = threading.RLock()
        super().__init__(terminal)

    def mark(self) -> int:
        with self._one_at_a_time:
            return super().mark()

    def since(self, mark: int) -> list[Event]:
        with self._one_at_a_time:
            return super().since(mark)


class Arrival:
    """How far a device has got, of which nobody knows on which bus it will be found: from the
    kernel's and the agent's messages since this was made, each looked at once."""

    def __init__(self, terminal: Terminal, agent: SharedAgentLog) -> None:
        self._terminal = terminal
        self._agent = agent
        self._uevents = terminal.uevent_mark()
        self._reports = agent.mark()
        # Names and ids under which it has been configured, and those of all verdicts.
        self._names: set[tuple[str, int]] = set()
        self._judged: set[tuple[str, int]] = set()

    def is_configured(self, plugged: Plugged) -> bool:
        is_gadget = plugged.node == HSUSB
        controller = f"/dummy_hcd.{plugged.port}/" if is_gadget else "/dummy_hcd."
        place = "-1" if is_gadget else f"-{plugged.path}"
        events = self._terminal.uevents_since(self._uevents)
        self._uevents += len(events)
        for event in events:
            if event.get("ACTION") == "bind" and event.get("DEVTYPE") == "usb_device":
                directory, _, sysname = event["DEVPATH"].rpartition("/")
                if is_gadget == (controller in directory) and sysname.lstrip(DIGITS) == place:
                    self._names.add((sysname, int(event["BUSNUM"]) * 1000 + int(event["DEVNUM"])))
        return bool(self._names)

    def is_judged(self, plugged: Plugged) -> bool:
        self.is_configured(plugged)
        events = self._agent.since(self._reports)
        self._reports += len(events)
        self._judged |= {(event["sysname"], event["deviceId"]) for event in events
                         if event["event"] == "verdict"}
        return not self._names.isdisjoint(self._judged)

    def __str__(self) -> str:
        return f"it is known as {self._names}"


class Plugger:
    """Takes the steps of one thread. No slot is another's."""

    def __init__(self, terminal: Terminal, agent: SharedAgentLog, gate: Gate,
                 progress: Progress, steps: Sequence[Step]) -> None:
        self._terminal = terminal
        self._agent = agent
        self._gate = gate
        self._progress = progress
        self._steps = steps
        self.inside: dict[Slot, Plugged] = {}

    def run(self) -> None:
        try:
            for step in self._steps:
                if self._progress.failed:
                    return
                self._take(step)
                self._progress.step()
        except BaseException:
            self._progress.fail()
            raise

    def _take(self, step: Step) -> None:
        if step.device is None:
            self._pull_out(step.slot)
            return
        arrival = Arrival(self._terminal, self._agent)
        behind = None if step.slot.behind is None else self.inside[step.slot.behind]
        with self._passage(step.device):
            plugged = self._terminal.connect(step.device, behind)
        self.inside[step.slot] = plugged
        if step.patience is Patience.UNTIL_JUDGED and step.device is not HUB:
            self._terminal.wait_until(lambda: arrival.is_judged(plugged), LONG,
                                      f"a verdict on {plugged}", lambda: arrival)
        elif step.patience is not Patience.NONE:
            self._terminal.wait_until(lambda: arrival.is_configured(plugged), LONG,
                                      f"the kernel to configure {plugged}")

    def _pull_out(self, slot: Slot) -> None:
        plugged = self.inside[slot]
        with self._passage(plugged.device):
            self._terminal.disconnect(plugged)
        self._forget(slot)

    def _forget(self, slot: Slot) -> None:
        for child in [each for each in self.inside if each.behind is slot]:
            self._forget(child)
        del self.inside[slot]

    def _passage(self, device: Device) -> contextlib.AbstractContextManager[None]:
        if isinstance(device.made_by, Gadget):
            return self._gate.pass_through()
        return contextlib.nullcontext()


class Disruptor:
    """Rewrites the rules and kills the daemon, one after the other: each thing is over, and the
    controllers are in host mode, before the next."""

    def __init__(self, test: DaemonTestCase, gate: Gate) -> None:
        self._test = test
        self._terminal = test.terminal
        self._log = test.log
        self._gate = gate
        self.rewrites = 0
        self.kills = 0
        self.set_back = 0
        # From which of the agent's reports on which rules may be in force.
        self.in_force: list[tuple[int, tuple[Policy, ...]]] = [(0, (Policy("default"),))]

    def disrupt(self, happening: Rewrite | Kill) -> None:
        if isinstance(happening, Kill):
            self._kill(happening.times)
            return
        with self._gate.shut():
            self._rewrite(happening)

    def _rewrite(self, rewrite: Rewrite) -> None:
        self.rewrites += 1
        self.in_force.append((self._test.agent.mark(), rewrite.rules))
        mark = self._log.mark()
        self._test.put_policy(rewrite.text)
        if rewrite.kill_behind:
            self._log.wait_for(mark, rewrite.kill_behind)
            self._kill(1)
        elif rewrite.good:
            # The observer gets to its own writes only when the reset is over.
            self._log.wait_for(mark, closed(BACKUP_FILE))
        else:
            # The backup's own parse.
            self._log.wait_for(mark, PARSED)

    def _kill(self, times: int) -> None:
        for number in range(times):
            if number:
                self._log.wait_for(mark, STARTING)
            mark = self._log.mark()
            self._terminal.check_output('kill -KILL "$(cat /run/services/kusd/pid)"')
            self.kills += 1
        # Only a daemon that is gone is followed by another one: what it has begun is over.
        self._log.wait_for(mark, WATCHING)
        self._set_controllers_back()

    def _set_controllers_back(self) -> None:
        """Nothing in the daemon brings a controller back that its predecessor had taken out of host
        mode when it was killed."""
        for node in NODES:
            if self._terminal.mode(node) != "host":
                self.set_back += 1
                self._terminal.set_mode(node, "host")


@dataclasses.dataclass
class Expected:
    """What must be found at the end, by (kind, sysname)."""

    verdicts: dict[tuple[str, str], Event] = dataclasses.field(default_factory=dict)
    records: list[Event] = dataclasses.field(default_factory=list)


class StormTest(DaemonTestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls) -> None:
        # Room for all that the kernel says when devices come and go hundreds of times.
        cls.terminal = cls.enterClassContext(StormTerminal(
            cls.__module__, start=",".join(cls.services), options=("log_buf_len=16M",)))
        cls.log = DaemonLog(cls.terminal)
        cls.agent = SharedAgentLog(cls.terminal)
        cls.agent.wait_for(0, event="ready")

    def test_every_device_has_its_one_verdict_after_a_storm(self) -> None:
        with self.subTest(seed=SEED, factor=FACTOR):
            self.plan = Plan(SEED, FACTOR)
            began = time.monotonic()
            self.storm()
            self.check_files()
            self.wait_until_settled()
            self.check_devices()
            self.check_history()
            self.check_services()
            self.check_kernel()
            figure("a storm", f"seed {SEED}, {self.progress.events} events, {len(self.plan.kinds)} "
                   f"kinds of devices, {self.disruptor.kills} kills, {self.disruptor.rewrites} "
                   f"rewrites, {len(self.agent.events(0, event='verdict'))} verdicts seen, "
                   f"{self.disruptor.set_back} controllers set back, "
                   f"{len(self.agent.events(0, event='rescan', reason='overflow'))} overflows, "
                   f"{time.monotonic() - began:.0f} s")

    # --- the storm --------------------------------------------------------------------------------

    def storm(self) -> None:
        gate, self.progress = Gate(), Progress()
        self.disruptor = Disruptor(self, gate)
        pluggers = [Plugger(self.terminal, self.agent, gate, self.progress, steps)
                    for steps in self.plan.steps]
        self.terminal.storm = True
        with concurrent.futures.ThreadPoolExecutor(len(pluggers)) as pool:
            running = [pool.submit(plugger.run) for plugger in pluggers]
            try:
                for at, happening in self.plan.disruptions:
                    if not self.progress.wait_for(at, 2 * LONG):
                        break
                    self.disruptor.disrupt(happening)
            except BaseException:
                self.progress.fail()
                raise
            for each in running:
                each.result()
        self.terminal.storm = False
        self.plugged = [each for plugger in pluggers for each in plugger.inside.values()]
        for each in self.plugged:
            self.terminal.locate(each)
        self.assertEqual(self.progress.events, self.plan.events)
        self.assertEqual(sorted(each.device.name for each in self.plugged
                                if each.device is not HUB),
                         sorted(device.name for device in self.plan.last))

    # --- its end ----------------------------------------------------------------------------------

    def check_files(self) -> None:
        final = self.plan.final.text.encode()
        self.assertEqual(self.terminal.read_file(CONFIG_FILE), final)
        self.assertEqual(self.terminal.read_file(BACKUP_FILE), final)
        self.assertEqual(self.terminal.read_file(STATUS_FILE), b"SUCCESS")
        for node in NODES:
            self.assertEqual(self.terminal.mode(node), "host")

    def is_refused(self, plugged: Plugged) -> bool:
        """By the rules in force, and not left to the input side."""
        outcome = self.plan.final.judge_usb(plugged.device)
        return isinstance(outcome, Verdict) and not outcome.allowed

    def wait_until_settled(self) -> None:
        for each in self.plugged:
            if each.device is not HUB and self.is_refused(each):
                self.terminal.wait_until_blocked(each, LONG)
            else:
                self.terminal.wait_until_works(each, LONG)
        # The agent takes the kernel's messages in their order: when it is through with a last
        # device it is through with all.
        mark = self.agent.mark()
        marker = self.terminal.plug(SMARTCARD)
        self.plugged.append(marker)
        self.agent.wait_for(mark, LONG, event="verdict", sysname=marker.sysname)
        self.unplug(marker)

    def states(self) -> dict[str, DeviceState]:
        """All USB devices that are there, but root hubs."""
        names = self.terminal.check_output("ls /sys/bus/usb/devices").split()
        return self.terminal.usb_state(*(name for name in names
                                         if re.fullmatch(r"\d+-[\d.]+", name)))

    def input_states(self) -> dict[str, list[tuple[str, bool]]]:
        """The input devices of each USB device, and whether they are inhibited."""
        found: dict[str, list[tuple[str, bool]]] = {}
        for line in self.terminal.check_output(
                "for input in /sys/bus/usb/devices/*:*/0003:*/input/input*; do "
                '[ ! -e "$input" ] || echo "$input $(cat "$input/inhibited")"; done').splitlines():
            path, inhibited = line.split()
            found.setdefault(path.split("/")[5].partition(":")[0], []).append(
                (path.rpartition("/")[2], inhibited == "1"))
        return found

    def check_devices(self) -> None:
        """The kernel, the agent and the daemon agree with each other and with the rules."""
        states, inputs = self.states(), self.input_states()
        self.assertEqual(sorted(states), sorted(each.sysname for each in self.plugged))
        expected = Expected()
        for each in self.plugged:
            if each.device is not HUB:
                with self.subTest(str(each)):
                    self.expect(each, states[each.sysname], inputs.pop(each.sysname, []), expected)
        self.assertEqual(inputs, {})
        with self.subTest("the agent's verdicts"):
            self.assertEqual(self.latest_verdicts(), expected.verdicts)
        with self.subTest("the daemon's records"):
            self.assertCountEqual([self.shown(record) for record in self.records()],
                                  expected.records)

    def expect(self, plugged: Plugged, state: DeviceState, inputs: Sequence[tuple[str, bool]],
               expected: Expected) -> None:
        device, outcome = plugged.device, self.plan.final.judge_usb(plugged.device)
        about = {"deviceId": state.device_id, "vendorId": device.vendor,
                 "productId": device.product, "deviceClass": device.device_class,
                 "interfaceClasses": [each.interface_class for each in device.interfaces]}
        # One that is left to the input side is refused, without a reason and without a record.
        verdict = outcome if isinstance(outcome, Verdict) else Verdict(False, "")
        expected.verdicts["usb", plugged.sysname] = about | verdict._asdict()
        if isinstance(outcome, Verdict):
            expected.records.append({"deviceType": 0, "deviceName": device.title,
                                     "status": int(verdict.allowed), "reason": verdict.reason,
                                     **about})
        if self.is_refused(plugged):
            self.assertEqual([(each.authorized, each.driver) for each in state.interfaces],
                             [(False, "")] * len(device.interfaces))
            self.assertTrue(state.blocked(), state)
            self.assertEqual(inputs, [])
            return
        self.assertEqual(set(state.authorized), {True})
        self.assertTrue(state.works_as(device), state)
        has_input = any(each.effect is Effect.INPUT for each in device.interfaces)
        self.assertEqual(len(inputs), int(has_input))
        for name, inhibited in inputs:
            verdict = self.plan.final.judge_input(device)
            self.assertEqual(inhibited, not verdict.allowed)
            about = {"deviceId": int(name.removeprefix("input")), "vendorId": device.vendor,
                     "productId": device.product, "deviceClass": SOURCES[device],
                     "interfaceClasses": []}
            expected.verdicts["input", name] = about | verdict._asdict()
            expected.records.append({"deviceType": 1, "status": int(verdict.allowed),
                                     "reason": verdict.reason, **about})

    def shown(self, record: Event) -> Event:
        """A record, as far as it does not hang on the names that the kernel gives out."""
        left_out = {"category", "categoryPath"} | (
            {"deviceName"} if record["deviceType"] == 1 else set())
        return {key: value for key, value in record.items() if key not in left_out}

    def latest_verdicts(self) -> dict[tuple[str, str], Event]:
        """The verdicts on what is there, as the agent's reports leave them. It must not have asked
        twice about a device."""
        latest: dict[tuple[str, str], Event] = {}
        for event in self.agent.since(0):
            if event["event"] == "service":
                latest.clear()
            elif event["event"] == "removed":
                self.assertIsNotNone(latest.pop((event["kind"], event["sysname"]), None), event)
            elif event["event"] == "verdict":
                key = event["kind"], event["sysname"]
                self.assertNotIn(key, latest)
                latest[key] = {name: event[name] for name in (
                    "deviceId", "vendorId", "productId", "deviceClass", "interfaceClasses",
                    "allowed", "reason")}
        return latest

    # --- its whole course -------------------------------------------------------------------------

    def check_history(self) -> None:
        """Every verdict was that of one file as a whole, and the agent was always answered."""
        checked = 0
        in_force = self.disruptor.in_force
        # A verdict that is on its way when a file is written is still one by the rules before.
        before: tuple[Policy, ...] = ()
        for (begin, rules), (end, _) in itertools.pairwise((*in_force, (None, ()))):
            checked += self.check_verdicts(self.agent.since(0)[begin:end], {*before, *rules})
            before = rules
        self.assertGreater(checked, 0)
        self.assertEqual(self.agent.events(0, event="problem"), [])

    def check_verdicts(self, events: Sequence[Event], rules: Set[Policy]) -> int:
        """Returns how many there were to be checked."""
        whole = {(device.vendor, device.product, *(each.interface_class
                                                   for each in device.interfaces))
                 for device in self.plan.kinds}
        checked = 0
        for event in events:
            # Without a reason there is no record: it is left to the input side, or the daemon was
            # killed before the agent could ask for it.
            if event["event"] != "verdict" or not event["reason"]:
                continue
            facts = Facts(tuple(event["interfaceClasses"]), event["deviceClass"],
                          event["vendorId"], event["productId"])
            # Nor what had lost some of its interfaces already.
            if event["kind"] == "input" or (facts.vendor, facts.product,
                                            *facts.interfaces) in whole:
                self.assertIn((event["allowed"], event["reason"]),
                              {each.judge(facts) for each in rules}, event)
                checked += 1
        return checked

    def check_services(self) -> None:
        """Nobody's end but the daemon's, and none but those that were wanted."""
        exits = Counter(line.split(" ", 1)[1] for line in self.terminal.read_file(
            "/data/log/services.log").decode().splitlines())
        self.assertEqual(exits, {"kusd exited with status 137": self.disruptor.kills})

    def check_kernel(self) -> None:
        log = self.terminal.check_output("dmesg")
        self.assertIn("Booting Linux", log.partition("\n")[0])
        trouble = [line for line in log.splitlines() if KERNEL_TROUBLE.search(line)]
        self.assertEqual(trouble, [])


if __name__ == "__main__":
    unittest.main()
