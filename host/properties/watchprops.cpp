// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// watchprops prints "watching" as soon as nothing can escape it any more, then a line for each time
// that a property is set, in that order, to the same value too:
//
//     1234.567890 persist.vendor.monitor.dock = '1'
//
// The time is that of CLOCK_MONOTONIC, in seconds, when the change was seen, and so is the value:
// of a property that is set twice in quick succession the first line may have the second value.
// Ends with exit code 1 when it would have to leave changes out.

#include "properties.h"

#include <cutils/properties.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include <iostream>

#include <android-base/unique_fd.h>

namespace {

using ::android::base::unique_fd;
using ::android::properties::isReadOnlyProperty;
using ::android::properties::isValidPropertyName;
using ::android::properties::kPropertyDir;
using ::android::properties::makePropertyDir;

int fail(const char* what) {
    std::cerr << "watchprops: " << what << ": " << strerror(errno) << "\n";
    return EXIT_FAILURE;
}

// A property is renamed into place, a read-only one linked; an unfinished one has no valid name.
bool isChange(const inotify_event& event) {
    if (event.len == 0 || !isValidPropertyName(event.name)) return false;
    return (event.mask & IN_MOVED_TO) != 0 || isReadOnlyProperty(event.name);
}

// False when the output is gone.
bool print(const char* name) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char value[PROPERTY_VALUE_MAX];
    property_get(name, value, "");
    printf("%jd.%06ld %s = '%s'\n", static_cast<intmax_t>(now.tv_sec), now.tv_nsec / 1000, name,
           value);
    return fflush(stdout) == 0;
}

// The events of one read; false when some were lost or no more will come.
bool printAll(const char* events, size_t length) {
    for (const char* next = events; next < events + length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(next);
        if ((event->mask & (IN_Q_OVERFLOW | IN_IGNORED)) != 0) {
            errno = (event->mask & IN_IGNORED) != 0 ? ENOENT : EOVERFLOW;
            return false;
        }
        if (isChange(*event) && !print(event->name)) return false;
        next += sizeof(inotify_event) + event->len;
    }
    return true;
}

int watch() {
    const unique_fd watcher(inotify_init1(IN_CLOEXEC));
    if (!watcher.ok()) return fail("inotify");
    // Of two settings of one property the events are equal, and inotify merges equal ones that
    // follow each other. Each setting moves a file of its own out of its first name, which keeps
    // them apart.
    constexpr uint32_t kEvents = IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_ONLYDIR;
    if (!makePropertyDir() || inotify_add_watch(watcher.get(), kPropertyDir, kEvents) < 0) {
        return fail(kPropertyDir);
    }
    puts("watching");
    if (fflush(stdout) != 0) return fail("standard output");

    alignas(inotify_event) char events[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
    while (true) {
        const ssize_t length = TEMP_FAILURE_RETRY(read(watcher.get(), events, sizeof(events)));
        if (length < 0) return fail("inotify");
        if (!printAll(events, static_cast<size_t>(length))) return fail("cannot go on");
    }
}

}  // namespace

int main(int argc, char** /* argv */) {
    if (argc == 1) return watch();
    std::cerr << "usage: watchprops\n";
    return EXIT_FAILURE;
}
