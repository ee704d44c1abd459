// The NVMe adapter table (130.18) and the tape device table (130.17):
// getNVMEAdapter and getTape, both plain attribute reads but for the tape's
// name and protocol. The NVMe table answers success, with the reply as it
// came, for a column it does not have.
#include "store/tablelist.h"
#include "tables/columns.h"
#include "tables/getters.h"

namespace tables {
namespace {

using enum ColumnKind;

constexpr uint32_t kTapeType = 774;

constexpr ColumnSpec kNvmeColumns[] = {
    {1, nullptr, kRowIndex},
    {2, "ObjState", kInteger},
    {3, "ControllerNum", kInteger},
    {4, "Channel", kInteger},
    {5, "DeviceName", kText},
    {6, "Vendor", kText},
    {7, "ProductID", kText},
    {8, "DeviceSerialNumber", kText},
    {9, "Revision", kText},
    {10, "CurrentDriverVersion", kText},
    {11, "PCIBusNo", kInteger},
    {12, "PCIDeviceNum", kInteger},
    {13, "PCIFunctionNum", kInteger},
    {14, "Nexus", kText},
    {15, "BusProtocol", kInteger},
    {16, "MediaType", kInteger},
    {17, "Length", kShiftRight, {.number = 20}},
    {18, "Length", kLowBits, {.number = 0xFFFFF}},
    {19, "DeviceID", kInteger},
    {20, "ModelNumber", kText},
    {21, "NegotiatedSpeed", kQuotient, {.number = 10}},
    {22, "CapableSpeed", kQuotient, {.number = 10}},
    {23, "RemainingRatedWriteEndurance", kInteger},
    {24, "FormFactor", kInteger},
    {25, "NVMeSpecVerSupported", kText},
    {26, "MaxLinkWidth", kInteger},
    {27, "NegotiatedLinkWidth", kInteger},
    {28, "SubVendor", kText},
};
static_assert(validColumns(kNvmeColumns));

// Column 0 and columns above 28 answer the priming read's success with the
// reply untouched; the caller then reports whatever the reply held.
constexpr TableSpec kNvmeTable{.list = &nvmeList,
                               .columns = kNvmeColumns,
                               .entry = {"getNVMEAdapter\n", "getNVMEAdapter: Entry\n"},
                               .idLine = "getNVMEAdapter: curr ID = %d\n",
                               .absentColumn = SM_SNMP_NOERROR};

// A tape's protocol: SATA (7) and SAS (8) as stored, anything else 0.
constexpr ValuePair kTapeProtocolPairs[] = {{7, 7}, {8, 8}};
constexpr ValueMap kTapeProtocol{kTapeProtocolPairs, false, 0};

constexpr ColumnSpec kTapeColumns[] = {
    {1, nullptr, kRowIndex},  {2, nullptr, kDisplayName, {.number = kTapeType}},
    {3, "Vendor", kText},     {4, "ProductID", kText},
    {5, "Nexus", kText},      {6, "BusProtocol", kMapped, {.map = &kTapeProtocol}},
    {7, "SASAddress", kText}, {8, "MediaType", kInteger},
};
static_assert(validColumns(kTapeColumns));

constexpr TableSpec kTapeTable{
    .list = &tapeList, .columns = kTapeColumns, .entry = {"getTape(): Entry\n", nullptr}};

} // namespace
} // namespace tables

int32_t getNVMEAdapter(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kNvmeTable, request, reply, position);
}

int32_t getTape(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kTapeTable, request, reply, position);
}
