// The event-message catalogue. The management address comes from the served
// model. The alert and location texts are not available yet: the catalogue
// file is a later piece of work, so those calls answer 5 and leave empty
// texts in the areas they were given.
#include <cstring>
#include <string>

#include "datastore/model_store.h"
#include "evtmsg.h"

namespace {

void clear(char *area)
{
    if (area != nullptr)
        area[0] = '\0';
}

} // namespace

extern "C" {

// Not available yet: 5, empty level and message.
uint32_t evtmsg_getAlertMsg(uint32_t /*eventId*/, char *level, char *message,
                            uint32_t /*insertCount*/, char *const * /*inserts*/)
{
    clear(level);
    clear(message);
    return 5;
}

// Not available yet: 5, all four areas empty.
uint32_t evtmsg_getObjLocationStrings(uint32_t /*objType*/, const char * /*nexus*/,
                                      const char * /*separator*/, const char * /*language*/,
                                      char *location1, char *location2, char *displayName,
                                      char *detail, uint32_t /*reserved*/)
{
    clear(location1);
    clear(location2);
    clear(displayName);
    clear(detail);
    return 5;
}

// Not available yet: 5, empty description and message id.
uint32_t getEEMItrap(uint32_t /*objType*/, uint32_t /*insertCount*/, uint32_t /*eventId*/,
                     char *const * /*inserts*/, char *description, char *messageId)
{
    clear(description);
    clear(messageId);
    return 5;
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
