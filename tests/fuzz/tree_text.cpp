// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/fuzz/tree_text.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

#include "tests/fuzz/fuzz_support.h"

namespace android::kus::fuzz {

using android::base::unique_fd;

namespace {

// Small trees, because many are made; but every limit of the daemon's buffers is within reach.
constexpr size_t kMostNodes = 48;
constexpr size_t kLongestText = 9000;

// A root hub's driver is its parent's.
constexpr char kControllerDriver[] = "../driver";

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Appends what "%COUNT CHARACTER" at position stands for; returns the position behind it.
size_t repeat(const std::string& text, size_t position, std::string* out) {
    size_t count = 0;
    for (++position; position < text.size() && isDigit(text[position]); ++position) {
        count = std::min(count * 10 + (text[position] - '0'), kLongestText);
    }
    if (position == text.size()) return position;
    out->append(count, text[position]);
    return position + 1;
}

std::string expanded(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size() && out.size() < kLongestText;) {
        if (text[i] == '%') {
            i = repeat(text, i, &out);
        } else if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'n') {
            out += '\n';
            i += 2;
        } else {
            out += text[i++];
        }
    }
    return out;
}

// A name or a path ends at a zero.
std::string pathOf(const std::string& text) {
    return expanded(text).c_str();
}

TreeNode nodeOf(const std::string& line) {
    const size_t mark = line.find_first_of("=>");
    if (mark == std::string::npos) return {pathOf(line), TreeNode::Kind::kDirectory, ""};
    const auto kind = line[mark] == '=' ? TreeNode::Kind::kFile : TreeNode::Kind::kLink;
    return {pathOf(line.substr(0, mark)), kind, expanded(line.substr(mark + 1))};
}

TreeEntry entryOf(const std::string& line) {
    TreeNode node = nodeOf(line);
    std::string name = node.path;
    node.path.clear();
    return {name, {node}};
}

// Nothing above the entries is made, and none of their own kind.
bool staysInside(const TreeNode& node) {
    return node.path.find("..") == std::string::npos || node.path == kControllerDriver;
}

bool isFileName(const std::string& name) {
    return name.find('/') == std::string::npos && name != "." && name != "..";
}

}  // namespace

TreeText ParseTree(const uint8_t* data, size_t size) {
    TreeText tree;
    size_t nodes = 0;
    for (const std::string& line : PiecesOf(TextOf(data, size), '\n')) {
        if (line.empty()) continue;
        if (line[0] == '!') {
            tree.words.push_back(line.substr(1));
            continue;
        }
        if (++nodes > kMostNodes) break;
        if (line[0] != ' ') {
            tree.entries.push_back(entryOf(line));
        } else if (!tree.entries.empty()) {
            tree.entries.back().nodes.push_back(nodeOf(line.substr(1)));
        }
    }
    return tree;
}

ScratchTree::ScratchTree(const std::vector<TreeEntry>& entries) {
    for (const TreeEntry& entry : entries) {
        if (!isFileName(entry.name)) continue;
        for (const TreeNode& node : entry.nodes) {
            if (staysInside(node)) make(std::string(kUsbDevices) + "/" + entry.name, node);
        }
    }
}

ScratchTree::~ScratchTree() {
    for (auto path = made_.rbegin(); path != made_.rend(); ++path) {
        CHECK_EQ(remove(path->c_str()), 0) << *path;
    }
}

// Only what is not there is made, and so nothing of the machine's can be changed.
void ScratchTree::make(const std::string& entryPath, const TreeNode& node) {
    std::string path = entryPath;
    for (size_t begin = 0; begin < node.path.size();) {
        const size_t end = std::min(node.path.find('/', begin), node.path.size());
        const std::string name = node.path.substr(begin, end - begin);
        begin = end + 1;
        if (name.empty()) continue;
        if (path != entryPath && name != "..") makeDirectory(path);
        path += "/" + name;
    }
    switch (node.kind) {
        case TreeNode::Kind::kDirectory:
            makeDirectory(path);
            return;
        case TreeNode::Kind::kLink:
            if (symlink(node.content.c_str(), path.c_str()) == 0) made_.push_back(path);
            return;
        case TreeNode::Kind::kFile:
            const unique_fd fd(
                    open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
            if (fd == -1) return;
            made_.push_back(path);
            CHECK_EQ(write(fd, node.content.data(), node.content.size()),
                     static_cast<ssize_t>(node.content.size()));
    }
}

void ScratchTree::makeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0755) == 0) made_.push_back(path);
}

}  // namespace android::kus::fuzz
