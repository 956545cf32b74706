// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/json.h"

#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

TEST(JsonQuote, PlainTextIsOnlyQuoted) {
    EXPECT_EQ(R"("USB Keyboard")", jsonQuote("USB Keyboard"));
    EXPECT_EQ(R"("")", jsonQuote(""));
}

TEST(JsonQuote, QuotesAndBackslashesAreEscaped) {
    EXPECT_EQ(R"("a\"b\\c")", jsonQuote("a\"b\\c"));
}

TEST(JsonQuote, EveryControlCharacterIsEscaped) {
    EXPECT_EQ(R"("\n\t\u000d\u0001\u001f\u007f ")", jsonQuote("\n\t\r\x01\x1f\x7f "));
    EXPECT_EQ(R"("a\u0000b")", jsonQuote(std::string_view("a\0b", 3)));
    EXPECT_EQ("\"\\u0080 \\u009b2J \xc2\xa0\"", jsonQuote("\xc2\x80 \xc2\x9b"
                                                          "2J \xc2\xa0"));
}

TEST(JsonQuote, InvalidUtf8IsReplacedAndValidUtf8Kept) {
    EXPECT_EQ("\"\xc3\xa4\xef\xbf\xbd\"", jsonQuote("\xc3\xa4\xff"));
}

TEST(JsonObject, IsEmptyWithoutMembers) {
    EXPECT_EQ("{}", JsonObject().str());
}

TEST(JsonObject, KeepsTheOrderAndTheKindsOfItsMembers) {
    JsonObject object;
    object.addText("t", "x").addNumber("n", -5).addFlag("yes", true).addFlag("no", false);
    object.addNumbers("some", {8, -1, 3}).addNumbers("none", {});
    EXPECT_EQ(R"({"t":"x","n":-5,"yes":true,"no":false,"some":[8,-1,3],"none":[]})", object.str());
}

TEST(JsonObject, HoldsArraysOfTextsAndOfObjects) {
    JsonObject first;
    first.addNumber("n", 1);
    JsonObject object;
    object.addTexts("texts", {"a\"b", "", "\xff"}).addTexts("no texts", {});
    object.addObjects("objects", {first, JsonObject()}).addObjects("no objects", {});
    EXPECT_EQ(
            "{\"texts\":[\"a\\\"b\",\"\",\"\xef\xbf\xbd\"],\"no texts\":[],"
            "\"objects\":[{\"n\":1},{}],\"no objects\":[]}",
            object.str());
}

}  // namespace
}  // namespace android::kus::tools
