// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "benchmarks/rule_file.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include <android-base/logging.h>

#include "android/kus/constants.h"

namespace android::kus::bench {

namespace {

constexpr int kPart = 10;
constexpr int32_t kFirstPairVendor = 0x4000;
constexpr int32_t kLastVendor = 0xFFFF;

using Random = std::mt19937;
using Pair = std::pair<int32_t, int32_t>;

int32_t between(int32_t first, int32_t last, Random* random) {
    return std::uniform_int_distribution<int32_t>(first, last)(*random);
}

bool isRestricted(int32_t code) {
    return std::count(restrictedClasses.begin(), restrictedClasses.end(), code) > 0;
}

std::string classElement(const std::string& name) {
    return "  <class>" + name + "</class>\n";
}

// Names that a rule may have, without the two sources that are kept apart.
std::vector<std::string> classNames() {
    std::vector<std::string> names;
    for (const ClassName& row : usbClassTable) {
        if (isRestricted(row.code) || row.code == RuleFile::kListedSource ||
            row.code == RuleFile::kUnlistedSource) {
            continue;
        }
        names.push_back(row.name);
    }
    return names;
}

std::string vendorElement(int32_t vendor) {
    return "  <vid vendorid=\"" + std::to_string(vendor) + "\"/>\n";
}

std::string productsElement(const std::vector<Pair>& pairs) {
    std::string text = "  <vid vendorid=\"" + std::to_string(pairs.front().first) + "\">\n";
    for (const Pair& pair : pairs) text += "    <pid>" + std::to_string(pair.second) + "</pid>\n";
    return text + "  </vid>\n";
}

}  // namespace

RuleFile::RuleFile(int rules, int productsPerElement) {
    CHECK_EQ(rules % kPart, 0);
    const int part = rules / kPart;
    CHECK_LT(part, kFirstPairVendor);
    const int elements = (rules - 2 * part) / productsPerElement;
    CHECK_EQ(elements * productsPerElement, rules - 2 * part);

    Random random(rules);
    std::vector<std::string> lines;
    for (int vendor = 1; vendor <= part; ++vendor) lines.push_back(vendorElement(vendor));
    vendor_ = (part + 1) / 2;

    const std::vector<std::string> names = classNames();
    for (int i = 0; i < part - 1; ++i) lines.push_back(classElement(names[i % names.size()]));

    std::vector<Pair> pairs;
    for (int i = 0; i < elements; ++i) {
        const int32_t vendor = between(kFirstPairVendor, kLastVendor, &random);
        std::vector<Pair> element;
        element.reserve(productsPerElement);
        for (int product = 0; product < productsPerElement; ++product) {
            element.emplace_back(vendor, between(0, kUnlistedProduct - 1, &random));
        }
        pairs.insert(pairs.end(), element.begin(), element.end());
        lines.push_back(productsElement(element));
    }
    std::sort(pairs.begin(), pairs.end());
    std::tie(pairVendor_, pairProduct_) = pairs[pairs.size() / 2];
    firstPairVendor_ = pairs.front().first;

    std::shuffle(lines.begin(), lines.end(), random);
    text_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<usbconfig mode=\"whitelist\">\n";
    for (const std::string& line : lines) text_ += line;
    text_ += classElement("AINPUT_SOURCE_KEYBOARD") + "</usbconfig>\n";
}

}  // namespace android::kus::bench
