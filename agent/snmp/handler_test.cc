// The request path in an agent of its own: net-snmp in this process, the
// plug-in's dispatch replaced by one that runs out of memory, and net-snmp's
// tools as the manager. A request the agent has no memory for is answered
// genErr, and the agent goes on answering.
#include "snmp/handler.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "snmp/tree.h"
#include "snmpagent.h"

namespace kelp::agent {
namespace {

// A UDP port on 127.0.0.1 that was free a moment ago.
int freePort()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        return -1;
    }
    close(fd);
    return ntohs(address.sin_port);
}

// What `command` prints on stdout and stderr.
std::string output(const std::string &command)
{
    std::string out;
    if (FILE *pipe = popen((command + " 2>&1").c_str(), "r")) {
        char buffer[512];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
            out.append(buffer, n);
        }
        pclose(pipe);
    }
    return out;
}

std::string rootText()
{
    std::string text;
    for (const auto arc : kMibRoot) {
        text += (text.empty() ? "" : ".") + std::to_string(arc);
    }
    return text;
}

TEST(RequestPathShortOfMemory, EveryRequestIsAnsweredGenErrAndTheAgentGoesOn)
{
    char stateDir[] = "/tmp/kelp-handler-XXXXXX";
    ASSERT_NE(mkdtemp(stateDir), nullptr);
    const int port = freePort();
    ASSERT_GT(port, 0);
    AgentSettings settings;
    settings.listen = "udp:127.0.0.1:" + std::to_string(port);
    settings.community = "public";
    settings.persistentDir = std::string(stateDir) + "/snmp";

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

    const std::string target = "-v2c -c public -t 3 -r 0 127.0.0.1:" + std::to_string(port);
    const std::string cell = rootText() + ".130.1.1.2.1";
    std::vector<std::string> answers;
    std::thread manager([&] {
        answers.push_back(output("snmpget -On " + target + " " + cell));
        answers.push_back(output("snmpgetnext -On " + target + " " + rootText()));
        answers.push_back(output("snmpbulkget -On -Cr5 " + target + " " + rootText()));
        answers.push_back(output("snmpset -On " + target + " " + cell + " i 1"));
        // Still answering: the system group comes from net-snmp.
        answers.push_back(output("snmpget -On " + target + " 1.3.6.1.2.1.1.3.0"));
        kill(getpid(), SIGTERM);
    });
    agent.run([&] { path.completeDelegated(); }, [] {});
    manager.join();
    path.stop();
    agent.shutdown();
    std::system((std::string("rm -rf ") + stateDir).c_str());

    ASSERT_EQ(answers.size(), 5u);
    for (size_t i = 0; i < 4; i++) {
        EXPECT_NE(answers[i].find("genError"), std::string::npos) << answers[i];
    }
    EXPECT_NE(answers[4].find("Timeticks"), std::string::npos) << answers[4];
    EXPECT_GE(calls, 4);
}

} // namespace
} // namespace kelp::agent
