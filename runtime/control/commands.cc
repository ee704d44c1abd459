// The command table of the control socket: for each command, the check of
// its arguments (pure) and the step that runs it against the served model
// (kelp::ds) or the event queue (kelp::ev). Adding a command is adding a
// parse function, a run function and a row.
#include "control/commands.h"

#include <array>
#include <memory>

#include "control/activity.h"
#include "control/words.h"
#include "datastore/live/live_source.h"
#include "datastore/model.h"
#include "datastore/model_store.h"
#include "eventif/event_queue.h"
#include "support/log.h"

namespace kelp::ctl {
namespace {

using Args = std::span<const std::string>;

bool usageError(const Request &request, std::string *error)
{
    *error = std::string("usage: ") + request.command->usage;
    return false;
}

bool objectIdArg(const std::string &word, uint32_t *id, std::string *error)
{
    if (parseObjectId(word, id))
        return true;
    *error = "bad object id \"" + word + "\": expected a decimal number from 1 to 4294967295";
    return false;
}

// The data-store calls share one shape: true, or false with a message.
void runOrFail(bool done, const std::string &error, Reply *reply)
{
    if (!done)
        reply->fail(error.empty() ? "the data store refused the change" : error);
}

bool parseNoArgs(Args args, Request *request, std::string *error)
{
    return args.empty() || usageError(*request, error);
}

void runHelp(const Request &, Reply *reply)
{
    for (const CommandRow &row : commandTable())
        reply->lines.push_back(row.usage);
}

void runStatus(const Request &, Reply *reply)
{
    ds::ModelStatus status = ds::modelStatus();
    reply->lines.push_back("model: " + (status.served ? status.origin : std::string("none")));
    reply->lines.push_back(std::string("ready: ") + (status.ready ? "yes" : "no"));
    uint64_t total = 0;
    for (const auto &count : status.counts)
        total += count.second;
    reply->lines.push_back("objects: " + std::to_string(total));
    for (const auto &[type, count] : status.counts)
        reply->lines.push_back("  " + type + ": " + std::to_string(count));
    reply->lines.push_back("events queued: " + std::to_string(ev::queuedEvents()));
    reply->lines.push_back(std::string("event reader: ") +
                           (ev::readerSwitchedOn() ? "switched on" : "not yet switched on"));
    // Lines added later go last: scripts read the ones above by position.
    if (const live::LiveStatus l = live::liveStatus(); l.running) {
        char line[64];
        std::snprintf(line, sizeof line, "%.1f", l.lastScanMs);
        reply->lines.push_back("source: live " + l.root + ", " + std::to_string(l.scans) +
                               " scans, the last in " + line + " ms, udev " +
                               (l.udev ? "on (" + l.events + " events)" : "off"));
        reply->lines.push_back("components: " + l.components);
        constexpr size_t kNotesShown = 20;
        for (size_t i = 0; i < l.notes.size() && i < kNotesShown; ++i)
            reply->lines.push_back("note: " + l.notes[i]);
        if (l.notes.size() > kNotesShown)
            reply->lines.push_back("note: " + std::to_string(l.notes.size() - kNotesShown) +
                                   " more");
    }
}

bool parseReady(Args args, Request *request, std::string *error)
{
    if (args.size() != 1 || (args[0] != "on" && args[0] != "off"))
        return usageError(*request, error);
    request->on = args[0] == "on";
    return true;
}

void runReady(const Request &request, Reply *reply)
{
    std::string error;
    runOrFail(ds::setReady(request.on, &error), error, reply);
}

bool parseSet(Args args, Request *request, std::string *error)
{
    if (args.size() != 3)
        return usageError(*request, error);
    if (!objectIdArg(args[0], &request->id, error))
        return false;
    if (!isElementName(args[1])) {
        *error = "bad attribute name \"" + args[1] + "\"";
        return false;
    }
    request->name = args[1];
    request->text = args[2];
    return true;
}

void runSet(const Request &request, Reply *reply)
{
    // Changes run one at a time on the worker, so nothing comes between
    // this read and the change.
    if (const std::shared_ptr<const ds::Model> model = ds::servedModel()) {
        if (const std::optional<size_t> pos = model->find(request.id)) {
            if (std::optional<std::string_view> value = model->attribute(*pos, request.name))
                reply->previous = *value;
        }
    }
    std::string error;
    runOrFail(ds::setAttribute(request.id, request.name, request.text, &error), error, reply);
}

// "--xml TEXT", the raw form of event.
bool parseXmlOption(Args args, Request *request, std::string *error)
{
    if (args.size() != 2 || args[0] != "--xml")
        return usageError(*request, error);
    request->rawXml = true;
    request->text = args[1];
    return true;
}

// Whether word is written as an option. No file, id or XML text of add,
// remove, load and save is taken for one that starts with "--".
bool isOptionWord(const std::string &word)
{
    return word.starts_with("--");
}

bool unknownOption(const Request &request, const std::string &option, std::string *error)
{
    *error = "unknown " + std::string(request.command->name) + " option \"" + option +
             "\"; usage: " + request.command->usage;
    return false;
}

// --no-events, which add, remove and load take anywhere among their words.
bool takeNoEvents(Request *request, std::string *error)
{
    if (request->noEvents) {
        *error = "--no-events given twice";
        return false;
    }
    request->noEvents = true;
    return true;
}

// The words of remove and load: one operand, and --no-events before or
// after it.
bool parseOperand(Args args, Request *request, std::string *operand, std::string *error)
{
    bool seen = false;
    for (const std::string &word : args) {
        if (word == "--no-events") {
            if (!takeNoEvents(request, error))
                return false;
        } else if (isOptionWord(word)) {
            return unknownOption(*request, word, error);
        } else if (seen) {
            return usageError(*request, error);
        } else {
            *operand = word;
            seen = true;
        }
    }
    return seen || usageError(*request, error);
}

// A change of the model is what makes a storage service rescan, so a
// successful add, remove or load queues the rescan pair, unless the command
// said --no-events. The change has been made by then: a queue without room
// for both events is reported as an output line and the command answers ok.
void queueRescan(const Request &request, Reply *reply)
{
    if (!reply->ok || request.noEvents)
        return;
    std::string error;
    if (!queueRescanEvents(&error)) {
        reply->lines.push_back("the model changed, but the rescan events were not queued: " +
                               error);
    }
}

bool parseAdd(Args args, Request *request, std::string *error)
{
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &word = args[i];
        if (word == "--no-events") {
            if (!takeNoEvents(request, error))
                return false;
        } else if (word == "--xml") {
            if (request->rawXml) {
                *error = "--xml given twice";
                return false;
            }
            if (i + 1 == args.size()) {
                *error = "--xml needs a value";
                return false;
            }
            request->rawXml = true;
            request->text = args[++i];
        } else if (isOptionWord(word)) {
            return unknownOption(*request, word, error);
        } else {
            return usageError(*request, error);
        }
    }
    return request->rawXml || usageError(*request, error);
}

void runAdd(const Request &request, Reply *reply)
{
    std::string error;
    runOrFail(ds::addObjects(request.text, &error), error, reply);
    queueRescan(request, reply);
}

bool parseRemove(Args args, Request *request, std::string *error)
{
    std::string operand;
    return parseOperand(args, request, &operand, error) &&
           objectIdArg(operand, &request->id, error);
}

void runRemove(const Request &request, Reply *reply)
{
    std::string error;
    runOrFail(ds::removeObject(request.id, &error), error, reply);
    queueRescan(request, reply);
}

bool parseLoad(Args args, Request *request, std::string *error)
{
    if (!parseOperand(args, request, &request->text, error))
        return false;
    return !request->text.empty() || usageError(*request, error);
}

void runLoad(const Request &request, Reply *reply)
{
    std::string error;
    runOrFail(ds::loadModelFile(request.text, &error), error, reply);
    queueRescan(request, reply);
}

bool parseSave(Args args, Request *request, std::string *error)
{
    if (args.size() != 1 || args[0].empty())
        return usageError(*request, error);
    if (isOptionWord(args[0]))
        return unknownOption(*request, args[0], error);
    request->text = args[0];
    return true;
}

void runSave(const Request &request, Reply *reply)
{
    std::string error;
    const bool saved = ds::saveModelFile(request.text, &error);
    // A failed save (a full disk, a read-only dir) changes nothing but is
    // the host's concern too, not only the client's that asked.
    if (!saved)
        rt::logWarning("kelpctl save: %s", printableLine(error.substr(0, 1024)).c_str());
    runOrFail(saved, error, reply);
}

bool parseEvent(Args args, Request *request, std::string *error)
{
    if (!args.empty() && args[0] == "--xml")
        return parseXmlOption(args, request, error);
    if (args.empty())
        return usageError(*request, error);
    if (!parseEventNumber(args[0], &request->id)) {
        *error =
            "bad event number \"" + args[0] + "\": expected a decimal number from 0 to 4294967295";
        return false;
    }
    for (size_t i = 1; i < args.size(); i += 2) {
        const std::string &option = args[i];
        if (option != "--object" && option != "--parm" && option != "--field") {
            *error = "unknown event option \"" + option + "\"; usage: " + request->command->usage;
            return false;
        }
        if (i + 1 == args.size()) {
            *error = option + " needs a value";
            return false;
        }
        const std::string &value = args[i + 1];
        if (option == "--object") {
            if (request->object) {
                *error = "--object given twice";
                return false;
            }
            uint32_t id = 0;
            if (!objectIdArg(value, &id, error))
                return false;
            request->object = id;
        } else if (option == "--parm") {
            if (request->parms.size() == kMaxParms) {
                *error = "more than " + std::to_string(kMaxParms) + " --parm options";
                return false;
            }
            request->parms.push_back(value);
        } else {
            size_t eq = value.find('=');
            std::string name = value.substr(0, eq);
            if (eq == std::string::npos || !isElementName(name) || name == "EventID") {
                *error = "bad --field \"" + value +
                         "\": expected NAME=VALUE with an element name other than EventID";
                return false;
            }
            request->fields.emplace_back(std::move(name), value.substr(eq + 1));
        }
    }
    return true;
}

void runEvent(const Request &request, Reply *reply)
{
    std::string error;
    // A value the plug-in cannot read would leave the trap without it while
    // the client is told "ok".
    if (request.rawXml) {
        runOrFail(ev::eventValuesFit(request.text, &error) && ev::queueEvent(request.text, &error),
                  error, reply);
        return;
    }
    std::vector<std::pair<std::string, std::string>> objectFields;
    std::string insertName;
    if (request.object && !ds::eventFieldsOf(*request.object, &objectFields, &error, &insertName)) {
        reply->fail(error.empty() ? "no object " + std::to_string(*request.object) : error);
        return;
    }
    // Without --parm, the object names itself in the text's first insert,
    // as the storage service's own events do ("Physical disk 0:0:3 has
    // failed.").
    std::vector<std::string> parms = request.parms;
    if (parms.empty() && !insertName.empty())
        parms.push_back(std::move(insertName));
    std::string xml = eventXml(request.id, objectFields, parms, request.fields);
    runOrFail(ev::eventValuesFit(xml, &error) && ev::queueEvent(xml, &error), error, reply);
}

constexpr bool kOnWorker = true;
constexpr std::array kCommands = {
    CommandRow{"status", parseNoArgs, runStatus, "status", !kOnWorker},
    CommandRow{"ready", parseReady, runReady, "ready on|off", kOnWorker},
    CommandRow{"set", parseSet, runSet, "set ID ATTR VALUE", kOnWorker},
    CommandRow{"add", parseAdd, runAdd, "add [--no-events] --xml TEXT", kOnWorker},
    CommandRow{"remove", parseRemove, runRemove, "remove [--no-events] ID", kOnWorker},
    CommandRow{"load", parseLoad, runLoad, "load [--no-events] FILE", kOnWorker},
    CommandRow{"save", parseSave, runSave, "save FILE", kOnWorker},
    CommandRow{"event", parseEvent, runEvent,
               "event EVENTID [--object ID] [--parm TEXT]... [--field NAME=VALUE]..."
               " | event --xml TEXT",
               !kOnWorker},
    CommandRow{"help", parseNoArgs, runHelp, "help", !kOnWorker},
};

} // namespace

std::span<const CommandRow> commandTable()
{
    return kCommands;
}

bool parseCommand(std::span<const std::string> words, Request *request, std::string *error)
{
    *request = Request{};
    if (words.empty()) {
        *error = "empty command line";
        return false;
    }
    for (const CommandRow &row : kCommands) {
        if (words[0] == row.name) {
            request->command = &row;
            return row.parse(words.subspan(1), request, error);
        }
    }
    *error = "unknown command \"" + words[0] + "\" (\"help\" lists the commands)";
    return false;
}

bool queueRescanEvents(std::string *error)
{
    return ev::queueEvents(
        {eventXml(kRescanStartedEvent, {}, {}, {}), eventXml(kRescanCompletedEvent, {}, {}, {})},
        error);
}

Reply runCommand(const Request &request)
{
    Reply reply;
    request.command->run(request, &reply);
    // One line in the host's log for each change, whoever asked for it.
    if (const std::string line = activityLine(request, reply); !line.empty())
        rt::logNotice("%s", line.c_str());
    return reply;
}

bool prepareLine(std::string_view line, Request *request, std::string *error)
{
    std::vector<std::string> words;
    return splitWords(line, &words, error) && parseCommand(words, request, error);
}

std::string answerLine(std::string_view line)
{
    std::string error;
    Request request;
    Reply reply;
    if (!prepareLine(line, &request, &error)) {
        reply.fail(error);
    } else {
        reply = runCommand(request);
    }
    return formatReply(reply);
}

} // namespace kelp::ctl
