// One source flooding kelpagent beside polite managers: the flooder's excess
// is dropped (and logged, rate-limited), the polite managers' requests are
// all answered within their usual retries, and a single busy manager alone
// is not held back. Counts are checked, never speeds: the tests run on
// loaded machines and under sanitizers (bench/agent_flood.sh measures the
// latencies).
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "snmpload.h"
#include "testkit.h"

namespace kelp::test {
namespace {

const std::string kVendor = std::string(kRoot) + ".3.0";

// A Get every 20 ms, each waiting 500 ms for its answer and sent again up to
// three times: net-snmp's tools wait 1 s and try six times in all.
PoliteRun politeManager(int port, int count)
{
    return politeGets("127.0.0.1", port, "public", kVendor, count, 20ms, 500ms, 3);
}

// The agent asks for a receive buffer of 4 MiB, which holds what arrives
// while its reading thread waits for a processor on a loaded machine; the
// kernel grants it to root, or up to net.core.rmem_max.
bool agentGetsItsReceiveBuffer()
{
    return geteuid() == 0 || std::stol("0" + readFile("/proc/sys/net/core/rmem_max")) >= 4 << 20;
}

TEST(AgentFlood, APoliteManagerIsAnsweredWhileAnotherSourceFloods)
{
    if (!agentGetsItsReceiveBuffer()) {
        GTEST_SKIP() << "net.core.rmem_max is below 4 MiB and this is not root";
    }
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    KELP_REQUIRE_MODULE_VALUES(agent);

    // Several times as many requests as the agent answers (a few thousand
    // a second, fewer under sanitizers), yet leaving the agent a processor
    // on a small loaded machine: its socket overflows without turns.
    Flooder flooder("127.0.0.2", agent.port(), "public", 20000);
    ASSERT_TRUE(flooder.ok()) << "cannot send from 127.0.0.2";
    ASSERT_TRUE(waitFor([&] { return flooder.sent() > 4000; }, 10s)) << flooder.sent();
    const PoliteRun polite = politeManager(agent.port(), 20);
    const uint64_t flooded = flooder.sent();
    flooder.stop();

    EXPECT_EQ(polite.requests, 20);
    EXPECT_EQ(polite.answered, polite.requests)
        << "retries " << polite.retries << ", worst " << polite.max() << " ms, while " << flooded
        << " requests flooded in";
    // The flooder lost its excess, and that was logged once: by its address
    // alone, never the polite manager's.
    const std::string log = agent.process()->err();
    EXPECT_EQ(countOf(log, "dropping requests from 127.0.0.2:"), 1u) << log;
    EXPECT_EQ(countOf(log, "dropping requests from 127.0.0.1:"), 0u) << log;
    EXPECT_EQ(countOf(log, "public"), 0u) << log;
    // The agent still answers once the flood is over.
    EXPECT_EQ(politeManager(agent.port(), 3).answered, 3);
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentFlood, ABusyManagerAloneIsAnsweredInFull)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    // 200 Gets sent at once from one source, then their answers read: the
    // agent holds them all and drops none, there being nobody to share with.
    const int fd = udpSocketTo(agent.port());
    ASSERT_GE(fd, 0);
    const int buffer = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    constexpr int kBurst = 200;
    for (int id = 1; id <= kBurst; id++) {
        const Bytes request = v2cRequest(0xA0, id, "public", kVendor);
        ASSERT_GT(send(fd, request.data(), request.size(), 0), 0) << id;
    }
    std::set<int32_t> answered;
    pollfd ready{fd, POLLIN, 0};
    while (answered.size() < size_t(kBurst) && poll(&ready, 1, 5000) > 0) {
        uint8_t answer[65536];
        const ssize_t size = recv(fd, answer, sizeof answer, 0);
        if (const auto id = responseId(answer, size > 0 ? size_t(size) : 0)) {
            answered.insert(*id);
        }
    }
    close(fd);
    EXPECT_EQ(answered.size(), size_t(kBurst));
    EXPECT_EQ(countOf(agent.process()->err(), "dropping requests"), 0u) << agent.process()->err();
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentFlood, ASourceAloneOverTheLimitIsToldSoNotBlamedForOthers)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {"--max-waiting", "2"}, &why))
        << why;
    const int fd = udpSocketTo(agent.port());
    ASSERT_GE(fd, 0);
    // 100 Gets wait in the socket while the agent is stopped; its reading
    // thread then takes them at once, far faster than they are answered,
    // and only two may wait.
    agent.process()->signal(SIGSTOP);
    for (int id = 1; id <= 100; id++) {
        const Bytes request = v2cRequest(0xA0, id, "public", kVendor);
        ASSERT_GT(send(fd, request.data(), request.size(), 0), 0) << id;
    }
    agent.process()->signal(SIGCONT);
    EXPECT_TRUE(waitFor(
        [&] { return agent.process()->err().find("dropping requests") != std::string::npos; }, 10s))
        << agent.process()->err();
    close(fd);
    const std::string log = agent.process()->err();
    EXPECT_EQ(countOf(log, "dropping requests from 127.0.0.1: it sends more than the agent holds "
                           "waiting (--max-waiting 2; logged once a minute per source)"),
              1u)
        << log;
    // Nobody else waited.
    EXPECT_EQ(countOf(log, "while other sources wait"), 0u) << log;
    EXPECT_EQ(agent.stop(), 0);
}

} // namespace
} // namespace kelp::test
