// The live source: the data store's second supplier beside model files. It
// scans the machine under a root, serves the result through the same store
// the plug-in queries, and rescans on a period and at once on udev events,
// turning what changed into storage events for the event monitor.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_LIVE_SOURCE_H
#define KELP_RUNTIME_DATASTORE_LIVE_LIVE_SOURCE_H

#include <cstdint>
#include <string>
#include <vector>

namespace kelp::live {

struct LiveOptions {
    std::string root = "/";
    double intervalSeconds = 30;
    bool udev = true; // listen to device events where the root is "/"
    // Tests: a descriptor to poll in place of udev's (any root); each time it
    // becomes readable counts as a burst of device events.
    int eventFdForTesting = -1;
    // A drive's health answer stands this long before a rescan asks again
    // (0: every rescan); a rescan asked for (SIGHUP, kelpctl) always asks.
    double healthIntervalSeconds = 300;
};

// Scans once, serves the result and starts the rescan thread. False with
// *error when the root cannot be used (missing, not a directory) or a live
// source already runs; the store is then as it was.
bool startLive(const LiveOptions &options, std::string *error);

// Stops the rescan thread. The model served last stays served.
void stopLive();

// Asks for a rescan now (SIGHUP, kelpctl rescan); it runs on the live
// source's thread. False when no live source runs.
bool requestLiveRescan();

struct LiveStatus {
    bool running = false;
    std::string root;
    std::string components; // where enclosure components came from
    bool udev = false;      // device events start rescans
    std::string events;     // their source: "udev" (udevd), "kernel" (no udevd), "test"
    uint64_t scans = 0;
    double lastScanMs = 0;
    std::vector<std::string> notes; // of the last scan
};
LiveStatus liveStatus();

// Runs one rescan on the caller's thread (tests, benchmarks): scan, compare,
// swap in, queue events. False when no live source was started.
bool rescanNowForTesting();

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_LIVE_SOURCE_H
