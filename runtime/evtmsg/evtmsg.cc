// The event-message catalogue. The alert texts come from the alert catalogue
// (catalogue.cc, data/alerts.txt), the management address from the served
// model, the location texts from an object's type and nexus (location.cc).
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "datastore/model_store.h"
#include "evtmsg.h"
#include "evtmsg/catalogue.h"
#include "evtmsg/location.h"
#include "support/text.h"

namespace {

void clear(char *area)
{
    if (area != nullptr)
        area[0] = '\0';
}

// Copies text into an area of EVTMSG_TEXT_SIZE bytes (null: skipped). A cut
// ends before a UTF-8 character that would not fit whole, so an SNMP
// manager never sees half a character.
void copyText(std::string_view text, char *area)
{
    kelp::rt::copyToBuffer(kelp::rt::evtmsg::cutText(text, EVTMSG_TEXT_SIZE), area,
                           EVTMSG_TEXT_SIZE);
}

// A view of a caller's text that reads at most limit + 1 bytes of it: enough
// to tell that it is longer than limit.
std::string_view bounded(const char *text, size_t limit)
{
    return std::string_view(text, strnlen(text, limit + 1));
}

// The catalogue's line for an event number, or its default line, with the
// catalogue held for as long as the line is read. No catalogue: no line.
struct FoundAlert {
    std::shared_ptr<const kelp::rt::evtmsg::Catalogue> catalogue;
    const kelp::rt::evtmsg::Alert *alert = nullptr;
    bool known = false; // the number has a line of its own
};

FoundAlert findAlert(uint32_t eventId)
{
    FoundAlert found;
    found.catalogue = kelp::rt::evtmsg::servedCatalogue();
    if (found.catalogue != nullptr) {
        const auto line = found.catalogue->alerts.find(eventId);
        found.known = line != found.catalogue->alerts.end();
        found.alert = found.known ? &line->second : &found.catalogue->fallback;
    }
    return found;
}

} // namespace

extern "C" {

// The alert of eventId from the served catalogue: level "1", "2" or "4" and
// the message with its markers replaced (catalogue.h, expandText), each cut to
// its area; a null area is skipped, a null `inserts` is no inserts. 0 when
// the catalogue has a line for eventId, 2 when the `default` line answered,
// 5 when no catalogue is loaded or memory ran out (every given area empty).
uint32_t evtmsg_getAlertMsg(uint32_t eventId, char *level, char *message, uint32_t insertCount,
                            char *const *inserts)
{
    clear(level);
    clear(message);
    try {
        namespace em = kelp::rt::evtmsg;
        const FoundAlert found = findAlert(eventId);
        if (found.alert == nullptr)
            return 5;
        const em::Alert &alert = *found.alert;
        if (message != nullptr) {
            const std::string text =
                em::expandText(alert.message, eventId, insertCount, inserts, EVTMSG_MESSAGE_SIZE);
            kelp::rt::copyToBuffer(text, message, EVTMSG_MESSAGE_SIZE);
        }
        kelp::rt::copyToBuffer(std::to_string(alert.level), level, EVTMSG_TEXT_SIZE);
        return found.known ? 0 : 2;
    } catch (const std::bad_alloc &) {
        clear(level);
        clear(message);
        return 5;
    }
}

// The texts of objectLocation (evtmsg/location.h, scheme in data/NAMES.md),
// each cut to EVTMSG_TEXT_SIZE - 1 bytes; a null area is skipped. 0 for every
// nexus text, whether it has one of the type's shapes or not and whether the
// served model holds the object or not; 5 for an unknown type code, a null
// nexus, separator or language, a non-zero `reserved` or memory exhaustion
// (every given area empty). The texts are English whatever `language` asks
// for: the catalogue has no other.
uint32_t evtmsg_getObjLocationStrings(uint32_t objType, const char *nexus, const char *separator,
                                      const char *language, char *location1, char *location2,
                                      char *displayName, char *detail, uint32_t reserved)
{
    char *const areas[] = {location1, location2, displayName, detail};
    for (char *area : areas)
        clear(area);
    if (nexus == nullptr || separator == nullptr || language == nullptr || reserved != 0)
        return 5;
    try {
        namespace em = kelp::rt::evtmsg;
        em::LocationTexts texts;
        // No text can show more of the nexus than its first kNexusReadLimit
        // bytes; a cut there leaves out a character that would not be whole.
        const std::string_view nexusText =
            em::cutText(bounded(nexus, em::kNexusReadLimit), em::kNexusReadLimit + 1);
        // A separator longer than an area cannot change what fits in one.
        if (!em::objectLocation(objType, nexusText, bounded(separator, EVTMSG_TEXT_SIZE), &texts))
            return 5;
        copyText(texts.location1, location1);
        copyText(texts.location2, location2);
        copyText(texts.displayName, displayName);
        copyText(texts.detail, detail);
        return 0;
    } catch (const std::bad_alloc &) {
        for (char *area : areas)
            clear(area);
        return 5;
    }
}

// The extended description of eventId with its markers replaced, cut to
// EVTMSG_DESCRIPTION_SIZE - 1 bytes, and its message id, from the served
// catalogue; a null area is skipped, a null `inserts` is no inserts. The
// object type does not change the texts. Status as evtmsg_getAlertMsg.
uint32_t getEEMItrap(uint32_t /*objType*/, uint32_t insertCount, uint32_t eventId,
                     char *const *inserts, char *description, char *messageId)
{
    clear(description);
    clear(messageId);
    try {
        namespace em = kelp::rt::evtmsg;
        const FoundAlert found = findAlert(eventId);
        if (found.alert == nullptr)
            return 5;
        const em::Alert &alert = *found.alert;
        if (description != nullptr) {
            const std::string text = em::expandText(alert.description, eventId, insertCount,
                                                    inserts, EVTMSG_DESCRIPTION_SIZE);
            kelp::rt::copyToBuffer(text, description, EVTMSG_DESCRIPTION_SIZE);
        }
        copyText(alert.messageId, messageId);
        return found.known ? 0 : 2;
    } catch (const std::bad_alloc &) {
        clear(description);
        clear(messageId);
        return 5;
    }
}

// The management web address: the served model's `url` attribute. 0 with the
// text and *size = its bytes with the NUL; 2 (url emptied when it has room)
// when no model is served or it names no address; 16 and the size needed
// when it does not fit; 5 for null arguments.
uint32_t evtmsg_getPrylUrl(char *url, uint32_t *size)
{
    if (url == nullptr || size == nullptr)
        return 5;
    std::string address;
    if (!kelp::ds::storageAttribute("url", &address) || address.empty()) {
        if (*size > 0)
            clear(url);
        return 2;
    }
    const size_t needed = address.size() + 1;
    if (needed > *size) {
        *size = static_cast<uint32_t>(needed);
        return 16;
    }
    std::memcpy(url, address.c_str(), needed);
    *size = static_cast<uint32_t>(needed);
    return 0;
}

} // extern "C"
