// Building the object lists from the data store, and rebuilding them into
// the staging lists and merging those into the live lists so that rows keep
// their index across rebuilds.
#ifndef KELP_MODULE_STORE_BUILD_H
#define KELP_MODULE_STORE_BUILD_H

#include <cstdint>

#include "store/objlist.h"

extern "C" {

// Appends one row per object of typeName that has a "Nexus" ("vdisks": only
// those without "ParentVDID"; "adtoenclosure"/"adtochannel": the array disks
// with/without an enclosure). 0, also for a type without objects; -1 when a
// row could not be appended (rows before it stay).
int32_t buildTable(ObjList *list, const char *typeName);

// Appends one row per array disk and virtual disk (without "ParentVDID") it
// belongs to, reading the live adList. 0 or -1 as buildTable.
int32_t buildADLogConnTable(ObjList *list);

// Merges staging into live by nexus: a row still present takes the new
// object id, a vanished one becomes a hole (keeping its nexus), new objects
// are appended. Always 0.
int32_t rebuildTable(ObjList *live, ObjList *staging);

// The same for rows with two ids; a vanished row also loses its nexus, so a
// hole stays a hole for good. Always 0.
int32_t rebuildTable2(ObjList *live, ObjList *staging);

// Builds every live list; the result of the last table built.
int32_t buildAll(void);
// Builds every staging list; the result of the last table built.
int32_t rebuildAllStep1(void);
// Merges every staging list into its live list, then frees the staging lists.
void rebuildAllStep2(void);

} // extern "C"

// True when the build, rebuild and merge tables each name every list of
// kTableListPairs exactly once (the staging side where they fill staging
// lists). A test checks it: g++ cannot compare the lists' addresses at
// compile time in a sanitizer build.
bool buildTablesNameEveryListOnce(void);

#endif // KELP_MODULE_STORE_BUILD_H
