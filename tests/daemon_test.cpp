// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/tracer.h"

namespace android::kus::test {

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;

constexpr char kConfigDir[] = "/data/system/usbdeviceconfig";
constexpr char kConfigFile[] = "/data/system/usbdeviceconfig/usb_device_config.xml";
constexpr char kBackupFile[] = "/data/system/usbdeviceconfig/usb_device_config_backup.xml";
constexpr char kStatusFile[] = "/data/system/usbdeviceconfig/status.txt";
constexpr char kStartupTasks[] = "run-startup-tasks";
constexpr char kDefaultConfig[] =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<usbconfig mode=\"default\">\n"
        "</usbconfig>";

// One line of standard error with what differs from run to run left out: "I daemon.cpp] text" for
// a line of the logger, the line as it is for any other.
std::string withoutTimeAndPlace(const std::string& line) {
    static const std::regex logLine(
            "kusd ([VDIWEF]) \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d +\\d+ +\\d+ ([^:]+):\\d+\\] "
            "([\\s\\S]*)");
    std::smatch parts;
    if (!std::regex_match(line, parts, logLine)) return line;
    return parts.str(1) + " " + parts.str(2) + "] " + parts.str(3);
}

std::vector<std::string> logOf(const ProcessResult& result) {
    std::vector<std::string> lines;
    std::istringstream err(result.err);
    for (std::string line; std::getline(err, line);) lines.push_back(withoutTimeAndPlace(line));
    return lines;
}

ProcessResult runDaemon(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {KUSD_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command);
}

auto isStartLine(int argc) {
    return MatchesRegex("I daemon.cpp\\] kus main called with argc: " + std::to_string(argc) +
                        "and argv: 0x[0-9a-f]+");
}

constexpr char kTaskLine[] = "I daemon.cpp] kus main called with run-startup-tasks";
constexpr char kNoDirectoryLine[] = "I daemon.cpp] no Directory exist";
constexpr char kDirectoryLine[] = "I daemon.cpp] Directory exist, creating file";

// A setting of a signal's handler, as the C library asks the kernel for it.
struct HandlerSetting {
    int signum;
    // The kernel's own structure.
    struct {
        uint64_t handler;
        uint64_t flags;
        uint64_t restorer;
        uint64_t mask;
    } action;
    // Where the setting before is to be put.
    uint64_t oldAction;
};

// The settings of handlers that a run makes, in their order.
std::vector<HandlerSetting> handlersOf(const std::vector<std::string>& arguments) {
    // The C library's own, for the return from a handler.
    constexpr uint64_t kRestorer = 0x04000000;
    std::vector<HandlerSetting> settings;
    std::vector<std::string> command = {KUSD_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    RunTraced(command, [&](const SystemCall& call) {
        if (call.number != SYS_rt_sigaction || call.arguments[1] == 0) return;
        HandlerSetting setting = {static_cast<int>(call.arguments[0]), {}, call.arguments[2]};
        ReadMemory(call.pid, call.arguments[1], &setting.action, sizeof(setting.action));
        setting.action.flags &= ~kRestorer;
        settings.push_back(setting);
    });
    return settings;
}

// Set to what, if the call sets the alarm. Newer architectures know only the more general call.
std::optional<uint64_t> secondsOfAlarm(const SystemCall& call) {
#ifdef SYS_alarm
    if (call.number == SYS_alarm) return call.arguments[0];
#endif
    if (call.number != SYS_setitimer || call.arguments[0] != ITIMER_REAL) return std::nullopt;
    itimerval timer;
    ReadMemory(call.pid, call.arguments[1], &timer, sizeof(timer));
    return timer.it_value.tv_sec;
}

// What a call does to a file below kConfigDir, or to the directory; nothing for other calls.
std::optional<std::string> fileCall(const SystemCall& call) {
    const auto below = [](const std::string& path) -> std::optional<std::string> {
        if (path.rfind(kConfigDir, 0) != 0) return std::nullopt;
        const size_t slash = std::string(kConfigDir).size();
        return path.size() <= slash + 1 ? "directory" : path.substr(slash + 1);
    };
    if (call.number == SYS_openat) {
        const std::optional<std::string> name = below(ReadText(call.pid, call.arguments[1]));
        if (!name) return std::nullopt;
        return "open " + *name;
    }
    const std::map<uint64_t, std::string> verbs = {{SYS_ftruncate, "empty "},
                                                   {SYS_write, "write "},
                                                   {SYS_fsync, "flush "},
                                                   {SYS_close, "close "}};
    const auto verb = verbs.find(call.number);
    if (verb == verbs.end()) return std::nullopt;
    std::string path;
    const std::string link = "/proc/" + std::to_string(call.pid) + "/fd/" +
                             std::to_string(static_cast<int>(call.arguments[0]));
    if (!android::base::Readlink(link, &path)) return std::nullopt;
    const std::optional<std::string> name = below(path);
    return name ? std::make_optional(verb->second + *name) : std::nullopt;
}

// What a run does to the files below kConfigDir, in its order.
std::vector<std::string> fileCallsOf(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {KUSD_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<std::string> calls;
    RunTraced(command, [&](const SystemCall& call) {
        const std::optional<std::string> text = fileCall(call);
        if (text) calls.push_back(*text);
    });
    return calls;
}

using Calls = std::vector<std::string>;

// The calls by which a file that is open comes to the disk, its name included.
Calls flushing(const std::string& name) {
    return {"flush " + name, "open directory", "flush directory", "close directory"};
}

Calls operator+(Calls first, const Calls& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The rewriting of a file that is open.
Calls replacing(const std::string& name) {
    return Calls{"empty " + name, "write " + name} + flushing(name);
}

// The source is on disk before the destination is emptied.
Calls copying(const std::string& source, const std::string& destination) {
    return Calls{"open " + source, "open " + destination} + flushing(source) +
           replacing(destination) + Calls{"close " + destination, "close " + source};
}

class Daemon : public ::testing::Test {
  protected:
    void SetUp() override {
        Remove(kConfigDir);
        Remove("/data/elsewhere");
    }

    // --- What a run of the start-up task may say, and that it ends with status 0.

    static void ExpectTaskWithDirectory(const ProcessResult& result, int argc = 2) {
        ExpectCleanEnd(result);
        EXPECT_THAT(logOf(result), ElementsAre(isStartLine(argc), kTaskLine, kDirectoryLine));
    }

    static void ExpectTaskWithoutDirectory(const ProcessResult& result) {
        ExpectCleanEnd(result);
        EXPECT_THAT(logOf(result), ElementsAre(isStartLine(2), kTaskLine, kNoDirectoryLine));
    }

  private:
    static void ExpectCleanEnd(const ProcessResult& result) {
        EXPECT_EQ(0, result.status);
        EXPECT_EQ(0, result.signal);
        EXPECT_EQ("", result.out);
    }
};

// --- Start-up task -----------------------------------------------------------------------------

using StartupTask = Daemon;

TEST_F(StartupTask, WritesTheDefaultConfiguration) {
    MakeDir(kConfigDir);

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, WritesNothingElse) {
    MakeDir(kConfigDir);

    runDaemon({kStartupTasks});

    EXPECT_FALSE(Exists(kStatusFile));
    EXPECT_FALSE(Exists(kBackupFile));
}

TEST_F(StartupTask, IgnoresFurtherArguments) {
    MakeDir(kConfigDir);

    ExpectTaskWithDirectory(runDaemon({kStartupTasks, "RUN", "--help"}), 4);

    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, LeavesTheModeOfTheFileToTheCreationMask) {
    const std::vector<std::pair<mode_t, mode_t>> masks = {
            {0, 0666}, {022, 0644}, {027, 0640}, {077, 0600}};
    for (const auto& [mask, mode] : masks) {
        SCOPED_TRACE(mask);
        Remove(kConfigDir);
        MakeDir(kConfigDir);

        const mode_t before = umask(mask);
        const ProcessResult result = runDaemon({kStartupTasks});
        umask(before);

        ExpectTaskWithDirectory(result);
        struct stat info {};
        ASSERT_EQ(0, stat(kConfigFile, &info));
        EXPECT_EQ(S_IFREG | mode, info.st_mode);
    }
}

TEST_F(StartupTask, LeavesAnExistingFileUnchanged) {
    for (const std::string content : {"<usbconfig mode=\"whitelist\"/>\n", "no XML\r\n", ""}) {
        SCOPED_TRACE(content);
        WriteFile(kConfigFile, content);

        ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

        EXPECT_EQ(content, ReadFile(kConfigFile));
    }
}

TEST_F(StartupTask, LeavesItsOwnFileUnchangedTheSecondTime) {
    MakeDir(kConfigDir);
    runDaemon({kStartupTasks});
    struct stat first {};
    ASSERT_EQ(0, stat(kConfigFile, &first));

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    struct stat second {};
    ASSERT_EQ(0, stat(kConfigFile, &second));
    EXPECT_EQ(first.st_mtim.tv_sec, second.st_mtim.tv_sec);
    EXPECT_EQ(first.st_mtim.tv_nsec, second.st_mtim.tv_nsec);
    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, LeavesADirectoryInThePlaceOfTheFileAlone) {
    MakeDir(kConfigFile);

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    struct stat info {};
    ASSERT_EQ(0, stat(kConfigFile, &info));
    EXPECT_TRUE(S_ISDIR(info.st_mode));
}

// Opening it would wait for a reader.
TEST_F(StartupTask, LeavesAFifoInThePlaceOfTheFileAlone) {
    MakeDir(kConfigDir);
    ASSERT_EQ(0, mkfifo(kConfigFile, 0600));

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    struct stat info {};
    ASSERT_EQ(0, stat(kConfigFile, &info));
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
}

TEST_F(StartupTask, LeavesTheTargetOfALinkInThePlaceOfTheFileAlone) {
    WriteFile("/data/elsewhere/rules.xml", "rules");
    MakeLink(kConfigFile, "/data/elsewhere/rules.xml");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ("rules", ReadFile("/data/elsewhere/rules.xml"));
}

TEST_F(StartupTask, WritesThroughALinkToAMissingFile) {
    MakeDir("/data/elsewhere");
    MakeLink(kConfigFile, "/data/elsewhere/rules.xml");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ(kDefaultConfig, ReadFile("/data/elsewhere/rules.xml"));
}

TEST_F(StartupTask, SaysNothingOfAFileThatCannotBeOpened) {
    MakeLink(kConfigFile, "/data/elsewhere/missing/rules.xml");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_FALSE(Exists(kConfigFile));
    EXPECT_FALSE(Exists("/data/elsewhere"));
}

TEST_F(StartupTask, NeverCreatesTheDirectory) {
    ExpectTaskWithoutDirectory(runDaemon({kStartupTasks}));

    EXPECT_FALSE(Exists(kConfigDir));
}

TEST_F(StartupTask, TakesAFileInThePlaceOfTheDirectoryAsNone) {
    WriteFile(kConfigDir, "a file");

    ExpectTaskWithoutDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ("a file", ReadFile(kConfigDir));
}

TEST_F(StartupTask, TakesALinkToNoDirectoryAsNone) {
    MakeLink(kConfigDir, "/data/elsewhere");

    ExpectTaskWithoutDirectory(runDaemon({kStartupTasks}));

    EXPECT_FALSE(Exists("/data/elsewhere"));
}

TEST_F(StartupTask, TakesALinkToADirectoryAsOne) {
    MakeDir("/data/elsewhere");
    MakeLink(kConfigDir, "/data/elsewhere");

    ExpectTaskWithDirectory(runDaemon({kStartupTasks}));

    EXPECT_EQ(kDefaultConfig, ReadFile("/data/elsewhere/usb_device_config.xml"));
}

TEST_F(StartupTask, LeavesSignalsAlone) {
    MakeDir(kConfigDir);
    EXPECT_THAT(handlersOf({kStartupTasks}), IsEmpty());
    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, StartsNoThread) {
    MakeDir(kConfigDir);
    std::set<uint64_t> calls;

    RunTraced({KUSD_PATH, kStartupTasks},
              [&](const SystemCall& call) { calls.insert(call.number); });

    EXPECT_THAT(calls, AllOf(Contains(SYS_exit_group), Not(Contains(SYS_clone)),
                             Not(Contains(SYS_clone3))));
    EXPECT_EQ(kDefaultConfig, ReadFile(kConfigFile));
}

TEST_F(StartupTask, HasTheRulesOnDiskAtItsEnd) {
    MakeDir(kConfigDir);
    const std::string file = "usb_device_config.xml";
    EXPECT_EQ(Calls{"open " + file} + replacing(file) + Calls{"close " + file},
              fileCallsOf({kStartupTasks}));
}

// --- Service mode ------------------------------------------------------------------------------

// The sandbox has no binder driver, without which the library aborts a process that wants one: so
// the service mode ends behind the parse of the rules, and the start-up task never got there.
class ServiceMode : public Daemon {
  protected:
    static void ExpectServiceMode(const std::vector<std::string>& arguments) {
        const ProcessResult result = runDaemon(arguments);

        EXPECT_EQ(SIGABRT, result.status);
        EXPECT_EQ(0, result.signal);
        EXPECT_EQ("", result.out);
        EXPECT_THAT(result.err, HasSubstr("Binder driver '/dev/binder' could not be opened."));
        const std::vector<std::string> log = logOf(result);
        ASSERT_THAT(log, SizeIs(Gt(3u)));
        EXPECT_THAT(log[0], isStartLine(static_cast<int>(arguments.size()) + 1));
        EXPECT_EQ("I ku_service.cpp]  parsing register createmap called", log[1]);
        EXPECT_THAT(log, Contains("I ku_service.cpp] Register called in ku_service"));
        EXPECT_THAT(log, AllOf(Not(Contains(kTaskLine)), Not(Contains(kNoDirectoryLine)),
                               Not(Contains(kDirectoryLine))));
    }
};

TEST_F(ServiceMode, IsStartedByNoOrAnyOtherFirstArgument) {
    const std::vector<std::vector<std::string>> commands = {
            {},
            {"run-startup-tasks "},
            {" run-startup-tasks"},
            {"RUN-STARTUP-TASKS"},
            {"Run-Startup-Tasks"},
            {"run-startup-task"},
            {"run-startup-tasks2"},
            {"--run-startup-tasks"},
            {""},
            {"serve", kStartupTasks},
            {"", kStartupTasks},
    };
    for (const std::vector<std::string>& arguments : commands) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        Remove(kConfigDir);
        MakeDir(kConfigDir);

        ExpectServiceMode(arguments);

        // No default rules, but the restore of a backup that is not there.
        EXPECT_EQ("", ReadFile(kConfigFile));
        EXPECT_FALSE(Exists(kBackupFile));
    }
}

TEST_F(ServiceMode, NeverCreatesTheDirectory) {
    ExpectServiceMode({});

    EXPECT_FALSE(Exists(kConfigDir));
}

TEST_F(ServiceMode, HandlesTwoSignalsAndIgnoresOne) {
    std::vector<HandlerSetting> settings = handlersOf({});

    ASSERT_EQ(3U, settings.size());
    EXPECT_EQ(SIGPIPE, settings[2].signum);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(SIG_IGN), settings[2].action.handler);
    settings.pop_back();
    EXPECT_EQ(SIGSEGV, settings[0].signum);
    EXPECT_EQ(SIGABRT, settings[1].signum);
    EXPECT_EQ(settings[0].action.handler, settings[1].action.handler);
    for (const HandlerSetting& setting : settings) {
        EXPECT_EQ(SA_SIGINFO, setting.action.flags);
        EXPECT_EQ(0U, setting.action.mask);
        EXPECT_EQ(0U, setting.oldAction);
    }
}

// --- Crash handler -----------------------------------------------------------------------------

constexpr char kCrashStatus[] = "Unable to apply the USB Admin config rules";
constexpr char kBackup[] =
        "<usbconfig mode=\"whitelist\">\r\n"
        "  <class>USB_CLASS_MASS_STORAGE</class>\n"
        "\n"
        "</usbconfig>";
// As a copy has it.
constexpr char kRestored[] =
        "<usbconfig mode=\"whitelist\">\r\n"
        "  <class>USB_CLASS_MASS_STORAGE</class>\n"
        "\n"
        "</usbconfig>\n";
const std::vector<std::string> kRestoredLines = {
        "I util.cpp] <usbconfig mode=\"whitelist\">\r",
        "I util.cpp]   <class>USB_CLASS_MASS_STORAGE</class>", "I util.cpp] ",
        "I util.cpp] </usbconfig>"};

constexpr char kTraceLine[] = "I daemon.cpp] Stack Trace";

std::string handlerLine(int signum) {
    return "I daemon.cpp] Segmentation faultsignum" + std::to_string(signum);
}

bool isFrame(const std::string& line) {
    return line.rfind("E daemon.cpp] #", 0) == 0;
}

class CrashHandler : public Daemon {
  protected:
    // A run that ended in the handler.
    struct Crash {
        // From the handler's first line to its last.
        std::vector<std::string> log;
        // The frames in their order, the innermost first.
        std::vector<std::string> frames;
    };

    static Crash CrashOf(const ProcessResult& result, int signum) {
        EXPECT_EQ(signum, result.status);
        EXPECT_EQ(0, result.signal);
        const std::vector<std::string> lines = logOf(result);
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), handlerLine(signum)));
        Crash crash;
        crash.log.assign(std::find(lines.begin(), lines.end(), handlerLine(signum)), lines.end());
        std::copy_if(crash.log.begin(), crash.log.end(), std::back_inserter(crash.frames), isFrame);
        return crash;
    }

    // The handler's lines in front of the frames.
    static std::vector<std::string> LogOfRestore(int signum,
                                                 const std::vector<std::string>& copied) {
        std::vector<std::string> log = {
                handlerLine(signum),
                // The line end of a text is a line of its own.
                "I daemon.cpp] ",
                "I util.cpp]  USB xml src path is " + std::string(kBackupFile),
                "I util.cpp] USB xml dest path is " + std::string(kConfigFile),
        };
        log.insert(log.end(), copied.begin(), copied.end());
        log.insert(log.end(), {"I util.cpp] Usb Device config file copied successfully..!!",
                               "I util.cpp] updateErrorFile called with error message : " +
                                       std::string(kCrashStatus),
                               kTraceLine, "I daemon.cpp] "});
        return log;
    }

    // All that the handler says, its frames being these numbers in this order.
    static void ExpectLog(const Crash& crash, int signum, const std::vector<std::string>& copied) {
        std::vector<std::string> log = crash.log;
        ASSERT_LT(crash.frames.size(), log.size());
        log.resize(log.size() - crash.frames.size());
        EXPECT_THAT(log, ElementsAreArray(LogOfRestore(signum, copied)));
        ASSERT_LT(3U, crash.frames.size());
        for (size_t i = 0; i < crash.frames.size(); ++i) {
            std::string number = std::to_string(i);
            if (number.size() == 1) number.insert(0, "0");
            EXPECT_THAT(crash.frames[i],
                        MatchesRegex("E daemon.cpp\\] #" + number + " pc [0-9a-f]+ .*"));
        }
        // The unwinder's own is the first: none is left out.
        EXPECT_THAT(crash.frames[1], HasSubstr("::signalHandler("));
        // Nothing lies between the frames.
        EXPECT_THAT(
                std::vector<std::string>(crash.log.end() - crash.frames.size(), crash.log.end()),
                ElementsAreArray(crash.frames));
    }

    // The functions stand in the stack in this order, the innermost first.
    static void ExpectStack(const Crash& crash, const std::vector<std::string>& functions) {
        auto frame = crash.frames.begin();
        for (const std::string& function : functions) {
            frame = std::find_if(frame, crash.frames.end(), [&](const std::string& text) {
                return text.find("(" + function) != std::string::npos;
            });
            ASSERT_NE(frame, crash.frames.end())
                    << function << " in " << ::testing::PrintToString(crash.frames);
        }
    }

    static void ExpectRestored() {
        EXPECT_EQ(kRestored, ReadFile(kConfigFile));
        EXPECT_EQ(kBackup, ReadFile(kBackupFile));
        EXPECT_EQ(kCrashStatus, ReadFile(kStatusFile));
    }
};

const std::vector<std::string> kParseInRegister = {
        "android::kus::(anonymous namespace)::signalHandler(", "android::kus::Util::createMapFrom",
        "android::kus::KUsbService::Register()", "main"};

TEST_F(CrashHandler, AnswersADocumentWithoutElements) {
    WriteFile(kBackupFile, kBackup);
    for (const char* content : {"<!-- no element -->", "<?xml version=\"1.0\"?>\n"}) {
        SCOPED_TRACE(content);
        WriteFile(kConfigFile, content);
        WriteFile(kStatusFile, "SUCCESS, and a longer text than that of a crash is");

        const Crash crash = CrashOf(runDaemon({}), SIGSEGV);

        ExpectLog(crash, SIGSEGV, kRestoredLines);
        ExpectStack(crash, kParseInRegister);
        ExpectRestored();
    }
}

TEST_F(CrashHandler, AnswersAnIdBeyond32Bits) {
    WriteFile(kBackupFile, kBackup);
    for (const char* rule :
         {"<vid vendorid=\"2147483648\"/>", "<vid vendorid=\"1\"><pid>99999999999</pid></vid>"}) {
        SCOPED_TRACE(rule);
        WriteFile(kConfigFile,
                  std::string("<usbconfig mode=\"blacklist\">") + rule + "</usbconfig>");

        const ProcessResult result = runDaemon({});

        EXPECT_THAT(result.err, HasSubstr("std::out_of_range"));
        const Crash crash = CrashOf(result, SIGABRT);
        ExpectLog(crash, SIGABRT, kRestoredLines);
        ExpectStack(crash, kParseInRegister);
        ExpectRestored();
    }
}

TEST_F(CrashHandler, AnswersAFatalLog) {
    WriteFile(kBackupFile, kBackup);
    WriteFile(kConfigFile, "no XML");

    const ProcessResult result = runDaemon({});

    EXPECT_THAT(result.err, HasSubstr("Binder driver '/dev/binder' could not be opened."));
    const Crash crash = CrashOf(result, SIGABRT);
    ExpectLog(crash, SIGABRT, kRestoredLines);
    ExpectStack(crash,
                {"android::kus::(anonymous namespace)::signalHandler(", "abort",
                 "android::ProcessState::self()", "android::kus::KUsbService::Register()", "main"});
    ExpectRestored();
}

// The rules that are in force are its own backup by then, and come back as a copy of the copy.
TEST_F(CrashHandler, RestoresAlsoAFileThatParsed) {
    WriteFile(kConfigFile, "<usbconfig mode=\"default\"/>");
    WriteFile(kBackupFile, "older rules");

    const Crash crash = CrashOf(runDaemon({}), SIGABRT);

    ExpectLog(crash, SIGABRT, {"I util.cpp] <usbconfig mode=\"default\"/>"});
    EXPECT_EQ("<usbconfig mode=\"default\"/>\n", ReadFile(kConfigFile));
    EXPECT_EQ("<usbconfig mode=\"default\"/>\n", ReadFile(kBackupFile));
    EXPECT_EQ(kCrashStatus, ReadFile(kStatusFile));
}

TEST_F(CrashHandler, EmptiesTheFileWhenThereIsNoBackup) {
    WriteFile(kConfigFile, "<!-- no element -->");

    const Crash crash = CrashOf(runDaemon({}), SIGSEGV);

    ExpectLog(crash, SIGSEGV, {"E util.cpp] USB device error is source file open"});
    ExpectStack(crash, kParseInRegister);
    EXPECT_EQ("", ReadFile(kConfigFile));
    EXPECT_FALSE(Exists(kBackupFile));
    EXPECT_EQ(kCrashStatus, ReadFile(kStatusFile));
}

TEST_F(CrashHandler, GoesOnWhenNothingCanBeWritten) {
    WriteFile(kBackupFile, kBackup);
    MakeDir(kConfigFile);
    MakeDir(kStatusFile);

    const Crash crash = CrashOf(runDaemon({}), SIGABRT);

    ExpectLog(crash, SIGABRT,
              std::vector<std::string>(4, "E util.cpp] ODM error in dest file open"));
    EXPECT_EQ(kBackup, ReadFile(kBackupFile));
}

TEST_F(CrashHandler, CreatesNothingWithoutTheDirectory) {
    const Crash crash = CrashOf(runDaemon({}), SIGABRT);

    ExpectLog(crash, SIGABRT, {"E util.cpp] USB device error is source file open"});
    EXPECT_FALSE(Exists(kConfigDir));
}

// The rules are on disk before the backup is emptied, and the backup before the rules are.
TEST_F(CrashHandler, AndTheStartBeforeItHaveEachFileOnDiskBeforeTheNext) {
    WriteFile(kConfigFile, "<usbconfig mode=\"default\"/>");
    const std::string file = "usb_device_config.xml";
    const std::string backup = "usb_device_config_backup.xml";
    // Nothing relies on it.
    const Calls status = {"open status.txt", "empty status.txt", "write status.txt",
                          "close status.txt"};
    // The sandbox has no binder: behind its start the process aborts.
    EXPECT_EQ(Calls({"open " + file, "close " + file}) + status + copying(file, backup) +
                      copying(backup, file) + status,
              fileCallsOf({}));
}

// One that waits for a lock of its own thread would wait for ever, and init with it.
TEST_F(CrashHandler, HasAnAlarmEndItShouldItHang) {
    WriteFile(kConfigFile, "<!-- no element -->");
    std::vector<uint64_t> alarms;

    RunTraced({KUSD_PATH}, [&](const SystemCall& call) {
        std::optional<uint64_t> seconds = secondsOfAlarm(call);
        if (seconds) alarms.push_back(*seconds);
    });

    EXPECT_THAT(alarms, ElementsAre(30));
}

// The unwinder knows its modules from the kernel's list of them, which it does not find here.
TEST_F(CrashHandler, GoesOnWhenTheStackCannotBeRead) {
    WriteFile(kConfigFile, "<!-- no element -->");
    WriteFile(kBackupFile, kBackup);
    bool inHandler = false;

    const ProcessResult result = RunTraced({KUSD_PATH}, [&](const SystemCall& call) {
        if (call.number != SYS_openat) return;
        const std::string path = ReadText(call.pid, call.arguments[1]);
        if (path == kStatusFile) inHandler = true;
        if (inHandler && path.find("/maps") != std::string::npos) {
            SpoilText(call.pid, call.arguments[1]);
        }
    });

    const Crash crash = CrashOf(result, SIGSEGV);
    EXPECT_THAT(crash.frames, IsEmpty());
    std::vector<std::string> expected = LogOfRestore(SIGSEGV, kRestoredLines);
    expected.insert(expected.end() - 2, "E daemon.cpp] signalHandler: Failed to unwind callstack.");
    EXPECT_THAT(crash.log, ElementsAreArray(expected));
    ExpectRestored();
}

// --- Signals from outside, while it reads its rules from a pipe that has none yet

class SignalledDaemon : public CrashHandler {
  protected:
    void SetUp() override {
        CrashHandler::SetUp();
        MakeDir(kConfigDir);
        ASSERT_EQ(0, mkfifo(kConfigFile, 0600));
        daemon_.emplace(std::vector<std::string>{KUSD_PATH});
        // Waits for its reader.
        rules_.reset(open(kConfigFile, O_WRONLY | O_CLOEXEC));
        ASSERT_NE(-1, rules_);
        ASSERT_TRUE(WaitsForRules());
        // What is restored is a file again.
        Remove(kConfigFile);
        WriteFile(kConfigFile, "rules");
        WriteFile(kBackupFile, kBackup);
        WriteFile(kStatusFile, "SUCCESS");
    }

    ProcessResult Signal(int signum) {
        EXPECT_EQ(0, kill(daemon_->pid(), signum));
        return daemon_->Wait();
    }

    // What the kernel knows of its signals, "SigCgt" or "SigIgn" or "SigBlk".
    uint64_t Signals(const std::string& name) const {
        const std::string status = ReadFile("/proc/" + std::to_string(daemon_->pid()) + "/status");
        const size_t at = status.find(name + ":\t");
        EXPECT_NE(std::string::npos, at);
        return std::stoull(status.substr(at + name.size() + 2, 16), nullptr, 16);
    }

  private:
    // A signal that came earlier could find it in an allocation, whose lock the handler would wait
    // for. The pipe is the only file that it reads by now, and nothing tells when it does.
    bool WaitsForRules() const {
        const std::string reading = std::to_string(SYS_read) + " ";
        const std::string path = "/proc/" + std::to_string(daemon_->pid()) + "/syscall";
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            if (ReadFile(path).rfind(reading, 0) == 0) return true;
            std::this_thread::yield();
        }
        return false;
    }

    std::optional<Process> daemon_;
    android::base::unique_fd rules_;
};

TEST_F(SignalledDaemon, HandlesTwoSignals) {
    EXPECT_EQ(uint64_t{1} << (SIGSEGV - 1) | uint64_t{1} << (SIGABRT - 1), Signals("SigCgt"));
    EXPECT_EQ(uint64_t{1} << (SIGPIPE - 1), Signals("SigIgn"));
    EXPECT_EQ(0U, Signals("SigBlk"));
}

TEST_F(SignalledDaemon, RestoresAndExitsOnASegmentationFault) {
    const Crash crash = CrashOf(Signal(SIGSEGV), SIGSEGV);

    ExpectLog(crash, SIGSEGV, kRestoredLines);
    ExpectStack(crash, kParseInRegister);
    ExpectRestored();
}

TEST_F(SignalledDaemon, RestoresAndExitsOnAnAbort) {
    const Crash crash = CrashOf(Signal(SIGABRT), SIGABRT);

    ExpectLog(crash, SIGABRT, kRestoredLines);
    ExpectStack(crash, kParseInRegister);
    ExpectRestored();
}

class OtherSignal : public SignalledDaemon, public ::testing::WithParamInterface<int> {};

TEST_P(OtherSignal, EndsItAsEver) {
    const ProcessResult result = Signal(GetParam());

    EXPECT_EQ(GetParam(), result.signal);
    EXPECT_EQ(-1, result.status);
    EXPECT_EQ("I ku_service.cpp]  parsing register createmap called", logOf(result).back());
    EXPECT_EQ("rules", ReadFile(kConfigFile));
    EXPECT_EQ("SUCCESS", ReadFile(kStatusFile));
}

INSTANTIATE_TEST_SUITE_P(Signals, OtherSignal,
                         ::testing::Values(SIGHUP, SIGINT, SIGQUIT, SIGILL, SIGTRAP, SIGBUS, SIGFPE,
                                           SIGUSR1, SIGUSR2, SIGALRM, SIGTERM, SIGSYS),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return "Number" + std::to_string(info.param);
                         });

}  // namespace

}  // namespace android::kus::test
