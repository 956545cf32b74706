// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// bench-times: when something happened to a file, in nanoseconds of CLOCK_MONOTONIC.
//
//   follow FILE   prints "ready", then "TIME LINE" for each line that is appended
//   write FILE    writes its input to the file, in place and to disk, closes it, and prints "TIME"
//
// Exit status: 0 done, 1 the file cannot be used, 2 usage.

#include <fcntl.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "benchmarks/vm/clock.h"

namespace android::kus::bench {
namespace {

enum ExitStatus { kDone = 0, kNoFile = 1, kUsageError = 2 };

int fail(const std::string& path) {
    perror(path.c_str());
    return kNoFile;
}

// Prints the whole lines that are there and leaves the rest in *text.
void printLines(int64_t time, std::string* text) {
    size_t begin = 0;
    for (size_t end; (end = text->find('\n', begin)) != std::string::npos; begin = end + 1) {
        std::cout << time << " " << text->substr(begin, end - begin) << "\n";
    }
    std::cout.flush();
    text->erase(0, begin);
}

int follow(const std::string& path) {
    const base::unique_fd changes(inotify_init1(IN_CLOEXEC));
    const base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file == -1 || inotify_add_watch(changes, path.c_str(), IN_MODIFY) == -1) return fail(path);
    lseek(file, 0, SEEK_END);
    std::cout << "ready" << std::endl;

    std::string text;
    char events[4096];
    while (read(changes, events, sizeof(events)) > 0) {
        const int64_t time = now();
        std::string added;
        base::ReadFdToString(file, &added);
        text += added;
        printLines(time, &text);
    }
    return kDone;
}

int writeFile(const std::string& path) {
    std::string content;
    base::ReadFdToString(STDIN_FILENO, &content);
    constexpr mode_t kMode = 0644;
    base::unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
    if (file == -1 || !base::WriteStringToFd(content, file) || fsync(file) != 0) return fail(path);
    const int64_t time = now();
    file.reset();
    std::cout << time << std::endl;
    return kDone;
}

int run(const std::vector<std::string>& arguments) {
    if (arguments.size() == 2 && arguments[0] == "follow") return follow(arguments[1]);
    if (arguments.size() == 2 && arguments[0] == "write") return writeFile(arguments[1]);
    std::cerr << "usage: bench-times follow FILE | write FILE\n";
    return kUsageError;
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    return android::kus::bench::run({argv + 1, argv + argc});
}
