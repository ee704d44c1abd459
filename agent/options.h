// kelpagent's command line: the options as rows of one table, their
// defaults, and the help text made from the same table.
#ifndef KELP_AGENT_OPTIONS_H
#define KELP_AGENT_OPTIONS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "access.h"

namespace kelp::agent {

// What the agent makes in its state dir (paths.h isKelpStateEntry): the ini
// file (and the ini store's "<file>.lock" beside it), the control socket,
// the debug file, net-snmp's persistent dir and the dir's lock.
inline constexpr std::string_view kStateIni = "kelp.ini";
inline constexpr std::string_view kStateControl = "control.sock";
inline constexpr std::string_view kStateDebugLog = "debug.log";
inline constexpr std::string_view kStateSnmpDir = "snmp";
inline constexpr std::string_view kStateLock = "kelpagent.lock";

inline constexpr const char *kDefaultListen = "udp:127.0.0.1:1161";
inline constexpr const char *kDefaultCommunity = "public";
inline constexpr const char *kDefaultSysContact = "root@localhost";
inline constexpr const char *kDefaultSysLocation = "unknown";
// The longest community net-snmp matches (its fields hold 256 bytes with
// the terminating zero).
inline constexpr size_t kMaxCommunity = 255;
// The longest sysContact, sysName or sysLocation net-snmp keeps.
inline constexpr size_t kMaxSystemText = 255;

// Seconds between two rescans of the live source, by default and at most.
inline constexpr double kDefaultLiveInterval = 30;
inline constexpr double kMaxLiveInterval = 86400;
// How long a drive's health answer stands before the live source asks again.
inline constexpr double kDefaultLiveHealthInterval = 300;

// The longest --rescan-timeout: a day.
inline constexpr double kMaxRescanTimeout = 86400;

// An inform unacknowledged after this many seconds is sent again, at most
// this many times more (net-snmp's own defaults for its sessions); the
// bounds of --inform-timeout and --inform-retries.
inline constexpr double kDefaultInformTimeout = 1;
inline constexpr double kMinInformTimeout = 0.01;
inline constexpr double kMaxInformTimeout = 60;
inline constexpr int kDefaultInformRetries = 5;
inline constexpr int kMaxInformRetries = 20;

// The longest a stop may take by default, and the bounds KELP_STOP_TIMEOUT
// may give it instead: a plug-in thread that never ends would hold the stop
// for good; the agent then ends by itself, within the 90 s systemd waits.
inline constexpr double kDefaultStopTimeout = 60;
inline constexpr double kMinStopTimeout = 0.01;
inline constexpr double kMaxStopTimeout = 86400;

// Requests a master holds read from its sockets and not yet answered, by
// default and at most (--max-waiting; 0 answers in order of arrival).
inline constexpr size_t kDefaultMaxWaiting = 256;
inline constexpr size_t kMaxMaxWaiting = 65536;

struct Options {
    std::string config; // --config; empty: DefaultPlaces::config when that file exists
    std::string model;  // empty: the first sample model found (modelCandidates)
    std::string listen = kDefaultListen;
    std::string community = kDefaultCommunity;
    bool noV1v2c = false;                   // --no-v1v2c: no community answers
    std::vector<std::string> v3Users;       // --v3-user, in order
    std::string v3Keys;                     // --v3-keys: the users' pass phrases
    std::vector<Network> allow;             // --allow; empty: every source
    std::vector<std::string> allowText;     // --allow as given, for the log
    size_t maxWaiting = kDefaultMaxWaiting; // --max-waiting
    bool allowRoot = false;                 // --allow-root
    std::string user;                       // --user: run as this user once the ports are bound
    bool agentx = false;
    std::string agentxSocket; // empty: net-snmp's default, /var/agentx/master
    std::vector<std::string> trapSinks;
    bool trapV1 = false;       // --trap-version 1; 2c otherwise
    bool trapInform = false;   // --trap-version 2c-inform: every sink is an inform sink
    std::string trapCommunity; // empty: the read community (trapCommunityOf)
    std::string trapV3User;    // --trap-v3-user: SNMPv3 traps as this --v3-user
    double informTimeout = kDefaultInformTimeout; // seconds
    int informRetries = kDefaultInformRetries;
    std::string ini;      // empty: <state-dir>/kelp.ini
    std::string stateDir; // empty: $XDG_STATE_HOME/kelp or ~/.local/state/kelp
    std::string control;  // empty: <state-dir>/control.sock
    std::string module;   // empty: <bin>/../lib/libkelpimp64.so
    std::string sysContact = kDefaultSysContact;
    std::string sysName; // empty: this host's name
    std::string sysLocation = kDefaultSysLocation;
    double rescanTimeout = 0; // seconds; 0: the runtime's (KELP_RESCAN_TIMEOUT, else 30)
    bool live = false;        // serve this machine's storage (--live, or --live-root)
    std::string liveRoot = "/";
    double liveInterval = kDefaultLiveInterval;             // seconds between rescans
    double liveHealthInterval = kDefaultLiveHealthInterval; // seconds; 0: every rescan
    bool syslog = false;
    bool logPriorities = false; // "<N>" before every stderr line (always under journald)
    bool debug = false;
    bool help = false;
    bool version = false;
};

// The community traps and informs carry: --trap-community, or the read
// community when none is given.
const std::string &trapCommunityOf(const Options &options);

// Parses argv into *options (starting from the defaults above). Accepts
// "--name value" and "--name=value"; --agentx takes a socket only when the
// next word is not an option. When `given` is not null it receives the
// names of the options on the command line (without dashes), in order.
// False with a message for a usage error.
bool parseOptions(int argc, const char *const *argv, Options *options, std::string *error,
                  std::vector<std::string> *given = nullptr);

// What an option takes: nothing (a flag), a value, or a value only when one
// follows (--agentx).
enum class OptionArg { kNone, kRequired, kOptional };

// One row of the option table as the configuration file sees it.
struct OptionShape {
    std::string_view name; // without the leading "--"
    OptionArg arg;
    bool repeatable; // each use adds to a list (--trap-sink); otherwise the last use wins
    std::string_view valueName;
    std::string_view help;
};

// Every option, in the order --help lists them.
std::vector<OptionShape> optionShapes();

// Applies option `name` (without dashes) with `value` to *options exactly
// as the command line does; `value` is ignored for a flag and empty means
// "no value" for an optional one. False with a message for an unknown name
// or a bad value.
bool applyOption(std::string_view name, const std::string &value, Options *options,
                 std::string *error);

// Where the defaults of the empty fields come from, for --help and startup.
struct DefaultPlaces {
    std::string stateDir;                     // may be empty when HOME is unknown
    std::vector<std::string> modelCandidates; // in the order tried
    std::string module;
    std::string config; // the configuration file read without --config; empty: none
};

// Fills the empty fields from `places`. False with a message when no model
// is named and none of the candidates exists, or no state dir is known.
bool completeOptions(const DefaultPlaces &places, Options *options, std::string *error);

// The --help text.
std::string usageText(const DefaultPlaces &places);

// The seconds a stop may take, from KELP_STOP_TIMEOUT's value (`text`, null
// when unset): kDefaultStopTimeout when unset or empty, and also, with the reason in
// *warning, when it is not a number of seconds within the bounds.
double stopTimeoutFrom(const char *text, std::string *warning);

} // namespace kelp::agent

#endif // KELP_AGENT_OPTIONS_H
