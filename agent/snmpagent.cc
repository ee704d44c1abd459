// net-snmp agent set-up, main loop and shut-down.
#include "snmpagent.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agentxlog.h"
#include "bulkfit.h"
#include "fairness.h"
#include "heap.h"
#include "log.h"
#include "packetsource.h"
#include "paths.h"
#include "refusals.h"
#include "snmpaddress.h"
#include "snmpconf.h"
#include "startup.h"
#include "stdgroups.h"
#include "streams.h"
#include "traps/trapmessage.h"
#include "traps/trapsend.h"
#include "traps/trapsinks.h"

namespace kelp::agent {
namespace {

constexpr const char *kAppName = "kelpagent";
// A subagent pings its master this often and reconnects after a restart.
constexpr int kAgentxPingSeconds = 5;

// The self-pipe that signals and wake() write to, open from init() to
// shutdown(); -1 otherwise. Lock-free, hence usable in a signal handler.
std::atomic<int> g_wakeRead{-1};
std::atomic<int> g_wakeWrite{-1};
volatile std::sig_atomic_t g_stopRequested = 0;
// Set when run() starts.
volatile std::sig_atomic_t g_running = 0;
// Called for the first stop signal (boundStops).
void (*volatile g_boundStop)() = nullptr;
volatile std::sig_atomic_t g_reloadRequested = 0;
volatile std::sig_atomic_t g_reopenRequested = 0;
static_assert(std::atomic<int>::is_always_lock_free);

void writeWakeByte()
{
    const int fd = g_wakeWrite.load();
    if (fd >= 0) {
        const char byte = 'w';
        // A full pipe already holds a wake-up.
        [[maybe_unused]] const ssize_t written = write(fd, &byte, 1);
    }
}

void onSignal(int sig)
{
    if (sig == SIGHUP) {
        g_reloadRequested = 1;
    } else if (sig == SIGUSR1) {
        g_reopenRequested = 1;
    } else {
        const bool first = g_stopRequested == 0;
        g_stopRequested = 1;
        void (*const bound)() = g_boundStop;
        if (first && bound != nullptr) {
            bound();
        }
    }
    writeWakeByte();
}

// Empties the wake-up pipe. A read takes all a pipe holds up to its size,
// so a short read leaves it empty without a further read to see EAGAIN; a
// byte written after it wakes select again.
void drain(int fd, void *)
{
    char bytes[64];
    while (read(fd, bytes, sizeof bytes) == ssize_t(sizeof bytes)) {
    }
}

// Hands net-snmp one configuration line, read by init_snmp; the parser
// takes a writable copy.
void remember(const std::string &line)
{
    std::vector<char> text(line.begin(), line.end());
    text.push_back('\0');
    netsnmp_config_remember(text.data());
}

void rememberAll(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines) {
        remember(line);
    }
}

// What is wrong with the first address of a --listen list (net-snmp's
// transport syntax, comma-separated) that names no address this host could
// resolve, or "" when all do. Tells a typing error from a port in use, which
// init_master_agent reports alike. A name without a domain is UDP over IPv4.
// An empty entry (a comma too many) is refused: net-snmp would read it as
// every interface's port 161.
std::string invalidListenAddress(const std::string &list)
{
    size_t start = 0;
    while (start <= list.size()) {
        const size_t comma = std::min(list.find(',', start), list.size());
        const std::string address = list.substr(start, comma - start);
        start = comma + 1;
        if (address.empty()) {
            return "an empty address (a comma too many) is not one";
        }
        SnmpAddress parsed;
        if (!parseSnmpAddress(address, nullptr, false, &parsed)) {
            return "\"" + address + "\" is not a valid address";
        }
    }
    return "";
}

// net-snmp's severities in the agent's log. Its notices and information
// (start-up chatter such as "Turning on AgentX master support.") are shown
// only with --debug, so the default log holds what a user acts on.
LogLevel levelOf(int priority)
{
    if (priority <= LOG_ERR) {
        return LogLevel::kError;
    }
    return priority == LOG_WARNING ? LogLevel::kWarning : LogLevel::kDebug;
}

// net-snmp logs a line in one or more pieces; the agent logs whole lines.
// Only the agent's thread runs net-snmp.
std::string g_pendingLog;

// A subagent's connection lines; null for a master. Only the agent's thread
// runs net-snmp.
std::unique_ptr<AgentxLog> g_agentxLog;

// net-snmp calls its callbacks with the callback list locked: nothing may
// unwind through it, or the lock stays taken (every later call waits for it,
// and the library's shutdown finds the lists in use). Each callback of the
// agent catches what it throws, which can only be std::bad_alloc.

int onAgentxClosed(int, int, void *, void *)
{
    try {
        setAgentxMasterConnected(false);
        if (g_agentxLog) {
            g_agentxLog->onClosed(AgentxLog::Clock::now());
        }
    } catch (...) {
        logAt(LogLevel::kWarning, "the AgentX connection's close was not logged: out of memory");
    }
    return SNMPERR_SUCCESS;
}

int onAgentxOpened(int, int, void *, void *)
{
    try {
        setAgentxMasterConnected(true);
        if (g_agentxLog) {
            g_agentxLog->onOpened(AgentxLog::Clock::now());
        }
    } catch (...) {
        logAt(LogLevel::kWarning, "the AgentX connection's opening was not logged: out of memory");
    }
    return SNMPERR_SUCCESS;
}

// Logs what changed on the AgentX connection since the last call.
void flushAgentxLog()
{
    if (g_agentxLog) {
        for (const auto &[level, line] : g_agentxLog->flush(AgentxLog::Clock::now())) {
            logText(level, line);
        }
    }
}

// A subagent's master answers a registration with an error code, which
// net-snmp only logs ("registering pdu failed: 263"): the tree is then not
// served through that master, though the session is open. The line in
// words; empty for any other line.
std::string registrationRefused(std::string_view line)
{
    static constexpr std::string_view kPrefix = "registering pdu failed: ";
    if (!g_agentxLog || !line.starts_with(kPrefix))
        return {};
    const std::string_view code = line.substr(kPrefix.size());
    // AgentX's duplicateRegistration (RFC 2741).
    const std::string why = code.starts_with("263") ? "another subagent has registered it already"
                                                    : "AgentX error " + std::string(code);
    return "AgentX: the master refused to register the storage tree: " + why +
           "; nothing is served through it until this agent starts again";
}

} // namespace

int onNetsnmpLog(int, int, void *serverArg, void *)
{
    const auto *message = static_cast<const snmp_log_message *>(serverArg);
    if (message == nullptr || message->msg == nullptr) {
        return SNMPERR_SUCCESS;
    }
    try {
        g_pendingLog += message->msg;
        size_t end;
        while ((end = g_pendingLog.find('\n')) != std::string::npos) {
            const std::string_view line = std::string_view(g_pendingLog).substr(0, end);
            if (end > 0) {
                const bool agentx = g_agentxLog && g_agentxLog->onLibraryLine(line);
                if (const std::string refused = registrationRefused(line); !refused.empty())
                    logText(LogLevel::kError, refused);
                else if (agentx)
                    logText(LogLevel::kDebug, line);
                else if (!logAboutPacket(levelOf(message->priority), line))
                    logText(levelOf(message->priority), line);
            }
            g_pendingLog.erase(0, end + 1);
        }
    } catch (...) {
        // No memory to gather the line: this piece goes out as it stands,
        // and what was pending before it is dropped.
        g_pendingLog.clear();
        std::string_view piece(message->msg);
        while (!piece.empty() && piece.back() == '\n') {
            piece.remove_suffix(1);
        }
        if (!piece.empty()) {
            logText(levelOf(message->priority), piece);
        }
    }
    return SNMPERR_SUCCESS;
}

// Reads one configuration file for one pass (PREMIB_CONFIG or
// NORMAL_CONFIG) with the handlers of one application type: exported by
// libnetsnmp and used by its own read_configs_optional, but declared in no
// header.
extern "C" int read_config_with_type_when(const char *filename, const char *type, int when);

// net-snmp's list of open sessions: exported by libnetsnmp and laid out in
// its public snmp_api.h (struct session_list), but declared in no header.
extern "C" struct session_list *Sessions;

namespace {

// The persistent file net-snmp writes at every stop (and the agent at
// every start): <persistent dir>/kelpagent.conf. The library reads no
// configuration file here, so the agent reads this one itself, in both of
// the library's passes: the engine ID in the first (before the engine is
// set up from it), the boot counter in the second. Without it every start
// would make a new engine ID and count boots from 1 again, and SNMPv3
// managers would have to rediscover the agent.
std::string g_persistentFile;
// The file's boot count cannot be trusted: the engine starts anew, as with
// no file.
bool g_newEngine = false;

int readPersistentFile(int, int minor, void *, void *)
{
    struct stat st {};
    if (!g_newEngine && !g_persistentFile.empty() && stat(g_persistentFile.c_str(), &st) == 0) {
        read_config_with_type_when(g_persistentFile.c_str(), kAppName,
                                   minor == SNMP_CALLBACK_PRE_PREMIB_READ_CONFIG ? PREMIB_CONFIG
                                                                                 : NORMAL_CONFIG);
    }
    return SNMPERR_SUCCESS;
}

enum class PersistentState { kMissing, kIncomplete, kComplete };

// The first MiB of net-snmp's persistent file; nullopt when it cannot be
// opened (a first start has none).
std::optional<std::string> persistentText(const std::string &path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    ssize_t n;
    while (text.size() < (1u << 20) && (n = read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

// Whether net-snmp's persistent file holds the engine's ID and boot count
// on whole lines: what a later start needs to stay the same engine.
PersistentState persistentStateOf(const std::string &path)
{
    const std::optional<std::string> read = persistentText(path);
    if (!read) {
        return PersistentState::kMissing;
    }
    const std::string &text = *read;
    const bool complete = !text.empty() && text.back() == '\n' &&
                          text.find("\nengineBoots ") != std::string::npos &&
                          text.find("\noldEngineID ") != std::string::npos;
    return complete ? PersistentState::kComplete : PersistentState::kIncomplete;
}

// The value of the file's first line `key` (followed by a blank), or
// nullopt when it has none.
std::optional<std::string> persistentValue(const std::string &text, std::string_view key)
{
    const std::string prefix = std::string(key) + " ";
    size_t at = text.starts_with(prefix) ? 0 : text.find("\n" + prefix);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    at += at == 0 ? prefix.size() : prefix.size() + 1;
    const size_t end = text.find('\n', at);
    return text.substr(at, end == std::string::npos ? end : end - at);
}

// What is wrong with the engine state in the persistent file at `path`, for
// a warning at start: "" when the file is missing (a first start) or holds
// an engine ID as net-snmp writes it (0x and 5 to 32 octets in hex) and a
// boot count below its limit. *newEngine: the boot count cannot be trusted,
// so this start makes a new engine ID (the caller leaves the file unread).
// The count stops at 2147483647 and SNMPv3 with it (RFC 3414); a count
// net-snmp did not write could go back, and messages recorded before be
// taken again.
std::string engineIdProblem(const std::string &path, bool *newEngine)
{
    *newEngine = false;
    const std::optional<std::string> read = persistentText(path);
    if (!read) {
        return "";
    }
    const std::optional<std::string> id = persistentValue(*read, "oldEngineID");
    if (!id) {
        return "holds no engine ID: this start makes a new one and counts boots from 1";
    }
    const std::string &value = *id;
    const bool hex = value.size() >= 12 && value.size() <= 66 && value.size() % 2 == 0 &&
                     value.starts_with("0x") &&
                     value.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
    if (!hex) {
        return "holds an engine ID net-snmp did not write (" + value.substr(0, 80) +
               "): it is used as it stands";
    }
    // net-snmp counts from the file's value plus one, in an int.
    constexpr unsigned long long kLast = 2147483646;
    const std::optional<std::string> boots = persistentValue(*read, "engineBoots");
    std::string problem;
    if (!boots) {
        problem = "holds no boot count";
    } else if (boots->empty() || boots->size() > 19 ||
               boots->find_first_not_of("0123456789") != std::string::npos) {
        problem = "holds a boot count net-snmp did not write (" + boots->substr(0, 80) + ")";
    } else if (std::stoull(*boots) >= kLast) {
        problem = "holds a boot count at its limit (" + *boots + ")";
    } else {
        return "";
    }
    *newEngine = true;
    return problem + ": this start makes a new engine ID and counts boots from 1";
}

// Why a file in `dir` may have been written short, for the log.
std::string spaceLeftText(const std::string &dir)
{
    struct statvfs fs {};
    if (statvfs(dir.c_str(), &fs) == 0 && fs.f_bavail == 0) {
        return "no space left on the file system";
    }
    return "written incomplete";
}

// Whether the session answers requests on an address of its own: one the
// agent library opened to listen (its callback handles requests), not a
// client session (an SNMPv3 inform sink's socket).
bool listening(const session_list *slp)
{
    return slp->transport != nullptr && slp->transport->sock >= 0 && slp->session != nullptr &&
           slp->session->callback == handle_snmp_packet;
}

// The addresses of net-snmp's listening sessions' sockets, as bound (a port
// 0 or a name resolved), in the order net-snmp opened them.
std::vector<std::string> sessionAddresses()
{
    std::vector<std::string> addresses;
    for (const session_list *slp = Sessions; slp != nullptr; slp = slp->next) {
        if (!listening(slp)) {
            continue;
        }
        std::string text = boundSocketText(slp->transport->sock);
        if (!text.empty() &&
            std::find(addresses.begin(), addresses.end(), text) == addresses.end()) {
            addresses.push_back(std::move(text));
        }
    }
    // The list holds the newest session first.
    std::reverse(addresses.begin(), addresses.end());
    return addresses;
}

// True when one of net-snmp's open sessions listens on an address other
// than a loopback one (the wildcard address included).
bool listensBeyondLoopback()
{
    for (const session_list *slp = Sessions; slp != nullptr; slp = slp->next) {
        if (!listening(slp)) {
            continue;
        }
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (getsockname(slp->transport->sock, reinterpret_cast<sockaddr *>(&address), &length) !=
            0) {
            continue;
        }
        if (address.ss_family == AF_INET) {
            const auto *in = reinterpret_cast<const sockaddr_in *>(&address);
            if ((ntohl(in->sin_addr.s_addr) >> 24) != 127) {
                return true;
            }
        } else if (address.ss_family == AF_INET6) {
            const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(&address);
            if (!IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr)) {
                return true;
            }
        }
    }
    return false;
}

// Creates each user in net-snmp's USM, in memory, and makes the USM hold
// these users alone. net-snmp would write a created user's localized keys to
// its persistent file and read them back at the next start, keeping a user
// after its --v3-user is gone; read-only storage is never written, and the
// users read from an older file are removed. The line with the pass phrases
// goes through no file and no log.
bool createV3Users(const std::vector<V3Key> &keys, std::string *error)
{
    // The keys of a user read back from an older file may be stale.
    while (usmUser *user = usm_get_userList()) {
        usm_free_user(usm_remove_user(user));
    }
    u_char engineId[SNMP_MAXBUF_SMALL];
    const size_t engineIdLength = snmpv3_get_engineID(engineId, sizeof engineId);
    for (const V3Key &key : keys) {
        std::string arguments = createUserArguments(key.name, key.authPass, key.privPass);
        std::vector<char> line(arguments.begin(), arguments.end());
        line.push_back('\0');
        usm_parse_create_usmUser(nullptr, line.data());
        std::fill(line.begin(), line.end(), '\0');
        std::fill(arguments.begin(), arguments.end(), '\0');
        std::vector<char> name(key.name.begin(), key.name.end());
        name.push_back('\0');
        usmUser *user =
            engineIdLength == 0 ? nullptr : usm_get_user(engineId, engineIdLength, name.data());
        if (user == nullptr) {
            *error = "cannot create the SNMPv3 user " + key.name;
            return false;
        }
        user->userStorageType = ST_READONLY;
    }
    return true;
}

} // namespace

SnmpAgent::SnmpAgent() = default;

SnmpAgent::~SnmpAgent()
{
    shutdown();
}

bool SnmpAgent::init(const AgentSettings &settings, std::string *error)
{
    settings_ = settings;
    snmp_disable_log();
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, onNetsnmpLog, nullptr);
    snmp_enable_calllog();
    if (!makeStateDir(settings.persistentDir, error)) {
        return false;
    }
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        *error = "cannot make the wake-up pipe";
        return false;
    }
    g_wakeRead = fds[0];
    g_wakeWrite = fds[1];
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR,
                          settings.persistentDir.c_str());
    g_persistentFile = settings.persistentDir + "/" + kAppName + ".conf";
    if (const std::string problem = engineIdProblem(g_persistentFile, &g_newEngine);
        !problem.empty()) {
        logAt(LogLevel::kWarning,
              "the SNMP engine state %s %s; SNMPv3 receivers that know this agent by its engine "
              "ID (snmptrapd's createUser -e) must be given the one it now has",
              g_persistentFile.c_str(), problem.c_str());
    }
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_PRE_PREMIB_READ_CONFIG,
                           readPersistentFile, nullptr);
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_PRE_READ_CONFIG, readPersistentFile,
                           nullptr);
    // Timers (AgentX pings and reconnects) run from the main loop, not
    // from a SIGALRM handler in the middle of whatever the loop was doing.
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DISABLE_PERL, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID,
                           NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
    if (settings.subagent) {
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
        if (!settings.agentxSocket.empty()) {
            netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET,
                                  settings.agentxSocket.c_str());
        }
    } else {
        netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS,
                              settings.listen.c_str());
    }
    // Without this a master binds the SMUX port (TCP 199, on every address)
    // in init_master_agent whenever it may, as root. A subagent never
    // initialises SMUX; excluding it there too costs nothing.
    char noSmux[] = "-smux";
    add_to_init_list(noSmux);
    if (init_agent(kAppName) != 0) {
        *error = "net-snmp's agent library does not start";
        return false;
    }
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_MAX_GETBULKRESPONSES,
                       kMaxBulkVarbinds);
    if (settings.subagent) {
        // init_agent sets its own default (15 s); the first connection is
        // tried by init_snmp, the retries on this period.
        netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL,
                           kAgentxPingSeconds);
        // net-snmp's subagent calls these whenever it closes the session to
        // the master (a disconnect, an unanswered ping) and opens one.
        const std::string master = settings.agentxSocket.empty()
                                       ? std::string(NETSNMP_AGENTX_SOCKET)
                                       : settings.agentxSocket;
        g_agentxLog =
            std::make_unique<AgentxLog>(settings.agentxSocket, kAgentxPingSeconds,
                                        [master] { return AgentxLog::probeUnixSocket(master); });
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, onAgentxClosed,
                               nullptr);
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START,
                               onAgentxOpened, nullptr);
    }
    initialised_ = true;
    return true;
}

bool SnmpAgent::open(std::string *error)
{
    // Lines remembered now are read by init_snmp, in place of the files it
    // does not read. An agent names objects by number: parsing the MIB files
    // of this host would only cost time and warnings.
    remember("mibs :");
    // Nor does it look for them in any directory. Named here, the empty list
    // is what init_snmp reads; otherwise it makes the default list there,
    // and when it has no memory for it, it copies a null pointer and the
    // agent ends on SIGSEGV.
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIBDIRS, "");
    if (netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIBDIRS) == nullptr) {
        *error = "net-snmp does not start: out of memory";
        return false;
    }
    if (!settings_.subagent) {
        initStandardGroups();
    }
    registerStorageMib();
    if (!settings_.subagent) {
        rememberAll(accessLines(settings_.community));
        std::vector<std::string> users;
        for (const V3Key &key : settings_.v3Keys) {
            users.push_back(key.name);
        }
        rememberAll(v3AccessLines(users));
        rememberAll(systemLines(settings_.identity));
    }
    // init_snmp takes about 0.4 MiB and does not check every allocation it
    // makes (netsnmp_certs_init goes on without its container): under a
    // limit of address space, with less than 1 MiB left once the threads
    // have their stacks, it may end the agent on SIGSEGV. It is started only
    // with room for it.
    if (unsigned long limitMiB = 0; !heapRoomToStart(&limitMiB)) {
        *error = "address space limited to " + std::to_string(limitMiB) +
                 " MiB (ulimit -v): too little is left for net-snmp to start";
        return false;
    }
    init_snmp(kAppName);
    snmpStarted_ = true;
    V3InformUser informUser;
    if (!settings_.subagent) {
        // After init_snmp, which reads the engine ID the users' keys are
        // localized to.
        bool created = createV3Users(settings_.v3Keys, error);
        // The inform sinks localize the user's keys to each receiver's
        // engine ID: they get the keys before the pass phrases are wiped.
        for (const V3Key &key : settings_.v3Keys) {
            if (created && key.name == settings_.trapV3User) {
                created =
                    makeV3InformUser(key.name, key.authPass, key.privPass, &informUser, error);
            }
        }
        wipeV3Keys(&settings_.v3Keys);
        if (!created) {
            informUser.wipe();
            return false;
        }
        // engineBoots (already counting this start) and the engine ID on
        // disk now, so that a start that later crashes still counts.
        snmp_store(kAppName);
    }
    flushAgentxLog();
    if (!settings_.trapSinks.empty()) {
        TrapSinkSettings sinks;
        sinks.addresses = settings_.trapSinks;
        sinks.v1 = settings_.trapV1;
        sinks.informAll = settings_.trapInform;
        sinks.community = settings_.trapCommunity;
        sinks.v3User = settings_.trapV3User;
        sinks.inform.timeout = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::duration<double>(settings_.informTimeout));
        sinks.inform.retries = settings_.informRetries;
        sinks.v3Keys = informUser;
        traps_ = std::make_unique<TrapSinks>(sinks);
        sinks.v3Keys.wipe();
    }
    informUser.wipe();
    if (settings_.subagent) {
        return true;
    }
    if (std::string invalid = invalidListenAddress(settings_.listen); !invalid.empty()) {
        *error = "cannot listen on " + settings_.listen + ": " + invalid;
        return false;
    }
    const SessionMark beforeListening = markSessions();
    if (init_master_agent() != 0) {
        // net-snmp says only that the transport did not open; under a limit
        // of address space that is often its allocations that failed.
        unsigned long limitMiB = 0;
        *error = heapRoomToStart(&limitMiB)
                     ? "cannot listen on " + settings_.listen +
                           " (the port is in use, or the address is not this host's)"
                     : "cannot listen on " + settings_.listen +
                           ": out of memory (address space limited to " + std::to_string(limitMiB) +
                           " MiB by ulimit -v)";
        return false;
    }
    watchAccess(settings_.allow, !settings_.community.empty());
    if (fitBulkResponses() == 0) {
        logAt(LogLevel::kWarning,
              "this net-snmp's sessions are not laid out as expected: a GETBULK response too big "
              "for an SNMPv3 manager's message size is not cut to fit");
    }
    boundStreams(beforeListening, maxConnectionsFor(descriptorLimit()));
    notePacketSources();
    shareBetweenSources(beforeListening, settings_.maxWaiting, writeWakeByte);
    bound_ = sessionAddresses();
    if (!settings_.community.empty() && settings_.allow.empty() && listensBeyondLoopback()) {
        logAt(LogLevel::kWarning,
              "SNMPv1/v2c requests are answered beyond loopback from any source: give --allow "
              "NETWORK/PREFIX to limit who may query (a community travels in clear text)");
    }
    return true;
}

void SnmpAgent::sendColdStart()
{
    // With sinks given but none usable, the trap is still sent, to nowhere:
    // it is logged as a storage trap would be.
    if (!settings_.subagent && traps_) {
        sendTrapNow(coldStartTrap());
    }
}

void SnmpAgent::catchStopSignals()
{
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    sigaction(SIGUSR1, &action, nullptr);
    // A closed AgentX or control connection is an error return, not a
    // reason to die.
    std::signal(SIGPIPE, SIG_IGN);
}

void SnmpAgent::boundStops(void (*bound)())
{
    g_boundStop = bound;
}

bool SnmpAgent::running()
{
    return g_running != 0;
}

void SnmpAgent::run(const std::function<void()> &onWake, const std::function<void()> &onReload,
                    const std::function<void()> &onReopen)
{
    g_running = 1;
    register_readfd(g_wakeRead, drain, nullptr);
    // A SIGHUP or SIGUSR1 that came during the start, before the wake-up
    // pipe was made, wrote no wake-up: the first turn must not wait for a
    // request to act on it.
    if (g_reloadRequested != 0 || g_reopenRequested != 0) {
        writeWakeByte();
    }
    while (g_stopRequested == 0) {
        // Requests already read from a socket wait where select cannot
        // see them.
        checkAndProcess(!requestsWaiting());
        answerWaiting();
        flushAgentxLog();
        onWake();
        if (g_reloadRequested != 0 && g_stopRequested == 0) {
            g_reloadRequested = 0;
            onReload();
        }
        if (g_reopenRequested != 0 && g_stopRequested == 0) {
            g_reopenRequested = 0;
            if (onReopen) {
                onReopen();
            }
        }
    }
    logLine("stopping on a signal");

    // A second signal while stopping ends the process the default way.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGUSR1, SIG_IGN);
    unregister_readfd(g_wakeRead);
}

void SnmpAgent::wake()
{
    writeWakeByte();
}

bool SnmpAgent::hasTrapDestination() const
{
    return settings_.subagent || !settings_.trapSinks.empty();
}

void SnmpAgent::shutdown()
{
    traps_.reset();
    stopSharing();
    if (initialised_ && !snmpStarted_) {
        // A start that failed before init_snmp: net-snmp never read the
        // engine state, and would write one without the engine ID.
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        snmp_shutdown(kAppName);
        initialised_ = false;
    }
    if (initialised_) {
        // net-snmp rewrites the file line by line without checking a write:
        // on a full disk it would leave it empty, and the next start would
        // make a new engine ID and count boots from 1.
        const std::string kept = g_persistentFile + ".kept";
        unlink(kept.c_str());
        const bool keeping = !g_persistentFile.empty() &&
                             persistentStateOf(g_persistentFile) == PersistentState::kComplete &&
                             link(g_persistentFile.c_str(), kept.c_str()) == 0;
        snmp_shutdown(kAppName);
        initialised_ = false;
        snmpStarted_ = false;
        if (keeping) {
            if (persistentStateOf(g_persistentFile) == PersistentState::kComplete) {
                unlink(kept.c_str());
            } else if (rename(kept.c_str(), g_persistentFile.c_str()) == 0) {
                logAt(LogLevel::kError,
                      "cannot save the SNMP engine state to %s (%s): kept the one saved at start",
                      g_persistentFile.c_str(), spaceLeftText(settings_.persistentDir).c_str());
            } else {
                logAt(LogLevel::kError,
                      "cannot save the SNMP engine state to %s (%s), nor put back the one saved "
                      "at start (%s): %s",
                      g_persistentFile.c_str(), spaceLeftText(settings_.persistentDir).c_str(),
                      kept.c_str(), std::strerror(errno));
            }
        }
    }
    g_agentxLog.reset();
    // Nothing wakes the loop any more: the trap queue is closed and the
    // plug-in's threads have ended before the caller shuts down.
    for (std::atomic<int> *fd : {&g_wakeWrite, &g_wakeRead}) {
        const int old = fd->exchange(-1);
        if (old >= 0) {
            close(old);
        }
    }
}

} // namespace kelp::agent
