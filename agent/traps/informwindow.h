// The informs a sink has sent and not yet seen acknowledged: each waits for
// the receiver's Response with its request-id, is sent again when none came
// within the timeout, and is given up after the last retry. A few may be
// under way at once, so that one lost inform does not hold up the next. It
// keeps time and request-ids only; the sink does the sending.
#ifndef KELP_AGENT_TRAPS_INFORMWINDOW_H
#define KELP_AGENT_TRAPS_INFORMWINDOW_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "traps/sinkqueue.h"

namespace kelp::agent {

struct InformPolicy {
    std::chrono::microseconds timeout{1000000}; // before each retry
    int retries = 5;                            // sends after the first
    size_t window = 8;                          // informs under way at once
};

class InformWindow {
  public:
    explicit InformWindow(InformPolicy policy) : policy_(policy) {}

    // No room for another inform until one is acknowledged or given up.
    bool full() const { return flying_.size() >= policy_.window; }
    bool empty() const { return flying_.empty(); }
    size_t size() const { return flying_.size(); }
    const InformPolicy &policy() const { return policy_; }

    // `message`, with `requestId`, was sent for the first time at `now`.
    // The caller checks full() first.
    void sent(SinkMessage message, int32_t requestId, SinkClock::time_point now);

    // The receiver acknowledged `requestId`: true when an inform under way
    // had it (it is done); false for a stray or repeated Response.
    bool acknowledge(int32_t requestId);

    struct Due {
        std::vector<SinkMessage> resend; // to send again now (counted as sent)
        std::vector<int> retry;          // the retry number of each (1 for the first)
        size_t givenUp = 0;              // dropped after their last retry
    };
    // The informs whose timeout has passed at `now`: each with retries left
    // is sent again (its next timeout starts now), the others are dropped.
    Due takeDue(SinkClock::time_point now);

    // When the next timeout passes; nullopt with nothing under way.
    std::optional<SinkClock::time_point> nextDeadline() const;

  private:
    struct Flying {
        SinkMessage message;
        int32_t requestId;
        int sends;
        SinkClock::time_point deadline;
    };

    InformPolicy policy_;
    std::vector<Flying> flying_; // in the order first sent
};

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_INFORMWINDOW_H
