// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What the parser makes of each policy file of tests/policies/table.tsv, and of the examples.

#include <stddef.h>
#include <stdio.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "tests/support/policy_table.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

namespace {

using android::base::StartsWith;
using ::testing::IsEmpty;

constexpr char kConfigFile[] = "/data/system/usbdeviceconfig/usb_device_config.xml";
constexpr char kStatusFile[] = "/data/system/usbdeviceconfig/status.txt";
constexpr char kNoRulesLine[] = "I no element, blocking all device\n";

/** What the parser's errors begin with, and whether the element's text follows. */
struct ErrorText {
    const char* begin;
    bool isWhole;
};
constexpr ErrorText kErrorTexts[] = {
        {"Error=XML_", false},
        {"INVALID ROOT ELEMENT : ", false},
        {"MODE NOT PRESENT", true},
        {"INVALID MODE", true},
        {"EMPTY CLASS VALUE", true},
        {"INVALID CLASS VALUE:", false},
        {"vendorid TAG NOT PRESENT", true},
        {"EMPTY VENDOR ID VALUE", true},
        {"INVALID VENDOR ID VALUE:", false},
        {"EMPTY PRODUCT ID VALUE", true},
        {"INVALID PRODUCT ID VALUE:", false},
        {"INVALID TAG:", false},
};

bool isOf(const std::string& outcome, const ErrorText& text) {
    return text.isWhole ? outcome == text.begin : StartsWith(outcome, text.begin);
}

std::vector<PolicyFile> rejectedFiles() {
    std::vector<PolicyFile> files = ReadPolicyTable();
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const PolicyFile& file) {
                                   return file.accepted() || file.signal() != 0;
                               }),
                files.end());
    return files;
}

// Reads a file as a daemon does that has just started; its standard output is xml_parse_status.
ProcessResult parseInChild(const std::string& document) {
    Remove(kStatusFile);
    WriteFile(kConfigFile, document);
    return RunInChild([] {
        Util::createMapFromConfig(kConfigFile);
        printf("%s", xml_parse_status ? "whole" : "not whole");
    });
}

// The parser itself tells of good rules only when there are none: its callers do otherwise.
void expectStatus(const PolicyFile& file, const ProcessResult& result) {
    const bool noRules = result.err.find(kNoRulesLine) != std::string::npos;
    if (file.signal() != 0 || (file.accepted() && !noRules)) {
        EXPECT_FALSE(Exists(kStatusFile));
        return;
    }
    ASSERT_TRUE(Exists(kStatusFile));
    EXPECT_EQ(file.outcome, ReadFile(kStatusFile));
}

void expectOutcome(const PolicyFile& file, const ProcessResult& result) {
    EXPECT_EQ(file.signal(), result.signal) << result.err;
    if (file.signal() == 0) EXPECT_EQ(file.accepted() ? "whole" : "not whole", result.out);
    expectStatus(file, result);
}

TEST(UtilPolicies, BecomeWhatTheTableTells) {
    for (const PolicyFile& file : ReadPolicyTable()) {
        SCOPED_TRACE("line " + std::to_string(file.line) + ", " + file.name);

        expectOutcome(file, parseInChild(file.document));
    }
}

// --- The table itself --------------------------------------------------------------------------

TEST(UtilPolicies, AreManyOfEachOutcome) {
    const std::vector<PolicyFile> files = ReadPolicyTable();
    const auto count = [&](auto is) { return std::count_if(files.begin(), files.end(), is); };

    EXPECT_GE(files.size(), 150u);
    EXPECT_GE(count([](const PolicyFile& file) { return file.accepted(); }), 50);
    EXPECT_GE(rejectedFiles().size(), 80u);
    EXPECT_GE(count([](const PolicyFile& file) { return file.outcome == "SIGSEGV"; }), 3);
    EXPECT_GE(count([](const PolicyFile& file) { return file.outcome == "SIGABRT"; }), 3);
}

TEST(UtilPolicies, HaveNamesAndDocumentsOfTheirOwn) {
    std::set<std::string> names;
    std::set<std::string> documents;
    for (const PolicyFile& file : ReadPolicyTable()) {
        EXPECT_TRUE(names.insert(file.name).second) << file.name;
        EXPECT_TRUE(documents.insert(file.document).second) << file.name;
    }
}

TEST(UtilPolicies, MeetEachErrorOfTheParserInSeveralForms) {
    const std::vector<PolicyFile> files = rejectedFiles();
    for (const ErrorText& text : kErrorTexts) {
        EXPECT_GE(std::count_if(files.begin(), files.end(),
                                [&](const PolicyFile& file) { return isOf(file.outcome, text); }),
                  3)
                << text.begin;
    }
}

TEST(UtilPolicies, FailWithTheErrorsOfTheParserAlone) {
    for (const PolicyFile& file : rejectedFiles()) {
        const auto matches =
                std::count_if(std::begin(kErrorTexts), std::end(kErrorTexts),
                              [&](const ErrorText& text) { return isOf(file.outcome, text); });
        EXPECT_EQ(1, matches) << "line " << file.line << ", " << file.name;
    }
}

// The position's place in the document, or npos when that has no such place.
size_t offsetOf(const std::string& document, const Position& position) {
    const bool marked = document.compare(0, 3, "\xef\xbb\xbf") == 0;
    size_t begin = marked ? 3 : 0;
    for (int line = 1; line < position.line; ++line) {
        const size_t end = document.find('\n', begin);
        if (end == std::string::npos) return end;
        begin = end + 1;
    }
    const size_t offset = begin + static_cast<size_t>(position.column) - 1;
    return offset < document.size() ? offset : std::string::npos;
}

TEST(UtilPolicies, HaveTheErrorsOfTheirRulesAtTheBeginningOfAnElement) {
    for (const PolicyFile& file : rejectedFiles()) {
        if (isOf(file.outcome, kErrorTexts[0])) continue;
        SCOPED_TRACE("line " + std::to_string(file.line) + ", " + file.name);

        const size_t offset = offsetOf(file.document, *file.position);

        ASSERT_NE(std::string::npos, offset);
        EXPECT_EQ('<', file.document[offset]);
        if (!isOf(file.outcome, {"INVALID TAG:", false})) continue;
        const std::string tag = file.outcome.substr(file.outcome.find(':') + 1);
        EXPECT_EQ(tag, file.document.substr(offset + 1, tag.size()));
    }
}

TEST(UtilPolicies, HaveTheErrorsOfTheirXmlInTheLineThatTheLibraryTells) {
    for (const PolicyFile& file : rejectedFiles()) {
        if (!isOf(file.outcome, kErrorTexts[0])) continue;
        const std::string line = " Line number=" + std::to_string(file.position->line);
        const bool unknown = file.outcome.find(" Line number=0") != std::string::npos;
        EXPECT_TRUE(unknown ? file.position->line == 1
                            : std::regex_search(file.outcome, std::regex(line + "(:|$)")))
                << "line " << file.line << ", " << file.name;
    }
}

TEST(UtilPolicies, UseEveryNameThatARuleMayHaveAndTryEveryOther) {
    const std::vector<PolicyFile> files = ReadPolicyTable();
    for (const ClassName& row : usbClassTable) {
        const std::string rule = std::string("<class>") + row.name + "</class>";
        const bool restricted = Util::validateRestrictedClass(static_cast<unsigned int>(row.code));
        const std::string outcome =
                restricted ? std::string("INVALID CLASS VALUE:") + row.name : "SUCCESS";
        EXPECT_TRUE(std::any_of(files.begin(), files.end(), [&](const PolicyFile& file) {
            return file.outcome == outcome && file.document.find(rule) != std::string::npos;
        })) << row.name;
    }
}

// --- The examples ------------------------------------------------------------------------------

// The questions that a decision asks of the rules.
struct Question {
    const char* name;
    bool named;
};

void parseExample(const std::string& name) {
    WriteFile(kConfigFile, ReadPolicyExample(name));
    Util::createMapFromConfig(kConfigFile);
    ASSERT_TRUE(xml_parse_status) << name << ": " << errorMessage;
}

void expectClasses(const std::vector<Question>& questions) {
    for (const auto& [name, named] : questions) {
        EXPECT_EQ(named, Util::validateClass(Util::convert(name))) << name;
    }
}

TEST(PolicyExamples, AKioskTakesItsTouchScreenAlone) {
    parseExample("kiosk.xml");

    EXPECT_EQ("whitelist", Util::getMode());
    expectClasses({
            {"AINPUT_SOURCE_TOUCHSCREEN", true},
            {"AINPUT_SOURCE_KEYBOARD", false},
            {"AINPUT_SOURCE_MOUSE", false},
            {"USB_CLASS_MASS_STORAGE", false},
    });
    EXPECT_EQ(1u, configClassList.size());
    EXPECT_THAT(vidPidMap, IsEmpty());
}

TEST(PolicyExamples, AWarehouseTakesScannersAndNoStorageOrNetwork) {
    parseExample("warehouse_scanner.xml");

    EXPECT_EQ("whitelist", Util::getMode());
    expectClasses({
            {"AINPUT_SOURCE_KEYBOARD", true},
            {"USB_CLASS_MASS_STORAGE", false},
            {"USB_CLASS_COMM", false},
            {"USB_CLASS_CDC_DATA", false},
            {"USB_CLASS_STILL_IMAGE", false},
    });
    EXPECT_TRUE(Util::validateVidPid(0x0403, 0x6001));
    EXPECT_TRUE(Util::validateVidPid(0x05e0, 0x1701));
    EXPECT_TRUE(Util::validateVidPid(0x067b, 0x2303));
    EXPECT_TRUE(Util::validateVidPid(0x10c4, 0xea60));
    EXPECT_FALSE(Util::validateVidPid(0x0403, 0x6010));
    for (const int vendor : {0x0403, 0x05e0, 0x067b, 0x10c4}) {
        EXPECT_FALSE(Util::validateVid(vendor)) << vendor;
    }
}

TEST(PolicyExamples, ADeskRefusesWhatTakesFilesAndKeepsItsDock) {
    parseExample("desk_dock.xml");

    EXPECT_EQ("blacklist", Util::getMode());
    expectClasses({
            {"USB_CLASS_MASS_STORAGE", true},
            {"USB_CLASS_STILL_IMAGE", true},
            {"USB_CLASS_WIRELESS_CONTROLLER", true},
            {"USB_CLASS_PRINTER", true},
            {"USB_CLASS_COMM", false},
            {"USB_CLASS_CDC_DATA", false},
            {"USB_CLASS_AUDIO", false},
            {"USB_CLASS_VIDEO", false},
            {"AINPUT_SOURCE_KEYBOARD", false},
            {"AINPUT_SOURCE_MOUSE", false},
    });
    EXPECT_THAT(vidPidMap, IsEmpty());
}

}  // namespace

}  // namespace android::kus::test
