// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/usb_interfaces.h"

#include <errno.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "tools/scratch_sysfs.h"

namespace android::kus::tools {
namespace {

namespace fs = std::filesystem;

class UsbInterfacesTest : public testing::Test {
  protected:
    /** A modem with a disk: three interfaces, all open. */
    UsbInterfacesTest() {
        ScratchSysfs::Usb usb;
        usb.interfaceClasses = {"08", "02", "0a"};
        dir_ = sysfs_.addUsb("3-1", usb);
    }

    std::string attribute(int number) const {
        return dir_ + "/3-1:1." + std::to_string(number) + "/authorized";
    }

    void set(const std::string& values) const {
        for (int i = 0; i < 3; ++i)
            ScratchSysfs::write(attribute(i), std::string(1, values[i]) + "\n");
    }

    std::string values() const {
        std::string values;
        for (int i = 0; i < 3; ++i) values += ScratchSysfs::read(attribute(i))[0];
        return values;
    }

    void bind(int number) const {
        fs::create_directory(fs::path(attribute(number)).replace_filename("driver"));
    }

    /** Makes a regular file something that no process can open for writing. */
    static void makeUnwritable(const std::string& path) {
        fs::remove(path);
        fs::create_directory(path);
    }

    ScratchSysfs sysfs_;
    std::string dir_;
};

TEST_F(UsbInterfacesTest, ClassesStandInTheOrderOfTheNumbers) {
    EXPECT_EQ(std::vector<int32_t>({8, 2, 10}), UsbInterfaces(dir_).classes());
    EXPECT_EQ(std::vector<int32_t>({2}), UsbInterfaces(dir_, 2).classes());
    EXPECT_EQ(std::vector<int32_t>(), UsbInterfaces(dir_, 9).classes());
    EXPECT_EQ(std::vector<int32_t>(), UsbInterfaces().classes());
}

TEST_F(UsbInterfacesTest, OpeningOpensAllAndProbesEachOne) {
    set("000");
    EXPECT_TRUE(UsbInterfaces(dir_).open());
    EXPECT_EQ("111", values());
    EXPECT_EQ("3-1:1.0\n3-1:1.1\n3-1:1.2\n", sysfs_.busFile("drivers_probe"));
}

TEST_F(UsbInterfacesTest, OnlyThoseOfTheClassAreOpened) {
    set("000");
    EXPECT_TRUE(UsbInterfaces(dir_, 2).open());
    EXPECT_EQ("010", values());
    EXPECT_EQ("3-1:1.1\n", sysfs_.busFile("drivers_probe"));
}

TEST_F(UsbInterfacesTest, NothingIsProbedWhenOneCannotBeOpened) {
    set("000");
    makeUnwritable(attribute(1));
    errno = 0;
    EXPECT_FALSE(UsbInterfaces(dir_).open());
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ("", sysfs_.busFile("drivers_probe"));
}

TEST_F(UsbInterfacesTest, OpeningForADriverOffersThemToItAlone) {
    set("000");
    EXPECT_TRUE(UsbInterfaces(dir_).openFor("usbhid"));
    EXPECT_EQ("111", values());
    EXPECT_EQ("3-1:1.0\n3-1:1.1\n3-1:1.2\n", sysfs_.busFile("drivers/usbhid/bind"));
    EXPECT_EQ("", sysfs_.busFile("drivers_probe"));
}

TEST_F(UsbInterfacesTest, OpeningForADriverThatDoesNotExistFails) {
    errno = 0;
    EXPECT_FALSE(UsbInterfaces(dir_).openFor("usbkbd"));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(UsbInterfacesTest, ClosingClosesAll) {
    set("101");
    const UsbInterfaces interfaces(dir_);
    EXPECT_TRUE(interfaces.anyClosed());
    EXPECT_TRUE(interfaces.close());
    EXPECT_EQ("000", values());
}

TEST_F(UsbInterfacesTest, ClosingGoesOnBehindOneThatCannotBeClosed) {
    makeUnwritable(attribute(0));
    errno = 0;
    EXPECT_FALSE(UsbInterfaces(dir_).close());
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ("0\n", ScratchSysfs::read(attribute(1)));
    EXPECT_EQ("0\n", ScratchSysfs::read(attribute(2)));
}

TEST_F(UsbInterfacesTest, ClosedIsWhatIsNot1) {
    EXPECT_FALSE(UsbInterfaces(dir_).anyClosed());
    EXPECT_FALSE(UsbInterfaces().anyClosed());
    set("110");
    EXPECT_TRUE(UsbInterfaces(dir_).anyClosed());
    fs::remove(attribute(2));
    EXPECT_TRUE(UsbInterfaces(dir_).anyClosed());
}

TEST_F(UsbInterfacesTest, ThoseWithoutADriverAreClosed) {
    bind(1);
    EXPECT_FALSE(UsbInterfaces(dir_).bound());
    EXPECT_TRUE(UsbInterfaces(dir_, 2).bound());
    EXPECT_TRUE(UsbInterfaces(dir_).closeUnbound());
    EXPECT_EQ("010", values());
}

TEST_F(UsbInterfacesTest, InterfacesMadeAnewUnderTheSameNameAreOthers) {
    const UsbInterfaces old(dir_);
    sysfs_.removeUsb("3-1");
    ScratchSysfs::Usb usb;
    usb.interfaceClasses = {"03", "02", "0a"};
    ASSERT_EQ(dir_, sysfs_.addUsb("3-1", usb));
    set("000");
    old.open();
    EXPECT_EQ("000", values());
}

TEST_F(UsbInterfacesTest, InterfaceThatWentWhileItWasLookedAtIsAsGood) {
    fs::remove(attribute(1));
    errno = 0;
    EXPECT_FALSE(UsbInterfaces(dir_).close());
    EXPECT_EQ(ENODEV, errno);
}

class CloseRootHubsTest : public testing::Test {
  protected:
    static std::string setting(const std::string& dir) {
        return ScratchSysfs::read(dir + "/interface_authorized_default");
    }

    ScratchSysfs sysfs_;
};

TEST_F(CloseRootHubsTest, AllAreClosedAndNothingElse) {
    const std::string first = sysfs_.addRootHub(3);
    const std::string second = sysfs_.addRootHub(12);
    const std::string device = sysfs_.addUsb("3-1", {});
    EXPECT_EQ(std::nullopt, closeRootHubs(sysfs_.path()));
    EXPECT_EQ("0\n", setting(first));
    EXPECT_EQ("0\n", setting(second));
    EXPECT_EQ("1\n", ScratchSysfs::read(device + "/3-1:1.0/authorized"));
}

TEST_F(CloseRootHubsTest, NoneIsClosedIfOneCannotBe) {
    const std::string first = sysfs_.addRootHub(1);
    const std::string second = sysfs_.addRootHub(2);
    const std::string third = sysfs_.addRootHub(3);
    fs::remove(second + "/interface_authorized_default");
    EXPECT_EQ(sysfs_.path() +
                      "/bus/usb/devices/usb2/interface_authorized_default: No such file or "
                      "directory",
              closeRootHubs(sysfs_.path()));
    EXPECT_EQ("1\n", setting(first));
    EXPECT_EQ("1\n", setting(third));
}

TEST_F(CloseRootHubsTest, NoRootHubsAreNoFailure) {
    EXPECT_EQ(std::nullopt, closeRootHubs(sysfs_.path()));
    EXPECT_EQ(std::nullopt, closeRootHubs(sysfs_.path() + "/nowhere"));
}

TEST_F(CloseRootHubsTest, RootHubThatWasMadeClosedItselfIsOpened) {
    const std::string interface = sysfs_.addRootHub(12) + "/12-0:1.0";
    fs::remove(interface + "/driver");
    ScratchSysfs::write(interface + "/authorized", "0\n");
    EXPECT_EQ(std::nullopt, closeRootHubs(sysfs_.path()));
    EXPECT_EQ("1\n", ScratchSysfs::read(interface + "/authorized"));
    EXPECT_EQ("12-0:1.0\n", sysfs_.busFile("drivers_probe"));
}

TEST_F(CloseRootHubsTest, RootHubWithItsDriverIsNotProbed) {
    sysfs_.addRootHub(3);
    EXPECT_EQ(std::nullopt, closeRootHubs(sysfs_.path()));
    EXPECT_EQ("", sysfs_.busFile("drivers_probe"));
}

TEST(CloseRootHub, OneThatIsGoneIsNoFailureAndOneWithoutTheSwitchIs) {
    const ScratchSysfs sysfs;
    const std::string hub = sysfs.addRootHub(3);
    EXPECT_TRUE(closeRootHub(hub));
    EXPECT_TRUE(closeRootHub(sysfs.path() + "/devices/platform/hcd/usb4"));
    fs::remove(hub + "/interface_authorized_default");
    errno = 0;
    EXPECT_FALSE(closeRootHub(hub));
    EXPECT_EQ(ENOENT, errno);
}

}  // namespace
}  // namespace android::kus::tools
