// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The observer in a thread of the test, on a scratch directory with the kernel's real events.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/observer_thread.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"

namespace android::kus::test {

namespace {

namespace fs = std::filesystem;

using android::base::unique_fd;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

using Lines = std::vector<LogLine>;

constexpr char kModeFile[] = "/sys/devices/platform/soc/c200000.hsusb/mode";

// None ends with a line feed: a copy does.
constexpr char kDefaultConfig[] = "<usbconfig mode=\"default\">\n</usbconfig>";
constexpr char kBlacklistConfig[] =
        "<usbconfig mode=\"blacklist\"><vid vendorid=\"7\"/></usbconfig>";
constexpr char kEmptyWhitelist[] = "<usbconfig mode=\"whitelist\"/>";
constexpr char kBadMode[] = "<usbconfig mode=\"none\"/>";
constexpr char kNoMode[] = "<usbconfig/>";

const LogLine kWatching = Info("registered successfully file observer");
const LogLine kNotWatching =
        Error("-1 < 0 Could not register INotify for/data/system/usbdeviceconfig");
const LogLine kParsing = Info("Admin usb_device_config.xml config file call parsing");
const LogLine kParsed = Info("Parsing status xml_parse_status 1");
const LogLine kNotParsed = Info("Parsing status xml_parse_status 0");
const LogLine kTaking = Info("Parsing success, so update status file and create backup");
const LogLine kRestoring = Info("Parsing failure, copying backup file content");
const LogLine kCopied = Info("Usb Device config file copied successfully..!!");
const LogLine kReset = Info("usb_host_reset entered:");
const LogLine kInterrupted = Info("(errno == EINTR)");

LogLine closed(const std::string& path) {
    return Info("CLOSE_WRITE event triggered on filename " + path);
}

LogLine reported(const std::string& text) {
    return Info("updateErrorFile called with error message : " + text);
}

LogLine source(const std::string& path) {
    return Info(" USB xml src path is " + path);
}

LogLine target(const std::string& path) {
    return Info("USB xml dest path is " + path);
}

LogLine unreadable(const std::string& why) {
    return Info("Could not get read event, " + why);
}

std::string inDirectory(const std::string& name) {
    return std::string(configDirPath) + "/" + name;
}

Lines operator+(Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

unique_fd opened(const std::string& path, int flags) {
    unique_fd fd(open(path.c_str(), flags | O_CLOEXEC, 0600));
    CHECK(fd != -1) << path;
    return fd;
}

void openAndClose(const std::string& path, int flags) {
    opened(path, flags);
}

void append(const std::string& path, const std::string& text) {
    CHECK(android::base::WriteStringToFd(text, opened(path, O_WRONLY | O_APPEND)));
}

class ObserverTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ResetRules();
        ResetFiles();
        Remove("/data/elsewhere");
        MakeDir(configDirPath);
    }

    void TearDown() override { observer_.Stop(); }

    /** Runs the observer until it has told how its set-up went. */
    void Start(const LogLine& setUp = kWatching) {
        observer_.Start();
        ASSERT_TRUE(log.WaitFor(setUp));
        observer_.FindDescriptor();
    }

    std::optional<void*> End(const unique_fd& file) { return observer_.End(file); }

    /**
     * All lines so far: the observer has seen what was done to the directory before the call. Not
     * what it did itself meanwhile: wait for a line of that first.
     */
    Lines Handled() {
        const std::string path = inDirectory("marker" + std::to_string(++markers_));
        WriteFile(path, "");
        EXPECT_TRUE(log.WaitFor(closed(path)));
        Lines lines = log.Take();
        EXPECT_EQ(closed(path), lines.back());
        lines.pop_back();
        return lines;
    }

    /** Writes a good file and returns what the observer says until it is through with it. */
    Lines TakeGood(const std::string& content) {
        WriteFile(configFilePath, content);
        EXPECT_TRUE(log.WaitFor(closed(backupFilePath)));
        return Handled();
    }

    /** The same with a bad file, for a backup that is good. */
    Lines TakeBad(const std::string& content) {
        WriteFile(configFilePath, content);
        EXPECT_TRUE(log.WaitFor(kParsed));
        return Handled();
    }

    int Events() const { return observer_.Descriptor(); }
    pthread_t Thread() { return observer_.Handle(); }

    LogCapture log;

  private:
    ObserverThread observer_;
    int markers_ = 0;
};

// What the observer says of a good file of one line, and of the files that it wrote then.
Lines goodRound(const std::string& line, const Lines& parser) {
    return Lines({closed(configFilePath), kParsing}) + parser +
           Lines({kParsed, kTaking, reported("SUCCESS"), source(configFilePath),
                  target(backupFilePath), Info(line), kCopied, kReset, closed(statusFilePath),
                  closed(backupFilePath)});
}

const Lines kDefaultRound =
        Lines({closed(configFilePath), kParsing, Info("attribute--default"), kParsed, kTaking,
               reported("SUCCESS"), source(configFilePath), target(backupFilePath),
               Info("<usbconfig mode=\"default\">"), Info("</usbconfig>"), kCopied, kReset,
               closed(statusFilePath), closed(backupFilePath)});

// --- Set-up ------------------------------------------------------------------------------------

using SetUpOfObserver = ObserverTest;

TEST_F(SetUpOfObserver, SaysThatItWatches) {
    Start();
    EXPECT_THAT(Handled(), ElementsAre(kWatching));
}

TEST_F(SetUpOfObserver, WatchesTheDirectoryForAllEvents) {
    Start();
    const std::string info = ReadFile("/proc/self/fdinfo/" + std::to_string(Events()));
    struct stat directory {};
    ASSERT_EQ(0, stat(configDirPath, &directory));
    char inode[32];
    ASSERT_LT(0, snprintf(inode, sizeof(inode), " ino:%lx ",
                          static_cast<unsigned long>(directory.st_ino)));
    ASSERT_THAT(info, HasSubstr("inotify wd:"));
    EXPECT_EQ(info.find("inotify wd:"), info.rfind("inotify wd:"));
    EXPECT_THAT(info, HasSubstr(inode));
    EXPECT_THAT(info, HasSubstr(" mask:fff "));
}

TEST_F(SetUpOfObserver, GivesTheDescriptorNoFlags) {
    Start();
    EXPECT_EQ(0, fcntl(Events(), F_GETFD));
    EXPECT_EQ(0, fcntl(Events(), F_GETFL) & (O_NONBLOCK | O_ASYNC));
}

TEST_F(SetUpOfObserver, LeavesFilesThatAreThereAlone) {
    WriteFile(configFilePath, kBadMode);
    WriteFile(backupFilePath, kDefaultConfig);
    Start();
    EXPECT_THAT(Handled(), ElementsAre(kWatching));
    EXPECT_EQ(kBadMode, ReadFile(configFilePath));
    EXPECT_FALSE(Exists(statusFilePath));
}

TEST_F(SetUpOfObserver, GoesOnWithoutTheDirectory) {
    Remove(configDirPath);
    Start(kNotWatching);
    // Too late: nothing watches it.
    WriteFile(configFilePath, kDefaultConfig);
    EXPECT_EQ(std::optional<void*>(nullptr), End(opened("/dev/null", O_WRONLY)));
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("No directory"), kNotWatching, unreadable("Bad file descriptor")));
    EXPECT_FALSE(Exists(statusFilePath));
}

// A file can be watched, but its events carry no name.
TEST_F(SetUpOfObserver, GoesOnWithAFileInThePlaceOfTheDirectory) {
    Remove(configDirPath);
    WriteFile(configDirPath, "");
    Start();
    WriteFile(configDirPath, "text");
    EXPECT_EQ(std::optional<void*>(nullptr), End(opened("/dev/null", O_WRONLY)));
    EXPECT_THAT(log.Lines(),
                ElementsAre(Info("No directory"), kWatching, unreadable("Bad file descriptor")));
}

TEST_F(SetUpOfObserver, FollowsALinkToTheDirectory) {
    Remove(configDirPath);
    MakeDir("/data/elsewhere");
    MakeLink(configDirPath, "/data/elsewhere");
    Start();
    EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(Lines({kWatching}) + kDefaultRound));
}

// Without a descriptor nothing can be read, and the observer ends at once, on this thread.
TEST_F(SetUpOfObserver, EndsWhenThereIsNoDescriptorLeft) {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    void* result = this;
    result = KUsbService::registerFileObserver(nullptr);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_EQ(nullptr, result);
    EXPECT_THAT(log.Lines(), ElementsAre(kNotWatching, unreadable("Bad file descriptor")));
}

// --- Reading -----------------------------------------------------------------------------------

using Reading = ObserverTest;

TEST_F(Reading, GoesOnAfterAnInterruption) {
    Start();
    SetHandler(SIGUSR1, 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    // A signal that comes between two reads interrupts none.
    while (log.CountOf(kInterrupted) < 3 && std::chrono::steady_clock::now() < deadline) {
        ASSERT_EQ(0, pthread_kill(Thread(), SIGUSR1));
    }
    const Lines lines = TakeGood(kDefaultConfig);
    const auto interruptions = std::count(lines.begin(), lines.end(), kInterrupted);
    EXPECT_LE(3, interruptions);
    EXPECT_THAT(lines, ElementsAreArray(Lines({kWatching}) + Lines(interruptions, kInterrupted) +
                                        kDefaultRound));
}

TEST_F(Reading, EndsTheObserverWhenItFails) {
    const std::vector<std::pair<const char*, int>> files = {{"/dev/null", O_WRONLY},
                                                            {configDirPath, O_DIRECTORY}};
    const std::vector<std::string> reasons = {"Bad file descriptor", "Is a directory"};
    for (size_t i = 0; i < files.size(); ++i) {
        SCOPED_TRACE(reasons[i]);
        log.Take();
        Start();
        EXPECT_EQ(std::optional<void*>(nullptr), End(opened(files[i].first, files[i].second)));
        EXPECT_THAT(log.Lines(), ElementsAre(kWatching, unreadable(reasons[i])));
    }
}

TEST_F(Reading, EndsTheObserverWhenThereIsLessThanAnEvent) {
    for (const size_t size : {0, 1, 15}) {
        SCOPED_TRACE(size);
        log.Take();
        Start();
        const unique_fd file(memfd_create("events", MFD_CLOEXEC));
        ASSERT_TRUE(android::base::WriteStringToFd(std::string(size, '\0'), file));
        ASSERT_EQ(0, lseek(file, 0, SEEK_SET));
        EXPECT_EQ(std::optional<void*>(nullptr), End(file));
        // No call failed.
        EXPECT_THAT(log.Lines(), ElementsAre(kWatching, unreadable("Success")));
    }
}

TEST_F(Reading, LeavesTheProcessRunningWithoutAnObserver) {
    Start();
    End(opened("/dev/null", O_WRONLY));
    log.Take();
    WriteFile(configFilePath, kDefaultConfig);
    EXPECT_FALSE(Exists(statusFilePath));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// --- Events, as the kernel would hand them over ------------------------------------------------

std::string event(int watch, uint32_t mask, const std::string& name) {
    inotify_event head = {};
    head.wd = watch;
    head.mask = mask;
    // The kernel pads a name with zeros, at least one, to a multiple of the head's size.
    head.len = name.empty() ? 0 : (name.size() / sizeof(head) + 1) * sizeof(head);
    std::string bytes(sizeof(head) + head.len, '\0');
    memcpy(bytes.data(), &head, sizeof(head));
    memcpy(bytes.data() + sizeof(head), name.data(), name.size());
    return bytes;
}

// The loop on this thread, fed with events of our own. Each buffer is one read.
class EventLoop : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        Start();
        const std::string info = ReadFile("/proc/self/fdinfo/" + std::to_string(Events()));
        const size_t watch = info.find("wd:");
        ASSERT_NE(std::string::npos, watch);
        watch_ = std::stoi(info.substr(watch + 3), nullptr, 16);
        End(opened("/dev/null", O_WRONLY));
        log.Take();
    }

    /** What the loop says of these buffers, without its last line. */
    Lines Feed(const std::vector<std::string>& buffers) {
        int ends[2];
        CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
        const unique_fd reader(ends[0]);
        {
            const unique_fd writer(ends[1]);
            for (const std::string& buffer : buffers) {
                CHECK(write(writer, buffer.data(), buffer.size()) ==
                      static_cast<ssize_t>(buffer.size()));
            }
        }
        CHECK(dup2(reader, Events()) != -1);
        KUsbService::readFileChangeEvent();
        Lines lines = log.Take();
        EXPECT_EQ(unreadable("Success"), lines.back());
        lines.pop_back();
        return lines;
    }

    std::string Event(const std::string& name, uint32_t mask = IN_CLOSE_WRITE) const {
        return event(watch_, mask, name);
    }

    int watch_ = -1;
};

TEST_F(EventLoop, LooksForTheCloseAmongOtherBits) {
    EXPECT_THAT(Feed({Event("a", IN_CLOSE_WRITE), Event("b", IN_ALL_EVENTS),
                      Event("c", IN_CLOSE_WRITE | IN_MODIFY), Event("d", IN_ISDIR | IN_CLOSE)}),
                ElementsAre(closed(inDirectory("a")), closed(inDirectory("b")),
                            closed(inDirectory("c")), closed(inDirectory("d"))));
}

TEST_F(EventLoop, SkipsEventsWithoutTheClose) {
    WriteFile(configFilePath, kDefaultConfig);
    for (uint32_t mask = 1; mask != 0; mask <<= 1) {
        if (mask == IN_CLOSE_WRITE) continue;
        SCOPED_TRACE(mask);
        EXPECT_THAT(Feed({Event("usb_device_config.xml", mask)}), IsEmpty());
    }
    EXPECT_THAT(Feed({Event("usb_device_config.xml", ~uint32_t{IN_CLOSE_WRITE})}), IsEmpty());
}

TEST_F(EventLoop, SkipsEventsWithoutAName) {
    EXPECT_THAT(Feed({Event("", IN_CLOSE_WRITE), Event("", IN_ALL_EVENTS)}), IsEmpty());
}

TEST_F(EventLoop, TakesANameOfZerosAlone) {
    EXPECT_THAT(Feed({Event(std::string(16, '\0'))}), ElementsAre(closed(inDirectory(""))));
}

TEST_F(EventLoop, ReadsNoNameBeyondTheBuffer) {
    const std::string cut = Event(std::string(40, 'n')).substr(0, 30);
    EXPECT_THAT(Feed({cut}), ElementsAre(closed(inDirectory(std::string(14, 'n')))));
}

TEST_F(EventLoop, SkipsEventsOfOtherWatches) {
    WriteFile(configFilePath, kDefaultConfig);
    for (const int watch : {watch_ + 1, watch_ - 1, 0, -1, INT_MAX}) {
        SCOPED_TRACE(watch);
        EXPECT_THAT(Feed({event(watch, IN_CLOSE_WRITE, "usb_device_config.xml")}), IsEmpty());
    }
}

TEST_F(EventLoop, FindsEachEventOfABuffer) {
    const std::string skipped = Event("", IN_ATTRIB) + Event("x", IN_OPEN) +
                                event(watch_ + 1, IN_CLOSE_WRITE, "y") +
                                event(-1, IN_Q_OVERFLOW, "");
    const std::string fifteen(15, 'e');
    const std::string sixteen(16, 'f');
    EXPECT_THAT(Feed({skipped + Event("a") + skipped + Event(fifteen) + Event(sixteen) + Event("b"),
                      Event("c")}),
                ElementsAre(closed(inDirectory("a")), closed(inDirectory(fifteen)),
                            closed(inDirectory(sixteen)), closed(inDirectory("b")),
                            closed(inDirectory("c"))));
}

TEST_F(EventLoop, HandlesTheFileInTheMiddleOfABuffer) {
    WriteFile(configFilePath, kDefaultConfig);
    const Lines lines = Feed({Event("a") + Event("usb_device_config.xml") + Event("b")});
    ASSERT_LT(3U, lines.size());
    EXPECT_EQ(closed(inDirectory("a")), lines[0]);
    EXPECT_EQ(closed(configFilePath), lines[1]);
    EXPECT_EQ(kParsing, lines[2]);
    EXPECT_EQ(kReset, lines[lines.size() - 2]);
    EXPECT_EQ(closed(inDirectory("b")), lines.back());
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
}

TEST_F(EventLoop, ReadsUpTo512BytesAtOnce) {
    const std::string name(255, 'n');
    std::string buffer = Event(name);
    Lines expected = {closed(inDirectory(name))};
    for (const char* shortName :
         {"short name of the event 1", "short name of the event 2", "short name of the event 3",
          "short name of the event 4", "short name of the event 5"}) {
        buffer += Event(shortName);
        expected.push_back(closed(inDirectory(shortName)));
    }
    ASSERT_EQ(512U, buffer.size());
    EXPECT_THAT(Feed({buffer}), ElementsAreArray(expected));
    // What does not fit is lost here; the kernel would keep it for the next read.
    EXPECT_THAT(Feed({buffer + Event("last")}), ElementsAreArray(expected));
}

TEST_F(EventLoop, StopsAtLessThanAnEvent) {
    const std::string half = Event("usb_device_config.xml").substr(0, 15);
    EXPECT_THAT(Feed({Event("a") + half, Event("b")}),
                ElementsAre(closed(inDirectory("a")), closed(inDirectory("b"))));
}

// --- Which files count -------------------------------------------------------------------------

class Watching : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        WriteFile(configFilePath, kDefaultConfig);
        Start();
        log.Take();
    }

    void ExpectUnapplied() {
        EXPECT_FALSE(Exists(statusFilePath));
        EXPECT_FALSE(Exists(backupFilePath));
    }
};

TEST_F(Watching, ParsesNoOtherFile) {
    for (const char* name :
         {"usb_device_config.xm", "usb_device_config.xml2", "usb_device_config.xml.bak",
          "Usb_device_config.xml", "USB_DEVICE_CONFIG.XML", " usb_device_config.xml",
          "usb_device_config.xml ", ".usb_device_config.xml", "usb_device_config.xml~", "xml",
          "usb_device_config_backup.xml", "status.txt", "a"}) {
        SCOPED_TRACE(name);
        WriteFile(inDirectory(name), kDefaultConfig);
        EXPECT_THAT(Handled(), ElementsAre(closed(inDirectory(name))));
    }
    for (const char* name : {"status.txt", "usb_device_config_backup.xml"}) {
        EXPECT_EQ(kDefaultConfig, ReadFile(inDirectory(name)));
    }
}

TEST_F(Watching, IgnoresAFileThatIsOnlyRead) {
    openAndClose(configFilePath, O_RDONLY);
    ReadFile(configFilePath);
    EXPECT_THAT(Handled(), IsEmpty());
    ExpectUnapplied();
}

TEST_F(Watching, IgnoresWhatClosesNoFile) {
    WriteFile("/data/elsewhere/rules.xml", kBlacklistConfig);
    // In this order: renamed into place, its mode, a cut, a link, renamed away, made, gone.
    ASSERT_EQ(0, rename("/data/elsewhere/rules.xml", configFilePath));
    ASSERT_EQ(0, chmod(configFilePath, 0644));
    ASSERT_EQ(0, truncate(configFilePath, 5));
    ASSERT_EQ(0, link(configFilePath, inDirectory("link").c_str()));
    ASSERT_EQ(0, rename(configFilePath, inDirectory("renamed").c_str()));
    ASSERT_EQ(0, rename(inDirectory("link").c_str(), configFilePath));
    MakeDir(inDirectory("directory"));
    Remove(configFilePath);
    EXPECT_THAT(Handled(), IsEmpty());
    ExpectUnapplied();
}

TEST_F(Watching, IgnoresAFileThatIsStillOpen) {
    const unique_fd file = opened(configFilePath, O_WRONLY | O_TRUNC);
    ASSERT_TRUE(android::base::WriteStringToFd(kDefaultConfig, file));
    EXPECT_THAT(Handled(), IsEmpty());
    ExpectUnapplied();
}

TEST_F(Watching, IgnoresTheSameNameElsewhere) {
    WriteFile("/data/elsewhere/usb_device_config.xml", kDefaultConfig);
    WriteFile(inDirectory("directory/usb_device_config.xml"), kDefaultConfig);
    EXPECT_THAT(Handled(), IsEmpty());
    ExpectUnapplied();
}

// As another watch on the same descriptor would show it.
TEST_F(Watching, IgnoresTheSameNameInAnotherWatchedDirectory) {
    MakeDir("/data/elsewhere");
    ASSERT_NE(-1, inotify_add_watch(Events(), "/data/elsewhere", IN_ALL_EVENTS));
    WriteFile("/data/elsewhere/usb_device_config.xml", kDefaultConfig);
    EXPECT_THAT(Handled(), IsEmpty());
    ExpectUnapplied();
}

TEST_F(Watching, TakesAFileThatWasOpenedToWrite) {
    for (const int flags : {O_WRONLY, O_RDWR, O_WRONLY | O_APPEND}) {
        SCOPED_TRACE(flags);
        openAndClose(configFilePath, flags);
        ASSERT_TRUE(log.WaitFor(closed(backupFilePath)));
        EXPECT_THAT(Handled(), ElementsAreArray(kDefaultRound));
    }
}

TEST_F(Watching, TakesAFileThatGrew) {
    append(configFilePath, "<!-- more -->");
    ASSERT_TRUE(log.WaitFor(closed(backupFilePath)));
    EXPECT_THAT(Handled(), Contains(Info("</usbconfig><!-- more -->")));
}

TEST_F(Watching, TakesANewFile) {
    Remove(configFilePath);
    EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(kDefaultRound));
}

// --- A good file -------------------------------------------------------------------------------

class GoodFile : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        Start();
        log.Take();
    }
};

TEST_F(GoodFile, IsReportedBackedUpAndApplied) {
    WriteFile(statusFilePath, "INVALID MODE and more");
    WriteFile(backupFilePath, "older rules that are longer than those of today\n");
    Handled();
    log.Take();
    EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(kDefaultRound));
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
    EXPECT_EQ(std::string(kDefaultConfig) + "\n", ReadFile(backupFilePath));
    EXPECT_EQ(kDefaultConfig, ReadFile(configFilePath));
    EXPECT_EQ("SUCCESS", errorMessage);
}

TEST_F(GoodFile, PutsItsRulesInForce) {
    TakeGood(kBlacklistConfig);
    EXPECT_EQ("blacklist", configMode);
    EXPECT_EQ((VendorRules{{7, -1}}), vidPidMap);
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(GoodFile, MakesTheErrorOfTheLastParseASuccess) {
    errorMessage = "INVALID MODE";
    TakeGood(kDefaultConfig);
    EXPECT_EQ("SUCCESS", errorMessage);
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
}

// The parser writes the last error for such a file, and the observer writes over it.
TEST_F(GoodFile, IsASuccessAlsoWithoutRules) {
    errorMessage = "INVALID MODE";
    WriteFile(configFilePath, kEmptyWhitelist);
    // The parser's status file is closed, too.
    ASSERT_TRUE(log.WaitFor(closed(backupFilePath)));
    EXPECT_THAT(
            Handled(),
            ElementsAre(closed(configFilePath), kParsing, Info("attribute--whitelist"),
                        Info("no element, blocking all device"), reported("INVALID MODE"), kParsed,
                        kTaking, reported("SUCCESS"), source(configFilePath),
                        target(backupFilePath), Info(kEmptyWhitelist), kCopied, kReset,
                        closed(statusFilePath), closed(statusFilePath), closed(backupFilePath)));
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
}

TEST_F(GoodFile, FlipsTheControllersOnce) {
    WriteFile(kModeFile, "host\n");
    const std::string path = kModeFile;
    Lines expected = kDefaultRound;
    expected.insert(expected.end() - 2,
                    {Info("usb_host_reset mode set to none for syspath: " + path),
                     Info("usb_host_reset mode set to host for syspath: " + path)});
    EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(expected));
    EXPECT_EQ("host", ReadFile(kModeFile).substr(0, 4));
}

TEST_F(GoodFile, IsTakenEachTime) {
    for (int times = 0; times < 3; ++times) {
        EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(kDefaultRound));
    }
    EXPECT_THAT(TakeGood(kBlacklistConfig),
                ElementsAreArray(goodRound(
                        kBlacklistConfig,
                        {Info("attribute--blacklist"),
                         Info(" before while first child element name vid"), Info("vendorid--7"),
                         Info("isValidNumber s--7"), Info("pid value print in else--")})));
    EXPECT_EQ(std::string(kBlacklistConfig) + "\n", ReadFile(backupFilePath));
}

TEST_F(GoodFile, IsAppliedAlsoWhenItCannotBeReported) {
    MakeDir(statusFilePath);
    MakeDir(backupFilePath);
    WriteFile(configFilePath, kEmptyWhitelist);
    ASSERT_TRUE(log.WaitFor(kReset));
    EXPECT_THAT(Handled(),
                ElementsAre(closed(configFilePath), kParsing, Info("attribute--whitelist"),
                            Info("no element, blocking all device"), reported("SUCCESS"), kParsed,
                            kTaking, reported("SUCCESS"), source(configFilePath),
                            target(backupFilePath), Error("ODM error in dest file open"), kCopied,
                            kReset));
}

// --- A bad file --------------------------------------------------------------------------------

// What the observer says of kBadMode, and of the copy of a backup of one line.
Lines badRound(const std::string& backup, const Lines& parser) {
    return Lines({closed(configFilePath), kParsing, Info("attribute--none"),
                  reported("INVALID MODE"), Error("Invalid mode is set in xml--INVALID MODE"),
                  kNotParsed, kRestoring, source(backupFilePath), target(configFilePath),
                  Info(backup), kCopied, closed(statusFilePath), closed(configFilePath),
                  kParsing}) +
           parser + Lines({kParsed});
}

const Lines kBlacklistParser = {
        Info("attribute--blacklist"), Info(" before while first child element name vid"),
        Info("vendorid--7"), Info("isValidNumber s--7"), Info("pid value print in else--")};

class BadFile : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        WriteFile(backupFilePath, kBlacklistConfig);
        WriteFile(kModeFile, "host\n");
        Start();
        log.Take();
    }
};

TEST_F(BadFile, IsReplacedByTheBackupWhichIsOnlyParsed) {
    EXPECT_THAT(TakeBad(kBadMode), ElementsAreArray(badRound(kBlacklistConfig, kBlacklistParser)));
    EXPECT_EQ(std::string(kBlacklistConfig) + "\n", ReadFile(configFilePath));
    EXPECT_EQ("INVALID MODE", ReadFile(statusFilePath));
    // It would have got the line feed of the file.
    EXPECT_EQ(kBlacklistConfig, ReadFile(backupFilePath));
    EXPECT_EQ("host\n", ReadFile(kModeFile));
    EXPECT_EQ("SUCCESS", errorMessage);
    EXPECT_EQ("blacklist", configMode);
    EXPECT_EQ((VendorRules{{7, -1}}), vidPidMap);
    EXPECT_TRUE(xml_parse_status);
}

TEST_F(BadFile, IsReplacedEachTime) {
    for (int times = 0; times < 3; ++times) {
        EXPECT_THAT(TakeBad(kBadMode),
                    ElementsAreArray(badRound(kBlacklistConfig, kBlacklistParser)));
    }
}

TEST_F(BadFile, MayBeAnyKindOfBadFile) {
    struct Case {
        const char* content;
        const char* status;
    };
    const std::vector<Case> cases = {
            {"", "Error=XML_ERROR_EMPTY_DOCUMENT "},
            {"<usbconfig", "Error=XML_ERROR_"},
            {"<config/>", "INVALID ROOT ELEMENT : config"},
            {kNoMode, "MODE NOT PRESENT"},
            {"<usbconfig mode=\"whitelist\"><class>3</class></usbconfig>", "INVALID CLASS VALUE:3"},
            {"<usbconfig mode=\"whitelist\"><a/></usbconfig>", "INVALID TAG:a"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.content);
        const Lines lines = TakeBad(c.content);
        EXPECT_THAT(lines, Contains(kRestoring));
        EXPECT_THAT(lines, Not(Contains(kTaking)));
        EXPECT_THAT(lines, Not(Contains(kReset)));
        EXPECT_THAT(ReadFile(statusFilePath), HasSubstr(c.status));
        EXPECT_EQ(std::string(kBlacklistConfig) + "\n", ReadFile(configFilePath));
        EXPECT_EQ("SUCCESS", errorMessage);
    }
}

// A file that cannot be loaded leaves the last error as it was; the absorbed parse does not.
TEST_F(BadFile, EndsAsASuccessWhateverTheErrorWasBefore) {
    errorMessage = "MODE NOT PRESENT";
    TakeBad("<usbconfig");
    EXPECT_EQ("SUCCESS", errorMessage);
    EXPECT_THAT(ReadFile(statusFilePath), HasSubstr("Error=XML_ERROR_"));
}

// The parser itself reports the last error of such a backup.
TEST_F(BadFile, LeavesTheReportOfABackupWithoutRulesToItsParser) {
    WriteFile(backupFilePath, kEmptyWhitelist);
    Handled();
    WriteFile(configFilePath, kBadMode);
    ASSERT_TRUE(log.WaitFor(closed(statusFilePath), 2));
    EXPECT_THAT(Handled(),
                ElementsAreArray(badRound(kEmptyWhitelist, {Info("attribute--whitelist"),
                                                            Info("no element, blocking all device"),
                                                            reported("INVALID MODE")}) +
                                 Lines({closed(statusFilePath)})));
    EXPECT_EQ("INVALID MODE", ReadFile(statusFilePath));
    EXPECT_EQ("SUCCESS", errorMessage);
}

TEST_F(BadFile, DoesNotKeepTheNextGoodOneFromBeingTaken) {
    Remove("/sys/devices");
    TakeBad(kBadMode);
    EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(kDefaultRound));
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
    EXPECT_EQ(std::string(kDefaultConfig) + "\n", ReadFile(backupFilePath));
    TakeBad(kBadMode);
    EXPECT_EQ(std::string(kDefaultConfig) + "\n", ReadFile(configFilePath));
    EXPECT_EQ("INVALID MODE", ReadFile(statusFilePath));
    EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(kDefaultRound));
}

// The next parse that succeeds is absorbed, whatever it has parsed: here a file that was put into
// the place of the copy while the copy was made.
TEST_F(BadFile, AbsorbsTheNextGoodFileWhateverItIs) {
    WriteFile("/data/elsewhere/rules.xml", kDefaultConfig);
    Remove(backupFilePath);
    ASSERT_EQ(0, mkfifo(backupFilePath, 0600));
    WriteFile(configFilePath, kBadMode);
    {
        // Waits until the observer reads.
        const unique_fd backup = opened(backupFilePath, O_WRONLY);
        ASSERT_TRUE(android::base::WriteStringToFd("<usbconfig mode=\"whitelist\">\n", backup));
        // By now the file is open to be overwritten.
        ASSERT_TRUE(log.WaitFor(Info("<usbconfig mode=\"whitelist\">")));
        ASSERT_EQ(0, rename("/data/elsewhere/rules.xml", configFilePath));
        ASSERT_TRUE(android::base::WriteStringToFd("</usbconfig>\n", backup));
    }
    ASSERT_TRUE(log.WaitFor(kParsed));
    const Lines lines = Handled();
    EXPECT_THAT(lines, Not(Contains(kTaking)));
    EXPECT_THAT(lines, Not(Contains(kReset)));
    EXPECT_EQ("default", configMode);
    EXPECT_EQ(kDefaultConfig, ReadFile(configFilePath));
    EXPECT_EQ("INVALID MODE", ReadFile(statusFilePath));
    EXPECT_EQ("SUCCESS", errorMessage);
    // Absorbed once.
    Remove(backupFilePath);
    WriteFile(configFilePath, kDefaultConfig);
    EXPECT_TRUE(log.WaitFor(closed(backupFilePath)));
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
}

// --- A backup that is no better ----------------------------------------------------------------

class BadBackup : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        WriteFile(kModeFile, "host\n");
    }

    // The file is overwritten and parsed again and again, until the backup is a good one; that is
    // absorbed as ever.
    void ExpectCycle(const Lines& round) {
        WriteFile(configFilePath, kNoMode);
        ASSERT_TRUE(log.WaitFor(kRestoring, 5));
        WriteFile(backupFilePath, kDefaultConfig);
        ASSERT_TRUE(log.WaitFor(kParsed));
        const Lines lines = Handled();
        // The second round, behind the one of the bad file itself.
        const auto first = std::find(lines.begin(), lines.end(), kCopied);
        ASSERT_LT(static_cast<ptrdiff_t>(round.size()), lines.end() - first);
        EXPECT_EQ(round, Lines(first + 1, first + 1 + static_cast<ptrdiff_t>(round.size())));
        EXPECT_THAT(lines, Not(Contains(kTaking)));
        EXPECT_THAT(lines, Not(Contains(kReset)));
        EXPECT_EQ("host\n", ReadFile(kModeFile));
        EXPECT_EQ(std::string(kDefaultConfig) + "\n", ReadFile(configFilePath));
        EXPECT_EQ("SUCCESS", errorMessage);
        Remove("/sys/devices");
        EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(kDefaultRound));
    }
};

TEST_F(BadBackup, IsCopiedAndParsedWithoutEnd) {
    WriteFile(backupFilePath, kBadMode);
    Start();
    ExpectCycle({closed(statusFilePath), closed(configFilePath), kParsing, Info("attribute--none"),
                 reported("INVALID MODE"), Error("Invalid mode is set in xml--INVALID MODE"),
                 kNotParsed, kRestoring, source(backupFilePath), target(configFilePath),
                 Info(kBadMode), kCopied});
}

TEST_F(BadBackup, MayBeMissingWhichEmptiesTheFile) {
    Start();
    const std::string error = "Error=XML_ERROR_EMPTY_DOCUMENT ErrorID=13 (0xd) Line number=0";
    ExpectCycle({closed(statusFilePath), closed(configFilePath), kParsing,
                 Error("xmlinput --Found error 13 name: XML_ERROR_EMPTY_DOCUMENT"),
                 Error("xmlinput -- error string " + error), reported(error), kNotParsed,
                 kRestoring, source(backupFilePath), target(configFilePath),
                 Error("USB device error is source file open"), kCopied});
}

// --- Many events -------------------------------------------------------------------------------

// A controller's mode file that is a pipe holds the observer in its reset until somebody writes.
class ManyEvents : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        Start();
        MakeDir(fs::path(kModeFile).parent_path());
        ASSERT_EQ(0, mkfifo(kModeFile, 0600));
        WriteFile(configFilePath, kDefaultConfig);
        ASSERT_TRUE(log.WaitFor(kReset));
        log.Take();
    }

    void Release() {
        const unique_fd mode = opened(kModeFile, O_WRONLY);
        // Gone before the observer goes on, which would be held by it again.
        Remove(kModeFile);
        ASSERT_TRUE(android::base::WriteStringToFd("peripheral\n", mode));
    }
};

TEST_F(ManyEvents, AreAllSeenInTheirOrder) {
    // Closed by the observer itself before it was held.
    Lines expected = {closed(statusFilePath), closed(backupFilePath)};
    for (int i = 0; i < 60; ++i) {
        // One name of the greatest length fills more than half a buffer.
        const size_t length = i % 3 == 0 ? NAME_MAX : 10 + static_cast<size_t>(i) % 40;
        const std::string name = std::to_string(100 + i) + std::string(length - 3, 'n');
        WriteFile(inDirectory(name), "text");
        expected.push_back(closed(inDirectory(name)));
    }
    Release();
    EXPECT_THAT(Handled(), ElementsAreArray(expected));
}

TEST_F(ManyEvents, OfTheFileAreEachParsed) {
    constexpr int kWrites = 20;
    for (int i = 0; i < kWrites; ++i) {
        WriteFile(configFilePath, kDefaultConfig);
        WriteFile(inDirectory(std::string(NAME_MAX, 'a')), "text");
    }
    Release();
    ASSERT_TRUE(log.WaitFor(closed(backupFilePath), 1 + kWrites));
    const Lines lines = Handled();
    EXPECT_EQ(kWrites, std::count(lines.begin(), lines.end(), closed(configFilePath)));
    EXPECT_EQ(kWrites, std::count(lines.begin(), lines.end(), kTaking));
    EXPECT_EQ(kWrites, std::count(lines.begin(), lines.end(), kReset));
    EXPECT_EQ(kWrites, std::count(lines.begin(), lines.end(),
                                  closed(inDirectory(std::string(NAME_MAX, 'a')))));
}

// Each event is of the file as it is when the event is looked at.
TEST_F(ManyEvents, ShowTheLastContentOnly) {
    WriteFile(configFilePath, kBadMode);
    WriteFile(configFilePath, kBlacklistConfig);
    Release();
    ASSERT_TRUE(log.WaitFor(closed(backupFilePath), 3));
    EXPECT_THAT(Handled(), Not(Contains(kRestoring)));
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
    EXPECT_EQ(std::string(kBlacklistConfig) + "\n", ReadFile(backupFilePath));
}

// --- The thread --------------------------------------------------------------------------------

using ObserverThread = ObserverTest;

TEST_F(ObserverThread, IsStartedAndFollowsTheFile) {
    KUsbService::registerFileObserverViaThread();
    EXPECT_EQ(1, log.CountOf(Info("registerFileObserverViaThread result--0")));
    ASSERT_TRUE(log.WaitFor(kWatching));
    EXPECT_EQ(2U, log.Lines().size());
    log.Take();
    EXPECT_THAT(TakeGood(kDefaultConfig), ElementsAreArray(kDefaultRound));

    const std::vector<int> descriptors = InotifyDescriptors();
    ASSERT_EQ(1U, descriptors.size());
    ASSERT_NE(-1, dup2(opened("/dev/null", O_WRONLY), descriptors[0]));
    // An event ends the read in which it waits.
    openAndClose(configDirPath, O_DIRECTORY);
    EXPECT_TRUE(log.WaitFor(unreadable("Bad file descriptor")));
    close(descriptors[0]);
}

// A stack that no address space has room for.
class HugeStacks {
  public:
    HugeStacks() {
        CHECK(pthread_getattr_default_np(&before_) == 0);
        pthread_attr_t huge;
        CHECK(pthread_getattr_default_np(&huge) == 0);
        CHECK(pthread_attr_setstacksize(&huge, size_t{1} << 60) == 0);
        CHECK(pthread_setattr_default_np(&huge) == 0);
        pthread_attr_destroy(&huge);
    }

    ~HugeStacks() {
        CHECK(pthread_setattr_default_np(&before_) == 0);
        pthread_attr_destroy(&before_);
    }

    HugeStacks(const HugeStacks&) = delete;
    HugeStacks& operator=(const HugeStacks&) = delete;

  private:
    pthread_attr_t before_ = {};
};

TEST_F(ObserverThread, IsMissingWhenItCannotBeStarted) {
    {
        const HugeStacks noRoom;
        KUsbService::registerFileObserverViaThread();
    }
    WriteFile(configFilePath, kDefaultConfig);
    EXPECT_THAT(log.Lines(), ElementsAre(Info("registerFileObserverViaThread result--" +
                                              std::to_string(EAGAIN))));
    EXPECT_THAT(InotifyDescriptors(), IsEmpty());
}

// --- The end of the daemon ----------------------------------------------------------------------

using StoppedObserver = ObserverTest;

TEST_F(StoppedObserver, TakesOverNoFurtherFile) {
    const ProcessResult result = RunInChild([] {
        KUsbService::registerFileObserverViaThread();
        WaitForLogLine("I registered successfully file observer");
        KUsbService::stopFileObserver();
        WriteFile(configFilePath, kDefaultConfig);
        WriteFile(inDirectory("marker"), "");
        WaitForLogLine("I " + closed(inDirectory("marker")).text);
    });
    EXPECT_THAT(result.err, AllOf(HasSubstr("I " + closed(configFilePath).text + "\n"),
                                  Not(HasSubstr(kParsing.text))));
    EXPECT_FALSE(Exists(statusFilePath));
    EXPECT_FALSE(Exists(backupFilePath));
}

}  // namespace

}  // namespace android::kus::test
