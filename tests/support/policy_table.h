// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/**
 * Policy files: those of tests/policies/table.tsv, which tells what becomes of each, and the
 * examples of docs/examples.
 */

#pragma once

#include <optional>
#include <string>
#include <vector>

namespace android::kus::test {

/** Where in a document: from 1 on, columns in bytes. */
struct Position {
    int line;
    int column;
};

/** One line of the table. */
struct PolicyFile {
    enum class Schema { kValid, kInvalid, kMalformed };

    /** "SUCCESS": the daemon takes the file. */
    bool accepted() const { return outcome == "SUCCESS"; }
    /** Schema and daemon say the same of it. */
    bool agreed() const { return accepted() == (schema == Schema::kValid); }
    /** The signal that the file ends the daemon by, or 0. */
    int signal() const;

    /** Where it stands in the table. */
    int line;
    std::string name;
    /** "SUCCESS", the text of the error, or the signal's name. */
    std::string outcome;
    /** Of the error; none when the file is accepted. */
    std::optional<Position> position;
    /** What the schema makes of it. */
    Schema schema;
    /** The kind of difference between schema and daemon; empty when they agree. */
    std::string difference;
    std::string document;
};

/** The whole table, in its order. A line that is not as the table says ends the process. */
std::vector<PolicyFile> ReadPolicyTable();
/** The same of another table. */
std::vector<PolicyFile> ReadPolicyTable(const std::string& path);

/** The example of that file name; one that is not there ends the process. */
std::string ReadPolicyExample(const std::string& name);

}  // namespace android::kus::test
