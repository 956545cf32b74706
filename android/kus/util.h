// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <tinyxml2.h>
#include <utils/Mutex.h>

#include "android/kus/constants.h"

namespace android::kus {

// False for what is not there, links to nowhere included.
bool exists(const std::string& path);
bool isDirectory(const std::string& path);

/**
 * Replaces a file's content in place, or makes the file; false when it cannot be opened or written.
 *
 * Content and name are on disk when it returns; who watches the directory sees one close behind a
 * write. Takes no lock.
 */
bool replaceFile(const std::string& path, const std::string& content);

/** Known input-source codes, ascending. A value, without memory of its own. */
class SourceList {
  public:
    using value_type = int32_t;
    using const_iterator = const int32_t*;

    /** code must be one of usbClassTable's, and larger than those before it. */
    void push_back(int32_t code) { codes_[size_++] = code; }

    const_iterator begin() const { return codes_.data(); }
    const_iterator end() const { return codes_.data() + size_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

  private:
    std::array<int32_t, std::size(usbClassTable)> codes_ = {};
    size_t size_ = 0;
};

/** A configuration file as the parser wants it loaded: entities processed, whitespace kept. */
class ConfigDocument : public tinyxml2::XMLDocument {
  public:
    ConfigDocument() : XMLDocument(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE) {}
};

/** What a configuration file says, up to its first error. */
struct Config {
    enum class Outcome {
        kGood,
        /** Good as well: a whitelist or blacklist without any rule. */
        kNoRules,
        kBadFile,
        kNotLoaded,
    };

    bool whole() const { return outcome == Outcome::kGood || outcome == Outcome::kNoRules; }

    Outcome outcome = Outcome::kGood;
    /** None when the file ends before it tells one: that in force stays. */
    std::optional<std::string> mode;
    /** In file order, repeats kept. */
    std::vector<int32_t> classes;
    std::vector<VendorRule> vendors;

    /** Of a file that is not whole. */
    std::string error;
    /** The bad file's element that has the error; the document's, and no longer there than that. */
    const tinyxml2::XMLElement* failedAt = nullptr;
    /** Goes into the log with the error, in front of the status: of most failures. */
    const char* logInFront = nullptr;
    /** The same behind the status: of two failures, meant. */
    const char* logBehind = nullptr;
};

/**
 * The administrator's rules: parsing them, asking them, and the files that tell their outcome.
 *
 * All state is process-wide (android/kus/constants.h); there are no objects. Whoever asks holds
 * rulesLock, and gets all answers from one file as long as it does.
 */
class Util {
  public:
    Util() = delete;

    // --- Parsing -------------------------------------------------------------------------------

    /**
     * Reads the configuration file and replaces the rules in force with what it says, all at once
     * and at the end: who asks meanwhile gets those of the file before. One thread at a time.
     *
     * Success sets xml_parse_status. A failure clears it, puts the reason into errorMessage and
     * into the status file, and puts those of the file's rules in force that precede the failing
     * one; a file that cannot be loaded leaves none, and errorMessage as it was. "mode" is taken
     * over before it is checked.
     *
     * Two inputs end the process: a document without any element (SIGSEGV) and a decimal id above
     * 2147483647 (uncaught std::out_of_range, SIGABRT). The crash handler answers both by
     * restoring the last good file.
     */
    static void createMapFromConfig(const std::string& path) EXCLUDES(rulesLock);

    /**
     * The same of a loaded document, without anything being changed by it. Both inputs end the
     * process here as well. Any thread.
     */
    static Config readConfig(const ConfigDocument& document);

    /** Replaces the rules in force, all at once. Any thread. */
    static void putInForce(Config config) EXCLUDES(rulesLock);

    /** The code of a name of usbClassTable, matched whole; 0xFFFFFFFF for any other text. */
    static unsigned int convert(const std::string& name);

    /** True for one or more of '0' to '9' and nothing else. */
    static bool isValidNumber(const std::string& s);

    // --- Asking --------------------------------------------------------------------------------

    /** The mode in force: "default", "whitelist", "blacklist", or a rejected file's word. */
    static std::string getMode() REQUIRES(rulesLock);

    /** Does a class rule name this class or input-source code? */
    static bool validateClass(unsigned int classCode) REQUIRES(rulesLock);

    /** Is this one of restrictedClasses? */
    static bool validateRestrictedClass(unsigned int classCode);

    /**
     * Does a vendor rule without products apply?
     *
     * The search for such a rule starts at the vendor's own first rule and goes on to the end of
     * the whole table: a vendor with product rules only is matched by a vendor-only rule of any
     * larger vendor id.
     */
    static bool validateVid(int vendorId) REQUIRES(rulesLock);

    /** Does a rule name exactly this pair? -1 as product asks for a rule without products. */
    static bool validateVidPid(int vendorId, int productId) REQUIRES(rulesLock);

    /**
     * The name of a code of usbClassTable; one blank, never an empty text, for any other. The texts
     * last as long as the process; they are there when main() begins.
     */
    static const std::string& getClassName(int code);

    /**
     * The known input-source codes that make up a source, ascending; may be empty.
     *
     * Bits 0 to 7 (the platform's source class bits) are ignored.
     */
    static SourceList checkMultiClass(int sourceBits);

    // --- Files ---------------------------------------------------------------------------------

    /**
     * Replaces the content of a file with a text, without a line end.
     *
     * A file that cannot be opened is silently not written. Takes no lock and is called by the
     * crash handler.
     */
    static void updateErrorFile(std::string path, std::string message);

    /**
     * Replaces the content of dst with the lines of src, each ended by one line feed.
     *
     * src is on disk before dst is emptied, dst when it returns: one of the two survives the loss
     * of power at any moment.
     *
     * False when src or, with at least one line to write, dst could not be opened. dst is emptied
     * even when src cannot be read. Takes no lock and is called by the crash handler.
     */
    static bool copyFileContent(std::string src, std::string dst);
};

}  // namespace android::kus
