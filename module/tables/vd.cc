// The virtual disk table (140.1): getVD. Every call reads the disk's "IsSSC"
// afresh once the row is open: a disk whose flag reads non-zero (SSC state 1)
// answers fixed numbers in its policy, layout and stripe columns. The
// rest are plain reads, translations of the stored codes and the columns
// read from the capability mask.
#include "tables/columns.h"
#include "tables/getters.h"

#include <bit>
#include <span>

#include "platform/vscil.h"
#include "store/tablelist.h"
#include "store/xmlvalue.h"

namespace tables {
namespace {

using enum ColumnKind;

constexpr const char *kAttributesMask = "AttributesMask";
constexpr const char *kDiskPolicyLine = "getVD: Retrieving VD_DISKPOLICY_OID\n";

// The SSC state: "IsSSC" read as 0, as non-zero, or not read at all. Only a
// disk in state 1 answers differently; 0 and 2 are alike.
constexpr uint32_t kSscOff = 0;
constexpr uint32_t kSscOn = 1;
constexpr uint32_t kSscUnknown = 2;

// The row step: a second fresh fetch of the disk, for its "IsSSC".
uint32_t sscState(const Cell &cell)
{
    VscilDebugPrint("getVD: Retrieving VD_ECACHE_OID\n");
    SMSnmpValue record{};
    record.type = SM_ASN_INTEGER;
    uint64_t slot = 0;
    if (getValFromOID(cell.objId, "IsSSC", &record, &slot) != SM_SNMP_NOERROR) {
        return kSscUnknown;
    }
    return record.value != 0 ? kSscOn : kSscOff;
}

bool isSsc(const Cell &cell)
{
    return cell.rowState == kSscOn;
}

// ---- Translations of stored codes ---------------------------------------------

// 0 stays 0; otherwise 1 plus the count of trailing zero bits.
constexpr uint32_t lowestBit(uint64_t stored)
{
    return stored == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(stored)) + 1;
}

// The layout codes as the MIB numbers them. Both 512 and 524288 answer 10,
// and 131072 has no entry; codes without an entry are answered as stored.
constexpr ValuePair kLayoutPairs[] = {
    {1, 1},      {2, 2},      {4, 3},      {8, 4},       {16, 5},      {32, 6},    {64, 7},
    {128, 8},    {256, 9},    {512, 10},   {1024, 11},   {2048, 12},   {4096, 19}, {8192, 20},
    {16384, 21}, {32768, 22}, {65536, 23}, {262144, 24}, {524288, 10},
};

constexpr ValueMap kLayout{kLayoutPairs, true, 0};

constexpr uint32_t layout(uint32_t stored)
{
    return mapValue(kLayout, stored);
}

// The stripe size is stored in 512-byte sectors and split between two
// columns: mebibytes for stripes of 2048 sectors and more, bytes for
// stripes up to 1024 sectors; each column answers 0 where the other applies.
constexpr ValuePair kStripeMebibytePairs[] = {
    {2048, 1}, {4096, 2}, {8192, 4}, {16384, 8}, {32768, 16},
};
constexpr ValuePair kStripeBytePairs[] = {
    {1, 512},    {2, 1024},    {4, 2048},     {8, 4096},     {16, 8192},     {32, 16384},
    {64, 32768}, {128, 65536}, {256, 131072}, {512, 262144}, {1024, 524288},
};

constexpr ValueMap kStripeMebibytes{kStripeMebibytePairs, false, 0};
constexpr ValueMap kStripeBytes{kStripeBytePairs, false, 0};

constexpr uint32_t stripeMebibytes(uint32_t stored)
{
    return mapValue(kStripeMebibytes, stored);
}

constexpr uint32_t stripeBytes(uint32_t stored)
{
    return mapValue(kStripeBytes, stored);
}

constexpr uint32_t lowestBitOf(uint32_t stored)
{
    return lowestBit(stored);
}

static_assert(layout(512) == 10 && layout(524288) == 10 && layout(131072) == 131072 &&
              layout(6) == 6 && layout(4096) == 19);
static_assert(stripeMebibytes(2048) == 1 && stripeBytes(2048) == 0 && stripeBytes(128) == 65536 &&
              stripeMebibytes(128) == 0 && stripeBytes(3) == 0 && stripeMebibytes(3) == 0);
static_assert(lowestBitOf(0) == 0 && lowestBitOf(1) == 1 && lowestBitOf(12) == 3);

// The protocol numbers of the MIB's virtual disk table: a read that fails
// answers 99 and keeps its failure.
constexpr ValuePair kBusProtocolPairs[] = {{1, 3}, {2, 4}, {7, 2}, {8, 1}};
constexpr ValueMap kBusProtocol{kBusProtocolPairs, false, 0};

// Protection information: enabled or not.
constexpr ValuePair kEnabledPairs[] = {{0, 0}};
constexpr ValueMap kEnabled{kEnabledPairs, false, 1};

// ---- Columns with rules of their own ----------------------------------------

// The state: 0 leaves the number unwritten, bit 28 alone answers 35, any
// other state its lowest bit.
int32_t objectState(const Cell &cell, const ColumnSpec &column)
{
    uint64_t state = 0;
    const int32_t status = readWide(cell, column.attribute, &state);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    cell.reply->buffer = nullptr; // a 64-bit read into the reply drops it
    if (state == 0) {
        answerUnset(cell);
    } else {
        answerNumber(cell, state == 0x10000000 ? 35 : lowestBit(state));
    }
    return SM_SNMP_NOERROR;
}

using Rule = uint32_t (*)(uint32_t stored);

// A column an SSC disk answers with `ssc` whatever it holds: the attribute
// is read all the same, into the reply, and its failure stands.
int32_t unlessSsc(const Cell &cell, const char *attribute, uint32_t ssc, Rule rule)
{
    uint32_t stored = 0;
    const int32_t status = readNumber(cell, attribute, &stored);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    answerNumberWithoutBuffer(cell, isSsc(cell) ? ssc : rule(stored));
    return SM_SNMP_NOERROR;
}

template <uint32_t ssc, Rule rule> int32_t policy(const Cell &cell, const ColumnSpec &column)
{
    return unlessSsc(cell, column.attribute, ssc, rule);
}

// The cache policy of a disk without one does not apply.
int32_t cachePolicy(const Cell &cell, const ColumnSpec &column)
{
    if (unlessSsc(cell, column.attribute, kNotApplicable, lowestBitOf) != SM_SNMP_NOERROR) {
        answerNumber(cell, kNotApplicable);
    }
    return SM_SNMP_NOERROR;
}

// Bad blocks are reported only by a controller that detects them (mask
// position 30); a controller that does not answers 2.
int32_t badBlocks(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getVD: Retrieving VDBADBLOCKSDETECTED\n");
    answerUnset(cell);
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    switch (mask.at(30)) {
    case '1': {
        VscilDebugPrint("getVD: Retrieving VDBADBLOCKSDETECTED - controller supports Badblocks "
                        "detection\n");
        uint32_t blocks = 0;
        if (readNumber(cell, "VDBadBlocksDetected", &blocks) == SM_SNMP_NOERROR) {
            answerNumberWithoutBuffer(cell, blocks);
        } else {
            answerNumber(cell, 0);
        }
        VscilDebugPrint("getVD: VDBADBLOCKSDETECTED value returned is %d\n",
                        static_cast<int32_t>(cell.reply->value));
        break;
    }
    case '0':
        answerNumber(cell, 2);
        VscilDebugPrint("getVD: Retrieving VDBADBLOCKSDETECTED - controller doesnot supports "
                        "Badblocks detection\n");
        break;
    default:
        break; // nothing to report
    }
    return SM_SNMP_NOERROR;
}

// Mask position 31: the disk is secured.
int32_t secured(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getVD: Retrieving VD_SECURED_OID\n");
    answerUnset(cell);
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status == SM_SNMP_NOERROR) {
        const char flag = mask.at(31);
        answerNumber(cell, flag == '1' ? 1 : flag == '0' ? 0 : kNotApplicable);
    }
    VscilDebugPrint("getVD: VD_SECURED_OID value returned is %d\n",
                    static_cast<int32_t>(cell.reply->value));
    return status;
}

// The SSC flag itself, as stored.
int32_t sscFlag(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getVD: Retrieving VD_ECACHE_OID\n");
    uint32_t flag = 0;
    if (readNumber(cell, column.attribute, &flag) != SM_SNMP_NOERROR) {
        answerNumber(cell, kNotApplicable);
        return SM_SNMP_NOERROR;
    }
    answerNumberWithoutBuffer(cell, flag);
    VscilDebugPrint("getVD: Retrieving VD_ECACHE_OID\n");
    return SM_SNMP_NOERROR;
}

// The disks' own cache policy: 1, 2 and 4 are the policies the MIB knows.
int32_t diskCachePolicy(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("%s", kDiskPolicyLine);
    uint32_t stored = 0;
    if (readNumber(cell, column.attribute, &stored) != SM_SNMP_NOERROR) {
        answerNumber(cell, kNotApplicable);
        VscilDebugPrint("getVD: Retrieving VD_DISKPOLICY_OID failed \n");
    } else {
        const bool known = stored == 1 || stored == 2 || stored == 4;
        answerNumberWithoutBuffer(cell, !isSsc(cell) && known ? stored : kNotApplicable);
    }
    VscilDebugPrint("%s", kDiskPolicyLine);
    return SM_SNMP_NOERROR;
}

// Whether the disk belongs to a cache pool. The closing line is the disk
// policy's, as it has always been printed.
int32_t cachePoolMember(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getVD: Retrieving VD_TIDALCACHE_STATE_OID\n");
    uint32_t stored = 0;
    if (readNumber(cell, column.attribute, &stored) != SM_SNMP_NOERROR) {
        answerNumber(cell, kNotApplicable);
        return SM_SNMP_NOERROR;
    }
    answerNumberWithoutBuffer(cell, isSsc(cell) ? kNotApplicable : stored);
    VscilDebugPrint("%s", kDiskPolicyLine);
    return SM_SNMP_NOERROR;
}

// ---- The table ---------------------------------------------------------------
// Columns 5, 8, 9, 16 and 18 are not served.

constexpr ColumnSpec kVDColumns[] = {
    {1, nullptr, kRowIndex},
    {2, "Name", kText},
    {3, "DeviceName", kText},
    {4, "ObjState", kSpecial, {.special = objectState}},
    {6, "Length", kShiftRight, {.number = 20}},
    {7, "Length", kLowBits, {.number = 0xFFFFF}},
    {10, "WritePolicy", kSpecial, {.special = policy<9, lowestBitOf>}},
    {11, "ReadPolicy", kSpecial, {.special = policy<9, lowestBitOf>}},
    {12, "CachePolicy", kSpecial, {.special = cachePolicy}},
    {13, "Layout", kSpecial, {.special = policy<25, layout>}},
    {14, "StripeSize", kSpecial, {.special = policy<0, stripeMebibytes>}},
    {15, "StripeSize", kSpecial, {.special = policy<0, stripeBytes>}},
    {17, "LogicalDriveNum", kInteger},
    {19, "TreeStatus", kPlusOne},
    {20, "ObjStatus", kPlusOne},
    {21, "Nexus", kText},
    {22, "BusProtocol", kMapped, {.map = &kBusProtocol, .failure = kNotApplicableAndFailure}},
    {23, kAttributesMask, kSpecial, {.special = badBlocks}},
    {24, kAttributesMask, kSpecial, {.special = secured}},
    {25, "IsSSC", kSpecial, {.special = sscFlag}},
    {26, "DiskCachePolicy", kSpecial, {.special = diskCachePolicy}},
    {27, "PartOfCachePool", kSpecial, {.special = cachePoolMember}},
    // These three lines carry the controller table's prefix, as they always
    // have.
    {28,
     "VdPIEnabled",
     kMapped,
     {.map = &kEnabled,
      .before = "getCtrl: Retrieving VD_PI_ENABLE\n",
      .after = "getCtrl: Retrieving VD_PI_ENABLE succeeded - %d\n",
      .failed = "getCtrl: Retrieving VD_PI_ENABLE failed\n"}},
};
static_assert(validColumns(kVDColumns));

constexpr TableSpec kVDTable{.list = &vdList,
                             .columns = kVDColumns,
                             .idLine = "getVD: curr ID = %d\n",
                             .exitLine = "getVD: exit\n",
                             .rowStep = sscState};

} // namespace
} // namespace tables

int32_t getVD(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kVDTable, request, reply, position);
}
