// kelp_stress: walkers and getters against a running kelpagent while a
// script reloads the model, adds and removes an object, floods the event
// queue and asks for rescans (SIGHUP). Every walk and Get is checked
// against the states the script can produce (walk_check.h); the agent's
// resident memory after the first 10 loads and after the last is compared.
// Prints a report; exit status 0 when every check held, 1 otherwise, 2 for
// a usage error.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "snmp/tree.h"
#include "snmp_walker.h"
#include "testkit.h"
#include "walk_check.h"

namespace kelp::stress {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using test::AgentUnderTest;
using test::RunResult;

// The size of a run: it ends after `loads` model loads or after `seconds`,
// whichever comes first.
struct Size {
    int seconds = 15;
    int loads = 1000;
    int walkers = 4;
    int getters = 1;
    int events = 100;     // per burst of events
    int highWater = 1000; // a burst is sent while fewer events wait
    int roundMs = 0;      // pause after each round of the script
    int scale = 20;       // KELP_TIME_SCALE: the plug-in reads 20 events a second
    int repetitions = 25; // GETBULK max-repetitions
    int maxGrowth = 10;   // percent of resident memory over the run
    int growthFrom = 100; // loads before the memory check applies
    int foreign = 0;      // 1: kelpgen's models, whose ids name other objects
};

// One option row: the flag, what it sets, and its help.
struct Option {
    const char *flag;
    int Size::*field;
    const char *help;
};

constexpr Option kOptions[] = {
    {"--seconds", &Size::seconds, "longest run time"},
    {"--loads", &Size::loads, "model loads after which the run ends"},
    {"--walkers", &Size::walkers, "threads walking the tree with GETBULK"},
    {"--getters", &Size::getters, "threads sending Gets of 10 random names"},
    {"--events", &Size::events, "events in a burst"},
    {"--high-water", &Size::highWater, "a round sends a burst while fewer events wait"},
    {"--round-ms", &Size::roundMs, "pause after each round of the script, milliseconds"},
    {"--scale", &Size::scale, "the agent's KELP_TIME_SCALE (its clocks run that much faster)"},
    {"--repetitions", &Size::repetitions, "GETBULK max-repetitions"},
    {"--max-growth", &Size::maxGrowth, "allowed growth of resident memory, percent"},
    {"--growth-from", &Size::growthFrom, "loads a run needs for the memory check to apply"},
    {"--foreign", &Size::foreign,
     "1: load kelpgen's models, whose object ids name other objects than the sample's"},
};

bool parse(int argc, char **argv, Size *size)
{
    for (int i = 1; i < argc; i++) {
        const Option *option = nullptr;
        for (const Option &row : kOptions) {
            if (std::strcmp(argv[i], row.flag) == 0) {
                option = &row;
            }
        }
        char *end = nullptr;
        if (option == nullptr || i + 1 == argc) {
            return false;
        }
        const long value = std::strtol(argv[++i], &end, 10);
        if (*end != '\0' || value < 0 || value > 1000000) {
            return false;
        }
        size->*(option->field) = static_cast<int>(value);
    }
    return size->walkers + size->getters > 0 && size->seconds > 0 && size->repetitions > 0 &&
           size->scale > 0;
}

// VmRSS of `pid` in KiB, 0 when it cannot be read.
long residentKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return 0;
}

// The object the script adds and removes: a fan under the first
// enclosure's path.
const char *kAddedObject = "<object id=\"900001\" type=\"fans\"><Nexus>0\\0\\0\\1\\50</Nexus>"
                           "<Name>Stress fan</Name><ObjStatus>2</ObjStatus></object>";

// The sample model with other values: every name gets a suffix, every
// fan another speed, every status "non-critical". Ids, nexus and links stay,
// so each id names the same object in both models.
std::string changedValues(std::string text)
{
    const struct {
        const char *from, *to;
    } edits[] = {
        {"</Name>", " (changed)</Name>"},
        {"<FanSpeed>", "<FanSpeed>1"},
        {"<ObjStatus>2</ObjStatus>", "<ObjStatus>3</ObjStatus>"},
    };
    for (const auto &edit : edits) {
        const std::string from = edit.from, to = edit.to;
        for (size_t at = text.find(from); at != std::string::npos;
             at = text.find(from, at + to.size())) {
            text.replace(at, from.size(), to);
        }
    }
    return text;
}

// Objects of the sample that no link names: fans, a power supply and
// temperature probes, removed in the smaller model.
constexpr const char *kRemovedObjects[] = {"31", "32", "40", "50", "51"};
// The agent's warning for a swap made without the plug-in's rescan lock.
constexpr const char *kUnlockedSwap = "the model was swapped without the rescan lock";

// `text` without the <object> elements of the given ids.
template <size_t N> std::string withoutObjects(std::string text, const char *const (&ids)[N])
{
    for (const char *id : ids) {
        const size_t start = text.find("<object id=\"" + std::string(id) + "\"");
        const size_t end = text.find("</object>", start);
        if (start != std::string::npos && end != std::string::npos) {
            text.erase(start, end + std::strlen("</object>") - start);
        }
    }
    return text;
}

// Counts and the first faults, shared by the threads.
struct Tally {
    std::mutex mutex;
    long walks = 0, walkLockTimeOuts = 0, walkOthers = 0;
    long gets = 0, getLockTimeOuts = 0, getOthers = 0;
    long varbinds = 0;
    long faults = 0;
    std::vector<std::string> firstFaults;

    void fault(const std::string &what)
    {
        std::lock_guard lock(mutex);
        faults++;
        if (firstFaults.size() < 10) {
            firstFaults.push_back(what);
        }
    }
};

// A walk at rest, retried past lock time-outs; false when it never ends
// past the tree.
bool restWalk(Walker &walker, const Name &root, StateWalk *walk)
{
    for (int attempt = 0; attempt < 5; attempt++) {
        walk->clear();
        std::string why;
        if (walker.walk(root, 50, walk, &why) == WalkEnd::kPastTree) {
            return true;
        }
        std::this_thread::sleep_for(200ms);
    }
    return false;
}

// How many events wait for the plug-in (kelpctl status), 0 when unknown.
long queuedEvents(const AgentUnderTest &agent)
{
    const std::string status = agent.control({"status"});
    const std::string label = "events queued: ";
    const size_t at = status.find(label);
    return at == std::string::npos ? 0
                                   : std::strtol(status.c_str() + at + label.size(), nullptr, 10);
}

// Waits until the plug-in has read every queued event, and a little more
// for the rebuild the last one may start: the tables are then at rest.
void settle(const AgentUnderTest &agent, int scale)
{
    test::waitFor([&agent] { return queuedEvents(agent) == 0; }, 30s);
    std::this_thread::sleep_for(std::chrono::milliseconds(3000 / scale + 50));
}

// How many rows of each column hiddenRows asks for.
constexpr uint32_t kProbedRows = 16;

// The bindings a Get answers at rest that `walk` does not show. The
// plug-in's walk passes over a whole table whose first row is a hole (its
// empty-table probe reads column 1, row 1), while a Get answers the rows
// after it, and so does a GetNext from within the table: a walker that was
// in the table when its first object vanished goes on to them. So for each
// table the walk shows no first row of, rows 1..kProbedRows of every
// column are asked for. False when a Get fails past its retries.
bool hiddenRows(Walker &walker, const Name &root, const StateWalk &walk, StateWalk *hidden)
{
    std::set<Name> walked;
    for (const Binding &binding : walk) {
        walked.insert(binding.name);
    }
    const auto cell = [&root](const agent::ServedTable &table, uint32_t column, uint32_t row) {
        Name name = root;
        name.insert(name.end(), {table.group, table.table, 1, column, row});
        return name;
    };
    hidden->clear();
    for (const agent::ServedTable &table : agent::kServedTables) {
        if (walked.count(cell(table, 1, 1)) != 0) {
            continue;
        }
        for (uint32_t column = 1; column <= table.columns; column++) {
            std::vector<Name> names;
            for (uint32_t row = 1; row <= kProbedRows; row++) {
                names.push_back(cell(table, column, row));
            }
            std::vector<Binding> found;
            for (int attempt = 0;; attempt++) {
                std::vector<Name> absent;
                std::string why;
                found.clear();
                if (walker.get(names, &found, &absent, &why) == GetEnd::kAnswered) {
                    break;
                }
                if (attempt == 4) {
                    std::fprintf(stderr, "kelp_stress: a Get at rest failed: %s\n", why.c_str());
                    return false;
                }
                std::this_thread::sleep_for(200ms);
            }
            for (Binding &binding : found) {
                if (walked.count(binding.name) == 0) {
                    hidden->push_back(std::move(binding));
                }
            }
        }
    }
    return true;
}

// The states the script produces: each model, with and without the added
// object, each walked twice (the second time after another load and a few
// events) so that values that change on their own are known, with the rows
// only a Get finds at rest (hiddenRows). Every change queues its rescan
// events and is walked once the plug-in has rebuilt.
bool buildReference(AgentUnderTest &agent, Walker &walker, const std::vector<std::string> &models,
                    int scale, Reference *reference)
{
    for (const std::string &model : models) {
        StateWalk plain[2], added[2], plainHidden[2], addedHidden[2];
        for (int round = 0; round < 2; round++) {
            for (int i = 0; i < round * 5; i++) {
                agent.control({"event", "2048", "--object", "1"});
            }
            bool done = agent.control({"load", model}).ends_with("ok\n");
            settle(agent, scale);
            done = done && restWalk(walker, reference->root(), &plain[round]) &&
                   hiddenRows(walker, reference->root(), plain[round], &plainHidden[round]) &&
                   agent.control({"add", "--xml", kAddedObject}).ends_with("ok\n");
            settle(agent, scale);
            done = done && restWalk(walker, reference->root(), &added[round]) &&
                   hiddenRows(walker, reference->root(), added[round], &addedHidden[round]) &&
                   agent.control({"remove", "900001"}).ends_with("ok\n");
            if (!done) {
                std::fprintf(stderr, "kelp_stress: the reference walks of %s failed\n",
                             model.c_str());
                return false;
            }
        }
        if (!reference->addState(plain[0], plainHidden[0]) ||
            !reference->addState(added[0], addedHidden[0]) ||
            !reference->addRepeat(plain[0], plain[1]) ||
            !reference->addRepeat(added[0], added[1]) ||
            !reference->addRepeat(plainHidden[0], plainHidden[1]) ||
            !reference->addRepeat(addedHidden[0], addedHidden[1])) {
            std::fprintf(stderr, "kelp_stress: %s walks differently at rest\n", model.c_str());
            return false;
        }
    }
    settle(agent, scale);
    return true;
}

void walkLoop(Walker &walker, const Reference &reference, const Size &size,
              const std::atomic<bool> &stop, Tally &tally)
{
    std::vector<Binding> walk;
    while (!stop) {
        walk.clear();
        std::string why;
        const WalkEnd end = walker.walk(reference.root(), size.repetitions, &walk, &why);
        for (const std::string &fault : reference.checkWalk(walk, end)) {
            tally.fault("walk: " + fault);
        }
        std::lock_guard lock(tally.mutex);
        tally.varbinds += static_cast<long>(walk.size());
        if (end == WalkEnd::kPastTree) {
            tally.walks++;
        } else if (end == WalkEnd::kLockTimeOut) {
            tally.walkLockTimeOuts++;
        } else {
            tally.walkOthers++;
            if (tally.firstFaults.size() < 10) {
                tally.firstFaults.push_back("walk: " + why);
            }
        }
    }
}

void getLoop(Walker &walker, const Reference &reference, unsigned seed,
             const std::atomic<bool> &stop, Tally &tally)
{
    const std::vector<Name> names = reference.names();
    std::mt19937 random(seed);
    std::uniform_int_distribution<size_t> pick(0, names.size() - 1);
    while (!stop) {
        std::vector<Name> asked;
        for (int i = 0; i < 10; i++) {
            asked.push_back(names[pick(random)]);
        }
        std::vector<Binding> found;
        std::vector<Name> absent;
        std::string why;
        const GetEnd end = walker.get(asked, &found, &absent, &why);
        for (const Binding &binding : found) {
            if (std::string fault = reference.checkValue(binding); !fault.empty()) {
                tally.fault("get: " + fault);
            }
        }
        for (const Name &name : absent) {
            if (std::string fault = reference.checkAbsent(name); !fault.empty()) {
                tally.fault("get: " + fault);
            }
        }
        std::lock_guard lock(tally.mutex);
        tally.varbinds += static_cast<long>(found.size() + absent.size());
        if (end == GetEnd::kAnswered) {
            tally.gets++;
        } else if (end == GetEnd::kLockTimeOut) {
            tally.getLockTimeOuts++;
        } else {
            tally.getOthers++;
            if (tally.firstFaults.size() < 10) {
                tally.firstFaults.push_back("get: " + why);
            }
        }
    }
}

// What the script did.
struct Script {
    long loads = 0, adds = 0, removes = 0, rescans = 0, events = 0, refused = 0;
    long rssAfter10 = 0, rssAfterAll = 0;
    // Events waiting at those two moments: the queue's memory is part of both.
    long queuedAfter10 = 0, queuedAfterAll = 0;
    std::vector<std::string> refusals;
};

// Rounds of: a model load (with or without rescan events), the object
// added, a burst of events, the object removed, and every fifth round a
// SIGHUP; until the loads are done or the time is up.
Script runScript(AgentUnderTest &agent, const std::vector<std::string> &models, const Size &size)
{
    Script script;
    const Clock::time_point until = Clock::now() + std::chrono::seconds(size.seconds);
    const auto ok = [&script](const std::string &answer) {
        if (!answer.ends_with("ok\n")) {
            script.refused++;
            if (script.refusals.size() < 5) {
                script.refusals.push_back(answer);
            }
        }
    };
    for (long round = 0; script.loads < size.loads && Clock::now() < until; round++) {
        const std::string &model = models[static_cast<size_t>(round) % models.size()];
        if (round % 4 == 3) {
            ok(agent.control({"load", "--no-events", model}));
        } else {
            ok(agent.control({"load", model}));
        }
        if (++script.loads == 10) {
            script.rssAfter10 = residentKiB(agent.process()->pid());
            script.queuedAfter10 = queuedEvents(agent);
        }
        ok(agent.control({"add", "--xml", kAddedObject}));
        script.adds++;
        if (queuedEvents(agent) < size.highWater) {
            for (int i = 0; i < size.events; i++) {
                ok(agent.control({"event", "2048", "--object", "1", "--parm", "stress"}));
            }
            script.events += size.events;
        }
        if (round % 5 == 4) {
            agent.process()->signal(SIGHUP);
            script.rescans++;
        }
        if (round % 2 == 0) {
            ok(agent.control({"remove", "--no-events", "900001"}));
        } else {
            ok(agent.control({"remove", "900001"}));
        }
        script.removes++;
        std::this_thread::sleep_for(std::chrono::milliseconds(size.roundMs));
    }
    script.rssAfterAll = residentKiB(agent.process()->pid());
    script.queuedAfterAll = queuedEvents(agent);
    return script;
}

int stressMain(int argc, char **argv)
{
    Size size;
    if (!parse(argc, argv, &size)) {
        std::fprintf(stderr, "usage: kelp_stress");
        for (const Option &row : kOptions) {
            std::fprintf(stderr, " [%s N]", row.flag);
        }
        std::fprintf(stderr, "\n");
        for (const Option &row : kOptions) {
            std::fprintf(stderr, "  %-15s %s\n", row.flag, row.help);
        }
        return 2;
    }
    AgentUnderTest agent;
    const std::string sample = test::sourcePath("data/models/sample.xml");
    std::vector<std::string> models = {sample};
    if (size.foreign != 0) {
        for (const char *disks : {"12", "20"}) {
            const std::string model = agent.dir() / (std::string("gen-") + disks + ".xml");
            const RunResult made = test::run(
                {KELPGEN_PATH, "--disks", disks, "--disks-per-controller", "8", "--out", model}, {},
                agent.dir());
            if (made.status != 0) {
                std::fprintf(stderr, "kelp_stress: kelpgen failed: %s\n", made.err.c_str());
                return 1;
            }
            models.push_back(model);
        }
    } else {
        const std::string text = test::readFile(sample);
        const std::string changed = agent.dir() / "changed.xml";
        const std::string fewer = agent.dir() / "fewer.xml";
        test::writeFile(changed, changedValues(text));
        test::writeFile(fewer, withoutObjects(text, kRemovedObjects));
        models.push_back(changed);
        models.push_back(fewer);
    }
    std::string why;
    if (!agent.start(sample, {}, &why, {"KELP_TIME_SCALE=" + std::to_string(size.scale)})) {
        std::fprintf(stderr, "kelp_stress: kelpagent did not start: %s\n", why.c_str());
        return 1;
    }
    // net-snmp's tools read no MIB files and write nothing outside the run's dir.
    for (const std::string &setting : test::snmpEnv(agent.dir())) {
        putenv(strdup(setting.c_str()));
    }
    const std::string peer = "udp:127.0.0.1:" + std::to_string(agent.port());
    std::vector<std::unique_ptr<Walker>> walkers;
    for (int i = 0; i < size.walkers + size.getters + 1; i++) {
        walkers.push_back(std::make_unique<Walker>(peer, "public", 5000));
        if (!walkers.back()->open()) {
            std::fprintf(stderr, "kelp_stress: no SNMP session with %s\n", peer.c_str());
            return 1;
        }
    }
    Reference reference(Name{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20});
    // Every table but those of array disks (130.4), their enclosure
    // connections (130.5), virtual disks (140.1) and partitions (140.2),
    // which are numbered afresh at each rebuild, keeps its rows' indices and
    // appends rows. A walk showed the appended rows of such a table only
    // while its first row answered, until the agent learned to read a
    // table whose first row is a hole.
    for (uint32_t table = 1; table <= 18; table++) {
        if (table != 4 && table != 5)
            reference.addAppendingTable(130, table);
    }
    for (uint32_t table = 3; table <= 6; table++)
        reference.addAppendingTable(140, table);
    // The disk to virtual disk table (140.3) keeps its rows and pairs the
    // disks and virtual disks of the build before by their row indices,
    // which loads that move ids give to other objects: after a run of them
    // a row may show any pair the run passed through.
    reference.addUncheckedTable(140, 3);
    if (!buildReference(agent, *walkers.back(), models, size.scale, &reference)) {
        return 1;
    }
    std::printf("reference: %zu states, %zu names, %zu served by every state, %zu change on "
                "their own, %zu only a Get finds at rest\n",
                models.size() * 2, reference.names().size(), reference.alwaysServed(),
                reference.volatileNames(), reference.hiddenNames());
    for (const Name &name : reference.volatileSet()) {
        std::printf("  changes on its own: %s\n", nameText(name).c_str());
    }

    std::atomic<bool> stop{false};
    Tally tally;
    std::vector<std::thread> threads;
    for (int i = 0; i < size.walkers; i++) {
        threads.emplace_back(
            [&, i] { walkLoop(*walkers[static_cast<size_t>(i)], reference, size, stop, tally); });
    }
    for (int i = 0; i < size.getters; i++) {
        Walker &walker = *walkers[static_cast<size_t>(size.walkers + i)];
        threads.emplace_back([&, i] {
            getLoop(walker, reference, 7919u * static_cast<unsigned>(i + 1), stop, tally);
        });
    }
    const Clock::time_point start = Clock::now();
    const Script script = runScript(agent, models, size);
    // On a busy machine the rebuilds of a long script may hold the tables
    // through every walk. The changes are over now: a walk must get through
    // once the agent has caught up, or the tables stayed locked.
    auto walksSoFar = [&tally] {
        std::lock_guard lock(tally.mutex);
        return tally.walks;
    };
    const long walksDuringScript = walksSoFar();
    const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(30);
    while (size.walkers > 0 && walksSoFar() == 0 && Clock::now() < giveUp) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

    const bool running = agent.process()->running();
    const std::string log = agent.process()->err();
    const bool onlyLockGenErrs = test::genErrsWereTheLocks(log);
    const int stopped = agent.stop();

    std::printf("run: %.1f s, %d walkers, %d getters, GETBULK max-repetitions %d\n", seconds,
                size.walkers, size.getters, size.repetitions);
    std::printf("script: %ld loads, %ld adds, %ld removes, %ld rescans (SIGHUP), %ld events, "
                "%ld commands refused\n",
                script.loads, script.adds, script.removes, script.rescans, script.events,
                script.refused);
    std::printf("walks: %ld complete (%ld of them after the script), %ld ended by genErr, %ld "
                "ended otherwise\n",
                tally.walks, tally.walks - walksDuringScript, tally.walkLockTimeOuts,
                tally.walkOthers);
    std::printf("gets: %ld answered, %ld genErr, %ld otherwise\n", tally.gets,
                tally.getLockTimeOuts, tally.getOthers);
    std::printf("varbinds: %ld checked; faults: %ld\n", tally.varbinds, tally.faults);
    std::printf("kelpagent VmRSS: %ld KiB after 10 loads, %ld KiB after %ld loads (%ld and %ld "
                "events waiting)\n",
                script.rssAfter10, script.rssAfterAll, script.loads, script.queuedAfter10,
                script.queuedAfterAll);
    for (const std::string &refusal : script.refusals) {
        std::printf("refused: %s", refusal.c_str());
    }
    for (const std::string &fault : tally.firstFaults) {
        std::printf("FAULT %s\n", fault.c_str());
    }

    bool passed = tally.faults == 0 && tally.walkOthers == 0 && tally.getOthers == 0;
    if (size.walkers > 0 && tally.walks == 0) {
        std::printf("FAIL no walk completed, not even within 30 s after the script\n");
        passed = false;
    }
    if (!onlyLockGenErrs) {
        // Every genErr that was not the lock's is logged so.
        std::printf("FAIL kelpagent answered genErr for a plug-in failure\n");
        passed = false;
    }
    if (!running || stopped != 0) {
        std::printf("FAIL kelpagent %s (exit status %d)\n",
                    running ? "did not stop cleanly" : "died during the run", stopped);
        passed = false;
    }
    if (script.loads >= size.growthFrom) {
        const long limit = script.rssAfter10 + script.rssAfter10 * size.maxGrowth / 100;
        if (script.rssAfter10 == 0 || script.rssAfterAll > limit) {
            std::printf("FAIL resident memory grew past %d%%: %ld KiB, limit %ld KiB\n",
                        size.maxGrowth, script.rssAfterAll, limit);
            passed = false;
        }
    } else {
        std::printf("memory: not checked (%ld loads, fewer than %d)\n", script.loads,
                    size.growthFrom);
    }
    size_t unlockedSwaps = 0;
    for (size_t at = log.find(kUnlockedSwap); at != std::string::npos;
         at = log.find(kUnlockedSwap, at + 1)) {
        ++unlockedSwaps;
    }
    std::printf("swaps without the rescan lock: %zu of %ld loads and rescans\n", unlockedSwaps,
                script.loads + script.rescans);
    if (!passed) {
        // What the agent said about its swaps and rescans says where to look.
        std::printf("kelpagent's log:\n%s", log.c_str());
    }
    std::printf("%s\n", passed ? "PASS" : "FAIL");
    return passed ? 0 : 1;
}

} // namespace
} // namespace kelp::stress

int main(int argc, char **argv)
{
    return kelp::stress::stressMain(argc, argv);
}
