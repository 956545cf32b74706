# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""Makes the virtual terminal's device tree: that of QEMU's machine and what the terminal has beyond
it (vm/module/soc.dtso), written anew only when one of the two may have changed."""

from __future__ import annotations

import hashlib
import os
import subprocess
import tempfile
from collections.abc import Sequence
from pathlib import Path

from vm.image import ImageError

TREES_KEPT = 4


def _run(*command: str | Path) -> None:
    words = [str(word) for word in command]
    try:
        result = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, check=False)
    except FileNotFoundError as error:
        raise ImageError(f"no {words[0]}: host/setup gets it") from error
    if result.returncode != 0:
        raise ImageError(f"{words[0]} failed: {result.stdout}")


def build(qemu: str, machine: str, options: Sequence[str], overlay: Path, directory: Path) -> Path:
    """Returns the path of a tree in `directory` for `qemu -M machine options...`, after writing it
    if need be; one that cannot be made is an ImageError. `qemu` is the program's path. Safe to call
    from several processes at once."""
    program = os.stat(qemu)
    made_of = [qemu, program.st_size, program.st_mtime_ns, machine, *options,
               hashlib.sha256(overlay.read_bytes()).hexdigest()]
    digest = hashlib.sha256("\n".join(map(str, made_of)).encode()).hexdigest()[:12]
    tree = directory / f"terminal-{digest}.dtb"
    if tree.is_file():
        return tree
    with tempfile.TemporaryDirectory(dir=directory) as name:
        plain, whole = Path(name) / "machine.dtb", Path(name) / "terminal.dtb"
        _run(qemu, "-nodefaults", "-no-user-config", "-display", "none",
             "-M", f"{machine},dumpdtb={plain}", *options)
        _run("fdtoverlay", "-i", plain, "-o", whole, overlay)
        whole.rename(tree)
    others = sorted(directory.glob("terminal-*.dtb"), key=lambda path: path.stat().st_mtime)
    for old in others[:-TREES_KEPT]:
        old.unlink(missing_ok=True)
    return tree
