// Trap PDUs built and encoded with net-snmp.
#include "traps/trapmessage.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_trap.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "snmpvalue.h"

namespace kelp::agent {
namespace {

struct PduFree {
    void operator()(netsnmp_pdu *pdu) const { snmp_free_pdu(pdu); }
};
using PduPtr = std::unique_ptr<netsnmp_pdu, PduFree>;

struct BufferFree {
    void operator()(u_char *buffer) const { std::free(buffer); }
};

// The SNMPv1 form of the trap, as netsnmp_send_traps makes it for a
// generic and specific number: the agent address is still unset.
PduPtr v1Pdu(const Trap &trap, std::string *why)
{
    netsnmp_variable_list *vars = nullptr;
    for (const TrapBinding &binding : trap.bindings) {
        if (!appendVar(&vars, binding.name, binding.value)) {
            snmp_free_varbind(vars);
            *why = "net-snmp refuses a binding";
            return nullptr;
        }
    }
    PduPtr pdu(snmp_pdu_create(SNMP_MSG_TRAP));
    const std::vector<oid> enterprise(trap.enterprise.begin(), trap.enterprise.end());
    if (!pdu || snmp_clone_mem(reinterpret_cast<void **>(&pdu->enterprise), enterprise.data(),
                               static_cast<u_int>(enterprise.size() * sizeof(oid))) != 0) {
        snmp_free_varbind(vars);
        *why = "no memory for the trap";
        return nullptr;
    }
    pdu->enterprise_length = enterprise.size();
    pdu->trap_type = trap.generic;
    pdu->specific_type = trap.specific;
    pdu->time = netsnmp_get_agent_uptime();
    pdu->variables = vars;
    return pdu;
}

// What netsnmp_send_traps puts in a v1 trap's agent-addr: the configured
// v1trapaddress when it resolves, else the first IPv4 address of this host.
void setAgentAddress(netsnmp_pdu *pdu)
{
    auto *address = reinterpret_cast<in_addr_t *>(pdu->agent_addr);
    const char *configured =
        netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_TRAP_ADDR);
    if (configured == nullptr || netsnmp_gethostbyname_v4(configured, address) < 0) {
        *address = get_myaddr();
    }
}

bool encodePdu(netsnmp_pdu *pdu, long version, const std::string &community, std::string *message,
               std::string *why, const std::string &v3User = "")
{
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = version;
    std::vector<u_char> name(community.begin(), community.end());
    session.community = name.data();
    session.community_len = name.size();
    // A notification originator is the authoritative engine of its traps:
    // the user's keys are those localized to this engine's ID.
    u_char engineId[SNMP_MAXBUF_SMALL];
    char emptyContext[] = "";
    std::vector<char> user(v3User.begin(), v3User.end());
    user.push_back('\0');
    if (version == SNMP_VERSION_3) {
        const size_t engineIdLength = snmpv3_get_engineID(engineId, sizeof engineId);
        if (engineIdLength == 0 || usm_get_user(engineId, engineIdLength, user.data()) == nullptr) {
            *why = "no SNMPv3 user " + v3User + " to send it as";
            return false;
        }
        session.securityModel = SNMP_SEC_MODEL_USM;
        session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
        session.securityName = user.data();
        session.securityNameLen = v3User.size();
        session.securityEngineID = engineId;
        session.securityEngineIDLen = engineIdLength;
        session.contextEngineID = engineId;
        session.contextEngineIDLen = engineIdLength;
        session.contextName = emptyContext;
        session.contextNameLen = 0;
    }
    pdu->version = version;

    const bool reverse =
        netsnmp_ds_get_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_REVERSE_ENCODE) != 0;
    // Built from the end, the buffer grows as needed; built from the start it
    // must hold the largest message at once.
    size_t size = reverse ? 1024 : kMaxTrapMessageBytes + 1;
    u_char *raw = static_cast<u_char *>(std::malloc(size));
    size_t offset = 0;
    if (raw == nullptr || snmp_build(&raw, &size, &offset, &session, pdu) != 0) {
        std::free(raw);
        *why = std::string("net-snmp cannot encode the trap: ") +
               snmp_api_errstring(session.s_snmp_errno);
        return false;
    }
    const std::unique_ptr<u_char, BufferFree> buffer(raw);
    const bool forward = (pdu->flags & UCD_MSG_FLAG_FORWARD_ENCODE) != 0;
    const u_char *start = forward ? raw : raw + size - offset;
    const size_t length = forward ? size : offset;
    if (length > kMaxTrapMessageBytes) {
        *why = "the message would be " + std::to_string(length) + " bytes, over " +
               std::to_string(kMaxTrapMessageBytes);
        return false;
    }
    message->assign(reinterpret_cast<const char *>(start), length);
    return true;
}

} // namespace

bool encodeTrap(const Trap &trap, TrapForm form, const std::string &community, std::string *message,
                std::string *why, const std::string &v3User)
{
    PduPtr pdu = v1Pdu(trap, why);
    if (!pdu) {
        return false;
    }
    if (form == TrapForm::kV1Trap) {
        setAgentAddress(pdu.get());
        return encodePdu(pdu.get(), SNMP_VERSION_1, community, message, why);
    }
    // net-snmp's own conversion: sysUpTime.0 and snmpTrapOID.0 first,
    // snmpTrapEnterprise.0 last.
    PduPtr v2(convert_v1pdu_to_v2(pdu.get()));
    if (!v2) {
        *why = "net-snmp cannot make the SNMPv2c form of the trap";
        return false;
    }
    if (form == TrapForm::kV2cInform) {
        v2->command = SNMP_MSG_INFORM;
        v2->reqid = snmp_get_next_reqid();
    }
    if (form == TrapForm::kV2cTrap && !v3User.empty()) {
        return encodePdu(v2.get(), SNMP_VERSION_3, community, message, why, v3User);
    }
    return encodePdu(v2.get(), SNMP_VERSION_2c, community, message, why);
}

snmp_pdu *informPdu(const Trap &trap, std::string *why)
{
    PduPtr pdu = v1Pdu(trap, why);
    if (!pdu) {
        return nullptr;
    }
    PduPtr v2(convert_v1pdu_to_v2(pdu.get()));
    if (!v2) {
        *why = "net-snmp cannot make the SNMPv2 form of the trap";
        return nullptr;
    }
    v2->command = SNMP_MSG_INFORM;
    v2->reqid = snmp_get_next_reqid();
    return v2.release();
}

Trap coldStartTrap()
{
    Trap trap;
    trap.enterprise.assign(std::begin(kTrapEnterprise), std::end(kTrapEnterprise));
    trap.generic = SNMP_TRAP_COLDSTART;
    trap.specific = 0;
    return trap;
}

} // namespace kelp::agent
