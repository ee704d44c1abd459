// The contract every table getter keeps, and the column machinery the getters
// share: a getter is a constant table of column rows read by one generic
// reader, plus named functions for the columns that have rules of their own.
// Nothing here knows a particular table; the tables live one family per file.
#ifndef KELP_MODULE_TABLES_GETTER_H
#define KELP_MODULE_TABLES_GETTER_H

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>

#include "platform/smsnmp.h"
#include "platform/vscil.h"
#include "store/objlist.h"
#include "store/xmlvalue.h"

extern "C" {

// Table getters. Each answers one cell of its table into reply's value part:
// `position` is the index of the table's entry arc in request's name, the
// column is the arc after it and the row index the one after that (later arcs
// are ignored). Only request's name is read.
//
// Results: 0 when reply's value part was filled (type 2 with the number and a
// null buffer pointer, or type 4 with the text and its length); 2 when the
// row or column does not exist or could not be read, and the value part is
// then not meaningful (a column may have written its type or number, e.g. 99).
// Nothing else.
//
// Text columns copy at most 160 bytes (text and NUL) into reply->buffer,
// which the caller supplies (the host sizes it to 1024 bytes) and keeps its
// own reference to: integer answers set the pointer to null. A getter has no
// side effects beyond reply and the one-object cache (cachedObjXML,
// cachedObjId), so the caller may probe it again. Caller holds dataMutex.
int32_t getCtrl(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);

} // extern "C"

namespace tables {

// "Not applicable" in every table; "not valid" in the controller's spin-down
// columns and the enclosure's slot columns.
inline constexpr uint32_t kNotApplicable = 99;
inline constexpr uint32_t kNotValid = 9999;
inline constexpr std::string_view kNotValidText = "9999";

// Every buffer an attribute is read into holds the largest value the XML
// library hands out (159 bytes and the NUL), even where the data usually
// needs less (a nexus 80 bytes, a mask 41): the read copies without a bound.
inline constexpr uint32_t kValueBufferSize = kXmlValueSize;
using ValueBuffer = std::array<char, kValueBufferSize>;

// Texts a rule fetches itself are held by StoreText and HeapText
// (store/xmlvalue.h).

// One cell being answered: the row's data-store object and the reply.
struct Cell {
    uint32_t objId;
    uint32_t rowIndex;
    uint32_t column;
    SMSnmpValue *reply;
};

// How a column row turns its attribute into the answer. Integer kinds answer
// type 2 with a null buffer pointer; text kinds type 4 with the length.
enum class ColumnKind : uint8_t {
    kRowIndex,         // the row index itself
    kConstText,        // extra.text
    kConstInteger,     // extra.number
    kText,             // the attribute's text
    kInteger,          // the attribute as an unsigned decimal number
    kPlusOne,          // the attribute plus 1 (the status columns)
    kMapped,           // the attribute through *extra.map
    kLowestBit,        // 64-bit attribute: 0 answers 0, else 1 + its trailing zero bits
    kLowestBitOrUnset, // the same, but 0 leaves the number unwritten
    kShiftRight,       // 64-bit attribute shifted right by extra.number, cut to 32 bits
    kLowBits,          // 64-bit attribute masked with extra.number
    kMaskChar,         // '0'/'1' mask attribute: character extra.number chooses from extra.mask
    kSpecial,          // extra.special(cell, row)
};

// What an integer row answers when its attribute cannot be read.
enum class OnFailure : uint8_t {
    kFail,           // the read's failure, number untouched
    kAnswer99,       // 99 with success
    kAnswer99AndFail // 99, and the read's failure still returned
};

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

struct ColumnRow;

// A column with its own rule. Answers as a getter does (0 or 2); it reads its
// attributes through the helpers below and fills cell.reply.
using SpecialColumn = int32_t (*)(const Cell &cell, const ColumnRow &row);

// The per-kind arguments of a row; rows name only the fields their kind uses.
// The three log lines belong to the generic kinds: `before` is printed before
// the read, `after` (a format with one %d, or %s for kText) with the answer
// after a successful read, `failed` when the read fails. Special columns
// print their own lines.
struct ColumnExtra {
    uint32_t number = 0;  // kConstInteger value, shift, low-bit mask, or mask position
    MaskAnswer mask = {}; // kMaskChar
    const ValueMap *map = nullptr;
    const char *text = nullptr; // kConstText
    OnFailure failure = OnFailure::kFail;
    const char *before = nullptr;
    const char *after = nullptr;
    const char *failed = nullptr;
    SpecialColumn special = nullptr;
};

// One column of a table. `attribute` is the data-store attribute the kind
// reads; a special column gets it as the attribute its rule reads first, or
// null when the function names its own.
struct ColumnRow {
    uint32_t column;
    const char *attribute;
    ColumnKind kind;
    ColumnExtra extra = {};
};

// ---- The getter skeleton -------------------------------------------------

// The common prologue: the row named by request (parseRowIndex on `list`),
// then a fresh fetch of its object through a read of "Nexus", which loads the
// object into the one-object cache so that the column's reads are served from
// it. 0 with *cell filled (reply = `reply`), or the failing step's result (2).
int32_t openRow(uint32_t position, const SMSnmpValue *request, ObjList *list, SMSnmpValue *reply,
                Cell *cell);

// The row of `columns` for cell.column read with readColumn; 2 when the table
// has no such column.
int32_t readCell(std::span<const ColumnRow> columns, const Cell &cell);

// openRow, then readCell: the whole of a getter without log lines of its own.
int32_t answerCell(std::span<const ColumnRow> columns, ObjList *list, const SMSnmpValue *request,
                   SMSnmpValue *reply, uint32_t position);

// The generic column reader: answers cell from `row` by its kind. 0 or 2 as
// a getter (a row's OnFailure may turn a failed read into 99).
int32_t readColumn(const Cell &cell, const ColumnRow &row);

// ---- Reads for special columns -------------------------------------------
// Each obeys the attribute read rule: the one-object cache when it holds the
// cell's object, else a fetch through getValFromOID. 0 or 2.

// The attribute read rule for any value record.
int32_t readAttribute(uint32_t objId, const char *attribute, SMSnmpValue *value, uint64_t *slot);

// The attribute as an unsigned decimal number into *number, in a record of
// the caller's own: the reply is not touched. *number is untouched on failure.
int32_t readNumber(const Cell &cell, const char *attribute, uint32_t *number);

// The attribute as a 64-bit number into *number (untouched on failure).
int32_t readWide(const Cell &cell, const char *attribute, uint64_t *number);

// The attribute's text into the reply (type 4, length). 2 without a reply
// buffer.
int32_t readText(const Cell &cell, const char *attribute);

// An attribute's text in a buffer of the call's own: the '0'/'1' masks and
// any text a rule tests without answering it. Masks in real models are 40
// characters and names shorter still, but the read copies whatever the data
// store holds, so the buffer takes the largest value. Mask positions count
// from 0 at the first character; a position past the text, or any position
// after a failed read, holds '\0' (and the text is empty).
class LocalText {
  public:
    int32_t read(const Cell &cell, const char *attribute);
    const char *c_str() const { return text_.data(); }
    char at(uint32_t position) const { return position < length_ ? text_[position] : '\0'; }
    bool isSet(uint32_t position) const { return at(position) == '1'; }

  private:
    ValueBuffer text_{};
    uint32_t length_ = 0;
};

// ---- Answers ---------------------------------------------------------------

// Type 2 and `number`. The reply's buffer pointer stays as it is: a GetNext
// resolves each candidate cell with one record as request and reply, and a
// text cell after a failed candidate still needs the caller's buffer.
void answerNumber(const Cell &cell, uint32_t number);

// Type 2, `number` and a null buffer pointer: what an integer read into the
// reply leaves (the value extraction nulls the pointer after a successful
// integer read), and what the columns answer that null it explicitly.
void answerNumberWithoutBuffer(const Cell &cell, uint32_t number);

// An integer cell whose number the rule leaves unwritten: type 2, the value
// field and the buffer pointer as they were.
void answerUnset(const Cell &cell);

// Type 4: `text` and a NUL into the reply buffer, its length. 0, or 2 without
// a reply buffer. `text` is at most kValueBufferSize - 1 bytes.
int32_t answerText(const Cell &cell, std::string_view text);

// ---- Compile-time checks of a column table ----------------------------------

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

consteval bool isIntegerKind(ColumnKind kind)
{
    return kind != ColumnKind::kText && kind != ColumnKind::kConstText &&
           kind != ColumnKind::kSpecial;
}

// The rules a table must keep for readCell and readColumn: columns ascending
// and unique, each kind with the arguments it needs, log formats that match
// the answer they print, failure policies only where a number is answered.
consteval bool validColumns(std::span<const ColumnRow> rows)
{
    uint32_t previous = 0;
    for (const ColumnRow &row : rows) {
        const ColumnExtra &x = row.extra;
        if (row.column <= previous) {
            return false;
        }
        previous = row.column;
        const bool reads =
            row.kind != ColumnKind::kRowIndex && row.kind != ColumnKind::kConstText &&
            row.kind != ColumnKind::kConstInteger && row.kind != ColumnKind::kSpecial;
        if (reads && row.attribute == nullptr) {
            return false;
        }
        if ((row.kind == ColumnKind::kConstText) != (x.text != nullptr) ||
            (row.kind == ColumnKind::kMapped) != (x.map != nullptr)) {
            return false;
        }
        // A special row's function is not compared here: with UBSan, g++
        // refuses to compare the address of a function template instance
        // at compile time. readColumn refuses a special row without one.
        if (row.kind != ColumnKind::kSpecial && x.special != nullptr) {
            return false;
        }
        if (row.kind == ColumnKind::kShiftRight && x.number > 63) {
            return false;
        }
        if (!reads && (x.before != nullptr || x.after != nullptr || x.failed != nullptr ||
                       x.failure != OnFailure::kFail)) {
            return false;
        }
        if (x.failure != OnFailure::kFail && !isIntegerKind(row.kind)) {
            return false;
        }
        if (x.after != nullptr &&
            !hasOneConversion(x.after, row.kind == ColumnKind::kText ? 's' : 'd')) {
            return false;
        }
    }
    return true;
}

} // namespace tables

#endif // KELP_MODULE_TABLES_GETTER_H
