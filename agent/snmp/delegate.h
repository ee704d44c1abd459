// Work that may wait, taken off the agent's main loop: a worker thread runs
// each job's work, and the main loop then runs its finish, so that only the
// main loop touches net-snmp. Jobs wait in a bounded queue and run in order.
// Free of net-snmp.
#ifndef KELP_AGENT_SNMP_DELEGATE_H
#define KELP_AGENT_SNMP_DELEGATE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kelp::agent {

class Delegator {
  public:
    struct Job {
        // On the worker thread.
        std::function<void()> work;
        // On the main loop, once: true after `work` ran, false when the job
        // was dropped unrun by stop() or its work ran out of memory
        // (std::bad_alloc).
        std::function<void(bool ran)> finish;
        // Set by the worker: whether `work` ran to its end.
        bool ran = false;
    };
    // Called from the worker after a job's work, with no lock held, so that
    // the main loop calls runFinished() soon.
    using Waker = std::function<void()>;

    // At most `maxJobs` jobs are queued or running at a time.
    Delegator(size_t maxJobs, Waker waker);
    // stop()
    ~Delegator();
    Delegator(const Delegator &) = delete;
    Delegator &operator=(const Delegator &) = delete;

    // Main loop: queues `job`. False (the job untouched) when maxJobs are
    // queued or running, or after stop(); std::bad_alloc (the job
    // untouched) when there is no memory to queue it.
    bool submit(Job &&job);

    // Main loop: runs the finish of every job whose work has run, in order.
    void runFinished();

    // Main loop: lets the running job's work end, joins the worker, and
    // finishes every job: those whose work ran with true, the rest with
    // false. Safe to call more than once.
    void stop();

  private:
    void serve();

    size_t maxJobs_;
    Waker waker_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> queued_;   // guarded by mutex_
    std::deque<Job> finished_; // guarded by mutex_
    size_t running_ = 0;       // guarded by mutex_
    bool stopping_ = false;    // guarded by mutex_
    std::thread worker_;
};

} // namespace kelp::agent

#endif // KELP_AGENT_SNMP_DELEGATE_H
