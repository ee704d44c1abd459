// The event queue: a bounded FIFO of validated event texts under one mutex.
// Validation happens before the lock is taken, so a slow or malformed text
// never holds up the reader.
#include "eventif/event_queue.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string_view>

#include "eventif/reader.h"
#include "xmlsup/xml_scan.h"

namespace kelp::ev {
namespace {

std::mutex g_queueMutex;
// Guarded by g_queueMutex; front is oldest. A list, not a deque: an empty
// deque allocates, and a static that allocates throws while the library
// loads under a limit of address space that leaves no heap.
std::list<std::string> g_events;
size_t g_queuedBytes = 0; // guarded by g_queueMutex; the texts' sizes summed

std::atomic<bool> g_readerOn{false}; // atomic, no lock

void setError(std::string *error, std::string message)
{
    if (error != nullptr)
        *error = std::move(message);
}

bool isXmlSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// text, without surrounding XML white space, as a decimal number that fits
// 32 bits (the width of an event number in the plug-in); nullopt otherwise.
std::optional<uint32_t> decimalEventNumber(std::string_view text)
{
    while (!text.empty() && isXmlSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isXmlSpace(text.back()))
        text.remove_suffix(1);
    if (text.empty())
        return std::nullopt;
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<uint64_t>(c - '0');
        if (value > UINT32_MAX)
            return std::nullopt;
    }
    return static_cast<uint32_t>(value);
}

bool validateEvent(const std::string &xml, std::string *error)
{
    if (xml.size() > kMaxEventBytes) {
        setError(error, "event text is " + std::to_string(xml.size()) + " bytes, more than " +
                            std::to_string(kMaxEventBytes));
        return false;
    }
    // The reader hands the text out as a C string; a NUL would cut it short.
    if (xml.find('\0') != std::string::npos) {
        setError(error, "event text holds a NUL byte");
        return false;
    }
    auto id = rt::xml::findElement(xml, "EventID", 0);
    if (!id) {
        setError(error, "event text has no EventID element");
        return false;
    }
    if (!decimalEventNumber(*id)) {
        setError(error, "EventID \"" + std::string(id->substr(0, 40)) +
                            "\" is not a decimal number from 0 to 4294967295");
        return false;
    }
    return true;
}

} // namespace

bool eventValuesFit(std::string_view xml, std::string *error)
{
    static constexpr std::string_view kRead[] = {
        "Parm01",    "Parm02",         "Parm03",         "Parm04",          "Parm05",
        "Parm06",    "Parm07",         "Parm08",         "Parm09",          "Parm10",
        "Nexus",     "ObjType",        "ControllerName", "VirtualDiskName", "AttributesMask",
        "ObjStatus", "PreviousStatus",
    };
    for (std::string_view name : kRead) {
        const auto raw = rt::xml::findElement(xml, name, 0);
        if (!raw)
            continue;
        size_t bytes = raw->size();
        if (raw->find('&') != std::string_view::npos)
            bytes = rt::xml::decodeEntities(*raw).size();
        if (bytes > kMaxEventValueBytes) {
            setError(error, std::string(name) + " has " + std::to_string(bytes) +
                                " bytes, over the limit of " + std::to_string(kMaxEventValueBytes));
            return false;
        }
    }
    return true;
}

std::optional<uint32_t> eventNumber(std::string_view xml)
{
    auto id = rt::xml::findElement(xml, "EventID", 0);
    if (!id)
        return std::nullopt;
    return decimalEventNumber(*id);
}

bool queueEvents(const std::vector<std::string> &texts, std::string *error)
{
    size_t bytes = 0;
    for (const std::string &xml : texts) {
        if (!validateEvent(xml, error))
            return false;
        bytes += xml.size();
    }
    std::lock_guard lock(g_queueMutex);
    if (g_events.size() + texts.size() > kMaxQueuedEvents) {
        setError(error, "event queue is full (" + std::to_string(g_events.size()) +
                            " events waiting to be read, at most " +
                            std::to_string(kMaxQueuedEvents) + ")");
        return false;
    }
    if (g_queuedBytes + bytes > kMaxQueuedBytes) {
        setError(error, "event queue is full (" + std::to_string(g_queuedBytes) +
                            " bytes of events waiting to be read, at most " +
                            std::to_string(kMaxQueuedBytes) + ")");
        return false;
    }
    for (const std::string &xml : texts)
        g_events.push_back(xml);
    g_queuedBytes += bytes;
    return true;
}

bool queueEvent(const std::string &xml, std::string *error)
{
    return queueEvents({xml}, error);
}

std::optional<std::string> takeOldestEvent()
{
    std::lock_guard lock(g_queueMutex);
    if (g_events.empty())
        return std::nullopt;
    std::string oldest = std::move(g_events.front());
    g_events.pop_front();
    g_queuedBytes -= oldest.size();
    return oldest;
}

void requeueOldestEvent(std::string xml)
{
    std::lock_guard lock(g_queueMutex);
    g_queuedBytes += xml.size();
    g_events.push_front(std::move(xml));
}

size_t queuedEvents()
{
    std::lock_guard lock(g_queueMutex);
    return g_events.size();
}

void clearEvents()
{
    {
        std::lock_guard lock(g_queueMutex);
        g_events.clear();
        g_queuedBytes = 0;
    }
    forgetRescan();
}

bool readerSwitchedOn()
{
    return g_readerOn.load();
}

void setReaderSwitchedOn()
{
    g_readerOn.store(true);
}

} // namespace kelp::ev
