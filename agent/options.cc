// Command-line parsing over a table of option rows. Adding an option is
// adding a row (and a field of Options); the row is a key of the
// configuration file too (config.cc), and docs/man/kelpagent.8 and
// kelpagent.conf.5 must name it (the man_ tests check).
#include "options.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string_view>

namespace kelp::agent {
namespace {

// kRepeated takes a value like kRequired, and each use adds one to a list
// (its help says "repeatable"); the configuration file lets only these
// repeat.
enum class Arg { kNone, kRequired, kOptional, kRepeated };

struct OptionRow {
    const char *name; // without the leading "--"
    Arg arg;
    const char *valueName;
    const char *help;
    // Applies the option; false with *error for a bad value.
    bool (*apply)(Options &options, const std::string &value, std::string *error);
};

bool setPath(std::string *field, const std::string &value, const char *what, std::string *error)
{
    if (value.empty()) {
        *error = std::string(what) + " needs a non-empty path";
        return false;
    }
    *field = value;
    return true;
}

bool setWord(std::string *field, const std::string &value, const char *what, std::string *error)
{
    // The agent hands some of these to net-snmp as configuration lines,
    // where blanks and quotes would split or change the line.
    if (value.empty() || value.find_first_of(" \t\n\"'") != std::string::npos) {
        *error = std::string(what) + " must be a non-empty word without blanks or quotes";
        return false;
    }
    *field = value;
    return true;
}

// A text that becomes the rest of one net-snmp configuration line: any
// characters but line ends and other controls, at most kMaxSystemText bytes
// (the system group's limit).
bool setText(std::string *field, const std::string &value, const char *what, std::string *error)
{
    if (value.empty() || value.size() > kMaxSystemText) {
        *error = std::string(what) + " takes 1 to " + std::to_string(kMaxSystemText) +
                 " bytes, not " + std::to_string(value.size());
        return false;
    }
    for (const char c : value) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            *error = std::string(what) + " must not hold line ends or other control characters";
            return false;
        }
    }
    *field = value;
    return true;
}

// A community net-snmp can match: a word of at most kMaxCommunity bytes
// (its fields hold 256 bytes; a longer one would be accepted here and then
// never match).
bool setCommunity(std::string *field, const std::string &value, const char *what,
                  std::string *error)
{
    if (value.size() > kMaxCommunity) {
        *error = std::string(what) + " takes at most " + std::to_string(kMaxCommunity) +
                 " bytes, not " + std::to_string(value.size());
        return false;
    }
    return setWord(field, value, what, error);
}

// `value` as a decimal number of seconds ("30", "0.5", ".25") and nothing
// else: no sign, blank, exponent or hexadecimal, which strtod would take.
bool parseSeconds(const std::string &value, double *seconds)
{
    const size_t digits = value.find_first_not_of("0123456789");
    if (digits != std::string::npos &&
        (value[digits] != '.' ||
         value.find_first_not_of("0123456789", digits + 1) != std::string::npos))
        return false;
    if (value.empty() || value == ".")
        return false;
    char *end = nullptr;
    errno = 0;
    *seconds = std::strtod(value.c_str(), &end);
    return errno == 0 && end != nullptr && *end == '\0' && std::isfinite(*seconds);
}

// A number of seconds in (0, max] (at least `min`), finite.
bool setSeconds(double *field, const std::string &value, double min, double max, const char *what,
                std::string *error)
{
    double seconds = 0;
    if (!parseSeconds(value, &seconds) || seconds <= 0 || seconds < min || seconds > max) {
        std::ostringstream bounds;
        bounds << what << " takes a number of seconds from " << min << " to " << max << ", not \""
               << value << "\"";
        *error = bounds.str();
        return false;
    }
    *field = seconds;
    return true;
}

constexpr OptionRow kOptions[] = {
    {"config", Arg::kRequired, "FILE", "read options from FILE; the command line wins",
     [](Options &o, const std::string &v, std::string *e) {
         return setPath(&o.config, v, "--config", e);
     }},
    {"model", Arg::kRequired, "FILE", "storage model the data store serves",
     [](Options &o, const std::string &v, std::string *e) {
         return setPath(&o.model, v, "--model", e);
     }},
    {"listen", Arg::kRequired, "ADDR", "address to answer SNMP on (net-snmp transport syntax)",
     [](Options &o, const std::string &v, std::string *e) {
         return setWord(&o.listen, v, "--listen", e);
     }},
    {"community", Arg::kRequired, "NAME", "the read-only community",
     [](Options &o, const std::string &v, std::string *e) {
         return setCommunity(&o.community, v, "--community", e);
     }},
    {"no-v1v2c", Arg::kNone, nullptr, "answer no SNMPv1 or SNMPv2c request (SNMPv3 users only)",
     [](Options &o, const std::string &, std::string *) { return o.noV1v2c = true; }},
    {"v3-user", Arg::kRepeated, "NAME",
     "an SNMPv3 user with read access, SHA-512 authentication and AES-256 privacy "
     "(repeatable; its pass phrases are in --v3-keys)",
     [](Options &o, const std::string &v, std::string *e) {
         std::string user;
         if (!setWord(&user, v, "--v3-user", e)) {
             return false;
         }
         if (user.size() > 32 || user.find('\\') != std::string::npos) {
             *e = "--v3-user takes a name of 1 to 32 bytes without backslashes";
             return false;
         }
         // The same user named again (in the configuration file and on the
         // command line, say) is the same user.
         if (std::find(o.v3Users.begin(), o.v3Users.end(), user) == o.v3Users.end()) {
             o.v3Users.push_back(user);
         }
         return true;
     }},
    {"v3-keys", Arg::kRequired, "FILE",
     "the SNMPv3 users' pass phrases, one \"NAME AUTHPASS PRIVPASS\" a line; mode 0600",
     [](Options &o, const std::string &v, std::string *e) {
         return setPath(&o.v3Keys, v, "--v3-keys", e);
     }},
    {"allow", Arg::kRepeated, "NETWORK/PREFIX",
     "answer only requests from this IPv4 or IPv6 network (repeatable; default: any source)",
     [](Options &o, const std::string &v, std::string *e) {
         Network network;
         if (!parseNetwork(v, &network, e)) {
             return false;
         }
         o.allow.push_back(network);
         o.allowText.push_back(v);
         return true;
     }},
    {"max-waiting", Arg::kRequired, "N",
     "requests held read but unanswered, served one source at a time; a flooding source "
     "loses its excess (256; 0: answered in order of arrival)",
     [](Options &o, const std::string &v, std::string *e) {
         char *end = nullptr;
         errno = 0;
         const long long waiting = std::strtoll(v.c_str(), &end, 10);
         if (v.empty() || errno != 0 || *end != '\0' || waiting < 0 ||
             waiting > static_cast<long long>(kMaxMaxWaiting)) {
             *e = "--max-waiting takes a whole number from 0 to " + std::to_string(kMaxMaxWaiting) +
                  ", not \"" + v + "\"";
             return false;
         }
         o.maxWaiting = static_cast<size_t>(waiting);
         return true;
     }},
    {"agentx", Arg::kOptional, "SOCKET",
     "run as an AgentX subagent of a running snmpd (socket: /var/agentx/master)",
     [](Options &o, const std::string &v, std::string *e) {
         o.agentx = true;
         return v.empty() || setWord(&o.agentxSocket, v, "--agentx", e);
     }},
    {"trap-sink", Arg::kRepeated, "ADDR",
     "send traps there (repeatable; e.g. udp:127.0.0.1:162; inform:ADDR for an "
     "acknowledged inform: SNMPv2c, or SNMPv3 with --trap-v3-user)",
     [](Options &o, const std::string &v, std::string *e) {
         std::string sink;
         if (!setWord(&sink, v, "--trap-sink", e)) {
             return false;
         }
         o.trapSinks.push_back(sink);
         return true;
     }},
    {"trap-version", Arg::kRequired, "1|2c|2c-inform",
     "SNMPv1 traps, SNMPv2c notifications or informs (SNMPv3 with --trap-v3-user) to every "
     "sink (2c)",
     [](Options &o, const std::string &v, std::string *e) {
         if (v != "1" && v != "2c" && v != "2c-inform") {
             *e = "--trap-version takes 1, 2c or 2c-inform, not \"" + v + "\"";
             return false;
         }
         o.trapV1 = v == "1";
         o.trapInform = v == "2c-inform";
         return true;
     }},
    {"trap-community", Arg::kRequired, "NAME", "the community traps carry (the read community)",
     [](Options &o, const std::string &v, std::string *e) {
         return setCommunity(&o.trapCommunity, v, "--trap-community", e);
     }},
    {"trap-v3-user", Arg::kRequired, "NAME",
     "send SNMPv3 traps and informs (authPriv) as this --v3-user instead of SNMPv2c ones "
     "(informs after discovering each receiver's engine ID)",
     [](Options &o, const std::string &v, std::string *e) {
         return setWord(&o.trapV3User, v, "--trap-v3-user", e);
     }},
    {"inform-timeout", Arg::kRequired, "SECONDS",
     "send an unacknowledged inform again after this long (1)",
     [](Options &o, const std::string &v, std::string *e) {
         return setSeconds(&o.informTimeout, v, kMinInformTimeout, kMaxInformTimeout,
                           "--inform-timeout", e);
     }},
    {"inform-retries", Arg::kRequired, "N",
     "times an unacknowledged inform is sent again before it is given up (5)",
     [](Options &o, const std::string &v, std::string *e) {
         char *end = nullptr;
         errno = 0;
         const long retries = std::strtol(v.c_str(), &end, 10);
         if (v.empty() || errno != 0 || *end != '\0' || retries < 0 ||
             retries > kMaxInformRetries) {
             *e = "--inform-retries takes a whole number from 0 to " +
                  std::to_string(kMaxInformRetries) + ", not \"" + v + "\"";
             return false;
         }
         o.informRetries = static_cast<int>(retries);
         return true;
     }},
    {"ini", Arg::kRequired, "FILE", "the private ini store",
     [](Options &o, const std::string &v, std::string *e) {
         return setPath(&o.ini, v, "--ini", e);
     }},
    {"state-dir", Arg::kRequired, "DIR", "where the agent keeps its files",
     [](Options &o, const std::string &v, std::string *e) {
         return setPath(&o.stateDir, v, "--state-dir", e);
     }},
    {"control", Arg::kRequired, "SOCKET", "the control socket kelpctl talks to",
     [](Options &o, const std::string &v, std::string *e) {
         return setPath(&o.control, v, "--control", e);
     }},
    {"module", Arg::kRequired, "PATH", "the MIB implementer plug-in",
     [](Options &o, const std::string &v, std::string *e) {
         return setPath(&o.module, v, "--module", e);
     }},
    {"sys-contact", Arg::kRequired, "TEXT", "sysContact (root@localhost)",
     [](Options &o, const std::string &v, std::string *e) {
         return setText(&o.sysContact, v, "--sys-contact", e);
     }},
    {"sys-name", Arg::kRequired, "TEXT", "sysName (this host's name)",
     [](Options &o, const std::string &v, std::string *e) {
         return setText(&o.sysName, v, "--sys-name", e);
     }},
    {"sys-location", Arg::kRequired, "TEXT", "sysLocation (unknown)",
     [](Options &o, const std::string &v, std::string *e) {
         return setText(&o.sysLocation, v, "--sys-location", e);
     }},
    {"rescan-timeout", Arg::kRequired, "SECONDS",
     "hand the plug-in a rescan's end when the storage service gives none that long after its "
     "start (30)",
     [](Options &o, const std::string &v, std::string *e) {
         double seconds = 0;
         if (!parseSeconds(v, &seconds) || seconds <= 0 || seconds > kMaxRescanTimeout) {
             *e = "--rescan-timeout takes a number of seconds above 0 and up to " +
                  std::to_string(static_cast<int>(kMaxRescanTimeout)) + ", not \"" + v + "\"";
             return false;
         }
         o.rescanTimeout = seconds;
         return true;
     }},
    {"live", Arg::kNone, nullptr, "serve the storage of this machine (sysfs) instead of a model",
     [](Options &o, const std::string &, std::string *) { return o.live = true; }},
    {"live-root", Arg::kRequired, "DIR",
     "read /sys, /dev and /run/udev below DIR, e.g. a captured tree (/; implies --live)",
     [](Options &o, const std::string &v, std::string *e) {
         o.live = true;
         return setPath(&o.liveRoot, v, "--live-root", e);
     }},
    {"live-interval", Arg::kRequired, "SECONDS",
     "rescan the live storage this often, and at once on udev events (30)",
     [](Options &o, const std::string &v, std::string *e) {
         double seconds = 0;
         if (!parseSeconds(v, &seconds) || seconds <= 0 || seconds > kMaxLiveInterval) {
             *e = "--live-interval takes a number of seconds above 0 and up to " +
                  std::to_string(static_cast<int>(kMaxLiveInterval)) + ", not \"" + v + "\"";
             return false;
         }
         o.liveInterval = seconds;
         return true;
     }},
    {"live-health-interval", Arg::kRequired, "SECONDS",
     "ask each drive for its health at most this often, 0 at every rescan (300)",
     [](Options &o, const std::string &v, std::string *e) {
         double seconds = 0;
         if (!parseSeconds(v, &seconds) || seconds < 0 || seconds > kMaxLiveInterval) {
             *e = "--live-health-interval takes a number of seconds from 0 up to " +
                  std::to_string(static_cast<int>(kMaxLiveInterval)) + ", not \"" + v + "\"";
             return false;
         }
         o.liveHealthInterval = seconds;
         return true;
     }},
    {"allow-root", Arg::kNone, nullptr, "run as root (refused otherwise; see --user)",
     [](Options &o, const std::string &, std::string *) { return o.allowRoot = true; }},
    {"user", Arg::kRequired, "NAME",
     "started as root: run as this user once the SNMP port is bound",
     [](Options &o, const std::string &v, std::string *e) {
         return setWord(&o.user, v, "--user", e);
     }},
    {"syslog", Arg::kNone, nullptr, "log to syslog (facility daemon) instead of stderr",
     [](Options &o, const std::string &, std::string *) { return o.syslog = true; }},
    {"log-priorities", Arg::kNone, nullptr,
     "start every stderr line with its syslog priority, <3> to <7> (always under journald)",
     [](Options &o, const std::string &, std::string *) { return o.logPriorities = true; }},
    {"debug", Arg::kNone, nullptr,
     "debug printing of the plug-in into <state-dir>/debug.log (the ini file is not changed)",
     [](Options &o, const std::string &, std::string *) { return o.debug = true; }},
    {"help", Arg::kNone, nullptr, "this text (also -h)",
     [](Options &o, const std::string &, std::string *) { return o.help = true; }},
    {"version", Arg::kNone, nullptr, "the version",
     [](Options &o, const std::string &, std::string *) { return o.version = true; }},
};

const OptionRow *findOption(std::string_view name)
{
    for (const OptionRow &row : kOptions) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

bool isFile(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

} // namespace

const std::string &trapCommunityOf(const Options &options)
{
    return options.trapCommunity.empty() ? options.community : options.trapCommunity;
}

bool parseOptions(int argc, const char *const *argv, Options *options, std::string *error,
                  std::vector<std::string> *given)
{
    for (int i = 1; i < argc; i++) {
        std::string_view word = argv[i];
        if (word == "-h") {
            word = "--help";
        }
        if (!word.starts_with("--")) {
            *error = "unexpected argument \"" + std::string(word) + "\"";
            return false;
        }
        word.remove_prefix(2);
        const size_t equals = word.find('=');
        const std::string_view name = word.substr(0, equals);
        const OptionRow *row = findOption(name);
        if (row == nullptr) {
            *error = "unknown option --" + std::string(name);
            return false;
        }
        std::string value;
        if (equals != std::string_view::npos) {
            if (row->arg == Arg::kNone) {
                *error = "--" + std::string(name) + " takes no value";
                return false;
            }
            value = std::string(word.substr(equals + 1));
        } else if (row->arg == Arg::kRequired || row->arg == Arg::kRepeated) {
            if (i + 1 >= argc) {
                *error = "--" + std::string(name) + " needs " + row->valueName;
                return false;
            }
            value = argv[++i];
        } else if (row->arg == Arg::kOptional && i + 1 < argc &&
                   std::strncmp(argv[i + 1], "--", 2) != 0) {
            value = argv[++i];
        }
        if (!row->apply(*options, value, error)) {
            return false;
        }
        if (given != nullptr) {
            given->emplace_back(row->name);
        }
    }
    return true;
}

std::vector<OptionShape> optionShapes()
{
    std::vector<OptionShape> shapes;
    for (const OptionRow &row : kOptions) {
        const OptionArg arg = row.arg == Arg::kNone       ? OptionArg::kNone
                              : row.arg == Arg::kOptional ? OptionArg::kOptional
                                                          : OptionArg::kRequired;
        shapes.push_back({row.name, arg, row.arg == Arg::kRepeated,
                          row.valueName == nullptr ? "" : row.valueName, row.help});
    }
    return shapes;
}

bool applyOption(std::string_view name, const std::string &value, Options *options,
                 std::string *error)
{
    const OptionRow *row = findOption(name);
    if (row == nullptr) {
        *error = "unknown option --" + std::string(name);
        return false;
    }
    return row->apply(*options, value, error);
}

bool completeOptions(const DefaultPlaces &places, Options *options, std::string *error)
{
    if (!options->v3Users.empty() && options->v3Keys.empty()) {
        *error = "--v3-user needs --v3-keys FILE with the user's pass phrases";
        return false;
    }
    if (options->v3Users.empty() && !options->v3Keys.empty()) {
        *error = "--v3-keys names no user: give --v3-user NAME for each user to serve";
        return false;
    }
    if (options->noV1v2c && options->v3Users.empty() && !options->agentx) {
        *error = "--no-v1v2c without --v3-user would answer nobody";
        return false;
    }
    if (!options->trapV3User.empty() && std::find(options->v3Users.begin(), options->v3Users.end(),
                                                  options->trapV3User) == options->v3Users.end()) {
        *error = "--trap-v3-user " + options->trapV3User + " is not one of the --v3-user users";
        return false;
    }
    if (!options->trapV3User.empty() && options->trapV1) {
        *error = "--trap-v3-user sends SNMPv3 traps and informs: it does not go with "
                 "--trap-version 1";
        return false;
    }
    if (options->agentx &&
        (options->noV1v2c || !options->v3Users.empty() || !options->allow.empty())) {
        *error = "--no-v1v2c, --v3-user and --allow apply to the agent's own address; an AgentX "
                 "subagent is reached through its master, whose access control applies";
        return false;
    }
    if (options->stateDir.empty()) {
        if (places.stateDir.empty()) {
            *error = "no state dir: set XDG_STATE_HOME or HOME, or give --state-dir";
            return false;
        }
        options->stateDir = places.stateDir;
    }
    if (options->ini.empty()) {
        options->ini = options->stateDir + "/" + std::string(kStateIni);
    }
    if (options->control.empty()) {
        options->control = options->stateDir + "/" + std::string(kStateControl);
    }
    if (options->module.empty()) {
        options->module = places.module;
    }
    if (options->live) {
        if (!options->model.empty()) {
            *error = "--model and --live exclude each other: the live source serves this "
                     "machine's storage in place of a model";
            return false;
        }
        return true;
    }
    if (options->model.empty()) {
        for (const std::string &candidate : places.modelCandidates) {
            if (isFile(candidate)) {
                options->model = candidate;
                return true;
            }
        }
        *error = "no --model given and no sample model found (see --help)";
        return false;
    }
    return true;
}

std::string usageText(const DefaultPlaces &places)
{
    std::ostringstream text;
    text << "usage: kelpagent [options]\n\n"
            "An SNMP agent serving the storage MIB 1.3.6.1.4.1.61234.20571.1.20 through the\n"
            "kelp plug-in. Runs in the foreground, logs to stderr, stops on SIGINT/SIGTERM.\n\n"
            "options:\n";
    for (const OptionRow &row : kOptions) {
        std::string left = std::string("--") + row.name;
        if (row.arg == Arg::kRequired || row.arg == Arg::kRepeated) {
            left += std::string(" ") + row.valueName;
        } else if (row.arg == Arg::kOptional) {
            left += std::string(" [") + row.valueName + "]";
        }
        text << "  " << left << std::string(left.size() < 22 ? 22 - left.size() : 1, ' ')
             << row.help << "\n";
    }
    text << "\ndefaults:\n"
         << "  --config "
         << (places.config.empty() ? "none (a kelpagent in its build tree reads no file)"
                                   : places.config + " when it exists")
         << "\n"
         << "  --listen " << kDefaultListen << ", --community " << kDefaultCommunity
         << " (read-only), no trap sink, --trap-version 2c,\n"
         << "  --trap-community: the read community\n"
         << "  no SNMPv3 user, every source may query (no --allow); root is refused\n"
         << "  without --allow-root or --user\n"
         << "  --state-dir "
         << (places.stateDir.empty() ? "$XDG_STATE_HOME/kelp or ~/.local/state/kelp"
                                     : places.stateDir)
         << " (created 0700)\n"
         << "  --ini <state-dir>/kelp.ini, --control <state-dir>/control.sock\n"
         << "  --module " << places.module << "\n"
         << "  --model: the first of these that exists:\n";
    for (const std::string &candidate : places.modelCandidates) {
        text << "    " << candidate << (isFile(candidate) ? "  (found)" : "") << "\n";
    }
    text << "\nNothing is written outside the state dir: net-snmp's persistent files go to\n"
            "<state-dir>/snmp, debug lines to <state-dir>/debug.log; /etc/snmp is not read.\n";
    return text.str();
}

double stopTimeoutFrom(const char *text, std::string *warning)
{
    double seconds = kDefaultStopTimeout;
    if (text != nullptr && *text != '\0' &&
        !setSeconds(&seconds, text, kMinStopTimeout, kMaxStopTimeout, "KELP_STOP_TIMEOUT",
                    warning)) {
        *warning += "; using " + std::to_string(static_cast<int>(kDefaultStopTimeout));
    }
    return seconds;
}

} // namespace kelp::agent
