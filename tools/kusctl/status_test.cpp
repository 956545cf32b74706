// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/status.h"

#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::tools {
namespace {

using Outcome = PolicyStatus::Outcome;
using test::MakeDir;
using test::Remove;
using test::WriteFile;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const Style kPlain;
const Style kColoured = {false, true};

constexpr char kCrash[] = "Unable to apply the USB Admin config rules";
constexpr char kFile[] = "<usbconfig mode='whitelist'>\n</usbconfig>\n";
const ServiceStatus kRunning = {true, "", false};

PolicyReading whitelist() {
    return {true, "whitelist", 2, 1};
}

PolicyReading badFile() {
    return {false, "whitelist", 1, 0};
}

PolicyFiles files(const char* status, const char* config = kFile, const char* backup = kFile) {
    const auto content = [](const char* text) {
        return text == nullptr ? std::optional<std::string>() : text;
    };
    return {content(status), content(config), content(backup)};
}

TEST(PolicyStatus, FileThatWasTakenOverNeedsNoAdvice) {
    const PolicyStatus status = policyStatus(files("SUCCESS"), whitelist());
    EXPECT_EQ(Outcome::kTaken, status.outcome);
    EXPECT_TRUE(status.taken());
    EXPECT_TRUE(status.backupSame);
    EXPECT_TRUE(status.good());
    EXPECT_EQ("", status.advice);
    EXPECT_EQ(
            "service     running\n"
            "last file   taken over (SUCCESS)\n"
            "mode        whitelist: 2 class rules, 1 vendor rule\n"
            "backup      the same as the file\n",
            statusText(kRunning, status, kPlain));
}

TEST(PolicyStatus, BackupIsComparedAsTheDaemonCopies) {
    struct Case {
        const char* config;
        const char* backup;
        bool same;
    };
    const Case cases[] = {
            {"a\nb\n", "a\nb\n", true},   {"a\nb", "a\nb\n", true},
            {"a\r\nb", "a\r\nb\n", true}, {"", "", true},
            {"\n", "\n", true},           {"a\nb\n", "a\nb", false},
            {"a\nb\n", "a\nc\n", false},  {"a", "a", false},
            {"a\n", "a\n\n", false},      {"", "\n", false},
            {"a\n", "", false},           {"a\r\n", "a\n", false},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(each.same,
                  policyStatus(files("SUCCESS", each.config, each.backup), {}).backupSame)
                << each.config << "|" << each.backup;
    }
}

// The copy is asked of the daemon's own code.
TEST(PolicyStatus, CopyOfTheDaemonIsTheSame) {
    for (const char* config : {"a\nb\n", "a\nb", "", "\n", "a\r\n\nb"}) {
        WriteFile("/tmp/file", config);
        Util::copyFileContent("/tmp/file", "/tmp/copy");
        const std::string copy = test::ReadFile("/tmp/copy");
        EXPECT_TRUE(policyStatus(files("SUCCESS", config, copy.c_str()), {}).backupSame) << config;
    }
}

struct Case {
    const char* name;
    PolicyFiles files;
    PolicyReading reading;
    Outcome outcome;
    bool backupSame;
    // The beginning of each.
    const char* lastFile;
    const char* advice;
};

const Case kTroubles[] = {
        {"rejected, the backup restored", files("INVALID MODE"), whitelist(), Outcome::kRejected,
         true, "rejected: INVALID MODE\n",
         "the file was rejected and the backup restored: correct it (kusctl check FILE tells what "
         "is wrong) and write it again"},
        {"rejected at the start, still in place", files("INVALID MODE", "<bad>\n"), badFile(),
         Outcome::kRejected, false, "rejected: INVALID MODE\n",
         "the file was rejected and is still in place: "},
        {"rejected before there was a backup", files("INVALID MODE", "<bad>\n", nullptr), badFile(),
         Outcome::kRejected, false, "rejected: INVALID MODE\n",
         "the file was rejected and is still in place: "},
        {"a good file behind a bad one", files("INVALID MODE", "<good>\n"), whitelist(),
         Outcome::kRejected, false, "rejected: INVALID MODE\n",
         "the file in place is good but was not taken over: write it again in place"},
        {"crashed", files(kCrash), whitelist(), Outcome::kCrashed, true,
         "crashed the service, or it crashed by itself: Unable to apply the USB Admin config "
         "rules\n",
         "the service crashed and the backup was restored, in case the file was the reason: "},
        {"crashed without a good file to restore", files(kCrash, "", ""), badFile(),
         Outcome::kCrashed, true,
         "crashed the service, or it crashed by itself: Unable to apply the USB Admin config "
         "rules\n",
         "the file as it stands would be rejected: correct it (kusctl check "
         "/data/system/usbdeviceconfig/usb_device_config.xml tells what is wrong)"},
        {"changed without notice", files("SUCCESS", "<other>\n"), whitelist(), Outcome::kTaken,
         false, "taken over (SUCCESS)\n", "the file is not the one that was taken over ("},
        {"changed for the worse without notice", files("SUCCESS", "<bad>\n"), badFile(),
         Outcome::kTaken, false, "taken over (SUCCESS)\n",
         "the file as it stands would be rejected: "},
        {"backup missing", files("SUCCESS", kFile, nullptr), whitelist(), Outcome::kTaken, false,
         "taken over (SUCCESS)\n", "the file is not the one that was taken over ("},
        {"file gone",
         files("SUCCESS", nullptr),
         {},
         Outcome::kTaken,
         false,
         "taken over (SUCCESS)\n",
         "the file is gone: the rules in force stay until the next start of the service, and from "
         "then on every device is allowed: write "
         "/data/system/usbdeviceconfig/usb_device_config.xml"},
        {"file gone behind a bad one",
         files("INVALID MODE", nullptr),
         {},
         Outcome::kRejected,
         false,
         "rejected: INVALID MODE\n",
         "the file is gone: the rules in force stay until the next start of the service"},
        {"no file at the start",
         files("Error=XML_ERROR_FILE_NOT_FOUND", nullptr, nullptr),
         {},
         Outcome::kRejected,
         false,
         "rejected: Error=XML_ERROR_FILE_NOT_FOUND\n",
         "there is no file: every device is allowed: write "},
        {"nothing at all",
         files(nullptr, nullptr, nullptr),
         {},
         Outcome::kNone,
         false,
         "none yet\n",
         "there is no file: every device is allowed: write "},
        {"not read yet", files(nullptr, kFile, nullptr), whitelist(), Outcome::kNone, false,
         "none yet\n", "no service has read the file yet: start kusd"},
        {"power lost over the status", files(""), whitelist(), Outcome::kUnfinished, true,
         "unknown: the status is empty\n", "the power went while the status was written: "},
};

TEST(PolicyStatus, EveryTroubleIsNamedAndAnswered) {
    for (const Case& each : kTroubles) {
        SCOPED_TRACE(each.name);
        const PolicyStatus status = policyStatus(each.files, each.reading);
        EXPECT_EQ(each.outcome, status.outcome);
        EXPECT_EQ(each.backupSame, status.backupSame);
        EXPECT_FALSE(status.good());
        EXPECT_THAT(status.advice, StartsWith(each.advice));
        const std::string text = statusText(kRunning, status, kPlain);
        EXPECT_THAT(text, HasSubstr("last file   " + std::string(each.lastFile)));
        EXPECT_THAT(text, HasSubstr("\n" + status.advice + "\n"));
    }
}

TEST(StatusText, TellsTheModeAsFarAsItIsKnown) {
    struct Mode {
        PolicyFiles files;
        PolicyReading reading;
        const char* text;
    };
    const Mode modes[] = {
            {files("SUCCESS"), {true, "default", 0, 0}, "default: every device is allowed"},
            {files("SUCCESS"),
             {true, "blacklist", 1, 0},
             "blacklist: 1 class rule, 0 vendor rules"},
            {files("x"),
             {false, "greylist", 0, 0},
             "greylist, and the daemon would reject the file"},
            {files("x"), {false, "\033[1m", 0, 0}, "�[1m, and the daemon would reject the file"},
            {files("x"), {false, {}, 0, 0}, "-, and the daemon would reject the file"},
            {files("x", nullptr), {true, "whitelist", 1, 1}, "-"},
    };
    for (const Mode& each : modes) {
        const std::string text =
                statusText(kRunning, policyStatus(each.files, each.reading), kPlain);
        EXPECT_THAT(text, HasSubstr("\nmode        " + std::string(each.text) + "\n"));
    }
}

TEST(StatusText, ShoutsWhenThePolicyIsSwitchedOff) {
    const PolicyStatus policy = policyStatus(files("SUCCESS"), whitelist());
    EXPECT_THAT(statusText({true, "", true}, policy, kPlain),
                StartsWith("THE POLICY IS SWITCHED OFF: EVERY DEVICE IS ALLOWED "
                           "(ro.config.device.kus_automation is 1)\nservice     running\n"));
    EXPECT_THAT(statusText(kRunning, policy, kPlain), Not(HasSubstr("SWITCHED OFF")));
}

TEST(StatusText, TellsOfAServiceThatIsNotThere) {
    const PolicyStatus policy = policyStatus(files("SUCCESS"), whitelist());
    EXPECT_THAT(statusText({false, "", false}, policy, kPlain),
                StartsWith("service     not running: no device is judged\nlast file   taken over"));
    EXPECT_THAT(statusText({false, "/dev/binder: Permission denied", false}, policy, kPlain),
                StartsWith("service     cannot be asked: /dev/binder: Permission denied\n"));
}

TEST(StatusText, ColoursGoodAndBad) {
    EXPECT_THAT(statusText(kRunning, policyStatus(files("SUCCESS"), whitelist()), kColoured),
                StartsWith("service     \033[32mrunning\033[0m\n"
                           "last file   \033[32mtaken over (SUCCESS)\033[0m\n"));
    const std::string bad =
            statusText({}, policyStatus(files("no\033[2J"), whitelist()), kColoured);
    EXPECT_THAT(bad, HasSubstr("\033[31mnot running: no device is judged\033[0m\n"));
    EXPECT_THAT(bad, HasSubstr("\033[31mrejected: no�[2J\033[0m\n"));
    EXPECT_THAT(bad, HasSubstr("\n\033[33mthe file was rejected"));
}

TEST(StatusJson, HoldsAllThatIsKnown) {
    EXPECT_EQ(R"({"service":true,"automation":false,"status":"SUCCESS","outcome":"taken",)"
              R"("taken":true,"present":true,"accepted":true,"mode":"whitelist","classRules":2,)"
              R"("vendorRules":1,"backupPresent":true,"backupSame":true,"advice":""})",
              statusJson(kRunning, policyStatus(files("SUCCESS"), whitelist())));
    EXPECT_EQ(R"({"service":false,"automation":true,"status":"","outcome":"none","taken":false,)"
              R"("present":false,"accepted":false,"mode":"","classRules":0,"vendorRules":0,)"
              R"("backupPresent":false,"backupSame":false,"advice":"there is no file: every )"
              R"(device is allowed: write /data/system/usbdeviceconfig/usb_device_config.xml"})",
              statusJson({false, "", true}, policyStatus(files(nullptr, nullptr, nullptr), {})));
    for (const auto& [text, name] : {std::pair("INVALID MODE", "rejected"),
                                     std::pair("", "unfinished"), std::pair(kCrash, "crashed")}) {
        EXPECT_THAT(statusJson(kRunning, policyStatus(files(text), whitelist())),
                    HasSubstr("\"outcome\":\"" + std::string(name) + "\""));
    }
}

class ReadPolicyStatus : public ::testing::Test {
  protected:
    void SetUp() override { Remove(configDirPath); }

    PolicyStatus read() {
        const auto status = readPolicyStatus();
        EXPECT_TRUE(status.has_value()) << status.error();
        return status.has_value() ? *status : PolicyStatus();
    }

    std::string error() {
        const auto status = readPolicyStatus();
        return status.has_value() ? "no error" : status.error();
    }
};

TEST_F(ReadPolicyStatus, WithoutADirectoryNothingIsThere) {
    const PolicyStatus status = read();
    EXPECT_EQ(Outcome::kNone, status.outcome);
    EXPECT_FALSE(status.present);
    EXPECT_FALSE(status.backupPresent);
}

TEST_F(ReadPolicyStatus, CountsTheRulesAsTheDaemonReadsThem) {
    const std::string policy =
            "<usbconfig mode='blacklist'><class>USB_CLASS_AUDIO</class>"
            "<class>USB_CLASS_AUDIO</class><vid vendorid='1'/>"
            "<vid vendorid='2'><pid>3</pid><pid>4</pid></vid></usbconfig>";
    WriteFile(configFilePath, policy);
    WriteFile(backupFilePath, policy + "\n");
    WriteFile(statusFilePath, "SUCCESS");
    const PolicyStatus status = read();
    EXPECT_TRUE(status.good());
    EXPECT_TRUE(status.reading.accepted);
    EXPECT_EQ("blacklist", status.reading.mode);
    EXPECT_EQ(2U, status.reading.classRules);
    EXPECT_EQ(3U, status.reading.vendorRules);
}

TEST_F(ReadPolicyStatus, FileThatEndsTheDaemonDoesNotEndThis) {
    for (const char* policy : {"<!-- nothing -->",
                               "<usbconfig mode='whitelist'><vid vendorid='2147483648'/>"
                               "</usbconfig>"}) {
        WriteFile(configFilePath, policy);
        WriteFile(backupFilePath, "");
        WriteFile(statusFilePath, kCrash);
        const PolicyStatus status = read();
        EXPECT_EQ(Outcome::kCrashed, status.outcome);
        EXPECT_FALSE(status.reading.accepted);
        EXPECT_THAT(status.advice, StartsWith("the file as it stands would be rejected"));
    }
}

TEST_F(ReadPolicyStatus, FileThatCannotBeReadIsNamed) {
    MakeDir(statusFilePath);
    EXPECT_EQ(std::string(statusFilePath) + ": Is a directory", error());
    MakeDir(configFilePath);
    EXPECT_EQ(std::string(configFilePath) + ": Is a directory", error());
    Remove(configDirPath);
    WriteFile(configDirPath, "");
    EXPECT_EQ(std::string(configFilePath) + ": Not a directory", error());
}

}  // namespace
}  // namespace android::kus::tools
