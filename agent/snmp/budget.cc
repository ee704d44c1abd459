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
    if (t_budget->timedOut || t_budget->deadline == Clock::time_point::min()) {
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
    : state_{deadline, false, kelpRuntimeLockTimeouts()}, saved_(std::exchange(t_budget, &state_))
{
}

LockBudget::~LockBudget()
{
    t_budget = saved_;
    if (state_.limitSet) {
        const bool outer = saved_ != nullptr && saved_->limitSet;
        kelpRuntimeSetLockWaitLimit(outer ? saved_->limit : -1);
    }
}

Dispatch withLockBudget(Dispatch plugin)
{
    return [plugin = std::move(plugin)](uint32_t command, void *in, uint32_t inSize, void *out,
                                        uint32_t outSize, uint32_t *outUsed) -> uint32_t {
        LockBudget::State *budget = t_budget;
        if (budget == nullptr) {
            return plugin(command, in, inSize, out, outSize, outUsed);
        }
        const long limit = waitLimitMs();
        if (!budget->limitSet || budget->limit != limit) {
            kelpRuntimeSetLockWaitLimit(limit);
            budget->limitSet = true;
            budget->limit = limit;
        }
        const uint32_t status = plugin(command, in, inSize, out, outSize, outUsed);
        const unsigned long timeouts = kelpRuntimeLockTimeouts();
        if (timeouts != budget->timeouts) {
            budget->timeouts = timeouts;
            budget->timedOut = true;
            if (status == SM_SNMP_GENERR) {
                return kStatusLockTimeOut;
            }
        }
        return status;
    };
}

} // namespace kelp::agent
