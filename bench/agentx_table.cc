// agentx_table: the smallest AgentX subagent net-snmp allows, for comparing
// walks through a master agent. It serves one table of ROWS rows and COLUMNS
// INTEGER columns under 1.3.6.1.4.1.61234.99.1 (entries .1.C.R, the value of
// a cell R * 100 + C) from one handler that works every answer out from the
// name, with no data behind it: whatever a walk through the master costs
// beyond this subagent's is the cost of the subagent, not of AgentX.
//
//   agentx_table SOCKET ROWS COLUMNS
//
// Runs until SIGTERM or SIGINT. Bench use only (bench/agent_walk.sh).
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "computed_table.h"

namespace {

using bench::Cell;
using bench::kTable;
using bench::kTableLength;

volatile std::sig_atomic_t g_stop = 0;
bench::ComputedTable g_table;

void onSignal(int)
{
    g_stop = 1;
}

// The name of `cell`.
std::vector<oid> nameOf(const Cell &cell)
{
    std::vector<oid> name(kTable, kTable + kTableLength);
    name.push_back(1);
    name.push_back(cell.column);
    name.push_back(cell.row);
    return name;
}

int handle(netsnmp_mib_handler *, netsnmp_handler_registration *,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
        netsnmp_variable_list *var = request->requestvb;
        Cell cell;
        switch (reqinfo->mode) {
        case MODE_GET:
            if (!g_table.exactCell(var->name, var->name_length, &cell)) {
                netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
                break;
            }
            {
                const long value = bench::ComputedTable::valueOf(cell);
                snmp_set_var_typed_value(var, ASN_INTEGER, &value, sizeof value);
            }
            break;
        case MODE_GETNEXT:
            if (g_table.nextCell(var->name, var->name_length, &cell)) {
                const std::vector<oid> next = nameOf(cell);
                snmp_set_var_objid(var, next.data(), next.size());
                const long value = bench::ComputedTable::valueOf(cell);
                snmp_set_var_typed_value(var, ASN_INTEGER, &value, sizeof value);
            }
            break;
        default:
            netsnmp_set_request_error(reqinfo, request, SNMP_ERR_NOTWRITABLE);
            break;
        }
    }
    return SNMP_ERR_NOERROR;
}

unsigned long count(const char *text)
{
    char *end = nullptr;
    const unsigned long n = std::strtoul(text, &end, 10);
    if (*text == '\0' || *end != '\0' || n > 10000000) {
        std::fprintf(stderr, "agentx_table: not a count: %s\n", text);
        std::exit(2);
    }
    return n;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: agentx_table SOCKET ROWS COLUMNS\n");
        return 2;
    }
    g_table.rows = count(argv[2]);
    g_table.columns = count(argv[3]);
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);

    // The subagent needs no MIB files; net-snmp would read and complain about
    // every one installed.
    setenv("MIBS", "", 1);
    snmp_disable_log();
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, argv[1]);
    if (init_agent("agentx_table") != 0) {
        std::fprintf(stderr, "agentx_table: net-snmp cannot start the agent\n");
        return 1;
    }
    netsnmp_handler_registration *registration = netsnmp_create_handler_registration(
        "agentx_table", handle, kTable, kTableLength, HANDLER_CAN_RONLY);
    if (registration == nullptr || netsnmp_register_handler(registration) != MIB_REGISTERED_OK) {
        std::fprintf(stderr, "agentx_table: cannot register the table\n");
        return 1;
    }
    init_snmp("agentx_table");
    while (g_stop == 0) {
        agent_check_and_process(1);
    }
    snmp_shutdown("agentx_table");
    return 0;
}
