// The partition table (140.2) and the three tables of the Tidal cache: the
// cache itself (140.4), its disks (140.5) and its pools (140.6). Plain
// reads all, but for sizes scaled to mebibytes (partitions and cache disks)
// or by 10 bits (cache pools), the lowest bit of the states and the row
// numbers each table logs. None of them answers a display name: the nexus is
// answered as text.
#include "tables/columns.h"
#include "tables/getters.h"

#include "platform/vscil.h"
#include "store/tablelist.h"

namespace tables {
namespace {

using enum ColumnKind;

// The row index, logged by the table's own line (one %u).
template <const char *line> int32_t rowNumber(const Cell &cell, const ColumnSpec &)
{
    answerNumberWithoutBuffer(cell, cell.rowIndex);
    VscilDebugPrint(line, cell.rowIndex);
    return SM_SNMP_NOERROR;
}

constexpr char kPartitionNumber[] = "getVDPartition: VDPARTITION_NUMBER_OID value = %u\n";
constexpr char kCacheNumber[] = "getTidalCache: TDLCACHE_NUMBER_OID value = %u\n";
constexpr char kCacheDiskNumber[] = "getTidalCacheDisks: TDLCACHE_NUMBER_OID value = %u\n";
constexpr char kCachePoolNumber[] = "getTidalCachePool: TDLCACHE_NUMBER_OID value = %u\n";
static_assert(hasOneConversion(kPartitionNumber, 'u') && hasOneConversion(kCacheNumber, 'u') &&
              hasOneConversion(kCacheDiskNumber, 'u') && hasOneConversion(kCachePoolNumber, 'u'));

// ---- Partitions ----------------------------------------------------------------

// The state answers its lowest bit; a state of 0, or one that cannot be
// read, leaves the number unwritten (here and in the cache disks).
constexpr ColumnSpec kPartitionColumns[] = {
    {1, nullptr, kSpecial, {.special = rowNumber<kPartitionNumber>}},
    {2, "PartitionPath", kText},
    {3, "ObjState", kLowestBitOrUnset},
    {4, "PartitionSize", kShiftRight, {.number = 20}},
    {5, "PartitionState", kText},
    {6, "Nexus", kText},
};
static_assert(validColumns(kPartitionColumns));

constexpr TableSpec kPartitionTable{.list = &vdPartList,
                                    .columns = kPartitionColumns,
                                    .entry = {"getVDPartition: Entry\n", nullptr},
                                    .exitLine = "getVDPartition: Exit\n"};

// ---- The cache -------------------------------------------------------------------

// Columns 4 and 8 read the same attribute, one as a number, one as text.
constexpr ColumnSpec kCacheColumns[] = {
    {1, nullptr, kSpecial, {.special = rowNumber<kCacheNumber>}},
    {2, "Name", kText},
    {3, "CachePoolLicenseState", kText},
    {4, "TidalCacheLicenseRemaining", kInteger},
    {5, "TidalCacheLicenseEntitlementID", kText},
    {6, "TidalCacheLicenseDuration", kText},
    {7, "TidalCacheLicenseCapacity", kText},
    {8, "TidalCacheLicenseRemaining", kText},
    {9, "TidalCacheLicenseType", kText},
    {10, "TidalCacheLicenseVendor", kText},
    {11, "TidalCacheLicenseProductID", kText},
    {12, "TidalCacheLicenseDateSold", kText},
    {13, "TidalCacheLicenseGeneration", kText},
    {14, "TidalCacheLicenseFeatureID", kText},
    {15, "TidalCacheLicenseFeatureIDDesc", kText},
    {16, "Nexus", kText},
};
static_assert(validColumns(kCacheColumns));

constexpr const char *kCacheExit = "getTidalCache: Exit\n";

constexpr TableSpec kCacheTable{.list = &cacheList,
                                .columns = kCacheColumns,
                                .entry = {"getTidalCache: Entry\n", nullptr},
                                .exitLine = kCacheExit};

// ---- Cache disks -------------------------------------------------------------------

constexpr ColumnSpec kCacheDiskColumns[] = {
    {1, nullptr, kSpecial, {.special = rowNumber<kCacheDiskNumber>}},
    {2, "CacheLunName", kText},
    {3, "ObjState", kLowestBitOrUnset},
    {4, "BackendObjType", kInteger},
    {5, "CacheLunBackendPath", kText},
    {6, "PartitionSize", kShiftRight, {.number = 20}},
    {7, "CacheLunOpMode", kInteger},
    {8, "CacheLunMode", kInteger},
    {9, "Nexus", kText},
    {10, "ObjStatus", kPlusOne},
};
static_assert(validColumns(kCacheDiskColumns));

// The cache disks close with the cache's line, as they always have.
constexpr TableSpec kCacheDiskTable{.list = &cacheDiskList,
                                    .columns = kCacheDiskColumns,
                                    .entry = {"getTidalCacheDisks: Entry\n", nullptr},
                                    .exitLine = kCacheExit};

// ---- Cache pools -------------------------------------------------------------------

// The pool size is scaled by 10 bits, not 20, and a pool without one
// answers 0 with the read's failure.
constexpr ColumnSpec kCachePoolColumns[] = {
    {1, nullptr, kSpecial, {.special = rowNumber<kCachePoolNumber>}},
    {2, "CacheStoreCount", kInteger},
    {3, "CachePoolUUID", kText},
    {4, "CachePoolLicenseState", kText},
    {5, "CachePoolSize", kShiftRight, {.number = 10, .failure = kZeroAndFailure}},
    {6, "CachePoolISHA", kText},
    {7, "Nexus", kText},
    {8, "ObjStatus", kPlusOne},
};
static_assert(validColumns(kCachePoolColumns));

constexpr TableSpec kCachePoolTable{.list = &cachePoolList,
                                    .columns = kCachePoolColumns,
                                    .entry = {"getTidalCachePool: Entry\n", nullptr},
                                    .exitLine = "getTidalCachePool: Exit\n"};

} // namespace
} // namespace tables

int32_t getVDPartition(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kPartitionTable, request, reply, position);
}

int32_t getTidalCache(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kCacheTable, request, reply, position);
}

int32_t getTidalCacheDisks(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kCacheDiskTable, request, reply, position);
}

int32_t getTidalCachePool(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kCachePoolTable, request, reply, position);
}
