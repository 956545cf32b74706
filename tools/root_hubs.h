// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <memory>
#include <string>
#include <thread>

#include <android-base/unique_fd.h>

#include "tools/uevent_monitor.h"

namespace android::kus::tools {

/**
 * Keeps every root hub closed (closeRootHub), those present and those that come: a controller that
 * is switched off and on comes back with a new root hub, and the kernel makes that one open.
 *
 * A thread of its own answers a new root hub's uevent, so that neither a slow verdict nor a client
 * that does not return from its callback is in the way. The answer has to be neither too early nor
 * too late:
 * - A root hub gets its configuration as any device does. Closed before that ("add"), it makes its
 *   own interface a closed one, gets no driver, and the bus is dead. So it is closed when that is
 *   over ("bind").
 * - Then its driver has given power to the ports. It waits 100 ms for the power to be good and
 *   another 100 ms for the connection of a device to be stable, and a device takes its time for
 *   reset, address and descriptors: about a quarter of a second is left. A device that is
 *   configured before the answer gets its drivers; the agent closes it (Agent::closePresent), and
 *   from then on it is like any other.
 * Nobody answers while the agent does not run.
 *
 * The root hubs stay closed when this ends.
 */
class RootHubs {
  public:
    /**
     * Closes those present and starts to listen. Returns null if that failed, with |error| set to
     * a text that says what; then nothing has been closed.
     */
    static std::unique_ptr<RootHubs> keepClosed(std::string* error);

    /** Stops the thread. */
    ~RootHubs();

    /** Becomes readable when a root hub could not be closed; error() tells why from then on. */
    int failureFd() const { return failure_.get(); }
    const std::string& error() const { return error_; }

  private:
    explicit RootHubs(std::unique_ptr<UeventMonitor> monitor);

    void run();
    bool awaitEvents() const;
    bool closeNew();
    bool fail(std::string error);

    std::unique_ptr<UeventMonitor> monitor_;
    const base::unique_fd stop_;
    const base::unique_fd failure_;
    // Written before |failure_| is signalled, never after.
    std::string error_;
    std::thread thread_;
};

}  // namespace android::kus::tools
