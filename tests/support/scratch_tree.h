// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/**
 * Builds the files that a test wants to find at the daemon's own absolute paths.
 *
 * Only for programs run by tests/sandbox: every function ends the process when it finds itself
 * anywhere else, before it has written a byte.
 */

#pragma once

#include <string>
#include <utility>
#include <vector>

namespace android::kus::test {

/** Makes a directory and those above it. */
void MakeDir(const std::string& path);
/** Writes a file, replacing it, and makes the directories above it. */
void WriteFile(const std::string& path, const std::string& content);
/** Makes a symbolic link and the directories above it. */
void MakeLink(const std::string& path, const std::string& target);
/** The file's bytes; a test failure and "" when it cannot be read. */
std::string ReadFile(const std::string& path);
bool Exists(const std::string& path);
/** Removes a file or a whole directory; nothing happens when there is none. */
void Remove(const std::string& path);

/** Attribute names and their text, written as given. */
using Attributes = std::vector<std::pair<std::string, std::string>>;

/**
 * Makes one entry of /sys/bus/usb/devices as the kernel does: a directory of attributes below
 * /sys/devices/usb and a relative link to it. Returns the directory's path.
 */
std::string AddUsbEntry(const std::string& name, const Attributes& attributes);

/** A root hub. */
std::string AddBus(int busnum);
/** A device with the attributes that an id needs; extra ones come behind and win. */
std::string AddDevice(const std::string& name, int busnum, int devnum, const std::string& idVendor,
                      const std::string& idProduct, const Attributes& extra = {});
/** An interface with its class (two hex digits, as the kernel prints it) and "authorized" at 1. */
std::string AddInterface(const std::string& name, const std::string& bInterfaceClass,
                         const Attributes& extra = {});
/** Gives an entry a driver link. */
void BindDriver(const std::string& entryDirectory, const std::string& driver);

}  // namespace android::kus::test
