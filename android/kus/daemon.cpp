// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <string_view>

#include <android-base/logging.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"

namespace android::kus {
namespace {

bool isDirectory(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool exists(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0;
}

void writeDefaultConfig() {
    std::ofstream file(configFilePath);
    file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<usbconfig mode=\"default\">\n"
            "</usbconfig>";
}

// The one-shot task of the platform's boot: a terminal without rules gets those that allow all.
void runStartupTasks() {
    LOG(INFO) << "kus main called with run-startup-tasks";
    if (!isDirectory(configDirPath)) {
        LOG(INFO) << "no Directory exist";
        return;
    }
    LOG(INFO) << "Directory exist, creating file";
    if (exists(configFilePath)) return;
    writeDefaultConfig();
}

void serve() {
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
