// The sample model over SNMP: a walk reaches all 24 tables in the order of
// the GetNext walk, equals the bulk walk, and answers what the model holds
// for objects of the physical device, component, connection, virtual disk
// and cache tables.
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

class AgentSample : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    }

    static std::string name(const std::string &tail) { return std::string(kRoot) + "." + tail; }

    // The walk's lines below the root, without the end-of-view line.
    std::vector<std::string> walk(const std::string &tool, const std::string &version)
    {
        const RunResult result = agent.snmp(tool, {kRoot}, version);
        EXPECT_EQ(result.status, 0) << result.err;
        std::vector<std::string> rows;
        std::istringstream in(result.out);
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("." + std::string(kRoot) + ".")) {
                rows.push_back(line);
            }
        }
        return rows;
    }

    AgentUnderTest agent;
};

// root.G.T of a walked line, or "" for the scalars and groups.
std::string tableOf(const std::string &line)
{
    const std::string tail = line.substr(std::string(kRoot).size() + 2);
    std::istringstream arcs(tail);
    std::string group, table;
    std::getline(arcs, group, '.');
    std::getline(arcs, table, '.');
    return group == "130" || group == "140" ? group + "." + table : "";
}

TEST_F(AgentSample, AWalkVisitsEveryTableInWalkOrder)
{
    const std::vector<std::string> rows = walk("snmpwalk", "2c");
    std::vector<std::string> tables;
    for (const std::string &row : rows) {
        const std::string table = tableOf(row);
        if (!table.empty() && (tables.empty() || tables.back() != table)) {
            tables.push_back(table);
        }
    }
    // All 24 tables, in the order of the walk.
    std::vector<std::string> every;
    for (int table = 1; table <= 18; table++) {
        every.push_back("130." + std::to_string(table));
    }
    for (int table = 1; table <= 6; table++) {
        every.push_back("140." + std::to_string(table));
    }
    EXPECT_EQ(tables, every);
    // Each table once: the walk never comes back to a table it left.
    std::vector<std::string> sorted = tables;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
}

TEST_F(AgentSample, TheBulkWalkAndTheV1WalkEqualTheWalk)
{
    const std::vector<std::string> rows = walk("snmpwalk", "2c");
    ASSERT_GT(rows.size(), 100u);
    EXPECT_EQ(walk("snmpbulkwalk", "2c"), rows);
    std::vector<std::string> v1 = walk("snmpwalk", "1");
    auto names = [](std::vector<std::string> lines) {
        for (std::string &line : lines) {
            line = line.substr(0, line.find(" = "));
        }
        return lines;
    };
    EXPECT_EQ(names(v1), names(rows));
}

TEST_F(AgentSample, DisksAnswerWhatTheModelHolds)
{
    // Rows in file order: 300 to 318, then 320 to 325. Column 48 of the
    // worn-out PCIe SSD (318, row 19) comes in a buffer of the plug-in's own.
    const RunResult get =
        agent.snmp("snmpget", {name("130.4.1.2.1"), name("130.4.1.48.19"), name("130.4.1.2.19")});
    EXPECT_EQ(get.status, 0) << get.err;
    for (const std::string &expected : {name("130.4.1.2.1") + " = STRING: \"Physical Disk 0:0:0\"",
                                        name("130.4.1.48.19") + " = STRING: \"Yes\"",
                                        name("130.4.1.2.19") + " = STRING: \"PCIe SSD 2:1\""}) {
        EXPECT_NE(get.out.find("." + expected + "\n"), std::string::npos) << expected << "\n"
                                                                          << get.out;
    }
}

TEST_F(AgentSample, EnclosuresAnswerWhatTheModelHolds)
{
    // Rows in list order: 20, 21, then 22 to 27.
    const RunResult get =
        agent.snmp("snmpget", {name("130.3.1.2.8"), name("130.3.1.8.4"), name("130.3.1.8.3")});
    EXPECT_EQ(get.status, 0) << get.err;
    for (const std::string &expected : {name("130.3.1.2.8") + " = STRING: \"JX3310\"",
                                        name("130.3.1.8.4") + " = STRING: \"9KT-RB32\"",
                                        name("130.3.1.8.3") + " = STRING: \"7KQ3LM2\""}) {
        EXPECT_NE(get.out.find("." + expected + "\n"), std::string::npos) << expected << "\n"
                                                                          << get.out;
    }
}

TEST_F(AgentSample, OneChannelTapeAndNvmeAdapterAnswerWhatTheModelHolds)
{
    const RunResult get =
        agent.snmp("snmpget", {name("130.2.1.2.3"), name("130.2.1.9.3"), name("130.2.1.11.3"),
                               name("130.17.1.3.1"), name("130.17.1.4.1"), name("130.17.1.6.1"),
                               name("130.18.1.5.1"), name("130.18.1.6.1"), name("130.18.1.19.1")});
    EXPECT_EQ(get.status, 0) << get.err;
    for (const std::string &expected :
         {name("130.2.1.2.3") + " = STRING: \"Extender 0\"",
          name("130.2.1.9.3") + " = STRING: \"0\\\\2\"", name("130.2.1.11.3") + " = INTEGER: 9",
          name("130.17.1.3.1") + " = STRING: \"KESWICK\"",
          name("130.17.1.4.1") + " = STRING: \"KLT-9 HH\"", name("130.17.1.6.1") + " = INTEGER: 8",
          name("130.18.1.5.1") + " = STRING: \"/dev/nvme0n1\"",
          name("130.18.1.6.1") + " = STRING: \"TESSALY\"",
          name("130.18.1.19.1") + " = INTEGER: 41"}) {
        EXPECT_NE(get.out.find("." + expected + "\n"), std::string::npos) << expected << "\n"
                                                                          << get.out;
    }
    const RunResult channelName = agent.snmp("snmpget", {name("130.2.1.2.1")});
    EXPECT_NE(channelName.out.find("STRING: \"Channel 0\""), std::string::npos) << channelName.out;
}

TEST_F(AgentSample, ComponentsConnectionsAndVirtualDisksAnswerWhatTheModelHolds)
{
    const RunResult get =
        agent.snmp("snmpget", {name("130.5.1.4.1"), name("130.7.1.11.3"), name("130.10.1.6.2"),
                               name("130.11.1.4.2"), name("130.15.1.4.2"), name("130.16.1.5.3"),
                               name("140.1.1.4.6"), name("140.1.1.10.6"), name("140.2.1.4.1"),
                               name("140.3.1.4.1"), name("140.5.1.10.1")});
    EXPECT_EQ(get.status, 0) << get.err;
    for (const std::string &expected :
         {name("130.5.1.4.1") + " = STRING: \"Backplane\"",
          name("130.7.1.11.3") + " = STRING: \"4200\"",
          name("130.10.1.6.2") + " = STRING: \"Not Available\"",
          name("130.11.1.4.2") + " = INTEGER: 4", name("130.15.1.4.2") + " = INTEGER: 7",
          name("130.16.1.5.3") + " = INTEGER: 2", name("140.1.1.4.6") + " = INTEGER: 35",
          name("140.1.1.10.6") + " = INTEGER: 9", name("140.2.1.4.1") + " = INTEGER: 512",
          name("140.3.1.4.1") + " = STRING: \"OS\"", name("140.5.1.10.1") + " = INTEGER: 3"}) {
        EXPECT_NE(get.out.find("." + expected + "\n"), std::string::npos) << expected << "\n"
                                                                          << get.out;
    }
}

} // namespace
} // namespace kelp::test
