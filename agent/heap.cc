#include "heap.h"

#include <malloc.h>
#include <pthread.h>

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

size_t limitedThreadStack(rlim_t limit, size_t current)
{
    if (limit == RLIM_INFINITY || current <= kLimitedThreadStack) {
        return 0;
    }
    return kLimitedThreadStack;
}

namespace {

// The stack size threads take when started without attributes (std::thread
// included); 0 when glibc does not say.
size_t defaultThreadStack()
{
    pthread_attr_t attr;
    if (pthread_getattr_default_np(&attr) != 0) {
        return 0;
    }
    size_t size = 0;
    if (pthread_attr_getstacksize(&attr, &size) != 0) {
        size = 0;
    }
    pthread_attr_destroy(&attr);
    return size;
}

bool setDefaultThreadStack(size_t size)
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        return false;
    }
    const bool set =
        pthread_attr_setstacksize(&attr, size) == 0 && pthread_setattr_default_np(&attr) == 0;
    pthread_attr_destroy(&attr);
    return set;
}

} // namespace

bool heapRoomToStart(unsigned long *limitMiB) noexcept
{
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return true;
    }
    *limitMiB = static_cast<unsigned long>(limit.rlim_cur >> 20);
    void *volatile room = std::malloc(kStartHeap);
    if (room == nullptr) {
        return false;
    }
    std::free(room);
    return true;
}

std::string fitUnderAddressLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return "";
    }
    const bool oneHeap =
        shareOneHeap(limit.rlim_cur, std::getenv("GLIBC_TUNABLES")) && mallopt(M_ARENA_MAX, 1) == 1;
    const size_t stack = limitedThreadStack(limit.rlim_cur, defaultThreadStack());
    const bool smallStacks = stack != 0 && setDefaultThreadStack(stack);
    if (!oneHeap && !smallStacks) {
        return "";
    }
    std::string line =
        "address space limited to " + std::to_string(limit.rlim_cur >> 20) + " MiB (ulimit -v): ";
    if (oneHeap) {
        line += "the agent's threads share one heap";
    }
    if (smallStacks) {
        line += oneHeap ? " and take stacks of " : "the agent's threads take stacks of ";
        line += stack % (size_t{1} << 20) == 0 ? std::to_string(stack >> 20) + " MiB"
                                               : std::to_string(stack >> 10) + " KiB";
    }
    return line;
}

} // namespace kelp::agent
