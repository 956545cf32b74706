// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/output.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "android/kus/util.h"
#include "tools/utf8.h"

namespace android::kus::tools {
namespace {

constexpr size_t kGap = 2;
constexpr size_t kNoteIndent = 4;
constexpr char kReset[] = "\033[0m";
constexpr std::string_view kReplacement = "\xef\xbf\xbd";

struct Range {
    uint32_t first;
    uint32_t last;
};

// C0, DEL and C1; line and paragraph separators with what turns the direction of writing.
constexpr Range kUnprintable[] = {{0x00, 0x1f},     {0x7f, 0x9f},     {0x61c, 0x61c},
                                  {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x2069}};

bool isUnprintable(uint32_t codePoint) {
    return std::any_of(std::begin(kUnprintable), std::end(kUnprintable), [=](const Range& range) {
        return range.first <= codePoint && codePoint <= range.last;
    });
}

bool continues(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

// Of valid UTF-8: the bytes of its first character.
std::string_view firstCharacter(std::string_view text) {
    size_t length = 1;
    while (length < text.size() && continues(text[length])) length++;
    return text.substr(0, length);
}

uint32_t codePointOf(std::string_view character) {
    const auto lead = static_cast<unsigned char>(character[0]);
    uint32_t codePoint = character.size() == 1 ? lead : lead & (0x7fU >> character.size());
    for (const char byte : character.substr(1)) {
        codePoint = codePoint << 6 | (static_cast<unsigned char>(byte) & 0x3fU);
    }
    return codePoint;
}

const char* codeOf(Colour colour) {
    switch (colour) {
        case Colour::kNone:
            return "";
        case Colour::kGood:
            return "\033[32m";
        case Colour::kBad:
            return "\033[31m";
        case Colour::kAdvice:
            return "\033[33m";
        case Colour::kQuiet:
            return "\033[2m";
    }
}

std::string environment(const char* name) {
    const char* value = getenv(name);
    return value == nullptr ? "" : value;
}

bool wantsColours() {
    const std::string terminal = environment("TERM");
    return isatty(STDOUT_FILENO) == 1 && environment("NO_COLOR").empty() && !terminal.empty() &&
           terminal != "dumb";
}

using Line = std::vector<Cell>;

std::vector<size_t> widthsOf(const std::vector<Line>& lines) {
    std::vector<size_t> widths(lines[0].size());
    for (const Line& line : lines) {
        for (size_t i = 0; i < line.size(); i++) {
            widths[i] = std::max(widths[i], widthOf(line[i].text));
        }
    }
    return widths;
}

// Blanks are written when something stands behind them.
std::string lineOf(const Style& style, const Line& line, const std::vector<size_t>& widths) {
    std::string text;
    size_t blanks = 0;
    for (size_t i = 0; i < line.size(); i++) {
        const Cell& cell = line[i];
        if (!cell.text.empty()) {
            text += std::string(blanks, ' ') + paint(style, cell.colour, cell.text);
            blanks = 0;
        }
        blanks += widths[i] - widthOf(cell.text) + kGap;
    }
    return text + "\n";
}

}  // namespace

Style styleFor(bool json) {
    return {json, !json && wantsColours()};
}

std::string paint(const Style& style, Colour colour, std::string_view text) {
    if (!style.colours || colour == Colour::kNone || text.empty()) return std::string(text);
    return codeOf(colour) + std::string(text) + kReset;
}

std::string printable(std::string_view text) {
    const std::string valid = toValidUtf8(text);
    std::string shown;
    for (std::string_view rest = valid; !rest.empty();) {
        const std::string_view character = firstCharacter(rest);
        shown += isUnprintable(codePointOf(character)) ? kReplacement : character;
        rest.remove_prefix(character.size());
    }
    return shown;
}

size_t widthOf(std::string_view text) {
    return std::count_if(text.begin(), text.end(), [](char byte) { return !continues(byte); });
}

std::string padded(std::string_view text, size_t width) {
    const size_t own = widthOf(text);
    return std::string(text) + std::string(own < width ? width - own : 0, ' ');
}

ExitStatus complain(ExitStatus status, const std::string& text) {
    std::cerr << "kusctl: " << printable(text) << "\n";
    return status;
}

void Table::add(std::vector<Cell> row, const std::string& note) {
    for (Cell& cell : row) cell.text = printable(cell.text);
    rows_.push_back({std::move(row), printable(note)});
}

std::string Table::text(const Style& style) const {
    std::vector<Line> lines = {Line(headings_.begin(), headings_.end())};
    for (const Row& row : rows_) lines.push_back(row.cells);
    const std::vector<size_t> widths = widthsOf(lines);

    std::string text = lineOf(style, lines[0], widths);
    for (const Row& row : rows_) {
        text += lineOf(style, row.cells, widths);
        if (!row.note.empty()) text += std::string(kNoteIndent, ' ') + row.note + "\n";
    }
    return text;
}

std::string hexIds(int32_t vendorId, int32_t productId) {
    return base::StringPrintf("%04x:%04x", static_cast<uint32_t>(vendorId),
                              static_cast<uint32_t>(productId));
}

std::string decimalIds(int32_t vendorId, int32_t productId) {
    return base::StringPrintf("%d:%d", vendorId, productId);
}

std::string className(int32_t code) {
    const auto* row = std::find_if(std::begin(usbClassTable), std::end(usbClassTable),
                                   [code](const ClassName& each) { return each.code == code; });
    return row == std::end(usbClassTable) ? "class " + std::to_string(code) : row->name;
}

std::vector<std::string> classNameList(int32_t deviceClass,
                                       const std::vector<int32_t>& interfaceClasses) {
    std::vector<int32_t> codes = interfaceClasses;
    if (codes.empty()) {
        for (const int32_t source : Util::checkMultiClass(deviceClass)) codes.push_back(source);
    }
    std::vector<std::string> names;
    for (const int32_t code : codes) {
        const std::string name = className(code);
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    return names;
}

std::string classNames(int32_t deviceClass, const std::vector<int32_t>& interfaceClasses) {
    const std::vector<std::string> names = classNameList(deviceClass, interfaceClasses);
    return names.empty() ? "-" : base::Join(names, ", ");
}

}  // namespace android::kus::tools
