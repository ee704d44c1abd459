// The rescan bookkeeping of the event interface: which rescan started event
// (3061) is still open, and what becomes of a rescan completed event (3060).
// The plug-in holds its tables' lock from a 3061 until the next 3060, so a
// 3061 left open would wedge every request, and a 3060 that closes nothing
// would end the next rescan early. A 3061 while one is open would be taken
// as a rescan of its own once the open one ends, which no 3060 would end. Runtime-private; not
// thread-safe (the event interface keeps one under its reader lock).
#ifndef KELP_RUNTIME_EVENTIF_RESCAN_WATCH_H
#define KELP_RUNTIME_EVENTIF_RESCAN_WATCH_H

#include <chrono>
#include <cstdint>
#include <optional>

namespace kelp::ev {

class RescanWatch {
  public:
    using Clock = std::chrono::steady_clock;

    enum class Verdict {
        kHandOut,    // hand the event out
        kDropStray,  // a 3060 while no rescan is open, and none was closed by expire()
        kDropLate,   // the first 3060 after expire() closed its rescan
        kDropNested, // a 3061 while a rescan is open
    };

    // What to do with a queued event about to be handed out at `now`. A
    // 3061 opens a rescan (or, while one is open, starts its time-out again
    // and is dropped); a 3060 closes the open rescan, and is dropped when
    // none is open; any other event is handed out and changes nothing.
    Verdict onEvent(uint32_t eventId, Clock::time_point now);

    // Whether the open rescan has been open for `timeout` or more at `now`;
    // if so it is closed here, and the caller hands out a 3060 in its place.
    bool expire(Clock::time_point now, Clock::duration timeout);

    // Whether a rescan is open, and since when.
    bool open() const { return openSince_.has_value(); }
    Clock::time_point openSince() const { return openSince_.value_or(Clock::time_point()); }

  private:
    std::optional<Clock::time_point> openSince_;
    bool closedByExpiry_ = false; // the last rescan was closed by expire()
};

} // namespace kelp::ev

#endif // KELP_RUNTIME_EVENTIF_RESCAN_WATCH_H
