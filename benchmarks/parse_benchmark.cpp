// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// A parse of 100,000 rules, beside the XML library's load of the same file.

#include <malloc.h>

#include <string>

#include <android-base/file.h>
#include <benchmark/benchmark.h>
#include <tinyxml2.h>

#include "android/kus/constants.h"
#include "android/kus/util.h"
#include "benchmarks/rule_file.h"
#include "benchmarks/severity.h"

namespace android::kus::bench {
namespace {

constexpr int kRules = 100000;

struct Shape {
    const char* name;
    int productsPerElement;
};

constexpr Shape kShapes[] = {{"single", 1}, {"ten", 10}};

// A daemon parses once in a long while: both begin without free memory at hand. That a parse gives
// its memory back is a part of it, that it finds none there is not.
void beginAnew(benchmark::State& state) {
    state.PauseTiming();
    mallopt(M_PURGE, 0);
    state.ResumeTiming();
}

void parse(benchmark::State& state, const std::string& path, base::LogSeverity minimum) {
    const Severity severity(minimum);
    for (auto _ : state) {
        beginAnew(state);
        Util::createMapFromConfig(path);
    }
    CHECK(xml_parse_status) << errorMessage;
    CHECK_EQ(configClassList.size() + vidPidMap.size(), static_cast<size_t>(kRules));
}

void load(benchmark::State& state, const std::string& path) {
    for (auto _ : state) {
        beginAnew(state);
        tinyxml2::XMLDocument document(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE);
        CHECK_EQ(document.LoadFile(path.c_str()), tinyxml2::XML_SUCCESS);
    }
}

void registerShape(const Shape& shape) {
    const std::string path = std::string("/data/system/") + shape.name + ".xml";
    CHECK(base::WriteStringToFile(RuleFile(kRules, shape.productsPerElement).text(), path));
    const std::string suffix = std::string("/") + shape.name;
    for (const base::LogSeverity severity : {base::WARNING, base::INFO}) {
        const std::string name = std::string("parse") + suffixOf(severity) + suffix;
        benchmark::RegisterBenchmark(name.c_str(), parse, path, severity);
    }
    benchmark::RegisterBenchmark(("load" + suffix).c_str(), load, path);
}

}  // namespace
}  // namespace android::kus::bench

int main(int argc, char** argv) {
    using namespace android::kus::bench;  // NOLINT(google-build-using-namespace)
    benchmark::Initialize(&argc, argv);
    for (const Shape& shape : kShapes) registerShape(shape);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
