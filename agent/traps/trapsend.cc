// Traps to the agent's sinks and, from a subagent, to its master.
#include "traps/trapsend.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <chrono>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "log.h"
#include "snmpvalue.h"
#include "traps/traplog.h"
#include "traps/trapsinks.h"

namespace kelp::agent {
namespace {

// A subagent's master takes the trap as an AgentX notification: net-snmp's
// only trap sink in a subagent is its AgentX session. 0 when handed over.
uint32_t sendToMaster(const Trap &trap)
{
    netsnmp_variable_list *vars = nullptr;
    for (const TrapBinding &binding : trap.bindings) {
        if (!appendVar(&vars, binding.name, binding.value)) {
            snmp_free_varbind(vars);
            return SM_SNMP_GENERR;
        }
    }
    const std::vector<oid> enterprise(trap.enterprise.begin(), trap.enterprise.end());
    // net-snmp copies the bindings into each PDU it sends.
    const int status = netsnmp_send_traps(static_cast<int>(trap.generic),
                                          static_cast<int>(trap.specific), enterprise.data(),
                                          static_cast<int>(enterprise.size()), vars, nullptr, 0);
    snmp_free_varbind(vars);
    return status == 0 ? SM_SNMP_NOERROR : SM_SNMP_GENERR;
}

// Whether a subagent has a session to its master, and the traps raised
// while it had none (a restart of the master): net-snmp would take them
// and send them nowhere, as its only trap sink in a subagent is that
// session. Only on the thread that runs net-snmp.
bool g_masterConnected = false;
std::deque<Trap> g_heldForMaster;
std::chrono::steady_clock::time_point g_heldSince;

bool isSubagent()
{
    return netsnmp_ds_get_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE) != 0;
}

} // namespace

void setAgentxMasterConnected(bool connected)
{
    g_masterConnected = connected;
}

void sendTrapsHeldForMaster()
{
    if (!g_masterConnected || g_heldForMaster.empty())
        return;
    size_t sent = 0;
    const size_t held = g_heldForMaster.size();
    while (!g_heldForMaster.empty()) {
        if (sendToMaster(g_heldForMaster.front()) == SM_SNMP_NOERROR)
            ++sent;
        g_heldForMaster.pop_front();
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                             std::chrono::steady_clock::now() - g_heldSince)
                             .count();
    logAt(sent == held ? LogLevel::kNotice : LogLevel::kWarning,
          "AgentX: %zu trap%s held while the master was away sent to it (the first waited %lld "
          "s)%s",
          sent, sent == 1 ? "" : "s", static_cast<long long>(seconds),
          sent == held ? "" : "; net-snmp refused the others");
}

uint32_t sendTrapNow(const Trap &trap)
{
    uint32_t status = SM_SNMP_GENERR;
    std::vector<std::string> took;
    if (TrapSinks *sinks = TrapSinks::active()) {
        status = sinks->send(trap, &took);
    }
    bool held = false;
    if (isSubagent()) {
        sendTrapsHeldForMaster();
        if (g_masterConnected) {
            if (sendToMaster(trap) == SM_SNMP_NOERROR) {
                status = SM_SNMP_NOERROR;
                took.emplace_back("the AgentX master");
            }
        } else if (g_heldForMaster.size() < kTrapsHeldForMaster) {
            if (g_heldForMaster.empty())
                g_heldSince = std::chrono::steady_clock::now();
            g_heldForMaster.push_back(trap);
            status = SM_SNMP_NOERROR;
            held = true;
        }
    }
    std::string line = trapLogLine(trap, took);
    if (held) {
        static constexpr std::string_view kNowhere = " sent nowhere";
        if (line.ends_with(kNowhere))
            line.resize(line.size() - kNowhere.size());
        else
            line += ";";
        line += " held for the AgentX master until it is connected again";
    }
    logAt(took.empty() && !held ? LogLevel::kWarning : LogLevel::kInfo, "%s", line.c_str());
    return status;
}

extern "C" uint32_t kelpAgentSendTrap(uint64_t handle, const SMSnmpOID *enterprise,
                                      uint32_t generic, uint32_t specific, uint32_t bindingCount,
                                      SMSnmpValue *bindings)
{
    auto *queue = reinterpret_cast<TrapQueue *>(handle);
    if (queue == nullptr) {
        return SM_SNMP_GENERR;
    }
    Trap trap;
    std::string why;
    if (!copyTrap(enterprise, generic, specific, bindingCount, bindings, &trap, &why)) {
        logAt(LogLevel::kWarning, "trap from the module not sent: %s", why.c_str());
        return SM_SNMP_GENERR;
    }
    return queue->submit(std::move(trap));
}

} // namespace kelp::agent
