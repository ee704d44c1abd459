// The refresh thread, which owns the object tables, and the roll-up of the
// controllers' status.
#ifndef KELP_MODULE_STORE_REFRESH_H
#define KELP_MODULE_STORE_REFRESH_H

#include <atomic>
#include <cstdint>

extern "C" {

// Set to 1 by the event monitor when an event may have changed the storage
// configuration; the periodic rebuild runs only when it is set, and clears it.
extern std::atomic<uint32_t> rebuildNeeded;

// One-second waits since the last rebuild. Refresh thread only.
extern std::atomic<int32_t> refreshTicks;

// Seconds since the epoch at the start of the last build or rebuild; written
// by the refresh thread, reported by the global group.
extern std::atomic<int64_t> lastRefreshTime;

// Called by the refresh thread under dataMutex once the first build has
// succeeded, before requests are let in: the MIB layer's set-up of the
// GetNext walk, which sits above this layer and is set by the frame before
// the thread starts. Null: nothing is called.
extern void (*g_tablesBuiltHook)(void);

// Thread body: waits for the data store, builds the tables under dataMutex,
// lets requests in, then rebuilds at once when a rescan starts and every
// g_SNMPRefreshMinutes minutes when rebuildNeeded is set. Sets eEvtFuncEnd
// when it leaves.
void tEvtFunc(void *unused);

// The most severe "TreeStatus" + 1 of the controllers (holes included, as
// they keep their nexus); 3 for an empty controller table, leaving
// *previous alone. Updates *previous to the old *current when the status
// changes. Caller holds dataMutex.
uint32_t getGlobalSystemStatus(uint32_t *current, uint32_t *previous);

} // extern "C"

#endif // KELP_MODULE_STORE_REFRESH_H
