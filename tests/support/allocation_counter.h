// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

/**
 * The memory that a program takes, block by block.
 *
 * For programs that have allocation_counter.cpp among their own sources, because it replaces the
 * program's operators new and delete, and are linked with LINKER:--wrap=calloc,malloc,realloc.
 */

#pragma once

#include <stddef.h>

namespace android::kus::test {

/**
 * How many blocks the process has taken so far: by any operator new, its libraries' included, and
 * by calloc(), malloc() and realloc() in code that is linked into it.
 */
size_t BlocksTaken();

/** How many bytes the blocks hold that operator new gave and nobody has deleted. */
size_t BytesInUse();

/** How many blocks the process takes while body runs. */
template <typename Body>
size_t BlocksTakenBy(Body body) {
    const size_t before = BlocksTaken();
    body();
    return BlocksTaken() - before;
}

}  // namespace android::kus::test
