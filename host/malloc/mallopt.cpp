// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <dlfcn.h>
#include <malloc.h>

namespace {

int glibcMallopt(int option, int value) {
    static const auto next = reinterpret_cast<decltype(&mallopt)>(dlsym(RTLD_NEXT, "mallopt"));
    return next(option, value);
}

// glibc raises its thresholds to the largest block that was ever freed, and a thread's own heap
// then keeps as much at its end, even from malloc_trim(). Setting one, here to its default, stops
// that.
[[gnu::constructor]] void keepThresholds() {
    constexpr int kDefault = 128 * 1024;
    glibcMallopt(M_MMAP_THRESHOLD, kDefault);
}

}  // namespace

// The platform's allocator gives free memory back on M_PURGE; glibc's has a call of its own for it.
extern "C" int mallopt(int option, int value) {
    if (option != M_PURGE) return glibcMallopt(option, value);
    malloc_trim(0);
    return 1;
}
