// The event-message catalogue with its final signatures. Not available yet:
// the catalogue file is a later piece of work, so every call answers 5 and
// leaves empty texts in the areas it was given.
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

// Not available yet: 5 and *size = 0; the url area is emptied when it has room.
uint32_t evtmsg_getPrylUrl(char *url, uint32_t *size)
{
    if (size != nullptr) {
        if (*size > 0)
            clear(url);
        *size = 0;
    }
    return 5;
}

} // extern "C"
