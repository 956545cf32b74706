// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// kusctl: looks after kusd and its policy files by hand.

#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include <android-base/logging.h>

#include "tools/kusctl/live.h"
#include "tools/kusctl/output.h"
#include "tools/kusctl/policy_commands.h"
#include "tools/kusctl/request.h"

namespace android::kus::tools {
namespace {

// The daemon's code logs each of its steps.
void keepQuiet(base::LogId /*id*/, base::LogSeverity severity, const char* /*tag*/,
               const char* /*file*/, unsigned int /*line*/, const char* message) {
    if (severity < base::FATAL_WITHOUT_ABORT) return;
    complain(kUnreadable, message);
    // What it cannot do is its end, and no crash.
    if (severity == base::FATAL) _exit(kUnreadable);
}

ExitStatus run(const Request& request) {
    const Style style = styleFor(request.json);
    switch (request.command) {
        case Request::Command::kHelp:
            std::cout << kKusctlUsage;
            return kGood;
        case Request::Command::kList:
        case Request::Command::kWatch:
        case Request::Command::kStatus:
        case Request::Command::kDump:
        case Request::Command::kReset:
            return runLive(request, style);
        case Request::Command::kCheck:
        case Request::Command::kExplain:
        case Request::Command::kGenerate:
        case Request::Command::kDiff:
            return runOnFiles(request, style);
    }
}

int kusctlMain(const std::vector<std::string>& args) {
    base::SetLogger(keepQuiet);
    // Ends with the pipe's reader, as "kusctl list | head" wants it, also where that was ignored.
    (void)signal(SIGPIPE, SIG_DFL);
    if (args.empty()) {
        std::cerr << kKusctlUsage;
        return kUsageError;
    }
    const auto request = parseRequest(args);
    if (!request.has_value()) return complain(kUsageError, request.error());
    const ExitStatus result = run(*request);
    if (std::cout.flush()) return result;
    return complain(kUnreadable, "not all could be written to standard output: make room there");
}

}  // namespace
}  // namespace android::kus::tools

int main(int argc, char** argv) {
    return android::kus::tools::kusctlMain({argv + 1, argv + argc});
}
