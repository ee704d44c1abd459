// Stop-aware waiting: each thread started with SMThreadStart has a control
// block through which SMThreadStop cuts its Sleep and finite SMEventWait short.
// No polling: a waiting thread records the condition variable and mutex it
// waits on, and the stopper notifies exactly that pair.
#ifndef KELP_RUNTIME_SUPPORT_THREAD_CONTROL_H
#define KELP_RUNTIME_SUPPORT_THREAD_CONTROL_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace kelp::rt {

class ThreadControl {
  public:
    bool stopRequested() const { return stop_.load(std::memory_order_seq_cst); }

    // Sets the stop flag and wakes the wait the thread is in, if any. From then
    // on every stop-aware wait of the thread returns at once.
    void requestStop();

    // The pair a thread sleeps on (Sleep has no object of its own to wait on).
    std::mutex sleepMutex;
    std::condition_variable sleepCv;

  private:
    friend class StopAwareWait;
    std::atomic<bool> stop_{false};
    std::mutex registryMutex_;
    std::condition_variable *waitingCv_ = nullptr; // guarded by registryMutex_
    std::mutex *waitingMutex_ = nullptr;           // guarded by registryMutex_
};

// The calling thread's control block; null on threads that SMThreadStart did
// not start (their waits are never cut short).
ThreadControl *currentThreadControl();

// Installs the control block of the calling thread (done by the thread entry).
void setCurrentThreadControl(std::shared_ptr<ThreadControl> control);

// Registers (cv, mutex) as the wait of the calling thread for its lifetime.
// Construct it BEFORE locking `mutex` and destroy it after unlocking: the
// stopper takes the registry lock and then `mutex`, so the waiter must never
// hold `mutex` while it takes the registry lock. Inside the wait, test
// stopping() with `mutex` held before each cv wait; then a stop request can
// never fall between the test and the wait.
class StopAwareWait {
  public:
    StopAwareWait(std::condition_variable &cv, std::mutex &mutex);
    ~StopAwareWait();
    StopAwareWait(const StopAwareWait &) = delete;
    StopAwareWait &operator=(const StopAwareWait &) = delete;

    bool stopping() const { return control_ != nullptr && control_->stopRequested(); }

  private:
    ThreadControl *control_;
};

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_THREAD_CONTROL_H
