// What every SNMP agent answers and does, checked over the wire on an
// embedded kelpagent: the system group, sysORTable, the snmp group's
// counters, snmpEngine, coldStart to each trap sink; and its log: stamped
// lines, the journal's format, syslog, and refused communities.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

const std::string kVendor = std::string(kRoot) + ".3.0";

std::string minimalModel()
{
    return sourcePath("data/models/test/minimal.xml");
}

std::string hostName()
{
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

// The number after "Counter32: " in one snmpget answer; -1 when absent.
long counterOf(const RunResult &get)
{
    const size_t at = get.out.find("Counter32: ");
    return at == std::string::npos ? -1 : std::stol(get.out.substr(at + 11));
}

// One Get with the community "wrong", which the agent refuses: sent once
// (no retry), so each call is one refused packet.
void refusedGet(AgentUnderTest &agent, const std::string &version)
{
    run({"snmpget", "-v", version, "-c", "wrong", "-On", "-t", "0.5", "-r", "0",
         "127.0.0.1:" + std::to_string(agent.port()), kVendor},
        snmpEnv(agent.dir()), agent.dir());
}

size_t count(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        n++;
    }
    return n;
}

TEST(AgentGroups, TheSystemGroupNamesKelpAndTheStorageEnterprise)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult version = run({kelpagentPath(), "--allow-root", "--version"}, {}, agent.dir());
    const std::string kelpVersion = version.out.substr(10, version.out.find('\n') - 10);
    ASSERT_FALSE(kelpVersion.empty()) << version.out;

    const RunResult get =
        agent.snmp("snmpget", {"1.3.6.1.2.1.1.1.0", "1.3.6.1.2.1.1.2.0", "1.3.6.1.2.1.1.3.0",
                               "1.3.6.1.2.1.1.4.0", "1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.6.0"});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_NE(get.out.find(".1.3.6.1.2.1.1.1.0 = STRING: \"kelp " + kelpVersion), std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.2.1.1.2.0 = OID: .1.3.6.1.4.1.61234.20571.1.20\n"),
              std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.2.1.1.3.0 = Timeticks: "), std::string::npos) << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.2.1.1.4.0 = STRING: \"root@localhost\""), std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.2.1.1.5.0 = STRING: \"" + hostName() + "\""),
              std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.2.1.1.6.0 = STRING: \"unknown\""), std::string::npos)
        << get.out;
}

TEST(AgentGroups, SysContactNameAndLocationComeFromTheOptions)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(),
                            {"--sys-contact", "Storage team <storage@example.net>", "--sys-name",
                             "array-7", "--sys-location", "Rack 4, row B"},
                            &why))
        << why;
    const RunResult get =
        agent.snmp("snmpget", {"1.3.6.1.2.1.1.4.0", "1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.6.0"});
    EXPECT_NE(get.out.find("STRING: \"Storage team <storage@example.net>\""), std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find("STRING: \"array-7\""), std::string::npos) << get.out;
    EXPECT_NE(get.out.find("STRING: \"Rack 4, row B\""), std::string::npos) << get.out;
    // Read-only like everything else the agent serves.
    const RunResult set = agent.snmp("snmpset", {"1.3.6.1.2.1.1.6.0", "s", "elsewhere"});
    EXPECT_NE(set.status, 0) << set.out;
    EXPECT_NE(agent.snmp("snmpget", {"1.3.6.1.2.1.1.6.0"}).out.find("\"Rack 4, row B\""),
              std::string::npos);
}

TEST(AgentGroups, SysORTableListsTheStorageMib)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult walk = agent.snmp("snmpwalk", {"1.3.6.1.2.1.1.9.1.2"});
    EXPECT_EQ(walk.status, 0) << walk.err;
    EXPECT_NE(walk.out.find("= OID: .1.3.6.1.4.1.61234.20571.1.20\n"), std::string::npos)
        << walk.out;
    const RunResult descr = agent.snmp("snmpwalk", {"1.3.6.1.2.1.1.9.1.3"});
    EXPECT_NE(descr.out.find("= STRING: \"KELP-STORAGE-MIB: storage controllers, disks, "
                             "enclosures and events\""),
              std::string::npos)
        << descr.out;
}

TEST(AgentGroups, TheSnmpGroupCountsPacketsAndBadCommunities)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const long inPackets = counterOf(agent.snmp("snmpget", {"1.3.6.1.2.1.11.1.0"}));
    EXPECT_GT(inPackets, 0);
    const long badBefore = counterOf(agent.snmp("snmpget", {"1.3.6.1.2.1.11.4.0"}));
    ASSERT_GE(badBefore, 0);
    refusedGet(agent, "2c");
    EXPECT_EQ(counterOf(agent.snmp("snmpget", {"1.3.6.1.2.1.11.4.0"})), badBefore + 1);
    EXPECT_GT(counterOf(agent.snmp("snmpget", {"1.3.6.1.2.1.11.1.0"})), inPackets);
}

TEST(AgentGroups, SnmpEngineIsAnswered)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult get =
        agent.snmp("snmpget", {"1.3.6.1.6.3.10.2.1.1.0", "1.3.6.1.6.3.10.2.1.2.0",
                               "1.3.6.1.6.3.10.2.1.3.0", "1.3.6.1.6.3.10.2.1.4.0"});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_NE(get.out.find(".1.3.6.1.6.3.10.2.1.1.0 = Hex-STRING: "), std::string::npos) << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.6.3.10.2.1.2.0 = INTEGER: "), std::string::npos) << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.6.3.10.2.1.3.0 = INTEGER: "), std::string::npos) << get.out;
    EXPECT_NE(get.out.find(".1.3.6.1.6.3.10.2.1.4.0 = INTEGER: "), std::string::npos) << get.out;
}

// SNMPv2-MIB's compliance, which sysORTable names, holds snmpSetSerialNo;
// a Set of it is refused, as every Set is.
TEST(AgentGroups, SnmpSetSerialNoIsAnsweredAndNotWritten)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult get = agent.snmp("snmpget", {"1.3.6.1.6.3.1.1.6.1.0"});
    EXPECT_EQ(get.status, 0) << get.err;
    const std::string prefix = ".1.3.6.1.6.3.1.1.6.1.0 = INTEGER: ";
    ASSERT_TRUE(get.out.starts_with(prefix)) << get.out;
    const std::string value = get.out.substr(prefix.size());
    const RunResult set =
        agent.snmp("snmpset", {"1.3.6.1.6.3.1.1.6.1.0", "i", value.substr(0, value.find('\n'))});
    EXPECT_NE(set.status, 0) << set.out;
    EXPECT_NE(set.err.find("noAccess"), std::string::npos) << set.err;
    EXPECT_EQ(agent.snmp("snmpget", {"1.3.6.1.6.3.1.1.6.1.0"}).out, get.out);
}

TEST(AgentGroups, AWalkOfTheWholeAgentRunsFromTheSystemGroupToTheStorageMib)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult walk = agent.snmp("snmpwalk", {".1"});
    EXPECT_EQ(walk.status, 0) << walk.err;
    const size_t system = walk.out.find(".1.3.6.1.2.1.1.1.0 = ");
    const size_t snmp = walk.out.find(".1.3.6.1.2.1.11.1.0 = ");
    const size_t engine = walk.out.find(".1.3.6.1.6.3.10.2.1.1.0 = ");
    const size_t storage = walk.out.find("." + std::string(kRoot) + ".1.0 = ");
    ASSERT_NE(system, std::string::npos) << walk.out.substr(0, 2000);
    ASSERT_NE(snmp, std::string::npos);
    ASSERT_NE(engine, std::string::npos);
    ASSERT_NE(storage, std::string::npos);
    EXPECT_LT(system, snmp);
    EXPECT_LT(snmp, storage);
    EXPECT_LT(storage, engine);
    // Then the SNMPv3 statistics: snmpMPDStats, the context counters and
    // usmStats, whose last counter ends the agent's view.
    const size_t mpd = walk.out.find(".1.3.6.1.6.3.11.2.1.1.0 = Counter32: ");
    const size_t contexts = walk.out.find(".1.3.6.1.6.3.12.1.5.0 = Counter32: ");
    const size_t usm = walk.out.find(".1.3.6.1.6.3.15.1.1.1.0 = Counter32: ");
    EXPECT_LT(engine, mpd);
    EXPECT_LT(mpd, contexts);
    EXPECT_LT(contexts, usm);
    EXPECT_NE(usm, std::string::npos);
    EXPECT_NE(walk.out.find(".1.3.6.1.6.3.15.1.1.6.0 = No more variables left in this MIB View"),
              std::string::npos)
        << walk.out.substr(walk.out.size() - 300);
}

TEST(AgentGroups, ColdStartGoesToEveryTrapSinkAsV2cNotification)
{
    TempDir sinks;
    TrapReceiver first(sinks);
    TempDir otherSinks;
    TrapReceiver second(otherSinks);
    ASSERT_TRUE(first.ready() && second.ready());
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(),
                            {"--trap-sink", first.sink(), "--trap-sink", second.sink()}, &why))
        << why;
    for (const TrapReceiver *receiver : {&first, &second}) {
        EXPECT_TRUE(waitFor(
            [&] {
                return receiver->log().find(".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.6.3.1.1.5.1") !=
                       std::string::npos;
            },
            10s))
            << receiver->log();
        EXPECT_NE(receiver->log().find("v=1 "), std::string::npos) << receiver->log();
    }
    EXPECT_NE(agent.process()->err().find("trap coldStart sent to " + first.sink() + ", " +
                                          second.sink() + "\n"),
              std::string::npos)
        << agent.process()->err();
}

TEST(AgentGroups, ASinkThatCannotBeUsedIsLoggedAndTheOthersStillServe)
{
    TempDir sinks;
    TrapReceiver receiver(sinks);
    ASSERT_TRUE(receiver.ready());
    AgentUnderTest agent;
    std::string why;
    // A port past 65535: net-snmp cannot open it, without asking any name
    // service.
    ASSERT_TRUE(agent.start(minimalModel(),
                            {"--trap-sink", "udp:127.0.0.1:99999", "--trap-sink", receiver.sink()},
                            &why))
        << why;
    EXPECT_TRUE(waitFor(
        [&] { return receiver.log().find(".1.3.6.1.6.3.1.1.5.1") != std::string::npos; }, 10s))
        << receiver.log();
    const std::string log = agent.process()->err();
    EXPECT_NE(log.find("trap sink udp:127.0.0.1:99999 cannot be used (not a reachable address); "
                       "no trap goes there"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("trap coldStart sent to " + receiver.sink() + "\n"), std::string::npos)
        << log;
    EXPECT_EQ(log.find("cannot create sink"), std::string::npos) << log;
}

TEST(AgentGroups, ColdStartGoesAsAnSnmpV1TrapWithTrapVersion1)
{
    TempDir sinks;
    TrapReceiver receiver(sinks);
    ASSERT_TRUE(receiver.ready());
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(
        agent.start(minimalModel(), {"--trap-sink", receiver.sink(), "--trap-version", "1"}, &why))
        << why;
    EXPECT_TRUE(
        waitFor([&] { return receiver.log().find("v=0 gen=0 ") != std::string::npos; }, 10s))
        << receiver.log();
}

TEST(AgentGroups, EveryLogLineStartsWithTheTime)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    EXPECT_EQ(agent.stop(), 0);
    std::istringstream lines(agent.process()->err());
    const std::regex stamped(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} kelpagent: .*)");
    size_t seen = 0;
    for (std::string line; std::getline(lines, line); seen++) {
        EXPECT_TRUE(std::regex_match(line, stamped)) << line;
    }
    EXPECT_GT(seen, 3u);
}

TEST(AgentGroups, UnderSystemdJournaldStampsTheLines)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why, {journalStream(agent)})) << why;
    EXPECT_EQ(agent.stop(), 0);
    std::istringstream lines(agent.process()->err());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(std::regex_match(line, std::regex("<[3-7]>kelpagent: .*"))) << line;
    }
}

TEST(AgentGroups, NetSnmpsStartUpChatterStaysOutOfTheDefaultLog)
{
    // A fresh state dir: net-snmp makes its persistent dirs and says so.
    AgentUnderTest quiet;
    std::string why;
    ASSERT_TRUE(quiet.start(minimalModel(), {}, &why)) << why;
    EXPECT_EQ(quiet.stop(), 0);
    const std::string log = quiet.process()->err();
    EXPECT_NE(log.find("kelpagent: answering on"), std::string::npos) << log;
    EXPECT_EQ(log.find("Created directory"), std::string::npos) << log;

    // --debug shows it, in the agent's format.
    AgentUnderTest verbose;
    ASSERT_TRUE(verbose.start(minimalModel(), {"--debug"}, &why)) << why;
    EXPECT_EQ(verbose.stop(), 0);
    EXPECT_TRUE(std::regex_search(verbose.process()->err(),
                                  std::regex("\\.\\d{3} kelpagent: Created directory: .*/snmp")))
        << verbose.process()->err();
}

TEST(AgentGroups, SyslogGetsTheLinesInsteadOfStderr)
{
    TempDir dir;
    const std::string path = dir / "log";
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sock, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(sock, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
    timeval timeout{1, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    std::vector<std::string> env = agentEnv();
    env.push_back("KELP_SYSLOG_SOCKET=" + path);
    Process agent({kelpagentPath(), "--allow-root", "--syslog", "--state-dir", dir / "state",
                   "--listen", "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--model",
                   minimalModel(), "--module", modulePath()},
                  env, dir / "out", dir / "err");
    std::string received;
    const bool answering = waitFor(
        [&] {
            char buffer[2048];
            const ssize_t n = recv(sock, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n > 0) {
                received += std::string(buffer, size_t(n)) + "\n";
            }
            return received.find("answering on") != std::string::npos || !agent.running();
        },
        20s);
    EXPECT_TRUE(answering && agent.running()) << received << agent.err();
    EXPECT_TRUE(std::regex_search(
        received, std::regex("<29>[A-Z][a-z]{2} [ 123][0-9] [0-9:]{8} kelpagent\\[" +
                             std::to_string(agent.pid()) + "\\]: answering on")))
        << received;
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(15s), 0);
    EXPECT_EQ(agent.err().find("answering on"), std::string::npos) << agent.err();
    close(sock);
}

TEST(AgentGroups, ARefusedCommunityIsLoggedOnceAMinutePerSource)
{
    AgentUnderTest agent;
    std::string why;
    // Twenty times faster: a minute lasts 3 s.
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why, {"KELP_TIME_SCALE=20"})) << why;
    // The line names the source and the version, never the community.
    const std::string line = "request from 127.0.0.1: wrong community (logged once a minute";
    const auto first = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; i++) {
        refusedGet(agent, "2c");
    }
    ASSERT_LT(std::chrono::steady_clock::now() - first, 3s) << "the test needs a faster machine";
    EXPECT_EQ(count(agent.process()->err(), line), 1u) << agent.process()->err();
    std::this_thread::sleep_until(first + 3100ms);
    refusedGet(agent, "1");
    EXPECT_TRUE(waitFor([&] { return count(agent.process()->err(), line) == 2; }, 5s))
        << agent.process()->err();
    EXPECT_EQ(count(agent.process()->err(), "refused a SNMPv2c request from 127.0.0.1"), 1u);
    EXPECT_EQ(count(agent.process()->err(), "refused a SNMPv1 request from 127.0.0.1"), 1u);
    EXPECT_EQ(agent.process()->err().find("\"wrong\""), std::string::npos);
    // The right community is not refused.
    agent.snmp("snmpget", {kVendor});
    EXPECT_EQ(count(agent.process()->err(), line), 2u);
}

} // namespace
} // namespace kelp::test
