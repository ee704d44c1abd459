#include "heap.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>

namespace kelp::agent {

bool shareOneHeap(rlim_t limit, const char *tunables)
{
    if (limit == RLIM_INFINITY) {
        return false;
    }
    return tunables == nullptr || std::strstr(tunables, "glibc.malloc.arena_max") == nullptr;
}

std::string shareOneHeapUnderAddressLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) != 0 ||
        !shareOneHeap(limit.rlim_cur, std::getenv("GLIBC_TUNABLES")) ||
        mallopt(M_ARENA_MAX, 1) != 1) {
        return "";
    }
    return "address space limited to " + std::to_string(limit.rlim_cur >> 20) +
           " MiB (ulimit -v): the agent's threads share one heap";
}

} // namespace kelp::agent
