// How long a request may wait for the plug-in's tables' lock, per thread.
// The main loop never waits: it only tries, and hands a request whose lock
// is held to the worker. The worker waits until the request's deadline, and
// after one lock time-out only tries for the rest of that request.
#ifndef KELP_AGENT_SNMP_BUDGET_H
#define KELP_AGENT_SNMP_BUDGET_H

#include <chrono>

#include "snmp/resolve.h"

namespace kelp::agent {

class LockBudget {
  public:
    using Clock = std::chrono::steady_clock;

    // For the calling thread until destruction: plug-in calls through
    // withLockBudget() wait for the lock until `deadline` (a deadline in
    // the past: they only try). The thread's earlier budget comes back
    // afterwards.
    explicit LockBudget(Clock::time_point deadline);
    ~LockBudget();
    LockBudget(const LockBudget &) = delete;
    LockBudget &operator=(const LockBudget &) = delete;

    // A budget that only tries.
    static LockBudget tryOnly() { return LockBudget(Clock::time_point::min()); }

    struct State {
        Clock::time_point deadline;
        bool timedOut = false;
        // The runtime's count of this thread's lock time-outs as last seen.
        unsigned long timeouts = 0;
        // The bound last handed to the runtime for this thread, if any.
        bool limitSet = false;
        long limit = -1;
    };

  private:
    State state_;
    State *saved_;
};

// `plugin` within the calling thread's LockBudget (without one, the
// plug-in waits as it asks). A call that failed with genErr because a lock
// wait ran out answers kStatusLockTimeOut instead, and from then on the
// budget only tries. The runtime is told the thread's bound only when it
// changes, and it is lifted again when the budget ends.
Dispatch withLockBudget(Dispatch plugin);

} // namespace kelp::agent

#endif // KELP_AGENT_SNMP_BUDGET_H
