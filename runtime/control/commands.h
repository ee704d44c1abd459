// The commands of the control socket: the table that names them, the pure
// step from words to a checked request, and running a request against the
// served model and the event queue. The socket itself is in server.h.
#ifndef KELP_RUNTIME_CONTROL_COMMANDS_H
#define KELP_RUNTIME_CONTROL_COMMANDS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelp::ctl {

struct CommandRow;

// A command whose words passed its row's checks. Each command uses the
// fields its row names; the others stay empty.
struct Request {
    const CommandRow *command = nullptr;
    uint32_t id = 0;                // set, remove: the object id; event: the event number
    bool on = false;                // ready
    std::string name;               // set: the attribute
    std::string text;               // set: the value; add, event --xml: XML; load, save: file
    bool rawXml = false;            // event --xml
    bool noEvents = false;          // add, remove, load: --no-events
    std::optional<uint32_t> object; // event --object
    std::vector<std::string> parms; // event --parm, in order
    std::vector<std::pair<std::string, std::string>> fields; // event --field, in order
};

// What a command answers: output lines, then "ok" or "error: <error>".
struct Reply {
    std::vector<std::string> lines;
    bool ok = true;
    std::string error;
    // Not sent: for the log line of set, the attribute's value before the
    // change (nullopt when the object had no such attribute).
    std::optional<std::string> previous;

    void fail(std::string message)
    {
        ok = false;
        error = std::move(message);
    }
};

// One command: its name, the pure check of its arguments (the words after
// the name) that fills a Request or answers false with a message, the step
// that runs it, its usage line, and whether it runs on the command worker.
// The commands that change the model run there, and so does save: each may
// take as long as reading or writing a large model file, so the server runs
// them on a thread of their own, one at a time in the order they arrived
// (a save then writes what the changes sent before it made).
struct CommandRow {
    const char *name;
    bool (*parse)(std::span<const std::string> args, Request *request, std::string *error);
    void (*run)(const Request &request, Reply *reply);
    const char *usage;
    bool onWorker;
};

// Every command, in the order `help` lists them.
std::span<const CommandRow> commandTable();

// Checks words (a command name and its arguments) against the table. Pure:
// reads nothing and changes nothing. False with a message for an empty
// line, an unknown command or wrong arguments.
bool parseCommand(std::span<const std::string> words, Request *request, std::string *error);

// Runs a request from parseCommand.
Reply runCommand(const Request &request);

// Splits a command line (without its "\n") into words and checks them
// (parseCommand). Pure. False with a message for a line that does not split
// or does not check.
bool prepareLine(std::string_view line, Request *request, std::string *error);

// The whole exchange for one command line (without its "\n"): the answer
// text, every line ending in "\n", the last one "ok" or "error: ...". Lines
// are made printable, so no client text can forge a line.
std::string answerLine(std::string_view line);

// A reply as the answer text answerLine sends.
std::string formatReply(const Reply &reply);

// An object id: decimal digits only, 1 to 4294967295.
bool parseObjectId(std::string_view word, uint32_t *id);

// An event number: decimal digits only, 0 to 4294967295.
bool parseEventNumber(std::string_view word, uint32_t *number);

// Whether name can be an element name of an event or an attribute: an ASCII
// letter or '_', then letters, digits, '_', '-' or '.'.
bool isElementName(std::string_view name);

// The event text: <EventID>eventId</EventID>, then objectFields, then
// <Parm01>.. from parms (at most 10), then fields, every value escaped. No
// name repeats: a field named like an element already there (from
// objectFields, parms or an earlier field) replaces that element's value in
// its place.
std::string eventXml(uint32_t eventId,
                     const std::vector<std::pair<std::string, std::string>> &objectFields,
                     const std::vector<std::string> &parms,
                     const std::vector<std::pair<std::string, std::string>> &fields);

// The events a successful add, remove or load queues, as a storage service
// raises them when its configuration changes: rescan started, then rescan
// completed. --no-events leaves them out.
inline constexpr uint32_t kRescanStartedEvent = 3061;
inline constexpr uint32_t kRescanCompletedEvent = 3060;

// Queues the rescan pair, kRescanStartedEvent then kRescanCompletedEvent,
// as one step: both or neither. False with a message when the event queue
// has no room for them. May throw std::bad_alloc.
bool queueRescanEvents(std::string *error);

// Most --parm options an event takes (Parm01..Parm10).
inline constexpr size_t kMaxParms = 10;

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_COMMANDS_H
