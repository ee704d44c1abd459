// Requests refused for their community, logged so that a user can see why a
// manager gets no answer: one line per source address at most once a minute
// (KELP_TIME_SCALE runs that clock fast), whatever the rate of requests.
#ifndef KELP_AGENT_REFUSALS_H
#define KELP_AGENT_REFUSALS_H

namespace kelp::agent {

// From now on, a v1 or v2c request whose community the access control does
// not know is logged (a warning naming the source and the community). Call
// after init_snmp, from the agent's thread; once per process.
void logRefusedCommunities();

} // namespace kelp::agent

#endif // KELP_AGENT_REFUSALS_H
