// What the connection getters share with their tests.
#ifndef KELP_MODULE_TABLES_CONN_H
#define KELP_MODULE_TABLES_CONN_H

#include <cstdint>

namespace tables {

// The virtual disk of row `rowIndex` of the array-disk-to-virtual-disk list
// (the pair's second id). A row the list does not have is logged and
// answered with `diskId`, the array disk itself, in its place. Caller holds
// dataMutex.
uint32_t logConnVirtualDisk(uint32_t rowIndex, uint32_t diskId);

} // namespace tables

#endif // KELP_MODULE_TABLES_CONN_H
