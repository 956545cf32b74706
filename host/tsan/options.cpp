// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// How ThreadSanitizer looks at this project's programs; TSAN_OPTIONS adds to it.

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer's names.

extern "C" const char* __tsan_default_options() {
    return "halt_on_error=1"
           ":detect_deadlocks=1"
           ":second_deadlock_stack=1"
           // The observer and the poll thread are never joined: they run as long as the daemon.
           ":report_thread_leaks=0"
           // A file that one thread wrote and another one read orders nothing between the two.
           ":io_sync=0";
}

// None of these hides a report. All log lines go through one lock of the logging libraries: seen,
// it would order whatever two threads do in front of a line and behind it, and hide their races.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libbase.so\n"
           "called_from_lib:liblog.so\n";
}

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
