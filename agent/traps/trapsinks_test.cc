// The trap sinks on net-snmp's loop (their watched sockets and alarms) as
// the agent turns it (checkAndProcess): an event of a sink that runs out of
// memory stays out of the library, and the sink goes on once memory is back.
#include "traps/trapsinks.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log.h"
#include "testing/failing_new.h"
#include "testing/loopback_sockets.h"
#include "testing/netsnmp_loop.h"
#include "traps/trapmessage.h"

namespace kelp::agent {
namespace {

using namespace std::chrono_literals;

using kelp::test::closedPort;
using kelp::test::listener;

using kelp::test::turnAgentLoopUntil;

TEST(TrapSinksOnTheLoop, AnEventOutOfMemoryStaysOutOfNetsnmpAndTheSinkGoesOnAfterIt)
{
    ASSERT_TRUE(logOpen(LogSink::kStderrStamped, LogLevel::kInfo));
    const int port = closedPort();
    ASSERT_GT(port, 0);
    const std::string name = "tcp:127.0.0.1:" + std::to_string(port);
    TrapSinkSettings settings;
    settings.addresses = {name};
    settings.community = "public";
    testing::internal::CaptureStderr();
    TrapSinks sinks(settings);
    ASSERT_EQ(sinks.count(), 1u);
    // Refused: the next attempt is an alarm a second away.
    turnAgentLoopUntil(200ms, [] { return false; });

    // That attempt is refused again, and the first thing it allocates (the
    // reason it logs) fails.
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failNthAllocation(1);
    EXPECT_NO_THROW(turnAgentLoopUntil(1500ms, [&] {
        return kelp::test::failedAllocations() > failedBefore;
    })) << "an exception unwound out of net-snmp's run_alarms";
    kelp::test::failNthAllocation(0);
    EXPECT_EQ(kelp::test::failedAllocations(), failedBefore + 1);

    // The receiver comes up; the trap sent meanwhile waits in the queue and
    // arrives on the attempt a second after the shortage.
    const int server = listener(port);
    ASSERT_GE(server, 0);
    std::vector<std::string> took;
    EXPECT_EQ(sinks.send(coldStartTrap(), &took), SM_SNMP_NOERROR);
    EXPECT_EQ(took, std::vector<std::string>{name});
    int accepted = -1;
    ASSERT_TRUE(turnAgentLoopUntil(3000ms, [&] {
        pollfd entry{server, POLLIN, 0};
        if (accepted < 0 && poll(&entry, 1, 0) == 1) {
            accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
        }
        pollfd data{accepted, POLLIN, 0};
        return accepted >= 0 && poll(&data, 1, 0) == 1;
    })) << "the sink did not connect again";
    char bytes[512];
    EXPECT_GT(recv(accepted, bytes, sizeof bytes, 0), 0);
    close(accepted);
    close(server);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("trap sink " + name +
                       ": out of memory; its traps wait in its queue, next attempt in 1 s"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("trap sink " + name + ": going on after the shortage of memory"),
              std::string::npos)
        << log;
}

} // namespace
} // namespace kelp::agent
