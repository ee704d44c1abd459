// kelpagent --live over the wire: this machine's storage and captured
// machines (tests/fixtures) walked with snmpwalk and checked against their
// trees, changes made to a copy of a tree becoming traps at a private
// snmptrapd with the tables following, and the errors of a bad start.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

// Tables of the walk: array disks, controllers, virtual disks, enclosures.
const std::string kDisks = std::string(kRoot) + ".130.4.1";
const std::string kControllers = std::string(kRoot) + ".130.1.1";
constexpr const char *kTrapPrefix = "1.3.6.1.4.1.61234.20571.1.20.200";

// The rows of a table: the last arc of every name in the walk of its first
// (index) column.
std::set<std::string> rowsOf(const std::string &walk, const std::string &table)
{
    std::set<std::string> rows;
    std::istringstream lines(walk);
    const std::string prefix = "." + table + ".1.";
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(prefix, 0) == 0)
            rows.insert(line.substr(prefix.size(), line.find(' ') - prefix.size()));
    }
    return rows;
}

// The values of one column, in row order.
std::vector<std::string> columnOf(const std::string &walk, const std::string &table, int column)
{
    std::vector<std::string> values;
    std::istringstream lines(walk);
    const std::string prefix = "." + table + "." + std::to_string(column) + ".";
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(prefix, 0) == 0) {
            const size_t eq = line.find(" = ");
            values.push_back(eq == std::string::npos ? "" : line.substr(eq + 3));
        }
    }
    return values;
}

// The whole disks of this machine as the live source counts them.
std::set<std::string> machineDisks()
{
    std::set<std::string> disks;
    DIR *d = opendir("/sys/block");
    if (d == nullptr)
        return disks;
    while (const dirent *e = readdir(d)) {
        const std::string name = e->d_name;
        const bool scsi =
            name.rfind("sd", 0) == 0 && std::ifstream("/sys/block/" + name + "/device/type").good();
        if (name.rfind("vd", 0) == 0 || scsi ||
            std::regex_match(name, std::regex("nvme[0-9]+n[0-9]+")))
            disks.insert(name);
    }
    closedir(d);
    return disks;
}

TEST(AgentLiveStart, AMissingLiveRootIsExit1WithItsName)
{
    TempDir dir;
    const RunResult r = run(
        {kelpagentPath(), "--live-root", dir / "nowhere", "--state-dir", dir / "state", "--listen",
         "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--module", modulePath()},
        agentEnv(), dir);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("the live source does not start"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(dir / "nowhere"), std::string::npos) << r.err;
}

TEST(AgentLiveStart, ModelAndLiveExcludeEachOther)
{
    TempDir dir;
    const RunResult r =
        run({kelpagentPath(), "--live", "--model", sourcePath("data/models/sample.xml"),
             "--state-dir", dir / "state", "--module", modulePath()},
            agentEnv(), dir);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("exclude each other"), std::string::npos) << r.err;
}

TEST(AgentLiveStart, BadIntervalsAreRefused)
{
    TempDir dir;
    for (const char *bad : {"0", "-1", "abc", "1e9", ""}) {
        const RunResult r = run({kelpagentPath(), "--live", "--live-interval", bad, "--state-dir",
                                 dir / "state", "--module", modulePath()},
                                agentEnv(), dir);
        EXPECT_NE(r.status, 0) << bad;
        EXPECT_NE(r.err.find("--live-interval"), std::string::npos) << bad << ": " << r.err;
    }
}

// The machine the test runs on: every whole disk it has is a row, and the
// start-up log and kelpctl status say what is served.
TEST(AgentLive, ThisMachinesDisksAreServed)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start("", {"--live"}, &why)) << why;
    const std::string err = agent.process()->err();
    EXPECT_NE(err.find("serving the storage of this machine: live /"), std::string::npos) << err;
    const RunResult status = agent.kelpctl({"status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_NE(status.out.find("source: live /"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("model: live /"), std::string::npos) << status.out;

    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    ASSERT_EQ(walk.status, 0) << walk.err;
    const std::set<std::string> disks = machineDisks();
    EXPECT_EQ(rowsOf(walk.out, kDisks).size(), disks.size()) << walk.out;
    if (disks.count("vda")) {
        // A VM: its virtio disk with its size in MiB.
        std::ifstream sizeFile("/sys/block/vda/size");
        unsigned long long sectors = 0;
        sizeFile >> sectors;
        const std::vector<std::string> sizes = columnOf(walk.out, kDisks, 11);
        EXPECT_NE(std::find(sizes.begin(), sizes.end(),
                            "INTEGER: " + std::to_string(sectors * 512 >> 20)),
                  sizes.end())
            << walk.out;
    }
    // Changes are refused: the machine is the source.
    const RunResult load = agent.kelpctl({"load", sourcePath("data/models/sample.xml")});
    EXPECT_NE(load.status, 0);
    EXPECT_NE((load.out + load.err).find("live source"), std::string::npos) << load.out << load.err;
}

} // namespace
} // namespace kelp::test
