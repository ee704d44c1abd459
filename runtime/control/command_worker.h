// The thread on which the control socket runs the commands that change the
// model: one at a time, in the order their lines were read, while the
// serving thread goes on reading, answering and accepting every other
// client. A load of a large model file then delays nobody but the changes
// queued after it.
#ifndef KELP_RUNTIME_CONTROL_COMMAND_WORKER_H
#define KELP_RUNTIME_CONTROL_COMMAND_WORKER_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "control/commands.h"

namespace kelp::ctl {

// The answer of a command handed to the worker, shared by the connection
// waiting for it and the worker. Once done() is true, text() is final.
class PendingAnswer {
  public:
    bool done() const { return done_.load(std::memory_order_acquire); }
    // The answer text (answerLine's form), or nullopt when the command could
    // not be run for want of memory (the connection is then dropped without
    // "ok", so its client knows the command may not have run).
    const std::optional<std::string> &text() const { return text_; }

  private:
    friend class CommandWorker;
    std::optional<std::string> text_; // written by the worker before done_
    std::atomic<bool> done_{false};
};

// The error of a command the worker did not run because the host stops.
inline constexpr const char *kStoppingRefusal = "the agent is stopping: the command did not run";

class CommandWorker {
  public:
    // Starts the thread. Each time a command is done, the worker adds 1 to
    // the eventfd doneFd (the caller's, open until the worker is destroyed),
    // so that a thread polling it wakes up. Throws std::system_error when no
    // thread can be started.
    explicit CommandWorker(int doneFd);

    // stop()
    ~CommandWorker();

    // Lets a command that is running end, answers those not yet started
    // and any submitted later with kStoppingRefusal, and joins the thread.
    // Safe to call more than once.
    void stop();

    CommandWorker(const CommandWorker &) = delete;
    CommandWorker &operator=(const CommandWorker &) = delete;

    // At most this many commands wait (the one running not counted). A
    // command keeps its place when its client leaves, so without a bound
    // clients that send and hang up could queue work and memory without end.
    static constexpr size_t kMaxWaiting = 64;

    // Queues a checked request (from prepareLine) behind those already
    // queued; nullptr, queueing nothing, when kMaxWaiting wait already. May
    // throw std::bad_alloc; nothing is queued then.
    std::shared_ptr<const PendingAnswer> submit(Request request);

  private:
    struct Job {
        Request request;
        std::shared_ptr<PendingAnswer> answer;
    };

    void run();
    // Makes `answer` done with `text` and wakes the serving thread.
    void finish(PendingAnswer &answer, std::optional<std::string> text);

    const int doneFd_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> jobs_;  // guarded by mutex_
    bool stopping_ = false; // guarded by mutex_
    std::thread thread_;
};

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_COMMAND_WORKER_H
