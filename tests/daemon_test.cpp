// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <signal.h>
#include <sys/stat.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <android-base/logging.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;

constexpr char kConfigDir[] = "/data/system/usbdeviceconfig";
constexpr char kConfigFile[] = "/data/system/usbdeviceconfig/usb_device_config.xml";
constexpr char kStartupTasks[] = "run-startup-tasks";
constexpr char kDefaultConfig[] =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<usbconfig mode=\"default\">\n"
        "</usbconfig>";

// One line of standard error with what differs from run to run left out: "I daemon.cpp] text" for
// a line of the logger, the line as it is for any other.
std::string withoutTimeAndPlace(const std::string& line) {
    static const std::regex logLine(
            "kusd ([VDIWEF]) \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d +\\d+ +\\d+ ([^:]+):\\d+\\] (.*)");
    std::smatch parts;
    if (!std::regex_match(line, parts, logLine)) return line;
    return parts.str(1) + " " + parts.str(2) + "] " + parts.str(3);
}

std::vector<std::string> logOf(const ProcessResult& result) {
    std::vector<std::string> lines;
    std::istringstream err(result.err);
    for (std::string line; std::getline(err, line);) lines.push_back(withoutTimeAndPlace(line));
    return lines;
}

ProcessResult runDaemon(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {KUSD_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command);
}

auto isStartLine(int argc) {
    return MatchesRegex("I daemon.cpp\\] kus main called with argc: " + std::to_string(argc) +
                        "and argv: 0x[0-9a-f]+");
}

constexpr char kTaskLine[] = "I daemon.cpp] kus main called with run-startup-tasks";
constexpr char kNoDirectoryLine[] = "I daemon.cpp] no Directory exist";
constexpr char kDirectoryLine[] = "I daemon.cpp] Directory exist, creating file";

class Daemon : public ::testing::Test {
  protected:
    void SetUp() override {
        Remove(kConfigDir);
        Remove("/data/elsewhere");
    }

    // --- What a run of the start-up task may say, and that it ends with status 0.

    static void ExpectTaskWithDirectory(const ProcessResult& result, int argc = 2) {
        ExpectCleanEnd(result);
        EXPECT_THAT(logOf(result), ElementsAre(isStartLine(argc), kTaskLine, kDirectoryLine));
    }

    static void ExpectTaskWithoutDirectory(const ProcessResult& result) {
        ExpectCleanEnd(result);
        EXPECT_THAT(logOf(result), ElementsAre(isStartLine(2), kTaskLine, kNoDirectoryLine));
    }

  private:
    static void ExpectCleanEnd(const ProcessResult& result) {
        EXPECT_EQ(0, result.status);
        EXPECT_EQ(0, result.signal);
        EXPECT_EQ("", result.out);
    }
};

// --- Start-up task -----------------------------------------------------------------------------

using StartupTask = Daemon;

TEST_F(StartupTask, WritesTheDefaultConfiguration) {
    MakeDir(kConfigDir);

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, WritesNothingElse) {
    MakeDir(kConfigDir);

    runDaemon({kStartupTasks});

    EXPECT_FALSE(Exists("/data/system/usbdeviceconfig/status.txt"));
    EXPECT_FALSE(Exists("/data/system/usbdeviceconfig/usb_device_config_backup.xml"));
}

TEST_F(StartupTask, IgnoresFurtherArguments) {
    MakeDir(kConfigDir);

    ExpectTaskWithDirectory(runDaemon({kStartupTasks, "RUN", "--help"}), 4);

    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, LeavesTheModeOfTheFileToTheCreationMask) {
    const std::vector<std::pair<mode_t, mode_t>> masks = {
            {0, 0666}, {022, 0644}, {027, 0640}, {077, 0600}};
    for (const auto& [mask, mode] : masks) {
        SCOPED_TRACE(mask);
        Remove(kConfigDir);
        MakeDir(kConfigDir);

        const mode_t before = umask(mask);
        const ProcessResult result = runDaemon({kStartupTasks});
        umask(before);

        ExpectTaskWithDirectory(result);
        struct stat info {};
        ASSERT_EQ(0, stat(kConfigFile, &info));
        EXPECT_EQ(S_IFREG | mode, info.st_mode);
    }
}

TEST_F(StartupTask, LeavesAnExistingFileUnchanged) {
    for (const std::string content : {"<usbconfig mode=\"whitelist\"/>\n", "no XML\r\n", ""}) {
        SCOPED_TRACE(content);
        WriteFile(kConfigFile, content);

        ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

        EXPECT_EQ(content, ReadFile(kConfigFile));
    }
}

TEST_F(StartupTask, LeavesItsOwnFileUnchangedTheSecondTime) {
    MakeDir(kConfigDir);
    runDaemon({kStartupTasks});
    struct stat first {};
    ASSERT_EQ(0, stat(kConfigFile, &first));

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    struct stat second {};
    ASSERT_EQ(0, stat(kConfigFile, &second));
    EXPECT_EQ(first.st_mtim.tv_sec, second.st_mtim.tv_sec);
    EXPECT_EQ(first.st_mtim.tv_nsec, second.st_mtim.tv_nsec);
    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, LeavesADirectoryInThePlaceOfTheFileAlone) {
    MakeDir(kConfigFile);

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    struct stat info {};
    ASSERT_EQ(0, stat(kConfigFile, &info));
    EXPECT_TRUE(S_ISDIR(info.st_mode));
}

// Opening it would wait for a reader.
TEST_F(StartupTask, LeavesAFifoInThePlaceOfTheFileAlone) {
    MakeDir(kConfigDir);
    ASSERT_EQ(0, mkfifo(kConfigFile, 0600));

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    struct stat info {};
    ASSERT_EQ(0, stat(kConfigFile, &info));
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
}

TEST_F(StartupTask, LeavesTheTargetOfALinkInThePlaceOfTheFileAlone) {
    WriteFile("/data/elsewhere/rules.xml", "rules");
    MakeLink(kConfigFile, "/data/elsewhere/rules.xml");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ("rules", ReadFile("/data/elsewhere/rules.xml"));
}

TEST_F(StartupTask, WritesThroughALinkToAMissingFile) {
    MakeDir("/data/elsewhere");
    MakeLink(kConfigFile, "/data/elsewhere/rules.xml");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ(kDefaultConfig, ReadFile("/data/elsewhere/rules.xml"));
}

TEST_F(StartupTask, SaysNothingOfAFileThatCannotBeOpened) {
    MakeLink(kConfigFile, "/data/elsewhere/missing/rules.xml");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_FALSE(Exists(kConfigFile));
    EXPECT_FALSE(Exists("/data/elsewhere"));
}

TEST_F(StartupTask, NeverCreatesTheDirectory) {
    ExpectTaskWithoutDirectory(runDaemon({kStartupTasks}));

    EXPECT_FALSE(Exists(kConfigDir));
}

TEST_F(StartupTask, TakesAFileInThePlaceOfTheDirectoryAsNone) {
    WriteFile(kConfigDir, "a file");

    ExpectTaskWithoutDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ("a file", ReadFile(kConfigDir));
}

TEST_F(StartupTask, TakesALinkToNoDirectoryAsNone) {
    MakeLink(kConfigDir, "/data/elsewhere");

    ExpectTaskWithoutDirectory(runDaemon({kStartupTasks}));

    EXPECT_FALSE(Exists("/data/elsewhere"));
}

TEST_F(StartupTask, TakesALinkToADirectoryAsOne) {
    MakeDir("/data/elsewhere");
    MakeLink(kConfigDir, "/data/elsewhere");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ(kDefaultConfig, ReadFile("/data/elsewhere/usb_device_config.xml"));
}

// --- Service mode ------------------------------------------------------------------------------

// The sandbox has no binder driver, without which the library ends a process that wants one: so the
// service mode ends behind the parse of the rules, and the start-up task never got there.
class ServiceMode : public Daemon {
  protected:
    static void ExpectServiceMode(const std::vector<std::string>& arguments) {
        const ProcessResult result = runDaemon(arguments);

        EXPECT_EQ(SIGABRT, result.signal);
        EXPECT_EQ(-1, result.status);
        EXPECT_THAT(result.err, HasSubstr("Binder driver '/dev/binder' could not be opened."));
        const std::vector<std::string> log = logOf(result);
        ASSERT_THAT(log, SizeIs(Gt(3u)));
        EXPECT_THAT(log[0], isStartLine(static_cast<int>(arguments.size()) + 1));
        EXPECT_EQ("I ku_service.cpp]  parsing register createmap called", log[1]);
        EXPECT_THAT(log, Contains("I ku_service.cpp] Register called in ku_service"));
        EXPECT_THAT(log, AllOf(Not(Contains(kTaskLine)), Not(Contains(kNoDirectoryLine)),
                               Not(Contains(kDirectoryLine))));
    }
};

TEST_F(ServiceMode, IsStartedByNoOrAnyOtherFirstArgument) {
    const std::vector<std::vector<std::string>> commands = {
            {},
            {"run-startup-tasks "},
            {" run-startup-tasks"},
            {"RUN-STARTUP-TASKS"},
            {"Run-Startup-Tasks"},
            {"run-startup-task"},
            {"run-startup-tasks2"},
            {"--run-startup-tasks"},
            {""},
            {"serve", kStartupTasks},
            {"", kStartupTasks},
    };
    for (const std::vector<std::string>& arguments : commands) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        Remove(kConfigDir);
        MakeDir(kConfigDir);

        ExpectServiceMode(arguments);

        EXPECT_FALSE(Exists(kConfigFile));
    }
}

TEST_F(ServiceMode, NeverCreatesTheDirectory) {
    ExpectServiceMode({});

    EXPECT_FALSE(Exists(kConfigDir));
}

}  // namespace

}  // namespace android::kus::test
