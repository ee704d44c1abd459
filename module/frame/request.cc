// Get and GetNext as the dispatch hands them over: the gates in front of the
// request resolution (data store ready, data lock within one second, tables
// built) and the check of the request name against the MIB root.
#include <algorithm>

#include "frame/frame.h"
#include "mib/mibdef.h"
#include "mib/resolve.h"
#include "mpi/mpi.h"
#include "platform/vscil.h"
#include "store/xmlvalue.h"

namespace {

constexpr uint32_t kDataLockTimeoutMs = 1000;

} // namespace

uint32_t MIBImplementerGet(SMSnmpValue *request, SMSnmpValue *reply)
{
    VscilDebugPrint("MIBImplementerGet: entry\n");
    if (!dataStoreIsReady()) {
        return SM_SNMP_GENERR;
    }
    DataLock lock(kDataLockTimeoutMs);
    if (!lock.locked()) {
        return SM_SNMP_GENERR;
    }
    if (g_bSNMPTableInitialised == 0) {
        lock.unlock();
        VscilDebugPrint("MIBImplementerGet(): exit g_bSNMPTableInitialised is false\n");
        return SM_SNMP_GENERR;
    }
    // A name outside the root is deliberately no error: the reply stays as
    // it came and the framework asks elsewhere.
    uint32_t status = SM_SNMP_NOERROR;
    if (KelpmibCheckPrefix(request) == 0) {
        status = KelpmibGet(request, reply);
    }
    if (!lock.unlock()) {
        status = SM_SNMP_GENERR;
    }
    VscilDebugPrint("MIBImplementerGet: exit\n");
    return status;
}

uint32_t MIBImplementerGetNext(SMSnmpValue *request, SMSnmpValue *reply)
{
    VscilDebugPrint("MIBImplementerGetNext: entry\n");
    if (!dataStoreIsReady()) {
        return SM_SNMP_GENERR;
    }
    DataLock lock(kDataLockTimeoutMs);
    if (!lock.locked()) {
        VscilDebugPrint("MIBImplementerGetNext: exit\n");
        return SM_SNMP_GENERR;
    }
    if (g_bSNMPTableInitialised == 0) {
        lock.unlock();
        VscilDebugPrint("MIBImplementerGetNext(): exit g_bSNMPTableInitialised is false\n");
        return SM_SNMP_GENERR;
    }
    // A name before the root or inside it walks on; one after the root has
    // nothing of this MIB after it.
    uint32_t status = SM_SNMP_NOERROR;
    if (KelpmibCheckPrefix(request) <= 0) {
        status = KelpmibGetNext(request, reply);
    }
    if (!lock.unlock()) {
        status = SM_SNMP_GENERR;
    }
    VscilDebugPrint("MIBImplementerGetNext: exit\n");
    return status;
}

int32_t KelpmibCheckPrefix(const SMSnmpValue *request)
{
    VscilDebugPrint("KelpmibCheckPrefix: entry\n");
    const SMSnmpOID root{kelpMibRootLength, 0, const_cast<uint32_t *>(kelpMibRootArcs)};
    const uint32_t arcs = std::min(request->name.count, kelpMibRootLength);
    const auto difference = static_cast<int32_t>(MPIOIDComparePrefix(&request->name, &root, arcs));
    VscilDebugPrint("KelpmibCheckPrefix: exit\n");
    return difference;
}

uint32_t KelpmibGet(SMSnmpValue *request, SMSnmpValue *reply)
{
    VscilDebugPrint("KelpmibGet: entry\n");
    const int32_t status = getValue(request, reply);
    VscilDebugPrint("KelpmibGet: exit\n\n");
    // A table without rows reaches the framework as noSuchName, like a
    // missing row of a table that has rows.
    if (status == SM_SNMP_BADVALUE) {
        return SM_SNMP_NOSUCHNAME;
    }
    return static_cast<uint32_t>(status);
}

uint32_t KelpmibGetNext(SMSnmpValue *request, SMSnmpValue *reply)
{
    VscilDebugPrint("KelpmibGetNext: entry\n");
    const int32_t status = getNextValue(request, reply);
    VscilDebugPrint("KelpmibGetNext: exit\n");
    return static_cast<uint32_t>(status);
}
