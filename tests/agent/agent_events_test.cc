// Storage events over the wire: an event queued with kelpctl becomes a trap
// at a private snmptrapd, v2c or v1, with its specific number and bindings,
// the extended bindings and the x100 number, blocked alerts sending nothing,
// repeats aggregated into one trap with their count, and a model change
// raising a rescan whose rebuilt tables are visible over SNMP. The agent
// runs its clocks fast (KELP_TIME_SCALE).
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

using namespace std::chrono_literals;

constexpr const char *kTrapPrefix = "1.3.6.1.4.1.61234.20571.1.20.200";

std::string binding(int n)
{
    return "." + std::string(kTrapPrefix) + "." + std::to_string(n) + ".0 = ";
}

// The snmpTrapOID of a v2c notification of specific number `specific`.
std::string trapOid(uint32_t specific)
{
    return ".1.3.6.1.6.3.1.1.4.1.0 = OID: ." + std::string(kTrapPrefix) + ".0." +
           std::to_string(specific);
}

// The line of `log` that holds `needle`, or "".
std::string lineWith(const std::string &log, const std::string &needle)
{
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(needle) != std::string::npos) {
            return line;
        }
    }
    return "";
}

class AgentEvents : public ::testing::Test {
  protected:
    void start(const std::string &ini = "", const std::vector<std::string> &extra = {},
               int timeScale = 20)
    {
        ASSERT_TRUE(receiver.ready());
        std::vector<std::string> args{"--trap-sink", receiver.sink()};
        if (!ini.empty()) {
            writeFile(dir / "kelp.ini", ini);
            args.push_back("--ini");
            args.push_back(dir / "kelp.ini");
        }
        args.insert(args.end(), extra.begin(), extra.end());
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), args, &why,
                                {"KELP_TIME_SCALE=" + std::to_string(timeScale)}))
            << why;
    }

    void event(const std::vector<std::string> &words)
    {
        std::vector<std::string> command{"event"};
        command.insert(command.end(), words.begin(), words.end());
        const RunResult result = agent.kelpctl(command);
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }

    // The trap line holding `needle`, waited for up to `limit`.
    std::string trapWith(const std::string &needle, std::chrono::milliseconds limit = 20s)
    {
        std::string line;
        waitFor(
            [&] {
                line = lineWith(receiver.log(), needle);
                return !line.empty();
            },
            limit);
        return line;
    }

    TempDir dir;
    TrapReceiver receiver{dir};
    AgentUnderTest agent;
};

TEST_F(AgentEvents, AFailedDiskBecomesATrapThatNamesItsRow)
{
    start();
    // Disk 302 is row 3 of the array disk table; 2048 is critical (level 1)
    // and a disk's traps count from 900: 904.
    event({"2048", "--object", "302", "--parm", "0:0:2"});
    const std::string trap = trapWith(trapOid(904));
    ASSERT_FALSE(trap.empty()) << receiver.log() << agent.process()->err();
    EXPECT_NE(trap.find("v=1 "), std::string::npos) << trap;
    EXPECT_NE(trap.find(binding(1) + "INTEGER: 2048"), std::string::npos) << trap;
    EXPECT_NE(trap.find(binding(2) + "STRING: \"Physical disk 0:0:2 has failed.\""),
              std::string::npos)
        << trap;
    EXPECT_NE(trap.find(binding(5) + "STRING: \"1.3.6.1.4.1.61234.20571.1.20.130.4.1.1.3\""),
              std::string::npos)
        << trap;
    EXPECT_NE(trap.find(binding(7) + "INTEGER: 3"), std::string::npos) << trap;
    EXPECT_NE(trap.find(binding(8)), std::string::npos) << trap;
    EXPECT_EQ(trap.find(binding(9)), std::string::npos) << trap;
}

TEST_F(AgentEvents, AVersionOneTrapCarriesEnterpriseGenericAndSpecific)
{
    start("", {"--trap-version", "1"});
    event({"2048", "--object", "302"});
    // snmptrapd prints the specific number as the last arc of a name.
    const std::string trap = trapWith("specific=.904 ");
    ASSERT_FALSE(trap.empty()) << receiver.log() << agent.process()->err();
    EXPECT_NE(trap.find("v=0 gen=6 specific=.904 "), std::string::npos) << trap;
    EXPECT_NE(trap.find(binding(1) + "INTEGER: 2048"), std::string::npos) << trap;
}

TEST_F(AgentEvents, ExtendedMessagesAddFourBindingsAndMultiplyTheNumber)
{
    start("[vcsipe]\nExtendedSNMPMessages=On\n");
    event({"2048", "--object", "302"});
    const std::string trap = trapWith(trapOid(90400));
    ASSERT_FALSE(trap.empty()) << receiver.log() << agent.process()->err();
    EXPECT_NE(trap.find(binding(9) + "STRING: \"KLP2048\""), std::string::npos) << trap;
    EXPECT_NE(trap.find(binding(10)), std::string::npos) << trap;
    EXPECT_NE(trap.find(binding(11) + "STRING: \"7KQ3LM2\""), std::string::npos) << trap;
    EXPECT_NE(trap.find(binding(12) + "STRING: \"7KQ3LM2\""), std::string::npos) << trap;
}

TEST_F(AgentEvents, ABlockedAlertSendsNothing)
{
    start("[vcsipe]\nBlockedAlerts=2048\n");
    event({"2048", "--object", "302"});
    // 2049 (a warning: 903) comes after it and shows the monitor went on.
    event({"2049", "--object", "303"});
    ASSERT_FALSE(trapWith(trapOid(903)).empty()) << receiver.log();
    EXPECT_EQ(lineWith(receiver.log(), trapOid(904)), "") << receiver.log();
    EXPECT_EQ(lineWith(receiver.log(), "INTEGER: 2048"), "") << receiver.log();
}

TEST_F(AgentEvents, RepeatsAreSentOnceAndThenCountedInOneTrap)
{
    // An interval of 0 makes every wake-up of the aggregation thread a pass:
    // one when it starts, then one every 55 s, 11 s with the clock five
    // times as fast. The three events are taken a fifth of a second apart
    // well before the second pass, so that pass counts all three.
    start("[vcsipe]\nAggregateEvents=On\nEventAggregateInteval=0\n", {}, 5);
    for (int i = 0; i < 3; i++) {
        event({"2048", "--object", "302"});
    }
    const std::string counted =
        trapWith("This has been logged 3 times in the last 0 minutes.", 60s);
    ASSERT_FALSE(counted.empty()) << receiver.log() << agent.process()->err();
    EXPECT_NE(counted.find(trapOid(904)), std::string::npos) << counted;
    // The first occurrence went out at once, on its own; the repeats only
    // in the count.
    std::istringstream lines(receiver.log());
    int traps = 0;
    for (std::string line; std::getline(lines, line);) {
        traps += line.find(trapOid(904)) != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(traps, 2) << receiver.log();
}

TEST_F(AgentEvents, AnUnreachableSinkDoesNotStallTheMonitor)
{
    // A second sink where nobody listens, named first.
    start("", {"--trap-sink", "udp:127.0.0.1:" + std::to_string(freeUdpPort())});
    event({"2048", "--object", "302"});
    event({"2049", "--object", "303"});
    EXPECT_FALSE(trapWith(trapOid(903)).empty()) << receiver.log();
}

TEST_F(AgentEvents, TheAgentStopsPromptlyWhileEventsKeepArriving)
{
    start();
    for (int i = 0; i < 50; i++) {
        event({"2050", "--object", "302"});
    }
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 15s);
}

// The plug-in reads one event a second; what it had not read when the agent
// stops is lost, and the log says how much.
TEST_F(AgentEvents, EventsTheAgentStopsBeforeReadingAreCountedInTheLog)
{
    start("", {}, 1);
    for (int i = 0; i < 20; i++) {
        event({"2050", "--object", "302"});
    }
    EXPECT_EQ(agent.stop(), 0);
    const std::string log = agent.process()->err();
    const std::string line = lineWith(log, " queued events were dropped");
    ASSERT_FALSE(line.empty()) << log;
    std::smatch count;
    ASSERT_TRUE(std::regex_search(line, count, std::regex("kelpagent: ([0-9]+) queued events")))
        << line;
    EXPECT_GT(std::stoi(count[1]), 10) << line;
    EXPECT_LE(std::stoi(count[1]), 20) << line;
    EXPECT_LT(log.find(line), log.find("kelpagent: stopped")) << log;
}

// The sample with a third controller (row 3) and without the HBA's first
// channel, whose row becomes a hole.
std::string changedSample()
{
    std::string text = readFile(sourcePath("data/models/sample.xml"));
    const std::string controller = "  <object id=\"3\" type=\"adapters\">\n"
                                   "    <Nexus>2</Nexus>\n"
                                   "    <Name>Vorn RX-240 (second)</Name>\n"
                                   "    <ObjState>1</ObjState>\n"
                                   "    <ObjStatus>2</ObjStatus>\n"
                                   "    <TreeStatus>2</TreeStatus>\n"
                                   "  </object>\n";
    text.insert(text.find("</storage>"), controller);
    return text;
}

std::vector<std::string> columnOne(AgentUnderTest &agent, const std::string &table)
{
    const RunResult walk = agent.snmp("snmpwalk", {std::string(kRoot) + "." + table + ".1.1"});
    std::vector<std::string> rows;
    std::istringstream lines(walk.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(".")) {
            rows.push_back(line);
        }
    }
    return rows;
}

TEST_F(AgentEvents, AModelChangeRaisesARescanAndTheRowsFollow)
{
    start();
    const std::vector<std::string> before = columnOne(agent, "130.1");
    ASSERT_EQ(before.size(), 2u);
    const std::vector<std::string> disks = columnOne(agent, "130.4");
    writeFile(dir / "changed.xml", changedSample());
    const RunResult load = agent.kelpctl({"load", dir / "changed.xml"});
    ASSERT_EQ(load.status, 0) << load.out << load.err;
    std::vector<std::string> after;
    EXPECT_TRUE(waitFor(
        [&] {
            after = columnOne(agent, "130.1");
            return after.size() == 3;
        },
        30s))
        << agent.process()->err();
    ASSERT_EQ(after.size(), 3u);
    // The rows that were there keep their numbers; the new one comes last.
    EXPECT_EQ(after[0], before[0]);
    EXPECT_EQ(after[1], before[1]);
    EXPECT_NE(after[2].find(".130.1.1.1.3 = INTEGER: 3"), std::string::npos) << after[2];
    EXPECT_EQ(columnOne(agent, "130.4"), disks);
    // The whole walk of the rebuilt tables: all 24 of them, in walk order, and
    // the bulk walk the same.
    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    EXPECT_EQ(agent.snmp("snmpbulkwalk", {kRoot}).out, walk.out);
    size_t from = 0;
    for (const std::string group : {"130", "140"}) {
        for (int table = 1; table <= (group == "130" ? 18 : 6); table++) {
            const std::string entry =
                "." + std::string(kRoot) + "." + group + "." + std::to_string(table) + ".1.";
            const size_t at = walk.out.find(entry, from);
            EXPECT_NE(at, std::string::npos) << entry;
            from = at == std::string::npos ? from : at;
        }
    }
}

TEST_F(AgentEvents, WithoutEventsAModelChangeLeavesTheTablesAsBuilt)
{
    start();
    writeFile(dir / "changed.xml", changedSample());
    const RunResult load = agent.kelpctl({"load", "--no-events", dir / "changed.xml"});
    ASSERT_EQ(load.status, 0) << load.out << load.err;
    // Rescans arrive one a second (a twentieth with the clock scaled): give
    // one the time to pass.
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(columnOne(agent, "130.1").size(), 2u);
}

} // namespace
} // namespace kelp::test
