// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/**
 * Directory trees written down as text, so that an input of the USB targets can be read:
 *
 *   !trace                    a word for the target
 *   1-1                       a directory in /sys/bus/usb/devices
 *    idVendor=17e9\n          a file in it; \n is a newline
 *    driver>../drivers/usb    a symbolic link in it
 *    net/usb0/                a directory in it, and those above it
 *   1-2>1-1                   a symbolic link in /sys/bus/usb/devices itself
 *
 * A percent sign, a number and a character stand for that many of the character: "1-%253a" is a
 * name of 255. Every text is a tree; what a file system cannot hold is left out of it.
 */

#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace android::kus::fuzz {

struct TreeNode {
    enum class Kind { kDirectory, kFile, kLink };

    std::string path; /**< below its entry; empty for the entry itself */
    Kind kind;
    std::string content;
};

struct TreeEntry {
    std::string name;
    std::vector<TreeNode> nodes; /**< the entry first */
};

struct TreeText {
    std::vector<std::string> words;
    std::vector<TreeEntry> entries;
};

TreeText ParseTree(const uint8_t* data, size_t size);

/** The entries in the file system, as far as it takes them, until its destruction. */
class ScratchTree {
  public:
    explicit ScratchTree(const std::vector<TreeEntry>& entries);
    ~ScratchTree();
    ScratchTree(const ScratchTree&) = delete;
    ScratchTree& operator=(const ScratchTree&) = delete;

  private:
    void make(const std::string& entryPath, const TreeNode& node);
    void makeDirectory(const std::string& path);

    std::vector<std::string> made_; /**< in the order in which they were made */
};

}  // namespace android::kus::fuzz
