// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The program itself, as far as it needs no binder driver.

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tools/kusctl/output.h"
#include "tools/kusctl/request.h"

namespace android::kus::tools {
namespace {

using test::Process;
using test::ProcessResult;
using test::WriteFile;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

using Words = std::vector<std::string>;

Words commandLine(const Words& args) {
    Words command = {KUSCTL_PATH};
    command.insert(command.end(), args.begin(), args.end());
    return command;
}

ProcessResult kusctl(const Words& args) {
    return test::RunProgram(commandLine(args));
}

ProcessResult kusctlWithOutput(const Words& args, const char* path) {
    Process process(commandLine(args), [path] {
        const int fd = open(path, O_WRONLY | O_CLOEXEC);
        if (fd == -1 || dup2(fd, STDOUT_FILENO) == -1) _exit(126);
    });
    return process.Wait();
}

TEST(Kusctl, AloneShowsItsUsageAsAnError) {
    const ProcessResult result = kusctl({});
    EXPECT_EQ(kUsageError, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ(kKusctlUsage, result.err);
}

TEST(Kusctl, HelpIsNoError) {
    for (const Words& args : {Words{"help"}, Words{"--help"}, Words{"watch", "--help"}}) {
        const ProcessResult result = kusctl(args);
        EXPECT_EQ(kGood, result.status);
        EXPECT_EQ(kKusctlUsage, result.out);
        EXPECT_EQ("", result.err);
    }
}

TEST(Kusctl, WrongCommandLineIsOneLine) {
    const ProcessResult result = kusctl({"lst", "--json"});
    EXPECT_EQ(kUsageError, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ("kusctl: there is no command 'lst': did you mean list\n", result.err);
}

TEST(Kusctl, WithoutABinderDriverThereIsNoService) {
    for (const Words& args : {Words{"list"}, Words{"list", "--json"}, Words{"watch"},
                              Words{"dump", "test"}, Words{"reset"}}) {
        const ProcessResult result = kusctl(args);
        EXPECT_EQ(kNoService, result.status) << args[0];
        EXPECT_EQ(0, result.signal) << args[0];
        EXPECT_EQ("", result.out);
        EXPECT_EQ(
                "kusctl: /dev/binder: No such file or directory: run this on the terminal, with "
                "kusd started\n",
                result.err);
    }
}

TEST(Kusctl, StatusTellsOfTheFilesWithoutAService) {
    WriteFile(configFilePath, "<usbconfig mode='default'/>");
    WriteFile(backupFilePath, "<usbconfig mode='default'/>\n");
    WriteFile(statusFilePath, "SUCCESS");
    const ProcessResult text = kusctl({"status"});
    EXPECT_EQ(kNoService, text.status);
    EXPECT_EQ(
            "service     cannot be asked: /dev/binder: No such file or directory\n"
            "last file   taken over (SUCCESS)\n"
            "mode        default: every device is allowed\n"
            "backup      the same as the file\n",
            text.out);
    EXPECT_EQ("", text.err);
    const ProcessResult json = kusctl({"status", "--json"});
    EXPECT_EQ(kNoService, json.status);
    EXPECT_THAT(json.out, StartsWith("{\"service\":false,\"automation\":false,\"status\":"
                                     "\"SUCCESS\","));
    EXPECT_EQ(json.out.size() - 1, json.out.find('\n'));
}

TEST(Kusctl, StatusOfFilesThatCannotBeReadIsNoStatus) {
    test::MakeDir(configFilePath);
    const ProcessResult result = kusctl({"status"});
    EXPECT_EQ(kUnreadable, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ(
            "kusctl: /data/system/usbdeviceconfig/usb_device_config.xml: Is a directory: run it "
            "as root or system\n",
            result.err);
}

TEST(Kusctl, SaysNothingOfTheDaemonsLog) {
    WriteFile(configFilePath, "<usbconfig mode='greylist'/>");
    WriteFile(statusFilePath, "INVALID MODE");
    const ProcessResult result = kusctl({"status"});
    EXPECT_EQ("", result.err);
    EXPECT_THAT(result.out, HasSubstr("rejected: INVALID MODE\n"));
    EXPECT_THAT(result.out, Not(HasSubstr("Invalid mode is set")));
}

TEST(Kusctl, OutputThatCannotBeWrittenIsAnError) {
    const ProcessResult result = kusctlWithOutput({"help"}, "/dev/full");
    EXPECT_EQ(kUnreadable, result.status);
    EXPECT_EQ("kusctl: not all could be written to standard output: make room there\n", result.err);
}

TEST(Kusctl, EndsWithTheReaderOfItsPipe) {
    int pipe[2];
    ASSERT_EQ(0, pipe2(pipe, O_CLOEXEC));
    close(pipe[0]);
    // Ignored by whoever started it: a pipe without a reader would be an error to report.
    Process process(commandLine({"help"}), [&pipe] {
        (void)signal(SIGPIPE, SIG_IGN);
        if (dup2(pipe[1], STDOUT_FILENO) == -1) _exit(126);
    });
    close(pipe[1]);
    const ProcessResult result = process.Wait();
    EXPECT_EQ(SIGPIPE, result.signal);
    EXPECT_EQ("", result.err);
}

TEST(Kusctl, CommandsAboutFilesReachTheirCode) {
    WriteFile("/tmp/bad.xml", "<usbconfig mode='greylist'/>");
    EXPECT_EQ(kNo, kusctl({"check", "/tmp/bad.xml"}).status);
    EXPECT_EQ(kUnreadable, kusctl({"check", "/tmp/none.xml"}).status);
}

}  // namespace
}  // namespace android::kus::tools
