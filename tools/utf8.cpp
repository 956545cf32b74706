// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/utf8.h"

#include <cstddef>
#include <cstdint>

namespace android::kus::tools {
namespace {

constexpr std::string_view kReplacement = "\xef\xbf\xbd";

struct Form {
    unsigned char mask;
    unsigned char lead;
    size_t length;
    uint32_t smallest;
};

constexpr Form kForms[] = {
        {0x80, 0x00, 1, 0x0},
        {0xe0, 0xc0, 2, 0x80},
        {0xf0, 0xe0, 3, 0x800},
        {0xf8, 0xf0, 4, 0x10000},
};

bool isScalarValue(uint32_t codePoint) {
    return codePoint <= 0x10ffff && (codePoint < 0xd800 || codePoint > 0xdfff);
}

bool continues(std::string_view text, const Form& form) {
    if (text.size() < form.length) return false;
    uint32_t codePoint = static_cast<unsigned char>(text[0]) & ~form.mask & 0xffU;
    for (size_t i = 1; i < form.length; i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80) return false;
        codePoint = codePoint << 6 | (byte & 0x3fU);
    }
    return codePoint >= form.smallest && isScalarValue(codePoint);
}

// Length of the valid sequence that |text| starts with, 0 if it starts with none.
size_t sequenceLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    for (const Form& form : kForms) {
        if ((first & form.mask) == form.lead) return continues(text, form) ? form.length : 0;
    }
    return 0;
}

}  // namespace

std::string toValidUtf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        const size_t length = sequenceLength(text);
        valid += length == 0 ? kReplacement : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return valid;
}

}  // namespace android::kus::tools
