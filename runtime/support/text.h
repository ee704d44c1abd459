// Small text helpers shared by the runtime's parsers, and the copy of a
// message into a host's buffer at the C boundary.
#ifndef KELP_RUNTIME_SUPPORT_TEXT_H
#define KELP_RUNTIME_SUPPORT_TEXT_H

#include <algorithm>
#include <cstring>
#include <string_view>

namespace kelp::rt {

constexpr char asciiLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// Equality with ASCII letters compared without regard to case; other bytes
// (UTF-8 included) must be equal.
constexpr bool equalsIgnoreCaseAscii(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i]))
            return false;
    }
    return true;
}

constexpr bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// s without leading and trailing blanks (space, tab).
constexpr std::string_view trimBlanks(std::string_view s)
{
    while (!s.empty() && isBlank(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back()))
        s.remove_suffix(1);
    return s;
}

// Copies text into the caller's buffer of size bytes, cut to size - 1 bytes
// and ended by a NUL. Does nothing when buffer is null or size is 0.
inline void copyToBuffer(std::string_view text, char *buffer, unsigned size)
{
    if (buffer == nullptr || size == 0)
        return;
    size_t n = std::min<size_t>(text.size(), size - 1);
    if (n > 0) // an empty view may have no data at all
        std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
}

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_TEXT_H
