// test_spy.cc - test-only definitions of the support-library functions that
// mpi/ calls, forwarding to libkelpruntime.so (see test_spy.h).
#include "testing/test_spy.h"

#include <dlfcn.h>

#include <cstdlib>

#include "platform/vcsupt.h"

namespace kelp::testspy {

Record &spy()
{
    static Record record;
    return record;
}

void reset()
{
    spy() = Record{};
}

namespace {

template <typename Fn> Fn next(const char *name)
{
    void *symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr)
        std::abort();
    return reinterpret_cast<Fn>(symbol);
}

} // namespace
} // namespace kelp::testspy

using kelp::testspy::next;
using kelp::testspy::spy;

extern "C" void *SMAllocMem(uint32_t size)
{
    static auto real = next<void *(*)(uint32_t)>("SMAllocMem");
    auto &s = spy();
    if (s.failAllocationsAfter == 0)
        return nullptr;
    if (s.failAllocationsAfter > 0)
        --s.failAllocationsAfter;
    ++s.allocations;
    s.lastAllocSize = size;
    return real(size);
}

extern "C" void SMFreeMem(void *p)
{
    static auto real = next<void (*)(void *)>("SMFreeMem");
    if (p != nullptr) {
        ++spy().frees;
        spy().lastFreed = p;
    }
    real(p);
}

extern "C" uint32_t SMXLTTypeValueToUTF8(const void *value, uint32_t valueSize, char *out,
                                         uint32_t *outSize, uint32_t typeCode)
{
    static auto real = next<uint32_t (*)(const void *, uint32_t, char *, uint32_t *, uint32_t)>(
        "SMXLTTypeValueToUTF8");
    spy().lastToUTF8Type = typeCode;
    return real(value, valueSize, out, outSize, typeCode);
}

extern "C" uint32_t SMXLTUTF8ToTypeValue(const char *text, void *value, uint32_t *size,
                                         uint32_t typeCode)
{
    static auto real =
        next<uint32_t (*)(const char *, void *, uint32_t *, uint32_t)>("SMXLTUTF8ToTypeValue");
    spy().lastFromUTF8Type = typeCode;
    return real(text, value, size, typeCode);
}
