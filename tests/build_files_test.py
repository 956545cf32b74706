# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""Android.bp and CMakeLists.txt say the same: same targets, same sources, in the same order."""

from __future__ import annotations

import re
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
FOLDERS = ("android/kus_aidl_interface", "android/kus", "examples", "tools", "tools/kusctl",
           "tests", "tests/fuzz", "benchmarks")
# These run in the virtual terminal alone, which no Android tree builds.
TERMINAL_FOLDERS = ("benchmarks/vm",)
BP_MODULES = ("aidl_interface", "cc_benchmark", "cc_binary", "cc_fuzz", "cc_library_static",
              "cc_test", "cc_test_library")
CMAKE_CALLS = ("add_executable", "add_library", "kus_add_benchmark", "kus_add_fuzzer",
               "kus_add_program", "kus_add_test")

Targets = dict[str, list[str]]


def without_comments(text: str, mark: str) -> str:
    return re.sub(rf"{mark}.*", "", text)


def bp_value(body: str, key: str) -> list[str]:
    found = re.search(rf"\b{key}:\s*(\[[^\]]*\]|\"[^\"]*\")", body)
    return re.findall(r'"([^"]*)"', found.group(1)) if found else []


def bp_targets(folder: str) -> Targets:
    text = without_comments((REPO / folder / "Android.bp").read_text(), "//")
    targets: Targets = {}
    for kind, body in re.findall(r"^(\w+) \{\n(.*?)^\}", text, re.MULTILINE | re.DOTALL):
        if kind not in BP_MODULES:
            continue
        name = bp_value(body, "name")[0]
        if kind == "aidl_interface":
            name += "-V1-cpp"
        targets[name] = bp_value(body, "srcs")
    return targets


def cmake_targets(folder: str) -> Targets:
    text = without_comments((REPO / folder / "CMakeLists.txt").read_text(), "#")
    variables = {
        name: words.split()
        for name, words in re.findall(r"^set\((\w+)\s+([^)]*)\)", text, re.MULTILINE)
    }
    # What stands inside a function is a recipe, not a target.
    text = re.sub(r"^function\(.*?^endfunction\(\)", "", text, flags=re.MULTILINE | re.DOTALL)
    targets: Targets = {}
    for call, arguments in re.findall(r"^\s*(\w+)\(([^)]*)\)", text, re.MULTILINE):
        words = arguments.split()
        if call not in CMAKE_CALLS or "INTERFACE" in words:
            continue
        name, *rest = [word for word in words if word not in ("STATIC", "SOURCES")]
        if "LIBS" in rest:
            rest = rest[: rest.index("LIBS")]
        if rest == ["${generated}"]:
            rest = variables["KUS_AIDL_SOURCES"]
        targets[name] = rest
    return targets


class BuildFiles(unittest.TestCase):
    def test_both_builds_name_the_same_targets_with_the_same_sources(self) -> None:
        for folder in FOLDERS:
            with self.subTest(folder=folder):
                self.assertEqual(bp_targets(folder), cmake_targets(folder))

    def test_every_folder_has_targets(self) -> None:
        for folder in FOLDERS:
            with self.subTest(folder=folder):
                self.assertTrue(bp_targets(folder))

    def test_sources_stand_in_alphabetical_order_and_exist(self) -> None:
        for folder in FOLDERS:
            for name, sources in bp_targets(folder).items():
                with self.subTest(target=name):
                    self.assertTrue(sources)
                    self.assertEqual(sources, sorted(sources))
                    for source in sources:
                        self.assertTrue((REPO / folder / source).is_file(), source)

    def test_every_source_of_a_folder_belongs_to_a_target(self) -> None:
        for folder in FOLDERS:
            with self.subTest(folder=folder):
                root = REPO / folder
                files = {str(f.relative_to(root)) for f in root.rglob("*.cpp")}
                files |= {str(f.relative_to(root)) for f in root.rglob("*.aidl")}
                inner = [f"{Path(other).relative_to(folder)}/"
                         for other in (*FOLDERS, *TERMINAL_FOLDERS)
                         if Path(folder) in Path(other).parents]
                # Versions of the interface that are no more than compared with.
                inner.append("aidl_api/")
                files = {file for file in files if not file.startswith(tuple(inner))}
                named = {s for sources in bp_targets(folder).values() for s in sources}
                self.assertEqual(files, named)

    def test_every_fuzz_target_has_inputs_and_its_dictionary(self) -> None:
        root = REPO / "tests/fuzz"
        text = (root / "Android.bp").read_text()
        targets = [name for name in bp_targets("tests/fuzz") if name.endswith("_fuzzer")]
        self.assertEqual(sorted(targets), sorted(f.name for f in (root / "corpus").iterdir()))
        for name in targets:
            with self.subTest(target=name):
                self.assertTrue(list((root / "corpus" / name).iterdir()))
                self.assertIn(f'corpus: ["corpus/{name}/*"]', text)
                named = f'dictionary: "{name}.dict"' in text
                self.assertEqual(named, (root / f"{name}.dict").is_file())


if __name__ == "__main__":
    unittest.main()
