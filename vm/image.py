#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""Makes the virtual terminal's initramfs.

The terminal's whole root file system is one uncompressed cpio archive that QEMU puts into the
machine's memory: no disk, no package manager and nothing to install, so that every boot starts
from the same state. Unpacking a compressed archive costs an emulated processor more time than
QEMU needs to load the larger file.

What goes in:

* busybox and the scripts of vm/rootfs/;
* the kernel modules named in MODULES with everything they depend on, and /etc/modules, the order
  to load them in. One of them, kus_soc, is the terminal's own (vm/module/). The dependencies are
  read from the modules themselves: a kernel package that was unpacked and not installed carries no
  modules.dep;
* the terminal's programs, without their debug information, and the shared libraries they need;
* kusd.rc, by which a terminal's init starts the daemon, and this one's.

The archive is written anew only when something that goes into it has changed.
"""

from __future__ import annotations

import dataclasses
import fcntl
import hashlib
import os
import stat
import struct
import sys
from collections.abc import Iterable, Iterator
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build"

# Names as the kernel knows them, each with its parameters.
MODULES: dict[str, str] = {
    "virtio_mmio": "",
    "virtio_console": "",
    "binder_linux": "",
    # QEMU's hub does not wake its host for a change on a port: asleep it would hide its devices.
    "usbcore": "autosuspend=-1",
    # Modes of the USB controllers, power supplies; before the controllers' own drivers.
    "kus_soc": "",
    # USB 2 and 3 ports that QEMU plugs devices into; loaded before dummy_hcd to be buses 1 and 2.
    "xhci_pci": "",
    # Six controllers, each with a gadget side of its own.
    "dummy_hcd": "num=6 is_super_speed=0",
    "usb_f_acm": "",
    "usb_f_ecm": "",
    "usb_f_hid": "",
    "usb_f_mass_storage": "",
    "usb_f_printer": "",
    "usb_f_rndis": "",
    # The drivers that must bind when a device may be used.
    "cdc_acm": "",
    "cdc_ether": "",
    "evdev": "",
    "ftdi_sio": "",
    "hid_generic": "",
    "rndis_host": "",
    "sd_mod": "",
    "usb_storage": "delay_use=0",
    "usbhid": "",
    "usblp": "",
}

# Loaded only where there is a disk to need them: the library of checksums is found by name alone.
DISK_MODULES: dict[str, str] = {
    "crc32c_generic": "",
    "virtio_blk": "",
    "ext4": "",
}

# Where a program comes from decides nothing about where it goes: all are in the terminal's PATH.
PROGRAMS = ("kusd", "kus-hotplug", "kus-client", "kusctl")
PLATFORM_PROGRAMS = ("servicemanager", "service", "getprop", "setprop", "watchprops")
CHANNEL = "vm-channel"
# What stands in for init's own code when it starts this daemon by its file.
DAEMON = "kusd"
RIGHTS_PROGRAM = "setpriv"
# For tests alone.
TEST_PROGRAMS = ("kus-example-client", "kus-hostile", "vm-steps")

TRIPLET = "aarch64-linux-gnu"
LIBRARY_DIR = f"lib/{TRIPLET}"
PROGRAM_DIR = "system/bin"
INIT_DIR = "system/etc/init"
IMAGES_KEPT = 4

BUSYBOX_DIRECTORIES = ("bin", "sbin")
EMPTY_DIRECTORIES = (
    "data", "debug", "dev", "etc", "proc", "root", "run", "sbin", "sys", "system", "tmp", "usr",
)


class ImageError(Exception):
    """The image cannot be made; the text says what is missing and what provides it."""


# --- ELF ------------------------------------------------------------------------------------------

_SHT_NULL, _SHT_NOBITS = 0, 8
_SHF_ALLOC = 2
_PT_LOAD, _PT_DYNAMIC, _PT_INTERP = 1, 2, 3
_DT_NEEDED, _DT_STRTAB, _DT_RPATH, _DT_RUNPATH = 1, 5, 15, 29
_SECTION = struct.Struct("<IIQQQQIIQQ")
_SEGMENT = struct.Struct("<IIQQQQQQ")
_EM_AARCH64 = 183


class Elf:
    """The few things that an image needs to know of a 64-bit little-endian ELF file."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.data = path.read_bytes()
        if self.data[:6] != b"\x7fELF\x02\x01":
            raise ImageError(f"{path} is no 64-bit little-endian ELF file")
        (machine,) = struct.unpack_from("<H", self.data, 18)
        if machine != _EM_AARCH64:
            raise ImageError(f"{path} is not for arm64 (machine {machine})")
        phoff, self._shoff = struct.unpack_from("<QQ", self.data, 32)
        phentsize, phnum, _, shnum, shstrndx = struct.unpack_from("<HHHHH", self.data, 54)
        self.segments = [_SEGMENT.unpack_from(self.data, phoff + i * phentsize)
                         for i in range(phnum)]
        self.sections = [_SECTION.unpack_from(self.data, self._shoff + i * _SECTION.size)
                         for i in range(shnum)]
        names = self.sections[shstrndx][4] if self.sections else 0
        self.section_names = [self._text(names + section[0]) for section in self.sections]

    def _text(self, offset: int) -> str:
        return self.data[offset:self.data.index(b"\0", offset)].decode()

    def section(self, name: str) -> bytes:
        for section, its_name in zip(self.sections, self.section_names):
            if its_name == name:
                return self.data[section[4]:section[4] + section[5]]
        return b""

    def interpreter(self) -> str | None:
        for segment in self.segments:
            if segment[0] == _PT_INTERP:
                return self._text(segment[2])
        return None

    def dynamic(self) -> tuple[list[str], list[str]]:
        """The names of the needed libraries and the run path's directories."""
        entries: list[tuple[int, int]] = []
        for kind, _, offset, _, _, size, _, _ in self.segments:
            if kind == _PT_DYNAMIC:
                entries = [struct.unpack_from("<QQ", self.data, offset + i)
                           for i in range(0, size, 16)]
        strings = next((value for tag, value in entries if tag == _DT_STRTAB), 0)
        base = self._offset_of(strings)
        needed = [self._text(base + value) for tag, value in entries if tag == _DT_NEEDED]
        paths = [self._text(base + value).split(":") for tag, value in entries
                 if tag in (_DT_RPATH, _DT_RUNPATH)]
        return needed, [directory for path in paths for directory in path if directory]

    def _offset_of(self, address: int) -> int:
        for kind, _, offset, start, _, size, _, _ in self.segments:
            if kind == _PT_LOAD and start <= address < start + size:
                return offset + address - start
        return 0

    def without_debug_information(self) -> bytes:
        """The file with its .debug_* sections emptied; symbol tables stay for the unwinder."""
        if not any(name.startswith(".debug_") for name in self.section_names):
            return self.data
        loaded = [segment[2] + segment[5] for segment in self.segments]
        loaded += [section[4] + section[5] for section in self.sections
                   if section[2] & _SHF_ALLOC and section[1] != _SHT_NOBITS]
        out = bytearray(self.data[:max(loaded)])
        headers = bytearray()
        for fields, name in zip(self.sections, self.section_names):
            section = list(fields)
            if name.startswith((".debug_", ".rela.debug_")):
                section[1], section[4], section[5] = _SHT_NULL, 0, 0
            elif not section[2] & _SHF_ALLOC and section[1] not in (_SHT_NULL, _SHT_NOBITS):
                out += bytes(-len(out) % max(section[8], 1))
                start, section[4] = section[4], len(out)
                out += self.data[start:start + section[5]]
            headers += _SECTION.pack(*section)
        out += bytes(-len(out) % 8)
        struct.pack_into("<Q", out, 40, len(out))
        return bytes(out + headers)


_SIGNATURE_END = b"~Module signature appended~\n"
_SIGNATURE = struct.Struct(">8xI")


def without_signature(module: bytes) -> bytes:
    """A kernel module without its signature, which takes an emulated processor longer to check
    than all the rest of loading the module. Debian's kernel does not insist on one."""
    if not module.endswith(_SIGNATURE_END):
        return module
    trailer = len(module) - len(_SIGNATURE_END) - _SIGNATURE.size
    (size,) = _SIGNATURE.unpack_from(module, trailer)
    return module[:trailer - size]


# --- what goes in ---------------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Sources:
    """Where the parts come from."""

    kernel: Path = BUILD / "deps/kernel-arm64"
    module: Path = BUILD / "module"
    sysroot: Path = BUILD / "deps/sysroot-arm64"
    platform: Path = BUILD / "platform/arm64"
    programs: Path = BUILD / "arm64"
    rootfs: Path = ROOT / "vm/rootfs"
    init_file: Path = ROOT / "android/kus/kusd.rc"
    output: Path = BUILD / "vm"
    # Directories with Debian packages, for programs that the terminal itself does without.
    others: tuple[Path, ...] = ()

    def kernel_image(self) -> Path:
        images = sorted(self.kernel.glob("boot/vmlinuz-*"))
        if not images:
            raise ImageError(f"no kernel in {self.kernel}/boot: host/setup gets it")
        return images[-1]

    def modules(self) -> Path:
        release = self.kernel_image().name.removeprefix("vmlinuz-")
        for prefix in ("lib/modules", "usr/lib/modules"):
            if (self.kernel / prefix / release).is_dir():
                return self.kernel / prefix / release
        raise ImageError(f"no modules of {release} in {self.kernel}: host/setup gets them")

    def own_module(self, name: str) -> Path:
        """kus_soc.ko, or soc.dtbo with the nodes of the device tree that it needs."""
        if not (self.module / name).is_file():
            raise ImageError(f"no {name} in {self.module}: host/setup makes it")
        return self.module / name

    def busybox(self) -> Path:
        for root in (self.sysroot, self.kernel):
            for name in ("bin/busybox", "usr/bin/busybox"):
                if (root / name).is_file():
                    return root / name
        raise ImageError(f"no busybox in {self.sysroot}: host/setup gets it (busybox-static)")

    def program(self, name: str) -> Path:
        directories = [self.programs / "bin", self.platform / "bin", self.sysroot / "usr/bin"]
        directories += [other / place for other in self.others for place in ("usr/bin", "usr/sbin")]
        for directory in directories:
            if (directory / name).is_file():
                return directory / name
        raise ImageError(f"no program {name} in {self.programs} or {self.platform}/bin: "
                         "build the arm64 programs first (./run does)")

    def library(self, name: str, run_path: Iterable[str] = ()) -> Path:
        directories = [self.platform / "lib", self.sysroot / "lib" / TRIPLET,
                       self.sysroot / "usr/lib" / TRIPLET,
                       self.sysroot / "usr/lib" / TRIPLET / "android", self.sysroot / "lib"]
        directories += [self.sysroot / directory.lstrip("/") for directory in run_path]
        directories += [other / "usr/lib" / TRIPLET for other in self.others]
        for directory in directories:
            if (directory / name).is_file():
                return directory / name
        raise ImageError(f"no library {name} for arm64: host/setup gets it")


@dataclasses.dataclass(frozen=True)
class Entry:
    """One member of the archive: a directory, a link, a device node or a file from `source`."""

    name: str
    mode: int
    source: Path | None = None
    content: bytes = b""
    device: tuple[int, int] = (0, 0)

    def read(self) -> bytes:
        if self.source is None:
            return self.content
        if self.source.suffix == ".ko":
            return without_signature(self.source.read_bytes())
        with self.source.open("rb") as file:
            is_elf = file.read(4) == b"\x7fELF"
        return Elf(self.source).without_debug_information() if is_elf else self.source.read_bytes()

    def identity(self) -> str:
        """Text that changes whenever the member would."""
        about = hashlib.sha256(self.content).hexdigest()
        if self.source is not None:
            state = self.source.stat()
            about = f"{self.source} {state.st_size} {state.st_mtime_ns}"
        return f"{self.name} {self.mode:o} {self.device} {about}"


def _directory(name: str) -> Entry:
    return Entry(name, stat.S_IFDIR | 0o755)


def _file(name: str, source: Path, mode: int = 0o755) -> Entry:
    return Entry(name, stat.S_IFREG | mode, source)


def _link(name: str, target: str) -> Entry:
    return Entry(name, stat.S_IFLNK | 0o777, content=target.encode())


def _module_name(path: Path) -> str:
    return path.name.removesuffix(".ko").replace("-", "_")


def _module_entries(sources: Sources) -> Iterator[Entry]:
    """The modules, and the lists /etc/modules and /etc/disk-modules with their order and
    parameters. The second one goes on where the first one ends."""
    known = {_module_name(path): path
             for path in (*sources.modules().rglob("*.ko"), sources.own_module("kus_soc.ko"))}
    order: list[str] = []

    def visit(name: str) -> None:
        if name in order:
            return
        if name not in known:
            raise ImageError(f"the kernel in {sources.kernel} has no module {name}")
        for field in Elf(known[name]).section(".modinfo").split(b"\0"):
            key, _, value = field.decode().partition("=")
            if key == "depends":
                for dependency in filter(None, value.split(",")):
                    visit(dependency.replace("-", "_"))
        order.append(name)

    yield _directory("lib/modules")
    for filename, modules in (("modules", MODULES), ("disk-modules", DISK_MODULES)):
        begin = len(order)
        for wanted in modules:
            visit(wanted)
        for name in order[begin:]:
            yield _file(f"lib/modules/{name}.ko", known[name], 0o644)
        lines = (f"{name} {modules.get(name, '')}".rstrip() + "\n" for name in order[begin:])
        yield Entry(f"etc/{filename}", stat.S_IFREG | 0o644, content="".join(lines).encode())


def _program_entries(sources: Sources, names: Iterable[str]) -> Iterator[Entry]:
    """The programs, their interpreter and the closure of their libraries.

    All libraries go into one of the loader's own directories: there is no loader cache in the
    terminal and a run path of the machine that built a program means nothing there."""
    programs = [(f"{PROGRAM_DIR}/{name}", sources.program(name)) for name in names]
    libraries: dict[str, Path] = {}
    waiting = []
    for name, path in programs:
        yield _file(name, path)
        waiting.append(path)
    while waiting:
        elf = Elf(waiting.pop())
        interpreter = elf.interpreter()
        needed, run_path = elf.dynamic()
        if interpreter is not None:
            needed.append(Path(interpreter).name)
        for name in needed:
            if name not in libraries:
                libraries[name] = sources.library(name, run_path)
                waiting.append(libraries[name])
    for name, path in sorted(libraries.items()):
        directory = "lib" if name.startswith("ld-linux") else LIBRARY_DIR
        yield _file(f"{directory}/{name}", path)


def init_entries(sources: Sources) -> Iterator[Entry]:
    """The file by which init starts the daemon, as a terminal has it."""
    yield _directory("system/etc")
    yield _directory(INIT_DIR)
    yield _file(f"{INIT_DIR}/{sources.init_file.name}", sources.init_file, 0o644)


def _script_entries(sources: Sources) -> Iterator[Entry]:
    for path in sorted(sources.rootfs.rglob("*")):
        name = str(path.relative_to(sources.rootfs))
        if path.is_dir():
            yield _directory(name)
        else:
            yield _file(name, path, 0o755 if os.access(path, os.X_OK) else 0o644)


def _busybox_entries(sources: Sources) -> Iterator[Entry]:
    """busybox; init lets it make the links to itself."""
    yield _file("bin/busybox", sources.busybox())
    yield _link("bin/sh", "busybox")


def entries(sources: Sources, programs: Iterable[str]) -> list[Entry]:
    """Every member, parents before children, each name once."""
    wanted = [_directory(name) for name in
              ("bin", *EMPTY_DIRECTORIES, "lib", LIBRARY_DIR, "system/bin")]
    # The kernel opens the console of its own file system before init can mount one.
    wanted.append(Entry("dev/console", stat.S_IFCHR | 0o600, device=(5, 1)))
    wanted += _busybox_entries(sources)
    wanted += _module_entries(sources)
    names = list(programs)
    if DAEMON in names:
        names.append(RIGHTS_PROGRAM)
        wanted += init_entries(sources)
    wanted += _program_entries(sources, names)
    wanted += _script_entries(sources)
    return list({entry.name: entry for entry in wanted}.values())


# --- the archive ----------------------------------------------------------------------------------


def _cpio_member(number: int, entry: Entry) -> bytes:
    content = entry.read()
    name = entry.name.encode() + b"\0"
    fields = (number, entry.mode, 0, 0, 1, 0, len(content), 0, 0, *entry.device, len(name), 0)
    header = b"070701" + b"".join(b"%08X" % field for field in fields)
    member = header + name
    member += bytes(-len(member) % 4) + content
    return member + bytes(-len(member) % 4)


def write_archive(path: Path, members: Iterable[Entry]) -> None:
    """Writes a newc cpio archive; `path` never holds half of one."""
    temporary = path.with_suffix(".new")
    with temporary.open("wb") as out:
        number = 0
        for number, entry in enumerate(members, 1):
            out.write(_cpio_member(number, entry))
        out.write(_cpio_member(number + 1, Entry("TRAILER!!!", 0)))
    temporary.rename(path)


def build(sources: Sources | None = None, programs: Iterable[str] | None = None) -> Path:
    """Returns the image's path, after writing it if it is missing or out of date.

    `programs` defaults to all of them, and one that has not been built is an ImageError. Safe to
    call from several processes at once."""
    sources = sources or Sources()
    names = (CHANNEL, *PROGRAMS, *PLATFORM_PROGRAMS, *TEST_PROGRAMS)
    if programs is not None:
        names = tuple(programs)
    members = entries(sources, names)
    own = hashlib.sha256(Path(__file__).read_bytes()).hexdigest()
    wanted = "\n".join([own, *(entry.identity() for entry in members)])
    digest = hashlib.sha256(wanted.encode()).hexdigest()[:12]
    image = sources.output / f"initramfs-{digest}.cpio"
    sources.output.mkdir(parents=True, exist_ok=True)
    with (sources.output / "initramfs.lock").open("w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if image.is_file():
            os.utime(image)
            return image
        write_archive(image, members)
        # A machine that is just starting may still have to open one of the last few.
        others = sorted(sources.output.glob("initramfs-*.cpio"), key=lambda p: p.stat().st_mtime)
        for old in others[:-IMAGES_KEPT]:
            old.unlink()
    return image


def main() -> int:
    try:
        image = build()
    except ImageError as error:
        print(f"image: {error}", file=sys.stderr)
        return 1
    print(f"{image}: {image.stat().st_size / 1e6:.1f} MB")
    return 0


if __name__ == "__main__":
    sys.exit(main())
