# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""The integrator's guide says what the sources say, its snippets are the examples', and the example
in Java works: it is compiled against what aidl makes of the interface and against stand-ins for the
platform's classes (tests/java_stubs), and run beside daemons of its own process.

The example in C++ is part of the build, and runs in the virtual terminal (tests/vm/test_example.py),
as do the guide's transcripts."""

from __future__ import annotations

import re
import subprocess
import tempfile
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
GUIDE = (REPO / "docs/integration.md").read_text()
INTERFACE = REPO / "android/kus_aidl_interface"
AIDL = sorted((INTERFACE / "android/kus").glob("*.aidl"))
EXAMPLES = {"cpp": REPO / "examples/client.cpp", "java": REPO / "examples/Client.java"}
STUBS = REPO / "tests/java_stubs"
JARS = [Path("/usr/share/java") / name for name in ("junit4.jar", "hamcrest-core.jar")]


def blocks(language: str) -> list[str]:
    return re.findall(rf"^```{language}\n(.*?)^```$", GUIDE, re.MULTILINE | re.DOTALL)


def section(title: str) -> str:
    found = re.search(rf"^## {title}\n(.*?)(?=^## |\Z)", GUIDE, re.MULTILINE | re.DOTALL)
    assert found is not None, title
    return found[1]


def first_column(title: str) -> list[str]:
    return re.findall(r"^\| `([^`]+)` \|", section(title), re.MULTILINE)


def aidl_body(name: str) -> str:
    text = (INTERFACE / f"android/kus/{name}.aidl").read_text()
    return re.sub(r"/\*.*?\*/|//[^\n]*", "", text, flags=re.DOTALL)


def operations(name: str) -> list[str]:
    return re.findall(r"^\s+\S+ (\w+)\(", aidl_body(name), re.MULTILINE)


def fields(name: str) -> list[str]:
    return re.findall(r"(\w+)(?: = \d+)?;$", aidl_body(name).split("{")[1], re.MULTILINE)


def source(path: str) -> str:
    return (REPO / path).read_text()


class Guide(unittest.TestCase):
    def test_its_snippets_are_parts_of_the_examples(self) -> None:
        for language, example in EXAMPLES.items():
            self.assertTrue(blocks(language))
            for block in blocks(language):
                with self.subTest(example=example.name, snippet=block.splitlines()[0]):
                    self.assertIn(f"\n{block}", example.read_text())

    def test_its_tables_have_every_operation_and_field_in_order(self) -> None:
        self.assertEqual(first_column("The service"), operations("IKUsbService"))
        self.assertEqual(first_column("Callbacks"), operations("IKUsbServiceCallback"))
        self.assertEqual(first_column("DeviceInfo"), fields("DeviceInfo"))

    def test_its_table_has_every_property_of_the_sources(self) -> None:
        text = "".join(path.read_text() for path in (REPO / "android/kus").glob("*.cpp"))
        known = set(re.findall(r'"((?:ro|persist)(?:\.\w+)+)"', text))
        self.assertTrue(known)
        self.assertEqual(set(first_column("Properties")), known)

    def test_its_limits_are_the_daemons(self) -> None:
        text = source("android/kus/ku_service.cpp")
        largest = re.search(r"kLargestParcel = (\d+);", text)
        deepest = re.search(r"kDeepestCall = (\d+);", text)
        assert largest is not None and deepest is not None
        said = " ".join(section("The service").split())
        self.assertIn(f"larger than {int(largest[1]) // 1024} KB ({largest[1]} bytes)", said)
        self.assertEqual(deepest[1], "4")
        self.assertIn("The fifth call within four others", said)

    def test_what_it_names_is_there(self) -> None:
        paths = re.findall(r"\b(?:android|docs|examples|tests|tools)/[\w./-]*\w", GUIDE)
        self.assertTrue(paths)
        for path in paths:
            with self.subTest(path=path):
                self.assertTrue((REPO / path).exists())
        for anchor in re.findall(r"\]\(#([\w-]+)\)", GUIDE):
            with self.subTest(anchor=anchor):
                self.assertIn(anchor, [title.lower().replace(" ", "-") for title
                                       in re.findall(r"^## (.*)$", GUIDE, re.MULTILINE)])
        self.assertIn("kusd", (REPO / "android/sepolicy/private/kusd.te").read_text())
        self.assertIn('"Error! Could not open file"', source("android/kus/usbdevice.cpp"))
        self.assertIn('"Error! Could not open file"', section("Verification"))

    def test_it_installs_programs_that_are_built(self) -> None:
        built = {name for path in REPO.glob("**/Android.bp")
                 for name in re.findall(r'^cc_binary \{\n    name: "([^"]+)"', path.read_text(),
                                        re.MULTILINE)}
        lines = re.findall(r"PRODUCT_PACKAGES\w* \+= (.*)", GUIDE)
        self.assertEqual(len(lines), 2)
        for name in " ".join(lines).split():
            self.assertIn(name, built)

    def test_its_directory_user_and_capability_are_those_of_init(self) -> None:
        rc = source("android/kus/kusd.rc")
        step = " ".join(section("In ten steps").split())
        said = re.search(r"`(/data/\S+)`.*in the class `(\w+)`, as user `(\w+)` with the "
                         r"capability `(\w+)` alone", step)
        assert said is not None
        self.assertRegex(rc, rf"(?m)^    mkdir {said[1]} 0770 system system$")
        service = rc[rc.index("service kusd /system/bin/kusd\n"):]
        for option, value in zip(("class", "user", "capabilities"), said.groups()[1:]):
            self.assertRegex(service, rf"(?m)^    {option} {value}$")

    def test_it_has_ten_steps(self) -> None:
        numbers = re.findall(r"^(\d+)\. ", section("In ten steps"), re.MULTILINE)
        self.assertEqual(numbers, [str(number) for number in range(1, 11)])

    def test_its_lines_are_no_wider_than_the_sources_but_for_tables(self) -> None:
        wide = [line for line in GUIDE.splitlines() if len(line) > 100 and line[0] != "|"]
        self.assertEqual(wide, [])


def run(command: list[str | Path]) -> subprocess.CompletedProcess[str]:
    return subprocess.run([str(word) for word in command], cwd=REPO, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=300, check=False)


class JavaExample(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.scratch = Path(scratch.name)
        cls.platform = cls.scratch / "platform"
        generated = cls.scratch / "generated"
        generated.mkdir()
        for path in AIDL:
            made = run(["aidl", "--lang=java", "--structured", "-v", "1", "-I", INTERFACE,
                        "-o", generated, path])
            assert made.returncode == 0, made.stdout
        sources = [*generated.rglob("*.java"), *(STUBS / "android").rglob("*.java")]
        # What aidl makes is not ours to keep free of warnings.
        made = cls.compile(cls.platform, ["-nowarn"], [], sources)
        assert made.returncode == 0, made.stdout

    @classmethod
    def compile(cls, output: Path, options: list[str], classes: list[Path],
                sources: list[Path]) -> subprocess.CompletedProcess[str]:
        path = ":".join(str(entry) for entry in classes) or "."
        return run(["ecj", "-source", "9", "-target", "9", "-proc:none", *options,
                    "-cp", path, "-d", output, *sources])

    def compile_example(self, text: str) -> tuple[Path, subprocess.CompletedProcess[str]]:
        folder = Path(tempfile.mkdtemp(dir=self.scratch))
        (folder / "Client.java").write_text(text)
        made = self.compile(folder / "classes", ["-failOnWarning"], [self.platform, *JARS],
                            [folder / "Client.java", STUBS / "ClientTest.java"])
        return folder / "classes", made

    def run_tests(self, text: str) -> subprocess.CompletedProcess[str]:
        classes, made = self.compile_example(text)
        self.assertEqual((made.returncode, made.stdout), (0, ""))
        path = ":".join(str(entry) for entry in (classes, self.platform, *JARS))
        return run(["java", "-cp", path, "org.junit.runner.JUnitCore",
                    "android.kus.example.ClientTest"])

    def test_it_does_what_it_says(self) -> None:
        tests = (STUBS / "ClientTest.java").read_text().count("@Test\n")
        self.assertGreater(tests, 0)
        result = self.run_tests(EXAMPLES["java"].read_text())
        self.assertEqual(result.returncode, 0, result.stdout)
        self.assertIn(f"\nOK ({tests} tests)\n", result.stdout)

    def test_what_the_interface_does_not_have_is_noticed(self) -> None:
        text = EXAMPLES["java"].read_text()
        for old, new in (("updateDeviceList(", "removeDevice("), ("record.vendorId", "record.vid"),
                         ("isDeviceAllowed(device)", "isDeviceAllowed(device, 1)"),
                         ("onDeviceRemoved(DeviceInfo device)", "onDeviceGone(DeviceInfo device)")):
            with self.subTest(new=new):
                self.assertIn(old, text)
                _, made = self.compile_example(text.replace(old, new))
                self.assertNotEqual(made.returncode, 0)
                self.assertIn("ERROR in", made.stdout)

    def test_what_it_leaves_out_is_noticed(self) -> None:
        text = EXAMPLES["java"].read_text()
        for left_out in ("mService.registerKusCallback(mCallback);",
                         "for (DeviceInfo device : mAttached.values()) ask(device);",
                         'record.categoryPath = "";',
                         "mBinder.unlinkToDeath(mDeath, 0);",
                         "if (candidate.getAlternateSetting() != 0) continue;"):
            with self.subTest(left_out=left_out):
                self.assertIn(left_out, text)
                # The block that catches what a call may throw wants one.
                instead = "mService.getDeviceList();" if "register" in left_out else ""
                result = self.run_tests(text.replace(left_out, instead))
                self.assertNotEqual(result.returncode, 0)
                self.assertIn("FAILURES!!!", result.stdout)


if __name__ == "__main__":
    unittest.main()
