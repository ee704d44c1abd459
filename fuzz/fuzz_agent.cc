// kelpagent's request path from a raw datagram to the response's bytes:
// net-snmp's message and PDU parse (community header, then the PDU), each
// varbind resolved through the served tree (agent/snmp/resolve.h) and the
// plug-in's dispatch, the answers written into the response the way the
// agent's handler writes them (setVarValue, the exceptions), and the
// response encoded by net-snmp and parsed back. SNMPv1 and v2c; the input
// is the datagram.
//
// Not covered: net-snmp's agent itself (sessions, the registry, access
// control, GETBULK's passes over registrations) and the handler's
// delegation to its worker; tests/agent drive those through a real
// kelpagent.

// net-snmp's configuration header comes first, in a block of its own.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_impl.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "fuzz_common.h"
#include "plugin_session.h"
#include "snmp/resolve.h"
#include "snmpvalue.h"

namespace {

using kelp::agent::Answer;
using kelp::agent::Outcome;

// At most this many varbinds and GETBULK repetitions are answered, so that
// one input stays fast.
constexpr size_t kMaxVarbinds = 32;
constexpr long kMaxRepetitions = 16;

uint32_t dispatch(uint32_t command, void *in, uint32_t inSize, void *out, uint32_t outSize,
                  uint32_t *outUsed)
{
    return fuzzplugin::host().call(command, in, inSize, out, outSize, outUsed);
}

std::vector<uint64_t> nameOf(const netsnmp_variable_list *var)
{
    return std::vector<uint64_t>(var->name, var->name + var->name_length);
}

// Appends what the handler answers for one varbind to the response.
void append(netsnmp_pdu *response, const netsnmp_variable_list *asked, const Answer &answer)
{
    switch (answer.outcome) {
    case Outcome::kValue: {
        std::vector<uint32_t> name;
        for (uint64_t arc : answer.name) {
            FUZZ_CHECK(arc <= UINT32_MAX);
            name.push_back(static_cast<uint32_t>(arc));
        }
        if (!kelp::agent::appendVar(&response->variables, name, answer.value)) {
            response->errstat = SNMP_ERR_GENERR;
        }
        return;
    }
    case Outcome::kNoSuchObject:
    case Outcome::kNoSuchInstance:
    case Outcome::kEndOfSubtree: {
        const u_char type = answer.outcome == Outcome::kNoSuchObject     ? SNMP_NOSUCHOBJECT
                            : answer.outcome == Outcome::kNoSuchInstance ? SNMP_NOSUCHINSTANCE
                                                                         : SNMP_ENDOFMIBVIEW;
        snmp_pdu_add_variable(response, asked->name, asked->name_length, type, nullptr, 0);
        return;
    }
    case Outcome::kGenErr:
    case Outcome::kLockTimeOut:
        response->errstat = SNMP_ERR_GENERR;
        break;
    case Outcome::kNotWritable:
        response->errstat = SNMP_ERR_NOTWRITABLE;
        break;
    }
    snmp_pdu_add_variable(response, asked->name, asked->name_length, ASN_NULL, nullptr, 0);
}

void answer(const netsnmp_pdu *request, netsnmp_pdu *response)
{
    size_t index = 0;
    for (const netsnmp_variable_list *var = request->variables;
         var != nullptr && index < kMaxVarbinds; var = var->next_variable, index++) {
        const std::vector<uint64_t> name = nameOf(var);
        switch (request->command) {
        case SNMP_MSG_GET:
            append(response, var, kelp::agent::answerGet(dispatch, name));
            break;
        case SNMP_MSG_GETNEXT:
            append(response, var, kelp::agent::answerGetNext(dispatch, name, false));
            break;
        case SNMP_MSG_GETBULK:
            // errstat and errindex carry non-repeaters and max-repetitions.
            if (static_cast<long>(index) < request->errstat) {
                append(response, var, kelp::agent::answerGetNext(dispatch, name, false));
            } else {
                const long count = std::clamp(request->errindex, 0L, kMaxRepetitions);
                for (const Answer &a : kelp::agent::answerRepetitions(
                         dispatch, name, false, static_cast<size_t>(count), {})) {
                    append(response, var, a);
                }
            }
            break;
        case SNMP_MSG_SET:
            append(response, var, Answer{kelp::agent::answerSet(dispatch, name), {}, {}});
            break;
        default:
            return;
        }
    }
}

// Parses a v1/v2c message; null when net-snmp refuses it.
netsnmp_pdu *parse(const uint8_t *data, size_t size)
{
    std::vector<u_char> bytes(data, data + size);
    size_t length = bytes.size();
    u_char community[256];
    size_t communityLength = sizeof community;
    long version = 0;
    u_char *pdu = snmp_comstr_parse(bytes.data(), &length, community, &communityLength, &version);
    if (pdu == nullptr || (version != SNMP_VERSION_1 && version != SNMP_VERSION_2c)) {
        return nullptr;
    }
    netsnmp_pdu *parsed = snmp_pdu_create(0);
    parsed->version = version;
    parsed->community = static_cast<u_char *>(malloc(communityLength + 1));
    memcpy(parsed->community, community, communityLength);
    parsed->community_len = communityLength;
    if (snmp_pdu_parse(parsed, pdu, &length) != 0) {
        snmp_free_pdu(parsed);
        return nullptr;
    }
    return parsed;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // net-snmp reads no configuration and no MIB files here, and logs
    // nothing (every refused datagram would be a line on stderr).
    setenv("SNMPCONFPATH", fuzzcommon::tempDir().c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", fuzzcommon::tempDir().c_str(), 1);
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_LOAD_HOST_FILES, 1);
    init_snmp("kelpfuzz");
    // Without a handler net-snmp writes to stderr; this one drops all.
    snmp_disable_log();
    netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    fuzzplugin::start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    netsnmp_pdu *request = parse(data, size);
    if (request == nullptr) {
        return 0;
    }
    netsnmp_pdu *response = snmp_pdu_create(SNMP_MSG_RESPONSE);
    response->version = request->version;
    response->reqid = request->reqid;
    response->community = static_cast<u_char *>(malloc(request->community_len + 1));
    memcpy(response->community, request->community, request->community_len);
    response->community_len = request->community_len;
    answer(request, response);

    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = response->version;
    size_t capacity = 1 << 16, offset = 0;
    auto *packet = static_cast<u_char *>(malloc(capacity));
    if (snmp_build(&packet, &capacity, &offset, &session, response) == 0) {
        // Encoded backwards: the message is the last `offset` bytes.
        netsnmp_pdu *again = parse(packet + capacity - offset, offset);
        FUZZ_CHECK(again != nullptr);
        FUZZ_CHECK(again->command == SNMP_MSG_RESPONSE);
        snmp_free_pdu(again);
    }
    free(packet);
    snmp_free_pdu(response);
    snmp_free_pdu(request);
    return 0;
}
