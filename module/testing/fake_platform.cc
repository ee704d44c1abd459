// Definitions that interpose on the runtime's: see fake_platform.h.
#include "testing/fake_platform.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/vscil.h"

namespace {

std::mutex g_lock;
bool g_present = true;
std::string g_answer = "<Code>0</Code>";
int g_readyCalls = 0;
std::vector<SMThreadHandle> g_stops;
bool g_failUnlock = false;

template <typename Fn> Fn realFunction(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace fake {

void setDataStoreReadyAnswer(bool present, const std::string &xml)
{
    std::lock_guard lock(g_lock);
    g_present = present;
    g_answer = xml;
}

int dataStoreReadyCalls()
{
    std::lock_guard lock(g_lock);
    return g_readyCalls;
}

std::vector<SMThreadHandle> threadStops()
{
    std::lock_guard lock(g_lock);
    return g_stops;
}

void failNextUnlock()
{
    std::lock_guard lock(g_lock);
    g_failUnlock = true;
}

void reset()
{
    std::lock_guard lock(g_lock);
    g_present = true;
    g_answer = "<Code>0</Code>";
    g_readyCalls = 0;
    g_stops.clear();
    g_failUnlock = false;
}

} // namespace fake

extern "C" char *DataStoreReady(uint32_t *status)
{
    std::lock_guard lock(g_lock);
    g_readyCalls++;
    if (!g_present) {
        if (status != nullptr) {
            *status = VSCIL_STATUS_UNAVAILABLE;
        }
        return nullptr;
    }
    if (status != nullptr) {
        *status = 0;
    }
    return strdup(g_answer.c_str()); // freeMem releases it with free()
}

extern "C" uint32_t SMThreadStop(SMThreadHandle thread)
{
    {
        std::lock_guard lock(g_lock);
        g_stops.push_back(thread);
    }
    static auto real = realFunction<uint32_t (*)(SMThreadHandle)>("SMThreadStop");
    return real(thread);
}

extern "C" uint32_t SMMutexUnLock(SMMutexHandle mutex)
{
    static auto real = realFunction<uint32_t (*)(SMMutexHandle)>("SMMutexUnLock");
    const uint32_t status = real(mutex);
    std::lock_guard lock(g_lock);
    if (g_failUnlock) {
        g_failUnlock = false;
        return SM_STATUS_FAILURE;
    }
    return status;
}
