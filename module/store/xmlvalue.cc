// Value extraction from the data store's XML answers, over the XML library's
// look-up of a tag by name and occurrence, and the one-object cache that lets
// a request read the data store once.
#include "store/xmlvalue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mpi/mpi.h"
#include "platform/vscil.h"
#include "platform/xmlsup.h"

// Guarded by dataMutex (store/xmlvalue.h).
char cachedObjXML[kCachedObjXMLSize];
uint32_t cachedObjId;

namespace {

// The length of the text in cachedObjXML, without its NUL; written with it.
uint32_t cachedObjLength = 0;

// Puts a value text into the binding by its requested type.
int32_t convertValue(const char *text, SMSnmpValue *value, uint64_t *slot)
{
    switch (value->type) {
    case SM_ASN_INTEGER:
        value->value = decimalPrefix(text);
        value->buffer = nullptr;
        return SM_SNMP_NOERROR;
    case SM_ASN_OCTET_STRING: {
        // Values are at most 159 bytes; every caller hands a buffer of 160.
        const size_t length = std::strlen(text);
        std::memcpy(value->buffer, text, length + 1);
        value->value = static_cast<uint32_t>(length);
        return SM_SNMP_NOERROR;
    }
    case kValueTypeU64:
    case kValueTypeU64Alt:
        *slot = utf8ToU64(text);
        value->type = SM_ASN_INTEGER;
        value->buffer = nullptr;
        return SM_SNMP_NOERROR;
    default:
        return SM_SNMP_NOSUCHNAME;
    }
}

// Puts the text of the occurrence-th element `tag` of `xml` (`length` bytes)
// into the zeroed kXmlValueSize bytes at `value`; false when there is no
// such occurrence. A cell's reads use a buffer on the stack: a walk reads
// several values a cell, and a heap block for each (glibc's calloc never
// takes one from the thread's cache) cost more than the look-up.
bool valueInto(const char *xml, uint32_t length, const char *tag, uint32_t occurrence, char *value)
{
    uint32_t size = kXmlValueSize;
    return XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, value, 0, nullptr, xml, length) ==
           0;
}

// getValFromCachedXML for a text whose length the caller knows.
int32_t valueOfAttribute(const char *xml, uint32_t length, const char *attribute,
                         SMSnmpValue *value, uint64_t *slot)
{
    if (attribute == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    char text[kXmlValueSize] = {};
    if (!valueInto(xml, length, attribute, 0, text)) {
        return SM_SNMP_NOSUCHNAME;
    }
    return convertValue(text, value, slot);
}

} // namespace

void StoreTextFree::operator()(char *text) const
{
    freeMem(text);
}

void HeapTextFree::operator()(char *text) const
{
    std::free(text);
}

uint32_t decimalPrefix(const char *text)
{
    uint32_t number = 0;
    for (const char *p = text; *p >= '0' && *p <= '9'; p++) {
        number = number * 10 + static_cast<uint32_t>(*p - '0');
    }
    return number;
}

char *getValFromXML(const char *xml, const char *tag, uint32_t occurrence)
{
    if (xml == nullptr) {
        return nullptr;
    }
    return getValFromXMLOfLength(xml, static_cast<uint32_t>(std::strlen(xml)), tag, occurrence);
}

char *getValFromXMLOfLength(const char *xml, uint32_t length, const char *tag, uint32_t occurrence)
{
    if (xml == nullptr || tag == nullptr) {
        return nullptr;
    }
    auto *value = static_cast<char *>(std::calloc(1, kXmlValueSize));
    if (value == nullptr) {
        return nullptr;
    }
    if (!valueInto(xml, length, tag, occurrence, value)) {
        std::free(value);
        return nullptr;
    }
    return value;
}

int32_t getValFromOID(uint32_t objId, const char *attribute, SMSnmpValue *value, uint64_t *slot)
{
    uint32_t status = 0;
    StoreText text(GetSingleObject(&status, 0, objId));
    if (status != 0 || text == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    // The cache is refreshed even when the attribute turns out missing: the
    // getters' next reads of this request come from it.
    const size_t whole = std::strlen(text.get());
    const size_t length = std::min<size_t>(whole, kCachedObjXMLSize - 1);
    std::memcpy(cachedObjXML, text.get(), length);
    cachedObjXML[length] = '\0';
    cachedObjLength = static_cast<uint32_t>(length);
    cachedObjId = objId;
    return valueOfAttribute(text.get(), static_cast<uint32_t>(whole), attribute, value, slot);
}

int32_t getValFromCachedXML(const char *xml, const char *attribute, SMSnmpValue *value,
                            uint64_t *slot)
{
    if (xml == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    return valueOfAttribute(xml, static_cast<uint32_t>(std::strlen(xml)), attribute, value, slot);
}

int32_t getValFromCachedObj(const char *attribute, SMSnmpValue *value, uint64_t *slot)
{
    return valueOfAttribute(cachedObjXML, cachedObjLength, attribute, value, slot);
}

char *getAssocVal(uint32_t objId, const char *kind, const char *tag, uint32_t occurrence)
{
    uint32_t status = 0;
    StoreText answer(GetAssociated(&status, kind, objId));
    return getValFromXML(answer.get(), tag, occurrence);
}

bool dataStoreIsReady()
{
    uint32_t status = 0xFFFFFFFFu;
    StoreText answer(DataStoreReady(&status));
    if (answer == nullptr) {
        return false;
    }
    char code[kXmlValueSize] = {};
    if (!valueInto(answer.get(), static_cast<uint32_t>(std::strlen(answer.get())), "Code", 0,
                   code)) {
        return false;
    }
    // The code of a ready store, asked for at every cell, is "0".
    if (code[0] == '0' && code[1] == '\0')
        return true;
    char *end = nullptr;
    const long number = std::strtol(code, &end, 10);
    return end != code && number == 0;
}
