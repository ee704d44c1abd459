// The operator's log line for one live rescan: why it ran, how long it took
// and what changed (objects per type before and after, the events queued).
#ifndef KELP_RUNTIME_DATASTORE_LIVE_RESCAN_LINE_H
#define KELP_RUNTIME_DATASTORE_LIVE_RESCAN_LINE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "datastore/model.h"

namespace kelp::live {

using TypeCounts = std::array<size_t, ds::kObjectTypeCount>; // in kObjectTypes order

struct RescanReport {
    std::string cause; // "every 30 s", "device events", "asked"
    double ms = 0;
    TypeCounts before{};
    TypeCounts after{};
    std::vector<uint32_t> events; // queued (or meant to be), in order
    std::string queueError;       // empty when they were queued
};

// Objects of each type in `model`.
TypeCounts countTypes(const ds::Model &model);

// True when the rescan found anything to report beyond its time.
bool rescanChanged(const RescanReport &report);

// "live rescan (CAUSE): 12.3 ms; nothing changed", or with what changed:
// "...; arraydisks 4 -> 3; events 3061, 3060, 2049 queued".
std::string rescanLine(const RescanReport &report);

// The number in an event text's <EventID>; false when it has none.
bool eventIdOf(const std::string &xml, uint32_t *id);

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_RESCAN_LINE_H
