// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/policy_table.h"

#include <ctype.h>
#include <signal.h>
#include <stddef.h>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

namespace android::kus::test {

namespace {

using android::base::ParseInt;
using android::base::Split;

enum Column { kName, kOutcome, kPosition, kSchema, kDifference, kDocument, kColumns };

constexpr char kNone[] = "-";

class LineReader {
  public:
    LineReader(const std::string& path, int line)
        : where_(path + ":" + std::to_string(line) + ": "), line_(line) {}

    PolicyFile Read(const std::string& text) const {
        const std::vector<std::string> cells = Split(text, "\t");
        CHECK(cells.size() == kColumns) << where_ << cells.size() << " columns";
        CHECK(!cells[kName].empty()) << where_ << "no name";
        PolicyFile file = {
                line_,
                cells[kName],
                unescaped(cells[kOutcome]),
                positionOf(cells[kPosition]),
                schemaOf(cells[kSchema]),
                cells[kDifference] == kNone ? "" : cells[kDifference],
                unescaped(cells[kDocument]),
        };
        CHECK(file.accepted() != file.position.has_value())
                << where_ << "an error has a position, and nothing else";
        CHECK(file.agreed() == file.difference.empty())
                << where_ << "a difference has a kind, and nothing else";
        return file;
    }

  private:
    std::string unescaped(const std::string& text) const {
        std::string bytes;
        for (size_t at = 0; at < text.size(); ++at) {
            bytes += text[at] == '\\' ? unescape(text, &++at) : text[at];
        }
        return bytes;
    }

    // What stands behind a backslash; moves to its last character.
    char unescape(const std::string& text, size_t* at) const {
        const std::string escape = text.substr(*at, 1);
        if (escape == "n") return '\n';
        if (escape == "r") return '\r';
        if (escape == "t") return '\t';
        if (escape == "\\") return '\\';
        CHECK(escape == "x") << where_ << "unknown escape: " << escape;
        const std::string digits = text.substr(*at + 1, 2);
        CHECK(digits.size() == 2 && isxdigit(digits[0]) != 0 && isxdigit(digits[1]) != 0)
                << where_ << "no byte: " << digits;
        *at += digits.size();
        return static_cast<char>(std::stoi(digits, nullptr, 16));
    }

    std::optional<Position> positionOf(const std::string& text) const {
        if (text == kNone) return {};
        const std::vector<std::string> numbers = Split(text, ":");
        Position position = {};
        CHECK(numbers.size() == 2 && ParseInt(numbers[0], &position.line, 1) &&
              ParseInt(numbers[1], &position.column, 1))
                << where_ << "no position: " << text;
        return position;
    }

    PolicyFile::Schema schemaOf(const std::string& text) const {
        if (text == "valid") return PolicyFile::Schema::kValid;
        if (text == "invalid") return PolicyFile::Schema::kInvalid;
        CHECK(text == "malformed") << where_ << "unknown verdict of the schema: " << text;
        return PolicyFile::Schema::kMalformed;
    }

    std::string where_;
    int line_;
};

// The build tells absolute paths, or those beside the program.
std::string found(const std::string& path) {
    return path.front() == '/' ? path : android::base::GetExecutableDirectory() + "/" + path;
}

std::string contentOf(const std::string& path) {
    std::string text;
    CHECK(android::base::ReadFileToString(path, &text)) << path;
    return text;
}

}  // namespace

int PolicyFile::signal() const {
    if (outcome == "SIGSEGV") return SIGSEGV;
    if (outcome == "SIGABRT") return SIGABRT;
    return 0;
}

std::vector<PolicyFile> ReadPolicyTable() {
    return ReadPolicyTable(found(POLICY_TABLE_PATH));
}

std::vector<PolicyFile> ReadPolicyTable(const std::string& path) {
    const std::string text = contentOf(path);
    CHECK(android::base::EndsWith(text, "\n")) << path << " is cut off";
    std::vector<std::string> lines = Split(text, "\n");
    lines.pop_back();

    std::vector<PolicyFile> files;
    int number = 0;
    for (const std::string& line : lines) {
        ++number;
        if (android::base::StartsWith(line, "#")) continue;
        files.push_back(LineReader(path, number).Read(line));
    }
    return files;
}

std::string ReadPolicyExample(const std::string& name) {
    return contentOf(found(POLICY_EXAMPLES_PATH) + "/" + name);
}

}  // namespace android::kus::test
