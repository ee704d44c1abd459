// The instrumentation object layer with its final signatures. Not available
// yet: the chassis and base-board objects come from the storage model (or
// DMI) in a later piece of work, so no object is found for now.
#include <cstdlib>

#include "vcsgen.h"

extern "C" {

// Not available yet: no children, null.
SMILObjIDList *SMILListChildOIDByType(const SMILObjID * /*parent*/, uint16_t /*objType*/)
{
    return nullptr;
}

// Not available yet: no object, null.
void *SMILGetObjByOID(const SMILObjID * /*id*/)
{
    return nullptr;
}

// Lists and objects are heap blocks; null is ignored.
void SMILFreeGeneric(void *p)
{
    std::free(p);
}

} // extern "C"
