// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/write_recorder.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

#include <android-base/file.h>
#include <android-base/logging.h>

#include "tests/support/scratch_tree.h"

namespace android::kus::test {

namespace {

constexpr uint32_t kMask = IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO;

// The property store's temporary files.
bool isHidden(const std::string& name) {
    return name.empty() || name.front() == '.';
}

std::string contentOf(const std::string& path) {
    std::string content;
    return android::base::ReadFileToString(path, &content, true) ? content : "(gone)";
}

// CHECK would log, and a line comes back here.
void require(bool condition, const char* what) {
    if (condition) return;
    perror(what);
    abort();
}

}  // namespace

std::string Logged(const LogLine& line) {
    std::ostringstream text;
    PrintTo(line, &text);
    return text.str();
}

WriteRecorder::WriteRecorder(LogCapture* log, const std::vector<std::string>& directories)
    : log_(log), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), stop_(eventfd(0, EFD_CLOEXEC)) {
    CHECK(inotify_ != -1 && stop_ != -1);
    for (const std::string& directory : directories) {
        MakeDir(directory);
        const int watch = inotify_add_watch(inotify_, directory.c_str(), kMask);
        CHECK(watch != -1) << directory;
        directories_[watch] = directory;
    }
    log_->OnLine([this](const LogLine& line) {
        const std::lock_guard<std::mutex> lock(mutex_);
        drain();
        add(Logged(line));
    });
    thread_ = std::thread(&WriteRecorder::run, this);
}

WriteRecorder::~WriteRecorder() {
    log_->OnLine(nullptr);
    CHECK(eventfd_write(stop_, 1) == 0);
    thread_.join();
}

std::vector<WriteRecorder::Action> WriteRecorder::Actions() {
    const std::lock_guard<std::mutex> lock(mutex_);
    drain();
    return actions_;
}

std::vector<std::string> WriteRecorder::Texts() {
    std::vector<std::string> texts;
    for (const Action& action : Actions()) texts.push_back(action.text);
    return texts;
}

std::vector<std::string> WriteRecorder::Take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    drain();
    std::vector<std::string> texts;
    for (const Action& action : std::exchange(actions_, {})) texts.push_back(action.text);
    return texts;
}

WriteRecorder::Clock::time_point WriteRecorder::TimeOf(const std::string& text, int count) {
    for (const Action& action : Actions()) {
        if (action.text == text && --count == 0) return action.time;
    }
    LOG(FATAL) << "never came: " << text;
    return {};
}

bool WriteRecorder::WaitFor(const std::string& text, int count,
                            std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return added_.wait_for(lock, patience, [&] {
        return std::count_if(actions_.begin(), actions_.end(),
                             [&](const Action& action) { return action.text == text; }) >= count;
    });
}

void WriteRecorder::run() {
    pollfd fds[] = {{inotify_, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (true) {
        CHECK(TEMP_FAILURE_RETRY(poll(fds, std::size(fds), -1)) > 0);
        if (fds[1].revents != 0) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        drain();
    }
}

void WriteRecorder::drain() {
    alignas(inotify_event) char buffer[4096];
    ssize_t count;
    while ((count = TEMP_FAILURE_RETRY(read(inotify_, buffer, sizeof(buffer)))) > 0) {
        for (const char* at = buffer; at < buffer + count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(*event) + event->len;
            require((event->mask & IN_Q_OVERFLOW) == 0, "inotify's queue");
            const std::string name = event->len == 0 ? "" : event->name;
            if (!isHidden(name)) take(event->mask, directories_[event->wd] + "/" + name);
        }
    }
    require(count == -1 && errno == EAGAIN, "inotify");
}

// A file may be renamed while its writer has it open: its close is then no write of the new name.
void WriteRecorder::take(uint32_t event, const std::string& path) {
    if ((event & IN_MODIFY) != 0) modified_.insert(path);
    const bool closed = (event & IN_CLOSE_WRITE) != 0 && modified_.erase(path) != 0;
    if (closed || (event & IN_MOVED_TO) != 0) add(Wrote(path, contentOf(path)));
}

void WriteRecorder::add(const std::string& text) {
    actions_.push_back({Clock::now(), text});
    added_.notify_all();
}

}  // namespace android::kus::test
