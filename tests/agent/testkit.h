// What the integration tests of kelpagent share: temporary dirs, free
// loopback ports, child processes that are always reaped, net-snmp's client
// tools run with a private configuration, and a running kelpagent.
#ifndef KELP_TESTS_AGENT_TESTKIT_H
#define KELP_TESTS_AGENT_TESTKIT_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelp::test {

using namespace std::chrono_literals;

// The MIB root as the client tools print it (-On).
inline constexpr const char *kRoot = "1.3.6.1.4.1.61234.20571.1.20";

// A fresh directory under /tmp (short, for Unix socket paths), removed with
// everything in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A UDP or TCP port on 127.0.0.1 that nobody had bound a moment ago.
int freeUdpPort();
int freeTcpPort();

std::string readFile(const std::string &path);

// How many times `needle` stands in `text`, not overlapping.
size_t countOf(const std::string &text, const std::string &needle);
void writeFile(const std::string &path, const std::string &text);

// Polls `done` every 50 ms until it holds or `limit` passes.
bool waitFor(const std::function<bool()> &done, std::chrono::milliseconds limit);

// A child process with stdout and stderr in files; killed (SIGKILL) and
// reaped by the destructor if still running.
class Process {
  public:
    // Starts argv[0] (a path) with the environment plus `env` ("NAME=value").
    Process(const std::vector<std::string> &argv, const std::vector<std::string> &env,
            const std::string &outFile, const std::string &errFile);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    void signal(int sig);
    // The exit status (0-255), 128 + signal for a killed child, or nullopt
    // when still running after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit);
    std::string out() const { return readFile(outFile_); }
    std::string err() const { return readFile(errFile_); }

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
    std::string outFile_, errFile_;
};

struct RunResult {
    int status = -1; // exit status; -1 when it had to be killed
    std::string out, err;
};

// Runs a command to its end, killed after `limit`.
RunResult run(const std::vector<std::string> &argv, const std::vector<std::string> &env,
              const TempDir &dir, std::chrono::milliseconds limit = 15s);

// Environment for net-snmp programs started by a test: their configuration
// and persistent files in `dir` (no MIB files read, nothing written to
// /var/lib/snmp).
std::vector<std::string> snmpEnv(const TempDir &dir);

// Environment for a kelpagent started by a test (sanitizer settings).
std::vector<std::string> agentEnv();

// Paths of the things under test (from the build; KELP_TEST_MODULE names
// another plug-in to test).
std::string kelpagentPath();
std::string kelpctlPath();
std::string modulePath();
std::string sourcePath(const std::string &relative);

// One of net-snmp's tools against 127.0.0.1:port, with -On -Oe -t 2 -r 1
// and the given version and community before `args`.
RunResult snmp(const TempDir &dir, const std::string &tool, const std::string &version,
               const std::string &community, int port, const std::vector<std::string> &args);

// The same against any agent address (net-snmp's transport syntax, for
// example "udp6:[::1]:1161").
RunResult snmpAt(const TempDir &dir, const std::string &tool, const std::string &version,
                 const std::string &community, const std::string &target,
                 const std::vector<std::string> &args);

// True when this machine has the IPv6 loopback address (a UDP socket binds
// to [::1]).
bool haveIpv6Loopback();

// A kelpagent on a free loopback port with its state dir in a temp dir.
class AgentUnderTest {
  public:
    AgentUnderTest() = default;
    ~AgentUnderTest();

    // Every test passes --allow-root: CI runs as root, and the option
    // changes nothing for another user.
    // Starts kelpagent --allow-root --state-dir <dir>/state --listen <listen(port)>
    // --model <model> (none when empty) --module <module> plus `extra`, with the environment
    // plus `env`, and waits until it logs that it answers and its first Get
    // is no longer genErr (tables built). False with the reason in *why.
    bool start(const std::string &model, const std::vector<std::string> &extra, std::string *why,
               const std::vector<std::string> &env = {});

    // The same with the data source given by `args` instead of --model
    // (for example {"--model", FILE} plus options): kelpagent --state-dir
    // <dir>/state --listen <listen(port)> --module <module> plus args.
    bool startWith(const std::vector<std::string> &args, std::string *why,
                   const std::vector<std::string> &env = {});

    // The --listen value for a port; udp:127.0.0.1:<port> unless set
    // before start().
    std::function<std::string(int port)> listen = [](int port) {
        return "udp:127.0.0.1:" + std::to_string(port);
    };
    // The community start() asks with (give the agent --community too).
    std::string startCommunity = "public";
    // SIGTERM; the exit status, or -1 when it did not stop within 15 s.
    int stop(int sig = 15);

    int port() const { return port_; }
    const TempDir &dir() const { return dir_; }
    std::string stateDir() const { return dir_ / "state"; }
    Process *process() { return process_.get(); }

    // A tool against the first address of listen(port()).
    RunResult snmp(const std::string &tool, const std::vector<std::string> &args,
                   const std::string &version = "2c", const std::string &community = "public");

    // kelpctl `words` against the agent's control socket.
    RunResult kelpctl(const std::vector<std::string> &words);

    // The same command written to the control socket directly, as kelpctl
    // sends it (each word double-quoted and escaped, on one line), for tests
    // that send many: the whole answer (output lines, then "ok" or
    // "error: ..."), empty when the socket cannot be reached.
    std::string control(const std::vector<std::string> &words) const;

    // True when the plug-in resolves names: root.3.0 answers "Vorn Inc.".
    bool moduleAnswersValues();

  private:
    TempDir dir_;
    int port_ = 0;
    std::unique_ptr<Process> process_;
};

// A snmptrapd on a free loopback port writing one line per trap into
// <dir>/traps.log: "v=VERSION gen=GENERIC specific=SPECIFIC vbs=BINDINGS",
// names numeric.
class TrapReceiver {
  public:
    explicit TrapReceiver(const TempDir &dir);
    ~TrapReceiver();
    TrapReceiver(const TrapReceiver &) = delete;
    TrapReceiver &operator=(const TrapReceiver &) = delete;

    bool ready() const { return ready_; }
    std::string sink() const { return "udp:127.0.0.1:" + std::to_string(port_); }
    std::string log() const;

  private:
    const TempDir &dir_;
    int port_;
    bool ready_ = false;
    std::unique_ptr<Process> process_;
};

// Fails the test when the plug-in does not answer root.3.0 with its vendor
// text: every later check would only repeat that failure.
#define KELP_REQUIRE_MODULE_VALUES(agent)                                                          \
    ASSERT_TRUE((agent).moduleAnswersValues())                                                     \
        << "the plug-in does not answer " << kRoot << ".3.0 with \"Vorn Inc.\""

// True when kelpagent's log `log` reports no genErr but the lock's: the
// agent logs the cause of every genErr it answers, and one the plug-in
// caused is never expected while the model changes.
bool genErrsWereTheLocks(const std::string &log);

// The JOURNAL_STREAM setting systemd would hand `agent` when its stderr is
// the journal's stream: the device and inode of the file start() sends its
// stderr to, created here so that it has them.
std::string journalStream(const AgentUnderTest &agent);

} // namespace kelp::test

#endif // KELP_TESTS_AGENT_TESTKIT_H
