// The cell machinery every table getter shares: the row a request names,
// the reads of the row's attributes under the attribute read rule, and the
// answers written into the reply. Nothing here knows a particular table.
#ifndef KELP_MODULE_TABLES_CELLS_H
#define KELP_MODULE_TABLES_CELLS_H

#include <array>
#include <cstdint>
#include <string_view>

#include "platform/evtmsg.h"
#include "platform/smsnmp.h"
#include "store/objlist.h"
#include "store/xmlvalue.h"

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

// One cell being answered: the table row's data-store object (and, in the
// array-disk-to-virtual-disk table, its partner), the row index and column
// the request names, and the reply.
struct Cell {
    uint32_t objId;
    uint32_t subObjId; // the row's partner object; 0 in tables of one object a row
    uint32_t rowIndex;
    uint32_t column;
    SMSnmpValue *reply;
    // What the table's row step (TableSpec::rowStep) worked out for the row,
    // for the columns whose answer depends on it; 0 in tables without one.
    uint32_t rowState = 0;
};

// The common prologue: the table row named by request (parseRowIndex on
// `list`), then a fresh fetch of its object through a read of "Nexus", which
// loads the object into the one-object cache so that the column's reads are
// served from it. 0 with *cell filled (reply = `reply`), or the failing
// step's result (2).
int32_t openRow(uint32_t position, const SMSnmpValue *request, ObjList *list, SMSnmpValue *reply,
                Cell *cell);

// ---- Reads --------------------------------------------------------------------
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

// ---- Answers ------------------------------------------------------------------

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
// a reply buffer. `text` is cut to kValueBufferSize - 1 bytes.
int32_t answerText(const Cell &cell, std::string_view text);

// The size of every buffer a getter puts into the reply in place of the
// caller's: the host's minimum reply buffer, so that whatever is written into
// the reply's buffer later (a GetNext's next candidate, the host) fits as it
// would in the caller's own.
inline constexpr uint32_t kOwnBufferSize = 1024;

// Type 4: `text` and a NUL in a new buffer of kOwnBufferSize bytes from
// SMAllocMem, put in place of the reply's buffer pointer, and its length.
// The caller's buffer is neither written nor freed; the new buffer is the
// caller's from then on, who frees it with SMFreeMem (getters.h). `text` is
// cut to kOwnBufferSize - 1 bytes. 0, or 5 when the allocation fails, with
// the reply untouched.
int32_t answerOwnText(const Cell &cell, std::string_view text);

// The location-string service's display name of the row's object and the
// service's status.
struct DisplayName {
    std::array<char, EVTMSG_TEXT_SIZE> text{};
    uint32_t status = 0;
};

// Reads the object's "Nexus" into the reply (a failure returns its result),
// copies it and asks the service for the name of type code `objectType`
// with separator "," and language "en". 0 with *name filled (whatever the
// service returned; the text is always terminated), or the read's failure.
int32_t lookUpDisplayName(const Cell &cell, uint32_t objectType, DisplayName *name);

// The service's display name of type code `objectType` for `nexus`, with
// separator "," and language "en", and the service's status.
void nameFromService(uint32_t objectType, const char *nexus, DisplayName *name);

// The display name of the row's object from the location-string service:
// the object's "Nexus" (read into the reply, then copied) with type code
// `objectType`, separator "," and language "en"; the service's third text is
// answered (type 4, its length) whatever the service returned, and the
// service's status is the result. A failed read of "Nexus" returns its
// result.
int32_t answerDisplayName(const Cell &cell, uint32_t objectType);

} // namespace tables

#endif // KELP_MODULE_TABLES_CELLS_H
