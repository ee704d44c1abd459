// The table registry: for each of the 24 tables below the groups 130 and
// 140, its live object list and its getter; and the GetNext walk table.
#ifndef KELP_MODULE_MIB_REGISTRY_H
#define KELP_MODULE_MIB_REGISTRY_H

#include <cstdint>

#include "platform/smsnmp.h"
#include "store/objlist.h"

// A table getter: fills reply with the cell named by request, whose entry
// arc is at `position`. 0, 2 (no such cell) or 5.
using TableGetter = int32_t (*)(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);

// One table of the groups 130 and 140: what Get calls and what GetNext
// walks. The connection tables walk the rows of their source objects'
// lists, so a table names two lists.
struct TableRegistryEntry {
    uint32_t group; // 130 or 140
    uint32_t table;
    ObjList *list;        // the live list the getter reads
    TableGetter getter;   // null until the table is served: every cell is absent
    ObjList *walkList;    // the list whose length is the walk's row count
    uint32_t walkColumns; // the columns the walk visits
};

// 24 tables, then an end entry with group and table 0x01010101.
inline constexpr uint32_t kTableCount = 24;
inline constexpr uint32_t kEndMark = 0x01010101;
extern const TableRegistryEntry kTableRegistry[kTableCount + 1];

// The highest table number of `group` (130 or 140) in the registry; tables
// are numbered from 1 without gaps.
uint32_t lastTableOf(uint32_t group);

// The entry of group.table, or null.
const TableRegistryEntry *findTableEntry(uint32_t group, uint32_t table);

// Calls the table's getter; 2 for a table whose getter is not there.
int32_t callTableGetter(const TableRegistryEntry &entry, SMSnmpValue *request, SMSnmpValue *reply,
                        uint32_t position);

// One table of the GetNext walk: rows are the list's length.
struct WalkDescriptor {
    ObjList *list;
    uint32_t group;
    uint32_t table;
    uint32_t columns;
};

extern "C" {

// The walk in table order, then the end mark (three words 0x01010101, no
// list). Written by initWalkTable on the refresh thread under dataMutex.
extern WalkDescriptor walkTable[kTableCount + 1];

// Fills walkTable.
void initWalkTable(void);

} // extern "C"

#endif // KELP_MODULE_MIB_REGISTRY_H
