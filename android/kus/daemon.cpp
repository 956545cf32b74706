// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <ostream>
#include <string_view>

#include <android-base/logging.h>
#include <backtrace/Backtrace.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "android/kus/util.h"

namespace android::kus {
namespace {

constexpr char kDefaultConfig[] =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<usbconfig mode=\"default\">\n"
        "</usbconfig>";

// The one-shot task of the platform's boot: a terminal without rules gets those that allow all.
void runStartupTasks() {
    LOG(INFO) << "kus main called with run-startup-tasks";
    if (!isDirectory(configDirPath)) {
        LOG(INFO) << "no Directory exist";
        return;
    }
    LOG(INFO) << "Directory exist, creating file";
    if (exists(configFilePath)) return;
    replaceFile(configFilePath, kDefaultConfig);
}

// Room for the slowest unwinding, and the slowest disk.
constexpr unsigned int kCrashTimeoutSeconds = 30;

// The thread whose fault ends the process.
std::atomic<pid_t> faultedThread = 0;

// Two threads in the handler would truncate each other's files, and the exit of one cut the other's
// short: the second waits for the exit. A second fault of the first goes on.
void waitForExitUnlessFirst() {
    const pid_t self = gettid();
    pid_t first = 0;
    if (faultedThread.compare_exchange_strong(first, self) || first == self) return;
    while (true) pause();
}

// Rules that crash the daemon would crash it at every start: the last good ones come back first.
// It logs and allocates, which a signal handler may not: the process ends here in any case. It must
// take no lock that the thread may hold already.
void signalHandler(int signum, siginfo_t* /*info*/, void* /*context*/) {
    waitForExitUnlessFirst();
    // A fault inside the allocator would wait for itself below, and init for the exit.
    alarm(kCrashTimeoutSeconds);
    // The same text for every signal: meant.
    LOG(INFO) << "Segmentation fault"
              << "signum" << signum << std::endl;
    // The observer would take the copy below for new rules, and the exit cut its reset in two: a
    // controller that is left in "none" stays there.
    KUsbService::stopFileObserver();
    Util::copyFileContent(backupFilePath, configFilePath);
    Util::updateErrorFile(statusFilePath, "Unable to apply the USB Admin config rules");

    Backtrace* stack = Backtrace::Create(BACKTRACE_CURRENT_PROCESS, BACKTRACE_CURRENT_THREAD);
    if (!stack->Unwind(0)) {
        LOG(ERROR) << "signalHandler"
                   << ": Failed to unwind callstack.";
    }
    LOG(INFO) << "Stack Trace" << std::endl;
    for (size_t frame = 0; frame < stack->NumFrames(); ++frame) {
        LOG(ERROR) << stack->FormatFrameData(frame);
    }
    exit(signum);
}

void installCrashHandler() {
    struct sigaction action {};
    action.sa_sigaction = signalHandler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    for (const int signum : {SIGSEGV, SIGABRT}) sigaction(signum, &action, nullptr);
}

void serve() {
    installCrashHandler();
    // A client that hangs up while its dump is being written is no reason to end.
    (void)signal(SIGPIPE, SIG_IGN);
    KUsbService::Register();
    sp<ProcessState> process = ProcessState::self();
    process->startThreadPool();
    process->giveThreadPoolName();
    process.clear();
    IPCThreadState::self()->joinThreadPool(true);
}

}  // namespace
}  // namespace android::kus

int main(int argc, char** argv) {
    LOG(INFO) << "kus main called with argc: " << argc << "and argv: " << argv;
    if (argc >= 2 && std::string_view(argv[1]) == "run-startup-tasks") {
        android::kus::runStartupTasks();
    } else {
        android::kus::serve();
    }
    exit(EXIT_SUCCESS);
}
