// The channel table (130.2): getChan. A channel is named by the location
// service, except that a PCIe channel is always "Extender 0"; its target id
// is its controller's.
#include "platform/vscil.h"
#include "store/tablelist.h"
#include "tables/columns.h"
#include "tables/getters.h"

namespace tables {
namespace {

using enum ColumnKind;

constexpr uint32_t kChannelType = 770;
constexpr uint32_t kBusPcie = 9;

// The channel's bus protocol as the MIB numbers it: 5 is answered as 6, the
// known numbers as stored, 6 and anything unknown as 0.
constexpr ValuePair kBusProtocolPairs[] = {{1, 1}, {2, 2}, {3, 3}, {4, 4},
                                           {5, 6}, {7, 7}, {8, 8}, {9, 9}};
constexpr ValueMap kBusProtocol{kBusProtocolPairs, false, 0};

// The display name. The protocol is read first and its read is not
// examined: a channel without one is named by the service.
int32_t channelName(const Cell &cell, const ColumnSpec &)
{
    uint32_t protocol = 0;
    readNumber(cell, "BusProtocol", &protocol);
    DisplayName name;
    const int32_t read = lookUpDisplayName(cell, kChannelType, &name);
    if (read != SM_SNMP_NOERROR) {
        return read;
    }
    const bool extender = name.status == 0 && protocol == kBusPcie;
    if (answerText(cell, extender ? "Extender 0" : name.text.data()) != SM_SNMP_NOERROR) {
        return SM_SNMP_NOSUCHNAME;
    }
    return static_cast<int32_t>(name.status);
}

// Columns 4 and above 11 are not served.
constexpr ColumnSpec kChanColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kSpecial, {.special = channelName}},
    {3, "ObjState", kLowestBitOrUnset},
    {5, "Termination", kInteger},
    // The controller's target id; absent without a controller that has one.
    {6, "TargetID", kAssociatedNumber, {.association = "adapters"}},
    {7, "TreeStatus", kPlusOne},
    {8, "ObjStatus", kPlusOne},
    {9, "Nexus", kText},
    {10, "SCSIRate", kText},
    {11, "BusProtocol", kMapped, {.map = &kBusProtocol}},
};
static_assert(validColumns(kChanColumns));

constexpr TableSpec kChanTable{
    .list = &chanList, .columns = kChanColumns, .entry = {"getChan(): Entry\n", nullptr}};

} // namespace
} // namespace tables

int32_t getChan(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kChanTable, request, reply, position);
}
