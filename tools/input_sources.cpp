// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/input_sources.h"

#include <linux/input-event-codes.h>

#include <array>
#include <cstdlib>

#include <android-base/strings.h>
#include <android/input.h>

namespace android::kus::tools {
namespace {

class Bits {
  public:
    Bits(const std::string& text, unsigned wordBits) : wordBits_(wordBits) {
        if (text.empty()) return;
        const std::vector<std::string> texts = android::base::Split(text, " ");
        for (auto word = texts.rbegin(); word != texts.rend(); ++word) {
            words_.push_back(strtoull(word->c_str(), nullptr, 16));
        }
    }

    bool has(unsigned bit) const {
        const unsigned word = bit / wordBits_;
        return word < words_.size() && ((words_[word] >> (bit % wordBits_)) & 1) != 0;
    }

    // Any of the bits from |first| to just before |end|.
    bool hasWithin(unsigned first, unsigned end) const {
        for (unsigned bit = first; bit < end; bit++) {
            if (has(bit)) return true;
        }
        return false;
    }

  private:
    const unsigned wordBits_;
    std::vector<uint64_t> words_;
};

class Classifier {
  public:
    Classifier(const InputCapabilities& capabilities, unsigned wordBits)
        : key_(capabilities.key, wordBits),
          rel_(capabilities.rel, wordBits),
          abs_(capabilities.abs, wordBits),
          properties_(capabilities.properties, wordBits) {}

    int32_t sources() const {
        int32_t sources = 0;
        if (isKeyboard()) sources |= AINPUT_SOURCE_KEYBOARD;
        if (hasDpad()) sources |= AINPUT_SOURCE_DPAD;
        if (hasMappedGamepadButtons()) sources |= AINPUT_SOURCE_GAMEPAD;
        if (isMouse()) sources |= AINPUT_SOURCE_MOUSE;
        if (isTouch()) sources |= touchSources();
        if (isExternalStylus()) sources |= AINPUT_SOURCE_STYLUS;
        if (isJoystick()) sources |= AINPUT_SOURCE_JOYSTICK;
        if (isRotaryEncoder()) sources |= AINPUT_SOURCE_ROTARY_ENCODER;
        return sources;
    }

  private:
    bool hasKeyboardKeys() const {
        return key_.hasWithin(0, BTN_MISC) || key_.hasWithin(KEY_OK, KEY_CNT);
    }

    bool hasGamepadButtons() const {
        return key_.hasWithin(BTN_MISC, BTN_MOUSE) || key_.hasWithin(BTN_JOYSTICK, BTN_DIGI);
    }

    // The buttons of an external stylus belong to the touch screen that it is used on.
    bool isKeyboard() const {
        return (hasKeyboardKeys() || hasGamepadButtons()) && !isExternalStylus();
    }

    bool hasDpad() const {
        const bool arrows =
                key_.has(KEY_UP) && key_.has(KEY_DOWN) && key_.has(KEY_LEFT) && key_.has(KEY_RIGHT);
        const bool centre = key_.has(KEY_SELECT) || key_.has(KEY_OK);
        return isKeyboard() && arrows && centre;
    }

    // The platform's generic key layout gives names to these buttons, C and Z included.
    bool hasMappedGamepadButtons() const {
        return isKeyboard() && (key_.hasWithin(BTN_MISC, BTN_MOUSE) ||
                                key_.hasWithin(BTN_JOYSTICK, BTN_THUMBR + 1));
    }

    bool isMouse() const { return key_.has(BTN_MOUSE) && rel_.has(REL_X) && rel_.has(REL_Y); }

    // Some gamepads report axes in the multi-touch range; a contact button tells them apart.
    bool isMultiTouch() const {
        return abs_.has(ABS_MT_POSITION_X) && abs_.has(ABS_MT_POSITION_Y) &&
               (key_.has(BTN_TOUCH) || !hasGamepadButtons());
    }

    bool isSingleTouch() const { return key_.has(BTN_TOUCH) && abs_.has(ABS_X) && abs_.has(ABS_Y); }

    bool isTouch() const { return isMultiTouch() || isSingleTouch(); }

    bool isExternalStylus() const {
        const bool presses = abs_.has(ABS_PRESSURE) || key_.has(BTN_TOUCH);
        return presses && !abs_.has(ABS_X) && !abs_.has(ABS_Y) && !isMultiTouch();
    }

    bool hasPen() const { return key_.hasWithin(BTN_TOOL_PEN, BTN_TOOL_AIRBRUSH + 1); }

    int32_t touchSources() const {
        if (properties_.has(INPUT_PROP_DIRECT)) return withPen(AINPUT_SOURCE_TOUCHSCREEN);
        if (properties_.has(INPUT_PROP_POINTER)) return withPen(AINPUT_SOURCE_MOUSE);
        if (rel_.has(REL_X) || rel_.has(REL_Y)) return AINPUT_SOURCE_TOUCHPAD;
        return withPen(AINPUT_SOURCE_MOUSE);
    }

    int32_t withPen(int32_t source) const {
        return hasPen() ? source | AINPUT_SOURCE_STYLUS : source;
    }

    bool isJoystick() const {
        if (!hasGamepadButtons()) return false;
        for (unsigned axis = 0; axis < ABS_CNT; axis++) {
            if (abs_.has(axis) && !belongsToTouch(axis)) return true;
        }
        return false;
    }

    bool belongsToTouch(unsigned axis) const {
        if (isExternalStylus()) return axis == ABS_PRESSURE;
        if (!isTouch()) return false;
        switch (axis) {
            case ABS_X:
            case ABS_Y:
            case ABS_PRESSURE:
            case ABS_DISTANCE:
            case ABS_TILT_X:
            case ABS_TILT_Y:
            case ABS_TOOL_WIDTH:
                return true;
            default:
                return axis >= ABS_MT_SLOT && axis <= ABS_MT_TOOL_Y;
        }
    }

    bool isRotaryEncoder() const {
        const bool turns = rel_.has(REL_DIAL) || rel_.has(REL_WHEEL);
        const bool points = rel_.has(REL_X) || rel_.has(REL_Y) || abs_.has(ABS_X) ||
                            abs_.has(ABS_Y) || key_.has(BTN_MOUSE);
        return turns && !points && !hasKeyboardKeys();
    }

    const Bits key_;
    const Bits rel_;
    const Bits abs_;
    const Bits properties_;
};

struct NamedSource {
    int32_t bits;
    const char* name;
};

constexpr std::array<NamedSource, 12> kNamedSources = {{
        {AINPUT_SOURCE_KEYBOARD, "keyboard"},
        {AINPUT_SOURCE_DPAD, "dpad"},
        {AINPUT_SOURCE_GAMEPAD, "gamepad"},
        {AINPUT_SOURCE_TOUCHSCREEN, "touchscreen"},
        {AINPUT_SOURCE_MOUSE, "mouse"},
        {AINPUT_SOURCE_STYLUS, "stylus"},
        {AINPUT_SOURCE_TRACKBALL, "trackball"},
        {AINPUT_SOURCE_MOUSE_RELATIVE, "mouse-relative"},
        {AINPUT_SOURCE_TOUCHPAD, "touchpad"},
        {AINPUT_SOURCE_TOUCH_NAVIGATION, "touch-navigation"},
        {AINPUT_SOURCE_ROTARY_ENCODER, "rotary-encoder"},
        {AINPUT_SOURCE_JOYSTICK, "joystick"},
}};

}  // namespace

int32_t inputSources(const InputCapabilities& capabilities, unsigned wordBits) {
    return Classifier(capabilities, wordBits).sources();
}

std::vector<std::string> inputSourceNames(int32_t sources) {
    std::vector<std::string> names;
    for (const NamedSource& source : kNamedSources) {
        if ((sources & source.bits) == source.bits) names.emplace_back(source.name);
    }
    return names;
}

}  // namespace android::kus::tools
