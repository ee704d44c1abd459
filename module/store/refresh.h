// The refresh thread, which owns the object tables.
#ifndef KELP_MODULE_STORE_REFRESH_H
#define KELP_MODULE_STORE_REFRESH_H

extern "C" {

// Thread body: waits for the data store, builds the tables, then rebuilds
// them on rescans and periodically. Sets eEvtFuncEnd when it leaves.
void tEvtFunc(void *unused);

} // extern "C"

#endif // KELP_MODULE_STORE_REFRESH_H
