# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""The binder interface is what was frozen: clients are built against that. An Android tree checks
the same at each build; here Debian's aidl does, which writes a version's files as the tree's does,
but for the comment at their head."""

from __future__ import annotations

import hashlib
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
INTERFACE = REPO / "android/kus_aidl_interface"
VERSIONS = Path("aidl_api/kus_aidl_interface")

Api = dict[str, str]


def files_below(folder: Path) -> Api:
    return {f"./{file.relative_to(folder)}": file.read_text() for file in folder.rglob("*.aidl")}


def api_of_sources(interface: Path) -> Api:
    sources = sorted(str(file) for file in (interface / "android").rglob("*.aidl"))
    with tempfile.TemporaryDirectory() as out:
        subprocess.run(["aidl", "--dumpapi", "--structured", f"--out={out}", "-I", str(interface),
                        *sources], check=True, capture_output=True, text=True)
        return files_below(Path(out))


def hash_of(api: Api, previous: str) -> str:
    """As the platform's build makes it: of what sha1sum says of each file, and the version that the
    interface had before."""
    sums = [f"{hashlib.sha1(api[name].encode()).hexdigest()}  {name}\n" for name in sorted(api)]
    return hashlib.sha1("".join([*sums, f"{previous}\n"]).encode()).hexdigest()


def frozen_versions(interface: Path) -> list[str]:
    names = [folder.name for folder in (interface / VERSIONS).iterdir()]
    return sorted((name for name in names if name != "current"), key=int)


def problems(interface: Path) -> list[str]:
    """What of an interface is not as it was frozen."""
    versions = interface / VERSIONS
    frozen = frozen_versions(interface)
    found = []
    for previous, version in zip(["latest-version", *frozen], frozen):
        written = (versions / version / ".hash").read_text()
        if written != hash_of(files_below(versions / version), previous) + "\n":
            found.append(f"hash of {version}")
    last = files_below(versions / frozen[-1])
    if files_below(versions / "current") != last:
        found.append("current")
    if api_of_sources(interface) != last:
        found.append("sources")
    return found


# What may happen to a file of the interface: its text before and after, and what must be said.
SERVICE = "android/kus/IKUsbService.aidl"
RECORD = "android/kus/DeviceInfo.aidl"
CALLBACK = "android/kus/IKUsbServiceCallback.aidl"
CHANGES: tuple[tuple[str, str, str, list[str]], ...] = (
    (SERVICE, "void resetUsbDevices(int delayMs);",
     "void resetUsbDevices(int delayMs);\n    void more();", ["sources"]),
    (SERVICE, "void resetUsbDevices(int delayMs);", "", ["sources"]),
    (SERVICE, "int delayMs", "long delayMs", ["sources"]),
    (SERVICE, "boolean isDeviceAllowed", "oneway void isDeviceAllowed", ["sources"]),
    (RECORD, "int vendorId = 0;", "int vendor = 0;", ["sources"]),
    (RECORD, "int status = 0;", "int status = 1;", ["sources"]),
    (RECORD, "int[] interfaceClasses;", "byte[] interfaceClasses;", ["sources"]),
    (CALLBACK, "void onDeviceAdded(in DeviceInfo device);\n",
     "void onDeviceNamed(in DeviceInfo device);\n", ["sources"]),
    # Words for readers are no part of it.
    (SERVICE, "/** May this device be used?", "/** Whether this device may be used.", []),
    (f"{VERSIONS}/1/{RECORD}", "int productId = 0;", "int product = 0;", ["hash of 1", "current",
                                                                          "sources"]),
    (f"{VERSIONS}/1/{RECORD}", "parcelable", "// A word.\nparcelable", ["hash of 1", "current",
                                                                        "sources"]),
    (f"{VERSIONS}/1/.hash", "0", "1", ["hash of 1"]),
    (f"{VERSIONS}/current/{SERVICE}", "boolean", "int", ["current"]),
)


class FrozenInterface(unittest.TestCase):
    def test_sources_are_the_last_version(self) -> None:
        self.assertEqual(problems(INTERFACE), [])

    def test_a_change_is_noticed(self) -> None:
        for name, before, after, expected in CHANGES:
            with self.subTest(file=name, after=after), tempfile.TemporaryDirectory() as scratch:
                interface = Path(scratch) / "interface"
                shutil.copytree(INTERFACE, interface)
                text = (interface / name).read_text()
                self.assertIn(before, text)
                (interface / name).write_text(text.replace(before, after, 1))
                self.assertEqual(problems(interface), expected)

    def test_operations_in_another_order_are_noticed(self) -> None:
        """Their order is that of their transaction codes."""
        with tempfile.TemporaryDirectory() as scratch:
            interface = Path(scratch) / "interface"
            shutil.copytree(INTERFACE, interface)
            text = (interface / CALLBACK).read_text()
            swapped = re.sub(r"onDevice(Added|Removed)",
                             lambda name: {"Added": "onDeviceRemoved",
                                           "Removed": "onDeviceAdded"}[name[1]], text)
            self.assertNotEqual(swapped, text)
            (interface / CALLBACK).write_text(swapped)
            self.assertEqual(problems(interface), ["sources"])

    def test_both_builds_make_the_frozen_version(self) -> None:
        versions = frozen_versions(INTERFACE)
        bp = (INTERFACE / "Android.bp").read_text()
        self.assertEqual(re.findall(r'version: "(\d+)"', bp), versions)
        self.assertRegex(bp, r"(?m)^    frozen: true,$")
        # Not for other partitions than the system's.
        self.assertNotIn("stability", bp)
        cmake = (INTERFACE / "CMakeLists.txt").read_text()
        self.assertEqual(re.findall(r" -v (\d+) ", cmake), versions[-1:])


if __name__ == "__main__":
    unittest.main()
