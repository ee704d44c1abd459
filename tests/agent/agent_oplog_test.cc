// kelpagent's operator log as an operator reads it: start-up lines in words,
// one line per change made through kelpctl, per live rescan and per change
// of the AgentX connection (against a real snmpd stopped and started
// again), syslog priorities on stderr, --syslog without a syslog socket,
// DebugSNMP applied at SIGHUP and the debug file reopened at SIGUSR1.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

std::string minimalModel()
{
    return sourcePath("data/models/test/minimal.xml");
}

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// Waits until the agent's stderr holds `part`.
bool logShows(AgentUnderTest &agent, const std::string &part, std::chrono::milliseconds limit = 10s)
{
    return waitFor([&] { return has(agent.process()->err(), part); }, limit);
}

TEST(AgentOpLog, TheStartUpLinesSayInWordsWhatIsServedAndWhere)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::string log = agent.process()->err();
    EXPECT_TRUE(std::regex_search(
        log, std::regex("kelpagent: plug-in .*libkelpimp64\\.so loaded; its information answers "
                        "\\(commands 1-3\\) are 1, 0, 0\n")))
        << log;
    EXPECT_TRUE(has(log, "kelpagent: the plug-in's MIB definition registers 22 groups: 4 scalar "
                         "groups and 18 tables\n"))
        << log;
    EXPECT_TRUE(has(log, "kelpagent: serving 1.3.6.1.4.1.61234.20571.1.20 as one subtree: 17 "
                         "scalars and 24 tables (6 of them not in the definition, served all the "
                         "same: 130.17, 130.18, 140.2, 140.4, 140.5, 140.6)\n"))
        << log;
    EXPECT_TRUE(has(log, "kelpagent: answering on udp:127.0.0.1:" + std::to_string(agent.port()) +
                             ", community (SNMPv1/v2c, read-only) from any source\n"))
        << log;
    EXPECT_FALSE(has(log, "command 1:")) << log;
    EXPECT_FALSE(has(log, "status 0, answer")) << log;
    // A table the definition does not register answers all the same.
    const RunResult walk = agent.snmp("snmpwalk", {std::string(kRoot) + ".140.2"});
    EXPECT_EQ(walk.status, 0) << walk.err;
}

TEST(AgentOpLog, AListenPortAloneSaysTheAddressNetSnmpBound)
{
    TempDir dir;
    const int port = freeUdpPort();
    Process agent({kelpagentPath(), "--allow-root", "--listen", std::to_string(port), "--state-dir",
                   dir / "state", "--model", minimalModel(), "--module", modulePath()},
                  agentEnv(), dir / "out", dir / "err");
    const std::string expected = "kelpagent: answering on udp:0.0.0.0:" + std::to_string(port) +
                                 " (--listen " + std::to_string(port) + "), community";
    EXPECT_TRUE(waitFor([&] { return has(agent.err(), expected) || !agent.running(); }, 20s))
        << agent.err();
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(15s), 0);
}

TEST(AgentOpLog, EveryChangeThroughKelpctlIsOneLineAndARefusalNone)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::vector<std::pair<std::vector<std::string>, std::string>> steps = {
        {{"set", "300", "ObjStatus", "4"},
         "kelpctl set: object 300 attribute ObjStatus \"2\" -> \"4\""},
        {{"add", "--xml",
          "<object id=\"302\" type=\"arraydisks\" parent=\"20\"><Nexus>0\\0\\9"
          "</Nexus></object>"},
         "kelpctl add: added object 302; rescan events 3061, 3060 queued"},
        {{"remove", "--no-events", "302"},
         "kelpctl remove: removed object 302 and its links; no rescan events (--no-events)"},
        {{"ready", "off"}, "kelpctl ready off: the data store now reports not ready"},
        {{"ready", "on"}, "kelpctl ready on: the data store now reports ready"},
        {{"event", "2049", "--object", "300"}, "kelpctl event: queued event 2049 for object 300"},
        {{"load", minimalModel()},
         "kelpctl load: now serving the model \"" + minimalModel() +
             "\"; rescan events 3061, 3060 queued"},
    };
    for (const auto &[words, line] : steps) {
        const RunResult r = agent.kelpctl(words);
        EXPECT_EQ(r.status, 0) << words[0] << ": " << r.out << r.err;
        EXPECT_TRUE(logShows(agent, "kelpagent: " + line + "\n")) << agent.process()->err();
    }
    EXPECT_NE(agent.kelpctl({"set", "999", "Name", "x"}).status, 0);
    EXPECT_EQ(agent.kelpctl({"status"}).status, 0);
    EXPECT_EQ(agent.stop(), 0);
    const std::string log = agent.process()->err();
    EXPECT_FALSE(has(log, "object 999")) << log;
    EXPECT_FALSE(has(log, "kelpctl status")) << log;
}

TEST(AgentOpLog, ALiveRescanIsOneLineWithItsCauseAndTime)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start("", {"--live-root", sourcePath("tests/fixtures/server")}, &why)) << why;
    agent.process()->signal(SIGHUP);
    EXPECT_TRUE(waitFor(
        [&] {
            return std::regex_search(
                agent.process()->err(),
                std::regex("kelpagent: live rescan \\(asked\\): \\d+\\.\\d ms; nothing changed\n"));
        },
        10s))
        << agent.process()->err();
}

TEST(AgentOpLog, UnderJournaldEveryStderrLineCarriesItsPriority)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why, {journalStream(agent)})) << why;
    agent.process()->signal(SIGUSR1);
    EXPECT_TRUE(logShows(agent, "no debug file to reopen"));
    EXPECT_EQ(agent.stop(), 0);
    const std::string log = agent.process()->err();
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(std::regex_match(line, std::regex("<[3-7]>kelpagent: .*"))) << line;
    }
    EXPECT_TRUE(has(log, "<5>kelpagent: answering on")) << log;
    EXPECT_TRUE(has(log, "<6>kelpagent: SIGUSR1: debug printing is off; no debug file to reopen\n"))
        << log;
}

TEST(AgentOpLog, LogPrioritiesPutsThePriorityBeforeStampedLines)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {"--log-priorities"}, &why)) << why;
    EXPECT_EQ(agent.stop(), 0);
    std::istringstream lines(agent.process()->err());
    size_t seen = 0;
    for (std::string line; std::getline(lines, line); seen++) {
        EXPECT_TRUE(std::regex_match(
            line, std::regex(R"(<[3-7]>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} kelpagent: .*)")))
            << line;
    }
    EXPECT_GT(seen, 3u);
}

TEST(AgentOpLog, SyslogWithoutASyslogSocketIsAnErrorAtStart)
{
    TempDir dir;
    std::vector<std::string> env = agentEnv();
    env.push_back("KELP_SYSLOG_SOCKET=" + (dir / "no-such-socket"));
    const RunResult r =
        run({kelpagentPath(), "--allow-root", "--syslog", "--state-dir", dir / "state", "--listen",
             "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--model", minimalModel(),
             "--module", modulePath()},
            env, dir, 15s);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_TRUE(has(r.err, "--syslog: cannot reach the syslog socket " + (dir / "no-such-socket") +
                               ": No such file or directory"))
        << r.err;
    EXPECT_FALSE(has(r.err, "answering on")) << r.err;
}

TEST(AgentOpLog, AChangedDebugSnmpTakesEffectAtSighup)
{
    AgentUnderTest agent;
    const std::string ini = agent.dir() / "kelp.ini";
    writeFile(ini, "[general]\nDebugSNMP=Off\n");
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {"--ini", ini}, &why)) << why;
    const std::string debugLog = agent.stateDir() + "/debug.log";
    const std::string get = std::string(kRoot) + ".3.0";
    EXPECT_EQ(agent.snmp("snmpget", {get}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(debugLog));

    writeFile(ini, "[general]\nDebugSNMP=oN\n");
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(logShows(agent, "kelpagent: SIGHUP: DebugSNMP is \"oN\" now: debug printing on, "
                                "into " +
                                    debugLog + "\n"))
        << agent.process()->err();
    EXPECT_EQ(agent.snmp("snmpget", {get}).status, 0);
    EXPECT_TRUE(has(readFile(debugLog), "MIBImplementerGet: entry\n")) << readFile(debugLog);

    writeFile(ini, "[general]\nDebugSNMP=Off\n");
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(logShows(agent, "DebugSNMP is \"Off\" now: debug printing off\n"))
        << agent.process()->err();
    const std::string before = readFile(debugLog);
    EXPECT_EQ(agent.snmp("snmpget", {get}).status, 0);
    EXPECT_EQ(readFile(debugLog), before);
}

TEST(AgentOpLog, SigUsr1ReopensTheDebugFileSoLogrotateCanMoveIt)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {"--debug"}, &why)) << why;
    const std::string debugLog = agent.stateDir() + "/debug.log";
    const std::string rotated = debugLog + ".1";
    const std::string get = std::string(kRoot) + ".3.0";
    ASSERT_TRUE(has(readFile(debugLog), "MIBImplementerGet: entry")) << readFile(debugLog);
    std::filesystem::rename(debugLog, rotated);

    agent.process()->signal(SIGUSR1);
    ASSERT_TRUE(logShows(agent, "kelpagent: SIGUSR1: reopened the debug file " + debugLog + "\n"))
        << agent.process()->err();
    const std::string old = readFile(rotated);
    EXPECT_EQ(agent.snmp("snmpget", {get}).status, 0);
    EXPECT_TRUE(has(readFile(debugLog), "MIBImplementerGet: entry\n")) << readFile(debugLog);
    EXPECT_EQ(readFile(rotated), old) << "nothing more goes to the moved file";
    EXPECT_EQ(agent.stop(), 0);
}

// A private snmpd as AgentX master on a socket in a temp dir, that a test
// stops and starts again.
class Master {
  public:
    explicit Master(const TempDir &dir) : dir_(dir), port_(freeUdpPort()), socket_(dir / "agentx")
    {
        writeFile(dir / "snmpd.conf", "agentaddress udp:127.0.0.1:" + std::to_string(port_) +
                                          "\nmaster agentx\nagentXSocket " + socket_ +
                                          "\nagentXPerms 0600 0700\nrocommunity public "
                                          "127.0.0.1\n");
    }
    bool start()
    {
        process_ = std::make_unique<Process>(
            std::vector<std::string>{"snmpd", "-f", "-Lo", "-C", "-c", dir_ / "snmpd.conf", "-p",
                                     dir_ / "snmpd.pid", "-I", "-smux"},
            snmpEnv(dir_), dir_ / "snmpd.out", dir_ / "snmpd.err");
        return waitFor([&] { return std::filesystem::exists(socket_) || !process_->running(); },
                       20s) &&
               process_->running();
    }
    void stop()
    {
        process_->signal(SIGTERM);
        process_->wait(15s);
    }
    const std::string &socket() const { return socket_; }
    int port() const { return port_; }

  private:
    const TempDir &dir_;
    int port_;
    std::string socket_;
    std::unique_ptr<Process> process_;
};

TEST(AgentOpLog, AgentxConnectionLostAndRegainedAreOneLineEachWithTheReason)
{
    TempDir dir;
    Master master(dir);
    Process kelp({kelpagentPath(), "--allow-root", "--agentx", master.socket(), "--state-dir",
                  dir / "state", "--model", minimalModel(), "--module", modulePath()},
                 agentEnv(), dir / "kelp.out", dir / "kelp.err");
    const auto shows = [&](const std::string &part) {
        return waitFor([&] { return has(kelp.err(), part) || !kelp.running(); }, 20s) &&
               kelp.running();
    };
    const std::string at = "the master at " + master.socket();
    // No master yet: one warning with net-snmp's reason.
    ASSERT_TRUE(shows("kelpagent: AgentX: cannot connect to " + at + ": ")) << kelp.err();
    EXPECT_TRUE(std::regex_search(
        kelp.err(), std::regex("AgentX: cannot connect to .*: connect\\(.*/agentx\\): No such "
                               "file or directory; trying again every 5 s\n")))
        << kelp.err();

    ASSERT_TRUE(master.start());
    ASSERT_TRUE(shows("kelpagent: AgentX: connected to " + at + "\n")) << kelp.err();
    master.stop();
    ASSERT_TRUE(shows("kelpagent: AgentX: connection to " + at +
                      " lost: the master closed the connection; trying again every 5 s\n"))
        << kelp.err();
    ASSERT_TRUE(master.start());
    ASSERT_TRUE(waitFor(
        [&] {
            return std::regex_search(kelp.err(),
                                     std::regex("kelpagent: AgentX: connection to .* regained "
                                                "after \\d+ s; the tree is registered again\n"));
        },
        20s))
        << kelp.err();
    // Requests reach the plug-in through the master again.
    EXPECT_TRUE(waitFor(
        [&] {
            return has(
                snmp(dir, "snmpget", "2c", "public", master.port(), {std::string(kRoot) + ".3.0"})
                    .out,
                "Vorn Inc.");
        },
        10s));
    const std::string log = kelp.err();
    EXPECT_EQ(log.find("cannot connect"), log.rfind("cannot connect")) << "one warning: " << log;
    EXPECT_FALSE(has(log, "lost: \n")) << log;
    kelp.signal(SIGTERM);
    EXPECT_EQ(kelp.wait(15s), 0);
    master.stop();
}

} // namespace
} // namespace kelp::test
