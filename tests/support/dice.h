// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <iterator>
#include <random>

namespace android::kus::test {

/** Chance for tests of random data: the same for the same seed, on every machine. */
class Dice {
  public:
    explicit Dice(uint32_t seed) : engine_(seed) {}

    /** Any 32 bits. */
    uint32_t Bits() { return engine_(); }
    /** From 0 to count - 1; count is not 0. */
    uint32_t Below(size_t count) { return engine_() % count; }
    bool Percent(uint32_t chance) { return Below(100) < chance; }

    template <typename Items>
    const auto& OneOf(const Items& items) {
        return *(std::begin(items) + Below(std::size(items)));
    }

    /** Not by std::shuffle(), whose order is the library's own. */
    template <typename Items>
    void Shuffle(Items* items) {
        for (size_t left = items->size(); left > 1; --left) {
            std::swap((*items)[left - 1], (*items)[Below(left)]);
        }
    }

  private:
    std::mt19937 engine_;
};

}  // namespace android::kus::test
