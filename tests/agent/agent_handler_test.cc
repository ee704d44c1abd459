// The request path in an agent of its own: net-snmp in this process, the
// plug-in's dispatch replaced by one that runs out of memory, and net-snmp's
// tools as the manager. A request the agent has no memory for is answered
// genErr, and the agent goes on answering.
// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <signal.h>
#include <unistd.h>

#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "inprocess_agent.h"
#include "snmp/handler.h"
#include "snmp/tree.h"
#include "snmpagent.h"
#include "testkit.h"

namespace kelp::agent {
namespace {

using kelp::test::RunResult;

TEST(RequestPathShortOfMemory, EveryRequestIsAnsweredGenErrAndTheAgentGoesOn)
{
    const kelp::test::TempDir dir;
    const int port = kelp::test::freeUdpPort();
    ASSERT_GT(port, 0);
    const AgentSettings settings = inProcessSettings(dir, port);

    SnmpAgent::catchStopSignals();
    SnmpAgent agent;
    std::string error;
    ASSERT_TRUE(agent.init(settings, &error)) << error;
    int calls = 0;
    RequestPath path(
        [&calls](uint32_t, void *, uint32_t, void *, uint32_t, uint32_t *) -> uint32_t {
            calls++;
            throw std::bad_alloc();
        },
        RequestSettings{}, [] { SnmpAgent::wake(); });
    ASSERT_TRUE(path.registerRoot(&error)) << error;
    ASSERT_TRUE(agent.open(&error)) << error;
    // The agent reads no MIB module, and names no directory to look for
    // them in: net-snmp then never makes its default list, which it
    // cannot do without memory (it copies a null pointer and crashes).
    EXPECT_STREQ(netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIBDIRS), "");

    const std::string root = kelp::test::kRoot;
    const std::string cell = root + ".130.1.1.2.1";
    std::vector<RunResult> answers;
    std::thread manager([&] {
        const auto ask = [&](const std::string &tool, const std::vector<std::string> &args) {
            answers.push_back(kelp::test::snmp(dir, tool, "2c", "public", port, args));
        };
        ask("snmpget", {cell});
        ask("snmpgetnext", {root});
        ask("snmpbulkget", {"-Cr5", root});
        ask("snmpset", {cell, "i", "1"});
        // Still answering: the system group comes from net-snmp.
        ask("snmpget", {"1.3.6.1.2.1.1.3.0"});
        kill(getpid(), SIGTERM);
    });
    agent.run([&] { path.completeDelegated(); }, [] {});
    manager.join();
    path.stop();
    agent.shutdown();

    ASSERT_EQ(answers.size(), 5u);
    for (size_t i = 0; i < 4; i++) {
        EXPECT_NE((answers[i].out + answers[i].err).find("genError"), std::string::npos)
            << answers[i].out << answers[i].err;
    }
    EXPECT_NE(answers[4].out.find("Timeticks"), std::string::npos) << answers[4].err;
    EXPECT_GE(calls, 4);
}

} // namespace
} // namespace kelp::agent
