// Trap receivers that misbehave never hold up the agent: a TCP receiver that
// accepts and never reads, one whose connection never completes, one that
// refuses. Each gets thousands of traps (storage events queued on the
// control socket, the monitor's clock run fast), and so does an inform
// receiver that never acknowledges, while a Get of sysUpTime and
// of a storage object is measured request by request, and a healthy UDP
// receiver beside them still gets its traps. Also: a refused TCP sink gets
// the traps that waited once its receiver comes up, and the messages carry
// what net-snmp's own sinks put in them.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kTrapPrefix = ".1.3.6.1.4.1.61234.20571.1.20.200";

// The snmpTrapOID binding of a v2c notification of specific number `n`.
std::string trapOid(int n)
{
    return ".1.3.6.1.6.3.1.1.4.1.0 = OID: " + std::string(kTrapPrefix) + ".0." + std::to_string(n);
}

// Queues `count` events of a failed disk with the longest insert the
// plug-in reads (a larger trap), as fast as the control socket takes them.
void queueBurst(const AgentUnderTest &agent, int count)
{
    const std::string insert(159, 'x');
    for (int i = 0; i < count; i++) {
        const std::string answer =
            agent.control({"event", "2048", "--object", "302", "--parm", insert});
        ASSERT_TRUE(answer.ends_with("ok\n")) << i << ": " << answer;
    }
}

bool eventsQueued(const AgentUnderTest &agent)
{
    return agent.control({"status"}).find("events queued: 0\n") == std::string::npos;
}

// Gets over net-snmp's library, each timed on its own: one request, no
// retry, a second to answer.
class TimedGets {
  public:
    explicit TimedGets(int port)
    {
        netsnmp_session settings;
        snmp_sess_init(&settings);
        peer_ = "udp:127.0.0.1:" + std::to_string(port);
        settings.peername = peer_.data();
        settings.version = SNMP_VERSION_2c;
        settings.community = reinterpret_cast<u_char *>(community_.data());
        settings.community_len = community_.size();
        settings.timeout = 1000000;
        settings.retries = 0;
        session_ = snmp_sess_open(&settings);
    }
    ~TimedGets()
    {
        if (session_ != nullptr) {
            snmp_sess_close(session_);
        }
    }
    TimedGets(const TimedGets &) = delete;
    TimedGets &operator=(const TimedGets &) = delete;

    bool ready() const { return session_ != nullptr; }

    // One Get of `name`; true when a value came back (not an error, not a
    // no-such), with its time recorded.
    bool get(const std::vector<oid> &name)
    {
        netsnmp_pdu *request = snmp_pdu_create(SNMP_MSG_GET);
        snmp_add_null_var(request, name.data(), name.size());
        netsnmp_pdu *response = nullptr;
        const auto start = Clock::now();
        const int status = snmp_sess_synch_response(session_, request, &response);
        const auto took = std::chrono::duration<double, std::milli>(Clock::now() - start);
        const bool answered = status == STAT_SUCCESS && response != nullptr &&
                              response->errstat == SNMP_ERR_NOERROR &&
                              response->variables != nullptr &&
                              response->variables->type != SNMP_NOSUCHOBJECT &&
                              response->variables->type != SNMP_NOSUCHINSTANCE;
        if (response != nullptr) {
            snmp_free_pdu(response);
        }
        if (answered) {
            millis_.push_back(took.count());
        } else {
            failures_++;
        }
        return answered;
    }

    size_t answered() const { return millis_.size(); }
    int failures() const { return failures_; }
    double slowest() const
    {
        return millis_.empty() ? 0 : *std::max_element(millis_.begin(), millis_.end());
    }
    double median() const
    {
        std::vector<double> sorted = millis_;
        std::sort(sorted.begin(), sorted.end());
        return sorted.empty() ? 0 : sorted[sorted.size() / 2];
    }

  private:
    std::string peer_;
    std::string community_ = "public";
    void *session_ = nullptr;
    std::vector<double> millis_;
    int failures_ = 0;
};

const std::vector<oid> kSysUpTime{1, 3, 6, 1, 2, 1, 1, 3, 0};
// The storage MIB's vendor scalar, answered by the plug-in.
const std::vector<oid> kVendor{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 3, 0};

// A loopback socket of `type` bound to a free port, with its port.
int boundSocket(int type, int *port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        *port = 0;
        return fd;
    }
    *port = ntohs(address.sin_port);
    return fd;
}

class TrapSinkStall : public ::testing::Test {
  protected:
    void TearDown() override
    {
        // Stopping cleanly, queues and sockets released (the sanitizer pass
        // checks the exit).
        if (agent.process() != nullptr && agent.process()->running()) {
            EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
        }
        for (const int fd : held) {
            close(fd);
        }
    }

    // The agent with `sinks` and the healthy receiver's sink after them, its
    // monitor taking events thousands of times faster than a second apart.
    // The periodic rebuild of the tables is put off past the test: the
    // plug-in builds a trap's row name from the tables without the data
    // lock, which a rebuild every tenth of a second would race.
    void start(const std::vector<std::string> &sinks)
    {
        ASSERT_TRUE(healthy.ready());
        writeFile(dir / "kelp.ini", "[general]\nSNMPRefreshMinutes=100000\n");
        std::vector<std::string> args{"--ini", dir / "kelp.ini"};
        for (const std::string &sink : sinks) {
            args.insert(args.end(), {"--trap-sink", sink});
        }
        args.insert(args.end(), {"--trap-sink", healthy.sink()});
        std::string why;
        started = Clock::now();
        ASSERT_TRUE(
            agent.start(sourcePath("data/models/sample.xml"), args, &why, {"KELP_TIME_SCALE=3000"}))
            << why;
    }

    // Queues `count` events and times Gets of sysUpTime and of a storage
    // object, one after the other, until the monitor has taken every event,
    // and a second longer. `between` runs between requests.
    void burstWhileMeasuring(
        int count, const std::function<void()> &between = [] {})
    {
        queueBurst(agent, count);
        TimedGets gets(agent.port());
        ASSERT_TRUE(gets.ready());
        const auto limit = Clock::now() + 120s;
        std::optional<Clock::time_point> drained;
        int consecutiveFailures = 0;
        for (int round = 0; Clock::now() < limit; round++) {
            const bool uptime = gets.get(kSysUpTime);
            const bool vendor = gets.get(kVendor);
            consecutiveFailures = uptime && vendor ? 0 : consecutiveFailures + 1;
            // A stalled agent answers nothing more: no need to wait it out.
            if (consecutiveFailures >= 3) {
                break;
            }
            between();
            if (!drained && round % 10 == 0 && !eventsQueued(agent)) {
                drained = Clock::now();
            }
            if (drained && Clock::now() - *drained > 1s) {
                break;
            }
            std::this_thread::sleep_for(20ms);
        }
        EXPECT_TRUE(drained.has_value()) << "the monitor never got through the events";
        EXPECT_EQ(gets.failures(), 0) << "requests went unanswered within a second\n"
                                      << agent.process()->err();
        EXPECT_GT(gets.answered(), 20u);
        // Generous bounds: a loaded machine may delay a request now and then.
        EXPECT_LT(gets.median(), 100.0) << "ms";
        EXPECT_LT(gets.slowest(), 1000.0) << "ms";
        std::cout << "[          ] " << gets.answered() << " Gets, median " << gets.median()
                  << " ms, slowest " << gets.slowest() << " ms\n";
    }

    // The healthy receiver got traps of the burst, and still gets a trap
    // sent after it (a warning on another disk: trap 903).
    void expectHealthySinkServed()
    {
        EXPECT_GT(countOf(healthy.log(), trapOid(904)), 0u) << "no trap of the burst arrived";
        // snmptrapd may have lost datagrams of the burst; one sent now, and
        // again until one arrives, shows the sink still works.
        bool arrived = false;
        for (int attempt = 0; attempt < 15 && !arrived; attempt++) {
            ASSERT_TRUE(agent.control({"event", "2049", "--object", "303"}).ends_with("ok\n"));
            arrived =
                waitFor([&] { return healthy.log().find(trapOid(903)) != std::string::npos; }, 2s);
        }
        EXPECT_TRUE(arrived) << agent.process()->err();
    }

    // The first drop of `sink` was logged at once, and then at most one line
    // a minute.
    void expectDropsReported(const std::string &sink)
    {
        const std::string log = agent.process()->err();
        EXPECT_NE(log.find("trap sink " + sink +
                           ": 1 trap dropped since the last report: 1 with the queue full "
                           "(1000 traps or 1048576 bytes waiting)"),
                  std::string::npos)
            << log;
        size_t lines = 0;
        std::istringstream text(log);
        for (std::string line; std::getline(text, line);) {
            lines += line.find("trap sink " + sink + ": ") != std::string::npos &&
                     line.find(" dropped since the last report: ") != std::string::npos;
        }
        const auto minutes =
            std::chrono::duration_cast<std::chrono::minutes>(Clock::now() - started);
        EXPECT_LE(lines, 1 + static_cast<size_t>(minutes.count())) << log;
    }

    TempDir dir;
    TrapReceiver healthy{dir};
    AgentUnderTest agent;
    std::vector<int> held; // sockets the test keeps open
    Clock::time_point started;
};

TEST_F(TrapSinkStall, ATcpReceiverThatNeverReadsStallsNothing)
{
    int port = 0;
    const int server = boundSocket(SOCK_STREAM, &port);
    // A tiny receive window: the agent's side fills after a few traps.
    const int small = 1024;
    setsockopt(server, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_EQ(listen(server, 4), 0);
    held.push_back(server);
    const std::string sink = "tcp:127.0.0.1:" + std::to_string(port);
    start({sink});
    burstWhileMeasuring(5000, [&] {
        // Accepts, never reads.
        const int accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (accepted >= 0) {
            held.push_back(accepted);
        }
    });
    EXPECT_GT(held.size(), 1u) << "the agent never connected";
    expectHealthySinkServed();
    expectDropsReported(sink);
}

TEST_F(TrapSinkStall, AReceiverThatNeverAnswersStallsNothing)
{
    // A listener whose backlog is full: no further connection completes.
    int port = 0;
    const int server = boundSocket(SOCK_STREAM, &port);
    ASSERT_EQ(listen(server, 0), 0);
    held.push_back(server);
    int ignored = 0;
    const int filler = boundSocket(SOCK_STREAM, &ignored);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    connect(filler, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    held.push_back(filler);
    pollfd entry{filler, POLLOUT, 0};
    ASSERT_EQ(poll(&entry, 1, 5000), 1);
    // And a UDP port nobody reads.
    int udpPort = 0;
    held.push_back(boundSocket(SOCK_DGRAM, &udpPort));

    const std::string sink = "tcp:127.0.0.1:" + std::to_string(port);
    start({sink, "udp:127.0.0.1:" + std::to_string(udpPort)});
    burstWhileMeasuring(2000);
    expectHealthySinkServed();
    expectDropsReported(sink);
}

TEST_F(TrapSinkStall, AnInformReceiverThatNeverAnswersStallsNothing)
{
    // A UDP port that takes the informs and never acknowledges one: every
    // inform waits out its retries while the burst fills the sink's queue.
    int port = 0;
    held.push_back(boundSocket(SOCK_DGRAM, &port));
    const std::string sink = "inform:udp:127.0.0.1:" + std::to_string(port);
    start({sink});
    burstWhileMeasuring(2000);
    expectHealthySinkServed();
    expectDropsReported(sink);
    EXPECT_NE(agent.process()->err().find("trap sink " + sink +
                                          ": an inform was not acknowledged within 1 s; sent "
                                          "again (retry 1 of 5)"),
              std::string::npos)
        << agent.process()->err();
}

TEST_F(TrapSinkStall, AReceiverThatRefusesStallsNothing)
{
    int port = 0;
    close(boundSocket(SOCK_STREAM, &port));
    const std::string sink = "tcp:127.0.0.1:" + std::to_string(port);
    start({sink});
    burstWhileMeasuring(2000);
    expectHealthySinkServed();
    const std::string log = agent.process()->err();
    EXPECT_NE(log.find("trap sink " + sink +
                       ": cannot connect (Connection refused); its traps wait in its queue, "
                       "next attempt in 1 s"),
              std::string::npos)
        << log;
    EXPECT_EQ(countOf(log, "cannot connect (Connection refused)"), 1u)
        << "the retries after the first refusal are not logged\n"
        << log;
    expectDropsReported(sink);
}

TEST_F(TrapSinkStall, ARefusedTcpSinkGetsTheTrapsThatWaitedOnceItsReceiverIsUp)
{
    int port = 0;
    close(boundSocket(SOCK_STREAM, &port));
    const std::string sink = "tcp:127.0.0.1:" + std::to_string(port);
    start({sink});
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(agent.control({"event", "2048", "--object", "302"}).ends_with("ok\n"));
    }
    ASSERT_TRUE(waitFor([&] { return countOf(healthy.log(), trapOid(904)) == 3; }, 20s))
        << healthy.log();

    // snmptrapd over TCP, on the port that refused until now.
    writeFile(dir / "tcptrapd.conf", "disableAuthorization yes\n");
    Process trapd({"snmptrapd", "-f", "-Lf", dir / "tcptraps.log", "-On", "-C", "-c",
                   dir / "tcptrapd.conf", "-F", "v=%s gen=%w specific=%q vbs=%v\n", sink},
                  snmpEnv(dir), dir / "tcptrapd.out", dir / "tcptrapd.err");
    // coldStart and the three traps, each a whole message, in order.
    EXPECT_TRUE(
        waitFor([&] { return countOf(readFile(dir / "tcptraps.log"), trapOid(904)) == 3; }, 90s))
        << readFile(dir / "tcptraps.log") << trapd.err() << agent.process()->err();
    const std::string log = readFile(dir / "tcptraps.log");
    EXPECT_LT(log.find(".1.3.6.1.6.3.1.1.5.1"), log.find(trapOid(904))) << log;
    EXPECT_NE(agent.process()->err().find("trap sink " + sink + ": connected, 4 traps waiting"),
              std::string::npos)
        << agent.process()->err();
    trapd.signal(SIGTERM);
    trapd.wait(15s);
}

TEST_F(TrapSinkStall, AV2cNotificationCarriesUptimeFirstAndTheEnterpriseLast)
{
    start({});
    ASSERT_TRUE(agent.control({"event", "2048", "--object", "302"}).ends_with("ok\n"));
    std::string line;
    ASSERT_TRUE(waitFor(
        [&] {
            std::istringstream lines(healthy.log());
            for (std::string one; std::getline(lines, one);) {
                if (one.find(trapOid(904)) != std::string::npos) {
                    line = one;
                }
            }
            return !line.empty();
        },
        20s))
        << healthy.log();
    EXPECT_NE(line.find("vbs=.1.3.6.1.2.1.1.3.0 = Timeticks: "), std::string::npos) << line;
    EXPECT_TRUE(line.ends_with("\t.1.3.6.1.6.3.1.1.4.3.0 = OID: " + std::string(kTrapPrefix)))
        << line;
    // coldStart names kelp's trap enterprise, as the storage traps do.
    EXPECT_NE(healthy.log().find(".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.6.3.1.1.5.1\t"
                                 ".1.3.6.1.6.3.1.1.4.3.0 = OID: " +
                                 std::string(kTrapPrefix) + "\n"),
              std::string::npos)
        << healthy.log();
}

TEST_F(TrapSinkStall, AV1TrapCarriesTheAgentAddressNetSnmpChooses)
{
    TempDir v1dir;
    const int port = freeUdpPort();
    writeFile(v1dir / "snmptrapd.conf", "disableAuthorization yes\n");
    Process trapd({"snmptrapd", "-f", "-Lf", v1dir / "traps.log", "-On", "-C", "-c",
                   v1dir / "snmptrapd.conf", "-F", "v=%s addr=%a gen=%w specific=%q\n",
                   "udp:127.0.0.1:" + std::to_string(port)},
                  snmpEnv(v1dir), v1dir / "trapd.out", v1dir / "trapd.err");
    ASSERT_TRUE(waitFor(
        [&] { return readFile(v1dir / "traps.log").find("NET-SNMP version") != std::string::npos; },
        20s));
    std::string why;
    ASSERT_TRUE(
        agent.start(sourcePath("data/models/sample.xml"),
                    {"--trap-sink", "udp:127.0.0.1:" + std::to_string(port), "--trap-version", "1"},
                    &why, {"KELP_TIME_SCALE=20"}))
        << why;
    ASSERT_TRUE(agent.control({"event", "2048", "--object", "302"}).ends_with("ok\n"));
    ASSERT_TRUE(waitFor(
        [&] { return readFile(v1dir / "traps.log").find("specific=.904") != std::string::npos; },
        20s))
        << readFile(v1dir / "traps.log");
    in_addr mine{};
    mine.s_addr = get_myaddr();
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &mine, text, sizeof text);
    const std::string log = readFile(v1dir / "traps.log");
    EXPECT_NE(log.find(std::string("v=0 addr=") + text + " gen=6 specific=.904"), std::string::npos)
        << log;
    EXPECT_NE(log.find(std::string("v=0 addr=") + text + " gen=0 "), std::string::npos)
        << "coldStart\n"
        << log;
    trapd.signal(SIGTERM);
    trapd.wait(15s);
}

} // namespace
} // namespace kelp::test
