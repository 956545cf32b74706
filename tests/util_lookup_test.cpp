// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The look-ups against a plain walk over the rules, and what a look-up costs: no memory, and the
// same work however many rules there are.

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/dice.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"
#include "tests/support/tracer.h"

namespace android::kus::test {

namespace {

using android::base::ScopedLogSeverity;
using ::testing::IsEmpty;

using RuleList = std::vector<VendorRule>;
using RuleMap = std::multimap<int32_t, int32_t>;

constexpr int32_t kExtremes[] = {INT32_MIN, INT32_MIN + 1, -2, -1, 0, 1, INT32_MAX - 1, INT32_MAX};

// --- A plain walk over the rules -----------------------------------------------------------------

RuleMap mapOf(const RuleList& rules) {
    RuleMap map;
    for (const auto& [vendor, product] : rules) map.emplace(vendor, product);
    return map;
}

// From the vendor's first rule to the end of the table, larger vendors included.
bool walkForVid(const RuleMap& rules, int32_t vendor) {
    bool isReached = false;
    for (const auto& [ruleVendor, product] : rules) {
        isReached = isReached || ruleVendor == vendor;
        if (isReached && product == ANY_PRODUCT_ID) return true;
    }
    return false;
}

bool walkForVidPid(const RuleMap& rules, int32_t vendor, int32_t product) {
    for (const auto& [ruleVendor, ruleProduct] : rules) {
        if (ruleVendor == vendor && ruleProduct == product) return true;
    }
    return false;
}

bool walkForClass(const std::vector<int32_t>& codes, int32_t code) {
    return std::count(codes.begin(), codes.end(), code) > 0;
}

// --- Random tables -------------------------------------------------------------------------------

// One of few ids next to each other, with the ends of the range among them.
int32_t randomId(uint32_t count, Dice* dice) {
    if (dice->Percent(10)) return dice->OneOf(kExtremes);
    return static_cast<int32_t>(dice->Below(count)) - static_cast<int32_t>(count / 4);
}

// Few rules and many, of few vendors and many, with no, few and many rules without products.
RuleList randomRules(Dice* dice) {
    const uint32_t size = dice->Below(1U << dice->Below(10));
    const uint32_t vendors = 1 + dice->Below(1U << dice->Below(8));
    constexpr uint32_t kWithoutProducts[] = {0, 1, 30, 100};
    const uint32_t withoutProducts = dice->OneOf(kWithoutProducts);
    RuleList rules;
    for (uint32_t i = 0; i < size; ++i) {
        if (!rules.empty() && dice->Percent(10)) {
            rules.push_back(VendorRule(dice->OneOf(rules)));
            continue;
        }
        const int32_t product = dice->Percent(withoutProducts)
                                        ? ANY_PRODUCT_ID
                                        : randomId(1U << dice->Below(8), dice);
        rules.emplace_back(randomId(vendors, dice), product);
    }
    return rules;
}

// As a file can have them.
RuleList randomFileRules(Dice* dice) {
    RuleList rules = randomRules(dice);
    for (auto& [vendor, product] : rules) {
        vendor &= INT32_MAX;
        if (product != ANY_PRODUCT_ID) product &= INT32_MAX;
    }
    return rules;
}

int32_t nextTo(int32_t id, int32_t step) {
    return static_cast<int32_t>(static_cast<uint32_t>(id) + static_cast<uint32_t>(step));
}

// The vendors of the rules, their neighbours, and the ends of the range.
std::vector<int32_t> vendorsToAsk(const RuleList& rules) {
    std::vector<int32_t> vendors(std::begin(kExtremes), std::end(kExtremes));
    for (const auto& [vendor, product] : rules) {
        for (const int32_t step : {-1, 0, 1}) vendors.push_back(nextTo(vendor, step));
    }
    std::sort(vendors.begin(), vendors.end());
    vendors.erase(std::unique(vendors.begin(), vendors.end()), vendors.end());
    return vendors;
}

// Each rule, each rule's neighbours, and any vendor with product -1.
RuleList pairsToAsk(const RuleList& rules, Dice* dice) {
    RuleList pairs;
    for (const auto& [vendor, product] : rules) {
        for (const int32_t step : {-1, 0, 1}) {
            pairs.emplace_back(vendor, nextTo(product, step));
            pairs.emplace_back(nextTo(vendor, step), product);
        }
        pairs.emplace_back(vendor, dice->OneOf(rules).second);
    }
    for (const int32_t vendor : vendorsToAsk(rules)) pairs.emplace_back(vendor, ANY_PRODUCT_ID);
    for (const int32_t id : kExtremes) pairs.emplace_back(id, id);
    return pairs;
}

std::string logOfVid(int32_t vendor) {
    return "Found VID : " + std::to_string(vendor) +
           " without any pid associated inside admin config list.";
}

std::string logOfVidPid(int32_t vendor, int32_t product) {
    return "Found VID_PID : " + std::to_string(vendor) + "_" + std::to_string(product) +
           " combination inside admin config list";
}

// An answer with the lines logged for it.
std::string answer(bool found, const std::vector<LogLine>& lines) {
    std::string text = found ? "yes" : "no";
    for (const LogLine& line : lines) text += " / " + line.text;
    return text;
}

std::string expectedAnswer(bool found, const std::string& line) {
    return found ? "yes / " + line : "no";
}

// The rules in force answer as a walk over these does.
void expectAnswersOf(const RuleList& rules, Dice* dice) {
    const RuleMap map = mapOf(rules);
    ASSERT_EQ(RuleList(map.begin(), map.end()), RuleList(vidPidMap.begin(), vidPidMap.end()));
    ASSERT_EQ(map.size(), vidPidMap.size());
    ASSERT_EQ(map.empty(), vidPidMap.empty());
    LogCapture log;
    for (const int32_t vendor : vendorsToAsk(rules)) {
        const bool found = Util::validateVid(vendor);
        ASSERT_EQ(expectedAnswer(walkForVid(map, vendor), logOfVid(vendor)),
                  answer(found, log.Take()))
                << vendor;
    }
    for (const auto& [vendor, product] : pairsToAsk(rules, dice)) {
        const bool found = Util::validateVidPid(vendor, product);
        ASSERT_EQ(expectedAnswer(walkForVidPid(map, vendor, product), logOfVidPid(vendor, product)),
                  answer(found, log.Take()))
                << vendor << " " << product;
    }
}

std::string fileOf(const RuleList& rules, Dice* dice) {
    std::string file = "<usbconfig mode=\"blacklist\">\n";
    for (size_t i = 0; i < rules.size(); ++i) {
        const int32_t vendor = rules[i].first;
        file += "<vid vendorid=\"" + std::to_string(vendor) + "\">";
        if (rules[i].second != ANY_PRODUCT_ID) {
            file += "<pid>" + std::to_string(rules[i].second) + "</pid>";
            while (i + 1 < rules.size() && rules[i + 1].first == vendor &&
                   rules[i + 1].second != ANY_PRODUCT_ID && dice->Percent(70)) {
                file += "<pid>" + std::to_string(rules[++i].second) + "</pid>";
            }
        }
        file += "</vid>\n";
    }
    return file + "</usbconfig>\n";
}

void parse(const std::string& file) {
    WriteFile(configFilePath, file);
    const ScopedLogSeverity quiet(android::base::WARNING);
    Util::createMapFromConfig(configFilePath);
    ASSERT_TRUE(xml_parse_status) << errorMessage;
}

class LookupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ResetRules();
        ResetFiles();
    }

    void TearDown() override { ResetRules(); }
};

// --- Answers -------------------------------------------------------------------------------------

using RandomRules = LookupTest;

TEST_F(RandomRules, AnswerAsAPlainWalkOverThem) {
    for (uint32_t seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE(seed);
        Dice dice(seed);
        const RuleList rules = randomRules(&dice);
        vidPidMap = VendorRules(rules);
        expectAnswersOf(rules, &dice);
        if (HasFatalFailure()) return;
    }
}

TEST_F(RandomRules, OfAFileAnswerAsAPlainWalkOverThem) {
    for (uint32_t seed = 0; seed < 100; ++seed) {
        SCOPED_TRACE(seed);
        Dice dice(seed);
        const RuleList rules = randomFileRules(&dice);
        ASSERT_NO_FATAL_FAILURE(parse(fileOf(rules, &dice)));
        ASSERT_NO_FATAL_FAILURE(expectAnswersOf(rules, &dice));
    }
}

TEST_F(RandomRules, OfClassesAnswerAsAPlainWalkOverThem) {
    LogCapture log;
    for (uint32_t seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE(seed);
        Dice dice(seed);
        const uint32_t range = 1 + dice.Below(1U << dice.Below(10));
        std::vector<int32_t> codes(dice.Below(1U << dice.Below(9)));
        std::generate(codes.begin(), codes.end(), [&] { return randomId(range, &dice); });
        configClassList = {};
        for (const int32_t code : codes) configClassList.push_back(code);
        ASSERT_EQ(codes, std::vector<int32_t>(configClassList.begin(), configClassList.end()));
        ASSERT_EQ(codes.size(), configClassList.size());
        ASSERT_EQ(codes.empty(), configClassList.empty());

        std::vector<int32_t> asked(std::begin(kExtremes), std::end(kExtremes));
        for (const int32_t code : codes) {
            asked.insert(asked.end(), {nextTo(code, -1), code, nextTo(code, 1),
                                       static_cast<int32_t>(dice.Bits())});
        }
        for (const int32_t code : asked) {
            const auto unsignedCode = static_cast<unsigned int>(code);
            const bool found = Util::validateClass(unsignedCode);
            ASSERT_EQ(expectedAnswer(walkForClass(codes, code),
                                     "Found CLASS : " + std::to_string(unsignedCode) +
                                             " in admin config list"),
                      answer(found, log.Take()))
                    << code;
        }
    }
}

TEST_F(RandomRules, OfClassesInAFileKeepItsOrderAndItsRepeats) {
    std::vector<ClassName> names;
    for (const ClassName& row : usbClassTable) {
        if (!walkForClass(restrictedClasses, row.code)) names.push_back(row);
    }
    for (uint32_t seed = 0; seed < 50; ++seed) {
        SCOPED_TRACE(seed);
        Dice dice(seed);
        std::vector<int32_t> codes;
        std::string file = "<usbconfig mode=\"whitelist\">";
        for (uint32_t count = 1 + dice.Below(40); count > 0; --count) {
            const ClassName& row = dice.OneOf(names);
            codes.push_back(row.code);
            file += std::string("<class>") + row.name + "</class>";
        }
        ASSERT_NO_FATAL_FAILURE(parse(file + "</usbconfig>"));
        ASSERT_EQ(codes, std::vector<int32_t>(configClassList.begin(), configClassList.end()));
        for (const ClassName& row : usbClassTable) {
            ASSERT_EQ(walkForClass(codes, row.code), Util::validateClass(row.code)) << row.name;
        }
    }
}

// --- Tables --------------------------------------------------------------------------------------

using RuleTable = LookupTest;

TEST_F(RuleTable, OfVendorsKeepsTheOrderOfAMultimap) {
    const VendorRules rules = {{7, 3}, {-1, 5}, {7, 1}, {7, 3}, {-1, -1}, {0, 0}, {7, 2}};
    EXPECT_EQ((RuleList{{-1, 5}, {-1, -1}, {0, 0}, {7, 3}, {7, 1}, {7, 3}, {7, 2}}),
              RuleList(rules.begin(), rules.end()));
    EXPECT_EQ(7U, rules.size());
    EXPECT_FALSE(rules.empty());
    EXPECT_TRUE(VendorRules().empty());
    EXPECT_EQ(0U, VendorRules().size());
}

TEST_F(RuleTable, EqualsOnlyOneOfTheSameRulesInTheSameOrder) {
    EXPECT_TRUE((VendorRules{{1, 2}, {0, 3}}) == (VendorRules{{0, 3}, {1, 2}}));
    EXPECT_FALSE((VendorRules{{1, 2}, {1, 3}}) == (VendorRules{{1, 3}, {1, 2}}));
    EXPECT_FALSE((VendorRules{{1, 2}}) == (VendorRules{{1, 2}, {1, 2}}));
    EXPECT_TRUE((ClassRules{1, 2, 1}) == (ClassRules{1, 2, 1}));
    EXPECT_FALSE((ClassRules{1, 2, 1}) == (ClassRules{1, 1, 2}));
    EXPECT_FALSE((ClassRules{1, 2}) == (ClassRules{1, 2, 2}));
}

TEST_F(RuleTable, TakesItsAnswersAlongWhenItIsSwapped) {
    const RuleList rules = {{5, -1}, {3, 1}, {3, 2}};
    const RuleList others = {{7, 7}, {6, -1}, {2, 2}};
    Dice dice(0);
    VendorRules table(others);
    ClassRules classes = {1, 2};
    vidPidMap = VendorRules(rules);
    configClassList = {7, 8};

    std::swap(vidPidMap, table);
    std::swap(configClassList, classes);
    ASSERT_NO_FATAL_FAILURE(expectAnswersOf(others, &dice));
    EXPECT_TRUE(Util::validateClass(1));
    EXPECT_FALSE(Util::validateClass(8));

    vidPidMap = std::move(table);
    configClassList = std::move(classes);
    ASSERT_NO_FATAL_FAILURE(expectAnswersOf(rules, &dice));
    EXPECT_TRUE(Util::validateClass(8));
    EXPECT_FALSE(Util::validateClass(1));

    vidPidMap = {};
    configClassList = {};
    ASSERT_NO_FATAL_FAILURE(expectAnswersOf({}, &dice));
    EXPECT_FALSE(Util::validateVid(5));
    EXPECT_FALSE(Util::validateClass(8));
}

// --- What a look-up costs ------------------------------------------------------------------------

// Every question of a verdict, to be answered by yes and by no. Returns how many there were.
int askEverything() {
    int questions = 0;
    const auto count = [&](auto /*answer*/) { ++questions; };
    for (const int32_t id : {INT32_MIN, -1, 0, 1, 3, 8, 239, 500, 0x100, 0x301, 1000, INT32_MAX}) {
        count(Util::validateClass(id));
        count(Util::validateRestrictedClass(id));
        count(Util::validateVid(id));
        count(Util::validateVidPid(id, 5));
        count(Util::validateVidPid(id, ANY_PRODUCT_ID));
        count(Util::getClassName(id).size());
        for (const int32_t code : Util::checkMultiClass(id)) count(code);
    }
    count(Util::getMode().size());
    return questions;
}

// This many rules of vendors, the last one for all products of its own, and some of classes.
void setRules(int count) {
    RuleList rules;
    for (int i = 1; i < count; ++i) rules.emplace_back(i % 1000, 5 + i / 1000);
    rules.emplace_back(1000, ANY_PRODUCT_ID);
    vidPidMap = VendorRules(rules);
    configClassList = {8, 8, 1, 0x100, 0x200, 0x2000, 1000};
    configMode = "whitelist";
}

class LookupCost : public LookupTest {
  protected:
    void SetUp() override {
        LookupTest::SetUp();
        // What is built once for all look-ups.
        askEverything();
    }

    const ScopedLogSeverity quiet_{android::base::WARNING};
};

// What the next ones rely on. The compiler leaves out a block that nobody sees.
const volatile void* seen = nullptr;

TEST(BlocksTaken, CountEachWayToTakeMemory) {
    EXPECT_EQ(0U, BlocksTakenBy([] {}));
    EXPECT_EQ(1U, BlocksTakenBy([] { ::operator delete(::operator new(1)); }));
    EXPECT_EQ(1U, BlocksTakenBy([] { ::operator delete[](::operator new[](1)); }));
    EXPECT_EQ(1U, BlocksTakenBy([] { ::operator delete(::operator new(1, std::nothrow)); }));
    EXPECT_EQ(1U, BlocksTakenBy([] {
                  const std::vector<int> numbers = {1};
                  seen = numbers.data();
              }));
    // Taken by the library's own code.
    EXPECT_EQ(1U, BlocksTakenBy([] {
                  const std::string text(100, 'x');
                  seen = text.data();
              }));
    EXPECT_EQ(3U, BlocksTakenBy([] {
                  void* volatile block = malloc(1);
                  block = realloc(block, 1000);
                  free(block);
                  block = calloc(1, 1);
                  free(block);
              }));
}

TEST(BlocksTaken, CountTheBytesInUse) {
    const size_t before = BytesInUse();
    void* const block = ::operator new(4000);
    EXPECT_LE(before + 4000, BytesInUse());
    ::operator delete(block);
    EXPECT_EQ(before, BytesInUse());
}

TEST_F(LookupCost, IsNoMemory) {
    for (const int rules : {1, 10, 10000}) {
        setRules(rules);
        EXPECT_EQ(0U, BlocksTakenBy(askEverything)) << rules;
    }
    vidPidMap = {};
    configClassList = {};
    EXPECT_EQ(0U, BlocksTakenBy(askEverything)) << "no rules";
}

TEST_F(LookupCost, IsNoMessageWhenInfoIsOff) {
    setRules(10000);
    LogCapture log;
    EXPECT_LT(70, askEverything());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// The memory of a verdict with its record: the rules have no part in it.
TEST_F(LookupCost, OfAVerdictIsTheSameMemoryWhateverTheNumberOfRules) {
    constexpr int32_t kTouchscreen = 0x1002;
    const sp<KUsbService> service = new KUsbService();
    LogCapture log;
    // A vendor with a rule, and one without.
    for (const int32_t vendor : {3, 2000}) {
        DeviceInfo info;
        info.deviceName = "screen";
        info.deviceType = 1;
        info.deviceClass = kTouchscreen;
        info.vendorId = vendor;
        bool allowed = false;
        const auto decide = [&] { ASSERT_TRUE(service->isDeviceAllowed(info, &allowed).isOk()); };
        setRules(10);
        decide();
        const size_t blocks = BlocksTakenBy(decide);
        EXPECT_LT(0U, blocks);
        for (const int rules : {10, 1000, 100000}) {
            setRules(rules);
            EXPECT_EQ(blocks, BlocksTakenBy(decide)) << rules;
            EXPECT_EQ(vendor == 3, allowed);
        }
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

struct Question {
    const char* name;
    bool (*ask)();
    bool answer;
};

// No rule of this number but the last is found by the questions, so that a walk meets all of them.
const std::vector<Question>& questions() {
    static const auto* const questions = new std::vector<Question>{
            {"class", [] { return Util::validateClass(4); }, false},
            {"vendor in front", [] { return Util::validateVid(-1); }, false},
            {"vendor without rule for all", [] { return Util::validateVid(1); }, false},
            {"vendor behind", [] { return Util::validateVid(INT32_MAX); }, false},
            {"pair", [] { return Util::validateVidPid(1, 4); }, false},
            {"product -1", [] { return Util::validateVidPid(1, -1); }, false},
            {"vendor of the last pair", [] { return Util::validateVidPid(1000000, 7); }, true},
    };
    return *questions;
}

// The instructions that each question takes, by name.
std::map<std::string, uint64_t> workOfQuestions() {
    constexpr uint64_t kEndless = 200000;
    std::map<std::string, uint64_t> work;
    for (const Question& question : questions()) {
        EXPECT_EQ(question.answer, question.ask()) << question.name;
        work[question.name] = CountInstructions([&] { question.ask(); }, kEndless);
    }
    return work;
}

// This many rules for products, of one vendor or of as many, and for as many classes in a file that
// repeats them.
void setProductRules(int count, bool isOneVendor) {
    RuleList rules = {{1, 5}};
    for (int i = 2; i < count; ++i) rules.emplace_back(isOneVendor ? 1 : i, 4 + i);
    rules.emplace_back(1000000, 7);
    vidPidMap = VendorRules(rules);
    configClassList = {};
    for (int i = 0; i < count; ++i) configClassList.push_back(i % 2 == 0 ? 8 : 0x100);
}

// A search by halves takes five times as many steps for 100,000 as for 10, a walk ten thousand.
TEST_F(LookupCost, HardlyGrowsWithTheNumberOfRules) {
    for (const bool isOneVendor : {false, true}) {
        SCOPED_TRACE(isOneVendor ? "one vendor" : "many vendors");
        setProductRules(10, isOneVendor);
        const std::map<std::string, uint64_t> few = workOfQuestions();
        setProductRules(100000, isOneVendor);
        const std::map<std::string, uint64_t> many = workOfQuestions();
        for (const auto& [name, instructions] : many) {
            EXPECT_LE(instructions, 5 * few.at(name)) << name << ", of " << few.at(name);
        }
    }
}

}  // namespace

}  // namespace android::kus::test
