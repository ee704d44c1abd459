// Traps as an operator configures them, against private snmptrapds on
// loopback: a trap community of their own, coldStart under kelp's
// enterprise, informs acknowledged by a snmptrapd that accepts their
// community, an unreachable inform sink retried and given up without
// holding up the other sink or requests, and one log line per trap naming
// what it is about and where it went.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kEnterprise = ".1.3.6.1.4.1.61234.20571.1.20.200";
constexpr const char *kColdStartOid = ".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.6.3.1.1.5.1";

std::string trapOid(int specific)
{
    return ".1.3.6.1.6.3.1.1.4.1.0 = OID: " + std::string(kEnterprise) + ".0." +
           std::to_string(specific);
}

// A snmptrapd on a free loopback port that accepts (and so acknowledges
// the informs of) `community` only, one line per notification with its PDU
// kind and community (%P), enterprise and numbers.
class Trapd {
  public:
    Trapd(const TempDir &dir, const std::string &name, const std::string &community)
        : dir_(dir), name_(name), port_(freeUdpPort())
    {
        writeFile(dir / (name + ".conf"), "authCommunity log,net,execute " + community + "\n");
        process_ = std::make_unique<Process>(
            std::vector<std::string>{"snmptrapd", "-f", "-Lf", dir / (name + ".log"), "-On", "-C",
                                     "-c", dir / (name + ".conf"), "-F",
                                     "pdu=%P ent=%N gen=%w specific=%q vbs=%v\n",
                                     "udp:127.0.0.1:" + std::to_string(port_)},
            snmpEnv(dir), dir / (name + ".out"), dir / (name + ".err"));
        ready_ = waitFor([&] { return log().find("NET-SNMP version") != std::string::npos; }, 20s);
    }
    ~Trapd()
    {
        process_->signal(SIGTERM);
        process_->wait(15s);
    }

    bool ready() const { return ready_; }
    std::string sink() const { return "udp:127.0.0.1:" + std::to_string(port_); }
    std::string log() const { return readFile(dir_ / (name_ + ".log")); }
    // The first line holding `needle`, waited for up to `limit`; "" if none.
    std::string lineWith(const std::string &needle, std::chrono::milliseconds limit = 10s) const
    {
        std::string found;
        waitFor(
            [&] {
                std::istringstream lines(log());
                for (std::string line; std::getline(lines, line);) {
                    if (line.find(needle) != std::string::npos) {
                        found = line;
                        return true;
                    }
                }
                return false;
            },
            limit);
        return found;
    }

  private:
    const TempDir &dir_;
    std::string name_;
    int port_;
    bool ready_ = false;
    std::unique_ptr<Process> process_;
};

// A loopback UDP port with nobody behind it (a moment ago).
int closedUdpPort()
{
    return freeUdpPort();
}

class AgentTraps : public ::testing::Test {
  protected:
    void start(const std::vector<std::string> &args)
    {
        std::string why;
        ASSERT_TRUE(
            agent.start(sourcePath("data/models/sample.xml"), args, &why, {"KELP_TIME_SCALE=20"}))
            << why;
    }
    void failDisk()
    {
        const RunResult event = agent.kelpctl({"event", "2048", "--object", "302"});
        ASSERT_EQ(event.status, 0) << event.out << event.err;
    }
    std::string agentLog() { return agent.process()->err(); }

    TempDir dir;
    AgentUnderTest agent;
};

TEST_F(AgentTraps, TrapsCarryTheTrapCommunityWhileRequestsKeepTheReadOne)
{
    Trapd alarms(dir, "alarms", "alarms");
    ASSERT_TRUE(alarms.ready());
    start({"--trap-community", "alarms", "--trap-sink", alarms.sink()});
    const std::string coldStart = alarms.lineWith(kColdStartOid);
    EXPECT_NE(coldStart.find("pdu=TRAP2, SNMP v2c, community alarms "), std::string::npos)
        << alarms.log() << agentLog();
    failDisk();
    EXPECT_NE(alarms.lineWith(trapOid(904)).find("community alarms"), std::string::npos)
        << alarms.log();
    // The trap community opens nothing for reading.
    EXPECT_NE(agent.snmp("snmpget", {"1.3.6.1.2.1.1.3.0"}).out.find("Timeticks"),
              std::string::npos);
    // One short try: an unanswered request is all a wrong community gets.
    const RunResult refused =
        run({"snmpget", "-v", "2c", "-c", "alarms", "-On", "-t", "0.5", "-r", "0",
             "127.0.0.1:" + std::to_string(agent.port()), "1.3.6.1.2.1.1.3.0"},
            snmpEnv(dir), dir);
    EXPECT_NE(refused.status, 0) << refused.out;
    EXPECT_EQ(refused.out.find("Timeticks"), std::string::npos) << refused.out;
}

TEST_F(AgentTraps, WithoutATrapCommunityTrapsCarryTheReadCommunity)
{
    Trapd receiver(dir, "public", "public");
    ASSERT_TRUE(receiver.ready());
    start({"--trap-sink", receiver.sink()});
    EXPECT_NE(receiver.lineWith(kColdStartOid).find("community public "), std::string::npos)
        << receiver.log() << agentLog();
}

TEST_F(AgentTraps, ColdStartNamesKelpsEnterpriseAsV1TrapAndAsInform)
{
    Trapd v1(dir, "v1", "public");
    Trapd informs(dir, "informs", "public");
    ASSERT_TRUE(v1.ready() && informs.ready());
    // An inform sink sends SNMPv2c informs whatever --trap-version says.
    start({"--trap-version", "1", "--trap-sink", v1.sink(), "--trap-sink",
           "inform:" + informs.sink()});
    const std::string trap = v1.lineWith("pdu=TRAP, SNMP v1");
    EXPECT_NE(trap.find(std::string("ent=") + kEnterprise + " gen=0 specific=0 "),
              std::string::npos)
        << v1.log() << agentLog();
    const std::string inform = informs.lineWith(kColdStartOid);
    EXPECT_NE(inform.find("pdu=INFORM, SNMP v2c, community public "), std::string::npos)
        << informs.log();
    EXPECT_TRUE(inform.ends_with(".1.3.6.1.6.3.1.1.4.3.0 = OID: " + std::string(kEnterprise)))
        << inform;
    EXPECT_NE(agentLog().find("trap coldStart sent to " + v1.sink() + ", inform:" + informs.sink() +
                              "\n"),
              std::string::npos)
        << agentLog();
}

TEST_F(AgentTraps, AnAcknowledgedInformIsDoneAndEachTrapHasOneLogLine)
{
    Trapd plain(dir, "plain", "public");
    Trapd informs(dir, "informs", "public");
    ASSERT_TRUE(plain.ready() && informs.ready());
    start({"--trap-sink", plain.sink(), "--trap-sink", "inform:" + informs.sink(),
           "--inform-timeout", "0.5"});
    failDisk();
    const std::string inform = informs.lineWith(trapOid(904));
    EXPECT_NE(inform.find("pdu=INFORM, SNMP v2c"), std::string::npos) << informs.log();
    EXPECT_NE(plain.lineWith(trapOid(904)).find("pdu=TRAP2, SNMP v2c"), std::string::npos)
        << plain.log();
    // Acknowledged: never sent again, however long one waits for a retry.
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(countOf(informs.log(), trapOid(904)), 1u) << informs.log();
    const std::string log = agentLog();
    EXPECT_EQ(log.find("not acknowledged"), std::string::npos) << log;
    EXPECT_EQ(log.find("given up"), std::string::npos) << log;
    // One line for the trap: number, event and message, object, sinks.
    const std::string line = "trap 904 arrayDiskCriticalAlert (event 2048: Physical disk ";
    ASSERT_EQ(countOf(log, line), 1u) << log;
    const std::string rest = log.substr(log.find(line) + line.size());
    const std::string tail = rest.substr(0, rest.find('\n'));
    EXPECT_TRUE(tail.ends_with(" sent to " + plain.sink() + ", inform:" + informs.sink())) << tail;
    // Disk 302 is row 3 of the array disk table, on controller 0.
    EXPECT_NE(
        tail.find(" has failed.) object 0\\0\\0\\2 row 1.3.6.1.4.1.61234.20571.1.20.130.4.1.1.3 "
                  "at \"Controller 0 (Vorn RX-240)\""),
        std::string::npos)
        << tail;
}

TEST_F(AgentTraps, AnUnreachableInformSinkIsRetriedAndGivenUpWithoutStallingAnything)
{
    Trapd live(dir, "live", "public");
    ASSERT_TRUE(live.ready());
    const std::string dead = "udp:127.0.0.1:" + std::to_string(closedUdpPort());
    start({"--trap-version", "2c-inform", "--inform-timeout", "0.4", "--inform-retries", "2",
           "--trap-sink", dead, "--trap-sink", live.sink()});
    ASSERT_FALSE(live.lineWith(kColdStartOid).empty()) << live.log() << agentLog();

    // While the dead sink's informs wait for their retries, the live sink
    // gets its inform at once and requests are answered at once.
    const auto sent = Clock::now();
    failDisk();
    const std::string inform = live.lineWith(trapOid(904), 5s);
    const auto arrived = Clock::now();
    EXPECT_NE(inform.find("pdu=INFORM"), std::string::npos) << live.log() << agentLog();
    EXPECT_LT(arrived - sent, 2500ms) << "the monitor takes events once a second";
    for (int i = 0; i < 5; i++) {
        const auto asked = Clock::now();
        const RunResult get = agent.snmp("snmpget", {std::string(kRoot) + ".3.0"});
        EXPECT_NE(get.out.find("Vorn Inc."), std::string::npos) << get.out << get.err;
        EXPECT_LT(Clock::now() - asked, 1s);
    }
    // Retried, then given up, and said so.
    const std::string retried = "trap sink " + dead +
                                ": an inform was not acknowledged within 0.4 s; sent again "
                                "(retry 1 of 2)";
    // The coldStart's inform is given up too: on a loaded machine both can
    // fall into the sink's first report.
    const std::regex givenUp("trap sink " + dead +
                             ": ([12]) traps? dropped since the last report: \\1 "
                             "informs? given up unacknowledged after 3 sends");
    EXPECT_TRUE(waitFor([&] { return std::regex_search(agentLog(), givenUp); }, 10s)) << agentLog();
    EXPECT_NE(agentLog().find(retried), std::string::npos) << agentLog();
    EXPECT_EQ(agentLog().find("trap sink " + live.sink() + ": "), std::string::npos)
        << "the live sink has nothing to report\n"
        << agentLog();
    EXPECT_EQ(countOf(live.log(), trapOid(904)), 1u) << live.log();
}

TEST_F(AgentTraps, AtAStopEveryEventIsATrapReceivedOrCountedAsDropped)
{
    Trapd live(dir, "live", "public");
    ASSERT_TRUE(live.ready());
    start({"--trap-sink", live.sink()});
    ASSERT_FALSE(live.lineWith(kColdStartOid).empty()) << live.log() << agentLog();
    // The plug-in reads twenty events a second here (KELP_TIME_SCALE=20);
    // the stop comes while it works through them.
    constexpr int kEvents = 30;
    for (int i = 0; i < kEvents; i++) {
        const RunResult event = agent.kelpctl(
            {"event", "2050", "--object", "302", "--parm", "slot" + std::to_string(i)});
        ASSERT_EQ(event.status, 0) << event.out << event.err;
    }
    ASSERT_FALSE(live.lineWith("was inserted").empty()) << live.log() << agentLog();
    EXPECT_EQ(agent.stop(), 0) << agentLog();
    // What the agent sent before it stopped has reached the receiver.
    std::this_thread::sleep_for(1s);
    const size_t received = countOf(live.log(), "was inserted");
    size_t dropped = 0;
    std::smatch match;
    const std::string log = agentLog();
    if (std::regex_search(log, match, std::regex("(\\d+) queued events? (was|were) dropped"))) {
        dropped = std::stoul(match[1]);
    }
    EXPECT_EQ(received + dropped, size_t{kEvents})
        << received << " received, " << dropped << " dropped\n"
        << log;
    EXPECT_EQ(countOf(log, " sent to " + live.sink()), received + 1) << log;
}

TEST_F(AgentTraps, TrapsASinkStillHeldAtTheStopAreCountedAndARefusedOneIsNotSent)
{
    // Nobody listens on the TCP sink: its traps wait for a connection.
    // The system refuses every datagram to port 0 at once.
    const std::string down = "tcp:127.0.0.1:" + std::to_string(freeUdpPort());
    start({"--trap-sink", down, "--trap-sink", "udp:127.0.0.1:0"});
    for (int i = 0; i < 3; i++) {
        failDisk();
    }
    ASSERT_TRUE(waitFor([&] { return countOf(agentLog(), "(event 2048") == 3; }, 10s))
        << agentLog();
    EXPECT_EQ(agent.stop(), 0) << agentLog();
    const std::string log = agentLog();
    EXPECT_EQ(countOf(log, "trap sink " + down + " at the stop: 4 traps still waiting dropped"), 1u)
        << log;
    // Every trap went to the TCP sink's queue alone.
    EXPECT_EQ(countOf(log, " sent to " + down + "\n"), 4u) << log;
    EXPECT_EQ(countOf(log, "udp:127.0.0.1:0\n"), 0u) << log;
}

TEST_F(AgentTraps, AnInformWhoseCommunityTheReceiverRefusesIsRetried)
{
    Trapd strict(dir, "strict", "alarms");
    ASSERT_TRUE(strict.ready());
    start({"--trap-sink", "inform:" + strict.sink(), "--inform-timeout", "0.2", "--inform-retries",
           "1"});
    const std::string givenUp = "trap sink inform:" + strict.sink() +
                                ": 1 trap dropped since the last report: 1 inform given up "
                                "unacknowledged after 2 sends";
    EXPECT_TRUE(waitFor([&] { return agentLog().find(givenUp) != std::string::npos; }, 10s))
        << agentLog();
    EXPECT_NE(agentLog().find("trap sink inform:" + strict.sink() +
                              ": an inform was not acknowledged within 0.2 s; sent again (retry "
                              "1 of 1)"),
              std::string::npos)
        << agentLog();
    EXPECT_EQ(strict.log().find(kColdStartOid), std::string::npos) << strict.log();
}

TEST_F(AgentTraps, AnInformSinkOverTcpIsRefusedAndTheOthersServe)
{
    Trapd live(dir, "live", "public");
    ASSERT_TRUE(live.ready());
    start({"--trap-sink", "inform:tcp:127.0.0.1:9", "--trap-sink", live.sink()});
    EXPECT_FALSE(live.lineWith(kColdStartOid).empty()) << live.log();
    EXPECT_NE(agentLog().find("trap sink inform:tcp:127.0.0.1:9 cannot be used (informs go over "
                              "UDP only); no trap goes there"),
              std::string::npos)
        << agentLog();
}

// Sinks were asked for and none can be used: coldStart is logged as going
// nowhere, as storage traps are, not left out of the log.
TEST_F(AgentTraps, AColdStartWithOnlyUnusableSinksIsLoggedAsSentNowhere)
{
    start({"--trap-sink", "inform:tcp:127.0.0.1:9"});
    EXPECT_NE(agentLog().find("trap coldStart sent nowhere\n"), std::string::npos) << agentLog();
}

// Without any --trap-sink there is no coldStart, and no line about one.
TEST_F(AgentTraps, WithoutTrapSinksNoColdStartIsLogged)
{
    start({});
    EXPECT_EQ(agentLog().find("coldStart"), std::string::npos) << agentLog();
}

} // namespace
} // namespace kelp::test
