// Value extraction from the data store's XML answers, over the XML library's
// look-up of a tag by name and occurrence.
#include "store/xmlvalue.h"

#include <cstdlib>
#include <cstring>

#include "platform/vscil.h"
#include "platform/xmlsup.h"

char *getValFromXML(const char *xml, const char *tag, uint32_t occurrence)
{
    if (xml == nullptr || tag == nullptr) {
        return nullptr;
    }
    auto *value = static_cast<char *>(std::calloc(1, kXmlValueSize));
    if (value == nullptr) {
        return nullptr;
    }
    uint32_t size = kXmlValueSize;
    const uint32_t status = XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, value, 0, nullptr,
                                                xml, static_cast<uint32_t>(std::strlen(xml)));
    if (status != 0) {
        std::free(value);
        return nullptr;
    }
    return value;
}

bool dataStoreIsReady()
{
    uint32_t status = 0xFFFFFFFFu;
    char *answer = DataStoreReady(&status);
    if (answer == nullptr) {
        return false;
    }
    bool ready = false;
    if (char *code = getValFromXML(answer, "Code", 0); code != nullptr) {
        char *end = nullptr;
        const long number = std::strtol(code, &end, 10);
        ready = end != code && number == 0;
        std::free(code);
    }
    freeMem(answer);
    return ready;
}
