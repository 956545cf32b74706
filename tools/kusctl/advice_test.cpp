// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/advice.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/policy_table.h"

namespace android::kus::tools {
namespace {

using test::PolicyFile;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::vector<Advice> adviceOnText(const std::string& document) {
    return adviceOn(*Policy::parse("policy.xml", document));
}

// "LINE:COLUMN ID"
std::string placeOf(const Advice& advice) {
    return std::to_string(advice.position.line) + ":" + std::to_string(advice.position.column) +
           " " + advice.id;
}

std::vector<std::string> placesOf(const std::vector<Advice>& advice) {
    std::vector<std::string> places;
    places.reserve(advice.size());
    for (const Advice& each : advice) places.push_back(placeOf(each));
    return places;
}

std::vector<std::string> placesIn(const std::string& document) {
    return placesOf(adviceOnText(document));
}

// Rules from the third line on, of a whitelist that locks no keyboard out.
std::string whitelistOf(const std::string& rules) {
    return "<usbconfig mode=\"whitelist\">\n<class>AINPUT_SOURCE_KEYBOARD</class>\n" + rules +
           "\n</usbconfig>\n";
}

struct Expected {
    std::string place;
    /** Part of the text. */
    std::string piece;
};

struct Case {
    std::string rules;
    std::vector<Expected> advice;
};

void expectAdvice(const std::string& document, const std::vector<Expected>& expected) {
    SCOPED_TRACE(document);
    const std::vector<Advice> advice = adviceOnText(document);
    std::vector<std::string> places;
    places.reserve(expected.size());
    for (const Expected& each : expected) places.push_back(each.place);
    ASSERT_THAT(placesOf(advice), ElementsAreArray(places));
    for (size_t i = 0; i < advice.size(); ++i) {
        EXPECT_THAT(advice[i].text, HasSubstr(expected[i].piece));
    }
}

void expectAdvice(const std::vector<Case>& cases) {
    for (const Case& each : cases) expectAdvice(whitelistOf(each.rules), each.advice);
}

// --- Texts ---------------------------------------------------------------------------------------

struct Worded {
    const char* id;
    std::string document;
    const char* text;
};

const Worded kWorded[] = {
        {"bad-meant", whitelistOf("<!-- kusctl: meant nothing -->"),
         "there is no advice \"nothing\": kusctl(1) lists the ids"},
        {"bad-mode", "<usbconfig mode=\"Whitelist\"/>",
         "there is no mode \"Whitelist\": write whitelist"},
        {"bad-name", whitelistOf("<class>USB_CLASS_PHYSICAL</class>"),
         "there is no class \"USB_CLASS_PHYSICAL\": write USB_CLASS_PHYSICA"},
        {"bad-number", whitelistOf("<vid vendorid=\"046d\"/>"),
         "the vendor id \"046d\" must be decimal digits alone: hexadecimal 046d is 1133"},
        {"bad-xml", "<usbconfig>",
         "this is no well-formed XML: each element that is opened must be closed, by the same "
         "name, "
         "and & and < in a text are &amp; and &lt;"},
        {"crash", whitelistOf("<vid vendorid=\"2147483648\"/>"),
         "the vendor id 2147483648 ends the daemon: USB ids go up to 65535"},
        {"duplicate", whitelistOf("<vid vendorid=\"5\"/>\n<vid vendorid=\"5\"/>"),
         "the same rule stands in line 3"},
        {"half-keyboard",
         "<usbconfig mode=\"blacklist\"><class>AINPUT_SOURCE_KEYBOARD</class></usbconfig>",
         "keyboards with arrow and select keys are AINPUT_SOURCE_DPAD as well, and a device is "
         "refused only when all that it is is listed: list AINPUT_SOURCE_DPAD, too"},
        {"half-modem", whitelistOf("<class>USB_CLASS_COMM</class>"),
         "modems and network adapters have USB_CLASS_COMM and USB_CLASS_CDC_DATA together, and "
         "match only when both are listed"},
        {"leading-zero", whitelistOf("<vid vendorid=\"0403\"/>"),
         "the vendor id 0403 is read as decimal 403; if it is the 0403 of lsusb, write 1027"},
        {"never-matches", whitelistOf("<vid vendorid=\"65536\"/>"),
         "the vendor id 65536 never matches: USB ids go up to 65535"},
        {"no-effect", whitelistOf("<vid vendorid=\"5\"/>\n<vid vendorid=\"5\"><pid>6</pid></vid>"),
         "the product ids of vendor 5 are without effect, all its products match: the rule in line "
         "3 covers the whole vendor"},
        {"no-keyboard", "<usbconfig mode=\"whitelist\"><class>USB_CLASS_AUDIO</class></usbconfig>",
         "without AINPUT_SOURCE_KEYBOARD no keyboard (and no scanner that types) will work"},
        {"not-read", whitelistOf("<vid vendorid=\"5\" productid=\"6\"/>"),
         "attribute \"productid\" of <vid> is not read: the rule covers every product of the "
         "vendor"},
        {"read-as-product", whitelistOf("<vid vendorid=\"5\"><pid>6</pid><name>7</name></vid>"),
         "<name> behind a <pid> is read as one more product id"},
        {"refuses-all", "<usbconfig mode=\"whitelist\"/>",
         "no device can match: every device will be refused"},
        {"restricted", whitelistOf("<class>USB_CLASS_HID</class>"),
         "USB_CLASS_HID (class 3) is restricted: no rule can name it, name the kind of input "
         "device (AINPUT_SOURCE_KEYBOARD, ...), or for a vendor's own HID devices its vendor and "
         "product id"},
};

TEST(Advice, SaysWhatIsWrongAndWhatWouldBeRight) {
    for (const Worded& each : kWorded) {
        SCOPED_TRACE(each.id);
        const std::vector<Advice> advice = adviceOnText(each.document);
        ASSERT_THAT(advice, SizeIs(1));
        EXPECT_EQ(each.id, advice[0].id);
        EXPECT_EQ(each.text, advice[0].text);
    }
}

TEST(AdviceIds, AreThoseThatAreGivenInAlphabeticalOrder) {
    std::vector<std::string> ids;
    for (const AdviceId& each : adviceIds()) {
        ids.emplace_back(each.id);
        EXPECT_STRNE("", each.about);
    }
    std::vector<std::string> given;
    for (const Worded& each : kWorded) given.emplace_back(each.id);
    EXPECT_EQ(given, ids);
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
}

// --- Names ---------------------------------------------------------------------------------------

TEST(Advice, TellsTheNameThatIsNearlyWritten) {
    const std::vector<std::pair<std::string, std::string>> names = {
            {"USB_CLASS_PHYSICAL", "USB_CLASS_PHYSICA"},
            {"usb_class_audio", "USB_CLASS_AUDIO"},
            {"Usb_Class_Video", "USB_CLASS_VIDEO"},
            {" USB_CLASS_AUDIO ", "USB_CLASS_AUDIO"},
            {"\n  USB_CLASS_AUDIO\n", "USB_CLASS_AUDIO"},
            {"USB CLASS AUDIO", "USB_CLASS_AUDIO"},
            {"USB-CLASS-MASS-STORAGE", "USB_CLASS_MASS_STORAGE"},
            {"USB_CLASS_MASSSTORAGE", "USB_CLASS_MASS_STORAGE"},
            {"USB_CLASS_PRINTERS", "USB_CLASS_PRINTER"},
            {"AUDIO", "USB_CLASS_AUDIO"},
            {"CLASS_AUDIO", "USB_CLASS_AUDIO"},
            {"Mass-Storage", "USB_CLASS_MASS_STORAGE"},
            {"keyboard", "AINPUT_SOURCE_KEYBOARD"},
            {"SOURCE_MOUSE", "AINPUT_SOURCE_MOUSE"},
            {"mouse relative", "AINPUT_SOURCE_MOUSE_RELATIVE"},
            {"AINPUT_SOURCE_KEYBORD", "AINPUT_SOURCE_KEYBOARD"},
            {"8", "USB_CLASS_MASS_STORAGE"},
            {"0x0E", "USB_CLASS_VIDEO"},
            {" 14 ", "USB_CLASS_VIDEO"},
            {"256", "AINPUT_SOURCE_KEYBOARD"},
            {"0x100", "AINPUT_SOURCE_KEYBOARD"},
    };
    for (const auto& [written, right] : names) {
        SCOPED_TRACE(written);
        const auto advice = adviceOnText(whitelistOf("<class>" + written + "</class>"));
        ASSERT_THAT(placesOf(advice), ElementsAre("3:1 bad-name"));
        const bool padded = base::Trim(written) == right;
        EXPECT_EQ(base::StringPrintf("there is no class \"%s\": write %s%s", written.c_str(),
                                     right.c_str(), padded ? ", without blanks or line ends" : ""),
                  advice[0].text);
    }
}

TEST(Advice, TellsOfANameNearNone) {
    for (const std::string name : {"USB_CLASS_NOTHING_AT_ALL", "4", "12", "300", "-1", "x"}) {
        SCOPED_TRACE(name);
        const auto advice = adviceOnText(whitelistOf("<class>" + name + "</class>"));
        ASSERT_THAT(placesOf(advice), ElementsAre("3:1 bad-name"));
        EXPECT_EQ("there is no class \"" + name + "\": usb_device_config(5) lists the names",
                  advice[0].text);
    }
    const std::string longName(10000, 'A');
    EXPECT_THAT(placesIn(whitelistOf("<class>" + longName + "</class>")),
                ElementsAre("3:1 bad-name"));
}

TEST(Advice, TellsOfAClassWithoutAName) {
    expectAdvice({
            {"<class/>", {{"3:1 bad-name", "a class rule needs a name"}}},
            {"<class></class>", {{"3:1 bad-name", "a class rule needs a name"}}},
            {"<class><b/></class>", {{"3:1 bad-name", "a class rule needs a name"}}},
    });
}

TEST(Advice, TellsWhatToWriteForARestrictedClass) {
    expectAdvice({
            {"<class>USB_CLASS_HID</class>", {{"3:1 restricted", "AINPUT_SOURCE_KEYBOARD"}}},
            {"<class>USB_CLASS_HUB</class>", {{"3:1 restricted", "leave it out"}}},
            {"<class>USB_CLASS_PER_INTERFACE</class>",
             {{"3:1 restricted", "name the device's vendor and product id"}}},
            {"<class>USB_CLASS_MISC</class>",
             {{"3:1 restricted", "name the device's vendor and product id"}}},
            {"<class>USB_CLASS_APP_SPEC</class>",
             {{"3:1 restricted", "name the device's vendor and product id"}}},
            {"<class>USB_CLASS_VENDOR_SPEC</class>",
             {{"3:1 restricted", "name the device's vendor and product id"}}},
            // Named wrongly as well.
            {"<class>HID</class>", {{"3:1 bad-name", "USB_CLASS_HID (class 3) is restricted"}}},
            {"<class>3</class>", {{"3:1 bad-name", "USB_CLASS_HID (class 3) is restricted"}}},
            {"<class>255</class>",
             {{"3:1 bad-name", "USB_CLASS_VENDOR_SPEC (class 255) is restricted"}}},
    });
}

TEST(Advice, TellsTheRuleThatIsMeant) {
    expectAdvice({
            {"<Class>USB_CLASS_AUDIO</Class>",
             {{"3:1 bad-name", "there is no rule <Class>: write <class>"}}},
            {"<clas>USB_CLASS_AUDIO</clas>", {{"3:1 bad-name", ": write <class>"}}},
            {"<VID vendorid=\"5\"/>", {{"3:1 bad-name", ": write <vid vendorid=\"...\">"}}},
            {"<vendor id=\"5\"/>", {{"3:1 bad-name", ": write <vid vendorid=\"...\">"}}},
            {"<rule/>", {{"3:1 bad-name", "there is no rule <rule>"}}},
    });
}

TEST(Advice, TellsWhereAProductIdStands) {
    const auto advice = adviceOnText(whitelistOf("<pid>5</pid>"));

    ASSERT_THAT(placesOf(advice), ElementsAre("3:1 bad-name"));
    EXPECT_EQ("there is no rule <pid>: a <pid> stands in the <vid> of its vendor", advice[0].text);
}

TEST(Advice, TellsTheModeThatIsMeant) {
    const std::vector<std::pair<std::string, std::string>> modes = {
            {"Whitelist", "write whitelist"},
            {"BLACKLIST", "write blacklist"},
            {" default ", "write default"},
            {"white list", "write whitelist"},
            {"allow", "write whitelist"},
            {"denylist", "write blacklist"},
            {"block", "write blacklist"},
            {"open", "write default, whitelist or blacklist"},
            {"", "write default, whitelist or blacklist"},
            {std::string(10000, 'w'), "write default, whitelist or blacklist"},
    };
    for (const auto& [mode, right] : modes) {
        expectAdvice(base::StringPrintf("<!-- x -->\n <usbconfig mode=\"%s\"/>", mode.c_str()),
                     {{"2:2 bad-mode", base::StringPrintf("there is no mode \"%s\": %s",
                                                          mode.c_str(), right.c_str())}});
    }
    expectAdvice("<usbconfig/>", {{"1:1 bad-mode",
                                   "write mode=\"whitelist\", \"blacklist\" or \"default\" into "
                                   "<usbconfig>"}});
}

TEST(Advice, TellsTheRootThatMustBe) {
    expectAdvice("\n<UsbConfig mode=\"default\"/>",
                 {{"2:1 bad-name", "the document's element must be <usbconfig>"}});
}

// --- Numbers -------------------------------------------------------------------------------------

TEST(Advice, TellsTheDecimalOfAHexadecimalId) {
    expectAdvice({
            {"<vid vendorid=\"046d\"/>", {{"3:1 bad-number", "hexadecimal 046d is 1133"}}},
            {"<vid vendorid=\"0x046D\"/>", {{"3:1 bad-number", "hexadecimal 046d is 1133"}}},
            {"<vid vendorid=\"0X46d\"/>", {{"3:1 bad-number", "hexadecimal 046d is 1133"}}},
            {"<vid vendorid=\"0x1133\"/>", {{"3:1 bad-number", "hexadecimal 1133 is 4403"}}},
            {"<vid vendorid=\"5\">\n <pid>c52b</pid><pid>ffff</pid></vid>",
             {{"4:2 bad-number",
               "the product id \"c52b\" must be decimal digits alone: "
               "hexadecimal c52b is 50475"},
              {"4:17 bad-number", "hexadecimal ffff is 65535"}}},
    });
}

TEST(Advice, TellsOfOtherBadNumbers) {
    expectAdvice({
            {"<vid vendorid=\" 1133 \"/>",
             {{"3:1 bad-number",
               "the vendor id \" 1133 \" must be decimal digits alone: write 1133"}}},
            {"<vid vendorid=\"5\"><pid>6\n</pid></vid>", {{"3:19 bad-number", ": write 6"}}},
            {"<vid vendorid=\"-5\"/>", {{"3:1 bad-number", "\"-5\" must be decimal digits alone"}}},
            {"<vid vendorid=\"046d:c52b\"/>", {{"3:1 bad-number", "must be decimal digits alone"}}},
            {"<vid vendorid=\"0x12345\"/>", {{"3:1 bad-number", "must be decimal digits alone"}}},
            {"<vid vendorid=\"\"/>", {{"3:1 bad-number", "the vendor id is missing"}}},
            {"<vid/>", {{"3:1 bad-number", "the vendor id is missing"}}},
            {"<vid vendorid=\"5\"><pid/></vid>",
             {{"3:19 bad-number", "the product id is missing"}}},
    });
}

TEST(Advice, TellsOfIdsThatNoDeviceHas) {
    expectAdvice({
            {"<vid vendorid=\"65535\"><pid>65535</pid></vid>", {}},
            {"<vid vendorid=\"65536\"><pid>5</pid></vid>",
             {{"3:1 never-matches", "the vendor id 65536 never matches"}}},
            {"<vid vendorid=\"5\"><pid>2147483647</pid></vid>",
             {{"3:19 never-matches", "the product id 2147483647 never matches"}}},
    });
}

TEST(Advice, TellsOfIdsThatEndTheDaemon) {
    expectAdvice({
            {"<vid vendorid=\"2147483648\"/>", {{"3:1 crash", "the vendor id 2147483648 ends"}}},
            {"<vid vendorid=\"5\">\n<pid>6</pid>\n<pid>99999999999</pid></vid>",
             {{"5:1 crash", "the product id 99999999999 ends"}}},
    });
    expectAdvice("<!-- nothing -->",
                 {{"1:1 crash", "a file without any element ends the daemon: write <usbconfig>"}});
}

TEST(Advice, TellsOfDigitsThatLookLikeHexadecimalOnes) {
    expectAdvice({
            {"<vid vendorid=\"0\"/>", {}},
            {"<vid vendorid=\"00\"/>",
             {{"3:1 leading-zero", "the vendor id 00 is read as decimal 0"}}},
            {"<vid vendorid=\"0403\"/>", {{"3:1 leading-zero", "write 1027"}}},
            {"<vid vendorid=\"0009\"/>", {{"3:1 leading-zero", "is read as decimal 9"}}},
            {"<vid vendorid=\"01133\"/>", {{"3:1 leading-zero", "is read as decimal 1133"}}},
            {"<vid vendorid=\"5\"><pid>0012</pid></vid>",
             {{"3:19 leading-zero",
               "the product id 0012 is read as decimal 12; if it is the 0012 "
               "of lsusb, write 18"}}},
    });
    // Both ways of reading give the same, or only one is possible.
    for (const std::string id : {"0009", "01133"}) {
        const auto advice = adviceOnText(whitelistOf("<vid vendorid=\"" + id + "\"/>"));
        ASSERT_THAT(advice, SizeIs(1));
        EXPECT_EQ(std::string::npos, advice[0].text.find("lsusb")) << advice[0].text;
    }
}

// --- What is not read ----------------------------------------------------------------------------

TEST(Advice, TellsWhatIsNotReadInAVendor) {
    const std::string whole = "is not read: the rule covers every product of the vendor";
    expectAdvice({
            {"<vid vendorid=\"5\" productid=\"6\"/>", {{"3:1 not-read", whole}}},
            {"<vid a=\"1\" vendorid=\"5\" b=\"2\"/>",
             {{"3:1 not-read", "\"a\""}, {"3:1 not-read", "\"b\""}}},
            {"<vid vendorid=\"5\">6</vid>",
             {{"3:1 not-read", "text in a <vid> " + whole + ", products stand in <pid> elements"}}},
            {"<vid vendorid=\"5\"><![CDATA[6]]></vid>", {{"3:1 not-read", whole}}},
            {"<vid vendorid=\"5\"><PID>6</PID></vid>", {{"3:19 not-read", "<PID> " + whole}}},
            {"<vid vendorid=\"5\"><product>6</product><product>7</product></vid>",
             {{"3:19 not-read", whole}, {"3:39 not-read", whole}}},
            {"<vid vendorid=\"5\">\n  <!-- 6 -->\n</vid>", {}},
    });
}

TEST(Advice, TellsNothingOfTheWholeVendorWhenThereAreProducts) {
    const std::vector<std::pair<std::string, std::string>> cases = {
            {"<vid vendorid=\"5\" name=\"x\"><pid>7</pid></vid>", "3:1 not-read"},
            {"<vid vendorid=\"5\">6<pid>7</pid></vid>", "3:1 not-read"},
            {"<vid vendorid=\"5\"><note>6</note><pid>7</pid></vid>", "3:19 not-read"},
            {"<vid vendorid=\"5\"><pid name=\"x\">7</pid></vid>", "3:19 not-read"},
    };
    for (const auto& [rules, place] : cases) {
        SCOPED_TRACE(rules);
        const auto advice = adviceOnText(whitelistOf(rules));
        ASSERT_THAT(placesOf(advice), ElementsAre(place));
        EXPECT_EQ(std::string::npos, advice[0].text.find("vendor")) << advice[0].text;
    }
}

TEST(Advice, TellsNothingOfTheWholeVendorWhenThereIsNone) {
    expectAdvice({{"<vid id=\"5\"/>",
                   {{"3:1 bad-number", "the vendor id is missing"},
                    {"3:1 not-read", "attribute \"id\" of <vid> is not read"}}}});
    for (const Advice& advice : adviceOnText(whitelistOf("<vid id=\"5\"/>"))) {
        EXPECT_EQ(std::string::npos, advice.text.find("covers")) << advice.text;
    }
}

TEST(Advice, TellsWhatIsNotReadElsewhere) {
    expectAdvice({
            {"<class name=\"x\">USB_CLASS_AUDIO</class>",
             {{"3:1 not-read", "attribute \"name\" of <class> is not read"}}},
            {"<class xml:lang=\"en\" xmlns=\"x\">USB_CLASS_AUDIO</class>", {}},
            {"sound: <class>USB_CLASS_AUDIO</class>",
             {{"1:1 not-read", "text between the rules is not read"}}},
            {"</usbconfig><usbconfig mode=\"blacklist\">",
             {{"3:13 not-read", "<usbconfig> behind the first element is not read"}}},
    });
    expectAdvice("<usbconfig mode=\"blacklist\" version=\"1\"/>",
                 {{"1:1 not-read", "attribute \"version\" of <usbconfig> is not read"}});
}

TEST(Advice, TellsWhatIsNotReadInAClassOrProduct) {
    expectAdvice({
            {"<class>USB_CLASS_AUDIO<class>USB_CLASS_VIDEO</class></class>",
             {{"3:23 not-read", "<class>"}}},
            {"<class>USB_CLASS_AUDIO<b/></class>", {{"3:23 not-read", "<b>"}}},
            {"<class>USB_CLASS_AUDIO<!-- and --> USB_CLASS_VIDEO</class>",
             {{"3:1 not-read", "text"}}},
            {"<vid vendorid=\"5\"><pid>6<pid>7</pid></pid></vid>", {{"3:25 not-read", "<pid>"}}},
            {"<vid vendorid=\"5\"><pid>6<!-- and -->7</pid></vid>", {{"3:19 not-read", "text"}}},
    });
}

TEST(Advice, TellsWhatIsReadAsAProduct) {
    expectAdvice({
            {"<vid vendorid=\"5\"><pid>6</pid><name>7</name><PID>8</PID></vid>",
             {{"3:31 read-as-product", "<name> behind a <pid> is read as one more product id"},
              {"3:45 read-as-product", "<PID>"}}},
            {"<vid vendorid=\"5\"><pid>6</pid><name>abc</name></vid>",
             {{"3:31 read-as-product", "<name>"}, {"3:31 bad-number", "\"abc\""}}},
    });
}

TEST(Advice, TellsThatNoRuleIsReadInDefaultMode) {
    const std::string text = "mode \"default\" allows everything: no rule is read";
    expectAdvice("<usbconfig mode=\"default\"><vid vendorid=\"2147483648\"/><x/></usbconfig>",
                 {{"1:1 not-read", text}});
    expectAdvice("<usbconfig mode=\"default\">\n<!-- x -->\n</usbconfig>", {});
}

// The schema is stricter: what the daemon takes all the same, it does not read as it looks.
TEST(Advice, IsGivenOnEachFileOfTheTableThatTheDaemonTakesAndSkipsSomethingOf) {
    size_t files = 0;
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        if (!file.accepted() || file.difference.find("skipped") != 0) continue;
        ++files;
        const std::vector<Advice> advice = adviceOnText(file.document);
        EXPECT_TRUE(std::any_of(advice.begin(), advice.end(),
                                [](const Advice& each) { return each.id == "not-read"; }))
                << "line " << file.line << ", " << file.name << ": " << file.document;
    }
    EXPECT_GE(files, 10u);
}

// --- Rules together ------------------------------------------------------------------------------

TEST(Advice, TellsOfRulesThatAreThereAlready) {
    expectAdvice({
            {"<class>USB_CLASS_AUDIO</class>\n<class>USB_CLASS_AUDIO</class>",
             {{"4:1 duplicate", "the same rule stands in line 3"}}},
            {"<vid vendorid=\"5\"/>\n<vid vendorid=\"05\"/>",
             {{"4:1 leading-zero", ""}, {"4:1 duplicate", "line 3"}}},
            {"<vid vendorid=\"5\"><pid>6</pid>\n<pid>6</pid></vid>\n"
             "<vid vendorid=\"5\"><pid>6</pid></vid>",
             {{"4:1 duplicate", "line 3"}, {"5:19 duplicate", "line 3"}}},
            {"<vid vendorid=\"5\"><pid>6</pid></vid><vid vendorid=\"6\"><pid>6</pid></vid>"
             "<vid vendorid=\"256\"/>",
             {{"3:19 no-effect", ""}, {"3:55 no-effect", ""}}},
    });
}

TEST(Advice, TellsOfProductsWithoutEffect) {
    expectAdvice({
            // The same vendor, in either order, and once however many products there are.
            {"<vid vendorid=\"5\"/>\n<vid vendorid=\"5\"><pid>6</pid><pid>7</pid></vid>",
             {{"4:19 no-effect", "the rule in line 3 covers the whole vendor"}}},
            {"<vid vendorid=\"5\">\n<pid>6</pid></vid>\n<vid vendorid=\"5\"/>",
             {{"4:1 no-effect", "the rule in line 5 covers the whole vendor"}}},
            // A larger vendor id, however far.
            {"<vid vendorid=\"5\"><pid>6</pid></vid>\n<vid vendorid=\"9\"/>",
             {{"3:19 no-effect",
               "the product ids of vendor 5 are without effect, all its products match: the rule "
               "for all of vendor 9 in line 4 reaches down to every smaller vendor id that has "
               "product rules; list the products of vendor 9, too"}}},
            {"<vid vendorid=\"60000\"/>\n<vid vendorid=\"1\"><pid>6</pid></vid>",
             {{"4:19 no-effect", "all of vendor 60000 in line 3"}}},
            // The nearest of several is the one that decides.
            {"<vid vendorid=\"9\"/>\n<vid vendorid=\"7\"/>\n<vid vendorid=\"5\"><pid>6</pid></vid>",
             {{"5:19 no-effect", "all of vendor 7 in line 4"}}},
            {"<vid vendorid=\"5\"><pid>6</pid></vid>\n<vid vendorid=\"99999\"/>",
             {{"3:19 no-effect", "all of vendor 99999"}, {"4:1 never-matches", ""}}},
    });
}

TEST(Advice, TellsNothingOfProductsThatHaveAnEffect) {
    expectAdvice({
            {"<vid vendorid=\"9\"><pid>6</pid></vid><vid vendorid=\"5\"/>", {}},
            {"<vid vendorid=\"5\"><pid>6</pid></vid><vid vendorid=\"9\"><pid>6</pid></vid>", {}},
            {"<vid vendorid=\"5\"/><vid vendorid=\"9\"/>", {}},
    });
}

TEST(Advice, TellsOfHalfAModem) {
    const std::string comm = "<class>USB_CLASS_COMM</class>";
    const std::string data = "<class>USB_CLASS_CDC_DATA</class>";
    expectAdvice({{comm, {{"3:1 half-modem", ""}}},
                  {"\n " + data, {{"4:2 half-modem", ""}}},
                  {comm + data, {}},
                  {data + comm, {}}});
    expectAdvice("<usbconfig mode=\"blacklist\">" + comm + "</usbconfig>",
                 {{"1:29 half-modem", ""}});
}

TEST(Advice, TellsOfAWhitelistThatLocksOut) {
    const auto whitelist = [](const std::string& rules) {
        return "\n<usbconfig mode=\"whitelist\">" + rules + "</usbconfig>";
    };
    const std::string none = "every device will be refused";
    const std::string noKeyboard = "no keyboard (and no scanner that types) will work";
    const std::string someKeyboards = "of the listed vendors and products will work";
    expectAdvice(whitelist(""), {{"2:1 refuses-all", none}});
    expectAdvice(whitelist("<vid vendorid=\"65536\"/>"),
                 {{"2:1 refuses-all", none}, {"2:29 never-matches", ""}});
    expectAdvice(whitelist("<vid vendorid=\"5\"><pid>65536</pid></vid>"),
                 {{"2:1 refuses-all", none}, {"2:47 never-matches", ""}});
    expectAdvice(whitelist("<class>AINPUT_SOURCE_MOUSE</class>"),
                 {{"2:1 no-keyboard", noKeyboard}});
    expectAdvice(whitelist("<class>USB_CLASS_AUDIO</class><vid vendorid=\"65536\"/>"),
                 {{"2:1 no-keyboard", noKeyboard}, {"2:59 never-matches", ""}});
    expectAdvice(whitelist("<vid vendorid=\"5\"/>"), {{"2:1 no-keyboard", someKeyboards}});
    expectAdvice(whitelist("<vid vendorid=\"5\"><pid>6</pid></vid>"),
                 {{"2:1 no-keyboard", someKeyboards}});
    expectAdvice(whitelist("<class>AINPUT_SOURCE_KEYBOARD</class>"), {});
}

// A vendor-only rule that no device has lets in those of smaller vendors that have rules.
TEST(Advice, DoesNotTellThatAllIsRefusedWhereARuleReachesDown) {
    const auto places = placesIn(
            "<usbconfig mode=\"whitelist\"><vid vendorid=\"5\"><pid>65536</pid></vid>"
            "<vid vendorid=\"65537\"/></usbconfig>");
    EXPECT_EQ(0, std::count(places.begin(), places.end(), "1:1 refuses-all"));
    EXPECT_EQ(1, std::count(places.begin(), places.end(), "1:47 no-effect"));
}

TEST(Advice, TellsOfNoLockOutInABlacklist) {
    expectAdvice("<usbconfig mode=\"blacklist\"/>", {});
    expectAdvice("<usbconfig mode=\"blacklist\"><class>USB_CLASS_AUDIO</class></usbconfig>", {});
}

// --- All of a file -------------------------------------------------------------------------------

TEST(Advice, ComesInTheOrderOfTheFile) {
    expectAdvice(
            "<usbconfig mode=\"whitelist\" a=\"b\">\n"
            "<vid vendorid=\"9\"><pid>6</pid></vid> <vid vendorid=\"010\"/>\n"
            "<class>USB_CLASS_COMM</class>\n"
            "<vid vendorid=\"9\"><pid>6</pid></vid>\n"
            "</usbconfig><x/>",
            {{"1:1 not-read", "\"a\""},
             {"1:1 no-keyboard", ""},
             {"2:19 no-effect", "vendor 10 in line 2"},
             {"2:38 leading-zero", ""},
             {"3:1 half-modem", ""},
             {"4:19 duplicate", "line 2"},
             {"5:13 not-read", "<x>"}});
}

TEST(Advice, OnARejectedFileIsAboutAllOfIts) {
    expectAdvice(
            {{"<class>x</class>\n<class>USB_CLASS_HID</class>\n<vid vendorid=\"0x5\"/>\n"
              "<vid vendorid=\"70000\"/>",
              {{"3:1 bad-name", ""},
               {"4:1 restricted", ""},
               {"5:1 bad-number", ""},
               {"6:1 never-matches", ""}}}});
}

TEST(Advice, OnAFileThatIsNoXmlSaysSo) {
    const struct {
        std::string document;
        std::string place;
        const char* text;
    } cases[] = {
            {"<usbconfig mode=\"whitelist\">", "1:1 bad-xml", "this is no well-formed XML: each"},
            {"<usbconfig mode=\"whitelist\">\n <vid>\n</usbconfig>", "2:2 bad-xml", "well-formed"},
            {"", "1:1 bad-xml", "the file is empty: write <usbconfig mode=\"default\">"},
            {std::string("\xff\xfe<\0a\0/\0>\0", 10), "1:3 bad-xml", "UTF-16: save it as UTF-8"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.document);
        const auto advice = adviceOnText(each.document);
        ASSERT_THAT(placesOf(advice), ElementsAre(each.place));
        EXPECT_THAT(advice[0].text, HasSubstr(each.text));
    }
}

TEST(Advice, OnACommentThatTakesNothingBackSaysSo) {
    const struct {
        const char* comment;
        const char* text;
    } cases[] = {
            {"kusctl: meant no-keybord", "there is no advice \"no-keybord\""},
            {"kusctl: ment no-keyboard", "this comment is not understood"},
            {"kusctl: meant", "this comment is not understood"},
            {"kusctl:", "this comment is not understood"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.comment);
        const auto advice = adviceOnText(whitelistOf("<!-- " + std::string(each.comment) + " -->"));
        ASSERT_THAT(placesOf(advice), ElementsAre("3:1 bad-meant"));
        EXPECT_THAT(advice[0].text, HasSubstr(each.text));
    }
    EXPECT_THAT(placesIn(whitelistOf("<!-- about kusctl: meant nothing -->")), IsEmpty());
}

TEST(Advice, TellsOfKeyboardsThatABlacklistLetsThrough) {
    const std::string keyboard = "<class>AINPUT_SOURCE_KEYBOARD</class>";
    const std::string dpad = "<class>AINPUT_SOURCE_DPAD</class>";
    const auto listed = [](const std::string& rules) {
        return "<usbconfig mode=\"blacklist\">" + rules + "</usbconfig>";
    };
    EXPECT_THAT(placesIn(listed(keyboard)), ElementsAre("1:29 half-keyboard"));
    EXPECT_THAT(placesIn(listed(keyboard + dpad)), IsEmpty());
    EXPECT_THAT(placesIn(listed(dpad)), IsEmpty());
    EXPECT_THAT(placesIn(whitelistOf("")), IsEmpty());
}

TEST(Advice, KnowsWhatPeopleCallAClass) {
    const std::pair<std::string, std::string> names[] = {
            {"USB_CLASS_SMART_CARD", "USB_CLASS_CSCID"},
            {"smartcard", "USB_CLASS_CSCID"},
            {"USB_CLASS_NETWORK", "USB_CLASS_COMM and USB_CLASS_CDC_DATA"},
            {"USB_CLASS_CDC", "USB_CLASS_COMM and USB_CLASS_CDC_DATA"},
            {"AINPUT_SOURCE_TOUCH", "AINPUT_SOURCE_TOUCHSCREEN or AINPUT_SOURCE_TOUCHPAD"},
            {"USB_CLASS_KEYBOARD", "AINPUT_SOURCE_KEYBOARD"},
            {"Disk", "USB_CLASS_MASS_STORAGE"},
    };
    for (const auto& [written, right] : names) {
        SCOPED_TRACE(written);
        const auto advice = adviceOnText(whitelistOf("<class>" + written + "</class>"));
        ASSERT_THAT(placesOf(advice), ElementsAre("3:1 bad-name"));
        EXPECT_EQ(base::StringPrintf("there is no class \"%s\": write %s", written.c_str(),
                                     right.c_str()),
                  advice[0].text);
    }
}

TEST(Advice, TellsOfAnAttributeInOtherLetters) {
    const auto advice = adviceOnText(whitelistOf("<vid vendorId=\"5\"/>"));
    ASSERT_THAT(placesOf(advice), ElementsAre("3:1 bad-number", "3:1 not-read"));
    EXPECT_EQ("attribute \"vendorId\" is not read: write vendorid", advice[1].text);
}

TEST(Advice, OnEachFileOfTheTableStandsInItAndHasAnId) {
    std::set<std::string> ids;
    for (const AdviceId& each : adviceIds()) ids.insert(each.id);
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        const auto lines = std::count(file.document.begin(), file.document.end(), '\n') + 1;
        for (const Advice& advice : adviceOnText(file.document)) {
            SCOPED_TRACE(file.name + ": " + placeOf(advice));
            EXPECT_EQ(1u, ids.count(advice.id));
            EXPECT_NE("", advice.text);
            EXPECT_GE(advice.position.line, 1);
            EXPECT_LE(advice.position.line, lines);
            EXPECT_GE(advice.position.column, 1);
        }
    }
}

TEST(Advice, OnAFileThatTheDaemonRejectsSaysWhatWouldBeRight) {
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        const auto policy = Policy::parse(file.name, file.document);
        if (policy->accepted() || policy->document().Error()) continue;
        const std::vector<Advice> advice = adviceOn(*policy);
        EXPECT_TRUE(std::any_of(
                advice.begin(), advice.end(),
                [&](const Advice& each) { return each.position == policy->errorPosition(); }))
                << "line " << file.line << ", " << file.name << ": " << file.document;
    }
}

TEST(Advice, OnTheExamplesIsNone) {
    for (const char* name : {"desk_dock.xml", "kiosk.xml", "warehouse_scanner.xml"}) {
        EXPECT_THAT(placesIn(test::ReadPolicyExample(name)), IsEmpty()) << name;
    }
}

// --- What is meant -------------------------------------------------------------------------------

TEST(Advice, IsTakenBackWhereItIsMeant) {
    const std::string rules =
            "<class>USB_CLASS_COMM</class>\n<vid vendorid=\"5\"/>\n<vid vendorid=\"5\"/>";
    const auto with = [&](const std::string& comment) {
        return placesIn("<usbconfig mode=\"whitelist\">\n" + rules + comment + "\n</usbconfig>");
    };
    ASSERT_THAT(with(""), ElementsAre("1:1 no-keyboard", "2:1 half-modem", "4:1 duplicate"));

    EXPECT_THAT(with("<!-- kusctl: meant duplicate -->"),
                ElementsAre("1:1 no-keyboard", "2:1 half-modem"));
    EXPECT_THAT(with("<!-- kusctl: meant duplicate no-keyboard -->"),
                ElementsAre("2:1 half-modem"));
    EXPECT_THAT(with("<!--kusctl: meant half-modem,duplicate, no-keyboard\n-->"), IsEmpty());
    EXPECT_THAT(with("<!-- kusctl: meant duplicate --><!-- kusctl: meant half-modem -->"),
                ElementsAre("1:1 no-keyboard"));
    for (const std::string other :
         {"<!-- kusctl: duplicate -->", "<!-- x kusctl: meant duplicate -->",
          "<!-- kusctl: meant dup -->", "<!-- kusctl: meant -->", "kusctl: meant duplicate",
          "<!-- kusctl: meant DUPLICATE -->"}) {
        const auto places = with(other);
        EXPECT_EQ(1, std::count(places.begin(), places.end(), "4:1 duplicate")) << other;
    }
}

TEST(Advice, IsTakenBackFromAnywhereInTheFile) {
    const std::string meant = "<!-- kusctl: meant no-keyboard -->";
    const std::string rule = "<class>USB_CLASS_AUDIO</class>";
    const std::string begin = "<usbconfig mode=\"whitelist\">";
    EXPECT_THAT(placesIn(meant + begin + rule + "</usbconfig>"), IsEmpty());
    EXPECT_THAT(placesIn(begin + rule + "</usbconfig>" + meant), IsEmpty());
    EXPECT_THAT(placesIn(begin + "<class>" + meant + "USB_CLASS_AUDIO</class></usbconfig>"),
                IsEmpty());
}

TEST(Advice, OnWhatTheDaemonRejectsIsNotTakenBack) {
    const std::string meant =
            "<!-- kusctl: meant bad-mode bad-name bad-number crash restricted -->";
    const std::string rejected[] = {
            whitelistOf("<class>x</class>"),
            whitelistOf("<class>USB_CLASS_HID</class>"),
            whitelistOf("<vid vendorid=\"x\"/>"),
            whitelistOf("<vid vendorid=\"2147483648\"/>"),
            "<usbconfig mode=\"x\"/>",
            "<x/>",
    };
    for (const std::string& document : rejected) {
        EXPECT_THAT(placesIn(document + meant), SizeIs(1)) << document;
    }
    EXPECT_THAT(placesIn(meant), ElementsAre("1:1 crash"));
}

// --- Large files ---------------------------------------------------------------------------------

TEST(Advice, OnAHundredThousandRulesTakesSeconds) {
    // The daemon's code tells of each rule.
    base::SetLogger([](base::LogId, base::LogSeverity, const char*, const char*, unsigned int,
                       const char*) {});
    std::string vendors;
    for (int i = 0; i < 50000; ++i) {
        vendors += base::StringPrintf("<vid vendorid=\"%d\"><pid>%d</pid></vid>\n", i, i);
    }
    std::string misspelt;
    for (int i = 0; i < 5000; ++i) misspelt += "<class>USB_CLASS_PHYSICAL</class>\n";
    const std::vector<std::pair<std::string, size_t>> documents = {
            {whitelistOf(vendors + vendors), 50000},
            {whitelistOf(vendors + "<vid vendorid=\"65535\"/>"), 50000},
            // Each is compared with all names.
            {whitelistOf(misspelt), 5000},
    };
    // Of this process alone, however busy the machine is.
    const std::clock_t start = std::clock();

    for (const auto& [document, advice] : documents) {
        EXPECT_EQ(advice, adviceOnText(document).size());
    }

    EXPECT_LT((std::clock() - start) / CLOCKS_PER_SEC, 60);
}

}  // namespace
}  // namespace android::kus::tools
