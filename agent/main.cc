// kelpagent: the SNMP agent that hosts the kelp plug-in. Start-up and
// shut-down in the order the plug-in expects; everything else lives in the
// files named after what it does (options, runtimesetup, module, handler,
// snmpagent, traps/).
#include <signal.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>

#include "access.h"
#include "config.h"
#include "heap.h"
#include "kelp/runtime.h"
#include "log.h"
#include "module.h"
#include "notify.h"
#include "options.h"
#include "paths.h"
#include "privileges.h"
#include "runtimesetup.h"
#include "snmp/handler.h"
#include "snmpagent.h"
#include "snmpconf.h"
#include "startup.h"
#include "traps/trap.h"
#include "traps/trapsend.h"

#ifndef KELP_VERSION
#define KELP_VERSION "unknown"
#endif

namespace kelp::agent {
namespace {

// How long a plug-in thread waits for the agent's thread to take its trap.
// The agent's thread never waits for the plug-in's lock, so it takes traps
// at once but for a burst of requests.
constexpr std::chrono::seconds kTrapPatience{5};

// How long a request that finds the plug-in's tables locked may take: the
// plug-in's own lock time-out for a master; well within the 1 s an AgentX
// master waits for its subagent's answer.
constexpr std::chrono::milliseconds kMasterRequestBudget{1000};
constexpr std::chrono::milliseconds kSubagentRequestBudget{700};

int fail(const std::string &message)
{
    logAt(LogLevel::kError, "%s", message.c_str());
    return 1;
}

// How long a stop may take (stopTimeoutFrom), read at start.
double g_stopTimeout = kDefaultStopTimeout;

// A plug-in thread that never ends would hold the stop for good (the
// plug-in waits for the end of a thread that never started as for any
// other): the agent ends by itself, saying why, instead of waiting for a
// service manager to kill it.
void endTheStop(int)
{
    static constexpr char kLine[] =
        "kelpagent: stopping takes too long (a plug-in thread does not end): exiting\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kLine, sizeof kLine - 1);
    _exit(1);
}

// Before the stop itself begins, a start or a turn of the main loop that
// does not end holds it as well (net-snmp waiting for an AgentX master that
// does not answer, or spinning on a read it has no memory for).
void endTheWait(int)
{
    static constexpr char kStart[] =
        "kelpagent: stopping takes too long (the start does not end): exiting\n";
    static constexpr char kLoop[] =
        "kelpagent: stopping takes too long (the main loop does not end): exiting\n";
    const bool started = SnmpAgent::running();
    [[maybe_unused]] const ssize_t written = started
                                                 ? write(STDERR_FILENO, kLoop, sizeof kLoop - 1)
                                                 : write(STDERR_FILENO, kStart, sizeof kStart - 1);
    _exit(1);
}

// From now on the process ends after g_stopTimeout, through `end`.
// Async-signal-safe: the handler of the first stop signal calls it
// (boundTheWait).
void boundBy(void (*end)(int))
{
    const double seconds = g_stopTimeout;
    struct sigaction action {};
    action.sa_handler = end;
    sigaction(SIGALRM, &action, nullptr);
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    // At least kMinStopTimeout: never 0, which would disarm the timer.
    timer.it_value.tv_usec =
        static_cast<suseconds_t>((seconds - double(timer.it_value.tv_sec)) * 1e6);
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void boundTheStop()
{
    boundBy(endTheStop);
}

// Called from the signal handler for the first stop signal.
void boundTheWait()
{
    boundBy(endTheWait);
}

// The system group's values: the options, the host's name for an empty
// sysName, and a sysDescr naming kelp, its version and the kernel.
SystemIdentity identityOf(const Options &options)
{
    utsname host{};
    uname(&host);
    SystemIdentity identity;
    identity.descr = describeAgent(KELP_VERSION, host.nodename, host.release);
    identity.contact = options.sysContact;
    identity.name = options.sysName.empty() ? std::string(host.nodename) : options.sysName;
    identity.location = options.sysLocation;
    return identity;
}

int run(const Options &options, const RunAs &runAs)
{
    std::string error;
    RuntimeSetup runtime;
    if (!runtime.apply(options, &error)) {
        return fail(error);
    }

    AgentSettings settings;
    settings.subagent = options.agentx;
    settings.agentxSocket = options.agentxSocket;
    settings.listen = options.listen;
    settings.community = options.noV1v2c ? std::string() : options.community;
    settings.allow = options.allow;
    settings.maxWaiting = options.maxWaiting;
    if (!options.v3Users.empty() &&
        !readV3Keys(options.v3Keys, options.v3Users, &settings.v3Keys, &error,
                    options.user.empty() ? std::nullopt
                                         : std::optional<KeyFileUser>({runAs.uid, runAs.name}))) {
        return fail(error);
    }
    settings.trapSinks = options.trapSinks;
    settings.trapV1 = options.trapV1;
    settings.trapInform = options.trapInform;
    settings.trapCommunity = trapCommunityOf(options);
    settings.trapV3User = options.trapV3User;
    settings.informTimeout = options.informTimeout;
    settings.informRetries = options.informRetries;
    settings.persistentDir = options.stateDir + "/" + std::string(kStateSnmpDir);
    settings.identity = identityOf(options);
    SnmpAgent snmp;
    const bool initialised = snmp.init(settings, &error);
    wipeV3Keys(&settings.v3Keys);
    if (!initialised) {
        return fail(error);
    }

    // Declared before the module: its threads may call entry 7 until
    // command 8 has returned.
    TrapQueue traps(
        [&snmp](const Trap &trap) {
            return snmp.hasTrapDestination() ? sendTrapNow(trap) : uint32_t{SM_SNMP_GENERR};
        },
        [] { SnmpAgent::wake(); }, kTrapPatience);
    traps.adoptPumpThread();
    void *services[SM_SERVICE_COUNT] = {};
    services[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(&kelpAgentSendTrap);

    ModuleHost module;
    std::unique_ptr<RequestPath> requests;
    const auto stopAll = [&] {
        boundTheStop();
        // While the plug-in still reads events: a load under way swaps under
        // the rescan lock instead of waiting for a reader that has gone.
        runtime.stopControl();
        runtime.holdEvents();
        // The plug-in's threads no longer wait for the trap pump, which
        // this thread no longer runs; what they raise while they stop goes
        // out below, before the sinks close.
        traps.stopWaiting();
        // The worker may be inside the plug-in: it ends before the unload.
        if (requests) {
            requests->stop();
        }
        module.stop();
        traps.pump();
        traps.close();
        snmp.shutdown();
        runtime.release();
    };
    const auto openRequestPath = [&] {
        RequestSettings requestSettings;
        requestSettings.delegatedBudget =
            options.agentx ? kSubagentRequestBudget : kMasterRequestBudget;
        try {
            requests = std::make_unique<RequestPath>(module.dispatch(), requestSettings,
                                                     [] { SnmpAgent::wake(); });
        } catch (const std::bad_alloc &) {
            error = "the request path does not start: out of memory";
            return false;
        } catch (const std::system_error &e) {
            error =
                std::string("the request path does not start: no worker thread (") + e.what() + ")";
            return false;
        }
        return requests->registerRoot(&error);
    };
    if (!module.open(options.module, &error) ||
        !module.load(services, reinterpret_cast<uint64_t>(&traps), &error) || !openRequestPath() ||
        !snmp.open(&error) || !module.startMonitor(&error)) {
        const int status = fail(error);
        stopAll();
        return status;
    }
    // The ports are bound: root is needed no more. What was made as root
    // so far (the state dir's files, the control socket) goes to the user.
    if (!options.user.empty() && geteuid() == 0) {
        // The control socket may be outside the state dir; an ini file
        // elsewhere stays its owner's (the user must be able to write it).
        if (!handOver(options.stateDir, {options.control}, runAs, &error) ||
            !dropPrivileges(runAs, &error) ||
            !checkStateDirWritable(options.stateDir, &error, runAs.name)) {
            const int status = fail(error);
            stopAll();
            return status;
        }
        logLine("running as user %s (uid %u)", runAs.name.c_str(),
                static_cast<unsigned>(runAs.uid));
    }
    if (options.agentx) {
        logLine("AgentX subagent of %s", options.agentxSocket.empty()
                                             ? "the default master socket"
                                             : options.agentxSocket.c_str());
        if (const std::string unused = unusedBySubagent(options.listen, options.community);
            !unused.empty()) {
            logAt(LogLevel::kWarning, "%s", unused.c_str());
        }
    } else {
        logLine("%s",
                answeringLine(options.listen, snmp.boundAddresses(),
                              accessSummary(!options.noV1v2c, options.v3Users, options.allowText))
                    .c_str());
    }
    logLine("%s", mibHint(binaryDir()).c_str());
    notifyReady(servingStatus(options));
    snmp.sendColdStart();

    snmp.run(
        [&] {
            traps.pump();
            notifyServedModel(options);
            sendTrapsHeldForMaster();
            requests->completeDelegated();
        },
        [&runtime] { runtime.reload(); }, [&runtime] { runtime.reopenDebugFile("SIGUSR1"); });

    notifyStopping();
    stopAll();
    // The plug-in reads one event a second: a burst queued just before the
    // stop never becomes traps.
    if (const unsigned long dropped = kelpRuntimeQueuedEvents(); dropped > 0) {
        logLine("%lu queued event%s dropped: the plug-in stopped before reading %s", dropped,
                dropped == 1 ? " was" : "s were", dropped == 1 ? "it" : "them");
    }
    logLine("stopped");
    return 0;
}

} // namespace
} // namespace kelp::agent

// The agent serves the control socket on a path of its own: the runtime
// leaves KELP_CONTROL, set by users for kelpctl, alone.
extern "C" const int kelpRuntimeHostServesControl = 1;

// The agent checks the alert catalogue at its start and reports a bad one in
// its own log: the runtime does not write it to stderr first.
extern "C" const int kelpRuntimeHostReportsCatalogue = 1;

int main(int argc, char **argv)
{
    using namespace kelp::agent;
    // Before anything allocates: too little heap to report a failure with.
    unsigned long limitMiB = 0;
    if (!heapRoomToStart(&limitMiB)) {
        char line[160];
        const int n = std::snprintf(line, sizeof line,
                                    "kelpagent: address space limited to %lu MiB (ulimit -v): "
                                    "too little is left for the agent to start\n",
                                    limitMiB);
        if (n > 0) {
            [[maybe_unused]] const ssize_t written =
                write(STDERR_FILENO, line, std::min(static_cast<size_t>(n), sizeof line - 1));
        }
        return 1;
    }
    // Before any thread starts.
    const std::string heapLine = fitUnderAddressLimit();
    SnmpAgent::catchStopSignals();
    Options options;
    std::string error;
    const DefaultPlaces places =
        defaultPlaces(binaryDir(), std::getenv("XDG_STATE_HOME"), std::getenv("HOME"));
    if (!parseOptions(argc, argv, &options, &error)) {
        std::fprintf(stderr, "kelpagent: %s\nTry kelpagent --help.\n", error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(usageText(places).c_str(), stdout);
        return 0;
    }
    if (options.version) {
        std::printf("kelpagent %s\n", KELP_VERSION);
        return 0;
    }
    // Before the log opens: the file may ask for syslog. A bad file is no
    // usage error (status 1, not 2) and --help does not read it.
    if (!applyConfigFile(places.config, argc, argv, &options, &error)) {
        std::fprintf(stderr, "kelpagent: %s\n", error.c_str());
        return 1;
    }
    if (!logOpen(chooseLogSink(options.syslog), options.debug ? LogLevel::kDebug : LogLevel::kInfo,
                 options.logPriorities, &error)) {
        return fail(error);
    }
    if (!options.config.empty()) {
        logLine("options read from %s", options.config.c_str());
    }
    if (!heapLine.empty()) {
        logLine("%s", heapLine.c_str());
    }
    std::string stopWarning;
    g_stopTimeout = stopTimeoutFrom(std::getenv("KELP_STOP_TIMEOUT"), &stopWarning);
    if (!stopWarning.empty()) {
        logAt(LogLevel::kWarning, "%s", stopWarning.c_str());
    }
    SnmpAgent::boundStops(boundTheWait);
    if (!completeOptions(places, &options, &error) || !makeStateDir(options.stateDir, &error)) {
        return fail(error);
    }
    if (!checkStateDirWritable(options.stateDir, &error) ||
        !lockStateDir(options.stateDir, &error)) {
        return fail(error);
    }
    if (const std::string shared = sharedStateDirWarning(options.stateDir); !shared.empty()) {
        logAt(LogLevel::kWarning, "%s", shared.c_str());
    } else if (const unsigned was = tightenStateDir(options.stateDir); was != 0) {
        logAt(LogLevel::kWarning, "the state dir %s was mode %04o, open to other users: now 0700",
              options.stateDir.c_str(), was);
    }
    RunAs runAs;
    if (!options.user.empty() && !lookUpUser(options.user, &runAs, &error)) {
        return fail(error);
    }
    if (const std::string refusal =
            startRefusal(geteuid(), options.allowRoot, options.user, runAs.uid);
        !refusal.empty()) {
        return fail(refusal);
    }
    try {
        return run(options, runAs);
    } catch (const std::bad_alloc &) {
        // What each part can go on without is caught where it fails; this
        // is the rest, which ends the agent with its reason (logged without
        // allocating).
        logAt(LogLevel::kError, "stopping: out of memory");
        return 1;
    } catch (const std::exception &e) {
        logAt(LogLevel::kError, "stopping: %s", e.what());
        return 1;
    }
}
