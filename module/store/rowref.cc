// Row look-up for the table getters, and a debug print of a binding.
#include "store/rowref.h"

#include "platform/vscil.h"

int32_t parseRowIndex(uint32_t position, const SMSnmpValue *request, ObjList *list, RowRef *out)
{
    const uint64_t columnArc = uint64_t{position} + 1;
    const uint64_t rowArc = uint64_t{position} + 2;
    if (columnArc >= request->name.count) {
        return SM_SNMP_NOSUCHNAME;
    }
    out->column = request->name.arcs[columnArc];
    if (rowArc >= request->name.count) {
        return SM_SNMP_NOSUCHNAME;
    }
    out->rowIndex = request->name.arcs[rowArc];
    const ObjNode *node = getNodeByIndex(list, out->rowIndex);
    // A hole is a row whose object vanished in a rebuild: no such instance.
    if (node == nullptr || node->objId == 0) {
        return SM_SNMP_NOSUCHNAME;
    }
    out->objId = node->objId;
    out->subObjId = node->subObjId;
    return SM_SNMP_NOERROR;
}

void printSMSnmpVal(const SMSnmpValue *value)
{
    VscilDebugPrint("SMSnmpValue->value --- \n");
    if (value->type == SM_ASN_INTEGER) {
        VscilDebugPrint("value = %d\n", static_cast<int32_t>(value->value));
    } else if (value->type == SM_ASN_OCTET_STRING) {
        VscilDebugPrint("value = %s\n",
                        value->buffer != nullptr ? static_cast<const char *>(value->buffer) : "");
    } else {
        VscilDebugPrint("printSMSnmpVal: Type %d Unknown\n", static_cast<int32_t>(value->type));
    }
    VscilDebugPrint("SMSnmpValue->name --- \n");
    for (uint32_t i = 0; i < value->name.count && value->name.arcs != nullptr; i++) {
        VscilDebugPrint("%d.", static_cast<int32_t>(value->name.arcs[i]));
    }
    VscilDebugPrint("\n");
}
