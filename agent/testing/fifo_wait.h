// Tests of readers that must not wait on a FIFO named as their file.
#ifndef KELP_AGENT_TESTING_FIFO_WAIT_H
#define KELP_AGENT_TESTING_FIFO_WAIT_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace kelp::agent {

// Calls `read` on a FIFO made at `path`; true when it came back by itself,
// false when it waited for a writer (one opens and closes the FIFO after 3 s
// to end the wait).
template <typename Read> inline bool returnsWithoutAWriter(const std::string &path, Read read)
{
    if (mkfifo(path.c_str(), 0600) != 0) {
        ADD_FAILURE() << "mkfifo " << path;
        return false;
    }
    std::atomic<bool> returned{false};
    std::atomic<bool> waited{false};
    std::thread writer([&] {
        for (int i = 0; i < 30 && !returned; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (!returned) {
            waited = true;
            const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) {
                close(fd);
            }
        }
    });
    read();
    returned = true;
    writer.join();
    return !waited;
}

} // namespace kelp::agent

#endif // KELP_AGENT_TESTING_FIFO_WAIT_H
