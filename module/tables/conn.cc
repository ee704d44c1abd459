// The connection tables: which virtual disk, enclosure, channel and
// controller an array disk belongs to (140.3, 130.5, 130.6), which enclosure
// holds a fan, power supply, temperature probe or EMM (130.8, 130.10, 130.12,
// 130.14), and which controller a battery serves (130.16). Apart from the
// array-disk-to-virtual-disk table, whose list holds the pairs, a row is the
// owned object and its partner is asked of the data store at answer time,
// then found in the partner table's list so that its row number can be
// answered.
#include "tables/conn.h"

#include <array>
#include <string_view>

#include "platform/vscil.h"
#include "store/rowref.h"
#include "store/tablelist.h"
#include "store/xmlvalue.h"
#include "tables/columns.h"
#include "tables/getters.h"

namespace tables {

// The virtual disk of row `rowIndex` of the array-disk-to-virtual-disk list,
// or the array disk itself when the list has no such row.
uint32_t logConnVirtualDisk(uint32_t rowIndex, uint32_t diskId)
{
    const ObjNode *node = getNodeByIndex(&adLogConnList, rowIndex);
    if (node == nullptr) {
        VscilDebugPrint("getADLogConn(): ADLOGCONN_VDNAME_OID is NULL\n");
        return diskId;
    }
    return node->subObjId;
}

namespace {

using enum ColumnKind;

constexpr uint32_t kChannelType = 770;
constexpr uint32_t kBatteryType = 771;
constexpr uint32_t kFanType = 777;
constexpr uint32_t kProbeType = 778;
constexpr uint32_t kSupplyType = 779;
constexpr uint32_t kEmmType = 780;

constexpr uint32_t kBusPcie = 9;

// ---- Array disks ----------------------------------------------------------

// An array disk is named by 772, or by 783 when its mask has position 22
// set; the enclosure-connection table names PCIe SSDs by 785 whatever the
// mask says. A disk whose mask cannot be read is not named.
int32_t diskName(const Cell &cell, bool pcieNamed)
{
    uint32_t message = 772;
    if (pcieNamed) {
        uint32_t protocol = 0;
        if (readNumber(cell, "BusProtocol", &protocol) == SM_SNMP_NOERROR && protocol == kBusPcie) {
            message = 785;
        }
    }
    LocalText mask;
    const int32_t status = mask.read(cell, "AttributesMask");
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    if (message == 772 && mask.isSet(22)) {
        message = 783;
    }
    return answerDisplayName(cell, message);
}

int32_t diskNameOr785(const Cell &cell, const ColumnSpec &)
{
    return diskName(cell, true);
}

int32_t diskNameOf772Or783(const Cell &cell, const ColumnSpec &)
{
    return diskName(cell, false);
}

// The array disk's own row in the array disk table.
int32_t diskRow(const Cell &cell, const ColumnSpec &)
{
    const ObjNode *node = findByObjId(&adList, static_cast<int32_t>(cell.objId));
    if (node == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    answerNumber(cell, node->index);
    return SM_SNMP_NOERROR;
}

// The virtual disk's name, always fetched from the data store.
int32_t virtualDiskName(const Cell &cell, const ColumnSpec &column)
{
    if (cell.reply->buffer == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    const uint32_t vd = logConnVirtualDisk(cell.rowIndex, cell.objId);
    cell.reply->type = SM_ASN_OCTET_STRING;
    uint64_t slot = 0;
    return getValFromOID(vd, column.attribute, cell.reply, &slot);
}

// The virtual disk's row in the virtual disk table.
int32_t virtualDiskRow(const Cell &cell, const ColumnSpec &)
{
    const uint32_t vd = logConnVirtualDisk(cell.rowIndex, cell.objId);
    const ObjNode *node = findByObjId(&vdList, static_cast<int32_t>(vd));
    if (node == nullptr) {
        VscilDebugPrint("getADLogConn(): llist NULL => data not found in list\n");
        return SM_SNMP_NOSUCHNAME;
    }
    answerNumber(cell, node->index);
    return SM_SNMP_NOERROR;
}

constexpr ColumnSpec kADLogConnColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kSpecial, {.special = diskNameOf772Or783}},
    {3, nullptr, kSpecial, {.special = diskRow}},
    {4, "Name", kSpecial, {.special = virtualDiskName}},
    {5, nullptr, kSpecial, {.special = virtualDiskRow}},
};
static_assert(validColumns(kADLogConnColumns));

constexpr TableSpec kADLogConnTable{.list = &adLogConnList,
                                    .columns = kADLogConnColumns,
                                    .entry = {"getADLogConn: Entry\n", nullptr},
                                    .exitLine = "getADLogConn: Exit\n"};

constexpr const char *kADEnclNoPartner = "getADEnclConn(): assocData is NULL\n";
constexpr const char *kADEnclNotListed =
    "getADEnclConn(): llist NULL => dataOID not found in list\n";

// The enclosure of a disk as the table names it: a backplane (types 1 and
// 2) by that word, any other enclosure by its product id.
int32_t enclosureKind(const Cell &cell, const ColumnSpec &)
{
    HeapText type(getAssocVal(cell.objId, "enclosures", "EnclosureType", 0));
    if (type == nullptr) {
        VscilDebugPrint("%s", kADEnclNoPartner);
        return SM_SNMP_NOSUCHNAME;
    }
    const uint32_t number = decimalPrefix(type.get());
    if (number == 1 || number == 2) {
        return answerText(cell, "Backplane");
    }
    HeapText product(getAssocVal(cell.objId, "enclosures", "ProductID", 0));
    if (product == nullptr) {
        VscilDebugPrint("%s", kADEnclNoPartner);
        return SM_SNMP_NOSUCHNAME;
    }
    return answerText(cell, product.get());
}

constexpr ColumnSpec kADEnclConnColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kSpecial, {.special = diskNameOr785}},
    {3, nullptr, kRowIndex},
    {4, nullptr, kSpecial, {.special = enclosureKind}},
    {5,
     "ObjID",
     kPartnerRow,
     {.failed = kADEnclNoPartner,
      .association = "enclosures",
      .partners = &enclList,
      .notListed = kADEnclNotListed}},
    {6, "Name", kPartnerText, {.failed = kADEnclNoPartner, .association = "adapters"}},
    {7,
     "ObjID",
     kPartnerRow,
     {.failed = kADEnclNoPartner,
      .association = "adapters",
      .partners = &ctrlList,
      .notListed = kADEnclNotListed}},
};
static_assert(validColumns(kADEnclConnColumns));

constexpr TableSpec kADEnclConnTable{.list = &adEnclConnList,
                                     .columns = kADEnclConnColumns,
                                     .entry = {"getADEnclConn: Entry\n", nullptr},
                                     .exitLine = "getADEnclConn: Exit\n"};

// A disk in an enclosure has no row of its own in the channel-connection
// table: every cell of it answers success with nothing written, and the
// host passes over it.
bool inEnclosure(const Cell &cell)
{
    const HeapText product(getAssocVal(cell.objId, "enclosures", "ProductID", 0));
    return product != nullptr;
}

// The nexus is read again, as a check that the disk is still there.
int32_t rowAfterNexus(const Cell &cell, const ColumnSpec &)
{
    ValueBuffer nexus{};
    SMSnmpValue record{};
    record.type = SM_ASN_OCTET_STRING;
    record.buffer = nexus.data();
    uint64_t slot = 0;
    const int32_t status = readAttribute(cell.objId, "Nexus", &record, &slot);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    answerNumberWithoutBuffer(cell, cell.rowIndex);
    return SM_SNMP_NOERROR;
}

// The channel's display name. When the service cannot name the channel,
// its status is the answer and the reply keeps the channel's nexus.
int32_t channelName(const Cell &cell, const ColumnSpec &)
{
    HeapText nexus(getAssocVal(cell.objId, "bus", "Nexus", 0));
    if (nexus == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    if (answerText(cell, nexus.get()) != SM_SNMP_NOERROR) {
        return SM_SNMP_NOSUCHNAME;
    }
    ValueBuffer local{};
    const std::string_view text(nexus.get());
    text.copy(local.data(), local.size() - 1);
    DisplayName name;
    nameFromService(kChannelType, local.data(), &name);
    if (name.status != 0) {
        return static_cast<int32_t>(name.status);
    }
    return answerText(cell, name.text.data());
}

constexpr ColumnSpec kADChanConnColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kSpecial, {.special = diskNameOf772Or783}},
    {3, nullptr, kSpecial, {.special = rowAfterNexus}},
    {4, nullptr, kSpecial, {.special = channelName}},
    {5,
     "ObjID",
     kPartnerRow,
     {.failed = "getADChanConn(): assocData is NULL\n",
      .association = "bus",
      .partners = &chanList,
      .notListed = "getADChanConn(): llist NULL => dataOID not found in list\n"}},
    {6, "Name", kPartnerText, {.association = "adapters"}},
    {7, "ObjID", kPartnerRow, {.association = "adapters", .partners = &ctrlList}},
};
static_assert(validColumns(kADChanConnColumns));

constexpr TableSpec kADChanConnTable{.list = &adChanConnList,
                                     .columns = kADChanConnColumns,
                                     .entry = {"getADChanConn: ENTRY\n", nullptr},
                                     .exitLine = "getADChanConn: Exit\n",
                                     .answersNothing = inEnclosure};

// ---- Enclosure components and batteries ---------------------------------------

// The log lines of one component's connection table: printed when the
// object has no partner (column 4, column 5) and when the partner is not in
// its table.
struct PartnerLines {
    const char *textMissing;
    const char *rowMissing;
    const char *notListed;
};

// Columns 1 to 5 of a component's connection table: the component, and its
// enclosure's product id and row (a battery: its controller's name and row).
consteval std::array<ColumnSpec, 5> componentColumns(uint32_t type, bool battery,
                                                     PartnerLines lines)
{
    const char *partner = battery ? "adapters" : "enclosures";
    return {{
        {1, nullptr, kRowIndex},
        {2, nullptr, kDisplayName, {.number = type}},
        {3, nullptr, kRowIndex},
        {4,
         battery ? "Name" : "ProductID",
         kPartnerText,
         {.failed = lines.textMissing, .association = partner}},
        {5,
         "ObjID",
         kPartnerRow,
         {.failed = lines.rowMissing,
          .association = partner,
          .partners = battery ? &ctrlList : &enclList,
          .notListed = lines.notListed}},
    }};
}

constexpr PartnerLines kNoLines{nullptr, nullptr, nullptr};
constexpr auto kFanConnColumns =
    componentColumns(kFanType, false, {"getFanEnclConn(): assocData is NULL\n", nullptr, nullptr});
constexpr auto kProbeConnColumns = componentColumns(
    kProbeType, false,
    {"getTempEnclConn(): assocData is NULL\n", "getTempEnclConn(): assocData is NULL\n",
     "getTempEnclConn(): llist NULL => dataOID not found in list\n"});
constexpr auto kEmmConnColumns =
    componentColumns(kEmmType, false,
                     {nullptr, "getEMMEnclConn: assocData is NULL\n",
                      "getEMMEnclConn: llist NULL => dataOID not found in list\n"});
constexpr auto kBatteryConnColumns = componentColumns(kBatteryType, true, kNoLines);
constexpr auto kSupplyBaseColumns = componentColumns(kSupplyType, false, kNoLines);
static_assert(validColumns(kFanConnColumns) && validColumns(kProbeConnColumns) &&
              validColumns(kEmmConnColumns) && validColumns(kBatteryConnColumns));

// A power supply's firmware revision, in a buffer of the getter's own; a
// supply that does not report one is "Not Available". Never fails once the
// row exists (but for the allocation).
int32_t firmwareRevision(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getPwrEnclConn:: PWRCONN_PSU_FIRMWARE_REV entry\n");
    LocalText revision;
    revision.read(cell, column.attribute);
    const char *text = revision.c_str()[0] != '\0' ? revision.c_str() : "Not Available";
    const int32_t status = answerOwnText(cell, text);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    VscilDebugPrint("getPwrEnclConn:: PWRCONN_PSU_FIRMWARE_REV  = %s\n",
                    static_cast<const char *>(cell.reply->buffer));
    VscilDebugPrint("getPwrEnclConn:: PWRCONN_PSU_FIRMWARE_REV exit\n");
    return SM_SNMP_NOERROR;
}

constexpr ColumnSpec kSupplyConnColumns[] = {
    kSupplyBaseColumns[0], kSupplyBaseColumns[1],
    kSupplyBaseColumns[2], kSupplyBaseColumns[3],
    kSupplyBaseColumns[4], {6, "ProductVersion", kSpecial, {.special = firmwareRevision}},
};
static_assert(validColumns(kSupplyConnColumns));

constexpr TableSpec kFanConnTable{.list = &fanList,
                                  .columns = kFanConnColumns,
                                  .entry = {"getFanEnclConn: Exit\n", nullptr},
                                  .exitLine = "getFanEnclConn: Exit\n"};
constexpr TableSpec kSupplyConnTable{.list = &psuList,
                                     .columns = kSupplyConnColumns,
                                     .entry = {"getPwrEnclConn: Entry\n", nullptr},
                                     .exitLine = "getPwrEnclConn: Exit\n"};
constexpr TableSpec kProbeConnTable{.list = &tempList,
                                    .columns = kProbeConnColumns,
                                    .entry = {"getTempEnclConn: Entry\n", nullptr},
                                    .exitLine = "getTempEnclConn: Exit\n"};
constexpr TableSpec kEmmConnTable{.list = &emmList,
                                  .columns = kEmmConnColumns,
                                  .entry = {"getEMMEnclConn: Entry\n", nullptr},
                                  .exitLine = "getEMMEnclConn: Exit\n"};
constexpr TableSpec kBatteryConnTable{.list = &battList,
                                      .columns = kBatteryConnColumns,
                                      .entry = {"getBatteryCtrlConn: Entry\n", nullptr},
                                      .exitLine = "getBatteryCtrlConn: Exit\n"};

} // namespace
} // namespace tables

int32_t getADLogConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kADLogConnTable, request, reply, position);
}

int32_t getADEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kADEnclConnTable, request, reply, position);
}

int32_t getADChanConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kADChanConnTable, request, reply, position);
}

int32_t getFanEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kFanConnTable, request, reply, position);
}

int32_t getPwrEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kSupplyConnTable, request, reply, position);
}

int32_t getTempEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kProbeConnTable, request, reply, position);
}

int32_t getEMMEnclConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kEmmConnTable, request, reply, position);
}

int32_t getBatteryCtrlConn(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kBatteryConnTable, request, reply, position);
}
