#include "testing/failing_new.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local size_t t_countdown = 0;
std::atomic<size_t> g_failingSize{0};
std::atomic<size_t> g_failed{0};

bool armedFor(size_t bytes)
{
    if (t_countdown > 0 && --t_countdown == 0) {
        return true;
    }
    const size_t failing = g_failingSize.load(std::memory_order_relaxed);
    return failing != 0 && bytes == failing;
}

void *allocate(size_t bytes)
{
    if (armedFor(bytes)) {
        g_failed.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    return std::malloc(bytes == 0 ? 1 : bytes);
}

void *allocateOrThrow(size_t bytes)
{
    void *p = allocate(bytes);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

} // namespace

namespace kelp::test {

void failNthAllocation(size_t count)
{
    t_countdown = count;
}

void failAllocationsOf(size_t bytes)
{
    g_failingSize.store(bytes, std::memory_order_relaxed);
}

size_t failedAllocations()
{
    return g_failed.load(std::memory_order_relaxed);
}

} // namespace kelp::test

// Every form but the aligned ones, which keep the library's own new and
// delete as a pair.
void *operator new(size_t bytes)
{
    return allocateOrThrow(bytes);
}

void *operator new[](size_t bytes)
{
    return allocateOrThrow(bytes);
}

void *operator new(size_t bytes, const std::nothrow_t &) noexcept
{
    return allocate(bytes);
}

void *operator new[](size_t bytes, const std::nothrow_t &) noexcept
{
    return allocate(bytes);
}

void operator delete(void *p) noexcept
{
    std::free(p);
}

void operator delete[](void *p) noexcept
{
    std::free(p);
}

void operator delete(void *p, size_t) noexcept
{
    std::free(p);
}

void operator delete[](void *p, size_t) noexcept
{
    std::free(p);
}

void operator delete(void *p, const std::nothrow_t &) noexcept
{
    std::free(p);
}

void operator delete[](void *p, const std::nothrow_t &) noexcept
{
    std::free(p);
}
