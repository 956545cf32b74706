// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/source_map.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/util.h"

namespace android::kus::tools {
namespace {

using ::testing::ElementsAreArray;
using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

std::string textOf(const Position& position) {
    return std::to_string(position.line) + ":" + std::to_string(position.column);
}

// "NAME LINE:COLUMN" of each element, in document order.
void addPlaces(const XMLNode& parent, const SourceMap& map, std::vector<std::string>* places) {
    for (const XMLElement* element = parent.FirstChildElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        places->push_back(std::string(element->Name()) + " " + textOf(map.of(*element)));
        addPlaces(*element, map, places);
    }
}

std::vector<std::string> placesIn(const std::string& source) {
    ConfigDocument document;
    document.Parse(source.data(), source.size());
    EXPECT_FALSE(document.Error()) << document.ErrorStr();
    const SourceMap map(source, document);
    std::vector<std::string> places;
    addPlaces(document, map, &places);
    return places;
}

// For what is asked of no element: the document need not load.
SourceMap mapOf(const std::string& source) {
    ConfigDocument document;
    document.Parse(source.data(), source.size());
    return {source, document};
}

struct Case {
    const char* name;
    std::string source;
    std::vector<std::string> places;
};

void expectPlaces(const std::vector<Case>& cases) {
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_THAT(placesIn(each.source), ElementsAreArray(each.places));
    }
}

TEST(SourceMap, TellsWhereEachElementStands) {
    expectPlaces({
            {"a line each", "<a>\n  <b/>\n\n    <c></c>\n</a>\n", {"a 1:1", "b 2:3", "c 4:5"}},
            {"all on one line", "<a><b/><b/> <c></c></a>", {"a 1:1", "b 1:4", "b 1:8", "c 1:13"}},
            {"within each other",
             "<a><b><c><d/></c></b>\n<b/></a>",
             {"a 1:1", "b 1:4", "c 1:7", "d 1:10", "b 2:1"}},
            {"of the same name within each other",
             "<a>\n<a> <a/>\n</a><a/></a>",
             {"a 1:1", "a 2:1", "a 2:5", "a 3:5"}},
            {"blank in front of the name", "< a><\nb/></a>", {"a 1:1", "b 1:5"}},
            {"several roots", "<a/>\n<b/><c/>", {"a 1:1", "b 2:1", "c 2:5"}},
            {"tabs", "<a>\n\t\t<b/></a>", {"a 1:1", "b 2:3"}},
            {"multi-byte characters in front, columns in bytes",
             "<a>\n\xc3\xa4\xe2\x82\xac<b x=\"\xf0\x9f\x98\x80\"/><c/></a>",
             {"a 1:1", "b 2:6", "c 2:19"}},
    });
}

TEST(SourceMap, TakesNothingElseForAnElement) {
    expectPlaces({
            {"comment of elements", "<!-- <x>\n<y/> --><a><!--<b>--><c/></a>", {"a 2:9", "c 2:22"}},
            {"comment with a quote",
             "<!-- it's --><a><!-- 5\" > --><b/></a>",
             {"a 1:14", "b 1:30"}},
            {"comment that begins like its end", "<!--><x/>--><a/>", {"a 1:13"}},
            {"comment of dashes", "<!------><a/>", {"a 1:10"}},
            {"CDATA of elements", "<a><![CDATA[<x>]] > </a> ]>\n]]><b/></a>", {"a 1:1", "b 2:4"}},
            {"CDATA of a comment's start", "<a><![CDATA[<!--]]><b/></a>", {"a 1:1", "b 1:20"}},
            {"declaration", "<?xml version=\"1.0\"?>\n<a/>", {"a 2:1"}},
            {"instruction of elements", "<?make <x> > ?><a/>", {"a 1:16"}},
            {"document type", "<!DOCTYPE a>\n<a/>", {"a 2:1"}},
            {"document type with a subset", "<!DOCTYPE a [<!ENTITY b \"c\">]><a/>", {"a 1:31"}},
            {"unknown markup", "<a><!X <b>c</a>", {"a 1:1"}},
            {"text", "<a> 1 > 0, it's \"so\" <b/>&lt;x/&gt; ]]> --> </a>", {"a 1:1", "b 1:22"}},
    });
}

TEST(SourceMap, FindsTheEndOfATag) {
    expectPlaces({
            {"bracket in a value",
             "<a x=\">\"><b y='>' z='/>'/><c/></a>",
             {"a 1:1", "b 1:10", "c 1:27"}},
            {"element in a value", "<a x=\"<x/>\"><b/></a>", {"a 1:1", "b 1:13"}},
            {"quote in a value of the other quotes",
             "<a x=\"it's\" y='5\">'><b/></a>",
             {"a 1:1", "b 1:21"}},
            {"comment in a value", "<a x=\"<!--\"><b/></a>", {"a 1:1", "b 1:13"}},
            {"value of many lines", "<a\n  x=\"1\n>\"\n><b/></a>", {"a 1:1", "b 4:2"}},
            {"blanks", "<a >\n<b\n\n/><c  /></a\n>", {"a 1:1", "b 2:1", "c 4:3"}},
    });
}

TEST(SourceMap, PassesOverEndTags) {
    expectPlaces({
            {"blanks behind the name",
             "<a><b></b ><c></c\n></a\t><d/>",
             {"a 1:1", "b 1:4", "c 1:12", "d 2:7"}},
            {"attributes", "<a><b></b x=\"<y>\" z='>'><c/></a>", {"a 1:1", "b 1:4", "c 1:25"}},
    });
}

TEST(SourceMap, PassesOverEndTagsWithABlankInFrontOfTheSlash) {
    expectPlaces({
            {"blank", "<a><b>< /b><c/></a>", {"a 1:1", "b 1:4", "c 1:12"}},
            {"line end", "<a><b><\n/b><c/>< \t/a>", {"a 1:1", "b 1:4", "c 2:4"}},
    });
}

// The library makes an element of it.
TEST(SourceMap, KnowsTheEndTagThatIsAnElement) {
    expectPlaces({
            {"within", "<a></b/><c/></a>", {"a 1:1", "b 1:4", "c 1:9"}},
            {"outside", "<a/>\n</b x=\"1\"/>", {"a 1:1", "b 2:1"}},
    });
}

// There the library stops, and finds nothing wrong.
TEST(SourceMap, EndsAtAnEndTagOfNothing) {
    expectPlaces({
            {"behind the root", "<a><b/></a></a><c/>", {"a 1:1", "b 1:4"}},
            {"in front of the root", "</a><b/>", {}},
            {"with a blank", "<a/>< /a>\n<b/>", {"a 1:1"}},
    });
}

TEST(SourceMap, CountsLinesAndColumnsAsEditorsDo) {
    expectPlaces({
            {"byte order mark", "\xef\xbb\xbf<a/>\n<b/>", {"a 1:1", "b 2:1"}},
            {"mark and declaration", "\xef\xbb\xbf<?xml version=\"1.0\"?><a/>", {"a 1:22"}},
            {"carriage return and line feed",
             "<a>\r\n  <b/>\r\n<c/>\r\n</a>\r\n",
             {"a 1:1", "b 2:3", "c 3:1"}},
            {"line feeds in front", "\n\n  <a/>", {"a 3:3"}},
            {"blanks and text in front", "\n\n  x <a/>\n<b/>", {"a 3:5", "b 4:1"}},
            {"blanks, a mark and text", " \xef\xbb\xbf  x <a/>", {"a 1:9"}},
            {"line feed in a comment", "<!--\n\n--><a/>", {"a 3:4"}},
    });
}

TEST(SourceMap, EndsAtAZeroByteAsTheLibraryDoes) {
    expectPlaces({
            {"behind the root", std::string("<a/>\0<b/>", 9), {"a 1:1"}},
            {"behind a line feed", std::string("<a/>\n\0\n<b/>", 11), {"a 1:1"}},
    });
}

TEST(SourceMap, HasNoElementsOfADocumentThatDidNotLoad) {
    const std::string source = "<a>\n  <b>\n</a>";
    ConfigDocument document;
    document.Parse(source.data(), source.size());
    ASSERT_TRUE(document.Error());

    const SourceMap map(source, document);

    EXPECT_EQ("  <b>", map.line(2));
    EXPECT_EQ("2:3", textOf(map.firstOn(2)));
}

TEST(SourceMap, KeepsASourceOfItsOwn) {
    auto source = std::make_unique<std::string>("<a>\n  <b/></a>");
    ConfigDocument document;
    document.Parse(source->data(), source->size());
    const SourceMap map(*source, document);
    source.reset();

    EXPECT_EQ("  <b/></a>", map.line(2));
    EXPECT_EQ("2:3", textOf(map.of(*document.FirstChildElement()->FirstChildElement())));
}

TEST(SourceMap, TellsTheLines) {
    const SourceMap map = mapOf("\xef\xbb\xbf<a>\r\n\n  \xc3\xa4\nlast");

    EXPECT_EQ("<a>\r", map.line(1));
    EXPECT_EQ("", map.line(2));
    EXPECT_EQ("  \xc3\xa4", map.line(3));
    EXPECT_EQ("last", map.line(4));
    EXPECT_EQ("", map.line(5));
    EXPECT_EQ("", map.line(1000000));
}

TEST(SourceMap, TellsWhereALineBegins) {
    const std::vector<std::pair<std::string, std::string>> cases = {
            {"<a>", "1:1"},   {"  <a> <b>", "1:3"}, {"text <a>", "1:6"}, {"\t text", "1:3"},
            {"   \r", "1:1"}, {"", "1:1"},          {"\r <a>", "1:3"},
    };
    for (const auto& [line, position] : cases) {
        EXPECT_EQ(position, textOf(mapOf(line).firstOn(1))) << line;
    }
    const SourceMap map = mapOf("one\n  two\n<three>");
    EXPECT_EQ("2:3", textOf(map.firstOn(2)));
    EXPECT_EQ("3:1", textOf(map.firstOn(3)));
    EXPECT_EQ("9:1", textOf(map.firstOn(9)));
    // The library tells it of a file without content.
    EXPECT_EQ("1:1", textOf(map.firstOn(0)));
}

TEST(Position, ComesInTheOrderOfTheFile) {
    const std::vector<Position> ascending = {{1, 1}, {1, 2}, {2, 1}, {10, 1}, {10, 7}};
    for (size_t i = 0; i < ascending.size(); ++i) {
        for (size_t j = 0; j < ascending.size(); ++j) {
            EXPECT_EQ(i < j, ascending[i] < ascending[j]) << i << " " << j;
            EXPECT_EQ(i == j, ascending[i] == ascending[j]) << i << " " << j;
        }
    }
}

}  // namespace
}  // namespace android::kus::tools
