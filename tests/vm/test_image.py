#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The virtual terminal's image: what goes in, and when it is made anew. Needs the programs, no
machine."""

from __future__ import annotations

import dataclasses
import os
import shutil
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT))

from vm import image  # noqa: E402


class ImageTest(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = Path(directory.name)
        rootfs = self.directory / "rootfs"
        shutil.copytree(image.Sources().rootfs, rootfs)
        self.sources = dataclasses.replace(image.Sources(), rootfs=rootfs,
                                           output=self.directory / "out")

    def names(self, programs: tuple[str, ...]) -> list[str]:
        return [entry.name for entry in image.entries(self.sources, programs)]

    def test_image_is_written_once_until_an_input_changes(self) -> None:
        first = image.build(self.sources)
        written = first.stat().st_ino
        self.assertEqual(image.build(self.sources), first)
        self.assertEqual(first.stat().st_ino, written)
        with (self.sources.rootfs / "init").open("a") as script:
            script.write("# changed\n")
        self.assertNotEqual(image.build(self.sources), first)

    def test_only_the_last_images_are_kept(self) -> None:
        for number in range(image.IMAGES_KEPT + 2):
            (self.sources.rootfs / "etc" / "number").write_text(str(number))
            last = image.build(self.sources, (image.CHANNEL,))
        kept = list(self.sources.output.glob("*.cpio"))
        self.assertEqual(len(kept), image.IMAGES_KEPT)
        self.assertIn(last, kept)

    def test_every_member_has_its_directory_before_it(self) -> None:
        seen = {""}
        for name in self.names(image.PROGRAMS):
            self.assertIn(os.path.dirname(name), seen)
            self.assertNotIn(name, seen)
            seen.add(name)

    def test_programs_bring_the_libraries_of_their_libraries(self) -> None:
        names = self.names(("kusd",))
        for library in ("libbinder.so", "libtinyxml2.so.9", "libbacktrace.so.0", "7z.so"):
            self.assertIn(f"{image.LIBRARY_DIR}/{library}", names)
        self.assertIn("lib/ld-linux-aarch64.so.1", names)

    def test_daemon_brings_its_init_file_and_what_gives_it_its_rights(self) -> None:
        own = {"system/etc/init/kusd.rc", f"{image.PROGRAM_DIR}/setpriv"}
        self.assertLessEqual(own, set(self.names(("kusd",))))
        self.assertEqual(own & set(self.names((image.CHANNEL,))), set())

    def test_modules_come_after_what_they_depend_on(self) -> None:
        entries = {entry.name: entry for entry in image.entries(self.sources, ())}
        order = [line.split()[0] for line in entries["etc/modules"].content.decode().splitlines()]
        for earlier, later in (("usb_common", "usbcore"), ("usbcore", "dummy_hcd"),
                               ("libcomposite", "usb_f_hid"), ("scsi_common", "scsi_mod"),
                               ("xhci_hcd", "xhci_pci"), ("hid", "usbhid"),
                               ("kus_soc", "xhci_pci"), ("kus_soc", "dummy_hcd")):
            self.assertLess(order.index(earlier), order.index(later), (earlier, later))

    def test_what_has_not_been_built_is_named(self) -> None:
        with self.assertRaisesRegex(image.ImageError, "no program no-such.*build the arm64"):
            image.build(self.sources, ("no-such",))

    def test_a_program_without_debug_information_is_still_an_elf_file_with_symbols(self) -> None:
        whole = image.Elf(self.sources.program("kusd"))
        self.assertIn(".debug_info", whole.section_names)
        stripped = self.directory / "stripped"
        stripped.write_bytes(whole.without_debug_information())
        self.assertLess(stripped.stat().st_size, len(whole.data))
        again = image.Elf(stripped)
        self.assertEqual(again.section(".debug_info"), b"")
        for name in (".text", ".symtab", ".strtab", ".shstrtab", ".dynamic"):
            self.assertNotEqual(whole.section(name), b"", name)
            self.assertEqual(again.section(name), whole.section(name), name)
        self.assertEqual(again.dynamic(), whole.dynamic())

    def test_a_module_loses_its_signature_and_nothing_else(self) -> None:
        module = next(self.sources.modules().rglob("usbcore.ko"))
        signed = module.read_bytes()
        plain = image.without_signature(signed)
        self.assertTrue(signed.startswith(plain))
        self.assertIn(b"Module signature appended", signed[len(plain):])
        self.assertEqual(image.without_signature(plain), plain)


if __name__ == "__main__":
    unittest.main()
