// Values served by kelpagent from the test model (data/models/test/minimal.xml)
// and the MIB's constants, read with snmpget, snmpgetnext, snmpwalk and
// snmpbulkwalk in v1 and v2c. Each test first asks whether the plug-in
// resolves names at all and skips, saying so, while it does not.
#include <sstream>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

class AgentValues : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/test/minimal.xml"), {}, &why)) << why;
    }
    void TearDown() override
    {
        if (agent.process() != nullptr && agent.process()->running()) {
            EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
        }
    }

    static std::string name(const std::string &tail) { return std::string(kRoot) + "." + tail; }
    static std::string line(const std::string &tail, const std::string &value)
    {
        std::string text = ".";
        text += name(tail);
        text += " = ";
        text += value;
        return text;
    }

    AgentUnderTest agent;
};

std::vector<std::string> lines(const std::string &text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        result.push_back(line);
    }
    return result;
}

TEST_F(AgentValues, ScalarsAndAControllerNameInBothVersions)
{
    KELP_REQUIRE_MODULE_VALUES(agent);
    const std::vector<std::string> expected{
        line("1.0", "STRING: \"5.2.0\""),
        line("3.0", "STRING: \"Vorn Inc.\""),
        line("4.0", "STRING: \"Halden (Storage Management)\""),
        line("5.0", "STRING: \"Configuration and monitoring of disk storage devices.\""),
        line("110.6.0", "INTEGER: 300"),
        line("130.1.1.2.1", "STRING: \"Vorn RX-240\""),
    };
    for (const char *version : {"1", "2c"}) {
        const RunResult get = agent.snmp("snmpget",
                                         {name("1.0"), name("3.0"), name("4.0"), name("5.0"),
                                          name("110.6.0"), name("130.1.1.2.1")},
                                         version);
        EXPECT_EQ(get.status, 0) << version << ": " << get.err;
        EXPECT_EQ(lines(get.out), expected) << version;
    }
}

TEST_F(AgentValues, GetNextFromBeforeTheTreeAnswersItsFirstObject)
{
    KELP_REQUIRE_MODULE_VALUES(agent);
    // 1.3.6.1.4 sorts after the standard groups and before the tree.
    const RunResult next = agent.snmp("snmpgetnext", {"1.3.6.1.4", name("1.0"), name("5.0")});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(lines(next.out), (std::vector<std::string>{
                                   line("1.0", "STRING: \"5.2.0\""), line("2.0", "INTEGER: 3"),
                                   line("100.1.0", "STRING: \"Halden (Storage Management)\"")}));
}

TEST_F(AgentValues, AWalkEndsCleanlyAndEqualsTheBulkWalk)
{
    KELP_REQUIRE_MODULE_VALUES(agent);
    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    EXPECT_EQ(walk.status, 0) << walk.err;
    EXPECT_EQ(walk.err, "");
    const RunResult bulk = agent.snmp("snmpbulkwalk", {kRoot});
    EXPECT_EQ(bulk.status, 0) << bulk.err;
    EXPECT_EQ(bulk.out, walk.out);
    const RunResult bulkSmall = agent.snmp("snmpbulkwalk", {"-Cr3", kRoot});
    EXPECT_EQ(bulkSmall.out, walk.out) << "repetitions cut anywhere give the same walk";

    const std::vector<std::string> rows = lines(walk.out);
    ASSERT_GT(rows.size(), 20u);
    EXPECT_EQ(rows.front(), line("1.0", "STRING: \"5.2.0\""));
    EXPECT_NE(walk.out.find(line("130.1.1.1.1", "INTEGER: 1") + "\n"), std::string::npos);
    EXPECT_NE(walk.out.find(line("130.1.1.2.1", "STRING: \"Vorn RX-240\"") + "\n"),
              std::string::npos);

    // v1 ends with noSuchName ("End of MIB") where v2c ends with
    // endOfMibView ("No more variables ..."); the rows are the same.
    const RunResult v1 = agent.snmp("snmpwalk", {kRoot}, "1");
    EXPECT_EQ(v1.status, 0) << v1.err;
    std::vector<std::string> v1rows = lines(v1.out);
    std::vector<std::string> v2rows = rows;
    if (!v1rows.empty() && v1rows.back() == "End of MIB") {
        v1rows.pop_back();
    }
    if (!v2rows.empty() && v2rows.back().find("No more variables") != std::string::npos) {
        v2rows.pop_back();
    }
    EXPECT_EQ(v1rows, v2rows);
}

// The varbinds of a tool's output, one a line: a long Hex-STRING (the
// engine ID) goes on over several lines. snmpEngineTime's value, which moves
// on between two requests, is left out.
std::vector<std::string> varbindLines(const std::string &output)
{
    std::vector<std::string> varbinds;
    for (const std::string &text : lines(output)) {
        if (text.starts_with(".") || varbinds.empty()) {
            varbinds.push_back(text);
        } else {
            varbinds.back() += text;
        }
    }
    for (std::string &varbind : varbinds) {
        if (varbind.starts_with(".1.3.6.1.6.3.10.2.1.3.0 = INTEGER: ")) {
            varbind = ".1.3.6.1.6.3.10.2.1.3.0 = INTEGER: (the engine's time)";
        }
    }
    return varbinds;
}

// The handler answers all repetitions of a GETBULK varbind in one pass; each
// repetition must be the walk's next row, past the tree the agent's next
// groups (snmpSetSerialNo, snmpEngine and the SNMPv3 statistics, usmStats
// last) and past
// those net-snmp's endOfMibView, with non-repeaters and several repeaters in
// one request.
TEST_F(AgentValues, AGetBulkAnswersEveryRepetitionLikeTheWalk)
{
    KELP_REQUIRE_MODULE_VALUES(agent);
    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    ASSERT_EQ(walk.status, 0) << walk.err;
    std::vector<std::string> rows = varbindLines(walk.out);
    if (!rows.empty() && rows.back().find("No more variables") != std::string::npos) {
        rows.pop_back();
    }
    ASSERT_GT(rows.size(), 10u);
    const size_t treeRows = rows.size();
    const RunResult after = agent.snmp("snmpwalk", {"1.3.6.1.6.3"});
    for (const std::string &row : varbindLines(after.out)) {
        if (row.find("No more variables") == std::string::npos) {
            rows.push_back(row);
        }
    }
    // snmpSetSerialNo, snmpEngine's 4, snmpMPDStats' 3, the 2 context
    // counters, usmStats' 6.
    ASSERT_EQ(rows.size(), treeRows + 16) << after.out;
    auto nameOf = [](const std::string &row) { return row.substr(0, row.find(" = ")); };

    constexpr size_t kRepetitions = 6;
    const std::vector<size_t> starts{0, 5, treeRows - 1, rows.size() - 3};
    std::string repetitions = "-Cr";
    repetitions += std::to_string(kRepetitions);
    std::vector<std::string> args{"-Cn1", repetitions, name("1.0")};
    for (size_t start : starts) {
        args.push_back(nameOf(rows[start]).substr(1)); // without the leading '.'
    }
    std::vector<std::string> expected{rows[1]};
    for (size_t r = 0; r < kRepetitions; r++) {
        for (size_t start : starts) {
            const size_t at = start + 1 + r;
            expected.push_back(at < rows.size()
                                   ? rows[at]
                                   : nameOf(rows.back()) +
                                         " = No more variables left in this MIB View (It is "
                                         "past the end of the MIB tree)");
        }
    }
    const RunResult bulk = agent.snmp("snmpbulkget", args);
    EXPECT_EQ(bulk.status, 0) << bulk.err;
    EXPECT_EQ(varbindLines(bulk.out), expected);
}

TEST_F(AgentValues, ValuesAreReadAtRequestTime)
{
    KELP_REQUIRE_MODULE_VALUES(agent);
    const RunResult set = run({kelpctlPath(), "--control", agent.stateDir() + "/control.sock",
                               "set", "1", "Name", "Renamed RX-240"},
                              {}, agent.dir());
    ASSERT_EQ(set.status, 0) << set.out << set.err;
    const RunResult get = agent.snmp("snmpget", {name("130.1.1.2.1")});
    EXPECT_EQ(get.out, line("130.1.1.2.1", "STRING: \"Renamed RX-240\"") + "\n");
}

} // namespace
} // namespace kelp::test
