# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""Builds and runs the tests; the second half of ./test.

Six suites: "lint" (formatting, static analysis, the two builds' lists), "unit" (googletest, each
test in a sandbox of its own), "race" (those of many threads once more, with the thread sanitizer),
"fuzz" (the fuzz targets over their inputs), "bench" (whether the benchmarks work; never a time) and
"vm" (unittest, in the virtual terminal). A test that did not run has failed: a missing result, an
empty suite and a broken build all count.
"""

from __future__ import annotations

import concurrent.futures
import json
import os
import re
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import Callable, Iterable, NamedTuple

REPO = Path(__file__).resolve().parent.parent
BUILD = REPO / "build"
RESULTS = BUILD / "results"
SUITES = ("bench", "fuzz", "lint", "race", "unit", "vm")
WORKERS = 2
# A storm takes as many times two to five minutes.
MODULE_TIMEOUT = max(1500, 400 * int(os.environ.get("KUS_STORM_FACTOR", "1")))


class Outcome(NamedTuple):
    """What became of one test."""

    name: str
    passed: bool
    detail: str


def step(text: str) -> None:
    print(f"==> {text}", flush=True)


def run(command: list[str | Path], timeout: float = 600) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [str(word) for word in command],
        cwd=REPO,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        timeout=timeout,
        check=False,
    )


def command_outcome(name: str, command: list[str | Path]) -> Outcome:
    result = run(command)
    return Outcome(name, result.returncode == 0, result.stdout)


def tracked(*patterns: str) -> list[str]:
    """The project's files: those of the folder that git does not ignore."""
    result = run(["git", "ls-files", "--cached", "--others", "--exclude-standard", *patterns])
    return sorted(name for name in set(result.stdout.splitlines()) if (REPO / name).is_file())


def shell_scripts() -> list[str]:
    def is_script(name: str) -> bool:
        with open(REPO / name, "rb") as file:
            first = file.readline()
        return first.startswith(b"#!") and b"sh" in first

    return [name for name in tracked() if is_script(name)]


def build(kind: str) -> Outcome:
    started = time.monotonic()
    result = run(["host/build", kind], timeout=3000)
    step(f"built {kind} in {time.monotonic() - started:.0f} s")
    return Outcome(f"build.{kind}", result.returncode == 0, result.stdout[-20000:])


# --- lint ----------------------------------------------------------------------------------------


# The builds that compile the sources of a folder; all others are in the first of the three.
DATABASES = {"": "asan", "tests/fuzz": "fuzz", "benchmarks": "release"}


def database_of(source: str) -> Path:
    return BUILD / DATABASES.get(str(Path(source).parent), DATABASES[""])


def tidy(source: str) -> Outcome:
    command: list[str | Path] = ["clang-tidy-14", "--quiet", "-p", database_of(source), source]
    # The path analysis of what googletest's macros unfold to takes a minute a file.
    if source.endswith("_test.cpp"):
        command.append("--checks=-clang-analyzer-*")
    return command_outcome(f"lint.clang-tidy.{source}", command)


def compiled_sources() -> list[str]:
    """The project's own, each of which is checked as one build compiles it."""
    sources: set[str] = set()
    for kind in DATABASES.values():
        database = BUILD / kind
        commands = json.loads((database / "compile_commands.json").read_text())
        files = {Path(entry["file"]).resolve() for entry in commands}
        own = {str(f.relative_to(REPO)) for f in files if not f.is_relative_to(BUILD)}
        sources |= {source for source in own if database_of(source) == database}
    return sorted(sources)


# Of files that no compiler reads.
FILE_TESTS = ("admin_guide", "build_files", "completion", "diagram", "frozen_interface", "init_rc",
              "integration_guide", "manual", "schema", "sepolicy")


def file_test(name: str) -> Outcome:
    # Debian's own: another one does not see python3-setools.
    return command_outcome(
        f"lint.{name.replace('_', '-')}",
        ["/usr/bin/python3", "-m", "unittest", "-q", f"tests/{name}_test.py"],
    )


def lint_checks() -> list[Callable[[], Outcome]]:
    formatted = tracked("*.cpp", "*.h")
    checks: list[Callable[[], Outcome]] = [
        lambda: command_outcome(
            "lint.clang-format", ["clang-format-14", "--dry-run", "-Werror", *formatted]
        ),
        lambda: command_outcome("lint.shellcheck", ["shellcheck", "-x", *shell_scripts()]),
    ]
    checks += [lambda name=name: file_test(name) for name in FILE_TESTS]
    checks += [lambda source=source: tidy(source) for source in compiled_sources()]
    return checks


def run_lint(wanted: Callable[[str], bool]) -> Iterable[Outcome]:
    step("checking style")
    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        outcomes = list(pool.map(lambda check: check(), lint_checks()))
    return [outcome for outcome in outcomes if wanted(outcome.name)]


# --- unit ----------------------------------------------------------------------------------------


def ctest_outcome(suite: str, case: ElementTree.Element) -> Outcome:
    # ctest writes "run" for a test that ran and passed, and something else for every other fate.
    passed = case.get("status") == "run"
    output = case.findtext("system-out") or ""
    return Outcome(f"{suite}.{case.get('name')}", passed, output)


def run_ctest(suite: str, kind: str, *options: str) -> list[Outcome]:
    report = RESULTS / f"{suite}.xml"
    report.unlink(missing_ok=True)
    started = time.monotonic()
    result = run(
        ["ctest", "--test-dir", BUILD / kind, "-j", str(WORKERS), "--output-junit", report,
         *options],
        timeout=1800,
    )
    step(f"{suite}: {time.monotonic() - started:.0f} s")
    if not report.exists():
        return [Outcome(f"{suite}.ctest", False, result.stdout)]
    cases = ElementTree.parse(report).iter("testcase")
    outcomes = [ctest_outcome(suite, case) for case in cases]
    return outcomes or [Outcome(f"{suite}.ctest", False, "no test was found\n" + result.stdout)]


def run_unit(wanted: Callable[[str], bool]) -> Iterable[Outcome]:
    step("running the unit tests")
    return [outcome for outcome in run_ctest("unit", "asan") if wanted(outcome.name)]


def run_race(wanted: Callable[[str], bool]) -> Iterable[Outcome]:
    step("running the tests of many threads with the thread sanitizer")
    outcomes = run_ctest("race", "tsan", "--label-regex", "^race$")
    return [outcome for outcome in outcomes if wanted(outcome.name)]


# --- fuzz ----------------------------------------------------------------------------------------


def fuzz_targets() -> list[str]:
    return sorted(folder.name for folder in (REPO / "tests/fuzz/corpus").iterdir())


def fuzz(target: str, long: bool) -> Outcome:
    """Runs a target over its committed inputs and on from there, a minute or just a moment."""
    name = f"fuzz.{target}"
    inputs = REPO / "tests/fuzz/corpus" / target
    dictionary = REPO / f"tests/fuzz/{target}.dict"
    finds, artifacts = (BUILD / "fuzz" / f"{kind}-{target}" for kind in ("corpus", "artifacts"))
    for folder in (finds, artifacts):
        folder.mkdir(parents=True, exist_ok=True)
    # The short run is the same each time, and so learns nothing from the long ones.
    flags = ["-max_total_time=60", "/finds"] if long else ["-max_total_time=4", "-runs=20000",
                                                           "-seed=1"]
    if dictionary.exists():
        flags.append(f"-dict={dictionary}")
    result = run(
        ["tests/sandbox", "--bind", finds, "/finds", "--bind", artifacts, "/artifacts",
         BUILD / "fuzz/tests/fuzz" / target, "-timeout=60", "-print_final_stats=1",
         "-artifact_prefix=/artifacts/", *flags, inputs],
    )
    output = result.stdout.replace("/artifacts/", f"{artifacts.relative_to(REPO)}/")
    found = re.search(r"^stat::number_of_executed_units: (\d+)$", output, re.MULTILINE)
    executions = int(found.group(1)) if found else 0
    step(f"{name}: {executions} executions")
    passed = result.returncode == 0 and executions >= len(list(inputs.iterdir()))
    return Outcome(name, passed, output)


def run_fuzz(wanted: Callable[[str], bool], long: bool) -> Iterable[Outcome]:
    step("running the fuzz targets")
    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        targets = [target for target in fuzz_targets() if wanted(f"fuzz.{target}")]
        return list(pool.map(lambda target: fuzz(target, long), targets))


# --- bench ---------------------------------------------------------------------------------------


def run_bench(wanted: Callable[[str], bool], quick: bool) -> Iterable[Outcome]:
    step("running the benchmarks, as short as possible")
    sections = ["scan", "decide", "parse"] + ([] if quick else ["vm"])
    sections = [section for section in sections if wanted(f"bench.{section}")]
    if not sections:
        return []
    started = time.monotonic()
    output = run(["./bench", "--smoke", *sections], timeout=3000).stdout
    step(f"bench: {time.monotonic() - started:.0f} s")
    return [
        Outcome(f"bench.{section}",
                re.search(rf"^section {section} worked", output, re.MULTILINE) is not None, output)
        for section in sections
    ]


# --- vm ------------------------------------------------------------------------------------------


def run_vm_module(module: str) -> list[Outcome]:
    """Runs one file of tests in a process of its own and reads what it says of each test."""
    name = Path(module).stem
    report = RESULTS / f"{name}.json"
    report.unlink(missing_ok=True)
    started = time.monotonic()
    try:
        result = run([sys.executable, "tests/vm/run_module.py", module, report],
                     timeout=MODULE_TIMEOUT)
        output = result.stdout
    except subprocess.TimeoutExpired as error:
        output = f"timed out\n{error.output}"
    step(f"{name}: {time.monotonic() - started:.0f} s")
    for figure in re.findall(r"^figure: (.*)$", output, re.MULTILINE):
        step(figure)
    if not report.exists():
        return [Outcome(f"vm.{name}", False, output)]
    outcomes = [Outcome(f"vm.{entry['name']}", entry["passed"], entry["detail"])
                for entry in json.loads(report.read_text())]
    return outcomes or [Outcome(f"vm.{name}", False, "no test was found\n" + output)]


def run_vm(wanted: Callable[[str], bool], modules: list[str]) -> Iterable[Outcome]:
    step("running the tests in the virtual terminal")
    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        outcomes = [o for batch in pool.map(run_vm_module, modules) for o in batch]
    return [outcome for outcome in outcomes if wanted(outcome.name)]


# --- all -----------------------------------------------------------------------------------------


def report(outcomes: list[Outcome]) -> int:
    failures = [outcome for outcome in outcomes if not outcome.passed]
    for outcome in failures:
        print(f"\n--- FAILED: {outcome.name}\n{outcome.detail[-20000:]}")
    print(f"\n{len(outcomes) - len(failures)} passed, {len(failures)} failed", flush=True)
    return 1 if failures or not outcomes else 0


def main(arguments: list[str]) -> int:
    os.environ.setdefault("PYTHONDONTWRITEBYTECODE", "1")
    RESULTS.mkdir(parents=True, exist_ok=True)
    quick = "--quick" in arguments
    names = [argument for argument in arguments if not argument.startswith("--")]

    def wanted(name: str) -> bool:
        return not names or any(part in name for part in names)

    # Names of modules alone need no more than those to be run.
    modules = list(tracked("tests/vm/test_*.py"))
    named = [m for m in modules if any(part in Path(m).stem for part in names)]
    only_modules = bool(names) and all(any(part in Path(m).stem for m in modules)
                                       for part in names)

    def suite_wanted(suite: str) -> bool:
        if only_modules:
            return suite == "vm"
        return not names or any(suite in part or part not in SUITES
                                for part in names)

    # A machine's first boot and a build want the same two cores: one thing after the other.
    only_fuzz = names == ["fuzz"]
    needs_builds = names not in (["bench"], ["fuzz"], ["race"])
    kinds = ["native", "asan"] + ([] if quick else ["arm64"]) if needs_builds else []
    if suite_wanted("fuzz") or suite_wanted("lint"):
        kinds.append("fuzz")
    if suite_wanted("lint"):
        kinds.append("release")
    if suite_wanted("race"):
        kinds.append("tsan")
    builds = [build(kind) for kind in kinds]
    if not all(outcome.passed for outcome in builds):
        return report(builds)

    outcomes = builds if not names else []
    if suite_wanted("unit"):
        outcomes += run_unit(wanted)
    if suite_wanted("race"):
        outcomes += run_race(wanted)
    if suite_wanted("fuzz"):
        outcomes += run_fuzz(wanted, long=only_fuzz)
    if suite_wanted("lint"):
        outcomes += run_lint(wanted)
    if suite_wanted("bench"):
        outcomes += run_bench(wanted, quick)
    if not quick and suite_wanted("vm"):
        outcomes += run_vm(wanted, named if only_modules else modules)
    return report(outcomes)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
