// The aggregation maps of repeated events: each distinct (event number,
// nexus) seen since the last freeEventMaps, with its count, in the order first
// seen. The trap sender inserts; the aggregation thread reads and frees.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "queue.h"

namespace {

struct HeldEvent {
    uint32_t eventId;
    std::string nexus;
    std::string text;
    uint32_t trapId;
    uint32_t count;
};

std::mutex g_mapsMutex;
std::vector<HeldEvent> g_held; // guarded by g_mapsMutex; first-seen order

std::string orEmpty(const char *s)
{
    return s != nullptr ? std::string(s) : std::string();
}

} // namespace

extern "C" {

// A repeat keeps the text and trap number of the first occurrence: the summary
// trap describes the event as it was first sent. The message is not kept,
// since the summary trap builds its message again from the text. A null nexus
// is the empty nexus.
uint32_t InsertEventinQueue(uint32_t eventId, const char *nexus, const char * /*message*/,
                            const char *eventText, uint32_t trapId)
{
    std::string key = orEmpty(nexus);
    std::lock_guard lock(g_mapsMutex);
    auto it = std::find_if(g_held.begin(), g_held.end(), [&](const HeldEvent &e) {
        return e.eventId == eventId && e.nexus == key;
    });
    if (it != g_held.end()) {
        ++it->count;
        return 1;
    }
    g_held.push_back({eventId, std::move(key), orEmpty(eventText), trapId, 1});
    return 0;
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
    size_t n = std::min(e.text.size(), static_cast<size_t>(QUEUE_EVENT_TEXT_SIZE) - 1);
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
    g_held.clear();
}

} // extern "C"
