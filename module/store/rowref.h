// From a request name to a row of an object list.
#ifndef KELP_MODULE_STORE_ROWREF_H
#define KELP_MODULE_STORE_ROWREF_H

#include <cstdint>

#include "platform/smsnmp.h"
#include "store/objlist.h"

struct RowRef {
    uint32_t rowIndex;
    uint32_t column;
    uint32_t objId;
    uint32_t subObjId; // the node's partner object (0 in tables of one object a row)
};

extern "C" {

// With `position` the index of the table's entry arc in the request name:
// the column is the arc after it and the row index the one after that (later
// arcs are ignored). 0 with `out` filled when that row of `list` exists and
// is not a hole; else 2. Caller holds dataMutex.
int32_t parseRowIndex(uint32_t position, const SMSnmpValue *request, ObjList *list, RowRef *out);

// Debug print of a binding's value and name.
void printSMSnmpVal(const SMSnmpValue *value);

} // extern "C"

#endif // KELP_MODULE_STORE_ROWREF_H
