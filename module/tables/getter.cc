// The getter skeleton and the generic column reader that every table getter
// runs its column rows through.
#include "tables/getter.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "platform/vscil.h"
#include "store/rowref.h"

namespace tables {

namespace {

void printLine(const char *line)
{
    if (line != nullptr) {
        VscilDebugPrint("%s", line);
    }
}

// The number a 64-bit kind answers; false when the rule leaves it unwritten.
bool wideAnswer(const ColumnRow &row, uint64_t wide, uint32_t *number)
{
    switch (row.kind) {
    case ColumnKind::kLowestBit:
        *number = wide == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(wide)) + 1;
        return true;
    case ColumnKind::kLowestBitOrUnset:
        if (wide == 0) {
            return false;
        }
        *number = static_cast<uint32_t>(std::countr_zero(wide)) + 1;
        return true;
    case ColumnKind::kShiftRight:
        *number = static_cast<uint32_t>(wide >> row.extra.number);
        return true;
    default: // kLowBits
        *number = static_cast<uint32_t>(wide & row.extra.number);
        return true;
    }
}

uint32_t mapped(const ValueMap &map, uint32_t stored)
{
    for (const ValuePair &pair : map.pairs) {
        if (pair.from == stored) {
            return pair.to;
        }
    }
    return map.keepOthers ? stored : map.others;
}

uint32_t maskAnswer(const MaskAnswer &answer, char c)
{
    return c == '1' ? answer.one : c == '0' ? answer.zero : answer.other;
}

// Reads the attribute of an integer row and works out its number. 0 with
// *number set, 0 with *written false when the rule leaves the number as it
// was, or the read's failure.
int32_t integerRow(const Cell &cell, const ColumnRow &row, uint32_t *number, bool *written)
{
    *written = true;
    switch (row.kind) {
    case ColumnKind::kInteger:
    case ColumnKind::kPlusOne:
    case ColumnKind::kMapped: {
        uint32_t stored = 0;
        const int32_t status = readNumber(cell, row.attribute, &stored);
        *number = row.kind == ColumnKind::kInteger   ? stored
                  : row.kind == ColumnKind::kPlusOne ? stored + 1
                                                     : mapped(*row.extra.map, stored);
        return status;
    }
    case ColumnKind::kMaskChar: {
        LocalText mask;
        const int32_t status = mask.read(cell, row.attribute);
        *number = maskAnswer(row.extra.mask, mask.at(row.extra.number));
        return status;
    }
    default: { // the 64-bit kinds
        uint64_t wide = 0;
        const int32_t status = readWide(cell, row.attribute, &wide);
        *written = wideAnswer(row, wide, number);
        return status;
    }
    }
}

// A failed read of an integer row, answered by the row's OnFailure.
int32_t failedRead(const Cell &cell, const ColumnRow &row, int32_t status)
{
    printLine(row.extra.failed);
    switch (row.extra.failure) {
    case OnFailure::kAnswer99:
        answerNumber(cell, kNotApplicable);
        return SM_SNMP_NOERROR;
    case OnFailure::kAnswer99AndFail:
        answerNumber(cell, kNotApplicable);
        return status;
    default:
        return status;
    }
}

} // namespace

int32_t readAttribute(uint32_t objId, const char *attribute, SMSnmpValue *value, uint64_t *slot)
{
    if (objId == cachedObjId) {
        return getValFromCachedXML(cachedObjXML, attribute, value, slot);
    }
    return getValFromOID(objId, attribute, value, slot);
}

int32_t readNumber(const Cell &cell, const char *attribute, uint32_t *number)
{
    SMSnmpValue record{};
    record.type = SM_ASN_INTEGER;
    uint64_t slot = 0;
    const int32_t status = readAttribute(cell.objId, attribute, &record, &slot);
    if (status == SM_SNMP_NOERROR) {
        *number = record.value;
    }
    return status;
}

int32_t readWide(const Cell &cell, const char *attribute, uint64_t *number)
{
    SMSnmpValue record{};
    record.type = kValueTypeU64;
    uint64_t slot = 0;
    const int32_t status = readAttribute(cell.objId, attribute, &record, &slot);
    if (status == SM_SNMP_NOERROR) {
        *number = slot;
    }
    return status;
}

int32_t readText(const Cell &cell, const char *attribute)
{
    if (cell.reply->buffer == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    cell.reply->type = SM_ASN_OCTET_STRING;
    uint64_t slot = 0;
    return readAttribute(cell.objId, attribute, cell.reply, &slot);
}

int32_t LocalText::read(const Cell &cell, const char *attribute)
{
    SMSnmpValue record{};
    record.type = SM_ASN_OCTET_STRING;
    record.buffer = text_.data();
    uint64_t slot = 0;
    const int32_t status = readAttribute(cell.objId, attribute, &record, &slot);
    length_ = status == SM_SNMP_NOERROR ? record.value : 0;
    if (status != SM_SNMP_NOERROR) {
        text_[0] = '\0';
    }
    return status;
}

void answerNumber(const Cell &cell, uint32_t number)
{
    cell.reply->type = SM_ASN_INTEGER;
    cell.reply->value = number;
}

void answerNumberWithoutBuffer(const Cell &cell, uint32_t number)
{
    answerNumber(cell, number);
    cell.reply->buffer = nullptr;
}

void answerUnset(const Cell &cell)
{
    cell.reply->type = SM_ASN_INTEGER;
}

int32_t answerText(const Cell &cell, std::string_view text)
{
    if (cell.reply->buffer == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    const size_t length = std::min<size_t>(text.size(), kValueBufferSize - 1);
    auto *buffer = static_cast<char *>(cell.reply->buffer);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
    cell.reply->type = SM_ASN_OCTET_STRING;
    cell.reply->value = static_cast<uint32_t>(length);
    return SM_SNMP_NOERROR;
}

int32_t readColumn(const Cell &cell, const ColumnRow &row)
{
    switch (row.kind) {
    case ColumnKind::kRowIndex:
        answerNumberWithoutBuffer(cell, cell.rowIndex);
        return SM_SNMP_NOERROR;
    case ColumnKind::kConstText:
        return answerText(cell, row.extra.text);
    case ColumnKind::kConstInteger:
        answerNumber(cell, row.extra.number);
        return SM_SNMP_NOERROR;
    case ColumnKind::kSpecial:
        if (row.extra.special == nullptr) {
            return SM_SNMP_NOSUCHNAME;
        }
        return row.extra.special(cell, row);
    case ColumnKind::kText: {
        printLine(row.extra.before);
        const int32_t status = readText(cell, row.attribute);
        if (status != SM_SNMP_NOERROR) {
            printLine(row.extra.failed);
            return status;
        }
        if (row.extra.after != nullptr) {
            VscilDebugPrint(row.extra.after, static_cast<const char *>(cell.reply->buffer));
        }
        return status;
    }
    default: {
        printLine(row.extra.before);
        uint32_t number = 0;
        bool written = true;
        const int32_t status = integerRow(cell, row, &number, &written);
        if (status != SM_SNMP_NOERROR) {
            return failedRead(cell, row, status);
        }
        // A mask is read into a buffer of the call's own; every other kind
        // reads its number as the value extraction does, which leaves the
        // reply without a buffer.
        if (row.kind != ColumnKind::kMaskChar) {
            cell.reply->buffer = nullptr;
        }
        if (written) {
            answerNumber(cell, number);
        } else {
            answerUnset(cell);
        }
        if (row.extra.after != nullptr) {
            VscilDebugPrint(row.extra.after, static_cast<int32_t>(cell.reply->value));
        }
        return status;
    }
    }
}

int32_t openRow(uint32_t position, const SMSnmpValue *request, ObjList *list, SMSnmpValue *reply,
                Cell *cell)
{
    RowRef row{};
    int32_t status = parseRowIndex(position, request, list, &row);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    // Always a fetch, never the cache: the cache may hold a stale copy of the
    // object from an earlier request, and every later read of this request
    // is served from what this fetch leaves there. The nexus is kept to 79
    // characters by the builders, but the read copies whatever the object
    // holds, hence a full value buffer.
    ValueBuffer nexus{};
    SMSnmpValue record{};
    record.type = SM_ASN_OCTET_STRING;
    record.buffer = nexus.data();
    uint64_t slot = 0;
    status = getValFromOID(row.objId, "Nexus", &record, &slot);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    *cell = Cell{row.objId, row.rowIndex, row.column, reply};
    return SM_SNMP_NOERROR;
}

int32_t readCell(std::span<const ColumnRow> columns, const Cell &cell)
{
    const auto row =
        std::lower_bound(columns.begin(), columns.end(), cell.column,
                         [](const ColumnRow &r, uint32_t column) { return r.column < column; });
    if (row == columns.end() || row->column != cell.column) {
        return SM_SNMP_NOSUCHNAME;
    }
    return readColumn(cell, *row);
}

int32_t answerCell(std::span<const ColumnRow> columns, ObjList *list, const SMSnmpValue *request,
                   SMSnmpValue *reply, uint32_t position)
{
    Cell cell{};
    const int32_t status = openRow(position, request, list, reply, &cell);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    return readCell(columns, cell);
}

} // namespace tables
