// Get resolution: the request's name against the MIB root, scalars answered
// here, table cells handed to their table's getter, and the probe that tells
// a missing row of a table with rows (2) from a table without rows (3).
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mib/mibdef.h"
#include "mib/registry.h"
#include "mib/resolve.h"
#include "mib/scalars.h"
#include "platform/vscil.h"

namespace {

constexpr uint32_t kScratchSize = 512;
constexpr uint32_t kTablePosition = 12; // the entry arc of root.G.T.1.C.R

// The getter of root.G.T: 2 for a missing T in either group and for an
// unknown table of group 130; 5 for an unknown table of group 140 (the two
// groups answer differently here on purpose).
int32_t tableCell(SMSnmpValue *request, SMSnmpValue *reply, uint32_t group,
                  const TableRegistryEntry **entry)
{
    if (request->name.count <= 11) {
        return SM_SNMP_NOSUCHNAME;
    }
    const uint32_t table = request->name.arcs[11];
    const uint32_t last = lastTableOf(group);
    if (table < 1 || table > last) {
        return group == 130 ? SM_SNMP_NOSUCHNAME : SM_SNMP_GENERR;
    }
    *entry = findTableEntry(group, table);
    return callTableGetter(**entry, request, reply, kTablePosition);
}

// Asks the getter for column 1 of row 1 with a private name and binding: 3
// when the table has no first row, else 2.
int32_t probeEmptyTable(const TableRegistryEntry &entry, const SMSnmpValue *request,
                        uint32_t *probeArcs, char *probeBuffer)
{
    std::memcpy(probeArcs, kelpMibRootArcs, sizeof kelpMibRootArcs);
    probeArcs[10] = entry.group;
    probeArcs[11] = entry.table;
    probeArcs[12] = request->name.count > 12 ? request->name.arcs[12] : 1;
    probeArcs[13] = 1;
    probeArcs[14] = 1;
    SMSnmpValue probe{};
    probe.name = SMSnmpOID{15, 0, probeArcs};
    probe.buffer = probeBuffer;
    const int32_t status = callTableGetter(entry, &probe, &probe, kTablePosition);
    return status == SM_SNMP_NOSUCHNAME ? SM_SNMP_BADVALUE : SM_SNMP_NOSUCHNAME;
}

} // namespace

int32_t getValue(SMSnmpValue *request, SMSnmpValue *reply)
{
    VscilDebugPrint("getValue: Entry\n");
    int32_t status = SM_SNMP_NOSUCHNAME;
    if (!kelpMibUnderRoot(request->name)) {
        VscilDebugPrint("getValue: exit\n");
        return SM_SNMP_NOSUCHNAME;
    }
    // Scratch for the empty-table probe: its name and its value buffer. On
    // the stack, as GetNext calls this once per candidate.
    uint32_t probeArcs[kScratchSize / sizeof(uint32_t)];
    char probeBuffer[kScratchSize];
    if (request->name.count == kelpMibRootLength) {
        status = SM_SNMP_GENERR;
    } else {
        const uint32_t arc = request->name.arcs[kelpMibRootLength];
        const TableRegistryEntry *entry = nullptr;
        switch (arc) {
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
            status = getRootScalar(reply, arc);
            break;
        case 100:
            status = getInfoTable(request, reply, 11);
            break;
        case 110:
            status = getGlobalTable(request, reply, 11);
            break;
        case 130:
        case 140:
            status = tableCell(request, reply, arc, &entry);
            if (status == SM_SNMP_NOSUCHNAME && entry != nullptr) {
                status = probeEmptyTable(*entry, request, probeArcs, probeBuffer);
            }
            break;
        default:
            status = SM_SNMP_NOSUCHNAME;
            break;
        }
    }
    VscilDebugPrint("getValue: exit\n");
    return status;
}
