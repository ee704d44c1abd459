// walker: walks one subtree of an agent over one SNMPv2c session, with
// GetNext or GetBulk, and prints only the totals, so that a walk's rate is
// the agent's and the network's, without the start-up and the printing of
// net-snmp's command-line tools.
//
//   walker [--bulk N] [--repeat K] [--community C] [--timeout S] ADDRESS OID
//
// Prints one line at the end: "VARBINDS varbinds REQUESTS requests SECONDS s
// RATE varbinds/s", over all K walks (wall time on the steady clock, from the
// first request sent to the last answer read). A walk ends at the first name
// outside OID or at endOfMibView. A time-out, an error-status or a name that
// does not follow the one before is reported on stderr, and the exit status
// is 1 (2 for bad arguments). Bench use only (bench/agent_floor.sh).
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Settings {
    long bulk = 0; // max-repetitions of each GetBulk; 0: GetNext
    unsigned long repeat = 1;
    std::string community = "public";
    double timeout = 5;
    std::string address;
    std::vector<oid> root;
};

struct Totals {
    unsigned long varbinds = 0;
    unsigned long requests = 0;
};

[[noreturn]] void usage(const char *why)
{
    if (why != nullptr) {
        std::fprintf(stderr, "walker: %s\n", why);
    }
    std::fprintf(stderr, "usage: walker [--bulk N] [--repeat K] [--community C] [--timeout S] "
                         "ADDRESS OID\n");
    std::exit(2);
}

unsigned long number(const char *option, const char *text, unsigned long low, unsigned long high)
{
    char *end = nullptr;
    const unsigned long n = std::strtoul(text, &end, 10);
    if (*text == '\0' || *text == '-' || *end != '\0' || n < low || n > high) {
        std::fprintf(stderr, "walker: %s takes a whole number from %lu to %lu, not \"%s\"\n",
                     option, low, high, text);
        std::exit(2);
    }
    return n;
}

// Numeric names only: the walker reads no MIB files.
std::vector<oid> parseName(const char *text)
{
    std::vector<oid> name;
    const char *p = *text == '.' ? text + 1 : text;
    while (*p != '\0') {
        char *end = nullptr;
        if (*p < '0' || *p > '9') {
            break;
        }
        name.push_back(std::strtoull(p, &end, 10));
        p = end;
        if (*p == '.') {
            p++;
            if (*p == '\0') {
                break;
            }
        } else if (*p != '\0') {
            break;
        }
    }
    if (*p != '\0' || name.size() < 2 || name.size() > MAX_OID_LEN) {
        std::fprintf(stderr, "walker: not a numeric object name: \"%s\"\n", text);
        std::exit(2);
    }
    return name;
}

Settings parseArguments(int argc, char **argv)
{
    Settings settings;
    std::vector<const char *> operands;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--bulk" && hasValue) {
            settings.bulk = static_cast<long>(number("--bulk", argv[++i], 1, 10000));
        } else if (arg == "--repeat" && hasValue) {
            settings.repeat = number("--repeat", argv[++i], 1, 1000000);
        } else if (arg == "--community" && hasValue) {
            settings.community = argv[++i];
        } else if (arg == "--timeout" && hasValue) {
            settings.timeout = static_cast<double>(number("--timeout", argv[++i], 1, 600));
        } else if (arg.size() > 1 && arg[0] == '-') {
            usage(("unknown option or missing value: " + arg).c_str());
        } else {
            operands.push_back(argv[i]);
        }
    }
    if (operands.size() != 2) {
        usage(nullptr);
    }
    settings.address = operands[0];
    settings.root = parseName(operands[1]);
    return settings;
}

std::string nameText(const oid *name, size_t length)
{
    std::string text;
    for (size_t i = 0; i < length; i++) {
        text += '.';
        text += std::to_string(name[i]);
    }
    return text;
}

class Walker {
  public:
    // Opens the session; exits 1 when net-snmp cannot.
    explicit Walker(const Settings &settings) : settings_(settings)
    {
        netsnmp_session config;
        snmp_sess_init(&config);
        config.version = SNMP_VERSION_2c;
        config.peername = const_cast<char *>(settings.address.c_str());
        config.community =
            reinterpret_cast<u_char *>(const_cast<char *>(settings.community.data()));
        config.community_len = settings.community.size();
        config.timeout = static_cast<long>(settings.timeout * 1e6);
        config.retries = 0;
        session_ = snmp_sess_open(&config);
        if (session_ == nullptr) {
            std::fprintf(stderr, "walker: cannot open a session to %s\n", settings.address.c_str());
            std::exit(1);
        }
    }
    ~Walker() { snmp_sess_close(session_); }
    Walker(const Walker &) = delete;
    Walker &operator=(const Walker &) = delete;

    // One walk of the subtree from its root; adds to `totals`. False, with
    // the reason on stderr, on a time-out, an error-status or a name that
    // does not follow the one before.
    bool walk(Totals *totals)
    {
        std::vector<oid> last = settings_.root;
        for (;;) {
            netsnmp_pdu *pdu =
                snmp_pdu_create(settings_.bulk > 0 ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT);
            if (settings_.bulk > 0) {
                pdu->non_repeaters = 0;
                pdu->max_repetitions = settings_.bulk;
            }
            snmp_add_null_var(pdu, last.data(), last.size());
            netsnmp_pdu *response = nullptr;
            const int status = snmp_sess_synch_response(session_, pdu, &response);
            totals->requests++;
            if (status != STAT_SUCCESS || response == nullptr) {
                std::fprintf(stderr, "walker: %s after %s\n",
                             status == STAT_TIMEOUT ? "no answer" : "no response",
                             nameText(last.data(), last.size()).c_str());
                snmp_free_pdu(response);
                return false;
            }
            const Step step = read(response, &last, totals);
            snmp_free_pdu(response);
            if (step != Step::kMore) {
                return step == Step::kEnd;
            }
        }
    }

  private:
    enum class Step { kMore, kEnd, kFailed };

    // Counts the varbinds of `response` that lie in the subtree, each after
    // the one before (`last`, updated).
    Step read(const netsnmp_pdu *response, std::vector<oid> *last, Totals *totals) const
    {
        if (response->errstat != SNMP_ERR_NOERROR) {
            std::fprintf(stderr, "walker: error-status %ld (%s) at index %ld after %s\n",
                         response->errstat, snmp_errstring(static_cast<int>(response->errstat)),
                         response->errindex, nameText(last->data(), last->size()).c_str());
            return Step::kFailed;
        }
        if (response->variables == nullptr) {
            std::fprintf(stderr, "walker: an answer without varbinds after %s\n",
                         nameText(last->data(), last->size()).c_str());
            return Step::kFailed;
        }
        const std::vector<oid> &root = settings_.root;
        for (const netsnmp_variable_list *var = response->variables; var != nullptr;
             var = var->next_variable) {
            if (var->type == SNMP_ENDOFMIBVIEW || var->type == SNMP_NOSUCHOBJECT ||
                var->type == SNMP_NOSUCHINSTANCE || var->name_length < root.size() ||
                snmp_oid_compare(var->name, root.size(), root.data(), root.size()) != 0) {
                return Step::kEnd;
            }
            if (snmp_oid_compare(var->name, var->name_length, last->data(), last->size()) <= 0) {
                std::fprintf(stderr, "walker: %s does not follow %s\n",
                             nameText(var->name, var->name_length).c_str(),
                             nameText(last->data(), last->size()).c_str());
                return Step::kFailed;
            }
            last->assign(var->name, var->name + var->name_length);
            totals->varbinds++;
        }
        return Step::kMore;
    }

    Settings settings_;
    void *session_ = nullptr;
};

} // namespace

int main(int argc, char **argv)
{
    const Settings settings = parseArguments(argc, argv);
    // Names are numeric, and the answers are never printed: net-snmp would
    // only read and complain about every MIB file installed.
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    init_snmp("walker");

    Totals totals;
    bool ok = true;
    std::chrono::steady_clock::duration elapsed{};
    {
        Walker walker(settings);
        for (unsigned long i = 0; ok && i < settings.repeat; i++) {
            const auto start = std::chrono::steady_clock::now();
            ok = walker.walk(&totals);
            elapsed += std::chrono::steady_clock::now() - start;
        }
    }
    snmp_shutdown("walker");
    if (!ok) {
        return 1;
    }
    const double seconds = std::chrono::duration<double>(elapsed).count();
    std::printf("%lu varbinds %lu requests %.6f s %.0f varbinds/s\n", totals.varbinds,
                totals.requests, seconds, seconds > 0 ? double(totals.varbinds) / seconds : 0.0);
    return 0;
}
