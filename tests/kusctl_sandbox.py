# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""A machine for kusctl to run on, with USB devices of its own: tests/sandbox with a /sys and a
/data that were made for the test, and a home for its files."""

from __future__ import annotations

import os
import subprocess
import tempfile
from pathlib import Path
from types import TracebackType
from typing import NamedTuple, Optional

REPO = Path(__file__).resolve().parent.parent
PROGRAMS = REPO / "build/bin"

KEYS = "fffffffffffffffe"
TOUCH_KEY = "400 0 0 0 0 0"  # BTN_TOUCH
TOUCH_AXES = "3"             # ABS_X, ABS_Y
DIRECT = "2"                 # INPUT_PROP_DIRECT


class Input(NamedTuple):
    """An input device: what the kernel shows of its abilities."""

    keys: str = "0"
    abs: str = "0"
    properties: str = "0"


KEYBOARD = Input(keys=KEYS)
TOUCHSCREEN = Input(keys=TOUCH_KEY, abs=TOUCH_AXES, properties=DIRECT)


class Usb(NamedTuple):
    """A USB device at a port of bus 1. One of class 3 without input is a vendor's own."""

    ids: str
    name: str
    classes: tuple[int, ...]
    input: Optional[Input] = None


def write(file: Path, text: str) -> None:
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(text)


def link(at: Path, target: Path) -> None:
    at.parent.mkdir(parents=True, exist_ok=True)
    at.symlink_to(os.path.relpath(target, at.parent))


class Machine:
    """For a with statement, which takes it down."""

    def __init__(self, devices: tuple[Usb, ...] = ()) -> None:
        self._folder = tempfile.TemporaryDirectory()
        self._root = Path(self._folder.name)
        self._sys = self._root / "sys"
        self.home = self._root / "home"
        self.policies = self._root / "data/usbdeviceconfig"
        for folder in (self._sys / "bus/usb/devices", self._sys / "class/input",
                       self.home, self.policies):
            folder.mkdir(parents=True)
        for port, device in enumerate(devices, 1):
            self._add(port, device)

    def __enter__(self) -> Machine:
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self._folder.cleanup()

    def _add(self, port: int, device: Usb) -> None:
        vendor, product = device.ids.split(":")
        folder = self._sys / f"devices/platform/hcd/usb1/1-{port}"
        attributes = {"busnum": "1", "devnum": str(port + 1), "bDeviceClass": "00",
                      "idVendor": vendor, "idProduct": product, "product": device.name,
                      "bConfigurationValue": "1"}
        for name, text in attributes.items():
            write(folder / name, text + "\n")
        for number, code in enumerate(device.classes):
            self._add_interface(folder, f"1-{port}:1.{number}", number, code)
        link(folder / "subsystem", self._sys / "bus/usb")
        link(folder / "driver", self._sys / "bus/usb/drivers/usb")
        link(self._sys / f"bus/usb/devices/1-{port}", folder)
        if 3 not in device.classes:
            return
        hid = (folder / f"1-{port}:1.{device.classes.index(3)}" /
               f"0003:{device.ids.upper()}.{port:04X}")
        hid.mkdir()
        if device.input is not None:
            self._add_input(port, hid, device, device.input)

    def _add_interface(self, device: Path, name: str, number: int, code: int) -> None:
        folder = device / name
        attributes = {"bInterfaceClass": f"{code:02x}", "bInterfaceNumber": f"{number:02x}",
                      "bInterfaceProtocol": "00", "bInterfaceSubClass": "00", "authorized": "1"}
        for attribute, text in attributes.items():
            write(folder / attribute, text + "\n")
        link(folder / "subsystem", self._sys / "bus/usb")
        link(self._sys / f"bus/usb/devices/{name}", folder)

    def _add_input(self, number: int, hid: Path, device: Usb, abilities: Input) -> None:
        vendor, product = device.ids.split(":")
        folder = hid / f"input/input{number}"
        files = {"name": device.name, "id/vendor": vendor, "id/product": product,
                 "properties": abilities.properties, "capabilities/key": abilities.keys,
                 "capabilities/rel": "0", "capabilities/abs": abilities.abs}
        for name, text in files.items():
            write(folder / name, text + "\n")
        link(folder / "subsystem", self._sys / "class/input")
        link(self._sys / f"class/input/input{number}", folder)

    def bash(self, script: str, folder: str = "/home") -> subprocess.CompletedProcess[str]:
        """Runs a script in a folder of its own, standard error in with the output. The home is
        /data/local/tmp, too."""
        return subprocess.run(
            [REPO / "tests/sandbox", "--bind", self._sys, "/sys", "--bind", self.home, "/home",
             "--bind", self.home, "/data/local/tmp", "--bind", self._root / "data", "/data/system",
             "--clearenv", "--setenv", "PATH", f"{PROGRAMS}:/usr/bin", "env", "-C", folder, "bash",
             "-c", script],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            timeout=60, check=False)
