// The agent's own turn of net-snmp's loop (checkAndProcess: sessions,
// watched sockets, alarms, time-outs), run in tests until a condition holds.
// Tests only.
#ifndef KELP_AGENT_TESTING_NETSNMP_LOOP_H
#define KELP_AGENT_TESTING_NETSNMP_LOOP_H

#include <unistd.h>

#include <chrono>

#include "fairness.h"

namespace kelp::test {

// Turns the loop without blocking, a millisecond apart, until `done` holds
// or `period` has passed; answers done().
template <typename Done> bool turnAgentLoopUntil(std::chrono::milliseconds period, Done done)
{
    const auto end = std::chrono::steady_clock::now() + period;
    while (!done() && std::chrono::steady_clock::now() < end) {
        kelp::agent::checkAndProcess(false);
        usleep(1000);
    }
    return done();
}

} // namespace kelp::test

#endif // KELP_AGENT_TESTING_NETSNMP_LOOP_H
