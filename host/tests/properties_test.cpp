// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "host/properties/properties.h"

#include <cutils/properties.h>
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::properties::test {

namespace {

using ::android::kus::test::Exists;
using ::android::kus::test::MakeDir;
using ::android::kus::test::MakeLink;
using ::android::kus::test::ProcessResult;
using ::android::kus::test::ReadFile;
using ::android::kus::test::Remove;
using ::android::kus::test::RunInChild;
using ::android::kus::test::RunProgram;
using ::android::kus::test::WriteFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

const std::string kLongest(PROPERTY_VALUE_MAX - 1, 'v');
const std::string kTooLong(PROPERTY_VALUE_MAX, 'v');

std::string pathOf(const std::string& name) {
    return std::string(kPropertyDir) + "/" + name;
}

// A value and the length that the call returned.
std::pair<std::string, int> get(const char* name, const char* fallback) {
    std::string buffer(PROPERTY_VALUE_MAX, '#');
    const int length = property_get(name, buffer.data(), fallback);
    return {buffer.c_str(), length};
}

using Entries = std::vector<std::pair<std::string, std::string>>;

void addEntry(const char* key, const char* value, void* entries) {
    static_cast<Entries*>(entries)->emplace_back(key, value);
}

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
    return status.st_mode & 07777;
}

class Properties : public ::testing::Test {
  protected:
    void SetUp() override { Remove(kPropertyDir); }
};

TEST_F(Properties, LimitIsThePlatforms) {
    EXPECT_EQ(92, PROPERTY_VALUE_MAX);
}

// ---- property_get

TEST_F(Properties, GetWithoutADirectoryGivesTheDefault) {
    EXPECT_THAT(get("kus.test", "fallback"), Pair("fallback", 8));
}

TEST_F(Properties, GetOfAnUnsetPropertyGivesTheDefault) {
    ASSERT_EQ(0, property_set("kus.other", "1"));
    EXPECT_THAT(get("kus.test", "fallback"), Pair("fallback", 8));
}

TEST_F(Properties, GetWithoutADefaultGivesAnEmptyText) {
    EXPECT_THAT(get("kus.test", nullptr), Pair("", 0));
}

TEST_F(Properties, GetOfAnEmptyValueGivesTheDefault) {
    ASSERT_EQ(0, property_set("kus.test", ""));
    EXPECT_THAT(get("kus.test", "fallback"), Pair("fallback", 8));
    EXPECT_THAT(get("kus.test", nullptr), Pair("", 0));
}

TEST_F(Properties, GetCutsALongDefault) {
    EXPECT_THAT(get("kus.test", kTooLong.c_str()), Pair(kLongest, 91));
}

TEST_F(Properties, GetCutsALongValueThatAnotherHandWrote) {
    WriteFile(pathOf("kus.test"), kTooLong);
    EXPECT_THAT(get("kus.test", ""), Pair(kLongest, 91));
}

TEST_F(Properties, GetOfANullOrInvalidNameGivesTheDefault) {
    EXPECT_THAT(get(nullptr, "fallback"), Pair("fallback", 8));
    WriteFile("/run/outside", "secret");
    EXPECT_THAT(get("../outside", "fallback"), Pair("fallback", 8));
}

TEST_F(Properties, GetDoesNotFollowLinksOutOfTheStore) {
    WriteFile("/run/outside", "secret");
    MakeLink(pathOf("kus.test"), "/run/outside");
    EXPECT_THAT(get("kus.test", "fallback"), Pair("fallback", 8));
}

// ---- property_set

TEST_F(Properties, SetIsReadBack) {
    ASSERT_EQ(0, property_set("kus.test", "some value"));
    EXPECT_THAT(get("kus.test", "fallback"), Pair("some value", 10));
    EXPECT_EQ("some value", ReadFile(pathOf("kus.test")));
}

TEST_F(Properties, SetReplacesTheValue) {
    ASSERT_EQ(0, property_set("kus.test", "longer than the next"));
    ASSERT_EQ(0, property_set("kus.test", "next"));
    EXPECT_THAT(get("kus.test", ""), Pair("next", 4));
}

TEST_F(Properties, SetOfNullIsSetOfAnEmptyText) {
    ASSERT_EQ(0, property_set("kus.test", "1"));
    ASSERT_EQ(0, property_set("kus.test", nullptr));
    EXPECT_EQ("", ReadFile(pathOf("kus.test")));
}

TEST_F(Properties, SetTakesTheLongestValue) {
    ASSERT_EQ(0, property_set("kus.test", kLongest.c_str()));
    EXPECT_THAT(get("kus.test", ""), Pair(kLongest, 91));
}

TEST_F(Properties, SetRefusesALongerValueAndKeepsTheOldOne) {
    ASSERT_EQ(0, property_set("kus.test", "old"));
    errno = 0;
    EXPECT_EQ(-1, property_set("kus.test", kTooLong.c_str()));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_THAT(get("kus.test", ""), Pair("old", 3));
}

TEST_F(Properties, SetRefusesInvalidNames) {
    const char* const names[] = {nullptr, "",   ".",    "..",  ".kus", "kus.", "kus..test",
                                 "a/b",   "/a", "../a", "a b", "a\n",  "a=b",  "\xc3\xa4"};
    for (const char* name : names) {
        SCOPED_TRACE(name == nullptr ? "null" : name);
        errno = 0;
        EXPECT_FALSE(isValidPropertyName(name));
        EXPECT_EQ(-1, property_set(name, "1"));
        EXPECT_EQ(EINVAL, errno);
    }
    EXPECT_FALSE(Exists(kPropertyDir));
}

TEST_F(Properties, SetTakesEveryCharacterThatThePlatformAllows) {
    ASSERT_EQ(0, property_set("aZ0_-@:.x", "1"));
    EXPECT_THAT(get("aZ0_-@:.x", ""), Pair("1", 1));
}

TEST_F(Properties, SetLeavesAReadOnlyPropertyAsItWasFirstSet) {
    ASSERT_EQ(0, property_set("ro.kus.test", "first"));
    errno = 0;
    EXPECT_EQ(-1, property_set("ro.kus.test", "second"));
    EXPECT_EQ(EPERM, errno);
    EXPECT_THAT(get("ro.kus.test", ""), Pair("first", 5));
}

TEST_F(Properties, SetOfAReadOnlyPropertyLetsOneOfManyFirstWritersWin) {
    constexpr int kWriters = 8;
    std::vector<pid_t> writers;
    for (int i = 0; i < kWriters; ++i) {
        const pid_t pid = fork();
        ASSERT_NE(-1, pid);
        if (pid == 0) _exit(property_set("ro.kus.test", std::to_string(i).c_str()) == 0 ? 0 : 1);
        writers.push_back(pid);
    }

    std::vector<std::string> winners;
    for (int i = 0; i < kWriters; ++i) {
        int status = -1;
        ASSERT_EQ(writers[i], waitpid(writers[i], &status, 0));
        if (status == 0) winners.push_back(std::to_string(i));
    }
    EXPECT_THAT(winners, ElementsAre(get("ro.kus.test", "").first));
}

TEST_F(Properties, SetMakesDirectoryAndFileReadableForAllWhateverTheUmask) {
    const mode_t before = umask(077);
    const int result = property_set("kus.test", "1");
    umask(before);
    ASSERT_EQ(0, result);
    EXPECT_EQ(0755u, modeOf(kPropertyDir));
    EXPECT_EQ(0644u, modeOf(pathOf("kus.test")));
}

TEST_F(Properties, SetFailsWhereTheDirectoryCannotBe) {
    WriteFile(kPropertyDir, "a file");
    errno = 0;
    EXPECT_EQ(-1, property_set("kus.test", "1"));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(Properties, SetThatFailsLeavesNoFileBehind) {
    MakeDir(pathOf("kus.test"));
    errno = 0;
    EXPECT_EQ(-1, property_set("kus.test", "1"));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ(0, rmdir(pathOf("kus.test").c_str()));
    EXPECT_EQ(0, rmdir(kPropertyDir)) << "the directory is not empty";
}

TEST_F(Properties, SetOfAReadOnlyPropertyLeavesNoOtherFileBehind) {
    ASSERT_EQ(0, property_set("ro.kus.test", "1"));
    ASSERT_EQ(-1, property_set("ro.kus.test", "2"));
    ASSERT_EQ(0, unlink(pathOf("ro.kus.test").c_str()));
    EXPECT_EQ(0, rmdir(kPropertyDir)) << "the directory is not empty";
}

// ---- several processes

TEST_F(Properties, AChangeByAnotherProcessIsSeenAtTheNextCall) {
    ASSERT_EQ(0, property_set("kus.test", "0"));
    EXPECT_EQ(0, property_get_int32("kus.test", -1));
    const ProcessResult other =
            RunInChild([] { _exit(property_set("kus.test", "1") == 0 ? 7 : 8); });
    ASSERT_EQ(7, other.status);
    EXPECT_EQ(1, property_get_int32("kus.test", -1));
}

TEST_F(Properties, EachOfManyQuickChangesIsSeenAtTheNextCall) {
    for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(0, property_set("kus.test", std::to_string(i).c_str()));
        ASSERT_EQ(i, property_get_int32("kus.test", -1));
    }
}

TEST_F(Properties, ARemovedPropertyIsGoneAtTheNextCallAndANewDirectoryIsRead) {
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(0, property_set("kus.test", std::to_string(i).c_str()));
        ASSERT_EQ(i, property_get_int32("kus.test", -1));
        if (i % 2 == 0) {
            Remove(pathOf("kus.test"));
        } else {
            Remove(kPropertyDir);
        }
        ASSERT_EQ(-1, property_get_int32("kus.test", -1));
    }
}

TEST_F(Properties, IsReadOnceWhileNothingChanges) {
    ASSERT_EQ(0, property_set("kus.test", "1"));
    ASSERT_EQ(1, property_get_int32("kus.test", -1));
    const base::unique_fd watcher(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_NE(-1, inotify_add_watch(watcher, pathOf("kus.test").c_str(), IN_OPEN));
    char events[4096];

    EXPECT_EQ(1, property_get_int32("kus.test", -1));
    EXPECT_EQ(-1, read(watcher, events, sizeof(events))) << "the file was opened";
    ASSERT_EQ(0, property_set("kus.other", ""));
    EXPECT_EQ(1, property_get_int32("kus.test", -1));
    EXPECT_LT(0, read(watcher, events, sizeof(events))) << "the file was not opened";
}

TEST_F(Properties, AChangeInPlaceIsSeenAtTheNextCall) {
    ASSERT_EQ(0, property_set("kus.test", "1"));
    ASSERT_EQ(1, property_get_int32("kus.test", -1));
    WriteFile(pathOf("kus.test"), "2");
    EXPECT_EQ(2, property_get_int32("kus.test", -1));
}

TEST_F(Properties, AChangeIsSeenByParentAndChildAlike) {
    ASSERT_EQ(0, property_set("kus.test", "1"));
    ASSERT_EQ(1, property_get_int32("kus.test", -1));
    const ProcessResult child = RunInChild([] {
        property_set("kus.test", "2");
        _exit(property_get_int32("kus.test", -1));
    });
    EXPECT_EQ(2, child.status);
    EXPECT_EQ(2, property_get_int32("kus.test", -1));
}

TEST_F(Properties, AReaderNeverSeesAPartOfAValue) {
    constexpr int kReads = 2000;
    const std::string brief = "b";
    ASSERT_EQ(0, property_set("kus.test", kLongest.c_str()));
    const pid_t writer = fork();
    ASSERT_NE(-1, writer);
    if (writer == 0) {
        while (property_set("kus.test", brief.c_str()) == 0 &&
               property_set("kus.test", kLongest.c_str()) == 0) {
        }
        _exit(1);
    }

    std::set<std::string> seen;
    for (int i = 0; i < kReads || seen.size() < 2; ++i) {
        seen.insert(get("kus.test", "nothing").first);
    }
    ASSERT_EQ(0, kill(writer, SIGKILL));
    int status = 0;
    ASSERT_EQ(writer, waitpid(writer, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer failed";
    EXPECT_THAT(seen, ElementsAre(brief, kLongest));
}

// ---- property_get_int32

struct Conversion {
    const char* text;
    int32_t number;
};

TEST_F(Properties, GetInt32ConvertsTheLongestPrefixInItsBase) {
    const Conversion conversions[] = {
            {"0", 0},
            {"1", 1},
            {"+7", 7},
            {"-42", -42},
            {" \t12 ", 12},
            {"12abc", 12},
            {"1.9", 1},
            {"010", 8},
            {"08", 0},
            {"0x1F", 31},
            {"0XfFz", 255},
            {"-0x10", -16},
            {"0x", 0},
            {"2147483647", INT32_MAX},
            {"-2147483648", INT32_MIN},
    };
    for (const Conversion& conversion : conversions) {
        SCOPED_TRACE(conversion.text);
        ASSERT_EQ(0, property_set("kus.test", conversion.text));
        EXPECT_EQ(conversion.number, property_get_int32("kus.test", -99));
    }
}

TEST_F(Properties, GetInt32GivesTheDefaultForWhatIsNoInt32) {
    const char* const texts[] = {
            "",     "abc",        "-",           " ",          "x10",
            "true", "2147483648", "-2147483649", "0xFFFFFFFF", "9223372036854775808"};
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        ASSERT_EQ(0, property_set("kus.test", text));
        EXPECT_EQ(-99, property_get_int32("kus.test", -99));
    }
}

TEST_F(Properties, GetInt32GivesTheDefaultForAnUnsetOrNullName) {
    EXPECT_EQ(5, property_get_int32("kus.test", 5));
    EXPECT_EQ(6, property_get_int32(nullptr, 6));
}

TEST_F(Properties, GetInt32LeavesErrnoAlone) {
    ASSERT_EQ(0, property_set("kus.test", "9223372036854775808"));
    errno = ENOTTY;
    EXPECT_EQ(5, property_get_int32("kus.test", 5));
    EXPECT_EQ(5, property_get_int32("kus.unset", 5));
    EXPECT_EQ(ENOTTY, errno);
}

// ---- property_list

TEST_F(Properties, ListWithoutADirectoryIsEmpty) {
    Entries entries;
    EXPECT_EQ(0, property_list(addEntry, &entries));
    EXPECT_THAT(entries, IsEmpty());
}

TEST_F(Properties, ListIsInAlphabeticalOrderAndKnowsNoOtherFiles) {
    ASSERT_EQ(0, property_set("kus.b", "2"));
    ASSERT_EQ(0, property_set("kus.a", "1"));
    ASSERT_EQ(0, property_set("kus.c", ""));
    WriteFile(pathOf(".unfinished"), "x");
    Entries entries;
    EXPECT_EQ(0, property_list(addEntry, &entries));
    EXPECT_THAT(entries, ElementsAre(Pair("kus.a", "1"), Pair("kus.b", "2"), Pair("kus.c", "")));
}

TEST_F(Properties, ListFailsWhereTheDirectoryIsNone) {
    WriteFile(kPropertyDir, "a file");
    Entries entries;
    errno = 0;
    EXPECT_EQ(-1, property_list(addEntry, &entries));
    EXPECT_EQ(ENOTDIR, errno);
}

// ---- getprop, setprop

TEST_F(Properties, GetpropPrintsWhatSetpropSet) {
    EXPECT_EQ(0, RunProgram({KUS_SETPROP_PATH, "kus.test", "a value"}).status);
    const ProcessResult got = RunProgram({KUS_GETPROP_PATH, "kus.test"});
    EXPECT_EQ(0, got.status);
    EXPECT_EQ("a value\n", got.out);
}

TEST_F(Properties, GetpropPrintsTheDefaultOrAnEmptyLine) {
    EXPECT_EQ("fallback\n", RunProgram({KUS_GETPROP_PATH, "kus.test", "fallback"}).out);
    EXPECT_EQ("\n", RunProgram({KUS_GETPROP_PATH, "kus.test"}).out);
}

TEST_F(Properties, GetpropAlonePrintsAll) {
    ASSERT_EQ(0, property_set("kus.b", "2"));
    ASSERT_EQ(0, property_set("kus.a", "one"));
    EXPECT_EQ("[kus.a]: [one]\n[kus.b]: [2]\n", RunProgram({KUS_GETPROP_PATH}).out);
}

TEST_F(Properties, GetpropFailsWhereTheDirectoryIsNone) {
    WriteFile(kPropertyDir, "a file");
    const ProcessResult got = RunProgram({KUS_GETPROP_PATH});
    EXPECT_EQ(1, got.status);
    EXPECT_EQ("getprop: cannot list the properties: Not a directory\n", got.err);
}

TEST_F(Properties, SetpropSaysWhyItFailed) {
    const ProcessResult set = RunProgram({KUS_SETPROP_PATH, ".kus", "1"});
    EXPECT_EQ(1, set.status);
    EXPECT_EQ("setprop: cannot set '.kus' to '1': Invalid argument\n", set.err);
}

TEST_F(Properties, ProgramsRefuseAWrongNumberOfArguments) {
    for (const ProcessResult& result :
         {RunProgram({KUS_GETPROP_PATH, "a", "b", "c"}), RunProgram({KUS_SETPROP_PATH, "a"})}) {
        EXPECT_EQ(1, result.status);
        EXPECT_THAT(result.err, HasSubstr("usage: "));
    }
}

}  // namespace

}  // namespace android::properties::test
