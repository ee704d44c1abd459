// Character-level rules of XML as the model reader applies them: which
// bytes are text, which are names, and how text is written back.
#include "datastore/xml_text.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kelp::ds::xml {

constexpr size_t npos = std::string_view::npos;

bool isXmlChar(uint32_t cp)
{
    return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) ||
           (cp >= 0xE000 && cp <= 0xFFFD) || (cp >= 0x10000 && cp <= 0x10FFFF);
}

void appendUtf8(std::string *out, uint32_t cp)
{
    auto byte = [out](uint32_t b) { out->push_back(static_cast<char>(b)); };
    if (cp < 0x80) {
        byte(cp);
    } else if (cp < 0x800) {
        byte(0xC0 | (cp >> 6));
        byte(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        byte(0xE0 | (cp >> 12));
        byte(0x80 | ((cp >> 6) & 0x3F));
        byte(0x80 | (cp & 0x3F));
    } else {
        byte(0xF0 | (cp >> 18));
        byte(0x80 | ((cp >> 12) & 0x3F));
        byte(0x80 | ((cp >> 6) & 0x3F));
        byte(0x80 | (cp & 0x3F));
    }
}

size_t decodeReferences(std::string_view raw, bool blankSpace, std::string *out,
                        std::string *problem)
{
    auto bad = [problem](size_t at, std::string message) {
        *problem = std::move(message);
        return at;
    };
    static constexpr std::pair<std::string_view, char> kNamed[] = {
        {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
    for (size_t i = 0; i < raw.size(); ++i) {
        // Element text up to the next reference is taken as it is, in one go.
        if (!blankSpace && raw[i] != '&') {
            const size_t amp = std::min(raw.find('&', i), raw.size());
            out->append(raw.substr(i, amp - i));
            i = amp - 1;
            continue;
        }
        if (raw[i] != '&') {
            out->push_back(blankSpace && isSpace(raw[i]) ? ' ' : raw[i]);
            continue;
        }
        size_t semi = raw.find(';', i + 1);
        if (semi == npos || semi - i > 12)
            return bad(i, "'&' that does not start an entity (write &amp;)");
        std::string_view ref = raw.substr(i + 1, semi - i - 1);
        bool known = false;
        for (const auto &[name, c] : kNamed) {
            if (ref == name) {
                out->push_back(c);
                known = true;
            }
        }
        if (!known && !ref.empty() && ref[0] == '#') {
            bool hex = ref.size() > 1 && ref[1] == 'x';
            std::string_view digits = ref.substr(hex ? 2 : 1);
            uint32_t cp = 0;
            bool ok = !digits.empty();
            for (char c : digits) {
                int d = c >= '0' && c <= '9'          ? c - '0'
                        : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                      : -1;
                if (d < 0 || cp > 0x10FFFF) {
                    ok = false;
                    break;
                }
                cp = cp * (hex ? 16 : 10) + static_cast<uint32_t>(d);
            }
            if (!ok || !isXmlChar(cp))
                return bad(i, "invalid character reference &" + std::string(ref) + ";");
            appendUtf8(out, cp);
            known = true;
        }
        if (!known)
            return bad(i, "unknown entity &" + std::string(ref) + ";");
        i = semi;
    }
    return npos;
}

namespace {

// Whether the 8 bytes at p are all ASCII characters XML allows as they
// are: from 0x20 up, or a line feed or a tab (a model has one a line). Each
// test below is exact per byte: with no high bit set, no sum carries into
// the next byte.
bool asciiTextWord(const char *p)
{
    constexpr uint64_t kOnes = 0x0101010101010101, kHighs = 0x8080808080808080;
    uint64_t w;
    std::memcpy(&w, p, sizeof w);
    if ((w & kHighs) != 0)
        return false;
    const uint64_t from20 = (w + kOnes * 0x60) & kHighs;
    const uint64_t notLineFeed = ((w ^ (kOnes * '\n')) + kOnes * 0x7F) & kHighs;
    const uint64_t notTab = ((w ^ (kOnes * '\t')) + kOnes * 0x7F) & kHighs;
    return (from20 | (notLineFeed ^ kHighs) | (notTab ^ kHighs)) == kHighs;
}

} // namespace

size_t firstBadByte(std::string_view s)
{
    size_t i = 0;
    while (i < s.size()) {
        while (i + 8 <= s.size() && asciiTextWord(s.data() + i))
            i += 8;
        if (i >= s.size())
            break;
        auto b = static_cast<unsigned char>(s[i]);
        // ASCII from 0x20 up, most of any model, needs no decoding.
        if (b >= 0x20 && b < 0x80) {
            ++i;
            continue;
        }
        if (b < 0x80) {
            if (!isXmlChar(b))
                return i;
            ++i;
            continue;
        }
        size_t len = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 0;
        if (len == 0 || i + len > s.size())
            return i;
        uint32_t cp = b & (0x7F >> len);
        for (size_t k = 1; k < len; ++k) {
            auto c = static_cast<unsigned char>(s[i + k]);
            if ((c & 0xC0) != 0x80)
                return i;
            cp = (cp << 6) | (c & 0x3F);
        }
        // Overlong forms, surrogates and code points past U+10FFFF are not UTF-8.
        static constexpr uint32_t kMinForLength[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMinForLength[len] || !isXmlChar(cp))
            return i;
        i += len;
    }
    return npos;
}

bool isName(std::string_view name)
{
    if (name.empty() || !isNameStart(name[0]))
        return false;
    for (char c : name) {
        if (!isNameChar(c))
            return false;
    }
    return true;
}

namespace {

// The reference that stands for c in element text, or in an attribute value
// too (where a quote, and white space the reader would turn into blanks, must
// be written as references); null for a byte written as itself.
const char *referenceFor(char c, bool inAttribute)
{
    switch (c) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return inAttribute ? "&quot;" : nullptr;
    case '\t':
        return inAttribute ? "&#9;" : nullptr;
    case '\n':
        return inAttribute ? "&#10;" : nullptr;
    case '\r':
        return inAttribute ? "&#13;" : nullptr;
    default:
        return nullptr;
    }
}

std::string escaped(std::string_view text, bool inAttribute)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (const char *reference = referenceFor(c, inAttribute))
            out += reference;
        else
            out += c;
    }
    return out;
}

} // namespace

std::string escapeText(std::string_view text)
{
    return escaped(text, false);
}

std::string escapeValue(std::string_view text)
{
    return escaped(text, true);
}

bool isXmlText(std::string_view text)
{
    return firstBadByte(text) == npos;
}

} // namespace kelp::ds::xml
