// The scalar objects: descriptor texts, the mapped global status, the
// information group and the global group.
#include "mib/scalars.h"

#include <cstdio>
#include <cstring>

#include "frame/state.h"
#include "platform/evtmsg.h"
#include "platform/vscil.h"
#include "store/refresh.h"

// Guarded by dataMutex (mib/scalars.h).
uint32_t g_uGlobalStatus;
uint32_t g_uPrevGlobalStatus;
uint32_t g_uLastReportedRefreshTime;
uint32_t g_uRefreshSeconds;

namespace {

constexpr char kVendor[] = "Vorn Inc.";
constexpr char kProduct[] = "Halden (Storage Management)";
constexpr char kDescription[] = "Configuration and monitoring of disk storage devices.";
constexpr uint32_t kUrlBufferSize = 1024;

// A word that sits before the vendor text and nothing changes.
constexpr uint32_t kGlobalConstant = 5;

void setText(SMSnmpValue *reply, const char *text)
{
    const size_t length = std::strlen(text);
    std::memcpy(reply->buffer, text, length + 1);
    reply->type = SM_ASN_OCTET_STRING;
    reply->value = static_cast<uint32_t>(length);
}

void setInteger(SMSnmpValue *reply, uint32_t value)
{
    reply->type = SM_ASN_INTEGER;
    reply->value = value;
    reply->buffer = nullptr;
}

// The MIB's status for the roll-up: the roll-up counts up with severity,
// the MIB's status down.
uint32_t mappedGlobalStatus(uint32_t status)
{
    switch (status) {
    case 1:
    case 2:
        return 4;
    case 3:
        return 3;
    case 4:
        return 2;
    case 5:
    case 6:
        return 1;
    default:
        return 0;
    }
}

// The management address without a trailing character that is not a digit
// (a trailing slash); empty when the catalogue has none.
void setUrl(SMSnmpValue *reply)
{
    char url[kUrlBufferSize] = {};
    uint32_t size = kUrlBufferSize;
    if (evtmsg_getPrylUrl(url, &size) != 0) {
        url[0] = '\0';
    }
    url[kUrlBufferSize - 1] = '\0';
    const size_t length = std::strlen(url);
    if (length > 0 && (url[length - 1] < '0' || url[length - 1] > '9')) {
        url[length - 1] = '\0';
    }
    setText(reply, url);
}

} // namespace

int32_t getRootScalar(SMSnmpValue *reply, uint32_t arc)
{
    char version[16];
    switch (arc) {
    case 1:
        std::snprintf(version, sizeof version, "%s.%s.%s", "5", "2", "0");
        setText(reply, version);
        return SM_SNMP_NOERROR;
    case 2: {
        const uint32_t mapped =
            mappedGlobalStatus(getGlobalSystemStatus(&g_uGlobalStatus, &g_uPrevGlobalStatus));
        setInteger(reply, mapped);
        return SM_SNMP_NOERROR;
    }
    case 3:
        setText(reply, kVendor);
        return SM_SNMP_NOERROR;
    case 4:
        setText(reply, kProduct);
        return SM_SNMP_NOERROR;
    case 5:
        setText(reply, kDescription);
        return SM_SNMP_NOERROR;
    default:
        return SM_SNMP_NOSUCHNAME;
    }
}

int32_t getInfoTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    VscilDebugPrint("getInfoTable: Entry\n");
    const uint32_t column = position < request->name.count ? request->name.arcs[position] : 0;
    const char *const texts[] = {kProduct, kDescription, kVendor};
    if (column < 1 || column > 3) {
        VscilDebugPrint("getInfoTable: Exit\n");
        return SM_SNMP_NOSUCHNAME;
    }
    setText(reply, texts[column - 1]);
    VscilDebugPrint("getInfoTable: Exit\n");
    return SM_SNMP_NOERROR;
}

int32_t getGlobalTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    VscilDebugPrint("getGlobalTable: Entry \n");
    const uint32_t column = position < request->name.count ? request->name.arcs[position] : 0;
    int32_t status = SM_SNMP_NOERROR;
    switch (column) {
    case 3:
        g_uLastReportedRefreshTime = static_cast<uint32_t>(lastRefreshTime.load());
        setInteger(reply, g_uLastReportedRefreshTime);
        break;
    case 4:
        setInteger(reply, kGlobalConstant);
        break;
    case 5:
        setInteger(reply, 0);
        break;
    case 6:
        g_uRefreshSeconds = g_SNMPRefreshMinutes * 60;
        setInteger(reply, g_uRefreshSeconds);
        break;
    case 11: {
        char version[16];
        std::snprintf(version, sizeof version, "%s.%s", "5", "2");
        setText(reply, version);
        break;
    }
    case 12:
        setUrl(reply);
        break;
    case 13: {
        const uint32_t status13 = getGlobalSystemStatus(&g_uGlobalStatus, &g_uPrevGlobalStatus);
        setInteger(reply, status13);
        if (g_uGlobalStatus != status13) {
            g_uPrevGlobalStatus = g_uGlobalStatus;
        }
        break;
    }
    case 14:
        setInteger(reply, g_uPrevGlobalStatus);
        break;
    case 15:
        setInteger(reply, GetSmartThermalShutdownStatus());
        break;
    default:
        status = SM_SNMP_NOSUCHNAME;
        break;
    }
    VscilDebugPrint("getGlobalTable: Exit \n");
    return status;
}
