// The worker thread and the hand-over of its jobs.
#include "snmp/delegate.h"

#include <chrono>
#include <new>
#include <optional>
#include <utility>

namespace kelp::agent {

Delegator::Delegator(size_t maxJobs, Waker waker)
    : maxJobs_(maxJobs), waker_(std::move(waker)), worker_([this] { serve(); })
{
}

Delegator::~Delegator()
{
    stop();
}

bool Delegator::submit(Job &&job)
{
    {
        std::lock_guard lock(mutex_);
        if (stopping_ || queued_.size() + running_ + finished_.size() >= maxJobs_) {
            return false;
        }
        queued_.push_back(std::move(job));
    }
    wake_.notify_one();
    return true;
}

void Delegator::runFinished()
{
    // The main loop calls this on every turn; most turns find nothing, and
    // a deque allocates even when it is empty.
    std::optional<std::deque<Job>> done;
    {
        std::lock_guard lock(mutex_);
        if (finished_.empty()) {
            return;
        }
        try {
            done.emplace();
        } catch (const std::bad_alloc &) {
            return; // the jobs wait for a later turn
        }
        done->swap(finished_);
    }
    for (Job &job : *done) {
        job.finish(job.ran);
    }
}

void Delegator::stop()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (worker_.joinable()) {
        worker_.join();
    }
    // The worker has ended and submit() refuses from now on, so the jobs
    // left are this thread's: the finished ones, then the queued ones as not
    // run. They are taken one at a time, since stop() runs from a destructor
    // and may run because memory is short: it allocates nothing.
    for (;;) {
        Job job;
        {
            std::lock_guard lock(mutex_);
            std::deque<Job> &left = !finished_.empty() ? finished_ : queued_;
            if (left.empty()) {
                break;
            }
            job = std::move(left.front());
            left.pop_front();
        }
        job.finish(job.ran);
    }
}

void Delegator::serve()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !queued_.empty(); });
        if (stopping_) {
            return; // the queued jobs are stop()'s to drop
        }
        Job job = std::move(queued_.front());
        queued_.pop_front();
        running_++;
        lock.unlock();
        try {
            job.work();
            job.ran = true;
        } catch (const std::bad_alloc &) {
            // Finished as not run: its requests are answered genErr.
        }
        lock.lock();
        running_--;
        // Every job is finished, so the worker waits for the memory to
        // hand it back.
        for (;;) {
            try {
                finished_.push_back(std::move(job));
                break;
            } catch (const std::bad_alloc &) {
                lock.unlock();
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                lock.lock();
            }
        }
        lock.unlock();
        waker_();
        lock.lock();
    }
}

} // namespace kelp::agent
