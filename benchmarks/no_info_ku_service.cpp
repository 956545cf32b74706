// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "benchmarks/no_info.h"

#include "android/kus/ku_service.cpp"  // NOLINT(bugprone-suspicious-include)
