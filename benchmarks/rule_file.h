// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stdint.h>

#include <string>

namespace android::kus::bench {

/**
 * A whitelist of so many rules in random order, the same each time: a tenth of them name a vendor,
 * a tenth a class or an input source, all others a vendor and a product.
 *
 * The vendors without products have the smallest ids, so that none of them decides for a vendor
 * with products.
 */
class RuleFile {
  public:
    /** rules must be a multiple of ten, and productsPerElement divide four fifths of them. */
    RuleFile(int rules, int productsPerElement);

    const std::string& text() const { return text_; }

    /** The source that the very last class rule names, and no other. */
    static constexpr int32_t kListedSource = 0x100;
    /** A source that no rule names. */
    static constexpr int32_t kUnlistedSource = 0x2000;

    /** A vendor without products, in the middle of those. */
    int32_t vendor() const { return vendor_; }
    /** A pair in the middle of those. */
    int32_t pairVendor() const { return pairVendor_; }
    int32_t pairProduct() const { return pairProduct_; }
    /** The first vendor that has products: all others with products come behind it. */
    int32_t firstPairVendor() const { return firstPairVendor_; }
    /** A product that no rule names. */
    static constexpr int32_t kUnlistedProduct = 0xFFFF;

  private:
    std::string text_;
    int32_t vendor_ = 0;
    int32_t pairVendor_ = 0;
    int32_t pairProduct_ = 0;
    int32_t firstPairVendor_ = 0;
};

}  // namespace android::kus::bench
