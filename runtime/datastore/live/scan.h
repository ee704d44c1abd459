// One look at the storage of a machine: what the live source reads from
// sysfs (and SES pages) under a root, as objects of the model format with
// nexus texts in the scheme the location service names. Read-only, needs no
// root; what cannot be read is left out of the object, or the object is
// skipped, with a note that says why.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_SCAN_H
#define KELP_RUNTIME_DATASTORE_LIVE_SCAN_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "datastore/model.h"

namespace kelp::live {

class SysRoot;

// Values of "ObjState" the live source gives: one bit each.
inline constexpr uint64_t kStateReady = 1;       // present and working
inline constexpr uint64_t kStateFailed = 2;      // failed
inline constexpr uint64_t kStateOnline = 4;      // a disk in use by an array
inline constexpr uint64_t kStateOffline = 8;     // present, serves no I/O
inline constexpr uint64_t kStateDegraded = 32;   // an array without its redundancy
inline constexpr uint64_t kStateRebuilding = 64; // an array or disk being rebuilt
inline constexpr uint64_t kStateMissing = 1024;  // a component that is not installed
// The position in a disk's AttributesMask (counted from 0 at the left) that
// says the disk predicts its own failure.
inline constexpr size_t kPredictedFailureBit = 20;
// Values of "ObjStatus".
inline constexpr int kStatusOther = 0;
inline constexpr int kStatusUnknown = 1;
inline constexpr int kStatusOk = 2;
inline constexpr int kStatusNonCritical = 3;
inline constexpr int kStatusCritical = 4;
inline constexpr int kStatusNonRecoverable = 5;

struct LiveObject {
    std::string type;             // a model type name ("adapters", "arraydisks", ...)
    std::string nexus;            // unique within its type
    std::optional<size_t> parent; // index of the parent in LiveScan::objects
    ds::Attributes attributes;    // without Nexus (added when the model is made)
};

struct LiveScan {
    std::vector<LiveObject> objects; // every parent before its children
    std::vector<std::pair<size_t, size_t>> links;
    ds::Attributes storage;         // the <storage> attributes
    std::vector<std::string> notes; // what could not be read, one line each
    std::string components;         // where enclosure components came from, for the log
    // Index of the object of type and nexus, or nullopt.
    std::optional<size_t> find(std::string_view type, std::string_view nexus) const;
};

// Reads the machine under root. Never fails: a machine without storage, or a
// root without /sys, is an empty scan (with a note).
struct ScanOptions {
    // A drive's health answer younger than this (from an earlier scan of
    // the same root) is used again rather than asked anew; 0: every scan
    // asks.
    double healthMaxAgeSeconds = 0;
};
void scanMachine(const SysRoot &root, LiveScan *scan, const ScanOptions &options = {});

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_SCAN_H
