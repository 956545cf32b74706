// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Each start runs in a child process, because what it sets is there to stay: the service manager
// and the verbose-logging flag. The child's log lines come back in the order they were written.

#include <signal.h>
#include <stdio.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <binder/IServiceManager.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "tests/support/fake_callback.h"
#include "tests/support/process.h"
#include "tests/support/scratch_tree.h"
#include "tests/support/service_fixture.h"

namespace android::kus::test {

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::StartsWith;

using Lines = std::vector<std::string>;

constexpr char kBuildTypeProperty[] = "ro.build.type";

constexpr char kDefaultConfig[] = "<usbconfig mode=\"default\">\n</usbconfig>";
constexpr char kWhitelistConfig[] =
        "<usbconfig mode=\"whitelist\">\n"
        "  <class>USB_CLASS_MASS_STORAGE</class>\n"
        "</usbconfig>\n";
// Its second rule is none.
constexpr char kBrokenConfig[] =
        "<usbconfig mode=\"whitelist\">\n"
        "  <class>USB_CLASS_MASS_STORAGE</class>\n"
        "  <class>USB_CLASS_HID</class>\n"
        "</usbconfig>\n";

const std::string kAddService = "I addService kusbservice isolated:0 priority:8 interface:" +
                                std::string("android.kus.IKUsbService");

const std::string kRegistered = "I kus service Registered successfully";

// What the observer's thread says.
const std::string kWatching = "I registered successfully file observer";
const std::string kNoDirectory = "I No directory";
const std::string kNotWatching =
        "E -1 < 0 Could not register INotify for" + std::string(configDirPath);

// Logs what it is asked, so that it has its place among the daemon's own lines.
class FakeServiceManager : public IServiceManager {
  public:
    explicit FakeServiceManager(status_t answer) : answer_(answer) {}

    status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated,
                        int dumpPriority) override {
        LOG(INFO) << "addService " << String8(name).string() << " isolated:" << allowIsolated
                  << " priority:" << dumpPriority
                  << " interface:" << String8(service->getInterfaceDescriptor()).string();
        if (answer_ == OK) service_ = service;
        return answer_;
    }

    sp<IBinder> getService(const String16&) const override { return service_; }
    sp<IBinder> checkService(const String16&) const override { return service_; }
    sp<IBinder> waitForService(const String16&) override { return service_; }
    Vector<String16> listServices(int) override { return {}; }
    bool isDeclared(const String16&) override { return false; }

    KUsbService* Service() const { return static_cast<KUsbService*>(service_.get()); }

  protected:
    IBinder* onAsBinder() override { return nullptr; }

  private:
    const status_t answer_;
    sp<IBinder> service_;
};

Lines linesOf(const std::string& text) {
    Lines lines = android::base::Split(text, "\n");
    if (lines.back().empty()) lines.pop_back();
    return lines;
}

class RegisterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ResetRules();
        ResetFiles();
        MakeDir(configDirPath);
        // Verbose logging has tests of its own.
        SetProperty(kBuildTypeProperty, "user");
    }

    static ProcessResult Start(const std::function<void(KUsbService*)>& use = {},
                               status_t answer = OK) {
        return RunInChild([&] {
            const sp<FakeServiceManager> manager = new FakeServiceManager(answer);
            setDefaultServiceManager(manager);
            KUsbService::Register();
            WaitForLogLine(Exists(configDirPath) ? kWatching : kNotWatching);
            if (use) use(manager->Service());
        });
    }

    // The observer's lines come last, whichever thread was faster.
    static Lines LinesOf(const ProcessResult& child) {
        Lines lines = linesOf(child.err);
        std::stable_partition(std::find(lines.begin(), lines.end(), kRegistered), lines.end(),
                              [](const std::string& line) { return !IsObserversLine(line); });
        return lines;
    }

    static Lines StartLines() { return LinesOf(Start()); }

  private:
    static bool IsObserversLine(const std::string& line) {
        return line == kWatching || line == kNoDirectory || line == kNotWatching;
    }
};

Lines withSubstring(const std::string& part, const Lines& lines) {
    Lines found;
    for (const std::string& line : lines) {
        if (line.find(part) != std::string::npos) found.push_back(line);
    }
    return found;
}

// The lines from this one on; none when it is not there.
Lines from(const std::string& first, const Lines& lines) {
    return {std::find(lines.begin(), lines.end(), first), lines.end()};
}

// With what follows the parse, its report and the backup.
Lines withAdding(Lines lines, const Lines& observers = {kWatching}) {
    const Lines adding = {"I Register called in ku_service", kAddService, kRegistered,
                          "I registerFileObserverViaThread result--0"};
    lines.insert(lines.end(), adding.begin(), adding.end());
    lines.insert(lines.end(), observers.begin(), observers.end());
    return lines;
}

// What Util::updateErrorFile says of these.
constexpr char kStatusSuccess[] = "I updateErrorFile called with error message : SUCCESS";
constexpr char kStatusBadClass[] =
        "I updateErrorFile called with error message : INVALID CLASS VALUE:USB_CLASS_HID";

const std::string kCopySource = "I  USB xml src path is " + std::string(configFilePath);
const std::string kCopyTarget = "I USB xml dest path is " + std::string(backupFilePath);
const std::string kCopied = "I Usb Device config file copied successfully..!!";

// --- Steps -------------------------------------------------------------------------------------

TEST_F(RegisterTest, ParsesReportsBacksUpAndThenAddsTheService) {
    WriteFile(configFilePath, kDefaultConfig);
    const ProcessResult child = Start();
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(0, child.signal);
    EXPECT_THAT(LinesOf(child),
                ElementsAreArray(
                        withAdding({"I  parsing register createmap called", "I attribute--default",
                                    "I  updating error fle with success", kStatusSuccess,
                                    "I copying backup ", kCopySource, kCopyTarget,
                                    "I <usbconfig mode=\"default\">", "I </usbconfig>", kCopied})));
}

TEST_F(RegisterTest, AddsTheServiceOnce) {
    WriteFile(configFilePath, kDefaultConfig);
    const Lines lines = StartLines();
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                  return line.find("addService") != std::string::npos;
              }));
}

TEST_F(RegisterTest, LeavesTheObjectToTheServiceManager) {
    WriteFile(configFilePath, kDefaultConfig);
    const ProcessResult child = Start([](KUsbService* service) {
        std::vector<DeviceInfo> devices;
        service->getDeviceList(&devices);
        service->addDeviceList(DeviceInfo(), true, "");
        service->getDeviceList(&devices);
    });
    EXPECT_EQ(0, child.signal);
    EXPECT_THAT(linesOf(child.err),
                IsSupersetOf({"I getDeviceList--completeDeviceInfoList size0",
                              "I getDeviceList--completeDeviceInfoList size1"}));
}

TEST_F(RegisterTest, StartsWithAnEmptyRegistry) {
    WriteFile(configFilePath, kDefaultConfig);
    const ProcessResult child =
            Start([](KUsbService* service) { service->registerKusCallback(new FakeCallback()); });
    EXPECT_THAT(linesOf(child.err), Contains("E Size of callbacks at registerKusCallback 1"));
}

TEST_F(RegisterTest, PutsTheRulesInForce) {
    WriteFile(configFilePath, kWhitelistConfig);
    const ProcessResult child = Start([](KUsbService* service) {
        DeviceInfo info;
        info.deviceType = 1;
        bool result = false;
        info.interfaceClasses = {8};
        service->isDeviceAllowed(info, &result);
        info.interfaceClasses = {7};
        service->isDeviceAllowed(info, &result);
    });
    EXPECT_THAT(linesOf(child.err),
                IsSupersetOf({"I isDeviceAllowed res val:1", "I isDeviceAllowed res val:0"}));
}

// --- Status and backup -------------------------------------------------------------------------

TEST_F(RegisterTest, WritesSuccessAndTheBackup) {
    WriteFile(configFilePath, kDefaultConfig);
    WriteFile(statusFilePath, "INVALID MODE and a longer text");
    WriteFile(backupFilePath, "an older and much longer file than the one of this start\n");
    Start();
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
    EXPECT_EQ(std::string(kDefaultConfig) + "\n", ReadFile(backupFilePath));
    EXPECT_EQ(kDefaultConfig, ReadFile(configFilePath));
}

TEST_F(RegisterTest, WritesSuccessOverTheParsersOwnText) {
    errorMessage = "INVALID MODE";
    WriteFile(configFilePath, "<usbconfig mode=\"whitelist\"/>\n");
    const ProcessResult child = Start([](KUsbService*) { printf("%s", errorMessage.c_str()); });
    EXPECT_THAT(LinesOf(child),
                ElementsAreArray(withAdding(
                        {"I  parsing register createmap called", "I attribute--whitelist",
                         "I no element, blocking all device",
                         "I updateErrorFile called with error message : INVALID MODE",
                         "I  updating error fle with success", kStatusSuccess, "I copying backup ",
                         kCopySource, kCopyTarget, "I <usbconfig mode=\"whitelist\"/>", kCopied})));
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
    // The file is told of the success, the variable is not.
    EXPECT_EQ("INVALID MODE", child.out);
}

TEST_F(RegisterTest, GoesOnWhenStatusAndBackupCannotBeWritten) {
    WriteFile(configFilePath, kDefaultConfig);
    MakeDir(statusFilePath);
    MakeDir(backupFilePath);
    EXPECT_THAT(StartLines(),
                ElementsAreArray(withAdding(
                        {"I  parsing register createmap called", "I attribute--default",
                         "I  updating error fle with success", kStatusSuccess, "I copying backup ",
                         kCopySource, kCopyTarget, "E ODM error in dest file open",
                         "E ODM error in dest file open", kCopied})));
}

TEST_F(RegisterTest, LeavesStatusAndBackupToABrokenFilesParser) {
    WriteFile(configFilePath, kBrokenConfig);
    WriteFile(backupFilePath, kWhitelistConfig);
    EXPECT_THAT(StartLines(),
                ElementsAreArray(withAdding(
                        {"I  parsing register createmap called", "I attribute--whitelist",
                         "I  before while first child element name class",
                         "I class--USB_CLASS_MASS_STORAGE", "I class val--8",
                         "I class--USB_CLASS_HID", "I Found CLASS : 3 in restricted class list",
                         "E error in class val= INVALID CLASS VALUE:USB_CLASS_HID", kStatusBadClass,
                         "I  parsing failed"})));
    EXPECT_EQ("INVALID CLASS VALUE:USB_CLASS_HID", ReadFile(statusFilePath));
    EXPECT_EQ(kWhitelistConfig, ReadFile(backupFilePath));
    EXPECT_EQ(kBrokenConfig, ReadFile(configFilePath));
}

TEST_F(RegisterTest, MakesNoBackupOfABrokenFile) {
    WriteFile(configFilePath, kBrokenConfig);
    Start();
    EXPECT_FALSE(Exists(backupFilePath));
}

TEST_F(RegisterTest, ServesWithTheRulesBeforeTheBrokenOne) {
    WriteFile(configFilePath, kBrokenConfig);
    const ProcessResult child = Start([](KUsbService* service) {
        DeviceInfo info;
        info.deviceType = 1;
        info.interfaceClasses = {8};
        bool result = false;
        service->isDeviceAllowed(info, &result);
    });
    EXPECT_THAT(linesOf(child.err), Contains("I isDeviceAllowed res val:1"));
}

TEST_F(RegisterTest, ServesWithoutAConfigurationFile) {
    const Lines lines = StartLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("I  parsing register createmap called", lines[0]);
    EXPECT_THAT(from("I  parsing failed", lines),
                ElementsAreArray(withAdding({"I  parsing failed"})));
    EXPECT_THAT(lines, Not(Contains("I copying backup ")));
    EXPECT_THAT(ReadFile(statusFilePath), StartsWith("Error=XML_ERROR_FILE_NOT_FOUND "));
    EXPECT_FALSE(Exists(backupFilePath));
}

TEST_F(RegisterTest, ServesWithoutTheDirectory) {
    Remove(configDirPath);
    EXPECT_THAT(from("I  parsing failed", StartLines()),
                ElementsAreArray(withAdding({"I  parsing failed"}, {kNoDirectory, kNotWatching})));
    EXPECT_FALSE(Exists(configDirPath));
}

// --- The observer ------------------------------------------------------------------------------

TEST_F(RegisterTest, FollowsTheFileFromThenOn) {
    WriteFile(configFilePath, kBrokenConfig);
    const ProcessResult child = Start([](KUsbService* service) {
        WriteFile(configFilePath, kWhitelistConfig);
        WaitForLogLine("I usb_host_reset entered:");
        DeviceInfo info;
        info.deviceType = 1;
        info.interfaceClasses = {7};
        bool result = true;
        service->isDeviceAllowed(info, &result);
        printf("%d", result);
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ("0", child.out);
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
    EXPECT_EQ(kWhitelistConfig, ReadFile(backupFilePath));
}

// Its own writes at the start come before the watch.
TEST_F(RegisterTest, DoesNotTakeItsOwnWritesForNewFiles) {
    WriteFile(configFilePath, kDefaultConfig);
    const ProcessResult child = Start([](KUsbService*) {
        WriteFile(std::string(configDirPath) + "/marker", "");
        WaitForLogLine(
                "I CLOSE_WRITE event triggered on filename /data/system/usbdeviceconfig/"
                "marker");
    });
    EXPECT_EQ(1U, withSubstring("CLOSE_WRITE", linesOf(child.err)).size());
}

TEST_F(RegisterTest, StartsNoObserverForAServiceThatCannotBeAdded) {
    WriteFile(configFilePath, kDefaultConfig);
    EXPECT_THAT(linesOf(Start({}, PERMISSION_DENIED).err),
                Not(Contains(HasSubstr("registerFileObserverViaThread"))));
}

// --- A service manager that refuses ------------------------------------------------------------

TEST_F(RegisterTest, EndsTheProcessWhenTheServiceCannotBeAdded) {
    WriteFile(configFilePath, kDefaultConfig);
    for (const status_t answer : {status_t{PERMISSION_DENIED}, status_t{-129}, status_t{1}}) {
        SCOPED_TRACE(answer);
        const ProcessResult child = Start({}, answer);
        EXPECT_EQ(-1, child.status);
        EXPECT_EQ(SIGABRT, child.signal);
        EXPECT_THAT(from("I Register called in ku_service", linesOf(child.err)),
                    ElementsAre("I Register called in ku_service", kAddService,
                                "F Could not register KUS" + std::to_string(answer)));
    }
    // By then the rules have been reported and backed up.
    EXPECT_EQ("SUCCESS", ReadFile(statusFilePath));
    EXPECT_TRUE(Exists(backupFilePath));
}

// --- Verbose logging ---------------------------------------------------------------------------

// Makes every line that only verbose logging has. Prints, in registry order, of each client the
// addresses of binder, recipient and callback.
void useAllOperations(KUsbService* service) {
    std::vector<sp<FakeCallback>> clients = {new FakeCallback(), new FakeCallback()};
    std::sort(clients.begin(), clients.end(),
              [](const auto& a, const auto& b) { return std::less<IBinder*>()(a.get(), b.get()); });
    service->registerKusCallback(clients[1]);
    service->registerKusCallback(clients[0]);
    for (const sp<FakeCallback>& client : clients) {
        const sp<IBinder::DeathRecipient> recipient = client->Recipients()[0];
        printf("%s\n%s\n%s\n", BinderAddress(client).c_str(), Address(recipient.get()).c_str(),
               CallbackAddress(client).c_str());
    }
    service->addDeviceList(DeviceInfo(), true, "");
    service->updateDeviceList(DeviceInfo(), 0);
    service->unregisterKusCallback(clients[0]);
    service->unregisterKusCallback(clients[1]);
}

class VerboseLogging : public RegisterTest {
  protected:
    void SetUp() override {
        RegisterTest::SetUp();
        WriteFile(configFilePath, kDefaultConfig);
    }

    static void SetBuildType(const std::optional<std::string>& type) {
        ClearProperties();
        if (type.has_value()) SetProperty(kBuildTypeProperty, *type);
    }
};

TEST_F(VerboseLogging, IsOnForUserdebugBuildsAndWithoutATypeOnly) {
    struct Case {
        std::optional<std::string> type;
        bool verbose;
    };
    const std::vector<Case> cases = {
            {"userdebug", true},   {std::nullopt, true}, {"", true},
            {"user", false},       {"eng", false},       {"userdebug ", false},
            {" userdebug", false}, {"Userdebug", false}, {"userdebug2", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type.value_or("(none)"));
        SetBuildType(c.type);
        const Lines lines = linesOf(Start(useAllOperations).err);
        const size_t times = c.verbose ? 1 : 0;
        EXPECT_EQ(3 * times, withSubstring("registerKusCallback--: iterating", lines).size());
        EXPECT_EQ(1 * times, withSubstring("unregisterKusCallback--: before", lines).size());
        EXPECT_EQ(2 * times, withSubstring("of onDeviceAdded", lines).size());
        EXPECT_EQ(2 * times, withSubstring("client onDeviceRemoved", lines).size());
    }
}

TEST_F(VerboseLogging, IsOffBeforeTheService) {
    SetBuildType("userdebug");
    const ProcessResult child = RunInChild([] {
        const sp<KUsbService> service = new KUsbService();
        useAllOperations(service.get());
    });
    EXPECT_THAT(linesOf(child.err), Each(Not(HasSubstr("--: "))));
}

TEST_F(VerboseLogging, ShowsTheRegistryAndEachClientThatIsTold) {
    SetBuildType("userdebug");
    const ProcessResult child = Start(useAllOperations);
    const Lines addresses = linesOf(child.out);
    ASSERT_EQ(6U, addresses.size());
    struct Client {
        std::string binder;
        std::string recipient;
        std::string callback;
    };
    const Client a = {addresses[0], addresses[1], addresses[2]};
    const Client b = {addresses[3], addresses[4], addresses[5]};

    const std::string added = "I addDeviceList: sending callback to client of onDeviceAdded  ";
    const std::string removed = "I updateDeviceList--: sending callback to client onDeviceRemoved ";
    const std::string entryA = "key:" + a.binder + " value:" + a.recipient;
    const std::string entryB = "key:" + b.binder + " value:" + b.recipient;
    EXPECT_THAT(from("I registerKusCallback called" + b.callback, linesOf(child.err)),
                ElementsAre("I registerKusCallback called" + b.callback,
                            "I registerKusCallback binder " + b.binder,
                            "E Size of callbacks at registerKusCallback 1",
                            "I registerKusCallback--: iterating map " + entryB,
                            "I registerKusCallback called" + a.callback,
                            "I registerKusCallback binder " + a.binder,
                            "E Size of callbacks at registerKusCallback 2",
                            "I registerKusCallback--: iterating map " + entryA,
                            "I registerKusCallback--: iterating map " + entryB,
                            "I get_deviceid_data() with deviceId : 0size--0",
                            "I  device added to mUsbDeviceInfoList ", "I custom_struct size is 0",
                            "I  device category  0 categoryPath ", added + a.callback,
                            added + b.callback,
                            "I updateDeviceList--Device Name : updateStatus::Added/Removed 0",
                            "I updateDeviceList--calling get_deviceid_data while removing",
                            removed + a.callback, removed + b.callback,
                            "I update_deviceid_map deviceId:0 flag:0",
                            "I  device removed from mUsbDeviceInfoList",
                            "I updateDeviceList--mInputDeviceInfoList size: 0 mUsbDeviceInfoList "
                            "size: 0",
                            "I unregisterKusCallback called" + a.callback,
                            "I unregisterKusCallback binder" + a.binder,
                            "I Callback successfully removed from list",
                            "I Size of callbacks at unregisterKusCallback1",
                            "I unregisterKusCallback--: before erase iterating map " + entryB,
                            "I unregisterKusCallback called" + b.callback,
                            "I unregisterKusCallback binder" + b.binder,
                            "I Callback successfully removed from list",
                            "I Size of callbacks at unregisterKusCallback0"));
}

TEST_F(VerboseLogging, ShowsEachClientBeforeItIsTold) {
    SetBuildType("userdebug");
    const ProcessResult child = Start([](KUsbService* service) {
        const sp<FakeCallback> client = new FakeCallback();
        client->onEvent = [](const FakeCallback::Event& event) {
            LOG(INFO) << (event.added ? "told of addition" : "told of removal");
        };
        service->registerKusCallback(client);
        service->addDeviceList(DeviceInfo(), true, "");
        service->updateDeviceList(DeviceInfo(), 0);
        printf("%s\n", CallbackAddress(client).c_str());
    });
    const std::string address = linesOf(child.out)[0];
    const Lines lines = linesOf(child.err);
    const Lines addition =
            from("I addDeviceList: sending callback to client of onDeviceAdded  " + address, lines);
    ASSERT_LE(2U, addition.size());
    EXPECT_EQ("I told of addition", addition[1]);
    const Lines removal = from(
            "I updateDeviceList--: sending callback to client onDeviceRemoved " + address, lines);
    ASSERT_LE(2U, removal.size());
    EXPECT_EQ("I told of removal", removal[1]);
}

TEST_F(VerboseLogging, ShowsTheRegistryNeitherAfterAFailureNorForAStranger) {
    SetBuildType("userdebug");
    const ProcessResult child = Start([](KUsbService* service) {
        const sp<FakeCallback> client = new FakeCallback();
        service->registerKusCallback(client);
        const sp<FakeCallback> stranger = new FakeCallback();
        stranger->linkResult = DEAD_OBJECT;
        service->registerKusCallback(stranger);
        service->unregisterKusCallback(stranger);
        // A dead client is dropped without a look at the others.
        client->Die();
    });
    EXPECT_EQ(1U, withSubstring("--: ", linesOf(child.err)).size());
}

}  // namespace

}  // namespace android::kus::test
