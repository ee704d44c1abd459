// Activity lines of the control commands.
#include "control/activity.h"

#include <cctype>

#include "control/words.h"

namespace kelp::ctl {
namespace {

// Client text for the log: printable, cut to kMaxQuoted bytes (marked), in
// double quotes.
std::string quoted(std::string_view text)
{
    std::string out = printableLine(text.substr(0, kMaxQuoted));
    if (text.size() > kMaxQuoted)
        out += "...";
    return "\"" + out + "\"";
}

// What became of the rescan pair after add, remove or load: queueRescan
// leaves an output line only when the queue had no room for it.
std::string rescanPart(const Request &request, const Reply &reply)
{
    if (request.noEvents)
        return "; no rescan events (--no-events)";
    if (!reply.lines.empty())
        return "; " + printableLine(reply.lines.front());
    return "; rescan events " + std::to_string(kRescanStartedEvent) + ", " +
           std::to_string(kRescanCompletedEvent) + " queued";
}

// The value of the first <EventID> of an event's XML, or empty.
std::string eventIdIn(std::string_view xml)
{
    const size_t open = xml.find("<EventID>");
    if (open == std::string_view::npos)
        return "";
    size_t at = open + 9;
    std::string digits;
    while (at < xml.size() && std::isdigit(static_cast<unsigned char>(xml[at])) &&
           digits.size() < 10)
        digits += xml[at++];
    return digits;
}

std::string idList(const std::vector<uint32_t> &ids)
{
    std::string out;
    for (uint32_t id : ids)
        out += (out.empty() ? "" : ", ") + std::to_string(id);
    return out;
}

} // namespace

std::vector<uint32_t> objectIdsIn(std::string_view fragment)
{
    std::vector<uint32_t> ids;
    size_t at = 0;
    while ((at = fragment.find("<object", at)) != std::string_view::npos) {
        at += 7;
        if (at >= fragment.size() || !std::isspace(static_cast<unsigned char>(fragment[at])))
            continue;
        const size_t end = fragment.find('>', at);
        const std::string_view tag =
            fragment.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
        for (size_t id = tag.find("id="); id != std::string_view::npos;
             id = tag.find("id=", id + 3)) {
            // "id=" as a whole attribute name, not the end of another one.
            if (id > 0 && !std::isspace(static_cast<unsigned char>(tag[id - 1])))
                continue;
            if (id + 3 >= tag.size() || (tag[id + 3] != '"' && tag[id + 3] != '\''))
                break;
            const char quote = tag[id + 3];
            const size_t close = tag.find(quote, id + 4);
            uint32_t value = 0;
            if (close != std::string_view::npos &&
                parseObjectId(tag.substr(id + 4, close - id - 4), &value))
                ids.push_back(value);
            break;
        }
    }
    return ids;
}

std::string activityLine(const Request &request, const Reply &reply)
{
    if (!reply.ok || request.command == nullptr)
        return "";
    const std::string name = request.command->name;
    if (name == "ready")
        return std::string("kelpctl ready ") + (request.on ? "on" : "off") +
               ": the data store now reports " + (request.on ? "ready" : "not ready");
    if (name == "set")
        return "kelpctl set: object " + std::to_string(request.id) + " attribute " + request.name +
               " " + (reply.previous ? quoted(*reply.previous) + " -> " : std::string("(new) = ")) +
               quoted(request.text);
    if (name == "add") {
        const std::vector<uint32_t> ids = objectIdsIn(request.text);
        const std::string what =
            ids.empty() ? std::string("links only")
                        : (ids.size() == 1 ? "object " : std::to_string(ids.size()) + " objects ") +
                              idList(ids);
        return "kelpctl add: added " + what + rescanPart(request, reply);
    }
    if (name == "remove")
        return "kelpctl remove: removed object " + std::to_string(request.id) + " and its links" +
               rescanPart(request, reply);
    if (name == "load")
        return "kelpctl load: now serving the model " + quoted(request.text) +
               rescanPart(request, reply);
    if (name == "event") {
        if (request.rawXml) {
            const std::string id = eventIdIn(request.text);
            return "kelpctl event --xml: queued " +
                   (id.empty() ? std::string("an event without a numeric EventID") : "event " + id);
        }
        std::string line = "kelpctl event: queued event " + std::to_string(request.id);
        if (request.object)
            line += " for object " + std::to_string(*request.object);
        if (!request.parms.empty())
            line += ", " + std::to_string(request.parms.size()) + " parm" +
                    (request.parms.size() == 1 ? "" : "s");
        for (const auto &[field, value] : request.fields)
            line += ", " + field + "=" + quoted(value);
        return line;
    }
    return "";
}

} // namespace kelp::ctl
