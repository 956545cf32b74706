// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/allocation_counter.cpp"  // NOLINT(bugprone-suspicious-include)
