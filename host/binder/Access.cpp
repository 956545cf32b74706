// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The service manager's one door to the system's security policy. A terminal built from Debian
// loads no SELinux policy that could tell services apart, so user ids answer instead: everybody may
// find and list services, as the tests' clients of several ids do; only root and the system user,
// the ids that the platform starts its daemons with, may add one.

#include "Access.h"

#include <binder/IPCThreadState.h>
#include <cutils/android_filesystem_config.h>

namespace android {

Access::Access() = default;
Access::~Access() = default;

Access::CallingContext Access::getCallingContext() {
    IPCThreadState* ipc = IPCThreadState::self();
    const char* sid = ipc->getCallingSid();
    return {ipc->getCallingPid(), ipc->getCallingUid(), sid == nullptr ? "" : sid};
}

bool Access::canFind(const CallingContext& /* context */, const std::string& /* name */) {
    return true;
}

bool Access::canAdd(const CallingContext& context, const std::string& /* name */) {
    return context.uid == AID_ROOT || context.uid == AID_SYSTEM;
}

bool Access::canList(const CallingContext& /* context */) {
    return true;
}

}  // namespace android
