// The keys the frame reads from the framework's private ini store at load.
// "DebugSNMP" compares against "On" without regard to letter case while
// "AggregateEvents" compares byte for byte: deployed stores rely on both.
#include "frame/config.h"

#include <algorithm>
#include <cstring>

#include "frame/frame.h"
#include "platform/queue.h"
#include "platform/vscil.h"
#include "store/xmlvalue.h"

namespace {

constexpr uint32_t kPathBufferSize = 260;
constexpr uint32_t kValueBufferSize = 80;
constexpr uint32_t kDefaultRefreshMinutes = 5;

// Reads one key the way every read of the frame does: the size starts at the
// capacity (or what a previous read left, never more than the capacity) and
// the first 8 bytes are zeroed, so a failed read leaves an empty text.
uint32_t readKey(const char *section, const char *key, char *buffer, uint32_t capacity,
                 uint32_t *size)
{
    *size = std::min(*size, capacity);
    std::memset(buffer, 0, 8);
    const uint32_t status = SSGetPrivateIniValue(section, key, buffer, size);
    buffer[capacity - 1] = '\0';
    return status;
}

} // namespace

bool configIsOnAnyCase(const char *text)
{
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; };
    return lower(text[0]) == 'o' && lower(text[1]) == 'n' && text[2] == '\0';
}

void configStartDebug()
{
    char buffer[kPathBufferSize];
    uint32_t size = kPathBufferSize;
    readKey("general", "DebugPath", buffer, kPathBufferSize, &size);
    VscilDebugInit(buffer);

    size = kPathBufferSize;
    if (readKey("general", "DebugSNMP", buffer, kPathBufferSize, &size) != 0) {
        SSSetPrivateIniValue("general", "DebugSNMP", "Off");
    }
    // The second read keeps the size the first one left.
    readKey("general", "DebugSNMP", buffer, kPathBufferSize, &size);
    if (configIsOnAnyCase(buffer)) {
        VscilDebugToggle();
    }
}

void configReadAttach()
{
    char buffer[kValueBufferSize];
    uint32_t size = kValueBufferSize;
    readKey("general", "SNMPRefreshMinutes", buffer, kValueBufferSize, &size);
    const uint32_t minutes = decimalPrefix(buffer);
    g_SNMPRefreshMinutes = minutes == 0 ? kDefaultRefreshMinutes : minutes;

    size = kValueBufferSize;
    if (readKey("vcsipe", "AggregateEvents", buffer, kValueBufferSize, &size) == 0) {
        VscilDebugPrint("KelpmibAttach: EVENT_INI_AGGREGATEENEVTS is %s\n", buffer);
    }
    // Only ever switched on: a second load in the same process keeps it on.
    if (std::memcmp(buffer, "On", 3) == 0) {
        g_bAggregateEvents = 1;
    }
}
