// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/options.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>

namespace android::kus::tools {

Parsed<Options> Options::parse(const std::vector<std::string>& args,
                               const std::set<std::string>& flags,
                               const std::set<std::string>& valued) {
    Options options;
    for (auto arg = args.begin(); arg != args.end(); ++arg) {
        if (*arg == "--") {
            options.words_.insert(options.words_.end(), arg + 1, args.end());
            break;
        }
        if (!base::StartsWith(*arg, "--")) {
            options.words_.push_back(*arg);
            continue;
        }
        const size_t equals = arg->find('=');
        const bool attached = equals != std::string::npos;
        const std::string option = arg->substr(0, equals);
        const std::string name = option.substr(2);
        if (options.has(name)) return wrong(option + " is given twice");
        if (flags.count(name) != 0) {
            if (attached) return wrong(option + " takes no value");
            options.values_[name] = "";
        } else if (valued.count(name) == 0) {
            return wrong("unknown option " + option);
        } else if (attached) {
            options.values_[name] = arg->substr(equals + 1);
        } else if (arg + 1 == args.end()) {
            return wrong(option + " needs a value");
        } else {
            options.values_[name] = *++arg;
        }
    }
    return options;
}

std::string Options::text(const std::string& name, const std::string& fallback) const {
    const auto value = values_.find(name);
    return value == values_.end() ? fallback : value->second;
}

Parsed<int32_t> Options::number(const std::string& name, int32_t fallback, int32_t min) const {
    if (!has(name)) return fallback;
    Parsed<int32_t> value = parseNumber(values_.at(name), min);
    if (!value.has_value()) return wrong("--" + name + ": " + value.error());
    return value;
}

Parsed<std::vector<int32_t>> Options::numbers(const std::string& name) const {
    std::vector<int32_t> values;
    const std::string list = text(name, "");
    if (list.empty()) return values;
    for (const std::string& word : base::Split(list, ",")) {
        const Parsed<int32_t> value = parseNumber(word);
        if (!value.has_value()) return wrong("--" + name + ": " + value.error());
        values.push_back(*value);
    }
    return values;
}

Parsed<int32_t> parseNumber(const std::string& text, int32_t min) {
    int32_t value = 0;
    if (!base::ParseInt(text, &value, min)) {
        return wrong("'" + text + "' is out of range or no number");
    }
    return value;
}

}  // namespace android::kus::tools
