// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// What kusctl makes of a policy file, whatever is in it: the places of its elements, and with few
// of the inputs, for it costs a process, the rules and the advice. An input is a file.

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <tinyxml2.h>

#include "android/kus/util.h"
#include "tests/fuzz/fuzz_support.h"
#include "tools/kusctl/advice.h"
#include "tools/kusctl/policy.h"
#include "tools/kusctl/source_map.h"

using android::base::StartsWith;
using android::kus::ConfigDocument;
using android::kus::tools::Advice;
using android::kus::tools::AdviceId;
using android::kus::tools::Policy;
using android::kus::tools::Position;
using android::kus::tools::RuleAt;
using android::kus::tools::SourceMap;
using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

namespace {

// Of so many inputs one is made a policy.
constexpr size_t kSeldom = 64;

/** A file as its lines and columns count it. */
class Text {
  public:
    explicit Text(std::string content) : content_(std::move(content)) {
        if (StartsWith(content_, "\xef\xbb\xbf")) content_.erase(0, 3);
        lines_.push_back(0);
        for (size_t at = 0; at < content_.size(); ++at) {
            if (content_[at] == '\n') lines_.push_back(at + 1);
        }
    }

    bool has(const Position& position) const {
        return position.line >= 1 && position.column >= 1 &&
               static_cast<size_t>(position.line) <= lines_.size();
    }

    std::string_view from(const Position& position) const {
        CHECK(has(position)) << position.line << ":" << position.column;
        const size_t offset = lines_[position.line - 1] + position.column - 1;
        CHECK_LE(offset, content_.size());
        return std::string_view(content_).substr(offset);
    }

  private:
    std::string content_;
    std::vector<size_t> lines_;
};

void addElements(const XMLNode& parent, std::vector<const XMLElement*>* elements) {
    for (const XMLElement* child = parent.FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        elements->push_back(child);
        addElements(*child, elements);
    }
}

void checkStart(std::string_view tag, std::string_view name) {
    CHECK(!tag.empty() && tag[0] == '<');
    tag.remove_prefix(1);
    // An end tag that ends itself is an element, too.
    tag.remove_prefix(std::min(tag.find_first_not_of(" \t\r\n\v\f/"), tag.size()));
    CHECK(tag.substr(0, name.size()) == name) << tag << " is not " << name;
}

void checkPlaces(const Text& text, const SourceMap& map, const ConfigDocument& document) {
    std::vector<const XMLElement*> elements;
    addElements(document, &elements);
    Position last = {0, 0};
    for (const XMLElement* element : elements) {
        const Position position = map.of(*element);
        CHECK(last < position);
        checkStart(text.from(position), element->Name());
        last = position;
    }
}

void checkAdvice(const Text& text, const Policy& policy) {
    const std::vector<AdviceId>& ids = android::kus::tools::adviceIds();
    for (const Advice& advice : adviceOn(policy)) {
        CHECK(std::any_of(ids.begin(), ids.end(), [&](const AdviceId& each) {
            return advice.id == each.id;
        })) << advice.id;
        CHECK(!advice.text.empty());
        text.from(advice.position);
    }
}

void checkPolicy(const Text& text, const std::string& content) {
    const auto policy = Policy::parse("policy", content);
    CHECK_EQ(policy->accepted(), policy->status() == "SUCCESS");
    CHECK_EQ(policy->rules().size(),
             policy->config().classes.size() + policy->config().vendors.size());
    for (const RuleAt& rule : policy->rules()) CHECK(StartsWith(policy->textOf(rule), "<"));
    if (!policy->accepted()) text.from(policy->errorPosition());
    checkAdvice(text, *policy);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::kus::fuzz::SetUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string content = android::kus::fuzz::TextOf(data, size);
    const Text text(content);
    ConfigDocument document;
    document.Parse(content.data(), content.size());
    const SourceMap map(content, document);
    if (document.Error()) {
        text.from(map.firstOn(document.ErrorLineNum()));
    } else {
        checkPlaces(text, map, document);
    }
    if (std::hash<std::string>()(content) % kSeldom == 0) checkPolicy(text, content);
    return 0;
}
