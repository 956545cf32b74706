// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Util::createMapFromConfig(). The input is the configuration file, and what comes of it is
// compared with a second reading of the same file.
//
// Two files are meant to end the daemon. One has no element at all: it is told beforehand. One has
// a rule with a number beyond 32 bits: its exception must come then, and never otherwise.

#include <inttypes.h>
#include <stdlib.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <tinyxml2.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "tests/fuzz/fuzz_support.h"

using android::kus::Util;
using android::kus::fuzz::ReadFile;
using android::kus::fuzz::TextOf;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace {

using Pairs = std::vector<std::pair<int32_t, int32_t>>;

constexpr char kEarlierError[] = "INVALID TAG:earlier";
constexpr char kEarlierStatus[] = "earlier status";
constexpr char kEarlierMode[] = "earlier";
constexpr size_t kLongestStatus = 1 << 14;

/** What a file comes to. */
struct Outcome {
    bool tooLarge = false;
    bool good = false;
    std::string mode = kEarlierMode;
    std::string error = kEarlierError;
    std::string status = kEarlierStatus;
    std::vector<int32_t> classes;
    std::map<int32_t, std::string> classTexts;
    Pairs products; /**< in file order */
};

// The digits' value when 32 bits hold it.
std::optional<int32_t> valueOf(std::string_view digits) {
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    if (digits.size() > 10) return std::nullopt;
    int64_t value = 0;
    for (const char digit : digits) value = value * 10 + (digit - '0');
    if (value > INT32_MAX) return std::nullopt;
    return static_cast<int32_t>(value);
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/** Reads a document that has a root. */
class Reader {
  public:
    explicit Reader(const XMLElement& root) {
        const bool whole = readRoot(root);
        if (outcome_.tooLarge) return;
        outcome_.good = whole;
        if (!whole) outcome_.status = outcome_.error;
    }

    const Outcome& outcome() const { return outcome_; }

  private:
    bool readRoot(const XMLElement& root) {
        if (std::string(root.Name()) != "usbconfig") {
            return fail(std::string("INVALID ROOT ELEMENT : ") + root.Name());
        }
        const char* mode = root.Attribute("mode");
        if (mode == nullptr) return fail("MODE NOT PRESENT");
        outcome_.mode = mode;
        if (outcome_.mode == "default") return true;
        if (outcome_.mode != "whitelist" && outcome_.mode != "blacklist") {
            return fail("INVALID MODE");
        }
        if (root.FirstChildElement() == nullptr) outcome_.status = kEarlierError;
        for (const auto* rule = root.FirstChildElement(); rule != nullptr;
             rule = rule->NextSiblingElement()) {
            if (!readRule(*rule)) return false;
        }
        return true;
    }

    bool readRule(const XMLElement& rule) {
        const std::string name = rule.Name();
        if (name == "class") return readClass(rule.GetText());
        if (name == "vid") return readVendor(rule);
        return fail("INVALID TAG:" + name);
    }

    bool readClass(const char* text) {
        if (text == nullptr) return fail("EMPTY CLASS VALUE");
        for (const auto& [name, code] : android::kus::usbClassTable) {
            if (std::string_view(name) != text) continue;
            constexpr int32_t kRestricted[] = {0, 3, 9, 239, 254, 255};
            if (std::find(std::begin(kRestricted), std::end(kRestricted), code) !=
                std::end(kRestricted)) {
                break;
            }
            outcome_.classes.push_back(code);
            outcome_.classTexts.emplace(code, text);
            return true;
        }
        return fail(std::string("INVALID CLASS VALUE:") + text);
    }

    bool readVendor(const XMLElement& rule) {
        const char* vendor = rule.Attribute("vendorid");
        if (vendor == nullptr) return fail("vendorid TAG NOT PRESENT");
        if (*vendor == '\0') return fail("EMPTY VENDOR ID VALUE");
        if (!isNumber(vendor)) return fail(std::string("INVALID VENDOR ID VALUE:") + vendor);
        const auto* product = rule.FirstChildElement("pid");
        if (product == nullptr) return add(valueOf(vendor), android::kus::ANY_PRODUCT_ID);
        for (; product != nullptr; product = product->NextSiblingElement()) {
            const char* text = product->GetText();
            if (text == nullptr) return fail("EMPTY PRODUCT ID VALUE");
            if (!isNumber(text)) return fail(std::string("INVALID PRODUCT ID VALUE:") + text);
            if (!add(valueOf(vendor), valueOf(text))) return false;
        }
        return true;
    }

    bool add(std::optional<int32_t> vendor, std::optional<int32_t> product) {
        outcome_.tooLarge = !vendor || !product;
        if (outcome_.tooLarge) return false;
        outcome_.products.emplace_back(*vendor, *product);
        return true;
    }

    bool fail(const std::string& error) {
        outcome_.error = error;
        return false;
    }

    Outcome outcome_;
};

// Nothing when the file has no element.
std::optional<Outcome> read(const std::string& content) {
    XMLDocument document(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.Parse(content.data(), content.size()) != tinyxml2::XML_SUCCESS) {
        Outcome outcome;
        outcome.status = document.ErrorStr();
        return outcome;
    }
    const XMLElement* root = document.FirstChildElement();
    if (root == nullptr) return std::nullopt;
    return Reader(*root).outcome();
}

// The rules of an earlier file, none of which may be left.
void setEarlierState() {
    android::kus::configMode = kEarlierMode;
    android::kus::configClassList = {1};
    android::kus::configClassMap = {{1, "earlier"}};
    android::kus::vidPidMap = {{1, 1}};
    android::kus::errorMessage = kEarlierError;
    android::kus::xml_parse_status = true;
    android::kus::fuzz::WriteFile(android::kus::statusFilePath, kEarlierStatus);
}

Pairs sortedByVendor(Pairs pairs) {
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    return pairs;
}

void checkState(const Outcome& expected) {
    CHECK_EQ(android::kus::xml_parse_status, expected.good);
    CHECK_EQ(android::kus::errorMessage, expected.error);
    CHECK_EQ(ReadFile(android::kus::statusFilePath, kLongestStatus), expected.status);
    CHECK_EQ(Util::getMode(), expected.mode);
    const auto& classes = android::kus::configClassList;
    CHECK(std::vector<int32_t>(classes.begin(), classes.end()) == expected.classes);
    CHECK(android::kus::configClassMap == expected.classTexts);
    const auto& products = android::kus::vidPidMap;
    CHECK(Pairs(products.begin(), products.end()) == sortedByVendor(expected.products));
}

bool hasClass(const Outcome& outcome, int32_t code) {
    return std::count(outcome.classes.begin(), outcome.classes.end(), code) > 0;
}

// A rule without products of this vendor or, when it has any rule, of a larger one.
bool hasVendor(const Outcome& outcome, int32_t vendor) {
    const auto isOwn = [=](const auto& rule) { return rule.first == vendor; };
    const auto isWhole = [=](const auto& rule) {
        return rule.first >= vendor && rule.second == -1;
    };
    return std::any_of(outcome.products.begin(), outcome.products.end(), isOwn) &&
           std::any_of(outcome.products.begin(), outcome.products.end(), isWhole);
}

void checkLookUps(const Outcome& expected) {
    for (const auto& row : android::kus::usbClassTable) {
        CHECK_EQ(Util::validateClass(row.code), hasClass(expected, row.code));
        CHECK_EQ(Util::getClassName(row.code), row.name);
    }
    CHECK(!Util::validateClass(4));
    for (const auto& [vendor, product] : expected.products) {
        for (const int32_t asked : {vendor - 1, vendor}) {
            CHECK_EQ(Util::validateVid(asked), hasVendor(expected, asked));
        }
        CHECK(Util::validateVidPid(vendor, product));
        const std::pair<int32_t, int32_t> other = {vendor, product ^ 1};
        CHECK_EQ(Util::validateVidPid(other.first, other.second),
                 std::count(expected.products.begin(), expected.products.end(), other) > 0);
    }
}

// False when the parse ended by the exception for a number beyond 32 bits.
bool parse() {
    try {
        Util::createMapFromConfig(android::kus::configFilePath);
        return true;
    } catch (const std::out_of_range&) {
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    android::kus::fuzz::MakeDirs(android::kus::configDirPath);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string content = TextOf(data, size);
    const std::optional<Outcome> expected = read(content);
    if (!expected) return 0;

    setEarlierState();
    android::kus::fuzz::WriteFile(android::kus::configFilePath, content);
    CHECK_EQ(parse(), !expected->tooLarge);
    if (expected->tooLarge) return 0;
    checkState(*expected);
    checkLookUps(*expected);
    return 0;
}
