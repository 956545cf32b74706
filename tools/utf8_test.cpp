// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/utf8.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

constexpr char kBad[] = "\xef\xbf\xbd";

TEST(ToValidUtf8, ValidTextOfEveryLengthStays) {
    const std::string text = "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x94\x8c";
    EXPECT_EQ(text, toValidUtf8(text));
    EXPECT_EQ("", toValidUtf8(""));
}

TEST(ToValidUtf8, LimitsOfEachLengthStay) {
    for (const std::string text :
         {"\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(text, toValidUtf8(text));
    }
}

TEST(ToValidUtf8, LoneAndTruncatedBytesAreReplacedOneByOne) {
    EXPECT_EQ(std::string("a") + kBad + "b", toValidUtf8("a\x80"
                                                         "b"));
    EXPECT_EQ(std::string(kBad) + kBad, toValidUtf8("\xe2\x82"));
    EXPECT_EQ(std::string(kBad) + "(", toValidUtf8("\xc3("));
    EXPECT_EQ(std::string(kBad) + kBad, toValidUtf8("\xff\xfe"));
}

TEST(ToValidUtf8, OverlongFormsSurrogatesAndTooLargeCodePointsAreReplaced) {
    EXPECT_EQ(std::string(kBad) + kBad, toValidUtf8("\xc0\xaf"));
    EXPECT_EQ(std::string(kBad) + kBad + kBad, toValidUtf8("\xe0\x9f\xbf"));
    EXPECT_EQ(std::string(kBad) + kBad + kBad, toValidUtf8("\xed\xa0\x80"));
    EXPECT_EQ(std::string(kBad) + kBad + kBad + kBad, toValidUtf8("\xf4\x90\x80\x80"));
}

TEST(ToValidUtf8, SequenceBehindABrokenOneSurvives) {
    EXPECT_EQ(std::string(kBad) + "\xc3\xa4", toValidUtf8("\xe2\xc3\xa4"));
}

}  // namespace
}  // namespace android::kus::tools
