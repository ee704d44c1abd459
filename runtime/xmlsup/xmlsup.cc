// XMLSupGetXMLMemData: the text of an element by name and occurrence, the one
// mode the XML support library offers.
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "support/short_of_memory.h"
#include "xmlsup.h"
#include "xmlsup/answer_index.h"
#include "xmlsup/flat_answer.h"
#include "xmlsup/last_scan.h"
#include "xmlsup/readiness_answer.h"
#include "xmlsup/xml_scan.h"

namespace {

namespace xml = kelp::rt::xml;

// Status numbers of XMLSupGetXMLMemData.
constexpr uint32_t kFound = 0;
constexpr uint32_t kNotFound = 2;
constexpr uint32_t kFailed = 5;
constexpr uint32_t kTooSmall = 16;

// The element through a long answer's table or the thread's last scan, or
// else by a scan (kept as the last scan). Out of line: most look-ups are
// answered by the readiness answer or the flat answer first. Throws
// std::bad_alloc without memory for a long answer's table.
__attribute__((noinline)) std::optional<std::string_view>
lookUpElsewhere(const char *text, uint32_t length, std::string_view name, uint32_t occurrence)
{
    xml::IndexedLookup lookup = xml::findIndexed(text, length, name, occurrence);
    if (!lookup.indexed)
        lookup = xml::findInLastScan(text, length, name, occurrence);
    if (lookup.indexed)
        return lookup.raw;
    std::optional<std::string_view> raw =
        xml::findElement(std::string_view(text, length), name, occurrence);
    xml::rememberScan(text, length, name, occurrence, raw);
    return raw;
}

// Hands out `value` into out[0..*size) with its NUL, as XMLSupGetXMLMemData
// does.
uint32_t handOut(std::string_view value, uint32_t *size, char *out)
{
    const size_t needed = value.size() + 1;
    if (needed > *size) {
        *size = static_cast<uint32_t>(needed);
        return kTooSmall;
    }
    // An empty value may have no text behind it at all.
    if (!value.empty())
        std::memcpy(out, value.data(), value.size());
    out[value.size()] = '\0';
    *size = static_cast<uint32_t>(needed);
    return kFound;
}

// handOut for a value that holds an entity: decoded into a copy first.
__attribute__((noinline)) uint32_t handOutDecoded(std::string_view raw, uint32_t *size, char *out)
{
    const std::string decoded = xml::decodeEntities(raw);
    return handOut(decoded, size, out);
}

} // namespace

extern "C" {

uint32_t XMLSupGetXMLMemData(uint32_t mode0, const char *tag, uint32_t mode1, uint32_t occurrence,
                             uint32_t mode2, uint32_t *size, char *out, uint32_t mode3,
                             const void *context, const char *xml, uint32_t xmlLength)
{
    if (mode0 != 0 || mode1 != 1 || mode2 != 1 || mode3 != 0 || context != nullptr)
        return kFailed;
    if (tag == nullptr || tag[0] == '\0' || size == nullptr || out == nullptr || xml == nullptr) {
        return kFailed;
    }
    try {
        // The readiness answer's code has a fixed place, the thread's last
        // one-object answer (or a copy of it) and long answers of the data
        // store carry a table, and the thread's last scan of a short text is
        // kept; any other text is scanned. Both readiness answers have one
        // length, which few other texts have.
        static_assert(xml::kReadyAnswer.size() == xml::kNotReadyAnswer.size());
        const std::string_view name(tag);
        xml::IndexedLookup lookup;
        if (xmlLength == xml::kReadyAnswer.size())
            lookup = xml::findInReadinessAnswer(xml, xmlLength, name, occurrence);
        if (!lookup.indexed)
            lookup = xml::findInFlatAnswer(xml, xmlLength, name, occurrence);
        const std::optional<std::string_view> raw =
            lookup.indexed ? lookup.raw : lookUpElsewhere(xml, xmlLength, name, occurrence);
        if (!raw)
            return kNotFound;
        // Most values hold no entity and are handed out as they stand.
        if (raw->find('&') != std::string_view::npos)
            return handOutDecoded(*raw, size, out);
        return handOut(*raw, size, out);
    } catch (const std::exception &) {
        // Out of memory for a decoded copy or for a long answer's table.
        kelp::rt::noteShortOfMemory(0);
        return kFailed;
    }
}

} // extern "C"
