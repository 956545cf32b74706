// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// The platform's headers are written for its own C++ library, whose headers include one another
// more freely than libstdc++'s do. host/platform.cmake puts this file in front of every C++ source
// that uses them, so that the sources themselves need to know nothing of it.

#pragma once

#include <malloc.h>

#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// An option of the platform's mallopt(); host/malloc knows it.
#define M_PURGE (-101)
