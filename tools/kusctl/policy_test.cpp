// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/policy.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/policy_table.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::kus::tools {
namespace {

using test::PolicyFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using tinyxml2::XMLElement;

constexpr char kScratchFile[] = "/tmp/policy.xml";
constexpr char kConfigDir[] = "/data/system/usbdeviceconfig";
constexpr char kRules[] =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<usbconfig mode=\"whitelist\">\n"
        "  <class>USB_CLASS_AUDIO</class> <class>AINPUT_SOURCE_KEYBOARD</class>\n"
        "  <vid vendorid=\"1133\"/>\n"
        "  <vid vendorid=\"1267\">\n"
        "    <pid>4660</pid><name>7</name>  \n"
        "  </vid>\n"
        "  <vid vendorid='5'><note/><pid>6</pid></vid>\r\n"
        "  <class>USB_CLASS_AUDIO</class>\n"
        "</usbconfig>\n";

std::string textOf(const Position& position) {
    return std::to_string(position.line) + ":" + std::to_string(position.column);
}

std::unique_ptr<Policy> parse(const std::string& text) {
    return Policy::parse("policy.xml", text);
}

std::unique_ptr<Policy> loadFrom(const std::string& path) {
    auto policy = Policy::load(path);
    EXPECT_TRUE(policy.has_value()) << policy.error();
    return policy.has_value() ? std::move(*policy) : nullptr;
}

// --- What the daemon would say -------------------------------------------------------------------

std::string expectedStatus(const PolicyFile& file) {
    return file.signal() == 0 ? file.outcome : "Unable to apply the USB Admin config rules";
}

void expectAsTheTableTells(const PolicyFile& file, const Policy& policy) {
    EXPECT_EQ(file.accepted(), policy.accepted());
    EXPECT_EQ(file.signal(), policy.crashSignal());
    EXPECT_EQ(expectedStatus(file), policy.status());
    if (!file.position) return;
    EXPECT_EQ(textOf({file.position->line, file.position->column}), textOf(policy.errorPosition()));
}

TEST(Policy, IsWhatTheDaemonWouldSayOfEachFileOfTheTable) {
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        SCOPED_TRACE("line " + std::to_string(file.line) + ", " + file.name);
        test::WriteFile(kScratchFile, file.document);

        const std::unique_ptr<Policy> policy = loadFrom(kScratchFile);

        ASSERT_NE(nullptr, policy);
        expectAsTheTableTells(file, *policy);
        EXPECT_EQ(kScratchFile, policy->path());
    }
}

TEST(Policy, OfATextIsThatOfTheFile) {
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        SCOPED_TRACE("line " + std::to_string(file.line) + ", " + file.name);
        expectAsTheTableTells(file, *parse(file.document));
    }
    EXPECT_EQ("policy.xml", parse("")->path());
}

TEST(Policy, TellsTheModeAsFarAsTheFileDoes) {
    EXPECT_EQ("blacklist", parse("<usbconfig mode=\"blacklist\"/>")->mode());
    EXPECT_EQ("Whitelist", parse("<usbconfig mode=\"Whitelist\"/>")->mode());
    EXPECT_EQ("whitelist", parse("<usbconfig mode=\"whitelist\"><x/></usbconfig>")->mode());
    EXPECT_EQ(std::nullopt, parse("<usbconfig/>")->mode());
    EXPECT_EQ(std::nullopt, parse("<usbconfig mode=\"whitelist\">")->mode());
    EXPECT_EQ(std::nullopt, parse("<!-- nothing -->")->mode());
}

// --- What it leaves alone ------------------------------------------------------------------------

std::map<std::string, std::string> filesOfTheDaemon() {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(kConfigDir)) {
        files[entry.path().string()] = test::ReadFile(entry.path().string());
    }
    return files;
}

void writeFilesOfTheDaemon() {
    test::WriteFile(configFilePath, "the file");
    test::WriteFile(backupFilePath, "the backup");
    test::WriteFile(statusFilePath, "the status");
}

TEST(Policy, TouchesNoFileOfTheDaemon) {
    writeFilesOfTheDaemon();
    const auto before = filesOfTheDaemon();
    ASSERT_EQ(3u, before.size());

    for (const PolicyFile& file : test::ReadPolicyTable()) {
        parse(file.document);
        EXPECT_EQ(before, filesOfTheDaemon()) << file.name;
    }
}

TEST(Policy, MakesNoFileWhereTheDaemonHasNone) {
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        parse(file.document);
        EXPECT_FALSE(test::Exists(kConfigDir)) << file.name;
    }
}

TEST(Policy, IsInForceOnlyWhenItIsPutSo) {
    {
        const AutoMutex lock(rulesLock);
        configMode = "earlier";
    }
    const auto policy = parse(kRules);
    {
        const AutoMutex lock(rulesLock);
        EXPECT_EQ("earlier", Util::getMode());
        EXPECT_FALSE(Util::validateClass(1));
    }
    EXPECT_EQ("SUCCESS", errorMessage);
    EXPECT_FALSE(xml_parse_status);

    policy->putInForce();

    const AutoMutex lock(rulesLock);
    EXPECT_EQ("whitelist", Util::getMode());
    EXPECT_TRUE(Util::validateClass(1));
    EXPECT_TRUE(Util::validateVid(1133));
    EXPECT_TRUE(Util::validateVidPid(1267, 7));
}

TEST(Policy, OfAFileThatEndsTheDaemonIsHeardOfByNobody) {
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        if (file.signal() == 0) continue;
        SCOPED_TRACE(file.name);
        const test::ProcessResult result = test::RunInChild([&] { parse(file.document); });

        EXPECT_EQ(0, result.status);
        EXPECT_EQ("", result.out);
        EXPECT_EQ("", result.err);
    }
}

TEST(Policy, LeavesTheCrashHandlerOfItsOwnProcessAlone) {
    const auto handler = [](int) {};
    ASSERT_NE(SIG_ERR, signal(SIGABRT, handler));

    EXPECT_EQ(SIGABRT, parse("<usbconfig mode=\"whitelist\"><vid vendorid=\"2147483648\"/>"
                             "</usbconfig>")
                               ->crashSignal());

    EXPECT_EQ(handler, signal(SIGABRT, SIG_DFL));
}

// --- Its rules -----------------------------------------------------------------------------------

std::string textOf(const Policy& policy, const RuleAt& rule) {
    const std::string what =
            rule.code ? std::to_string(*rule.code)
                      : std::to_string(rule.ids.first) + ":" + std::to_string(rule.ids.second);
    return what + " at " + textOf(policy.positionOf(rule)) + " " + policy.textOf(rule);
}

std::vector<std::string> rulesOf(const Policy& policy) {
    std::vector<std::string> texts;
    for (const RuleAt& rule : policy.rules()) texts.push_back(textOf(policy, rule));
    return texts;
}

TEST(Policy, TellsEachRuleAndItsPlaceInFileOrder) {
    EXPECT_THAT(rulesOf(*parse(kRules)),
                ElementsAre("1 at 3:3 <class>USB_CLASS_AUDIO</class> "
                            "<class>AINPUT_SOURCE_KEYBOARD</class>",
                            "256 at 3:34 <class>AINPUT_SOURCE_KEYBOARD</class>",
                            "1133:-1 at 4:3 <vid vendorid=\"1133\"/>",
                            "1267:4660 at 6:5 <pid>4660</pid><name>7</name>",
                            "1267:7 at 6:20 <name>7</name>", "5:6 at 8:28 <pid>6</pid></vid>",
                            "1 at 9:3 <class>USB_CLASS_AUDIO</class>"));
}

TEST(Policy, TellsTheRulesInFrontOfAnError) {
    const std::string head = "<usbconfig mode=\"whitelist\">\n<class>USB_CLASS_AUDIO</class>\n";
    EXPECT_THAT(rulesOf(*parse(head + "<class>x</class>\n<vid vendorid=\"5\"/></usbconfig>")),
                ElementsAre("1 at 2:1 <class>USB_CLASS_AUDIO</class>"));
    EXPECT_THAT(rulesOf(*parse(head + "<vid vendorid=\"5\"><pid>6</pid><pid>x</pid><pid>7</pid>"
                                      "</vid></usbconfig>")),
                ElementsAre("1 at 2:1 <class>USB_CLASS_AUDIO</class>",
                            "5:6 at 3:19 <pid>6</pid><pid>x</pid><pid>7</pid></vid></usbconfig>"));
    EXPECT_THAT(rulesOf(*parse(head + "<vid vendorid=\"x\"/><vid vendorid=\"5\"/></usbconfig>")),
                ElementsAre("1 at 2:1 <class>USB_CLASS_AUDIO</class>"));
}

TEST(Policy, TellsNoRuleOfAFileThatEndsTheDaemonOrIsNotRead) {
    const std::string rule = "<class>USB_CLASS_AUDIO</class>";
    EXPECT_THAT(parse("<usbconfig mode=\"whitelist\">" + rule +
                      "<vid vendorid=\"2147483648\"/></usbconfig>")
                        ->rules(),
                IsEmpty());
    EXPECT_THAT(parse("<usbconfig mode=\"default\">" + rule + "</usbconfig>")->rules(), IsEmpty());
    EXPECT_THAT(parse("<usbconfig mode=\"whitelist\">" + rule)->rules(), IsEmpty());
    EXPECT_THAT(parse("<!-- " + rule + " -->")->rules(), IsEmpty());
}

// Of a rule that is what its element says.
void expectElement(const RuleAt& rule) {
    const XMLElement& element = *rule.element;
    if (rule.code) {
        EXPECT_STREQ("class", element.Name());
        EXPECT_EQ(static_cast<unsigned int>(*rule.code), Util::convert(element.GetText()));
        return;
    }
    const bool whole = rule.ids.second == ANY_PRODUCT_ID;
    const XMLElement& vid = whole ? element : *element.Parent()->ToElement();
    EXPECT_STREQ("vid", vid.Name());
    EXPECT_EQ(rule.ids.first, std::stoi(vid.Attribute("vendorid")));
    EXPECT_EQ(whole, vid.FirstChildElement("pid") == nullptr);
    if (!whole) EXPECT_EQ(rule.ids.second, std::stoi(element.GetText()));
}

TEST(Policy, NamesTheElementThatMakesEachRuleOfTheTable) {
    size_t rules = 0;
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        SCOPED_TRACE("line " + std::to_string(file.line) + ", " + file.name);
        const auto policy = parse(file.document);

        EXPECT_EQ(policy->config().classes.size() + policy->config().vendors.size(),
                  policy->rules().size());
        for (const RuleAt& rule : policy->rules()) expectElement(rule);
        rules += policy->rules().size();
    }
    EXPECT_GE(rules, 300u);
}

// --- Asking it -----------------------------------------------------------------------------------

std::string found(const Policy& policy, const RuleAt* rule) {
    return rule == nullptr ? "none" : textOf(policy.positionOf(*rule));
}

TEST(Policy, FindsTheFirstRuleOfAClass) {
    const auto policy = parse(kRules);

    EXPECT_EQ("3:3", found(*policy, policy->findClass(1)));
    EXPECT_EQ("3:34", found(*policy, policy->findClass(0x100)));
    EXPECT_EQ("none", found(*policy, policy->findClass(8)));
    EXPECT_EQ("none", found(*policy, policy->findClass(0)));
}

TEST(Policy, FindsTheFirstRuleOfExactlyAPair) {
    const auto policy =
            parse("<usbconfig mode=\"whitelist\">\n"
                  "<vid vendorid=\"5\"><pid>6</pid></vid>\n"
                  "<vid vendorid=\"5\"><pid>6</pid><pid>7</pid></vid>\n"
                  "<vid vendorid=\"5\"/>\n"
                  "</usbconfig>");

    EXPECT_EQ("2:19", found(*policy, policy->findProduct(5, 6)));
    EXPECT_EQ("3:31", found(*policy, policy->findProduct(5, 7)));
    EXPECT_EQ("none", found(*policy, policy->findProduct(5, 8)));
    EXPECT_EQ("none", found(*policy, policy->findProduct(6, 5)));
    EXPECT_TRUE(policy->hasVendor(5));
    EXPECT_FALSE(policy->hasVendor(4));
    EXPECT_FALSE(policy->hasVendor(6));
}

TEST(Policy, FindsTheVendorOnlyRuleThatReachesAVendor) {
    const auto policy =
            parse("<usbconfig mode=\"whitelist\">\n"
                  "<vid vendorid=\"300\"/>\n"
                  "<vid vendorid=\"100\"><pid>1</pid></vid>\n"
                  "<vid vendorid=\"200\"/>\n"
                  "<vid vendorid=\"200\"/>\n"
                  "<vid vendorid=\"250\"><pid>1</pid></vid>\n"
                  "<vid vendorid=\"400\"><pid>1</pid></vid>\n"
                  "</usbconfig>");
    const std::vector<std::pair<int32_t, std::string>> cases = {
            {100, "4:1"},  {200, "4:1"},  {250, "2:1"},  {300, "2:1"},
            {150, "none"}, {400, "none"}, {500, "none"}, {0, "none"},
    };
    for (const auto& [vendor, place] : cases) {
        EXPECT_EQ(place, found(*policy, policy->findVendorOnlyFrom(vendor))) << vendor;
    }
}

void expectSameAnswers(const Policy& policy) {
    const AutoMutex lock(rulesLock);
    for (const ClassName& row : usbClassTable) {
        EXPECT_EQ(Util::validateClass(row.code), policy.findClass(row.code) != nullptr) << row.name;
    }
    for (const RuleAt& rule : policy.rules()) {
        if (rule.code) continue;
        const auto [vendor, product] = rule.ids;
        EXPECT_TRUE(policy.hasVendor(vendor));
        for (const int32_t asked : {vendor - 1, vendor, vendor == INT32_MAX ? 0 : vendor + 1}) {
            EXPECT_EQ(Util::validateVid(asked), policy.findVendorOnlyFrom(asked) != nullptr);
            EXPECT_EQ(Util::validateVidPid(asked, product),
                      policy.findProduct(asked, product) != nullptr);
        }
        EXPECT_EQ(Util::validateVidPid(vendor, product ^ 1),
                  policy.findProduct(vendor, product ^ 1) != nullptr);
    }
}

TEST(Policy, AnswersAsTheRulesInForceDo) {
    for (const PolicyFile& file : test::ReadPolicyTable()) {
        SCOPED_TRACE("line " + std::to_string(file.line) + ", " + file.name);
        const auto policy = parse(file.document);
        policy->putInForce();
        expectSameAnswers(*policy);
    }
}

// --- Files ---------------------------------------------------------------------------------------

TEST(Policy, CannotBeReadFromWhatIsNotThereOrNoFile) {
    const auto missing = Policy::load("/tmp/missing.xml");
    ASSERT_FALSE(missing.has_value());
    EXPECT_EQ("/tmp/missing.xml cannot be read: No such file or directory", missing.error());

    const auto directory = Policy::load("/tmp");
    ASSERT_FALSE(directory.has_value());
    EXPECT_EQ("/tmp cannot be read: Is a directory", directory.error());
}

TEST(Policy, IsReadFromAPipe) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const base::unique_fd reader(ends[0]);
    base::unique_fd writer(ends[1]);
    ASSERT_TRUE(base::WriteStringToFd(kRules, writer));
    writer.reset();

    const auto policy = loadFrom("/proc/self/fd/" + std::to_string(reader.get()));

    ASSERT_NE(nullptr, policy);
    EXPECT_EQ(7u, policy->rules().size());
}

TEST(Policy, IsReadThroughALink) {
    test::WriteFile(kScratchFile, kRules);
    test::MakeLink("/tmp/link.xml", "policy.xml");

    EXPECT_TRUE(loadFrom("/tmp/link.xml")->accepted());
}

// --- Parts ---------------------------------------------------------------------------------------

TEST(IsTooLarge, IsWhatNo32BitsHold) {
    for (const char* text : {"2147483648", "4294967295", "99999999999999999999", "002147483648"}) {
        EXPECT_TRUE(isTooLarge(text)) << text;
    }
    for (const char* text : {"0", "65535", "65536", "2147483647", "0000000000000000000005", "",
                             "-2147483649", "2147483648x", " 2147483648", "0x80000000"}) {
        EXPECT_FALSE(isTooLarge(text)) << text;
    }
    EXPECT_FALSE(isTooLarge(nullptr));
}

TEST(ProductElements, AreAllFromTheFirstPidOn) {
    const auto names = [](const std::string& inside) {
        ConfigDocument document;
        document.Parse(("<vid>" + inside + "</vid>").c_str());
        std::string names;
        for (const XMLElement* element : productElements(*document.RootElement())) {
            names += std::string(element->Name()) + " ";
        }
        return names;
    };
    EXPECT_EQ("", names(""));
    EXPECT_EQ("", names("<a/><PID>5</PID>text"));
    EXPECT_EQ("pid ", names("<pid>5</pid>"));
    EXPECT_EQ("pid b pid c ", names("<a/><pid/><b/><!-- x --><pid/>text<c/>"));
    EXPECT_EQ("", names("<a><pid/></a>"));
}

}  // namespace
}  // namespace android::kus::tools
