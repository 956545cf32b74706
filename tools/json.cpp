// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/json.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "tools/utf8.h"

namespace android::kus::tools {
namespace {

std::string escaped(char c) {
    switch (c) {
        case '"':
            return "\\\"";
        case '\\':
            return "\\\\";
        case '\n':
            return "\\n";
        case '\t':
            return "\\t";
        default:
            break;
    }
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return android::base::StringPrintf("\\u%04x", byte);
    return {c};
}

// The values, each as |text| writes it.
template <typename Value, typename Text>
std::string array(const std::vector<Value>& values, Text text) {
    std::vector<std::string> texts;
    texts.reserve(values.size());
    for (const Value& value : values) texts.push_back(text(value));
    return "[" + android::base::Join(texts, ",") + "]";
}

}  // namespace

std::string jsonQuote(std::string_view text) {
    const std::string valid = toValidUtf8(text);
    std::string quoted = "\"";
    for (size_t i = 0; i < valid.size(); i++) {
        // U+0080 to U+009F: controls as well, and two bytes each.
        const auto second = static_cast<unsigned char>(i + 1 < valid.size() ? valid[i + 1] : 0);
        if (valid[i] == '\xc2' && second < 0xa0) {
            quoted += android::base::StringPrintf("\\u%04x", second);
            i++;
        } else {
            quoted += escaped(valid[i]);
        }
    }
    return quoted + '"';
}

JsonObject& JsonObject::addText(std::string_view name, std::string_view value) {
    return addRaw(name, jsonQuote(value));
}

JsonObject& JsonObject::addNumber(std::string_view name, int64_t value) {
    return addRaw(name, std::to_string(value));
}

JsonObject& JsonObject::addNumbers(std::string_view name, const std::vector<int32_t>& values) {
    return addRaw(name, "[" + android::base::Join(values, ",") + "]");
}

JsonObject& JsonObject::addFlag(std::string_view name, bool value) {
    return addRaw(name, value ? "true" : "false");
}

JsonObject& JsonObject::addTexts(std::string_view name, const std::vector<std::string>& values) {
    return addRaw(name, array(values, jsonQuote));
}

JsonObject& JsonObject::addObjects(std::string_view name, const std::vector<JsonObject>& values) {
    return addRaw(name, array(values, [](const JsonObject& value) { return value.str(); }));
}

std::string JsonObject::str() const {
    return "{" + members_ + "}";
}

JsonObject& JsonObject::addRaw(std::string_view name, std::string_view value) {
    if (!members_.empty()) members_ += ',';
    members_ += jsonQuote(name);
    members_ += ':';
    members_ += value;
    return *this;
}

}  // namespace android::kus::tools
