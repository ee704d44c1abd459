// Every control command through a real control socket against a served
// model: the answer, the visible effect, and that a refused command changes
// nothing.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "control/commands.h"
#include "control/control_testing.h"
#include "control/words.h"
#include "datastore/model_store.h"
#include "eventif/event_queue.h"
#include "kelp/runtime.h"
#include "vcsif.h"

namespace {

using namespace kelp::ctl::testing;
using kelp::ctl::quoteWord;

class ControlCommandTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelText(kModel, "test-model", &error)) << error;
        kelp::ev::clearEvents();
        char message[256];
        ASSERT_EQ(kelpRuntimeStartControl(socket_.c_str(), message, sizeof message), 0) << message;
    }
    void TearDown() override
    {
        kelpRuntimeStopControl();
        kelp::ds::unloadModel();
        kelp::ev::clearEvents();
    }

    std::string ask(const std::string &line) { return kelp::ctl::testing::ask(socket_, line); }
    static std::string takeEvent() { return kelp::ev::takeOldestEvent().value_or("<none>"); }

    TempDir dir_;
    std::string socket_ = dir_.file("control.sock");
};

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

TEST_F(ControlCommandTest, StatusShowsModelCountsReadinessAndQueuedEvents)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    std::string answer = ask("status");
    EXPECT_TRUE(answer.starts_with("model: test-model\nready: yes\nobjects: 5\n")) << answer;
    EXPECT_TRUE(contains(answer, "\n  adapters: 1\n")) << answer;
    EXPECT_TRUE(contains(answer, "\n  arraydisks: 1\n")) << answer;
    EXPECT_TRUE(contains(answer, "\n  vdisks: 1\n")) << answer;
    EXPECT_TRUE(contains(answer, "\nevents queued: 1\n")) << answer;
    EXPECT_TRUE(answer.ends_with("\nok\n")) << answer;

    kelp::ds::unloadModel();
    answer = ask("status");
    EXPECT_TRUE(answer.starts_with("model: none\nready: no\nobjects: 0\n")) << answer;
    EXPECT_TRUE(answer.ends_with("\nok\n")) << answer;
}

TEST_F(ControlCommandTest, ReadyOffAndOnSwitchDataStoreReady)
{
    ASSERT_TRUE(contains(readyAnswer(), "<Code>0</Code>")) << readyAnswer();
    EXPECT_EQ(ask("ready off"), "ok\n");
    EXPECT_FALSE(contains(readyAnswer(), "<Code>0</Code>")) << readyAnswer();
    EXPECT_TRUE(contains(readyAnswer(), "<Code>")) << readyAnswer();
    EXPECT_TRUE(contains(ask("status"), "\nready: no\n"));
    EXPECT_EQ(ask("ready on"), "ok\n");
    EXPECT_TRUE(contains(readyAnswer(), "<Code>0</Code>")) << readyAnswer();
}

TEST_F(ControlCommandTest, SetChangesOneAttributeAsGetSingleObjectShows)
{
    EXPECT_EQ(ask("set 20 ObjStatus 4"), "ok\n");
    EXPECT_TRUE(contains(singleObject(20), "<ObjStatus>4</ObjStatus>")) << singleObject(20);
    EXPECT_EQ(ask(R"(set 20 Name "Disk \"zero\" & one")"), "ok\n");
    EXPECT_TRUE(contains(singleObject(20), "<Name>Disk &quot;zero&quot; &amp; one</Name>") ||
                contains(singleObject(20), "<Name>Disk \"zero\" &amp; one</Name>"))
        << singleObject(20);
}

TEST_F(ControlCommandTest, RefusedSetChangesNothing)
{
    const std::string before = singleObject(20);
    for (const char *line : {"set 999 ObjStatus 4", "set 0 ObjStatus 4", "set x ObjStatus 4",
                             "set 20 \"Obj Status\" 4", "set 20 ObjStatus"}) {
        std::string answer = ask(line);
        EXPECT_TRUE(answer.starts_with("error: ")) << line << ": " << answer;
        EXPECT_EQ(std::count(answer.begin(), answer.end(), '\n'), 1) << answer;
    }
    // The fault is the set's: no line of the model file is named.
    EXPECT_EQ(ask("set 20 ObjStatus " + std::string(200, '9')),
              "error: kelpctl set: object 20: ObjStatus has 200 bytes, over the limit of 159\n");
    EXPECT_EQ(singleObject(20), before);
}

TEST_F(ControlCommandTest, AddAndRemoveChangeTheServedObjects)
{
    ASSERT_EQ(singleObject(60), "<status 2>");
    EXPECT_EQ(
        ask(R"(add --xml "<object id=\"60\" type=\"fans\" parent=\"90\"><Nexus>9\\f</Nexus></object>")"),
        "ok\n");
    EXPECT_TRUE(contains(singleObject(60), "<Nexus>9\\f</Nexus>")) << singleObject(60);
    EXPECT_TRUE(contains(ask("status"), "\n  fans: 1\n"));
    EXPECT_EQ(ask("remove 60"), "ok\n");
    EXPECT_EQ(singleObject(60), "<status 2>");
}

TEST_F(ControlCommandTest, RefusedAddAndRemoveChangeNothing)
{
    const std::string status = ask("status");
    for (const char *line : {
             R"(add --xml "<object id=\"20\" type=\"fans\"/>")", // duplicate id
             R"(add --xml "<object id=\"61\" type=\"fans\" parent=\"999\"/>")",
             R"(add --xml "<object id=\"62\" type=\"fans\"><Nexus>")", // malformed
             "remove 999",
             "remove 1", // has children
         }) {
        EXPECT_TRUE(ask(line).starts_with("error: ")) << line;
    }
    EXPECT_EQ(ask("status"), status);
    EXPECT_EQ(singleObject(61), "<status 2>");
    EXPECT_EQ(singleObject(62), "<status 2>");
    EXPECT_TRUE(contains(singleObject(1), "<Name>Vorn RX-240</Name>"));
}

TEST_F(ControlCommandTest, LoadReplacesTheModelAndABadFileKeepsIt)
{
    dir_.write("bad.xml", "<storage ready=\"1\"><object id=\"1\" type=\"adapters\">");
    dir_.write("dup.xml", "<storage ready=\"1\"><object id=\"1\" type=\"adapters\"/>"
                          "<object id=\"1\" type=\"bus\"/></storage>");
    for (const std::string &file :
         {dir_.file("bad.xml"), dir_.file("dup.xml"), dir_.file("none.xml")}) {
        std::string answer = ask("load " + kelp::ctl::quoteWord(file));
        EXPECT_TRUE(answer.starts_with("error: ")) << file << ": " << answer;
    }
    EXPECT_TRUE(contains(singleObject(20), "<Nexus>0\\0\\20</Nexus>"));
    EXPECT_TRUE(ask("status").starts_with("model: test-model\n"));

    dir_.write("other.xml", "<storage ready=\"1\"><object id=\"7\" type=\"Tape\">"
                            "<Nexus>t7</Nexus></object></storage>");
    EXPECT_EQ(ask("load " + kelp::ctl::quoteWord(dir_.file("other.xml"))), "ok\n");
    EXPECT_EQ(singleObject(20), "<status 2>");
    EXPECT_TRUE(contains(singleObject(7), "<Nexus>t7</Nexus>"));
    EXPECT_TRUE(contains(ask("status"), dir_.file("other.xml"))) << ask("status");
}

// Every object's answer and the status lines about the model, but the
// file it came from.
std::string servedState(const std::function<std::string(const std::string &)> &ask)
{
    std::string state = readyAnswer();
    for (uint32_t id : {1u, 2u, 20u, 40u, 60u, 90u})
        state += "\n" + singleObject(id);
    const std::string status = ask("status");
    return state + "\n" + status.substr(status.find('\n'));
}

TEST_F(ControlCommandTest, SaveWritesTheServedModelThatLoadServesTheSame)
{
    ASSERT_EQ(ask(R"(set 20 Name " <Disk> \"0\" & \\1\t")"), "ok\n");
    ASSERT_EQ(
        ask(R"(add --xml "<object id=\"60\" type=\"fans\" parent=\"90\"><Nexus>9\\f</Nexus></object>")"),
        "ok\n");
    ASSERT_EQ(ask("ready off"), "ok\n");
    kelp::ev::clearEvents();
    const std::string before = servedState([&](const std::string &line) { return ask(line); });
    ASSERT_NE(before.find("<Nexus>9\\f</Nexus>"), std::string::npos) << before;

    const std::string file = dir_.file("saved.xml");
    EXPECT_EQ(ask("save " + kelp::ctl::quoteWord(file)), "ok\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u) << "a save changes nothing";
    struct stat st {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    kelp::ds::unloadModel();
    EXPECT_EQ(ask("load --no-events " + kelp::ctl::quoteWord(file)), "ok\n");
    EXPECT_EQ(servedState([&](const std::string &line) { return ask(line); }), before);
    EXPECT_TRUE(ask("status").starts_with("model: " + file + "\n"));

    // Saving again over the file gives the same text.
    std::ifstream first(file, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(first)), {});
    EXPECT_EQ(ask("save " + kelp::ctl::quoteWord(file)), "ok\n");
    std::ifstream second(file, std::ios::binary);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(second)), {}), text);
}

TEST_F(ControlCommandTest, RefusedSaveSaysWhyAndWritesNothing)
{
    dir_.write("kept.xml", "kept");
    std::filesystem::create_directory(dir_.file("sub"));
    const struct {
        std::string line, answer;
    } kCases[] = {
        {"save", "error: usage: save FILE\n"},
        {"save \"\"", "error: usage: save FILE\n"},
        {"save a b", "error: usage: save FILE\n"},
        {"save --no-events", "error: unknown save option \"--no-events\"; usage: save FILE\n"},
        {"save " + quoteWord(dir_.file("sub")),
         "error: " + dir_.file("sub") + ": is a directory\n"},
        {"save " + quoteWord(dir_.file("missing/m.xml")),
         "error: " + dir_.file("missing/m.xml") + ": cannot create a file in " +
             dir_.file("missing") + ": No such file or directory\n"},
        {"save " + quoteWord(dir_.file("kept.xml/m.xml")),
         "error: " + dir_.file("kept.xml/m.xml") + ": cannot create a file in " +
             dir_.file("kept.xml") + ": Not a directory\n"},
    };
    for (const auto &c : kCases)
        EXPECT_EQ(ask(c.line), c.answer) << c.line;

    kelp::ds::unloadModel();
    EXPECT_EQ(ask("save " + quoteWord(dir_.file("none.xml"))), "error: no model is served\n");

    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir_.path()))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"control.sock", "kept.xml", "sub"}));
}

// The host's log lines, from whichever thread ran the command.
std::mutex g_loggedMutex;
std::vector<std::pair<int, std::string>> g_logged;

void collectLogged(int level, const char *line)
{
    std::lock_guard lock(g_loggedMutex);
    g_logged.emplace_back(level, line);
}

TEST_F(ControlCommandTest, AFailedSaveIsAWarningInTheHostsLog)
{
    std::filesystem::create_directory(dir_.file("sub"));
    std::filesystem::create_directory(dir_.file("a\nb"));
    g_logged.clear();
    kelpRuntimeSetLog(collectLogged);
    const struct {
        std::string file;
        std::string logged; // "" for a save that works
    } kCases[] = {
        {dir_.file("saved.xml"), ""},
        {dir_.file("sub"), "kelpctl save: " + dir_.file("sub") + ": is a directory"},
        // A client's line break stays inside the one log line.
        {dir_.file("a\nb"), "kelpctl save: " + dir_.file("a\\nb") + ": is a directory"},
    };
    for (const auto &c : kCases) {
        ask("save " + quoteWord(c.file));
        std::lock_guard lock(g_loggedMutex);
        if (c.logged.empty()) {
            EXPECT_TRUE(g_logged.empty()) << c.file << ": " << g_logged.front().second;
        } else {
            ASSERT_EQ(g_logged.size(), 1u) << c.file;
            EXPECT_EQ(g_logged[0], std::make_pair(KELP_RUNTIME_LOG_WARNING, c.logged));
        }
        g_logged.clear();
    }
    kelpRuntimeSetLog(nullptr);
}

TEST_F(ControlCommandTest, EventWithObjectQueuesTheObjectsFields)
{
    EXPECT_EQ(ask("event 2048 --object 40 --parm \"a<b\" --parm two --field Extra=x&y"), "ok\n");
    std::string xml = takeEvent();
    EXPECT_TRUE(xml.starts_with("<EventID>2048</EventID><ObjType>773</ObjType><Nexus>v40</Nexus>"))
        << xml;
    EXPECT_TRUE(contains(xml, "<ControllerName>Vorn RX-240</ControllerName>")) << xml;
    EXPECT_TRUE(contains(xml, "<VirtualDiskName>Data &amp; logs</VirtualDiskName>")) << xml;
    EXPECT_TRUE(xml.ends_with("<Parm01>a&lt;b</Parm01><Parm02>two</Parm02><Extra>x&amp;y</Extra>"))
        << xml;

    // Without --parm the object names itself in the first insert, as in
    // "Physical disk %1 has failed.".
    EXPECT_EQ(ask("event 2049 --object 20"), "ok\n");
    xml = takeEvent();
    EXPECT_EQ(xml, "<EventID>2049</EventID><ObjType>772</ObjType><Nexus>0\\0\\20</Nexus>"
                   "<ObjStatus>2</ObjStatus><PreviousStatus>1</PreviousStatus>"
                   "<AttributesMask>0101</AttributesMask>"
                   "<ControllerName>Vorn RX-240</ControllerName><Parm01>0:20</Parm01>");
    EXPECT_EQ(ask("event 2049 --object 20 --field Parm01=mine"), "ok\n");
    EXPECT_TRUE(takeEvent().ends_with("<Parm01>mine</Parm01>"));
    EXPECT_EQ(ask("event 2049"), "ok\n");
    EXPECT_EQ(takeEvent(), "<EventID>2049</EventID>");
}

TEST_F(ControlCommandTest, EventsComeOutOfTheInterfaceInTheOrderSent)
{
    EXPECT_EQ(ask("event 1"), "ok\n");
    EXPECT_EQ(ask("event --xml \"<EventID>2</EventID><Raw>yes</Raw>\""), "ok\n");
    EXPECT_EQ(ask("event 3 --parm x"), "ok\n");
    EXPECT_EQ(takeEvent(), "<EventID>1</EventID>");
    EXPECT_EQ(takeEvent(), "<EventID>2</EventID><Raw>yes</Raw>");
    EXPECT_EQ(takeEvent(), "<EventID>3</EventID><Parm01>x</Parm01>");
}

TEST_F(ControlCommandTest, RefusedEventsQueueNothing)
{
    std::string many = "event 1";
    for (int i = 0; i < 11; ++i)
        many += " --parm p";
    for (const std::string &line : {
             std::string("event 1 --object 999"),
             std::string("event x"),
             many,
             std::string("event --xml \"<ObjType>1</ObjType>\""),
             std::string("event --xml \"<EventID>x</EventID>\""),
             "event 1 --parm " + std::string(20000, 'p'),
         }) {
        std::string answer = ask(line);
        EXPECT_TRUE(answer.starts_with("error: ")) << line.substr(0, 60) << ": " << answer;
    }
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
}

// The plug-in reads an event's values into buffers of 160 bytes: a longer
// value would reach the trap as a missing one (and a missing insert string
// ends the message's inserts), so such an event is refused, naming the value.
TEST_F(ControlCommandTest, AnEventValueOverTheLimitIsRefusedNamingIt)
{
    const std::string fits(159, 'q');
    const std::string over(160, 'q');
    for (const std::string &line : {
             "event 2065 --object 40 --parm " + over + " --parm 7",
             "event 2049 --field Nexus=" + over,
             "event --xml \"<EventID>2049</EventID><Parm02>" + over + "</Parm02>\"",
             // An entity is one byte of the value, so 154 of them are 154.
             "event --xml \"<EventID>2049</EventID><Parm01>" + std::string(6, 'a') +
                 [] {
                     std::string amps;
                     for (int i = 0; i < 154; ++i)
                         amps += "&amp;";
                     return amps;
                 }() +
                 "</Parm01>\"",
         }) {
        const std::string answer = ask(line);
        EXPECT_TRUE(answer.starts_with("error: ")) << line.substr(0, 60) << ": " << answer;
        EXPECT_TRUE(contains(answer, "160 bytes, over the limit of 159")) << answer;
    }
    EXPECT_TRUE(contains(ask("event 2049 --field Nexus=" + over), "Nexus")) << "named";
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
    EXPECT_EQ(ask("event 2065 --object 40 --parm " + fits + " --parm 7"), "ok\n");
    EXPECT_EQ(ask("event --xml \"<EventID>2049</EventID><Parm01>" + std::string(159, 'a') +
                  "&amp;</Parm01>\""),
              "error: Parm01 has 160 bytes, over the limit of 159\n");
    // Elements the plug-in does not read may be longer.
    EXPECT_EQ(ask("event 2049 --field Remark=" + over), "ok\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), 2u);
}

const char kRescanStarted[] = "<EventID>3061</EventID>";
const char kRescanCompleted[] = "<EventID>3060</EventID>";
const char kAddFan[] = R"(add --xml "<object id=\"60\" type=\"fans\" parent=\"90\"/>")";

TEST_F(ControlCommandTest, ModelChangesQueueRescanStartedThenCompleted)
{
    const std::string other = dir_.file("other.xml");
    dir_.write("other.xml", "<storage ready=\"1\"><object id=\"90\" type=\"enclosures\">"
                            "<Nexus>9</Nexus></object></storage>");
    EXPECT_EQ(ask("event 1"), "ok\n");
    EXPECT_EQ(ask(kAddFan), "ok\n");
    EXPECT_EQ(ask("event 2"), "ok\n");
    EXPECT_EQ(ask("remove 60"), "ok\n");
    EXPECT_EQ(ask("load " + kelp::ctl::quoteWord(other)), "ok\n");
    for (const char *expected :
         {"<EventID>1</EventID>", kRescanStarted, kRescanCompleted, "<EventID>2</EventID>",
          kRescanStarted, kRescanCompleted, kRescanStarted, kRescanCompleted}) {
        EXPECT_EQ(takeEvent(), expected);
    }
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
    EXPECT_TRUE(contains(singleObject(90), "<Nexus>9</Nexus>"));
}

TEST_F(ControlCommandTest, NoEventsAnywhereChangesTheModelWithoutEvents)
{
    const std::string other = kelp::ctl::quoteWord(dir_.file("other.xml"));
    dir_.write("other.xml", "<storage ready=\"1\"><object id=\"7\" type=\"Tape\">"
                            "<Nexus>t7</Nexus></object></storage>");
    EXPECT_EQ(ask(std::string(kAddFan) + " --no-events"), "ok\n");
    EXPECT_TRUE(contains(singleObject(60), "<ObjID>60</ObjID>")) << singleObject(60);
    EXPECT_EQ(ask("remove --no-events 60"), "ok\n");
    EXPECT_EQ(singleObject(60), "<status 2>");
    EXPECT_EQ(ask(R"(add --no-events --xml "<object id=\"61\" type=\"fans\"/>")"), "ok\n");
    EXPECT_EQ(ask("remove 61 --no-events"), "ok\n");
    EXPECT_EQ(ask("load --no-events " + other), "ok\n");
    EXPECT_TRUE(contains(singleObject(7), "<Nexus>t7</Nexus>"));
    EXPECT_EQ(ask("load " + other + " --no-events"), "ok\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
}

TEST_F(ControlCommandTest, RefusedChangesQueueNoEvents)
{
    dir_.write("bad.xml", "<storage ready=\"1\"><object id=\"1\" type=\"adapters\">");
    for (const std::string &line : {
             std::string(R"(add --xml "<object id=\"20\" type=\"fans\"/>")"), // duplicate id
             std::string(R"(add --xml "<object id=\"62\" type=\"fans\"><Nexus>")"),
             std::string(kAddFan) + " --no-event",
             std::string("remove 999"),
             std::string("remove 1"), // has children
             std::string("remove 20 --force"),
             "load " + kelp::ctl::quoteWord(dir_.file("bad.xml")),
             "load " + kelp::ctl::quoteWord(dir_.file("none.xml")),
             "load --all " + kelp::ctl::quoteWord(dir_.file("bad.xml")),
         }) {
        std::string answer = ask(line);
        EXPECT_TRUE(answer.starts_with("error: ")) << line << ": " << answer;
    }
    EXPECT_EQ(ask("remove 20 --force"),
              "error: unknown remove option \"--force\"; usage: remove [--no-events] ID\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
    EXPECT_EQ(singleObject(60), "<status 2>");
}

TEST_F(ControlCommandTest, AChangeWithoutRoomForTheRescanPairQueuesNeitherAndSaysSo)
{
    for (size_t i = 0; i + 1 < kelp::ev::kMaxQueuedEvents; ++i)
        ASSERT_TRUE(kelp::ev::queueEvent("<EventID>" + std::to_string(i) + "</EventID>", nullptr));
    std::string answer = ask(kAddFan);
    EXPECT_TRUE(answer.starts_with("the model changed, but the rescan events were not queued: "
                                   "event queue is full"))
        << answer;
    EXPECT_TRUE(answer.ends_with("\nok\n")) << answer;
    EXPECT_TRUE(contains(singleObject(60), "<ObjID>60</ObjID>")) << singleObject(60);
    EXPECT_EQ(kelp::ev::queuedEvents(), kelp::ev::kMaxQueuedEvents - 1);
}

// A host that reloads the model itself queues the same pair a control
// `load` does, both or neither.
TEST_F(ControlCommandTest, AHostQueuesTheRescanPairALoadQueues)
{
    char error[128] = "unchanged";
    ASSERT_EQ(kelpRuntimeQueueRescan(error, sizeof error), 0) << error;
    EXPECT_STREQ(error, "");
    EXPECT_EQ(ask("load " + kelp::ctl::quoteWord(dir_.file("other.xml"))).find("error: "), 0u);
    dir_.write("other.xml", kModel);
    EXPECT_EQ(ask("load " + kelp::ctl::quoteWord(dir_.file("other.xml"))), "ok\n");
    for (const char *expected :
         {kRescanStarted, kRescanCompleted, kRescanStarted, kRescanCompleted})
        EXPECT_EQ(takeEvent(), expected);
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
    EXPECT_EQ(kelpRuntimeQueueRescan(nullptr, 0), 0);
    EXPECT_EQ(kelp::ev::queuedEvents(), 2u);
}

TEST_F(ControlCommandTest, AHostsRescanWithoutRoomForBothQueuesNeither)
{
    for (size_t i = 0; i + 1 < kelp::ev::kMaxQueuedEvents; ++i)
        ASSERT_TRUE(kelp::ev::queueEvent("<EventID>" + std::to_string(i) + "</EventID>", nullptr));
    char error[128] = "";
    EXPECT_NE(kelpRuntimeQueueRescan(error, sizeof error), 0);
    EXPECT_TRUE(std::string(error).starts_with("event queue is full")) << error;
    EXPECT_EQ(kelp::ev::queuedEvents(), kelp::ev::kMaxQueuedEvents - 1);
    char tiny[6];
    EXPECT_NE(kelpRuntimeQueueRescan(tiny, sizeof tiny), 0);
    EXPECT_STREQ(tiny, "event");
}

// The event interface as the plug-in's event monitor reads it: what the
// control socket queued, in that order, each text released with
// vcsif32_freeData, and null at once when nothing is left.
TEST_F(ControlCommandTest, GetEventHandsOutWhatTheSocketQueuedInOrder)
{
    constexpr int kEvents = 300;
    for (int i = 0; i < kEvents; ++i)
        ASSERT_EQ(ask("event " + std::to_string(i) + " --parm p" + std::to_string(i)), "ok\n");
    EXPECT_EQ(ask(kAddFan), "ok\n");
    for (int i = 0; i < kEvents; ++i) {
        char *text = vcsif32_getEvent(1);
        ASSERT_NE(text, nullptr) << i;
        EXPECT_EQ(std::string(text), "<EventID>" + std::to_string(i) + "</EventID><Parm01>p" +
                                         std::to_string(i) + "</Parm01>");
        vcsif32_freeData(text);
    }
    for (const char *expected : {kRescanStarted, kRescanCompleted}) {
        char *text = vcsif32_getEvent(1);
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, expected);
        vcsif32_freeData(text);
    }
    EXPECT_EQ(vcsif32_getEvent(1), nullptr);
}

TEST_F(ControlCommandTest, TheQueueHoldsItsBoundAndRefusesTheEventPastIt)
{
    for (size_t i = 0; i + 1 < kelp::ev::kMaxQueuedEvents; ++i)
        ASSERT_TRUE(kelp::ev::queueEvent("<EventID>" + std::to_string(i) + "</EventID>", nullptr));
    EXPECT_EQ(ask("event 5000 --object 20"), "ok\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), kelp::ev::kMaxQueuedEvents);
    EXPECT_EQ(ask("event 5001"), "error: event queue is full (10000 events waiting to be read, at "
                                 "most 10000)\n");
    EXPECT_EQ(kelp::ev::queuedEvents(), kelp::ev::kMaxQueuedEvents);
    vcsif32_freeData(vcsif32_getEvent(1)); // the reader makes room
    EXPECT_EQ(ask("event 5001"), "ok\n");
}

TEST_F(ControlCommandTest, UnknownCommandIsAnErrorAndHelpListsEveryCommand)
{
    EXPECT_EQ(ask("frobnicate 1"),
              "error: unknown command \"frobnicate\" (\"help\" lists the commands)\n");
    std::string help = ask("help");
    for (const auto &row : kelp::ctl::commandTable())
        EXPECT_TRUE(contains(help, std::string(row.usage) + "\n")) << row.name;
    EXPECT_TRUE(help.ends_with("\nok\n"));
}

// A refusal quotes what it refuses: a tab in it stays a tab (values may
// hold tabs), every other control byte is shown escaped, so the answer is
// one line. The lines are the control fuzz target's first finding.
TEST_F(ControlCommandTest, ARefusalQuotingControlBytesIsOneLineWithTabsKept)
{
    struct Case {
        std::string line;
        std::string answer;
    } cases[] = {
        {"\"nt\tname\"", "error: unknown command \"nt\tname\" (\"help\" lists the commands)\n"},
        {"\x15\x01t on", "error: unknown command \"\\x15\\x01t\" (\"help\" lists the commands)\n"},
        {"\"a\\nb\" x", "error: unknown command \"a\\nb\" (\"help\" lists the commands)\n"},
    };
    for (const Case &c : cases) {
        const std::string answer = ask(c.line);
        EXPECT_EQ(answer, c.answer) << c.line;
        EXPECT_EQ(std::count(answer.begin(), answer.end(), '\n'), 1) << c.line;
        for (char byte : answer)
            EXPECT_TRUE(byte == '\n' || byte == '\t' || static_cast<unsigned char>(byte) >= 0x20)
                << c.line;
    }
}

std::vector<std::string> g_activity;

void collectActivity(int level, const char *line)
{
    if (level == KELP_RUNTIME_LOG_NOTICE)
        g_activity.push_back(line);
}

TEST_F(ControlCommandTest, EachChangeThroughTheSocketIsOneActivityLineAndARefusalNone)
{
    g_activity.clear();
    kelpRuntimeSetActivityLog(collectActivity);
    EXPECT_TRUE(ask("set 20 ObjStatus 4").ends_with("ok\n"));
    EXPECT_TRUE(ask("set 999 ObjStatus 4").find("error:") != std::string::npos);
    EXPECT_TRUE(ask("status").ends_with("ok\n"));
    EXPECT_TRUE(ask("remove --no-events 40").ends_with("ok\n"));
    EXPECT_TRUE(ask("event 2049 --object 20").ends_with("ok\n"));
    kelpRuntimeSetActivityLog(nullptr);
    EXPECT_EQ(g_activity,
              (std::vector<std::string>{
                  "kelpctl set: object 20 attribute ObjStatus \"2\" -> \"4\"",
                  "kelpctl remove: removed object 40 and its links; no rescan events (--no-events)",
                  "kelpctl event: queued event 2049 for object 20"}));
}

} // namespace
