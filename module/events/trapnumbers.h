// Which trap number a storage event becomes, as tables: the event monitor
// looks numbers up here, and the MIB test reads the same tables to check
// that KELP-STORAGE-MIB has a notification for every number that can be
// sent (and for its x100 form, which the extended-message preference sends).
#ifndef KELP_MODULE_EVENTS_TRAPNUMBERS_H
#define KELP_MODULE_EVENTS_TRAPNUMBERS_H

#include <cstdint>
#include <optional>
#include <span>

namespace events {

struct EventTrap {
    uint32_t eventId;
    uint32_t trap;
};

struct TypeTrap {
    uint32_t objType;
    uint32_t trap;
};

struct LevelOffset {
    uint32_t level;  // the alert catalogue's severity level
    uint32_t offset; // added to the object type's first trap number
};

// Extra traps, sent before the event's main trap.
inline constexpr EventTrap kExtraTraps[] = {
    {2262, 101}, {2263, 101}, {2287, 101}, {2448, 101}, {2449, 101},
    {2164, 101}, {2135, 103}, {2167, 103}, {2168, 103},
};

// Events whose main trap is fixed, whatever their object.
inline constexpr EventTrap kFixedTraps[] = {{2122, 1305}, {2123, 1306}, {2124, 1304}};

// The event of a state change (an object returned to normal), and its main
// trap by object type; other types send none for it.
inline constexpr uint32_t kStateChangeEvent = 2121;
inline constexpr TypeTrap kStateChangeTraps[] = {
    {769, 752}, {770, 802},  {771, 1152}, {772, 902},  {773, 1202},
    {776, 852}, {777, 1102}, {778, 1052}, {779, 1002}, {780, 952},
};

// Every other event: the first trap number of its object type's block plus
// the offset of its severity level (1 critical, 2 warning, 4 information).
// Types without a block, and other levels, send no main trap.
inline constexpr TypeTrap kTrapBases[] = {
    {769, 750},  {770, 800},  {771, 1150}, {772, 900},  {785, 900},  {793, 900},
    {773, 1200}, {776, 850},  {777, 1100}, {778, 1050}, {779, 1000}, {780, 950},
    {786, 1600}, {787, 1700}, {788, 1400}, {791, 1500},
};
inline constexpr LevelOffset kSeverityOffsets[] = {{1, 4}, {2, 3}, {4, 1}};

// With the extended-message preference on, trap N is sent as N times this.
inline constexpr uint32_t kExtendedTrapFactor = 100;

// The lookups of the tables above; none where a table has no row.
constexpr std::optional<uint32_t> eventTrap(std::span<const EventTrap> table, uint32_t eventId)
{
    for (const EventTrap &row : table) {
        if (row.eventId == eventId) {
            return row.trap;
        }
    }
    return std::nullopt;
}

constexpr std::optional<uint32_t> typeTrap(std::span<const TypeTrap> table, uint32_t objType)
{
    for (const TypeTrap &row : table) {
        if (row.objType == objType) {
            return row.trap;
        }
    }
    return std::nullopt;
}

constexpr std::optional<uint32_t> severityOffset(uint32_t level)
{
    for (const LevelOffset &row : kSeverityOffsets) {
        if (row.level == level) {
            return row.offset;
        }
    }
    return std::nullopt;
}

static_assert(eventTrap(kExtraTraps, 2164) == 101 && eventTrap(kFixedTraps, 2124) == 1304 &&
              typeTrap(kStateChangeTraps, 774) == std::nullopt &&
              typeTrap(kTrapBases, 793) == 900 && severityOffset(2) == 3 &&
              severityOffset(3) == std::nullopt);

} // namespace events

#endif // KELP_MODULE_EVENTS_TRAPNUMBERS_H
