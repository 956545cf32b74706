# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The start of the daemon: the task that runs before it, its policy file, its registration."""

from __future__ import annotations

import unittest

from support import (BACKUP_FILE, BAD_FILES, CONFIG_DIR, CONFIG_FILE, DEFAULT_POLICY,
                     MAKE_CONFIG_DIR, NO_XML, RUN_DAEMON, RUN_TASKS, STATUS_FILE, DaemonTestCase,
                     Process, parse_log_line, policy)

DEFAULT_FILE = (b'<?xml version="1.0" encoding="UTF-8"?>\n'
                b'<usbconfig mode="default">\n'
                b'</usbconfig>')

REGISTERED = "kus service Registered successfully"
OBSERVER_STARTED = "registerFileObserverViaThread result--0"
WATCHING = "registered successfully file observer"

NO_FILE = (f"Error=XML_ERROR_FILE_NOT_FOUND ErrorID=3 (0x3) Line number=0: filename={CONFIG_FILE}")


class StartupTestCase(DaemonTestCase):
    services = ("servicemanager",)

    def setUp(self) -> None:
        super().setUp()
        self.terminal.check_output(MAKE_CONFIG_DIR)
        self.addCleanup(self.stop_daemon_that_runs)

    def stop_daemon_that_runs(self) -> None:
        if self.terminal.status("kusd").state != "stopped":
            self.stop_daemon()

    def files(self) -> list[str]:
        return self.terminal.check_output(f"find {CONFIG_DIR} ! -path {CONFIG_DIR}").split()


class StartupTaskTest(StartupTestCase):
    def run_task(self, command: str = RUN_TASKS) -> list[str]:
        """Runs the task, which succeeds whatever it finds, and returns what it logs."""
        result = self.terminal.run(command)
        self.assertEqual((result.status, result.stdout), (0, ""))
        lines = [parse_log_line(line) for line in result.stderr.splitlines()]
        self.assertNotIn(None, lines, result.stderr)
        return [line.message for line in lines if line is not None]

    def test_default_file_has_exactly_these_bytes(self) -> None:
        messages = self.run_task()
        self.assertRegex(messages.pop(0), r"^kus main called with argc: 2and argv: 0x[0-9a-f]+$")
        self.assertEqual(messages, ["kus main called with run-startup-tasks",
                                    "Directory exist, creating file"])
        self.assertEqual(self.terminal.read_file(CONFIG_FILE), DEFAULT_FILE)
        self.assertEqual(self.files(), [CONFIG_FILE])

    def test_mask_of_the_process_alone_limits_the_files_mode(self) -> None:
        for mask, mode in {"022": "644", "077": "600", "000": "666"}.items():
            with self.subTest(mask):
                self.run_task(f"rm -f {CONFIG_FILE}; umask {mask}; exec kusd run-startup-tasks")
                self.assertEqual(
                    self.terminal.check_output(["stat", "-c", "%a", CONFIG_FILE]).strip(), mode)

    def test_existing_file_is_untouched(self) -> None:
        for content in (b"", b"no XML at all\0\xff", policy("blacklist").encode()):
            with self.subTest(content):
                self.put_policy(content)
                state = ["stat", "-c", "%i %Y %Z", CONFIG_FILE]
                before = self.terminal.check_output(state)
                self.run_task()
                self.assertEqual(self.terminal.read_file(CONFIG_FILE), content)
                self.assertEqual(self.terminal.check_output(state), before)
                self.assertEqual(self.files(), [CONFIG_FILE])

    def test_directory_in_the_files_place_is_untouched(self) -> None:
        self.terminal.check_output(["mkdir", CONFIG_FILE])
        self.run_task()
        self.assertEqual(self.files(), [CONFIG_FILE])

    def test_nothing_is_created_without_the_directory(self) -> None:
        for instead in ("", f" && touch {CONFIG_DIR}"):
            with self.subTest(instead):
                self.terminal.check_output(f"rm -rf {CONFIG_DIR}{instead}")
                before = self.terminal.check_output("find /data")
                self.assertEqual(self.run_task()[1:], ["kus main called with run-startup-tasks",
                                                       "no Directory exist"])
                self.assertEqual(self.terminal.check_output("find /data"), before)

    def test_more_arguments_do_not_matter(self) -> None:
        self.assertRegex(self.run_task(f"{RUN_TASKS} and more")[0], "argc: 4and argv: ")
        self.assertEqual(self.terminal.read_file(CONFIG_FILE), DEFAULT_FILE)

    def test_any_other_first_argument_starts_the_service(self) -> None:
        for argument in ("run-startup-tasks ", "RUN-STARTUP-TASKS", ""):
            with self.subTest(argument):
                daemon = Process(self.terminal, ["sh", "-c", f'exec {RUN_DAEMON} "$1" 2>&1', "",
                                                  argument])
                self.addCleanup(daemon.kill)
                while REGISTERED not in daemon.next_line():
                    pass
                self.assertEqual(self.client("ping"), "pong\n")
                self.assertNotIn(CONFIG_FILE, self.files())
                daemon.kill()


# Files that can be used, and their backup: the same lines, each with an end.
GOOD_FILES: tuple[tuple[bytes, bytes], ...] = (
    (DEFAULT_FILE, DEFAULT_FILE + b"\n"),
    (DEFAULT_POLICY.encode(), DEFAULT_POLICY.encode()),
    (b"<usbconfig mode='default'>\r\n<anything/>\r\n\r\n</usbconfig>\r\n\n",
     b"<usbconfig mode='default'>\r\n<anything/>\r\n\r\n</usbconfig>\r\n\n"),
    (b"<!-- nothing may be used -->\n<usbconfig mode='whitelist'/>",
     b"<!-- nothing may be used -->\n<usbconfig mode='whitelist'/>\n"),
)


class PolicyFileTest(StartupTestCase):
    def status_text(self) -> bytes:
        return self.terminal.read_file(STATUS_FILE)

    def restart_with(self, content: bytes) -> int:
        """Starts the daemon with the file in place; returns the log's mark from before."""
        self.stop_daemon_that_runs()
        self.put_policy(content)
        log = self.log.mark()
        self.start_daemon()
        return log

    def test_good_file_succeeds_and_becomes_the_backup(self) -> None:
        for content, backup in GOOD_FILES:
            with self.subTest(content):
                self.restart_with(content)
                self.assertEqual(self.status_text(), b"SUCCESS")
                self.assertEqual(self.terminal.read_file(BACKUP_FILE), backup)
                self.assertEqual(self.terminal.read_file(CONFIG_FILE), content)

    def test_start_with_the_default_file_logs_each_step(self) -> None:
        log = self.restart_with(DEFAULT_FILE)
        lines = self.log.since(log)
        messages = [line.message for line in lines]
        self.assertRegex(messages[0], r"^kus main called with argc: 1and argv: 0x[0-9a-f]+$")
        self.assertEqual(messages[1:messages.index(REGISTERED) + 1], [
            " parsing register createmap called",
            "attribute--default",
            " updating error fle with success",
            "updateErrorFile called with error message : SUCCESS",
            "copying backup ",
            f" USB xml src path is {CONFIG_FILE}",
            f"USB xml dest path is {BACKUP_FILE}",
            *DEFAULT_FILE.decode().splitlines(),
            "Usb Device config file copied successfully..!!",
            "Register called in ku_service",
            REGISTERED])
        self.assertEqual({line.severity for line in lines}, {"I"})

    def test_bad_file_is_reported_and_leaves_the_backup_alone(self) -> None:
        self.terminal.write_file(BACKUP_FILE, b"the last good one")
        for content, status in BAD_FILES:
            with self.subTest(status):
                self.restart_with(content)
                self.assertEqual(self.status_text().decode(), status)
                self.assertEqual(self.terminal.read_file(BACKUP_FILE), b"the last good one")
                self.assertEqual(self.terminal.read_file(CONFIG_FILE), content)
                self.assertEqual(self.client("ping"), "pong\n")

    def test_file_that_is_no_xml_is_reported_in_the_librarys_words(self) -> None:
        for content, error in NO_XML:
            with self.subTest(error):
                log = self.restart_with(content)
                status = self.status_text().decode()
                self.assertRegex(
                    status, rf"^Error={error} ErrorID=\d+ \(0x[0-9a-f]+\) Line number=\d+")
                self.assertIn(f"xmlinput -- error string {status}", self.log.messages(log))
                self.assertNotIn(BACKUP_FILE, self.files())

    def test_success_replaces_the_report_of_a_failure(self) -> None:
        self.restart_with(b"<usbconfig/>")
        self.restart_with(DEFAULT_FILE)
        self.assertEqual(self.status_text(), b"SUCCESS")

    def test_missing_file_is_reported_and_the_service_comes_up(self) -> None:
        log = self.log.mark()
        self.start_daemon()
        self.assertEqual(self.status_text().decode(), NO_FILE)
        self.assertEqual(self.files(), [STATUS_FILE])
        self.assertEqual([line.message for line in self.log.since(log) if line.severity == "E"],
                         ["xmlinput --Found error 3 name: XML_ERROR_FILE_NOT_FOUND",
                          f"xmlinput -- error string {NO_FILE}"])
        self.assertEqual(self.client("decide", "--id", "90001", "--interfaces", "8"), "allowed\n")

    def test_service_comes_up_without_the_directory_and_creates_nothing(self) -> None:
        self.terminal.check_output(["rmdir", CONFIG_DIR])
        log = self.log.mark()
        self.start_daemon()
        self.assertEqual(self.terminal.check_output("ls /data/system"), "")
        # The status that cannot be written is not worth a word.
        messages = self.log.messages(log)
        position = messages.index(f"updateErrorFile called with error message : {NO_FILE}")
        self.assertEqual(messages[position + 1:][:3],
                         [" parsing failed", "Register called in ku_service", REGISTERED])
        self.assertEqual(self.client("ping"), "pong\n")

    def test_status_that_cannot_be_written_changes_nothing_else(self) -> None:
        self.terminal.check_output(["mkdir", STATUS_FILE])
        self.restart_with(DEFAULT_FILE)
        self.assertEqual(self.terminal.read_file(BACKUP_FILE), DEFAULT_FILE + b"\n")
        self.assertEqual(self.terminal.check_output(["find", STATUS_FILE]), f"{STATUS_FILE}\n")
        self.assertEqual(self.client("ping"), "pong\n")


class RegistrationTest(StartupTestCase):
    NO_SERVICE = 3  # kus-client's status

    def setUp(self) -> None:
        super().setUp()
        self.put_policy(DEFAULT_POLICY)

    def test_daemon_waits_for_the_service_manager(self) -> None:
        self.terminal.stop("servicemanager")
        log = self.log.mark()
        pid = self.terminal.start("kusd")
        self.log.wait_for(log, "Register called in ku_service")
        self.assertEqual(self.terminal.run("kus-client ping").status, self.NO_SERVICE)
        self.assertEqual(self.log.messages(log, f"^{REGISTERED}$"), [])
        self.assertEqual(self.terminal.status("kusd").pid, pid)
        self.terminal.start("servicemanager")
        self.log.wait_for(log, REGISTERED)
        self.assertEqual(self.client("ping"), "pong\n")
        self.assertEqual(self.terminal.status("kusd").pid, pid)

    # The platform's service manager accepts a name again without giving it to the newcomer.
    def test_second_daemon_registers_but_the_first_keeps_the_name_until_it_ends(self) -> None:
        self.start_daemon()
        client = self.watcher()
        second = Process(self.terminal, ["sh", "-c", f"exec {RUN_DAEMON} 2>&1"])
        self.addCleanup(second.kill)
        # The thread that registers and the observer that it starts speak in either order.
        started: dict[str, int] = {}
        while not {OBSERVER_STARTED, WATCHING} <= started.keys():
            line = parse_log_line(second.next_line())
            if line is not None:
                started[line.message] = line.thread

        def heard() -> list[str]:
            """What the second daemon logs; its observer follows what the first one writes."""
            lines = [parse_log_line(line) for line in second.lines()]
            return [line.message for line in lines
                    if line is not None and line.thread != started[WATCHING]]

        question = ["kus-client", "decide", "--id", "90001", "--interfaces", "8"]
        self.terminal.check_output(question)
        self.assertEqual([event["deviceId"] for event in client.events()], [90001])
        self.assertEqual([record["deviceId"] for record in self.records()], [90001])
        self.assertEqual(heard(), [])

        # With the first one the name goes; nobody gives it to the second, which runs on.
        self.stop_daemon()
        self.terminal.wait_until(
            lambda: self.terminal.run("kus-client ping").status == self.NO_SERVICE, 10,
            "the service manager to forget the name")
        self.assertEqual(heard(), [])
        # Whoever registers next has it.
        self.start_daemon()
        self.terminal.check_output(question)
        self.assertEqual([record["deviceId"] for record in self.records()], [90001])
        self.assertEqual(heard(), [])


class BuildTypeTest(StartupTestCase):
    def test_addresses_of_clients_are_logged_on_userdebug_builds_only(self) -> None:
        self.put_policy(DEFAULT_POLICY)
        self.addCleanup(self.set_read_only_property, "ro.build.type", "userdebug")
        # An empty property counts as none, and none as userdebug.
        for build_type, verbose in (("user", False), ("eng", False), ("userdebug2", False),
                                    ("", True), (None, True), ("userdebug", True)):
            with self.subTest(build_type):
                self.set_read_only_property("ro.build.type", build_type)
                log = self.log.mark()
                self.start_daemon()
                client = self.watcher()
                device = ["--id", "90001", "--interfaces", "8"]
                self.client("decide", *device)
                self.client("remove", *device)
                client.command("unregister")
                self.stop_daemon()
                patterns = ["iterating map key:0x[0-9a-f]+ value:0x[0-9a-f]+$",
                            "client of onDeviceAdded  0x[0-9a-f]+$",
                            "client onDeviceRemoved 0x[0-9a-f]+$"]
                self.assertEqual([len(self.log.messages(log, pattern)) for pattern in patterns],
                                 [int(verbose)] * 3)
                self.assertEqual(len(self.log.messages(log, "iterating map|sending callback")),
                                 3 * verbose)


if __name__ == "__main__":
    unittest.main()
