// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/properties/properties.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"

namespace android::properties::test {

namespace {

using ::android::kus::test::Exists;
using ::android::kus::test::ProcessResult;
using ::android::kus::test::Remove;
using ::android::kus::test::RunProgram;
using ::android::kus::test::WriteFile;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr int kTimeoutMs = 10000;

// A watchprops that runs, and the lines that it prints. Killed with its owner.
class Watch {
  public:
    Watch() {
        int ends[2] = {};
        CHECK(pipe2(ends, O_CLOEXEC) == 0);
        mOutput.reset(ends[0]);
        const base::unique_fd input(ends[1]);
        mPid = fork();
        CHECK(mPid != -1);
        if (mPid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(input.get(), STDOUT_FILENO);
            execl(KUS_WATCHPROPS_PATH, KUS_WATCHPROPS_PATH, nullptr);
            _exit(127);
        }
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        if (mPid != -1) {
            kill(mPid, SIGKILL);
            wait();
        }
    }

    // Without its end; what is there of it when none comes in time.
    std::string line() {
        size_t end = 0;
        while ((end = mPending.find('\n')) == std::string::npos) {
            pollfd readable = {mOutput.get(), POLLIN, 0};
            char buffer[256];
            ssize_t length = 0;
            if (poll(&readable, 1, kTimeoutMs) == 1) {
                length = read(mOutput.get(), buffer, sizeof(buffer));
            }
            if (length <= 0) return std::exchange(mPending, "");
            mPending.append(buffer, static_cast<size_t>(length));
        }
        std::string line = mPending.substr(0, end);
        mPending.erase(0, end + 1);
        return line;
    }

    // A line without its time.
    std::string change() {
        const std::string text = line();
        return text.substr(text.find(' ') + 1);
    }

    // Its status as of waitpid.
    int wait() {
        int status = 0;
        CHECK(TEMP_FAILURE_RETRY(waitpid(mPid, &status, 0)) == mPid);
        mPid = -1;
        return status;
    }

    void stop() const { CHECK(kill(mPid, SIGSTOP) == 0); }
    void go() const { CHECK(kill(mPid, SIGCONT) == 0); }

  private:
    base::unique_fd mOutput;
    pid_t mPid = -1;
    std::string mPending;
};

class Watchprops : public ::testing::Test {
  protected:
    void SetUp() override { Remove(kPropertyDir); }
};

int64_t nowUs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

TEST_F(Watchprops, SaysThatItWatchesAlsoBeforeThereIsAnyProperty) {
    Watch watch;
    EXPECT_EQ("watching", watch.line());
    EXPECT_TRUE(Exists(kPropertyDir));
}

TEST_F(Watchprops, PrintsEachChangeInOrder) {
    ASSERT_EQ(0, property_set("kus.before", "not told"));
    Watch watch;
    ASSERT_EQ("watching", watch.line());
    ASSERT_EQ(0, property_set("persist.vendor.kus.b", "1"));
    ASSERT_EQ(0, property_set("kus.a", "two words"));
    ASSERT_EQ(0, property_set("ro.kus.c", "3"));
    ASSERT_EQ(0, property_set("kus.before", ""));
    EXPECT_EQ("persist.vendor.kus.b = '1'", watch.change());
    EXPECT_EQ("kus.a = 'two words'", watch.change());
    EXPECT_EQ("ro.kus.c = '3'", watch.change());
    EXPECT_EQ("kus.before = ''", watch.change());
}

TEST_F(Watchprops, TellsEverySettingToTheSameValueAlsoWhenItComesToLookLate) {
    constexpr int kTimes = 50;
    Watch watch;
    ASSERT_EQ("watching", watch.line());
    watch.stop();
    for (int i = 0; i < kTimes; ++i) ASSERT_EQ(0, property_set("kus.same", "1"));
    ASSERT_EQ(0, property_set("kus.last", "1"));
    watch.go();
    for (int i = 0; i < kTimes; ++i) ASSERT_EQ("kus.same = '1'", watch.change()) << i;
    EXPECT_EQ("kus.last = '1'", watch.change());
}

TEST_F(Watchprops, TellsNothingOfASettingThatWasRefused) {
    ASSERT_EQ(0, property_set("ro.kus.once", "1"));
    Watch watch;
    ASSERT_EQ("watching", watch.line());
    EXPECT_EQ(-1, property_set("ro.kus.once", "2"));
    EXPECT_EQ(-1, property_set("kus.long", std::string(PROPERTY_VALUE_MAX, 'v').c_str()));
    ASSERT_EQ(0, property_set("kus.next", "1"));
    EXPECT_EQ("kus.next = '1'", watch.change());
}

TEST_F(Watchprops, GivesTheTimeInMicrosecondsOfTheMonotonicClock) {
    Watch watch;
    ASSERT_EQ("watching", watch.line());
    const int64_t before = nowUs();
    ASSERT_EQ(0, property_set("kus.test", "1"));
    const std::string line = watch.line();
    const int64_t after = nowUs();
    ASSERT_THAT(line, MatchesRegex("[0-9]+\\.[0-9]{6} kus\\.test = '1'"));
    const int64_t time = std::stoll(line.substr(0, line.find('.'))) * 1000000 +
                         std::stoll(line.substr(line.find('.') + 1, 6));
    EXPECT_LE(before, time);
    EXPECT_LE(time, after);
}

TEST_F(Watchprops, FailsWhenTheDirectoryGoes) {
    Watch watch;
    ASSERT_EQ("watching", watch.line());
    ASSERT_EQ(0, rmdir(kPropertyDir));
    const int status = watch.wait();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status));
}

TEST_F(Watchprops, FailsWhereTheDirectoryIsNone) {
    WriteFile(kPropertyDir, "a file");
    const ProcessResult result = RunProgram({KUS_WATCHPROPS_PATH});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ("watchprops: /run/kus-properties: Not a directory\n", result.err);
}

TEST_F(Watchprops, RefusesArguments) {
    const ProcessResult result = RunProgram({KUS_WATCHPROPS_PATH, "kus.test"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.err, HasSubstr("usage: "));
}

}  // namespace

}  // namespace android::properties::test
