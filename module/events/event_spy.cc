// Definitions that interpose on the runtime's: see event_spy.h.
#include "events/event_spy.h"

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

#include "platform/os.h"
#include "platform/vcsif.h"

namespace {

constexpr int64_t kClockStart = 1700000000;

std::mutex g_lock;
std::condition_variable g_trapArrived;
std::vector<eventspy::Trap> g_traps;
std::function<void(const eventspy::Trap &)> g_trapHook;
std::function<void(uint32_t)> g_wakeUpHook;
std::vector<uint32_t> g_getEventCalls;
// A multiset: the runtime reclaims texts the monitor keeps, so a later text
// may be handed out at the address of one still counted here.
std::multiset<char *> g_outstanding;
std::atomic<uint32_t> g_tickSleeps;
std::atomic<uint32_t> g_wakeUps;

template <typename Fn> Fn realFunction(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace eventspy {

uint32_t recordTrap(uint64_t, const SMSnmpOID *, uint32_t generic, uint32_t specific,
                    uint32_t bindingCount, SMSnmpValue *bindings)
{
    Trap trap;
    trap.generic = generic;
    trap.specific = specific;
    if (bindingCount > 0 && bindings != nullptr && bindings[0].type == SM_ASN_INTEGER) {
        trap.eventId = bindings[0].value;
        trap.eventIdBound = true;
    }
    trap.wakeUps = g_wakeUps;
    std::function<void(const Trap &)> hook;
    {
        std::lock_guard lock(g_lock);
        hook = g_trapHook;
    }
    if (hook) {
        hook(trap);
    }
    {
        std::lock_guard lock(g_lock);
        g_traps.push_back(trap);
    }
    g_trapArrived.notify_all();
    return 0;
}

void onTrap(std::function<void(const Trap &)> hook)
{
    std::lock_guard lock(g_lock);
    g_trapHook = std::move(hook);
}

std::vector<Trap> traps()
{
    std::lock_guard lock(g_lock);
    return g_traps;
}

std::vector<Trap> waitForTraps(size_t n)
{
    std::unique_lock lock(g_lock);
    g_trapArrived.wait_for(lock, std::chrono::minutes(1), [n] { return g_traps.size() >= n; });
    return g_traps;
}

uint32_t tickSleeps()
{
    return g_tickSleeps;
}

uint32_t wakeUps()
{
    return g_wakeUps;
}

int64_t aggregationClock()
{
    return kClockStart + 55 * static_cast<int64_t>(g_wakeUps.load());
}

void onWakeUp(std::function<void(uint32_t)> hook)
{
    std::lock_guard lock(g_lock);
    g_wakeUpHook = std::move(hook);
}

std::vector<uint32_t> getEventCalls()
{
    std::lock_guard lock(g_lock);
    return g_getEventCalls;
}

size_t outstandingTexts()
{
    std::lock_guard lock(g_lock);
    return g_outstanding.size();
}

void releaseOutstanding()
{
    std::multiset<char *> texts;
    {
        std::lock_guard lock(g_lock);
        texts.swap(g_outstanding);
    }
    static auto real = realFunction<void (*)(char *)>("vcsif32_freeData");
    for (char *text : texts) {
        real(text);
    }
}

void reset()
{
    std::lock_guard lock(g_lock);
    g_traps.clear();
    g_trapHook = nullptr;
    g_wakeUpHook = nullptr;
    g_getEventCalls.clear();
    g_tickSleeps = 0;
    g_wakeUps = 0;
}

} // namespace eventspy

extern "C" void Sleep(uint32_t ms)
{
    static auto real = realFunction<void (*)(uint32_t)>("Sleep");
    real(ms);
    if (ms == 1000) {
        g_tickSleeps++;
    } else if (ms == 55000) {
        const uint32_t wakeUps = ++g_wakeUps;
        std::function<void(uint32_t)> hook;
        {
            std::lock_guard lock(g_lock);
            hook = g_wakeUpHook;
        }
        if (hook) {
            hook(wakeUps);
        }
    }
}

extern "C" char *vcsif32_getEvent(uint32_t count)
{
    static auto real = realFunction<char *(*)(uint32_t)>("vcsif32_getEvent");
    const uint32_t sleeps = g_tickSleeps;
    char *text = real(count);
    std::lock_guard lock(g_lock);
    g_getEventCalls.push_back(sleeps);
    if (text != nullptr) {
        g_outstanding.insert(text);
    }
    return text;
}

extern "C" void vcsif32_freeData(char *data)
{
    static auto real = realFunction<void (*)(char *)>("vcsif32_freeData");
    {
        std::lock_guard lock(g_lock);
        const auto found = g_outstanding.find(data);
        if (found != g_outstanding.end()) {
            g_outstanding.erase(found);
        }
    }
    real(data);
}
