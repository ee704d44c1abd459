// The one net-snmp handler that serves the whole plug-in tree.
#ifndef KELP_AGENT_HANDLER_H
#define KELP_AGENT_HANDLER_H

#include <string>

#include "answer.h"

namespace kelp::agent {

// Registers kMibRoot as one read-only subtree whose Get and GetNext go
// through `dispatch` (answer.h) and whose Set is refused with notWritable.
// `dispatch` must stay valid while net-snmp may call the handler, that is
// until snmp_shutdown. Call after init_agent. False with a message when
// net-snmp refuses the registration.
bool registerMibRoot(const Dispatch *dispatch, std::string *error);

} // namespace kelp::agent

#endif // KELP_AGENT_HANDLER_H
