# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

"""The SELinux policy, compiled with what it needs of a platform (tests/sepolicy), and questioned.

Who may do what is read from the compiled policy, with all macros and attributes resolved. What the
policy names (paths, service, properties, capabilities) is compared with the sources. The last test
breaks copies of the policy in every way that matters, and wants these tests to notice.

Debian's python has setools, so this is for /usr/bin/python3.
"""

from __future__ import annotations

import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path
from typing import Iterable, NamedTuple, Optional

import setools

REPO = Path(__file__).resolve().parent.parent
SOURCES = REPO / "android/kus"
POLICY = REPO / "android/sepolicy"
PLATFORM = REPO / "tests/sepolicy"
VARIANTS = ("user", "userdebug")
VERSION = "30"

WRITES = frozenset(("append", "create", "link", "rename", "setattr", "unlink", "write"))
DIRECTORY_WRITES = WRITES | {"add_name", "remove_name", "reparent", "rmdir"}
TOOLS_DOMAINS: dict[str, set[str]] = {"user": set(), "userdebug": {"shell"}}

# All that kusd may touch, beside what every domain may.
TOUCHED = {
    ("dumpstate", "binder"): {"transfer"},
    ("dumpstate", "fd"): {"use"},
    ("dumpstate", "fifo_file"): {"getattr", "write"},
    ("init", "process"): {"sigchld"},
    ("init", "unix_stream_socket"): {"connectto"},
    ("kus_automation_prop", "file"): {"getattr", "map", "open", "read"},
    ("kus_config_data_file", "dir"): {"add_name", "getattr", "ioctl", "lock", "open", "read",
                                      "search", "watch", "watch_reads", "write"},
    ("kus_config_data_file", "file"): {"append", "create", "getattr", "ioctl", "lock", "map",
                                       "open", "read", "watch", "watch_reads", "write"},
    ("kus_monitor_prop", "file"): {"getattr", "map", "open", "read"},
    ("kus_monitor_prop", "property_service"): {"set"},
    ("kus_service", "service_manager"): {"add", "find"},
    ("kusd", "capability"): {"dac_override"},
    ("kusd", "cap_userns"): {"dac_override"},
    ("kusd_exec", "file"): {"entrypoint", "execute", "getattr", "map", "open", "read"},
    ("kusd_tmpfs", "file"): {"getattr", "map", "read", "write"},
    ("property_socket", "sock_file"): {"write"},
    ("servicemanager", "binder"): {"call", "transfer"},
    ("sysfs", "dir"): {"getattr", "ioctl", "lock", "open", "read", "search", "watch",
                       "watch_reads"},
    ("sysfs", "lnk_file"): {"getattr", "ioctl", "lock", "map", "open", "read", "watch",
                            "watch_reads"},
    ("sysfs_batteryinfo", "dir"): {"getattr", "ioctl", "lock", "open", "read", "search", "watch",
                                   "watch_reads"},
    ("sysfs_batteryinfo", "file"): {"getattr", "ioctl", "lock", "map", "open", "read", "watch",
                                    "watch_reads"},
    ("sysfs_batteryinfo", "lnk_file"): {"getattr", "ioctl", "lock", "map", "open", "read", "watch",
                                        "watch_reads"},
    ("sysfs_kus_usb", "dir"): {"getattr", "ioctl", "lock", "open", "read", "search", "watch",
                               "watch_reads"},
    ("sysfs_kus_usb", "file"): {"append", "getattr", "ioctl", "lock", "map", "open", "read",
                                "watch", "watch_reads", "write"},
    ("sysfs_kus_usb", "lnk_file"): {"getattr", "ioctl", "lock", "map", "open", "read", "watch",
                                    "watch_reads"},
    ("system_app", "binder"): {"call", "transfer"},
    ("system_app", "fd"): {"use"},
    ("system_data_file", "dir"): {"search"},
    ("system_data_root_file", "dir"): {"search"},
    ("system_server", "binder"): {"call", "transfer"},
    ("system_server", "fd"): {"use"},
}
TOUCHED_WITH_TOOLS = {
    **TOUCHED,
    ("shell", "binder"): {"call", "transfer"},
    ("shell", "fd"): {"use"},
    ("shell", "fifo_file"): {"getattr", "write"},
}


class Rule(NamedTuple):
    """One right."""

    source: str
    target: str
    object_class: str
    permission: str


class Refused(Exception):
    """The compiler did not take a policy; its message."""


class Policy:
    """A compiled policy of one build variant."""

    def __init__(self, source: str, scratch: Path) -> None:
        self.binary = compile_policy(source, scratch)
        compiled = setools.SELinuxPolicy(str(self.binary))
        self.types = {str(name) for name in compiled.types()}
        self.permissive = {str(name) for name in compiled.types() if name.ispermissive}
        self.members = {str(a): {str(name) for name in a.expand()}
                        for a in compiled.typeattributes()}
        rules = [rule for rule in compiled.terules()
                 if rule.ruletype == setools.TERuletype.allow]
        self.rules = {Rule(str(one.source), str(one.target), str(one.tclass), str(permission))
                      for rule in rules for one in rule.expand() for permission in rule.perms}
        # What stands for an attribute that the daemon is in is every domain's.
        own = [rule for rule in rules if str(rule.source) == "kusd"]
        self.own = {Rule("kusd", str(one.target), str(one.tclass), str(permission))
                    for rule in own for one in rule.expand() for permission in rule.perms}
        self.labelled = {str(entry.path): str(entry.context) for entry in compiled.genfscons()
                         if entry.fs == "sysfs"}

    def who_may(self, permissions: str | Iterable[str], target: str, object_class: str) -> set[str]:
        wanted = {permissions} if isinstance(permissions, str) else set(permissions)
        return {rule.source for rule in self.rules if rule.target == target
                and rule.object_class == object_class and rule.permission in wanted}

    def what_may(self, source: str, permissions: str | Iterable[str],
                 object_class: str) -> set[str]:
        wanted = {permissions} if isinstance(permissions, str) else set(permissions)
        return {rule.target for rule in self.rules if rule.source == source
                and rule.object_class == object_class and rule.permission in wanted}


def assemble(folder: Path, variant: str, extra: str = "", platform: Path = PLATFORM) -> str:
    """The source of the whole policy, in the compiler's order."""
    rules = [*sorted((folder / "public").glob("*.te")), *sorted((folder / "private").glob("*.te"))]
    files = [platform / "classes", platform / "macros", platform / "platform.te", *rules, "-",
             platform / "contexts", folder / "private/genfs_contexts"]
    command = ["m4", "--fatal-warnings", f"--define=build_variant={variant}", *map(str, files)]
    result = subprocess.run(command, input=extra, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise Refused(result.stderr)
    return result.stdout


def compile_policy(source: str, scratch: Path) -> Path:
    folder = Path(tempfile.mkdtemp(dir=scratch))
    text, binary = folder / "policy.conf", folder / "policy"
    text.write_text(source)
    command = ["checkpolicy", "-M", "-c", VERSION, "-o", str(binary), str(text)]
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise Refused(result.stdout + result.stderr)
    return binary


def only(pattern: str, file: Path) -> str:
    """The one piece of a source that the pattern stands for."""
    found = re.findall(pattern, file.read_text(), re.MULTILINE | re.DOTALL)
    if len(found) != 1:
        raise AssertionError(f"{len(found)} times in {file}: {pattern}")
    return str(found[0])


def daemon_path(name: str) -> str:
    return only(rf'\b{name}\[?\]? =\s*"([^"]*)";', SOURCES / "constants.h")


def daemon_program() -> str:
    name = only(r'^cc_binary \{\n    name: "([^"]*)"', SOURCES / "Android.bp")
    return f"/system/bin/{name}"


def service_capabilities() -> set[str]:
    """What init leaves the daemon."""
    section = only(r"^service kusd (.*?)(?=^\S|\Z)", SOURCES / "kusd.rc")
    found = re.findall(r"^ +capabilities +(.*)$", section, re.MULTILINE)
    return {word.lower() for line in found for word in line.split()}


def daemon_properties(call: str) -> set[str]:
    """The full names in the sources' calls; announce() hands its argument on."""
    text = "".join(file.read_text() for file in sorted(SOURCES.glob("*.cpp")))
    return set(re.findall(rf'\b(?:{call})\("([^"]*)"', text))


def contexts(file: Path) -> list[list[str]]:
    """The words of each entry."""
    lines = (line.split("#")[0].split() for line in file.read_text().splitlines())
    return [words for words in lines if words]


def type_of(context: str) -> str:
    found = re.fullmatch(r"u:object_r:(\w+):s0", context)
    if found is None:
        raise AssertionError(f"no context: {context}")
    return found.group(1)


def label_of(path: str, file_contexts: Path) -> Optional[str]:
    """The type that libselinux gives a path; none where no entry is the path's."""
    command = ["/usr/sbin/selabel_lookup", "-b", "file", "-f", str(file_contexts), "-k", path]
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    output = result.stdout + result.stderr
    found = re.search(r"^Default context: (.*)$", output, re.MULTILINE)
    if found is not None:
        return type_of(found.group(1))
    if "failed to find a valid context" not in output:
        raise AssertionError(output)
    return None


class ProductPolicy(unittest.TestCase):
    """Of the policy in a folder."""

    folder = POLICY
    scratch: Path
    policies: dict[str, Policy]
    policy: Policy

    @classmethod
    def setUpClass(cls) -> None:
        cls.scratch = Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.policies = {variant: Policy(assemble(cls.folder, variant), cls.scratch)
                        for variant in VARIANTS}
        cls.policy = cls.policies["user"]

    def context_file(self, name: str) -> Path:
        return self.folder / "private" / name

    # --- the domain

    def test_only_init_starts_the_daemon(self) -> None:
        for policy in self.policies.values():
            self.assertEqual(policy.who_may(("transition", "dyntransition"), "kusd", "process"),
                             {"init"})
            self.assertEqual(policy.who_may("entrypoint", "kusd_exec", "file"), {"kusd"})
            self.assertEqual(policy.what_may("kusd", "entrypoint", "file"), {"kusd_exec"})

    def test_the_daemon_is_a_system_domain_and_enforced(self) -> None:
        for policy in self.policies.values():
            self.assertIn("kusd", policy.members["domain"])
            self.assertIn("kusd", policy.members["coredomain"])
            self.assertNotIn("kusd", policy.permissive)

    def test_it_has_the_capabilities_that_init_leaves_it(self) -> None:
        for policy in self.policies.values():
            for object_class in ("capability", "cap_userns"):
                held = {rule.permission for rule in policy.rules
                        if rule.source == "kusd" and rule.object_class == object_class}
                self.assertEqual(held, service_capabilities())

    def test_it_may_touch_what_is_listed_and_nothing_else(self) -> None:
        for variant, expected in (("user", TOUCHED), ("userdebug", TOUCHED_WITH_TOOLS)):
            touched: dict[tuple[str, str], set[str]] = {}
            for rule in self.policies[variant].own:
                key = (rule.target, rule.object_class)
                touched.setdefault(key, set()).add(rule.permission)
            self.assertEqual(touched, expected)

    # --- the service

    def test_its_clients_alone_find_the_service(self) -> None:
        for variant, policy in self.policies.items():
            finders = policy.who_may("find", "kus_service", "service_manager")
            clients = {"dumpstate", "system_app", "system_server"} | TOOLS_DOMAINS[variant]
            self.assertEqual(finders, {"kusd"} | clients)

    def test_its_clients_and_the_service_manager_alone_call_it(self) -> None:
        for variant, policy in self.policies.items():
            callers = policy.who_may("call", "kusd", "binder")
            clients = {"dumpstate", "system_app", "system_server"} | TOOLS_DOMAINS[variant]
            self.assertEqual(callers, {"servicemanager"} | clients)

    def test_it_calls_back_those_who_register(self) -> None:
        called = self.policy.what_may("kusd", "call", "binder")
        self.assertEqual(called, {"servicemanager", "system_app", "system_server"})
        # The last is every domain's to call.
        with_tools = self.policies["userdebug"].what_may("kusd", "call", "binder")
        self.assertEqual(with_tools, called | {"shell", "su"})

    def test_nobody_else_adds_a_service_of_its_type(self) -> None:
        for policy in self.policies.values():
            self.assertEqual(policy.who_may("add", "kus_service", "service_manager"), {"kusd"})

    def test_a_platform_whose_shell_finds_every_service_builds(self) -> None:
        wide = ("allow { dumpstate shell system_app traceur_app } "
                "service_manager_type:service_manager find;")
        for variant in VARIANTS:
            policy = Policy(assemble(self.folder, variant, extra=wide), self.scratch)
            callers = policy.who_may("call", "kusd", "binder")
            self.assertEqual(callers, self.policies[variant].who_may("call", "kusd", "binder"))

    # --- the rules

    def test_the_daemon_and_the_administrators_app_alone_write_the_rules(self) -> None:
        for policy in self.policies.values():
            self.assertEqual(policy.who_may(WRITES, "kus_config_data_file", "file"),
                             {"init", "kusd", "system_app"})
            self.assertEqual(policy.who_may(DIRECTORY_WRITES, "kus_config_data_file", "dir"),
                             {"init", "kusd"})

    def test_the_administrators_app_writes_in_place(self) -> None:
        held = {rule.permission for rule in self.policy.rules
                if rule.source == "system_app" and rule.target == "kus_config_data_file"
                and rule.object_class == "file"}
        self.assertLessEqual({"open", "read", "write", "watch"}, held)
        self.assertEqual(held & {"create", "link", "rename", "setattr", "unlink"}, set())

    # --- sysfs

    def test_the_daemon_writes_one_type_of_sysfs_files(self) -> None:
        for policy in self.policies.values():
            written = policy.what_may("kusd", WRITES, "file") & policy.members["sysfs_type"]
            self.assertEqual(written, {"sysfs_kus_usb"})

    def test_nobody_else_undoes_a_block_but_what_boots_the_terminal(self) -> None:
        for policy in self.policies.values():
            self.assertEqual(policy.who_may(WRITES, "sysfs_kus_usb", "file"),
                             {"init", "kusd", "ueventd", "vendor_init", "vold"})

    def test_the_controllers_that_it_switches_have_that_type(self) -> None:
        source = SOURCES / "usbdevice.cpp"
        soc = only(r'kSocPath\[\] = "/sys([^"]*)";', source)
        paths = only(r"kControllerModePaths\[\] = \{([^}]*)\}", source)
        modes = re.findall(r'"([^"]*)/mode"', paths)
        self.assertEqual(len(modes), 2)
        self.assertEqual(self.policy.labelled,
                         {soc + name: "u:object_r:sysfs_kus_usb:s0" for name in modes})

    # --- properties

    def test_only_what_a_terminal_boots_with_switches_the_policy_off(self) -> None:
        for policy in self.policies.values():
            self.assertEqual(policy.who_may("set", "kus_automation_prop", "property_service"),
                             {"init", "vendor_init"})

    def test_only_the_daemon_announces_a_dock(self) -> None:
        for policy in self.policies.values():
            self.assertEqual(policy.who_may("set", "kus_monitor_prop", "property_service"),
                             {"init", "kusd"})

    def test_the_properties_are_those_of_the_sources(self) -> None:
        types = {words[0]: type_of(words[1]) for words in contexts(
            self.context_file("property_contexts"))}
        # Of a type that everybody may read.
        read = daemon_properties("property_get|property_get_int32") - {"ro.build.type"}
        written = daemon_properties("property_set|announce")
        self.assertEqual((len(read), len(written)), (1, 3))
        self.assertEqual(types, {**dict.fromkeys(read, "kus_automation_prop"),
                                 **dict.fromkeys(written, "kus_monitor_prop")})

    def test_a_property_is_its_whole_name_and_a_number(self) -> None:
        for words in contexts(self.context_file("property_contexts")):
            self.assertEqual(words[2:], ["exact", "int"])

    # --- the other contexts

    def test_the_service_is_that_of_the_sources(self) -> None:
        name = only(r'kServiceName\[\] = "([^"]*)";', SOURCES / "ku_service.cpp")
        self.assertEqual(contexts(self.context_file("service_contexts")),
                         [[name, "u:object_r:kus_service:s0"]])

    def test_files_are_labelled_where_the_daemon_has_them(self) -> None:
        directory = daemon_path("configDirPath")
        expected = {
            daemon_program(): "kusd_exec",
            f"{daemon_program()}2": None,
            "/system/bin/kusctl": None,
            directory: "kus_config_data_file",
            daemon_path("configFilePath"): "kus_config_data_file",
            daemon_path("backupFilePath"): "kus_config_data_file",
            daemon_path("statusFilePath"): "kus_config_data_file",
            f"{directory}2": None,
            str(Path(directory).parent): None,
        }
        file = self.context_file("file_contexts")
        self.assertEqual({path: label_of(path, file) for path in expected}, expected)

    def test_every_entry_for_files_is_one_of_those(self) -> None:
        entries = [words[0] for words in contexts(self.context_file("file_contexts"))]
        paths = {daemon_program(), daemon_path("configDirPath")}
        self.assertEqual(len(entries), len(paths))
        for entry in entries:
            self.assertEqual(len([path for path in paths if re.fullmatch(entry, path)]), 1, entry)

    def test_the_entries_for_files_compile_with_the_policy(self) -> None:
        command = ["/usr/sbin/sefcontext_compile", "-p", str(self.policy.binary),
                   "-o", str(self.scratch / "file_contexts.bin"),
                   str(self.context_file("file_contexts"))]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_the_types_of_properties_and_services_are_declared(self) -> None:
        for name in ("property_contexts", "service_contexts"):
            for words in contexts(self.context_file(name)):
                self.assertIn(type_of(words[1]), self.policy.types, name)


class Mutation(NamedTuple):
    """A way to break the policy: a file of its, a text in it and what takes its place."""

    file: str
    old: str
    new: str
    # The compiler's word, or the test that must notice.
    noticed: str


SYSFS_NEVERALLOW = "neverallow kusd { sysfs_type -sysfs_kus_usb }:file no_w_file_perms;\n"
FIND_NEVERALLOW = ("neverallow { appdomain -shell -su -system_app -traceur_app } "
                   "kus_service:service_manager find;\n")
SYSFS_WRITE = "allow kusd sysfs_kus_usb:file w_file_perms;\n"
SECOND_SYSFS_WRITE = SYSFS_WRITE + "allow kusd sysfs_leds:file w_file_perms;\n"
BY = "neverallow .* violated by allow"
APP_FIND = "allow untrusted_app kus_service:service_manager find;\n"

MUTATIONS = (
    Mutation("private/kusd.te", SYSFS_WRITE, SECOND_SYSFS_WRITE, f"{BY} kusd sysfs_leds:file"),
    Mutation("private/kusd.te", SYSFS_NEVERALLOW, "allow kusd sysfs_leds:file w_file_perms;\n",
             "test_the_daemon_writes_one_type_of_sysfs_files"),
    Mutation("private/kusd.te", SYSFS_WRITE, SYSFS_WRITE + "allow kusd sysfs:file r_file_perms;\n",
             f"{BY} kusd sysfs:file"),
    Mutation("private/kusd.te", SYSFS_WRITE, "",
             "test_the_daemon_writes_one_type_of_sysfs_files"),
    Mutation("private/kusd.te", FIND_NEVERALLOW, FIND_NEVERALLOW + APP_FIND,
             f"{BY} untrusted_app kus_service:service_manager"),
    Mutation("private/kusd.te", FIND_NEVERALLOW, APP_FIND,
             "test_its_clients_alone_find_the_service"),
    Mutation("private/kusd.te", "allow system_server kus_service:service_manager find;\n", "",
             "test_its_clients_alone_find_the_service"),
    Mutation("private/kusd.te", "binder_use(kusd)\n",
             "binder_use(kusd)\nbinder_call(platform_app, kusd)\n",
             f"{BY} platform_app kusd:binder"),
    Mutation("private/kusd.te", "binder_call(kusd, system_app)\n", "",
             "test_it_calls_back_those_who_register"),
    Mutation("private/kusctl.te", "userdebug_or_eng(`", "ifelse(`a', `a', `",
             f"{BY} shell kusd:binder"),
    Mutation("private/kusd.te", "r_dir_file(kusd, sysfs_batteryinfo)",
             "r_dir_file(kusd, sysfs_batterinfo)", "unknown type sysfs_batterinfo"),
    Mutation("private/service.te", "type kus_service,", "type kus_servic,",
             "unknown type kus_service"),
    Mutation("private/kusd.te", "self:global_capability_class_set dac_override;\nneverallow",
             "self:global_capability_class_set { dac_override chown };\nneverallow",
             f"{BY} kusd kusd:capability"),
    Mutation("private/kusd.te", "allow kusd self:global_capability_class_set dac_override;\n", "",
             "test_it_has_the_capabilities_that_init_leaves_it"),
    Mutation("private/kusd.te", "kus_config_data_file:dir { r_dir_perms add_name write }",
             "kus_config_data_file:dir { getattr search add_name write }",
             "test_it_may_touch_what_is_listed_and_nothing_else"),
    Mutation("private/kusd.te", "allow system_app kus_config_data_file:file rw_file_perms;\n",
             "allow { system_app platform_app } kus_config_data_file:file rw_file_perms;\n",
             f"{BY} platform_app kus_config_data_file:file"),
    Mutation("private/kusd.te", "allow vold sysfs_kus_usb:file w_file_perms;\n",
             "allow { hal_usb_default vold } sysfs_kus_usb:file w_file_perms;\n",
             f"{BY} hal_usb_default sysfs_kus_usb:file"),
    Mutation("private/property.te", "neverallow { domain -init -vendor_init }",
             "allow kusd kus_automation_prop:property_service set;\n"
             "neverallow { domain -init -vendor_init }",
             f"{BY} kusd kus_automation_prop:property_service"),
    Mutation("private/property.te",
             "neverallow { domain -init -kusd } kus_monitor_prop:property_service set;",
             "set_prop(system_app, kus_monitor_prop)", "test_only_the_daemon_announces_a_dock"),
    Mutation("private/kusd.te", "set_prop(kusd, kus_monitor_prop)",
             "set_prop(kusd, vendor_default_prop)",
             f"{BY} kusd vendor_default_prop:property_service"),
    Mutation("private/property_contexts", "persist.vendor.monitor.undock ",
             "persist.vendor.monitor.undok ", "test_the_properties_are_those_of_the_sources"),
    Mutation("private/property_contexts", "exact int\n\n", "prefix int\n\n",
             "test_a_property_is_its_whole_name_and_a_number"),
    Mutation("private/service_contexts", "kusbservice ", "kusservice ",
             "test_the_service_is_that_of_the_sources"),
    Mutation("private/file_contexts", "/data/system/usbdeviceconfig(/.*)?",
             "/data/system/usbdevicesconfig(/.*)?",
             "test_files_are_labelled_where_the_daemon_has_them"),
    Mutation("private/file_contexts", "usbdeviceconfig(/.*)?", "usbdeviceconfig(/.*",
             "test_the_entries_for_files_compile_with_the_policy"),
    Mutation("private/file_contexts", "usbdeviceconfig(/.*)?", "usbdeviceconfig.*",
             "test_files_are_labelled_where_the_daemon_has_them"),
    Mutation("private/file_contexts", "kus_config_data_file", "kus_confg_data_file",
             "test_the_entries_for_files_compile_with_the_policy"),
    Mutation("private/service_contexts", "kus_service", "kus_servic",
             "test_the_types_of_properties_and_services_are_declared"),
    Mutation("private/genfs_contexts", "c200000.hsusb", "c200000.ssusb",
             "test_the_controllers_that_it_switches_have_that_type"),
    Mutation("private/genfs_contexts", "a800000.ssusb u:object_r:sysfs_kus_usb",
             "a800000.ssusb u:object_r:sysfs_usb_kus", "sysfs_usb_kus"),
)


class TheseTests(unittest.TestCase):
    """They can fail."""

    def setUp(self) -> None:
        self.scratch = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def compile(self, folder: Path, platform: Path = PLATFORM) -> None:
        for variant in VARIANTS:
            Policy(assemble(folder, variant, platform=platform), self.scratch)

    def passes(self, test: str, folder: Path) -> bool:
        """Whether a policy passes a test."""
        case = type("Mutated", (ProductPolicy,), {"folder": folder})
        result = unittest.TestResult()
        unittest.TestSuite([case(test)]).run(result)
        self.assertEqual((result.testsRun, result.errors), (1, []))
        return result.wasSuccessful()

    def broken_copy(self, folder: Path, file: str, old: str, new: str) -> Path:
        copy = Path(tempfile.mkdtemp(dir=self.scratch)) / "copy"
        shutil.copytree(folder, copy)
        text = (copy / file).read_text()
        self.assertIn(old, text)
        (copy / file).write_text(text.replace(old, new))
        return copy

    def test_every_way_to_break_the_policy_is_noticed(self) -> None:
        for mutation in MUTATIONS:
            with self.subTest(mutation=mutation):
                folder = self.broken_copy(POLICY, mutation.file, mutation.old, mutation.new)
                if mutation.noticed.startswith("test_"):
                    self.assertTrue(self.passes(mutation.noticed, POLICY))
                    self.assertFalse(self.passes(mutation.noticed, folder))
                else:
                    self.assertRaisesRegex(Refused, mutation.noticed, self.compile, folder)

    def test_a_platform_that_does_not_list_the_daemon_does_not_build(self) -> None:
        platform = self.broken_copy(PLATFORM, "platform.te", "{ init kusd ueventd vold }",
                                    "{ init ueventd vold }")
        self.assertRaisesRegex(Refused, "neverallow.*dac_override", self.compile, POLICY, platform)


if __name__ == "__main__":
    unittest.main()
