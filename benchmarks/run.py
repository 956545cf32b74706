#!/usr/bin/env python3
# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks; the second half of ./bench.

Each section ends up in build/bench/SECTION.json and in a table: what was measured ("figures"), and
the ratios that are to stay below a limit ("targets"). A ratio compares what one run measured in
turns, by the medians of its repetitions, in processor time: nothing here waits for anything but the
processor, and other programs' turns on it are not the product's. The last lines tell each target:

    target NAME VALUE LIMIT met|missed

The exit status tells whether everything ran, not what was met.
"""

from __future__ import annotations

import argparse
import json
import math
import re
import statistics
import subprocess
import sys
import time
from collections import Counter
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
if str(ROOT) not in sys.path:
    sys.path.insert(0, str(ROOT))

PROGRAMS = ROOT / "build/release/benchmarks"
RESULTS = ROOT / "build/bench"
SIZES = (10, 100, 1000)
CASES = ("class", "vendor", "pair", "miss")
SHAPES = ("single", "ten")
# The product with its messages switched off, and as it ships.
SEVERITIES = ("", "_info")
CALLS_DEVICES = 100
SCANS = ("rescan", "bare", "bare_at")

LIMITS = {
    "scan": {
        **{f"scan_{size}_over_bare{severity}": 1.10 for severity in SEVERITIES for size in SIZES},
        **{f"scan_1000_over_100{severity}": 11.0 for severity in SEVERITIES},
    },
    "decide": {
        **{f"decide_{size}_over_10{severity}": 2.0
           for severity in SEVERITIES for size in (1000, 100000)},
        "lookup_allocations": 0.0,
        "info_off_over_none": 1.05,
    },
    "parse": {
        **{f"parse_over_load{severity}": 1.50 for severity in SEVERITIES},
        "parse_memory_kept": 0.10,
    },
    "vm": {
        **{f"scan_over_libudev{severity}": 0.50 for severity in SEVERITIES},
        **{f"binder_input_over_empty{severity}": 1.30 for severity in SEVERITIES},
    },
}


class SectionFailed(Exception):
    """A program did not run to its end, or did not measure what it should have."""


@dataclass
class Effort:
    """How long a program of benchmarks measures."""

    repetitions: int
    seconds: float


SMOKE = Effort(1, 0.001)


def results(smoke: bool) -> Path:
    """A short run leaves alone what a real one has measured."""
    return RESULTS / "smoke" if smoke else RESULTS


@dataclass
class Report:
    """What a section found out; the form of its JSON file."""

    section: str
    figures: dict[str, tuple[float, str]] = field(default_factory=dict)
    targets: dict[str, tuple[float, float]] = field(default_factory=dict)

    def add(self, name: str, value: float, unit: str) -> None:
        self.figures[name] = (value, unit)

    def aim(self, name: str, value: float) -> None:
        self.targets[name] = (value, LIMITS[self.section][name])

    def write(self, path: Path) -> None:
        text = json.dumps({
            "figures": [{"name": name, "value": value, "unit": unit}
                        for name, (value, unit) in self.figures.items()],
            "targets": [{"name": name, "value": value, "limit": limit}
                        for name, (value, limit) in self.targets.items()],
        }, indent=2)
        path.write_text(text + "\n")

    @staticmethod
    def read(section: str, path: Path) -> Report:
        found = json.loads(path.read_text())
        return Report(
            section,
            {entry["name"]: (entry["value"], entry["unit"]) for entry in found["figures"]},
            {entry["name"]: (entry["value"], entry["limit"]) for entry in found["targets"]},
        )

    def check(self) -> None:
        """A number for everything, and a line for each target."""
        limits = {name: limit for name, (_, limit) in self.targets.items()}
        if limits != LIMITS[self.section]:
            raise SectionFailed(f"targets {limits} instead of {LIMITS[self.section]}")
        values = [value for value, _ in (*self.figures.values(), *self.targets.values())]
        if not self.figures or not all(math.isfinite(value) for value in values):
            raise SectionFailed("something was not measured")


# --- programs ------------------------------------------------------------------------------------


def sandboxed(*command: str | Path) -> str:
    """The output of a command in a sandbox of its own."""
    result = subprocess.run(
        [ROOT / "tests/sandbox", *command],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        text=True, errors="replace", timeout=600, check=False,
    )
    if result.returncode != 0:
        words = " ".join(str(word) for word in command)
        raise SectionFailed(f"{words}: status {result.returncode}\n{result.stderr[-4000:]}")
    return result.stdout


def natural(name: str) -> list[tuple[bool, int, str]]:
    """The order of names in which 1000 comes behind 200."""
    return [(part.isdigit(), int(part) if part.isdigit() else 0, part) for part in name.split("/")]


class Measured:
    """What the repetitions of each benchmark took, in nanoseconds, and what they counted."""

    def __init__(self) -> None:
        self.times: dict[str, list[float]] = {}
        self.allocations: dict[str, float] = {}

    def run(self, program: str, effort: Effort, pattern: str = ".") -> None:
        """Runs a program's benchmarks in turns, and adds their times to those there are."""
        output = sandboxed(
            PROGRAMS / program,
            "--benchmark_format=json",
            f"--benchmark_filter={pattern}",
            f"--benchmark_min_time={effort.seconds}",
            f"--benchmark_repetitions={effort.repetitions}",
            "--benchmark_enable_random_interleaving=true",
        )
        for run in json.loads(output)["benchmarks"]:
            if run["run_type"] != "iteration":
                continue
            if run.get("error_occurred") or run["time_unit"] != "ns" or run["cpu_time"] <= 0:
                raise SectionFailed(f"{run['name']}: {run}")
            self.times.setdefault(run["name"], []).append(run["cpu_time"])
            if "allocations" in run:
                self.allocations[run["name"]] = run["allocations"]

    def median(self, name: str) -> float:
        if name not in self.times:
            raise SectionFailed(f"{name} did not run")
        return statistics.median(self.times[name])

    def ratio(self, name: str, base: str) -> float:
        return self.median(name) / self.median(base)

    def tell(self, report: Report) -> None:
        # They ran in random order.
        for name in sorted(self.times, key=natural):
            report.add(name, self.median(name), "ns")


# --- scan ----------------------------------------------------------------------------------------


def traced_calls(scan: str, times: int) -> Counter[str]:
    """The system calls of a process that scans so many times."""
    script = '"$0" tree "$2" && exec strace -c -U name,calls -o /dev/stdout "$0" "$1" "$2" "$3"'
    output = sandboxed("/bin/sh", "-c", script, PROGRAMS / "scan_calls", scan,
                       str(CALLS_DEVICES), str(times))
    calls = {name: int(count) for name, count in re.findall(r"^(\w+) +(\d+)$", output, re.MULTILINE)
             if name != "total"}
    if not calls:
        raise SectionFailed(f"strace counted nothing\n{output}")
    return Counter(calls)


def calls_of(scan: str) -> Counter[str]:
    """Of one scan, but for what a process does once."""
    once, twice = (traced_calls(scan, times) for times in (1, 2))
    twice.subtract(once)
    return Counter({name: count for name, count in twice.items() if count != 0})


def add_calls(report: Report) -> None:
    calls = {scan: calls_of(scan) for scan in SCANS}
    names = sorted(set().union(*calls.values()))
    for scan, counter in calls.items():
        for name in names:
            report.add(f"calls/{CALLS_DEVICES}/{scan}/{name}", counter[name], "calls")
        report.add(f"calls/{CALLS_DEVICES}/{scan}", sum(counter.values()), "calls")


def measure_scan(smoke: bool) -> Report:
    report = Report("scan")
    measured = Measured()
    measured.run("scan_benchmark", SMOKE if smoke else Effort(41, 0.02))
    measured.tell(report)
    for severity in SEVERITIES:
        for size in SIZES:
            rescan = f"rescan{severity}/{size}"
            report.add(f"scan_{size}_over_bare_at{severity}",
                       measured.ratio(rescan, f"bare_at/{size}"), "ratio")
            report.aim(f"scan_{size}_over_bare{severity}",
                       measured.ratio(rescan, f"bare/{size}"))
        report.aim(f"scan_1000_over_100{severity}",
                   measured.ratio(f"rescan{severity}/1000", f"rescan{severity}/100"))
    add_calls(report)
    return report


# --- decide --------------------------------------------------------------------------------------


def info_off_over_none(smoke: bool, report: Report) -> float:
    """A decision whose INFO messages are off, over one without; two programs, in turns."""
    programs = {"decide_benchmark": Measured(), "decide_no_info_benchmark": Measured()}
    for _ in range(1 if smoke else 20):
        for program, measured in programs.items():
            measured.run(program, SMOKE if smoke else Effort(1, 0.03), "^decide/.*/1000$")
    sums = {}
    for program, measured in programs.items():
        medians = [measured.median(f"decide/{case}/1000") for case in CASES]
        sums[program] = sum(medians)
        report.add(f"mean of decide/*/1000 in {program}", statistics.mean(medians), "ns")
    return sums["decide_benchmark"] / sums["decide_no_info_benchmark"]


def measure_decide(smoke: bool) -> Report:
    report = Report("decide")
    measured = Measured()
    measured.run("decide_benchmark", SMOKE if smoke else Effort(41, 0.005))
    measured.tell(report)
    for severity in SEVERITIES:
        for size in (1000, 100000):
            worst = max(measured.ratio(f"decide{severity}/{case}/{size}",
                                       f"decide{severity}/{case}/10") for case in CASES)
            report.aim(f"decide_{size}_over_10{severity}", worst)
    lookups = {name for name in measured.times if name.startswith("lookup/")}
    if not lookups or measured.allocations.keys() != lookups:
        raise SectionFailed(f"only {sorted(measured.allocations)} counted their allocations")
    report.aim("lookup_allocations", sum(measured.allocations.values()))
    report.aim("info_off_over_none", info_off_over_none(smoke, report))
    return report


# --- parse ---------------------------------------------------------------------------------------


def parse_memory() -> dict[str, int]:
    output = sandboxed(PROGRAMS / "parse_memory")
    return {name: int(count) for name, count in map(str.split, output.splitlines())}


def measure_parse(smoke: bool) -> Report:
    report = Report("parse")
    measured = Measured()
    measured.run("parse_benchmark", SMOKE if smoke else Effort(31, 0.02), "^(load|parse)/")
    # Half a million messages each time.
    measured.run("parse_benchmark", SMOKE if smoke else Effort(7, 0.02), "^(load|parse_info)/")
    measured.tell(report)
    for severity in SEVERITIES:
        worst = max(measured.ratio(f"parse{severity}/{shape}", f"load/{shape}")
                    for shape in SHAPES)
        report.aim(f"parse_over_load{severity}", worst)
    memory = parse_memory()
    for name, count in memory.items():
        report.add(name, count, "bytes")
    grown = memory["resident_peak"] - memory["resident_before"]
    kept = memory["resident_after"] - memory["resident_before"]
    report.aim("parse_memory_kept", max(kept, 0) / grown)
    return report


# --- vm ------------------------------------------------------------------------------------------


def measure_vm(smoke: bool) -> Report:
    # Imported here: it wants what only the virtual terminal needs.
    from benchmarks.vm import vm_bench

    path = results(smoke) / "vm.json"
    path.unlink(missing_ok=True)
    vm_bench.run(smoke, path)
    return Report.read("vm", path)


# --- all -----------------------------------------------------------------------------------------

SECTIONS: dict[str, Callable[[bool], Report]] = {
    "scan": measure_scan,
    "decide": measure_decide,
    "parse": measure_parse,
    "vm": measure_vm,
}


def readable(value: float, unit: str) -> str:
    scales = {
        "ns": ((1e9, "s"), (1e6, "ms"), (1e3, "us"), (1, "ns")),
        "bytes": ((1 << 20, "MiB"), (1 << 10, "KiB"), (1, "B")),
    }
    for factor, name in scales.get(unit, ()):
        if abs(value) >= factor:
            return f"{value / factor:.2f} {name:3}"
    text = f"{value:.0f}" if value == int(value) else f"{value:.3f}"
    return text if unit == "ratio" else f"{text} {unit}"


def print_calls(report: Report) -> None:
    """One row for each system call, one column for each scan."""
    prefix = f"calls/{CALLS_DEVICES}/"
    cells = {name.removeprefix(prefix): value for name, (value, _) in report.figures.items()
             if name.startswith(prefix)}
    if not cells:
        return
    print(f"\n  system calls, {CALLS_DEVICES} devices" +
          "".join(f"{scan:>12}" for scan in SCANS))
    names = [name.split("/")[1] for name in cells if name.startswith(f"{SCANS[0]}/")]
    for name in names:
        print(f"  {name:<25}" + "".join(f"{cells[f'{scan}/{name}']:>12.0f}" for scan in SCANS))
    print(f"  {'all':<25}" + "".join(f"{cells[scan]:>12.0f}" for scan in SCANS))


def print_table(report: Report) -> None:
    rows = {name: readable(*figure) for name, figure in report.figures.items()
            if not name.startswith("calls/")}
    width = max(map(len, rows), default=0)
    column = max(map(len, rows.values()), default=0)
    print(f"\n{report.section}")
    for name, text in rows.items():
        print(f"  {name:<{width}}  {text:>{column}}")
    print_calls(report)


def print_targets(reports: Iterable[Report]) -> None:
    print()
    for report in reports:
        for name, (value, limit) in report.targets.items():
            verdict = "met" if value <= limit else "missed"
            print(f"target {name} {value:.4f} {limit:.2f} {verdict}")


def measure(section: str, smoke: bool) -> Report | None:
    """The section's report, which is written as well; None when it failed."""
    started = time.monotonic()
    try:
        report = SECTIONS[section](smoke)
        report.check()
    except Exception as error:  # one section's failure is not the others'
        print(f"section {section} failed: {type(error).__name__}: {error}", flush=True)
        return None
    report.write(results(smoke) / f"{section}.json")
    print(f"section {section} worked, {time.monotonic() - started:.0f} s", flush=True)
    return report


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description="Runs the benchmarks.")
    parser.add_argument("--smoke", action="store_true", help="as short as possible")
    parser.add_argument("sections", nargs="*", choices=[[], *SECTIONS], metavar="SECTION",
                        help=", ".join(SECTIONS))
    options = parser.parse_args(arguments)
    results(options.smoke).mkdir(parents=True, exist_ok=True)
    wanted = [section for section in SECTIONS if section in (options.sections or SECTIONS)]
    reports = [measure(section, options.smoke) for section in wanted]
    done = [report for report in reports if report is not None]
    for report in done:
        print_table(report)
    print_targets(done)
    return 0 if len(done) == len(wanted) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
