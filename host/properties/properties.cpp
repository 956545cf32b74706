// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "properties.h"

#include <cutils/properties.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/errno_restorer.h>
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

namespace android::properties {

namespace {

constexpr size_t kMaxValueLength = PROPERTY_VALUE_MAX - 1;

bool isNameCharacter(char c) {
    return isalnum(static_cast<unsigned char>(c)) || strchr("._-@:", c) != nullptr;
}

std::string pathOf(const std::string& name) {
    return std::string(kPropertyDir) + "/" + name;
}

int fail(int error) {
    errno = error;
    return -1;
}

// Empty when there is no such property.
std::string readFile(const char* name) {
    std::string value;
    if (!isValidPropertyName(name) || !base::ReadFileToString(pathOf(name), &value)) return "";
    return value.substr(0, kMaxValueLength);
}

// What was read already, for as long as nothing changes: the platform's own readers look into
// mapped memory, and whoever asks at each of its calls relies on that. The kernel queues an event
// of a change before the call that makes it returns.
class Values {
  public:
    Values();

    std::string read(const char* name) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (!watch()) return readFile(name);
        const auto known = mKnown.find(name);
        if (known != mKnown.end()) return known->second;
        return mKnown[name] = readFile(name);
    }

    // A child would take the events out of its parent's queue.
    void beginFork() { mMutex.lock(); }
    void endForkOfParent() { mMutex.unlock(); }
    void endForkOfChild() {
        mEvents.reset();
        mWatching = false;
        mMutex.unlock();
    }

  private:
    // Forgets what may have changed; false without a directory.
    bool watch() {
        if (mWatching && !takeEvents()) return true;
        if (mEvents == -1) mEvents.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        mKnown.clear();
        constexpr uint32_t kChanges = IN_MODIFY | IN_MOVE | IN_CREATE | IN_DELETE | IN_DELETE_SELF |
                                      IN_MOVE_SELF | IN_ONLYDIR;
        // The same directory as ever, or one that has taken its place.
        mWatching = inotify_add_watch(mEvents, kPropertyDir, kChanges) != -1;
        return mWatching;
    }

    // False when there were none.
    bool takeEvents() {
        alignas(inotify_event) char events[BUFSIZ];
        bool any = false;
        while (::read(mEvents, events, sizeof(events)) > 0) any = true;
        return any;
    }

    std::mutex mMutex;
    base::unique_fd mEvents;
    bool mWatching = false;
    std::map<std::string, std::string, std::less<>> mKnown;
};

// Made before main(), when nobody asks yet, and never destroyed: exit() destroys while other
// threads still ask.
Values& values = *new Values;

Values::Values() {
    pthread_atfork([] { values.beginFork(); }, [] { values.endForkOfParent(); },
                   [] { values.endForkOfChild(); });
}

std::string read(const char* name) {
    return name == nullptr ? "" : values.read(name);
}

int copyValue(const std::string& from, char* to) {
    const size_t length = from.copy(to, kMaxValueLength);
    to[length] = '\0';
    return static_cast<int>(length);
}

// A file that its owner fills and then publishes under a property's name; unpublished, it vanishes.
class NewValue {
  public:
    NewValue() : mPath(pathOf(".XXXXXX")), mFd(mkostemp(mPath.data(), O_CLOEXEC)) {}
    NewValue(const NewValue&) = delete;
    NewValue& operator=(const NewValue&) = delete;
    ~NewValue() {
        const base::ErrnoRestorer keepErrno;
        if (mFd.ok() && !mMoved) unlink(mPath.c_str());
    }

    bool write(const std::string& value) {
        return mFd.ok() && base::WriteStringToFd(value, mFd) && fchmod(mFd.get(), 0644) == 0;
    }

    bool replace(const char* name) {
        mMoved = rename(mPath.c_str(), pathOf(name).c_str()) == 0;
        return mMoved;
    }

    // Unlike rename, link fails on a name that exists: of two first writers one wins.
    bool publishOnce(const char* name) {
        if (link(mPath.c_str(), pathOf(name).c_str()) == 0) return true;
        if (errno == EEXIST) errno = EPERM;
        return false;
    }

  private:
    std::string mPath;
    base::unique_fd mFd;
    bool mMoved = false;
};

std::vector<std::string> namesIn(DIR* directory) {
    std::vector<std::string> names;
    while (const dirent* entry = readdir(directory)) {
        if (isValidPropertyName(entry->d_name)) names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

bool isValidPropertyName(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    const std::string text(name);
    if (text.front() == '.' || text.back() == '.') return false;
    if (text.find("..") != std::string::npos) return false;
    return std::all_of(text.begin(), text.end(), isNameCharacter);
}

bool isReadOnlyProperty(const char* name) {
    return base::StartsWith(name, "ro.");
}

// Other users read properties whatever umask the process has that happens to come first.
bool makePropertyDir() {
    if (mkdir(kPropertyDir, 0755) == 0) return chmod(kPropertyDir, 0755) == 0;
    return errno == EEXIST;
}

}  // namespace android::properties

using namespace android::properties;  // NOLINT(google-build-using-namespace)

int property_get(const char* key, char* value, const char* default_value) {
    const std::string found = read(key);
    if (found.empty() && default_value != nullptr) return copyValue(default_value, value);
    return copyValue(found, value);
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    const android::base::ErrnoRestorer keepErrno;
    const std::string text = read(key);
    char* end = nullptr;
    errno = 0;
    const intmax_t number = strtoimax(text.c_str(), &end, 0);
    if (end == text.c_str() || errno == ERANGE) return default_value;
    if (number < INT32_MIN || number > INT32_MAX) return default_value;
    return static_cast<int32_t>(number);
}

int property_set(const char* key, const char* value) {
    const std::string text = value == nullptr ? "" : value;
    if (!isValidPropertyName(key) || text.size() > kMaxValueLength) return fail(EINVAL);
    if (!makePropertyDir()) return -1;

    NewValue file;
    if (!file.write(text)) return -1;
    const bool published = isReadOnlyProperty(key) ? file.publishOnce(key) : file.replace(key);
    return published ? 0 : -1;
}

int property_list(void (*propfn)(const char* key, const char* value, void* cookie), void* cookie) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(kPropertyDir), closedir);
    if (directory == nullptr) return errno == ENOENT ? 0 : -1;
    for (const std::string& name : namesIn(directory.get())) {
        propfn(name.c_str(), read(name.c_str()).c_str(), cookie);
    }
    return 0;
}
