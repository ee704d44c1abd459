// Values (value.h) into net-snmp variables; the one place that knows both.
#ifndef KELP_AGENT_SNMPVALUE_H
#define KELP_AGENT_SNMPVALUE_H

// net-snmp's configuration header comes first, in a block of its own.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <span>

#include "value.h"

namespace kelp::agent {

// Sets `var`'s type and value. False when net-snmp refuses it (no memory).
bool setVarValue(netsnmp_variable_list *var, const Value &value);

// Appends a variable named `name` holding `value` to *list. False when
// net-snmp refuses it.
bool appendVar(netsnmp_variable_list **list, std::span<const uint32_t> name, const Value &value);

} // namespace kelp::agent

#endif // KELP_AGENT_SNMPVALUE_H
