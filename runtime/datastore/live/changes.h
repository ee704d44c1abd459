// What changed between two models the live source served, as the storage
// events a storage service raises: disks inserted, removed, failed and
// rebuilt, arrays degraded, failed and optimal again, enclosure elements
// failed, removed and restored, temperatures past their thresholds and back.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_CHANGES_H
#define KELP_RUNTIME_DATASTORE_LIVE_CHANGES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "datastore/model.h"

namespace kelp::live {

struct Change {
    uint32_t event = 0;
    bool fromBefore = false;        // the object is the one in `before` (it has gone)
    size_t position = 0;            // of the object in `before` or `after`
    std::vector<std::string> parms; // %2, %3 ... (%1, the name, is added when queued)
};

struct ChangeSet {
    bool setChanged = false; // objects came or went: a rescan pair goes first
    std::vector<Change> changes;
};

// The changes from `before` to `after`, in the order of `after` (gone objects
// last).
ChangeSet findChanges(const ds::Model &before, const ds::Model &after);

// Event numbers used (each has its line in the alert catalogue).
inline constexpr uint32_t kDiskFailed = 2048;
inline constexpr uint32_t kDiskRemoved = 2049;
inline constexpr uint32_t kDiskInserted = 2050;
inline constexpr uint32_t kDiskOffline = 2051;
inline constexpr uint32_t kDiskOnline = 2052;
inline constexpr uint32_t kDiskPredictedFailure = 2074;
inline constexpr uint32_t kRebuildStarted = 2070;
inline constexpr uint32_t kRebuildCompleted = 2071;
inline constexpr uint32_t kRebuildProgress = 2077;
inline constexpr uint32_t kArrayCreated = 2053;
inline constexpr uint32_t kArrayDeleted = 2054;
inline constexpr uint32_t kArrayFailed = 2055;
inline constexpr uint32_t kArrayDegraded = 2056;
inline constexpr uint32_t kArrayOptimal = 2057;
inline constexpr uint32_t kControllerFailed = 2100;
inline constexpr uint32_t kFanFailed = 2150;
inline constexpr uint32_t kFanNormal = 2152;
inline constexpr uint32_t kTemperatureCritical = 2155;
inline constexpr uint32_t kTemperatureWarning = 2156;
inline constexpr uint32_t kTemperatureNormal = 2157;
inline constexpr uint32_t kPowerSupplyFailed = 2160;
inline constexpr uint32_t kPowerSupplyRemoved = 2161;
inline constexpr uint32_t kPowerSupplyNormal = 2162;
inline constexpr uint32_t kEnclosureFailed = 2170;
inline constexpr uint32_t kEnclosureGone = 2171;
inline constexpr uint32_t kEnclosureConnected = 2172;
inline constexpr uint32_t kEmmFailed = 2173;
inline constexpr uint32_t kEmmRemoved = 2174;
inline constexpr uint32_t kEmmNormal = 2175;
inline constexpr uint32_t kNvmeFailed = 2180;

// Rebuild progress is reported each time it passes a multiple of this.
inline constexpr unsigned kProgressStep = 10;

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_CHANGES_H
