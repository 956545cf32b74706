// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/input_sources.h"

#include <ostream>

#include <android/input.h>
#include <gtest/gtest.h>

namespace android::kus::tools {
namespace {

struct Hardware {
    const char* what;
    InputCapabilities capabilities;
    int32_t sources;
};

void PrintTo(const Hardware& hardware, std::ostream* out) {
    *out << hardware.what;
}

// As 64-bit kernels print them for devices of these kinds.
const Hardware kHardware[] = {
        {"PC keyboard",
         {"1000000000007 ff9f207ac14057ff febeffdfffefffff fffffffffffffffe", "", "", "0"},
         AINPUT_SOURCE_KEYBOARD},
        {"power button", {"10000000000000 0", "", "", "0"}, AINPUT_SOURCE_KEYBOARD},
        {"media keys of a wireless receiver, with an absolute volume",
         {"3f000303ff 0 0 483ffff17aff32d bfd4444600000000 1 130c730b17c000 267bfad9415fed "
          "9e168000004400 10000002",
          "1040", "100000000", "0"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_DPAD | AINPUT_SOURCE_GAMEPAD |
                 AINPUT_SOURCE_JOYSTICK},
        {"three-button mouse with a wheel", {"70000 0 0 0 0", "903", "", "0"}, AINPUT_SOURCE_MOUSE},
        {"trackball", {"1f0000 0 0 0 0", "143", "", "0"}, AINPUT_SOURCE_MOUSE},
        {"pointing stick", {"70000 0 0 0 0", "3", "", "21"}, AINPUT_SOURCE_MOUSE},
        {"keyboard and mouse in one",
         {"1f0000 1000000000007 ff9f207ac14057ff febeffdfffefffff fffffffffffffffe", "143", "",
          "0"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_MOUSE},
        {"multi-touch screen",
         {"400 0 0 0 0 0", "", "3273800000000003", "2"},
         AINPUT_SOURCE_TOUCHSCREEN},
        {"single-touch screen", {"400 0 0 0 0 0", "", "1000003", "2"}, AINPUT_SOURCE_TOUCHSCREEN},
        {"pen display",
         {"1c03 0 0 0 0 0", "", "1000003", "2"},
         AINPUT_SOURCE_TOUCHSCREEN | AINPUT_SOURCE_STYLUS},
        {"pen tablet without a display",
         {"1c03 0 0 0 0 0", "", "1000003", "1"},
         AINPUT_SOURCE_MOUSE | AINPUT_SOURCE_STYLUS},
        {"pen tablet with buttons beside its surface",
         {"1c03 ff 0 0 0 0", "", "1000003", "1"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_GAMEPAD | AINPUT_SOURCE_MOUSE |
                 AINPUT_SOURCE_STYLUS},
        {"clickpad", {"e520 10000 0 0 0 0", "", "660800011000003", "5"}, AINPUT_SOURCE_MOUSE},
        {"touch surface without properties",
         {"400 0 0 0 0 0", "", "260800000000003", "0"},
         AINPUT_SOURCE_MOUSE},
        {"touch surface that also moves relatively",
         {"400 0 0 0 0 0", "3", "260800000000003", "0"},
         AINPUT_SOURCE_TOUCHPAD},
        {"pen that only tells its pressure",
         {"c00 0 0 0 0 0", "", "1000000", "0"},
         AINPUT_SOURCE_STYLUS},
        {"pen with a numbered button of its own",
         {"c00 1 0 0 0 0", "", "1000000", "0"},
         AINPUT_SOURCE_STYLUS},
        {"pen with keys of its own", {"c00 0 0 0 1 0", "", "1000000", "0"}, AINPUT_SOURCE_STYLUS},
        {"gamepad with sticks",
         {"7cdb000000000000 0 0 0 0", "", "3003f", "0"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_GAMEPAD | AINPUT_SOURCE_JOYSTICK},
        {"gamepad whose axes reach into the multi-touch range",
         {"7cdb000000000000 0 0 0 0", "", "6000000000003f", "0"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_GAMEPAD | AINPUT_SOURCE_JOYSTICK},
        {"flight stick",
         {"fff00000000 0 0 0 0", "", "30063", "0"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_GAMEPAD | AINPUT_SOURCE_JOYSTICK},
        {"gamepad without axes",
         {"f000000000000 0 0 0 0", "", "", "0"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_GAMEPAD},
        {"knob with a button",
         {"1 0 0 0 0", "80", "", "0"},
         AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_GAMEPAD | AINPUT_SOURCE_ROTARY_ENCODER},
        {"dial alone", {"", "80", "", "0"}, AINPUT_SOURCE_ROTARY_ENCODER},
        {"keyboard with a volume wheel",
         {"1000000000007 ff9f207ac14057ff febeffdfffefffff fffffffffffffffe", "100", "", "0"},
         AINPUT_SOURCE_KEYBOARD},
        {"absolute pointer of a virtual machine",
         {"70000 0 0 0 0", "900", "3", "0"},
         AINPUT_SOURCE_UNKNOWN},
        {"motion sensor", {"", "", "3f", "40"}, AINPUT_SOURCE_UNKNOWN},
        {"headset with a plug switch only", {"", "", "", "0"}, AINPUT_SOURCE_UNKNOWN},
};

class RealHardware : public testing::TestWithParam<Hardware> {};

TEST_P(RealHardware, HasThePlatformsSources) {
    EXPECT_EQ(GetParam().sources, inputSources(GetParam().capabilities, 64))
            << GetParam().what << ": "
            << testing::PrintToString(inputSourceNames(inputSources(GetParam().capabilities, 64)));
}

INSTANTIATE_TEST_SUITE_P(InputSources, RealHardware, testing::ValuesIn(kHardware));

TEST(InputSources, WordsOf32BitsAreReadAsSuch) {
    // The multi-touch screen and the mouse above, as a 32-bit process reads them.
    EXPECT_EQ(AINPUT_SOURCE_TOUCHSCREEN,
              inputSources({"400 0 0 0 0 0 0 0 0 0 0", "", "32738000 3", "2"}, 32));
    EXPECT_EQ(AINPUT_SOURCE_MOUSE, inputSources({"70000 0 0 0 0 0 0 0 0", "903", "", "0"}, 32));
}

TEST(InputSources, DirectionsWithoutACentreAreNoDpad) {
    // KEY_UP, KEY_LEFT, KEY_RIGHT, KEY_DOWN.
    EXPECT_EQ(AINPUT_SOURCE_KEYBOARD, inputSources({"168000000000 0", "", "", ""}, 64));
}

TEST(InputSources, DirectionsWithEitherCentreKeyAreADpad) {
    constexpr int32_t kBoth = AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_DPAD;
    // KEY_OK is bit 352, KEY_SELECT bit 353.
    EXPECT_EQ(kBoth, inputSources({"100000000 0 0 0 168000000000 0", "", "", ""}, 64));
    EXPECT_EQ(kBoth, inputSources({"200000000 0 0 0 168000000000 0", "", "", ""}, 64));
}

TEST(InputSources, ButtonsOnlyOfAMouseAreNoKeyboard) {
    // BTN_MOUSE to BTN_TASK, but nothing to move a pointer with.
    EXPECT_EQ(AINPUT_SOURCE_UNKNOWN, inputSources({"ff0000 0 0 0 0", "", "", ""}, 64));
}

TEST(InputSources, BothEndsOfTheGamepadButtonsCount) {
    constexpr int32_t kGamepad = AINPUT_SOURCE_KEYBOARD | AINPUT_SOURCE_GAMEPAD;
    // BTN_JOYSTICK is bit 288, BTN_THUMBR bit 318; bit 319 has no name on the platform.
    EXPECT_EQ(kGamepad, inputSources({"100000000 0 0 0 0", "", "", ""}, 64));
    EXPECT_EQ(kGamepad, inputSources({"4000000000000000 0 0 0 0", "", "", ""}, 64));
    EXPECT_EQ(AINPUT_SOURCE_KEYBOARD, inputSources({"8000000000000000 0 0 0 0", "", "", ""}, 64));
    // BTN_DIGI, bit 320, is a pen's.
    EXPECT_EQ(AINPUT_SOURCE_UNKNOWN, inputSources({"1 0 0 0 0 0", "", "", ""}, 64));
}

TEST(InputSources, TextsThatAreNoMasksGiveNothing) {
    EXPECT_EQ(AINPUT_SOURCE_UNKNOWN, inputSources({"", "", "", ""}));
    EXPECT_EQ(AINPUT_SOURCE_UNKNOWN, inputSources({"zz", "-", "?", "x y"}));
}

TEST(InputSourceNames, AreListedInTheOrderOfTheirBits) {
    using Names = std::vector<std::string>;
    EXPECT_EQ(Names(), inputSourceNames(0));
    EXPECT_EQ(Names({"keyboard", "gamepad", "joystick"}),
              inputSourceNames(AINPUT_SOURCE_JOYSTICK | AINPUT_SOURCE_KEYBOARD |
                               AINPUT_SOURCE_GAMEPAD));
    EXPECT_EQ(Names({"touch-navigation", "rotary-encoder"}), inputSourceNames(0x600000));
    // A class bit without its device bit names nothing.
    EXPECT_EQ(Names(), inputSourceNames(AINPUT_SOURCE_CLASS_BUTTON));
}

}  // namespace
}  // namespace android::kus::tools
