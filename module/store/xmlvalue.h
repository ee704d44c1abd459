// Values out of the data store's XML answers: the n-th occurrence of a tag,
// one attribute of one object into the value part of a binding (through the
// one-object cache), and values of associated objects.
#ifndef KELP_MODULE_STORE_XMLVALUE_H
#define KELP_MODULE_STORE_XMLVALUE_H

#include <cstdint>
#include <memory>

#include "platform/smsnmp.h"

// Size of the buffer getValFromXML hands out; the XML library never gives a
// value longer than 159 bytes.
inline constexpr uint32_t kXmlValueSize = 160;

// Size of cachedObjXML: the data store holds an object's text to 64 KiB.
inline constexpr uint32_t kCachedObjXMLSize = 65536;

// Value type codes beyond the ASN.1 tags: ask for the attribute as a 64-bit
// number delivered through the caller's slot; the type then becomes 2.
enum : uint32_t { kValueTypeU64 = 101, kValueTypeU64Alt = 102 };

extern "C" {

// The XML text of the object getValFromOID fetched last, and its id (0 at
// start). Written by getValFromOID on the request path under dataMutex.
extern char cachedObjXML[kCachedObjXMLSize];
extern uint32_t cachedObjId;

// The text of the occurrence-th (0-based) element `tag` of `xml` in a new
// 160-byte heap buffer that the caller frees with free(); null when there is
// no such occurrence (or xml is null).
char *getValFromXML(const char *xml, const char *tag, uint32_t occurrence);

} // extern "C"

// getValFromXML for a text whose length (without its NUL) the caller knows:
// loops over one large answer measure it once instead of at every look-up.
char *getValFromXMLOfLength(const char *xml, uint32_t length, const char *tag, uint32_t occurrence);

extern "C" {

// Fetches object objId (GetSingleObject), keeps its text in cachedObjXML
// before anything else, and reads `attribute` into value by value->type:
// 2 the text as an unsigned decimal number (buffer pointer set to null);
// 4 the text with its NUL into value->buffer, which must hold 160 bytes,
// length into value->value; 101/102 the 64-bit number into *slot, type set
// to 2, buffer pointer null, value->value untouched. 0, or 2 on any failure
// (fetch, missing attribute, other type). Caller holds dataMutex.
int32_t getValFromOID(uint32_t objId, const char *attribute, SMSnmpValue *value, uint64_t *slot);

// The same conversion from a text already fetched (in practice
// cachedObjXML), without a data-store call; the text stays the caller's.
int32_t getValFromCachedXML(const char *xml, const char *attribute, SMSnmpValue *value,
                            uint64_t *slot);

// The occurrence-th `tag` among the objects of type `kind` associated with
// objId: a new heap text (caller frees) or null.
char *getAssocVal(uint32_t objId, const char *kind, const char *tag, uint32_t occurrence);

} // extern "C"

// getValFromCachedXML on cachedObjXML, whose length getValFromOID kept: a
// cell reads several attributes of its object, and each would otherwise
// measure the whole text again. Caller holds dataMutex.
int32_t getValFromCachedObj(const char *attribute, SMSnmpValue *value, uint64_t *slot);

// Owners of the texts this layer hands around: answers of the data store
// (released with freeMem) and heap texts such as getValFromXML's (free).
struct StoreTextFree {
    void operator()(char *text) const;
};
using StoreText = std::unique_ptr<char, StoreTextFree>;
struct HeapTextFree {
    void operator()(char *text) const;
};
using HeapText = std::unique_ptr<char, HeapTextFree>;

// The leading decimal digits of text as an unsigned number (wrapping past 32
// bits); 0 when it starts with anything else.
uint32_t decimalPrefix(const char *text);

// Asks the data store whether it is ready: DataStoreReady answers a text whose
// "Code" reads as the decimal number 0. False for no answer, no "Code" or any
// other value. Frees everything it fetched.
bool dataStoreIsReady();

#endif // KELP_MODULE_STORE_XMLVALUE_H
