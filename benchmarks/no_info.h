// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/**
 * Takes the INFO messages out of a source that is included behind this: they are still compiled,
 * and never asked for.
 */

#pragma once

#include <android-base/logging.h>

#define KUS_LOG_INFO \
    while (false) LOG_STREAM(INFO)
#define KUS_LOG_WARNING LOGGING_PREAMBLE(WARNING) && LOG_STREAM(WARNING)
#define KUS_LOG_ERROR LOGGING_PREAMBLE(ERROR) && LOG_STREAM(ERROR)
#define KUS_LOG_FATAL LOGGING_PREAMBLE(FATAL) && LOG_STREAM(FATAL)

#undef LOG
#define LOG(severity) KUS_LOG_##severity
