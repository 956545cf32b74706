// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <android/kus/DeviceInfo.h>

#include "tools/options.h"

namespace android::kus::tools {

extern const char kClientUsage[];

/** One command line of kus-client. Fields that the command does not use keep their defaults. */
struct ClientRequest {
    enum class Command { kHelp, kPing, kList, kDecide, kRemove, kWatch, kReset, kDump };

    Command command = Command::kHelp;
    /** How long to wait for the service, all commands. */
    std::chrono::seconds wait{0};
    /** list */
    bool json = false;
    /** decide, remove */
    DeviceInfo device;
    /** remove */
    int32_t status = 0;
    /** watch */
    int32_t registrations = 1;
    int32_t count = 0;
    bool readsStdin = true;
    /** reset */
    int32_t delayMs = 0;
    /** dump */
    std::vector<std::string> dumpArgs;
};

/** Parses the words behind the program's name; an error says what is wrong with them. */
Parsed<ClientRequest> parseClientArgs(const std::vector<std::string>& args);

}  // namespace android::kus::tools
