// The ini format of the private store, as text in and text out: parsing into
// lines that keep their original bytes, look-up, and an in-place change that
// leaves every other line (comments, order, malformed lines) as it was.
// No file handling here; ini_store.cc owns files and locking.
#ifndef KELP_RUNTIME_QUEUE_INI_TEXT_H
#define KELP_RUNTIME_QUEUE_INI_TEXT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelp::rt::ini {

// Lines longer than this are skipped as malformed.
constexpr size_t kMaxLineBytes = 64 * 1024;

// The UTF-8 byte order mark, which some editors write before the first line.
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

enum class LineKind { Blank, Comment, Section, Entry, Malformed };

struct Line {
    std::string raw; // the line as read, without its '\n' (a '\r' stays)
    LineKind kind = LineKind::Blank;
    std::string name;    // Section: its name; Entry: its key (trimmed)
    std::string value;   // Entry: the value, trimmed or taken out of its quotes
    int section = -1;    // Entry: index of its section's header line
    std::string problem; // Malformed: why the line is skipped
};

struct Document {
    // A UTF-8 byte order mark that began the text (some editors write one),
    // kept aside so that the first line reads as written and a write keeps it.
    std::string byteOrderMark;
    std::vector<Line> lines;
};

// Splits text into lines and classifies them. Never fails: what cannot be
// read is a Malformed line. A malformed section header leaves the lines
// after it outside any section until the next good header.
Document parse(std::string_view text);

// The lines joined again, each ending with '\n'.
std::string serialise(const Document &doc);

// The value of the first entry `key` in a section named `section` (names
// compared without regard to ASCII case), or nullopt.
std::optional<std::string> find(const Document &doc, std::string_view section,
                                std::string_view key);

// Whether section, key and value can be written so that they read back the
// same: no control characters, no line breaks, names not empty and without
// edge blanks, no ']' in a section, no '=' in a key nor a leading '[', ';'
// or '#', and the line no longer than kMaxLineBytes.
bool writable(std::string_view section, std::string_view key, std::string_view value);

// Sets section/key = value: rewrites the first such entry in place, else adds
// the entry after the last entry of the first such section, else appends the
// section at the end. Requires writable(section, key, value).
void set(Document &doc, std::string_view section, std::string_view key, std::string_view value);

// The value as written after '=': in double quotes when it has leading or
// trailing blanks or starts or ends with a double quote, else as it is.
std::string formatValue(std::string_view value);

} // namespace kelp::rt::ini

#endif // KELP_RUNTIME_QUEUE_INI_TEXT_H
