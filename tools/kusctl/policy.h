// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tinyxml2.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "tools/kusctl/source_map.h"
#include "tools/options.h"

namespace android::kus::tools {

/** A rule of the file and the element that makes it. */
struct RuleAt {
    /** Class or input-source code; none for a vendor rule. */
    std::optional<int32_t> code;
    /** Vendor id, and product id or ANY_PRODUCT_ID. */
    VendorRule ids = {0, 0};
    /** "class", "vid", or the element that was read as a product id. */
    const tinyxml2::XMLElement* element = nullptr;
};

/**
 * A policy file as the daemon's own parser sees it. Nothing on disk is touched, and the rules in
 * force in this process are only changed by putInForce().
 */
class Policy {
  public:
    /**
     * Reads the file at |path|, which may be a pipe. An error is that it cannot be read; a file
     * that the daemon would reject is none.
     *
     * The parser runs in a child process first, for some files end it. No other thread may run.
     */
    static Parsed<std::unique_ptr<Policy>> load(const std::string& path);
    /** The same of a text, which is called |name|. */
    static std::unique_ptr<Policy> parse(const std::string& name, const std::string& text);

    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    const std::string& path() const { return path_; }

    /** Would the daemon take it over? */
    bool accepted() const { return crashSignal_ == 0 && config_.whole(); }
    /** SIGSEGV or SIGABRT for a file that ends the daemon, else 0. */
    int crashSignal() const { return crashSignal_; }
    /** What the status file would hold: "SUCCESS", or why it is rejected. */
    std::string status() const;
    /** Where the error is; for a file that is no XML the line that the library tells. */
    Position errorPosition() const;

    /** "default", "whitelist", "blacklist", a rejected word, or nothing. */
    const std::optional<std::string>& mode() const { return config_.mode; }
    /** The rules in file order; those before the error, none if the file ends the daemon. */
    const std::vector<RuleAt>& rules() const { return rules_; }

    /** The first rule of the class or input source, or null. */
    const RuleAt* findClass(int32_t code) const;
    /**
     * The vendor-only rule that a question about this vendor comes upon, or null: the daemon looks
     * from the vendor's own rules on through those of all larger vendor ids.
     */
    const RuleAt* findVendorOnlyFrom(int32_t vendorId) const;
    /** The first rule of exactly this pair, or null. */
    const RuleAt* findProduct(int32_t vendorId, int32_t productId) const;
    /** Has the vendor any rule? */
    bool hasVendor(int32_t vendorId) const;

    /** Judging in this process is by this policy from now on. */
    void putInForce() const { Util::putInForce(config_); }

    /** The document's first element; null if there is none or it is no XML. */
    const tinyxml2::XMLElement* root() const { return document_.FirstChildElement(); }
    const tinyxml2::XMLDocument& document() const { return document_; }
    const Config& config() const { return config_; }
    const SourceMap& source() const { return source_; }
    Position positionOf(const RuleAt& rule) const { return source_.of(*rule.element); }
    /** The rule as the file has it: from its '<' to the end of the line. */
    std::string textOf(const RuleAt& rule) const;

  private:
    Policy(std::string path, const std::string& text);

    const std::string path_;
    ConfigDocument document_;
    const SourceMap source_;
    int crashSignal_ = 0;
    Config config_;
    std::vector<RuleAt> rules_;
    // The first of each.
    std::map<int32_t, const RuleAt*> classes_;
    std::map<VendorRule, const RuleAt*> pairs_;
    std::map<int32_t, const RuleAt*> vendorOnly_;
};

/** Digits whose value no 32-bit number holds: the daemon's conversion of these ends it. */
bool isTooLarge(const char* text);

/** The elements that are read as product ids of a "vid": from the first "pid" on, of any name. */
std::vector<const tinyxml2::XMLElement*> productElements(const tinyxml2::XMLElement& vid);

}  // namespace android::kus::tools
