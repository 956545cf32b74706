// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/options.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

using Words = std::vector<std::string>;

Parsed<Options> parse(const Words& args) {
    return Options::parse(args, {"json"}, {"wait", "list"});
}

std::string errorOf(const Words& args) {
    const auto options = parse(args);
    return options.has_value() ? "no error" : options.error();
}

TEST(Options, FlagsValuesAndWordsMixInAnyOrder) {
    const auto options = parse({"one", "--wait", "5", "two", "--json"});
    ASSERT_TRUE(options.has_value());
    EXPECT_TRUE(options->has("json"));
    EXPECT_EQ("5", options->text("wait", ""));
    EXPECT_EQ(Words({"one", "two"}), options->words());
}

TEST(Options, MissingOnesGiveTheFallback) {
    const auto options = parse({});
    ASSERT_TRUE(options.has_value());
    EXPECT_FALSE(options->has("json"));
    EXPECT_EQ("none", options->text("wait", "none"));
    EXPECT_EQ(7, options->number("wait", 7).value());
    EXPECT_EQ(std::vector<int32_t>(), options->numbers("list").value());
}

TEST(Options, NegativeNumbersAndAllBehindTwoDashesAreWords) {
    EXPECT_EQ(Words({"-5"}), parse({"-5"})->words());
    EXPECT_EQ(Words({"--json", "--other"}), parse({"--", "--json", "--other"})->words());
    EXPECT_FALSE(parse({"--", "--json"})->has("json"));
}

TEST(Options, ValueMayLookLikeAnOption) {
    EXPECT_EQ("--json", parse({"--wait", "--json"})->text("wait", ""));
}

TEST(Options, ValueMayHangOnItsOption) {
    EXPECT_EQ("5", parse({"--wait=5"})->text("wait", ""));
    EXPECT_EQ("a=b", parse({"--wait=a=b"})->text("wait", ""));
    EXPECT_EQ("", parse({"--wait="})->text("wait", "none"));
    EXPECT_EQ("--json takes no value", errorOf({"--json=1"}));
    EXPECT_EQ("unknown option --nothing", errorOf({"--nothing=1"}));
    EXPECT_EQ("--wait is given twice", errorOf({"--wait=1", "--wait", "2"}));
}

TEST(Options, WrongOptionsAreNamed) {
    EXPECT_EQ("unknown option --nothing", errorOf({"--nothing"}));
    EXPECT_EQ("--wait needs a value", errorOf({"--wait"}));
    EXPECT_EQ("--json is given twice", errorOf({"--json", "--json"}));
    EXPECT_EQ("--wait is given twice", errorOf({"--wait", "1", "--wait", "2"}));
}

TEST(Options, NumberKeepsToItsLowerLimit) {
    const auto options = parse({"--wait", "-1"});
    EXPECT_EQ(-1, options->number("wait", 0).value());
    EXPECT_EQ("--wait: '-1' is out of range or no number", options->number("wait", 0, 0).error());
}

TEST(Options, NumbersAreSplitAtCommas) {
    EXPECT_EQ(std::vector<int32_t>({8}), parse({"--list", "8"})->numbers("list").value());
    EXPECT_EQ(std::vector<int32_t>({8, 3, 255}),
              parse({"--list", "8,3,0xff"})->numbers("list").value());
    EXPECT_EQ(std::vector<int32_t>(), parse({"--list", ""})->numbers("list").value());
    EXPECT_EQ("--list: '' is out of range or no number",
              parse({"--list", "8,"})->numbers("list").error());
}

TEST(ParseNumber, TakesTheWholeRangeOf32Bits) {
    EXPECT_EQ(2147483647, parseNumber("2147483647").value());
    EXPECT_EQ(-2147483647 - 1, parseNumber("-2147483648").value());
    EXPECT_EQ(0x46f4, parseNumber("0x46f4").value());
    EXPECT_FALSE(parseNumber("2147483648").has_value());
    EXPECT_FALSE(parseNumber("").has_value());
    EXPECT_FALSE(parseNumber("8x").has_value());
}

}  // namespace
}  // namespace android::kus::tools
