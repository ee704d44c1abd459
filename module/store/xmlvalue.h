// Values out of the data store's XML answers.
#ifndef KELP_MODULE_STORE_XMLVALUE_H
#define KELP_MODULE_STORE_XMLVALUE_H

#include <cstdint>

// Size of the buffer getValFromXML hands out; the XML library never gives a
// value longer than 159 bytes.
inline constexpr uint32_t kXmlValueSize = 160;

extern "C" {

// The text of the occurrence-th (0-based) element `tag` of `xml` in a new
// 160-byte heap buffer that the caller frees with free(); null when there is
// no such occurrence (or xml is null).
char *getValFromXML(const char *xml, const char *tag, uint32_t occurrence);

} // extern "C"

// Asks the data store whether it is ready: DataStoreReady answers a text whose
// "Code" reads as the decimal number 0. False for no answer, no "Code" or any
// other value. Frees everything it fetched.
bool dataStoreIsReady();

#endif // KELP_MODULE_STORE_XMLVALUE_H
