// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/kusctl/request.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string_view>

#include <android-base/parseint.h>
#include <android-base/strings.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "tools/kusctl/output.h"

namespace android::kus::tools {
namespace {

using Command = Request::Command;

constexpr int32_t kUsbDevice = 0;
constexpr int32_t kInputDevice = 1;
constexpr int32_t kLargestClass = 255;
constexpr int32_t kLargestId = 0xffff;
constexpr int32_t kClassHid = 3;
// The daemon sleeps that many microseconds.
constexpr int32_t kLongestUndockMs = 2147483;
constexpr std::string_view kSourcePrefix = "AINPUT_SOURCE_";

bool isDigits(const std::string& text, const char* digits) {
    return !text.empty() && text.find_first_not_of(digits) == std::string::npos;
}

// Decimal or with 0x, and nothing around it.
std::optional<int32_t> numberIn(const std::string& text, int32_t min, int32_t max) {
    int32_t value = 0;
    const bool hex = base::StartsWithIgnoreCase(text, "0x");
    const bool digits =
            hex ? isDigits(text.substr(2), "0123456789abcdefABCDEF") : isDigits(text, "0123456789");
    if (!digits || !base::ParseInt(text, &value, min, max)) return {};
    return value;
}

Parsed<int32_t> parseOption(const Options& options, const std::string& name, int32_t fallback,
                            int32_t min, int32_t max, const std::string& what) {
    if (!options.has(name)) return fallback;
    const std::string text = options.text(name, "");
    const std::optional<int32_t> value = numberIn(text, min, max);
    if (value) return *value;
    return wrong("--" + name + " wants " + what + ": '" + text + "' is none");
}

// --- devices ---------------------------------------------------------------------------------

struct Ids {
    int32_t vendor = 0;
    int32_t product = 0;
};

std::string howIdsLook(const std::string& text) {
    return "--usb wants VID:PID in hexadecimal as lsusb prints it, like 046d:c52b: '" + text +
           "' is none";
}

// What somebody takes for ids who has them from a policy file.
std::string aboutDecimalIds(const std::string& text, const std::string& vendor,
                            const std::string& product) {
    const auto vendorId = numberIn(vendor, 0, kLargestId);
    const auto productId = numberIn(product, 0, kLargestId);
    if (!vendorId || !productId) return "";
    return "--usb wants hexadecimal, and '" + text +
           "' looks decimal, as a policy file has it: write " + hexIds(*vendorId, *productId);
}

std::optional<int32_t> hexId(const std::string& text) {
    constexpr size_t kDigits = 4;
    const std::string digits = base::StartsWithIgnoreCase(text, "0x") ? text.substr(2) : text;
    if (digits.size() > kDigits) return {};
    return numberIn("0x" + digits, 0, kLargestId);
}

Parsed<Ids> parseIds(const std::string& text) {
    const std::vector<std::string> parts = base::Split(text, ":");
    if (parts.size() != 2) return wrong(howIdsLook(text));
    const auto vendor = hexId(parts[0]);
    const auto product = hexId(parts[1]);
    if (vendor && product) return Ids{*vendor, *product};

    const std::string decimal = aboutDecimalIds(text, parts[0], parts[1]);
    if (!decimal.empty()) return wrong(decimal);
    for (const std::string& part : parts) {
        if (!isDigits(part, "0123456789abcdefABCDEF") || hexId(part)) continue;
        return wrong("an id has four digits at most, 0000 to ffff: '" + part + "' has more");
    }
    return wrong(howIdsLook(text));
}

std::optional<int32_t> classNamed(const std::string& word) {
    for (const ClassName& row : usbClassTable) {
        const bool named = base::EqualsIgnoreCase(word, row.name) ||
                           base::EqualsIgnoreCase("USB_CLASS_" + word, row.name);
        if (named && row.code < kFirstInputSource) return row.code;
    }
    return {};
}

Parsed<std::vector<int32_t>> parseClasses(const std::string& list) {
    std::vector<int32_t> classes;
    for (const std::string& word : base::Split(list, ",")) {
        std::optional<int32_t> code = classNamed(word);
        if (!code) code = numberIn(word, 0, kLargestClass);
        if (!code) {
            return wrong(
                    "--interfaces wants USB classes with commas between, as codes from 0 to 255, "
                    "decimal or 0x.., or by name, like 8,0xff or mass_storage: '" +
                    word + "' is none");
        }
        classes.push_back(*code);
    }
    return classes;
}

std::string shortName(const std::string& sourceName) {
    std::string name = sourceName.substr(kSourcePrefix.size());
    std::transform(name.begin(), name.end(), name.begin(), tolower);
    return name;
}

std::optional<int32_t> sourceNamed(const std::string& word) {
    const bool whole = base::StartsWithIgnoreCase(word, kSourcePrefix);
    const std::string name = whole ? word.substr(kSourcePrefix.size()) : word;
    for (const auto& [code, sourceName] : inputSourceNames) {
        if (base::EqualsIgnoreCase(name, shortName(sourceName))) return code;
    }
    return {};
}

std::string namesOfSources() {
    std::vector<std::string> names;
    names.reserve(inputSourceNames.size());
    for (const auto& [code, name] : inputSourceNames) names.push_back(shortName(name));
    return base::Join(names, ", ");
}

Parsed<int32_t> parseSources(const std::string& list) {
    int32_t sources = 0;
    for (const std::string& word : base::Split(list, ",")) {
        std::optional<int32_t> source = sourceNamed(word);
        if (!source) source = numberIn(word, 1, INT32_MAX);
        if (!source) {
            return wrong("'" + word + "' is no input source: --input wants a number like 0x2002, " +
                         "or of these, with commas between: " + namesOfSources());
        }
        sources |= *source;
    }
    return sources;
}

std::string nameOfSources(int32_t sources) {
    std::vector<std::string> names;
    for (const int32_t code : Util::checkMultiClass(sources)) {
        names.push_back(shortName(inputSourceNames.at(code)));
    }
    return names.empty() ? "input" : base::Join(names, ", ");
}

Parsed<DeviceInfo> withIds(const Options& options, DeviceInfo device) {
    const std::string text = options.text("usb", "");
    const auto ids = parseIds(text);
    if (!ids.has_value()) return wrong(ids.error());
    device.vendorId = ids->vendor;
    device.productId = ids->product;
    device.deviceName = hexIds(ids->vendor, ids->product);
    return device;
}

Parsed<DeviceInfo> parseUsbDevice(const Options& options) {
    auto device = withIds(options, DeviceInfo());
    if (!device.has_value()) return device;
    const auto deviceClass = parseOption(options, "class", 0, 0, kLargestClass,
                                         "a USB class code from 0 to 255, decimal or 0x..");
    if (!deviceClass.has_value()) return wrong(deviceClass.error());
    device->deviceType = kUsbDevice;
    device->deviceClass = *deviceClass;
    if (!options.has("interfaces")) return device;
    const auto classes = parseClasses(options.text("interfaces", ""));
    if (!classes.has_value()) return wrong(classes.error());
    device->interfaceClasses = *classes;
    return device;
}

Parsed<DeviceInfo> parseInputDevice(const Options& options) {
    auto device = options.has("usb") ? withIds(options, DeviceInfo()) : DeviceInfo();
    if (!device.has_value()) return device;
    const auto sources = parseSources(options.text("input", ""));
    if (!sources.has_value()) return wrong(sources.error());
    device->deviceType = kInputDevice;
    device->deviceClass = *sources;
    device->deviceName = nameOfSources(*sources);
    return device;
}

bool isHidAlone(const DeviceInfo& device) {
    const std::vector<int32_t>& classes = device.interfaceClasses;
    return std::all_of(classes.begin(), classes.end(),
                       [](int32_t code) { return code == kClassHid; });
}

// --- commands --------------------------------------------------------------------------------

using Result = Parsed<Request>;

Result parseNothing(const Options& /*options*/, Request request) {
    return request;
}

Result parseWatch(const Options& options, Request request) {
    const auto count =
            parseOption(options, "count", 0, 1, INT32_MAX, "a number of events, 1 or more");
    if (!count.has_value()) return wrong(count.error());
    request.count = *count;
    return request;
}

Result parseDump(const Options& options, Request request) {
    if (options.words().empty()) return request;
    if (options.words()[0] != "test") {
        return wrong("dump takes the word test or none, and '" + options.words()[0] +
                     "' is neither");
    }
    request.test = true;
    return request;
}

Result parseReset(const Options& options, Request request) {
    const auto undockMs = parseOption(options, "undock", 0, 1, kLongestUndockMs,
                                      "milliseconds from 1 to " + std::to_string(kLongestUndockMs));
    if (!undockMs.has_value()) return wrong(undockMs.error());
    request.undockMs = *undockMs;
    return request;
}

Result parseCheck(const Options& options, Request request) {
    request.file = options.words()[0];
    request.strict = options.has("strict");
    return request;
}

// What is asked about, or why that is not clear.
std::string wrongSubject(const Options& options) {
    const bool usb = options.has("usb");
    const bool input = options.has("input");
    if (options.has("present") && (usb || input)) {
        return "--present asks about what is attached: leave out --usb and --input, or --present";
    }
    if (!options.has("present") && !usb && !input) {
        return "explain wants one of --present, --usb VID:PID and --input SOURCES";
    }
    for (const char* name : {"class", "interfaces", "vendor-hid"}) {
        if (!options.has(name) || (usb && !input)) continue;
        return std::string("--") + name +
               (input ? " belongs to a USB device, and --input asks about an input device"
                      : " needs --usb VID:PID beside it");
    }
    return "";
}

Result parseExplain(const Options& options, Request request) {
    const std::string problem = wrongSubject(options);
    if (!problem.empty()) return wrong(problem);
    request.file = options.words()[0];
    request.present = options.has("present");
    if (request.present) return request;

    const auto device = options.has("input") ? parseInputDevice(options) : parseUsbDevice(options);
    if (!device.has_value()) return wrong(device.error());
    // Without any it would be left to the input side, which sounds like a yes.
    if (!options.has("input") && !options.has("interfaces") && !options.has("vendor-hid")) {
        return wrong(
                "--usb wants the classes of the device's interfaces, too: --interfaces 8 for a "
                "memory stick (lsusb -v tells them, as bInterfaceClass)");
    }
    request.device = *device;
    request.vendorHid = options.has("vendor-hid");
    if (request.vendorHid && !isHidAlone(request.device)) {
        return wrong("--vendor-hid is for a device of HID interfaces (class 3) alone");
    }
    return request;
}

Result parseGenerate(const Options& options, Request request) {
    request.mode = options.text("mode", request.mode);
    if (request.mode != "whitelist" && request.mode != "blacklist") {
        return wrong("--mode wants whitelist or blacklist: '" + request.mode + "' is neither");
    }
    const std::string by = options.text("by", "product");
    if (by == "class") {
        request.by = Request::By::kClass;
    } else if (by == "vendor") {
        request.by = Request::By::kVendor;
    } else if (by != "product") {
        return wrong("--by wants class, vendor or product: '" + by + "' is none of them");
    }
    return request;
}

Result parseDiff(const Options& options, Request request) {
    if (!options.has("present")) {
        return wrong("diff wants --present: it compares what becomes of the attached devices");
    }
    request.file = options.words()[0];
    request.newFile = options.words()[1];
    request.present = true;
    return request;
}

struct Syntax {
    const char* name;
    const char* usage;
    Command command;
    std::set<std::string> flags;
    std::set<std::string> valued;
    size_t minWords;
    size_t maxWords;
    Result (*parse)(const Options&, Request);
};

const Syntax kSyntaxes[] = {
        {"help", "", Command::kHelp, {}, {}, 0, 0, parseNothing},
        {"list", "", Command::kList, {}, {}, 0, 0, parseNothing},
        {"watch", " [--count N]", Command::kWatch, {}, {"count"}, 0, 0, parseWatch},
        {"status", "", Command::kStatus, {}, {}, 0, 0, parseNothing},
        {"dump", " [test]", Command::kDump, {}, {}, 0, 1, parseDump},
        {"reset", " [--undock MS]", Command::kReset, {}, {"undock"}, 0, 0, parseReset},
        {"check", " FILE [--strict]", Command::kCheck, {"strict"}, {}, 1, 1, parseCheck},
        {"explain",
         " FILE --present | --usb VID:PID [--class N] [--interfaces N,N...] [--vendor-hid] | "
         "--input SOURCES [--usb VID:PID]",
         Command::kExplain,
         {"present", "vendor-hid"},
         {"usb", "class", "interfaces", "input"},
         1,
         1,
         parseExplain},
        {"generate",
         " [--mode whitelist|blacklist] [--by class|vendor|product]",
         Command::kGenerate,
         {},
         {"mode", "by"},
         0,
         0,
         parseGenerate},
        {"diff", " OLD NEW --present", Command::kDiff, {"present"}, {}, 2, 2, parseDiff},
};

std::string usageOf(const Syntax& syntax) {
    return std::string("kusctl ") + syntax.name + syntax.usage;
}

// Letters to insert, delete and replace to make one text of the other.
size_t editsBetween(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    for (size_t j = 0; j < row.size(); j++) row[j] = j;
    for (size_t i = 1; i <= from.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j < row.size(); j++) {
            const size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row.back();
}

// The command that was meant, if one is near.
std::string meant(const std::string& word) {
    constexpr size_t kNear = 2;
    const char* nearest = "";
    size_t fewest = kNear + 1;
    for (const Syntax& syntax : kSyntaxes) {
        const bool begun = word.size() >= kNear && base::StartsWith(syntax.name, word);
        const size_t edits = begun ? 0 : editsBetween(word, syntax.name);
        // All letters of a short word are soon replaced.
        if (edits >= fewest || edits >= word.size()) continue;
        fewest = edits;
        nearest = syntax.name;
    }
    return nearest;
}

std::string aboutUnknown(const std::string& word) {
    if (base::StartsWith(word, "-")) {
        return "the command comes first, and '" + word + "' is none: kusctl help lists them";
    }
    const std::string nearest = meant(word);
    const std::string hint = nearest.empty() ? "kusctl help lists them" : "did you mean " + nearest;
    return "there is no command '" + word + "': " + hint;
}

const Syntax* syntaxOf(const std::string& word) {
    const auto* syntax = std::find_if(std::begin(kSyntaxes), std::end(kSyntaxes),
                                      [&word](const Syntax& each) { return word == each.name; });
    return syntax == std::end(kSyntaxes) ? nullptr : syntax;
}

std::set<std::string> andAlways(std::set<std::string> flags) {
    flags.insert({"help", "json"});
    return flags;
}

Result parseCommand(const Syntax& syntax, const std::vector<std::string>& args) {
    const auto options = Options::parse(args, andAlways(syntax.flags), syntax.valued);
    if (!options.has_value()) return wrong(options.error() + ": " + usageOf(syntax));
    Request request;
    if (options->has("help")) return request;
    const size_t words = options->words().size();
    if (words > syntax.maxWords) {
        return wrong("'" + options->words()[syntax.maxWords] +
                     "' is one word too many: " + usageOf(syntax));
    }
    if (words < syntax.minWords) return wrong("a file is missing: " + usageOf(syntax));
    request.command = syntax.command;
    request.json = options->has("json");
    return syntax.parse(*options, request);
}

}  // namespace

const char kKusctlUsage[] =
        "usage: kusctl COMMAND [--json]\n"
        "\n"
        "On the terminal, about the running service:\n"
        "  list                    the judged devices, with verdict and reason\n"
        "  watch [--count N]       each USB device as it is judged or removed, until interrupted\n"
        "                          (or N events)\n"
        "  status                  the outcome of the last policy, its mode, and whether the\n"
        "                          backup is the same\n"
        "  dump [test]             what dumpsys prints\n"
        "  reset [--undock MS]     makes every device enumerate again; as a virtual undock and\n"
        "                          dock of MS ms\n"
        "\n"
        "On any Linux machine, about a policy file:\n"
        "  check FILE [--strict]   what the daemon would say of it, and advice; --strict: advice\n"
        "                          is an error\n"
        "  explain FILE --present\n"
        "  explain FILE --usb VID:PID [--class N] [--interfaces N,N...] [--vendor-hid]\n"
        "  explain FILE --input SOURCES [--usb VID:PID]\n"
        "                          the verdict, its reason, and the rule that decided\n"
        "  generate [--mode whitelist|blacklist] [--by class|vendor|product]\n"
        "                          a policy for what is attached to this machine, on standard\n"
        "                          output (a whitelist by product)\n"
        "  diff OLD NEW --present  the attached devices whose verdict would change\n"
        "\n"
        "VID:PID: hexadecimal, as lsusb prints it (046d:c52b).\n"
        "--class N, --interfaces N,N: USB class codes, decimal or 0x.. (--interfaces also names)\n"
        "SOURCES: keyboard,mouse (AINPUT_SOURCE_ may stand in front) or a number (0x2002).\n"
        "--json: one JSON object on one line; watch: one for each event.\n"
        "\n"
        "exit status: 0 done, good, allowed, nothing changes; 1 the answer is no (a rejected\n"
        "policy, a refused device, a changed verdict); 2 wrong command line; 3 the service is not\n"
        "there or did not answer; 4 something that is needed cannot be read, or the policy to\n"
        "judge by would be rejected\n";

Parsed<Request> parseRequest(const std::vector<std::string>& args) {
    if (args.empty()) return wrong("a command is needed: kusctl help lists them");
    if (args[0] == "--help" || args[0] == "-h") return Request();
    const Syntax* syntax = syntaxOf(args[0]);
    if (syntax == nullptr) return wrong(aboutUnknown(args[0]));
    return parseCommand(*syntax, {args.begin() + 1, args.end()});
}

}  // namespace android::kus::tools
