// Cells the plug-in answers with success but no value, over the wire: the
// disk-to-channel table answers so for a disk that sits in an enclosure. A
// Get of such a cell is noSuchInstance (v1: noSuchName); a walk passes over
// it and goes on.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

std::string name(const std::string &tail)
{
    return std::string(kRoot) + "." + tail;
}

// The names a walk of `subtree` printed, in order.
std::vector<std::string> walkedNames(AgentUnderTest &agent, const std::string &tool,
                                     const std::string &version, const std::string &subtree)
{
    const RunResult result = agent.snmp(tool, {subtree}, version);
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<std::string> names;
    std::istringstream in(result.out);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(".")) {
            names.push_back(line.substr(1, line.find(" = ") - 1));
        }
    }
    return names;
}

class AgentNoValue : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
        // The sample's disks without an enclosure, rows 1 to 3 of the
        // disk-to-channel table: 315, 316 and 318. Disk 316 now sits in
        // enclosure 20 as well, and the tables are not rebuilt.
        const RunResult before = agent.snmp("snmpget", {name("130.6.1.1.2")});
        ASSERT_NE(before.out.find("INTEGER: 2"), std::string::npos) << before.out << before.err;
        const RunResult add =
            agent.kelpctl({"add", "--no-events", "--xml", "<link a=\"316\" b=\"20\"/>"});
        ASSERT_EQ(add.status, 0) << add.out << add.err;
    }

    AgentUnderTest agent;
};

TEST_F(AgentNoValue, AGetOfTheCellIsNoSuchInstance)
{
    const RunResult get =
        agent.snmp("snmpget", {name("130.6.1.1.1"), name("130.6.1.1.2"), name("130.6.1.6.2")});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_NE(get.out.find("." + name("130.6.1.1.1") + " = INTEGER: 1\n"), std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find("." + name("130.6.1.1.2") + " = No Such Instance"), std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find("." + name("130.6.1.6.2") + " = No Such Instance"), std::string::npos)
        << get.out;
}

TEST_F(AgentNoValue, AVersionOneGetOfTheCellIsNoSuchName)
{
    const RunResult get = agent.snmp("snmpget", {name("130.6.1.1.2")}, "1");
    const std::string answer = get.out + get.err;
    EXPECT_NE(answer.find("(noSuchName)"), std::string::npos) << answer;
    EXPECT_NE(answer.find("Failed object: ." + name("130.6.1.1.2") + "\n"), std::string::npos)
        << answer;
    const RunResult other = agent.snmp("snmpget", {name("130.6.1.1.3")}, "1");
    EXPECT_NE(other.out.find("INTEGER: 3"), std::string::npos) << other.out << other.err;
}

TEST_F(AgentNoValue, AWalkPassesOverTheCellAndGoesOn)
{
    const std::vector<std::string> names = walkedNames(agent, "snmpwalk", "2c", name("130.6"));
    std::vector<std::string> expected;
    for (int column = 1; column <= 7; column++) {
        for (const int row : {1, 3}) {
            expected.push_back(
                name("130.6.1." + std::to_string(column) + "." + std::to_string(row)));
        }
    }
    EXPECT_EQ(names, expected);
    EXPECT_EQ(walkedNames(agent, "snmpbulkwalk", "2c", name("130.6")), expected);
    EXPECT_EQ(walkedNames(agent, "snmpwalk", "1", name("130.6")), expected);
    // A GetNext from the row before goes past it to the next row.
    const RunResult next = agent.snmp("snmpgetnext", {name("130.6.1.4.1")});
    EXPECT_NE(next.out.find("." + name("130.6.1.4.3") + " = STRING: "), std::string::npos)
        << next.out;
    // And the walk of the whole tree goes on into the next table.
    const RunResult after = agent.snmp("snmpgetnext", {name("130.6.1.7.3")});
    EXPECT_NE(after.out.find("." + name("130.")), std::string::npos) << after.out;
    EXPECT_EQ(after.out.find("." + name("130.6.")), std::string::npos) << after.out;
}

} // namespace
} // namespace kelp::test
