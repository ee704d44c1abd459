// Cost of loading a model file (read, parse, validate, index, swap in) as
// kelpRuntimeLoadModel does it, on models whose attributes sit on <storage>,
// on one object, or spread over many objects, so that a step that grows
// faster than the file shows as a time that does.
//
//   build/bin/kelp_bench --benchmark_filter=LoadModel
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <utility>

#include "datastore/large_models_testing.h"
#include "kelp/runtime.h"

namespace {

enum Shape : int64_t { kOnStorage, kOnOneObject, kSpread };

// The model file of a shape and attribute count, written once per run and
// left in /tmp as the other benchmarks leave theirs.
const std::string &modelFile(Shape shape, size_t attributes)
{
    static std::map<std::pair<Shape, size_t>, std::string> files;
    std::string &file = files[{shape, attributes}];
    if (file.empty()) {
        using namespace kelp::ds::testing;
        const std::string text = shape == kOnStorage ? modelWithStorageAttributes(attributes)
                                 : shape == kOnOneObject
                                     ? modelWithOneObjectOfAttributes(attributes)
                                     : modelWithObjectsOfAttributes(attributes / 10, 10);
        file = "/tmp/kelp-bench-load-" + std::to_string(shape) + "-" + std::to_string(attributes) +
               ".xml";
        std::ofstream(file, std::ios::binary) << text;
    }
    return file;
}

// One object cannot hold 10,000 attributes in the 64 KiB of its answer: that
// load ends in the size error, which is found only once the whole object has
// been read and its answer's size counted, so it measures the same work.
void BM_LoadModel(benchmark::State &state)
{
    const auto shape = static_cast<Shape>(state.range(0));
    const auto attributes = static_cast<size_t>(state.range(1));
    const std::string &file = modelFile(shape, attributes);
    const bool refused = shape == kOnOneObject;
    char error[512];
    for (auto _ : state) {
        const int status = kelpRuntimeLoadModel(file.c_str(), error, sizeof error);
        if ((status != 0) != refused) {
            state.SkipWithError(status != 0 ? error : "a model over 64 KiB per object loaded");
            break;
        }
    }
    state.counters["attributes"] = static_cast<double>(attributes);
    state.counters["attributes/s"] = benchmark::Counter(
        static_cast<double>(attributes), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_LoadModel)
    ->ArgNames({"shape", "attributes"})
    ->ArgsProduct({{kOnStorage, kOnOneObject, kSpread}, {10000, 100000}})
    ->Unit(benchmark::kMillisecond);

// A kelpgen model of `disks` disks, 128 a controller as bench/agent_memory.sh
// makes them, loaded over and over.
void BM_LoadGeneratedModel(benchmark::State &state)
{
    const auto disks = std::to_string(state.range(0));
    const std::string file = "/tmp/kelp-bench-load-gen-" + disks + ".xml";
    const std::string command = std::string(KELPGEN_PATH) + " --disks " + disks +
                                " --disks-per-controller 128 --out " + file;
    if (std::system(command.c_str()) != 0) {
        state.SkipWithError("kelpgen failed");
        return;
    }
    char error[512];
    for (auto _ : state) {
        if (kelpRuntimeLoadModel(file.c_str(), error, sizeof error) != 0) {
            state.SkipWithError(error);
            break;
        }
    }
    state.counters["disks"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_LoadGeneratedModel)
    ->ArgName("disks")
    ->Arg(1024)
    ->Arg(16384)
    ->Unit(benchmark::kMillisecond);

} // namespace
