// The generic column reader and the routine that answers a cell from a
// table's description.
#include "tables/columns.h"

#include <algorithm>
#include <bit>

#include "platform/vscil.h"

namespace tables {

namespace {

void printLine(const char *line)
{
    if (line != nullptr) {
        VscilDebugPrint("%s", line);
    }
}

// The number a 64-bit kind answers; false when the rule leaves it unwritten.
bool wideAnswer(const ColumnSpec &def, uint64_t wide, uint32_t *number)
{
    switch (def.kind) {
    case ColumnKind::kLowestBit:
        *number = wide == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(wide)) + 1;
        return true;
    case ColumnKind::kLowestBitOrUnset:
        if (wide == 0) {
            return false;
        }
        *number = static_cast<uint32_t>(std::countr_zero(wide)) + 1;
        return true;
    case ColumnKind::kLow32Bits:
        *number = static_cast<uint32_t>(wide);
        return true;
    case ColumnKind::kZeroAfterRead:
        *number = 0;
        return true;
    case ColumnKind::kShiftRight:
        *number = static_cast<uint32_t>(wide >> def.extra.number);
        return true;
    default: // kLowBits
        *number = static_cast<uint32_t>(wide & def.extra.number);
        return true;
    }
}

uint32_t maskAnswer(const MaskAnswer &answer, char c)
{
    return c == '1' ? answer.one : c == '0' ? answer.zero : answer.other;
}

// Reads the attribute of an integer column and works out its number. 0 with
// *number set, 0 with *written false when the rule leaves the number as it
// was, or the read's failure.
int32_t integerColumn(const Cell &cell, const ColumnSpec &def, uint32_t *number, bool *written)
{
    *written = true;
    switch (def.kind) {
    case ColumnKind::kInteger:
    case ColumnKind::kPlusOne:
    case ColumnKind::kMapped:
    case ColumnKind::kQuotient: {
        uint32_t stored = 0;
        const int32_t status = readNumber(cell, def.attribute, &stored);
        switch (def.kind) {
        case ColumnKind::kPlusOne:
            *number = stored + 1;
            break;
        case ColumnKind::kMapped:
            *number = mapValue(*def.extra.map, stored);
            break;
        case ColumnKind::kQuotient:
            *number = stored / def.extra.number;
            break;
        default:
            *number = stored;
            break;
        }
        return status;
    }
    case ColumnKind::kAssociatedNumber: {
        HeapText text(getAssocVal(cell.objId, def.extra.association, def.attribute, 0));
        if (text == nullptr) {
            return SM_SNMP_NOSUCHNAME;
        }
        *number = decimalPrefix(text.get());
        return SM_SNMP_NOERROR;
    }
    case ColumnKind::kMaskChar: {
        LocalText mask;
        const int32_t status = mask.read(cell, def.attribute);
        *number = maskAnswer(def.extra.mask, mask.at(def.extra.number));
        return status;
    }
    default: { // the 64-bit kinds
        uint64_t wide = 0;
        const int32_t status = readWide(cell, def.attribute, &wide);
        *written = wideAnswer(def, wide, number);
        return status;
    }
    }
}

// A failed read of an integer column, answered by the column's OnFailure.
int32_t failedRead(const Cell &cell, const ColumnSpec &def, int32_t status)
{
    printLine(def.extra.failed);
    const OnFailure &failure = def.extra.failure;
    if (failure.answers) {
        answerNumber(cell, failure.number);
    }
    return failure.succeeds ? SM_SNMP_NOERROR : status;
}

int32_t textColumn(const Cell &cell, const ColumnSpec &def)
{
    printLine(def.extra.before);
    const int32_t status = readText(cell, def.attribute);
    if (status != SM_SNMP_NOERROR) {
        printLine(def.extra.failed);
    }
    // The closing line follows the read whatever its result, as the columns
    // that have one describe it ("before" and "after" the read); a failed
    // read leaves no text to show, so it shows an empty one rather than
    // whatever the buffer held.
    if (def.extra.after != nullptr) {
        VscilDebugPrint(def.extra.after, status == SM_SNMP_NOERROR
                                             ? static_cast<const char *>(cell.reply->buffer)
                                             : "");
    }
    return status;
}

int32_t numberColumn(const Cell &cell, const ColumnSpec &def)
{
    printLine(def.extra.before);
    uint32_t number = 0;
    bool written = true;
    const int32_t status = integerColumn(cell, def, &number, &written);
    if (status != SM_SNMP_NOERROR) {
        return failedRead(cell, def, status);
    }
    // A mask is read into a buffer of the call's own and an associated
    // object's text is getAssocVal's; every other kind reads its number as
    // the value extraction does, which leaves the reply without a buffer.
    if (def.kind != ColumnKind::kMaskChar && def.kind != ColumnKind::kAssociatedNumber) {
        cell.reply->buffer = nullptr;
    }
    if (written) {
        answerNumber(cell, number);
    } else {
        answerUnset(cell);
    }
    if (def.extra.after != nullptr) {
        VscilDebugPrint(def.extra.after, static_cast<int32_t>(cell.reply->value));
    }
    return status;
}

// A connection table's partner: the text of `def.attribute` of the first
// object of kind def.extra.association associated with the row's object.
// No partner prints `failed` and answers 2.
int32_t partnerText(const Cell &cell, const ColumnSpec &def)
{
    HeapText text(getAssocVal(cell.objId, def.extra.association, def.attribute, 0));
    if (text == nullptr) {
        printLine(def.extra.failed);
        return SM_SNMP_NOSUCHNAME;
    }
    return answerText(cell, text.get());
}

// The partner's row number in its own table, so that a manager can use it
// as the row index there: the partner's id (def.attribute, "ObjID") looked
// up in *def.extra.partners. The number is worked out, not read into the
// reply, so the caller's buffer stays.
int32_t partnerRow(const Cell &cell, const ColumnSpec &def)
{
    if (def.extra.partners == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    HeapText id(getAssocVal(cell.objId, def.extra.association, def.attribute, 0));
    if (id == nullptr) {
        printLine(def.extra.failed);
        return SM_SNMP_NOSUCHNAME;
    }
    const ObjNode *node =
        findByObjId(def.extra.partners, static_cast<int32_t>(decimalPrefix(id.get())));
    if (node == nullptr) {
        printLine(def.extra.notListed);
        return SM_SNMP_NOSUCHNAME;
    }
    answerNumber(cell, node->index);
    return SM_SNMP_NOERROR;
}

// The def of `column`, or null when the table has none.
const ColumnSpec *findColumn(std::span<const ColumnSpec> columns, uint32_t column)
{
    const auto def = std::lower_bound(columns.begin(), columns.end(), column,
                                      [](const ColumnSpec &s, uint32_t c) { return s.column < c; });
    return def == columns.end() || def->column != column ? nullptr : &*def;
}

} // namespace

int32_t readColumn(const Cell &cell, const ColumnSpec &column)
{
    switch (column.kind) {
    case ColumnKind::kRowIndex:
        answerNumberWithoutBuffer(cell, cell.rowIndex);
        return SM_SNMP_NOERROR;
    case ColumnKind::kConstText:
        return answerText(cell, column.extra.text);
    case ColumnKind::kConstInteger:
        answerNumber(cell, column.extra.number);
        return SM_SNMP_NOERROR;
    case ColumnKind::kDisplayName:
        return answerDisplayName(cell, column.extra.number);
    case ColumnKind::kSpecial:
        if (column.extra.special == nullptr) {
            return SM_SNMP_NOSUCHNAME;
        }
        return column.extra.special(cell, column);
    case ColumnKind::kText:
        return textColumn(cell, column);
    case ColumnKind::kPartnerText:
        return partnerText(cell, column);
    case ColumnKind::kPartnerRow:
        return partnerRow(cell, column);
    default:
        return numberColumn(cell, column);
    }
}

int32_t answerTableCell(const TableSpec &table, const SMSnmpValue *request, SMSnmpValue *reply,
                        uint32_t position)
{
    for (const char *line : table.entry) {
        printLine(line);
    }
    // A name that ends before the entry arc has no id to show; openRow
    // refuses it below.
    if (table.idLine != nullptr && position < request->name.count) {
        VscilDebugPrint(table.idLine, static_cast<int32_t>(request->name.arcs[position]));
    }
    Cell cell{};
    int32_t status = openRow(position, request, table.list, reply, &cell);
    if (status == SM_SNMP_NOERROR && table.answersNothing != nullptr &&
        table.answersNothing(cell)) {
        printLine(table.exitLine);
        return SM_SNMP_NOERROR;
    }
    if (status == SM_SNMP_NOERROR) {
        if (table.rowStep != nullptr) {
            cell.rowState = table.rowStep(cell);
        }
        const ColumnSpec *column = findColumn(table.columns, cell.column);
        status = column != nullptr ? readColumn(cell, *column) : table.absentColumn;
    }
    printLine(table.exitLine);
    return status;
}

} // namespace tables
