// Parsing and editing of the ini text (see ini_text.h). Lines keep their raw
// bytes so that a write changes only the line it must.
#include "queue/ini_text.h"

#include "support/text.h"

namespace kelp::rt::ini {
namespace {

// Bytes that do not belong in a text line; tab is allowed.
bool isControl(char c)
{
    auto u = static_cast<unsigned char>(c);
    return (u < 0x20 && c != '\t') || u == 0x7F;
}

bool hasControl(std::string_view s)
{
    for (char c : s) {
        if (isControl(c))
            return true;
    }
    return false;
}

bool isCommentStart(char c)
{
    return c == ';' || c == '#';
}

// Classifies one line; `currentSection` is the header index in force.
Line classify(std::string raw, int &currentSection)
{
    Line line;
    line.raw = std::move(raw);
    std::string_view text = line.raw;
    if (!text.empty() && text.back() == '\r')
        text.remove_suffix(1);
    auto malformed = [&line](const char *why) {
        line.kind = LineKind::Malformed;
        line.problem = why;
        return std::move(line);
    };
    if (text.size() > kMaxLineBytes)
        return malformed("line longer than 65536 bytes");
    if (hasControl(text))
        return malformed("binary data");
    std::string_view t = trimBlanks(text);
    if (t.empty())
        return line;
    if (isCommentStart(t.front())) {
        line.kind = LineKind::Comment;
        return line;
    }
    if (t.front() == '[') {
        currentSection = -1; // until this header proves good
        size_t close = t.find(']');
        if (close == std::string_view::npos)
            return malformed("unterminated section header");
        std::string_view rest = trimBlanks(t.substr(close + 1));
        if (!rest.empty() && !isCommentStart(rest.front())) {
            return malformed("text after section header");
        }
        std::string_view name = trimBlanks(t.substr(1, close - 1));
        if (name.empty())
            return malformed("empty section name");
        line.kind = LineKind::Section;
        line.name = std::string(name);
        return line;
    }
    size_t eq = t.find('=');
    if (eq == std::string_view::npos)
        return malformed("no '=' in line");
    std::string_view key = trimBlanks(t.substr(0, eq));
    if (key.empty())
        return malformed("empty key");
    if (currentSection < 0)
        return malformed("key outside any section");
    std::string_view value = trimBlanks(t.substr(eq + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
    }
    line.kind = LineKind::Entry;
    line.name = std::string(key);
    line.value = std::string(value);
    line.section = currentSection;
    return line;
}

// The line ending style of an existing line, for lines added next to it.
std::string_view endingOf(const Line &line)
{
    return !line.raw.empty() && line.raw.back() == '\r' ? "\r" : "";
}

} // namespace

Document parse(std::string_view text)
{
    Document doc;
    if (text.starts_with(kByteOrderMark)) {
        doc.byteOrderMark = kByteOrderMark;
        text.remove_prefix(kByteOrderMark.size());
    }
    int currentSection = -1;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos)
            end = text.size();
        Line line = classify(std::string(text.substr(start, end - start)), currentSection);
        if (line.kind == LineKind::Section)
            currentSection = static_cast<int>(doc.lines.size());
        doc.lines.push_back(std::move(line));
        start = end + 1;
    }
    return doc;
}

std::string serialise(const Document &doc)
{
    std::string out = doc.byteOrderMark;
    for (const auto &line : doc.lines) {
        out += line.raw;
        out += '\n';
    }
    return out;
}

std::optional<std::string> find(const Document &doc, std::string_view section, std::string_view key)
{
    for (const auto &line : doc.lines) {
        if (line.kind == LineKind::Entry && equalsIgnoreCaseAscii(line.name, key) &&
            equalsIgnoreCaseAscii(doc.lines[static_cast<size_t>(line.section)].name, section)) {
            return line.value;
        }
    }
    return std::nullopt;
}

bool writable(std::string_view section, std::string_view key, std::string_view value)
{
    if (section.empty() || trimBlanks(section) != section || hasControl(section) ||
        section.find(']') != std::string_view::npos) {
        return false;
    }
    if (key.empty() || trimBlanks(key) != key || hasControl(key) ||
        key.find('=') != std::string_view::npos || key.front() == '[' ||
        isCommentStart(key.front())) {
        return false;
    }
    if (hasControl(value))
        return false;
    return key.size() + 1 + value.size() + 2 <= kMaxLineBytes &&
           section.size() + 2 <= kMaxLineBytes;
}

std::string formatValue(std::string_view value)
{
    bool quote = !value.empty() && (isBlank(value.front()) || isBlank(value.back()) ||
                                    value.front() == '"' || value.back() == '"');
    if (!quote)
        return std::string(value);
    // Appended rather than built from "\"" + temporary, which g++ 12 -O2
    // misreads as overlapping copies (-Wrestrict).
    std::string quoted;
    quoted.reserve(value.size() + 2);
    quoted += '"';
    quoted += value;
    quoted += '"';
    return quoted;
}

void set(Document &doc, std::string_view section, std::string_view key, std::string_view value)
{
    const std::string formatted = formatValue(value);
    int header = -1;
    size_t insertAt = 0;
    for (size_t i = 0; i < doc.lines.size(); ++i) {
        Line &line = doc.lines[i];
        if (line.kind == LineKind::Section && header < 0 &&
            equalsIgnoreCaseAscii(line.name, section)) {
            header = static_cast<int>(i);
            insertAt = i + 1;
        }
        if (line.kind != LineKind::Entry ||
            !equalsIgnoreCaseAscii(doc.lines[static_cast<size_t>(line.section)].name, section)) {
            continue;
        }
        if (line.section == header)
            insertAt = i + 1;
        if (!equalsIgnoreCaseAscii(line.name, key))
            continue;
        // Keep the key as written and the spacing around '='.
        std::string_view raw = line.raw;
        std::string_view ending = endingOf(line);
        size_t eq = raw.find('=');
        size_t valueStart = eq + 1;
        while (valueStart < raw.size() && isBlank(raw[valueStart]))
            ++valueStart;
        line.raw = std::string(raw.substr(0, valueStart)) + formatted + std::string(ending);
        line.value = std::string(value);
        return;
    }
    Line entry;
    entry.kind = LineKind::Entry;
    entry.name = std::string(key);
    entry.value = std::string(value);
    if (header >= 0) {
        entry.section = header;
        entry.raw = std::string(key) + "=" + formatted +
                    std::string(endingOf(doc.lines[static_cast<size_t>(header)]));
        doc.lines.insert(doc.lines.begin() + static_cast<std::ptrdiff_t>(insertAt),
                         std::move(entry));
        // Entries after the insertion point name their header by index.
        for (size_t i = insertAt + 1; i < doc.lines.size(); ++i) {
            if (doc.lines[i].section >= static_cast<int>(insertAt))
                ++doc.lines[i].section;
        }
        return;
    }
    if (!doc.lines.empty() && doc.lines.back().kind != LineKind::Blank)
        doc.lines.push_back(Line{});
    Line head;
    head.kind = LineKind::Section;
    head.name = std::string(section);
    head.raw = "[" + std::string(section) + "]";
    doc.lines.push_back(std::move(head));
    entry.section = static_cast<int>(doc.lines.size()) - 1;
    entry.raw = std::string(key) + "=" + formatted;
    doc.lines.push_back(std::move(entry));
}

} // namespace kelp::rt::ini
