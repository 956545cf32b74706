// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/allocation_counter.h"

#include <malloc.h>
#include <stdlib.h>

#include <atomic>
#include <new>

namespace {

std::atomic<size_t> blocksTaken = 0;
std::atomic<size_t> bytesInUse = 0;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,google-*,misc-*)
extern "C" {

void* __real_calloc(size_t count, size_t size);
void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);

void* __wrap_calloc(size_t count, size_t size) {
    ++blocksTaken;
    return __real_calloc(count, size);
}

void* __wrap_malloc(size_t size) {
    ++blocksTaken;
    return __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size) {
    ++blocksTaken;
    return __real_realloc(block, size);
}

}  // extern "C"

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    ++blocksTaken;
    void* block = __real_malloc(size == 0 ? 1 : size);
    bytesInUse += malloc_usable_size(block);
    return block;
}

void* operator new(size_t size) {
    void* block = operator new(size, std::nothrow);
    if (block == nullptr) abort();
    return block;
}

void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}

void* operator new[](size_t size) {
    return operator new(size);
}

void operator delete(void* block) noexcept {
    bytesInUse -= malloc_usable_size(block);
    free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept {
    operator delete(block);
}

void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
    operator delete(block);
}

void operator delete[](void* block) noexcept {
    operator delete(block);
}

void operator delete[](void* block, size_t /*size*/) noexcept {
    operator delete(block);
}

void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept {
    operator delete(block);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,google-*,misc-*)

namespace android::kus::test {

size_t BlocksTaken() {
    return blocksTaken;
}

size_t BytesInUse() {
    return bytesInUse;
}

}  // namespace android::kus::test
