// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// <cutils/properties.h> takes its limits from this header of the platform's C library, which glibc
// does not have.

#pragma once

#define PROP_NAME_MAX 32
// The terminator is part of it.
#define PROP_VALUE_MAX 92
