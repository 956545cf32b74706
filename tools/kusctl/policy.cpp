// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/policy.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <utility>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>

namespace android::kus::tools {

using tinyxml2::XMLElement;

namespace {

constexpr char kCrashStatus[] = "Unable to apply the USB Admin config rules";

// The crash is the answer that is wanted: nobody else is to hear of it.
void dieQuietly() {
    prctl(PR_SET_DUMPABLE, 0);
    (void)signal(SIGSEGV, SIG_DFL);
    (void)signal(SIGABRT, SIG_DFL);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null != -1) dup2(null, STDERR_FILENO);
}

// What the parser throws ends the daemon: nobody in front of the fork is to catch it.
void parseInVain(const ConfigDocument& document) noexcept {
    Util::readConfig(document);
}

// The signal that ends the daemon's parser over this document, 0 if none does.
int signalOfParser(const ConfigDocument& document) {
    const pid_t child = fork();
    if (child == -1) PLOG(FATAL) << "Cannot make a process";
    if (child == 0) {
        dieQuietly();
        parseInVain(document);
        _exit(0);
    }
    int status = 0;
    if (TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) != child) {
        PLOG(FATAL) << "Cannot wait for a process";
    }
    const int ended = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    if (ended != 0 && ended != SIGSEGV && ended != SIGABRT) {
        LOG(FATAL) << "The parser could not be tried: its process was ended by signal " << ended;
    }
    return ended;
}

const std::string& readInto(const std::string& text, ConfigDocument* document) {
    document->Parse(text.data(), text.size());
    return text;
}

bool isNamed(const XMLElement& element, const char* name) {
    return strcmp(element.Value(), name) == 0;
}

// The parser has made one rule of each "class", and of each "vid" one, or one a product id; it has
// stopped at the first error.
std::vector<RuleAt> locateRules(const XMLElement* root, const Config& config) {
    std::vector<RuleAt> rules;
    auto code = config.classes.begin();
    auto ids = config.vendors.begin();
    const auto addIds = [&](const XMLElement& element) {
        if (ids != config.vendors.end()) rules.push_back({{}, *ids++, &element});
    };
    const auto addRules = [&](const XMLElement& element) {
        if (isNamed(element, "class")) {
            if (code != config.classes.end()) rules.push_back({*code++, {}, &element});
            return;
        }
        const std::vector<const XMLElement*> products = productElements(element);
        if (products.empty()) addIds(element);
        for (const XMLElement* product : products) addIds(*product);
    };
    if (config.classes.empty() && config.vendors.empty()) return rules;
    for (const XMLElement* element = root->FirstChildElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        addRules(*element);
    }
    return rules;
}

// In a "vid" whose conversion has ended the parser.
const XMLElement* tooLargeIn(const XMLElement& vid) {
    if (isTooLarge(vid.Attribute("vendorid"))) return &vid;
    for (const XMLElement* product : productElements(vid)) {
        if (isTooLarge(product->GetText())) return product;
    }
    return nullptr;
}

const XMLElement* firstTooLarge(const XMLElement* root) {
    for (const XMLElement* vid = root->FirstChildElement("vid"); vid != nullptr;
         vid = vid->NextSiblingElement("vid")) {
        if (const XMLElement* element = tooLargeIn(*vid)) return element;
    }
    return nullptr;
}

}  // namespace

bool isTooLarge(const char* text) {
    if (text == nullptr || !Util::isValidNumber(text)) return false;
    int32_t number = 0;
    return std::from_chars(text, text + strlen(text), number).ec == std::errc::result_out_of_range;
}

std::vector<const XMLElement*> productElements(const XMLElement& vid) {
    std::vector<const XMLElement*> products;
    for (const XMLElement* product = vid.FirstChildElement("pid"); product != nullptr;
         product = product->NextSiblingElement()) {
        products.push_back(product);
    }
    return products;
}

Parsed<std::unique_ptr<Policy>> Policy::load(const std::string& path) {
    std::string text;
    if (!base::ReadFileToString(path, &text, /*follow_symlinks=*/true)) {
        return wrong(path + " cannot be read: " + strerror(errno));
    }
    return parse(path, text);
}

std::unique_ptr<Policy> Policy::parse(const std::string& name, const std::string& text) {
    return std::unique_ptr<Policy>(new Policy(name, text));
}

Policy::Policy(std::string path, const std::string& text)
    : path_(std::move(path)),
      source_(readInto(text, &document_), document_),
      crashSignal_(signalOfParser(document_)) {
    if (crashSignal_ != 0) return;
    config_ = Util::readConfig(document_);
    rules_ = locateRules(root(), config_);
    for (const RuleAt& rule : rules_) {
        if (rule.code) {
            classes_.emplace(*rule.code, &rule);
            continue;
        }
        pairs_.emplace(rule.ids, &rule);
        if (rule.ids.second == ANY_PRODUCT_ID) vendorOnly_.emplace(rule.ids.first, &rule);
    }
}

const RuleAt* Policy::findClass(int32_t code) const {
    const auto found = classes_.find(code);
    return found == classes_.end() ? nullptr : found->second;
}

const RuleAt* Policy::findVendorOnlyFrom(int32_t vendorId) const {
    const auto found = vendorOnly_.lower_bound(vendorId);
    return !hasVendor(vendorId) || found == vendorOnly_.end() ? nullptr : found->second;
}

const RuleAt* Policy::findProduct(int32_t vendorId, int32_t productId) const {
    const auto found = pairs_.find({vendorId, productId});
    return found == pairs_.end() ? nullptr : found->second;
}

bool Policy::hasVendor(int32_t vendorId) const {
    const auto found = pairs_.lower_bound({vendorId, INT32_MIN});
    return found != pairs_.end() && found->first.first == vendorId;
}

std::string Policy::textOf(const RuleAt& rule) const {
    const Position position = positionOf(rule);
    return base::Trim(std::string(source_.line(position.line).substr(position.column - 1)));
}

std::string Policy::status() const {
    if (crashSignal_ != 0) return kCrashStatus;
    return config_.whole() ? "SUCCESS" : config_.error;
}

Position Policy::errorPosition() const {
    if (config_.outcome == Config::Outcome::kNotLoaded) {
        return source_.firstOn(document_.ErrorLineNum());
    }
    const XMLElement* element = config_.failedAt;
    if (crashSignal_ != 0 && root() != nullptr) element = firstTooLarge(root());
    return element == nullptr ? Position() : source_.of(*element);
}

}  // namespace android::kus::tools
