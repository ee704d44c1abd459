// The pure text work of the control commands: numbers and names in command
// words, the event XML built from an `event` command, and the answer text.
#include "control/commands.h"

#include <algorithm>

#include "control/words.h"
#include "datastore/xml_text.h"

namespace kelp::ctl {
namespace {

// Decimal digits only (no sign, no blanks), at most 4294967295.
bool parseUint32(std::string_view word, uint32_t *value)
{
    if (word.empty())
        return false;
    uint64_t v = 0;
    for (char c : word) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
        if (v > UINT32_MAX)
            return false;
    }
    *value = static_cast<uint32_t>(v);
    return true;
}

bool isAsciiLetter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

void appendElement(std::string *xml, std::string_view name, std::string_view value)
{
    *xml += '<';
    *xml += name;
    *xml += '>';
    *xml += kelp::ds::xml::escapeText(value);
    *xml += "</";
    *xml += name;
    *xml += '>';
}

} // namespace

bool parseObjectId(std::string_view word, uint32_t *id)
{
    uint32_t v = 0;
    if (!parseUint32(word, &v) || v == 0)
        return false;
    *id = v;
    return true;
}

bool parseEventNumber(std::string_view word, uint32_t *number)
{
    return parseUint32(word, number);
}

bool isElementName(std::string_view name)
{
    if (name.empty() || !(isAsciiLetter(name[0]) || name[0] == '_'))
        return false;
    for (char c : name) {
        if (!isAsciiLetter(c) && !(c >= '0' && c <= '9') && c != '_' && c != '-' && c != '.')
            return false;
    }
    return true;
}

std::string eventXml(uint32_t eventId,
                     const std::vector<std::pair<std::string, std::string>> &objectFields,
                     const std::vector<std::string> &parms,
                     const std::vector<std::pair<std::string, std::string>> &fields)
{
    std::vector<std::pair<std::string, std::string>> elements = objectFields;
    for (size_t i = 0; i < parms.size() && i < kMaxParms; ++i) {
        std::string number = std::to_string(i + 1);
        elements.emplace_back((number.size() == 1 ? "Parm0" : "Parm") + number, parms[i]);
    }
    for (const auto &field : fields) {
        auto same = std::find_if(elements.begin(), elements.end(),
                                 [&field](const auto &e) { return e.first == field.first; });
        if (same != elements.end())
            same->second = field.second;
        else
            elements.push_back(field);
    }
    std::string xml;
    appendElement(&xml, "EventID", std::to_string(eventId));
    for (const auto &[name, value] : elements)
        appendElement(&xml, name, value);
    return xml;
}

std::string formatReply(const Reply &reply)
{
    std::string text;
    for (const std::string &line : reply.lines) {
        text += printableLine(line);
        text += '\n';
    }
    text += reply.ok ? std::string("ok") : "error: " + printableLine(reply.error);
    text += '\n';
    return text;
}

} // namespace kelp::ctl
