// The cell machinery: the row prologue, the reads under the attribute read
// rule and the answers.
#include "tables/cells.h"

#include <algorithm>
#include <cstring>

#include "platform/evtmsg.h"
#include "platform/vcsupt.h"
#include "platform/vscil.h"
#include "store/rowref.h"

namespace tables {

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
    *cell = Cell{row.objId, row.subObjId, row.rowIndex, row.column, reply};
    return SM_SNMP_NOERROR;
}

int32_t readAttribute(uint32_t objId, const char *attribute, SMSnmpValue *value, uint64_t *slot)
{
    if (objId == cachedObjId) {
        return getValFromCachedObj(attribute, value, slot);
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

int32_t answerOwnText(const Cell &cell, std::string_view text)
{
    auto *buffer = static_cast<char *>(SMAllocMem(kOwnBufferSize));
    if (buffer == nullptr) {
        return SM_SNMP_GENERR;
    }
    const size_t length = std::min<size_t>(text.size(), kOwnBufferSize - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
    cell.reply->buffer = buffer;
    cell.reply->type = SM_ASN_OCTET_STRING;
    cell.reply->value = static_cast<uint32_t>(length);
    return SM_SNMP_NOERROR;
}

int32_t lookUpDisplayName(const Cell &cell, uint32_t objectType, DisplayName *name)
{
    // The nexus is read into the reply, as a text column would be, and
    // copied before the name is written over it.
    const int32_t read = readText(cell, "Nexus");
    if (read != SM_SNMP_NOERROR) {
        return read;
    }
    ValueBuffer nexus{};
    std::memcpy(nexus.data(), cell.reply->buffer,
                std::min<size_t>(cell.reply->value, kValueBufferSize - 1));
    nameFromService(objectType, nexus.data(), name);
    return SM_SNMP_NOERROR;
}

void nameFromService(uint32_t objectType, const char *nexus, DisplayName *name)
{
    // The service fills every area it is given: each is the size it writes.
    char location1[EVTMSG_TEXT_SIZE] = "";
    char location2[EVTMSG_TEXT_SIZE] = "";
    char detail[EVTMSG_TEXT_SIZE] = "";
    name->text.fill('\0');
    name->status = evtmsg_getObjLocationStrings(objectType, nexus, ",", "en", location1, location2,
                                                name->text.data(), detail, 0);
    name->text.back() = '\0';
}

int32_t answerDisplayName(const Cell &cell, uint32_t objectType)
{
    DisplayName name;
    const int32_t read = lookUpDisplayName(cell, objectType, &name);
    if (read != SM_SNMP_NOERROR) {
        return read;
    }
    // The name is answered whatever the service returned.
    if (answerText(cell, name.text.data()) != SM_SNMP_NOERROR) {
        return SM_SNMP_NOSUCHNAME;
    }
    return static_cast<int32_t>(name.status);
}

} // namespace tables
