// Cost of the plug-in's own GetNext: a whole walk of the served tree through
// the dispatch alone (no SNMP), on the sample model and a generated one.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "frame/frame.h"
#include "kelp/runtime.h"
#include "platform/smsnmp.h"

extern "C" uint32_t KELPIMP64_SMMIBImplementerDispatch(uint32_t command, void *inBuf,
                                                       uint32_t inSize, void *outBuf,
                                                       uint32_t outSize, uint32_t *outUsed);

namespace {

uint32_t dispatch(uint32_t command, void *in = nullptr, uint32_t inSize = 0)
{
    uint32_t used = 0;
    return KELPIMP64_SMMIBImplementerDispatch(command, in, inSize, nullptr, 0, &used);
}

// Loads the plug-in on `model` and waits until its tables are built.
bool start(benchmark::State &state, const std::string &model)
{
    char error[512];
    if (kelpRuntimeLoadModel(model.c_str(), error, sizeof error) != 0) {
        state.SkipWithError(error);
        return false;
    }
    kelpRuntimeSetIniPath("");
    SMLoadArgs args{nullptr, 0};
    dispatch(SM_CMD_LOAD, &args, sizeof args);
    dispatch(SM_CMD_START_MONITOR);
    for (int i = 0; i < 1000; i++) {
        if (SMMutexLock(dataMutex, 1000) == 0) {
            const bool built = g_bSNMPTableInitialised != 0;
            SMMutexUnLock(dataMutex);
            if (built) {
                return true;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    state.SkipWithError("the tables were not built");
    return false;
}

void stop()
{
    dispatch(SM_CMD_STOP_MONITOR);
    dispatch(SM_CMD_UNLOAD);
    stopRequested = 0;
    g_bSNMPTableInitialised = 0;
}

// One walk from `start` while the answers stay below `prefix` (the whole
// MIB when it is empty); the number of objects answered.
int64_t walk(std::vector<uint32_t> name = {1, 3, 6, 1}, const std::vector<uint32_t> &prefix = {})
{
    uint32_t replyArcs[128];
    char buffer[1024];
    int64_t answered = 0;
    for (;;) {
        SMSnmpValue request{};
        request.name = SMSnmpOID{static_cast<uint32_t>(name.size()), 0, name.data()};
        SMSnmpValue reply{};
        reply.name = SMSnmpOID{0, 0, replyArcs};
        reply.buffer = buffer;
        uint32_t used = 0;
        if (KELPIMP64_SMMIBImplementerDispatch(SM_CMD_GETNEXT, &request, sizeof request, &reply,
                                               sizeof reply, &used) != 0 ||
            reply.name.count == 0) {
            return answered;
        }
        if (reply.name.count < prefix.size() ||
            !std::equal(prefix.begin(), prefix.end(), replyArcs)) {
            return answered;
        }
        answered++;
        name.assign(replyArcs, replyArcs + reply.name.count);
    }
}

void walkModel(benchmark::State &state, const std::string &model)
{
    if (!start(state, model)) {
        return;
    }
    int64_t objects = 0;
    for (auto _ : state) {
        objects = walk();
    }
    state.counters["objects"] = static_cast<double>(objects);
    state.counters["getnext/s"] = benchmark::Counter(
        static_cast<double>(objects * state.iterations()), benchmark::Counter::kIsRate);
    stop();
}

void BM_WalkSample(benchmark::State &state)
{
    walkModel(state, std::string(KELP_SOURCE_DIR) + "/data/models/sample.xml");
}
BENCHMARK(BM_WalkSample)->Unit(benchmark::kMillisecond);

// Walks a model kelpgen writes with `disks` array disks, `perController` on each controller.
void walkGenerated(benchmark::State &state, int disks, int perController)
{
    const std::string file =
        "/tmp/kelp-bench-" + std::to_string(disks) + "-" + std::to_string(perController) + ".xml";
    const std::string command = std::string(KELPGEN_PATH) + " --disks " + std::to_string(disks) +
                                " --disks-per-controller " + std::to_string(perController) +
                                " --out " + file;
    if (std::system(command.c_str()) != 0) {
        state.SkipWithError("kelpgen failed");
        return;
    }
    walkModel(state, file);
}

// 1,024 disks on two controllers (kelpgen's proportions), then spread over 128 controllers,
// so that the controller table has enough rows to walk.
void BM_Walk1024Disks(benchmark::State &state)
{
    walkGenerated(state, 1024, 512);
}
BENCHMARK(BM_Walk1024Disks)->Unit(benchmark::kMillisecond);

void BM_Walk1024Disks128Controllers(benchmark::State &state)
{
    walkGenerated(state, 1024, 8);
}
BENCHMARK(BM_Walk1024Disks128Controllers)->Unit(benchmark::kMillisecond);

// One table walked on its own, on the 128-controller model: the cost per
// GetNext of each served table, to compare with the controller table's.
void BM_WalkTable(benchmark::State &state)
{
    const std::string file = "/tmp/kelp-bench-1024-8.xml";
    const std::string command =
        std::string(KELPGEN_PATH) + " --disks 1024 --disks-per-controller 8 --out " + file;
    if (std::system(command.c_str()) != 0) {
        state.SkipWithError("kelpgen failed");
        return;
    }
    if (!start(state, file)) {
        return;
    }
    const std::vector<uint32_t> table{1,
                                      3,
                                      6,
                                      1,
                                      4,
                                      1,
                                      61234,
                                      20571,
                                      1,
                                      20,
                                      static_cast<uint32_t>(state.range(0)),
                                      static_cast<uint32_t>(state.range(1))};
    int64_t objects = 0;
    for (auto _ : state) {
        objects = walk(table, table);
    }
    state.counters["objects"] = static_cast<double>(objects);
    // Seconds per GetNext, printed with an SI prefix ("1.3u" is 1.3 us).
    state.counters["s/getnext"] = benchmark::Counter(static_cast<double>(objects),
                                                     benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
    stop();
    if (objects == 0) {
        state.SkipWithError("the table answered nothing");
    }
}
// Every table, group 130 then 140.
void everyTable(benchmark::internal::Benchmark *b)
{
    for (int64_t table = 1; table <= 18; table++) {
        b->Args({130, table});
    }
    for (int64_t table = 1; table <= 6; table++) {
        b->Args({140, table});
    }
}
BENCHMARK(BM_WalkTable)
    ->ArgNames({"group", "table"})
    ->Apply(everyTable)
    ->Unit(benchmark::kMillisecond);

} // namespace
