// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "android/kus/util.h"

#include <limits.h>
#include <signal.h>
#include <stdint.h>

#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include "android/kus/constants.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::test {

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;

using Pairs = std::vector<std::pair<int32_t, int32_t>>;

constexpr unsigned int kNoCode = 0xFFFFFFFF;
constexpr char kStatusFile[] = "/data/system/usbdeviceconfig/status.txt";
constexpr char kBackupFile[] = "/data/system/usbdeviceconfig/usb_device_config_backup.xml";
constexpr char kConfigFile[] = "/data/system/usbdeviceconfig/usb_device_config.xml";
constexpr char kXmlDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

class UtilTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Remove("/data/system/usbdeviceconfig");
        MakeDir("/data/system/usbdeviceconfig");
        configMode = "default";
        configClassList = {};
        configClassMap.clear();
        vidPidMap = {};
        errorMessage = "SUCCESS";
        xml_parse_status = false;
    }

    LogCapture log_;
};

Pairs vidPids() {
    return {vidPidMap.begin(), vidPidMap.end()};
}

void parse(const std::string& document) {
    WriteFile(kConfigFile, document);
    Util::createMapFromConfig(kConfigFile);
}

std::string whitelist(const std::string& rules) {
    return kXmlDeclaration + ("<usbconfig mode=\"whitelist\">" + rules + "</usbconfig>");
}

void parseRules(const std::string& rules) {
    parse(whitelist(rules));
}

LogLine statusLog(const std::string& message) {
    return Info("updateErrorFile called with error message : " + message);
}

TEST(UtilClass, HasNoInstances) {
    EXPECT_FALSE(std::is_default_constructible_v<Util>);
}

// --- Configuration file ------------------------------------------------------------------------

class CreateMapFromConfig : public UtilTest {
  protected:
    void ExpectEmptyTables() {
        EXPECT_THAT(configClassList, IsEmpty());
        EXPECT_THAT(configClassMap, IsEmpty());
        EXPECT_THAT(vidPids(), IsEmpty());
    }

    // Rules of an earlier file, and the traces that it left.
    void SetEarlierState() {
        configMode = "blacklist";
        configClassList = {1, 8};
        configClassMap = {{1, "USB_CLASS_AUDIO"}, {8, "USB_CLASS_MASS_STORAGE"}};
        vidPidMap = {{1133, -1}};
        errorMessage = "INVALID TAG:earlier";
        xml_parse_status = true;
        WriteFile(kStatusFile, "earlier status");
    }

    // The library finds the same fault in the configuration file, and its words are told.
    void ExpectLoadFailure() {
        tinyxml2::XMLDocument library(true, tinyxml2::PRESERVE_WHITESPACE);
        const tinyxml2::XMLError id = library.LoadFile(kConfigFile);
        ASSERT_NE(tinyxml2::XML_SUCCESS, id);
        const std::string text = library.ErrorStr();
        ASSERT_THAT(text, StartsWith(std::string("Error=") + library.ErrorName()));
        SetEarlierState();
        log_.Take();

        Util::createMapFromConfig(kConfigFile);

        EXPECT_THAT(log_.Take(),
                    ElementsAre(Error("xmlinput --Found error " + std::to_string(id) +
                                      " name: " + library.ErrorName()),
                                Error("xmlinput -- error string " + text), statusLog(text)));
        EXPECT_EQ(text, ReadFile(kStatusFile));
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ("blacklist", configMode);
        EXPECT_EQ("INVALID TAG:earlier", errorMessage);
        ExpectEmptyTables();
    }
};

TEST_F(CreateMapFromConfig, TakesAPathAndReturnsNothing) {
    EXPECT_TRUE(
            (std::is_same_v<void (*)(const std::string&), decltype(&Util::createMapFromConfig)>));
}

TEST_F(CreateMapFromConfig, ReadsTheFileThatItIsGiven) {
    WriteFile("/data/system/elsewhere.xml", whitelist("<class>USB_CLASS_AUDIO</class>"));
    WriteFile(kConfigFile, whitelist("<class>USB_CLASS_VIDEO</class>"));

    Util::createMapFromConfig("/data/system/elsewhere.xml");

    EXPECT_THAT(configClassList, ElementsAre(1));
}

TEST_F(CreateMapFromConfig, ReadsACompleteWhitelist) {
    parse("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<usbconfig mode=\"whitelist\">\n"
          "  <class>USB_CLASS_MASS_STORAGE</class>\n"
          "  <class>AINPUT_SOURCE_KEYBOARD</class>\n"
          "  <vid vendorid=\"1133\"/>\n"
          "  <vid vendorid=\"1267\">\n"
          "    <pid>4660</pid>\n"
          "    <pid>22136</pid>\n"
          "  </vid>\n"
          "</usbconfig>\n");

    EXPECT_EQ("whitelist", configMode);
    EXPECT_THAT(configClassList, ElementsAre(8, 0x100));
    EXPECT_THAT(configClassMap, ElementsAre(Pair(8, "USB_CLASS_MASS_STORAGE"),
                                            Pair(0x100, "AINPUT_SOURCE_KEYBOARD")));
    EXPECT_EQ((Pairs{{1133, -1}, {1267, 4660}, {1267, 22136}}), vidPids());
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ("SUCCESS", errorMessage);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("attribute--whitelist"),
                            Info(" before while first child element name class"),
                            Info("class--USB_CLASS_MASS_STORAGE"), Info("class val--8"),
                            Info("class--AINPUT_SOURCE_KEYBOARD"), Info("class val--256"),
                            Info("vendorid--1133"), Info("isValidNumber s--1133"),
                            Info("pid value print in else--"), Info("vendorid--1267"),
                            Info("isValidNumber s--1267"), Info("pid--4660"),
                            Info("isValidNumber s--4660"), Info("pid value print in while--4660"),
                            Info("pid--22136"), Info("isValidNumber s--22136"),
                            Info("pid value print in while--22136")));
}

TEST_F(CreateMapFromConfig, LeavesTheStatusFileAloneOnSuccess) {
    WriteFile(kStatusFile, "earlier status");

    parseRules("<class>USB_CLASS_AUDIO</class>");
    EXPECT_EQ("earlier status", ReadFile(kStatusFile));

    parse("<usbconfig mode=\"default\"/>");
    EXPECT_EQ("earlier status", ReadFile(kStatusFile));
}

TEST_F(CreateMapFromConfig, ReadsABlacklistByTheSameRules) {
    parse("<usbconfig mode=\"blacklist\"><class>USB_CLASS_VIDEO</class>"
          "<vid vendorid=\"5\"/></usbconfig>");

    EXPECT_EQ("blacklist", configMode);
    EXPECT_THAT(configClassList, ElementsAre(14));
    EXPECT_EQ((Pairs{{5, -1}}), vidPids());
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(CreateMapFromConfig, ProcessesEntities) {
    parse("<usbconfig mode=\"white&#108;ist\"><class>USB_CLASS_AUDI&#79;</class>"
          "<vid vendorid=\"&#49;133\"><pid>4&#54;60</pid></vid></usbconfig>");

    EXPECT_EQ("whitelist", configMode);
    EXPECT_THAT(configClassList, ElementsAre(1));
    EXPECT_EQ((Pairs{{1133, 4660}}), vidPids());
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(CreateMapFromConfig, IgnoresOtherAttributesOnAnyElement) {
    parse("<usbconfig version=\"2\" mode=\"whitelist\" x=\"\">"
          "<class mode=\"no\" vendorid=\"x\">USB_CLASS_AUDIO</class>"
          "<vid name=\"y\" vendorid=\"5\" mode=\"no\"><pid vendorid=\"z\">7</pid></vid>"
          "</usbconfig>");

    EXPECT_THAT(configClassList, ElementsAre(1));
    EXPECT_EQ((Pairs{{5, 7}}), vidPids());
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(CreateMapFromConfig, SkipsCommentsAndTextBetweenElements) {
    parse("<!-- first --><usbconfig mode=\"whitelist\">text<!-- a -->"
          "<class>USB_CLASS_AUDIO</class>text<!-- b --><vid vendorid=\"5\">text<!-- c -->"
          "<pid>7</pid>text<!-- d --><pid>8</pid></vid>text</usbconfig>");

    EXPECT_THAT(configClassList, ElementsAre(1));
    EXPECT_EQ((Pairs{{5, 7}, {5, 8}}), vidPids());
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(CreateMapFromConfig, LooksAtTheFirstElementOfTheDocumentOnly) {
    parse("<usbconfig mode=\"default\"/><other/>");

    EXPECT_TRUE(xml_parse_status);
    EXPECT_THAT(log_.Lines(), ElementsAre(Info("attribute--default")));
}

// --- State of the rule variables ---

TEST_F(CreateMapFromConfig, ReplacesTheRulesOfAnEarlierFile) {
    SetEarlierState();

    parseRules("<class>USB_CLASS_VIDEO</class><vid vendorid=\"7\"/>");

    EXPECT_EQ("whitelist", configMode);
    EXPECT_THAT(configClassList, ElementsAre(14));
    EXPECT_THAT(configClassMap, ElementsAre(Pair(14, "USB_CLASS_VIDEO")));
    EXPECT_EQ((Pairs{{7, -1}}), vidPids());
}

TEST_F(CreateMapFromConfig, NeverResetsTheErrorTextOfAnEarlierFile) {
    for (const std::string& document : {whitelist("<class>USB_CLASS_AUDIO</class>"), whitelist(""),
                                        std::string("<usbconfig mode=\"default\"/>")}) {
        SCOPED_TRACE(document);
        errorMessage = "INVALID TAG:earlier";

        parse(document);

        EXPECT_TRUE(xml_parse_status);
        EXPECT_EQ("INVALID TAG:earlier", errorMessage);
    }
}

TEST_F(CreateMapFromConfig, ClearsTheOutcomeBeforeItReadsTheFirstRule) {
    std::vector<bool> seen;
    WriteFile(kConfigFile, whitelist("<class>USB_CLASS_AUDIO</class>"));
    xml_parse_status = true;
    android::base::SetLogger([&seen](android::base::LogId, android::base::LogSeverity, const char*,
                                     const char*, unsigned int,
                                     const char*) { seen.push_back(xml_parse_status); });

    Util::createMapFromConfig(kConfigFile);

    EXPECT_EQ(4u, seen.size());
    EXPECT_THAT(seen, Each(false));
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(CreateMapFromConfig, KnowsTheErrorWhenItLogsIt) {
    const std::vector<std::string> documents = {
            "<config/>",
            "<usbconfig/>",
            "<usbconfig mode=\"x\"/>",
            whitelist("<class/>"),
            whitelist("<class>x</class>"),
            whitelist("<vid/>"),
            whitelist("<vid vendorid=\"\"/>"),
            whitelist("<vid vendorid=\"x\"/>"),
            whitelist("<vid vendorid=\"1\"><pid/></vid>"),
            whitelist("<vid vendorid=\"1\"><pid>x</pid></vid>"),
            whitelist("<foo/>"),
    };
    for (const std::string& document : documents) {
        SCOPED_TRACE(document);
        std::vector<std::string> seen;
        WriteFile(kConfigFile, document);
        errorMessage = "INVALID TAG:earlier";
        xml_parse_status = true;
        android::base::SetLogger([&seen](android::base::LogId, android::base::LogSeverity severity,
                                         const char*, const char*, unsigned int,
                                         const char* message) {
            if (severity != android::base::ERROR) return;
            EXPECT_FALSE(xml_parse_status);
            seen.push_back(std::string(message).find(errorMessage) == std::string::npos
                                   ? message
                                   : errorMessage);
        });

        Util::createMapFromConfig(kConfigFile);

        EXPECT_THAT(seen, ElementsAre(errorMessage));
        EXPECT_NE("INVALID TAG:earlier", errorMessage);
    }
}

// --- Loading ---

TEST_F(CreateMapFromConfig, ReportsADocumentThatCannotBeLoaded) {
    const std::vector<std::pair<std::string, std::string>> documents = {
            {"empty document", ""},
            {"blanks alone", "  \n"},
            {"no XML", "mode=whitelist"},
            {"open element", "<usbconfig mode=\"default\">"},
            {"mismatched element", "<usbconfig mode=\"whitelist\"><class></vid></usbconfig>"},
            {"attribute without quotes", "<usbconfig mode=default/>"},
            {"malformed below default", "<usbconfig mode=\"default\"><foo></usbconfig>"},
    };
    for (const auto& [name, document] : documents) {
        SCOPED_TRACE(name);
        WriteFile(kConfigFile, document);

        ExpectLoadFailure();
    }
}

TEST_F(CreateMapFromConfig, ReportsAMissingFile) {
    ExpectLoadFailure();

    EXPECT_EQ("Error=XML_ERROR_FILE_NOT_FOUND ErrorID=3 (0x3) Line number=0: filename=" +
                      std::string(kConfigFile),
              ReadFile(kStatusFile));
}

TEST_F(CreateMapFromConfig, ReportsAFileThatCannotBeRead) {
    MakeDir(kConfigFile);

    ExpectLoadFailure();
}

// --- Faults ---

TEST_F(CreateMapFromConfig, EndsBySegmentationFaultOnADocumentWithoutAnElement) {
    const std::vector<std::string> documents = {
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>",
            "<!-- no rules -->",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- no rules -->\n",
    };
    for (const std::string& document : documents) {
        SCOPED_TRACE(document);

        const ProcessResult result = RunInChild([&] { parse(document); });

        EXPECT_EQ(-1, result.status);
        EXPECT_EQ(SIGSEGV, result.signal);
        EXPECT_EQ("", result.err);
        EXPECT_FALSE(Exists(kStatusFile));
    }
}

struct IdOutOfRange {
    std::string rule;
    std::string lastLine;
};

TEST_F(CreateMapFromConfig, EndsByAnUncaughtErrorOnAnIdBeyondTheSignedRange) {
    const std::vector<IdOutOfRange> rules = {
            {"<vid vendorid=\"2147483648\"/>", "I pid value print in else--\n"},
            {"<vid vendorid=\"99999999999999999999\"/>", "I pid value print in else--\n"},
            {"<vid vendorid=\"2147483648\"><pid>5</pid></vid>", "I pid value print in while--5\n"},
            {"<vid vendorid=\"5\"><pid>2147483648</pid></vid>",
             "I pid value print in while--2147483648\n"},
            {"<vid vendorid=\"5\"><pid>4294967301</pid></vid>",
             "I pid value print in while--4294967301\n"},
    };
    for (const IdOutOfRange& rule : rules) {
        SCOPED_TRACE(rule.rule);

        const ProcessResult result = RunInChild([&] { parseRules(rule.rule); });

        EXPECT_EQ(-1, result.status);
        EXPECT_EQ(SIGABRT, result.signal);
        EXPECT_THAT(result.err, HasSubstr(rule.lastLine + "terminate called after throwing an "
                                                          "instance of 'std::out_of_range'\n"));
        EXPECT_FALSE(Exists(kStatusFile));
    }
}

TEST_F(CreateMapFromConfig, TellsABadProductBeforeAVendorBeyondTheSignedRange) {
    parseRules("<vid vendorid=\"99999999999\"><pid>abc</pid></vid>");
    EXPECT_EQ("INVALID PRODUCT ID VALUE:abc", errorMessage);

    parseRules("<vid vendorid=\"99999999999\"><pid/></vid>");
    EXPECT_EQ("EMPTY PRODUCT ID VALUE", errorMessage);
}

TEST_F(CreateMapFromConfig, ConvertsIdsAsSignedDecimalsWithoutACheckAgainstUsbsRange) {
    parseRules(
            "<vid vendorid=\"01133\"/><vid vendorid=\"99999\"/>"
            "<vid vendorid=\"2147483647\"><pid>2147483647</pid></vid>"
            "<vid vendorid=\"0\"><pid>000010</pid><pid>0</pid><pid>65536</pid></vid>");

    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ((Pairs{{0, 10}, {0, 0}, {0, 65536}, {1133, -1}, {99999, -1}, {INT_MAX, INT_MAX}}),
              vidPids());
}

// --- Root ---

TEST_F(CreateMapFromConfig, RejectsAnotherRootElementAndWritesTheStatusBeforeItLogs) {
    const std::vector<std::pair<std::string, std::string>> documents = {
            {"<other mode=\"default\"/>", "other"},
            {"<UsbConfig mode=\"default\"/>", "UsbConfig"},
            {"<usbconfigs mode=\"default\"/>", "usbconfigs"},
            {"<other/><usbconfig mode=\"default\"/>", "other"},
            {"<vid vendorid=\"5\"/>", "vid"},
    };
    for (const auto& [document, name] : documents) {
        SCOPED_TRACE(document);
        SetEarlierState();
        log_.Take();
        const std::string message = "INVALID ROOT ELEMENT : " + name;

        parse(document);

        EXPECT_THAT(log_.Take(),
                    ElementsAre(statusLog(message), Error("Invalid root element --" + message)));
        EXPECT_EQ(message, errorMessage);
        EXPECT_EQ(message, ReadFile(kStatusFile));
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ("blacklist", configMode);
        ExpectEmptyTables();
    }
}

// --- Mode ---

TEST_F(CreateMapFromConfig, RejectsARootWithoutModeAndLogsBeforeItWritesTheStatus) {
    for (const std::string document : {"<usbconfig/>", "<usbconfig Mode=\"default\"/>",
                                       "<usbconfig><class>USB_CLASS_AUDIO</class></usbconfig>"}) {
        SCOPED_TRACE(document);
        SetEarlierState();
        log_.Take();

        parse(document);

        EXPECT_THAT(log_.Take(),
                    ElementsAre(Error("error in ATTRIBUTE MODE value= MODE NOT PRESENT"),
                                statusLog("MODE NOT PRESENT")));
        EXPECT_EQ("MODE NOT PRESENT", errorMessage);
        EXPECT_EQ("MODE NOT PRESENT", ReadFile(kStatusFile));
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ("blacklist", configMode);
        EXPECT_EQ("blacklist", Util::getMode());
        ExpectEmptyTables();
    }
}

TEST_F(CreateMapFromConfig, RejectsAnyOtherModeButKeepsItAndWritesTheStatusBeforeItLogs) {
    for (const std::string mode : {"Whitelist", "DEFAULT", "blacklist ", " default", "", "none"}) {
        SCOPED_TRACE(mode);
        SetEarlierState();
        log_.Take();

        parse("<usbconfig mode=\"" + mode + "\"><class>USB_CLASS_AUDIO</class></usbconfig>");

        EXPECT_THAT(log_.Take(), ElementsAre(Info("attribute--" + mode), statusLog("INVALID MODE"),
                                             Error("Invalid mode is set in xml--INVALID MODE")));
        EXPECT_EQ("INVALID MODE", errorMessage);
        EXPECT_EQ("INVALID MODE", ReadFile(kStatusFile));
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ(mode, configMode);
        EXPECT_EQ(mode, Util::getMode());
        ExpectEmptyTables();
    }
}

TEST_F(CreateMapFromConfig, ReadsNothingBelowTheRootInDefaultMode) {
    const std::vector<std::string> children = {
            "",
            "\n",
            "<foo/>",
            "<class>3</class><class/>",
            "<class>USB_CLASS_AUDIO</class>",
            "<vid/><vid vendorid=\"x\"/><vid vendorid=\"99999999999\"/>",
    };
    for (const std::string& child : children) {
        SCOPED_TRACE(child);
        SetEarlierState();
        log_.Take();

        parse(kXmlDeclaration + ("<usbconfig mode=\"default\">" + child + "</usbconfig>"));

        EXPECT_THAT(log_.Take(), ElementsAre(Info("attribute--default")));
        EXPECT_TRUE(xml_parse_status);
        EXPECT_EQ("default", configMode);
        EXPECT_EQ("INVALID TAG:earlier", errorMessage);
        EXPECT_EQ("earlier status", ReadFile(kStatusFile));
        ExpectEmptyTables();
    }
}

TEST_F(CreateMapFromConfig, SucceedsWithoutRulesAndWritesTheErrorTextOfTheEarlierFile) {
    const std::vector<std::string> documents = {
            "<usbconfig mode=\"whitelist\"/>",
            "<usbconfig mode=\"whitelist\">\n</usbconfig>",
            "<usbconfig mode=\"whitelist\">text<!-- comment --></usbconfig>",
    };
    for (const std::string& document : documents) {
        SCOPED_TRACE(document);
        SetEarlierState();
        log_.Take();

        parse(document);

        EXPECT_THAT(log_.Take(), ElementsAre(Info("attribute--whitelist"),
                                             Info("no element, blocking all device"),
                                             statusLog("INVALID TAG:earlier")));
        EXPECT_TRUE(xml_parse_status);
        EXPECT_EQ("whitelist", configMode);
        EXPECT_EQ("INVALID TAG:earlier", errorMessage);
        EXPECT_EQ("INVALID TAG:earlier", ReadFile(kStatusFile));
        ExpectEmptyTables();
    }
}

TEST_F(CreateMapFromConfig, WritesSuccessForABlacklistWithoutRulesWhenNothingFailedBefore) {
    parse("<usbconfig mode=\"blacklist\"/>");

    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("attribute--blacklist"), Info("no element, blocking all device"),
                            statusLog("SUCCESS")));
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ("SUCCESS", ReadFile(kStatusFile));
}

// --- Rules: the one that fails the file ---

struct BadRule {
    std::string rules;
    std::string firstTag;
    // From the first rule's own lines to the last line before the failure.
    std::vector<LogLine> before;
    std::string logText;
    std::string message;
};

const std::vector<BadRule> kBadRules = {
        {"<class/>", "class", {}, "error in class val= ", "EMPTY CLASS VALUE"},
        {"<class></class>", "class", {}, "error in class val= ", "EMPTY CLASS VALUE"},
        {"<class><b/></class>", "class", {}, "error in class val= ", "EMPTY CLASS VALUE"},
        {"<class name=\"USB_CLASS_AUDIO\"/>",
         "class",
         {},
         "error in class val= ",
         "EMPTY CLASS VALUE"},
        {"<class>3</class>",
         "class",
         {Info("class--3")},
         "error in class val= ",
         "INVALID CLASS VALUE:3"},
        {"<class> USB_CLASS_AUDIO</class>",
         "class",
         {Info("class-- USB_CLASS_AUDIO")},
         "error in class val= ",
         "INVALID CLASS VALUE: USB_CLASS_AUDIO"},
        {"<class>USB_CLASS_AUDIO </class>",
         "class",
         {Info("class--USB_CLASS_AUDIO ")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_AUDIO "},
        {"<class>usb_class_audio</class>",
         "class",
         {Info("class--usb_class_audio")},
         "error in class val= ",
         "INVALID CLASS VALUE:usb_class_audio"},
        {"<class>USB_CLASS_PHYSICAL</class>",
         "class",
         {Info("class--USB_CLASS_PHYSICAL")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_PHYSICAL"},
        {"<class>USB_CLASS_PER_INTERFACE</class>",
         "class",
         {Info("class--USB_CLASS_PER_INTERFACE"), Info("Found CLASS : 0 in restricted class list")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_PER_INTERFACE"},
        {"<class>USB_CLASS_HID</class>",
         "class",
         {Info("class--USB_CLASS_HID"), Info("Found CLASS : 3 in restricted class list")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_HID"},
        {"<class>USB_CLASS_HUB</class>",
         "class",
         {Info("class--USB_CLASS_HUB"), Info("Found CLASS : 9 in restricted class list")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_HUB"},
        {"<class>USB_CLASS_MISC</class>",
         "class",
         {Info("class--USB_CLASS_MISC"), Info("Found CLASS : 239 in restricted class list")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_MISC"},
        {"<class>USB_CLASS_APP_SPEC</class>",
         "class",
         {Info("class--USB_CLASS_APP_SPEC"), Info("Found CLASS : 254 in restricted class list")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_APP_SPEC"},
        {"<class>USB_CLASS_VENDOR_SPEC</class>",
         "class",
         {Info("class--USB_CLASS_VENDOR_SPEC"), Info("Found CLASS : 255 in restricted class list")},
         "error in class val= ",
         "INVALID CLASS VALUE:USB_CLASS_VENDOR_SPEC"},
        {"<vid/>", "vid", {}, "error in ATTRIBUTE value= ", "vendorid TAG NOT PRESENT"},
        {"<vid VendorId=\"5\">5</vid>",
         "vid",
         {},
         "error in ATTRIBUTE value= ",
         "vendorid TAG NOT PRESENT"},
        {"<vid><pid>5</pid></vid>",
         "vid",
         {},
         "error in ATTRIBUTE value= ",
         "vendorid TAG NOT PRESENT"},
        {"<vid vendorid=\"\"/>",
         "vid",
         {Info("vendorid--"), Info("isValidNumber s--")},
         "error in vid val= ",
         "EMPTY VENDOR ID VALUE"},
        {"<vid vendorid=\"0x046d\"/>",
         "vid",
         {Info("vendorid--0x046d"), Info("isValidNumber s--0x046d")},
         "error in vid val= ",
         "INVALID VENDOR ID VALUE:0x046d"},
        {"<vid vendorid=\"-5\"/>",
         "vid",
         {Info("vendorid---5"), Info("isValidNumber s---5")},
         "error in vid val= ",
         "INVALID VENDOR ID VALUE:-5"},
        {"<vid vendorid=\" 5\"><pid>7</pid></vid>",
         "vid",
         {Info("vendorid-- 5"), Info("isValidNumber s-- 5")},
         "error in vid val= ",
         "INVALID VENDOR ID VALUE: 5"},
        {"<vid vendorid=\"5\"><pid/></vid>",
         "vid",
         {Info("vendorid--5"), Info("isValidNumber s--5")},
         "error in pid val= ",
         "EMPTY PRODUCT ID VALUE"},
        {"<vid vendorid=\"5\"><pid><b/></pid></vid>",
         "vid",
         {Info("vendorid--5"), Info("isValidNumber s--5")},
         "error in pid val= ",
         "EMPTY PRODUCT ID VALUE"},
        {"<vid vendorid=\"5\"><pid>0x7</pid></vid>",
         "vid",
         {Info("vendorid--5"), Info("isValidNumber s--5"), Info("pid--0x7"),
          Info("isValidNumber s--0x7")},
         "error in pid val= ",
         "INVALID PRODUCT ID VALUE:0x7"},
        {"<vid vendorid=\"5\"><pid>7 </pid></vid>",
         "vid",
         {Info("vendorid--5"), Info("isValidNumber s--5"), Info("pid--7 "),
          Info("isValidNumber s--7 ")},
         "error in pid val= ",
         "INVALID PRODUCT ID VALUE:7 "},
        {"<foo/>", "foo", {}, "error in class value= ", "INVALID TAG:foo"},
        {"<Class>USB_CLASS_AUDIO</Class>",
         "Class",
         {},
         "error in class value= ",
         "INVALID TAG:Class"},
        {"<pid>5</pid>", "pid", {}, "error in class value= ", "INVALID TAG:pid"},
        {"<usbconfig mode=\"default\"/>",
         "usbconfig",
         {},
         "error in class value= ",
         "INVALID TAG:usbconfig"},
};

TEST_F(CreateMapFromConfig, FailsTheWholeFileAtItsFirstBadRule) {
    for (const BadRule& bad : kBadRules) {
        SCOPED_TRACE(bad.rules);
        SetEarlierState();
        log_.Take();
        std::vector<LogLine> expected = {
                Info("attribute--whitelist"),
                Info(" before while first child element name " + bad.firstTag)};
        expected.insert(expected.end(), bad.before.begin(), bad.before.end());
        expected.push_back(Error(bad.logText + bad.message));
        expected.push_back(statusLog(bad.message));

        parseRules(bad.rules + "<class>USB_CLASS_VIDEO</class><vid vendorid=\"9\"/>");

        EXPECT_THAT(log_.Take(), ElementsAreArray(expected));
        EXPECT_EQ(bad.message, errorMessage);
        EXPECT_EQ(bad.message, ReadFile(kStatusFile));
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ("whitelist", configMode);
        ExpectEmptyTables();
    }
}

TEST_F(CreateMapFromConfig, KeepsTheRulesBeforeTheBadOne) {
    SetEarlierState();

    parseRules(
            "<class>USB_CLASS_AUDIO</class><vid vendorid=\"1133\"/><class>HID</class>"
            "<class>USB_CLASS_VIDEO</class><vid vendorid=\"9\"/>");

    EXPECT_FALSE(xml_parse_status);
    EXPECT_EQ("INVALID CLASS VALUE:HID", errorMessage);
    EXPECT_THAT(configClassList, ElementsAre(1));
    EXPECT_THAT(configClassMap, ElementsAre(Pair(1, "USB_CLASS_AUDIO")));
    EXPECT_EQ((Pairs{{1133, -1}}), vidPids());
}

TEST_F(CreateMapFromConfig, KeepsTheProductsBeforeTheBadOne) {
    parseRules("<vid vendorid=\"5\"><pid>7</pid><pid>8</pid><pid/><pid>9</pid></vid>");

    EXPECT_EQ("EMPTY PRODUCT ID VALUE", errorMessage);
    EXPECT_EQ((Pairs{{5, 7}, {5, 8}}), vidPids());
}

TEST_F(CreateMapFromConfig, ForgetsTheFailureWhenTheNextFileIsGood) {
    parseRules("<foo/>");
    parseRules("<class>USB_CLASS_AUDIO</class>");

    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ("INVALID TAG:foo", errorMessage);
    EXPECT_EQ("INVALID TAG:foo", ReadFile(kStatusFile));
}

// --- Rules: class ---

TEST_F(CreateMapFromConfig, AcceptsEachUnrestrictedName) {
    const std::vector<std::pair<std::string, int32_t>> names = {
            {"USB_CLASS_AUDIO", 1},
            {"USB_CLASS_COMM", 2},
            {"USB_CLASS_PHYSICA", 5},
            {"USB_CLASS_STILL_IMAGE", 6},
            {"USB_CLASS_PRINTER", 7},
            {"USB_CLASS_MASS_STORAGE", 8},
            {"USB_CLASS_CDC_DATA", 10},
            {"USB_CLASS_CSCID", 11},
            {"USB_CLASS_CONTENT_SEC", 13},
            {"USB_CLASS_VIDEO", 14},
            {"USB_CLASS_WIRELESS_CONTROLLER", 224},
            {"AINPUT_SOURCE_KEYBOARD", 0x100},
            {"AINPUT_SOURCE_DPAD", 0x200},
            {"AINPUT_SOURCE_GAMEPAD", 0x400},
            {"AINPUT_SOURCE_TOUCHSCREEN", 0x1000},
            {"AINPUT_SOURCE_MOUSE", 0x2000},
            {"AINPUT_SOURCE_STYLUS", 0x4000},
            {"AINPUT_SOURCE_TRACKBALL", 0x10000},
            {"AINPUT_SOURCE_MOUSE_RELATIVE", 0x20000},
            {"AINPUT_SOURCE_TOUCHPAD", 0x100000},
            {"AINPUT_SOURCE_TOUCH_NAVIGATION", 0x200000},
            {"AINPUT_SOURCE_JOYSTICK", 0x1000000},
            {"AINPUT_SOURCE_ROTARY_ENCODER", 0x400000},
    };
    for (const auto& [name, code] : names) {
        SCOPED_TRACE(name);
        log_.Take();

        parseRules("<class>" + name + "</class>");

        EXPECT_THAT(log_.Take(), ElementsAre(Info("attribute--whitelist"),
                                             Info(" before while first child element name class"),
                                             Info("class--" + name),
                                             Info("class val--" + std::to_string(code))));
        EXPECT_TRUE(xml_parse_status);
        EXPECT_THAT(configClassList, ElementsAre(code));
        EXPECT_THAT(configClassMap, ElementsAre(Pair(code, name)));
    }
}

TEST_F(CreateMapFromConfig, KeepsClassesInFileOrderWithTheirRepeats) {
    parseRules(
            "<class>USB_CLASS_VIDEO</class><class>USB_CLASS_AUDIO</class>"
            "<vid vendorid=\"5\"/><class>USB_CLASS_VIDEO</class>");

    EXPECT_THAT(configClassList, ElementsAre(14, 1, 14));
    EXPECT_THAT(configClassMap,
                ElementsAre(Pair(1, "USB_CLASS_AUDIO"), Pair(14, "USB_CLASS_VIDEO")));
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(CreateMapFromConfig, TakesAClassOfBlanksAsTheXmlLibraryDoes) {
    const std::string document = whitelist("<class>  </class>");
    tinyxml2::XMLDocument library(true, tinyxml2::PRESERVE_WHITESPACE);
    ASSERT_EQ(tinyxml2::XML_SUCCESS, library.Parse(document.c_str()));
    const char* text = library.RootElement()->FirstChildElement("class")->GetText();

    parse(document);

    EXPECT_EQ(text == nullptr ? "EMPTY CLASS VALUE" : "INVALID CLASS VALUE:" + std::string(text),
              errorMessage);
}

// --- Rules: vid ---

TEST_F(CreateMapFromConfig, IgnoresTheTextOfAVendor) {
    parseRules("<vid vendorid=\"5\">77</vid><vid vendorid=\"6\">88<pid>7</pid>99</vid>");

    EXPECT_EQ((Pairs{{5, -1}, {6, 7}}), vidPids());
}

TEST_F(CreateMapFromConfig, TakesEverySiblingBehindTheFirstPidAsAProduct) {
    parseRules(
            "<vid vendorid=\"5\"><note>x</note><PID>y</PID><pid>7</pid><name>8</name>"
            "<vid vendorid=\"6\">9</vid></vid>");

    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ((Pairs{{5, 7}, {5, 8}, {5, 9}}), vidPids());
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("attribute--whitelist"),
                            Info(" before while first child element name vid"), Info("vendorid--5"),
                            Info("isValidNumber s--5"), Info("pid--7"), Info("isValidNumber s--7"),
                            Info("pid value print in while--7"), Info("pid--8"),
                            Info("isValidNumber s--8"), Info("pid value print in while--8"),
                            Info("pid--9"), Info("isValidNumber s--9"),
                            Info("pid value print in while--9")));
}

TEST_F(CreateMapFromConfig, SkipsElementsBeforeTheFirstPid) {
    parseRules("<vid vendorid=\"5\"><note>x</note><pid>5</pid></vid>");

    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ((Pairs{{5, 5}}), vidPids());
}

TEST_F(CreateMapFromConfig, RejectsAStrayElementBehindTheFirstPid) {
    parseRules("<vid vendorid=\"6\"><pid>5</pid><name>abc</name></vid>");

    EXPECT_FALSE(xml_parse_status);
    EXPECT_EQ("INVALID PRODUCT ID VALUE:abc", errorMessage);
    EXPECT_EQ("INVALID PRODUCT ID VALUE:abc", ReadFile(kStatusFile));
    EXPECT_EQ((Pairs{{6, 5}}), vidPids());
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("attribute--whitelist"),
                            Info(" before while first child element name vid"), Info("vendorid--6"),
                            Info("isValidNumber s--6"), Info("pid--5"), Info("isValidNumber s--5"),
                            Info("pid value print in while--5"), Info("pid--abc"),
                            Info("isValidNumber s--abc"),
                            Error("error in pid val= INVALID PRODUCT ID VALUE:abc"),
                            statusLog("INVALID PRODUCT ID VALUE:abc")));
}

TEST_F(CreateMapFromConfig, TakesAVendorWithOtherChildrenOnlyAsOneWithoutProducts) {
    parseRules("<vid vendorid=\"5\"><name>abc</name><PID>7</PID><b><pid>8</pid></b></vid>");

    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ((Pairs{{5, -1}}), vidPids());
}

TEST_F(CreateMapFromConfig, KeepsEqualVendorsInFileOrderWithTheirRepeats) {
    parseRules(
            "<vid vendorid=\"5\"><pid>9</pid><pid>3</pid></vid><vid vendorid=\"4\"/>"
            "<vid vendorid=\"5\"/><vid vendorid=\"5\"><pid>9</pid></vid>"
            "<vid vendorid=\"5\"><pid>1</pid></vid>");

    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ((Pairs{{4, -1}, {5, 9}, {5, 3}, {5, -1}, {5, 9}, {5, 1}}), vidPids());
}

// --- Value checks ---

using Convert = UtilTest;

TEST_F(Convert, TakesATextAndReturnsAnUnsignedCode) {
    EXPECT_TRUE((std::is_same_v<unsigned int (*)(const std::string&), decltype(&Util::convert)>));
}

TEST_F(Convert, KnowsWholeNamesOnlyAndLogsNothing) {
    EXPECT_EQ(8u, Util::convert("USB_CLASS_MASS_STORAGE"));
    EXPECT_EQ(0x400000u, Util::convert("AINPUT_SOURCE_ROTARY_ENCODER"));
    EXPECT_EQ(5u, Util::convert("USB_CLASS_PHYSICA"));
    EXPECT_EQ(kNoCode, Util::convert("USB_CLASS_PHYSICAL"));
    EXPECT_EQ(kNoCode, Util::convert(""));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

using IsValidNumber = UtilTest;

TEST_F(IsValidNumber, TakesATextAndReturnsABoolean) {
    EXPECT_TRUE((std::is_same_v<bool (*)(const std::string&), decltype(&Util::isValidNumber)>));
}

TEST_F(IsValidNumber, AcceptsDigitsOnlyAndLogsEachCall) {
    const std::vector<std::pair<std::string, bool>> texts = {
            {"0", true},
            {"9", true},
            {"0123456789", true},
            {"00", true},
            {"99999999999999999999", true},
            {"", false},
            {" ", false},
            {" 1", false},
            {"1 ", false},
            {"1 2", false},
            {"+1", false},
            {"-1", false},
            {"0x1", false},
            {"1a", false},
            {"a1", false},
            {"1/", false},
            {"1:", false},
            {"1.0", false},
            {"1\t", false},
            {"\xd9\xa1", false},
            {"\xb1", false},
    };
    for (const auto& [text, valid] : texts) {
        EXPECT_EQ(valid, Util::isValidNumber(text)) << "\"" << text << "\"";
        EXPECT_THAT(log_.Take(), ElementsAre(Info("isValidNumber s--" + text)));
    }
}

TEST_F(IsValidNumber, RejectsAnEmbeddedZero) {
    EXPECT_FALSE(Util::isValidNumber(std::string("1\0", 2)));
}

// --- Lookups -----------------------------------------------------------------------------------

class Lookup : public UtilTest {};

TEST_F(Lookup, FindsNothingBeforeAnyParse) {
    EXPECT_EQ("default", Util::getMode());
    EXPECT_FALSE(Util::validateClass(8));
    EXPECT_FALSE(Util::validateVid(1133));
    EXPECT_FALSE(Util::validateVidPid(1133, 4660));
    EXPECT_FALSE(Util::validateVidPid(1133, -1));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, ChangesNoState) {
    configMode = "whitelist";
    configClassList = {8, 1, 8};
    configClassMap = {{8, "USB_CLASS_MASS_STORAGE"}};
    vidPidMap = {{5, 7}, {6, -1}};
    errorMessage = "INVALID MODE";
    xml_parse_status = true;

    Util::getMode();
    for (const int value : {5, 6, 7, 8, 0x101, -1}) {
        Util::validateClass(value);
        Util::validateRestrictedClass(value);
        Util::validateVid(value);
        Util::validateVidPid(value, 7);
        Util::getClassName(value);
        Util::checkMultiClass(value);
    }

    EXPECT_EQ("whitelist", configMode);
    EXPECT_THAT(configClassList, ElementsAre(8, 1, 8));
    EXPECT_THAT(configClassMap, ElementsAre(Pair(8, "USB_CLASS_MASS_STORAGE")));
    EXPECT_EQ((Pairs{{5, 7}, {6, -1}}), vidPids());
    EXPECT_EQ("INVALID MODE", errorMessage);
    EXPECT_TRUE(xml_parse_status);
    EXPECT_FALSE(Exists(kStatusFile));
}

TEST_F(Lookup, GivesACopyOfTheModeAsItStands) {
    EXPECT_TRUE((std::is_same_v<std::string (*)(), decltype(&Util::getMode)>));
    configMode = "no such mode";
    const std::string mode = Util::getMode();
    configMode = "blacklist";

    EXPECT_EQ("no such mode", mode);
    EXPECT_EQ("blacklist", Util::getMode());
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, FindsAClassOfTheConfiguration) {
    configClassList = {14, 0x100, 14};

    EXPECT_TRUE(Util::validateClass(14));
    EXPECT_THAT(log_.Take(), ElementsAre(Info("Found CLASS : 14 in admin config list")));
    EXPECT_TRUE(Util::validateClass(0x100));
    EXPECT_THAT(log_.Take(), ElementsAre(Info("Found CLASS : 256 in admin config list")));
    for (const unsigned int code : {0u, 1u, 13u, 15u, 0x10Eu, 0x200u, 0x300u, kNoCode}) {
        EXPECT_FALSE(Util::validateClass(code)) << code;
    }
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, ComparesClassesAs32BitValues) {
    configClassList = {-1};

    EXPECT_TRUE(Util::validateClass(kNoCode));
    EXPECT_THAT(log_.Lines(), ElementsAre(Info("Found CLASS : 4294967295 in admin config list")));
}

TEST_F(Lookup, FindsNoClassInAnEmptyList) {
    configClassMap = {{8, "USB_CLASS_MASS_STORAGE"}};
    for (unsigned int code = 0; code <= 0x100; code++) {
        EXPECT_FALSE(Util::validateClass(code)) << code;
    }
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, FindsARestrictedClass) {
    for (const unsigned int code : {0u, 3u, 9u, 239u, 254u, 255u}) {
        EXPECT_TRUE(Util::validateRestrictedClass(code)) << code;
        EXPECT_THAT(log_.Take(), ElementsAre(Info("Found CLASS : " + std::to_string(code) +
                                                  " in restricted class list")));
    }
}

TEST_F(Lookup, FindsNoOtherClassRestricted) {
    configClassList = {8, 224};
    for (const unsigned int code : {1u, 2u, 4u, 8u, 10u, 224u, 238u, 240u, 253u, 256u, kNoCode}) {
        EXPECT_FALSE(Util::validateRestrictedClass(code)) << code;
    }
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

LogLine vidLog(const std::string& vendor) {
    return Info("Found VID : " + vendor + " without any pid associated inside admin config list.");
}

TEST_F(Lookup, FindsAVendorWithoutProducts) {
    vidPidMap = {{1133, -1}, {1267, 4660}};

    EXPECT_TRUE(Util::validateVid(1133));
    EXPECT_THAT(log_.Take(), ElementsAre(vidLog("1133")));
    EXPECT_FALSE(Util::validateVid(1267));
    EXPECT_FALSE(Util::validateVid(1132));
    EXPECT_FALSE(Util::validateVid(1134));
    EXPECT_FALSE(Util::validateVid(1268));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, ReachesTheVendorRulesOfLargerVendors) {
    vidPidMap = {{1267, 4660}, {2000, -1}};

    EXPECT_TRUE(Util::validateVid(1267));
    EXPECT_THAT(log_.Take(), ElementsAre(vidLog("1267")));

    vidPidMap = {{100, 5}, {170, 9}, {200, 3}, {200, -1}};

    EXPECT_TRUE(Util::validateVid(100));
    EXPECT_TRUE(Util::validateVid(170));
    EXPECT_TRUE(Util::validateVid(200));
    EXPECT_THAT(log_.Take(), ElementsAre(vidLog("100"), vidLog("170"), vidLog("200")));
}

TEST_F(Lookup, FindsNoVendorWithoutAnEntryOfItsOwn) {
    vidPidMap = {{100, 5}, {200, -1}};

    EXPECT_FALSE(Util::validateVid(150));
    EXPECT_FALSE(Util::validateVid(0));
    EXPECT_FALSE(Util::validateVid(201));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, ReachesNoVendorRulesOfSmallerVendors) {
    vidPidMap = {{50, -1}, {100, 5}};

    EXPECT_FALSE(Util::validateVid(100));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, FindsAVendorWithAndWithoutProducts) {
    vidPidMap = {{100, 5}, {100, -1}, {100, -1}};

    EXPECT_TRUE(Util::validateVid(100));
    EXPECT_THAT(log_.Lines(), ElementsAre(vidLog("100")));
}

TEST_F(Lookup, FindsAnExactPair) {
    vidPidMap = {{1133, -1}, {1267, 4660}, {1267, 22136}, {1267, 22136}};

    EXPECT_TRUE(Util::validateVidPid(1267, 4660));
    EXPECT_THAT(
            log_.Take(),
            ElementsAre(Info("Found VID_PID : 1267_4660 combination inside admin config list")));
    EXPECT_TRUE(Util::validateVidPid(1267, 22136));
    EXPECT_THAT(
            log_.Take(),
            ElementsAre(Info("Found VID_PID : 1267_22136 combination inside admin config list")));
    EXPECT_FALSE(Util::validateVidPid(1133, 4660));
    EXPECT_FALSE(Util::validateVidPid(1267, 4661));
    EXPECT_FALSE(Util::validateVidPid(1267, -1));
    EXPECT_FALSE(Util::validateVidPid(4660, 1267));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Lookup, FindsAVendorWithoutProductsAsProductMinusOne) {
    vidPidMap = {{1133, -1}, {1267, 4660}};

    EXPECT_TRUE(Util::validateVidPid(1133, -1));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("Found VID_PID : 1133_-1 combination inside admin config list")));
}

TEST_F(Lookup, NamesAClassOrOneBlankAndLogsNothing) {
    const std::vector<std::pair<int, std::string>> names = {
            {0, "USB_CLASS_PER_INTERFACE"},
            {5, "USB_CLASS_PHYSICA"},
            {255, "USB_CLASS_VENDOR_SPEC"},
            {0x100, "AINPUT_SOURCE_KEYBOARD"},
            {0x400000, "AINPUT_SOURCE_ROTARY_ENCODER"},
            {0x1000000, "AINPUT_SOURCE_JOYSTICK"},
            {4, " "},
            {12, " "},
            {0x101, " "},
            {0x300, " "},
            {-1, " "},
            {INT_MIN, " "},
            {INT_MAX, " "},
    };
    for (const auto& [code, name] : names) EXPECT_EQ(name, Util::getClassName(code)) << code;
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

struct SourceSplit {
    int bits;
    int masked;
    bool isKey;
    std::vector<int> codes;
};

TEST_F(Lookup, SplitsASourceIntoItsKnownCodes) {
    const std::vector<int> all = {0x100,   0x200,   0x400,    0x1000,   0x2000,   0x4000,
                                  0x10000, 0x20000, 0x100000, 0x200000, 0x400000, 0x1000000};
    const std::vector<SourceSplit> splits = {
            {0x101, 0x100, true, {0x100}},
            {0x100, 0x100, true, {0x100}},
            {0x2002, 0x2000, true, {0x2000}},
            {0x1002, 0x1000, true, {0x1000}},
            {0x4002, 0x4000, true, {0x4000}},
            {0x1000000 | 0x10, 0x1000000, true, {0x1000000}},
            {0x4000FF, 0x400000, true, {0x400000}},
            {0x301, 0x300, false, {0x100, 0x200}},
            {0x2000 | 0x1000, 0x3000, false, {0x1000, 0x2000}},
            {0x501, 0x500, false, {0x100, 0x400}},
            {0x1000511, 0x1000500, false, {0x100, 0x400, 0x1000000}},
            {0x8000, 0x8000, false, {}},
            {0x8100, 0x8100, false, {0x100}},
            {0x800, 0x800, false, {}},
            {0, 0, false, {}},
            {1, 0, false, {}},
            {0xFF, 0, false, {}},
            {8, 0, false, {}},
            {-1, -256, false, all},
            {INT_MAX, 0x7FFFFF00, false, all},
            {INT_MIN, INT_MIN, false, {}},
    };
    for (const SourceSplit& split : splits) {
        SCOPED_TRACE(split.bits);

        const SourceList sources = Util::checkMultiClass(split.bits);
        EXPECT_EQ(split.codes, std::vector<int>(sources.begin(), sources.end()));
        EXPECT_EQ(split.codes.size(), sources.size());
        EXPECT_EQ(split.codes.empty(), sources.empty());

        // The message ends with a newline of its own, which the logger gets as an empty line.
        EXPECT_THAT(log_.Take(),
                    ElementsAre(Info("checkMultiClass key_val" + std::to_string(split.bits)),
                                Info("checkMultiClass--" + std::to_string(split.masked)),
                                Info(split.isKey ? "Key found" : "Key not found"), Info("")));
    }
}

// --- Status file -------------------------------------------------------------------------------

class UpdateErrorFile : public UtilTest {};

TEST_F(UpdateErrorFile, TakesTextsByValueAndReturnsNothing) {
    EXPECT_TRUE(
            (std::is_same_v<void (*)(std::string, std::string), decltype(&Util::updateErrorFile)>));
}

TEST_F(UpdateErrorFile, WritesTheTextWithoutALineEnd) {
    Util::updateErrorFile(kStatusFile, "SUCCESS");

    EXPECT_EQ("SUCCESS", ReadFile(kStatusFile));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("updateErrorFile called with error message : SUCCESS")));
}

TEST_F(UpdateErrorFile, ReplacesALongerTextWholly) {
    Util::updateErrorFile(kStatusFile, "INVALID ROOT ELEMENT : configuration");
    Util::updateErrorFile(kStatusFile, "INVALID MODE");

    EXPECT_EQ("INVALID MODE", ReadFile(kStatusFile));
}

TEST_F(UpdateErrorFile, WritesTheTextByteForByte) {
    const std::string text("INVALID TAG:\xc3\xa4\0\r\n\xff ", 18);

    Util::updateErrorFile(kStatusFile, text);

    EXPECT_EQ(text, ReadFile(kStatusFile));
}

TEST_F(UpdateErrorFile, EmptiesTheFileForAnEmptyText) {
    WriteFile(kStatusFile, "SUCCESS");

    Util::updateErrorFile(kStatusFile, "");

    EXPECT_EQ("", ReadFile(kStatusFile));
    EXPECT_THAT(log_.Lines(), ElementsAre(Info("updateErrorFile called with error message : ")));
}

TEST_F(UpdateErrorFile, DoesNothingMoreWhenTheFileCannotBeOpened) {
    Remove("/data/system/usbdeviceconfig");

    Util::updateErrorFile(kStatusFile, "SUCCESS");

    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("updateErrorFile called with error message : SUCCESS")));
    EXPECT_FALSE(Exists("/data/system/usbdeviceconfig"));
}

TEST_F(UpdateErrorFile, LeavesADirectoryInThePlaceOfTheFileAlone) {
    MakeDir(kStatusFile);

    Util::updateErrorFile(kStatusFile, "SUCCESS");

    EXPECT_THAT(log_.Lines(),
                ElementsAre(Info("updateErrorFile called with error message : SUCCESS")));
    EXPECT_TRUE(Exists(kStatusFile));
}

TEST_F(UpdateErrorFile, DoesNotStopTheParserWhenTheFileCannotBeOpened) {
    WriteFile("/data/system/elsewhere.xml", whitelist("<foo/>"));
    Remove("/data/system/usbdeviceconfig");

    Util::createMapFromConfig("/data/system/elsewhere.xml");

    EXPECT_EQ("INVALID TAG:foo", errorMessage);
    EXPECT_FALSE(xml_parse_status);
    EXPECT_FALSE(Exists("/data/system/usbdeviceconfig"));
}

// --- Backup copy -------------------------------------------------------------------------------

class CopyFileContent : public UtilTest {
  protected:
    static LogLine SourceLog() {
        return Info(" USB xml src path is /data/system/usbdeviceconfig/usb_device_config.xml");
    }
    static LogLine DestinationLog() {
        return Info(
                "USB xml dest path is "
                "/data/system/usbdeviceconfig/usb_device_config_backup.xml");
    }
    static LogLine EndLog() { return Info("Usb Device config file copied successfully..!!"); }
};

TEST_F(CopyFileContent, TakesTextsByValueAndReturnsABoolean) {
    EXPECT_TRUE(
            (std::is_same_v<bool (*)(std::string, std::string), decltype(&Util::copyFileContent)>));
}

struct Copy {
    std::string source;
    std::string copy;
};

TEST_F(CopyFileContent, EndsEachLineWithOneLineFeed) {
    const std::vector<Copy> copies = {
            {"", ""},
            {"a", "a\n"},
            {"a\n", "a\n"},
            {"a\nb", "a\nb\n"},
            {"a\nb\n", "a\nb\n"},
            {"\n", "\n"},
            {"\n\n", "\n\n"},
            {"a\n\nb\n\n", "a\n\nb\n\n"},
            {" a \n\tb\n", " a \n\tb\n"},
            {"a\r\nb\r\n", "a\r\nb\r\n"},
            {"a\r\nb\r", "a\r\nb\r\n"},
            {"a\rb", "a\rb\n"},
            {std::string("a\0b\n\0", 5), std::string("a\0b\n\0\n", 6)},
            {"\xff\xfe\n\x1a", "\xff\xfe\n\x1a\n"},
            {std::string(100000, 'x') + "\ny", std::string(100000, 'x') + "\ny\n"},
    };
    for (const Copy& copy : copies) {
        SCOPED_TRACE(copy.source.substr(0, 20));
        WriteFile(kConfigFile, copy.source);

        EXPECT_TRUE(Util::copyFileContent(kConfigFile, kBackupFile));

        EXPECT_EQ(copy.copy, ReadFile(kBackupFile));
        EXPECT_EQ(copy.source, ReadFile(kConfigFile));
    }
}

TEST_F(CopyFileContent, LogsItsPathsEachLineAloneAndItsEnd) {
    WriteFile(kConfigFile, "<usbconfig mode=\"default\">\n\n  <foo/>\r\n</usbconfig>");

    EXPECT_TRUE(Util::copyFileContent(kConfigFile, kBackupFile));

    EXPECT_THAT(log_.Lines(),
                ElementsAre(SourceLog(), DestinationLog(), Info("<usbconfig mode=\"default\">"),
                            Info(""), Info("  <foo/>\r"), Info("</usbconfig>"), EndLog()));
}

TEST_F(CopyFileContent, LogsNoLineForTheEndOfTheFile) {
    WriteFile(kConfigFile, "a\n");

    EXPECT_TRUE(Util::copyFileContent(kConfigFile, kBackupFile));

    EXPECT_THAT(log_.Lines(), ElementsAre(SourceLog(), DestinationLog(), Info("a"), EndLog()));
}

TEST_F(CopyFileContent, ReplacesALongerDestinationWholly) {
    WriteFile(kConfigFile, "a\n");
    WriteFile(kBackupFile, "a much longer text\nof two lines\n");

    EXPECT_TRUE(Util::copyFileContent(kConfigFile, kBackupFile));

    EXPECT_EQ("a\n", ReadFile(kBackupFile));
}

TEST_F(CopyFileContent, EmptiesTheDestinationWhenTheSourceIsMissing) {
    WriteFile(kBackupFile, "a\n");

    EXPECT_FALSE(Util::copyFileContent(kConfigFile, kBackupFile));

    EXPECT_EQ("", ReadFile(kBackupFile));
    EXPECT_FALSE(Exists(kConfigFile));
    EXPECT_THAT(log_.Lines(), ElementsAre(SourceLog(), DestinationLog(),
                                          Error("USB device error is source file open"), EndLog()));
}

TEST_F(CopyFileContent, CreatesAnEmptyDestinationWhenTheSourceIsMissing) {
    EXPECT_FALSE(Util::copyFileContent(kConfigFile, kBackupFile));

    EXPECT_EQ("", ReadFile(kBackupFile));
}

TEST_F(CopyFileContent, LeavesTheConfigurationEmptyWhenThereIsNoBackup) {
    WriteFile(kConfigFile, "<foo/>\n");

    EXPECT_FALSE(Util::copyFileContent(kBackupFile, kConfigFile));

    EXPECT_EQ("", ReadFile(kConfigFile));
}

TEST_F(CopyFileContent, ReportsAnUnwritableDestinationForEachLine) {
    WriteFile(kConfigFile, "a\nb\nc\n");
    MakeDir(kBackupFile);

    EXPECT_FALSE(Util::copyFileContent(kConfigFile, kBackupFile));

    const LogLine failed = Error("ODM error in dest file open");
    EXPECT_THAT(log_.Lines(),
                ElementsAre(SourceLog(), DestinationLog(), failed, failed, failed, EndLog()));
    EXPECT_EQ("a\nb\nc\n", ReadFile(kConfigFile));
}

TEST_F(CopyFileContent, SucceedsFromAnEmptySourceIntoAnUnwritableDestination) {
    WriteFile(kConfigFile, "");
    MakeDir(kBackupFile);

    EXPECT_TRUE(Util::copyFileContent(kConfigFile, kBackupFile));

    EXPECT_THAT(log_.Lines(), ElementsAre(SourceLog(), DestinationLog(), EndLog()));
}

TEST_F(CopyFileContent, ReportsTheSourceAloneWhenNeitherFileOpens) {
    MakeDir(kBackupFile);

    EXPECT_FALSE(Util::copyFileContent(kConfigFile, kBackupFile));

    EXPECT_THAT(log_.Lines(), ElementsAre(SourceLog(), DestinationLog(),
                                          Error("USB device error is source file open"), EndLog()));
}

// The source is opened first, so that the destination's creation comes too late for it.
TEST_F(CopyFileContent, FindsNoSourceInAMissingFileThatIsCopiedOntoItself) {
    EXPECT_FALSE(Util::copyFileContent(kConfigFile, kConfigFile));

    EXPECT_EQ("", ReadFile(kConfigFile));
    EXPECT_EQ(1, log_.CountOf(Error("USB device error is source file open")));
}

// Emptied only when the copy is ready to be written: what ends the process before loses nothing.
TEST_F(CopyFileContent, KeepsAFileThatIsCopiedOntoItself) {
    WriteFile(kConfigFile, "a\nb");

    EXPECT_TRUE(Util::copyFileContent(kConfigFile, kConfigFile));

    EXPECT_EQ("a\nb\n", ReadFile(kConfigFile));
}

}  // namespace

}  // namespace android::kus::test
