// kelpagent as an SNMP manager meets it, through net-snmp's own client tools:
// access, refused Sets, names outside the tree or beyond the protocol's
// limits, and a clean stop. Every test starts its own agent on a free
// loopback port and stops it with SIGTERM, expecting exit status 0.
#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

class AgentSnmp : public ::testing::Test {
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

    AgentUnderTest agent;
};

TEST_F(AgentSnmp, AWrongCommunityGetsNoAnswer)
{
    for (const char *version : {"1", "2c"}) {
        const RunResult get = agent.snmp("snmpget", {name("3.0")}, version, "private");
        EXPECT_NE(get.status, 0) << version;
        EXPECT_NE(get.err.find("Timeout"), std::string::npos) << version << ": " << get.err;
        EXPECT_EQ(get.out, "") << version;
    }
}

TEST_F(AgentSnmp, SetIsRefusedAsNotWritable)
{
    const RunResult v2 = agent.snmp("snmpset", {name("3.0"), "s", "Other Inc."});
    EXPECT_EQ(v2.status, 2) << v2.err;
    EXPECT_NE(v2.err.find("notWritable"), std::string::npos) << v2.err;
    const RunResult v1 = agent.snmp("snmpset", {name("130.1.1.2.1"), "s", "x"}, "1");
    EXPECT_EQ(v1.status, 2) << v1.err;
    EXPECT_TRUE(v1.err.find("noSuchName") != std::string::npos ||
                v1.err.find("readOnly") != std::string::npos)
        << v1.err;
    // Nothing was written: the agent still answers as before.
    const RunResult get = agent.snmp("snmpget", {name("3.0")});
    EXPECT_EQ(get.out.find("Other Inc."), std::string::npos) << get.out;
}

TEST_F(AgentSnmp, NamesOutsideTheTreeAreNoSuchObjectAndMissingOnesNoSuchInstance)
{
    const RunResult get =
        agent.snmp("snmpget", {"1.3.6.1.4.1.61234.20571.1.21.0", "1.3.6.1.2.1.2.1.0", name("7.0"),
                               name("200.1.0")});
    EXPECT_EQ(get.status, 0) << get.err;
    std::istringstream lines(get.out);
    std::string line;
    std::vector<std::string> answers;
    while (std::getline(lines, line)) {
        answers.push_back(line);
    }
    ASSERT_EQ(answers.size(), 4u) << get.out;
    EXPECT_EQ(answers[0], ".1.3.6.1.4.1.61234.20571.1.21.0 = No Such Object available on this "
                          "agent at this OID");
    EXPECT_EQ(answers[1],
              ".1.3.6.1.2.1.2.1.0 = No Such Object available on this agent at this OID");
    // Below the root, names of no served object are no objects either; the
    // trap-variable group is for notifications only.
    EXPECT_EQ(answers[2],
              "." + name("7.0") + " = No Such Object available on this agent at this OID");
    EXPECT_EQ(answers[3],
              "." + name("200.1.0") + " = No Such Object available on this agent at this OID");

    const RunResult v1 = agent.snmp("snmpget", {name("7.0")}, "1");
    EXPECT_EQ(v1.status, 2);
    EXPECT_NE(v1.err.find("noSuchName"), std::string::npos) << v1.err;
}

TEST_F(AgentSnmp, ColumnNumbersTheMibLeavesOutAreNoSuchObjectAndWalksPassThem)
{
    // Column 6 of the controller table, 4 of the channel table and 6 and 7 of
    // the disk-to-virtual-disk table are numbers the MIB leaves out; columns
    // 5, 3 and 5 beside them are served.
    const RunResult get =
        agent.snmp("snmpget", {name("130.1.1.6.1"), name("130.2.1.4.1"), name("140.3.1.6.1"),
                               name("140.3.1.7.1"), name("130.1.1.5.1"), name("130.2.1.3.1"),
                               name("140.3.1.5.1")});
    EXPECT_EQ(get.status, 0) << get.err;
    std::istringstream lines(get.out);
    std::vector<std::string> answers;
    for (std::string line; std::getline(lines, line);) {
        answers.push_back(line);
    }
    ASSERT_EQ(answers.size(), 7u) << get.out;
    for (size_t i = 0; i < 4; i++) {
        EXPECT_NE(answers[i].find("= No Such Object available on this agent at this OID"),
                  std::string::npos)
            << answers[i];
    }
    for (size_t i = 4; i < 7; i++) {
        EXPECT_EQ(answers[i].find("No Such"), std::string::npos) << answers[i];
    }
    // GetNext from inside a left-out column goes on with the next column.
    const RunResult next = agent.snmp("snmpgetnext", {name("130.1.1.6.1")});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_TRUE(next.out.starts_with("." + name("130.1.1.7.1") + " = ")) << next.out;
}

TEST_F(AgentSnmp, NamesOfTheLongestLengthAreAnswered)
{
    // 128 arcs, net-snmp's limit: the root, then 118 more.
    std::string absent = name("7");
    std::string row = name("130.1.1.2.1");
    for (int arcs = 11; arcs < 128; arcs++) {
        absent += ".1";
    }
    for (int arcs = 15; arcs < 128; arcs++) {
        row += ".1";
    }
    const RunResult get = agent.snmp("snmpget", {absent});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(get.out, "." + absent + " = No Such Object available on this agent at this OID\n");
    for (const std::string &from : {absent, row}) {
        const RunResult next = agent.snmp("snmpgetnext", {from});
        EXPECT_EQ(next.status, 0) << next.err;
        EXPECT_EQ(next.err, "");
        // A name in the tree, or past it the agent's next group.
        EXPECT_TRUE(next.out.starts_with(".1.3.6.1.4.1.61234.20571.1.") ||
                    next.out.starts_with(".1.3.6.1.6.3.1.1.6.1.0 = "))
            << next.out;
    }
    // One arc more is refused by the manager before anything is sent.
    const RunResult tooLong = agent.snmp("snmpget", {absent + ".1"});
    EXPECT_NE(tooLong.status, 0);
}

TEST_F(AgentSnmp, GetNextPastTheTreeGoesOnToTheAgentsLastGroupThenEndOfMibView)
{
    // After the storage tree the agent serves snmpSetSerialNo, snmpEngine,
    // then the SNMPv3 statistics; usmStatsDecryptionErrors is its last name.
    const RunResult next = agent.snmp("snmpgetnext", {"1.3.6.1.4.1.61234.20571.1.21"});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.out.rfind(".1.3.6.1.6.3.1.1.6.1.0 = INTEGER: ", 0), 0u) << next.out;
    const RunResult engine = agent.snmp("snmpgetnext", {"1.3.6.1.6.3.1.1.6.1.0"});
    EXPECT_EQ(engine.out.rfind(".1.3.6.1.6.3.10.2.1.1.0 = Hex-STRING: ", 0), 0u) << engine.out;
    const std::string last = "1.3.6.1.6.3.15.1.1.6.0";
    const RunResult end = agent.snmp("snmpgetnext", {last});
    EXPECT_EQ(end.status, 0) << end.err;
    EXPECT_NE(end.out.find("No more variables left in this MIB View"), std::string::npos)
        << end.out;
    const RunResult v1 = agent.snmp("snmpgetnext", {last}, "1");
    EXPECT_EQ(v1.status, 2);
    EXPECT_NE(v1.err.find("noSuchName"), std::string::npos) << v1.err;
}

TEST_F(AgentSnmp, SigintStopsTheAgentCleanlyToo)
{
    EXPECT_EQ(agent.stop(SIGINT), 0) << agent.process()->err();
    EXPECT_NE(agent.process()->err().find("kelpagent: stopped"), std::string::npos);
    EXPECT_FALSE(std::ifstream(agent.stateDir() + "/control.sock").good())
        << "the control socket is removed on the way out";
}

// The socket inodes of `pid`'s open descriptors.
std::set<std::string> socketInodes(pid_t pid)
{
    std::set<std::string> inodes;
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *fds = opendir(dir.c_str());
    if (fds == nullptr) {
        return inodes;
    }
    while (const dirent *entry = readdir(fds)) {
        char target[256] = {};
        const std::string link = dir + "/" + entry->d_name;
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
            std::string(target).starts_with("socket:[")) {
            const std::string text = target;
            inodes.insert(text.substr(8, text.size() - 9));
        }
    }
    closedir(fds);
    return inodes;
}

TEST_F(AgentSnmp, NoTcpPortIsOpenedSmuxIncluded)
{
    const std::set<std::string> inodes = socketInodes(agent.process()->pid());
    ASSERT_FALSE(inodes.empty());
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream in(table);
        std::string line;
        std::getline(in, line); // header
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
            fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
                timeout >> inode;
            EXPECT_FALSE(inodes.count(inode) != 0 && state == "0A")
                << "kelpagent listens on TCP " << local << " (" << table << ")";
        }
    }
}

TEST_F(AgentSnmp, TheStateDirIsPrivateAndHoldsTheAgentsFiles)
{
    struct stat st {};
    ASSERT_EQ(stat(agent.stateDir().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_EQ(stat((agent.stateDir() + "/control.sock").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    ASSERT_EQ(stat((agent.stateDir() + "/snmp").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));

    const RunResult status =
        run({kelpctlPath(), "--control", agent.stateDir() + "/control.sock", "status"}, {},
            agent.dir());
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_NE(status.out.find("minimal.xml"), std::string::npos) << status.out;
}

} // namespace
} // namespace kelp::test
