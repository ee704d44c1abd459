// Coalescing a burst of notifications (udev events of a hot-plug storm) into
// one: waits on a descriptor until it has been quiet for a while, draining
// what arrives, or until a longest wait has passed, so that a storm of
// thousands of events costs one rescan and a storm that never ends still
// lets one happen.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_BURST_H
#define KELP_RUNTIME_DATASTORE_LIVE_BURST_H

#include <atomic>
#include <chrono>
#include <functional>

namespace kelp::live {

// Waits until `fd` shows nothing to read for `quiet`, calling `drain` each
// time it does, for at most `longest` in all; returns early when `stop` is
// set. Answers the number of drains.
int waitForQuiet(int fd, const std::function<void()> &drain, std::chrono::milliseconds quiet,
                 std::chrono::milliseconds longest, const std::atomic<bool> &stop);

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_BURST_H
