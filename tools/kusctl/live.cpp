// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/live.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <android/kus/IKUsbService.h>
#include <binder/ProcessState.h>
#include <cutils/properties.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "tools/json.h"
#include "tools/kusctl/event_queue.h"
#include "tools/kusctl/judged.h"
#include "tools/kusctl/status.h"
#include "tools/service.h"
#include "tools/watch.h"

namespace android::kus::tools {
namespace {

constexpr char kAutomationProperty[] = "ro.config.device.kus_automation";

ExitStatus noAnswer(const std::string& why) {
    return complain(kNoService,
                    "the service did not answer (" + why + "): see its log, and start it again");
}

ExitStatus noAnswer(const binder::Status& status) {
    return noAnswer(status.toString8().string());
}

ExitStatus noService(const std::string& why) {
    return complain(kNoService, why + ": run this on the terminal, with kusd started");
}

// SIGINT and SIGTERM as something to wait for. Threads that are started meanwhile never get them.
class StopSignals {
  public:
    StopSignals() {
        sigemptyset(&signals_);
        for (const int number : {SIGINT, SIGTERM}) sigaddset(&signals_, number);
        pthread_sigmask(SIG_BLOCK, &signals_, &before_);
        fd_.reset(signalfd(-1, &signals_, SFD_CLOEXEC | SFD_NONBLOCK));
        if (fd_.get() == -1) PLOG(FATAL) << "Cannot wait for signals";
    }
    ~StopSignals() {
        // Those that were waited for are done with.
        signalfd_siginfo info;
        while (read(fd_.get(), &info, sizeof(info)) > 0) continue;
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    int fd() const { return fd_.get(); }

  private:
    sigset_t signals_;
    sigset_t before_;
    base::unique_fd fd_;
};

ExitStatus list(const sp<IKUsbService>& service, const Style& style) {
    std::vector<DeviceInfo> devices;
    const binder::Status status = service->getDeviceList(&devices);
    if (!status.isOk()) return noAnswer(status);
    if (!style.json) {
        std::cout << judgedText(devices, style);
        return kGood;
    }
    std::vector<JsonObject> objects(devices.size());
    for (size_t i = 0; i < devices.size(); i++) addJudged(&objects[i], devices[i]);
    JsonObject object;
    std::cout << object.addObjects("devices", objects).str() << "\n";
    return kGood;
}

void show(const DeviceEvent& event, const Style& style) {
    const std::string line =
            style.json ? judgedEventObject(event).str() + "\n" : eventText(event, style);
    std::cout << line << std::flush;
}

// Goes on until that many events (0: never) have been shown, a signal, the service's death, or
// until nobody reads any more.
ExitStatus followEvents(EventQueue* queue, const ServiceLink& link, const Request& request,
                        const Style& style) {
    const StopSignals stop;
    int32_t shown = 0;
    while (std::cout) {
        pollfd fds[] = {
                {queue->fd(), POLLIN, 0}, {link.noticeFd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
        if (TEMP_FAILURE_RETRY(poll(fds, std::size(fds), -1)) == -1) {
            PLOG(FATAL) << "Cannot wait for events";
        }
        // All that it told before it died comes first.
        const bool dead = link.dead();
        link.clearNotices();
        for (const DeviceEvent& event : queue->take()) {
            show(event, style);
            if (++shown == request.count) return kGood;
        }
        if (dead) return noAnswer("it died");
        if (fds[2].revents != 0) return kGood;
    }
    return kGood;
}

ExitStatus watch(const sp<IKUsbService>& service, const ServiceLink& link, const Request& request,
                 const Style& style) {
    // The callback's as well: an event may be under way when it has been taken back.
    const auto queue = std::make_shared<EventQueue>();
    const auto put = [queue](const char* event, const DeviceInfo& device) {
        queue->put(event, device);
    };
    const sp<WatchCallback> callback = new WatchCallback(put, 0, [] {});
    const binder::Status registered = service->registerKusCallback(callback);
    if (!registered.isOk()) return noAnswer(registered);
    if (!style.json) std::cout << eventHeadings() << std::flush;
    const ExitStatus result = followEvents(queue.get(), link, request, style);
    // One that cannot be taken back goes with the process.
    service->unregisterKusCallback(callback);
    return result;
}

// What the service writes into the descriptor of a dump. It may be more than a pipe holds, and so
// it is read while the call goes on.
ExitStatus readDump(const sp<IKUsbService>& service, const Vector<String16>& args,
                    std::string* text) {
    base::unique_fd reader;
    base::unique_fd writer;
    if (!base::Pipe(&reader, &writer)) PLOG(FATAL) << "Cannot make a pipe";
    status_t status = OK;
    std::thread call([&] {
        status = IInterface::asBinder(service)->dump(writer.get(), args);
        writer.reset();
    });
    const bool read = base::ReadFdToString(reader, text);
    call.join();
    if (status != OK) return noAnswer(statusToString(status));
    return read ? kGood : noAnswer("its dump cannot be read");
}

// The dump's own lines and columns stay what they are.
std::string printableLines(const std::string& text) {
    std::string shown;
    size_t begin = 0;
    for (size_t end; (end = text.find_first_of("\n\t", begin)) != std::string::npos;
         begin = end + 1) {
        shown += printable(text.substr(begin, end - begin)) + text[end];
    }
    return shown + printable(text.substr(begin));
}

ExitStatus dump(const sp<IKUsbService>& service, bool test, const Style& style) {
    Vector<String16> args;
    if (test) args.add(String16("test"));
    std::string text;
    const ExitStatus result = readDump(service, args, &text);
    if (result != kGood) return result;
    if (style.json) {
        JsonObject object;
        std::cout << object.addText("dump", text).str() << "\n";
    } else {
        std::cout << printableLines(text);
    }
    return kGood;
}

ExitStatus reset(const sp<IKUsbService>& service, int32_t undockMs, const Style& style) {
    const binder::Status status = service->resetUsbDevices(undockMs);
    if (!status.isOk()) return noAnswer(status);
    JsonObject object;
    std::cout << (style.json ? object.addText("reset", "done").str() : "reset done") << "\n";
    return kGood;
}

// Death notices and events come in on its threads, signals never.
void startThreadPool() {
    const StopSignals stop;
    ProcessState::self()->startThreadPool();
}

ExitStatus run(const Request& request, const Style& style) {
    const std::string problem = binderProblem();
    if (!problem.empty()) return noService(problem);
    startThreadPool();
    ServiceLink link;
    const sp<IKUsbService> service = link.find();
    if (service == nullptr) return noService("the service is not there");
    using Command = Request::Command;
    if (request.command == Command::kList) return list(service, style);
    if (request.command == Command::kWatch) return watch(service, link, request, style);
    if (request.command == Command::kDump) return dump(service, request.test, style);
    CHECK(request.command == Command::kReset);
    return reset(service, request.undockMs, style);
}

ServiceStatus serviceStatus() {
    ServiceStatus service;
    service.problem = binderProblem();
    service.running = service.problem.empty() && ServiceLink().find() != nullptr;
    service.automation = property_get_int32(kAutomationProperty, 0) == 1;
    return service;
}

// The files come first: they are read without a second thread.
ExitStatus status(const Style& style) {
    const auto policy = readPolicyStatus();
    if (!policy.has_value()) {
        return complain(kUnreadable, policy.error() + ": run it as root or system");
    }
    const ServiceStatus service = serviceStatus();
    std::cout << (style.json ? statusJson(service, *policy) + "\n"
                             : statusText(service, *policy, style));
    if (!service.running) return kNoService;
    return policy->good() ? kGood : kNo;
}

}  // namespace

ExitStatus runLive(const Request& request, const Style& style) {
    return request.command == Request::Command::kStatus ? status(style) : run(request, style);
}

}  // namespace android::kus::tools
