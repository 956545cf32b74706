// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace android::kus::tools {

/**
 * Returns |text| as a JSON string, quotes included: quotes, backslashes and control characters
 * are escaped, invalid UTF-8 is replaced (toValidUtf8). The result never holds a line end.
 */
std::string jsonQuote(std::string_view text);

/**
 * One JSON object on one line, members in the order in which they were added. Names are not
 * checked for repeats. The value's kind is in the method's name because a literal passed to
 * overloads would pick bool.
 */
class JsonObject {
  public:
    JsonObject& addText(std::string_view name, std::string_view value);
    JsonObject& addNumber(std::string_view name, int64_t value);
    JsonObject& addNumbers(std::string_view name, const std::vector<int32_t>& values);
    JsonObject& addFlag(std::string_view name, bool value);
    JsonObject& addTexts(std::string_view name, const std::vector<std::string>& values);
    JsonObject& addObjects(std::string_view name, const std::vector<JsonObject>& values);

    /** The object so far, without a line end. */
    std::string str() const;

  private:
    JsonObject& addRaw(std::string_view name, std::string_view value);

    std::string members_;
};

}  // namespace android::kus::tools
