// See burst.h.
#include "datastore/live/burst.h"

#include <poll.h>

namespace kelp::live {

int waitForQuiet(int fd, const std::function<void()> &drain, std::chrono::milliseconds quiet,
                 std::chrono::milliseconds longest, const std::atomic<bool> &stop)
{
    using Clock = std::chrono::steady_clock;
    const auto giveUp = Clock::now() + longest;
    int drains = 0;
    while (!stop.load()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(giveUp - Clock::now());
        if (left.count() <= 0)
            break;
        pollfd p{fd, POLLIN, 0};
        const int wait = static_cast<int>(std::min(quiet, left).count());
        if (poll(&p, 1, wait) <= 0 || !(p.revents & POLLIN))
            break; // quiet for long enough, or the descriptor failed
        drain();
        ++drains;
    }
    return drains;
}

} // namespace kelp::live
