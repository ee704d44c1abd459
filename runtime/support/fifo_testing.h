// Test helper: runs a call that must not block on a FIFO, and frees it if it
// does, so that a failing test still ends instead of hanging the suite.
#ifndef KELP_RUNTIME_SUPPORT_FIFO_TESTING_H
#define KELP_RUNTIME_SUPPORT_FIFO_TESTING_H

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>

// Runs call on a thread and answers whether it returned within a few
// seconds. A call stuck opening or reading the FIFO at fifo is set free by a
// writer that comes and goes until the call returns.
inline bool returnsPromptly(const std::string &fifo, const std::function<void()> &call)
{
    auto done = std::async(std::launch::async, call);
    if (done.wait_for(std::chrono::seconds(5)) == std::future_status::ready)
        return true;
    while (done.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
        int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0)
            close(fd);
    }
    return false;
}

#endif // KELP_RUNTIME_SUPPORT_FIFO_TESTING_H
