// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <string_view>

namespace android::kus::tools {

/**
 * Returns |text| with U+FFFD in place of every byte that belongs to no valid UTF-8 sequence
 * (overlong forms, surrogates and code points above U+10FFFF are not valid).
 *
 * Names come from devices and carry whatever bytes their makers liked. Binder turns texts into
 * UTF-16 and fails the whole call on bytes that it cannot turn; JSON allows nothing but UTF-8.
 */
std::string toValidUtf8(std::string_view text);

}  // namespace android::kus::tools
