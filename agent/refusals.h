// Who may query, enforced and logged after net-snmp's access control: a
// request from a source outside --allow is refused (any version), and a
// refused request is logged so that a user can see why a manager gets no
// answer, one line per source address at most once a minute
// (KELP_TIME_SCALE runs that clock fast), whatever the rate of requests.
// The log names the source, the version and the reason, never the
// community the request carried.
#ifndef KELP_AGENT_REFUSALS_H
#define KELP_AGENT_REFUSALS_H

#include <vector>

#include "access.h"

namespace kelp::agent {

// From now on, a request from a source no network of `allow` holds is
// refused (an empty list allows every source): SNMPv1 and v2c requests
// are dropped, SNMPv3 ones answered with authorizationError, as net-snmp
// does for requests its access control refuses. Such requests, and
// SNMPv1/v2c requests whose community the access control does not know,
// are logged as warnings. `communities`: the agent answers SNMPv1/v2c
// (its log line names a wrong community; otherwise that those versions are
// not answered). Call after init_snmp, from the agent's thread; once per
// process.
void watchAccess(const std::vector<Network> &allow, bool communities = true);

} // namespace kelp::agent

#endif // KELP_AGENT_REFUSALS_H
