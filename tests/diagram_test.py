# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""The diagram of the documents is what its source draws, and names what there is."""

from __future__ import annotations

import os
import re
import subprocess
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
SOURCE = REPO / "docs/data_way.dot"
DIAGRAM = REPO / "docs/data_way.svg"
INTERFACE = REPO / "android/kus_aidl_interface/android/kus"


def drawn(source: str) -> str:
    environment = {**os.environ, "FONTCONFIG_FILE": str(REPO / "docs/fonts.conf")}
    result = subprocess.run(["dot", "-Tsvg"], input=source, env=environment, capture_output=True,
                            text=True, check=True)
    return result.stdout


def without_comments(svg: str) -> str:
    """The program's version stands in one."""
    return re.sub(r"<!--.*?-->\n?", "", svg, flags=re.DOTALL)


class Diagram(unittest.TestCase):
    def test_it_is_what_its_source_draws(self) -> None:
        diagram = without_comments(DIAGRAM.read_text())
        source = SOURCE.read_text()
        self.assertEqual(diagram, without_comments(drawn(source)),
                         "draw it again: data_way.dot says how")
        # One word less is another diagram.
        self.assertIn('label="uevent"', source)
        self.assertNotEqual(diagram,
                            without_comments(drawn(source.replace('label="uevent"', 'label=""'))))

    def test_the_calls_in_it_are_those_of_the_interface(self) -> None:
        text = re.sub(r"&#160;|-|\\[nlr]", "", SOURCE.read_text())
        calls = set(re.findall(r"(\w+)\(\)", text))
        declared = "".join(file.read_text() for file in INTERFACE.glob("*.aidl"))
        self.assertEqual(calls, {"isDeviceAllowed", "onDeviceAdded"})
        for call in calls:
            self.assertRegex(declared, rf"\b{call}\(")

    def test_the_architecture_document_shows_it(self) -> None:
        text = (REPO / "docs/architecture.md").read_text()
        self.assertRegex(text, rf"!\[[^\]]+\]\({DIAGRAM.name}\)")


if __name__ == "__main__":
    unittest.main()
