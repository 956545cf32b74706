// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <android-base/expected.h>

namespace android::kus::tools {

/** A value, or a text that says what is wrong with the command line. */
template <typename T>
using Parsed = base::expected<T, std::string>;

inline base::unexpected<std::string> wrong(std::string text) {
    return base::unexpected<std::string>(std::move(text));
}

/**
 * A command line of "--name", "--name VALUE" or "--name=VALUE", and plain words, in any order. A
 * word behind "--" is plain whatever it looks like; so is one that begins with a single '-', a
 * negative number.
 */
class Options {
  public:
    /**
     * |flags| and |valued| name what is accepted, without the dashes. An error text says what is
     * wrong: an unknown option, a missing value, one option given twice.
     */
    static Parsed<Options> parse(const std::vector<std::string>& args,
                                 const std::set<std::string>& flags,
                                 const std::set<std::string>& valued);

    bool has(const std::string& name) const { return values_.count(name) != 0; }

    /** The value of |name|, or |fallback| if it was not given. */
    std::string text(const std::string& name, const std::string& fallback) const;

    /** The same as a number, decimal or with 0x; an error if it is none or below |min|. */
    Parsed<int32_t> number(const std::string& name, int32_t fallback,
                           int32_t min = std::numeric_limits<int32_t>::min()) const;

    /** The same as numbers separated by commas; an empty text is an empty list. */
    Parsed<std::vector<int32_t>> numbers(const std::string& name) const;

    const std::vector<std::string>& words() const { return words_; }

  private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> words_;
};

/** |text| as a number, decimal or with 0x. */
Parsed<int32_t> parseNumber(const std::string& text,
                            int32_t min = std::numeric_limits<int32_t>::min());

}  // namespace android::kus::tools
