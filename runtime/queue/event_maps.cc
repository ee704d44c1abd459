// The aggregation maps of repeated events: each distinct (event number,
// nexus, trap number) seen since the last freeEventMaps, with its count, in
// the order first seen, indexed by that triple so an insert is one hash
// look-up.
// The trap sender inserts; the aggregation thread reads and frees. Bounds:
// queue/event_maps.h.
#include "queue/event_maps.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "queue.h"

namespace {

using kelp::queue::kMaxEventCount;
using kelp::queue::kMaxHeldEvents;
using kelp::queue::kMaxNexusBytes;

struct HeldEvent {
    uint32_t eventId;
    std::string text; // cut to what readQEventMaps hands out
    uint32_t trapId;
    uint32_t count;
};

// The key of an event: its number, nexus and trap number. One event may be
// sent as two traps (an extra trap first, then its main one); each is a
// first occurrence of its own, so the second is not held back as a repeat
// of the first.
struct Key {
    uint32_t eventId;
    std::string nexus;
    uint32_t trapId;
    bool operator==(const Key &) const = default;
};

struct KeyHash {
    size_t operator()(const Key &k) const noexcept
    {
        const uint64_t numbers = (uint64_t{k.eventId} << 32) | k.trapId;
        return std::hash<std::string_view>{}(k.nexus) * 31u + std::hash<uint64_t>{}(numbers);
    }
};

std::mutex g_mapsMutex;
// Both guarded by g_mapsMutex. g_held is in first-seen order; g_index gives
// the position in g_held of each key.
std::vector<HeldEvent> g_held;
std::unordered_map<Key, size_t, KeyHash> g_index;

std::string_view orEmpty(const char *s)
{
    return s != nullptr ? std::string_view(s) : std::string_view();
}

constexpr size_t kMaxTextBytes = static_cast<size_t>(QUEUE_EVENT_TEXT_SIZE) - 1;

} // namespace

extern "C" {

// An event is a repeat when its number, nexus and trap number equal those of
// a held one. A repeat keeps the text of the first occurrence: the summary
// trap describes the event as it was first sent. The message is not kept,
// since the summary trap builds its message again from the text. A null nexus
// is the empty nexus. An event that cannot be held (the maps are full, its
// nexus is too long, or memory ran out) is answered 0: it is sent now.
uint32_t InsertEventinQueue(uint32_t eventId, const char *nexus, const char * /*message*/,
                            const char *eventText, uint32_t trapId)
{
    std::string_view nexusText = orEmpty(nexus);
    if (nexusText.size() > kMaxNexusBytes)
        return 0;
    try {
        Key key{eventId, std::string(nexusText), trapId};
        std::lock_guard lock(g_mapsMutex);
        auto it = g_index.find(key);
        if (it != g_index.end()) {
            HeldEvent &e = g_held[it->second];
            if (e.count < kMaxEventCount)
                ++e.count;
            return 1;
        }
        if (g_held.size() >= kMaxHeldEvents)
            return 0;
        std::string_view text = orEmpty(eventText).substr(0, kMaxTextBytes);
        g_held.push_back({eventId, std::string(text), trapId, 1});
        try {
            g_index.emplace(std::move(key), g_held.size() - 1);
        } catch (...) {
            g_held.pop_back(); // the maps stay as they were
            throw;
        }
        return 0;
    } catch (...) {
        return 0;
    }
}

// Output pointers other than eventText may be null when not wanted; a null
// eventText answers 5.
uint32_t readQEventMaps(uint32_t *eventId, uint32_t *count, char *eventText, uint32_t *trapId,
                        uint32_t position)
{
    if (eventText == nullptr)
        return 5;
    std::lock_guard lock(g_mapsMutex);
    if (position >= g_held.size())
        return 2;
    const HeldEvent &e = g_held[position];
    if (eventId != nullptr)
        *eventId = e.eventId;
    if (count != nullptr)
        *count = e.count;
    if (trapId != nullptr)
        *trapId = e.trapId;
    size_t n = std::min(e.text.size(), kMaxTextBytes);
    std::memcpy(eventText, e.text.data(), n);
    eventText[n] = '\0';
    return 0;
}

uint32_t getNumberofEvents(void)
{
    std::lock_guard lock(g_mapsMutex);
    return static_cast<uint32_t>(g_held.size());
}

void freeEventMaps(void)
{
    std::lock_guard lock(g_mapsMutex);
    // Hands the memory back too: a full period must not pin it for good.
    std::vector<HeldEvent>().swap(g_held);
    std::unordered_map<Key, size_t, KeyHash>().swap(g_index);
}

} // extern "C"
