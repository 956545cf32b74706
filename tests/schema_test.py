# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""docs/usb_device_config.xsd: what it makes of policy files, where the daemon does otherwise."""

from __future__ import annotations

import re
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import NamedTuple

REPO = Path(__file__).resolve().parent.parent
SCHEMA = REPO / "docs/usb_device_config.xsd"
TABLE = REPO / "tests/policies/table.tsv"
CONSTANTS = REPO / "android/kus/constants.h"
XS = "{http://www.w3.org/2001/XMLSchema}"
COLUMNS = 6
# What xmllint ends with.
VERDICTS = {0: "valid", 1: "malformed", 3: "invalid"}
ESCAPES = {"n": "\n", "r": "\r", "t": "\t", "\\": "\\"}

# The kinds of difference, each with its reason; the schema's head tells what they are.
REFUSED_BY_SCHEMA = {
    "default-content": "A schema of this version cannot make content depend on an attribute.",
    "half-text": "A schema sees the whole text of an element.",
    "large-id": "No device has such an id: the rule is a mistake.",
    "lenient-library": "A schema judges well-formed XML alone.",
    "namespace": "To a schema it is another element.",
    "other-attribute": "It would be skipped in silence: a pid where none is read.",
    "other-product": "It is a mistake, even where it is a number.",
    "skipped-element": "It would be skipped in silence: a misspelt pid, and all products match.",
    "skipped-text": "It would be skipped in silence: a product that stands in the vid itself.",
}
TAKEN_BY_SCHEMA = {
    "doctype-content": "Entities are replaced before a schema sees the text.",
    "other-encoding": "A schema sees characters.",
    "processing-instruction": "A schema does not see them.",
    "split-text": "A schema sees the whole text of an element.",
}


class PolicyFile(NamedTuple):
    name: str
    accepted: bool
    schema: str
    difference: str
    document: bytes


def unescaped(text: str) -> bytes:
    def byte(found: re.Match[str]) -> str:
        escape = found.group(1)
        return chr(int(escape[1:], 16)) if escape.startswith("x") else ESCAPES[escape]

    return re.sub(r"\\(x[0-9A-Fa-f]{2}|.)", byte, text).encode("latin-1")


def policy_files() -> list[PolicyFile]:
    files = []
    for line in TABLE.read_text(encoding="ascii").removesuffix("\n").split("\n"):
        if line.startswith("#"):
            continue
        cells = line.split("\t")
        if len(cells) != COLUMNS:
            raise ValueError(f"{len(cells)} columns: {line}")
        name, outcome, _, schema, difference, document = cells
        files.append(PolicyFile(name, outcome == "SUCCESS", schema, difference,
                                unescaped(document)))
    return files


def validate(paths: list[Path]) -> list[tuple[str, str]]:
    """The verdict on each file, and what xmllint says of it."""
    verdicts = []
    for path in paths:
        # Entities replaced, as every validator but this one does by itself.
        result = subprocess.run(
            ["xmllint", "--nonet", "--noent", "--noout", "--schema", SCHEMA, path],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, errors="replace", timeout=60, check=False,
        )
        verdict = VERDICTS.get(result.returncode, f"xmllint ended with {result.returncode}")
        verdicts.append((verdict, result.stdout))
    return verdicts


def schema_tree() -> ElementTree.Element:
    return ElementTree.parse(SCHEMA).getroot()


def documentation(node: ElementTree.Element) -> str:
    return node.findtext(f"{XS}annotation/{XS}documentation", "").strip()


def class_names() -> tuple[set[str], set[str]]:
    """The names that rules may use, and those that they may not, from the daemon's source."""
    source = CONSTANTS.read_text()
    table = re.search(r"usbClassTable\[\] = \{\n(.*?)\n\};", source, re.DOTALL)
    restricted = re.search(r"restrictedClasses = \{([^}]*)\};", source)
    assert table and restricted
    codes = {name: int(code, 0)
             for name, code in re.findall(r'\{"(\w+)", (\w+)\}', table.group(1))}
    hidden = {int(code, 0) for code in restricted.group(1).split(",")}
    return ({name for name, code in codes.items() if code not in hidden},
            {name for name, code in codes.items() if code in hidden})


class Verdicts(unittest.TestCase):
    def test_the_schema_makes_of_each_file_what_the_table_tells(self) -> None:
        files = policy_files()
        self.assertGreaterEqual(len(files), 150)
        with tempfile.TemporaryDirectory() as folder:
            paths = [Path(folder) / f"{number}.xml" for number in range(len(files))]
            for file, path in zip(files, paths):
                path.write_bytes(file.document)
            for file, (verdict, output) in zip(files, validate(paths)):
                with self.subTest(file=file.name):
                    self.assertEqual(file.schema, verdict, output)

    def test_the_examples_are_valid(self) -> None:
        examples = sorted((REPO / "docs/examples").glob("*.xml"))
        self.assertTrue(examples)
        for path, (verdict, output) in zip(examples, validate(examples)):
            with self.subTest(example=path.name):
                self.assertEqual("valid", verdict, output)


class Differences(unittest.TestCase):
    def test_every_difference_is_of_one_listed_kind(self) -> None:
        for file in policy_files():
            with self.subTest(file=file.name):
                valid = file.schema == "valid"
                if file.accepted == valid:
                    self.assertEqual("-", file.difference)
                else:
                    self.assertIn(file.difference,
                                  REFUSED_BY_SCHEMA if file.accepted else TAKEN_BY_SCHEMA)

    def test_every_kind_occurs(self) -> None:
        self.assertEqual({*REFUSED_BY_SCHEMA, *TAKEN_BY_SCHEMA, "-"},
                         {file.difference for file in policy_files()})

    def test_only_what_is_no_xml_is_laid_on_the_library(self) -> None:
        for file in policy_files():
            with self.subTest(file=file.name):
                if file.difference == "lenient-library":
                    self.assertEqual("malformed", file.schema)
                elif file.difference != "-":
                    self.assertNotEqual("malformed", file.schema)

    def test_the_schema_tells_of_every_kind(self) -> None:
        text = documentation(schema_tree())
        parts = text.split("The daemon refuses, and this schema takes:")
        self.assertEqual(2, len(parts))
        for part, kinds in zip(parts, (REFUSED_BY_SCHEMA, TAKEN_BY_SCHEMA)):
            self.assertEqual(sorted(kinds), sorted(re.findall(r"^ *([a-z-]+): ", part, re.M)))


class Content(unittest.TestCase):
    def test_the_names_are_those_that_the_daemon_takes(self) -> None:
        taken, restricted = class_names()
        self.assertEqual((23, 6), (len(taken), len(restricted)))
        listed = [node.get("value") for node in schema_tree().iterfind(
            f"{XS}simpleType[@name='ClassName']//{XS}enumeration")]
        self.assertEqual(len(listed), len(set(listed)))
        self.assertEqual(taken, set(listed))

    def test_an_editor_can_explain_all_that_may_be_written(self) -> None:
        kinds = [f"{XS}{kind}" for kind in ("element", "attribute", "enumeration")]
        nodes = [node for node in schema_tree().iter() if node.tag in kinds]
        self.assertEqual(4 + 2 + 3 + 23, len(nodes))
        for node in nodes:
            with self.subTest(node=node.get("name") or node.get("value")):
                self.assertTrue(documentation(node))


if __name__ == "__main__":
    unittest.main()
