// Reading the blocked alert list the way the plug-in's monitor does.
#include "blockedalerts.h"

#include "platform/queue.h"

namespace kelp::agent {
namespace {

constexpr uint32_t kRescanStarted = 3061;
constexpr uint32_t kRescanCompleted = 3060;
constexpr int kSlots = 10;
constexpr uint32_t kValueSize = 64;

// atoi as the monitor reads a piece: blanks, a sign, digits; 32-bit wrap.
uint32_t leadingNumber(std::string_view text)
{
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) {
        i++;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
        negative = text[i] == '-';
        i++;
    }
    uint32_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++) {
        value = value * 10u + static_cast<uint32_t>(text[i] - '0');
    }
    return negative ? 0u - value : value;
}

} // namespace

std::optional<uint32_t> blockedRescanEvent(std::string_view list)
{
    std::optional<uint32_t> found;
    int slot = 0;
    size_t start = 0;
    while (slot < kSlots && start <= list.size()) {
        const size_t comma = std::min(list.find(',', start), list.size());
        const std::string_view piece = list.substr(start, comma - start);
        start = comma + 1;
        if (piece.empty()) {
            continue;
        }
        slot++;
        const uint32_t event = leadingNumber(piece);
        if (event == kRescanStarted || (event == kRescanCompleted && !found)) {
            found = event;
        }
    }
    return found;
}

std::optional<uint32_t> blockedRescanEventInStore(std::string *value)
{
    char buffer[kValueSize + 1] = {};
    uint32_t size = kValueSize;
    if (SSGetPrivateIniValue("vcsipe", "BlockedAlerts", buffer, &size) != 0) {
        value->clear();
        return std::nullopt;
    }
    *value = buffer;
    return blockedRescanEvent(*value);
}

} // namespace kelp::agent
