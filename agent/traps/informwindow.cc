// Informs under way: timeouts, retries and acknowledgements.
#include "traps/informwindow.h"

#include <algorithm>
#include <utility>

namespace kelp::agent {

void InformWindow::sent(SinkMessage message, int32_t requestId, SinkClock::time_point now)
{
    flying_.push_back(Flying{std::move(message), requestId, 1, now + policy_.timeout});
}

bool InformWindow::acknowledge(int32_t requestId)
{
    const auto found = std::find_if(flying_.begin(), flying_.end(),
                                    [&](const Flying &f) { return f.requestId == requestId; });
    if (found == flying_.end()) {
        return false;
    }
    flying_.erase(found);
    return true;
}

InformWindow::Due InformWindow::takeDue(SinkClock::time_point now)
{
    Due due;
    std::vector<Flying> kept;
    kept.reserve(flying_.size());
    for (Flying &f : flying_) {
        if (now < f.deadline) {
            kept.push_back(std::move(f));
        } else if (f.sends <= policy_.retries) {
            due.resend.push_back(f.message);
            due.retry.push_back(f.sends);
            f.sends++;
            f.deadline = now + policy_.timeout;
            kept.push_back(std::move(f));
        } else {
            due.givenUp++;
        }
    }
    flying_ = std::move(kept);
    return due;
}

std::optional<SinkClock::time_point> InformWindow::nextDeadline() const
{
    std::optional<SinkClock::time_point> next;
    for (const Flying &f : flying_) {
        next = next ? std::min(*next, f.deadline) : f.deadline;
    }
    return next;
}

} // namespace kelp::agent
