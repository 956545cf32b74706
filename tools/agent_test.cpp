// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/agent.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "tools/fake_daemon.h"
#include "tools/scratch_sysfs.h"

namespace android::kus::tools {
namespace {

using Lines = std::vector<std::string>;

FakeDaemon::Judgement refusal(const std::string& reason) {
    return {false, reason, true};
}

class AgentTest : public testing::Test {
  protected:
    static ScratchSysfs::Usb usb(const std::string& name, int devnum) {
        ScratchSysfs::Usb usb;
        usb.name = name;
        usb.devnum = devnum;
        return usb;
    }

    static ScratchSysfs::Usb unconfigured(const std::string& name, int devnum) {
        ScratchSysfs::Usb bare = usb(name, devnum);
        bare.configuration = "";
        bare.interfaceClasses = {};
        return bare;
    }

    static ScratchSysfs::Input input(const std::string& name) {
        ScratchSysfs::Input input;
        input.name = name;
        return input;
    }

    Uevent usbEvent(Change change, const std::string& sysname, int devnum) const {
        Uevent event;
        event.change = change;
        event.sysname = sysname;
        event.path = sysfs_.path() + "/devices/platform/hcd/usb3/" + sysname;
        event.devnum = devnum;
        event.received = Clock::now();
        return event;
    }

    static Uevent inputEvent(Change change, const std::string& dir) {
        Uevent event;
        event.change = change;
        event.kind = DeviceKind::kInput;
        event.sysname = base::Basename(dir);
        event.path = dir;
        event.received = Clock::now();
        return event;
    }

    /** Connects with nothing that happened before left to look at. */
    void connect() {
        agent_.connect(daemon_, RescanReason::kStart);
        daemon_->takeCalls();
        told_.clear();
    }

    Lines takeTold() { return std::exchange(told_, {}); }

    /** Does the last line contain |text|? */
    testing::AssertionResult lastToldHas(const std::string& text) const {
        if (told_.empty()) return testing::AssertionFailure() << "nothing was told";
        if (told_.back().find(text) != std::string::npos) return testing::AssertionSuccess();
        return testing::AssertionFailure() << told_.back();
    }

    ScratchSysfs sysfs_;
    const sp<FakeDaemon> daemon_ = new FakeDaemon();
    Lines told_;
    const EventWriter writer_{EventWriter::Format::kJson,
                              [this](const std::string& line) { told_.push_back(line); }};
    Agent agent_{sysfs_.path(), &writer_};
};

TEST_F(AgentTest, ConnectingJudgesEverythingPresentUsbFirst) {
    const std::string dir = sysfs_.addUsb("3-1", usb("Keyboard", 2));
    sysfs_.addInput(0, dir, input("Keys"));
    sysfs_.addUsb("3-2", usb("Stick", 3));
    ScratchSysfs::Usb hub = usb("Hub", 4);
    hub.deviceClass = "09";
    sysfs_.addUsb("3-3", hub);

    agent_.connect(daemon_, RescanReason::kStart);

    EXPECT_TRUE(agent_.connected());
    EXPECT_EQ(Lines({"decide Keyboard 3002", "decide Stick 3003", "decide Keys 0"}),
              daemon_->takeCalls());
    ASSERT_EQ(5U, told_.size());
    EXPECT_EQ("{\"event\":\"service\",\"state\":\"connected\"}", told_[0]);
    EXPECT_EQ("{\"event\":\"rescan\",\"reason\":\"start\"}", told_[1]);
    EXPECT_EQ(0U, told_[2].find("{\"event\":\"verdict\",\"kind\":\"usb\",\"sysname\":\"3-1\","));
    EXPECT_EQ(0U,
              told_[4].find("{\"event\":\"verdict\",\"kind\":\"input\",\"sysname\":\"input0\""));
}

TEST_F(AgentTest, DeviceIsJudgedOnceUntilItGoes) {
    connect();
    sysfs_.addUsb("3-1", usb("Stick", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_TRUE(lastToldHas("\"allowed\":true,\"reason\":\"Enabled by default rule\",\"ms\":"));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"decide Stick 3002"}), daemon_->takeCalls());
}

TEST_F(AgentTest, RemovalIsReportedWithTheSameRecordThoughNothingIsLeftToRead) {
    connect();
    sysfs_.addUsb("3-1", usb("Stick", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    sysfs_.removeUsb("3-1");
    agent_.handle(usbEvent(Change::kGone, "3-1", 2));
    EXPECT_EQ(Lines({"decide Stick 3002", "remove Stick 3002 0"}), daemon_->takeCalls());
    EXPECT_TRUE(lastToldHas("{\"event\":\"removed\",\"kind\":\"usb\",\"sysname\":\"3-1\""));

    sysfs_.addUsb("3-1", usb("Stick", 3));
    agent_.handle(usbEvent(Change::kReady, "3-1", 3));
    EXPECT_EQ(Lines({"decide Stick 3003"}), daemon_->takeCalls());
}

TEST_F(AgentTest, RemovalOfWhatWasNeverJudgedIsNotReported) {
    connect();
    agent_.handle(usbEvent(Change::kGone, "3-1", 2));
    EXPECT_EQ(Lines(), daemon_->takeCalls());
    EXPECT_EQ(Lines(), takeTold());
}

TEST_F(AgentTest, DeviceThatWentBeforeItsEventWasHandledIsNotJudged) {
    connect();
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ(Lines(), daemon_->takeCalls());
}

TEST_F(AgentTest, EventsOfAnEarlierDeviceOnTheSamePortChangeNothing) {
    connect();
    sysfs_.addUsb("3-1", usb("Second", 3));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ(Lines(), daemon_->takeCalls());
    agent_.handle(usbEvent(Change::kReady, "3-1", 3));
    agent_.handle(usbEvent(Change::kGone, "3-1", 2));
    EXPECT_EQ(Lines({"decide Second 3003"}), daemon_->takeCalls());
}

TEST_F(AgentTest, EventsWithoutADeviceNumberAreTakenAtTheirWord) {
    connect();
    sysfs_.addUsb("3-1", usb("Stick", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 0));
    agent_.handle(usbEvent(Change::kGone, "3-1", 0));
    EXPECT_EQ(Lines({"decide Stick 3002", "remove Stick 3002 0"}), daemon_->takeCalls());
}

TEST_F(AgentTest, RescanReportsTheGoneBeforeItJudgesTheNew) {
    sysfs_.addUsb("3-1", usb("Gone", 2));
    sysfs_.addUsb("3-2", usb("Staying", 3));
    connect();
    sysfs_.removeUsb("3-1");
    sysfs_.addUsb("3-3", usb("New", 4));
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"remove Gone 3002 0", "decide New 3004"}), daemon_->takeCalls());
    EXPECT_EQ("{\"event\":\"rescan\",\"reason\":\"overflow\"}", takeTold()[0]);
}

TEST_F(AgentTest, RescanSeesThatAnotherDeviceTookThePort) {
    sysfs_.addUsb("3-1", usb("First", 2));
    connect();
    sysfs_.removeUsb("3-1");
    sysfs_.addUsb("3-1", usb("Second", 5));
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"remove First 3002 0", "decide Second 3005"}), daemon_->takeCalls());
}

TEST_F(AgentTest, RescanSeesThatADeviceHasOtherInterfaces) {
    const std::string dir = sysfs_.addUsb("3-1", usb("Modem", 2));
    connect();
    ScratchSysfs::addInterface(dir, "1", 1, "02");
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"remove Modem 3002 0", "decide Modem 3002"}), daemon_->takeCalls());
}

TEST_F(AgentTest, RescanSeesThatInterfacesWentAndCameAgain) {
    const std::string dir = sysfs_.addUsb("3-1", usb("Modem", 2));
    connect();
    agent_.handle(usbEvent(Change::kInterfaceRemoved, "3-1", 0));
    std::filesystem::remove_all(dir + "/3-1:1.0");
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines(), daemon_->takeCalls());
    ScratchSysfs::addInterface(dir, "1", 0, "08");
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"remove Modem 3002 0", "decide Modem 3002"}), daemon_->takeCalls());
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines(), daemon_->takeCalls());
}

TEST_F(AgentTest, RescanSeesThatBlockedInterfacesWereMadeAnew) {
    const std::string dir = sysfs_.addUsb("3-1", usb("Stick", 2));
    const std::string authorized = dir + "/3-1:1.0/authorized";
    daemon_->judge = [&](const DeviceInfo&) {
        ScratchSysfs::write(authorized, "0\n");
        return FakeDaemon::Judgement{false, "No matching rule", true};
    };
    connect();
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines(), daemon_->takeCalls());

    ScratchSysfs::write(authorized, "1\n");
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"remove Stick 3002 0", "decide Stick 3002"}), daemon_->takeCalls());
}

TEST_F(AgentTest, UnconfiguredDeviceIsJudgedAndAgainWithItsFirstConfiguration) {
    connect();
    const std::string dir = sysfs_.addUsb("3-1", unconfigured("Modem", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ(Lines({"decide Modem 3002"}), daemon_->takeCalls());
    EXPECT_TRUE(lastToldHas("\"interfaceClasses\":[],"));

    ScratchSysfs::addInterface(dir, "2", 0, "02");
    ScratchSysfs::addInterface(dir, "2", 1, "0a");
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    EXPECT_EQ(Lines({"remove Modem 3002 0", "decide Modem 3002"}), daemon_->takeCalls());
    EXPECT_TRUE(lastToldHas("\"interfaceClasses\":[2,10],"));
}

TEST_F(AgentTest, DeviceWithAnotherConfigurationIsJudgedAgain) {
    const std::string dir = sysfs_.addUsb("3-1", usb("Modem", 2));
    connect();
    agent_.handle(usbEvent(Change::kInterfaceRemoved, "3-1", 0));
    EXPECT_EQ(Lines(), daemon_->takeCalls());
    std::filesystem::remove_all(dir + "/3-1:1.0");
    ScratchSysfs::addInterface(dir, "2", 0, "02");
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    EXPECT_EQ(Lines({"remove Modem 3002 0", "decide Modem 3002"}), daemon_->takeCalls());
    EXPECT_TRUE(lastToldHas("\"interfaceClasses\":[2],"));
}

TEST_F(AgentTest, InterfacesThatCameBeforeTheVerdictChangeNothing) {
    connect();
    sysfs_.addUsb("3-1", usb("Stick", 2));
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    EXPECT_EQ(Lines(), daemon_->takeCalls());
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    EXPECT_EQ(Lines({"decide Stick 3002"}), daemon_->takeCalls());
}

TEST_F(AgentTest, LateInterfaceEventOfAnUnconfiguredDeviceChangesNothing) {
    connect();
    sysfs_.addUsb("3-1", unconfigured("Modem", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    EXPECT_EQ(Lines({"decide Modem 3002"}), daemon_->takeCalls());
}

TEST_F(AgentTest, RefusedInputDeviceIsInhibited) {
    connect();
    daemon_->judge = [](const DeviceInfo&) { return refusal("No rule"); };
    const std::string dir = sysfs_.addInput(7, sysfs_.addUsb("3-1", usb("K", 2)), input("Keys"));
    agent_.handle(inputEvent(Change::kReady, dir));
    EXPECT_EQ("1\n", ScratchSysfs::read(dir + "/inhibited"));
    EXPECT_TRUE(lastToldHas("\"allowed\":false,\"reason\":\"No rule\",\"inhibited\":true,"));
}

TEST_F(AgentTest, AllowedInputDeviceIsLeftAlone) {
    connect();
    const std::string dir = sysfs_.addInput(7, sysfs_.addUsb("3-1", usb("K", 2)), input("Keys"));
    agent_.handle(inputEvent(Change::kReady, dir));
    EXPECT_EQ("0\n", ScratchSysfs::read(dir + "/inhibited"));
    EXPECT_TRUE(lastToldHas("\"inhibited\":false,"));
}

TEST_F(AgentTest, InhibitedInputDeviceThatIsAllowedNowIsSetFree) {
    const std::string dir = sysfs_.addInput(7, sysfs_.addUsb("3-1", usb("K", 2)), input("Keys"));
    ScratchSysfs::write(dir + "/inhibited", "1\n");
    agent_.connect(daemon_, RescanReason::kStart);
    EXPECT_EQ("0\n", ScratchSysfs::read(dir + "/inhibited"));
    EXPECT_TRUE(lastToldHas("\"inhibited\":false,"));
}

TEST_F(AgentTest, InputDeviceThatCannotBeInhibitedIsAProblem) {
    connect();
    daemon_->judge = [](const DeviceInfo&) { return refusal("No rule"); };
    ScratchSysfs::Input keys = input("Keys");
    keys.inhibitable = false;
    const std::string dir = sysfs_.addInput(7, sysfs_.addUsb("3-1", usb("K", 2)), keys);
    agent_.handle(inputEvent(Change::kReady, dir));
    ASSERT_EQ(2U, told_.size());
    EXPECT_EQ(
            "{\"event\":\"problem\",\"sysname\":\"input7\",\"text\":\"cannot set inhibited: "
            "No such file or directory\"}",
            told_[0]);
    EXPECT_TRUE(lastToldHas("\"inhibited\":false,"));
}

TEST_F(AgentTest, InputDeviceThatWentDuringItsJudgementIsNoProblem) {
    connect();
    const std::string dir = sysfs_.addInput(7, sysfs_.addUsb("3-1", usb("K", 2)), input("Keys"));
    daemon_->judge = [this](const DeviceInfo&) {
        sysfs_.removeInput(7);
        return refusal("No rule");
    };
    agent_.handle(inputEvent(Change::kReady, dir));
    ASSERT_EQ(1U, told_.size());
    EXPECT_TRUE(lastToldHas("\"event\":\"verdict\""));
}

TEST_F(AgentTest, RefusedUsbDeviceTakesItsInputDevicesOutOfTheScan) {
    sysfs_.addInput(7, sysfs_.addUsb("3-1", usb("Composite", 2)), input("Keys"));
    daemon_->judge = [this](const DeviceInfo& device) {
        if (device.deviceType == 0) sysfs_.removeInput(7);
        return refusal("No rule");
    };
    agent_.connect(daemon_, RescanReason::kStart);
    EXPECT_EQ(Lines({"decide Composite 3002"}), daemon_->takeCalls());
}

TEST_F(AgentTest, InputDeviceGoesByItsNumber) {
    connect();
    const std::string dir = sysfs_.addInput(7, sysfs_.addUsb("3-1", usb("K", 2)), input("Keys"));
    agent_.handle(inputEvent(Change::kReady, dir));
    agent_.handle(inputEvent(Change::kGone, dir));
    EXPECT_EQ(Lines({"decide Keys 7", "remove Keys 7 0"}), daemon_->takeCalls());
}

TEST_F(AgentTest, VerdictThatWasNotRecordedHasNoReason) {
    connect();
    daemon_->judge = [](const DeviceInfo&) { return FakeDaemon::Judgement{false, "", false}; };
    sysfs_.addUsb("3-1", usb("Keyboard", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_TRUE(lastToldHas("\"allowed\":false,\"reason\":\"\","));
}

TEST_F(AgentTest, ReasonIsThatOfTheSameKindOfDevice) {
    connect();
    DeviceInfo other;
    other.deviceId = 3002;
    other.deviceType = 1;
    other.status = 1;
    other.reason = "Of an input device";
    daemon_->records.push_back(other);
    sysfs_.addUsb("3-1", usb("Stick", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_TRUE(lastToldHas("\"reason\":\"Enabled by default rule\","));
}

TEST_F(AgentTest, OlderRecordWithTheOtherVerdictIsNotItsReason) {
    connect();
    DeviceInfo older;
    older.deviceId = 3002;
    older.status = 1;
    older.reason = "Of an earlier device";
    daemon_->records.push_back(older);
    daemon_->judge = [](const DeviceInfo&) { return refusal("No rule"); };
    sysfs_.addUsb("3-1", usb("Stick", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_TRUE(lastToldHas("\"allowed\":false,\"reason\":\"\","));
}

TEST_F(AgentTest, WithoutAServiceEventsAndRescansAreDropped) {
    sysfs_.addUsb("3-1", usb("Stick", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    agent_.rescan(RescanReason::kOverflow);
    agent_.disconnect();
    EXPECT_FALSE(agent_.connected());
    EXPECT_EQ(Lines(), daemon_->takeCalls());
    EXPECT_EQ(Lines(), takeTold());
}

TEST_F(AgentTest, RestartedDaemonJudgesEverythingPresentAgain) {
    sysfs_.addUsb("3-1", usb("Gone", 2));
    sysfs_.addUsb("3-2", usb("Staying", 3));
    connect();
    agent_.disconnect();
    EXPECT_EQ(Lines({"{\"event\":\"service\",\"state\":\"lost\"}"}), takeTold());
    sysfs_.removeUsb("3-1");
    agent_.handle(usbEvent(Change::kGone, "3-1", 2));

    agent_.connect(daemon_, RescanReason::kService);
    EXPECT_EQ(Lines({"decide Staying 3003"}), daemon_->takeCalls());
    EXPECT_EQ("{\"event\":\"rescan\",\"reason\":\"service\"}", told_[1]);
}

TEST_F(AgentTest, DeathFoundWhileJudgingDisconnectsAndEndsTheRescan) {
    sysfs_.addUsb("3-1", usb("One", 2));
    sysfs_.addUsb("3-2", usb("Two", 3));
    daemon_->answer = binder::Status::fromStatusT(DEAD_OBJECT);
    agent_.connect(daemon_, RescanReason::kStart);
    EXPECT_FALSE(agent_.connected());
    EXPECT_EQ(Lines({"decide One 3002"}), daemon_->takeCalls());
    EXPECT_EQ("{\"event\":\"service\",\"state\":\"lost\"}", told_.back());
    // The death notice that comes behind it.
    told_.clear();
    agent_.disconnect();
    EXPECT_EQ(Lines(), takeTold());
}

TEST_F(AgentTest, DeathFoundWhileReportingARemovalDisconnects) {
    sysfs_.addUsb("3-1", usb("One", 2));
    sysfs_.addUsb("3-2", usb("Two", 3));
    connect();
    sysfs_.removeUsb("3-1");
    sysfs_.removeUsb("3-2");
    daemon_->answer = binder::Status::fromStatusT(DEAD_OBJECT);
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_FALSE(agent_.connected());
    EXPECT_EQ(Lines({"remove One 3002 0"}), daemon_->takeCalls());
}

TEST_F(AgentTest, CallThatFailsOtherwiseIsAProblemAndLeavesTheDeviceUnjudged) {
    connect();
    sysfs_.addUsb("3-1", usb("Stick", 2));
    daemon_->answer = binder::Status::fromStatusT(PERMISSION_DENIED);
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_TRUE(agent_.connected());
    EXPECT_TRUE(
            lastToldHas("{\"event\":\"problem\",\"sysname\":\"3-1\",\"text\":\"the daemon did "
                        "not answer: "));
    daemon_->answer = binder::Status::ok();
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"decide Stick 3002", "decide Stick 3002"}), daemon_->takeCalls());
}

/** The other mode. The devices of a test begin open, as under a root hub that nobody closed. */
class ClosedAgentTest : public AgentTest {
  protected:
    ClosedAgentTest() {
        // Says what is open when a device is asked about.
        daemon_->judge = [this](const DeviceInfo& info) {
            askedWith_ = info.deviceType == 0 ? opened("3-1") : "";
            return verdict_;
        };
    }

    static ScratchSysfs::Usb withClasses(const std::vector<std::string>& classes, int devnum = 2) {
        ScratchSysfs::Usb device = usb("Device", devnum);
        device.interfaceClasses = classes;
        return device;
    }

    std::string device(const std::string& sysname) const {
        return sysfs_.path() + "/bus/usb/devices/" + sysname;
    }

    /** "authorized" of all interfaces: "101". */
    std::string opened(const std::string& sysname) const {
        std::string values;
        for (const std::string& name : interfaceNames(device(sysname))) {
            values += ScratchSysfs::read(device(sysname) + "/" + name + "/authorized")[0];
        }
        return values;
    }

    void setAuthorized(const std::string& sysname, const std::string& value) const {
        for (const std::string& name : interfaceNames(device(sysname))) {
            ScratchSysfs::write(device(sysname) + "/" + name + "/authorized", value + "\n");
        }
    }

    /** As the kernel would give it a driver. */
    static void bindInterface(const std::string& dir, int number) {
        std::filesystem::create_directory(dir + "/3-1:1." + std::to_string(number) + "/driver");
    }

    Uevent rootHubEvent() const { return usbEvent(Change::kRootHubReady, "usb3", 1); }

    std::string probed() const { return sysfs_.busFile("drivers_probe"); }
    std::string offered() const { return sysfs_.busFile("drivers/usbhid/bind"); }

    FakeDaemon::Judgement verdict_;
    std::string askedWith_;
    Agent agent_{sysfs_.path(), &writer_, Agent::Mode::kClosed};
};

const FakeDaemon::Judgement kRefused = {false, "No rule", true};
const FakeDaemon::Judgement kLeftToInput = {false, "", false};

TEST_F(ClosedAgentTest, AllowedDeviceIsAskedAboutClosedAndThenOpenedAndProbed) {
    agent_.connect(daemon_, RescanReason::kStart);
    sysfs_.addUsb("3-1", withClasses({"08", "02", "0a"}));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("000", askedWith_);
    EXPECT_EQ("111", opened("3-1"));
    EXPECT_EQ("3-1:1.0\n3-1:1.1\n3-1:1.2\n", probed());
    EXPECT_TRUE(lastToldHas("\"allowed\":true"));
}

TEST_F(ClosedAgentTest, RefusedDeviceStaysClosed) {
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kRefused;
    sysfs_.addUsb("3-1", withClasses({"08", "03"}));
    setAuthorized("3-1", "0");
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("00", opened("3-1"));
    EXPECT_EQ("", probed());
    EXPECT_EQ("", offered());
}

TEST_F(ClosedAgentTest, DeviceThatWasQuickerThanTheClosingIsClosedBeforeTheQuestion) {
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kRefused;
    sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("0", askedWith_);
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, NewRootHubHasWhatIsThereClosedAtOnceAlsoWithoutAService) {
    sysfs_.addUsb("3-1", withClasses({"08"}));
    sysfs_.addUsb("3-2", withClasses({"03"}, 3));
    agent_.handle(rootHubEvent());
    EXPECT_EQ("0", opened("3-1"));
    EXPECT_EQ("0", opened("3-2"));
    EXPECT_EQ(Lines(), daemon_->takeCalls());
}

TEST_F(ClosedAgentTest, NewRootHubLeavesAloneWhatWasAllowed) {
    sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.connect(daemon_, RescanReason::kStart);
    sysfs_.addUsb("3-2", withClasses({"08"}, 3));
    agent_.handle(rootHubEvent());
    EXPECT_EQ("1", opened("3-1"));
    EXPECT_EQ("0", opened("3-2"));
}

TEST_F(ClosedAgentTest, ClosePresentClosesAllButHubsAndNeedsNoService) {
    sysfs_.addUsb("3-1", withClasses({"08", "0a"}));
    sysfs_.addUsb("3-2", withClasses({"03"}, 3));
    ScratchSysfs::Usb hub = withClasses({"09"}, 4);
    hub.deviceClass = "09";
    const std::string dir = sysfs_.addUsb("3-3", hub);
    std::filesystem::create_directory(dir + "/3-3:1.0/driver");
    agent_.closePresent();
    EXPECT_EQ("00", opened("3-1"));
    EXPECT_EQ("0", opened("3-2"));
    EXPECT_EQ("1", opened("3-3"));
    EXPECT_EQ(Lines(), takeTold());
}

// In a scratch tree no driver takes what it is offered; one interface has its driver before.
TEST_F(ClosedAgentTest, OfAHubOnlyWhatTheHubDriverTakesIsOpenWithAServiceOrWithout) {
    ScratchSysfs::Usb hub = withClasses({"09", "09", "08"});
    hub.deviceClass = "09";
    for (const bool connected : {false, true}) {
        SCOPED_TRACE(connected);
        if (connected) agent_.connect(daemon_, RescanReason::kStart);
        bindInterface(sysfs_.addUsb("3-1", hub), 0);
        setAuthorized("3-1", "0");
        agent_.handle(usbEvent(Change::kReady, "3-1", 2));
        EXPECT_EQ("100", opened("3-1"));
        EXPECT_EQ("3-1:1.0\n3-1:1.1\n", sysfs_.busFile("drivers/hub/bind"));
        EXPECT_EQ("", probed());
        EXPECT_EQ(Lines(), daemon_->takeCalls());
        sysfs_.removeUsb("3-1");
    }
}

TEST_F(ClosedAgentTest, HubWithItsDriverIsNotTouched) {
    ScratchSysfs::Usb hub = withClasses({"09"});
    hub.deviceClass = "09";
    bindInterface(sysfs_.addUsb("3-1", hub), 0);
    agent_.closePresent();
    EXPECT_EQ("", sysfs_.busFile("drivers/hub/bind"));
    EXPECT_EQ("1", opened("3-1"));
}

TEST_F(ClosedAgentTest, DeviceThatIsNoHubByItsClassIsAskedAboutThoughAnInterfaceIs) {
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kRefused;
    sysfs_.addUsb("3-1", withClasses({"09", "08"}));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ(Lines({"decide Device 3002"}), daemon_->takeCalls());
    EXPECT_EQ("00", opened("3-1"));
}

TEST_F(ClosedAgentTest, HidAloneIsOpenForTheQuestionToItsDriverAlone) {
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kLeftToInput;
    sysfs_.addUsb("3-1", withClasses({"03", "03"}));
    setAuthorized("3-1", "0");
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("11", askedWith_);
    EXPECT_EQ("3-1:1.0\n3-1:1.1\n", offered());
    EXPECT_EQ("", probed());
}

TEST_F(ClosedAgentTest, RefusalOfHidAloneWithoutARecordLeavesWhatUsbhidTookOpen) {
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kLeftToInput;
    bindInterface(sysfs_.addUsb("3-1", withClasses({"03", "03"})), 1);
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("01", opened("3-1"));
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ("01", opened("3-1"));
    EXPECT_EQ(Lines({"decide Device 3002"}), daemon_->takeCalls());
}

TEST_F(ClosedAgentTest, RefusalOfHidAloneWithARecordClosesIt) {
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kRefused;
    bindInterface(sysfs_.addUsb("3-1", withClasses({"03"})), 0);
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("1", askedWith_);
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, HidAloneThatTheDaemonHasBlockedIsClosedWithoutARecordToo) {
    agent_.connect(daemon_, RescanReason::kStart);
    const std::string dir = sysfs_.addUsb("3-1", withClasses({"03", "03"}));
    bindInterface(dir, 0);
    bindInterface(dir, 1);
    daemon_->judge = [&](const DeviceInfo&) {
        ScratchSysfs::write(dir + "/3-1:1.0/authorized", "0\n");
        return kLeftToInput;
    };
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("00", opened("3-1"));
}

TEST_F(ClosedAgentTest, AllowedVendorHidIsOpenToAllDrivers) {
    agent_.connect(daemon_, RescanReason::kStart);
    sysfs_.addUsb("3-1", withClasses({"03"}));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("1", opened("3-1"));
    EXPECT_EQ("3-1:1.0\n", probed());
}

TEST_F(ClosedAgentTest, MissingHidDriverIsAProblem) {
    agent_.connect(daemon_, RescanReason::kStart);
    takeTold();
    verdict_ = kLeftToInput;
    std::filesystem::remove_all(sysfs_.path() + "/bus/usb/drivers/usbhid");
    sysfs_.addUsb("3-1", withClasses({"03"}));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ(
            "{\"event\":\"problem\",\"sysname\":\"3-1\",\"text\":\"cannot open for usbhid: "
            "No such file or directory\"}",
            takeTold()[0]);
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, CallThatFailsLeavesTheDeviceClosed) {
    agent_.connect(daemon_, RescanReason::kStart);
    sysfs_.addUsb("3-1", withClasses({"03"}));
    for (const status_t error : {PERMISSION_DENIED, DEAD_OBJECT}) {
        daemon_->answer = binder::Status::fromStatusT(error);
        agent_.handle(usbEvent(Change::kReady, "3-1", 2));
        EXPECT_EQ("0", opened("3-1"));
    }
    EXPECT_FALSE(agent_.connected());
}

TEST_F(ClosedAgentTest, NothingIsOpenedWithoutAService) {
    sysfs_.addUsb("3-1", withClasses({"08"}));
    sysfs_.addUsb("3-2", withClasses({"03"}, 3));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    agent_.handle(usbEvent(Change::kReady, "3-2", 3));
    EXPECT_EQ("0", opened("3-1"));
    EXPECT_EQ("0", opened("3-2"));
}

TEST_F(ClosedAgentTest, AllowedDeviceKeepsItsDriversWhileTheDaemonIsAwayAndIsAskedAboutAnew) {
    sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.connect(daemon_, RescanReason::kStart);
    EXPECT_EQ("0", askedWith_);
    agent_.disconnect();
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ("1", opened("3-1"));
    agent_.connect(daemon_, RescanReason::kService);
    EXPECT_EQ("1", askedWith_);

    agent_.disconnect();
    verdict_ = kRefused;
    daemon_->records.clear();
    agent_.connect(daemon_, RescanReason::kService);
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, AnotherDeviceOnThePortOfAnAllowedOneIsClosedThoughTheDaemonIsAway) {
    sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.connect(daemon_, RescanReason::kStart);
    agent_.disconnect();
    sysfs_.removeUsb("3-1");
    sysfs_.addUsb("3-1", withClasses({"08"}, 3));
    agent_.handle(usbEvent(Change::kReady, "3-1", 3));
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, DeviceThatHasGoneIsForgottenThoughItsNumberIsUsedAgain) {
    sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.connect(daemon_, RescanReason::kStart);
    agent_.disconnect();
    agent_.handle(usbEvent(Change::kGone, "3-1", 2));
    agent_.handle(rootHubEvent());
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, LateEventOfAnEarlierDeviceDoesNotMakeAnAllowedOneForgotten) {
    sysfs_.addUsb("3-1", withClasses({"08"}, 3));
    agent_.connect(daemon_, RescanReason::kStart);
    agent_.handle(usbEvent(Change::kGone, "3-1", 2));
    agent_.handle(rootHubEvent());
    EXPECT_EQ("1", opened("3-1"));
}

TEST_F(ClosedAgentTest, NewConfigurationOfAnAllowedDeviceIsAskedAboutClosed) {
    const std::string dir = sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kRefused;
    agent_.handle(usbEvent(Change::kInterfaceRemoved, "3-1", 0));
    std::filesystem::remove_all(dir + "/3-1:1.0");
    ScratchSysfs::addInterface(dir, "2", 0, "02");
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    EXPECT_EQ("0", askedWith_);
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, RescanSeesThatInterfacesOfAnAllowedDeviceWereMadeAnew) {
    sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.connect(daemon_, RescanReason::kStart);
    daemon_->takeCalls();
    setAuthorized("3-1", "0");
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines({"remove Device 3002 0", "decide Device 3002"}), daemon_->takeCalls());
    EXPECT_EQ("1", opened("3-1"));
}

TEST_F(ClosedAgentTest, RescanLeavesARefusedDeviceAsItIs) {
    verdict_ = kRefused;
    sysfs_.addUsb("3-1", withClasses({"08"}));
    agent_.connect(daemon_, RescanReason::kStart);
    daemon_->takeCalls();
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ(Lines(), daemon_->takeCalls());
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, FirstConfigurationIsAskedAboutClosed) {
    agent_.connect(daemon_, RescanReason::kStart);
    const std::string dir = sysfs_.addUsb("3-1", unconfigured("Modem", 2));
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    ScratchSysfs::addInterface(dir, "2", 0, "02");
    agent_.handle(usbEvent(Change::kInterfaceAdded, "3-1", 0));
    EXPECT_EQ(Lines({"decide Modem 3002", "remove Modem 3002 0", "decide Modem 3002"}),
              daemon_->takeCalls());
    EXPECT_EQ("0", askedWith_);
    EXPECT_EQ("1", opened("3-1"));
}

TEST_F(ClosedAgentTest, VerdictOpensNoOtherDeviceThanTheOneItIsAbout) {
    agent_.connect(daemon_, RescanReason::kStart);
    sysfs_.addUsb("3-1", withClasses({"08"}));
    daemon_->judge = [this](const DeviceInfo&) {
        // Swapped while a client took its time.
        sysfs_.removeUsb("3-1");
        sysfs_.addUsb("3-1", withClasses({"08"}, 3));
        setAuthorized("3-1", "0");
        return FakeDaemon::Judgement();
    };
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    EXPECT_EQ("0", opened("3-1"));
}

TEST_F(ClosedAgentTest, InputDevicesAreJudgedAsInTheOtherMode) {
    agent_.connect(daemon_, RescanReason::kStart);
    verdict_ = kLeftToInput;
    const std::string dir = sysfs_.addUsb("3-1", withClasses({"03"}));
    bindInterface(dir, 0);
    agent_.handle(usbEvent(Change::kReady, "3-1", 2));
    verdict_ = kRefused;
    const std::string keys = sysfs_.addInput(7, dir, input("Keys"));
    agent_.handle(inputEvent(Change::kReady, keys));
    EXPECT_TRUE(isInhibited(keys));
    EXPECT_EQ("1", opened("3-1"));
}

TEST_F(AgentTest, OpenModeWritesNoSwitch) {
    ScratchSysfs::Usb hub = usb("Hub", 4);
    hub.deviceClass = "09";
    hub.interfaceClasses = {"09"};
    sysfs_.addUsb("3-1", usb("Closed", 2));
    sysfs_.addUsb("3-2", usb("Open", 3));
    sysfs_.addUsb("3-3", hub);
    const auto authorized = [this](const std::string& sysname) {
        return sysfs_.path() + "/bus/usb/devices/" + sysname + "/" + sysname + ":1.0/authorized";
    };
    ScratchSysfs::write(authorized("3-1"), "0\n");
    ScratchSysfs::write(authorized("3-3"), "0\n");
    const Uevent rootHub = usbEvent(Change::kRootHubReady, "usb3", 1);
    agent_.handle(rootHub);
    agent_.connect(daemon_, RescanReason::kStart);
    agent_.handle(rootHub);
    agent_.handle(usbEvent(Change::kReady, "3-2", 3));
    agent_.handle(usbEvent(Change::kReady, "3-3", 4));
    agent_.rescan(RescanReason::kOverflow);
    EXPECT_EQ("0\n", ScratchSysfs::read(authorized("3-1")));
    EXPECT_EQ("1\n", ScratchSysfs::read(authorized("3-2")));
    EXPECT_EQ("0\n", ScratchSysfs::read(authorized("3-3")));
    for (const char* file : {"drivers_probe", "drivers/hub/bind", "drivers/usbhid/bind"}) {
        EXPECT_EQ("", sysfs_.busFile(file)) << file;
    }
    EXPECT_EQ(Lines({"decide Closed 3002", "decide Open 3003"}), daemon_->takeCalls());
}

}  // namespace
}  // namespace android::kus::tools
