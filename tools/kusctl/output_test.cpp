// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/output.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <utility>

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

const Style kPlain;
const Style kColoured = {false, true};

TEST(Printable, KeepsTextOfAllScripts) {
    for (const char* text : {"", "USB Receiver", "Gerät \"7\" ☃ 𝄞", "a~", "\xc2\xa0", "键盘"}) {
        EXPECT_EQ(text, printable(text));
    }
}

TEST(Printable, ReplacesWhatMovesOrSteersATerminal) {
    struct Case {
        std::string text;
        const char* shown;
    };
    const Case cases[] = {
            {"\033[2J\033[1;1Hallowed", "�[2J�[1;1Hallowed"},
            {"a\nb\tc\rd\be", "a�b�c�d�e"},
            {std::string("\0\x1f\x7f", 3), "���"},
            // C1: CSI as one character, and the ends of the range.
            {"\xc2\x9b"
             "31m\xc2\x80\xc2\x9f",
             "�31m��"},
            // Raw C1 bytes are no valid UTF-8 to begin with.
            {"\x9b"
             "31m\xff",
             "�31m�"},
    };
    for (const Case& each : cases) EXPECT_EQ(each.shown, printable(each.text));
}

TEST(Printable, ReplacesWhatBreaksLinesOrTurnsTheDirectionOfWriting) {
    struct Range {
        char first;
        char end;
    };
    // U+2028 to U+202E, U+200E and U+200F, U+2066 to U+2069: by the last byte, up to one behind.
    for (const auto& [lead, range] : {std::pair("\xe2\x80", Range{'\xa8', '\xaf'}),
                                      std::pair("\xe2\x80", Range{'\x8e', '\x90'}),
                                      std::pair("\xe2\x81", Range{'\xa6', '\xaa'})}) {
        for (char byte = range.first; byte != range.end; byte++) {
            EXPECT_EQ("a�b", printable(std::string("a") + lead + byte + "b"));
        }
        const std::string behind = std::string("a") + lead + range.end + "b";
        EXPECT_EQ(behind, printable(behind));
    }
}

TEST(Padded, CountsCharactersAndCutsNothing) {
    EXPECT_EQ("ab  ", padded("ab", 4));
    EXPECT_EQ("ä☃𝄞 ", padded("ä☃𝄞", 4));
    EXPECT_EQ("abcd", padded("abcd", 4));
    EXPECT_EQ("abcde", padded("abcde", 4));
}

TEST(Paint, ColoursOnlyWhereTheyAreWanted) {
    struct Case {
        Colour colour;
        const char* painted;
    };
    const Case cases[] = {{Colour::kNone, "text"},
                          {Colour::kGood, "\033[32mtext\033[0m"},
                          {Colour::kBad, "\033[31mtext\033[0m"},
                          {Colour::kAdvice, "\033[33mtext\033[0m"},
                          {Colour::kQuiet, "\033[2mtext\033[0m"}};
    for (const Case& each : cases) {
        EXPECT_EQ(each.painted, paint(kColoured, each.colour, "text"));
        EXPECT_EQ("text", paint(kPlain, each.colour, "text"));
        EXPECT_EQ("", paint(kColoured, each.colour, ""));
    }
}

// Standard output is what the test wants it to be, until the end of the scope.
class StandardOutput {
  public:
    explicit StandardOutput(int fd) : saved_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)) {
        std::cout.flush();
        EXPECT_NE(-1, dup2(fd, STDOUT_FILENO));
    }
    ~StandardOutput() { dup2(saved_.get(), STDOUT_FILENO); }
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

  private:
    const base::unique_fd saved_;
};

bool coloursOn(int fd, const char* terminal, const char* noColor) {
    if (terminal == nullptr) {
        unsetenv("TERM");
    } else {
        setenv("TERM", terminal, 1);
    }
    if (noColor == nullptr) {
        unsetenv("NO_COLOR");
    } else {
        setenv("NO_COLOR", noColor, 1);
    }
    const StandardOutput output(fd);
    EXPECT_FALSE(styleFor(true).colours);
    EXPECT_TRUE(styleFor(true).json);
    EXPECT_FALSE(styleFor(false).json);
    return styleFor(false).colours;
}

TEST(StyleFor, WantsColoursOnATerminalThatCanShowThem) {
    const base::unique_fd terminal(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_NE(-1, terminal.get());
    EXPECT_TRUE(coloursOn(terminal.get(), "xterm-256color", nullptr));
    EXPECT_TRUE(coloursOn(terminal.get(), "linux", ""));
    EXPECT_FALSE(coloursOn(terminal.get(), "linux", "1"));
    EXPECT_FALSE(coloursOn(terminal.get(), "dumb", nullptr));
    EXPECT_FALSE(coloursOn(terminal.get(), "", nullptr));
    EXPECT_FALSE(coloursOn(terminal.get(), nullptr, nullptr));
    const base::unique_fd file(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(coloursOn(file.get(), "xterm-256color", nullptr));
}

TEST(Complain, IsOneLineForPeopleAndHandsBackTheStatus) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(kUnreadable, complain(kUnreadable, "policy\033[2J\n.xml: cannot be read"));
    EXPECT_EQ("kusctl: policy�[2J�.xml: cannot be read\n", testing::internal::GetCapturedStderr());
}

TEST(Table, AlignsItsColumnsByCharacters) {
    Table table({"ID", "NAME", "X"});
    EXPECT_TRUE(table.empty());
    table.add({"1", "Gerät", "a"});
    table.add({"1002", "b", "cc"});
    EXPECT_FALSE(table.empty());
    EXPECT_EQ(
            "ID    NAME   X\n"
            "1     Gerät  a\n"
            "1002  b      cc\n",
            table.text(kPlain));
}

TEST(Table, LeavesNoBlanksAtTheEndsOfLines) {
    Table table({"A", "B", "C"});
    table.add({"1", "", ""});
    table.add({"", "22", ""});
    table.add({"333", "", "4"});
    EXPECT_EQ(
            "A    B   C\n"
            "1\n"
            "     22\n"
            "333      4\n",
            table.text(kPlain));
}

TEST(Table, PutsANoteBelowItsRow) {
    Table table({"A"});
    table.add({"1"}, "why\n1");
    table.add({"2"});
    EXPECT_EQ("A\n1\n    why�1\n2\n", table.text(kPlain));
}

TEST(Table, ColoursDoNotMoveItsColumns) {
    Table table({"VERDICT", "NAME"});
    table.add({{"ok", Colour::kGood}, "a"});
    EXPECT_EQ("VERDICT  NAME\n\033[32mok\033[0m       a\n", table.text(kColoured));
    EXPECT_EQ("VERDICT  NAME\nok       a\n", table.text(kPlain));
}

TEST(Table, WhatComesFromADeviceCannotSteerTheTerminal) {
    Table table({"NAME", "NEXT"});
    table.add({"\033[31mred\n", "x"});
    EXPECT_EQ("NAME       NEXT\n�[31mred�  x\n", table.text(kColoured));
}

TEST(Ids, AreShownInBothForms) {
    EXPECT_EQ("046d:c52b", hexIds(1133, 50475));
    EXPECT_EQ("1133:50475", decimalIds(1133, 50475));
    EXPECT_EQ("0000:0001", hexIds(0, 1));
    EXPECT_EQ("12345678:ffffffff", hexIds(0x12345678, -1));
    EXPECT_EQ("305419896:-1", decimalIds(0x12345678, -1));
}

TEST(ClassNames, AreThoseOfThePolicyFile) {
    EXPECT_EQ("USB_CLASS_MASS_STORAGE", className(8));
    EXPECT_EQ("USB_CLASS_PHYSICA", className(5));
    EXPECT_EQ("AINPUT_SOURCE_KEYBOARD", className(0x100));
    EXPECT_EQ("class 19", className(19));
    EXPECT_EQ("class -1", className(-1));
}

TEST(ClassNames, AreOfTheInterfacesOrOfTheInputSources) {
    EXPECT_EQ("USB_CLASS_MASS_STORAGE, USB_CLASS_HID, class 19",
              classNames(0x101, {8, 3, 8, 19, 3}));
    EXPECT_EQ("AINPUT_SOURCE_KEYBOARD", classNames(0x101, {}));
    EXPECT_EQ("AINPUT_SOURCE_KEYBOARD, AINPUT_SOURCE_MOUSE", classNames(0x2103, {}));
    EXPECT_EQ("-", classNames(8, {}));
    EXPECT_EQ("-", classNames(0, {}));
    EXPECT_EQ((std::vector<std::string>{"USB_CLASS_AUDIO", "USB_CLASS_VIDEO"}),
              classNameList(0, {1, 14, 1}));
    EXPECT_EQ(std::vector<std::string>(), classNameList(0, {}));
}

}  // namespace
}  // namespace android::kus::tools
