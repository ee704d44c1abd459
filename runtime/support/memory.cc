// SMAllocMem / SMFreeMem: the framework's allocator is the C heap, so memory
// from either side may be released by the other's free().
#include <cstdlib>

#include "vcsupt.h"

extern "C" {

void *SMAllocMem(uint32_t size)
{
    // A zero-byte request still answers a distinct block, as callers test for null.
    return std::malloc(size != 0 ? size : 1);
}

void SMFreeMem(void *p)
{
    std::free(p);
}

} // extern "C"
