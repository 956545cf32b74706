# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""Runs one file of unittest tests and writes a JSON list of {name, passed, detail}.

A skipped test has not shown what it is there to show: it counts as failed.
"""

from __future__ import annotations

import importlib.util
import json
import sys
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent.parent


class Recorder(unittest.TextTestResult):
    """Keeps one entry for every test, and for a class or module that failed to set up."""

    def __init__(self, *args, **kwargs) -> None:
        super().__init__(*args, **kwargs)
        self.entries: dict[str, dict[str, object]] = {}

    def record(self, test: unittest.TestCase, passed: bool, detail: str = "") -> None:
        name = test.id()
        before = self.entries.get(name, {"passed": True, "detail": ""})
        self.entries[name] = {
            "name": name,
            "passed": passed and before["passed"],
            "detail": f"{before['detail']}{detail}",
        }

    def addSuccess(self, test):
        super().addSuccess(test)
        self.record(test, True)

    def addError(self, test, err):
        super().addError(test, err)
        self.record(test, False, self.errors[-1][1])

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.record(test, False, self.failures[-1][1])

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            self.record(test, False, f"{subtest}: {self._exc_info_to_string(err, test)}")

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.record(test, False, f"skipped: {reason}")


def load(path: Path):
    spec = importlib.util.spec_from_file_location(path.stem, path)
    module = importlib.util.module_from_spec(spec)
    sys.modules[path.stem] = module
    spec.loader.exec_module(module)
    return module


def main(path: str, report: str) -> int:
    sys.path[:0] = [str(REPO), str(REPO / "tests" / "vm")]
    suite = unittest.defaultTestLoader.loadTestsFromModule(load(Path(path).resolve()))
    result = unittest.TextTestRunner(verbosity=2, resultclass=Recorder).run(suite)
    Path(report).write_text(json.dumps(list(result.entries.values())))
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
