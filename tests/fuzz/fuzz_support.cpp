// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/fuzz/fuzz_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include <android-base/file.h>
#include <android-base/logging.h>

// Freed memory is kept from reuse up to this size; with more, fetching new pages is half the time.
extern "C" const char* __asan_default_options() {  // NOLINT: a name of the sanitizer's
    return "quarantine_size_mb=16";
}

namespace android::kus::fuzz {

using android::base::unique_fd;

namespace {

void showFatalLinesOnly(android::base::LogId, android::base::LogSeverity severity, const char*,
                        const char* file, unsigned int line, const char* text) {
    if (severity < android::base::FATAL) return;
    dprintf(STDERR_FILENO, "%s:%u: %s\n", file, line, text);
}

// The streams alone: the descriptors stay the fuzzer's and the sanitizers'.
void dropStandardStreams() {
    stdout = fopen("/dev/null", "we");
    stderr = fopen("/dev/null", "we");
    CHECK(stdout != nullptr);
    CHECK(stderr != nullptr);
    // perror() prints to an undecided stream by way of another that it opens for each line.
    fwide(stderr, -1);
}

}  // namespace

void SetUp() {
    android::base::SetLogger(showFatalLinesOnly);
    // A real /sys has /sys/kernel, the sandbox's never.
    CHECK(access("/sys/kernel", F_OK) != 0) << "run this program through tests/sandbox";
    dropStandardStreams();
}

std::string TextOf(const uint8_t* data, size_t size) {
    return {data, data + size};
}

void MakeDirs(const std::string& path) {
    std::filesystem::create_directories(path);
}

void WriteFile(const std::string& path, const std::string& content) {
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    CHECK(fd != -1) << path;
    CHECK(android::base::WriteStringToFd(content, fd)) << path;
}

std::string ReadFile(const std::string& path, size_t limit) {
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd == -1) return "";
    std::string text(limit, '\0');
    const ssize_t count = read(fd, text.data(), limit);
    text.resize(std::max<ssize_t>(count, 0));
    return text;
}

std::vector<std::string> NamesIn(const std::string& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(directory.c_str()), closedir);
    std::vector<std::string> names;
    if (dir == nullptr) return names;
    while (const dirent* entry = readdir(dir.get())) names.emplace_back(entry->d_name);
    return names;
}

std::vector<std::string> PiecesOf(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::string piece;
    bool open = false;
    for (const char c : text) {
        if (c == separator) {
            pieces.push_back(piece);
            piece.clear();
            open = false;
            continue;
        }
        open = true;
        if (c != '\n') piece += c;
    }
    if (open) pieces.push_back(piece);
    return pieces;
}

Sink::Sink() : fd_(memfd_create("printed", MFD_CLOEXEC)) {
    CHECK(fd_ != -1);
}

std::string Sink::Take() {
    const off_t size = lseek(fd_, 0, SEEK_CUR);
    std::string text(size, '\0');
    CHECK_EQ(pread(fd_, text.data(), text.size(), 0), size);
    CHECK_EQ(ftruncate(fd_, 0), 0);
    CHECK_EQ(lseek(fd_, 0, SEEK_SET), 0);
    return text;
}

}  // namespace android::kus::fuzz
