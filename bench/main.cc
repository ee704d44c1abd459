// The benchmark program: every benchmark of bench/ in one binary.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
