// minagent: a master agent set up exactly as kelpagent sets up net-snmp
// (the same SnmpAgent: transports, community and views, --allow's check and
// refusal log, the standard groups, the persistent dir, the turns between
// sources, net-snmp's messages in the same log) but serving, in place of the
// plug-in, one table of ROWS rows and COLUMNS INTEGER columns under
// 1.3.6.1.4.1.61234.99.1 (entries .1.C.R, the value of a cell R * 100 + C)
// from one handler that works every answer out from the name, with no data
// behind it. Its handler is registered as kelpagent's is (GETBULK reaches it
// once per PDU, a Set is refused notWritable), so that whatever kelpagent's
// walks cost beyond this agent's is the cost of kelp's request path, runtime
// and plug-in.
//
//   minagent --listen ADDRESS --state-dir DIR [--community C] [--allow NET]...
//            [--max-waiting N] [--bulk-to-next] ROWS COLUMNS
//
// --bulk-to-next registers the handler without GETBULK, so that net-snmp's
// bulk-to-next helper calls it once per repetition (how a plain net-snmp
// module is served). Runs until SIGTERM or SIGINT. Bench use only
// (bench/agent_floor.sh).
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "access.h"
#include "computed_table.h"
#include "options.h"
#include "snmpagent.h"

namespace {

using bench::Cell;
using bench::kTable;
using bench::kTableLength;

// Written once by main before the agent starts; read by the handler.
bench::ComputedTable g_table;

void setValue(netsnmp_variable_list *var, const Cell &cell)
{
    const long value = bench::ComputedTable::valueOf(cell);
    snmp_set_var_typed_value(var, ASN_INTEGER, &value, sizeof value);
}

// Writes the cell after the request's name into its varbind; false when
// the table has none (the varbind is left for net-snmp to carry on).
bool answerNext(netsnmp_request_info *request)
{
    netsnmp_variable_list *var = request->requestvb;
    Cell cell;
    if (!g_table.nextCell(var->name, var->name_length, &cell, request->inclusive != 0)) {
        return false;
    }
    oid name[kTableLength + 3];
    std::copy(std::begin(kTable), std::end(kTable), name);
    name[kTableLength] = 1;
    name[kTableLength + 1] = cell.column;
    name[kTableLength + 2] = cell.row;
    snmp_set_var_objid(var, name, std::size(name));
    setValue(var, cell);
    return true;
}

// Every repetition of a GETBULK varbind in one pass, each seeded with the
// name answered before, as kelpagent's handler does.
void answerRepetitions(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
{
    for (;;) {
        netsnmp_variable_list *var = request->requestvb;
        if (!answerNext(request)) {
            return;
        }
        if (request->range_end != nullptr &&
            snmp_oid_compare(var->name, var->name_length, request->range_end,
                             request->range_end_len) >= 0) {
            return;
        }
        netsnmp_variable_list *next = var->next_variable;
        if (next == nullptr || request->repeat <= 0) {
            return;
        }
        request->repeat--;
        if (snmp_set_var_objid(next, var->name, var->name_length) != 0) {
            netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
            return;
        }
        next->type = ASN_NULL;
        request->requestvb = next;
        if (request->inclusive == 2) {
            request->inclusive = 0;
        }
    }
}

int handle(netsnmp_mib_handler *, netsnmp_handler_registration *,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
        if (request->processed) {
            continue;
        }
        netsnmp_variable_list *var = request->requestvb;
        Cell cell;
        switch (reqinfo->mode) {
        case MODE_GET:
            if (g_table.exactCell(var->name, var->name_length, &cell)) {
                setValue(var, cell);
            } else {
                netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
            }
            break;
        case MODE_GETNEXT:
            answerNext(request);
            break;
        case MODE_GETBULK:
            answerRepetitions(reqinfo, request);
            break;
        case MODE_SET_RESERVE1:
            netsnmp_set_request_error(reqinfo, request, SNMP_ERR_NOTWRITABLE);
            break;
        default:
            break;
        }
    }
    return SNMP_ERR_NOERROR;
}

[[noreturn]] void usage(const std::string &why)
{
    if (!why.empty()) {
        std::fprintf(stderr, "minagent: %s\n", why.c_str());
    }
    std::fprintf(stderr, "usage: minagent --listen ADDRESS --state-dir DIR [--community C] "
                         "[--allow NET]... [--max-waiting N] [--bulk-to-next] ROWS COLUMNS\n");
    std::exit(2);
}

unsigned long number(const char *text, unsigned long high)
{
    char *end = nullptr;
    const unsigned long n = std::strtoul(text, &end, 10);
    if (*text == '\0' || *text == '-' || *end != '\0' || n > high) {
        usage(std::string("not a number from 0 to ") + std::to_string(high) + ": " + text);
    }
    return n;
}

} // namespace

int main(int argc, char **argv)
{
    using namespace kelp::agent;
    AgentSettings settings;
    settings.community = "public";
    settings.identity.descr = "minagent";
    bool bulkToNext = false;
    std::string stateDir;
    std::vector<const char *> operands;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--listen" && hasValue) {
            settings.listen = argv[++i];
        } else if (arg == "--state-dir" && hasValue) {
            stateDir = argv[++i];
        } else if (arg == "--community" && hasValue) {
            settings.community = argv[++i];
        } else if (arg == "--allow" && hasValue) {
            Network network;
            std::string error;
            if (!parseNetwork(argv[++i], &network, &error)) {
                usage(error);
            }
            settings.allow.push_back(network);
        } else if (arg == "--max-waiting" && hasValue) {
            settings.maxWaiting = number(argv[++i], kMaxMaxWaiting);
        } else if (arg == "--bulk-to-next") {
            bulkToNext = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            usage("unknown option or missing value: " + arg);
        } else {
            operands.push_back(argv[i]);
        }
    }
    if (operands.size() != 2 || settings.listen.empty() || stateDir.empty()) {
        usage("");
    }
    g_table.rows = number(operands[0], 10000000);
    g_table.columns = number(operands[1], 10000);
    // kelpagent's layout of its state dir.
    settings.persistentDir = stateDir + "/snmp";

    SnmpAgent::catchStopSignals();
    SnmpAgent agent;
    std::string error;
    if (!agent.init(settings, &error)) {
        std::fprintf(stderr, "minagent: %s\n", error.c_str());
        return 1;
    }
    const int modes = HANDLER_CAN_RWRITE | (bulkToNext ? 0 : HANDLER_CAN_GETBULK);
    netsnmp_handler_registration *registration =
        netsnmp_create_handler_registration("minagent", handle, kTable, kTableLength, modes);
    if (registration == nullptr || netsnmp_register_handler(registration) != MIB_REGISTERED_OK) {
        std::fprintf(stderr, "minagent: cannot register the table\n");
        return 1;
    }
    if (!agent.open(&error)) {
        std::fprintf(stderr, "minagent: %s\n", error.c_str());
        return 1;
    }
    agent.run([] {}, [] {});
    agent.shutdown();
    return 0;
}
