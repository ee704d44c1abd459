// The bounds of the aggregation maps (queue.h: InsertEventinQueue and the
// calls that read them). Runtime-private: the maps and their tests use it.
//
// The maps hold at most kMaxHeldEvents distinct events between two
// freeEventMaps. Once they are full, a new distinct event is not held: it is
// answered 0, so the trap sender sends it at once (no event is ever held back
// without being summarised later), and getNumberofEvents stays at the bound.
// Repeats of held events go on being counted. An event whose nexus is longer
// than kMaxNexusBytes is never held either (answered 0). A held text is kept
// cut to what readQEventMaps can hand out (QUEUE_EVENT_TEXT_SIZE - 1 bytes),
// so the maps never hold more than about kMaxHeldEvents * (4 KiB + 1 KiB).
// A count stops at kMaxEventCount, the largest a signed 32-bit "%d" prints.
#ifndef KELP_RUNTIME_QUEUE_EVENT_MAPS_H
#define KELP_RUNTIME_QUEUE_EVENT_MAPS_H

#include <cstddef>
#include <cstdint>

namespace kelp::queue {

inline constexpr uint32_t kMaxHeldEvents = 4096;
inline constexpr size_t kMaxNexusBytes = 1024;
inline constexpr uint32_t kMaxEventCount = 0x7FFFFFFF;

} // namespace kelp::queue

#endif // KELP_RUNTIME_QUEUE_EVENT_MAPS_H
