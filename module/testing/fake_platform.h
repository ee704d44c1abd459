// Test doubles for a few platform functions, for tests that must inject a
// failure or observe a call. Linked into a test program, these definitions
// take the place of the runtime's for the module objects linked with it; the
// rest of the runtime is the real one.
#ifndef KELP_MODULE_TESTING_FAKE_PLATFORM_H
#define KELP_MODULE_TESTING_FAKE_PLATFORM_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/vcsupt.h"

namespace fake {

// What DataStoreReady answers: a copy of `xml`, or null when `present` is
// false. Starts as a ready store.
void setDataStoreReadyAnswer(bool present, const std::string &xml = "<Code>0</Code>");
int dataStoreReadyCalls();

// Handles passed to SMThreadStop, in call order (the real one runs too).
std::vector<SMThreadHandle> threadStops();

// The next SMMutexUnLock unlocks and then reports failure.
void failNextUnlock();

// Back to a ready store, no recorded calls, no injected failure.
void reset();

} // namespace fake

#endif // KELP_MODULE_TESTING_FAKE_PLATFORM_H
