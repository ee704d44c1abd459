// The direct scan behind XMLSupGetXMLMemData (see xml_scan.h). Every access
// goes through string_view bounds, so a text that is not NUL-terminated, or
// cut anywhere, is safe.
#include "xmlsup/xml_scan.h"

namespace kelp::rt::xml {
namespace {

constexpr std::string_view kEmpty;
constexpr size_t npos = std::string_view::npos;

bool isNameEnd(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '/' || c == '>';
}

// Position after the markup that starts at `lt` and is not an element (comment,
// CDATA, processing instruction, declaration, end tag), or 0 when the markup
// at `lt` is a start tag. npos when the markup is not closed.
size_t skipNonElement(std::string_view xml, size_t lt)
{
    std::string_view rest = xml.substr(lt);
    auto after = [&](std::string_view close) {
        size_t end = xml.find(close, lt + 1);
        return end == npos ? npos : end + close.size();
    };
    if (rest.starts_with("<!--"))
        return after("-->");
    if (rest.starts_with("<![CDATA["))
        return after("]]>");
    if (rest.starts_with("<?"))
        return after("?>");
    if (rest.starts_with("<!") || rest.starts_with("</"))
        return after(">");
    return 0;
}

// Whether a start tag at `lt` names exactly `tag`.
bool namesTag(std::string_view xml, size_t lt, std::string_view tag)
{
    size_t nameEnd = lt + 1 + tag.size();
    return nameEnd < xml.size() && xml.compare(lt + 1, tag.size(), tag) == 0 &&
           isNameEnd(xml[nameEnd]);
}

// Index of the '>' that ends the start tag at `lt` (quoted attribute values may
// hold '>'), or npos.
size_t startTagEnd(std::string_view xml, size_t lt)
{
    for (size_t i = lt + 1; i < xml.size(); ++i) {
        char c = xml[i];
        if (c == '"' || c == '\'') {
            i = xml.find(c, i + 1);
            if (i == npos)
                return npos;
        } else if (c == '>') {
            return i;
        }
    }
    return npos;
}

// Whether an end tag "</tag" followed by blanks and '>' starts at `lt`;
// *end receives the position after it.
bool isEndTag(std::string_view xml, size_t lt, std::string_view tag, size_t *end)
{
    if (xml.compare(lt, 2, "</") != 0 || xml.compare(lt + 2, tag.size(), tag) != 0)
        return false;
    size_t i = lt + 2 + tag.size();
    while (i < xml.size() &&
           (xml[i] == ' ' || xml[i] == '\t' || xml[i] == '\r' || xml[i] == '\n')) {
        ++i;
    }
    if (i >= xml.size() || xml[i] != '>')
        return false;
    *end = i + 1;
    return true;
}

// The content from `from` up to the end tag matching an open `tag` element.
std::optional<std::string_view> contentUntilEnd(std::string_view xml, std::string_view tag,
                                                size_t from)
{
    int depth = 1;
    size_t pos = from;
    for (;;) {
        size_t lt = xml.find('<', pos);
        if (lt == npos)
            return std::nullopt;
        size_t end = 0;
        if (isEndTag(xml, lt, tag, &end)) {
            if (--depth == 0)
                return xml.substr(from, lt - from);
            pos = end;
            continue;
        }
        size_t skipped = skipNonElement(xml, lt);
        if (skipped == npos)
            return std::nullopt;
        if (skipped != 0) {
            pos = skipped;
            continue;
        }
        if (namesTag(xml, lt, tag)) {
            size_t gt = startTagEnd(xml, lt);
            if (gt == npos)
                return std::nullopt;
            if (xml[gt - 1] != '/')
                ++depth;
            pos = gt + 1;
            continue;
        }
        pos = lt + 1;
    }
}

} // namespace

namespace {

// Walks the start tags named `tag` in document order (nested ones included)
// and hands each element's raw content to visit (nullopt for one that is not
// closed) until visit answers false.
template <typename Visit>
void forEachElement(std::string_view xml, std::string_view tag, Visit visit)
{
    if (tag.empty())
        return;
    size_t pos = 0;
    for (;;) {
        size_t lt = xml.find('<', pos);
        if (lt == npos || lt + 1 >= xml.size())
            return;
        // Markup that is not a start tag begins with "<!", "<?" or "</"; any
        // other start tag is ruled out by its first letter before a compare.
        const char first = xml[lt + 1];
        if (first == '/') { // an end tag: on after its '>'
            size_t gt = xml.find('>', lt + 2);
            if (gt == npos)
                return;
            pos = gt + 1;
            continue;
        }
        if (first == '!' || first == '?') {
            size_t skipped = skipNonElement(xml, lt);
            if (skipped == npos)
                return;
            pos = skipped;
            continue;
        }
        if (first != tag.front() || !namesTag(xml, lt, tag)) {
            pos = lt + 1;
            continue;
        }
        size_t gt = startTagEnd(xml, lt);
        if (gt == npos)
            return;
        const bool more =
            visit(xml[gt - 1] == '/' ? std::optional(kEmpty) : contentUntilEnd(xml, tag, gt + 1));
        if (!more)
            return;
        pos = gt + 1; // elements nested in this one count too
    }
}

} // namespace

std::optional<std::string_view> findElement(std::string_view xml, std::string_view tag,
                                            uint32_t occurrence)
{
    uint32_t seen = 0;
    std::optional<std::string_view> found;
    forEachElement(xml, tag, [&](std::optional<std::string_view> raw) {
        if (seen++ != occurrence)
            return true;
        found = raw;
        return false;
    });
    return found;
}

std::vector<std::optional<std::string_view>> findAllElements(std::string_view xml,
                                                             std::string_view tag)
{
    std::vector<std::optional<std::string_view>> all;
    forEachElement(xml, tag, [&](std::optional<std::string_view> raw) {
        all.push_back(raw);
        return true;
    });
    return all;
}

std::string decodeEntities(std::string_view raw)
{
    static constexpr struct {
        std::string_view entity;
        char c;
    } kEntities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string out;
    out.reserve(raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '&') {
            bool decoded = false;
            for (const auto &e : kEntities) {
                if (raw.substr(i).starts_with(e.entity)) {
                    out += e.c;
                    i += e.entity.size() - 1;
                    decoded = true;
                    break;
                }
            }
            if (decoded)
                continue;
        }
        out += raw[i];
    }
    return out;
}

} // namespace kelp::rt::xml
