// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/client_args.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

using Command = ClientRequest::Command;
using Words = std::vector<std::string>;

std::string errorOf(const Words& args) {
    const auto request = parseClientArgs(args);
    return request.has_value() ? "no error" : request.error();
}

TEST(ParseClientArgs, CommandsWithoutOptions) {
    EXPECT_EQ(Command::kPing, parseClientArgs({"ping"})->command);
    EXPECT_EQ(Command::kList, parseClientArgs({"list"})->command);
    EXPECT_EQ(Command::kDump, parseClientArgs({"dump"})->command);
    EXPECT_EQ(Command::kHelp, parseClientArgs({"help"})->command);
    EXPECT_EQ(Command::kHelp, parseClientArgs({"--help"})->command);
    EXPECT_FALSE(parseClientArgs({"list"})->json);
    EXPECT_TRUE(parseClientArgs({"list", "--json"})->json);
}

TEST(ParseClientArgs, WaitIsInSecondsAndZeroByDefault) {
    EXPECT_EQ(std::chrono::seconds(0), parseClientArgs({"ping"})->wait);
    EXPECT_EQ(std::chrono::seconds(7), parseClientArgs({"ping", "--wait", "7"})->wait);
    EXPECT_EQ("--wait: '-1' is out of range or no number", errorOf({"ping", "--wait", "-1"}));
}

TEST(ParseClientArgs, DecideFillsTheRecord) {
    const auto request = parseClientArgs({"decide", "--id", "3002", "--name", "A stick", "--class",
                                          "0", "--interfaces", "8,3", "--vid", "0x46f4", "--pid",
                                          "1", "--type", "0"});
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(Command::kDecide, request->command);
    EXPECT_EQ("A stick", request->device.deviceName);
    EXPECT_EQ(3002, request->device.deviceId);
    EXPECT_EQ(0, request->device.deviceClass);
    EXPECT_EQ(std::vector<int32_t>({8, 3}), request->device.interfaceClasses);
    EXPECT_EQ(18164, request->device.vendorId);
    EXPECT_EQ(1, request->device.productId);
    EXPECT_EQ(0, request->device.deviceType);
}

TEST(ParseClientArgs, DecideNeedsAnIdAndNumbers) {
    EXPECT_EQ("--id is needed", errorOf({"decide"}));
    EXPECT_EQ("--class: 'hub' is out of range or no number",
              errorOf({"decide", "--id", "1", "--class", "hub"}));
    EXPECT_EQ("--interfaces: 'x' is out of range or no number",
              errorOf({"decide", "--id", "1", "--interfaces", "8,x"}));
    EXPECT_EQ("unknown option --status", errorOf({"decide", "--id", "1", "--status", "1"}));
}

TEST(ParseClientArgs, RemoveReportsStatusZeroUnlessTold) {
    EXPECT_EQ(0, parseClientArgs({"remove", "--id", "3002"})->status);
    const auto request = parseClientArgs({"remove", "--id", "7", "--type", "1", "--status", "-2"});
    EXPECT_EQ(Command::kRemove, request->command);
    EXPECT_EQ(-2, request->status);
    EXPECT_EQ(7, request->device.deviceId);
    EXPECT_EQ(1, request->device.deviceType);
}

TEST(ParseClientArgs, WatchRegistersOnceReadsStdinAndHasNoLimitByDefault) {
    const auto plain = parseClientArgs({"watch"});
    EXPECT_EQ(Command::kWatch, plain->command);
    EXPECT_EQ(1, plain->registrations);
    EXPECT_EQ(0, plain->count);
    EXPECT_TRUE(plain->readsStdin);

    const auto full = parseClientArgs({"watch", "--register", "3", "--count", "2", "--no-stdin"});
    EXPECT_EQ(3, full->registrations);
    EXPECT_EQ(2, full->count);
    EXPECT_FALSE(full->readsStdin);
}

TEST(ParseClientArgs, WatchRefusesNegativeCounts) {
    EXPECT_EQ("--register: '-1' is out of range or no number",
              errorOf({"watch", "--register", "-1"}));
    EXPECT_EQ("--count: '-1' is out of range or no number", errorOf({"watch", "--count", "-1"}));
}

TEST(ParseClientArgs, ResetTakesOneNumberOfAnySign) {
    EXPECT_EQ(500, parseClientArgs({"reset", "500"})->delayMs);
    EXPECT_EQ(-1, parseClientArgs({"reset", "-1"})->delayMs);
    EXPECT_EQ("reset takes one number of milliseconds", errorOf({"reset"}));
    EXPECT_EQ("reset takes one number of milliseconds", errorOf({"reset", "1", "2"}));
    EXPECT_EQ("'soon' is out of range or no number", errorOf({"reset", "soon"}));
}

TEST(ParseClientArgs, DumpPassesItsWordsOn) {
    EXPECT_EQ(Words({"test", "-a"}), parseClientArgs({"dump", "test", "-a"})->dumpArgs);
    EXPECT_EQ(Words({"--all"}), parseClientArgs({"dump", "--", "--all"})->dumpArgs);
}

TEST(ParseClientArgs, WrongWordsAreNamed) {
    EXPECT_EQ("a command is needed", errorOf({}));
    EXPECT_EQ("unknown command jump", errorOf({"jump"}));
    EXPECT_EQ("unknown word now", errorOf({"ping", "now"}));
    EXPECT_EQ("unknown option --json", errorOf({"ping", "--json"}));
}

}  // namespace
}  // namespace android::kus::tools
