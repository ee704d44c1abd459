// UTF-8 as the event-message texts accept it: the length of one well-formed
// character, so that the catalogue can refuse a text that is not UTF-8 and
// the location texts can show such bytes as '?'. Runtime-private.
#ifndef KELP_RUNTIME_EVTMSG_UTF8_H
#define KELP_RUNTIME_EVTMSG_UTF8_H

#include <cstddef>
#include <string_view>

namespace kelp::rt::evtmsg {

// The byte count (1 to 4) of the well-formed UTF-8 character that starts at
// text[at], or 0 when the bytes from there are not one: a stray continuation
// byte, a sequence cut short by the end of text, an overlong form, a
// surrogate or a code point above U+10FFFF. `at` must be below text.size().
// Control characters are well-formed; callers that refuse them test for them.
constexpr size_t utf8CharLength(std::string_view text, size_t at)
{
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80)
        return 1;
    size_t more = 0;
    unsigned lowest = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        more = 1;
        lowest = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        more = 2;
        lowest = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        more = 3;
        lowest = 0x10000;
    } else {
        return 0;
    }
    if (text.size() - at <= more)
        return 0;
    unsigned code = lead & (0x3Fu >> more);
    for (size_t k = 1; k <= more; ++k) {
        const auto b = static_cast<unsigned char>(text[at + k]);
        if ((b & 0xC0) != 0x80)
            return 0;
        code = (code << 6) | (b & 0x3Fu);
    }
    if (code < lowest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return 0;
    return more + 1;
}

constexpr bool isControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

static_assert(utf8CharLength("a", 0) == 1 && utf8CharLength("\xC3\xA9", 0) == 2 &&
              utf8CharLength("\xE2\x82\xAC", 0) == 3 && utf8CharLength("\xF0\x9F\x98\x80", 0) == 4);
static_assert(utf8CharLength("\xC3", 0) == 0 && utf8CharLength("\xA9", 0) == 0 &&
              utf8CharLength("\xC0\x80", 0) == 0 && utf8CharLength("\xED\xA0\x80", 0) == 0 &&
              utf8CharLength("\xF4\x90\x80\x80", 0) == 0 && utf8CharLength("\xFF", 0) == 0);

} // namespace kelp::rt::evtmsg

#endif // KELP_RUNTIME_EVTMSG_UTF8_H
