// The data-store queries with their final signatures. Not available yet: the
// store that serves a storage model is a later piece of work, so every query
// answers "not available" (null, status 7) and the readiness check fails.
#include <cstdlib>

#include "vscil.h"

namespace {

char *unavailable(uint32_t *status)
{
    if (status != nullptr)
        *status = VSCIL_STATUS_UNAVAILABLE;
    return nullptr;
}

} // namespace

extern "C" {

// Not available yet: null, *status = 7.
char *DataStoreReady(uint32_t *status)
{
    return unavailable(status);
}

// Not available yet: null, *status = 7.
char *GetObjectList(uint32_t *status, const char * /*typeName*/)
{
    return unavailable(status);
}

// Not available yet: null, *status = 7.
char *GetSingleObject(uint32_t *status, uint32_t /*reserved*/, uint32_t /*objId*/)
{
    return unavailable(status);
}

// Not available yet: null, *status = 7.
char *GetAssociated(uint32_t *status, const char * /*kind*/, uint32_t /*objId*/)
{
    return unavailable(status);
}

// Not available yet: null, *status = 7.
char *GetAssociatedPhyDevCount(uint32_t *status, const char * /*kind*/, uint32_t /*objId*/)
{
    return unavailable(status);
}

// Not available yet: 0, the answer when there is no store.
uint32_t GetSmartThermalShutdownStatus(void)
{
    return 0;
}

// Answers of the queries are heap blocks (none are made yet); null is ignored.
void freeMem(char *xml)
{
    std::free(xml);
}

} // extern "C"
