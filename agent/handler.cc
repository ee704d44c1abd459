// net-snmp glue of the request path: every varbind below the root becomes
// one answerGet, answerGetNext or answerSet (answer.cc), whose outcome is
// written back. A GETBULK reaches the handler once per PDU, and the handler
// answers all repetitions of a varbind in one pass (over AgentX the master
// sends GETNEXTs instead).
#include "handler.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <type_traits>

#include "snmpvalue.h"

namespace kelp::agent {
namespace {

static_assert(std::is_same_v<oid, uint64_t>, "net-snmp names are read as 64-bit arcs");

void writeAnswer(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request,
                 const Answer &answer, bool setName)
{
    netsnmp_variable_list *var = request->requestvb;
    switch (answer.outcome) {
    case Outcome::kValue:
        if ((setName && snmp_set_var_objid(var, answer.name.data(), answer.name.size()) != 0) ||
            !setVarValue(var, answer.value)) {
            netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        }
        break;
    case Outcome::kNoSuchObject:
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
        break;
    case Outcome::kNoSuchInstance:
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
        break;
    case Outcome::kGenErr:
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        break;
    case Outcome::kNotWritable:
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_NOTWRITABLE);
        break;
    case Outcome::kEndOfSubtree:
        // Untouched: net-snmp asks the next registration and answers
        // endOfMibView itself at the end of the view. Answering it here
        // would cut GETBULK responses short.
        break;
    }
}

// The repetitions of one GETBULK varbind, answered the way net-snmp's
// bulk-to-next helper has them answered over many passes: each answered name
// seeds the varbind of the next repetition. A repetition the plug-in has
// nothing for stays NULL, and net-snmp carries it on to the next registration
// with the repetitions left; net-snmp checks the view of every repetition
// afterwards.
void answerRepetitions(const Dispatch &dispatch, netsnmp_agent_request_info *reqinfo,
                       netsnmp_request_info *request)
{
    bool inclusive = request->inclusive != 0;
    for (;;) {
        netsnmp_variable_list *var = request->requestvb;
        const Answer answer = answerGetNext(
            dispatch, std::span<const uint64_t>(var->name, var->name_length), inclusive);
        writeAnswer(reqinfo, request, answer, true);
        netsnmp_variable_list *next = var->next_variable;
        if (answer.outcome != Outcome::kValue || var->type == ASN_NULL || request->repeat <= 0 ||
            next == nullptr ||
            snmp_oid_compare(var->name, var->name_length, request->range_end,
                             request->range_end_len) >= 0) {
            return;
        }
        request->repeat--;
        if (snmp_set_var_objid(next, var->name, var->name_length) != 0) {
            netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
            return;
        }
        next->type = ASN_NULL;
        request->requestvb = next;
        // 2 is net-snmp's mark for a varbind it moved to the end of a range;
        // it holds for that varbind only.
        if (request->inclusive == 2) {
            request->inclusive = 0;
        }
        inclusive = false;
    }
}

int handleRequests(netsnmp_mib_handler *handler, netsnmp_handler_registration *,
                   netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    const auto &dispatch = *static_cast<const Dispatch *>(handler->myvoid);
    for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
        if (request->processed) {
            continue;
        }
        const netsnmp_variable_list *var = request->requestvb;
        const std::span<const uint64_t> name(var->name, var->name_length);
        switch (reqinfo->mode) {
        case MODE_GET:
            writeAnswer(reqinfo, request, answerGet(dispatch, name), false);
            break;
        case MODE_GETNEXT:
            writeAnswer(reqinfo, request, answerGetNext(dispatch, name, request->inclusive != 0),
                        true);
            break;
        case MODE_GETBULK:
            answerRepetitions(dispatch, reqinfo, request);
            break;
        case MODE_SET_RESERVE1:
            // The first set phase refuses; the later ones then have nothing
            // to undo.
            writeAnswer(reqinfo, request, Answer{answerSet(dispatch, name), {}, {}}, false);
            break;
        default:
            break;
        }
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

bool registerMibRoot(const Dispatch *dispatch, std::string *error)
{
    oid root[std::size(kMibRoot)];
    std::copy(std::begin(kMibRoot), std::end(kMibRoot), root);
    // Registered writable so that a Set reaches the handler, which refuses
    // it after the plug-in has seen it (command 11); a read-only
    // registration is refused by net-snmp before that. GETBULK comes in
    // whole rather than through net-snmp's bulk-to-next helper, which asks
    // once per repetition.
    netsnmp_handler_registration *registration = netsnmp_create_handler_registration(
        "kelp", handleRequests, root, std::size(root), HANDLER_CAN_RWRITE | HANDLER_CAN_GETBULK);
    if (registration == nullptr) {
        *error = "net-snmp cannot make the handler registration";
        return false;
    }
    registration->handler->myvoid = const_cast<Dispatch *>(dispatch);
    // On failure net-snmp has already freed the registration.
    const int status = netsnmp_register_handler(registration);
    if (status != MIB_REGISTERED_OK) {
        *error = "net-snmp refuses to register the subtree (status " + std::to_string(status) + ")";
        return false;
    }
    return true;
}

} // namespace kelp::agent
