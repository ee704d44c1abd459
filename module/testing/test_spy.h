// test_spy.h - test-only: watches the module's calls into the support
// library. The test executable defines SMAllocMem, SMFreeMem and the two
// number translators itself; the module's objects bind to these, which count
// and record each call and forward it to libkelpruntime.so. SMAllocMem can be
// told to fail, to reach the allocation-failure paths.
#ifndef KELP_MODULE_TESTING_TEST_SPY_H
#define KELP_MODULE_TESTING_TEST_SPY_H

#include <cstdint>

namespace kelp::testspy {

struct Record {
    int allocations = 0;
    int frees = 0; // calls with a non-null pointer
    uint32_t lastAllocSize = 0;
    const void *lastFreed = nullptr;
    int failAllocationsAfter = -1; // -1: never; n: the (n+1)-th from now on fails
    uint32_t lastToUTF8Type = 0;
    uint32_t lastFromUTF8Type = 0;
};

// The record of the current test; reset() clears it.
Record &spy();
void reset();

} // namespace kelp::testspy

#endif // KELP_MODULE_TESTING_TEST_SPY_H
