// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/policy_table.h"

#include <signal.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kTable[] = "/tmp/table.tsv";

std::vector<PolicyFile> read(const std::string& text) {
    WriteFile(kTable, text);
    return ReadPolicyTable(kTable);
}

PolicyFile readOne(const std::string& line) {
    const std::vector<PolicyFile> files = read(line + "\n");
    EXPECT_EQ(1u, files.size());
    return files.at(0);
}

TEST(PolicyTable, ReadsAnAcceptedFile) {
    const PolicyFile file = readOne("good\tSUCCESS\t-\tvalid\t-\t<a/>");

    EXPECT_EQ(1, file.line);
    EXPECT_EQ("good", file.name);
    EXPECT_EQ("SUCCESS", file.outcome);
    EXPECT_TRUE(file.accepted());
    EXPECT_TRUE(file.agreed());
    EXPECT_EQ(0, file.signal());
    EXPECT_FALSE(file.position.has_value());
    EXPECT_EQ(PolicyFile::Schema::kValid, file.schema);
    EXPECT_EQ("", file.difference);
    EXPECT_EQ("<a/>", file.document);
}

TEST(PolicyTable, ReadsARejectedFile) {
    const PolicyFile file = readOne("bad\tINVALID TAG:x\t12:345\tvalid\tkind\t<b/>");

    EXPECT_EQ("INVALID TAG:x", file.outcome);
    EXPECT_FALSE(file.accepted());
    EXPECT_FALSE(file.agreed());
    EXPECT_EQ(0, file.signal());
    ASSERT_TRUE(file.position.has_value());
    EXPECT_EQ(12, file.position->line);
    EXPECT_EQ(345, file.position->column);
    EXPECT_EQ("kind", file.difference);
}

TEST(PolicyTable, TellsTheSignalThatAFileEndsTheDaemonBy) {
    EXPECT_EQ(SIGSEGV, readOne("a\tSIGSEGV\t1:1\tmalformed\t-\tx").signal());
    EXPECT_EQ(SIGABRT, readOne("a\tSIGABRT\t1:1\tinvalid\t-\tx").signal());
}

TEST(PolicyTable, TakesEscapesForBytes) {
    const PolicyFile file =
            readOne(R"(a	E:\x20\\n	1:1	invalid	-	\n\r\t\\ \\x41\x41\x00\xfF.)");

    EXPECT_EQ("E: \\n", file.outcome);
    EXPECT_EQ(std::string("\n\r\t\\ \\x41A\0\xFF.", 13), file.document);
}

TEST(PolicyTable, KeepsOrderAndLineNumbersAndSkipsComments) {
    const std::vector<PolicyFile> files =
            read("# head\n#\na\tSUCCESS\t-\tvalid\t-\t\n# more\tx\nb\tSUCCESS\t-\tvalid\t-\t#\n");

    ASSERT_EQ(2u, files.size());
    EXPECT_EQ("a", files[0].name);
    EXPECT_EQ(3, files[0].line);
    EXPECT_EQ("", files[0].document);
    EXPECT_EQ("b", files[1].name);
    EXPECT_EQ(5, files[1].line);
    EXPECT_EQ("#", files[1].document);
}

TEST(PolicyTable, IsEmptyWhenThereAreCommentsAlone) {
    EXPECT_THAT(read("# nothing\n"), IsEmpty());
}

TEST(PolicyTable, EndsTheProcessOnALineThatIsNotAsItShouldBe) {
    const std::vector<std::pair<std::string, std::string>> lines = {
            {"", "1 columns"},
            {"a\tSUCCESS\t-\tvalid\t-", "5 columns"},
            {"a\tSUCCESS\t-\tvalid\t-\t<a/>\t", "7 columns"},
            {"\tSUCCESS\t-\tvalid\t-\t<a/>", "no name"},
            {"a\tSUCCESS\t-\tgood\t-\t<a/>", "unknown verdict of the schema: good"},
            {"a\tSUCCESS\t1:1\tvalid\t-\t<a/>", "an error has a position"},
            {"a\tE\t-\tinvalid\t-\t<a/>", "an error has a position"},
            {"a\tE\t\tinvalid\t-\t<a/>", "no position: "},
            {"a\tE\t1\tinvalid\t-\t<a/>", "no position: 1"},
            {"a\tE\t0:1\tinvalid\t-\t<a/>", "no position: 0:1"},
            {"a\tE\t1:0\tinvalid\t-\t<a/>", "no position: 1:0"},
            {"a\tE\t1:x\tinvalid\t-\t<a/>", "no position: 1:x"},
            {"a\tE\t1:2:3\tinvalid\t-\t<a/>", "no position: 1:2:3"},
            {"a\tSUCCESS\t-\tinvalid\t-\t<a/>", "a difference has a kind"},
            {"a\tSUCCESS\t-\tvalid\tkind\t<a/>", "a difference has a kind"},
            {"a\tE\t1:1\tvalid\t-\t<a/>", "a difference has a kind"},
            {"a\tSUCCESS\t-\tvalid\t-\t\\q", "unknown escape: q"},
            {"a\tSUCCESS\t-\tvalid\t-\t\\", "unknown escape: "},
            {"a\tSUCCESS\t-\tvalid\t-\t\\x4", "no byte: 4"},
            {"a\tSUCCESS\t-\tvalid\t-\t\\xg0", "no byte: g0"},
    };
    for (const auto& [line, reason] : lines) {
        SCOPED_TRACE(line);

        const ProcessResult result = RunInChild([text = "# head\n" + line + "\n"] { read(text); });

        EXPECT_EQ(SIGABRT, result.signal);
        EXPECT_THAT(result.err, HasSubstr(std::string(kTable) + ":2: " + reason));
    }
}

TEST(PolicyTable, EndsTheProcessOnATableThatIsMissingOrCutOff) {
    EXPECT_EQ(SIGABRT, RunInChild([] { ReadPolicyTable("/tmp/missing"); }).signal);

    const ProcessResult result = RunInChild([] { read("a\tSUCCESS\t-\tvalid\t-\t<a/>"); });
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_THAT(result.err, HasSubstr("is cut off"));
}

}  // namespace

}  // namespace android::kus::test
