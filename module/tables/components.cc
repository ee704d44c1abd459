// The enclosure component tables (fans 130.7, power supplies 130.9,
// temperature probes 130.11, EMMs 130.13) and the battery table (130.15):
// getFan, getPwrSupply, getTemperature, getEMM and getBattery. Plain
// attribute columns but for three rules of their own: the fan's speed text,
// the temperature probe's state translation and the battery's state map.
#include <bit>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string_view>

#include "store/tablelist.h"
#include "tables/columns.h"
#include "tables/getters.h"

namespace tables {
namespace {

using enum ColumnKind;

// Display-name type codes of the location-string service.
constexpr uint32_t kBatteryType = 771;
constexpr uint32_t kFanType = 777;
constexpr uint32_t kTempProbeType = 778;
constexpr uint32_t kPowerSupplyType = 779;
constexpr uint32_t kEmmType = 780;

constexpr const char *kVendor = "VORN";

// ---- State columns ("ObjState", a 64-bit number) -------------------------------

// A state rule: the number a stored state answers, or none when the cell is
// answered without writing it.
using StateRule = std::optional<uint32_t> (*)(uint64_t stored);

// Reads the column's attribute as a 64-bit number and answers it through
// `rule`. The read leaves the reply as every integer read does (buffer
// pointer null); a failed read returns its result with the reply as it was.
int32_t answerState(const Cell &cell, const ColumnSpec &column, StateRule rule)
{
    uint64_t stored = 0;
    const int32_t status = readWide(cell, column.attribute, &stored);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    cell.reply->buffer = nullptr;
    if (const std::optional<uint32_t> number = rule(stored)) {
        answerNumber(cell, *number);
    } else {
        answerUnset(cell);
    }
    return SM_SNMP_NOERROR;
}

// The temperature probe's lowest-bit number n (1 + trailing zero bits),
// translated: 8 to 4, 61 and 63 to 6, 62 and 64 to 2, any other n as it is.
// 0 has no lowest bit and leaves the number unwritten, as in the other
// component tables.
std::optional<uint32_t> probeState(uint64_t stored)
{
    if (stored == 0) {
        return std::nullopt;
    }
    const auto n = static_cast<uint32_t>(std::countr_zero(stored)) + 1;
    switch (n) {
    case 8:
        return 4;
    case 61:
    case 63:
        return 6;
    case 62:
    case 64:
        return 2;
    default:
        return n;
    }
}

int32_t probeStateColumn(const Cell &cell, const ColumnSpec &column)
{
    return answerState(cell, column, probeState);
}

// The battery's states, compared whole: a value with more than one bit set,
// or a bit not listed, answers 0. Both 0x200 and bit 49 answer 10.
struct BatteryState {
    uint64_t stored;
    uint32_t answer;
};
constexpr BatteryState kBatteryStates[] = {
    {0x1, 1},
    {0x2, 2},
    {0x20, 6},
    {0x200, 10},
    {0x800, 7},
    {0x100000, 21},
    {uint64_t{1} << 48, 36},
    {uint64_t{1} << 49, 10},
    {uint64_t{1} << 50, 12},
};

std::optional<uint32_t> batteryState(uint64_t stored)
{
    if (stored == 0) {
        return std::nullopt;
    }
    for (const BatteryState &state : kBatteryStates) {
        if (state.stored == stored) {
            return state.answer;
        }
    }
    return 0;
}

int32_t batteryStateColumn(const Cell &cell, const ColumnSpec &column)
{
    return answerState(cell, column, batteryState);
}

// ---- Fan speed ------------------------------------------------------------------

// Fans of JX33xx enclosures report their speed as a number, which is shown
// as it is; every other fan reports a speed code, shown as a word.
constexpr const char *kJx33Flag = "IsEnclosureJX33XX";

std::string_view speedWord(uint32_t code)
{
    constexpr std::string_view kWords[] = {"stopped", "slow", "medium", "fast"};
    return code >= 1 && code <= std::size(kWords) ? kWords[code - 1] : "unknown";
}

// The column's attribute is "FanSpeed". A fan without the JX33xx flag (or
// whose flag cannot be read) is not in such an enclosure; a speed that
// cannot be read returns the read's failure.
int32_t fanSpeed(const Cell &cell, const ColumnSpec &column)
{
    uint32_t jx33 = 0; // stays 0 when the flag cannot be read
    static_cast<void>(readNumber(cell, kJx33Flag, &jx33));
    uint32_t speed = 0;
    const int32_t status = readNumber(cell, column.attribute, &speed);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    if (jx33 == 0) {
        return answerText(cell, speedWord(speed));
    }
    // Printed with %d: a speed past 2^31 - 1 shows negative.
    char number[16];
    const int length = std::snprintf(number, sizeof number, "%d", static_cast<int32_t>(speed));
    return answerText(cell, {number, static_cast<size_t>(length)});
}

// ---- The tables -----------------------------------------------------------------

constexpr ColumnSpec kFanColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kDisplayName, {.number = kFanType}},
    {3, nullptr, kConstText, {.text = kVendor}},
    {4, "ObjState", kLowestBitOrUnset},
    {11, "FanSpeed", kSpecial, {.special = fanSpeed}},
    {12, "PartNo", kText},
    {14, "TreeStatus", kPlusOne},
    {15, "ObjStatus", kPlusOne},
    {16, "Nexus", kText},
    {17, "Revision", kText},
};
static_assert(validColumns(kFanColumns));

constexpr TableSpec kFanTable{.list = &fanList,
                              .columns = kFanColumns,
                              .entry = {"getFan: entry\n", nullptr},
                              .exitLine = "getFan: Exit\n"};

constexpr ColumnSpec kPowerSupplyColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kDisplayName, {.number = kPowerSupplyType}},
    {3, nullptr, kConstText, {.text = kVendor}},
    {4, "ObjState", kLowestBitOrUnset},
    {6, "PartNo", kText},
    {8, "TreeStatus", kPlusOne},
    {9, "ObjStatus", kPlusOne},
    {10, "Nexus", kText},
    {11, "Revision", kText},
};
static_assert(validColumns(kPowerSupplyColumns));

constexpr TableSpec kPowerSupplyTable{.list = &psuList,
                                      .columns = kPowerSupplyColumns,
                                      .entry = {"getPwrSupply: Entry\n", nullptr},
                                      .exitLine = "getPwrSupply: Exit\n"};

constexpr ColumnSpec kTempProbeColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kDisplayName, {.number = kTempProbeType}},
    {3, nullptr, kConstText, {.text = kVendor}},
    {4, "ObjState", kSpecial, {.special = probeStateColumn}},
    {6, nullptr, kConstText, {.text = "celsius"}},
    {7, "MinWarning", kInteger},
    {8, "MinError", kInteger},
    {9, "MaxWarning", kInteger},
    {10, "MaxError", kInteger},
    {11, "CurrentTemp", kInteger},
    {12, "TreeStatus", kPlusOne},
    {13, "ObjStatus", kPlusOne},
    {14, "Nexus", kText},
};
static_assert(validColumns(kTempProbeColumns));

constexpr TableSpec kTempProbeTable{.list = &tempList,
                                    .columns = kTempProbeColumns,
                                    .entry = {"getTemperature: ENTRY\n", nullptr},
                                    .exitLine = "getTemperature: Exit\n"};

constexpr ColumnSpec kEmmColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kDisplayName, {.number = kEmmType}},
    {3, nullptr, kConstText, {.text = kVendor}},
    {4, "ObjState", kLowestBitOrUnset},
    {6, "PartNo", kText},
    {7, nullptr, kConstInteger, {.number = 1}},
    {8, "FirmwareVer", kText},
    {9, "MaxSCSISpeed", kText},
    {10, "TreeStatus", kPlusOne},
    {11, "ObjStatus", kPlusOne},
    {12, "Nexus", kText},
    {13, "Revision", kText},
};
static_assert(validColumns(kEmmColumns));

constexpr TableSpec kEmmTable{.list = &emmList,
                              .columns = kEmmColumns,
                              .entry = {"getEMM: entry\n", nullptr},
                              .exitLine = "getEMM: exit\n"};

// Columns 7 and 8 hold counts but have always been octet strings in the MIB.
constexpr ColumnSpec kBatteryColumns[] = {
    {1, nullptr, kRowIndex},
    {2, nullptr, kDisplayName, {.number = kBatteryType}},
    {3, nullptr, kConstText, {.text = kVendor}},
    {4, "ObjState", kSpecial, {.special = batteryStateColumn}},
    {5, "TreeStatus", kPlusOne},
    {6, "ObjStatus", kPlusOne},
    {7, "LSIRechargeCount", kText},
    {8, "MaxRechargeCount", kText},
    {9, "Nexus", kText},
    {10, "BatteryCapacityState", kInteger},
    {11, "NextLearnCycleTime", kInteger},
    {12, "BatteryLearnState", kInteger},
    {13, "BatteryID", kInteger},
    {14, "MaxLearnDelay", kInteger},
    {15, "LearnMode", kInteger},
};
static_assert(validColumns(kBatteryColumns));

// The battery getter logs no entry line.
constexpr TableSpec kBatteryTable{
    .list = &battList, .columns = kBatteryColumns, .exitLine = "getBattery: exit\n"};

} // namespace
} // namespace tables

int32_t getFan(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kFanTable, request, reply, position);
}

int32_t getPwrSupply(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kPowerSupplyTable, request, reply, position);
}

int32_t getTemperature(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kTempProbeTable, request, reply, position);
}

int32_t getEMM(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kEmmTable, request, reply, position);
}

int32_t getBattery(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kBatteryTable, request, reply, position);
}
