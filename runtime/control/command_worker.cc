// The control socket's thread for commands that change the model (see
// command_worker.h).
#include "control/command_worker.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include "support/errno_text.h"
#include "support/log.h"

namespace kelp::ctl {

CommandWorker::CommandWorker(int doneFd) : doneFd_(doneFd)
{
    thread_ = std::thread([this] { run(); });
}

CommandWorker::~CommandWorker()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

std::shared_ptr<const PendingAnswer> CommandWorker::submit(Request request)
{
    auto answer = std::make_shared<PendingAnswer>();
    {
        std::lock_guard lock(mutex_);
        if (jobs_.size() >= kMaxWaiting)
            return nullptr;
        jobs_.push_back(Job{std::move(request), answer});
    }
    wake_.notify_one();
    return answer;
}

void CommandWorker::run()
{
    while (true) {
        Job job;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_)
                return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        try {
            job.answer->text_ = formatReply(runCommand(job.request));
        } catch (const std::bad_alloc &) {
            job.answer->text_.reset();
        }
        job.answer->done_.store(true, std::memory_order_release);
        const uint64_t one = 1;
        // An eventfd write fails only when its counter would overflow, and
        // then the server is awake anyway.
        if (write(doneFd_, &one, sizeof one) < 0)
            kelp::rt::logWarning("control socket: cannot wake the serving thread: %s",
                                 rt::errnoText(errno).c_str());
    }
}

} // namespace kelp::ctl
