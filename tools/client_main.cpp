// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// kus-client: asks kusd by hand what its clients ask it.

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <binder/ProcessState.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "tools/client_args.h"
#include "tools/device_text.h"
#include "tools/service.h"
#include "tools/watch.h"

namespace android::kus::tools {
namespace {

enum ExitStatus { kDone = 0, kNoAnswer = 1, kUsageError = 2, kNoService = 3 };

void printLine(const std::string& line) {
    std::cout << line << std::endl;
}

void printEvent(const char* event, const DeviceInfo& device) {
    printLine(eventObject(event, device).str());
}

ExitStatus noAnswer(const std::string& why) {
    std::cerr << "kus-client: the daemon did not answer: " << why << "\n";
    return kNoAnswer;
}

ExitStatus outcome(const binder::Status& status) {
    return status.isOk() ? kDone : noAnswer(status.toString8().string());
}

ExitStatus outcome(status_t status) {
    return status == OK ? kDone : noAnswer(statusToString(status));
}

ExitStatus ping(const sp<IKUsbService>& service) {
    const ExitStatus result = outcome(IInterface::asBinder(service)->pingBinder());
    if (result == kDone) printLine("pong");
    return result;
}

ExitStatus list(const sp<IKUsbService>& service, bool json) {
    std::vector<DeviceInfo> devices;
    const binder::Status status = service->getDeviceList(&devices);
    if (!status.isOk()) return outcome(status);
    for (const DeviceInfo& device : devices) {
        JsonObject object;
        printLine(json ? addDeviceInfo(&object, device).str() : deviceInfoText(device));
    }
    return kDone;
}

ExitStatus decide(const sp<IKUsbService>& service, const DeviceInfo& device) {
    bool allowed = false;
    const binder::Status status = service->isDeviceAllowed(device, &allowed);
    if (!status.isOk()) return outcome(status);
    printLine(allowed ? "allowed" : "refused");
    return kDone;
}

ExitStatus dump(const sp<IKUsbService>& service, const std::vector<std::string>& texts) {
    Vector<String16> args;
    for (const std::string& text : texts) args.add(String16(text.c_str()));
    return outcome(IInterface::asBinder(service)->dump(STDOUT_FILENO, args));
}

// Standard input, line by line.
class CommandLines {
  public:
    // Hands each complete line that one read makes available to |take|. Returns false at the end.
    template <typename Take>
    bool read(Take take) {
        char buffer[256];
        const ssize_t length = TEMP_FAILURE_RETRY(::read(STDIN_FILENO, buffer, sizeof(buffer)));
        if (length <= 0) return false;
        pending_.append(buffer, static_cast<size_t>(length));
        size_t end = 0;
        while ((end = pending_.find('\n')) != std::string::npos) {
            take(pending_.substr(0, end));
            pending_.erase(0, end + 1);
        }
        return true;
    }

  private:
    std::string pending_;
};

// Goes on until the event limit, the end of standard input or the daemon's death.
ExitStatus followWatch(WatchSession* session, const ServiceLink& link, bool readsStdin,
                       int limitFd) {
    CommandLines lines;
    const auto command = [session](const std::string& line) { session->command(line); };
    while (true) {
        // poll leaves out negative descriptors.
        pollfd fds[] = {{limitFd, POLLIN, 0},
                        {link.noticeFd(), POLLIN, 0},
                        {readsStdin ? STDIN_FILENO : -1, POLLIN, 0}};
        if (TEMP_FAILURE_RETRY(poll(fds, std::size(fds), -1)) == -1) {
            PLOG(FATAL) << "Cannot wait for events";
        }
        if (fds[0].revents != 0) return kDone;
        if (link.dead()) return noAnswer("it died");
        link.clearNotices();
        if (fds[2].revents != 0 && !lines.read(command)) return kDone;
    }
}

ExitStatus watch(ServiceLink* link, const ClientRequest& request) {
    const sp<IKUsbService> service = link->find();
    if (service == nullptr) return noAnswer("it died");
    const base::unique_fd limitFd(eventfd(0, EFD_CLOEXEC));
    if (limitFd.get() == -1) PLOG(FATAL) << "Cannot make an eventfd";
    const sp<WatchCallback> callback =
            new WatchCallback(printEvent, request.count, [fd = limitFd.get()] {
                if (eventfd_write(fd, 1) == -1) PLOG(FATAL) << "Cannot end the watch";
            });
    WatchSession session(service, callback, printLine);
    if (!session.start(request.registrations)) return kNoAnswer;
    const ExitStatus result = followWatch(&session, *link, request.readsStdin, limitFd.get());
    session.finish();
    return result;
}

ExitStatus run(const ClientRequest& request) {
    if (!haveBinder()) return kNoService;
    ProcessState::self()->startThreadPool();
    const sp<IKUsbService> service = awaitService(request.wait);
    if (service == nullptr) {
        std::cerr << "kus-client: the daemon's service is not there\n";
        return kNoService;
    }
    switch (request.command) {
        case ClientRequest::Command::kHelp:
            return kDone;
        case ClientRequest::Command::kPing:
            return ping(service);
        case ClientRequest::Command::kList:
            return list(service, request.json);
        case ClientRequest::Command::kDecide:
            return decide(service, request.device);
        case ClientRequest::Command::kRemove:
            return outcome(service->updateDeviceList(request.device, request.status));
        case ClientRequest::Command::kWatch: {
            ServiceLink link;
            return watch(&link, request);
        }
        case ClientRequest::Command::kReset:
            return outcome(service->resetUsbDevices(request.delayMs));
        case ClientRequest::Command::kDump:
            return dump(service, request.dumpArgs);
    }
}

int clientMain(const std::vector<std::string>& args) {
    const auto request = parseClientArgs(args);
    if (!request.has_value()) {
        std::cerr << "kus-client: " << request.error() << "\n" << kClientUsage;
        return kUsageError;
    }
    if (request->command == ClientRequest::Command::kHelp) {
        std::cout << kClientUsage;
        return kDone;
    }
    return run(*request);
}

}  // namespace
}  // namespace android::kus::tools

int main(int argc, char** argv) {
    return android::kus::tools::clientMain({argv + 1, argv + argc});
}
