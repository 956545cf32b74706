#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The virtual terminal: an emulated arm64 machine with real binder, real USB and real sysfs.

    with Terminal() as terminal:
        disk = terminal.plug(devices.STORAGE)
        print(terminal.run("cat /proc/partitions").stdout)

One class for the scripted day, the tests and by hand:

    vm/terminal.py --shell              a shell in the terminal
    vm/terminal.py run 'COMMAND'        one command; its exit status is the program's
    vm/terminal.py boot                 how long a boot takes

What the class promises:

* Silence is never a success. Every answer comes over a channel that only vm-channel in the terminal
  can speak, each wait has a deadline, and a terminal that died or hangs raises with the last lines
  of its console. Leaving the with block without an exception asks the terminal for a sign of life
  and searches its console for crashes of the kernel or of a program.
* Nothing stays behind. The machine is killed when the block is left, and by the kernel when this
  process dies in whatever way.
* At most two machines run at once, over all processes; the next one waits for its turn.

The processor is emulated even where /dev/kvm opens: a virtual machine that KVM makes but cannot run
prints nothing, and emulation is the same everywhere.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import contextlib
import dataclasses
import fcntl
import os
import re
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import termios
import threading
import time
import tty
from collections.abc import Callable, Iterable
from pathlib import Path
from typing import TypeVar

ROOT = Path(__file__).resolve().parent.parent
if str(ROOT) not in sys.path:
    sys.path.insert(0, str(ROOT))

from vm import channel, devices, devicetree, image  # noqa: E402
from vm.devices import Device, DeviceState, Gadget  # noqa: E402
from vm.qmp import Qmp, QmpError  # noqa: E402

QEMU = "qemu-system-aarch64"
MACHINE = "virt"
# What the device tree depends on, beside the machine.
BOARD = ("-cpu", "cortex-a57", "-smp", "2", "-m", "512")
MACHINES = 2
XHCI_PORTS = range(1, 16)
HUB_PORTS = range(1, 9)
GADGET_CONTROLLERS = range(6)

# The nodes in /sys/devices/platform/soc: what QEMU plugs in hangs on the first, every gadget on the
# second.
SSUSB = "a800000.ssusb"
HSUSB = "c200000.hsusb"

BOOT_TIMEOUT = 90.0
RUN_TIMEOUT = 30.0
# For the guest to answer a kill, and QEMU a quit.
GRACE = 10.0
# A change of the kernel's state comes with an uevent as a rule; this is for those that do not.
STATE_INTERVAL = 0.25

_CRASH = re.compile(r"crash: (\S+) \(pid (\d+)\) ended by signal (\d+)")
_KERNEL_FAULT = re.compile(
    r"Kernel panic|Internal error:|\bOops\b|\bBUG:|kernel BUG at|Unable to handle kernel|"
    r"blocked for more than \d+ seconds|soft lockup|rcu_(?:sched|preempt) detected stalls")

T = TypeVar("T")


class TerminalError(Exception):
    """Something is wrong with the terminal; the text holds the last lines of its console."""


class TerminalDied(TerminalError, channel.ChannelClosed):
    """The machine ended without having been asked to."""


class TerminalHung(TerminalError):
    """The machine runs and does not answer."""


class TerminalFault(TerminalError):
    """The console tells of a crash of the kernel or of a program."""


class CommandTimeout(TerminalError):
    """A command took too long and was killed; the terminal itself is well."""


class CommandFailed(Exception):
    """A command that had to succeed did not."""


@dataclasses.dataclass(frozen=True)
class Result:
    """What a command left. `status` is the shell's: 128 and the number of the signal that ended
    the command, its exit status otherwise."""

    status: int
    output: bytes
    errors: bytes

    @property
    def stdout(self) -> str:
        return self.output.decode(errors="replace")

    @property
    def stderr(self) -> str:
        return self.errors.decode(errors="replace")


@dataclasses.dataclass(frozen=True)
class ServiceState:
    state: str
    pid: int | None


@dataclasses.dataclass(frozen=True)
class Crash:
    program: str
    pid: int
    signal: int


# --- the machine ----------------------------------------------------------------------------------


class _Turn:
    """One of the MACHINES turns that all processes share, held by a lock on a file.

    The kernel gives a turn back when its holder dies. flock cannot wait for either of two files,
    so a process that finds both taken looks again a few times a second."""

    def __init__(self, directory: Path, timeout: float) -> None:
        directory.mkdir(parents=True, exist_ok=True)
        deadline = time.monotonic() + timeout
        while not self._try(directory):
            if time.monotonic() > deadline:
                raise TerminalError(f"{MACHINES} machines have been running for {timeout:g} s")
            time.sleep(0.2)

    def _try(self, directory: Path) -> bool:
        for self.number in range(MACHINES):
            self._file = (directory / f"machine-{self.number}.lock").open("w")
            try:
                fcntl.flock(self._file, fcntl.LOCK_EX | fcntl.LOCK_NB)
                return True
            except BlockingIOError:
                self._file.close()
        return False

    def give_back(self) -> None:
        self._file.close()


# The kernel kills QEMU when the thread that started it ends, so one that lives as long as the
# process starts them all.
_launcher = concurrent.futures.ThreadPoolExecutor(max_workers=1, thread_name_prefix="launcher")


def _launch(arguments: list[str], descriptors: Iterable[int],
            log: Path) -> subprocess.Popen[bytes]:
    with log.open("wb") as output:
        return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *arguments],
                                stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                pass_fds=tuple(descriptors))


class Plugged:
    """A device in one of the terminal's ports."""

    def __init__(self, terminal: Terminal, device: Device, identity: str) -> None:
        self.terminal = terminal
        self.device = device
        self.identity = identity
        self.sysname = ""
        self.behind: Plugged | None = None
        # Port of the hub or root hub for a QEMU device, number of the controller for a gadget.
        self.port = 0
        # The port's whole path for QEMU ("5.2.1").
        self.path = ""
        self.free_ports = set(HUB_PORTS) if device.device_class == 9 else set()

    def state(self) -> DeviceState | None:
        """What the kernel shows of it now; nothing if it is not there."""
        return self.terminal.usb_state(self.sysname).get(self.sysname)

    @property
    def node(self) -> str:
        """The node of the SoC whose mode decides whether it is there."""
        return HSUSB if isinstance(self.device.made_by, Gadget) else SSUSB

    def unplug(self, timeout: float = RUN_TIMEOUT) -> None:
        self.terminal.unplug(self, timeout)

    def __str__(self) -> str:
        return f"{self.device.name} at {self.sysname or 'no bus yet'}"


class Properties:
    """The terminal's system properties; one that is not set reads as the empty text."""

    def __init__(self, terminal: Terminal) -> None:
        self._terminal = terminal

    def __getitem__(self, name: str) -> str:
        return self._terminal.check_output(["getprop", name]).removesuffix("\n")

    def __setitem__(self, name: str, value: str) -> None:
        self._terminal.check_output(["setprop", name, value])


class Terminal:
    """A virtual terminal; use it as a context manager.

    name       names the log files in build/vm
    start      services to start at boot: "all", "none" or names with commas between
    programs   the programs that the image carries (all)
    options    more words for the kernel's command line
    disk       a file that is the disk /dev/vda; whatever the terminal has had it written is there,
               even if the terminal was killed
    Plugging, commands and queries may come from several threads at once."""

    def __init__(self, name: str = "terminal", start: str = "all",
                 programs: Iterable[str] | None = None, options: Iterable[str] = (),
                 sources: image.Sources | None = None, disk: Path | None = None) -> None:
        self.name = name
        self._start = start
        self._programs = None if programs is None else tuple(programs)
        self._options = tuple(options)
        self._sources = sources or image.Sources()
        self._disk = disk
        self._stack = contextlib.ExitStack()
        self._ports_lock = threading.Lock()
        self._free_ports = set(XHCI_PORTS)
        self._free_controllers = set(GADGET_CONTROLLERS)
        self._last_identity = 0
        self._expected_crashes: set[str] = set()
        self._ended = False
        self.boot_seconds = 0.0
        self.properties = Properties(self)

    # --- life -------------------------------------------------------------------------------------

    def __enter__(self) -> Terminal:
        with self._stack:
            self._boot()
            self._stack = self._stack.pop_all()
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 _: object) -> None:
        with self._stack:
            if error is None:
                if not self._ended:
                    self.assert_well()
                self.console_log.unlink()
            else:
                error.add_note(f"console: {self.console_log}")

    def _boot(self) -> None:
        qemu = shutil.which(QEMU)
        if qemu is None:
            raise TerminalError(f"no {QEMU}: host/setup gets it (qemu-system-arm)")
        initramfs = image.build(self._sources, self._programs)
        directory = self._sources.output
        tree = devicetree.build(qemu, MACHINE, BOARD, self._sources.own_module("soc.dtbo"),
                                directory)
        turn = _Turn(directory, timeout=900)
        self._stack.callback(turn.give_back)
        self.console_log = directory / f"{self.name}.{turn.number}.console.log"
        self.console_log.unlink(missing_ok=True)
        qemu_log = directory / f"{self.name}.{turn.number}.qemu.log"
        began = time.monotonic()
        channel_ours, channel_theirs = socket.socketpair()
        qmp_ours, qmp_theirs = socket.socketpair()
        with channel_theirs, qmp_theirs:
            arguments = self._qemu_arguments(initramfs, tree, channel_theirs.fileno(),
                                             qmp_theirs.fileno())
            descriptors = (channel_theirs.fileno(), qmp_theirs.fileno())
            self._qemu = _launcher.submit(_launch, arguments, descriptors, qemu_log).result()
        self._stack.callback(lambda: qemu_log.unlink(missing_ok=True))
        self._stack.callback(self._kill)
        self._qemu_log = qemu_log
        self.channel = channel.Channel(channel_ours, self._death)
        self._stack.callback(self.channel.close)
        self.qmp = Qmp(qmp_ours, self._death)
        self._stack.callback(self.qmp.close)
        self.qmp.connect(BOOT_TIMEOUT)
        if not self.channel.ping(began + BOOT_TIMEOUT):
            raise self._hung(f"no answer {BOOT_TIMEOUT:g} s after the start")
        self.boot_seconds = time.monotonic() - began
        self._uevents = channel.Uevents.listen(self.channel, RUN_TIMEOUT)

    def _qemu_arguments(self, initramfs: Path, tree: Path, channel_fd: int,
                        qmp_fd: int) -> list[str]:
        # An oops and a panic end the machine (-no-reboot): nothing after one can be believed.
        command_line = ["console=ttyAMA0", "quiet", "loglevel=5", "panic=-1", "oops=panic",
                        "security=selinux", "selinux=1", "cryptomgr.notests=1",
                        f"kus.start={self._start}",
                        *(["kus.disk=1"] if self._disk else []),
                        *self._options]
        disk = [] if self._disk is None else [
            "-drive", f"file={self._disk},format=raw,if=none,id=disk",
            "-device", "virtio-blk-device,drive=disk"]
        return [
            QEMU, "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot",
            "-M", MACHINE, *BOARD, "-accel", "tcg,thread=multi", "-dtb", str(tree),
            "-kernel", str(self._sources.kernel_image()), "-initrd", str(initramfs),
            "-append", " ".join(command_line),
            "-chardev", f"file,id=console,path={self.console_log}", "-serial", "chardev:console",
            "-chardev", f"socket,id=qmp,fd={qmp_fd}", "-mon", "chardev=qmp,mode=control",
            "-chardev", f"socket,id=channel,fd={channel_fd}",
            "-device", "virtio-serial-device",
            "-device", "virtserialport,chardev=channel,name=kus.channel",
            "-device", "qemu-xhci,id=xhci,p2=15,p3=15",
            *disk,
        ]

    @property
    def qemu_pid(self) -> int:
        return self._qemu.pid

    def _kill(self) -> None:
        self._qemu.kill()
        self._qemu.wait()

    def power_off(self, timeout: float = RUN_TIMEOUT) -> None:
        """Checks that all is well, then turns the terminal off; nothing works after it."""
        self.assert_well()
        with contextlib.suppress(channel.ChannelClosed):
            self.channel.open(channel.RUN, b"\0poweroff -f")
        event = self.qmp.wait_event("SHUTDOWN", timeout)
        if event is None:
            raise self._hung(f"no power-off within {timeout:g} s")
        if event["data"]["reason"] != "guest-shutdown":
            raise self._death()
        self._ended = True

    # --- health -----------------------------------------------------------------------------------

    def console(self) -> str:
        """All that the terminal's kernel has printed so far."""
        try:
            return self.console_log.read_bytes().decode(errors="replace").replace("\r", "")
        except FileNotFoundError:
            return ""

    def assert_well(self, timeout: float = RUN_TIMEOUT) -> None:
        """Raises unless the terminal gives a sign of life and its console is free of crashes."""
        if not self.channel.ping(time.monotonic() + timeout):
            raise self._hung(f"no sign of life within {timeout:g} s")
        self.assert_no_crash()

    def assert_no_crash(self) -> None:
        """Raises TerminalFault if the console tells of a crash that is not expected."""
        text = self.console()
        fault = _KERNEL_FAULT.search(text)
        if fault is not None:
            raise TerminalFault(self._with_console(f"the kernel reports '{fault.group()}'"))
        for crash in self.crashes():
            if crash.program not in self._expected_crashes:
                raise TerminalFault(self._with_console(
                    f"{crash.program} crashed with signal {crash.signal}"))

    def crashes(self) -> list[Crash]:
        """Every program that has crashed, in order."""
        return [Crash(name, int(pid), int(number))
                for name, pid, number in _CRASH.findall(self.console())]

    def expect_crash(self, program: str) -> None:
        """From now on a crash of `program` is no fault of the terminal."""
        self._expected_crashes.add(program)

    def _with_console(self, text: str) -> str:
        console = self.console().splitlines()
        try:
            qemu = self._qemu_log.read_text(errors="replace").splitlines()
        except (AttributeError, FileNotFoundError):
            qemu = []
        tail = "\n".join(f"    | {line}" for line in [*qemu[-10:], *console[-30:]])
        return f"{text}; the last lines of its console:\n{tail or '    | (nothing)'}"

    def _death(self) -> TerminalDied:
        try:
            how = f"QEMU exited with status {self._qemu.wait(GRACE)}"
        except subprocess.TimeoutExpired:
            how = "vm-channel ended"
        return TerminalDied(self._with_console(f"the terminal died: {how}"))

    def _hung(self, what: str) -> TerminalHung:
        return TerminalHung(self._with_console(f"the terminal hangs: {what}"))

    # --- commands ---------------------------------------------------------------------------------

    def run(self, command: str | list[str], timeout: float = RUN_TIMEOUT,
            data: bytes = b"") -> Result:
        """Runs a command with `data` for its input; a text goes to the shell, a list does not.

        Raises CommandTimeout after having killed a command that takes longer, TerminalHung when
        even that has no effect, TerminalDied when the machine is gone."""
        text = shlex.join(command) if isinstance(command, list) else command
        deadline = time.monotonic() + timeout
        task = self.channel.open(channel.RUN, b"\0" + text.encode())
        task.send_input(data)
        task.send(channel.INPUT_END)
        parts: dict[int, list[bytes]] = {channel.OUTPUT: [], channel.ERRORS: []}
        killed = False
        while not task.over:
            frame = task.next(deadline)
            if frame is None and killed:
                raise self._hung(f"'{text}' cannot be killed")
            if frame is None:
                task.kill()
                killed, deadline = True, time.monotonic() + GRACE
            elif frame[0] in parts:
                parts[frame[0]].append(frame[1])
        output, errors = b"".join(parts[channel.OUTPUT]), b"".join(parts[channel.ERRORS])
        if killed:
            so_far = (output + errors)[-2000:].decode(errors="replace")
            raise CommandTimeout(self._with_console(
                f"'{text}' took longer than {timeout:g} s; it had printed '{so_far}'"))
        assert frame is not None
        code = os.waitstatus_to_exitcode(struct.unpack("<i", frame[1])[0])
        return Result(code if code >= 0 else 128 - code, output, errors)

    def check_output(self, command: str | list[str], timeout: float = RUN_TIMEOUT,
                     data: bytes = b"") -> str:
        """Like run, for a command that must succeed."""
        result = self.run(command, timeout, data)
        if result.status != 0:
            raise CommandFailed(f"{command} exited with status {result.status}: "
                                f"{result.stdout}{result.stderr}")
        return result.stdout

    def read_file(self, path: str) -> bytes:
        result = self.run(["cat", path])
        if result.status != 0:
            raise CommandFailed(result.stderr.strip())
        return result.output

    def write_file(self, path: str, content: bytes | str) -> None:
        data = content.encode() if isinstance(content, str) else content
        self.check_output(f"cat > {shlex.quote(path)}", data=data)

    def follow(self, path: str) -> channel.Follow:
        """The lines of a file, now and later; a file that is not there is created."""
        return channel.Follow(self.channel, path)

    def shell(self, command: str = "exec sh -l") -> int:
        """An interactive shell on this process's own terminal; returns its exit status."""
        task = self.channel.open(channel.RUN, b"\1" + command.encode())
        stdin, stdout = sys.stdin.fileno(), sys.stdout.fileno()

        def resize(*_: object) -> None:
            columns, rows = os.get_terminal_size(stdout)
            task.send(channel.RESIZE, struct.pack("<HH", rows, columns))

        def forward_input() -> None:
            while not task.over:
                if select.select([stdin], [], [], 0.1)[0]:
                    if not (data := os.read(stdin, 4096)):
                        return
                    with contextlib.suppress(channel.ChannelClosed):
                        task.send_input(data)

        with contextlib.ExitStack() as stack:
            if os.isatty(stdin):
                stack.callback(termios.tcsetattr, stdin, termios.TCSADRAIN,
                               termios.tcgetattr(stdin))
                tty.setraw(stdin)
            if os.isatty(stdout):
                previous = signal.signal(signal.SIGWINCH, resize)
                stack.callback(signal.signal, signal.SIGWINCH, previous)
                resize()
            feeder = threading.Thread(target=forward_input, daemon=True)
            feeder.start()
            stack.callback(feeder.join)
            stack.callback(task.drop)
            while not task.over:
                frame = task.next(time.monotonic() + 3600)
                if frame is not None and frame[0] == channel.OUTPUT:
                    os.write(stdout, frame[1])
        assert frame is not None
        return os.waitstatus_to_exitcode(struct.unpack("<i", frame[1])[0])

    # --- services ---------------------------------------------------------------------------------

    def start(self, service: str) -> int:
        """Starts a service and returns its process id."""
        return int(self.check_output(["start", service]))

    def stop(self, service: str) -> None:
        self.check_output(["stop", service])

    def status(self, service: str) -> ServiceState:
        state, _, pid = self.run(["status", service]).stdout.strip().partition(" ")
        return ServiceState(state, int(pid) if pid else None)

    # --- the SoC ----------------------------------------------------------------------------------

    def mode(self, node: str) -> str:
        """The mode of the USB controllers behind a node, SSUSB or HSUSB."""
        return self.check_output(["mode", node]).removesuffix("\n")

    def set_mode(self, node: str, mode: str) -> None:
        """With "none" or "peripheral" the controllers and all devices on them are gone when this
        returns; with "host" the controllers are back, and the devices follow in their own time."""
        self.check_output(["mode", node, mode])

    def supply(self, name: str) -> int:
        """Whether the power supply "dc" or "usb" is online: 0, 1, or 2 for a programmable one."""
        return int(self.check_output(["supply", name]))

    def set_supply(self, name: str, online: int) -> None:
        self.check_output(["supply", name, str(online)])

    # --- USB --------------------------------------------------------------------------------------

    def plug(self, device: Device, behind: Plugged | None = None,
             timeout: float = RUN_TIMEOUT) -> Plugged:
        """Plugs a device in and returns when it is configured and all its interfaces are there.

        Drivers may still be busy binding then: wait_until_works is for that."""
        plugged = self.connect(device, behind)
        self.wait_for_device(plugged, timeout)
        return plugged

    def connect(self, device: Device, behind: Plugged | None = None) -> Plugged:
        """Plugs a device in, `behind` a hub or at the machine itself, without waiting."""
        with self._ports_lock:
            self._last_identity += 1
            plugged = Plugged(self, device, f"{device.name}-{self._last_identity}")
            if isinstance(device.made_by, Gadget):
                if behind is not None:
                    raise ValueError(f"{device.name} is a gadget and cannot be behind a hub")
                free = self._free_controllers
            else:
                free = self._free_ports if behind is None else behind.free_ports
            if not free:
                raise ValueError(f"no free port for {device.name}")
            plugged.behind = behind
            plugged.port = min(free)
            free.remove(plugged.port)
        try:
            if isinstance(device.made_by, Gadget):
                self._connect_gadget(plugged, device.made_by)
            else:
                self._connect_to_qemu(plugged, device.made_by)
        except (CommandFailed, QmpError, TerminalError):
            with self._ports_lock:
                free.add(plugged.port)
            raise
        return plugged

    def _connect_gadget(self, plugged: Plugged, gadget: Gadget) -> None:
        try:
            self.check_output(gadget.plug_script(plugged.identity, plugged.port, plugged.device))
        except CommandFailed:
            self.run(gadget.clean_up_script(plugged.identity))
            raise
        self.locate(plugged)

    def _connect_to_qemu(self, plugged: Plugged, made_by: devices.QemuDevice) -> None:
        parent = "" if plugged.behind is None else f"{plugged.behind.path}."
        plugged.path = f"{parent}{plugged.port}"
        self.locate(plugged)
        properties = dict(made_by.properties)
        backend = f"{plugged.identity}-backend"
        if made_by.backend == "drive":
            self.qmp.execute("blockdev-add", driver="null-co", node_name=backend, size=1 << 20,
                             read_zeroes=True)
            properties["drive"] = backend
        elif made_by.backend == "network":
            self.qmp.execute("netdev_add", type="hubport", id=backend, hubid=0)
            properties["netdev"] = backend
        elif made_by.backend == "serial":
            self.qmp.execute("chardev-add", id=backend, backend={"type": "null", "data": {}})
            properties["chardev"] = backend
        self.qmp.execute("device_add", driver=made_by.driver, id=plugged.identity,
                         bus="xhci.0", port=plugged.path, **properties)

    def locate(self, plugged: Plugged) -> None:
        """Finds out anew under which name the kernel knows the device: when its controller has
        been out of host mode its bus may have another number. Raises TerminalError while it is."""
        if isinstance(plugged.device.made_by, Gadget):
            plugged.sysname = f"{self._dummy_hcd_bus(plugged.port)}-1"
        else:
            super_speed = plugged.device.made_by.super_speed and plugged.behind is None
            plugged.sysname = f"{self._xhci_bus(super_speed)}-{plugged.path}"

    def _dummy_hcd_bus(self, number: int) -> str:
        bus = self.check_output(f"cd /sys/devices/platform/dummy_hcd.{number} && echo usb*").strip()
        if bus == "usb*":
            raise TerminalError(self._with_console(f"dummy_hcd.{number} has no bus"))
        return bus.removeprefix("usb")

    def _xhci_bus(self, super_speed: bool) -> str:
        """The number of the controller's bus of that speed, found anew: it may have changed."""
        speeds = dict(line.split() for line in self.check_output(
            'for bus in /sys/bus/pci/drivers/xhci_hcd/*/usb*; do [ -e "$bus" ] || continue; '
            'read -r speed < "$bus/speed"; echo "$speed ${bus##*/usb}"; done').splitlines())
        if set(speeds) != {"480", "5000"}:
            raise TerminalError(self._with_console(
                f"the xhci has not its two buses (speed: bus): {speeds}"))
        return speeds["5000" if super_speed else "480"]

    def unplug(self, plugged: Plugged, timeout: float = RUN_TIMEOUT) -> None:
        """Pulls a device out and returns when the kernel has let go of it. What is behind a hub
        goes with the hub, for good."""
        self.disconnect(plugged)
        self.wait_until(lambda: plugged.state() is None, timeout, f"{plugged} to go")

    def disconnect(self, plugged: Plugged) -> None:
        """Pulls a device out without waiting for the kernel; its port is free again."""
        made_by = plugged.device.made_by
        if isinstance(made_by, Gadget):
            self.check_output(made_by.unplug_script(plugged.identity, plugged.port))
            free = self._free_controllers
        else:
            self._disconnect_from_qemu(plugged, made_by)
            free = self._free_ports if plugged.behind is None else plugged.behind.free_ports
        with self._ports_lock:
            free.add(plugged.port)

    def _disconnect_from_qemu(self, plugged: Plugged, made_by: devices.QemuDevice) -> None:
        self.qmp.execute("device_del", id=plugged.identity)
        deleted = self.qmp.wait_event("DEVICE_DELETED", GRACE,
                                      lambda data: data.get("device") == plugged.identity)
        if deleted is None:
            raise TerminalError(self._with_console(f"QEMU does not let go of {plugged}"))
        backend = f"{plugged.identity}-backend"
        if made_by.backend == "drive":
            self.qmp.execute("blockdev-del", node_name=backend)
        elif made_by.backend == "network":
            self.qmp.execute("netdev_del", id=backend)
        elif made_by.backend == "serial":
            self.qmp.execute("chardev-remove", id=backend)

    def usb_state(self, *sysnames: str) -> dict[str, DeviceState]:
        """What the kernel shows of these devices, as far as they are there."""
        states = devices.parse_usb_state(self.check_output(["usb-state", *sysnames]))
        return {state.sysname: state for state in states}

    def wait_for_device(self, plugged: Plugged, timeout: float = RUN_TIMEOUT) -> DeviceState:
        """Waits until the device is configured and all its interfaces are there."""
        def complete() -> DeviceState | None:
            state = plugged.state()
            return state if state is not None and state.complete else None
        return self.wait_until(complete, timeout, f"{plugged} to be configured", plugged.state)

    def wait_until_works(self, plugged: Plugged, timeout: float = RUN_TIMEOUT) -> DeviceState:
        """Waits until every interface has its driver and what the driver makes."""
        def works() -> DeviceState | None:
            state = plugged.state()
            return state if state is not None and state.works_as(plugged.device) else None
        return self.wait_until(works, timeout, f"{plugged} to work", plugged.state)

    def wait_until_blocked(self, plugged: Plugged, timeout: float = RUN_TIMEOUT) -> DeviceState:
        """Waits until no interface is authorized and every driver is gone."""
        def blocked() -> DeviceState | None:
            state = plugged.state()
            return state if state is not None and state.blocked() else None
        return self.wait_until(blocked, timeout, f"{plugged} to be blocked", plugged.state)

    def wait_until(self, look: Callable[[], T], timeout: float, what: str,
                   explain: Callable[[], object] | None = None) -> T:
        """Looks at the terminal's state until `look` gives something true, and returns that.

        Looks again after every uevent, and a few times a second for what has none. Raises
        TimeoutError with `what` was waited for and what `explain` gives then."""
        deadline = time.monotonic() + timeout
        while True:
            mark = self._uevents.mark()
            if found := look():
                return found
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                state = f"; its state: {explain()}" if explain is not None else ""
                raise TimeoutError(f"waited {timeout:g} s for {what}{state}")
            self._uevents.wait(mark, min(STATE_INTERVAL, remaining))

    def uevent_mark(self) -> int:
        return self._uevents.mark()

    def uevents_since(self, mark: int) -> list[dict[str, str]]:
        return self._uevents.since(mark)


# --- by hand --------------------------------------------------------------------------------------


def main() -> int:
    parser = argparse.ArgumentParser(description="the virtual terminal, by hand")
    parser.add_argument("--shell", action="store_true", help="a shell in the terminal")
    parser.add_argument("--start", default="all", metavar="SERVICES",
                        help="services to start at boot: all, none, NAME,NAME (%(default)s)")
    parser.add_argument("--plug", action="append", default=[], choices=sorted(devices.CATALOGUE),
                        metavar="DEVICE", help="plug a device in first: "
                        + ", ".join(devices.CATALOGUE))
    parser.add_argument("action", nargs="*", metavar="run COMMAND | boot")
    arguments = parser.parse_args()
    if not arguments.shell and arguments.action != ["boot"] and (
            len(arguments.action) != 2 or arguments.action[0] != "run"):
        parser.error("give --shell, run COMMAND or boot")
    try:
        with Terminal("by-hand", arguments.start) as terminal:
            for name in arguments.plug:
                terminal.plug(devices.CATALOGUE[name])
            if arguments.shell:
                return terminal.shell()
            if arguments.action == ["boot"]:
                print(f"first answer after {terminal.boot_seconds:.2f} s")
                return 0
            result = terminal.run(arguments.action[1], timeout=600)
            sys.stdout.buffer.write(result.output)
            sys.stderr.buffer.write(result.errors)
            return result.status
    except (TerminalError, image.ImageError, TimeoutError) as error:
        print(f"terminal: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
