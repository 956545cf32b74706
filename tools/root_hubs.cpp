// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/root_hubs.h"

#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <deque>
#include <optional>
#include <utility>

#include <android-base/logging.h>

#include "tools/usb_interfaces.h"

namespace android::kus::tools {
namespace {

constexpr char kSysfs[] = "/sys";

base::unique_fd makeEventFd() {
    base::unique_fd fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (fd.get() == -1) PLOG(FATAL) << "Cannot make an eventfd";
    return fd;
}

void notify(const base::unique_fd& fd) {
    if (eventfd_write(fd.get(), 1) == -1) PLOG(FATAL) << "Cannot signal an eventfd";
}

std::string listeningFailed() {
    return std::string("cannot listen to uevents: ") + strerror(errno);
}

}  // namespace

std::unique_ptr<RootHubs> RootHubs::keepClosed(std::string* error) {
    // Before those present are closed: none may come in between.
    std::unique_ptr<UeventMonitor> monitor = UeventMonitor::open();
    if (monitor == nullptr) {
        *error = listeningFailed();
        return nullptr;
    }
    if (const std::optional<std::string> wrong = closeRootHubs(kSysfs)) {
        *error = *wrong;
        return nullptr;
    }
    return std::unique_ptr<RootHubs>(new RootHubs(std::move(monitor)));
}

RootHubs::RootHubs(std::unique_ptr<UeventMonitor> monitor)
    : monitor_(std::move(monitor)),
      stop_(makeEventFd()),
      failure_(makeEventFd()),
      thread_(&RootHubs::run, this) {}

RootHubs::~RootHubs() {
    notify(stop_);
    thread_.join();
}

void RootHubs::run() {
    while (awaitEvents() && closeNew()) {
    }
}

bool RootHubs::awaitEvents() const {
    pollfd fds[] = {{stop_.get(), POLLIN, 0}, {monitor_->fd(), POLLIN, 0}};
    if (TEMP_FAILURE_RETRY(poll(fds, std::size(fds), -1)) == -1) {
        PLOG(FATAL) << "Cannot wait for events";
    }
    return fds[0].revents == 0;
}

bool RootHubs::closeNew() {
    std::deque<Uevent> events;
    const bool complete = monitor_->receive(&events);
    for (const Uevent& event : events) {
        if (event.change != Change::kRootHubReady || closeRootHub(event.path)) continue;
        return fail(event.path + " cannot be closed: " + strerror(errno));
    }
    if (complete) return true;
    monitor_ = UeventMonitor::open();
    if (monitor_ == nullptr) return fail(listeningFailed());
    const std::optional<std::string> wrong = closeRootHubs(kSysfs);
    return !wrong || fail(*wrong);
}

bool RootHubs::fail(std::string error) {
    error_ = std::move(error);
    notify(failure_);
    return false;
}

}  // namespace android::kus::tools
