// An agent run in the test's own process (net-snmp starts once a process:
// one such test to a process).
#ifndef KELP_TESTS_AGENT_INPROCESS_AGENT_H
#define KELP_TESTS_AGENT_INPROCESS_AGENT_H

#include <string>

#include "snmpagent.h"
#include "testkit.h"

namespace kelp::agent {

// Answers community public on udp:127.0.0.1:port; its persistent files in
// <dir>/snmp.
inline AgentSettings inProcessSettings(const kelp::test::TempDir &dir, int port)
{
    AgentSettings settings;
    settings.listen = "udp:127.0.0.1:" + std::to_string(port);
    settings.community = "public";
    settings.persistentDir = dir / "snmp";
    return settings;
}

} // namespace kelp::agent

#endif // KELP_TESTS_AGENT_INPROCESS_AGENT_H
