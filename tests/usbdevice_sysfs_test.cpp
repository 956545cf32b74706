// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// How single sysfs files are read and written, and texts are cut.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android-base/logging.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/usbdevice.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/usbdevice_fixture.h"

namespace android::kus::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kValue[] = "/sys/devices/value";
constexpr char kMissing[] = "/sys/devices/missing";
// The longest path that the kernel opens, and the longest that is formatted whole.
constexpr size_t kLongestPath = 4095;

// A caller's buffer of exactly this size on the heap, with the sanitizer's guards around it.
std::vector<char> bufferOf(size_t size) {
    return std::vector<char>(size, '#');
}

std::string contentOf(const std::vector<char>& buffer) {
    return {buffer.begin(), buffer.end()};
}

// The entry name that makes the whole path of its attribute this long.
std::string nameForPathOf(size_t length, const std::string& attribute) {
    return Padded("1-1", length - strlen("/sys/bus/usb/devices//") - attribute.size());
}

std::string readString(const std::string& attribute, int size) {
    std::vector<char> buffer = bufferOf(size);
    UsbDevice::read_sysfs_file_string("1-1", attribute.c_str(), buffer.data(), size);
    return buffer.data();
}

}  // namespace

// --- read_sysfs_val ----------------------------------------------------------------------------

using ReadSysfsVal = UsbDeviceTest;

TEST_F(ReadSysfsVal, KeepsTheTrailingNewlineAndTerminatesRightBehindIt) {
    WriteFile(kValue, "host\n");
    std::vector<char> buffer = bufferOf(8);
    LogCapture log;
    EXPECT_EQ(UsbDevice::read_sysfs_val(kValue, buffer.data(), 8), 5);
    EXPECT_EQ(contentOf(buffer), std::string("host\n\0##", 8));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(ReadSysfsVal, ReadsAtMostOneByteLessThanTheBufferHolds) {
    const std::string text = TextOf(4096);
    WriteFile(kValue, text);
    for (const unsigned int size : {2U, 3U, 64U, 4095U, 4096U, 4097U}) {
        SCOPED_TRACE(size);
        std::vector<char> buffer = bufferOf(size);
        EXPECT_EQ(UsbDevice::read_sysfs_val(kValue, buffer.data(), size),
                  static_cast<int32_t>(size - 1));
        EXPECT_EQ(contentOf(buffer), text.substr(0, size - 1) + '\0');
    }
}

TEST_F(ReadSysfsVal, ReadsOnceAndDoesNotWaitForMore) {
    MakeDir("/sys/devices");
    ASSERT_EQ(mkfifo(kValue, 0600), 0);
    const ProcessResult child = RunInChild([] {
        alarm(20);
        // Held open for writing: a second read would wait for good.
        const int writer = open(kValue, O_RDWR | O_CLOEXEC);
        CHECK(write(writer, "ab", 2) == 2);
        char buffer[64] = {};
        printf("%d %s", UsbDevice::read_sysfs_val(kValue, buffer, sizeof(buffer)), buffer);
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.out, "2 ab");
}

TEST_F(ReadSysfsVal, ReportsAFileThatCannotBeOpenedAndLeavesTheBufferAlone) {
    std::vector<char> buffer = bufferOf(4);
    LogCapture log;
    EXPECT_EQ(UsbDevice::read_sysfs_val(kMissing, buffer.data(), 4), 0);
    EXPECT_EQ(contentOf(buffer), "####");
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to open sysfs path for reading"
                                               "/sys/devices/missing")));
}

TEST_F(ReadSysfsVal, ReportsAnEmptyFileWithTheReadsResultAndDoesNotTerminate) {
    WriteFile(kValue, "");
    std::vector<char> buffer = bufferOf(4);
    LogCapture log;
    EXPECT_EQ(UsbDevice::read_sysfs_val(kValue, buffer.data(), 4), 0);
    EXPECT_EQ(contentOf(buffer), "####");
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to read from sysfs path0")));
}

TEST_F(ReadSysfsVal, ReportsAFailedReadWithTheReadsResultAndDoesNotTerminate) {
    MakeDir(kValue);
    std::vector<char> buffer = bufferOf(4);
    LogCapture log;
    EXPECT_EQ(UsbDevice::read_sysfs_val(kValue, buffer.data(), 4), 0);
    EXPECT_EQ(contentOf(buffer), "####");
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to read from sysfs path-1")));
}

TEST_F(ReadSysfsVal, ReadsNothingIntoABufferWithRoomForTheTerminatorOnly) {
    WriteFile(kValue, "1\n");
    std::vector<char> buffer = bufferOf(1);
    LogCapture log;
    EXPECT_EQ(UsbDevice::read_sysfs_val(kValue, buffer.data(), 1), 0);
    EXPECT_EQ(contentOf(buffer), "#");
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to read from sysfs path0")));
}

// --- write_sysfs_val ---------------------------------------------------------------------------

using WriteSysfsVal = UsbDeviceTest;

TEST_F(WriteSysfsVal, WritesExactlyTheCountedBytes) {
    WriteFile(kValue, "");
    LogCapture log;
    EXPECT_EQ(UsbDevice::write_sysfs_val(kValue, "none and no more", 4), 4);
    EXPECT_EQ(ReadFile(kValue), "none");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(WriteSysfsVal, DoesNotTruncateTheFile) {
    WriteFile(kValue, "peripheral\n");
    EXPECT_EQ(UsbDevice::write_sysfs_val(kValue, "host", 4), 4);
    EXPECT_EQ(ReadFile(kValue), "hostpheral\n");
}

TEST_F(WriteSysfsVal, ReportsAMissingFileAndDoesNotMakeIt) {
    MakeDir("/sys/devices");
    LogCapture log;
    EXPECT_EQ(UsbDevice::write_sysfs_val(kMissing, "host", 4), 0);
    EXPECT_FALSE(Exists(kMissing));
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to open  sysfs path for writing"
                                               "/sys/devices/missing")));
}

TEST_F(WriteSysfsVal, ReportsADirectoryAsAFailedOpen) {
    MakeDir(kValue);
    LogCapture log;
    EXPECT_EQ(UsbDevice::write_sysfs_val(kValue, "host", 4), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to open  sysfs path for writing"
                                               "/sys/devices/value")));
}

TEST_F(WriteSysfsVal, ReportsAFailedWriteWithTheWritesResult) {
    LogCapture log;
    EXPECT_EQ(UsbDevice::write_sysfs_val("/dev/full", "host", 4), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to write to sysfs path-1")));
}

TEST_F(WriteSysfsVal, ReportsAWriteOfNothingWithTheWritesResult) {
    WriteFile(kValue, "none");
    LogCapture log;
    EXPECT_EQ(UsbDevice::write_sysfs_val(kValue, "host", 0), 0);
    EXPECT_EQ(ReadFile(kValue), "none");
    EXPECT_THAT(log.Lines(), ElementsAre(Error("Unable to write to sysfs path0")));
}

TEST_F(WriteSysfsVal, TakesAShortWriteForASuccess) {
    WriteFile(kValue, "");
    const ProcessResult child = RunInChild([] {
        CHECK(signal(SIGXFSZ, SIG_IGN) != SIG_ERR);
        const rlimit threeBytes = {3, 3};
        CHECK(setrlimit(RLIMIT_FSIZE, &threeBytes) == 0);
        _exit(UsbDevice::write_sysfs_val(kValue, "host", 4));
    });
    EXPECT_EQ(child.status, 3);
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(ReadFile(kValue), "hos");
}

// --- read_sysfs_file_int -----------------------------------------------------------------------

using ReadSysfsFileInt = UsbDeviceTest;

TEST_F(ReadSysfsFileInt, ConvertsTheTextInTheGivenBase) {
    const struct {
        const char* text;
        int base;
        uint32_t value;
    } table[] = {
            {"17e9\n", 16, 6121},
            {"17E9\n", 16, 6121},
            {"17\n", 10, 17},
            {"17", 10, 17},
            {"  12\n", 10, 12},
            {"12mA\n", 10, 12},
            {"1f\n", 10, 1},
            {"ffffffff\n", 16, 4294967295U},
            {"4294967295\n", 10, 4294967295U},
            // Narrowed to 32 bits.
            {"4294967298\n", 10, 2},
            {"-1\n", 10, 4294967295U},
            {"no number\n", 10, 0},
            {"\n", 10, 0},
            {"", 10, 0},
    };
    const std::string entry = AddUsbEntry("1-1", {});
    LogCapture log;
    for (const auto& row : table) {
        SCOPED_TRACE(testing::Message() << "'" << row.text << "' in base " << row.base);
        WriteFile(entry + "/attribute", row.text);
        EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "attribute", row.base), row.value);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(ReadSysfsFileInt, ReadsElevenCharactersOnly) {
    const struct {
        const char* text;
        uint32_t value;
    } table[] = {
            {"00000000001", 1},
            {"000000000012", 1},
            {"           7", 0},
            {"          7", 7},
            // 12345678901, narrowed.
            {"12345678901234", 3755744309U},
    };
    const std::string entry = AddUsbEntry("1-1", {});
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        WriteFile(entry + "/devnum", row.text);
        EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "devnum", 10), row.value);
    }
}

TEST_F(ReadSysfsFileInt, PrintsThePathsErrorForAMissingFile) {
    const ProcessResult child =
            RunInChild([] { printf("%u", UsbDevice::read_sysfs_file_int("1-1", "idVendor", 16)); });
    EXPECT_EQ(child.out, "0");
    EXPECT_EQ(child.err, "/sys/bus/usb/devices/1-1/idVendor: No such file or directory\n");
}

TEST_F(ReadSysfsFileInt, PrintsThePathsErrorForAFailedRead) {
    MakeDir(AddUsbEntry("1-1", {}) + "/idVendor");
    const ProcessResult child =
            RunInChild([] { printf("%u", UsbDevice::read_sysfs_file_int("1-1", "idVendor", 16)); });
    EXPECT_EQ(child.out, "0");
    EXPECT_EQ(child.err, "/sys/bus/usb/devices/1-1/idVendor: Is a directory\n");
}

TEST_F(ReadSysfsFileInt, PrintsNothingForAnEmptyFile) {
    AddUsbEntry("1-1", {{"idVendor", ""}});
    const ProcessResult child =
            RunInChild([] { printf("%u", UsbDevice::read_sysfs_file_int("1-1", "idVendor", 16)); });
    EXPECT_EQ(child.out, "0");
    EXPECT_EQ(child.err, "");
}

TEST_F(ReadSysfsFileInt, CutsAPathOf4096CharactersAndReadsWhatItThenNames) {
    AddUsbEntry("1-1", {{"devnum", "5\n"}, {"devnum2", "6\n"}});
    const std::string fits = nameForPathOf(kLongestPath, "devnum2");
    EXPECT_EQ(UsbDevice::read_sysfs_file_int(fits.c_str(), "devnum2", 10), 6U);
    const std::string tooLong = nameForPathOf(kLongestPath + 1, "devnum2");
    EXPECT_EQ(UsbDevice::read_sysfs_file_int(tooLong.c_str(), "devnum2", 10), 5U);
}

// --- read_sysfs_file_string --------------------------------------------------------------------

using ReadSysfsFileString = UsbDeviceTest;

TEST_F(ReadSysfsFileString, DropsTrailingNewlinesAndTurnsInnerOnesIntoBlanks) {
    const struct {
        std::string text;
        std::string read;
    } table[] = {
            {"Keyboard", "Keyboard"},
            {"Keyboard\n", "Keyboard"},
            {"Keyboard\n\n", "Keyboard"},
            {"two\nlines\n", "two lines"},
            {"\nthree\n\nlines\n\n\n", " three  lines"},
            {" blanks stay \n", " blanks stay "},
            {"DOS\r\n", "DOS\r"},
            {"\n", ""},
            {"\n\n\n", ""},
            {"", ""},
    };
    const std::string entry = AddUsbEntry("1-1", {});
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        WriteFile(entry + "/product", row.text);
        EXPECT_EQ(readString("product", 64), row.read);
    }
}

TEST_F(ReadSysfsFileString, OverwritesEachTrailingNewlineWithAZeroByte) {
    AddUsbEntry("1-1", {{"product", "Pad\n\n\n"}});
    std::vector<char> buffer = bufferOf(9);
    UsbDevice::read_sysfs_file_string("1-1", "product", buffer.data(), 9);
    EXPECT_EQ(contentOf(buffer), std::string("Pad\0\0\0\0##", 9));
}

TEST_F(ReadSysfsFileString, DropsATextThatFillsTheBufferWhole) {
    const struct {
        std::string text;
        int size;
        std::string read;
    } table[] = {
            {TextOf(63), 64, TextOf(63)},
            {TextOf(62) + "\n", 64, TextOf(62)},
            {TextOf(63) + "\n", 64, ""},
            {TextOf(64), 64, ""},
            {TextOf(65), 64, ""},
            {TextOf(500), 64, ""},
            {std::string(64, '\n'), 64, ""},
            {"abc", 4, "abc"},
            {"abcd", 4, ""},
            {"a", 1, ""},
    };
    const std::string entry = AddUsbEntry("1-1", {});
    for (const auto& row : table) {
        SCOPED_TRACE(testing::Message() << row.text.size() << " in " << row.size);
        WriteFile(entry + "/serial", row.text);
        EXPECT_EQ(readString("serial", row.size), row.read);
    }
}

TEST_F(ReadSysfsFileString, EmptiesTheBufferForAMissingFileWithoutAMessage) {
    const ProcessResult child = RunInChild([] {
        char buffer[64] = "what was there before";
        UsbDevice::read_sysfs_file_string("1-1", "serial", buffer, sizeof(buffer));
        printf("'%s'", buffer);
    });
    EXPECT_EQ(child.out, "''");
    EXPECT_EQ(child.err, "");
}

TEST_F(ReadSysfsFileString, EmptiesTheBufferForAFailedReadWithoutAMessage) {
    MakeDir(AddUsbEntry("1-1", {}) + "/serial");
    const ProcessResult child = RunInChild([] {
        char buffer[64] = "what was there before";
        UsbDevice::read_sysfs_file_string("1-1", "serial", buffer, sizeof(buffer));
        printf("'%s'", buffer);
    });
    EXPECT_EQ(child.out, "''");
    EXPECT_EQ(child.err, "");
}

TEST_F(ReadSysfsFileString, EmptiesTheBufferForAPathOf4096Characters) {
    // The first is what a cut path would name.
    AddUsbEntry("1-1", {{"speed", "480\n"}, {"speed2", "5000\n"}});
    char buffer[64] = "what was there before";
    const std::string fits = nameForPathOf(kLongestPath, "speed2");
    UsbDevice::read_sysfs_file_string(fits.c_str(), "speed2", buffer, sizeof(buffer));
    EXPECT_STREQ(buffer, "5000");
    const std::string tooLong = nameForPathOf(kLongestPath + 1, "speed2");
    UsbDevice::read_sysfs_file_string(tooLong.c_str(), "speed2", buffer, sizeof(buffer));
    EXPECT_STREQ(buffer, "");
}

// --- split -------------------------------------------------------------------------------------

TEST(Split, CutsAtEachSeparatorAndDropsNewlines) {
    const struct {
        std::string text;
        char separator;
        std::vector<std::string> items;
    } table[] = {
            {"/soc/usb@a600000/dwc3@a600000", '/', {"", "soc", "usb@a600000", "dwc3@a600000"}},
            {"/a/b", '/', {"", "a", "b"}},
            {"a//b", '/', {"a", "", "b"}},
            {"a/b/", '/', {"a", "b"}},
            {"a/b//", '/', {"a", "b", ""}},
            {"/", '/', {""}},
            {"a", '/', {"a"}},
            {"", '/', {}},
            {"a\nb@c", '@', {"ab", "c"}},
            {"\na\n\nb@c\n@\n", '@', {"ab", "c", ""}},
            {"\n", '@', {""}},
            {"a b\tc", ' ', {"a", "b\tc"}},
            {"a\nb", '\n', {"a", "b"}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(UsbDevice::split(row.text, row.separator), row.items);
    }
}

// --- All of them -------------------------------------------------------------------------------

using SysfsAccess = UsbDeviceTest;

TEST_F(SysfsAccess, LeavesErrnoToItsCallerWhateverTheLoggerDoes) {
    MakeDir(kValue);
    char buffer[4] = {};
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) { errno = EXDEV; });
    errno = 0;
    UsbDevice::read_sysfs_val(kMissing, buffer, sizeof(buffer));
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    UsbDevice::read_sysfs_val(kValue, buffer, sizeof(buffer));
    EXPECT_EQ(errno, EISDIR);
    errno = 0;
    UsbDevice::write_sysfs_val(kMissing, "host", 4);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    UsbDevice::write_sysfs_val("/dev/full", "host", 4);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(SysfsAccess, KeepsNoDescriptor) {
    MakeDir(AddUsbEntry("1-1", {{"value", "1\n"}, {"empty", ""}}) + "/directory");
    const size_t before = EntriesOf("/proc/self/fd").size();
    char buffer[4] = {};
    for (const std::string attribute : {"value", "empty", "directory", "missing"}) {
        const std::string path = std::string(kUsbDevices) + "/1-1/" + attribute;
        UsbDevice::read_sysfs_val(path.c_str(), buffer, sizeof(buffer));
        UsbDevice::write_sysfs_val(path.c_str(), "1", 1);
        UsbDevice::write_sysfs_val(path.c_str(), "", 0);
        UsbDevice::read_sysfs_file_int("1-1", attribute.c_str(), 10);
        UsbDevice::read_sysfs_file_string("1-1", attribute.c_str(), buffer, sizeof(buffer));
    }
    EXPECT_EQ(EntriesOf("/proc/self/fd").size(), before);
}

}  // namespace android::kus::test
