// The pure half of the control commands: words to a checked request (no
// model needed), numbers, names, and the event text built from a request.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/commands.h"
#include "control/words.h"

namespace {

using namespace kelp::ctl;

bool parseLine(const std::string &line, Request *request, std::string *error)
{
    std::vector<std::string> words;
    return splitWords(line, &words, error) && parseCommand(words, request, error);
}

TEST(CommandTextTest, ObjectIdsAreDecimalFrom1To4294967295)
{
    uint32_t id = 0;
    EXPECT_TRUE(parseObjectId("1", &id));
    EXPECT_EQ(id, 1u);
    EXPECT_TRUE(parseObjectId("4294967295", &id));
    EXPECT_EQ(id, 4294967295u);
    EXPECT_TRUE(parseObjectId("007", &id));
    EXPECT_EQ(id, 7u);
    for (const char *bad : {"", "0", "000", "4294967296", "99999999999999999999", "-1", "+1", " 1",
                            "1 ", "0x10", "1e3", "12a"}) {
        EXPECT_FALSE(parseObjectId(bad, &id)) << '"' << bad << '"';
    }
    uint32_t number = 5;
    EXPECT_TRUE(parseEventNumber("0", &number));
    EXPECT_EQ(number, 0u);
    EXPECT_FALSE(parseEventNumber("4294967296", &number));
}

TEST(CommandTextTest, ElementNamesAreXmlNamesWithoutColons)
{
    for (const char *good : {"ObjStatus", "_x", "Parm01", "a-b.c"})
        EXPECT_TRUE(isElementName(good)) << good;
    for (const char *bad : {"", "1abc", "-a", "a b", "a:b", "a<b", "a>", "caf\xc3\xa9"})
        EXPECT_FALSE(isElementName(bad)) << bad;
}

TEST(CommandTextTest, ValidCommandLinesBecomeRequests)
{
    Request r;
    std::string error;
    ASSERT_TRUE(parseLine("ready off", &r, &error)) << error;
    EXPECT_STREQ(r.command->name, "ready");
    EXPECT_FALSE(r.on);

    ASSERT_TRUE(parseLine(R"(set 20 Name "a \"b\" c")", &r, &error)) << error;
    EXPECT_EQ(r.id, 20u);
    EXPECT_EQ(r.name, "Name");
    EXPECT_EQ(r.text, "a \"b\" c");

    ASSERT_TRUE(parseLine(R"(set 20 Name "")", &r, &error)) << error;
    EXPECT_EQ(r.text, "");

    ASSERT_TRUE(
        parseLine(R"(event 2048 --parm one --object 40 --field "Extra=a=b" --parm "")", &r, &error))
        << error;
    EXPECT_EQ(r.id, 2048u);
    EXPECT_EQ(r.object, 40u);
    EXPECT_EQ(r.parms, (std::vector<std::string>{"one", ""}));
    ASSERT_EQ(r.fields.size(), 1u);
    EXPECT_EQ(r.fields[0].first, "Extra");
    EXPECT_EQ(r.fields[0].second, "a=b");
    EXPECT_FALSE(r.rawXml);

    ASSERT_TRUE(parseLine(R"(event --xml "<EventID>1</EventID>")", &r, &error)) << error;
    EXPECT_TRUE(r.rawXml);
    EXPECT_EQ(r.text, "<EventID>1</EventID>");

    for (const char *line : {"status", "help", "ready on", "add --xml <object/>", "remove 1",
                             "load /x.xml", "event 0"}) {
        EXPECT_TRUE(parseLine(line, &r, &error)) << line << ": " << error;
        EXPECT_FALSE(r.noEvents) << line;
    }
}

TEST(CommandTextTest, NoEventsIsTakenAnywhereByAddRemoveAndLoad)
{
    Request r;
    std::string error;
    for (const char *line :
         {"add --no-events --xml <object/>", "add --xml <object/> --no-events"}) {
        ASSERT_TRUE(parseLine(line, &r, &error)) << line << ": " << error;
        EXPECT_TRUE(r.noEvents) << line;
        EXPECT_EQ(r.text, "<object/>") << line;
    }
    // The value of --xml is the XML, whatever it looks like.
    ASSERT_TRUE(parseLine("add --xml --no-events", &r, &error)) << error;
    EXPECT_FALSE(r.noEvents);
    EXPECT_EQ(r.text, "--no-events");
    for (const char *line : {"remove --no-events 7", "remove 7 --no-events"}) {
        ASSERT_TRUE(parseLine(line, &r, &error)) << line << ": " << error;
        EXPECT_TRUE(r.noEvents) << line;
        EXPECT_EQ(r.id, 7u) << line;
    }
    for (const char *line : {"load --no-events /x.xml", "load /x.xml --no-events"}) {
        ASSERT_TRUE(parseLine(line, &r, &error)) << line << ": " << error;
        EXPECT_TRUE(r.noEvents) << line;
        EXPECT_EQ(r.text, "/x.xml") << line;
    }
}

TEST(CommandTextTest, WrongCommandLinesAreRefusedWithAClearMessage)
{
    struct Case {
        const char *line;
        const char *message;
    } cases[] = {
        {"", "empty command line"},
        {"   ", "empty command line"},
        {"stat", "unknown command \"stat\""},
        {"STATUS", "unknown command"},
        {"status now", "usage: status"},
        {"ready", "usage: ready on|off"},
        {"ready yes", "usage: ready on|off"},
        {"ready on off", "usage: ready on|off"},
        {"set 20 Name", "usage: set ID ATTR VALUE"},
        {"set 20 Name a b", "usage: set ID ATTR VALUE"},
        {"set 0 Name a", "bad object id \"0\""},
        {"set 4294967296 Name a", "bad object id"},
        {"set abc Name a", "bad object id \"abc\""},
        {"set 20 \"bad name\" a", "bad attribute name"},
        {"set 20 \"\" a", "bad attribute name"},
        {"add <object/>", "usage: add [--no-events] --xml TEXT"},
        {"add --xml", "--xml needs a value"},
        {"add --no-events", "usage: add [--no-events] --xml TEXT"},
        {"add --xml a --xml b", "--xml given twice"},
        {"add --xml a stray", "usage: add [--no-events] --xml TEXT"},
        {"add --no-event --xml a", "unknown add option \"--no-event\"; usage: add"},
        {"add --xml a --no-events --no-events", "--no-events given twice"},
        {"remove", "usage: remove [--no-events] ID"},
        {"remove -5", "bad object id"},
        {"remove --no-events", "usage: remove [--no-events] ID"},
        {"remove 5 --quiet", "unknown remove option \"--quiet\"; usage: remove"},
        {"remove 5 6", "usage: remove [--no-events] ID"},
        {"load", "usage: load [--no-events] FILE"},
        {"load \"\"", "usage: load [--no-events] FILE"},
        {"load a b", "usage: load [--no-events] FILE"},
        {"load --no-events", "usage: load [--no-events] FILE"},
        {"load --noevents a", "unknown load option \"--noevents\"; usage: load"},
        {"load --no-events a --no-events", "--no-events given twice"},
        {"event 1 --no-events", "unknown event option \"--no-events\""},
        {"event", "usage: event"},
        {"event abc", "bad event number \"abc\""},
        {"event -1", "bad event number"},
        {"event 1 --object", "--object needs a value"},
        {"event 1 --object 0", "bad object id"},
        {"event 1 --object 1 --object 2", "--object given twice"},
        {"event 1 --colour red", "unknown event option \"--colour\""},
        {"event 1 stray", "unknown event option \"stray\""},
        {"event 1 --field novalue", "bad --field \"novalue\""},
        {"event 1 --field =v", "bad --field"},
        {"event 1 --field \"a b=v\"", "bad --field"},
        {"event 1 --field EventID=2", "bad --field"},
        {"event --xml", "usage: event"},
        {"event --xml a b", "usage: event"},
        {"set \"quote", "quote never closed"},
    };
    for (const auto &c : cases) {
        Request r;
        std::string error;
        EXPECT_FALSE(parseLine(c.line, &r, &error)) << c.line;
        EXPECT_NE(error.find(c.message), std::string::npos) << c.line << ": " << error;
    }
}

TEST(CommandTextTest, EventTakesAtMostTenParms)
{
    std::string line = "event 1";
    for (int i = 1; i <= 10; ++i)
        line += " --parm p" + std::to_string(i);
    Request r;
    std::string error;
    ASSERT_TRUE(parseLine(line, &r, &error)) << error;
    EXPECT_EQ(r.parms.size(), 10u);
    EXPECT_FALSE(parseLine(line + " --parm p11", &r, &error));
    EXPECT_EQ(error, "more than 10 --parm options");
}

TEST(CommandTextTest, EventXmlPutsFieldsInOrderAndEscapesEveryValue)
{
    std::vector<std::string> parms;
    for (int i = 1; i <= 10; ++i)
        parms.push_back("p" + std::to_string(i));
    parms[0] = "a<b>&\"c'";
    std::string xml =
        eventXml(2048, {{"ObjType", "773"}, {"Name", "R&D"}}, parms, {{"Extra", "<x/>"}});
    EXPECT_EQ(xml, "<EventID>2048</EventID><ObjType>773</ObjType><Name>R&amp;D</Name>"
                   "<Parm01>a&lt;b&gt;&amp;\"c'</Parm01><Parm02>p2</Parm02>"
                   "<Parm03>p3</Parm03><Parm04>p4</Parm04><Parm05>p5</Parm05>"
                   "<Parm06>p6</Parm06><Parm07>p7</Parm07><Parm08>p8</Parm08>"
                   "<Parm09>p9</Parm09><Parm10>p10</Parm10><Extra>&lt;x/&gt;</Extra>");
    EXPECT_EQ(eventXml(0, {}, {}, {}), "<EventID>0</EventID>");
}

TEST(CommandTextTest, EventXmlFieldReplacesAnElementOfTheSameName)
{
    std::string xml =
        eventXml(2048, {{"ObjType", "772"}, {"ObjStatus", "2"}}, {"a", "b"},
                 {{"ObjStatus", "4"}, {"Parm02", "c"}, {"Extra", "1"}, {"Extra", "2"}});
    EXPECT_EQ(xml, "<EventID>2048</EventID><ObjType>772</ObjType><ObjStatus>4</ObjStatus>"
                   "<Parm01>a</Parm01><Parm02>c</Parm02><Extra>2</Extra>");
}

TEST(CommandTextTest, ReplyTextEndsWithOkOrErrorAndCannotBeForged)
{
    Reply reply;
    reply.lines = {"model: none", "two\nlines"};
    EXPECT_EQ(formatReply(reply), "model: none\ntwo\\nlines\nok\n");
    reply.fail("bad name \"x\ny\"");
    EXPECT_EQ(formatReply(reply), "model: none\ntwo\\nlines\nerror: bad name \"x\\ny\"\n");
}

TEST(CommandTextTest, TableRowsHaveDistinctNamesAndUsagesThatStartWithTheName)
{
    std::vector<std::string> names;
    for (const CommandRow &row : commandTable()) {
        EXPECT_TRUE(std::string(row.usage).starts_with(row.name)) << row.name;
        EXPECT_NE(row.parse, nullptr);
        EXPECT_NE(row.run, nullptr);
        for (const auto &n : names)
            EXPECT_NE(n, row.name);
        names.push_back(row.name);
    }
    EXPECT_EQ(names.size(), 9u);
}

} // namespace
