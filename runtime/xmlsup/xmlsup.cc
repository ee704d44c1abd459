// XMLSupGetXMLMemData: the text of an element by name and occurrence, the one
// mode the XML support library offers.
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "support/short_of_memory.h"
#include "xmlsup.h"
#include "xmlsup/answer_index.h"
#include "xmlsup/flat_answer.h"
#include "xmlsup/last_scan.h"
#include "xmlsup/readiness_answer.h"
#include "xmlsup/xml_scan.h"

extern "C" {

uint32_t XMLSupGetXMLMemData(uint32_t mode0, const char *tag, uint32_t mode1, uint32_t occurrence,
                             uint32_t mode2, uint32_t *size, char *out, uint32_t mode3,
                             const void *context, const char *xml, uint32_t xmlLength)
{
    if (mode0 != 0 || mode1 != 1 || mode2 != 1 || mode3 != 0 || context != nullptr)
        return 5;
    if (tag == nullptr || tag[0] == '\0' || size == nullptr || out == nullptr || xml == nullptr) {
        return 5;
    }
    try {
        // The readiness answer's code has a fixed place, the thread's last
        // one-object answer (or a copy of it) and long answers of the data
        // store carry a table, and the thread's last scan of a short text is
        // kept; any other text is scanned.
        const std::string_view name(tag);
        // Both readiness answers have one length, which few other texts
        // have.
        static_assert(kelp::rt::xml::kReadyAnswer.size() == kelp::rt::xml::kNotReadyAnswer.size());
        kelp::rt::xml::IndexedLookup lookup;
        if (xmlLength == kelp::rt::xml::kReadyAnswer.size())
            lookup = kelp::rt::xml::findInReadinessAnswer(xml, xmlLength, name, occurrence);
        if (!lookup.indexed)
            lookup = kelp::rt::xml::findInFlatAnswer(xml, xmlLength, name, occurrence);
        if (!lookup.indexed)
            lookup = kelp::rt::xml::findIndexed(xml, xmlLength, name, occurrence);
        if (!lookup.indexed)
            lookup = kelp::rt::xml::findInLastScan(xml, xmlLength, name, occurrence);
        std::optional<std::string_view> raw = lookup.raw;
        if (!lookup.indexed) {
            raw = kelp::rt::xml::findElement(std::string_view(xml, xmlLength), name, occurrence);
            kelp::rt::xml::rememberScan(xml, xmlLength, name, occurrence, raw);
        }
        if (!raw)
            return 2;
        // Most values hold no entity and are copied as they stand; the
        // others are decoded into a copy first.
        std::string decoded;
        std::string_view value = *raw;
        if (value.find('&') != std::string_view::npos) {
            decoded = kelp::rt::xml::decodeEntities(value);
            value = decoded;
        }
        const size_t needed = value.size() + 1;
        if (needed > *size) {
            *size = static_cast<uint32_t>(needed);
            return 16;
        }
        // An empty value may have no text behind it at all.
        if (!value.empty())
            std::memcpy(out, value.data(), value.size());
        out[value.size()] = '\0';
        *size = static_cast<uint32_t>(needed);
        return 0;
    } catch (const std::exception &) {
        // Out of memory for a decoded copy or for a long answer's table.
        kelp::rt::noteShortOfMemory(0);
        return 5;
    }
}

} // extern "C"
