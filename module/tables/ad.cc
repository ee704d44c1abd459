// The array disk table (130.4): getAD, its columns as rows of the generic
// column reader, and the columns with rules of their own: the display name,
// the enclosure, spare state, media type, certification, power state and the
// two PCIe SSD texts that are answered in buffers of the getter's own.
#include "tables/columns.h"
#include "tables/getters.h"

#include <string>

#include "platform/vscil.h"
#include "store/tablelist.h"
#include "store/xmlvalue.h"

namespace tables {
namespace {

using enum ColumnKind;

constexpr const char *kAttributesMask = "AttributesMask";

constexpr uint32_t kBusPcie = 9;
constexpr uint32_t kMediaSolidState = 2;

// The disk's bus protocol as the MIB numbers it: 5 is answered as 6, and 6
// with every number the MIB does not know as 0.
constexpr ValuePair kBusProtocolPairs[] = {{1, 1}, {2, 2}, {3, 3}, {4, 4},
                                           {5, 6}, {7, 7}, {8, 8}, {9, 9}};
constexpr ValueMap kBusProtocol{kBusProtocolPairs, false, 0};

bool isPcie(const Cell &cell)
{
    uint32_t protocol = 0;
    return readNumber(cell, "BusProtocol", &protocol) == SM_SNMP_NOERROR && protocol == kBusPcie;
}

// ---- Name and place ----------------------------------------------------------

// The catalogue names a disk by one of three messages: every PCIe SSD by
// 785, any other disk with mask position 22 set by 783, the rest by 772.
constexpr uint32_t nameMessage(bool pcie, bool position22)
{
    return pcie ? 785 : position22 ? 783 : 772;
}
static_assert(nameMessage(true, false) == 785 && nameMessage(true, true) == 785 &&
              nameMessage(false, true) == 783 && nameMessage(false, false) == 772);

// The nexus is read into the reply first, as the rule has it: without a
// reply buffer, or without a nexus, there is no name to look up.
int32_t displayName(const Cell &cell, const ColumnSpec &)
{
    const bool pcie = isPcie(cell);
    int32_t status = readText(cell, "Nexus");
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    LocalText mask;
    status = mask.read(cell, kAttributesMask);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    return answerDisplayName(cell, nameMessage(pcie, mask.isSet(22)));
}

int32_t enclosureId(const Cell &cell, const ColumnSpec &column)
{
    HeapText id(getAssocVal(cell.objId, "enclosures", column.attribute, 0));
    if (id == nullptr) {
        // The text names the channel getter, where the line began; kept so.
        VscilDebugPrint("getChan(): CHANNELSCSIID_OID assocData is NULL\n");
        return SM_SNMP_NOSUCHNAME;
    }
    return answerText(cell, id.get());
}

// ---- Numbers -------------------------------------------------------------------

// A constant column that, unlike kConstInteger, answers without the buffer.
int32_t zeroWithoutBuffer(const Cell &cell, const ColumnSpec &)
{
    answerNumberWithoutBuffer(cell, 0);
    return SM_SNMP_NOERROR;
}

// A disk marked at position 22 cannot be a spare (99); otherwise 23 and 24
// name the two kinds of spare, and 5 is no spare at all.
int32_t spareState(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    answerNumber(cell, mask.isSet(22)   ? kNotApplicable
                       : mask.isSet(23) ? 4
                       : mask.isSet(24) ? 3
                                        : 5);
    return SM_SNMP_NOERROR;
}

// The media type is read into the binding and the binding's number raised by
// one whatever the read did: a failed read raises the number the binding
// already held, and its failure is the result.
int32_t mediaType(const Cell &cell, const ColumnSpec &column)
{
    uint32_t media = 0;
    const int32_t status = readNumber(cell, column.attribute, &media);
    if (status == SM_SNMP_NOERROR) {
        answerNumberWithoutBuffer(cell, media + 1);
    } else {
        answerNumber(cell, cell.reply->value + 1);
    }
    VscilDebugPrint("getAD:value for AD_MEDIATYPE is %d\n",
                    static_cast<int32_t>(cell.reply->value));
    return status;
}

// Position 18 says the vendor's certification is known and 19 whether the
// disk lacks it (0 certified, 1 not); PCIe SSDs are never rated. A character
// other than '0' or '1' at 19 leaves the number unwritten.
int32_t certified(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getAD:Retrieving AD_VORN_CERTIFIED\n");
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    uint32_t protocol = 0;
    const int32_t protocolRead = readNumber(cell, "BusProtocol", &protocol);
    if (status == SM_SNMP_NOERROR && protocolRead == SM_SNMP_NOERROR && protocol != kBusPcie &&
        mask.isSet(18)) {
        switch (mask.at(19)) {
        case '1':
            answerNumber(cell, 0);
            break;
        case '0':
            answerNumber(cell, 1);
            break;
        default:
            answerUnset(cell);
            break;
        }
    } else {
        answerNumber(cell, kNotApplicable);
    }
    VscilDebugPrint("getAD:value for AD_VORN_CERTIFIED is %d\n",
                    static_cast<int32_t>(cell.reply->value));
    return status;
}

// Solid-state disks report no power state. The state is read into the
// binding (which drops the buffer); the media type into a record of the
// call's own, and a failure of that read is the column's failure. The
// closing line ends every path, with the number answered.
int32_t powerState(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getCtrl: Retrieving AD_POWER_STATE\n");
    uint32_t state = 0;
    int32_t status = readNumber(cell, column.attribute, &state);
    if (status != SM_SNMP_NOERROR) {
        answerNumber(cell, kNotApplicable);
        status = SM_SNMP_NOERROR;
    } else {
        answerNumberWithoutBuffer(cell, state);
        uint32_t media = 0;
        status = readNumber(cell, "MediaType", &media);
        if (status == SM_SNMP_NOERROR && media == kMediaSolidState) {
            answerNumber(cell, kNotApplicable);
        }
    }
    VscilDebugPrint("getCtrl: Retrieving AD_POWER_STATE:%d\n",
                    static_cast<int32_t>(cell.reply->value));
    return status;
}

// ---- PCIe SSD texts in buffers of the getter's own ---------------------------
// These texts are never written into the caller's buffer: each goes to the
// caller in a buffer of the getter's own (answerOwnText), which the caller
// frees. The rule sizes them to their text; they are kOwnBufferSize bytes so
// that anything later written into the reply's buffer still fits.

// A write status of 100 or more means the device has gone read-only. A
// failed read leaves the status 0: the column still answers "No" in a buffer
// of its own, and fails with the read's result. When no buffer can be had
// the column fails with genErr and the reply keeps the caller's buffer.
int32_t readOnlyState(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getAD: Retrieving AD_PCIESSD_DRV_RO\n");
    uint32_t writeStatus = 0;
    const int32_t status = readNumber(cell, column.attribute, &writeStatus);
    const int32_t answered = answerOwnText(cell, writeStatus >= 100 ? "Yes" : "No");
    return answered != SM_SNMP_NOERROR ? answered : status;
}

// The endurance left is written into the caller's buffer as a decimal text;
// without it, a device that declares no rating answers "Not Available" and
// any other "Not Applicable", both in buffers of the getter's own. The
// trailing blanks of the log lines are part of their texts.
int32_t remainingWriteEndurance(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getAD: Retrieving AD_REMAINING_RATED_WR_END\n");
    uint32_t remaining = 0;
    if (readNumber(cell, column.attribute, &remaining) == SM_SNMP_NOERROR) {
        VscilDebugPrint("getAD: Retrieving RemainingRatedWriteEndurance:%d\n ",
                        static_cast<int32_t>(remaining));
        return answerText(cell, std::to_string(static_cast<int32_t>(remaining)));
    }
    uint32_t noRating = 0;
    const int32_t noRatingRead = readNumber(cell, "NoRatedWriteEndurance", &noRating);
    VscilDebugPrint("getAD: Retrieving NoRatedWriteEndurance:%d\n ",
                    static_cast<int32_t>(noRating));
    if (noRatingRead == SM_SNMP_NOERROR && noRating == 1) {
        return answerOwnText(cell, "Not Available");
    }
    VscilDebugPrint("getAD: Retrieving no properties available\n ");
    return answerOwnText(cell, "Not Applicable");
}

// ---- The table -------------------------------------------------------------------
// Columns 5 and 37 to 39 are not served.

constexpr ColumnSpec kADColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kSpecial, {.special = displayName}},
    {3, "Vendor", kText},
    // A state of 0 leaves the number as the caller had it, unlike the
    // controller's.
    {4, "ObjState", kLowestBitOrUnset},
    {6, "ProductID", kText},
    {7, "DeviceSerialNumber", kText},
    {8, "Revision", kText},
    {9, "EnclosureID", kSpecial, {.special = enclosureId}},
    {10, "Channel", kInteger},
    {11, "Length", kShiftRight, {.number = 20}},
    {12, "Length", kLowBits, {.number = 0xFFFFF}},
    {13, "ContiguousFree", kShiftRight, {.number = 20}},
    {14, "ContiguousFree", kLowBits, {.number = 0xFFFFF}},
    {15, "TargetID", kInteger},
    {16, nullptr, kSpecial, {.special = zeroWithoutBuffer}},
    {17, "UsedSpace", kShiftRight, {.number = 20}},
    {18, "UsedSpace", kLowBits, {.number = 0xFFFFF}},
    {19, "FreeSpace", kShiftRight, {.number = 20}},
    {20, "FreeSpace", kLowBits, {.number = 0xFFFFF}},
    {21, "BusProtocol", kMapped, {.map = &kBusProtocol}},
    {22, kAttributesMask, kSpecial, {.special = spareState}},
    {23, "TreeStatus", kPlusOne},
    {24, "ObjStatus", kPlusOne},
    {25, "DeviceName", kText},
    {26, "Nexus", kText},
    {27, "PartNo", kText},
    {28, "SASAddress", kText},
    {29, "NegotiatedSpeed", kInteger},
    {30, "CapableSpeed", kInteger},
    {31, kAttributesMask, kMaskChar, {.number = 20, .mask = {2, 1, 1}}},
    {32, "ManufactureDay", kText},
    {33, "ManufactureWeek", kText},
    {34, "ManufactureYear", kText},
    {35, "MediaType", kSpecial, {.special = mediaType}},
    {36, kAttributesMask, kSpecial, {.special = certified}},
    // A mask that cannot be read has no character at the position: "anything
    // else", 99, and the read's failure stands.
    {40,
     kAttributesMask,
     kMaskChar,
     {.number = 17,
      .mask = {1, 0, kNotApplicable},
      .failure = kNotApplicableAndFailure,
      .before = "getAD:Retrieving AD_SED_CAPABLE_OID\n",
      .after = "getAD: AD_SED_CAPABLE_OID: %d\n"}},
    {41,
     kAttributesMask,
     kMaskChar,
     {.number = 16,
      .mask = {1, 0, kNotApplicable},
      .failure = kNotApplicableAndFailure,
      .before = "getAD:Retrieving AD_SED_SECURED_OID\n",
      .after = "getAD: AD_SED_SECURED_OID: %d\n"}},
    {42, "PDPowerState", kSpecial, {.special = powerState}},
    {43,
     "DriveWriteCacheEnabled",
     kInteger,
     {.before = "getAD: Retrieving AD_DRIVE_WRITE_CACHE\n"}},
    {44, "ModelNumber", kText, {.before = "getAD: Retrieving AD_DRIVE_MODEL_NUMBER\n"}},
    {45,
     "DeviceLifeTimeRemaining",
     kInteger,
     {.before = "getAD: Retrieving AD_DRIVE_LIFE_REMAINING\n"}},
    {46, "CurrentDriverVersion", kText, {.before = "getAD: Retrieving AD_PCIESSD_DRVR_VER\n"}},
    {47, "PCIeSSDDeviceStatus", kInteger, {.before = "getAD: Retrieving AD_PCIESSD_DRVR_HEALTH\n"}},
    {48, "PCIeSSDDeviceWriteStatus", kSpecial, {.special = readOnlyState}},
    {49, "RemainingRatedWriteEndurance", kSpecial, {.special = remainingWriteEndurance}},
    // The value lines of 50, 52 and 53 show the number read; a failed read
    // has none to show, and the column fails without a line.
    {50, "PdSectorSize", kInteger, {.after = "getAD:value for AD_SECTORSIZE is %d\n"}},
    // The lines of 51 (and of 42) begin with the controller getter's name,
    // where they were first written; kept so.
    {51,
     "PdPICapable",
     kInteger,
     {.before = "getCtrl: Retrieving PD_PI_CAPABLE\n",
      .after = "getCtrl: Retrieving PD_PI_CAPABLE succeeded - %d\n",
      .failed = "getCtrl: Retrieving PD_PI_CAPABLE failed\n"}},
    {52, "MaxLinkWidth", kInteger, {.after = "getAD:value for AD_MAXLINKWIDTH_INFO is %d\n"}},
    {53,
     "NegotiatedLinkWidth",
     kInteger,
     {.after = "getAD:value for AD_NEGLINKWIDTH_INFO is %d\n"}},
};
static_assert(validColumns(kADColumns));

constexpr TableSpec kADTable{.list = &adList,
                             .columns = kADColumns,
                             .entry = {"getAD(): Entry\n", nullptr},
                             .exitLine = "getAD: Exit\n"};

} // namespace
} // namespace tables

int32_t getAD(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kADTable, request, reply, position);
}
