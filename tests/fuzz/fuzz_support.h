// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/**
 * What the fuzz targets share.
 *
 * Every target runs in tests/sandbox, because the daemon's paths are absolute, and on one thread.
 * A broken expectation is a CHECK: it aborts, and the fuzzer keeps the input.
 */

#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include <android-base/unique_fd.h>

namespace android::kus::fuzz {

inline constexpr char kUsbDevices[] = "/sys/bus/usb/devices";

/**
 * Prepares the process, once: ends it when it does not run in tests/sandbox, and drops what the
 * daemon logs and prints. Log lines are still built, only not written; a FATAL one is.
 */
void SetUp();

/** The input as text. */
std::string TextOf(const uint8_t* data, size_t size);

/** Makes a directory and those above it. */
void MakeDirs(const std::string& path);
/** Writes a file, replacing it; its directory must be there. */
void WriteFile(const std::string& path, const std::string& content);
/** At most limit bytes of a file, an empty text when it cannot be read. */
std::string ReadFile(const std::string& path, size_t limit);

/** The names in a directory, "." and ".." included, in the order in which it yields them. */
std::vector<std::string> NamesIn(const std::string& directory);

/** Is the text in a field terminated within it? */
template <size_t size>
bool IsTerminated(const char (&field)[size]) {
    for (const char c : field) {
        if (c == '\0') return true;
    }
    return false;
}

/**
 * What lies between separators, without newlines. An empty piece at the very end is none.
 *
 * Says the same as UsbDevice::split() by other means.
 */
std::vector<std::string> PiecesOf(const std::string& text, char separator);

/** A file in memory that the daemon can print to. */
class Sink {
  public:
    Sink();

    int fd() const { return fd_; }
    /** What was printed since the last call. */
    std::string Take();

  private:
    const android::base::unique_fd fd_;
};

}  // namespace android::kus::fuzz
