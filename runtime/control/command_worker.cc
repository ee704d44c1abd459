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

namespace {

std::optional<std::string> stoppingAnswer()
{
    try {
        Reply reply;
        reply.fail(kStoppingRefusal);
        return formatReply(reply);
    } catch (const std::bad_alloc &) {
        return std::nullopt; // dropped without "ok": the client knows no more
    }
}

} // namespace

CommandWorker::~CommandWorker()
{
    stop();
}

void CommandWorker::stop()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable())
        thread_.join();
}

void CommandWorker::finish(PendingAnswer &answer, std::optional<std::string> text)
{
    answer.text_ = std::move(text);
    answer.done_.store(true, std::memory_order_release);
    const uint64_t one = 1;
    // An eventfd write fails only when its counter would overflow, and
    // then the server is awake anyway.
    if (write(doneFd_, &one, sizeof one) < 0)
        kelp::rt::logWarning("control socket: cannot wake the serving thread: %s",
                             rt::errnoText(errno).c_str());
}

std::shared_ptr<const PendingAnswer> CommandWorker::submit(Request request)
{
    auto answer = std::make_shared<PendingAnswer>();
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            finish(*answer, stoppingAnswer());
            return answer;
        }
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
            if (stopping_) {
                // The commands not started are refused, each with its answer.
                for (Job &waiting : jobs_)
                    finish(*waiting.answer, stoppingAnswer());
                jobs_.clear();
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        std::optional<std::string> text;
        try {
            text = formatReply(runCommand(job.request));
        } catch (const std::bad_alloc &) {
            text.reset();
        }
        finish(*job.answer, std::move(text));
    }
}

} // namespace kelp::ctl
