// Cost of building the object tables from the data store, and of a rebuild
// (staging lists plus merge), on generated models of growing size.
//
//   make bench            (or build/bin/kelp_bench --benchmark_filter=...)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "kelp/runtime.h"
#include "store/build.h"
#include "store/tablelist.h"

namespace {

// Generates (once per size) and serves a model of `disks` array disks.
bool serveModel(benchmark::State &state, int disks)
{
    static std::map<int, std::string> files;
    std::string &file = files[disks];
    if (file.empty()) {
        file = "/tmp/kelp-bench-" + std::to_string(disks) + ".xml";
        const std::string command =
            std::string(KELPGEN_PATH) + " --disks " + std::to_string(disks) + " --out " + file;
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("kelpgen failed");
            return false;
        }
    }
    char error[512];
    if (kelpRuntimeLoadModel(file.c_str(), error, sizeof error) != 0) {
        state.SkipWithError(error);
        return false;
    }
    return true;
}

void BM_BuildAll(benchmark::State &state)
{
    if (!serveModel(state, static_cast<int>(state.range(0)))) {
        return;
    }
    for (auto _ : state) {
        state.PauseTiming();
        freeAllLists();
        state.ResumeTiming();
        benchmark::DoNotOptimize(buildAll());
    }
    state.counters["rows"] = static_cast<double>(adList.length);
    freeAllLists();
}
BENCHMARK(BM_BuildAll)->Arg(256)->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

void BM_Rebuild(benchmark::State &state)
{
    if (!serveModel(state, static_cast<int>(state.range(0)))) {
        return;
    }
    freeAllLists();
    buildAll();
    for (auto _ : state) {
        benchmark::DoNotOptimize(rebuildAllStep1());
        rebuildAllStep2();
    }
    state.counters["rows"] = static_cast<double>(adList.length);
    freeAllLists();
}
BENCHMARK(BM_Rebuild)->Arg(256)->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

} // namespace
