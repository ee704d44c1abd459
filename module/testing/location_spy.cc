#include "testing/location_spy.h"

#include <dlfcn.h>

#include <cstdlib>

namespace locationspy {

namespace {

// The status every call answers while a FailingService lives; 0: none does.
uint32_t g_failure = 0;

} // namespace

std::vector<LocationCall> &calls()
{
    static std::vector<LocationCall> recorded;
    return recorded;
}

FailingService::FailingService(uint32_t status)
{
    g_failure = status;
}

FailingService::~FailingService()
{
    g_failure = 0;
}

} // namespace locationspy

// Test-only: takes the place of the runtime's location-string service for
// the module objects linked into this program, records each call and
// forwards it.
extern "C" uint32_t evtmsg_getObjLocationStrings(uint32_t objType, const char *nexus,
                                                 const char *separator, const char *language,
                                                 char *location1, char *location2,
                                                 char *displayName, char *detail, uint32_t reserved)
{
    using Service = uint32_t (*)(uint32_t, const char *, const char *, const char *, char *, char *,
                                 char *, char *, uint32_t);
    static const auto real =
        reinterpret_cast<Service>(dlsym(RTLD_NEXT, "evtmsg_getObjLocationStrings"));
    if (real == nullptr) {
        std::abort();
    }
    locationspy::calls().push_back({objType, nexus != nullptr ? nexus : "(null)",
                                    separator != nullptr ? separator : "(null)",
                                    language != nullptr ? language : "(null)"});
    if (locationspy::g_failure != 0) {
        for (char *area : {location1, location2, displayName, detail}) {
            if (area != nullptr) {
                area[0] = '\0';
            }
        }
        return locationspy::g_failure;
    }
    return real(objType, nexus, separator, language, location1, location2, displayName, detail,
                reserved);
}
