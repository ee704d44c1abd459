// The rescan bookkeeping of the event interface (eventif/rescan_watch.h).
#include "eventif/rescan_watch.h"

#include "control/commands.h"

namespace kelp::ev {

RescanWatch::Verdict RescanWatch::onEvent(uint32_t eventId, Clock::time_point now)
{
    if (eventId == ctl::kRescanStartedEvent) {
        const bool nested = openSince_.has_value();
        openSince_ = now;
        closedByExpiry_ = false;
        return nested ? Verdict::kDropNested : Verdict::kHandOut;
    }
    if (eventId != ctl::kRescanCompletedEvent)
        return Verdict::kHandOut;
    if (openSince_) {
        openSince_.reset();
        return Verdict::kHandOut;
    }
    // Only the first 3060 after an expiry can be the late one of that rescan.
    const bool late = closedByExpiry_;
    closedByExpiry_ = false;
    return late ? Verdict::kDropLate : Verdict::kDropStray;
}

bool RescanWatch::expire(Clock::time_point now, Clock::duration timeout)
{
    if (!openSince_ || now - *openSince_ < timeout)
        return false;
    openSince_.reset();
    closedByExpiry_ = true;
    return true;
}

} // namespace kelp::ev
