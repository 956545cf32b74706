// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace android::kus::tools {

/** What kusctl ends with; the manual says what each one means for a command. */
enum ExitStatus { kGood = 0, kNo = 1, kUsageError = 2, kNoService = 3, kUnreadable = 4 };

/** How a command speaks. */
struct Style {
    bool json = false;
    /** Never together with json. */
    bool colours = false;
};

/**
 * colours if standard output is a terminal that says in TERM what it is, and not "dumb", and
 * NO_COLOR is unset or empty.
 */
Style styleFor(bool json);

enum class Colour { kNone, kGood, kBad, kAdvice, kQuiet };

/** |text| in that colour if |style| has colours. */
std::string paint(const Style& style, Colour colour, std::string_view text);

/**
 * |text| as it may be shown on a terminal: valid UTF-8, each control character (C0, DEL, C1), each
 * line separator and each character that turns the direction of writing a U+FFFD. A device's name
 * is the device's to choose.
 */
std::string printable(std::string_view text);

/** The number of code points in valid UTF-8. */
size_t widthOf(std::string_view text);

/** |text| with blanks behind it up to |width| code points; a longer one as it is. */
std::string padded(std::string_view text, size_t width);

/** Says "kusctl: |text|" in one line on standard error, made printable, and returns |status|. */
ExitStatus complain(ExitStatus status, const std::string& text);

/** One cell of a table. */
struct Cell {
    // NOLINTNEXTLINE(google-explicit-constructor): a row is written as its texts.
    Cell(std::string text, Colour colour = Colour::kNone) : text(std::move(text)), colour(colour) {}
    // NOLINTNEXTLINE(google-explicit-constructor): the same.
    Cell(const char* text, Colour colour = Colour::kNone) : Cell(std::string(text), colour) {}

    std::string text;
    Colour colour;
};

/** Rows with aligned columns, two blanks between them; widths are counted in code points. */
class Table {
  public:
    explicit Table(std::vector<std::string> headings) : headings_(std::move(headings)) {}

    /**
     * As many cells as there are headings. A note is for what is too long for a column: it stands
     * indented in a line of its own below the row. Texts are made printable.
     */
    void add(std::vector<Cell> row, const std::string& note = "");
    bool empty() const { return rows_.empty(); }

    /** Headings and rows, each line ended by a line feed, no blanks before it. */
    std::string text(const Style& style) const;

  private:
    struct Row {
        std::vector<Cell> cells;
        std::string note;
    };

    std::vector<std::string> headings_;
    std::vector<Row> rows_;
};

/** "046d:c52b": as lsusb prints it. Ids that are no 16 bits wide are not cut. */
std::string hexIds(int32_t vendorId, int32_t productId);

/** "1133:50475": as the policy file takes them. */
std::string decimalIds(int32_t vendorId, int32_t productId);

/** "USB_CLASS_MASS_STORAGE"; "class 19" for a code without a name. */
std::string className(int32_t code);

/**
 * The names of what a device is judged by, each once: its interface classes, or the input sources
 * in |deviceClass| when there are none.
 */
std::vector<std::string> classNameList(int32_t deviceClass,
                                       const std::vector<int32_t>& interfaceClasses);

/** The same joined by ", "; "-" when there is nothing. */
std::string classNames(int32_t deviceClass, const std::vector<int32_t>& interfaceClasses);

}  // namespace android::kus::tools
