// Cost of building the object tables from the data store, and of a rebuild
// (staging lists plus merge), on generated models of growing size.
//
//   make bench            (or build/bin/kelp_bench --benchmark_filter=...)
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
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

// The <object> elements of the model of `disks` disks that serveModel made.
size_t objectsIn(int disks)
{
    std::ifstream in("/tmp/kelp-bench-" + std::to_string(disks) + ".xml");
    size_t count = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.find("<object ") != std::string::npos) {
            count++;
        }
    }
    return count;
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

// The plug-in's own list memory: the heap the 19 live lists take once built,
// per list node and per object of the model, on models of growing size.
void BM_ListMemory(benchmark::State &state)
{
    if (!serveModel(state, static_cast<int>(state.range(0)))) {
        return;
    }
    freeAllLists();
    size_t bytes = 0;
    for (auto _ : state) {
        const size_t before = mallinfo2().uordblks;
        benchmark::DoNotOptimize(buildAll());
        bytes = mallinfo2().uordblks - before;
        state.PauseTiming();
        freeAllLists();
        state.ResumeTiming();
    }
    buildAll();
    uint32_t nodes = 0;
    for (const TableListPair &pair : kTableListPairs) {
        nodes += pair.live->length;
    }
    freeAllLists();
    const auto objects = static_cast<double>(objectsIn(static_cast<int>(state.range(0))));
    state.counters["list_bytes"] = static_cast<double>(bytes);
    state.counters["nodes"] = nodes;
    state.counters["bytes/node"] = nodes == 0 ? 0.0 : static_cast<double>(bytes) / nodes;
    state.counters["objects"] = objects;
    state.counters["bytes/object"] = objects == 0 ? 0.0 : static_cast<double>(bytes) / objects;
}
BENCHMARK(BM_ListMemory)->Arg(1024)->Arg(16384)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
