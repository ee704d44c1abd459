// The agent's own log lines: "kelpagent: ..." on stderr, whole lines, from
// any thread. net-snmp's lines go to stderr as well (snmp_enable_stderrlog).
#ifndef KELP_AGENT_LOG_H
#define KELP_AGENT_LOG_H

namespace kelp::agent {

// printf-style; a line feed is added.
void logLine(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace kelp::agent

#endif // KELP_AGENT_LOG_H
