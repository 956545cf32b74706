// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

#include <android-base/file.h>

namespace android::kus::tools {

/**
 * A small tree in a directory of its own that looks like sysfs where the tools look: devices below
 * devices/, relative links to them in bus/usb/devices and class/input. Removed at the end.
 */
class ScratchSysfs {
  public:
    struct Usb {
        int bus = 3;
        int devnum = 2;
        std::string deviceClass = "00";
        std::string vendor = "46f4";
        std::string product = "0001";
        /** The product text; empty for a device without one. */
        std::string name = "USB Stick";
        std::string configuration = "1";
        /** bInterfaceClass of the interfaces 0, 1, ...; none for an unconfigured device. */
        std::vector<std::string> interfaceClasses = {"08"};
        bool bound = true;
    };

    struct Input {
        std::string name = "USB Keyboard";
        std::string vendor = "0627";
        std::string product = "0001";
        std::string keys = "1000000000007 ff9f207ac14057ff febeffdfffefffff fffffffffffffffe";
        bool inhibitable = true;
    };

    ScratchSysfs();

    std::string path() const { return root_.path; }

    /** Adds a device with all that belongs to it and returns its directory. */
    std::string addUsb(const std::string& sysname, const Usb& usb) const;
    /** Adds one interface's directory to the device at |dir|, open and without a driver. */
    static void addInterface(const std::string& dir, const std::string& configuration, int number,
                             const std::string& interfaceClass);
    /** Adds a root hub with its driver, whose bus is open, and returns its directory. */
    std::string addRootHub(int bus) const;
    /** What was written to |file| below bus/usb ("drivers_probe"), in lines. */
    std::string busFile(const std::string& file) const { return read(path() + "/bus/usb/" + file); }
    void removeUsb(const std::string& sysname) const;

    /** Adds inputN below |parent|, a directory such as addUsb returned, and returns its own. */
    std::string addInput(int number, const std::string& parent, const Input& input) const;
    void removeInput(int number) const;

    /** A directory below devices/ that has nothing to do with USB. */
    std::string addPlatformDevice(const std::string& name) const;

    static void write(const std::string& path, const std::string& text);
    static std::string read(const std::string& path);

  private:
    TemporaryDir root_;
};

}  // namespace android::kus::tools
