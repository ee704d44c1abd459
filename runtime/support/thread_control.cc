// The control block behind stop-aware waits (see thread_control.h for the
// locking protocol that rules out a lost wake-up).
#include "support/thread_control.h"

namespace kelp::rt {
namespace {

// Owned jointly by the thread and its SMThreadRec; set by the thread entry.
thread_local std::shared_ptr<ThreadControl> t_control;

} // namespace

void ThreadControl::requestStop()
{
    stop_.store(true, std::memory_order_seq_cst);
    std::lock_guard registry(registryMutex_);
    if (waitingCv_ == nullptr)
        return; // the next wait sees the flag
    {
        // Taking the waited mutex orders the flag before the waiter's next test:
        // either it has not tested yet and will see the flag, or it is already
        // inside the cv wait and the notify below reaches it.
        std::lock_guard waited(*waitingMutex_);
    }
    // The registry lock keeps the pair alive: the waiter deregisters under it.
    waitingCv_->notify_all();
}

ThreadControl *currentThreadControl()
{
    return t_control.get();
}

void setCurrentThreadControl(std::shared_ptr<ThreadControl> control)
{
    t_control = std::move(control);
}

StopAwareWait::StopAwareWait(std::condition_variable &cv, std::mutex &mutex)
    : control_(currentThreadControl())
{
    if (control_ == nullptr)
        return;
    std::lock_guard registry(control_->registryMutex_);
    control_->waitingCv_ = &cv;
    control_->waitingMutex_ = &mutex;
}

StopAwareWait::~StopAwareWait()
{
    if (control_ == nullptr)
        return;
    std::lock_guard registry(control_->registryMutex_);
    control_->waitingCv_ = nullptr;
    control_->waitingMutex_ = nullptr;
}

} // namespace kelp::rt
