// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <android/kus/DeviceInfo.h>

#include "tools/options.h"

namespace android::kus::tools {

extern const char kKusctlUsage[];

/** One command line of kusctl. Fields that the command does not use keep their defaults. */
struct Request {
    enum class Command {
        kHelp,
        kList,
        kWatch,
        kStatus,
        kDump,
        kReset,
        kCheck,
        kExplain,
        kGenerate,
        kDiff
    };
    enum class By { kClass, kVendor, kProduct };

    Command command = Command::kHelp;
    bool json = false;
    /** watch: 0 goes on until interrupted. */
    int32_t count = 0;
    /** dump */
    bool test = false;
    /** reset: 0 is a plain one. */
    int32_t undockMs = 0;
    /** check, explain, diff (the old one) */
    std::string file;
    /** diff */
    std::string newFile;
    /** check */
    bool strict = false;
    /** explain, diff: what is attached, instead of |device|. */
    bool present = false;
    /** explain: deviceType, ids, classes. The name is made of the ids or the sources. */
    DeviceInfo device;
    /** explain: the device, of HID interfaces alone, is one that no input driver takes. */
    bool vendorHid = false;
    /** generate */
    std::string mode = "whitelist";
    By by = By::kProduct;
};

/** Parses the words behind the program's name; an error says what is wrong and what would be right.
 */
Parsed<Request> parseRequest(const std::vector<std::string>& args);

}  // namespace android::kus::tools
