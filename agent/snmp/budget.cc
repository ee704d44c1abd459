// Lock budgets: a thread-local deadline applied through the runtime's bound
// on lock waits (kelpRuntimeSetLockWaitLimit).
#include "snmp/budget.h"

#include <algorithm>
#include <utility>

#include "kelp/runtime.h"
#include "platform/smsnmp.h"

namespace kelp::agent {

namespace {

using Clock = LockBudget::Clock;

thread_local LockBudget::State *t_budget = nullptr;

// The runtime's bound for the next lock wait: none without a budget.
long waitLimitMs()
{
    if (t_budget == nullptr) {
        return -1;
    }
    if (t_budget->timedOut) {
        return 0;
    }
    const Clock::time_point now = Clock::now();
    if (t_budget->deadline <= now) {
        return 0;
    }
    return static_cast<long>(
        std::chrono::ceil<std::chrono::milliseconds>(t_budget->deadline - now).count());
}

} // namespace

LockBudget::LockBudget(Clock::time_point deadline)
    : state_{deadline, false}, saved_(std::exchange(t_budget, &state_))
{
}

LockBudget::~LockBudget()
{
    t_budget = saved_;
}

Dispatch withLockBudget(Dispatch plugin)
{
    return [plugin = std::move(plugin)](uint32_t command, void *in, uint32_t inSize, void *out,
                                        uint32_t outSize, uint32_t *outUsed) -> uint32_t {
        kelpRuntimeSetLockWaitLimit(waitLimitMs());
        const unsigned long before = kelpRuntimeLockTimeouts();
        const uint32_t status = plugin(command, in, inSize, out, outSize, outUsed);
        kelpRuntimeSetLockWaitLimit(-1);
        if (kelpRuntimeLockTimeouts() != before) {
            if (t_budget != nullptr) {
                t_budget->timedOut = true;
            }
            if (status == SM_SNMP_GENERR) {
                return kStatusLockTimeOut;
            }
        }
        return status;
    };
}

} // namespace kelp::agent
