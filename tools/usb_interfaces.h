// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

namespace android::kus::tools {

/**
 * The interfaces that a USB device has at the moment, with the kernel's switch of each one
 * ("authorized"). A closed interface (0) loses its driver and gets none; an open one (1) gets a
 * driver when it is probed for one.
 *
 * Holds on to these interfaces and to no others: when the device goes, or gets another
 * configuration, every change fails with ENODEV, whatever has taken the name by then. So a verdict
 * that was long in coming cannot open another device than the one it is about.
 */
class UsbInterfaces {
  public:
    /** No interfaces at all. */
    UsbInterfaces() = default;

    /**
     * The interfaces of the device whose sysfs directory is |dir|, in the order of their numbers;
     * only those of |onlyClass| if there is one.
     */
    explicit UsbInterfaces(const std::string& dir, std::optional<int32_t> onlyClass = std::nullopt);

    bool empty() const { return interfaces_.empty(); }

    /** bInterfaceClass of each one, -1 for one that is going away. */
    std::vector<int32_t> classes() const;

    /** Has each one a driver? True if there are none. */
    bool bound() const;

    /** Is one of them closed? One that is gone counts as closed. */
    bool anyClosed() const;

    /**
     * Closes those that are open. Goes on after a failure; returns false with errno set to that of
     * the first one.
     */
    bool close() const;

    /**
     * Opens all, and only then has each one probed: a driver may claim other interfaces of its
     * device beside the one that it is probed for, and cannot have a closed one. Probing is over
     * when this returns. Returns false with errno set if that failed.
     */
    bool open() const;

    /**
     * Opens all and offers them to |driver| alone, which may decline. Returns false with errno set
     * if an interface could not be opened or if there is no such driver.
     */
    bool openFor(const std::string& driver) const;

    /** Closes those without a driver. Fails as close() does. */
    bool closeUnbound() const;

  private:
    struct Interface {
        std::string name;
        int32_t interfaceClass = -1;
        /** "authorized"; -1 if it could not be opened, |openError| tells why. */
        base::unique_fd authorized;
        int openError = 0;

        bool isOpen() const;
        bool set(bool open) const;
    };

    bool isBound(const Interface& interface) const;
    bool setAllOpen() const;
    std::string busPath(const std::string& name) const { return dir_ + "/subsystem/" + name; }

    std::string dir_;
    std::vector<Interface> interfaces_;
};

/**
 * From now on the kernel makes the interfaces of every device on the bus of the root hub at |dir|
 * closed; those that exist stay as they are. The root hub's own is opened if it has no driver: it
 * is a closed one itself if this comes before it. Returns false with errno set if that failed; a
 * root hub that is gone is no failure.
 */
bool closeRootHub(const std::string& dir);

/**
 * The same for all root hubs below |sysfs|, or for none: nothing is written unless all can be.
 * Returns nothing, or what is wrong: a text that names the attribute and the reason.
 */
std::optional<std::string> closeRootHubs(const std::string& sysfs);

}  // namespace android::kus::tools
