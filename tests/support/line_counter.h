// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/** A logger for tests that log a million lines from many threads: it keeps none. */

#pragma once

#include <string>
#include <vector>

namespace android::kus::test {

/**
 * Drops all lines from now on, but counts those that begin with one of these texts; all counts
 * start at 0. For the rest of the process, and before it has a second thread: other lines take no
 * lock, so that the threads that log them stay as independent of each other as they are.
 */
void CountLines(const std::vector<std::string>& beginnings);

/** How often this very line was logged; it must begin with one of the texts. */
int LinesLogged(const std::string& line);

/** Waits until these very lines were logged so many times in all; false when that takes long. */
bool WaitForLines(const std::vector<std::string>& lines, int times);

}  // namespace android::kus::test
