// Number and text translation: 64-bit integers to and from decimal text
// (strict: the whole text must be the number), and UCS-2/UTF-16 to UTF-8.
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

#include "vcsupt.h"

namespace {

// Copies text and its NUL into out, or reports the size needed.
uint32_t copyOut(std::string_view text, char *out, uint32_t *outSize)
{
    const uint32_t needed = static_cast<uint32_t>(text.size() + 1);
    if (out == nullptr || *outSize < needed) {
        *outSize = needed;
        return SM_STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
    *outSize = needed;
    return SM_STATUS_SUCCESS;
}

template <typename T> bool parseWhole(std::string_view text, T *out)
{
    T v{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, 10);
    if (ec != std::errc() || end != text.data() + text.size())
        return false;
    *out = v;
    return true;
}

// Appends the UTF-8 form of one code point (at most U+10FFFF).
void appendUtf8(std::string &s, uint32_t cp)
{
    if (cp < 0x80) {
        s += static_cast<char>(cp);
    } else if (cp < 0x800) {
        s += static_cast<char>(0xC0 | (cp >> 6));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        s += static_cast<char>(0xE0 | (cp >> 12));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        s += static_cast<char>(0xF0 | (cp >> 18));
        s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

} // namespace

extern "C" {

uint32_t SMXLTTypeValueToUTF8(const void *value, uint32_t valueSize, char *out, uint32_t *outSize,
                              uint32_t typeCode)
{
    if (value == nullptr || outSize == nullptr || valueSize < 8)
        return SM_STATUS_FAILURE;
    char digits[24];
    std::to_chars_result r{};
    if (typeCode == SM_XLT_TYPE_S64) {
        int64_t v;
        std::memcpy(&v, value, sizeof v);
        r = std::to_chars(digits, digits + sizeof digits, v);
    } else if (typeCode == SM_XLT_TYPE_U64) {
        uint64_t v;
        std::memcpy(&v, value, sizeof v);
        r = std::to_chars(digits, digits + sizeof digits, v);
    } else {
        return SM_STATUS_FAILURE;
    }
    return copyOut(std::string_view(digits, static_cast<size_t>(r.ptr - digits)), out, outSize);
}

// A value area smaller than 8 bytes answers 16 with *size = 8.
uint32_t SMXLTUTF8ToTypeValue(const char *text, void *value, uint32_t *size, uint32_t typeCode)
{
    if (text == nullptr || value == nullptr || size == nullptr)
        return SM_STATUS_FAILURE;
    if (typeCode != SM_XLT_TYPE_S64 && typeCode != SM_XLT_TYPE_U64)
        return SM_STATUS_FAILURE;
    if (*size < 8) {
        *size = 8;
        return SM_STATUS_BUFFER_TOO_SMALL;
    }
    std::string_view t(text);
    if (typeCode == SM_XLT_TYPE_S64) {
        int64_t v;
        if (!parseWhole(t, &v))
            return SM_STATUS_FAILURE;
        std::memcpy(value, &v, sizeof v);
    } else {
        uint64_t v; // from_chars refuses a sign for unsigned types
        if (!parseWhole(t, &v))
            return SM_STATUS_FAILURE;
        std::memcpy(value, &v, sizeof v);
    }
    *size = 8;
    return SM_STATUS_SUCCESS;
}

uint32_t SMUCS2StrToUTF8Str(char *out, uint32_t *size, const uint16_t *ucs2)
{
    if (size == nullptr || ucs2 == nullptr)
        return SM_STATUS_FAILURE;
    if (out == nullptr && *size != 0)
        return SM_STATUS_FAILURE;
    std::string utf8;
    for (const uint16_t *p = ucs2; *p != 0; ++p) {
        uint32_t cp = *p;
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (p[1] < 0xDC00 || p[1] > 0xDFFF)
                return SM_STATUS_FAILURE;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (p[1] - 0xDC00);
            ++p;
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return SM_STATUS_FAILURE;
        }
        appendUtf8(utf8, cp);
    }
    return copyOut(utf8, out, size);
}

} // extern "C"
