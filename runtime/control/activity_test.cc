// The operator's line for each control command: what it names for every
// command that changes something, nothing for the others and for failures,
// and client text that cannot break or flood the line.
#include "control/activity.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/commands.h"
#include "control/words.h"

namespace {

using kelp::ctl::activityLine;
using kelp::ctl::Reply;
using kelp::ctl::Request;

Request parsed(const std::vector<std::string> &words)
{
    Request request;
    std::string error;
    EXPECT_TRUE(kelp::ctl::parseCommand(words, &request, &error)) << error;
    return request;
}

struct Case {
    std::vector<std::string> words;
    std::string line;
};

TEST(ActivityLine, EachChangeNamesWhatItChanged)
{
    const Case cases[] = {
        {{"ready", "on"}, "kelpctl ready on: the data store now reports ready"},
        {{"ready", "off"}, "kelpctl ready off: the data store now reports not ready"},
        {{"set", "12", "ObjStatus", "4"},
         "kelpctl set: object 12 attribute ObjStatus (new) = \"4\""},
        {{"add", "--xml", "<object id=\"40\" type=\"arraydisks\"><Nexus>1</Nexus></object>"},
         "kelpctl add: added object 40; rescan events 3061, 3060 queued"},
        {{"add", "--no-events", "--xml",
          "<object type='fans' id='41'/><object\nid=\"42\" type=\"fans\"/><link parent=\"1\"/>"},
         "kelpctl add: added 2 objects 41, 42; no rescan events (--no-events)"},
        {{"add", "--xml", "<link parent=\"1\" child=\"2\"/>"},
         "kelpctl add: added links only; rescan events 3061, 3060 queued"},
        {{"remove", "7"},
         "kelpctl remove: removed object 7 and its links; rescan events 3061, "
         "3060 queued"},
        {{"load", "/m/a.xml", "--no-events"},
         "kelpctl load: now serving the model \"/m/a.xml\"; no rescan events (--no-events)"},
        {{"event", "2049", "--object", "5", "--parm", "a", "--field", "ObjStatus=3"},
         "kelpctl event: queued event 2049 for object 5, 1 parm, ObjStatus=\"3\""},
        {{"event", "--xml", "<EventID>3060</EventID><Nexus>1</Nexus>"},
         "kelpctl event --xml: queued event 3060"},
        {{"event", "--xml", "<EventID>x</EventID>"},
         "kelpctl event --xml: queued an event without a numeric EventID"},
        {{"status"}, ""},
        {{"save", "/tmp/x.xml"}, ""},
        {{"help"}, ""},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(activityLine(parsed(c.words), Reply{}), c.line) << c.words[0];
    }
}

TEST(ActivityLine, SetShowsTheValueBeforeWhenThereWasOne)
{
    Reply reply;
    reply.previous = "2";
    EXPECT_EQ(activityLine(parsed({"set", "12", "ObjStatus", "4"}), reply),
              "kelpctl set: object 12 attribute ObjStatus \"2\" -> \"4\"");
    reply.previous = "";
    EXPECT_EQ(activityLine(parsed({"set", "12", "Name", "x"}), reply),
              "kelpctl set: object 12 attribute Name \"\" -> \"x\"");
}

TEST(ActivityLine, AFailedCommandChangedNothingAndLogsNothing)
{
    Reply failed;
    failed.fail("no object 99");
    EXPECT_EQ(activityLine(parsed({"set", "99", "Name", "x"}), failed), "");
    EXPECT_EQ(activityLine(parsed({"remove", "99"}), failed), "");
    EXPECT_EQ(activityLine(Request{}, Reply{}), "");
}

TEST(ActivityLine, RescanEventsThatFoundNoRoomAreSaid)
{
    Reply reply;
    reply.lines.push_back("the model changed, but the rescan events were not queued: full");
    EXPECT_EQ(activityLine(parsed({"remove", "3"}), reply),
              "kelpctl remove: removed object 3 and its links; the model changed, but the "
              "rescan events were not queued: full");
}

TEST(ActivityLine, ClientTextIsOneBoundedLine)
{
    const std::string line = activityLine(
        parsed({"set", "1", "Name", "a\nkelpagent: forged\r" + std::string(500, 'x')}), Reply{});
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    EXPECT_EQ(line.find('\r'), std::string::npos) << line;
    EXPECT_NE(line.find("a\\nkelpagent: forged\\r"), std::string::npos) << line;
    EXPECT_LT(line.size(), kelp::ctl::kMaxQuoted + 80) << line;
    EXPECT_NE(line.find("...\""), std::string::npos) << line;
}

TEST(ObjectIdsIn, TakesTheIdOfEachObjectElementOnly)
{
    using V = std::vector<uint32_t>;
    EXPECT_EQ(kelp::ctl::objectIdsIn("<object id=\"3\"/><objects id=\"4\"/><object uid=\"5\" "
                                     "id=\"6\"/>"),
              (V{3, 6}));
    EXPECT_EQ(kelp::ctl::objectIdsIn("<object id=\"0\"/><object id=\"x\"/><object id=5/>"), V{});
    EXPECT_EQ(kelp::ctl::objectIdsIn("<object id=\"7"), V{});
    EXPECT_EQ(kelp::ctl::objectIdsIn("<object"), V{});
    EXPECT_EQ(kelp::ctl::objectIdsIn(""), V{});
}

} // namespace
