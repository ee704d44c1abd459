// Allocation failures on demand, for tests of what survives them. A test
// program linked with failing_new.cc has its own global operator new and
// delete (plain malloc and free, so the sanitizers see matching pairs),
// which throw std::bad_alloc where a test arms them to. Unarmed, they
// allocate as the library's do. Tests only.
#ifndef KELP_AGENT_TESTING_FAILING_NEW_H
#define KELP_AGENT_TESTING_FAILING_NEW_H

#include <cstddef>

namespace kelp::test {

// The count-th allocation the calling thread makes from now on (1: its
// next) fails, and none after it; 0 disarms. Other threads are not
// affected.
void failNthAllocation(size_t count);

// Every allocation of exactly `bytes`, on any thread, fails until this is
// called again with 0.
void failAllocationsOf(size_t bytes);

// How many allocations failed since the program started.
size_t failedAllocations();

} // namespace kelp::test

#endif // KELP_AGENT_TESTING_FAILING_NEW_H
