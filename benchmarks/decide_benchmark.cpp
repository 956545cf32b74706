// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// Decisions about input devices with 10, 1,000 and 100,000 rules in force, and each lookup alone.

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <benchmark/benchmark.h>

#include "android/kus/constants.h"
#include "android/kus/ku_service.h"
#include "android/kus/util.h"
#include "benchmarks/rule_file.h"
#include "benchmarks/severity.h"
#include "tests/support/allocation_counter.h"

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" int32_t __real_property_get_int32(const char* name, int32_t standard);

namespace {
bool propertiesAreFiles = false;
}  // namespace

// A property is a file on the host and shared memory on a terminal. The file's cost would hide what
// the rules cost.
extern "C" int32_t __wrap_property_get_int32(const char* name, int32_t standard) {
    return propertiesAreFiles ? __real_property_get_int32(name, standard) : standard;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace android::kus::bench {
namespace {

constexpr int kSizes[] = {10, 1000, 100000};
constexpr int32_t kInputDevice = 1;
constexpr int32_t kKeyboard = RuleFile::kListedSource | 1;
constexpr int32_t kMouse = RuleFile::kUnlistedSource | 2;
constexpr int kTwoSources = 0x3000;
constexpr int kStorageClass = 8;
constexpr int kVendorSpecificClass = 0xFF;

// What the parser made of one file; in force while it is the one that is asked.
struct Rules {
    explicit Rules(int size) : file(size, 1) {}

    // Takes the rules out of force, or puts them there.
    void swap() {
        std::swap(mode, configMode);
        std::swap(classList, configClassList);
        std::swap(classMap, configClassMap);
        std::swap(vendors, vidPidMap);
    }

    const RuleFile file;
    decltype(configMode) mode;
    decltype(configClassList) classList;
    decltype(configClassMap) classMap;
    decltype(vidPidMap) vendors;
};

// Parses at the first use of a size, so that a run of a few benchmarks does not wait for the
// others.
const RuleFile& putInForce(int size) {
    static std::map<int, Rules> all;
    static Rules* inForce = nullptr;
    const auto [place, isNew] = all.try_emplace(size, size);
    Rules* const wanted = &place->second;
    if (wanted == inForce) return wanted->file;
    if (inForce != nullptr) inForce->swap();
    if (isNew) {
        const TemporaryFile text;
        CHECK(base::WriteStringToFile(wanted->file.text(), text.path));
        Util::createMapFromConfig(text.path);
        CHECK(xml_parse_status) << errorMessage;
    } else {
        wanted->swap();
    }
    inForce = wanted;
    return wanted->file;
}

struct Case {
    const char* name;
    int32_t id;
    const char* reason;
    DeviceInfo (*device)(const RuleFile& rules);
};

DeviceInfo inputDevice(int32_t deviceClass, int32_t vendor, int32_t product) {
    DeviceInfo info;
    info.deviceName = "Logitech USB Keyboard";
    info.deviceClass = deviceClass;
    info.vendorId = vendor;
    info.productId = product;
    info.deviceType = kInputDevice;
    return info;
}

const Case kCases[] = {
        {"class", 1, "Whitelisted: Match by ClassName",
         [](const RuleFile&) { return inputDevice(kKeyboard, 0, RuleFile::kUnlistedProduct); }},
        {"vendor", 2, "Whitelisted: Match by VID,",
         [](const RuleFile& rules) {
             return inputDevice(kMouse, rules.vendor(), RuleFile::kUnlistedProduct);
         }},
        {"pair", 3, "Whitelisted: Match by VID_PID",
         [](const RuleFile& rules) {
             return inputDevice(kMouse, rules.pairVendor(), rules.pairProduct());
         }},
        // Its vendor has products, and so all rules behind the vendor's first must be known to be
        // none without products.
        {"miss", 4, "No matching rule",
         [](const RuleFile& rules) {
             return inputDevice(kMouse, rules.firstPairVendor(), RuleFile::kUnlistedProduct);
         }},
};

KUsbService& service() {
    static const sp<KUsbService> service = new KUsbService();
    return *service;
}

std::string reasonOf(int32_t id) {
    std::vector<DeviceInfo> records;
    service().getDeviceList(&records);
    for (const DeviceInfo& record : records) {
        if (record.deviceId == id) return record.reason;
    }
    return "";
}

// Judges the device anew, and leaves its record: further decisions add none.
void check(const Case& theCase, const DeviceInfo& device) {
    const Severity severity(base::WARNING);
    bool allowed = false;
    service().updateDeviceList(device, 0);
    service().isDeviceAllowed(device, &allowed);
    const std::string reason = reasonOf(device.deviceId);
    CHECK(base::StartsWith(reason, theCase.reason)) << theCase.name << ": " << reason;
    CHECK_EQ(allowed, base::StartsWith(reason, "Whitelisted"));
}

void decide(benchmark::State& state, const Case& theCase, int size, base::LogSeverity minimum) {
    const Severity quiet(base::WARNING);
    DeviceInfo device = theCase.device(putInForce(size));
    device.deviceId = theCase.id;
    check(theCase, device);
    const Severity severity(minimum);
    for (auto _ : state) {
        bool allowed = false;
        service().isDeviceAllowed(device, &allowed);
        benchmark::DoNotOptimize(allowed);
    }
}

void decideWithPropertyFile(benchmark::State& state) {
    propertiesAreFiles = true;
    decide(state, kCases[3], kSizes[1], base::WARNING);
    propertiesAreFiles = false;
}

template <typename Lookup>
void lookUp(benchmark::State& state, int size, Lookup lookup) {
    const Severity severity(base::WARNING);
    const RuleFile& rules = putInForce(size);
    const auto ask = [&] {
        auto&& answer = lookup(rules);
        benchmark::DoNotOptimize(answer);
    };
    for (auto _ : state) ask();
    state.counters["allocations"] = static_cast<double>(test::BlocksTakenBy(ask));
}

template <typename Lookup>
void registerLookup(const std::string& name, int size, Lookup lookup) {
    benchmark::RegisterBenchmark(("lookup/" + name + "/" + std::to_string(size)).c_str(),
                                 [=](benchmark::State& state) { lookUp(state, size, lookup); });
}

void registerLookups(int size) {
    registerLookup("getMode", size, [](const RuleFile&) { return Util::getMode(); });
    registerLookup("validateClass/hit", size,
                   [](const RuleFile&) { return Util::validateClass(RuleFile::kListedSource); });
    registerLookup("validateClass/miss", size,
                   [](const RuleFile&) { return Util::validateClass(RuleFile::kUnlistedSource); });
    registerLookup("validateVid/hit", size,
                   [](const RuleFile& rules) { return Util::validateVid(rules.vendor()); });
    registerLookup("validateVid/miss", size, [](const RuleFile& rules) {
        return Util::validateVid(rules.firstPairVendor());
    });
    registerLookup("validateVidPid/hit", size, [](const RuleFile& rules) {
        return Util::validateVidPid(rules.pairVendor(), rules.pairProduct());
    });
    registerLookup("validateVidPid/miss", size, [](const RuleFile& rules) {
        return Util::validateVidPid(rules.firstPairVendor(), RuleFile::kUnlistedProduct);
    });
}

// These do not look at the rules.
void registerTableLookups() {
    registerLookup("validateRestrictedClass/hit", kSizes[0], [](const RuleFile&) {
        return Util::validateRestrictedClass(kVendorSpecificClass);
    });
    registerLookup("validateRestrictedClass/miss", kSizes[0],
                   [](const RuleFile&) { return Util::validateRestrictedClass(kStorageClass); });
    registerLookup("checkMultiClass/one", kSizes[0],
                   [](const RuleFile&) { return Util::checkMultiClass(kMouse); });
    registerLookup("checkMultiClass/two", kSizes[0],
                   [](const RuleFile&) { return Util::checkMultiClass(kTwoSources); });
    registerLookup("getClassName/hit", kSizes[0], [](const RuleFile&) -> decltype(auto) {
        return Util::getClassName(RuleFile::kListedSource);
    });
    registerLookup("getClassName/miss", kSizes[0], [](const RuleFile&) -> decltype(auto) {
        return Util::getClassName(kTwoSources);
    });
}

void registerDecisions(base::LogSeverity severity) {
    for (const int size : kSizes) {
        for (const Case& theCase : kCases) {
            const std::string name = std::string("decide") + suffixOf(severity) + "/" +
                                     theCase.name + "/" + std::to_string(size);
            benchmark::RegisterBenchmark(name.c_str(), decide, theCase, size, severity);
        }
    }
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    using namespace android::kus::bench;  // NOLINT(google-build-using-namespace)
    benchmark::Initialize(&argc, argv);
    registerDecisions(android::base::WARNING);
    registerDecisions(android::base::INFO);
    benchmark::RegisterBenchmark("decide_with_property_file/miss/1000", decideWithPropertyFile);
    for (const int size : kSizes) registerLookups(size);
    registerTableLookups();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
