// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/advice.h"

#include <string.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"

namespace android::kus::tools {

using base::ParseInt;
using base::StartsWith;
using base::StringPrintf;
using base::Trim;
using tinyxml2::XMLAttribute;
using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

namespace {

constexpr int32_t kLargestUsbId = 0xFFFF;
constexpr unsigned int kNoSuchClass = 0xFFFFFFFF;
constexpr int32_t kComm = 2;
constexpr int32_t kHid = 3;
constexpr int32_t kHub = 9;
constexpr int32_t kCdcData = 10;
constexpr int32_t kKeyboard = 0x100;
constexpr int32_t kDpad = 0x200;

const std::vector<AdviceId>& kIds = *new std::vector<AdviceId>{
        {"bad-meant", "a \"kusctl:\" comment that is not understood"},
        {"bad-mode", "the mode is none of the three words"},
        {"bad-name", "an element or class name that does not exist"},
        {"bad-number", "an id that is not written in decimal digits"},
        {"bad-xml", "the file is no well-formed XML"},
        {"crash", "the daemon's parser would die of it"},
        {"duplicate", "a rule that is there already"},
        {"half-keyboard", "a blacklist that lets some keyboards through"},
        {"half-modem", "one of the two classes that modems and network adapters have together"},
        {"leading-zero", "decimal digits that look like the hexadecimal ones of lsusb"},
        {"never-matches", "an id that no USB device can have"},
        {"no-effect", "a product id of a vendor whose products match already"},
        {"no-keyboard", "a whitelist without a rule for keyboards"},
        {"not-read", "text, attributes or elements that are passed over"},
        {"read-as-product", "an element that is no \"pid\" and is read as one"},
        {"refuses-all", "a whitelist that no device can match"},
        {"restricted", "a class that no rule can name"},
};

// Of what the daemon rejects: nobody can have meant that.
const std::set<std::string>& kRejected = *new std::set<std::string>{
        "bad-meant", "bad-mode", "bad-name", "bad-number", "bad-xml", "crash", "restricted"};

class Adviser {
  public:
    explicit Adviser(const Policy& policy) : policy_(policy) {}

    void add(const char* id, const XMLElement& element, std::string text) {
        advice_.push_back({id, policy_.source().of(element), std::move(text)});
    }
    void addAt(const char* id, const Position& position, std::string text) {
        advice_.push_back({id, position, std::move(text)});
    }

    int lineOf(const XMLElement& element) const { return policy_.source().of(element).line; }
    const Policy& policy() const { return policy_; }
    std::vector<Advice> take() { return std::move(advice_); }

  private:
    const Policy& policy_;
    std::vector<Advice> advice_;
};

bool isNamed(const XMLElement& element, std::string_view name) {
    return name == element.Value();
}

std::string quoted(std::string_view text) {
    return '"' + std::string(text) + '"';
}

// --- names ---------------------------------------------------------------------------------------

std::string upperCase(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

// How many characters must be put in, left out or replaced to make one of the other.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i);
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
        }
    }
    return row[b.size()];
}

// A class by its number, which people read off lsusb in either form.
const ClassName* classOfNumber(const std::string& text) {
    int32_t code = 0;
    if (!ParseInt(text, &code)) return nullptr;
    const auto* row = std::find_if(std::begin(usbClassTable), std::end(usbClassTable),
                                   [&](const ClassName& r) { return r.code == code; });
    return row == std::end(usbClassTable) ? nullptr : row;
}

// "KEYBOARD": the name without what stands before all of its kind.
std::string withoutPrefix(const std::string& name) {
    for (const char* prefix :
         {"USB_CLASS_", "AINPUT_SOURCE_", "USB_", "AINPUT_", "CLASS_", "SOURCE_"}) {
        if (StartsWith(name, prefix)) return name.substr(strlen(prefix));
    }
    return name;
}

// What people call what has another name here.
struct Synonym {
    const char* word;
    const char* names;
};
constexpr Synonym kSynonyms[] = {
        {"CAMERA", "USB_CLASS_STILL_IMAGE or USB_CLASS_VIDEO"},
        {"CCID", "USB_CLASS_CSCID"},
        {"CDC", "USB_CLASS_COMM and USB_CLASS_CDC_DATA"},
        {"CHIP", "USB_CLASS_CSCID"},
        {"DISK", "USB_CLASS_MASS_STORAGE"},
        {"ETHERNET", "USB_CLASS_COMM and USB_CLASS_CDC_DATA"},
        {"MODEM", "USB_CLASS_COMM and USB_CLASS_CDC_DATA"},
        {"NETWORK", "USB_CLASS_COMM and USB_CLASS_CDC_DATA"},
        {"SCANNER", "AINPUT_SOURCE_KEYBOARD for one that types"},
        {"SERIAL", "USB_CLASS_COMM and USB_CLASS_CDC_DATA"},
        {"SMARTCARD", "USB_CLASS_CSCID"},
        {"SMART_CARD", "USB_CLASS_CSCID"},
        {"STORAGE", "USB_CLASS_MASS_STORAGE"},
        {"TOUCH", "AINPUT_SOURCE_TOUCHSCREEN or AINPUT_SOURCE_TOUCHPAD"},
};

const ClassName* closestName(const std::string& text) {
    constexpr size_t kFarthest = 3;
    constexpr size_t kLongest = 64;
    // Nobody means a name of these that is a page long.
    if (text.size() > kLongest) return nullptr;
    const ClassName* nearest = nullptr;
    size_t least = kFarthest + 1;
    for (const ClassName& row : usbClassTable) {
        const bool isShort = withoutPrefix(text) == withoutPrefix(row.name);
        const size_t far = isShort ? 0 : distance(text, row.name);
        if (far >= least) continue;
        nearest = &row;
        least = far;
    }
    return nearest;
}

// "Mass-Storage ", as the table would have it.
std::string tableForm(const std::string& text) {
    std::string form = upperCase(Trim(text));
    std::replace_if(
            form.begin(), form.end(), [](char c) { return c == ' ' || c == '-'; }, '_');
    return form;
}

std::string insteadOfRestricted(int32_t code) {
    switch (code) {
        case kHid:
            return "name the kind of input device (AINPUT_SOURCE_KEYBOARD, ...), or for a vendor's "
                   "own HID devices its vendor and product id";
        case kHub:
            return "leave it out";
        default:
            return "name the device's vendor and product id";
    }
}

std::string restrictedText(const ClassName& row) {
    return StringPrintf("%s (class %d) is restricted: no rule can name it, %s", row.name, row.code,
                        insteadOfRestricted(row.code).c_str());
}

// What should have been written for a class name that there is not.
std::string hintOnClass(const std::string& text) {
    const std::string form = tableForm(text);
    const ClassName* row = classOfNumber(Trim(text));
    if (row == nullptr) {
        for (const Synonym& synonym : kSynonyms) {
            if (withoutPrefix(form) == synonym.word) {
                return std::string(": write ") + synonym.names;
            }
        }
        row = closestName(form);
    }
    if (row == nullptr) return ": usb_device_config(5) lists the names";
    if (Util::validateRestrictedClass(row->code)) return "; " + restrictedText(*row);
    const bool padded = Trim(text) == row->name;
    return std::string(": write ") + row->name + (padded ? ", without blanks or line ends" : "");
}

void adviseOnClassName(const XMLElement& element, Adviser* adviser) {
    const char* text = element.GetText();
    if (text == nullptr) {
        adviser->add("bad-name", element, "a class rule needs a name, like USB_CLASS_AUDIO");
        return;
    }
    const unsigned int code = Util::convert(text);
    if (code == kNoSuchClass) {
        adviser->add("bad-name", element, "there is no class " + quoted(text) + hintOnClass(text));
    } else if (Util::validateRestrictedClass(code)) {
        adviser->add("restricted", element, restrictedText(*classOfNumber(std::to_string(code))));
    }
}

// --- numbers -------------------------------------------------------------------------------------

// The value of the digits as lsusb prints them, without or with 0x.
std::optional<uint32_t> hexadecimal(const std::string& text) {
    const std::string plain = Trim(text);
    const bool prefixed = StartsWith(plain, "0x") || StartsWith(plain, "0X");
    const std::string digits = prefixed ? plain.substr(2) : plain;
    uint32_t value = 0;
    const bool isHex = !digits.empty() && digits.size() <= 4 &&
                       digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos &&
                       base::ParseUint("0x" + digits, &value);
    return isHex ? std::optional(value) : std::nullopt;
}

bool isDecimal(const std::string& text) {
    return Util::isValidNumber(text);
}

void adviseOnBadNumber(const std::string& what, const std::string& text, const XMLElement& element,
                       Adviser* adviser) {
    std::string advice = what + " " + quoted(text) + " must be decimal digits alone";
    const std::optional<uint32_t> value = hexadecimal(text);
    if (isDecimal(Trim(text))) {
        advice += ": write " + Trim(text);
    } else if (value) {
        advice += StringPrintf(": hexadecimal %04x is %u", *value, *value);
    }
    adviser->add("bad-number", element, advice);
}

void adviseOnGoodNumber(const std::string& what, const std::string& text, const XMLElement& element,
                        Adviser* adviser) {
    if (isTooLarge(text.c_str())) {
        adviser->add("crash", element,
                     what + " " + text + " ends the daemon: USB ids go up to 65535");
        return;
    }
    const int32_t value = std::stoi(text);
    if (value > kLargestUsbId) {
        adviser->add("never-matches", element,
                     what + " " + text + " never matches: USB ids go up to 65535");
    } else if (text.size() > 1 && text[0] == '0') {
        const std::optional<uint32_t> hex = hexadecimal(text);
        std::string advice = what + " " + text + StringPrintf(" is read as decimal %d", value);
        if (hex && static_cast<int32_t>(*hex) != value) {
            advice += StringPrintf("; if it is the %s of lsusb, write %u", text.c_str(), *hex);
        }
        adviser->add("leading-zero", element, advice);
    }
}

void adviseOnNumber(const std::string& what, const char* text, const XMLElement& element,
                    Adviser* adviser) {
    if (text == nullptr || *text == '\0') {
        adviser->add("bad-number", element, what + " is missing");
    } else if (isDecimal(text)) {
        adviseOnGoodNumber(what, text, element, adviser);
    } else {
        adviseOnBadNumber(what, text, element, adviser);
    }
}

// --- what is passed over -------------------------------------------------------------------------

void adviseOnAttributes(const XMLElement& element, std::string_view known,
                        const std::string& consequence, Adviser* adviser) {
    for (const XMLAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        const std::string name = attribute->Name();
        // Namespaces, and where an editor finds the schema.
        if (name == known || StartsWith(name, "xml") || StartsWith(name, "xsi:")) continue;
        if (!known.empty() && base::EqualsIgnoreCase(name, known)) {
            adviser->add("not-read", element,
                         "attribute " + quoted(name) + " is not read: write " + std::string(known));
            continue;
        }
        adviser->add("not-read", element,
                     "attribute " + quoted(name) + " of <" + element.Value() + "> is not read" +
                             consequence);
    }
}

bool hasOwnText(const XMLElement& element) {
    for (const XMLNode* node = element.FirstChild(); node != nullptr; node = node->NextSibling()) {
        if (node->ToText() != nullptr && !Trim(node->Value()).empty()) return true;
    }
    return false;
}

// Of a value, the library gives the text in front of the first comment or element.
void adviseBehindText(const XMLElement& value, Adviser* adviser) {
    // Without any, the value itself is what is wrong.
    if (value.GetText() == nullptr) return;
    const XMLNode* text = value.FirstChild();
    while (text != nullptr && text->ToText() == nullptr) text = text->NextSibling();
    for (const XMLNode* node = text; node != nullptr; node = node->NextSibling()) {
        if (node != text && node->ToText() != nullptr && !Trim(node->Value()).empty()) {
            adviser->add("not-read", value, "text " + quoted(Trim(node->Value())) + " is not read");
        }
    }
    for (const XMLElement* element = value.FirstChildElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        adviser->add("not-read", *element,
                     StringPrintf("<%s> in a <%s> is not read", element->Value(), value.Value()));
    }
}

// What it means that nothing in a vendor's element is read as a product.
std::string consequenceOf(const XMLElement& vid) {
    const bool hasVendor = vid.Attribute("vendorid") != nullptr;
    return hasVendor && productElements(vid).empty()
                   ? ": the rule covers every product of the vendor"
                   : "";
}

void adviseOnStrays(const XMLElement& vid, Adviser* adviser) {
    const std::string consequence = consequenceOf(vid);
    const std::string notRead = " is not read" + consequence +
                                (consequence.empty() ? "" : ", products stand in <pid> elements");
    if (hasOwnText(vid)) adviser->add("not-read", vid, "text in a <vid>" + notRead);
    for (const XMLElement* element = vid.FirstChildElement();
         element != nullptr && !isNamed(*element, "pid"); element = element->NextSiblingElement()) {
        adviser->add("not-read", *element, StringPrintf("<%s>", element->Value()) + notRead);
    }
    for (const XMLElement* product : productElements(vid)) {
        if (isNamed(*product, "pid")) continue;
        adviser->add("read-as-product", *product,
                     StringPrintf("<%s> behind a <pid> is read as one more product id",
                                  product->Value()));
    }
}

// --- the elements --------------------------------------------------------------------------------

void adviseOnVendor(const XMLElement& vid, Adviser* adviser) {
    adviseOnNumber("the vendor id", vid.Attribute("vendorid"), vid, adviser);
    adviseOnAttributes(vid, "vendorid", consequenceOf(vid), adviser);
    adviseOnStrays(vid, adviser);
    for (const XMLElement* product : productElements(vid)) {
        adviseOnNumber("the product id", product->GetText(), *product, adviser);
        adviseOnAttributes(*product, "", "", adviser);
        adviseBehindText(*product, adviser);
    }
}

std::string hintOnTag(const std::string& name) {
    if (name == "PID") return ": a <pid> stands in the <vid> of its vendor";
    const std::string begin = name.substr(0, 8);
    if (distance(begin, "CLASS") <= 2) return ": write <class>";
    if (distance(begin, "VID") <= 1 || name.find("VENDOR") != std::string::npos) {
        return ": write <vid vendorid=\"...\">";
    }
    return ": rules are <class> and <vid>";
}

void adviseOnTag(const XMLElement& element, Adviser* adviser) {
    const std::string name = element.Value();
    adviser->add("bad-name", element,
                 "there is no rule <" + name + ">" + hintOnTag(upperCase(name)));
}

void adviseOnRule(const XMLElement& element, Adviser* adviser) {
    if (isNamed(element, "class")) {
        adviseOnClassName(element, adviser);
        adviseOnAttributes(element, "", "", adviser);
        adviseBehindText(element, adviser);
    } else if (isNamed(element, "vid")) {
        adviseOnVendor(element, adviser);
    } else {
        adviseOnTag(element, adviser);
    }
}

void adviseOnElements(const XMLElement& root, Adviser* adviser) {
    if (hasOwnText(root)) adviser->add("not-read", root, "text between the rules is not read");
    for (const XMLElement* element = root.FirstChildElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        adviseOnRule(*element, adviser);
    }
}

// --- the rules together --------------------------------------------------------------------------

void adviseOnRepeats(Adviser* adviser) {
    std::map<std::pair<int32_t, VendorRule>, const XMLElement*> first;
    for (const RuleAt& rule : adviser->policy().rules()) {
        const auto [entry, isNew] =
                first.emplace(std::make_pair(rule.code.value_or(-1), rule.ids), rule.element);
        if (isNew) continue;
        adviser->add(
                "duplicate", *rule.element,
                StringPrintf("the same rule stands in line %d", adviser->lineOf(*entry->second)));
    }
}

void adviseOnReach(Adviser* adviser) {
    // Once a vendor, however long its list is.
    std::set<int32_t> told;
    for (const RuleAt& rule : adviser->policy().rules()) {
        const auto [vendor, product] = rule.ids;
        if (rule.code || product == ANY_PRODUCT_ID) continue;
        const RuleAt* wider = adviser->policy().findVendorOnlyFrom(vendor);
        if (wider == nullptr || !told.insert(vendor).second) continue;
        const int line = adviser->lineOf(*wider->element);
        const std::string cause =
                wider->ids.first == vendor
                        ? StringPrintf("the rule in line %d covers the whole vendor", line)
                        : StringPrintf(
                                  "the rule for all of vendor %d in line %d reaches down to "
                                  "every smaller vendor id that has product rules; list the "
                                  "products of vendor %d, too",
                                  wider->ids.first, line, wider->ids.first);
        adviser->add("no-effect", *rule.element,
                     StringPrintf("the product ids of vendor %d are without effect, all its "
                                  "products match: %s",
                                  vendor, cause.c_str()));
    }
}

void adviseOnModems(Adviser* adviser) {
    const RuleAt* comm = adviser->policy().findClass(kComm);
    const RuleAt* data = adviser->policy().findClass(kCdcData);
    if ((comm == nullptr) == (data == nullptr)) return;
    const RuleAt* only = comm != nullptr ? comm : data;
    adviser->add("half-modem", *only->element,
                 "modems and network adapters have USB_CLASS_COMM and USB_CLASS_CDC_DATA together, "
                 "and match only when both are listed");
}

void adviseOnHalfKeyboards(Adviser* adviser) {
    const Policy& policy = adviser->policy();
    const RuleAt* keyboard = policy.findClass(kKeyboard);
    if (policy.mode() != "blacklist" || keyboard == nullptr) return;
    if (policy.findClass(kDpad) != nullptr) return;
    adviser->add(
            "half-keyboard", *keyboard->element,
            "keyboards with arrow and select keys are AINPUT_SOURCE_DPAD as well, and a device "
            "is refused only when all that it is is listed: list AINPUT_SOURCE_DPAD, too");
}

// A product id that no device has does not keep a rule for the whole vendor from reaching down.
bool canMatch(const Policy& policy, const RuleAt& rule) {
    if (rule.code) return true;
    const auto [vendor, product] = rule.ids;
    return vendor <= kLargestUsbId &&
           (product <= kLargestUsbId || policy.findVendorOnlyFrom(vendor) != nullptr);
}

void adviseOnLockOut(const XMLElement& root, Adviser* adviser) {
    const Policy& policy = adviser->policy();
    const std::vector<RuleAt>& rules = policy.rules();
    if (policy.mode() != "whitelist") return;
    const auto matches = [&](const RuleAt& rule) { return canMatch(policy, rule); };
    if (std::none_of(rules.begin(), rules.end(), matches)) {
        adviser->add("refuses-all", root, "no device can match: every device will be refused");
        return;
    }
    if (policy.findClass(kKeyboard) != nullptr) return;
    const bool vendors = std::any_of(rules.begin(), rules.end(), [&](const RuleAt& rule) {
        return !rule.code && matches(rule);
    });
    adviser->add("no-keyboard", root,
                 vendors ? "without AINPUT_SOURCE_KEYBOARD only keyboards (and scanners that type) "
                           "of the listed vendors and products will work"
                         : "without AINPUT_SOURCE_KEYBOARD no keyboard (and no scanner that types) "
                           "will work");
}

// --- the document --------------------------------------------------------------------------------

bool isMeantFor(const std::string& word, const std::string& mode) {
    const auto has = [&](const char* part) { return word.find(part) != std::string::npos; };
    if (mode == "WHITELIST" && (has("WHITE") || has("ALLOW"))) return true;
    if (mode == "BLACKLIST" && (has("BLACK") || has("DENY") || has("BLOCK"))) return true;
    return distance(word, mode) <= 3;
}

void adviseOnMode(const XMLElement& root, Adviser* adviser) {
    const char* mode = root.Attribute("mode");
    if (mode == nullptr) {
        adviser->add("bad-mode", root,
                     "write mode=\"whitelist\", \"blacklist\" or \"default\" into <usbconfig>");
        return;
    }
    for (const std::string known : {"default", "whitelist", "blacklist"}) {
        if (mode == known) return;
        if (!isMeantFor(upperCase(Trim(mode)).substr(0, 16), upperCase(known))) continue;
        adviser->add("bad-mode", root, "there is no mode " + quoted(mode) + ": write " + known);
        return;
    }
    adviser->add("bad-mode", root,
                 "there is no mode " + quoted(mode) + ": write default, whitelist or blacklist");
}

void adviseOnFurtherRoots(const XMLElement& root, Adviser* adviser) {
    for (const XMLElement* element = root.NextSiblingElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        adviser->add(
                "not-read", *element,
                std::string("<") + element->Value() + "> behind the first element is not read");
    }
}

void adviseOnRoot(const XMLElement& root, Adviser* adviser) {
    adviseOnFurtherRoots(root, adviser);
    if (!isNamed(root, "usbconfig")) {
        adviser->add("bad-name", root, "the document's element must be <usbconfig>");
        return;
    }
    adviseOnMode(root, adviser);
    adviseOnAttributes(root, "mode", "", adviser);
    const char* mode = root.Attribute("mode");
    if (mode != nullptr && std::string_view("default") == mode) {
        if (root.FirstChildElement() != nullptr) {
            adviser->add("not-read", root, "mode \"default\" allows everything: no rule is read");
        }
        return;
    }
    adviseOnElements(root, adviser);
    if (!adviser->policy().accepted()) return;
    adviseOnRepeats(adviser);
    adviseOnReach(adviser);
    adviseOnModems(adviser);
    adviseOnHalfKeyboards(adviser);
    adviseOnLockOut(root, adviser);
}

constexpr char kMark[] = "kusctl:";

// A comment of "kusctl: meant no-keyboard duplicate".
void readMeant(const XMLNode& comment, std::set<std::string>* ids, Adviser* adviser) {
    const std::string text = Trim(comment.Value());
    if (!StartsWith(text, kMark)) return;
    std::vector<std::string> words = base::Split(text.substr(strlen(kMark)), " ,\t\r\n");
    words.erase(std::remove(words.begin(), words.end(), ""), words.end());
    const auto advise = [&](const std::string& text) {
        adviser->addAt("bad-meant", adviser->policy().source().firstOn(comment.GetLineNum()), text);
    };
    if (words.size() < 2 || words[0] != "meant") {
        advise("this comment is not understood: write \"kusctl: meant ID\"");
        return;
    }
    for (size_t i = 1; i < words.size(); ++i) {
        const bool known = std::any_of(kIds.begin(), kIds.end(),
                                       [&](const AdviceId& each) { return each.id == words[i]; });
        if (!known) {
            advise("there is no advice " + quoted(words[i]) + ": kusctl(1) lists the ids");
        }
        ids->insert(words[i]);
    }
}

void readAllMeant(const XMLNode& parent, std::set<std::string>* ids, Adviser* adviser) {
    for (const XMLNode* node = parent.FirstChild(); node != nullptr; node = node->NextSibling()) {
        if (node->ToComment() != nullptr) readMeant(*node, ids, adviser);
        readAllMeant(*node, ids, adviser);
    }
}

void takeBack(const std::set<std::string>& meant, std::vector<Advice>* advice) {
    const auto isMeant = [&](const Advice& each) {
        return meant.count(each.id) != 0 && kRejected.count(each.id) == 0;
    };
    advice->erase(std::remove_if(advice->begin(), advice->end(), isMeant), advice->end());
}

void adviseOnXml(Adviser* adviser) {
    const Policy& policy = adviser->policy();
    const auto error = policy.document().ErrorID();
    const std::string_view first = policy.source().line(1).substr(0, 2);
    std::string text =
            "this is no well-formed XML: each element that is opened must be closed, by "
            "the same name, and & and < in a text are &amp; and &lt;";
    if (error == tinyxml2::XML_ERROR_EMPTY_DOCUMENT) {
        text = "the file is empty: write <usbconfig mode=\"default\"></usbconfig>";
    } else if (first == "\xff\xfe" || first == "\xfe\xff") {
        text = "this is UTF-16: save it as UTF-8";
    }
    adviser->addAt("bad-xml", policy.errorPosition(), text);
}

}  // namespace

std::vector<Advice> adviceOn(const Policy& policy) {
    Adviser adviser(policy);
    std::set<std::string> meant;
    if (policy.document().Error()) {
        adviseOnXml(&adviser);
    } else if (policy.root() == nullptr) {
        adviser.addAt("crash", {}, "a file without any element ends the daemon: write <usbconfig>");
    } else {
        readAllMeant(policy.document(), &meant, &adviser);
        adviseOnRoot(*policy.root(), &adviser);
    }
    std::vector<Advice> advice = adviser.take();
    takeBack(meant, &advice);
    std::stable_sort(advice.begin(), advice.end(),
                     [](const Advice& a, const Advice& b) { return a.position < b.position; });
    return advice;
}

const std::vector<AdviceId>& adviceIds() {
    return kIds;
}

}  // namespace android::kus::tools
