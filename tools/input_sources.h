// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace android::kus::tools {

/**
 * Word length of the bit masks below. The kernel prints them in words of the reading process's
 * own long (as wide as its pointers), also for a 32-bit process on a 64-bit kernel.
 */
inline constexpr unsigned kCapabilityWordBits = sizeof(intptr_t) * CHAR_BIT;

/**
 * What the kernel says an input device can send: the texts of its sysfs attributes
 * capabilities/{key,rel,abs} and properties (hexadecimal words, the most significant first,
 * without leading zeros). An empty text stands for no bits.
 */
struct InputCapabilities {
    std::string key;
    std::string rel;
    std::string abs;
    std::string properties;
};

/**
 * The platform's source bits (AINPUT_SOURCE_*, class bits included) of a device with these
 * capabilities, 0 for a device that the platform has no use for. Words that are not hexadecimal
 * count as 0. Pure.
 *
 * The rules are the platform's for a device without a configuration file of its own:
 * - KEYBOARD for any key or button that is not a mouse's, a touch tool's or a stylus's;
 *   with it DPAD if all four directions and a centre key exist, GAMEPAD for any gamepad button.
 * - MOUSE for a left button with relative x and y (a trackball is one, too).
 * - TOUCHSCREEN for multi-touch positions, or a touch contact with absolute x and y, on a direct
 *   device; on an indirect one MOUSE (it moves a pointer) or, with relative axes, TOUCHPAD.
 *   With it STYLUS if the device knows pens.
 * - STYLUS alone for pressure or contact without a position; its buttons are no keyboard's.
 * - JOYSTICK for gamepad buttons with any absolute axis that is not a touch screen's.
 * One rule is added: ROTARY_ENCODER for a wheel or dial on a device that neither points nor
 * types, since off the platform there is no configuration file to say so.
 * Never reported: TRACKBALL and TOUCH_NAVIGATION, which only a configuration file can choose,
 * and MOUSE_RELATIVE, a mode that applications switch a mouse to.
 */
int32_t inputSources(const InputCapabilities& capabilities,
                     unsigned wordBits = kCapabilityWordBits);

/** Lower-case names of the sources in |sources|, in ascending order of their bits. */
std::vector<std::string> inputSourceNames(int32_t sources);

}  // namespace android::kus::tools
