// How a table getter is written: a constant description of the table (its
// list, its columns as rows of kinds, its log lines) answered by one routine,
// plus named functions for the columns with rules of their own. Adding a
// column is adding a row; a getter is one call of answerTableCell.
#ifndef KELP_MODULE_TABLES_COLUMNS_H
#define KELP_MODULE_TABLES_COLUMNS_H

#include <cstdint>
#include <span>

#include "platform/smsnmp.h"
#include "store/objlist.h"
#include "tables/cells.h"

namespace tables {

// How a column turns its attribute into the answer. Integer kinds answer
// type 2, text kinds type 4 with the length. Every kind that reads a number
// reads it into the reply, as the value extraction does (the buffer pointer
// is then null), except kMaskChar, whose mask is read into a buffer of the
// call's own, and kAssociatedNumber, whose text comes from another object.
enum class ColumnKind : uint8_t {
    kRowIndex,         // the row index itself; the buffer pointer is nulled
    kConstText,        // extra.text
    kConstInteger,     // extra.number
    kText,             // the attribute's text
    kInteger,          // the attribute as an unsigned decimal number
    kPlusOne,          // the attribute plus 1 (the status columns)
    kMapped,           // the attribute through *extra.map
    kAssociatedNumber, // the attribute of the first associated extra.association object
    kPartnerText,      // the same attribute's text: the partner of a connection table
    kPartnerRow,       // the row, in *extra.partners, of the object whose id that attribute is
    kLowestBit,        // 64-bit attribute: 0 answers 0, else 1 + its trailing zero bits
    kLowestBitOrUnset, // the same, but 0 leaves the number unwritten
    kLow32Bits,        // 64-bit attribute, its low 32 bits
    kZeroAfterRead,    // 64-bit attribute read, and 0 answered whatever it holds
    kShiftRight,       // 64-bit attribute shifted right by extra.number, cut to 32 bits
    kLowBits,          // 64-bit attribute masked with extra.number
    kQuotient,         // the attribute divided by extra.number, the fraction dropped
    kMaskChar,         // '0'/'1' mask attribute: character extra.number chooses from extra.mask
    kDisplayName,      // the location-string service's name for type code extra.number
    kSpecial,          // extra.special(cell, column)
};

// What an integer column answers when its attribute cannot be read: nothing
// (the read's failure stands), or a number, with success or with the read's
// failure kept.
struct OnFailure {
    bool answers = false;  // writes `number` (the buffer pointer stays)
    uint32_t number = 0;   // the number answered
    bool succeeds = false; // result 0 instead of the read's failure
};
inline constexpr OnFailure kFailureStands{};
inline constexpr OnFailure kNotApplicableInstead{true, kNotApplicable, true};
inline constexpr OnFailure kNotApplicableAndFailure{true, kNotApplicable, false};
inline constexpr OnFailure kZeroInstead{true, 0, true};
inline constexpr OnFailure kZeroAndFailure{true, 0, false};

// kMaskChar: the answer for '1', for '0' and for any other character.
struct MaskAnswer {
    uint32_t one;
    uint32_t zero;
    uint32_t other;
};

// kMapped: `pairs` translate a stored number; a number without a pair stays
// as read (keepOthers) or becomes `others`.
struct ValuePair {
    uint32_t from;
    uint32_t to;
};
struct ValueMap {
    std::span<const ValuePair> pairs;
    bool keepOthers;
    uint32_t others;
};

// The number `map` answers for `stored`; columns with rules of their own
// translate through it too.
constexpr uint32_t mapValue(const ValueMap &map, uint32_t stored)
{
    for (const ValuePair &pair : map.pairs) {
        if (pair.from == stored) {
            return pair.to;
        }
    }
    return map.keepOthers ? stored : map.others;
}

struct ColumnSpec;

// A column with its own rule. Answers as a getter does (0 or 2); it reads its
// attributes through the cell reads and fills cell.reply.
using SpecialColumn = int32_t (*)(const Cell &cell, const ColumnSpec &column);

// The per-kind arguments of a column; a column names only the fields its kind
// uses. The three log lines belong to the reading kinds: `before` is printed
// before the read; `after` (a format with one %s for kText, else one %d)
// after the read: for an integer with the answer once the read succeeded,
// for a text after the read whatever its result, with an empty text when it
// failed; `failed` when the read fails. Special columns print their own.
struct ColumnExtra {
    uint32_t number = 0;  // kConstInteger value, shift, low-bit mask, mask position, type code
    MaskAnswer mask = {}; // kMaskChar
    const ValueMap *map = nullptr;
    const char *text = nullptr; // kConstText
    OnFailure failure = kFailureStands;
    const char *before = nullptr;
    const char *after = nullptr;
    const char *failed = nullptr;
    SpecialColumn special = nullptr;
    // kAssociatedNumber: the type of the associated objects ("adapters")
    // whose first one holds the attribute, read as an unsigned decimal
    // number (getAssocVal); none answers 2.
    const char *association = nullptr;
    // kPartnerRow: the list whose row numbers the column answers (not
    // checked by validColumns: g++ cannot compare a list's address at
    // compile time in a sanitizer build; readColumn refuses a null one).
    ObjList *partners = nullptr;
    // kPartnerRow: printed when the partner is not in *partners (`failed`
    // is printed when there is no partner at all).
    const char *notListed = nullptr;
};

// One column of a table. `attribute` is the data-store attribute the kind
// reads; a special column gets it as the attribute its rule reads first, or
// null when the function names its own.
struct ColumnSpec {
    uint32_t column;
    const char *attribute;
    ColumnKind kind;
    ColumnExtra extra = {};
};

// One table as a getter answers it. The log lines are printed in this
// order: each of `entry` that is not null, then `idLine` (a format with one
// %d) with the arc at the entry position when the name has one, and
// `exitLine` before every return, successful or not. A column the table
// does not have answers `absentColumn` with the reply untouched: 2 in every
// table but one, which answers success and leaves the caller whatever the
// reply held.
struct TableSpec {
    ObjList *list;
    std::span<const ColumnSpec> columns;
    const char *entry[2] = {nullptr, nullptr};
    const char *idLine = nullptr;
    const char *exitLine = nullptr;
    int32_t absentColumn = SM_SNMP_NOSUCHNAME;
    // Asked once the row is open, before the column: true when the row is
    // answered with success and no value in every column, the reply as it
    // came (the host then reports no value for the cell).
    bool (*answersNothing)(const Cell &cell) = nullptr;
    // A step every call takes once the row is open and before the column is
    // looked up, whatever the column; its result is the cell's rowState.
    // Null in tables whose columns stand alone.
    uint32_t (*rowStep)(const Cell &cell) = nullptr;
};

// The whole of a getter: the log lines of `table`, the row the request names
// (openRow on table.list), the table's row step, the column's definition (2
// when the table has none) read with readColumn.
int32_t answerTableCell(const TableSpec &table, const SMSnmpValue *request, SMSnmpValue *reply,
                        uint32_t position);

// The generic column reader: answers cell from `column` by its kind. 0 or 2
// as a getter (an OnFailure may answer a failed read).
int32_t readColumn(const Cell &cell, const ColumnSpec &column);

// ---- Compile-time checks of a column table ------------------------------------

// True when `format` has exactly one conversion and it is `conversion`.
consteval bool hasOneConversion(const char *format, char conversion)
{
    int conversions = 0;
    bool right = false;
    for (const char *p = format; *p != '\0'; p++) {
        if (*p != '%') {
            continue;
        }
        if (p[1] == '%') {
            p++;
            continue;
        }
        conversions++;
        right = p[1] == conversion;
    }
    return conversions == 1 && right;
}

consteval bool readsAttribute(ColumnKind kind)
{
    return kind != ColumnKind::kRowIndex && kind != ColumnKind::kConstText &&
           kind != ColumnKind::kConstInteger && kind != ColumnKind::kSpecial &&
           kind != ColumnKind::kDisplayName;
}

// The kinds that answer a number through the generic integer path, where a
// failed read may be answered (OnFailure).
consteval bool isIntegerKind(ColumnKind kind)
{
    return kind != ColumnKind::kText && kind != ColumnKind::kConstText &&
           kind != ColumnKind::kSpecial && kind != ColumnKind::kDisplayName &&
           kind != ColumnKind::kPartnerText && kind != ColumnKind::kPartnerRow;
}

// The rules a table must keep for answerTableCell and readColumn: columns
// ascending and unique, each kind with the arguments it needs, log formats
// that match the answer they print, failure answers only where a number is
// answered.
consteval bool validColumns(std::span<const ColumnSpec> columns)
{
    uint32_t previous = 0;
    for (const ColumnSpec &def : columns) {
        const ColumnExtra &x = def.extra;
        if (def.column <= previous) {
            return false;
        }
        previous = def.column;
        const bool reads = readsAttribute(def.kind);
        if (reads && def.attribute == nullptr) {
            return false;
        }
        if ((def.kind == ColumnKind::kConstText) != (x.text != nullptr) ||
            (def.kind == ColumnKind::kMapped) != (x.map != nullptr) ||
            (def.kind == ColumnKind::kAssociatedNumber || def.kind == ColumnKind::kPartnerText ||
             def.kind == ColumnKind::kPartnerRow) != (x.association != nullptr)) {
            return false;
        }
        // A special column's function is not compared here: with UBSan, g++
        // refuses to compare the address of a function template instance
        // at compile time. readColumn refuses a special column without one.
        if (def.kind != ColumnKind::kSpecial && x.special != nullptr) {
            return false;
        }
        if (def.kind == ColumnKind::kShiftRight && x.number > 63) {
            return false;
        }
        if (def.kind == ColumnKind::kQuotient && x.number == 0) {
            return false;
        }
        if (def.kind == ColumnKind::kDisplayName && x.number == 0) {
            return false;
        }
        if (!reads && (x.before != nullptr || x.after != nullptr || x.failed != nullptr ||
                       x.failure.answers || x.failure.succeeds)) {
            return false;
        }
        if ((x.failure.answers || x.failure.succeeds) && !isIntegerKind(def.kind)) {
            return false;
        }
        if (x.failure.succeeds && !x.failure.answers) {
            return false; // a success must answer something
        }
        const bool partner =
            def.kind == ColumnKind::kPartnerText || def.kind == ColumnKind::kPartnerRow;
        if (partner && x.after != nullptr) {
            return false; // a partner column prints only its failure lines
        }
        if (def.kind != ColumnKind::kPartnerRow && x.notListed != nullptr) {
            return false;
        }
        if (x.after != nullptr &&
            !hasOneConversion(x.after, def.kind == ColumnKind::kText ? 's' : 'd')) {
            return false;
        }
    }
    return true;
}

} // namespace tables

#endif // KELP_MODULE_TABLES_COLUMNS_H
