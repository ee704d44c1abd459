// The agent's signals in an agent of its own (net-snmp in the test's
// process; one test to a process, as net-snmp starts once).
// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "inprocess_agent.h"
#include "snmpagent.h"
#include "testkit.h"

namespace kelp::agent {
namespace {

// A SIGHUP that comes while the agent starts, before its wake-up pipe
// exists, is acted on at the first turn of the loop, not at the first
// request: an idle agent may get none.
TEST(AgentSignals, ASighupDuringTheStartReloadsWithoutWaitingForARequest)
{
    const kelp::test::TempDir dir;
    const int port = kelp::test::freeUdpPort();
    ASSERT_GT(port, 0);
    const AgentSettings settings = inProcessSettings(dir, port);

    SnmpAgent::catchStopSignals();
    ASSERT_EQ(raise(SIGHUP), 0);
    SnmpAgent agent;
    std::string error;
    ASSERT_TRUE(agent.init(settings, &error)) << error;
    ASSERT_TRUE(agent.open(&error)) << error;
    // Ends the loop should the reload never come: no request is sent.
    std::atomic<bool> reloaded{false};
    std::atomic<bool> ended{false};
    std::thread watchdog([&] {
        for (int i = 0; i < 100 && !ended; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (!ended) {
            kill(getpid(), SIGTERM);
        }
    });
    agent.run([] {},
              [&] {
                  reloaded = true;
                  kill(getpid(), SIGTERM);
              });
    ended = true;
    watchdog.join();
    agent.shutdown();
    EXPECT_TRUE(reloaded) << "the SIGHUP waited for a request";
}

} // namespace
} // namespace kelp::agent
