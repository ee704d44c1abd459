// Cost of one rescan of the live source on SAS servers of 256 and 4,096 disks
// written as sysfs trees (about 20 files a disk): the scan alone, and the
// whole rescan as the source's thread runs it (scan, compare with the served
// store, swap in, queue events).
//
//   build/bin/kelp_bench --benchmark_filter=Live
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>

#include "datastore/live/live_source.h"
#include "datastore/live/machine_testing.h"
#include "datastore/live/scan.h"
#include "datastore/live/sysroot.h"
#include "datastore/model_store.h"

namespace {

using kelp::live::testing::TempTree;

// One tree per size for the whole run.
const TempTree &tree(unsigned disks)
{
    static std::map<unsigned, std::unique_ptr<TempTree>> trees;
    auto &t = trees[disks];
    if (!t) {
        t = std::make_unique<TempTree>();
        kelp::live::testing::writeSasServer(*t, disks);
    }
    return *t;
}

void BM_LiveScan(benchmark::State &state)
{
    const TempTree &t = tree(static_cast<unsigned>(state.range(0)));
    kelp::live::SysRoot root;
    std::string error;
    if (!root.open(t.root(), &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    for (auto _ : state) {
        kelp::live::LiveScan scan;
        kelp::live::scanMachine(root, &scan);
        benchmark::DoNotOptimize(scan.objects.data());
    }
    state.counters["disks"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_LiveScan)->Arg(256)->Arg(4096)->Unit(benchmark::kMillisecond);

void BM_LiveRescan(benchmark::State &state)
{
    const TempTree &t = tree(static_cast<unsigned>(state.range(0)));
    std::string error;
    kelp::live::stopLive();
    kelp::ds::resetForTesting();
    if (!kelp::live::startLive({t.root(), 3600, false, -1}, &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    for (auto _ : state)
        kelp::live::rescanNowForTesting();
    kelp::live::stopLive();
    kelp::ds::resetForTesting();
    state.counters["disks"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_LiveRescan)->Arg(256)->Arg(4096)->Unit(benchmark::kMillisecond);

} // namespace
