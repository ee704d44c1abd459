// kelpagent as an AgentX subagent of a private snmpd started by the test
// (its own configuration, loopback port, AgentX socket and persistent dir in
// a temp dir): it registers the tree, and requests through snmpd reach it.
#include <signal.h>

#include <chrono>
#include <filesystem>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

class AgentX : public ::testing::Test {
  protected:
    void SetUp() override
    {
        port = freeUdpPort();
        socket = dir / "agentx";
        // The master's own trap sink: notifications of its subagents go there.
        receiver = std::make_unique<TrapReceiver>(trapDir);
        ASSERT_TRUE(receiver->ready());
        writeFile(dir / "snmpd.conf", "agentaddress udp:127.0.0.1:" + std::to_string(port) +
                                          "\n"
                                          "master agentx\n"
                                          "agentXSocket " +
                                          socket +
                                          "\n"
                                          "agentXPerms 0600 0700\n"
                                          "rocommunity public 127.0.0.1\n"
                                          "trap2sink " +
                                          receiver->sink() + " public\n");
        startMaster();
    }

    void startMaster()
    {
        std::vector<std::string> env = snmpEnv(dir);
        snmpd = std::make_unique<Process>(
            std::vector<std::string>{"snmpd", "-f", "-Lo", "-C", "-c", dir / "snmpd.conf", "-p",
                                     dir / "snmpd.pid", "-I", "-smux"},
            env, dir / "snmpd.out", dir / "snmpd.err");
        ASSERT_TRUE(
            waitFor([&] { return std::filesystem::exists(socket) || !snmpd->running(); }, 20s))
            << snmpd->out() << snmpd->err();
        ASSERT_TRUE(snmpd->running()) << snmpd->out() << snmpd->err();
    }

    void TearDown() override
    {
        if (kelp && kelp->running()) {
            kelp->signal(SIGTERM);
            EXPECT_EQ(kelp->wait(15s), 0) << kelp->err();
        }
        snmpd->signal(SIGTERM);
        EXPECT_TRUE(snmpd->wait(15s).has_value());
    }

    void startSubagent(const std::string &model = sourcePath("data/models/test/minimal.xml"),
                       const std::vector<std::string> &env = {})
    {
        std::vector<std::string> environment = agentEnv();
        environment.insert(environment.end(), env.begin(), env.end());
        kelp = std::make_unique<Process>(std::vector<std::string>{kelpagentPath(), "--allow-root",
                                                                  "--agentx", socket, "--state-dir",
                                                                  dir / "state", "--model", model,
                                                                  "--module", modulePath()},
                                         environment, dir / "kelp.out", dir / "kelp.err");
    }

    // A subagent on the sample (clocks 20 times fast), once the master
    // answers for its tree.
    void startSampleSubagent()
    {
        startSubagent(sourcePath("data/models/sample.xml"), {"KELP_TIME_SCALE=20"});
        const std::string controller = std::string(kRoot) + ".130.1.1.1.1";
        ASSERT_TRUE(waitFor(
            [&] {
                return viaMaster("snmpget", {controller}).out.find("INTEGER: 1") !=
                       std::string::npos;
            },
            20s))
            << kelp->err();
    }

    // Queues disk 302's failure (event 2048, trap 904) with kelpctl.
    void failDisk302()
    {
        const RunResult event = run({kelpctlPath(), "--control", dir / "state/control.sock",
                                     "event", "2048", "--object", "302"},
                                    {}, dir, 30s);
        ASSERT_EQ(event.status, 0) << event.out << event.err;
    }

    RunResult viaMaster(const std::string &tool, const std::vector<std::string> &args)
    {
        return snmp(dir, tool, "2c", "public", port, args);
    }

    TempDir dir;
    TempDir trapDir;
    std::unique_ptr<TrapReceiver> receiver;
    int port = 0;
    std::string socket;
    std::unique_ptr<Process> snmpd;
    std::unique_ptr<Process> kelp;
};

TEST_F(AgentX, TheSubagentRegistersTheTreeWithTheMaster)
{
    const std::string name = std::string(kRoot) + ".3.0";
    EXPECT_NE(viaMaster("snmpget", {name}).out.find("No Such Object"), std::string::npos)
        << "nothing serves the tree before the subagent connects";
    startSubagent();
    // Registered once snmpd answers for the tree: anything but noSuchObject
    // (and not genErr, which the plug-in answers until its tables are built).
    RunResult get;
    const bool registered = waitFor(
        [&] {
            get = viaMaster("snmpget", {name});
            return get.status == 0 && get.out.find("No Such Object") == std::string::npos;
        },
        20s);
    EXPECT_TRUE(registered) << get.out << get.err << "\nkelpagent:\n"
                            << kelp->err() << "\nsnmpd:\n"
                            << snmpd->out();
    EXPECT_NE(kelp->err().find("AgentX subagent of " + socket), std::string::npos) << kelp->err();
}

TEST_F(AgentX, RequestsThroughTheMasterReachThePlugin)
{
    startSubagent();
    const std::string name = std::string(kRoot) + ".3.0";
    RunResult get;
    ASSERT_TRUE(waitFor(
        [&] {
            get = viaMaster("snmpget", {name});
            return get.status == 0 && get.out.find("No Such Object") == std::string::npos;
        },
        20s))
        << get.out << get.err << kelp->err();
    ASSERT_NE(get.out.find("\"Vorn Inc.\""), std::string::npos) << get.out << kelp->err();
    const RunResult controller = viaMaster("snmpget", {std::string(kRoot) + ".130.1.1.2.1"});
    EXPECT_NE(controller.out.find("STRING: \"Vorn RX-240\""), std::string::npos) << controller.out;

    // A walk through the master: the subagent answers GetNext with the
    // inclusive flag the master sets, and the walk ends at the tree's end.
    const RunResult walk = viaMaster("snmpwalk", {kRoot});
    EXPECT_EQ(walk.status, 0) << walk.err;
    EXPECT_EQ(walk.out.rfind("." + std::string(kRoot) + ".1.0 = STRING: \"5.2.0\"", 0), 0u)
        << walk.out.substr(0, 300);
    EXPECT_NE(walk.out.find(".130.1.1.2.1 = STRING: \"Vorn RX-240\""), std::string::npos);
    const RunResult bulk = viaMaster("snmpbulkwalk", {kRoot});
    EXPECT_EQ(bulk.out, walk.out);
}

TEST_F(AgentX, TheStandardGroupsStayTheMasters)
{
    startSubagent();
    const std::string name = std::string(kRoot) + ".3.0";
    ASSERT_TRUE(waitFor(
        [&] {
            const RunResult get = viaMaster("snmpget", {name});
            return get.status == 0 && get.out.find("No Such Object") == std::string::npos;
        },
        20s))
        << kelp->err();
    // sysDescr.0, sysObjectID.0: snmpd's own, not the embedded agent's.
    const RunResult system = viaMaster("snmpget", {"1.3.6.1.2.1.1.1.0", "1.3.6.1.2.1.1.2.0"});
    EXPECT_EQ(system.status, 0) << system.err;
    EXPECT_EQ(system.out.find("kelp"), std::string::npos) << system.out;
    EXPECT_EQ(system.out.find("61234"), std::string::npos) << system.out;
    EXPECT_EQ(kelp->err().find("coldStart"), std::string::npos) << kelp->err();
}

TEST_F(AgentX, AStorageEventGoesOutThroughTheMastersTrapSink)
{
    ASSERT_NO_FATAL_FAILURE(startSampleSubagent());
    ASSERT_NO_FATAL_FAILURE(failDisk302());
    // Disk 302's failure: trap 904, as a v2c notification from the master.
    const std::string oid = ".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.4.1.61234.20571.1.20.200.0.904";
    EXPECT_TRUE(waitFor([&] { return receiver->log().find(oid) != std::string::npos; }, 20s))
        << receiver->log() << kelp->err();
    EXPECT_NE(receiver->log().find(".1.3.6.1.4.1.61234.20571.1.20.200.1.0 = INTEGER: 2048"),
              std::string::npos)
        << receiver->log();
    // The subagent's log says where the trap went: to its master.
    const std::string log = kelp->err();
    const size_t line = log.find("trap 904 arrayDiskCriticalAlert (event 2048: ");
    ASSERT_NE(line, std::string::npos) << log;
    EXPECT_TRUE(
        log.substr(line, log.find('\n', line) - line).ends_with(" sent to the AgentX master"))
        << log;
}

// A storage event while the master is away (a restart of snmpd) is held and
// goes out once the subagent is connected again, not lost.
TEST_F(AgentX, ATrapRaisedWhileTheMasterIsAwayGoesOutOnceItIsBack)
{
    ASSERT_NO_FATAL_FAILURE(startSampleSubagent());
    snmpd->signal(SIGTERM);
    ASSERT_TRUE(snmpd->wait(15s).has_value());
    ASSERT_TRUE(waitFor([&] { return kelp->err().find(" lost: ") != std::string::npos; }, 30s))
        << kelp->err();
    ASSERT_NO_FATAL_FAILURE(failDisk302());
    ASSERT_TRUE(waitFor(
        [&] {
            return kelp->err().find("trap 904 arrayDiskCriticalAlert (event 2048: ") !=
                   std::string::npos;
        },
        20s))
        << kelp->err();
    const std::string log = kelp->err();
    const size_t line = log.find("trap 904 arrayDiskCriticalAlert (event 2048: ");
    EXPECT_TRUE(log.substr(line, log.find('\n', line) - line)
                    .ends_with(" held for the AgentX master until it is connected again"))
        << log;
    startMaster();
    const std::string oid = ".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.4.1.61234.20571.1.20.200.0.904";
    EXPECT_TRUE(waitFor([&] { return receiver->log().find(oid) != std::string::npos; }, 30s))
        << receiver->log() << kelp->err();
    EXPECT_NE(kelp->err().find("AgentX: 1 trap held while the master was away sent to it"),
              std::string::npos)
        << kelp->err();
}

// A second subagent of the same tree is refused by the master: it says so
// rather than only that it is connected.
TEST_F(AgentX, ASecondSubagentOfTheTreeLogsThatTheMasterRefusedIt)
{
    startSubagent();
    ASSERT_TRUE(waitFor(
        [&] {
            return viaMaster("snmpget", {std::string(kRoot) + ".1.0"}).out.find("No Such Object") ==
                   std::string::npos;
        },
        20s))
        << kelp->err();
    Process second({kelpagentPath(), "--allow-root", "--agentx", socket, "--state-dir",
                    dir / "second", "--model", sourcePath("data/models/test/minimal.xml"),
                    "--module", modulePath()},
                   agentEnv(), dir / "second.out", dir / "second.err");
    EXPECT_TRUE(waitFor(
        [&] {
            return second.err().find("AgentX: the master refused to register the storage tree: "
                                     "another subagent has registered it already") !=
                   std::string::npos;
        },
        20s))
        << second.err();
    second.signal(SIGTERM);
    EXPECT_EQ(second.wait(15s), 0) << second.err();
}

TEST_F(AgentX, AListenAddressGivenToASubagentIsNamedAsUnusedAndNotOpened)
{
    const int own = freeUdpPort();
    kelp = std::make_unique<Process>(
        std::vector<std::string>{kelpagentPath(), "--allow-root", "--agentx", socket, "--state-dir",
                                 dir / "state", "--model",
                                 sourcePath("data/models/test/minimal.xml"), "--module",
                                 modulePath(), "--listen", "udp:127.0.0.1:" + std::to_string(own)},
        agentEnv(), dir / "kelp.out", dir / "kelp.err");
    ASSERT_TRUE(waitFor(
        [&] { return kelp->err().find("kelpagent: AgentX subagent of") != std::string::npos; },
        20s))
        << kelp->err();
    EXPECT_NE(kelp->err().find("kelpagent: --listen udp:127.0.0.1:" + std::to_string(own) +
                               " not used: an AgentX subagent answers on no address of its own"),
              std::string::npos)
        << kelp->err();
    const RunResult get = snmp(dir, "snmpget", "2c", "public", own,
                               {"-t", "1", "-r", "0", std::string(kRoot) + ".1.0"});
    EXPECT_NE(get.err.find("Timeout"), std::string::npos) << get.out << get.err;
}

TEST_F(AgentX, TheMastersSysORTableListsTheStorageMibWhileTheSubagentIsConnected)
{
    const auto listed = [&](RunResult *walk) {
        *walk = viaMaster("snmpwalk", {"1.3.6.1.2.1.1.9"});
        return walk->out.find("= OID: ." + std::string(kRoot) + "\n") != std::string::npos;
    };
    RunResult walk;
    EXPECT_FALSE(listed(&walk)) << "not before the subagent connects\n" << walk.out;
    startSubagent();
    ASSERT_TRUE(waitFor([&] { return listed(&walk); }, 20s)) << walk.out << walk.err << kelp->err();
    // Its sysORDescr is in the same row: the index of the sysORID line.
    const size_t id = walk.out.find("= OID: ." + std::string(kRoot) + "\n");
    const size_t lineStart = walk.out.rfind('\n', id) + 1;
    const std::string idName =
        walk.out.substr(lineStart, walk.out.find(' ', lineStart) - lineStart);
    const std::string row = idName.substr(idName.rfind('.'));
    EXPECT_NE(walk.out.find(".1.3.6.1.2.1.1.9.1.3" + row +
                            " = STRING: \"KELP-STORAGE-MIB: storage controllers, disks, "
                            "enclosures and events\""),
              std::string::npos)
        << walk.out;
    // The row goes with the subagent.
    kelp->signal(SIGTERM);
    ASSERT_EQ(kelp->wait(15s), 0) << kelp->err();
    EXPECT_TRUE(waitFor([&] { return !listed(&walk); }, 10s)) << walk.out;
}

TEST_F(AgentX, AStopWhileWalksComeThroughTheMasterEndsTheSubagentCleanly)
{
    // Walkers that keep the master asking the subagent until the file
    // `done` appears: some request is in flight whenever a stop comes.
    const std::string done = dir / "done";
    std::vector<std::unique_ptr<Process>> walkers;
    for (int i = 0; i < 4; i++) {
        const std::string out = dir / ("walk" + std::to_string(i));
        walkers.push_back(std::make_unique<Process>(
            std::vector<std::string>{"sh", "-c",
                                     "while [ ! -e '" + done +
                                         "' ]; do snmpwalk -v2c -c public -On -t 5 -r 0 "
                                         "127.0.0.1:" +
                                         std::to_string(port) + " " + kRoot + "; done"},
            snmpEnv(dir), out + ".out", out + ".err"));
    }
    const auto walked = [&](size_t *seen) {
        size_t count = 0;
        for (int i = 0; i < 4; i++) {
            count += std::filesystem::file_size(dir / ("walk" + std::to_string(i) + ".out"));
        }
        const bool grown = count > *seen;
        *seen = count;
        return grown;
    };
    // Each stop races the requests: three of them make the race all but
    // certain.
    size_t seen = 0;
    for (int round = 0; round < 3; round++) {
        SCOPED_TRACE("stop " + std::to_string(round + 1));
        ASSERT_NO_FATAL_FAILURE(startSampleSubagent());
        const size_t before = seen;
        ASSERT_TRUE(waitFor([&] { return walked(&seen) && seen > before + 20000; }, 20s));
        kelp->signal(SIGTERM);
        const std::optional<int> status = kelp->wait(15s);
        ASSERT_EQ(status, 0) << kelp->err();
        EXPECT_NE(kelp->err().find("kelpagent: stopped\n"), std::string::npos) << kelp->err();
    }
    writeFile(done, "");
    for (const auto &walker : walkers) {
        EXPECT_TRUE(walker->wait(30s).has_value());
    }
}

TEST_F(AgentX, WhileARescanHoldsTheTablesEveryAnswerComesWithinTheMastersTimeOut)
{
    startSubagent(sourcePath("data/models/sample.xml"));
    const std::string name = std::string(kRoot) + ".130.1.1.2.1";
    RunResult get;
    ASSERT_TRUE(waitFor(
        [&] {
            get = viaMaster("snmpget", {name});
            return get.out.find("STRING") != std::string::npos;
        },
        20s))
        << get.out << get.err << kelp->err();
    const RunResult hold =
        run({kelpctlPath(), "--control", dir / "state/control.sock", "event", "3061"}, {}, dir);
    ASSERT_EQ(hold.status, 0) << hold.err;
    ASSERT_TRUE(waitFor(
        [&] {
            get = viaMaster("snmpget", {"-Cf", name});
            return get.err.find("genErr") != std::string::npos;
        },
        20s))
        << get.out << get.err << kelp->err();
    // The subagent answers every request within the master's 1 s, so the
    // master never gives up on it: each failing request is a genErr, not a
    // time-out, and the master keeps the session.
    for (int i = 0; i < 5; i++) {
        const auto start = std::chrono::steady_clock::now();
        get = viaMaster("snmpget", {"-Cf", name, std::string(kRoot) + ".130.2.1.2.1"});
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1800));
        EXPECT_NE(get.err.find("genErr"), std::string::npos) << get.out << get.err;
    }
    const RunResult release =
        run({kelpctlPath(), "--control", dir / "state/control.sock", "event", "3060"}, {}, dir);
    ASSERT_EQ(release.status, 0) << release.err;
    EXPECT_TRUE(waitFor(
        [&] {
            get = viaMaster("snmpget", {name});
            return get.out.find("STRING") != std::string::npos;
        },
        20s))
        << get.out << get.err << kelp->err();
    EXPECT_EQ(snmpd->err().find("timed out"), std::string::npos) << snmpd->err();
}

} // namespace
} // namespace kelp::test
