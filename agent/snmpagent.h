// net-snmp's agent library for one run of kelpagent: an embedded master
// agent on one address or an AgentX subagent, configured from code only
// (/etc/snmp is not read, no SMUX, persistent files in the state dir), with
// a main loop that SIGINT/SIGTERM and wake() interrupt.
#ifndef KELP_AGENT_SNMPAGENT_H
#define KELP_AGENT_SNMPAGENT_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "access.h"
#include "options.h"
#include "snmpconf.h"

namespace kelp::agent {

class TrapSinks;

// net-snmp's log callback (SNMP_CALLBACK_LOGGING): the library's lines, put
// together from its pieces, into the agent's log. No exception leaves it.
int onNetsnmpLog(int major, int minor, void *serverArg, void *clientArg);

struct AgentSettings {
    bool subagent = false;
    std::string agentxSocket;               // subagent: empty for net-snmp's default
    std::string listen;                     // master: the address to answer on
    std::string community;                  // master: the read-only community; empty: none
    std::vector<V3Key> v3Keys;              // master: the SNMPv3 users (wiped once created)
    std::vector<Network> allow;             // master: the sources that may query; empty: any
    size_t maxWaiting = kDefaultMaxWaiting; // master: requests read, unanswered; 0: no turns
    std::vector<std::string> trapSinks;     // "inform:ADDR" for an inform sink
    bool trapV1 = false;
    bool trapInform = false;   // every sink an inform sink
    std::string trapCommunity; // the community of traps and informs
    std::string trapV3User;    // non-empty: traps and informs as this SNMPv3 user
    double informTimeout = 1;  // seconds before an inform is sent again
    int informRetries = 5;
    std::string persistentDir; // created 0700 when missing
    SystemIdentity identity;   // master: the system group's values
};

class SnmpAgent {
  public:
    SnmpAgent();
    // shutdown()
    ~SnmpAgent();
    SnmpAgent(const SnmpAgent &) = delete;
    SnmpAgent &operator=(const SnmpAgent &) = delete;

    // Logging to stderr, the library's settings, init_agent. Call once,
    // before registering anything. False with a message on failure.
    bool init(const AgentSettings &settings, std::string *error);

    // After the registrations: init_snmp, the trap sinks, and for a master
    // the standard groups, the community's access from IPv4 and IPv6
    // sources, the SNMPv3 users (created in memory, never written to the
    // persistent files), the engine's boot count stored at once, the
    // listening addresses, the check of --allow's sources and the log of
    // refused requests. Warns when a community answers beyond loopback to
    // any source.
    // False with a message when an address is not valid or cannot be bound
    // (in use, or not this host's).
    bool open(std::string *error);

    // A master with trap sinks sends coldStart to each, logged as every
    // trap is (a subagent's master announces its own start).
    void sendColdStart();

    // Catches SIGINT, SIGTERM, SIGHUP and SIGUSR1 from now on (and ignores
    // SIGPIPE),
    // so that a stop request during start-up ends run() at once instead of
    // the process. Call first thing, before any thread is started.
    static void catchStopSignals();

    // `bound` is called from the signal handler for the first stop signal
    // caught: a start or a turn of run() that does not end (net-snmp waiting
    // for an AgentX master, or spinning on a read it has no memory for)
    // would otherwise hold the stop for good. It must be async-signal-safe.
    static void boundStops(void (*bound)());

    // Whether run() has started (async-signal-safe).
    static bool running();

    // Runs the agent until SIGINT or SIGTERM (also one caught before);
    // `onWake` runs on this thread after every wake(), `onReload` after a
    // SIGHUP and `onReopen` (when set) after a SIGUSR1 (several signals
    // before it runs count once).
    void run(const std::function<void()> &onWake, const std::function<void()> &onReload,
             const std::function<void()> &onReopen = {});

    // Any thread: makes run() call its onWake soon.
    static void wake();

    // A master after open(): the addresses it answers on as bound
    // ("udp:0.0.0.0:1161" for --listen 1161), in --listen's order.
    const std::vector<std::string> &boundAddresses() const { return bound_; }

    // True when traps have somewhere to go: a sink, or the AgentX master.
    bool hasTrapDestination() const;

    // snmp_shutdown (persistent files are written then). Safe to call more
    // than once.
    void shutdown();

  private:
    AgentSettings settings_;
    bool initialised_ = false;
    bool snmpStarted_ = false; // init_snmp ran: the engine state is net-snmp's to save
    std::vector<std::string> bound_;
    std::unique_ptr<TrapSinks> traps_; // kelp's own sinks, open from open() to shutdown()
};

} // namespace kelp::agent

#endif // KELP_AGENT_SNMPAGENT_H
