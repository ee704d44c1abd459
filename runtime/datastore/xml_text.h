// Character-level rules of XML as the model reader applies them: UTF-8
// validity, the characters XML 1.0 allows, names, and escaping text so that
// it reads back the same.
#ifndef KELP_RUNTIME_DATASTORE_XML_TEXT_H
#define KELP_RUNTIME_DATASTORE_XML_TEXT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelp::ds::xml {

// XML white space: blank, tab, carriage return, line feed. Inline, as the
// reader asks this and the two below of nearly every byte it reads.
inline bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
// A byte that may start a name (a letter, '_', ':' or any non-ASCII byte),
// and one that may follow (also digits, '-' and '.').
// Per byte: 1 set when it may start a name, 2 when it may be in one.
inline constexpr auto kNameBytes = [] {
    std::array<uint8_t, 256> table{};
    for (unsigned u = 0; u < 256; ++u) {
        const bool start =
            (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || u == '_' || u == ':' || u >= 0x80;
        const bool in = start || (u >= '0' && u <= '9') || u == '-' || u == '.';
        table[u] = static_cast<uint8_t>((start ? 1 : 0) | (in ? 2 : 0));
    }
    return table;
}();
inline bool isNameStart(char c)
{
    return (kNameBytes[static_cast<unsigned char>(c)] & 1) != 0;
}
inline bool isNameChar(char c)
{
    return (kNameBytes[static_cast<unsigned char>(c)] & 2) != 0;
}
// A code point XML 1.0 allows in a document.
bool isXmlChar(uint32_t cp);
// Appends the UTF-8 form of code point cp (at most U+10FFFF).
void appendUtf8(std::string *out, uint32_t cp);

// Appends raw with its entity and character references replaced. blankSpace
// (attribute values) writes each tab, line feed and carriage return of raw
// as a blank; one written as a character reference (&#9;) stays what it
// names, as XML says, so that any value can be written in an attribute and
// read back. Answers std::string_view::npos, or the offset in raw of the
// first reference it cannot read with *problem set to why (then out holds
// part of the text).
size_t decodeReferences(std::string_view raw, bool blankSpace, std::string *out,
                        std::string *problem);

// Offset of the first byte of s that is not part of valid UTF-8 or encodes a
// character XML does not allow (NUL, most control characters, surrogates),
// or std::string_view::npos when there is none.
size_t firstBadByte(std::string_view s);

// Whether text is valid UTF-8 of allowed characters (firstBadByte finds none).
bool isXmlText(std::string_view text);

// Whether name is a name as the reader accepts it: isNameStart, then isNameChar.
bool isName(std::string_view name);

// text with '&', '<' and '>' written as entities, so that it reads back the
// same as element content.
std::string escapeText(std::string_view text);

// text as a model file writes a value: '&', '<', '>' and '"' as entities,
// tab, line feed and carriage return as character references, everything
// else as it is. Reads back the same as element content and as a
// double-quoted attribute value, where a literal tab or line break would
// read as a blank.
std::string escapeValue(std::string_view text);

} // namespace kelp::ds::xml

#endif // KELP_RUNTIME_DATASTORE_XML_TEXT_H
